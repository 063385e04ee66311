#include <gtest/gtest.h>

#include <memory>

#include "common/TempHome.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/PathTreeController.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/framework/TransferInfo.h"
#include "platform/framework/UploadFileInfo.h"
#include "platform/os/FileSystem.h"
#include "platform/store/FaultInjectingStore.h"
#include "platform/store/StoreFactory.h"
#include "support/CFileInfo.h"
#include "support/GlobalFunction.h"

using namespace cirrovault;

// A real local store in a temporary folder, logged on as "u".
class GlobalFunctionServer : public ::testing::Test {
protected:
    void SetUp() override {
        TransferApiUtil::releaseTransferApiUtil();
        ASSERT_EQ(service().OpenService("file://" + home.file("store")), ResultCode::Success);
        ASSERT_EQ(service().Logon("u", "p"), ResultCode::Success);
    }
    void TearDown() override { TransferApiUtil::releaseTransferApiUtil(); }

    static TransferApiUtil& service() { return TransferApiUtil::shareTransferApiUtil(); }
    static bool exists(const std::string& path) {
        PathInfo info;
        return TransferApiUtil::sharePathTreeController().FindPath(path, info, false);
    }

    test::TempHome home;
};

TEST_F(GlobalFunctionServer, CreateSrvFolderMakesMissingParentsAndReportsTheCode) {
    int64_t code = -1;
    EXPECT_TRUE(GlobalFunction::CreateSrvFolder("\\A\\B\\C", "desc", "cap", &code));
    EXPECT_EQ(code, 0);
    EXPECT_TRUE(exists("\\A") && exists("\\A\\B\\C"));
    code = -1;
    EXPECT_TRUE(GlobalFunction::CreateSrvHistoryFolder("\\A\\B\\C", "", "", &code)); // already there
    EXPECT_EQ(code, 0);
    EXPECT_TRUE(GlobalFunction::CreateSrvFolder("\\A\\D", "", "", nullptr));

    service().Logoff();
    EXPECT_FALSE(GlobalFunction::CreateSrvFolder("\\E", "", "", &code));
    EXPECT_FALSE(exists("\\E"));
}

TEST_F(GlobalFunctionServer, CodesAboveNineCountAsSuccessAndNotLoggedOnRetriesOnce) {
    auto faults = std::make_shared<FaultInjectingStore>(service().backend());
    service().SetBackend(faults);
    ASSERT_EQ(service().Logon("u", "p"), ResultCode::Success);

    // Codes above 9 are the service's notices: the folder counts as made.
    int64_t code = 0;
    for (auto [fault, made] : {std::pair{ResultCode::SpaceLimit, true},
                               {ResultCode::WrongPassword, false}, {ResultCode::Failure, false}}) {
        faults->failOperation(FaultInjectingStore::Operation::MakeFolder, fault, 1);
        EXPECT_EQ(GlobalFunction::CreateSrvFolder("\\F" + std::to_string(fault), "", "", &code), made);
        EXPECT_EQ(code, fault);
    }

    // An expired session: logged on again, then the folder is made.
    faults->failOperation(FaultInjectingStore::Operation::MakeFolder, ResultCode::NotLoggedOn, 1);
    EXPECT_TRUE(GlobalFunction::CreateSrvFolder("\\Again", "", "", &code));
    EXPECT_EQ(code, 0);
    EXPECT_TRUE(exists("\\Again"));
}

TEST_F(GlobalFunctionServer, AppFolderIsMadeUnderTheDataAndTaskFolders) {
    std::string expected = CFileInfo::serverPathAppend(
        CFileInfo::serverPathAppend(LoadString::GetValueByKey("ApplicationDataPath"),
                                    LoadString::GetValueByKey("ServerStoreTaskPath")),
        "Task1");
    EXPECT_EQ(GlobalFunction::getSvrAppFolder("Task1", "my task"), expected);
    EXPECT_TRUE(exists(expected));
    EXPECT_EQ(GlobalFunction::getSvrAppFolder("Task1", "my task"), expected);
    service().Logoff();
    EXPECT_EQ(GlobalFunction::getSvrAppFolder("Task2", "x"), "");
}

TEST_F(GlobalFunctionServer, LocalFileComparedWithItsServerCopy) {
    std::string local = home.file("a.txt");
    ASSERT_TRUE(FileSystem::writeFileAtomically(local, "hello"));
    ASSERT_TRUE(FileSystem::setModifyTime(local, Date(1'600'000'000.5)));
    ASSERT_TRUE(GlobalFunction::CreateSrvFolder("\\F", "", "", nullptr));
    TransferInfo transfer;
    transfer.setLocFile(local);
    transfer.setSvrFile("\\F\\a.txt");
    UploadFileInfo uploaded;
    ASSERT_EQ(service().UploadFile(transfer, uploaded), ResultCode::Success);

    EXPECT_EQ(GlobalFunction::ISserverLocalSameFile("\\F\\a.txt", local), 1);
    // Newer, then older here; a sub-second difference counts.
    for (auto [time, answer] : {std::pair{1'600'000'000.75, 4}, std::pair{1'599'999'999.0, 5}}) {
        ASSERT_TRUE(FileSystem::setModifyTime(local, Date(time)));
        EXPECT_EQ(GlobalFunction::ISserverLocalSameFile("\\F\\a.txt", local), answer);
    }
    EXPECT_EQ(GlobalFunction::ISserverLocalSameFile("\\F\\none.txt", local), 2);
    EXPECT_EQ(GlobalFunction::ISserverLocalSameFile("\\F\\a.txt", home.file("gone.txt")), 6);
}

TEST_F(GlobalFunctionServer, LogonAndReLogon) {
    EXPECT_EQ(GlobalFunction::MySimpleLogon("u", "wrong"), ResultCode::WrongPassword);
    EXPECT_EQ(GlobalFunction::MySimpleLogon("u", "p"), ResultCode::Success);
    EXPECT_TRUE(GlobalFunction::reLogon(false));
    EXPECT_FALSE(service().sessionID().empty());

    auto faults = std::make_shared<FaultInjectingStore>(service().backend());
    service().SetBackend(faults);
    // A failure, or a password changed on the service since the logon, is a refusal.
    for (int64_t refusal : {ResultCode::Failure, ResultCode::WrongPassword}) {
        ASSERT_EQ(service().Logon("u", "p"), ResultCode::Success);
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

TEST_F(GlobalFunctionServer, CurrentAppPathIsTheAccountFolderOnceLoggedOn) {
    std::string customer = service().customerID();
    ASSERT_FALSE(customer.empty());
    EXPECT_EQ(GlobalFunction::GetOBCurrentAppPath(), CFileInfo::getProductFolderPath() + "/" + customer);
    EXPECT_TRUE(GlobalFunction::openURL()); // the local store has no web pages, still true
}
