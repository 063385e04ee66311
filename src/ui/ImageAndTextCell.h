#pragma once

#include <string>

#include "support/FileAttributeNode.h"

namespace cirrovault {

// Draws one row of the file browser as a line of text: an icon standing for the item's
// kind, then its text. A browser row also carries a tick box in front and the size and
// modification date in columns on the right when the line is wide enough.
class ImageAndTextCell {
public:
    ImageAndTextCell() = default;
    ImageAndTextCell(std::string image, std::string stringValue);

    void setImage(const std::string& marker) { image = marker; }
    void setStringValue(const std::string& text) { stringValue = text; }

    // The icon, a space and the text, cut to `width` characters (0 = no limit).
    std::string draw(int width) const;

    // One-character icons: "D" folder, "@" link, "*" program, "-" document, "?" else.
    static std::string imageForKind(const std::string& kind);
    static std::string drawRow(const FileAttributeNode& node, int width);
    // Cuts UTF-8 text to at most `width` characters without splitting one, ending in
    // "~" when something was cut; pads with spaces to `width` when `pad` is set.
    static std::string fit(const std::string& text, int width, bool pad = false);

    std::string image;
    std::string stringValue;
};

} // namespace cirrovault
