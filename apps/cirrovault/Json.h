#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/os/Date.h"

namespace cirrovault::cli {

// A JSON value built by the commands for --json output: objects keep their keys in the
// order they were set, so the output reads like the human form.
class Json {
public:
    Json() = default; // null
    Json(bool value) : value_(value) {}
    Json(int value) : value_(value) {}
    Json(int64_t value) : value_(value) {}
    Json(uint64_t value) : value_(value) {}
    Json(double value);
    Json(const char* value) : value_(value ? value : "") {}
    Json(std::string value) : value_(std::move(value)) {}

    static Json object();
    static Json array();
    // A point in time as scripts expect it: RFC 3339 with the local offset.
    static Json date(Date when);
    // A document another process made with dump(); null when it is not JSON.
    static Json parse(const std::string& text);

    // On an object: sets (or replaces) the key. On an array: appends.
    Json& set(const std::string& key, Json value);
    Json& push(Json value);

    bool isNull() const { return value_.is_null(); }
    std::string dump() const;

private:
    explicit Json(nlohmann::ordered_json value) : value_(std::move(value)) {}

    nlohmann::ordered_json value_;
};

} // namespace cirrovault::cli
