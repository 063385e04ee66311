#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include <gtest/gtest.h>

#include "common/EngineSession.h"
#include "common/LocalDate.h"
#include "common/TempHome.h"
#include "platform/framework/LoadString.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"
#include "platform/view/ViewLayout.h"
#include "platform/view/headless/HeadlessViewBackend.h"
#include "platform/view/terminal/TerminalViewBackend.h"
#include "service/CManageTaskList.h"
#include "ui/CreateViewXibController.h"
#include "ui/FilePathTableViewController.h"
#include "ui/ImageAndTextCell.h"

using namespace cirrovault;


struct RecordingStepDelegate : CreateViewXibControllerDelegate {
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

    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>(test::localDate(2024, 5, 8, 9, 30, 20.5));
    std::shared_ptr<HeadlessViewBackend> backend = std::make_shared<HeadlessViewBackend>();
    RecordingStepDelegate host;
    std::unique_ptr<CreateViewXibController> controller;
};

TEST_F(CreateTaskWizardTest, ChecksRefuseInOrderNamesTakenOnTheServiceExactlyAndAnUnreadableListStops) {
    addServiceTask("Docs", 11, "this-pc");
    addServiceTask("Photos", 99, "other-pc"); // another computer of the account
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
    EXPECT_EQ(picked, test::localDate(2024, 5, 8, 10, 0, 0));
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
    EXPECT_EQ(task->mDating, test::localDate(2024, 5, 13, 10, 0));

    // Back goes the other way through the same delegate; a refusing host is logged.
    host.answer = false;
    controller->pStep1View->window()->press(ViewButton::Back);
    EXPECT_EQ(host.directions, (std::vector<int32_t>{1, 0}));
    EXPECT_EQ(controller->nTaskStep1ButtonType, 0);
    EXPECT_TRUE(SystemLog::capturedContains("Error:backButton: (id)sender,GoToTaskStep2Delegate"));
    EXPECT_TRUE(next("Travel", "Trip").empty());
    EXPECT_TRUE(SystemLog::capturedContains("Error:nextButton: (id)sender, GoToTaskStep2Delegate."));

    // Saturday from a Saturday, and Sunday from a Saturday.
    clock->set(test::localDate(2024, 5, 11, 23, 59, 59));
    controller->pStep1View->selectDayIndex(6);
    EXPECT_EQ(controller->getStep1SelectBackupDay(), 0);
    controller->pStep1View->selectDayIndex(0);
    EXPECT_EQ(controller->getStep1SelectBackupDay(), 1);
}

// The folder picker of the wizard's first step.
class FilePathBrowserTest : public ::testing::Test {
protected:
    void SetUp() override {
        root = home.file("tree");
        for (const char* folder : {"b_dir", "A_dir", ".hidden_dir", "A_dir/deeper"})
            ASSERT_TRUE(FileSystem::createDirectories(root + "/" + folder));
        for (const char* file : {"c.txt", "a.txt", ".hidden", "A_dir/inner.txt"})
            std::ofstream(root + "/" + file) << "data of " << file;
        ASSERT_EQ(::symlink((root + "/b_dir").c_str(), (root + "/link_to_b").c_str()), 0);
        SystemLog::startCapture();
    }
    void TearDown() override { SystemLog::stopCapture(); }

    std::vector<std::string> names() const {
        std::vector<std::string> out;
        for (const auto& row : browser.rows())
            out.push_back(row.name);
        return out;
    }
    size_t rowOf(const std::string& name) const { // past the end when not shown
        const auto& rows = browser.rows();
        return std::find_if(rows.begin(), rows.end(), [&](auto& row) { return row.name == name; }) - rows.begin();
    }

    test::TempHome home;
    std::string root;
    std::shared_ptr<HeadlessViewBackend> backend = std::make_shared<HeadlessViewBackend>();
    FilePathTableViewController browser{backend};
};

TEST_F(FilePathBrowserTest, OpenParentAndTicksThatFollowThePaths) {
    ASSERT_TRUE(browser.openFolder(root));
    // Neither a file nor a row past the end opens.
    EXPECT_FALSE(browser.openRow(rowOf("a.txt")) || browser.openRow(99) || browser.tickRow(99));
    EXPECT_EQ(browser.currentFolder(), root);

    // Keys arrive as button presses: down to b_dir, tick it, down to the link, open it.
    auto window = browser.window();
    for (const char* button : {ViewButton::Down, ViewButton::Tick, ViewButton::Down, ViewButton::Open})
        window->press(button);
    EXPECT_EQ(browser.currentFolder(), root + "/link_to_b");
    EXPECT_TRUE(names().empty());
    window->press(ViewButton::Parent);
    EXPECT_EQ(browser.currentFolder(), root);
    EXPECT_EQ(browser.cursor(), rowOf("link_to_b")); // back on the folder we came from

    ASSERT_TRUE(browser.openRow(rowOf("A_dir")));
    EXPECT_EQ(names(), (std::vector<std::string>{"deeper", "inner.txt"}));
    EXPECT_EQ(browser.pathComponents().front(), root + "/A_dir");
    EXPECT_EQ(browser.pathComponents().back(), "/");
    ASSERT_TRUE(browser.tickRow(rowOf("inner.txt")));
    EXPECT_NE(browser.window()->items(ViewOutlet::Rows)[1].find("[x]"), std::string::npos);
    ASSERT_TRUE(browser.openParent());
    EXPECT_EQ(browser.getNeedBackupFilePath(),
              (std::vector<std::string>{root + "/b_dir", root + "/A_dir/inner.txt"}));
    EXPECT_TRUE(browser.rows()[rowOf("b_dir")].bSelect); // the tick shows again here

    // Ticking twice unticks; the cursor stops at the ends of the list.
    ASSERT_TRUE(browser.tickRow(rowOf("b_dir")));
    EXPECT_EQ(browser.getNeedBackupFilePath(), std::vector<std::string>{root + "/A_dir/inner.txt"});
    browser.moveCursor(-100);
    EXPECT_EQ(browser.cursor(), 0u);
    browser.moveCursor(100);
    EXPECT_EQ(browser.cursor(), browser.rows().size() - 1);
    // A pointer highlights a row in the window itself; the buttons act on that row.
    browser.window()->setValue(ViewOutlet::Cursor, static_cast<double>(rowOf("a.txt")));
    browser.window()->press(ViewButton::Tick);
    EXPECT_TRUE(browser.rows()[rowOf("a.txt")].bSelect);
    EXPECT_EQ(browser.cursor(), rowOf("a.txt"));

    ASSERT_TRUE(browser.openFolder("/"));
    EXPECT_FALSE(browser.openParent());
    EXPECT_EQ(browser.currentFolder(), "/");
}

TEST_F(FilePathBrowserTest, RowsHideDotItemsListFoldersFirstAndAnUnreadableFolderShowsNothing) {
    ASSERT_TRUE(browser.openFolder(root + "/"));
    EXPECT_EQ(browser.currentFolder(), root);
    // A link to a folder sorts and opens as a folder; names compare without case.
    EXPECT_EQ(names(), (std::vector<std::string>{"A_dir", "b_dir", "link_to_b", "a.txt", "c.txt"}));
    const auto& rows = browser.rows();
    EXPECT_EQ(rows[0].kind + " " + rows[0].size + " " + rows[0].fileParentPath + " " + rows[0].filePath,
              "Folder -- " + root + " " + root + "/A_dir");
    EXPECT_EQ(rows[2].ymbolicLinkPath, root + "/b_dir");
    EXPECT_EQ(rows[3].size + "|" + rows[3].ymbolicLinkPath, "13 bytes|");

    auto drawn = browser.window()->items(ViewOutlet::Rows);
    ASSERT_EQ(drawn.size(), rows.size());
    EXPECT_EQ(drawn[0].substr(0, 12) + "|" + drawn[2].substr(0, 15) + "|" + drawn[3].substr(0, 11),
              "[ ] D A_dir/|[ ] @ link_to_b|[ ] - a.txt");
    EXPECT_EQ(browser.window()->text(ViewOutlet::CurrentPath), root);

    browser.tickRow(rowOf("a.txt"));

    EXPECT_FALSE(browser.openFolder(root + "/missing"));
    EXPECT_TRUE(browser.rows().empty() && browser.window()->items(ViewOutlet::Rows).empty());
    EXPECT_NE(browser.window()->text(ViewOutlet::Status).find("missing"), std::string::npos);
    EXPECT_TRUE(SystemLog::capturedContains("Error: cannot read folder " + root + "/missing"));
    EXPECT_FALSE(browser.openFolder(root + "/a.txt")); // not a folder at all
    EXPECT_TRUE(browser.rows().empty());
    browser.moveCursor(1);
    EXPECT_FALSE(browser.tickRow(0));
    EXPECT_TRUE(browser.openParent()); // the way back still works
    EXPECT_EQ(browser.currentFolder(), root);

    if (::geteuid() != 0) { // the superuser reads any folder
        ASSERT_EQ(::chmod((root + "/b_dir").c_str(), 0), 0);
        EXPECT_FALSE(browser.openFolder(root + "/b_dir"));
        EXPECT_TRUE(browser.rows().empty());
        ::chmod((root + "/b_dir").c_str(), 0755);
    }
    // Ticks made before are kept.
    EXPECT_EQ(browser.getNeedBackupFilePath(), std::vector<std::string>{root + "/a.txt"});
}

TEST(TerminalBrowserRows, FitTheirWidthWithoutSplittingCharactersAndScrollToTheHighlightedRow) {
    FileAttributeNode node("Überweisungen und Kontoauszüge der letzten zwanzig Jahre", "Jan 5, 2024, 3:04 PM",
                           "--", "Folder", "/home/u", "/home/u/x", "");
    std::string row = ImageAndTextCell::drawRow(node, 78);
    EXPECT_EQ(row.rfind("[ ] D Überweisungen", 0), 0u);
    EXPECT_NE(row.find("Jan 5, 2024, 3:04 PM"), std::string::npos);
    EXPECT_EQ(ImageAndTextCell::fit("ääääää", 4), "äää~");
    EXPECT_EQ(ImageAndTextCell::fit("ab", 4, true), "ab  ");
    node.bSelect = true;
    EXPECT_EQ(ImageAndTextCell::drawRow(node, 20), "[x] D Überweisungen~");

    // The terminal's list scrolls to keep the highlighted row in view.
    ViewWindow window(ViewLayout::FilePathBrowser);
    std::vector<std::string> rows;
    for (int i = 0; i < 40; ++i)
        rows.push_back("row " + std::to_string(i));
    window.setItems(ViewOutlet::Rows, rows);
    window.setText(ViewOutlet::CurrentPath, "/data");
    window.setValue(ViewOutlet::Cursor, 30);
    auto lines = TerminalViewBackend::render(window, 0);
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](auto& l) { return l.starts_with("> "); }), 1);
    EXPECT_NE(std::find(lines.begin(), lines.end(), "> row 30"), lines.end());
    EXPECT_LT(lines.size(), 25u);
    EXPECT_NE(std::find(lines.begin(), lines.end(), "  /data"), lines.end());
}

TEST_F(FilePathBrowserTest, WithoutATerminalTheBrowserEndsAtOnceWithItsTicks) {
    TerminalViewBackend::Options options;
    options.inputFd = options.outputFd = ::open("/dev/null", O_RDWR);
    ASSERT_GE(options.inputFd, 0);
    auto terminal = std::make_shared<TerminalViewBackend>(options);
    ASSERT_FALSE(terminal->interactive());
    FilePathTableViewController plain(terminal);
    ASSERT_TRUE(plain.openFolder(root));
    plain.tickRow(0);
    plain.runModal(); // returns: nobody is there to press q
    EXPECT_EQ(plain.getNeedBackupFilePath(), std::vector<std::string>{root + "/A_dir"});
    EXPECT_EQ(terminal->modalWindow(), nullptr);
    ::close(options.inputFd);
}
