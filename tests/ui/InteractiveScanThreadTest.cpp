// The interactive scan of a new task runs under the wait dialog's scan page, shows its
// running totals there, and stops when the user presses Cancel.
#include <fstream>
#include <memory>

#include <gtest/gtest.h>

#include "common/TempHome.h"
#include "engine/task/CBackupTask.h"
#include "platform/framework/CLoopItem.h"
#include "platform/os/Clock.h"
#include "platform/os/FileSystem.h"
#include "platform/view/ViewLayout.h"
#include "platform/view/headless/HeadlessViewBackend.h"
#include "ui/LoopDlgController.h"

using namespace cirrovault;

class InteractiveScanThreadTest : public ::testing::Test {
protected:
    void SetUp() override {
        // The scan gives the dialog time to come up; a manual clock makes that instant.
        Clock::setShared(std::make_shared<ManualClock>());
        LoopDlgController::installFactory(backend);
        for (int f = 0; f < 150; ++f) {
            std::string folder = home.file("src/d" + std::to_string(f % 3));
            FileSystem::createDirectories(folder);
            std::ofstream(folder + "/f" + std::to_string(f) + ".txt") << "data " << f;
        }
        task->localDirList = {home.file("src")};
    }
    void TearDown() override {
        CLoopItem::setFactory(nullptr);
        Clock::setShared(nullptr);
    }

    test::TempHome home;
    std::shared_ptr<HeadlessViewBackend> backend = std::make_shared<HeadlessViewBackend>();
    std::shared_ptr<CBackupTask> task = std::make_shared<CBackupTask>();
};

TEST_F(InteractiveScanThreadTest, ScanPageShowsTotalsAndCancelEmptiesTheList) {
    ASSERT_TRUE(task->StartScanFile());
    EXPECT_EQ(task->nScanTotalFiles, 150);
    EXPECT_GE(task->scanFileArray.size(), 150u); // the files, and their folders
    auto texts = [&](const char* outlet) { return backend->textsOf(ViewLayout::LoopDialog, outlet); };
    ASSERT_FALSE(texts(ViewOutlet::TotalFilesCount).empty() || texts(ViewOutlet::TotalSourceFilePath).empty());
    EXPECT_EQ(texts(ViewOutlet::TotalFilesCount).back(), "150");
    EXPECT_TRUE(texts(ViewOutlet::TotalSourceFilePath).front().starts_with(home.file("src")));

    backend = std::make_shared<HeadlessViewBackend>();
    LoopDlgController::installFactory(backend);
    backend->pressAfterTexts(ViewLayout::LoopDialog, ViewOutlet::TotalFilesCount, 20, ViewButton::Cancel);
    EXPECT_FALSE(task->StartScanFile());
    EXPECT_TRUE(task->scanFileArray.empty());
    EXPECT_LT(texts(ViewOutlet::TotalFilesCount).size(), 150u); // stopped well before the end
    EXPECT_EQ(backend->pressesOf(ViewLayout::LoopDialog, ViewButton::Cancel), 1u);
}
