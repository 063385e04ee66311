#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "platform/os/Date.h"

namespace cirrovault {

class PropertyList;
using PlistArray = std::vector<PropertyList>;
using PlistDict = std::map<std::string, PropertyList>;
using PlistData = std::vector<uint8_t>;

// One property-list value (dictionary, array, text, integer, real, boolean, date or
// data), read from XML or binary property lists and written as XML 1.0.
class PropertyList {
public:
    using Value = std::variant<std::string, int64_t, double, bool, Date, PlistData, PlistArray,
                               PlistDict>;

    PropertyList() : value_(PlistDict{}) {}
    PropertyList(std::string text) : value_(std::move(text)) {}
    PropertyList(const char* text) : value_(std::string(text)) {}
    PropertyList(int64_t number) : value_(number) {}
    PropertyList(int number) : value_(static_cast<int64_t>(number)) {}
    PropertyList(uint32_t number) : value_(static_cast<int64_t>(number)) {}
    PropertyList(double number) : value_(number) {}
    PropertyList(bool flag) : value_(flag) {}
    PropertyList(Date date) : value_(date) {}
    PropertyList(PlistData data) : value_(std::move(data)) {}
    PropertyList(PlistArray array) : value_(std::move(array)) {}
    PropertyList(PlistDict dict) : value_(std::move(dict)) {}

    const Value& value() const { return value_; }

    bool isDict() const { return std::holds_alternative<PlistDict>(value_); }
    bool isArray() const { return std::holds_alternative<PlistArray>(value_); }
    bool isString() const { return std::holds_alternative<std::string>(value_); }

    const PlistDict* dict() const { return std::get_if<PlistDict>(&value_); }
    PlistDict* dict() { return std::get_if<PlistDict>(&value_); }
    const PlistArray* array() const { return std::get_if<PlistArray>(&value_); }
    PlistArray* array() { return std::get_if<PlistArray>(&value_); }
    const std::string* string() const { return std::get_if<std::string>(&value_); }
    std::string* string() { return std::get_if<std::string>(&value_); }

    // The value as a boolean: a boolean, or a number other than 0. Else nothing.
    std::optional<bool> asBool() const;
    // The value as an integer: an integer, a real (truncated; nothing when it is not a
    // number or lies outside the 64-bit range), a boolean, or a text read like a platform
    // integer conversion (leading digits; anything else gives 0).
    std::optional<int64_t> asInteger() const;

    // Dictionary member, or nullptr when this is not a dictionary or has no such key.
    const PropertyList* find(const std::string& key) const;
    PropertyList* find(const std::string& key);

    // Parsing accepts XML and binary property lists; nothing when the bytes are not one,
    // and nothing (with a logged line, and the reason in error when given) when a text or
    // key holds a NUL character or a date lies outside the years a property list can keep.
    static std::optional<PropertyList> parse(const std::string& bytes, std::string* error = nullptr);
    // Throws std::invalid_argument for what cannot be written faithfully: a text or key
    // holding a NUL character, a date outside the years a property list can keep.
    std::string toXml() const;

    bool operator==(const PropertyList& other) const { return value_ == other.value_; }

private:
    Value value_;
};

// Whole-file reads and atomic whole-file writes of property lists.
class PropertyListFile {
public:
    // Nothing when the file cannot be read or does not hold a property list; a line
    // naming the file is logged for a damaged file.
    static std::optional<PropertyList> read(const std::string& path);
    // Written owner-only (mode 0600).
    static bool write(const std::string& path, const PropertyList& plist);
};

} // namespace cirrovault
