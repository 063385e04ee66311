#pragma once

#include <string>

#include <fmt/args.h>
#include <fmt/format.h>

#include "platform/os/SystemLog.h"

namespace cirrovault {

// The string table: every text shown to the user is looked up here by key. The
// English table is compiled in; a file "Localizable.plist" in the user's
// configuration folder (or the file named by $CIRROVAULT_STRINGS) overrides keys.
class LoadString {
public:
    // The text for key, or defaultValue when no table has the key.
    static std::string GetValueByKey(const std::string& key, const std::string& defaultValue = "");
    static bool HasKey(const std::string& key);

    // The text for key with its "{}" placeholders filled in order. A malformed text is
    // logged and answered raw rather than failing.
    template <typename... Args>
    static std::string Format(const std::string& key, const Args&... args) {
        return FormatText(GetValueByKey(key, ""), args...);
    }

    template <typename... Args>
    static std::string FormatText(const std::string& text, const Args&... args) {
        try {
            return fmt::format(fmt::runtime(text), args...);
        } catch (const std::exception&) {
            SystemLog::write("Error: malformed string table text: " + text);
            return text;
        }
    }

    // Forgets the loaded tables; the next lookup reads them again.
    static void Reload();
};

} // namespace cirrovault
