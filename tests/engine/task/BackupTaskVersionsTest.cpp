#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

#include "common/EngineSession.h"
#include "engine/task/VersionNames.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/UploadFileInfo.h"
#include "support/CFileInfo.h"
#include "support/GlobalFunction.h"

using namespace cirrovault;

namespace {

constexpr double T = 1'600'000'000.0;

std::string text(const char* key) {
    return LoadString::GetValueByKey(key, "");
}

class BackupTaskVersions : public test::EngineSession {
protected:
    void SetUp() override {
        EngineSession::SetUp();
        task_ = std::make_shared<CBackupTask>();
        task_->name = "Docs";
        task_->serverPath = "\\Backup";
        task_->localDirList = {home_.file("src")};
        ASSERT_EQ(api().AddFolder("\\Backup", "", "", false), ResultCode::Success);
    }
    // One upload as the run does it: keep the current copy, then overwrite it.
    std::string upload(const std::string& relative, const std::string& content, double time) {
        std::string local = makeFile("src/" + relative, content, time);
        std::string folder = task_->getTargetSvrFolder(local, true);
        std::string name = CFileInfo::getMacFileName(local, false);
        std::string serverFile = CFileInfo::serverPathAppend(folder, name);
        EXPECT_TRUE(GlobalFunction::CreateSrvFolder(folder, "", "", nullptr));
        PathInfo info;
        EXPECT_TRUE(!tree().FindPath(serverFile, info, false) ||
                    task_->recordCurrent(serverFile, task_->uiMaxVersion, name));
        TransferInfo transfer;
        transfer.setLocFile(local);
        transfer.setSvrFile(serverFile);
        UploadFileInfo uploaded;
        EXPECT_EQ(api().UploadFile(transfer, uploaded), ResultCode::Success);
        return serverFile;
    }
    std::vector<std::string> names(const std::string& folder) {
        std::vector<PathInfo> entries;
        tree().GetSubList(folder, entries, false, false);
        std::vector<std::string> result;
        for (const auto& entry : entries)
            result.push_back(entry.name);
        std::sort(result.begin(), result.end());
        return result;
    }
    std::string versionFolder(const std::string& sub) {
        return task_->getSvrHistoryFolder(false) + "\\" + task_->name + "\\" + sub;
    }

    std::shared_ptr<CBackupTask> task_;
};

TEST_F(BackupTaskVersions, FoldersAreMadeWithTheirDescriptionsAndCaptions) {
    std::string data = text("ApplicationDataPath");
    std::string tasks = CFileInfo::serverPathAppend(data, text("ServerStoreTaskPath"));
    std::string info = task_->getSvrInfoFolder();
    EXPECT_EQ(info, CFileInfo::serverPathAppend(tasks, text("IDS_INFOPATH")));
    EXPECT_EQ(task_->getSvrHistoryFolder(false),
              CFileInfo::serverPathAppend(tasks, text("IDS_HISTFOLDER")));
    std::string encrypted = task_->getSvrHistoryFolder(true);
    EXPECT_EQ(encrypted,
              CFileInfo::serverPathAppend(text("EncryptionFolder"), text("IDS_HISTFOLDER")));

    tree().RefreshSvrPath("\\");
    // The data folder has its caption text as description: the other way round.
    for (auto [folder, description, caption] :
         {std::tuple{data, text("IDS_STRORVODATACAP"), text("IDS_STRORVODATANOTE")},
          std::tuple{tasks, text("IDS_STRAPPFOLDERNOTE"), text("IDS_STRAPPFOLDERCAP")},
          std::tuple{info, text("IDS_INFONOTE"), text("IDS_INFOPATH")},
          std::tuple{encrypted, text("IDS_HISTNOTE"), std::string()}}) {
        PathInfo found;
        ASSERT_TRUE(tree().FindPath(folder, found, false)) << folder;
        EXPECT_EQ(found.description, description) << folder;
        EXPECT_EQ(found.caption, caption) << folder;
    }

    api().Logoff();
    EXPECT_EQ(task_->getSvrInfoFolder(), "");
    EXPECT_EQ(task_->getSvrHistoryFolder(true), "");
}

// "a1.txt" reads as a version of "a.txt": each file keeps and drops only its own.
TEST_F(BackupTaskVersions, KeepsAtMostMaxMinusOneVersionsReusingTheOldestNameEachOnlyItsOwn) {
    task_->uiMaxVersion = 3;
    const std::vector<std::string> files{"a.txt", "a1.txt"};
    for (int change = 0; change < 5; ++change)
        for (const auto& file : files)
            upload("x/" + file, file + " #" + std::to_string(change), T + change);
    const std::string versions = versionFolder("src\\x");
    auto own = [&](const std::string& file) {
        std::vector<std::string> kept;
        for (const auto& name : names(versions))
            if (VersionNames::numberOf(name, file, files))
                kept.push_back(fetch(versions + "\\" + name));
        std::sort(kept.begin(), kept.end());
        return kept;
    };
    for (const auto& file : files)
        EXPECT_EQ(fetch("\\Backup\\src\\x\\" + file), file + " #4");
    // Full, the oldest went and its name took the newer version; each kept only its own.
    std::vector<std::string> all;
    for (const auto& name : names(versions))
        all.push_back(name + "=" + fetch(versions + "\\" + name));
    EXPECT_EQ(all, (std::vector<std::string>{"a0.txt=a.txt #2", "a10.txt=a1.txt #2",
                                             "a11.txt=a1.txt #3", "a2.txt=a.txt #3"}));
    EXPECT_EQ(task_->getOldTimeHistoryFile(versions), "a0.txt");
    EXPECT_EQ(names("\\Backup\\src\\x"), files);

    task_->uiMaxVersion = 2;
    upload("x/a1.txt", "a1.txt #5", T + 20);
    EXPECT_EQ(own("a1.txt"), std::vector<std::string>{"a1.txt #4"});
    EXPECT_EQ(own("a.txt").size(), 2u);
}

// Nothing is kept below two versions or of a missing copy; a keep cut off (a refused move)
// leaves no version beside the file, where a restore would take it for a file of its own.
TEST_F(BackupTaskVersions, NothingKeptBelowTwoAndAnInterruptedKeepLeavesNoVersionBesideTheFile) {
    std::string serverFile = upload("x/a.txt", "one", T);
    for (uint64_t max : {0, 1})
        EXPECT_FALSE(task_->recordCurrent(serverFile, max, "a.txt"));
    EXPECT_FALSE(task_->recordCurrent("", 5, "a.txt"));
    EXPECT_EQ(names(versionFolder("src\\x")), std::vector<std::string>{});
    EXPECT_FALSE(task_->recordCurrent("\\Backup\\src\\gone.txt", 5, "gone.txt"));
    EXPECT_TRUE(SystemLog::capturedContains("Error:Edit file: \\Backup\\src\\gone.txt"));
    EXPECT_EQ(task_->getOldTimeHistoryFile("\\Backup\\missing"), "");

    for (int32_t passing : {0, 1, 2}) {
        store_->failOperation(FaultInjectingStore::Operation::Move, ResultCode::Failure, 1,
                              passing);
        bool kept = task_->recordCurrent(serverFile, task_->uiMaxVersion, "a.txt");
        store_->clearFaults();
        tree().RefreshSvrPath("\\");
        std::vector<std::string> beside = names("\\Backup\\src\\x");
        if (kept) {
            EXPECT_EQ(beside, std::vector<std::string>{}) << passing;
            EXPECT_EQ(names(versionFolder("src\\x")), (std::vector<std::string>{"a0.txt"}));
            break;
        }
        EXPECT_EQ(beside, std::vector<std::string>{"a.txt"}) << passing;
        EXPECT_EQ(fetch(serverFile), "one");
    }
}

TEST(VersionNamesTest, LongNamesAreCutWithAHashAndTheUsersNameStays) {
    std::string base(250, 'a');
    std::string first = base + ".txt";
    std::string second = base + "b.txt";
    std::string version = VersionNames::name(first, 123456789);
    EXPECT_LE(version.size(), 255u);
    EXPECT_TRUE(version.ends_with("123456789.txt"));
    EXPECT_NE(VersionNames::name(first, 0), VersionNames::name(second, 0));
    EXPECT_EQ(VersionNames::numberOf(version, first, {first, second}), 123456789u);
    EXPECT_FALSE(VersionNames::numberOf(version, second, {first, second}));
    EXPECT_EQ(VersionNames::rivals(first, {first, second, "b.txt"}),
              (std::vector<std::string>{second}));
    EXPECT_EQ(VersionNames::rivals("n0", {"n", "n0", "n05", "m05", "n050"}),
              (std::vector<std::string>{"n05", "n050"}));

    // A cut never splits a character.
    std::string accented;
    for (int i = 0; i < 125; ++i)
        accented += "é";
    std::string cut = VersionNames::name(accented + ".txt", 7);
    EXPECT_LE(cut.size(), 255u);
    size_t mark = cut.find('~');
    ASSERT_NE(mark, std::string::npos);
    EXPECT_EQ(mark % 2, 0u);

    // Short names stay base + number + extension; only numbers this system writes count.
    EXPECT_EQ(VersionNames::name("notes", 3), "notes3");
    EXPECT_EQ(VersionNames::name(".profile", 1), ".profile1");
    EXPECT_EQ(VersionNames::name("a.tar.gz", 0), "a.tar0.gz");
    EXPECT_FALSE(VersionNames::numberOf("n05", "n", {}));
    EXPECT_FALSE(VersionNames::numberOf("n", "n", {}));
    EXPECT_FALSE(VersionNames::numberOf("a0.md", "a.txt", {}));
}

} // namespace
