#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/store/StoreBackend.h"

namespace cirrovault {

// One HTTP request of the WebDAV store. The body comes from `body`, or from `upload`
// (length bytes from its current position); a 2xx reply body goes to `download` when
// set, everything else is kept in the response.
struct HttpRequest {
    std::string method;
    std::string url;
    std::vector<std::string> headers; // "Name: value"
    std::string body;
    ByteSource* upload = nullptr;
    uint64_t uploadLength = 0;
    ByteSink* download = nullptr;
    // Progress: told base + bytes sent (or received) of total; asked whether to go on.
    TransferObserver* observer = nullptr;
    uint64_t progressBase = 0;
    uint64_t progressTotal = 0;
};

inline HttpRequest httpRequest(std::string method, std::string url) {
    HttpRequest request;
    request.method = std::move(method);
    request.url = std::move(url);
    return request;
}

struct HttpResponse {
    long status = 0;
    std::map<std::string, std::string> headers; // names in lower case, last reply only
    std::string body;
    std::string header(const std::string& lowerName) const;
};

struct HttpTimeouts {
    long connectSeconds = 15;
    // A request that moves no byte for this long has met a hung server.
    long stallSeconds = 60;
    long long maxSendBytesPerSecond = 0; // the upload limit; 0 for none
};

// A reused libcurl connection (keep-alive) with Basic credentials. Not thread-safe:
// each thread borrows its own session from the store's pool. A transfer is cancelled
// within one poll interval of its observer saying stop.
class WebDavHttpSession {
public:
    WebDavHttpSession(std::string user, std::string password, HttpTimeouts timeouts);
    ~WebDavHttpSession();
    WebDavHttpSession(const WebDavHttpSession&) = delete;
    WebDavHttpSession& operator=(const WebDavHttpSession&) = delete;

    // Success when a reply arrived (whatever its status); Cancelled, LocalFileError
    // (the upload source or download sink failed) or Failure (unreachable, dropped,
    // timed out) otherwise.
    int64_t perform(const HttpRequest& request, HttpResponse& response);

    static constexpr int PollMilliseconds = 50;

private:
    struct Transfer;
    static size_t onHeader(char* data, size_t size, size_t count, void* user);
    static size_t onWrite(char* data, size_t size, size_t count, void* user);
    static size_t onRead(char* data, size_t size, size_t count, void* user);
    static int onProgress(void* user, int64_t downTotal, int64_t downNow, int64_t upTotal,
                          int64_t upNow);

    std::string user_;
    std::string password_;
    HttpTimeouts timeouts_;
    void* multi_ = nullptr; // CURLM*
    void* easy_ = nullptr;  // CURL*
};

} // namespace cirrovault
