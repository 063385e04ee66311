#include "ui/ImageAndTextCell.h"

#include <utility>

namespace cirrovault {

namespace {

constexpr int SizeColumn = 10;
constexpr int DateColumn = 22;
// Below this the name alone is shown: the columns would leave no room for it.
constexpr int NameMinimum = 12;

bool isContinuation(unsigned char c) {
    return (c & 0xC0) == 0x80;
}

size_t characters(const std::string& text) {
    size_t n = 0;
    for (unsigned char c : text)
        if (!isContinuation(c))
            ++n;
    return n;
}

} // namespace

ImageAndTextCell::ImageAndTextCell(std::string image, std::string stringValue)
    : image(std::move(image)), stringValue(std::move(stringValue)) {}

std::string ImageAndTextCell::fit(const std::string& text, int width, bool pad) {
    if (width <= 0)
        return pad ? std::string() : text;
    size_t limit = static_cast<size_t>(width);
    size_t count = characters(text);
    if (count <= limit)
        return pad ? text + std::string(limit - count, ' ') : text;
    // Keep limit - 1 characters and mark the cut.
    size_t kept = 0;
    size_t at = 0;
    while (at < text.size()) {
        if (!isContinuation(static_cast<unsigned char>(text[at]))) {
            if (kept == limit - 1)
                break;
            ++kept;
        }
        ++at;
    }
    return text.substr(0, at) + "~";
}

std::string ImageAndTextCell::draw(int width) const {
    std::string line = image.empty() ? stringValue : image + " " + stringValue;
    return width > 0 ? fit(line, width) : line;
}

std::string ImageAndTextCell::imageForKind(const std::string& kind) {
    if (kind == "Folder")
        return "D";
    if (kind == "Alias")
        return "@";
    if (kind == "Application")
        return "*";
    if (kind == "Document")
        return "-";
    return "?";
}

std::string ImageAndTextCell::drawRow(const FileAttributeNode& node, int width) {
    std::string box = node.bSelect ? "[x] " : "[ ] ";
    ImageAndTextCell cell(imageForKind(node.kind), node.kind == "Folder" ? node.name + "/" : node.name);
    int nameWidth = width - 4 - 1 - SizeColumn - 1 - DateColumn;
    if (width <= 0)
        return box + cell.draw(0) + "  " + node.size + "  " + node.dateModified;
    if (nameWidth < NameMinimum)
        return box + cell.draw(width - 4);
    return box + fit(cell.draw(0), nameWidth, true) + " " + fit(node.size, SizeColumn, true) + " " +
           fit(node.dateModified, DateColumn);
}

} // namespace cirrovault
