// The per-folder metadata document a WebDAV folder holds, which anyone with write
// access to the server can edit.

#include "FuzzInput.h"
#include "platform/store/webdav/WebDavMetaDocument.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto entries = WebDavMetaDocument::parse(fuzz::text(data, size));
    if (!entries)
        return 0;
    // What we write from what we read must read back to the same text.
    const std::string written = WebDavMetaDocument::format(*entries);
    auto again = WebDavMetaDocument::parse(written);
    if (!again)
        fuzz::broken("a formatted document does not parse");
    if (WebDavMetaDocument::format(*again) != written)
        fuzz::broken("format and parse do not round-trip");
    return 0;
}
