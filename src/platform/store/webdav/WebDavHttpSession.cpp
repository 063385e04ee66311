#include "platform/store/webdav/WebDavHttpSession.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <mutex>

#include <curl/curl.h>

#include "platform/os/ResultCodes.h"
#include "platform/os/CallCancel.h"
#include "platform/os/SystemLog.h"

namespace cirrovault {

namespace {

constexpr size_t MaxKeptBody = 16 << 20; // error pages and listings larger than this are cut

void initCurlOnce() {
    static std::once_flag ready;
    std::call_once(ready, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

} // namespace

std::string HttpResponse::header(const std::string& lowerName) const {
    auto it = headers.find(lowerName);
    return it == headers.end() ? std::string() : it->second;
}

// What the callbacks of one request share.
struct WebDavHttpSession::Transfer {
    const HttpRequest* request = nullptr;
    HttpResponse* response = nullptr;
    CURL* easy = nullptr;
    uint64_t uploaded = 0;
    uint64_t lastReported = UINT64_MAX;
    int64_t lastUp = -1;
    int64_t lastDown = -1;
    std::chrono::steady_clock::time_point lastMovement = std::chrono::steady_clock::now();
    bool sourceFailed = false;
    bool sinkFailed = false;
    bool cancelled = false;

    bool keepGoing() {
        if (cancelled)
            return false;
        if ((request->observer && !request->observer->shouldContinue()) || CallCancel::requested())
            cancelled = true;
        return !cancelled;
    }
};

WebDavHttpSession::WebDavHttpSession(std::string user, std::string password,
                                     HttpTimeouts timeouts)
    : user_(std::move(user)), password_(std::move(password)), timeouts_(timeouts) {
    initCurlOnce();
    multi_ = curl_multi_init();
    easy_ = curl_easy_init();
}

WebDavHttpSession::~WebDavHttpSession() {
    if (easy_)
        curl_easy_cleanup(static_cast<CURL*>(easy_));
    if (multi_)
        curl_multi_cleanup(static_cast<CURLM*>(multi_));
}

size_t WebDavHttpSession::onHeader(char* data, size_t size, size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    std::string line(data, size * count);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.pop_back();
    if (line.compare(0, 5, "HTTP/") == 0) {
        transfer->response->headers.clear(); // a new reply: 100 Continue is behind us
        return size * count;
    }
    auto colon = line.find(':');
    if (colon == std::string::npos)
        return size * count;
    std::string name = line.substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    auto start = line.find_first_not_of(" \t", colon + 1);
    transfer->response->headers[name] = start == std::string::npos ? "" : line.substr(start);
    return size * count;
}

size_t WebDavHttpSession::onWrite(char* data, size_t size, size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    size_t n = size * count;
    long status = 0;
    curl_easy_getinfo(transfer->easy, CURLINFO_RESPONSE_CODE, &status);
    if (transfer->request->download && status >= 200 && status < 300) {
        if (!transfer->request->download->write(data, n)) {
            transfer->sinkFailed = true;
            return 0;
        }
        return n;
    }
    std::string& body = transfer->response->body;
    if (body.size() < MaxKeptBody)
        body.append(data, std::min(n, MaxKeptBody - body.size()));
    return n;
}

size_t WebDavHttpSession::onRead(char* data, size_t size, size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    const HttpRequest& request = *transfer->request;
    uint64_t left = request.uploadLength - transfer->uploaded;
    size_t want = static_cast<size_t>(std::min<uint64_t>(left, size * count));
    if (want == 0)
        return 0;
    if (!transfer->keepGoing())
        return CURL_READFUNC_ABORT;
    int64_t n = request.upload->read(data, want);
    if (n <= 0 || n > static_cast<int64_t>(want)) {
        transfer->sourceFailed = true; // a read error, or the file ended early
        return CURL_READFUNC_ABORT;
    }
    transfer->uploaded += static_cast<uint64_t>(n);
    return static_cast<size_t>(n);
}

int WebDavHttpSession::onProgress(void* user, int64_t, int64_t downNow, int64_t, int64_t upNow) {
    auto* transfer = static_cast<Transfer*>(user);
    if (upNow != transfer->lastUp || downNow != transfer->lastDown) {
        transfer->lastUp = upNow;
        transfer->lastDown = downNow;
        transfer->lastMovement = std::chrono::steady_clock::now();
    }
    const HttpRequest& request = *transfer->request;
    if (!request.observer)
        return transfer->keepGoing() ? 0 : 1;
    uint64_t moved = static_cast<uint64_t>(request.upload ? upNow : downNow);
    if (moved != transfer->lastReported && (request.upload || request.download)) {
        transfer->lastReported = moved;
        uint64_t done = request.progressBase + moved;
        request.observer->transferred(done, std::max(request.progressTotal, done));
    }
    return transfer->keepGoing() ? 0 : 1;
}

int64_t WebDavHttpSession::perform(const HttpRequest& request, HttpResponse& response) {
    response = {};
    auto* easy = static_cast<CURL*>(easy_);
    auto* multi = static_cast<CURLM*>(multi_);
    if (!easy || !multi)
        return ResultCode::Failure;
    Transfer transfer;
    transfer.request = &request;
    transfer.response = &response;
    transfer.easy = easy;
    if (!transfer.keepGoing())
        return ResultCode::Cancelled;

    curl_easy_reset(easy);
    curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
    curl_easy_setopt(easy, CURLOPT_USERNAME, user_.c_str());
    curl_easy_setopt(easy, CURLOPT_PASSWORD, password_.c_str());
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, timeouts_.connectSeconds);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &WebDavHttpSession::onHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, &transfer);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &WebDavHttpSession::onWrite);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &WebDavHttpSession::onProgress);
    curl_easy_setopt(easy, CURLOPT_XFERINFODATA, &transfer);

    curl_slist* headers = nullptr;
    // Waiting for "100 Continue" costs a round trip, or a second on servers that never send it.
    headers = curl_slist_append(headers, "Expect:");
    for (const auto& header : request.headers)
        headers = curl_slist_append(headers, header.c_str());
    if (request.upload) {
        curl_easy_setopt(easy, CURLOPT_UPLOAD, 1L);
        if (timeouts_.maxSendBytesPerSecond > 0)
            curl_easy_setopt(easy, CURLOPT_MAX_SEND_SPEED_LARGE,
                             static_cast<curl_off_t>(timeouts_.maxSendBytesPerSecond));
        curl_easy_setopt(easy, CURLOPT_READFUNCTION, &WebDavHttpSession::onRead);
        curl_easy_setopt(easy, CURLOPT_READDATA, &transfer);
        curl_easy_setopt(easy, CURLOPT_INFILESIZE_LARGE,
                         static_cast<curl_off_t>(request.uploadLength));
        if (request.method != "PUT")
            curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    } else if (!request.body.empty()) {
        headers = curl_slist_append(headers, "Content-Type: application/xml; charset=utf-8");
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.body.data());
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(request.body.size()));
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    } else {
        curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
        if (request.method == "PUT") {
            // An empty file: an upload of no bytes.
            curl_easy_setopt(easy, CURLOPT_UPLOAD, 1L);
            curl_easy_setopt(easy, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(0));
            curl_easy_setopt(easy, CURLOPT_READFUNCTION, &WebDavHttpSession::onRead);
            curl_easy_setopt(easy, CURLOPT_READDATA, &transfer);
        } else if (request.method != "GET") {
            curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
        }
    }
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);

    CURLcode result = CURLE_OK;
    curl_multi_add_handle(multi, easy);
    for (;;) {
        int running = 0;
        if (curl_multi_perform(multi, &running) != CURLM_OK) {
            result = CURLE_FAILED_INIT;
            break;
        }
        int queued = 0;
        bool finished = false;
        while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
            if (message->msg == CURLMSG_DONE && message->easy_handle == easy) {
                result = message->data.result;
                finished = true;
            }
        }
        if (finished || running == 0)
            break;
        // The poll wakes for the socket or after one interval, so a cancel is seen even
        // while the server sends nothing.
        if (!transfer.keepGoing()) {
            result = CURLE_ABORTED_BY_CALLBACK;
            break;
        }
        // libcurl's own speed check averages over seconds; a hung server is seen sooner
        // by the time since the last byte moved either way.
        if (std::chrono::steady_clock::now() - transfer.lastMovement >
            std::chrono::seconds(timeouts_.stallSeconds)) {
            result = CURLE_OPERATION_TIMEDOUT;
            break;
        }
        curl_multi_poll(multi, nullptr, 0, PollMilliseconds, nullptr);
    }
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &response.status);
    curl_multi_remove_handle(multi, easy);
    curl_slist_free_all(headers);

    if (transfer.cancelled || result == CURLE_ABORTED_BY_CALLBACK) {
        if (transfer.sourceFailed || transfer.sinkFailed)
            return ResultCode::LocalFileError;
        return ResultCode::Cancelled;
    }
    if (transfer.sourceFailed || transfer.sinkFailed)
        return ResultCode::LocalFileError;
    if (result != CURLE_OK) {
        SystemLog::write(std::string("WebDAV: ") + request.method + " " + request.url +
                         " failed: " + curl_easy_strerror(result));
        // Not a passing network fault: trying again will not help, and the user must
        // hear that the connection is not safe rather than that the server is away.
        if (result == CURLE_PEER_FAILED_VERIFICATION || result == CURLE_SSL_CACERT_BADFILE ||
            result == CURLE_SSL_ISSUER_ERROR || result == CURLE_SSL_PINNEDPUBKEYNOTMATCH ||
            result == CURLE_SSL_INVALIDCERTSTATUS)
            return ResultCode::BadCertificate;
        return ResultCode::Failure;
    }
    return ResultCode::Success;
}

} // namespace cirrovault
