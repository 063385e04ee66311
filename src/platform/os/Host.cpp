#include "platform/os/Host.h"

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>
#include <vector>

namespace cirrovault {

namespace {
const struct passwd* currentUser(std::vector<char>& buffer, struct passwd& entry) {
    struct passwd* result = nullptr;
    buffer.resize(16384);
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &result) != 0)
        return nullptr;
    return result;
}

std::string xdgFolder(const char* variable, const char* fallbackUnderHome) {
    const char* value = std::getenv(variable);
    // Relative values are invalid by the XDG rules and are ignored.
    if (value && value[0] == '/')
        return value;
    return Host::homeFolder() + "/" + fallbackUnderHome;
}
} // namespace

std::string Host::name() {
    char buffer[256] = {};
    if (gethostname(buffer, sizeof buffer - 1) != 0)
        return "";
    return buffer;
}

std::string Host::userFullName() {
    std::vector<char> buffer;
    struct passwd entry {};
    const struct passwd* user = currentUser(buffer, entry);
    if (!user)
        return "";
    std::string gecos = user->pw_gecos ? user->pw_gecos : "";
    std::string full = gecos.substr(0, gecos.find(','));
    return full.empty() ? std::string(user->pw_name ? user->pw_name : "") : full;
}

std::string Host::userLoginName() {
    std::vector<char> buffer;
    struct passwd entry {};
    const struct passwd* user = currentUser(buffer, entry);
    return user && user->pw_name ? user->pw_name : "";
}

std::string Host::homeFolder() {
    const char* home = std::getenv("HOME");
    if (home && home[0] == '/')
        return home;
    std::vector<char> buffer;
    struct passwd entry {};
    const struct passwd* user = currentUser(buffer, entry);
    return user && user->pw_dir ? user->pw_dir : "/";
}

std::string Host::applicationSupportFolder() { return xdgFolder("XDG_DATA_HOME", ".local/share"); }

std::string Host::configFolder() { return xdgFolder("XDG_CONFIG_HOME", ".config"); }

std::string Host::cacheFolder() { return xdgFolder("XDG_CACHE_HOME", ".cache"); }

} // namespace cirrovault
