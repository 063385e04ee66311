// The WebDAV store: logon, connections, requests, quota and the task list.
#include "platform/store/webdav/WebDavStore.h"

#include <chrono>
#include <cstdlib>
#include <exception>
#include <thread>

#include <sodium.h>

#include "platform/os/ResultCodes.h"
#include "platform/os/UrlCoding.h"
#include "platform/os/SystemLog.h"
#include "platform/store/StorePath.h"
#include "platform/store/webdav/WebDavTextSource.h"

namespace cirrovault {

namespace {

constexpr const char* TaskListMagic = "cirrovault-tasklist ";

std::string randomHex(size_t bytes) {
    std::string raw(bytes, '\0');
    randombytes_buf(raw.data(), raw.size());
    std::string hex(bytes * 2 + 1, '\0');
    sodium_bin2hex(hex.data(), hex.size(), reinterpret_cast<const unsigned char*>(raw.data()),
                   raw.size());
    hex.pop_back();
    return hex;
}

bool startsWith(const std::string& text, std::string_view prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

std::string replaceAll(std::string text, const std::string& what, const std::string& with) {
    for (size_t at = text.find(what); at != std::string::npos;
         at = text.find(what, at + with.size()))
        text.replace(at, what.size(), with);
    return text;
}

} // namespace

bool WebDavStore::isWebDavURL(const std::string& url) {
    return startsWith(url, "webdav://") || startsWith(url, "webdavs://");
}

WebDavStore::WebDavStore(std::string serviceURL, HttpTimeouts timeouts, SettingReader settings)
    : serviceURL_(std::move(serviceURL)), timeouts_(timeouts), settings_(std::move(settings)) {
    if (startsWith(serviceURL_, "webdavs://"))
        baseUrl_ = "https://" + serviceURL_.substr(10);
    else if (startsWith(serviceURL_, "webdav://"))
        baseUrl_ = "http://" + serviceURL_.substr(9);
    auto hostStart = baseUrl_.find("://");
    if (hostStart != std::string::npos && baseUrl_.find('/', hostStart + 3) == std::string::npos)
        baseUrl_ += '/';
    if (!baseUrl_.empty() && baseUrl_.back() != '/')
        baseUrl_ += '/';
}

WebDavStore::~WebDavStore() = default;

StoreCapabilities WebDavStore::capabilities() const {
    StoreCapabilities caps;
    caps.nativeCopy = true;
    caps.nativeMove = true;
    caps.modifyTimePrecision = 1;
    caps.concurrentPuts = true;
    if (auto account = currentAccount()) {
        caps.folderProperties = true; // as properties, or in the metadata documents
        caps.resumableUpload = account->features.deadProperties && account->features.rangePut;
    }
    return caps;
}

std::string WebDavStore::describe() const {
    return serviceURL_;
}

std::optional<WebDavStore::Account> WebDavStore::currentAccount() const {
    std::lock_guard lock(mutex_);
    return account_;
}

int64_t WebDavStore::loggedOn(Account& account) const {
    auto current = currentAccount();
    if (!current)
        return ResultCode::NotLoggedOn;
    account = std::move(*current);
    return ResultCode::Success;
}

int64_t WebDavStore::send(const Account& account, HttpRequest& request, HttpResponse& response) {
    std::unique_ptr<WebDavHttpSession> session;
    uint64_t generation = 0;
    {
        std::lock_guard lock(mutex_);
        generation = generation_;
        if (!idle_.empty()) {
            session = std::move(idle_.back());
            idle_.pop_back();
        }
    }
    if (!session)
        session = std::make_unique<WebDavHttpSession>(account.user, account.password, timeouts_);
    // A change makes the walk's listings of what it touches stale, from before it is sent
    // until it has been answered; our own folder is never listed, so its task list and
    // locks leave them be.
    const std::string ownFolder = account.rootUrl + MetaFolder + "/";
    std::vector<std::string> touched;
    if (request.method != "GET" && request.method != "PROPFIND" &&
        request.url.compare(0, ownFolder.size(), ownFolder) != 0) {
        touched.push_back(request.url);
        for (const auto& header : request.headers)
            if (header.starts_with("Destination: "))
                touched.push_back(header.substr(13));
        dropHeldListings(account, touched);
    }
    int64_t rc = session->perform(request, response);
    if (!touched.empty())
        dropHeldListings(account, touched);
    std::lock_guard lock(mutex_);
    if (generation == generation_ && idle_.size() < 16)
        idle_.push_back(std::move(session));
    return rc;
}

std::string WebDavStore::locationOf(const std::string& path) const {
    auto account = currentAccount();
    auto names = StorePath::split(path);
    if (!account || !names)
        return path;
    return urlOf(*account, *names, false);
}

std::string WebDavStore::urlOf(const Account& account, const std::vector<std::string>& names,
                               bool folder) const {
    std::string url = account.rootUrl;
    for (size_t i = 0; i < names.size(); ++i) {
        url += UrlCoding::encode(names[i]);
        if (folder || i + 1 < names.size())
            url += '/';
    }
    return url;
}

int64_t WebDavStore::codeOf(long status) {
    if (status >= 200 && status < 300)
        return ResultCode::Success;
    switch (status) {
    case 401:
        return ResultCode::NotLoggedOn;
    case 403: // read-only, or refused by the server's rules: trying again will not help
        return ResultCode::Forbidden;
    case 404:
    case 409: // a missing parent folder
        return ResultCode::NotFound;
    case 412:
        return ResultCode::AlreadyExists;
    case 423:
        return ResultCode::Conflict;
    case 507:
        return ResultCode::SpaceLimit;
    default:
        return ResultCode::Failure;
    }
}

// A 207 reply to MOVE, COPY or DELETE lists what failed; any failure fails the whole.
int64_t WebDavStore::worstOf(const std::string& body) {
    std::vector<DavResource> resources;
    if (!WebDavMultistatus::parse(body, resources))
        return ResultCode::Failure;
    int64_t worst = ResultCode::Success;
    for (const auto& resource : resources) {
        if (resource.status != 0 && (resource.status < 200 || resource.status >= 300)) {
            int64_t code = codeOf(resource.status);
            if (worst == ResultCode::Success || code == ResultCode::SpaceLimit)
                worst = code == ResultCode::Success ? ResultCode::Failure : code;
        }
        if (!resource.failed.empty() && worst == ResultCode::Success)
            worst = ResultCode::Failure;
    }
    return worst;
}

int64_t WebDavStore::propfind(const Account& account, const std::string& url, int depth,
                              std::vector<DavResource>& resources) {
    resources.clear();
    HttpRequest request;
    request.method = "PROPFIND";
    request.url = url;
    request.headers = {depth == 0 ? "Depth: 0" : "Depth: 1"};
    request.body = "<?xml version=\"1.0\" encoding=\"utf-8\"?>"
                   "<D:propfind xmlns:D=\"DAV:\" xmlns:C=\"urn:x-cirrovault:\"><D:prop>"
                   "<D:resourcetype/><D:getcontentlength/><D:getlastmodified/><D:getetag/>"
                   "<C:mtime/><C:description/><C:caption/><C:resumetag/><C:mode/>"
                   "</D:prop></D:propfind>";
    HttpResponse response;
    int64_t rc = send(account, request, response);
    if (rc != ResultCode::Success)
        return rc;
    // Folders asked for without their "/" may be redirected to it.
    if ((response.status == 301 || response.status == 308) && url.back() != '/') {
        request.url = url + "/";
        if ((rc = send(account, request, response)) != ResultCode::Success)
            return rc;
    }
    if (response.status != 207)
        return response.status == 200 ? ResultCode::Failure : codeOf(response.status);
    if (!WebDavMultistatus::parse(response.body, resources)) {
        SystemLog::write("WebDAV: unreadable PROPFIND reply for " + url);
        return ResultCode::Failure;
    }
    return ResultCode::Success;
}

std::optional<int64_t> WebDavStore::configuredQuota() const {
    if (!settings_)
        return std::nullopt;
    auto text = settings_("Quota");
    if (!text || text->empty())
        return std::nullopt;
    char* end = nullptr;
    long long value = std::strtoll(text->c_str(), &end, 10);
    if (!end || *end != '\0' || value <= 0)
        return std::nullopt;
    return value;
}

int64_t WebDavStore::checkSpace(const Account& account, int64_t adding,
                                std::optional<int64_t> limit) {
    if (adding <= 0)
        return ResultCode::Success;
    if (!limit)
        return ResultCode::Success; // the server answers 507 when it is full
    Totals used;
    if (int64_t rc = totalsOf(account, {}, used); rc != ResultCode::Success)
        return rc;
    if (static_cast<int64_t>(used.bytes) + adding > *limit) {
        SystemLog::write("WebDAV: the account's quota would be passed");
        return ResultCode::SpaceLimit;
    }
    return ResultCode::Success;
}

int64_t WebDavStore::logon(const std::string& userName, const std::string& password,
                           StoreSession& session) {
    try {
        session = {};
        logoff();
        if (userName.empty())
            return ResultCode::EmptyName;
        if (baseUrl_.empty()) {
            SystemLog::write("Error: WebDAV: not a WebDAV URL: " + serviceURL_);
            return ResultCode::NoService;
        }
        if (sodium_init() < 0)
            return ResultCode::Failure;
        Account account;
        account.user = userName;
        account.password = password;
        account.rootUrl = replaceAll(baseUrl_, "{user}", UrlCoding::encode(userName));
        auto hostEnd = account.rootUrl.find('/', account.rootUrl.find("://") + 3);
        account.serverKey = account.rootUrl.substr(0, hostEnd);
        account.rootPath = WebDavMultistatus::hrefPath(account.rootUrl.substr(hostEnd));
        if (account.rootPath == "/")
            account.rootPath.clear(); // the server's root: its entries are "/<name>"

        // The password is checked by an authenticated look at the account's root.
        std::vector<DavResource> resources;
        int64_t rc = propfind(account, account.rootUrl, 0, resources);
        if (rc == ResultCode::NotLoggedOn) {
            SystemLog::write("WebDAV: logon refused for " + userName);
            return ResultCode::WrongPassword;
        }
        if (rc == ResultCode::NotFound) {
            // A new user on a server that keeps a folder per user: make it.
            HttpRequest mkcol = httpRequest("MKCOL", account.rootUrl);
            HttpResponse response;
            rc = send(account, mkcol, response);
            if (rc == ResultCode::Success && response.status != 201) {
                SystemLog::write("Error: WebDAV: the account's folder cannot be made: " +
                                 account.rootUrl);
                return ResultCode::NoService;
            }
        }
        if (rc == ResultCode::BadCertificate) {
            SystemLog::write("WebDAV: the server's certificate did not verify: " + account.serverKey);
            return rc;
        }
        if (rc != ResultCode::Success) {
            SystemLog::write("WebDAV: the server cannot be reached: " + account.serverKey);
            return rc == ResultCode::Cancelled ? ResultCode::Failure : rc;
        }
        {
            HttpRequest mkcol = httpRequest("MKCOL", account.rootUrl + MetaFolder + "/");
            HttpResponse response;
            send(account, mkcol, response); // 405 when it exists
        }
        account.features = WebDavCapabilityProbe::featuresFor(
            account.serverKey, account.rootUrl + MetaFolder + "/probe-" + randomHex(4),
            [&](HttpRequest& request, HttpResponse& response) {
                return send(account, request, response);
            });

        unsigned char hash[16];
        std::string identity = account.rootUrl + "\n" + userName;
        crypto_generichash(hash, sizeof hash,
                           reinterpret_cast<const unsigned char*>(identity.data()), identity.size(),
                           nullptr, 0);
        char hex[sizeof hash * 2 + 1];
        sodium_bin2hex(hex, sizeof hex, hash, 6);
        account.customerID = std::string("c") + hex;

        {
            std::lock_guard lock(mutex_);
            account_ = account;
        }
        folderTotals_.clear();
        session.sessionID = randomHex(16);
        session.customerID = account.customerID;
        return ResultCode::Success;
    } catch (const std::exception&) {
        SystemLog::write("Error: WebDavStore::logon()");
        return ResultCode::Failure;
    }
}

void WebDavStore::logoff() {
    if (auto account = currentAccount(); account && keepsMetaDocuments(*account))
        flushMeta(*account);
    std::lock_guard lock(mutex_);
    pendingMeta_.clear();
    heldListings_.clear();
    heldEntries_ = 0;
    ++listingGeneration_;
    account_.reset();
    folderTotals_.clear();
    ++generation_;
    idle_.clear();
}

int64_t WebDavStore::quota(StoreQuota& quota) {
    try {
        quota = {};
        Account account;
        if (int64_t rc = loggedOn(account); rc != ResultCode::Success)
            return rc;
        // RFC 4331 figures, when the server reports them.
        HttpRequest request;
        request.method = "PROPFIND";
        request.url = account.rootUrl;
        request.headers = {"Depth: 0"};
        request.body = "<?xml version=\"1.0\" encoding=\"utf-8\"?>"
                       "<D:propfind xmlns:D=\"DAV:\"><D:prop><D:quota-available-bytes/>"
                       "</D:prop></D:propfind>";
        HttpResponse response;
        int64_t rc = send(account, request, response);
        if (rc != ResultCode::Success)
            return rc;
        if (response.status != 207)
            return codeOf(response.status);
        std::optional<int64_t> available;
        std::vector<DavResource> resources;
        if (WebDavMultistatus::parse(response.body, resources) && !resources.empty())
            if (auto text = resources[0].property("DAV:", "quota-available-bytes");
                text && !text->empty())
                available = std::max<int64_t>(0, std::strtoll(text->c_str(), nullptr, 10));
        // Some servers give the figures of the whole disk, which others share: the
        // account uses what its folders hold, and the server's free space bounds the rest.
        Totals totals;
        if ((rc = totalsOf(account, {}, totals)) != ResultCode::Success)
            return rc;
        quota.usedSpace = static_cast<int64_t>(totals.bytes);
        quota.maxSpace = available ? quota.usedSpace + *available : UnlimitedQuota;
        if (auto limit = configuredQuota())
            quota.maxSpace = std::min(quota.maxSpace, *limit);
        return ResultCode::Success;
    } catch (const std::exception&) {
        SystemLog::write("Error: WebDavStore::quota()");
        return ResultCode::Failure;
    }
}

// The task list is one document in our folder, "<magic><generation>\n<document>". The
// generation travels with the bytes in one GET, so a version can never be read apart
// from its content. Writers take a lock (a folder beside it), compare generations, and
// put the new document in place with one MOVE, so two computers updating at once never
// lose a change (the loser answers Conflict and reads again) and a reader never sees
// half a document.
int64_t WebDavStore::readTaskList(std::string& document, std::string& version) {
    try {
        document.clear();
        version.clear();
        Account account;
        if (int64_t rc = loggedOn(account); rc != ResultCode::Success)
            return rc;
        HttpRequest request = httpRequest("GET", account.rootUrl + MetaFolder + "/tasklist");
        HttpResponse response;
        if (int64_t rc = send(account, request, response); rc != ResultCode::Success)
            return rc;
        if (response.status != 200) {
            // While a writer moves the new document over the old one, some servers answer
            // 404 or 403: ask again under the writers' lock, which that move holds.
            std::string token;
            if (lockTaskList(account, token) == ResultCode::Success) {
                int64_t rc = send(account, request, response);
                unlockTaskList(account, token);
                if (rc != ResultCode::Success)
                    return rc;
            }
        }
        if (response.status == 404)
            return ResultCode::Success;
        if (response.status != 200)
            return codeOf(response.status) == ResultCode::Success ? ResultCode::Failure
                                                                  : codeOf(response.status);
        const std::string& body = response.body;
        auto newline = body.find('\n');
        if (!startsWith(body, TaskListMagic) || newline == std::string::npos) {
            SystemLog::write("Error: WebDAV: the task list document is damaged");
            return ResultCode::StorageError;
        }
        version = body.substr(std::string_view(TaskListMagic).size(),
                              newline - std::string_view(TaskListMagic).size());
        document = body.substr(newline + 1);
        return ResultCode::Success;
    } catch (const std::exception&) {
        SystemLog::write("Error: WebDavStore::readTaskList()");
        return ResultCode::Failure;
    }
}

// The writers' lock is a folder: MKCOL is a mkdir on every file-backed server, which
// exactly one of several writers wins, while LOCK requests race on some servers. A lock
// left by a writer that died is broken once it is older than StaleLockSeconds. Where
// MKCOL succeeds on an existing folder, a WebDAV LOCK with that timeout stands in.
int64_t WebDavStore::lockTaskList(const Account& account, std::string& token) {
    if (account.features.mkcolAcceptsExisting)
        return davLockTaskList(account, token);
    token = account.rootUrl + MetaFolder + "/tasklist.lock/";
    auto wait = std::chrono::milliseconds(1);
    for (int attempt = 0; attempt < 400; ++attempt) {
        HttpRequest request = httpRequest("MKCOL", token);
        HttpResponse response;
        if (int64_t rc = send(account, request, response); rc != ResultCode::Success)
            return rc;
        if (response.status == 201)
            return ResultCode::Success;
        if (response.status != 405 && response.status != 403 && response.status != 409 &&
            response.status != 500)
            return codeOf(response.status) == ResultCode::Success ? ResultCode::Failure
                                                                  : codeOf(response.status);
        if (attempt % 20 == 19) {
            std::vector<DavResource> held;
            auto serverNow = WebDavMultistatus::parseHttpDate(response.header("date"));
            if (propfind(account, token, 0, held) == ResultCode::Success && !held.empty() &&
                held[0].lastModified && serverNow &&
                serverNow->timeIntervalSince1970() - held[0].lastModified->timeIntervalSince1970() >
                    StaleLockSeconds) {
                SystemLog::write("WebDAV: broke a stale task list lock");
                HttpRequest drop = httpRequest("DELETE", token);
                send(account, drop, response);
                continue;
            }
        }
        // Another writer holds it for the few milliseconds of its update.
        std::this_thread::sleep_for(wait);
        wait = std::min(wait * 2, std::chrono::milliseconds(25));
    }
    return ResultCode::Conflict;
}

int64_t WebDavStore::davLockTaskList(const Account& account, std::string& token) {
    const std::string url = account.rootUrl + MetaFolder + "/tasklist.lock";
    auto wait = std::chrono::milliseconds(1);
    for (int attempt = 0; attempt < 400; ++attempt) {
        HttpRequest request = httpRequest("LOCK", url);
        request.headers = {"Timeout: Second-" + std::to_string(int(StaleLockSeconds)),
                           "Content-Type: application/xml; charset=utf-8"};
        request.body = "<?xml version=\"1.0\" encoding=\"utf-8\"?>"
                       "<D:lockinfo xmlns:D=\"DAV:\"><D:lockscope><D:exclusive/></D:lockscope>"
                       "<D:locktype><D:write/></D:locktype><D:owner>cirrovault</D:owner>"
                       "</D:lockinfo>";
        HttpResponse response;
        if (int64_t rc = send(account, request, response); rc != ResultCode::Success)
            return rc;
        std::string lockToken = response.header("lock-token");
        if ((response.status == 200 || response.status == 201) && !lockToken.empty()) {
            token = lockToken;
            return ResultCode::Success;
        }
        if (response.status != 423)
            return codeOf(response.status) == ResultCode::Success ? ResultCode::Failure
                                                                  : codeOf(response.status);
        // Another writer holds it for the few milliseconds of its update.
        std::this_thread::sleep_for(wait);
        wait = std::min(wait * 2, std::chrono::milliseconds(25));
    }
    return ResultCode::Conflict;
}

void WebDavStore::unlockTaskList(const Account& account, const std::string& token) {
    HttpRequest request;
    HttpResponse response;
    if (account.features.mkcolAcceptsExisting) {
        request = httpRequest("UNLOCK", account.rootUrl + MetaFolder + "/tasklist.lock");
        request.headers = {"Lock-Token: " + token};
    } else {
        request = httpRequest("DELETE", token);
    }
    send(account, request, response);
}

int64_t WebDavStore::writeTaskList(const std::string& document,
                                   const std::string& expectedVersion) {
    try {
        Account account;
        if (int64_t rc = loggedOn(account); rc != ResultCode::Success)
            return rc;
        std::string token;
        if (int64_t rc = lockTaskList(account, token); rc != ResultCode::Success)
            return rc;
        struct Unlock {
            WebDavStore* store;
            const Account& account;
            const std::string& token;
            ~Unlock() { store->unlockTaskList(account, token); }
        } unlock{this, account, token};

        const std::string url = account.rootUrl + MetaFolder + "/tasklist";
        HttpRequest get = httpRequest("GET", url);
        HttpResponse current;
        if (int64_t rc = send(account, get, current); rc != ResultCode::Success)
            return rc;
        std::string currentVersion;
        if (current.status == 200) {
            auto newline = current.body.find('\n');
            if (startsWith(current.body, TaskListMagic) && newline != std::string::npos)
                currentVersion =
                    current.body.substr(std::string_view(TaskListMagic).size(),
                                        newline - std::string_view(TaskListMagic).size());
            else
                currentVersion = "damaged";
        } else if (current.status != 404) {
            return codeOf(current.status) == ResultCode::Success ? ResultCode::Failure
                                                                 : codeOf(current.status);
        }
        if (currentVersion != expectedVersion)
            return ResultCode::Conflict;

        // Written beside the document and moved over it: some servers write a PUT in
        // place, and a reader meanwhile would get part of a document.
        std::string body = TaskListMagic + randomHex(16) + "\n" + document;
        const std::string staged = url + "." + randomHex(4) + ".new";
        HttpRequest put;
        put.method = "PUT";
        put.url = staged;
        WebDavTextSource source(body);
        put.upload = &source;
        put.uploadLength = body.size();
        HttpResponse response;
        int64_t rc = send(account, put, response);
        auto stored = [&] { return rc == ResultCode::Success && response.status / 100 == 2; };
        if (stored()) {
            HttpRequest move = httpRequest("MOVE", staged);
            move.headers = {"Destination: " + url, "Overwrite: T"};
            rc = send(account, move, response);
        }
        if (!stored()) {
            HttpRequest drop = httpRequest("DELETE", staged);
            HttpResponse dropped;
            send(account, drop, dropped);
        }
        if (rc != ResultCode::Success)
            return rc;
        if (response.status < 200 || response.status >= 300) {
            SystemLog::write("Error: WebDAV: the task list cannot be stored: HTTP " +
                             std::to_string(response.status));
            int64_t code = codeOf(response.status);
            return code == ResultCode::NotLoggedOn || code == ResultCode::SpaceLimit
                       ? code
                       : ResultCode::StorageError;
        }
        return ResultCode::Success;
    } catch (const std::exception&) {
        SystemLog::write("Error: WebDavStore::writeTaskList()");
        return ResultCode::Failure;
    }
}

int64_t WebDavStore::flush() {
    Account account;
    if (int64_t rc = loggedOn(account); rc != ResultCode::Success)
        return rc;
    // Every completed request is already stored by the server; what waits is ours.
    return keepsMetaDocuments(account) ? flushMeta(account) : ResultCode::Success;
}

} // namespace cirrovault
