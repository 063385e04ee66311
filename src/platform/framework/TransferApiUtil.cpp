#include "platform/framework/TransferApiUtil.h"

#include <cctype>
#include <cstdlib>
#include <exception>

#include <sodium.h>

#include "platform/framework/CurlHandleController.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/MailSender.h"
#include "platform/framework/NimboSetting.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtilState.h"
#include "platform/os/UrlCoding.h"
#include "platform/os/CallCancel.h"
#include "platform/os/Host.h"
#include "platform/os/SystemLog.h"
#include "platform/store/StoreFactory.h"

namespace cirrovault {

namespace {

void wipe(std::string& secret) {
    if (!secret.empty())
        sodium_memzero(secret.data(), secret.size());
    secret.clear();
}

// A local path as the path part of a file: URL.
std::string fileURLPath(const std::string& path) {
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : path) {
        if (std::isalnum(c) || c == '/' || c == '-' || c == '.' || c == '_' || c == '~') {
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

TransferApiUtil::TransferApiUtil() : state_(std::make_shared<State>()) {}

TransferApiUtil& TransferApiUtil::shareTransferApiUtil() {
    // Made on first use (thread-safe) and kept for the life of the process, so the
    // references handed out here and by sharePathTreeController() never dangle;
    // releaseTransferApiUtil() empties the session instead of destroying it.
    static TransferApiUtil* session = new TransferApiUtil();
    return *session;
}

PathTreeController& TransferApiUtil::sharePathTreeController() {
    return *shareTransferApiUtil().state_->tree;
}

void TransferApiUtil::releaseTransferApiUtil() {
    try {
        TransferApiUtil& session = shareTransferApiUtil();
        session.Logoff();
        {
            std::lock_guard lock(session.state_->mutex);
            session.state_->backend.reset();
            session.state_->serviceURL.clear();
        }
        session.state_->tree->setBackend(nullptr);
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::releaseTransferApiUtil()");
    }
}

std::string TransferApiUtil::defaultServiceURL() {
    try {
        std::string configured = NimboSetting::GetSettingValueForKey("ServiceURL", "");
        if (!configured.empty())
            return configured;
        return "file://" + fileURLPath(Host::applicationSupportFolder() + "/cirrovault/store");
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::defaultServiceURL()");
        return "";
    }
}

uint64_t TransferApiUtil::uploadLimit() {
    std::string text = NimboSetting::GetSettingValueForKey("LimitUpload", "");
    char* end = nullptr;
    unsigned long long kib = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || text[0] == '-' || kib > (uint64_t(1) << 30)) {
        if (!text.empty())
            SystemLog::write("Error: the setting LimitUpload is not a number of KiB/s: " + text);
        return 0;
    }
    return kib * 1024;
}

int64_t TransferApiUtil::OpenService(const std::string& serviceURL) {
    try {
        std::shared_ptr<StoreBackend> opened =
            StoreFactory::makeBackend(serviceURL, &NimboSetting::GetSetting, uploadLimit());
        if (!opened) {
            SystemLog::write("Error: TransferApiUtil::OpenService() cannot use the service URL " +
                             serviceURL);
            return ResultCode::NoService;
        }
        Logoff();
        SetBackend(opened);
        std::lock_guard lock(state_->mutex);
        state_->serviceURL = serviceURL;
        return ResultCode::Success;
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::OpenService()");
        return ResultCode::NoService;
    }
}

void TransferApiUtil::SetBackend(std::shared_ptr<StoreBackend> backend) {
    {
        std::lock_guard lock(state_->mutex);
        state_->backend = backend;
        state_->serviceURL.clear();
    }
    state_->tree->setBackend(std::move(backend));
}

std::shared_ptr<StoreBackend> TransferApiUtil::backend() const {
    std::lock_guard lock(state_->mutex);
    return state_->backend;
}

std::shared_ptr<StoreBackend> TransferApiUtil::changingBackend() {
    state_->unflushed = true;
    return backend();
}

int64_t TransferApiUtil::Flush() {
    try {
        if (!state_->unflushed.exchange(false))
            return ResultCode::Success;
        std::shared_ptr<StoreBackend> store = backend();
        int64_t code = store ? store->flush() : ResultCode::NoService;
        if (code != ResultCode::Success) {
            state_->unflushed = true; // still to be made durable
            SystemLog::write("Error: the store did not make the stored files durable (" +
                             std::to_string(code) + ")");
        }
        return code;
    } catch (const std::exception&) {
        state_->unflushed = true;
        SystemLog::write("Error: TransferApiUtil::Flush()");
        return ResultCode::Failure;
    }
}

int64_t TransferApiUtil::Logon(const std::string& userName, const std::string& passWord) {
    try {
        if (!backend()) {
            int64_t opened = OpenService(defaultServiceURL());
            if (opened != ResultCode::Success)
                return opened;
        }
        std::shared_ptr<StoreBackend> store = backend();
        if (!store)
            return ResultCode::NoService;
        StoreSession session;
        int64_t code = ResultCode::Failure;
        {
            // The logon's dialog reaches its requests through the thread's transfer flag,
            // so Cancel (or a stop request) ends a logon that waits on a hung server.
            CallCancel cancel(CurlHandleController::shared().beginTransfer());
            code = store->logon(userName, passWord, session);
            CurlHandleController::shared().endTransfer();
        }
        {
            std::lock_guard lock(state_->mutex);
            wipe(state_->passWord);
            if (code == ResultCode::Success) {
                state_->userName = userName;
                state_->passWord = passWord;
                state_->sessionID = session.sessionID;
                state_->customerID = session.customerID;
            } else {
                state_->userName.clear();
                state_->sessionID.clear();
                state_->customerID.clear();
            }
        }
        state_->tree->clear();
        if (code != ResultCode::Success)
            SystemLog::write("Error: TransferApiUtil::Logon() answered " + std::to_string(code) +
                             " from " + store->describe());
        return code;
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::Logon()");
        return ResultCode::Failure;
    }
}

void TransferApiUtil::Logoff() {
    try {
        std::shared_ptr<StoreBackend> store;
        bool loggedOn = false;
        {
            std::lock_guard lock(state_->mutex);
            store = state_->backend;
            loggedOn = !state_->sessionID.empty();
            state_->userName.clear();
            wipe(state_->passWord);
            state_->sessionID.clear();
            state_->customerID.clear();
        }
        state_->tree->stopPrefetching();
        if (store && loggedOn)
            store->logoff();
        state_->tree->clear();
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::Logoff()");
    }
}

std::string TransferApiUtil::sessionID() const {
    std::lock_guard lock(state_->mutex);
    return state_->sessionID;
}

std::string TransferApiUtil::customerID() const {
    std::lock_guard lock(state_->mutex);
    return state_->customerID;
}

std::string TransferApiUtil::userName() const {
    std::lock_guard lock(state_->mutex);
    return state_->userName;
}

std::string TransferApiUtil::passWord() const {
    std::lock_guard lock(state_->mutex);
    return state_->passWord;
}

bool TransferApiUtil::CheckNetwork() {
    try {
        std::shared_ptr<StoreBackend> store = backend();
        if (!store)
            return false;
        // Any answer from the service itself means it can be reached.
        StoreItem root;
        int64_t code = store->stat("\\", root);
        return code == ResultCode::Success || code == ResultCode::NotLoggedOn;
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::CheckNetwork()");
        return false;
    }
}

std::string TransferApiUtil::GetHttpHost() const {
    try {
        std::string url;
        {
            std::lock_guard lock(state_->mutex);
            url = state_->serviceURL;
        }
        std::string scheme;
        size_t start = 0;
        if (url.rfind("webdav://", 0) == 0) {
            scheme = "http://";
            start = 9;
        } else if (url.rfind("webdavs://", 0) == 0) {
            scheme = "https://";
            start = 10;
        } else {
            return "";
        }
        std::string authority = url.substr(start, url.find('/', start) - start);
        auto at = authority.rfind('@');
        if (at != std::string::npos)
            authority.erase(0, at + 1); // never hand out credentials
        return authority.empty() ? "" : scheme + authority;
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::GetHttpHost()");
        return "";
    }
}

int64_t TransferApiUtil::GetAccountBalance(AccountBalance& balance) {
    try {
        balance = AccountBalance();
        std::shared_ptr<StoreBackend> store = backend();
        if (!store)
            return ResultCode::NoService;
        StoreQuota quota;
        int64_t code = store->quota(quota);
        if (code != ResultCode::Success)
            return code;
        balance.maxSpace = quota.maxSpace;
        balance.fileSpaceUsed = quota.usedSpace;
        balance.msgSpaceUsed = 0; // the stores keep no messages
        return ResultCode::Success;
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::GetAccountBalance()");
        return ResultCode::Failure;
    }
}

int64_t TransferApiUtil::SendEmailToUser(const std::string& toAddress,
                                         const std::string& strSubject,
                                         const std::string& strBody) {
    try {
        return MailSender::send(toAddress, strSubject, strBody, customerID());
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::SendEmailToUser()");
        return ResultCode::MailFailed;
    }
}

std::string TransferApiUtil::EncodeURL(const std::string& text) {
    try {
        return UrlCoding::encode(text);
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::EncodeURL()");
        return "";
    }
}

std::string TransferApiUtil::stringWithReturnCode(int64_t code) {
    try {
        const char* english = nullptr;
        switch (code) {
        case ResultCode::Success: english = "The operation completed successfully."; break;
        case ResultCode::NotLoggedOn:
            english = "You are not logged on, or your session has expired. Please log on again.";
            break;
        case ResultCode::EmptyName: english = "A name that is needed was left empty."; break;
        case ResultCode::Failure: english = "The operation did not succeed. Please try again."; break;
        case ResultCode::OldTaskNotFound:
            english = "The backup task to change was not found on the server.";
            break;
        case ResultCode::StorageError: english = "The server could not store the change."; break;
        case ResultCode::Cancelled: english = "The operation was cancelled."; break;
        case ResultCode::AlreadyExists:
            english = "An item with this name already exists on the server.";
            break;
        case ResultCode::NotFound: english = "The file or folder was not found on the server."; break;
        case ResultCode::WrongPassword: english = "The user name or password is not correct."; break;
        case ResultCode::SpaceLimit: english = "Your account has no storage space left."; break;
        case ResultCode::BadPath: english = "The server path is not valid."; break;
        case ResultCode::BadRequest: english = "The server could not read the request."; break;
        case ResultCode::LocalFileError:
            english = "The file on this computer could not be read or written.";
            break;
        case ResultCode::WrongPassPhrase:
            english = "The pass phrase does not open this encrypted file.";
            break;
        case ResultCode::DamagedFile: english = "The file on the server is damaged."; break;
        case ResultCode::Conflict:
            english = "Someone else changed the same item at the same time. Please try again.";
            break;
        case ResultCode::NoService: english = "The backup service cannot be reached."; break;
        case ResultCode::MailFailed: english = "The report e-mail could not be sent or kept."; break;
        case ResultCode::BadCertificate:
            english = "The server's certificate could not be verified: the connection is not safe.";
            break;
        case ResultCode::Forbidden:
            english = "The server does not allow this change (the folder may be read-only).";
            break;
        case ResultCode::Done: english = "There was nothing left to upload."; break;
        case ResultCode::StoreDamaged:
            english = "The store's records are damaged or missing; they were left as they are.";
            break;
        case ResultCode::SubItemLimit:
            english = "This folder already holds as many items as it may.";
            break;
        default: break;
        }
        std::string key = "ResultCode" + std::to_string(code);
        if (english)
            return LoadString::GetValueByKey(key, english);
        return LoadString::GetValueByKey(key, "An unknown error occurred (code " +
                                                  std::to_string(code) + ").");
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::stringWithReturnCode()");
        return "";
    }
}

} // namespace cirrovault
