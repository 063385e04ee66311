#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace cirrovault {

// What we keep about one entry of a folder on a server that keeps no properties of ours.
struct WebDavMetaEntry {
    bool folder = false;
    // Files: the local file's modification time, and the stored copy it belongs to: its
    // size and the server's own modification time (whole seconds; 0 until known). A copy
    // that no longer matches was replaced by someone else, and the entry no longer holds.
    double modifyTime = 0;
    uint64_t size = 0;
    int64_t serverTime = 0;
    // Folders: description and caption.
    std::string description;
    std::string caption;
    uint32_t mode = 0; // files: the local file's st_mode; 0: none kept

    bool operator==(const WebDavMetaEntry&) const = default;
};

using WebDavMetaEntries = std::map<std::string, WebDavMetaEntry>; // by entry name

// The document ".cirrovault-meta" in a folder: a line per entry of that folder, fields
// separated by tabs and percent-encoded, so any name survives.
//   cirrovault-meta 1
//   f <name> <modify time> <size> <server time> [<mode>]
//   d <name> <description> <caption>
class WebDavMetaDocument {
public:
    static constexpr const char* FileName = ".cirrovault-meta";

    // Nullopt for a document that is not ours; damaged lines are skipped.
    static std::optional<WebDavMetaEntries> parse(const std::string& text);
    static std::string format(const WebDavMetaEntries& entries);
};

} // namespace cirrovault
