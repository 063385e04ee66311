#include <gtest/gtest.h>

#include <memory>
#include <set>

#include "common/Answers.h"
#include "common/ManualClockScope.h"
#include "common/TempHome.h"
#include "platform/framework/HeadlessMessagebox.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/SessionFixture.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/Clock.h"
#include "platform/os/FileSystem.h"
#include "platform/os/Host.h"
#include "platform/store/FaultInjectingStore.h"
#include "support/CFileInfo.h"
#include "support/GlobalFunction.h"

using namespace cirrovault;

TEST(GlobalFunctionText, SizesListsStringsMachineNameAndIDsThatDifferWithinASecond) {
    // Half rounds up; 1024 is still KB, k = 1025 moves on.
    const std::pair<uint64_t, const char*> sizes[] = {
        {0, "0 B"}, {512, "512 B"}, {1023, "1023 B"}, {1024, "1 KB"}, {1535, "1 KB"}, {1536, "2 KB"},
        {1048063, "1,023 KB"}, {1048576, "1,024 KB"}, {1049088, "1 MB"}, {1073741824, "1,024 MB"},
        {1234567890, "1.15 GB"}, {UINT64_MAX, "17179869184.00 GB"}};
    for (const auto& [size, text] : sizes)
        EXPECT_EQ(GlobalFunction::stringFromFileSize(size), text) << size;

    using Strings = std::vector<std::string>;
    EXPECT_EQ(GlobalFunction::stringFromNSArray({"a", "", ";", "b"}, ";"), "a;b;");
    EXPECT_EQ(GlobalFunction::stringFromNSArray({}, ";"), "");
    EXPECT_EQ(GlobalFunction::arrayFromString("a;b;", ";"), (Strings{"a", "b", ""}));
    EXPECT_EQ(GlobalFunction::arrayFromString("a;;b", ";"), (Strings{"a", "", "b"}));
    EXPECT_EQ(GlobalFunction::arrayFromString("a||b", "||"), (Strings{"a", "b"}));
    EXPECT_EQ(GlobalFunction::arrayFromString("", ";"), std::nullopt);

    EXPECT_EQ(GlobalFunction::stringByTrimmingLeadingWhitespace(" \t a b "), "a b ");
    EXPECT_EQ(GlobalFunction::stringByTrimmingLeadingWhitespace(" \t "), "");
    EXPECT_EQ(test::answers({GlobalFunction::IsWindowsBackupTask(""), GlobalFunction::IsWindowsBackupTask("C:\\Docs"),
                       GlobalFunction::IsWindowsBackupTask("/home/a")}), "110");
    EXPECT_EQ(GlobalFunction::GetWinDriveName("D:\\x") + GlobalFunction::GetWinDriveName(""), "D");
    // The month lands in the minutes and is then overwritten: January, as it always was.
    EXPECT_EQ(GlobalFunction::localDateFromServerDate("03/15/2024 14:30:00"), "2024-01-15 14:30:00");
    EXPECT_EQ(GlobalFunction::localDateFromServerDate("not a date"), "");

    EXPECT_TRUE(GlobalFunction::ValidNameFmt("Docs") && GlobalFunction::ValidNameFmt("My Docs 2"));
    for (const char* bad : {"", "Docs.1", "a$b", "a/b", "a\\b", "a\"b", "a:b", "a*b", "a|b", "a<b", "a>b", "a?b"})
        EXPECT_FALSE(GlobalFunction::ValidNameFmt(bad)) << bad;

    std::string host = Host::name();
    EXPECT_EQ(GlobalFunction::GetMachineName(), host.substr(0, host.find('.')));
    // Two computers or two tasks set up within the same second must still differ.
    test::ManualClockScope scope(Date(1'000'000.25));
    std::set<int> seen;
    for (int i = 0; i < 64; ++i)
        for (int id : {GlobalFunction::getRandom(), GlobalFunction::getTaskIDRandom()})
            EXPECT_GT(*seen.insert(id).first, 0);
    EXPECT_GT(seen.size(), 120u);
}

// Without a logged-on session: local files and dialogs.
class GlobalFunctionLoggedOff : public ::testing::Test {
protected:
    void SetUp() override {
        TransferApiUtil::releaseTransferApiUtil();
        NimboMessagebox::setPresenter(presenter);
    }
    void TearDown() override { NimboMessagebox::setPresenter(nullptr); }

    test::TempHome home;
    std::shared_ptr<HeadlessMessagebox> presenter = std::make_shared<HeadlessMessagebox>();
};

TEST_F(GlobalFunctionLoggedOff, FileExistenceListingItemInfoAndTheProductFolder) {
    std::string folder = home.file("f");
    ASSERT_TRUE(CFileInfo::CreateSubDir(folder));
    ASSERT_TRUE(CFileInfo::CreateFile(folder + "/a.txt"));
    ASSERT_TRUE(CFileInfo::CreateSubDir(folder + "/sub"));
    std::string found;
    for (const char* name : {"/a.txt", "/none", "/sub"})
        found += std::to_string(GlobalFunction::isFileExists(folder + name)) +
                 std::to_string(GlobalFunction::isFileExistsAndIsDirectory(folder + name)) + " ";
    EXPECT_EQ(found, "10 00 11 ");

    auto entries = GlobalFunction::getSubPath(folder);
    ASSERT_TRUE(entries);
    std::sort(entries->begin(), entries->end());
    EXPECT_EQ(*entries, (std::vector<std::string>{"a.txt", "sub"}));
    EXPECT_EQ(GlobalFunction::getSubPath(folder + "/none"), std::nullopt);

    ItemInfoRecord info = GlobalFunction::getItemInfo(16, folder + "/a.txt");
    EXPECT_EQ(std::to_string(info.flags) + " " + info.fileType + " " + info.extension, "16 Regular txt");
    EXPECT_EQ(GlobalFunction::getItemInfo(16, folder + "/none").fileType, "");

    // The product folder, not made.
    EXPECT_EQ(GlobalFunction::GetOBCurrentAppPath(), CFileInfo::getProductFolderPath());
    EXPECT_FALSE(FileSystem::exists(CFileInfo::getProductFolderPath()));
}

TEST_F(GlobalFunctionLoggedOff, MessageBoxWithoutTitleFolderPanelAndSpaceLimitAnswers) {
    presenter->queueAnswer(MessageboxAnswer::Yes);
    EXPECT_EQ(GlobalFunction::MessageBox("Cancel the backup?", MessageboxStyle::YesNo), 3);
    EXPECT_EQ(GlobalFunction::MessageBox("Again?", MessageboxStyle::YesNo), MessageboxAnswer::No);
    EXPECT_EQ(GlobalFunction::openFolderPanel(), "");
    presenter->setFolderPanelPath("/restore/here");
    EXPECT_EQ(GlobalFunction::openFolderPanel(), "/restore/here");

    // Only Retry retries; the headless default is Cancel.
    presenter->queueAnswer(MessageboxAnswer::Retry);
    EXPECT_TRUE(GlobalFunction::SpaceLimitRetry("Full"));
    EXPECT_FALSE(GlobalFunction::SpaceLimitRetry("Full"));
    presenter->queueAnswer(MessageboxAnswer::Yes);
    EXPECT_FALSE(GlobalFunction::SpaceLimitRetry("Full"));

    EXPECT_FALSE(GlobalFunction::SpaceLimitAlter(1, ""));
    presenter->queueAnswer(MessageboxAnswer::OrderSpace);
    EXPECT_TRUE(GlobalFunction::SpaceLimitAlter(4, "Buy more?"));
    auto shown = presenter->shown();
    ASSERT_EQ(shown.size(), 9u);
    EXPECT_EQ(shown[0].title + "|" + shown[0].text + "|" + std::to_string(shown[0].style), "|Cancel the backup?|2");
    EXPECT_EQ(shown[2].title, LoadString::GetValueByKey("RestoreViewTitle"));
    EXPECT_EQ(shown[4].style, MessageboxStyle::RetryCancel);
    EXPECT_EQ(shown[7].kind, HeadlessMessagebox::Kind::StorageOrder);
    EXPECT_FALSE(shown[7].checkBox);
    EXPECT_EQ(shown[7].text + "|" + std::to_string(shown[7].style),
              LoadString::GetValueByKey("IDS_STRREACHLIMIT") + " " + LoadString::GetValueByKey("IDS_ORDERSPACE") + "|1");
    EXPECT_EQ(shown[8].text + "|" + std::to_string(shown[8].style), "Buy more?|4");
}

class GlobalFunctionServer : public test::SessionFixture {};

TEST_F(GlobalFunctionServer, CodesAboveNineCountAsSuccessAndOnlyARefusedReLogonFails) {
    EXPECT_EQ(GlobalFunction::MySimpleLogon("alice", "wrong"), ResultCode::WrongPassword);
    EXPECT_EQ(GlobalFunction::MySimpleLogon("alice", "secret"), ResultCode::Success);
    EXPECT_TRUE(GlobalFunction::reLogon(false));
    EXPECT_FALSE(api().sessionID().empty());

    auto faults = std::make_shared<FaultInjectingStore>(api().backend());
    api().SetBackend(faults);
    ASSERT_EQ(api().Logon("alice", "secret"), ResultCode::Success);
    // Codes above 9 are the service's notices: the folder counts as made. An expired
    // session is logged on again, and then the folder is made.
    int64_t code = 0;
    for (auto [fault, made, answer] :
         {std::tuple{ResultCode::SpaceLimit, true, ResultCode::SpaceLimit},
          {ResultCode::WrongPassword, false, ResultCode::WrongPassword},
          {ResultCode::Failure, false, ResultCode::Failure}, {ResultCode::NotLoggedOn, true, ResultCode::Success}}) {
        faults->failOperation(FaultInjectingStore::Operation::MakeFolder, fault, 1);
        EXPECT_EQ(GlobalFunction::CreateSrvFolder("\\F" + std::to_string(fault), "", "", &code), made);
        EXPECT_EQ(code, answer);
    }
    EXPECT_EQ(found({"\\F" + std::to_string(ResultCode::NotLoggedOn)}), "+");

    // A failure, or a password changed on the service since the logon, is a refusal.
    for (int64_t refusal : {ResultCode::Failure, ResultCode::WrongPassword}) {
        ASSERT_EQ(api().Logon("alice", "secret"), ResultCode::Success);
        faults->failOperation(FaultInjectingStore::Operation::Logon, refusal, 1);
        EXPECT_FALSE(GlobalFunction::reLogon(true));
    }
    // Other codes leave it to the next call.
    faults->failOperation(FaultInjectingStore::Operation::Logon, ResultCode::NoService, 1);
    EXPECT_TRUE(GlobalFunction::reLogon(true));

    // Nobody has logged on: nothing to do.
    TransferApiUtil::releaseTransferApiUtil();
    EXPECT_TRUE(GlobalFunction::reLogon(true));
}

TEST_F(GlobalFunctionServer, SrvFoldersComeWithTheirParentsAndAppFoldersAreTheAccounts) {
    int64_t code = -1;
    EXPECT_TRUE(GlobalFunction::CreateSrvFolder("\\A\\B\\C", "desc", "cap", &code));
    EXPECT_EQ(code, 0);
    EXPECT_EQ(found({"\\A", "\\A\\B\\C"}), "++");
    code = -1;
    EXPECT_TRUE(GlobalFunction::CreateSrvHistoryFolder("\\A\\B\\C", "", "", &code)); // already there
    EXPECT_EQ(code, 0);
    EXPECT_TRUE(GlobalFunction::CreateSrvFolder("\\A\\D", "", "", nullptr));

    EXPECT_EQ(GlobalFunction::GetOBCurrentAppPath(), CFileInfo::getProductFolderPath() + "/" + api().customerID());
    EXPECT_TRUE(GlobalFunction::openURL()); // the local store has no web pages, still true
    std::string expected = CFileInfo::serverPathAppend(
        CFileInfo::serverPathAppend(LoadString::GetValueByKey("ApplicationDataPath"),
                                    LoadString::GetValueByKey("ServerStoreTaskPath")),
        "Task1");
    EXPECT_EQ(GlobalFunction::getSvrAppFolder("Task1", "my task"), expected);
    EXPECT_EQ(found({expected}), "+");
    EXPECT_EQ(GlobalFunction::getSvrAppFolder("Task1", "my task"), expected);
    api().Logoff();
    EXPECT_EQ(GlobalFunction::getSvrAppFolder("Task2", "x"), "");
    EXPECT_FALSE(GlobalFunction::CreateSrvFolder("\\E", "", "", &code));
    EXPECT_EQ(found({"\\E"}), "-");
}

TEST_F(GlobalFunctionServer, LocalFileComparedWithItsServerCopy) {
    std::string local = makeFile("a.txt", "hello", 1'600'000'000.5);
    ASSERT_TRUE(GlobalFunction::CreateSrvFolder("\\F", "", "", nullptr));
    ASSERT_EQ(upload("\\F\\a.txt", local), ResultCode::Success);

    EXPECT_EQ(GlobalFunction::ISserverLocalSameFile("\\F\\a.txt", local), 1);
    // Newer, then older here; a sub-second difference counts.
    for (auto [time, answer] : {std::pair{1'600'000'000.75, 4}, std::pair{1'599'999'999.0, 5}}) {
        ASSERT_TRUE(FileSystem::setModifyTime(local, Date(time)));
        EXPECT_EQ(GlobalFunction::ISserverLocalSameFile("\\F\\a.txt", local), answer);
    }
    EXPECT_EQ(GlobalFunction::ISserverLocalSameFile("\\F\\none.txt", local), 2);
    EXPECT_EQ(GlobalFunction::ISserverLocalSameFile("\\F\\a.txt", home_.file("gone.txt")), 6);
}
