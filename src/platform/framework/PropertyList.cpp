#include "platform/framework/PropertyList.h"

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <plist/plist.h>
#include <stdexcept>

#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"

namespace cirrovault {

namespace {

// Property-list dates count from 2001-01-01 00:00:00 UTC, in whole seconds that the
// library keeps in 32 bits: 1901-12-13 to 2069-01-19.
constexpr double kPlistEpoch = 978307200.0;
constexpr double kFirstPlistSecond = std::numeric_limits<int32_t>::min();
constexpr double kLastPlistSecond = std::numeric_limits<int32_t>::max();
// Years of an XML date that surely fit those seconds.
constexpr long kFirstPlistYear = 1902;
constexpr long kLastPlistYear = 2068;

bool isPlistSecond(double since) {
    return std::isfinite(since) && since >= kFirstPlistSecond && since < kLastPlistSecond + 1;
}

// Big-endian unsigned integer of width bytes (1 to 8) at p.
uint64_t bigEndian(const unsigned char* p, size_t width) {
    uint64_t value = 0;
    for (size_t i = 0; i < width; ++i)
        value = (value << 8) | p[i];
    return value;
}

// The library cuts a text at a NUL character (two keys "a\0b" and "a\0c" would become
// one) and keeps dates in 32 bits: such input is refused before it reaches the library.
// Gives the reason, or nothing when the bytes are fit to hand over.
std::optional<std::string> checkXml(const std::string& bytes) {
    if (bytes.find('\0') != std::string::npos)
        return "a NUL character";
    // A character reference to NUL: "&#0;", "&#x00;" and the like.
    for (size_t at = bytes.find("&#"); at != std::string::npos; at = bytes.find("&#", at + 2)) {
        size_t i = at + 2;
        bool hex = i < bytes.size() && (bytes[i] == 'x' || bytes[i] == 'X');
        if (hex)
            ++i;
        size_t digits = i;
        while (i < bytes.size() && bytes[i] == '0')
            ++i;
        if (i > digits && i < bytes.size() && bytes[i] == ';')
            return "a NUL character";
    }
    for (size_t at = bytes.find("<date>"); at != std::string::npos; at = bytes.find("<date>", at + 6)) {
        size_t i = at + 6;
        while (i < bytes.size() && std::isspace(static_cast<unsigned char>(bytes[i])))
            ++i;
        bool negative = i < bytes.size() && bytes[i] == '-';
        if (negative)
            ++i;
        long year = 0;
        size_t digits = 0;
        for (; i < bytes.size() && std::isdigit(static_cast<unsigned char>(bytes[i])) && digits < 9; ++i, ++digits)
            year = year * 10 + (bytes[i] - '0');
        if (negative || digits == 0 || digits > 4 || year < kFirstPlistYear || year > kLastPlistYear)
            return "a date out of range";
    }
    return std::nullopt;
}

// Walks the object table of a binary property list: every text (keys are texts too)
// is looked at for NUL characters and every date for its range.
std::optional<std::string> checkBinary(const std::string& bytes) {
    constexpr size_t kHeader = 8, kTrailer = 32;
    if (bytes.size() < kHeader + kTrailer)
        return "a truncated binary property list";
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    const unsigned char* trailer = data + bytes.size() - kTrailer;
    size_t offsetSize = trailer[6];
    uint64_t objects = bigEndian(trailer + 8, 8);
    uint64_t tableAt = bigEndian(trailer + 24, 8);
    size_t end = bytes.size() - kTrailer;
    if (offsetSize < 1 || offsetSize > 8 || tableAt < kHeader || tableAt > end ||
        objects > (end - tableAt) / offsetSize)
        return "a damaged binary property list";
    for (uint64_t n = 0; n < objects; ++n) {
        uint64_t at = bigEndian(data + tableAt + n * offsetSize, offsetSize);
        if (at < kHeader || at >= tableAt)
            return "a damaged binary property list";
        unsigned kind = data[at] >> 4, info = data[at] & 0x0F;
        size_t pos = static_cast<size_t>(at) + 1;
        if (data[at] == 0x33) { // date: a big-endian double of seconds since 2001
            if (pos + 8 > tableAt)
                return "a damaged binary property list";
            uint64_t raw = bigEndian(data + pos, 8);
            double since;
            std::memcpy(&since, &raw, sizeof since);
            if (!isPlistSecond(since))
                return "a date out of range";
            continue;
        }
        if (kind != 5 && kind != 6) // 5: ASCII text, 6: UTF-16 text
            continue;
        uint64_t length = info;
        if (info == 0x0F) {
            if (pos >= tableAt || (data[pos] >> 4) != 1 || (data[pos] & 0x0F) > 3)
                return "a damaged binary property list";
            size_t width = size_t{1} << (data[pos] & 0x0F);
            if (pos + 1 + width > tableAt)
                return "a damaged binary property list";
            length = bigEndian(data + pos + 1, width);
            pos += 1 + width;
        }
        size_t unit = kind == 5 ? 1 : 2;
        if (length > (tableAt - pos) / unit)
            return "a damaged binary property list";
        for (uint64_t i = 0; i < length; ++i) {
            const unsigned char* c = data + pos + i * unit;
            if (c[0] == 0 && (unit == 1 || c[1] == 0))
                return "a NUL character";
        }
    }
    return std::nullopt;
}

PropertyList fromNode(plist_t node, int depth);

PropertyList fromNode(plist_t node, int depth) {
    if (!node || depth > 64)
        return PropertyList(std::string());
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t b = 0;
        plist_get_bool_val(node, &b);
        return PropertyList(b != 0);
    }
    case PLIST_UINT: {
        uint64_t u = 0;
        plist_get_uint_val(node, &u);
        return PropertyList(static_cast<int64_t>(u));
    }
    case PLIST_REAL: {
        double d = 0;
        plist_get_real_val(node, &d);
        return PropertyList(d);
    }
    case PLIST_STRING:
    case PLIST_KEY: {
        char* s = nullptr;
        plist_get_string_val(node, &s);
        std::string text = s ? s : "";
        std::free(s);
        return PropertyList(std::move(text));
    }
    case PLIST_DATE: {
        int32_t sec = 0, usec = 0;
        plist_get_date_val(node, &sec, &usec);
        return PropertyList(Date(kPlistEpoch + sec + usec / 1e6));
    }
    case PLIST_DATA: {
        char* bytes = nullptr;
        uint64_t length = 0;
        plist_get_data_val(node, &bytes, &length);
        PlistData data(reinterpret_cast<uint8_t*>(bytes), reinterpret_cast<uint8_t*>(bytes) + length);
        std::free(bytes);
        return PropertyList(std::move(data));
    }
    case PLIST_ARRAY: {
        PlistArray array;
        uint32_t n = plist_array_get_size(node);
        array.reserve(n);
        for (uint32_t i = 0; i < n; ++i)
            array.push_back(fromNode(plist_array_get_item(node, i), depth + 1));
        return PropertyList(std::move(array));
    }
    case PLIST_DICT: {
        PlistDict dict;
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(node, &it);
        for (;;) {
            char* key = nullptr;
            plist_t value = nullptr;
            plist_dict_next_item(node, it, &key, &value);
            if (!value) {
                std::free(key);
                break;
            }
            dict[key ? key : ""] = fromNode(value, depth + 1);
            std::free(key);
        }
        std::free(it);
        return PropertyList(std::move(dict));
    }
    default:
        return PropertyList(std::string());
    }
}

// What of p cannot be handed to the library faithfully, before any node is made.
std::optional<std::string> unfitForWriting(const PropertyList& p, int depth) {
    if (depth > 64)
        return std::string("too deep a nesting");
    if (const std::string* text = p.string())
        return text->find('\0') == std::string::npos ? std::nullopt
                                                      : std::optional<std::string>("a NUL character");
    if (auto date = std::get_if<Date>(&p.value()))
        return isPlistSecond(date->timeIntervalSince1970() - kPlistEpoch)
                   ? std::nullopt
                   : std::optional<std::string>("a date out of range");
    if (const PlistArray* array = p.array()) {
        for (const auto& item : *array)
            if (auto why = unfitForWriting(item, depth + 1))
                return why;
    }
    if (const PlistDict* dict = p.dict()) {
        for (const auto& [key, item] : *dict) {
            if (key.find('\0') != std::string::npos)
                return std::string("a NUL character");
            if (auto why = unfitForWriting(item, depth + 1))
                return why;
        }
    }
    return std::nullopt;
}

plist_t toNode(const PropertyList& p) {
    struct Visitor {
        plist_t operator()(const std::string& s) const { return plist_new_string(s.c_str()); }
        plist_t operator()(int64_t i) const { return plist_new_uint(static_cast<uint64_t>(i)); }
        plist_t operator()(double d) const { return plist_new_real(d); }
        plist_t operator()(bool b) const { return plist_new_bool(b ? 1 : 0); }
        plist_t operator()(Date d) const {
            double since = d.timeIntervalSince1970() - kPlistEpoch;
            auto sec = static_cast<int32_t>(since);
            auto usec = static_cast<int32_t>((since - sec) * 1e6);
            return plist_new_date(sec, usec);
        }
        plist_t operator()(const PlistData& d) const {
            return plist_new_data(reinterpret_cast<const char*>(d.data()), d.size());
        }
        plist_t operator()(const PlistArray& a) const {
            plist_t node = plist_new_array();
            for (const auto& item : a)
                plist_array_append_item(node, toNode(item));
            return node;
        }
        plist_t operator()(const PlistDict& d) const {
            plist_t node = plist_new_dict();
            for (const auto& [key, item] : d)
                plist_dict_set_item(node, key.c_str(), toNode(item));
            return node;
        }
    };
    return std::visit(Visitor{}, p.value());
}

bool looksLikePlist(const std::string& bytes) {
    if (bytes.size() >= 8 && bytes.compare(0, 8, "bplist00") == 0)
        return true;
    return bytes.find("<plist") != std::string::npos;
}

} // namespace

std::optional<bool> PropertyList::asBool() const {
    if (auto b = std::get_if<bool>(&value_))
        return *b;
    if (auto i = std::get_if<int64_t>(&value_))
        return *i != 0;
    if (auto d = std::get_if<double>(&value_))
        return *d != 0;
    return std::nullopt;
}

std::optional<int64_t> PropertyList::asInteger() const {
    if (auto i = std::get_if<int64_t>(&value_))
        return *i;
    if (auto d = std::get_if<double>(&value_)) {
        // Converting a real beyond the 64-bit range (or not a number) is undefined.
        constexpr double kLimit = 9223372036854775808.0; // 2^63
        if (!(*d >= -kLimit && *d < kLimit)) {
            SystemLog::write("Error: a property-list real is out of the integer range");
            return std::nullopt;
        }
        return static_cast<int64_t>(*d);
    }
    if (auto b = std::get_if<bool>(&value_))
        return *b ? 1 : 0;
    if (auto s = std::get_if<std::string>(&value_))
        return std::strtoll(s->c_str(), nullptr, 10);
    return std::nullopt;
}

const PropertyList* PropertyList::find(const std::string& key) const {
    const PlistDict* d = dict();
    if (!d)
        return nullptr;
    auto it = d->find(key);
    return it == d->end() ? nullptr : &it->second;
}

PropertyList* PropertyList::find(const std::string& key) {
    PlistDict* d = dict();
    if (!d)
        return nullptr;
    auto it = d->find(key);
    return it == d->end() ? nullptr : &it->second;
}

std::optional<PropertyList> PropertyList::parse(const std::string& bytes, std::string* error) {
    if (bytes.empty() || bytes.size() > UINT32_MAX || !looksLikePlist(bytes)) {
        if (error)
            *error = "not a property list";
        return std::nullopt;
    }
    bool binary = bytes.compare(0, 8, "bplist00") == 0;
    if (auto refused = binary ? checkBinary(bytes) : checkXml(bytes)) {
        SystemLog::write("Error: property list refused: it holds " + *refused);
        if (error)
            *error = "it holds " + *refused;
        return std::nullopt;
    }
    plist_t root = nullptr;
    plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    if (!root) {
        if (error)
            *error = "not a property list";
        return std::nullopt;
    }
    PropertyList result = fromNode(root, 0);
    plist_free(root);
    return result;
}

std::string PropertyList::toXml() const {
    if (auto why = unfitForWriting(*this, 0))
        throw std::invalid_argument(*why);
    plist_t node = toNode(*this);
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(node, &xml, &length);
    std::string text = xml ? std::string(xml, length) : std::string();
    plist_to_xml_free(xml);
    plist_free(node);
    return text;
}

std::optional<PropertyList> PropertyListFile::read(const std::string& path) {
    auto bytes = FileSystem::readFile(path);
    if (!bytes)
        return std::nullopt;
    auto plist = PropertyList::parse(*bytes);
    if (!plist)
        SystemLog::write("Error: not a property list: " + path);
    return plist;
}

bool PropertyListFile::write(const std::string& path, const PropertyList& plist) {
    std::string xml;
    try {
        xml = plist.toXml();
    } catch (const std::invalid_argument& e) {
        SystemLog::write(std::string("Error: property list not written, it holds ") + e.what() + ": " + path);
        return false;
    }
    if (xml.empty())
        return false;
    // Settings may hold the SMTP password and the others name the user's tasks: owner only.
    return FileSystem::writePrivateFileAtomically(path, xml);
}

} // namespace cirrovault
