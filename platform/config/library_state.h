// Process-wide state of the configuration library, shared by the C calls
// (config_api.cpp) and the root set-up (platform_init.cpp).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <sys/types.h>

#include "file_lock.h"
#include "generation.h"
#include "model.h"
#include "qm_config.h"
#include "schema.h"
#include "store.h"

namespace quelm::platform::detail {

// The records of one object read, with the C views of them that
// QM_DAT_visitobjdata and QM_DAT_holdobjdata hand out (made once, when the
// read is made: the views point into the records, which never change).
struct ObjectRecords {
    explicit ObjectRecords(std::vector<Record> read);
    ObjectRecords(const ObjectRecords &) = delete;
    ObjectRecords &operator=(const ObjectRecords &) = delete;

    const std::vector<Record> records;
    std::vector<QM_DAT_view> views;
};

// What the library opened for one gateway root in one process.
struct State {
    std::string root;  // root prefix it was opened for
    pid_t pid = 0;     // process that opened the database
    std::unique_ptr<Schema> schema;
    std::unique_ptr<FactoryDefaults> factory;
    std::unique_ptr<Database> db;
    FileLock lock;
    int lock_depth = 0;
    int lock_wait_ms = kDefaultLockWaitMs;

    // Property values read since the change counter last moved: a responder
    // asks for the same few settings on every request.
    struct CachedValue {
        int code;
        std::string value;
    };
    Generation generation;
    std::uint64_t cached_generation = 0;
    std::unordered_map<std::string, CachedValue> values;

    // Whole objects read since the change counter last moved (the records a
    // read gives, or the code of a read that gave none): a page or an API
    // call reads the same lists again and again. Bounded in bytes.
    struct CachedObject {
        int code;
        std::shared_ptr<const ObjectRecords> records;
    };
    std::unordered_map<std::string, CachedObject> objects;
    std::size_t object_bytes = 0;

    // The cached value of a property, or null; drops the cache when the
    // data model changed since it was filled.
    const CachedValue *cached(const std::string &name);
    void remember(const std::string &name, int code, const std::string &value);
    // Drops both caches when the data model changed since they were filled;
    // false when nothing may be cached.
    bool cache_current();
    // The same for whole objects.
    const CachedObject *cached_object(const std::string &name);
    void remember_object(const std::string &name, int code, std::shared_ptr<const ObjectRecords> records);

    ~State();
    DataModel model() { return DataModel(*schema, *db, *factory); }
};


// The state for the current root, opened when needed (and reopened when
// the root or the process changed); with need_database the database is
// opened too (lock and schema calls never touch it). Null with code set on
// failure.
State *open_state(int &code, bool need_database = true);

// Forgets the state (releasing the lock it holds); the next call reopens.
void drop_state();

// Logs through QM_LOG_print's path when logging is on.
void log_message(int priority, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Loads the schema and the factory defaults installed under the root.
int load_definitions(std::unique_ptr<Schema> &schema, std::unique_ptr<FactoryDefaults> &factory, std::string &message);

}  // namespace quelm::platform::detail
