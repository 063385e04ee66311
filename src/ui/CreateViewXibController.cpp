#include "ui/CreateViewXibController.h"

#include "platform/framework/LoadString.h"
#include "platform/framework/NimboMessagebox.h"
#include "platform/os/Calendar.h"
#include "platform/os/Guarded.h"
#include "platform/os/SystemLog.h"
#include "platform/view/ViewLayout.h"
#include "service/CManageTaskList.h"
#include "support/GlobalFunction.h"

namespace cirrovault {

namespace {

constexpr double OneDay = 86400;
constexpr double OneWeek = 604800;
// A new task is proposed for half an hour from now.
constexpr double ProposedDelay = 1800;

bool isBlank(const std::string& text) {
    return GlobalFunction::stringByTrimmingLeadingWhitespace(text).empty();
}

} // namespace

CreateViewXibController::CreateViewXibController(std::shared_ptr<ViewBackend> backend)
    : pBackupManage(std::make_unique<CBackupManage>()),
      pStep1View(std::make_unique<CreateTaskStep1>(backend)),
      pFilePathView(std::make_unique<FilePathTableViewController>(pStep1View->backend())) {
    const auto& window = pStep1View->window();
    window->setAction(ViewButton::Next, [this] { nextButton(); });
    window->setAction(ViewButton::Back, [this] { backButton(); });
    window->setAction(ViewOutlet::BackupTypeMatrixRadio,
                      [this] { setBackupTypeMode(pStep1View->selectedTypeTag()); });
}

void CreateViewXibController::showMessage(const char* key) {
    GlobalFunction::MessageBox(LoadString::GetValueByKey(key, ""), MessageboxStyle::Notice);
}

bool CreateViewXibController::createTaskName() {
    return guarded("Error: CreateViewXibController::createTaskName", false, [&] {
        pBackupManage->CancelNewTask();
        if (!pBackupManage->BeginNewTask())
            return false;
        std::string proposed = pBackupManage->getCreateNewTaskName();
        setSetp1TaskName(proposed);
        setStep1Description(proposed);
        initBackupDate();
        return true;
    });
}

void CreateViewXibController::nextButton() {
    guarded("Error: CreateViewXibController::nextButton", [&] {
        CBackupManage& manager = *pBackupManage;
        if (!manager.IsCreateingTask())
            return;
        std::string name = getStep1TaskName();
        std::string description = getStep1TaskDescription();
        if (name.empty()) {
            showMessage("EmptyTaskName");
            return;
        }
        if (description.empty() || isBlank(description)) {
            showMessage("DescriptionsEmpty");
            return;
        }
        if (!GlobalFunction::ValidNameFmt(name) || isBlank(name)) {
            showMessage("TaskNameInvaild");
            return;
        }
        manager.InitLocalFolderlist(pFilePathView->getNeedBackupFilePath());
        if (!manager.hasLocalFolderSel()) {
            showMessage("IDS_MSGSELFOLDER");
            return;
        }
        // Cannot fail after the checks above; kept as a last guard before the service.
        if (name.empty() || description.empty()) {
            showMessage("IDS_STRING_EMPTY");
            return;
        }
        int taken = IsCreateTaskValid(name);
        if (taken == -1)
            return; // the user has seen why
        if (taken == 1) {
            showMessage("IDS_MSGDUPNAME");
            return;
        }
        taskName = GlobalFunction::stringByTrimmingLeadingWhitespace(name);
        manager.SetTaskName(taskName);
        manager.SetTaskDescription(GlobalFunction::stringByTrimmingLeadingWhitespace(description));
        manager.setType(getStep1BackupType());
        manager.SetManagerDating(getStep1Dating());
        nTaskStep1ButtonType = 1;
        if (!delegate || !delegate->GoToTaskStep2Delegate(*this))
            SystemLog::write("Error:nextButton: (id)sender, GoToTaskStep2Delegate.");
    });
}

void CreateViewXibController::backButton() {
    guarded("Error: CreateViewXibController::backButton", [&] {
        nTaskStep1ButtonType = 0;
        if (!delegate || !delegate->GoToTaskStep2Delegate(*this))
            SystemLog::write("Error:backButton: (id)sender,GoToTaskStep2Delegate");
    });
}

int CreateViewXibController::IsCreateTaskValid(const std::string& name) {
    return guarded("Error: CreateViewXibController::IsCreateTaskValid", -1, [&] {
        CManageTaskList list;
        int32_t code = list.getTaskNames("true");
        if (code != 0) {
            GlobalFunction::MessageBox(list.showManageTaskListResult(code, 1), MessageboxStyle::Notice);
            return -1;
        }
        for (const std::string& existing : list.taskNamesArray)
            if (!existing.empty() && existing == name)
                return 1;
        return 0;
    });
}

std::string CreateViewXibController::getStep1TaskName() const {
    return pStep1View->taskNameField();
}

std::string CreateViewXibController::getStep1TaskDescription() const {
    return pStep1View->descriptionField();
}

void CreateViewXibController::setSetp1TaskName(const std::string& name) {
    pStep1View->setTaskNameField(name);
}

void CreateViewXibController::setStep1Description(const std::string& description) {
    pStep1View->setDescriptionField(description);
}

int32_t CreateViewXibController::getStep1BackupType() const {
    return pStep1View->selectedTypeTag();
}

int32_t CreateViewXibController::getStep1SelectBackupDay() const {
    int32_t index = pStep1View->selectedDayIndex();
    return (index + 8 - Calendar::weekday(Date::now())) % 7;
}

Date CreateViewXibController::getStep1Dating() {
    return guarded("Error: CreateViewXibController::getStep1Dating", pStep1View->backupDate(), [&] {
        Date dating = pStep1View->backupDate();
        int32_t type = getStep1BackupType();
        if (type == CreateTaskStep1::WeeklyTag)
            dating = dating.addingTimeInterval(getStep1SelectBackupDay() * OneDay);
        // Always one period on: the manager's schedule rules then settle the real first run.
        dating = dating.addingTimeInterval(type == CreateTaskStep1::WeeklyTag ? OneWeek : OneDay);
        pStep1View->schTime = dating;
        return dating;
    });
}

void CreateViewXibController::initBackupDate() {
    guarded("Error: CreateViewXibController::initBackupDate", [&] {
        pStep1View->setBackupDate(Calendar::startOfMinute(Date::now()).addingTimeInterval(ProposedDelay));
    });
}

void CreateViewXibController::setBackupTypeMode(int32_t tag) {
    guarded("Error: CreateViewXibController::setBackupTypeMode", [&] {
        pStep1View->selectTypeTag(tag);
        pStep1View->setDaysPopupEnabled(tag == CreateTaskStep1::WeeklyTag);
    });
}

int64_t CreateViewXibController::logon(const std::string& userName, const std::string& userPassword) {
    return guarded("Error: CreateViewXibController::logon", int64_t{3},
                   [&] { return pBackupManage->Mylogon(userName, userPassword); });
}

void CreateViewXibController::signup(const std::string& userName, const std::string& userPassword,
                                     const std::string& emailAddress) {
    guarded("Error: CreateViewXibController::signup",
            [&] { pBackupManage->MySignup(userName, userPassword, emailAddress); });
}

std::vector<CBackupManage::TaskPtr> CreateViewXibController::getTaskList() {
    return guarded("Error: CreateViewXibController::getTaskList", std::vector<CBackupManage::TaskPtr>(),
                   [&] { return pBackupManage->getTasksList(); });
}

bool CreateViewXibController::refreshTaskList() {
    return guarded("Error: CreateViewXibController::refreshTaskList", false,
                   [&] { return pBackupManage->refreshTaskList(); });
}

CBackupManage::TaskPtr CreateViewXibController::getTaskByName(const std::string& name) {
    return guarded("Error: CreateViewXibController::getTaskByName", CBackupManage::TaskPtr(),
                   [&] { return pBackupManage->GetTaskByName(name); });
}

bool CreateViewXibController::StartBackupByUser(const std::string& name, bool bByChangeEvent) {
    return guarded("Error: CreateViewXibController::StartBackupByUser", false,
                   [&] { return pBackupManage->StartBackupByUser(name, bByChangeEvent); });
}

bool CreateViewXibController::deleteTask(const std::string& name, bool bDeleteServerFile) {
    return guarded("Error: CreateViewXibController::deleteTask", false,
                   [&] { return pBackupManage->BatchDeleteTask(name, bDeleteServerFile); });
}

void CreateViewXibController::pauseUpload(const std::string& name, bool bPause) {
    guarded("Error: CreateViewXibController::pauseUpload", [&] { pBackupManage->pauseUpload(name, bPause); });
}

} // namespace cirrovault
