#pragma once

#include <QMetaType>
#include <QString>

#include <functional>
#include <optional>
#include <utility>
#include <variant>

// The backend client's own error. The description is what notices, dialogs and the command line show;
// the captures and the updater use the same type for their messages.
class BackendError {
public:
    enum class Kind { server, network, signedOut };

    static BackendError server(QString message) { return {Kind::server, std::move(message)}; }
    static BackendError network(QString message) { return {Kind::network, std::move(message)}; }
    static BackendError signedOut() { return {Kind::signedOut, {}}; }

    Kind kind() const { return kind_; }
    // The payload of server and network; empty for signedOut.
    const QString& message() const { return message_; }
    QString description() const;

    friend bool operator==(const BackendError&, const BackendError&) = default;

private:
    BackendError(Kind kind, QString message) : kind_(kind), message_(std::move(message)) {}

    Kind kind_;
    QString message_;
};

// Any failure an operation can end with: either a BackendError, or a failure from elsewhere (a transport
// error inside a streamed body, a response that does not decode, a file that cannot be read) that is
// known only by its description. Both reach the user the same way, through description().
class Failure {
public:
    Failure(BackendError error) : value_(std::move(error)) {}  // NOLINT(google-explicit-constructor)
    static Failure other(QString description) { return Failure(std::move(description)); }

    const BackendError* backendError() const { return std::get_if<BackendError>(&value_); }
    bool is(BackendError::Kind kind) const { return backendError() && backendError()->kind() == kind; }
    QString description() const;

    friend bool operator==(const Failure&, const Failure&) = default;

private:
    explicit Failure(QString description) : value_(std::move(description)) {}

    std::variant<BackendError, QString> value_;
};

// A value or the failure that took its place. Errors are values here: asynchronous operations hand one
// of these to their completion callback exactly once.
template <typename T>
class Result {
public:
    Result(T value)
        : value_(std::in_place_index<0>, std::move(value)) {}  // NOLINT(google-explicit-constructor)
    Result(Failure failure) : value_(std::in_place_index<1>, std::move(failure)) {}   // NOLINT
    Result(BackendError error) : value_(std::in_place_index<1>, std::move(error)) {}  // NOLINT

    bool ok() const { return value_.index() == 0; }
    explicit operator bool() const { return ok(); }
    const T& value() const& { return std::get<0>(value_); }
    T&& value() && { return std::get<0>(std::move(value_)); }
    const Failure& failure() const { return std::get<1>(value_); }

private:
    std::variant<T, Failure> value_;
};

// For operations that yield nothing but can fail.
struct Done {
    friend bool operator==(Done, Done) = default;
};

template <typename T>
using Completion = std::function<void(Result<T>)>;

Q_DECLARE_METATYPE(BackendError)
Q_DECLARE_METATYPE(Failure)
