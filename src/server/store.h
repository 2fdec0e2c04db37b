#pragma once

#include "clock.h"
#include "ratelimiter.h"

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

namespace server {

// Thrown when the database cannot be opened or a statement fails: the request that hit it gets a 500.
class StoreError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Thrown when the database server can't be reached (stopped, restarting, out of connections): the request
// gets a 503, and the store connects again by itself on a later request.
class StoreUnavailable : public StoreError {
public:
    using StoreError::StoreError;
};

// A sign-in code waiting for its address.
struct PendingCode {
    std::string codeHash;
    TimePoint expires;
    int wrongTries = 0;
};

// Everything the server keeps between restarts. Codes and tokens are stored only as hashes. Every
// operation is atomic on its own and safe to call from any request thread at the same time.
class Store {
public:
    virtual ~Store() = default;

    // Replaces whatever code was pending for the address.
    virtual void putCode(const std::string& email, const std::string& codeHash, TimePoint expires) = 0;
    virtual std::optional<PendingCode> pendingCode(const std::string& email) = 0;
    // Counts one wrong try against the pending code; returns the count after it (0: no code pending).
    virtual int countWrongTry(const std::string& email) = 0;
    // Removes the pending code if it is still the one with `codeHash`; false when another request took
    // or replaced it first, so that a code signs in once.
    virtual bool takeCode(const std::string& email, const std::string& codeHash) = 0;
    virtual void deleteCode(const std::string& email) = 0;

    // Records the session token (creating the account on its first sign-in).
    virtual void addToken(const std::string& tokenHash, const std::string& email, TimePoint created) = 0;
    virtual std::optional<std::string> tokenOwner(const std::string& tokenHash) = 0;
    virtual void revokeToken(const std::string& tokenHash) = 0;

    // Adds to the seconds of `month` ("YYYY-MM") and returns the new total.
    virtual double addUsage(const std::string& email, const std::string& month, double seconds) = 0;
    virtual double usage(const std::string& email, const std::string& month) = 0;

    // A limit of `count` events per key and `window` under the name `scope`, as strict across every
    // server that shares this store as within one.
    virtual std::unique_ptr<RateLimiter> rateLimiter(const std::string& scope, int count,
                                                     std::chrono::seconds window) = 0;
};

// The embedded store: one SQLite file, created with its folder when missing.
std::unique_ptr<Store> openSqliteStore(const std::string& path);

// A PostgreSQL database that several servers share, given as a libpq connection string
// ("postgresql://user@host/db"). Holds up to `connections` connections, opened as requests need them;
// creates or upgrades the schema before it returns. Throws StoreUnavailable when the server can't be
// reached, StoreError when the schema can't be set up.
std::unique_ptr<Store> openPostgresStore(const std::string& url, int connections);

}  // namespace server
