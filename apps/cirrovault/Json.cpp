#include "Json.h"

#include <cmath>
#include <cstdio>

#include "platform/os/Calendar.h"

namespace cirrovault::cli {

Json::Json(bool value) : kind_(Kind::Bool), bool_(value) {}
Json::Json(int64_t value) : kind_(Kind::Int), int_(value) {}
Json::Json(uint64_t value) : kind_(Kind::UInt), uint_(value) {}
Json::Json(double value) : kind_(Kind::Double), double_(value) {}
Json::Json(const char* value) : kind_(Kind::String), string_(value ? value : "") {}
Json::Json(std::string value) : kind_(Kind::String), string_(std::move(value)) {}

Json Json::object() {
    Json j;
    j.kind_ = Kind::Object;
    return j;
}

Json Json::date(Date when) { return Json(Calendar::rfc3339(when)); }

Json Json::array() {
    Json j;
    j.kind_ = Kind::Array;
    return j;
}

Json& Json::set(const std::string& key, Json value) {
    if (kind_ != Kind::Object)
        return push(std::move(value));
    for (size_t i = 0; i < keys_.size(); ++i) {
        if (keys_[i] == key) {
            items_[i] = std::move(value);
            return *this;
        }
    }
    keys_.push_back(key);
    items_.push_back(std::move(value));
    return *this;
}

Json& Json::push(Json value) {
    if (kind_ == Kind::Null)
        kind_ = Kind::Array;
    items_.push_back(std::move(value));
    if (kind_ == Kind::Object)
        keys_.push_back(std::to_string(items_.size() - 1));
    return *this;
}

const Json* Json::find(const std::string& key) const {
    for (size_t i = 0; i < keys_.size(); ++i)
        if (keys_[i] == key)
            return &items_[i];
    return nullptr;
}

std::string Json::dump() const {
    std::string out;
    dumpTo(out);
    return out;
}

void Json::quote(std::string& out, const std::string& text) {
    out += '"';
    for (unsigned char c : text) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20) {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    out += '"';
}

void Json::dumpTo(std::string& out) const {
    switch (kind_) {
    case Kind::Null: out += "null"; break;
    case Kind::Bool: out += bool_ ? "true" : "false"; break;
    case Kind::Int: out += std::to_string(int_); break;
    case Kind::UInt: out += std::to_string(uint_); break;
    case Kind::Double: {
        if (!std::isfinite(double_)) {
            out += "null";
            break;
        }
        char buf[32];
        std::snprintf(buf, sizeof buf, "%.3f", double_);
        out += buf;
        break;
    }
    case Kind::String: quote(out, string_); break;
    case Kind::Array:
        out += '[';
        for (size_t i = 0; i < items_.size(); ++i) {
            if (i)
                out += ',';
            items_[i].dumpTo(out);
        }
        out += ']';
        break;
    case Kind::Object:
        out += '{';
        for (size_t i = 0; i < items_.size(); ++i) {
            if (i)
                out += ',';
            quote(out, keys_[i]);
            out += ':';
            items_[i].dumpTo(out);
        }
        out += '}';
        break;
    }
}

} // namespace cirrovault::cli
