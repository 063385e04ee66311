#include <gtest/gtest.h>

#include <memory>

#include "platform/framework/LoadString.h"
#include "platform/framework/SessionFixture.h"
#include "platform/store/FaultInjectingStore.h"
#include "support/CFileInfo.h"
#include "support/GlobalFunction.h"

using namespace cirrovault;

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
