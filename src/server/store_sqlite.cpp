#include "store.h"

#include <sqlite3.h>

#include <filesystem>
#include <mutex>
#include <utility>
#include <variant>
#include <vector>

namespace server {

namespace {

// Version 1 of the schema; `PRAGMA user_version` records it so that later versions can migrate.
constexpr const char* schema = R"sql(
CREATE TABLE IF NOT EXISTS accounts (
    email TEXT PRIMARY KEY,
    created INTEGER NOT NULL
);
CREATE TABLE IF NOT EXISTS codes (
    email TEXT PRIMARY KEY,
    code_hash TEXT NOT NULL,
    expires INTEGER NOT NULL,
    wrong_tries INTEGER NOT NULL DEFAULT 0
);
CREATE TABLE IF NOT EXISTS tokens (
    token_hash TEXT PRIMARY KEY,
    email TEXT NOT NULL REFERENCES accounts(email),
    created INTEGER NOT NULL
);
CREATE TABLE IF NOT EXISTS usage (
    email TEXT NOT NULL REFERENCES accounts(email),
    month TEXT NOT NULL,
    seconds REAL NOT NULL,
    PRIMARY KEY (email, month)
);
PRAGMA user_version = 1;
)sql";

std::int64_t toSeconds(TimePoint time) {
    return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}

TimePoint fromSeconds(std::int64_t seconds) {
    return TimePoint(std::chrono::seconds(seconds));
}

using Value = std::variant<std::string, std::int64_t, double>;

class Statement {
public:
    Statement(sqlite3* db, const char* sql) : db_(db) {
        if (sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr) != SQLITE_OK) {
            throw StoreError(sqlite3_errmsg(db));
        }
    }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    ~Statement() { sqlite3_finalize(statement_); }

    Statement& bind(const std::vector<Value>& values) {
        int index = 1;
        for (const Value& value : values) {
            int result = SQLITE_OK;
            if (const auto* text = std::get_if<std::string>(&value)) {
                result = sqlite3_bind_text(statement_, index, text->data(), static_cast<int>(text->size()),
                                           SQLITE_TRANSIENT);
            } else if (const auto* integer = std::get_if<std::int64_t>(&value)) {
                result = sqlite3_bind_int64(statement_, index, *integer);
            } else {
                result = sqlite3_bind_double(statement_, index, std::get<double>(value));
            }
            if (result != SQLITE_OK) {
                throw StoreError(sqlite3_errmsg(db_));
            }
            ++index;
        }
        return *this;
    }

    // True while a row is at hand.
    bool step() {
        const int result = sqlite3_step(statement_);
        if (result == SQLITE_ROW) {
            return true;
        }
        if (result != SQLITE_DONE) {
            throw StoreError(sqlite3_errmsg(db_));
        }
        return false;
    }

    std::string text(int column) const {
        const auto* bytes = sqlite3_column_text(statement_, column);
        return bytes ? std::string(reinterpret_cast<const char*>(bytes),
                                   static_cast<std::size_t>(sqlite3_column_bytes(statement_, column)))
                     : std::string();
    }
    std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
    double real(int column) const { return sqlite3_column_double(statement_, column); }

private:
    sqlite3* db_;
    sqlite3_stmt* statement_ = nullptr;
};

class SqliteStore final : public Store {
public:
    explicit SqliteStore(const std::string& path) {
        const std::filesystem::path file(path);
        if (file.has_parent_path()) {
            std::error_code error;
            std::filesystem::create_directories(file.parent_path(), error);
            if (error) {
                throw StoreError("can't create the data folder " + file.parent_path().string() + ": " +
                                 error.message());
            }
        }
        if (sqlite3_open_v2(path.c_str(), &db_,
                            SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                            nullptr) != SQLITE_OK) {
            const std::string message = db_ ? sqlite3_errmsg(db_) : "out of memory";
            sqlite3_close(db_);
            throw StoreError("can't open the database " + path + ": " + message);
        }
        // Another process (a backup, a second server by mistake) may hold the file for a moment.
        sqlite3_busy_timeout(db_, 5000);
        execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA foreign_keys = ON;");
        execute(schema);
    }
    ~SqliteStore() override { sqlite3_close(db_); }

    void putCode(const std::string& email, const std::string& codeHash, TimePoint expires) override {
        std::lock_guard lock(mutex_);
        Statement(db_,
                  "INSERT INTO codes (email, code_hash, expires, wrong_tries) VALUES (?, ?, ?, 0) "
                  "ON CONFLICT (email) DO UPDATE SET code_hash = excluded.code_hash, "
                  "expires = excluded.expires, wrong_tries = 0")
            .bind({email, codeHash, toSeconds(expires)})
            .step();
    }

    std::optional<PendingCode> pendingCode(const std::string& email) override {
        std::lock_guard lock(mutex_);
        Statement query(db_, "SELECT code_hash, expires, wrong_tries FROM codes WHERE email = ?");
        query.bind({email});
        if (!query.step()) {
            return std::nullopt;
        }
        return PendingCode{query.text(0), fromSeconds(query.integer(1)), static_cast<int>(query.integer(2))};
    }

    int countWrongTry(const std::string& email) override {
        std::lock_guard lock(mutex_);
        Statement update(
            db_, "UPDATE codes SET wrong_tries = wrong_tries + 1 WHERE email = ? RETURNING wrong_tries");
        update.bind({email});
        const int tries = update.step() ? static_cast<int>(update.integer(0)) : 0;
        while (update.step()) {
        }
        return tries;
    }

    bool takeCode(const std::string& email, const std::string& codeHash) override {
        std::lock_guard lock(mutex_);
        Statement(db_, "DELETE FROM codes WHERE email = ? AND code_hash = ?").bind({email, codeHash}).step();
        return sqlite3_changes(db_) == 1;
    }

    void deleteCode(const std::string& email) override {
        std::lock_guard lock(mutex_);
        Statement(db_, "DELETE FROM codes WHERE email = ?").bind({email}).step();
    }

    void addToken(const std::string& tokenHash, const std::string& email, TimePoint created) override {
        std::lock_guard lock(mutex_);
        execute("BEGIN IMMEDIATE");
        try {
            Statement(db_, "INSERT OR IGNORE INTO accounts (email, created) VALUES (?, ?)")
                .bind({email, toSeconds(created)})
                .step();
            Statement(db_, "INSERT INTO tokens (token_hash, email, created) VALUES (?, ?, ?)")
                .bind({tokenHash, email, toSeconds(created)})
                .step();
            execute("COMMIT");
        } catch (...) {
            execute("ROLLBACK");
            throw;
        }
    }

    std::optional<std::string> tokenOwner(const std::string& tokenHash) override {
        std::lock_guard lock(mutex_);
        Statement query(db_, "SELECT email FROM tokens WHERE token_hash = ?");
        query.bind({tokenHash});
        if (!query.step()) {
            return std::nullopt;
        }
        return query.text(0);
    }

    void revokeToken(const std::string& tokenHash) override {
        std::lock_guard lock(mutex_);
        Statement(db_, "DELETE FROM tokens WHERE token_hash = ?").bind({tokenHash}).step();
    }

    double addUsage(const std::string& email, const std::string& month, double seconds) override {
        std::lock_guard lock(mutex_);
        // One statement adds and reads back, so racing reports cannot overwrite each other's seconds.
        Statement update(db_,
                         "INSERT INTO usage (email, month, seconds) VALUES (?, ?, ?) "
                         "ON CONFLICT (email, month) DO UPDATE SET seconds = seconds + excluded.seconds "
                         "RETURNING seconds");
        update.bind({email, month, seconds});
        const double total = update.step() ? update.real(0) : seconds;
        while (update.step()) {
        }
        return total;
    }

    double usage(const std::string& email, const std::string& month) override {
        std::lock_guard lock(mutex_);
        Statement query(db_, "SELECT seconds FROM usage WHERE email = ? AND month = ?");
        query.bind({email, month});
        return query.step() ? query.real(0) : 0.0;
    }

    // One process owns the file, so its limits can live in memory.
    std::unique_ptr<RateLimiter> rateLimiter(const std::string&, int count,
                                             std::chrono::seconds window) override {
        return std::make_unique<MemoryRateLimiter>(count, window);
    }

private:
    void execute(const char* sql) {
        char* message = nullptr;
        if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) != SQLITE_OK) {
            const std::string text = message ? message : sqlite3_errmsg(db_);
            sqlite3_free(message);
            throw StoreError(text);
        }
    }

    // SQLite serialises a connection anyway; the lock also keeps sqlite3_changes() and multi-statement
    // transactions tied to the request that ran them.
    std::mutex mutex_;
    sqlite3* db_ = nullptr;
};

}  // namespace

std::unique_ptr<Store> openSqliteStore(const std::string& path) {
    return std::make_unique<SqliteStore>(path);
}

}  // namespace server
