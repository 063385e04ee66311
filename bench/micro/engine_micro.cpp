// The hot inner pieces of a backup run, one at a time: the exclusion-pattern test,
// the per-file change decision (answered from the cached server listing), the path
// conversions between local and server paths, and the event-log append.
//
// usage: engine_micro [Google Benchmark options]
#include <benchmark/benchmark.h>

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "engine/task/CBackupTask.h"
#include "platform/framework/LoadString.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/framework/UploadFileInfo.h"
#include "platform/framework/TransferInfo.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"
#include "platform/store/StorePath.h"
#include "support/CErrorLog.h"
#include "support/CFileInfo.h"
#include "support/GlobalFunction.h"

using namespace cirrovault;

namespace {

constexpr int kFolderFiles = 100; // files per leaf folder, as in the "small" data set

// A temporary home with a local store holding one backed-up folder of kFolderFiles
// files, and a task whose source is the matching local folder.
struct Fixture {
    std::string root;
    std::string source;
    std::vector<std::string> files;
    std::shared_ptr<CBackupTask> task;

    Fixture() {
        char pattern[] = "/tmp/cirrovault-micro-XXXXXX";
        root = mkdtemp(pattern);
        setenv("HOME", root.c_str(), 1);
        setenv("XDG_DATA_HOME", (root + "/data").c_str(), 1);
        setenv("XDG_CONFIG_HOME", (root + "/config").c_str(), 1);
        FileSystem::createDirectories(root + "/data");
        FileSystem::createDirectories(root + "/config");
        FileSystem::createDirectories(root + "/store");
        LoadString::Reload();
        SystemLog::setSyslogEnabled(false);
        source = root + "/src";
        std::string leaf = source + "/area-1/group 2/set-3";
        FileSystem::createDirectories(leaf);
        for (int i = 0; i < kFolderFiles; ++i) {
            files.push_back(leaf + "/file-" + std::to_string(i) + ".dat");
            std::ofstream(files.back()) << "content " << i;
            FileSystem::setModifyTime(files.back(), Date(1'700'000'000.0 + i));
        }
        auto& api = TransferApiUtil::shareTransferApiUtil();
        api.OpenService("file://" + root + "/store");
        api.Logon("bench", "bench pass");
        task = std::make_shared<CBackupTask>();
        task->name = "Micro";
        task->serverPath = "\\Backups\\Micro";
        task->localDirList = {source};
        task->filterExt = {"*.tmp", "*.bak", "~*", "Thumbs.db", "*.part", "cache*"};
        // Upload the folder once, so the decision finds every file unchanged.
        for (const auto& file : files) {
            std::string folder = task->getTargetSvrFolder(file, true);
            GlobalFunction::CreateSrvFolder(folder, "", "", nullptr);
            TransferInfo info;
            info.setSvrFile(CFileInfo::serverPathAppend(folder, CFileInfo::getMacFileName(file, false)));
            info.setLocFile(file);
            UploadFileInfo result;
            api.UploadFile(info, result);
        }
    }
    ~Fixture() {
        TransferApiUtil::shareTransferApiUtil().Logoff();
        TransferApiUtil::releaseTransferApiUtil();
        FileSystem::removeAll(root);
    }
};

Fixture& fixture() {
    static Fixture f;
    return f;
}

void ExclusionPatternTest(benchmark::State& state) {
    Fixture& f = fixture();
    size_t i = 0;
    for (auto _ : state) {
        const std::string& file = f.files[i++ % f.files.size()];
        benchmark::DoNotOptimize(CBackupTask::RegexFun(file, f.task->filterExt, false));
        benchmark::DoNotOptimize(CBackupTask::RegexBackupPathForServer(file));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ExclusionPatternTest);

void ChangeDecisionUnchangedFile(benchmark::State& state) {
    Fixture& f = fixture();
    size_t i = 0;
    for (auto _ : state) {
        size_t n = i++ % f.files.size();
        // The size and time the walk has already read; an unchanged file is not chosen.
        benchmark::DoNotOptimize(f.task->CalculateBackupFileSize(
            f.files[n], 9 + (n >= 10) + (n >= 100), Date(1'700'000'000.0 + n)));
    }
    if (!f.task->scanFileArray.empty())
        state.SkipWithError("an unchanged file was chosen for upload");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ChangeDecisionUnchangedFile);

void LocalToServerPath(benchmark::State& state) {
    Fixture& f = fixture();
    size_t i = 0;
    for (auto _ : state) {
        const std::string& file = f.files[i++ % f.files.size()];
        std::string folder = f.task->getTargetSvrFolder(file, true);
        benchmark::DoNotOptimize(
            CFileInfo::serverPathAppend(folder, CFileInfo::getMacFileName(file, false)));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(LocalToServerPath);

void ServerPathNormalize(benchmark::State& state) {
    const std::string path = "\\Backups\\Micro\\src\\area-1\\group 2\\set-3\\file-42.dat";
    for (auto _ : state)
        benchmark::DoNotOptimize(StorePath::normalize(path));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ServerPathNormalize);

void EventLogAppend(benchmark::State& state) {
    fixture();
    for (auto _ : state) {
        if (!CErrorLog::recordError("Micro", 1, "a file could not be read: /tmp/x/y z.txt", 2)) {
            state.SkipWithError("the event log cannot be written");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(EventLogAppend);

} // namespace

BENCHMARK_MAIN();
