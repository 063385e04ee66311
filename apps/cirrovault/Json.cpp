#include "Json.h"

#include <cmath>

#include "platform/os/Calendar.h"

namespace cirrovault::cli {

// Figures are shown to the thousandth, like the human form; what is not a number is null.
Json::Json(double value)
    : value_(std::isfinite(value) ? nlohmann::ordered_json(std::round(value * 1000) / 1000)
                                  : nlohmann::ordered_json()) {}

Json Json::object() { return Json(nlohmann::ordered_json::object()); }

Json Json::array() { return Json(nlohmann::ordered_json::array()); }

Json Json::date(Date when) { return Json(Calendar::rfc3339(when)); }

Json Json::parse(const std::string& text) {
    nlohmann::ordered_json value = nlohmann::ordered_json::parse(text, nullptr, false);
    return value.is_discarded() ? Json() : Json(std::move(value));
}

Json& Json::set(const std::string& key, Json value) {
    if (!value_.is_object())
        return push(std::move(value));
    value_[key] = std::move(value.value_);
    return *this;
}

Json& Json::push(Json value) {
    if (value_.is_object())
        value_[std::to_string(value_.size())] = std::move(value.value_);
    else
        value_.push_back(std::move(value.value_));
    return *this;
}

std::string Json::dump() const {
    // File names need not be UTF-8: a stray byte becomes U+FFFD rather than an exception.
    return value_.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

} // namespace cirrovault::cli
