#include "platform/store/webdav/WebDavCapabilityProbe.h"

#include <map>
#include <mutex>

#include "platform/os/ResultCodes.h"
#include "platform/os/SystemLog.h"
#include "platform/store/webdav/WebDavMultistatus.h"
#include "platform/store/webdav/WebDavTextSource.h"

namespace cirrovault {

namespace {

std::mutex mutex;
std::map<std::string, WebDavFeatures> known; // guarded by mutex

// The probe's bytes: a range PUT replaces the second half of "AAAAAAAA"; a server that
// ignores the range leaves "BBBB" alone (or nothing), and both show.
int64_t putText(const WebDavCapabilityProbe::Send& send, const std::string& url,
                const std::string& text, std::vector<std::string> headers, HttpResponse& response) {
    WebDavTextSource source(text);
    HttpRequest request;
    request.method = "PUT";
    request.url = url;
    request.headers = std::move(headers);
    request.upload = &source;
    request.uploadLength = text.size();
    return send(request, response);
}

bool ok(int64_t rc, const HttpResponse& response) {
    return rc == ResultCode::Success && response.status >= 200 && response.status < 300;
}

} // namespace

bool WebDavCapabilityProbe::probe(const std::string& scratchUrl, const Send& send,
                                  WebDavFeatures& features) {
    HttpResponse response;
    if (!ok(putText(send, scratchUrl, "AAAAAAAA", {"X-OC-Mtime: " + std::to_string(ProbeTime)},
                    response),
            response))
        return false;
    if (response.header("x-oc-mtime") == "accepted") {
        // Saying so is not keeping it: the time must read back.
        HttpRequest find;
        find.method = "PROPFIND";
        find.url = scratchUrl;
        find.headers = {"Depth: 0"};
        find.body = "<?xml version=\"1.0\" encoding=\"utf-8\"?>"
                    "<D:propfind xmlns:D=\"DAV:\"><D:prop><D:getlastmodified/></D:prop></D:propfind>";
        std::vector<DavResource> resources;
        features.ocMtime = send(find, response) == ResultCode::Success && response.status == 207 &&
                           WebDavMultistatus::parse(response.body, resources) &&
                           resources.size() == 1 && resources[0].lastModified &&
                           resources[0].lastModified->timeIntervalSince1970() == ProbeTime;
    }

    HttpRequest patch;
    patch.method = "PROPPATCH";
    patch.url = scratchUrl;
    patch.body = "<?xml version=\"1.0\" encoding=\"utf-8\"?>"
                 "<D:propertyupdate xmlns:D=\"DAV:\" xmlns:C=\"urn:x-cirrovault:\"><D:set><D:prop>"
                 "<C:probe>kept</C:probe></D:prop></D:set></D:propertyupdate>";
    // Servers answer a PROPPATCH with 207, or with 200/204 when all went well.
    if (send(patch, response) == ResultCode::Success &&
        (response.status == 207 || response.status == 200 || response.status == 204)) {
        HttpRequest find;
        find.method = "PROPFIND";
        find.url = scratchUrl;
        find.headers = {"Depth: 0"};
        find.body = "<?xml version=\"1.0\" encoding=\"utf-8\"?>"
                    "<D:propfind xmlns:D=\"DAV:\" xmlns:C=\"urn:x-cirrovault:\"><D:prop><C:probe/>"
                    "</D:prop></D:propfind>";
        std::vector<DavResource> resources;
        features.deadProperties =
            send(find, response) == ResultCode::Success && response.status == 207 &&
            WebDavMultistatus::parse(response.body, resources) && resources.size() == 1 &&
            resources[0].property("urn:x-cirrovault:", "probe") == "kept";
    }

    HttpResponse ranged;
    int64_t rc = putText(send, scratchUrl, "BBBB", {"Content-Range: bytes 4-7/8"}, ranged);
    if (ok(rc, ranged)) {
        HttpRequest get;
        get.method = "GET";
        get.url = scratchUrl;
        features.rangePut = send(get, response) == ResultCode::Success && response.status == 200 &&
                            response.body == "AAAABBBB";
    }

    const std::string folderUrl = scratchUrl + "-folder/";
    HttpRequest mkcol;
    mkcol.method = "MKCOL";
    mkcol.url = folderUrl;
    if (send(mkcol, response) == ResultCode::Success && response.status == 201) {
        features.mkcolAcceptsExisting = send(mkcol, response) == ResultCode::Success &&
                                        response.status >= 200 && response.status < 300;
        HttpRequest move;
        move.method = "MOVE";
        move.url = scratchUrl;
        move.headers = {"Destination: " + folderUrl.substr(0, folderUrl.size() - 1),
                        "Overwrite: F"};
        features.moveRefusesOccupiedName =
            send(move, response) == ResultCode::Success && response.status == 412;
    }
    for (const std::string& url : {folderUrl, scratchUrl}) {
        HttpRequest remove;
        remove.method = "DELETE";
        remove.url = url;
        send(remove, response);
    }
    return true;
}

WebDavFeatures WebDavCapabilityProbe::featuresFor(const std::string& serverKey,
                                                  const std::string& scratchUrl, const Send& send) {
    {
        std::lock_guard lock(mutex);
        if (auto it = known.find(serverKey); it != known.end())
            return it->second;
    }
    WebDavFeatures features;
    if (!probe(scratchUrl, send, features)) {
        SystemLog::write("WebDAV: the server's features could not be probed: " + serverKey);
        return features;
    }
    SystemLog::write(
        "WebDAV: " + serverKey + " keeps properties: " + (features.deadProperties ? "yes" : "no") +
        ", applies ranges: " + (features.rangePut ? "yes" : "no") +
        ", keeps the time sent with a file: " + (features.ocMtime ? "yes" : "no") +
        ", refuses a MOVE onto a folder: " + (features.moveRefusesOccupiedName ? "yes" : "no") +
        ", refuses a MKCOL of an existing folder: " +
        (features.mkcolAcceptsExisting ? "no" : "yes"));
    std::lock_guard lock(mutex);
    return known.emplace(serverKey, features).first->second;
}

void WebDavCapabilityProbe::forgetAll() {
    std::lock_guard lock(mutex);
    known.clear();
}

} // namespace cirrovault
