#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/os/Date.h"

namespace cirrovault::cli {

// A JSON value built by the commands for --json output: objects keep their keys in the
// order they were set, so the output reads like the human form.
class Json {
public:
    Json() = default; // null
    Json(bool value);
    Json(int value) : Json(static_cast<int64_t>(value)) {}
    Json(int64_t value);
    Json(uint64_t value);
    Json(double value);
    Json(const char* value);
    Json(std::string value);

    static Json object();
    static Json array();
    // A point in time as scripts expect it: RFC 3339 with the local offset.
    static Json date(Date when);

    // On an object: sets (or replaces) the key. On an array: appends.
    Json& set(const std::string& key, Json value);
    Json& push(Json value);
    // Member of an object; null when absent.
    const Json* find(const std::string& key) const;

    bool isNull() const { return kind_ == Kind::Null; }
    std::string dump() const;

private:
    enum class Kind { Null, Bool, Int, UInt, Double, String, Array, Object };
    void dumpTo(std::string& out) const;
    static void quote(std::string& out, const std::string& text);

    Kind kind_ = Kind::Null;
    bool bool_ = false;
    int64_t int_ = 0;
    uint64_t uint_ = 0;
    double double_ = 0;
    std::string string_;
    std::vector<std::string> keys_; // objects only, parallel to items_
    std::vector<Json> items_;
};

} // namespace cirrovault::cli
