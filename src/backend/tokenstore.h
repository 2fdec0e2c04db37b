#pragma once

#include <QString>

#include <chrono>
#include <memory>
#include <optional>

// A place that keeps the one session token. Calls never fail towards the caller and never hang:
// a store that cannot be reached behaves like an empty one.
class TokenStore {
public:
    enum class Availability { answered, unreachable };

    struct Lookup {
        Availability availability = Availability::answered;
        std::optional<QString> token;
    };

    virtual ~TokenStore() = default;

    virtual Lookup load() = 0;
    // Replaces any stored token; answers whether the store could be reached.
    virtual Availability save(const QString& token) = 0;
    virtual Availability remove() = 0;
};

// The 0600 file that holds the token's UTF-8 bytes and nothing else.
std::unique_ptr<TokenStore> makeFileTokenStore(QString path);

// The desktop's Secret Service. Every job is bounded: one that has not answered within `bound`
// counts as unreachable.
std::unique_ptr<TokenStore> makeSecretServiceTokenStore(QString service, QString account,
                                                        std::chrono::milliseconds bound);
