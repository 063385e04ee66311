#pragma once

#include <functional>
#include <string>

#include "platform/store/webdav/WebDavHttpSession.h"

namespace cirrovault {

// What a WebDAV server does beyond the basics, as learned from the server itself.
struct WebDavFeatures {
    bool deadProperties = false; // PROPPATCH of our own properties, read back by PROPFIND
    bool rangePut = false;       // a PUT with Content-Range writes into the existing file
    bool ocMtime = false; // a PUT's X-OC-Mtime becomes the file's time (said and read back)
    // A MOVE with "Overwrite: F" onto a folder is refused, as it must be; some servers
    // move the file into that folder instead.
    bool moveRefusesOccupiedName = false;
    // MKCOL of a folder that is already there answers 201 on some servers: it neither
    // says that the folder exists nor can it serve as a lock there.
    bool mkcolAcceptsExisting = false;
};

// Probes each server once per process and remembers the answer: a server that ignores
// a Content-Range (and writes the range as the whole file) must never see a resumed
// upload, so ranges are used only where a probe proved them applied.
class WebDavCapabilityProbe {
public:
    using Send = std::function<int64_t(HttpRequest&, HttpResponse&)>;

    // serverKey names the server ("http://host:port"); scratchUrl is a file URL the
    // probe may create and remove. A failed probe is not remembered.
    static WebDavFeatures featuresFor(const std::string& serverKey, const std::string& scratchUrl,
                                      const Send& send);
    // Forgets every server (tests start servers on reused ports).
    static void forgetAll();

    static constexpr int64_t ProbeTime = 1'000'000'000;

private:
    static bool probe(const std::string& scratchUrl, const Send& send, WebDavFeatures& features);
};

} // namespace cirrovault
