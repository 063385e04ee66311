#include "TaskCreation.h"

#include <cstdlib>

#include "Credentials.h"
#include "platform/framework/LoadString.h"
#include "platform/os/Calendar.h"
#include "support/CFileInfo.h"
#include "ui/CreateTaskStep1.h"

namespace cirrovault::cli {

namespace {

// The wizard's host side: Next moved on when it was called forward.
class StepWatcher : public CreateViewXibControllerDelegate {
public:
    bool GoToTaskStep2Delegate(CreateViewXibController& controller) override {
        movedOn = controller.nTaskStep1ButtonType == 1;
        return true;
    }
    bool movedOn = false;
};

void tickSource(CreateViewXibController& wizard, const std::string& source) {
    FilePathTableViewController& browser = *wizard.pFilePathView;
    std::string parent = CFileInfo::getMacParentFolder(source);
    if (!browser.openFolder(parent.empty() ? "/" : parent))
        throw CliError(Exit::Usage, text("CliCannotOpen", "the folder {} cannot be read", parent));
    const auto& rows = browser.rows();
    for (size_t i = 0; i < rows.size(); ++i)
        if (rows[i].filePath == source) {
            browser.setTicked(i, true);
            return;
        }
    throw CliError(Exit::Usage, text("CliCannotChoose", "{} cannot be backed up (a hidden or system folder?)", source));
}

} // namespace

std::string TaskCreation::askPassPhrase() {
    if (const char* env = std::getenv("CIRROVAULT_PASSPHRASE"); env && *env)
        return env;
    auto first = Credentials::prompt("Pass phrase for the encrypted task: ");
    if (!first)
        throw CliError(Exit::Usage, text("CliNeedPassPhrase",
                                         "--encrypt needs a pass phrase: set CIRROVAULT_PASSPHRASE or run at a terminal"));
    auto again = Credentials::prompt("The pass phrase again: ");
    if (!again || *again != *first)
        throw CliError(Exit::Usage, text("CliPassPhraseMismatch", "the two pass phrases differ"));
    return *first;
}

void TaskCreation::checkNameLength(const std::string& name) {
    if (name.size() > MaxNameBytes)
        throw CliError(Exit::Usage, text("CliNameTooLong",
                                         "a task name may be at most {} bytes long; this one has {}",
                                         MaxNameBytes, name.size()));
}

HostSession::TaskPtr TaskCreation::create(HostSession& session, const std::string& name,
                                          const TaskInput& input, const std::string& passPhrase) {
    checkNameLength(name);
    CreateViewXibController& wizard = session.wizard();
    CBackupManage& manager = session.manager();
    StepWatcher watcher;
    wizard.setDelegate(&watcher);
    session.clearLastMessage();
    if (!wizard.createTaskName()) {
        std::string why = session.lastMessage();
        throw CliError(Exit::Failed, text("CliCannotBegin", "a new task cannot be made now{}", why.empty() ? "" : ": " + why));
    }
    if (!name.empty())
        wizard.setSetp1TaskName(name);
    wizard.setStep1Description(!input.description.empty() ? input.description : wizard.getStep1TaskName());
    for (const auto& source : input.absoluteSources)
        tickSource(wizard, source);
    // The wizard offers the scheduled kinds; a task without a schedule goes through the
    // same checks as a daily one and drops the schedule afterwards.
    int32_t kind = input.kind.value_or(CBackupTask::ScheduleNone);
    int32_t tag = kind == CBackupTask::ScheduleNone ? CreateTaskStep1::DailyTag : kind;
    wizard.pStep1View->selectTypeTag(tag);
    wizard.setBackupTypeMode(tag);
    Date first = input.firstRun();
    if (input.weekdayNumber)
        wizard.pStep1View->selectDayIndex(*input.weekdayNumber - 1);
    else
        wizard.pStep1View->selectDayIndex(Calendar::weekday(first) - 1);
    if (input.minutes || !input.weekdayNumber) {
        // The picker holds today's date at the chosen time; the weekday list the day.
        DateComponents today = Calendar::components(Date::now());
        DateComponents at = Calendar::components(first);
        today.hour = at.hour;
        today.minute = at.minute;
        today.second = 0;
        wizard.pStep1View->setBackupDate(Calendar::dateFromComponents(today));
    }
    session.clearLastMessage();
    wizard.nextButton();
    wizard.setDelegate(nullptr);
    if (!watcher.movedOn) {
        manager.CancelNewTask();
        std::string why = session.lastMessage();
        throw CliError(Exit::Usage, why.empty() ? text("CliTaskRefused", "the task was refused") : why);
    }
    return finish(session, input, passPhrase);
}

HostSession::TaskPtr TaskCreation::finish(HostSession& session, const TaskInput& input,
                                          const std::string& passPhrase) {
    CBackupManage& manager = session.manager();
    int32_t kind = input.kind.value_or(CBackupTask::ScheduleNone);
    std::string taskName = manager.getCreateNewTaskName();
    if (kind == CBackupTask::ScheduleNone)
        manager.setType(CBackupTask::ScheduleNone);
    if (input.fromDate)
        manager.SetBeginDate(*input.fromDate);
    if (input.untilDate)
        manager.SetEndDate(*input.untilDate);
    manager.SetFilter(input.excludeExt);
    manager.SetFilterPath(input.excludeFolder);
    if (input.encrypt) {
        std::string folder = "\\" + LoadString::GetValueByKey("EncryptionFolder", "");
        manager.SetEncryMode(true);
        manager.setTaskSvrDataFodler(folder);
        manager.SaveEncryKey(passPhrase, folder);
    } else {
        std::string folder = manager.GetSvrDataFolder();
        if (folder.empty()) {
            manager.CancelNewTask();
            throw CliError(Exit::Failed, text("CliNoDataFolder", "the task's folders cannot be made on the service"));
        }
        manager.setTaskSvrDataFodler(folder);
    }
    if (auto made = manager.GetNewTask(); made && input.skipHidden)
        made->taskType |= CBackupTask::SkipHiddenFlag;
    session.clearLastMessage();
    if (!manager.EndNewTask()) {
        manager.CancelNewTask();
        std::string why = session.lastMessage();
        throw CliError(Exit::Failed,
                       text("CliTaskNotMade", "the task \"{}\" was not made: {}", taskName,
                            why.empty() ? text("CliTaskNotMadeWhy",
                                               "its folders hold no file to back up, or the account lacks the space")
                                        : why));
    }
    if (auto made = manager.GetTaskByName(taskName))
        return made;
    // A task whose first run started at once is the working task until the run ends.
    std::lock_guard lock(manager.managerLock);
    if (manager.pWorkingTask && manager.pWorkingTask->name == taskName)
        return manager.pWorkingTask;
    throw CliError(Exit::Failed, text("CliTaskLost", "the task \"{}\" was made but cannot be found", taskName));
}

bool TaskCreation::firstRunStarted(HostSession& session, const HostSession::TaskPtr& task) {
    CBackupManage& manager = session.manager();
    std::lock_guard lock(manager.managerLock);
    return manager.pWorkingTask && manager.pWorkingTask->name == task->name &&
           task->pBackupTaskThread != nullptr;
}

} // namespace cirrovault::cli
