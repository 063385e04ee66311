#include <gtest/gtest.h>

#include "common/EngineSession.h"
#include "common/LocalDate.h"
#include "platform/framework/LoadString.h"
#include "platform/view/ViewLayout.h"
#include "platform/view/headless/HeadlessViewBackend.h"
#include "service/CManageTaskList.h"
#include "ui/CreateViewXibController.h"

using namespace cirrovault;

using test::localDate;

class RecordingStepDelegate : public CreateViewXibControllerDelegate {
public:
    bool GoToTaskStep2Delegate(CreateViewXibController& controller) override {
        directions.push_back(controller.nTaskStep1ButtonType);
        return answer;
    }
    std::vector<int32_t> directions;
    bool answer = true;
};

class CreateTaskWizardTest : public test::EngineSession {
protected:
    void SetUp() override {
        Clock::setShared(clock);
        EngineSession::SetUp();
        controller = std::make_unique<CreateViewXibController>(backend);
        controller->setDelegate(&host);
    }
    void TearDown() override {
        controller.reset();
        EngineSession::TearDown();
    }

    // The string-table keys of the notices shown since the last call.
    std::vector<std::string> shownKeys() {
        std::vector<std::string> found;
        for (const auto& shown : dialogs_->shown()) {
            found.push_back("<" + shown.text + ">");
            for (const char* key : {"EmptyTaskName", "DescriptionsEmpty", "TaskNameInvaild", "IDS_MSGSELFOLDER",
                                    "IDS_STRING_EMPTY", "IDS_MSGDUPNAME"})
                if (shown.text == LoadString::GetValueByKey(key, "") && shown.style == MessageboxStyle::Notice)
                    found.back() = key;
        }
        dialogs_->clearShown();
        return found;
    }
    std::vector<std::string> next(const std::string& name, const std::string& description) {
        controller->setSetp1TaskName(name);
        controller->setStep1Description(description);
        controller->pStep1View->window()->press(ViewButton::Next);
        return shownKeys();
    }
    std::string tickNewFolder(const std::string& name) {
        std::string folder = home_.file(name);
        EXPECT_TRUE(FileSystem::createDirectories(folder));
        auto& browser = *controller->pFilePathView;
        EXPECT_TRUE(browser.openFolder(home_.path()));
        for (size_t i = 0; i < browser.rows().size(); ++i)
            if (browser.rows()[i].filePath == folder)
                browser.setTicked(i, true);
        return folder;
    }
    void addServiceTask(const std::string& name, uint64_t pcID, const std::string& pcName) {
        TaskListEntry task;
        task.taskID = static_cast<int32_t>(pcID);
        task.pcID = pcID;
        task.name = task.description = name;
        task.mPCName = pcName;
        task.serverPath = "\\Backup\\" + name;
        ASSERT_EQ(CManageTaskList().addOrEditBackupTask(task, "Add", "", "", ""), 0);
    }

    // Wednesday 8 May 2024, 09:30:20.5 local time.
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>(localDate(2024, 5, 8, 9, 30, 20.5));
    std::shared_ptr<HeadlessViewBackend> backend = std::make_shared<HeadlessViewBackend>();
    RecordingStepDelegate host;
    std::unique_ptr<CreateViewXibController> controller;
};

TEST_F(CreateTaskWizardTest, ChecksRefuseInOrderWithTheirKeys) {
    // No task under creation: Next does nothing at all.
    EXPECT_TRUE(next("Docs", "My documents").empty());
    EXPECT_TRUE(host.directions.empty());

    ASSERT_TRUE(controller->createTaskName());
    std::string proposed = controller->getStep1TaskName();
    EXPECT_EQ(proposed, controller->pBackupManage->getCreateNewTaskName());
    EXPECT_FALSE(proposed.empty());
    EXPECT_EQ(controller->getStep1TaskDescription(), proposed);

    // A blank name is not empty; the description is checked before the name's letters;
    // the last: nothing ticked.
    for (auto [name, description, key] : {std::tuple{"", "", "EmptyTaskName"}, {"", "Fine", "EmptyTaskName"},
                                          {"   ", "Fine", "TaskNameInvaild"}, {"Docs", "", "DescriptionsEmpty"},
                                          {"Docs", " \t ", "DescriptionsEmpty"}, {"My.Task", "  ", "DescriptionsEmpty"},
                                          {"My.Task", "Fine", "TaskNameInvaild"}, {"a$b", "Fine", "TaskNameInvaild"},
                                          {"Docs", "Fine", "IDS_MSGSELFOLDER"}})
        EXPECT_EQ(next(name, description), std::vector<std::string>{key}) << name << "|" << description;

    // A new task started afresh keeps nothing of the refused attempts.
    ASSERT_TRUE(controller->createTaskName());
    EXPECT_EQ(controller->getStep1TaskName(), proposed);
    EXPECT_TRUE(host.directions.empty());
    EXPECT_EQ(controller->nTaskStep1ButtonType, 0);
}

TEST_F(CreateTaskWizardTest, NamesTakenOnTheServiceAreRefusedExactlyAndAnUnreadableListStops) {
    addServiceTask("Docs", 11, "this-pc");
    addServiceTask("Photos", 99, "other-pc"); // another computer of the account
    ASSERT_TRUE(controller->createTaskName());
    std::string folder = tickNewFolder("Projects");

    std::string taken; // empty names never match
    for (const char* name : {"Docs", "Photos", "docs", "Docs ", ""})
        taken += std::to_string(controller->IsCreateTaskValid(name));
    EXPECT_EQ(taken, "11000");

    EXPECT_EQ(next("Docs", "Mine"), std::vector<std::string>{"IDS_MSGDUPNAME"});
    EXPECT_EQ(next("Photos", "Mine"), std::vector<std::string>{"IDS_MSGDUPNAME"});
    EXPECT_TRUE(host.directions.empty());

    // Letter case makes a different name.
    EXPECT_TRUE(next("docs", "Mine").empty());
    EXPECT_EQ(host.directions, std::vector<int32_t>{1});
    auto task = controller->pBackupManage->GetNewTask();
    ASSERT_TRUE(task && task->localDirList.size() == 1);
    EXPECT_EQ(task->name + " " + task->localDirList[0].path(), "docs " + folder);

    // A list that cannot be read says so, once for the check and once for Next, which stops
    // there without a duplicate-name message of its own.
    api().Logoff();
    EXPECT_EQ(controller->IsCreateTaskValid("Docs"), -1);
    const std::string unreadable = "<" + CManageTaskList().showManageTaskListResult(1, 1) + ">";
    EXPECT_EQ(next("Photos", "Mine"), (std::vector<std::string>{unreadable, unreadable}));
    EXPECT_EQ(host.directions, std::vector<int32_t>{1});
}

TEST_F(CreateTaskWizardTest, FirstRunForEachScheduleTypeAndTheAcceptedStepHandsTrimmedValuesToTheManager) {
    ASSERT_TRUE(controller->createTaskName());
    tickNewFolder("Travel");
    // The proposed time: the current whole minute plus half an hour, on a Wednesday.
    controller->initBackupDate();
    const Date picked = controller->pStep1View->backupDate();
    EXPECT_EQ(picked, localDate(2024, 5, 8, 10, 0, 0));
    // Weekly: Tuesday is 6 days ahead, Wednesday 0, Monday 5, plus a week. Date-range and
    // daily tasks: one day on, whatever the weekday list says.
    for (auto [type, day, days, weekly] : {std::tuple{2, 2, 13, true}, {2, 3, 7, true}, {2, 1, 12, true},
                                           {3, 5, 1, false}, {1, 1, 1, false}}) {
        controller->setBackupTypeMode(type);
        controller->pStep1View->selectDayIndex(day);
        EXPECT_EQ(controller->getStep1Dating(), picked.addingTimeInterval(days * 86400)) << type << " " << day;
        EXPECT_EQ(controller->pStep1View->isDaysPopupEnabled(), weekly);
    }
    EXPECT_EQ(controller->pStep1View->schTime, picked.addingTimeInterval(86400));
    EXPECT_EQ(controller->getStep1SelectBackupDay(), 5);

    // Weekly on Monday at 10:00, chosen in the window.
    controller->pStep1View->selectTypeTag(2);
    controller->pStep1View->window()->press(ViewOutlet::BackupTypeMatrixRadio);
    EXPECT_TRUE(controller->pStep1View->isDaysPopupEnabled());

    EXPECT_TRUE(next("  Travel", "\tTrip photos ").empty());
    EXPECT_EQ(host.directions, std::vector<int32_t>{1});
    EXPECT_EQ(controller->taskName, "Travel");
    auto task = controller->pBackupManage->GetNewTask();
    ASSERT_TRUE(task);
    EXPECT_EQ(task->name + "|" + task->description + "|" + std::to_string(task->taskType & 15), "Travel|Trip photos |2");
    // The manager's schedule rules bring the proposal to the next Monday at 10:00.
    EXPECT_EQ(task->mDating, localDate(2024, 5, 13, 10, 0));

    // Back goes the other way through the same delegate; a refusing host is logged.
    host.answer = false;
    controller->pStep1View->window()->press(ViewButton::Back);
    EXPECT_EQ(host.directions, (std::vector<int32_t>{1, 0}));
    EXPECT_EQ(controller->nTaskStep1ButtonType, 0);
    EXPECT_TRUE(SystemLog::capturedContains("Error:backButton: (id)sender,GoToTaskStep2Delegate"));
    EXPECT_TRUE(next("Travel", "Trip").empty());
    EXPECT_TRUE(SystemLog::capturedContains("Error:nextButton: (id)sender, GoToTaskStep2Delegate."));

    // Saturday from a Saturday, and Sunday from a Saturday.
    clock->set(localDate(2024, 5, 11, 23, 59, 59));
    controller->pStep1View->selectDayIndex(6);
    EXPECT_EQ(controller->getStep1SelectBackupDay(), 0);
    controller->pStep1View->selectDayIndex(0);
    EXPECT_EQ(controller->getStep1SelectBackupDay(), 1);
}
