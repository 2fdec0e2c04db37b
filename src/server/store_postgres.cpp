#include "store.h"

#include <libpq-fe.h>
#include <poll.h>

#include <charconv>
#include <condition_variable>
#include <cstring>
#include <iterator>
#include <mutex>
#include <string_view>
#include <vector>

namespace server {

namespace {

// Every server takes this lock before it looks at the schema, so that two servers starting at once on an
// empty database don't both try to create it. The number is arbitrary but fixed for all versions.
constexpr long long schemaLockKey = 0x74616c6c6f77;

// Each entry upgrades the schema by one version; `schema_version` records how many have run.
constexpr const char* migrations[] = {
    R"sql(
CREATE TABLE accounts (
    email TEXT PRIMARY KEY,
    created BIGINT NOT NULL
);
CREATE TABLE codes (
    email TEXT PRIMARY KEY,
    code_hash TEXT NOT NULL,
    expires BIGINT NOT NULL,
    wrong_tries INTEGER NOT NULL DEFAULT 0
);
CREATE TABLE tokens (
    token_hash TEXT PRIMARY KEY,
    email TEXT NOT NULL REFERENCES accounts(email),
    created BIGINT NOT NULL
);
CREATE TABLE usage (
    email TEXT NOT NULL REFERENCES accounts(email),
    month TEXT NOT NULL,
    seconds DOUBLE PRECISION NOT NULL,
    PRIMARY KEY (email, month)
);
CREATE TABLE rate_events (
    scope TEXT NOT NULL,
    key TEXT NOT NULL,
    at_ms BIGINT NOT NULL
);
CREATE INDEX rate_events_by_key ON rate_events (scope, key, at_ms);
CREATE INDEX rate_events_by_age ON rate_events (scope, at_ms);

-- Counting and recording must be one step for all servers, or two of them could both see room for the
-- last event. The advisory lock serialises the callers for one key until their transaction ends; every
-- statement after it sees what the previous holder committed.
CREATE FUNCTION allow_rate_event(p_scope TEXT, p_key TEXT, p_count INTEGER, p_window_ms BIGINT,
                                 p_now_ms BIGINT) RETURNS BOOLEAN
LANGUAGE plpgsql AS $$
BEGIN
    PERFORM pg_advisory_xact_lock(hashtext(p_scope), hashtext(p_key));
    DELETE FROM rate_events WHERE scope = p_scope AND key = p_key AND at_ms <= p_now_ms - p_window_ms;
    IF (SELECT count(*) FROM rate_events WHERE scope = p_scope AND key = p_key) >= p_count THEN
        RETURN FALSE;
    END IF;
    INSERT INTO rate_events (scope, key, at_ms) VALUES (p_scope, p_key, p_now_ms);
    RETURN TRUE;
END
$$;
)sql",
};

std::int64_t toSeconds(TimePoint time) {
    return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}

std::int64_t toMilliseconds(TimePoint time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

TimePoint fromSeconds(std::int64_t seconds) {
    return TimePoint(std::chrono::seconds(seconds));
}

template <typename Number>
std::string text(Number value) {
    char buffer[32];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
    return std::string(buffer, end);
}

template <typename Number>
Number parse(const char* text) {
    Number value{};
    std::from_chars(text, text + std::strlen(text), value);
    return value;
}

// SQLSTATE classes and codes that say the server is gone or not taking work, as opposed to a fault in
// the statement: connection exceptions, too many connections or out of resources, shutting down or
// starting up.
bool meansUnavailable(const char* state) {
    if (!state) {
        return false;
    }
    const std::string_view code(state);
    return code.starts_with("08") || code.starts_with("53") || code == "57P01" || code == "57P02" ||
           code == "57P03";
}

std::string trimmed(std::string message) {
    while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) {
        message.pop_back();
    }
    return message;
}

class Result {
public:
    // Takes `result` over; throws StoreUnavailable when the server is gone, StoreError for any other
    // failure of the statement.
    Result(PGconn* connection, PGresult* result) : result_(result) {
        const auto status = PQresultStatus(result);
        if (result && (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK)) {
            return;
        }
        const char* state = result ? PQresultErrorField(result, PG_DIAG_SQLSTATE) : nullptr;
        const bool unavailable = PQstatus(connection) != CONNECTION_OK || meansUnavailable(state);
        std::string message = trimmed(result ? PQresultErrorMessage(result) : PQerrorMessage(connection));
        PQclear(result);
        if (unavailable) {
            throw StoreUnavailable("the database went away: " + message);
        }
        throw StoreError(message);
    }
    Result(const Result&) = delete;
    Result& operator=(const Result&) = delete;
    ~Result() { PQclear(result_); }

    int rows() const { return PQntuples(result_); }
    // PostgreSQL's own count of the rows a statement changed.
    int changed() const { return parse<int>(PQcmdTuples(result_)); }
    std::string text(int row, int column) const { return PQgetvalue(result_, row, column); }
    std::int64_t integer(int row, int column) const {
        return parse<std::int64_t>(PQgetvalue(result_, row, column));
    }
    double real(int row, int column) const { return parse<double>(PQgetvalue(result_, row, column)); }

private:
    PGresult* result_;
};

// An idle connection has nothing to say. Anything readable on it is the server's goodbye: a database that
// shut down or restarted while the connection sat in the pool has sent its termination notice and closed
// its end. Spotting that before a request's statement goes out spares the request a failure.
bool isQuiet(PGconn* connection) {
    if (PQstatus(connection) != CONNECTION_OK) {
        return false;
    }
    pollfd socket{PQsocket(connection), POLLIN, 0};
    return poll(&socket, 1, 0) == 0;
}

// Connections to one database, opened when every open one is busy and kept for the next request. Sized
// to the request threads, so a request never waits for another to hand one back.
class Pool {
public:
    Pool(std::string url, int capacity) : url_(std::move(url)), capacity_(capacity) {}
    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;
    ~Pool() {
        for (PGconn* connection : idle_) {
            PQfinish(connection);
        }
    }

    // One connection for the span of one operation; it goes back to the pool unless it broke.
    class Lease {
    public:
        Lease(Pool& pool, PGconn* connection) : pool_(pool), connection_(connection) {}
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;
        ~Lease() { pool_.giveBack(connection_); }

        Result run(const char* sql, const std::vector<std::string>& parameters = {}) {
            std::vector<const char*> values;
            values.reserve(parameters.size());
            for (const auto& parameter : parameters) {
                values.push_back(parameter.c_str());
            }
            return Result(connection_, PQexecParams(connection_, sql, static_cast<int>(values.size()),
                                                    nullptr, values.data(), nullptr, nullptr, 0));
        }

        // Statements without parameters, several at once if need be.
        void execute(const char* sql) { Result(connection_, PQexec(connection_, sql)); }

    private:
        Pool& pool_;
        PGconn* connection_;
    };

    Lease lease() {
        {
            std::unique_lock lock(mutex_);
            available_.wait(lock, [this] { return !idle_.empty() || open_ < capacity_; });
            while (!idle_.empty()) {
                PGconn* connection = idle_.back();
                idle_.pop_back();
                if (isQuiet(connection)) {
                    return Lease(*this, connection);
                }
                PQfinish(connection);
                --open_;
            }
            ++open_;
        }
        try {
            return Lease(*this, connect());
        } catch (...) {
            std::lock_guard lock(mutex_);
            --open_;
            available_.notify_one();
            throw;
        }
    }

    // Outside the lock: connecting takes a round trip, or a timeout.
    PGconn* connect() const {
        // The caller's address comes last, so that its own settings win over these defaults. A stopped
        // host must not hold a request for the system's two-minute connect timeout, and a host that
        // vanishes mid-statement must not hold it forever.
        const char* keywords[] = {"connect_timeout", "tcp_user_timeout", "application_name", "dbname",
                                  nullptr};
        const char* values[] = {"5", "10000", "tallowind-server", url_.c_str(), nullptr};
        PGconn* connection = PQconnectdbParams(keywords, values, 1);
        if (PQstatus(connection) == CONNECTION_OK) {
            // libpq prints the server's notices ("relation already exists, skipping") on stderr otherwise.
            PQsetNoticeProcessor(
                connection, [](void*, const char*) {}, nullptr);
            return connection;
        }
        const std::string message = trimmed(connection ? PQerrorMessage(connection) : "out of memory");
        PQfinish(connection);
        throw StoreUnavailable("can't connect to the database: " + message);
    }

private:
    void giveBack(PGconn* connection) {
        std::lock_guard lock(mutex_);
        // A statement that failed inside a transaction would leave the next user in it.
        if (PQstatus(connection) == CONNECTION_OK && PQtransactionStatus(connection) == PQTRANS_IDLE) {
            idle_.push_back(connection);
        } else {
            PQfinish(connection);
            --open_;
        }
        available_.notify_one();
    }

    const std::string url_;
    const int capacity_;
    std::mutex mutex_;
    std::condition_variable available_;
    std::vector<PGconn*> idle_;
    int open_ = 0;  // idle and leased
};

class PostgresRateLimiter final : public RateLimiter {
public:
    PostgresRateLimiter(Pool& pool, std::string scope, int count, std::chrono::seconds window)
        : pool_(pool), scope_(std::move(scope)), count_(count), window_(window) {}

    bool allow(const std::string& key, TimePoint now) override {
        auto connection = pool_.lease();
        const std::int64_t windowMs = std::chrono::milliseconds(window_).count();
        forgetIdle(connection, now, windowMs);
        const Result allowed =
            connection.run("SELECT allow_rate_event($1, $2, $3, $4, $5)",
                           {scope_, key, text(count_), text(windowMs), text(toMilliseconds(now))});
        return allowed.text(0, 0) == "t";
    }

private:
    // Keys are trimmed as they come back; a key that never returns (one sign-in from one address) is
    // swept with the rest of its scope once per window by each server.
    void forgetIdle(Pool::Lease& connection, TimePoint now, std::int64_t windowMs) {
        {
            std::lock_guard lock(mutex_);
            if (now - lastSweep_ < window_) {
                return;
            }
            lastSweep_ = now;
        }
        connection.run("DELETE FROM rate_events WHERE scope = $1 AND at_ms <= $2",
                       {scope_, text(toMilliseconds(now) - windowMs)});
    }

    Pool& pool_;
    const std::string scope_;
    const int count_;
    const std::chrono::seconds window_;
    std::mutex mutex_;
    TimePoint lastSweep_{};
};

class PostgresStore final : public Store {
public:
    PostgresStore(const std::string& url, int connections) : pool_(url, connections) { migrate(); }

    void putCode(const std::string& email, const std::string& codeHash, TimePoint expires) override {
        pool_.lease().run(
            "INSERT INTO codes (email, code_hash, expires, wrong_tries) VALUES ($1, $2, $3, 0) "
            "ON CONFLICT (email) DO UPDATE SET code_hash = excluded.code_hash, "
            "expires = excluded.expires, wrong_tries = 0",
            {email, codeHash, text(toSeconds(expires))});
    }

    std::optional<PendingCode> pendingCode(const std::string& email) override {
        const Result code =
            pool_.lease().run("SELECT code_hash, expires, wrong_tries FROM codes WHERE email = $1", {email});
        if (code.rows() == 0) {
            return std::nullopt;
        }
        return PendingCode{code.text(0, 0), fromSeconds(code.integer(0, 1)),
                           static_cast<int>(code.integer(0, 2))};
    }

    int countWrongTry(const std::string& email) override {
        const Result tries = pool_.lease().run(
            "UPDATE codes SET wrong_tries = wrong_tries + 1 WHERE email = $1 RETURNING wrong_tries", {email});
        return tries.rows() == 0 ? 0 : static_cast<int>(tries.integer(0, 0));
    }

    // The row lock makes a racing server's DELETE wait for this one and then find nothing.
    bool takeCode(const std::string& email, const std::string& codeHash) override {
        return pool_.lease()
                   .run("DELETE FROM codes WHERE email = $1 AND code_hash = $2", {email, codeHash})
                   .changed() == 1;
    }

    void deleteCode(const std::string& email) override {
        pool_.lease().run("DELETE FROM codes WHERE email = $1", {email});
    }

    // One statement, so the account and its first token appear together; foreign keys are checked at
    // its end, after both rows are in.
    void addToken(const std::string& tokenHash, const std::string& email, TimePoint created) override {
        pool_.lease().run(
            "WITH account AS (INSERT INTO accounts (email, created) VALUES ($2, $3) "
            "ON CONFLICT (email) DO NOTHING) "
            "INSERT INTO tokens (token_hash, email, created) VALUES ($1, $2, $3)",
            {tokenHash, email, text(toSeconds(created))});
    }

    std::optional<std::string> tokenOwner(const std::string& tokenHash) override {
        const Result owner = pool_.lease().run("SELECT email FROM tokens WHERE token_hash = $1", {tokenHash});
        if (owner.rows() == 0) {
            return std::nullopt;
        }
        return owner.text(0, 0);
    }

    void revokeToken(const std::string& tokenHash) override {
        pool_.lease().run("DELETE FROM tokens WHERE token_hash = $1", {tokenHash});
    }

    double addUsage(const std::string& email, const std::string& month, double seconds) override {
        const Result total = pool_.lease().run(
            "INSERT INTO usage (email, month, seconds) VALUES ($1, $2, $3) "
            "ON CONFLICT (email, month) DO UPDATE SET seconds = usage.seconds + excluded.seconds "
            "RETURNING seconds",
            {email, month, text(seconds)});
        return total.real(0, 0);
    }

    double usage(const std::string& email, const std::string& month) override {
        const Result total =
            pool_.lease().run("SELECT seconds FROM usage WHERE email = $1 AND month = $2", {email, month});
        return total.rows() == 0 ? 0.0 : total.real(0, 0);
    }

    std::unique_ptr<RateLimiter> rateLimiter(const std::string& scope, int count,
                                             std::chrono::seconds window) override {
        return std::make_unique<PostgresRateLimiter>(pool_, scope, count, window);
    }

private:
    // In one transaction, so that a server that fails halfway leaves the old version whole: the pool
    // closes a connection left inside a failed transaction, which rolls it back.
    void migrate() {
        auto connection = pool_.lease();
        connection.execute("BEGIN");
        connection.run("SELECT pg_advisory_xact_lock($1)", {text(schemaLockKey)});
        connection.execute("CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)");
        const Result current = connection.run("SELECT version FROM schema_version");
        const int from = current.rows() == 0 ? 0 : static_cast<int>(current.integer(0, 0));
        const int to = static_cast<int>(std::size(migrations));
        if (from > to) {
            throw StoreError("the database was set up by a newer tallowind-server (schema version " +
                             text(from) + "; this one knows up to " + text(to) + ")");
        }
        for (int version = from; version < to; ++version) {
            connection.execute(migrations[version]);
        }
        if (from < to) {
            connection.execute("DELETE FROM schema_version");
            connection.run("INSERT INTO schema_version (version) VALUES ($1)", {text(to)});
        }
        connection.execute("COMMIT");
    }

    Pool pool_;
};

}  // namespace

std::unique_ptr<Store> openPostgresStore(const std::string& url, int connections) {
    return std::make_unique<PostgresStore>(url, connections);
}

}  // namespace server
