#include "platform/framework/PropertyList.h"

#include <cstdlib>
#include <plist/plist.h>

#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"

namespace cirrovault {

namespace {

// Property-list dates count from 2001-01-01 00:00:00 UTC.
constexpr double kPlistEpoch = 978307200.0;

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

// libplist aborts the process on a NUL byte inside an XML text or key; XML holding one
// is not read at all.
bool xmlHoldsNul(const std::string& bytes) {
    return bytes.compare(0, 8, "bplist00") != 0 && bytes.find('\0') != std::string::npos;
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
    if (auto d = std::get_if<double>(&value_))
        return static_cast<int64_t>(*d);
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

std::optional<PropertyList> PropertyList::parse(const std::string& bytes) {
    if (bytes.empty() || bytes.size() > UINT32_MAX || !looksLikePlist(bytes) || xmlHoldsNul(bytes))
        return std::nullopt;
    plist_t root = nullptr;
    plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    if (!root)
        return std::nullopt;
    PropertyList result = fromNode(root, 0);
    plist_free(root);
    return result;
}

std::string PropertyList::toXml() const {
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
    std::string xml = plist.toXml();
    if (xml.empty())
        return false;
    return FileSystem::writeFileAtomically(path, xml);
}

} // namespace cirrovault
