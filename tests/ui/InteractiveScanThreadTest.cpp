#include <fstream>

#include <gtest/gtest.h>

#include "common/TempHome.h"
#include "engine/task/CBackupTask.h"
#include "platform/os/Clock.h"
#include "platform/view/ViewLayout.h"
#include "platform/view/headless/HeadlessViewBackend.h"
#include "ui/LoopDlgController.h"

using namespace cirrovault;

class InteractiveScanThreadTest : public ::testing::Test {
protected:
    void SetUp() override {
        // The scan gives the dialog time to come up; a manual clock makes that instant.
        Clock::setShared(std::make_shared<ManualClock>());
        for (int f = 0; f < 150; ++f) {
            std::string folder = home.file("src/d" + std::to_string(f % 3));
            FileSystem::createDirectories(folder);
            std::ofstream(folder + "/f" + std::to_string(f) + ".txt") << "data " << f;
        }
        task.localDirList = {home.file("src")};
    }
    void TearDown() override {
        CLoopItem::setFactory(nullptr);
        Clock::setShared(nullptr);
    }
    // The totals the scan page showed, on a fresh dialog that presses Cancel after cancelAfter.
    std::vector<std::string> scan(bool expected, size_t cancelAfter) {
        auto backend = std::make_shared<HeadlessViewBackend>();
        LoopDlgController::installFactory(backend);
        backend->pressAfterTexts(ViewLayout::LoopDialog, ViewOutlet::TotalFilesCount, cancelAfter, ViewButton::Cancel);
        EXPECT_EQ(task.StartScanFile(), expected);
        EXPECT_EQ(backend->pressesOf(ViewLayout::LoopDialog, ViewButton::Cancel), expected ? 0u : 1u);
        return backend->textsOf(ViewLayout::LoopDialog, ViewOutlet::TotalFilesCount);
    }

    test::TempHome home;
    CBackupTask task;
};

TEST_F(InteractiveScanThreadTest, ScanPageShowsTotalsAndCancelEmptiesTheList) {
    auto totals = scan(true, 1000);
    ASSERT_FALSE(totals.empty());
    EXPECT_EQ(totals.back(), "150");
    EXPECT_LT(scan(false, 20).size(), 150u); // stopped well before the end
    EXPECT_TRUE(task.scanFileArray.empty());
}
