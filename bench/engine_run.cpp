// One backup run of our engine, as one process, for the side-by-side suite (run.sh):
// a task "Bench" backs SOURCE up into the local store in STORE; the engine's own data
// and settings live in STATE. A later call with the same STORE and STATE is the next
// run of the same task (nothing changed, some files touched, ...).
//
// usage: engine_run SOURCE STORE STATE [REPORT]
// Writes one line of key=value pairs to REPORT (or stdout):
//   work=    seconds from StartBackup to the return of checkFinshedBackup (the run's work)
//   whole=   seconds until the worker ended (includes the fixed 2 s closing pause)
//   uploads= files whose upload began; bytes= bytes sent; state= final task state
//   rss_before_kb= resident size before the run; hwm_kb= peak resident size during it
// Exit code 0 when the run succeeded.
#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>

#include "engine/task/CBackupTask.h"
#include "platform/framework/HeadlessMessagebox.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/NimboMessagebox.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"
#include "platform/os/UrlOpener.h"

using namespace cirrovault;
using Seconds = std::chrono::duration<double>;
using SteadyClock = std::chrono::steady_clock;

namespace {

long statusKb(const std::string& key) {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, key.size(), key) == 0 && line.size() > key.size() &&
            line[key.size()] == ':')
            return std::atol(line.c_str() + key.size() + 1);
    return -1;
}

// Tells when the worker has made the run's semaphore (the space-check notice comes
// after it; a run that ends earlier still sends the closing notice), and counts the
// uploads that began.
class RunObserver : public StowlineDelegate {
public:
    bool StowlineDelegateFun(const std::shared_ptr<CBackupTask>& task,
                             StowlineDelegateType type) override {
        if (type == refreshProgressBarDelegate && task && task->bInitUIPrgBar)
            uploads.fetch_add(1, std::memory_order_relaxed);
        if (type == checkAccountSpaceDelegate || type == closeProgressBarViewDelegate) {
            std::lock_guard lock(mutex_);
            underway_ = true;
            changed_.notify_all();
        }
        return true;
    }
    void waitUntilUnderway() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return underway_; });
    }
    std::atomic<uint64_t> uploads{0};

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool underway_ = false;
};

std::string fileUrlPath(const std::string& path) {
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : path) {
        if (std::isalnum(c) || c == '/' || c == '-' || c == '.' || c == '_') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: %s SOURCE STORE STATE [REPORT]\n", argv[0]);
        return 1;
    }
    const std::string source = std::filesystem::absolute(argv[1]).lexically_normal().string();
    const std::string store = std::filesystem::absolute(argv[2]).lexically_normal().string();
    const std::string state = std::filesystem::absolute(argv[3]).lexically_normal().string();
    const std::string report = argc > 4 ? argv[4] : "";

    SystemLog::setSyslogEnabled(false);
    setenv("HOME", state.c_str(), 1);
    setenv("XDG_DATA_HOME", (state + "/data").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (state + "/config").c_str(), 1);
    FileSystem::createDirectories(state + "/data");
    FileSystem::createDirectories(state + "/config");
    FileSystem::createDirectories(store);
    LoadString::Reload();
    NimboMessagebox::setPresenter(std::make_shared<HeadlessMessagebox>());
    UrlOpener::setOpenerProgram("true");

    auto& api = TransferApiUtil::shareTransferApiUtil();
    if (api.OpenService("file://" + fileUrlPath(store)) != ResultCode::Success ||
        api.Logon("bench", "bench pass") != ResultCode::Success) {
        std::fprintf(stderr, "cannot open the local store in %s\n", store.c_str());
        return 1;
    }

    RunObserver observer;
    auto task = std::make_shared<CBackupTask>();
    task->name = "Bench";
    task->serverPath = "\\Backups\\Bench";
    task->localDirList = {source};
    task->SetDelegate(&observer);

    {
        std::ofstream clear("/proc/self/clear_refs");
        clear << "5"; // VmHWM from here on covers the run only
    }
    const long rssBeforeKb = statusKb("VmRSS");
    auto start = SteadyClock::now();
    task->StartBackup(false);
    std::shared_ptr<Thread> worker = task->pBackupTaskThread;
    observer.waitUntilUnderway();
    task->checkFinshedBackup();
    auto workEnd = SteadyClock::now();
    if (worker)
        worker->join();
    auto wholeEnd = SteadyClock::now();
    const long hwmKb = statusKb("VmHWM");

    char line[512];
    std::snprintf(line, sizeof line,
                  "work=%.4f whole=%.4f uploads=%llu bytes=%llu state=%d result=%llu "
                  "rss_before_kb=%ld hwm_kb=%ld\n",
                  Seconds(workEnd - start).count(), Seconds(wholeEnd - start).count(),
                  static_cast<unsigned long long>(observer.uploads.load()),
                  static_cast<unsigned long long>(task->uiTaskCurrentUploadSize),
                  static_cast<int>(task->mTaskState.load()),
                  static_cast<unsigned long long>(task->iBackupRet), rssBeforeKb, hwmKb);
    if (report.empty()) {
        std::fputs(line, stdout);
    } else {
        std::ofstream out(report, std::ios::app);
        out << line;
    }
    const bool ok = task->mTaskState == CBackupTask::StateSucceeded;
    task->SetDelegate(nullptr);
    api.Logoff();
    TransferApiUtil::releaseTransferApiUtil();
    NimboMessagebox::setPresenter(nullptr);
    UrlOpener::setOpenerProgram("");
    return ok ? 0 : 2;
}
