// SQLite storage of the data model.
//
// One database file holds two tables of the same shape, "running" and
// "saved": (key, name, value) with the key of schema.h as primary key. A row
// with a null value marks an existing List or Array instance; every other
// row is a property. The database is in WAL mode with a busy timeout, so
// every responder process and qmcfg can share it; steps that change several
// rows run inside one IMMEDIATE transaction.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace quelm::platform {

class Generation;

constexpr int kBusyTimeoutMs = 5000;

class Database {
public:
    // Opens path read-write; with create the file and tables are made when
    // missing (file mode 0600). Returns null and a message on failure.
    static std::unique_ptr<Database> open(const std::string &path, bool create, std::string &error);
    ~Database();
    Database(const Database &) = delete;
    Database &operator=(const Database &) = delete;

    // Forgets the handle without closing it: a connection inherited across
    // fork must not be used or closed by the child.
    void abandon() {
        db_ = nullptr;
        cache_.clear();
    }

    sqlite3 *handle() const { return db_; }
    bool exec(const char *sql);
    const char *message() const;

    // Prepared statements are kept for the life of the connection: a
    // responder asks the same few questions on every request, and preparing
    // them costs more than running them. Returns null when the statement of
    // that text is already in use (the caller prepares its own then).
    sqlite3_stmt *acquire(const std::string &sql);
    void release(sqlite3_stmt *stmt);

    // Every commit on this connection (once it is in the log) moves the
    // shared change counter, so that other processes drop what they cached.
    void count_commits(Generation *generation);

private:
    struct Cached {
        sqlite3_stmt *stmt = nullptr;
        bool in_use = false;
    };

    explicit Database(sqlite3 *db) : db_(db) {}
    void finalize_cached();
    static int after_commit(void *self, sqlite3 *db, const char *name, int frames);
    sqlite3 *db_;
    Generation *generation_ = nullptr;
    std::unordered_map<std::string, Cached> cache_;
};

class Statement {
public:
    Statement(Database &db, const std::string &sql);
    ~Statement();
    Statement(const Statement &) = delete;
    Statement &operator=(const Statement &) = delete;

    bool ok() const { return stmt_ != nullptr; }
    bool bind(int index, std::string_view text);
    bool bind(int index, std::int64_t number);
    bool bind_null(int index);
    int step();  // SQLITE_ROW, SQLITE_DONE or an error code
    std::string_view text(int column) const;
    bool is_null(int column) const;

private:
    Database &db_;
    sqlite3_stmt *stmt_ = nullptr;
    bool cached_ = false;
};

// BEGIN IMMEDIATE on construction; rolled back unless commit() succeeded.
class Transaction {
public:
    explicit Transaction(Database &db);
    ~Transaction();
    Transaction(const Transaction &) = delete;
    Transaction &operator=(const Transaction &) = delete;

    bool ok() const { return open_; }
    bool commit();

private:
    Database &db_;
    bool open_;
};

enum class Table { Running, Saved };

struct Row {
    std::string key;
    std::string name;
    std::optional<std::string> value;  // nullopt: instance marker
};

enum class RowState { Absent, Instance, Value };

// Rows of one table. Every call returns true on success; false means the
// database failed (QM_ERR_STORAGE).
class Rows {
public:
    Rows(Database &db, Table table) : db_(db), table_(table) {}

    bool find(const std::string &key, RowState &state, std::string *value);
    bool put(const std::string &key, const std::string &name, const std::string *value);
    // Rows whose key starts with prefix ("" for all), in key order.
    bool scan(const std::string &prefix, std::vector<Row> &out);
    // Numbers of the existing instances of the collection whose key is given.
    bool instances(const std::string &collection_key, std::vector<std::uint32_t> &out);
    bool erase_prefix(const std::string &prefix);
    bool clear();

    Database &database() { return db_; }

private:
    const char *name() const;
    Database &db_;
    Table table_;
};

// Replaces every row of `to` by the rows of `from` (inside the caller's
// transaction).
bool copy_table(Database &db, Table from, Table to);

}  // namespace quelm::platform
