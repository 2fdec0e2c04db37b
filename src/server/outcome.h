#pragma once

#include <string>
#include <utility>
#include <variant>

namespace server {

// A refusal as the client sees it: an HTTP status and the sentence that goes into {"error": ...}.
struct ApiError {
    int status = 400;
    std::string message;
};

// A value or the refusal that took its place.
template <typename T>
class Outcome {
public:
    Outcome(T value)
        : value_(std::in_place_index<0>, std::move(value)) {}  // NOLINT(google-explicit-constructor)
    Outcome(ApiError error) : value_(std::in_place_index<1>, std::move(error)) {}  // NOLINT

    bool ok() const { return value_.index() == 0; }
    explicit operator bool() const { return ok(); }
    const T& value() const { return std::get<0>(value_); }
    const ApiError& error() const { return std::get<1>(value_); }

private:
    std::variant<T, ApiError> value_;
};

}  // namespace server
