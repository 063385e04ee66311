#include "platform/store/StoreFactory.h"

#include <exception>

#include "platform/os/UrlCoding.h"
#include "platform/os/SystemLog.h"
#include "platform/store/ThrottledStore.h"
#include "platform/store/local/LocalStore.h"
#include "platform/store/webdav/WebDavStore.h"

namespace cirrovault {

namespace {

bool startsWith(const std::string& text, std::string_view prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// The URL for a log line: a user name and password in it stay out of the log.
std::string withoutCredentials(const std::string& url) {
    auto scheme = url.find("://");
    if (scheme == std::string::npos)
        return url;
    auto hostStart = scheme + 3;
    auto hostEnd = url.find('/', hostStart);
    auto at = url.rfind('@', hostEnd == std::string::npos ? url.size() : hostEnd);
    if (at == std::string::npos || at < hostStart)
        return url;
    return url.substr(0, hostStart) + "***@" + url.substr(at + 1);
}

} // namespace

std::shared_ptr<StoreBackend> StoreFactory::makeBackend(const std::string& serviceURL,
                                                        SettingReader settings,
                                                        uint64_t uploadBytesPerSecond) {
    try {
        constexpr std::string_view fileScheme = "file://";
        if (startsWith(serviceURL, fileScheme)) {
            std::string rest = serviceURL.substr(fileScheme.size());
            auto slash = rest.find('/');
            std::string host = rest.substr(0, slash);
            bool usable = slash != std::string::npos && (host.empty() || host == "localhost") &&
                          rest.find_first_of("?#") == std::string::npos;
            std::string folder = usable ? UrlCoding::decode(rest.substr(slash)) : std::string();
            if (!usable || folder.find('\0') != std::string::npos) {
                SystemLog::write("Error: the service URL is not a local folder: " + serviceURL);
                return nullptr;
            }
            auto local = std::make_shared<LocalStore>(folder);
            if (uploadBytesPerSecond == 0)
                return local;
            return std::make_shared<ThrottledStore>(std::move(local), uploadBytesPerSecond);
        }
        if (WebDavStore::isWebDavURL(serviceURL)) {
            // Credentials come from the logon, never from the URL.
            std::string rest = serviceURL.substr(serviceURL.find("://") + 3);
            auto hostEnd = rest.find('/');
            std::string host = rest.substr(0, hostEnd);
            if (host.empty() || host.find('@') != std::string::npos ||
                rest.find_first_of("?#") != std::string::npos) {
                SystemLog::write("Error: the service URL is not a WebDAV folder: " +
                                 withoutCredentials(serviceURL));
                return nullptr;
            }
            HttpTimeouts limits;
            limits.maxSendBytesPerSecond = static_cast<long long>(uploadBytesPerSecond);
            return std::make_shared<WebDavStore>(serviceURL, limits, std::move(settings));
        }
        SystemLog::write("Error: unknown kind of service URL: " + withoutCredentials(serviceURL));
        return nullptr;
    } catch (const std::exception&) {
        SystemLog::write("Error: StoreFactory::makeBackend()");
        return nullptr;
    }
}

} // namespace cirrovault
