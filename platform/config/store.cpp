#include "store.h"

#include "generation.h"

#include <charconv>

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include "schema.h"

namespace quelm::platform {
namespace {

constexpr const char *kCreateTables =
    "CREATE TABLE IF NOT EXISTS running(key TEXT PRIMARY KEY, name TEXT NOT NULL, value TEXT) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS saved(key TEXT PRIMARY KEY, name TEXT NOT NULL, value TEXT) WITHOUT ROWID;";

// Keys hold only digits and "/", all below "~": prefix .. prefix + "~" is
// the range of keys that start with prefix.
std::string range_end(const std::string &prefix) { return prefix + "~"; }

}  // namespace

std::unique_ptr<Database> Database::open(const std::string &path, bool create, std::string &error) {
    if (create) {
        // Made here so that the file gets 0600: it holds the users' passwords.
        int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd < 0) {
            error = "cannot create " + path;
            return nullptr;
        }
        ::close(fd);
    }
    sqlite3 *raw = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
    std::unique_ptr<Database> db(new Database(raw));
    if (rc != SQLITE_OK) {
        error = "cannot open " + path + ": " + (raw != nullptr ? sqlite3_errmsg(raw) : sqlite3_errstr(rc));
        return nullptr;
    }
    sqlite3_busy_timeout(raw, kBusyTimeoutMs);
    if (create && (!db->exec("PRAGMA journal_mode=WAL") || !db->exec(kCreateTables))) {
        error = std::string("cannot set up ") + path + ": " + db->message();
        return nullptr;
    }
    if (!db->exec("PRAGMA synchronous=NORMAL")) {
        error = std::string("cannot use ") + path + ": " + db->message();
        return nullptr;
    }
    return db;
}

Database::~Database() {
    finalize_cached();
    if (db_ != nullptr) sqlite3_close_v2(db_);
}

namespace {
// Frames in the log after which a commit checkpoints it (SQLite's own
// default, which the commit hook below replaces).
constexpr int kCheckpointFrames = 1000;
}  // namespace

int Database::after_commit(void *self, sqlite3 *db, const char *name, int frames) {
    auto *database = static_cast<Database *>(self);
    if (database->generation_ != nullptr) database->generation_->bump();
    if (frames >= kCheckpointFrames) sqlite3_wal_checkpoint_v2(db, name, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
    return SQLITE_OK;
}

void Database::count_commits(Generation *generation) {
    generation_ = generation;
    if (db_ != nullptr) sqlite3_wal_hook(db_, &Database::after_commit, this);
}

void Database::finalize_cached() {
    for (auto &entry : cache_) sqlite3_finalize(entry.second.stmt);
    cache_.clear();
}

sqlite3_stmt *Database::acquire(const std::string &sql) {
    if (db_ == nullptr) return nullptr;
    Cached &entry = cache_[sql];
    if (entry.in_use) return nullptr;
    if (entry.stmt == nullptr &&
        sqlite3_prepare_v3(db_, sql.c_str(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT, &entry.stmt,
                           nullptr) != SQLITE_OK) {
        entry.stmt = nullptr;
        return nullptr;
    }
    entry.in_use = true;
    return entry.stmt;
}

void Database::release(sqlite3_stmt *stmt) {
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
    for (auto &entry : cache_) {
        if (entry.second.stmt == stmt) {
            entry.second.in_use = false;
            return;
        }
    }
}

bool Database::exec(const char *sql) { return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK; }

const char *Database::message() const { return db_ != nullptr ? sqlite3_errmsg(db_) : "no database"; }

Statement::Statement(Database &db, const std::string &sql) : db_(db) {
    stmt_ = db.acquire(sql);
    if (stmt_ != nullptr) {
        cached_ = true;
        return;
    }
    if (sqlite3_prepare_v2(db.handle(), sql.c_str(), static_cast<int>(sql.size()), &stmt_, nullptr) != SQLITE_OK)
        stmt_ = nullptr;
}

Statement::~Statement() {
    if (stmt_ == nullptr) return;
    if (cached_) {
        db_.release(stmt_);
    } else {
        sqlite3_finalize(stmt_);
    }
}

bool Statement::bind(int index, std::string_view text) {
    return stmt_ != nullptr &&
           sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT) == SQLITE_OK;
}

bool Statement::bind(int index, std::int64_t number) {
    return stmt_ != nullptr && sqlite3_bind_int64(stmt_, index, number) == SQLITE_OK;
}

bool Statement::bind_null(int index) { return stmt_ != nullptr && sqlite3_bind_null(stmt_, index) == SQLITE_OK; }

int Statement::step() { return stmt_ != nullptr ? sqlite3_step(stmt_) : SQLITE_MISUSE; }

std::string_view Statement::text(int column) const {
    const unsigned char *p = sqlite3_column_text(stmt_, column);
    if (p == nullptr) return {};
    return {reinterpret_cast<const char *>(p), static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column))};
}

bool Statement::is_null(int column) const { return sqlite3_column_type(stmt_, column) == SQLITE_NULL; }

Transaction::Transaction(Database &db) : db_(db), open_(db.exec("BEGIN IMMEDIATE")) {}

Transaction::~Transaction() {
    if (open_) db_.exec("ROLLBACK");
}

bool Transaction::commit() {
    if (!open_) return false;
    if (!db_.exec("COMMIT")) return false;  // the destructor rolls back
    open_ = false;
    return true;
}

const char *Rows::name() const { return table_ == Table::Running ? "running" : "saved"; }

bool Rows::find(const std::string &key, RowState &state, std::string *value) {
    Statement st(db_, std::string("SELECT value FROM ") + name() + " WHERE key = ?1");
    if (!st.bind(1, key)) return false;
    int rc = st.step();
    if (rc == SQLITE_DONE) {
        state = RowState::Absent;
        return true;
    }
    if (rc != SQLITE_ROW) return false;
    if (st.is_null(0)) {
        state = RowState::Instance;
    } else {
        state = RowState::Value;
        if (value != nullptr) value->assign(st.text(0));
    }
    return true;
}

bool Rows::put(const std::string &key, const std::string &row_name, const std::string *value) {
    Statement st(db_, std::string("INSERT OR REPLACE INTO ") + name() + "(key, name, value) VALUES(?1, ?2, ?3)");
    bool bound = st.bind(1, key) && st.bind(2, row_name) && (value != nullptr ? st.bind(3, *value) : st.bind_null(3));
    return bound && st.step() == SQLITE_DONE;
}

bool Rows::scan(const std::string &prefix, std::vector<Row> &out) {
    Statement st(db_,
                 std::string("SELECT key, name, value FROM ") + name() + " WHERE key >= ?1 AND key < ?2 ORDER BY key");
    if (!st.bind(1, prefix) || !st.bind(2, range_end(prefix))) return false;
    int rc;
    while ((rc = st.step()) == SQLITE_ROW) {
        Row row{std::string(st.text(0)), std::string(st.text(1)), std::nullopt};
        if (!st.is_null(2)) row.value = std::string(st.text(2));
        out.push_back(std::move(row));
    }
    return rc == SQLITE_DONE;
}

bool Rows::instances(const std::string &collection_key, std::vector<std::uint32_t> &out) {
    Statement st(db_, std::string("SELECT key FROM ") + name() +
                          " WHERE key > ?1 AND key < ?2 AND value IS NULL AND length(key) = ?3 ORDER BY key");
    auto length = static_cast<std::int64_t>(collection_key.size() + kKeyComponentWidth);
    if (!st.bind(1, collection_key) || !st.bind(2, range_end(collection_key)) || !st.bind(3, length)) return false;
    int rc;
    while ((rc = st.step()) == SQLITE_ROW) {
        std::string_view key = st.text(0);
        std::string_view digits = key.substr(collection_key.size(), kKeyComponentWidth - 1);
        std::uint32_t number = 0;
        auto [ptr, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
        if (ec != std::errc() || ptr != digits.data() + digits.size()) return false;
        out.push_back(number);
    }
    return rc == SQLITE_DONE;
}

bool Rows::erase_prefix(const std::string &prefix) {
    Statement st(db_, std::string("DELETE FROM ") + name() + " WHERE key >= ?1 AND key < ?2");
    return st.bind(1, prefix) && st.bind(2, range_end(prefix)) && st.step() == SQLITE_DONE;
}

bool Rows::clear() { return erase_prefix(""); }

bool copy_table(Database &db, Table from, Table to) {
    const char *src = from == Table::Running ? "running" : "saved";
    const char *dst = to == Table::Running ? "running" : "saved";
    std::string sql = std::string("DELETE FROM ") + dst + "; INSERT INTO " + dst +
                      "(key, name, value) SELECT key, name, value FROM " + src + ";";
    return db.exec(sql.c_str());
}

}  // namespace quelm::platform
