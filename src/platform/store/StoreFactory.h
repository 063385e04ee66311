#pragma once

#include <memory>
#include <string>

#include "platform/store/StoreBackend.h"

namespace cirrovault {

// Chooses the backend for a service URL.
class StoreFactory {
public:
    // "file:///abs/path" (percent-encoded bytes allowed, host empty or "localhost"):
    // the local store in that folder. "webdav://host[:port]/path" or "webdavs://...":
    // a WebDAV server ("{user}" in the path becomes the logon name). nullptr, with a logged line, for anything it
    // cannot serve. settings: the user's settings, for the backends that read some.
    // Uploads are held to uploadBytesPerSecond when it is not 0.
    static std::shared_ptr<StoreBackend> makeBackend(const std::string& serviceURL,
                                                     SettingReader settings = {},
                                                     uint64_t uploadBytesPerSecond = 0);
};

} // namespace cirrovault
