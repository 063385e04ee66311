#pragma once

#include <fmt/format.h>

#include <memory>
#include <string>
#include <vector>

#include "engine/task/CBackupTask.h"
#include "platform/framework/HeadlessMessagebox.h"
#include "platform/framework/LocalFileSource.h"
#include "platform/framework/NimboMessagebox.h"
#include "platform/framework/SessionFixture.h"
#include "platform/framework/TransferInfo.h"
#include "platform/os/Clock.h"
#include "platform/os/SystemLog.h"
#include "platform/os/UrlOpener.h"
#include "support/CErrorLog.h"

namespace cirrovault::test {

// What a task-list record holds of a task besides its dates, in one line.
inline std::string recordOf(const CBackupTask& t) {
    return fmt::format("{}|{}|{}|{}|{}|{}|enc {}|{}|{}|max {}|resume {}|pc {}|migrate {}|state {}",
                       t.taskID, t.name, t.description, t.mPCName, t.taskType, t.serverPath,
                       t.bEncryMode, fmt::join(t.filterExt, ","), fmt::join(t.filtedPath, ","),
                       t.uiMaxVersion, t.bResume, t.pcID, t.bMigrateTask, t.mTaskState.load());
}

// A logged-on session for runs of tasks: dialogs that take their default answers, no
// browser, the log captured. A fixture that sets a clock in its SetUp has it taken away
// here.
class EngineSession : public SessionFixture {
protected:
    void SetUp() override {
        SessionFixture::SetUp();
        NimboMessagebox::setPresenter(dialogs_);
        UrlOpener::setOpenerProgram("true");
        SystemLog::startCapture();
    }
    void TearDown() override {
        SystemLog::stopCapture();
        UrlOpener::setOpenerProgram("");
        NimboMessagebox::setPresenter(nullptr);
        Clock::setShared(nullptr);
        SessionFixture::TearDown();
    }

    // One whole run of the task on its worker, closing notices included.
    static void runToEnd(CBackupTask& task) {
        task.StartBackup(false);
        std::shared_ptr<Thread> worker = task.pBackupTaskThread;
        task.checkFinshedBackup();
        if (worker)
            worker->join();
    }
    // The stored copy's content, or "<missing>".
    std::string fetch(const std::string& serverPath) {
        TransferInfo transfer;
        transfer.setSvrFile(serverPath);
        transfer.setLocFile(home_.file("fetched"));
        if (api().DownloadFile(transfer) != ResultCode::Success)
            return "<missing>";
        return readFile(home_.file("fetched"));
    }
    // A copy on the store as an earlier run would have left it; the counts start afresh.
    void putCopy(const std::string& serverPath, const std::string& content, double time) {
        auto source = LocalFileSource::open(makeFile("staging/copy", content, time));
        ASSERT_TRUE(source);
        ASSERT_EQ(local_->put(serverPath, *source, Date(time), nullptr), ResultCode::Success);
        tree().RefreshSvrPath("\\");
        store_->resetCounts();
    }
    bool exists(const std::string& serverPath) {
        StoreItem item;
        return local_->stat(serverPath, item) == ResultCode::Success;
    }
    // The event-log lines that contain text (and start with prefix).
    static size_t eventsContaining(const std::string& text, const std::string& prefix = "") {
        size_t n = 0;
        for (const auto& line : CErrorLog::GetErrorList().value_or(std::vector<std::string>{}))
            n += line.starts_with(prefix) && line.find(text) != std::string::npos;
        return n;
    }

    std::shared_ptr<HeadlessMessagebox> dialogs_ = std::make_shared<HeadlessMessagebox>();
};

} // namespace cirrovault::test
