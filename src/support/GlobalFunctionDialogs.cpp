#include "support/GlobalFunction.h"

#include <exception>

#include "platform/framework/Functions.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/NimboMessagebox.h"
#include "platform/os/SystemLog.h"

namespace cirrovault {

std::string GlobalFunction::openFolderPanel() {
    try {
        return NimboMessagebox::runFolderPanel(LoadString::GetValueByKey("RestoreViewTitle", ""));
    } catch (const std::exception&) {
        SystemLog::write("Error: GlobalFunction::openFolderPanel");
        return "";
    }
}

int GlobalFunction::MessageBox(const std::string& message, int style) {
    try {
        NimboMessagebox box;
        return box.InitWithMessage("", message, style).runModal();
    } catch (const std::exception&) {
        SystemLog::write("Error: GlobalFunction::MessageBox");
        return 0;
    }
}

bool GlobalFunction::SpaceLimitRetry(const std::string& message) {
    try {
        if (MessageBox(message, MessageboxStyle::RetryCancel) != MessageboxAnswer::Retry)
            return false;
        reLogon(true);
        return true;
    } catch (const std::exception&) {
        SystemLog::write("Error: GlobalFunction::SpaceLimitRetry");
        return false;
    }
}

bool GlobalFunction::SpaceLimitAlter(int dialogStyle, const std::string& strMsg) {
    try {
        std::string message = strMsg;
        if (message.empty())
            message = LoadString::GetValueByKey("IDS_STRREACHLIMIT", "") + " " +
                      LoadString::GetValueByKey("IDS_ORDERSPACE", "");
        bool checkBox = false;
        int answer = NimboMessagebox::runStorageOrderDialog("", message, checkBox, dialogStyle);
        if (answer != MessageboxAnswer::OrderSpace)
            return false;
        Functions::OpenURLLink(LoadString::GetValueByKey("DepositURL", "/Secure/Deposit.aspx"), true);
        return true;
    } catch (const std::exception&) {
        SystemLog::write("Error: GlobalFunction::SpaceLimitAlter");
        return false;
    }
}

} // namespace cirrovault
