#include "backenderror.h"

QString BackendError::description() const {
    switch (kind_) {
        case Kind::server:
        case Kind::network:
            return message_;
        case Kind::signedOut:
            return QStringLiteral("Please sign in again.");
    }
    return message_;
}

QString Failure::description() const {
    if (const auto* error = backendError()) {
        return error->description();
    }
    return std::get<QString>(value_);
}
