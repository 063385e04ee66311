#pragma once

#include <string>

namespace cirrovault {

// Facts about this computer and its user.
class Host {
public:
    static std::string name();         // the host name as the system gives it
    static std::string userFullName(); // the user's full name, else the login name
    static std::string userLoginName();
    static std::string homeFolder();
    // The user's application-support folder: $XDG_DATA_HOME, else ~/.local/share.
    static std::string applicationSupportFolder();
    // The user's configuration folder: $XDG_CONFIG_HOME, else ~/.config.
    static std::string configFolder();
    // The user's cache folder: $XDG_CACHE_HOME, else ~/.cache.
    static std::string cacheFolder();
};

} // namespace cirrovault
