#include <gtest/gtest.h>

#include <thread>

#include "platform/framework/HeadlessMessagebox.h"
#include "platform/framework/NimboMessagebox.h"
#include "platform/os/SystemLog.h"

using namespace cirrovault;

namespace {
int run(const std::string& text, int style) {
    NimboMessagebox box;
    return box.InitWithMessage("Title", text, style).runModal();
}

struct ThrowingPresenter : NimboMessagebox::Presenter {
    static std::runtime_error noDisplay() { return std::runtime_error("no display"); }
    int showMessage(const std::string&, const std::string&, int) override { throw noDisplay(); }
    int showStorageOrder(const std::string&, const std::string&, bool&, int) override {
        throw noDisplay();
    }
    std::string chooseFolder(const std::string&) override { throw noDisplay(); }
};
} // namespace

TEST(Messagebox, HeadlessAnswersScriptThenDefaultsAndAFailingPresenterIsLoggedAndDefaults) {
    auto headless = std::make_shared<HeadlessMessagebox>();
    NimboMessagebox::setPresenter(headless);
    bool box = false;
    EXPECT_EQ(run("notice", MessageboxStyle::Notice), 0);
    EXPECT_TRUE(
        run("try again?", MessageboxStyle::TryAgainOrGiveUp) != MessageboxAnswer::TryAgain &&
        run("sure?", MessageboxStyle::YesNo) != MessageboxAnswer::Yes &&
        run("retry?", MessageboxStyle::RetryCancel) != MessageboxAnswer::Retry &&
        NimboMessagebox::runStorageOrderDialog("", "full", box, 1) != MessageboxAnswer::OrderSpace);
    EXPECT_EQ(NimboMessagebox::runFolderPanel("Pick"), "");
    headless->clearShown();

    for (int answer : {MessageboxAnswer::Retry, MessageboxAnswer::OrderSpace})
        headless->queueAnswer(answer);
    headless->setDefaultAnswer(MessageboxStyle::YesNo, MessageboxAnswer::Yes);
    headless->setFolderPanelPath("/chosen");
    box = true;
    EXPECT_EQ((std::vector{run("first", MessageboxStyle::RetryCancel),
                           NimboMessagebox::runStorageOrderDialog("T", "second", box, 3),
                           run("third", MessageboxStyle::YesNo),
                           run("fourth", MessageboxStyle::RetryCancel)}),
              (std::vector{MessageboxAnswer::Retry, MessageboxAnswer::OrderSpace,
                           MessageboxAnswer::Yes, MessageboxAnswer::Cancel}));
    EXPECT_EQ(NimboMessagebox::runFolderPanel("Pick"), "/chosen");

    auto shown = headless->shown();
    ASSERT_EQ(shown.size(), 5u);
    EXPECT_EQ(shown[0].title + "|" + shown[0].text, "Title|first");
    EXPECT_EQ(std::tie(shown[1].kind, shown[1].checkBox, shown[1].style),
              std::make_tuple(HeadlessMessagebox::Kind::StorageOrder, true, 3));
    EXPECT_EQ(std::tie(shown[4].kind, shown[4].folder),
              std::make_tuple(HeadlessMessagebox::Kind::FolderPanel, "/chosen"));

    NimboMessagebox::setPresenter(std::make_shared<ThrowingPresenter>());
    SystemLog::startCapture();
    box = false;
    EXPECT_EQ(std::make_pair(run("x", MessageboxStyle::YesNo),
                             NimboMessagebox::runStorageOrderDialog("", "x", box, 0)),
              std::make_pair(HeadlessMessagebox::defaultAnswerForStyle(2), 0));
    EXPECT_EQ(NimboMessagebox::runFolderPanel("x"), "");
    EXPECT_EQ(SystemLog::capturedCount("Error: NimboMessagebox::runModal"), 1u);
    SystemLog::stopCapture();
    NimboMessagebox::setPresenter(nullptr);
    EXPECT_NE(NimboMessagebox::presenter(), nullptr); // the built-in one is back
}

TEST(MessageboxConcurrency, BoxesFromManyThreadsWhilePresentersChange) {
    auto first = std::make_shared<HeadlessMessagebox>(), second = std::make_shared<HeadlessMessagebox>();
    for (auto& box : {first, second})
        box->setDefaultAnswer(MessageboxStyle::YesNo, MessageboxAnswer::Yes);
    NimboMessagebox::setPresenter(first);
    constexpr int threads = 4, perThread = 200;
    std::atomic<int> yes{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&] {
            for (int i = 0; i < perThread; ++i)
                if (run("q", MessageboxStyle::YesNo) == MessageboxAnswer::Yes)
                    ++yes;
        });
    for (int i = 0; i < 50; ++i)
        NimboMessagebox::setPresenter(i % 2 ? first : second);
    for (auto& worker : workers)
        worker.join();
    EXPECT_EQ(yes.load(), threads * perThread);
    EXPECT_EQ(first->shown().size() + second->shown().size(), size_t{threads * perThread});
    NimboMessagebox::setPresenter(nullptr);
}
