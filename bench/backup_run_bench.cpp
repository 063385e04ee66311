// Times whole backup runs over a large generated tree into the local store:
//   (a) a full backup, (b) a rerun with nothing changed, (c) a rerun after 1% of the
//   files got new content and a new modification time.
// Each run is a fresh CBackupTask driven the way the host drives it, on the real clock.
//
// usage: backup_run_bench [--files N] [--seed S] [--keep] [--limit SECONDS] [WHERE]
//   WHERE   folder to create the temporary tree in (default /tmp)
//   --keep  leave the generated tree and the store behind
// Prints a Markdown table on stdout. Exit code 3 means a run went over the time limit
// and was cancelled.
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <numeric>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "engine/task/CBackupTask.h"
#include "platform/framework/HeadlessMessagebox.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/NimboMessagebox.h"
#include "platform/framework/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"
#include "platform/os/UrlOpener.h"

using namespace cirrovault;
using Seconds = std::chrono::duration<double>;
using SteadyClock = std::chrono::steady_clock;

namespace {

struct Options {
    int files = 100'000;
    uint64_t seed = 20261122;
    bool keep = false;
    double limitSeconds = 600;
    std::string where = "/tmp";
};

struct SourceFile {
    std::string path;
    double modifyTime;
};

// ---- memory figures ----------------------------------------------------------------

long statusKb(const std::string& key) {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, key.size(), key) == 0 && line.size() > key.size() &&
            line[key.size()] == ':')
            return std::atol(line.c_str() + key.size() + 1);
    return -1;
}

// Starts a fresh high-water mark so VmHWM covers one run only.
bool resetPeakRss() {
    std::ofstream out("/proc/self/clear_refs");
    out << "5";
    out.flush();
    return static_cast<bool>(out);
}

long maxRssKb() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// ---- source tree -------------------------------------------------------------------

std::string randomBytes(std::mt19937_64& rng, size_t size) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; i += 8) {
        uint64_t word = rng();
        for (size_t b = 0; b < 8 && i + b < size; ++b)
            data[i + b] = static_cast<char>(word >> (8 * b));
    }
    return data;
}

bool writeContent(const std::string& path, const std::string& data, double modifyTime) {
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(data.data(), static_cast<std::streamsize>(data.size()));
        if (!out)
            return false;
    }
    return FileSystem::setModifyTime(path, Date(modifyTime));
}

// 10 x 10 x 10 folders, the files spread evenly over the 1,000 leaves; every fourth
// middle folder and every fifth file has a space in its name.
std::vector<SourceFile> generateTree(const std::string& root, int count, std::mt19937_64& rng,
                                     double baseTime) {
    constexpr int kLeaves = 1000;
    std::vector<std::string> leaves;
    leaves.reserve(kLeaves);
    for (int a = 0; a < 10; ++a)
        for (int b = 0; b < 10; ++b)
            for (int c = 0; c < 10; ++c) {
                char name[96];
                std::snprintf(name, sizeof name, "/area-%d/%s%d/set-%d", a,
                              b % 4 == 0 ? "group " : "group-", b, c);
                leaves.push_back(root + name);
                FileSystem::createDirectories(leaves.back());
            }
    std::uniform_int_distribution<size_t> size(1024, 16 * 1024);
    std::vector<SourceFile> files;
    files.reserve(count);
    for (int i = 0; i < count; ++i) {
        char name[48];
        std::snprintf(name, sizeof name, i % 5 == 0 ? "/note %06d.txt" : "/file-%06d.dat", i);
        SourceFile file{leaves[i % kLeaves] + name, baseTime + (i % 86'400)};
        if (!writeContent(file.path, randomBytes(rng, size(rng)), file.modifyTime)) {
            std::fprintf(stderr, "cannot write %s\n", file.path.c_str());
            std::exit(2);
        }
        files.push_back(std::move(file));
    }
    return files;
}

// ---- one run -----------------------------------------------------------------------

// Counts the files whose upload began (a retried file counts again), and tells when the
// worker has made the run's semaphore: checkFinshedBackup has nothing to wait on before
// that and would return at once. The space-check notice comes after the semaphore is
// made; a run that ends earlier still sends the closing notice.
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

struct RunResult {
    std::string label;
    double workSeconds = 0;  // StartBackup .. checkFinshedBackup returned
    double wholeSeconds = 0; // .. the worker joined (closing pause and notices included)
    uint64_t uploads = 0;
    uint64_t bytes = 0;
    uint64_t scanned = 0;
    long rssBeforeKb = 0;
    long hwmKb = 0;
    int32_t state = 0;
    uint64_t result = 0;
    bool overLimit = false;
};

RunResult runOnce(const std::string& label, const std::string& source, uint64_t scanned,
                  double limitSeconds) {
    RunResult r;
    r.label = label;
    r.scanned = scanned;
    RunObserver counter;
    auto task = std::make_shared<CBackupTask>();
    task->name = "Bench";
    task->serverPath = "\\Backups\\Bench";
    task->localDirList = {source};
    task->SetDelegate(&counter);

    resetPeakRss();
    r.rssBeforeKb = statusKb("VmRSS");

    // Cancels a run that goes over the limit, so a slow machine still ends.
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    std::thread watchdog([&] {
        std::unique_lock lock(mutex);
        if (!done.wait_for(lock, Seconds(limitSeconds), [&] { return finished; })) {
            r.overLimit = true;
            task->CancelBackup();
        }
    });

    auto start = SteadyClock::now();
    task->StartBackup(false);
    std::shared_ptr<Thread> worker = task->pBackupTaskThread;
    counter.waitUntilUnderway();
    task->checkFinshedBackup();
    auto workEnd = SteadyClock::now();
    if (worker)
        worker->join();
    auto wholeEnd = SteadyClock::now();
    {
        std::lock_guard lock(mutex);
        finished = true;
    }
    done.notify_one();
    watchdog.join();

    r.hwmKb = statusKb("VmHWM");
    r.workSeconds = Seconds(workEnd - start).count();
    r.wholeSeconds = Seconds(wholeEnd - start).count();
    r.uploads = counter.uploads.load();
    r.bytes = task->uiTaskCurrentUploadSize;
    r.state = task->mTaskState.load();
    r.result = task->iBackupRet;
    task->SetDelegate(nullptr);
    return r;
}

// ---- report ------------------------------------------------------------------------

void printTable(const std::vector<RunResult>& runs, const Options& options, double generateSeconds,
                uint64_t sourceBytes) {
    std::printf("Files: %d in 1,000 folders three levels deep (seed %llu), %.1f MB of sources, "
                "generated in %.1f s.\n\n",
                options.files, static_cast<unsigned long long>(options.seed),
                sourceBytes / 1e6, generateSeconds);
    std::printf("| Run | Work s | Whole run s | Files scanned | Files uploaded | MB uploaded "
                "| MB/s | Scanned files/s | RSS growth MB | Bytes per scanned file | Result |\n");
    std::printf("|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---|\n");
    for (const auto& r : runs) {
        double mb = r.bytes / 1e6;
        long growthKb = std::max(0L, r.hwmKb - r.rssBeforeKb);
        std::printf("| %s | %.2f | %.2f | %llu | %llu | %.1f | %.1f | %.0f | %.1f | %.0f | %s |\n",
                    r.label.c_str(), r.workSeconds, r.wholeSeconds,
                    static_cast<unsigned long long>(r.scanned),
                    static_cast<unsigned long long>(r.uploads), mb,
                    r.workSeconds > 0 ? mb / r.workSeconds : 0.0,
                    r.workSeconds > 0 ? r.scanned / r.workSeconds : 0.0, growthKb / 1024.0,
                    r.scanned ? growthKb * 1024.0 / r.scanned : 0.0,
                    r.overLimit ? "stopped at the time limit"
                    : r.state == CBackupTask::StateSucceeded
                        ? "succeeded"
                        : ("state " + std::to_string(r.state) + ", code " +
                           std::to_string(r.result)).c_str());
    }
    std::printf("\nPeak RSS of the whole process (getrusage ru_maxrss): %.1f MB.\n",
                maxRssKb() / 1024.0);
    std::printf("\n\"Work\" runs from StartBackup to the return of checkFinshedBackup: the run's "
                "own work. \"Whole run\" also waits for the worker to end, which includes the "
                "fixed 2-second pause before the closing notices; that pause is not work. "
                "MB/s and scanned files/s are over the work time. RSS growth is VmHWM during "
                "the run minus VmRSS before it; bytes per scanned file divide that growth by "
                "the files the run walked.\n");
}

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

Options parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--keep") {
            o.keep = true;
        } else if (a == "--files" && i + 1 < argc) {
            o.files = std::max(1, std::atoi(argv[++i]));
        } else if (a == "--seed" && i + 1 < argc) {
            o.seed = std::strtoull(argv[++i], nullptr, 10);
        } else if (a == "--limit" && i + 1 < argc) {
            o.limitSeconds = std::atof(argv[++i]);
        } else if (!a.empty() && a[0] != '-') {
            o.where = a;
        } else {
            std::fprintf(stderr,
                         "usage: %s [--files N] [--seed S] [--keep] [--limit SECONDS] [WHERE]\n",
                         argv[0]);
            std::exit(1);
        }
    }
    return o;
}

} // namespace

int main(int argc, char** argv) {
    Options options = parse(argc, argv);
    SystemLog::setSyslogEnabled(false);

    FileSystem::createDirectories(options.where);
    std::string pattern = options.where + "/cirrovault-bench-XXXXXX";
    if (!mkdtemp(pattern.data())) {
        std::fprintf(stderr, "cannot make a folder under %s\n", options.where.c_str());
        return 1;
    }
    const std::string root = pattern;
    const std::string source = root + "/sources";
    const std::string store = root + "/store";
    // The engine's data and settings live in the temporary folder, not the user's.
    setenv("HOME", root.c_str(), 1);
    setenv("XDG_DATA_HOME", (root + "/data").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (root + "/config").c_str(), 1);
    FileSystem::createDirectories(root + "/data");
    FileSystem::createDirectories(root + "/config");
    FileSystem::createDirectories(store);
    LoadString::Reload();
    NimboMessagebox::setPresenter(std::make_shared<HeadlessMessagebox>());
    UrlOpener::setOpenerProgram("true");
    std::fprintf(stderr, "working in %s\n", root.c_str());

    std::mt19937_64 rng(options.seed);
    const double baseTime = std::floor(Date::now().timeIntervalSince1970()) - 30 * 86'400.0;
    auto genStart = SteadyClock::now();
    std::vector<SourceFile> files = generateTree(source, options.files, rng, baseTime);
    double generateSeconds = Seconds(SteadyClock::now() - genStart).count();
    uint64_t sourceBytes = 0;
    for (const auto& f : files)
        if (auto st = FileSystem::status(f.path))
            sourceBytes += st->size;

    auto& api = TransferApiUtil::shareTransferApiUtil();
    if (api.OpenService("file://" + fileUrlPath(store)) != ResultCode::Success ||
        api.Logon("bench", "bench pass") != ResultCode::Success) {
        std::fprintf(stderr, "cannot open the local store in %s\n", store.c_str());
        if (!options.keep)
            FileSystem::removeAll(root);
        return 1;
    }

    std::vector<RunResult> runs;
    bool overLimit = false;
    auto run = [&](const std::string& label) {
        std::fprintf(stderr, "run: %s\n", label.c_str());
        runs.push_back(runOnce(label, source, files.size(), options.limitSeconds));
        overLimit = overLimit || runs.back().overLimit;
        return !runs.back().overLimit;
    };

    if (run("(a) full backup") && run("(b) no change")) {
        // 1% of the files, chosen by the seed, get new content and a time 20 days later.
        std::vector<size_t> order(files.size());
        std::iota(order.begin(), order.end(), size_t{0});
        std::shuffle(order.begin(), order.end(), rng);
        std::uniform_int_distribution<size_t> size(1024, 16 * 1024);
        size_t changes = std::max<size_t>(1, files.size() / 100);
        for (size_t i = 0; i < changes; ++i) {
            SourceFile& f = files[order[i]];
            f.modifyTime += 20 * 86'400.0;
            writeContent(f.path, randomBytes(rng, size(rng)), f.modifyTime);
        }
        run("(c) 1% changed");
    }

    printTable(runs, options, generateSeconds, sourceBytes);

    api.Logoff();
    TransferApiUtil::releaseTransferApiUtil();
    NimboMessagebox::setPresenter(nullptr);
    UrlOpener::setOpenerProgram("");
    if (options.keep)
        std::fprintf(stderr, "kept %s\n", root.c_str());
    else
        FileSystem::removeAll(root);
    return overLimit ? 3 : 0;
}
