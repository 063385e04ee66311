#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include <gtest/gtest.h>

#include "common/TempHome.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"
#include "platform/view/ViewLayout.h"
#include "platform/view/headless/HeadlessViewBackend.h"
#include "platform/view/terminal/TerminalViewBackend.h"
#include "ui/FilePathTableViewController.h"
#include "ui/ImageAndTextCell.h"

using namespace cirrovault;

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

TEST(ImageAndTextCellTest, RowsFitTheirWidthWithoutSplittingCharacters) {
    FileAttributeNode node("Überweisungen und Kontoauszüge der letzten zwanzig Jahre", "Jan 5, 2024, 3:04 PM",
                           "--", "Folder", "/home/u", "/home/u/x", "");
    std::string row = ImageAndTextCell::drawRow(node, 78);
    EXPECT_EQ(row.rfind("[ ] D Überweisungen", 0), 0u);
    EXPECT_NE(row.find("Jan 5, 2024, 3:04 PM"), std::string::npos);
    EXPECT_EQ(ImageAndTextCell::fit("ääääää", 4), "äää~");
    EXPECT_EQ(ImageAndTextCell::fit("ab", 4, true), "ab  ");
    node.bSelect = true;
    EXPECT_EQ(ImageAndTextCell::drawRow(node, 20), "[x] D Überweisungen~");
}

TEST(TerminalBrowserRenderTest, ListScrollsToKeepTheHighlightedRowInView) {
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
