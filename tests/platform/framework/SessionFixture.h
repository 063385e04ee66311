#pragma once

#include <fstream>

#include <gtest/gtest.h>

#include "common/TempHome.h"
#include "platform/framework/CountingStore.h"
#include "platform/framework/PathTreeController.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/FileSystem.h"
#include "platform/os/ResultCodes.h"
#include "platform/store/local/LocalStore.h"

namespace cirrovault::test {

// A logged-on service session over a real local store in a temporary home, counting lists.
class SessionFixture : public ::testing::Test {
protected:
    void SetUp() override {
        TransferApiUtil::releaseTransferApiUtil();
        local_ = std::make_shared<LocalStore>(home_.file("store"));
        store_ = std::make_shared<CountingStore>(local_);
        api().SetBackend(store_);
        ASSERT_EQ(api().Logon("alice", "secret"), ResultCode::Success);
        store_->resetCounts();
    }
    void TearDown() override { TransferApiUtil::releaseTransferApiUtil(); }

    static TransferApiUtil& api() { return TransferApiUtil::shareTransferApiUtil(); }
    static PathTreeController& tree() { return TransferApiUtil::sharePathTreeController(); }

    // A local file with the given content and modification time.
    std::string makeFile(const std::string& name, const std::string& content,
                         double modifyTime = 1'600'000'000.25) {
        std::string path = home_.file(name);
        FileSystem::createDirectories(path.substr(0, path.find_last_of('/')));
        std::ofstream(path, std::ios::binary) << content;
        EXPECT_TRUE(FileSystem::setModifyTime(path, Date(modifyTime)));
        return path;
    }
    int64_t upload(const std::string& server, const std::string& local,
                   UploadFileInfo* result = nullptr, const std::string& phrase = "",
                   TrueProgressCallback* progress = nullptr) {
        TransferInfo info;
        info.setSvrFile(server);
        info.setLocFile(local);
        info.setPassPhrase(phrase);
        info.setProgress(progress);
        UploadFileInfo ignored;
        return api().UploadFile(info, result ? *result : ignored);
    }
    void folders(std::initializer_list<std::string> paths) {
        for (const auto& path : paths)
            ASSERT_EQ(api().AddFolder(path, "", "", false), ResultCode::Success) << path;
    }
    // '+' or '-' for each path the cache finds or not.
    std::string found(std::initializer_list<std::string> paths) {
        std::string marks;
        for (const auto& path : paths) {
            PathInfo info;
            marks += tree().FindPath(path, info, false) ? '+' : '-';
        }
        return marks;
    }
    std::string readFile(const std::string& path) {
        return FileSystem::readFile(path).value_or("<missing>");
    }

    TempHome home_;
    std::shared_ptr<LocalStore> local_;
    std::shared_ptr<CountingStore> store_;
};

} // namespace cirrovault::test
