// The service session over a WebDAV server chosen by the service URL setting: logon
// with the password checked by the server, the balance from the "Quota" setting and
// the bytes stored, and a password that never reaches the log.
#include <fstream>

#include <gtest/gtest.h>

#include "common/TempHome.h"
#include "common/WebDavTestServer.h"
#include "platform/framework/NimboSetting.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/framework/TransferInfo.h"
#include "platform/framework/UploadFileInfo.h"
#include "platform/os/SystemLog.h"

namespace cirrovault::test {

TEST(WebDavServiceTest, LogonBalanceAndUploadThroughTheServiceURL) {
    TempHome home;
    WebDavTestServer server(WebDavTestServer::Kind::Apache, home.file("server"),
                            {{"alice", "s3cret-pw"}});
    ASSERT_TRUE(NimboSetting::SetSettingValueForKey("ServiceURL", server.url("{user}/")));
    ASSERT_TRUE(NimboSetting::SetSettingValueForKey("Quota", "100000"));
    TransferApiUtil::releaseTransferApiUtil();
    auto& api = TransferApiUtil::shareTransferApiUtil();

    SystemLog::startCapture();
    EXPECT_EQ(api.Logon("alice", "wrong-pw"), ResultCode::WrongPassword);
    EXPECT_EQ(api.Logon("alice", "s3cret-pw"), ResultCode::Success);
    EXPECT_FALSE(SystemLog::capturedContains("wrong-pw"));
    EXPECT_FALSE(SystemLog::capturedContains("s3cret-pw"));
    SystemLog::stopCapture();

    AccountBalance balance;
    ASSERT_EQ(api.GetAccountBalance(balance), ResultCode::Success);
    EXPECT_EQ(balance.maxSpace, 100000);
    EXPECT_EQ(balance.fileSpaceUsed, 0);

    std::ofstream(home.file("report.txt")) << std::string(1234, 'r');
    TransferInfo upload;
    upload.setSvrFile("\\report.txt");
    upload.setLocFile(home.file("report.txt"));
    UploadFileInfo information;
    ASSERT_EQ(api.UploadFile(upload, information), ResultCode::Success);
    ASSERT_EQ(api.GetAccountBalance(balance), ResultCode::Success);
    EXPECT_EQ(balance.fileSpaceUsed, 1234);
    // Stored as a plain file where the server keeps the user's folder.
    EXPECT_EQ(FileSystem::readFile(server.dataFolder() + "/alice/report.txt"), std::string(1234, 'r'));
    TransferApiUtil::releaseTransferApiUtil();
}

} // namespace cirrovault::test
