// The C edge of the configuration library: thin shims over DataModel that
// keep the process-wide state, the shared error code and the logging
// switch. No exception crosses this edge: every entry point that allocates
// runs through guarded_call; the rest (the error code, the logging switch,
// freeing, unlocking) cannot throw.
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include "event_log.h"
#include "library_state.h"
#include "platform.h"
#include "qm_config.h"
#include "quelm_guard.h"
#include "quelm_log.h"
#include "quelm_root.h"

namespace quelm::platform::detail {
namespace {

struct Globals {
    int refcount = 0;
    bool log_on = false;
    int error = 0;
    std::unique_ptr<State> state;
};

Globals &globals() {
    static Globals g;
    return g;
}

char *copy_text(std::string_view text) {
    auto *out = static_cast<char *>(std::malloc(text.size() + 1));
    if (out == nullptr) return nullptr;
    std::memcpy(out, text.data(), text.size());
    out[text.size()] = '\0';
    return out;
}

int set_error(int code) {
    globals().error = code;
    return code;
}

// Cache key prefix of an instance count: a byte no property name holds.
constexpr std::string_view kCountKeyPrefix = "\x01count ";

// Every call of the library checks that its state was opened by this
// process (quelm::current_pid: no system call).
using quelm::current_pid;

// For the getters: no result, and code as the error.
std::nullptr_t null_with_error(int code) {
    set_error(code);
    return nullptr;
}

// "<object>_<property>" for the two-argument calls; "" when either is null.
std::string property_name(const char *object, const char *property) {
    if (object == nullptr || property == nullptr || *object == '\0' || *property == '\0') return {};
    return join_name(object, property);
}

// The C edge policy (quelm::guarded) with the library's error code: a body
// that throws (memory exhausted) also leaves QM_ERR_STORAGE as the error.
template <typename Body, typename Result = std::invoke_result_t<Body>>
Result guarded_call(std::type_identity_t<Result> fallback, const char *function, Body &&body) noexcept {
    bool finished = false;
    Result result = quelm::guarded(fallback, function, [&]() -> Result {
        Result r = body();
        finished = true;
        return r;
    });
    if (!finished) set_error(QM_ERR_STORAGE);
    return result;
}

// A copy of text for a C caller to free; QM_ERR_STORAGE when there is no memory.
char *copy_result(std::string_view text) {
    char *out = copy_text(text);
    if (out == nullptr) set_error(QM_ERR_STORAGE);
    return out;
}

// A request the host cannot carry out is recorded in the event log instead.
int record_request(const char *event, int argument) {
    return set_error(record_event(kEventLogPath, event, std::to_string(argument)));
}

// Runs f(model) on the opened state and stores its result as the error.
template <typename F>
int with_model(F &&f) {
    int code = 0;
    State *state = open_state(code);
    if (state == nullptr) return set_error(code);
    DataModel model = state->model();
    return set_error(f(model));
}

// The records of a getobjdata read, from the object cache when the data
// model has not changed since; 0 or the error code (not stored).
int object_records(const std::string &object, std::shared_ptr<const ObjectRecords> &out) {
    int code = 0;
    State *state = open_state(code);
    if (state == nullptr) return code;
    if (const State::CachedObject *hit = state->cached_object(object)) {
        out = hit->records;
        return hit->code;
    }
    std::vector<Record> records;
    DataModel model = state->model();
    code = model.records(object, records);
    // Only answers of the database are kept, not its failures.
    if (code != QM_ERR_NONE && code != QM_ERR_NOTHING) return code;
    if (code == QM_ERR_NOTHING) records.clear();
    out = std::make_shared<const ObjectRecords>(std::move(records));
    state->remember_object(object, code, out);
    return code;
}

}  // namespace

ObjectRecords::ObjectRecords(std::vector<Record> read) : records(std::move(read)) {
    views.reserve(records.size());
    for (const Record &r : records) {
        views.push_back({r.name.c_str(), r.name.size(), r.value.c_str(), r.value.size(), static_cast<int8_t>(r.type)});
    }
}

State::~State() {
    // A connection or lock inherited across fork belongs to the parent.
    if (pid != current_pid()) {
        if (db) db->abandon();
        lock.forget();
    }
}

void log_message(int priority, const char *format, ...) {
    if (!globals().log_on) return;
    va_list args;
    va_start(args, format);
    quelm::log::vprint(priority, format, args);
    va_end(args);
}

int load_definitions(std::unique_ptr<Schema> &schema, std::unique_ptr<FactoryDefaults> &factory, std::string &message) {
    std::string schema_path = quelm::root_path(kSchemaFile);
    std::string factory_path = quelm::root_path(kFactoryFile);
    if (::access(schema_path.c_str(), R_OK) != 0 || ::access(factory_path.c_str(), R_OK) != 0) {
        message = "no schema or factory defaults under " + quelm::root_path(kDefaultsDir);
        return QM_ERR_NOT_INIT;
    }
    schema = Schema::load(schema_path, message);
    if (!schema) return QM_ERR_STORAGE;
    std::string text;
    if (!read_file(factory_path, text, message)) return QM_ERR_STORAGE;
    auto lines = parse_assignments(text, message);
    if (!lines) {
        message = factory_path + ": " + message;
        return QM_ERR_STORAGE;
    }
    factory = std::make_unique<FactoryDefaults>(std::move(*lines));
    return QM_ERR_NONE;
}

State *open_state(int &code, bool need_database) {
    Globals &g = globals();
    const std::string_view root = quelm::root_prefix();
    if (g.state && (g.state->root != root || g.state->pid != current_pid())) g.state.reset();
    std::string message;
    if (!g.state) {
        auto state = std::make_unique<State>();
        state->root = std::string(root);
        state->pid = current_pid();
        state->lock_wait_ms = lock_wait_from_environment();
        code = load_definitions(state->schema, state->factory, message);
        if (code != QM_ERR_NONE) {
            log_message(LOG_ERR, "configuration library: %s", message.c_str());
            return nullptr;
        }
        g.state = std::move(state);
    }
    State *state = g.state.get();
    if (need_database && !state->db) {
        std::string db_path = quelm::root_path(kDatabaseFile);
        if (::access(db_path.c_str(), F_OK) != 0) {
            message = "no database " + db_path;
            code = QM_ERR_NOT_INIT;
        } else {
            state->db = Database::open(db_path, false, message);
            code = state->db ? QM_ERR_NONE : QM_ERR_STORAGE;
            if (state->db && state->generation.open(quelm::root_path(kGenerationFile))) {
                state->db->count_commits(&state->generation);
                state->cached_generation = state->generation.current();
            }
        }
        if (code != QM_ERR_NONE) {
            log_message(LOG_ERR, "configuration library: %s", message.c_str());
            return nullptr;
        }
    }
    return state;
}

void drop_state() { globals().state.reset(); }

// Bounds the cache of a long-lived process; the settings a responder reads
// are a few dozen.
constexpr std::size_t kMaxCachedValues = 4096;

// Bounds the object cache: the records of the largest lists a page reads,
// a few times over.
constexpr std::size_t kMaxCachedObjectBytes = 4 * 1024 * 1024;
// Bookkeeping of one cached record beyond its texts.
constexpr std::size_t kRecordOverhead = sizeof(Record);

// Drops both caches when the data model changed since they were filled;
// false when nothing may be cached.
bool State::cache_current() {
    if (!generation.usable()) return false;
    std::uint64_t now = generation.current();
    if (now != cached_generation) {
        values.clear();
        objects.clear();
        object_bytes = 0;
        cached_generation = now;
    }
    return true;
}

const State::CachedValue *State::cached(const std::string &name) {
    if (!cache_current()) return nullptr;
    auto found = values.find(name);
    return found != values.end() ? &found->second : nullptr;
}

const State::CachedObject *State::cached_object(const std::string &name) {
    if (!cache_current()) return nullptr;
    auto found = objects.find(name);
    return found != objects.end() ? &found->second : nullptr;
}

void State::remember_object(const std::string &name, int code, std::shared_ptr<const ObjectRecords> records) {
    if (!generation.usable()) return;
    std::size_t bytes = name.size() + kRecordOverhead;
    for (const Record &r : records->records) bytes += r.name.size() + r.value.size() + kRecordOverhead;
    if (bytes > kMaxCachedObjectBytes) return;
    if (object_bytes + bytes > kMaxCachedObjectBytes) {
        objects.clear();
        object_bytes = 0;
    }
    objects[name] = CachedObject{code, std::move(records)};
    object_bytes += bytes;
}

void State::remember(const std::string &name, int code, const std::string &value) {
    if (!generation.usable()) return;
    if (values.size() >= kMaxCachedValues) values.clear();
    values[name] = CachedValue{code, value};
}

}  // namespace quelm::platform::detail

namespace quelm::platform {

using detail::open_state;
using detail::State;

int load_text(std::string_view text, std::string &message) {
    auto lines = parse_assignments(text, message);
    if (!lines) return QM_ERR_BAD_VALUE;
    int code = 0;
    State *state = open_state(code);
    if (state == nullptr) {
        message = "the configuration cannot be opened";
        return code;
    }
    return state->model().load(*lines, message);
}

int dump_text(std::string_view object, std::string &out) {
    int code = 0;
    State *state = open_state(code);
    if (state == nullptr) return code;
    DataModel model = state->model();
    std::vector<Record> records;
    if (object.empty()) {
        code = model.all_records(records);
    } else {
        code = model.records(object, records);
        bool exists = false;
        if (code == QM_ERR_NOTHING && model.exists(object, exists) == QM_ERR_NONE && exists) code = QM_ERR_NONE;
    }
    if (code != QM_ERR_NONE) return code;
    for (const Record &r : records) {
        out += r.name;
        out += '=';
        out += r.value;
        out += '\n';
    }
    return QM_ERR_NONE;
}

bool read_file(const std::string &path, std::string &out) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) return false;
    out.clear();
    char buffer[8192];
    while (true) {
        ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0) return false;
        if (n == 0) return true;
        if (out.size() + static_cast<std::size_t>(n) > kMaxDataFileSize) return false;
        out.append(buffer, static_cast<std::size_t>(n));
    }
}

bool read_file(const std::string &path, std::string &out, std::string &message) {
    if (read_file(path, out)) return true;
    message = "cannot read " + path;
    return false;
}

}  // namespace quelm::platform

using quelm::platform::DataModel;
using quelm::platform::Record;
using namespace quelm::platform::detail;

extern "C" {

int QM_Cfg_Init(int, ...) {
    return guarded_call(QM_ERR_STORAGE, __func__, [&] {
        ++globals().refcount;
        int code = 0;
        return open_state(code) != nullptr ? 0 : code;
    });
}

void QM_Cfg_Free(void) {
    auto &g = globals();
    if (g.refcount == 0) return;  // unbalanced: nothing of ours to release
    if (--g.refcount == 0) g.state.reset();
}

void QM_LOG_set(int on) { globals().log_on = on != 0; }

void QM_LOG_print(const char *format, ...) {
    if (!globals().log_on || format == nullptr) return;
    va_list args;
    va_start(args, format);
    quelm::log::vprint(LOG_INFO, format, args);
    va_end(args);
}

int QM_err_set(int code) { return set_error(code); }

int QM_err_get(void) { return globals().error; }

char *QM_DAT_getobjcount(const char *object) {
    return guarded_call(nullptr, __func__, [&]() -> char * {
        if (object == nullptr) return null_with_error(QM_ERR_UNKNOWN_OBJECT);
        int code = 0;
        State *state = open_state(code);
        if (state == nullptr) return null_with_error(code);
        // Kept beside the property values, under a name no property has.
        const std::string key = std::string(kCountKeyPrefix) + object;
        std::string text;
        if (const State::CachedValue *hit = state->cached(key)) {
            code = hit->code;
            text = hit->value;
        } else {
            code = state->model().count(object, text);
            if (code != QM_ERR_STORAGE) state->remember(key, code, text);
        }
        if (set_error(code) != 0) return nullptr;
        return copy_result(text);
    });
}

QM_DAT_record *QM_DAT_getobjdata(const char *object, int) {
    return guarded_call(nullptr, __func__, [&]() -> QM_DAT_record * {
        if (object == nullptr) return null_with_error(QM_ERR_UNKNOWN_OBJECT);
        std::shared_ptr<const ObjectRecords> records;
        if (set_error(object_records(object, records)) != 0) return nullptr;
        QM_DAT_record *head = nullptr;
        QM_DAT_record **tail = &head;
        for (const auto &r : records->records) {
            // Linked first, so that freeing the list also frees a part-made node.
            auto *node = static_cast<QM_DAT_record *>(std::calloc(1, sizeof(QM_DAT_record)));
            *tail = node;
            if (node != nullptr) {
                node->name = copy_text(r.name);
                node->value = copy_text(r.value);
                node->type = static_cast<int8_t>(r.type);
                tail = &node->next;
            }
            if (node == nullptr || node->name == nullptr || node->value == nullptr) {
                QM_DAT_freedata(&head);
                return null_with_error(QM_ERR_STORAGE);
            }
        }
        return head;
    });
}

int QM_DAT_visitobjdata(const char *object, QM_DAT_visitor visit, void *context) {
    return guarded_call(QM_ERR_STORAGE, __func__, [&]() -> int {
        if (object == nullptr || visit == nullptr) return set_error(QM_ERR_UNKNOWN_OBJECT);
        std::shared_ptr<const ObjectRecords> records;
        if (set_error(object_records(object, records)) != 0) return QM_err_get();
        for (const QM_DAT_view &view : records->views) {
            if (visit(context, &view) != 0) break;
        }
        return 0;
    });
}

// What a hold keeps alive: the records its views point into.
struct QM_DAT_hold {
    std::shared_ptr<const ObjectRecords> records;
};

namespace {

// Released holds kept for the next ones: a responder holds one or two
// objects' records per request, and a small allocation per hold is a trip
// through the allocator's slow path among the request's own. Per thread,
// so that no lock is needed. A hold released after its thread's spares
// were destroyed (by a static object's destructor at exit) is deleted.
thread_local bool spares_gone = false;  // trivially destructible: readable until the thread ends

class SpareHolds {
public:
    SpareHolds() = default;
    SpareHolds(const SpareHolds &) = delete;
    SpareHolds &operator=(const SpareHolds &) = delete;
    ~SpareHolds() {
        for (std::size_t i = 0; i < count_; ++i) delete spare_[i];
        spares_gone = true;
    }

    QM_DAT_hold *take() { return count_ > 0 ? spare_[--count_] : new QM_DAT_hold; }
    void give(QM_DAT_hold *hold) {
        if (count_ < kKept) {
            spare_[count_++] = hold;
        } else {
            delete hold;
        }
    }

private:
    static constexpr std::size_t kKept = 8;
    QM_DAT_hold *spare_[kKept] = {};
    std::size_t count_ = 0;
};

thread_local SpareHolds spare_holds;

QM_DAT_hold *take_hold() { return spares_gone ? new QM_DAT_hold : spare_holds.take(); }

void give_hold(QM_DAT_hold *hold) {
    if (spares_gone) {
        delete hold;
    } else {
        spare_holds.give(hold);
    }
}

}  // namespace

int QM_DAT_holdobjdata(const char *object, const QM_DAT_view **views, size_t *count, QM_DAT_hold **hold) {
    if (views != nullptr) *views = nullptr;
    if (count != nullptr) *count = 0;
    if (hold != nullptr) *hold = nullptr;
    return guarded_call(QM_ERR_STORAGE, __func__, [&]() -> int {
        if (object == nullptr || views == nullptr || count == nullptr || hold == nullptr) {
            return set_error(QM_ERR_UNKNOWN_OBJECT);
        }
        std::shared_ptr<const ObjectRecords> records;
        if (set_error(object_records(object, records)) != 0) return QM_err_get();
        QM_DAT_hold *held = take_hold();
        held->records = std::move(records);
        *views = held->records->views.data();
        *count = held->records->views.size();
        *hold = held;
        return 0;
    });
}

void QM_DAT_releaseobjdata(QM_DAT_hold *hold) {
    if (hold == nullptr) return;
    hold->records.reset();
    give_hold(hold);
}

void QM_DAT_freedata(QM_DAT_record **records) {
    if (records == nullptr) return;
    QM_DAT_record *r = *records;
    while (r != nullptr) {
        QM_DAT_record *next = r->next;
        std::free(r->name);
        std::free(r->value);
        std::free(r);
        r = next;
    }
    *records = nullptr;
}

char *QM_DAT_getobjproperty(const char *object, const char *property) {
    return guarded_call(nullptr, __func__, [&]() -> char * {
        std::string name = property_name(object, property);
        if (name.empty()) return null_with_error(QM_ERR_UNKNOWN_OBJECT);
        int code = 0;
        State *state = open_state(code);
        if (state == nullptr) return null_with_error(code);
        std::string value;
        if (const State::CachedValue *hit = state->cached(name)) {
            code = hit->code;
            value = hit->value;
        } else {
            DataModel model = state->model();
            code = model.get(name, value);
            // Only answers of the database are kept, not its failures.
            if (code != QM_ERR_STORAGE) state->remember(name, code, value);
        }
        if (set_error(code) != 0) return nullptr;
        return copy_result(value);
    });
}

unsigned long long QM_DAT_changestamp(void) {
    return guarded_call(0ULL, __func__, [&]() -> unsigned long long {
        int code = 0;
        State *state = open_state(code);
        // The value cache's own test: the same stamp, the same cached values.
        if (state == nullptr || !state->cache_current()) return 0;
        return state->cached_generation + 1;
    });
}

int QM_DAT_setobjproperty(const char *object, const char *property, const char *value, int store_only) {
    return guarded_call(QM_ERR_STORAGE, __func__, [&] {
        std::string name = property_name(object, property);
        if (name.empty()) return set_error(QM_ERR_UNKNOWN_OBJECT);
        if (value == nullptr) return set_error(QM_ERR_BAD_VALUE);
        bool changed = false;
        int code = with_model([&](DataModel &m) { return m.set(name, value, changed); });
        if (code == QM_ERR_STORAGE) log_message(LOG_ERR, "configuration library: cannot store %s", name.c_str());
        if (code == QM_ERR_NONE && changed && store_only == 0 &&
            quelm::platform::record_event(quelm::platform::kApplyLogPath, "apply", name) != 0)
            log_message(LOG_WARNING, "configuration library: cannot record the change of %s", name.c_str());
        return code;
    });
}

int QM_DAT_createobject(const char *object, int) {
    return guarded_call(QM_ERR_STORAGE, __func__, [&] {
        if (object == nullptr) return set_error(QM_ERR_UNKNOWN_OBJECT);
        return with_model([&](DataModel &m) { return m.create(object); });
    });
}

int QM_DAT_deleteobject(const char *object, int) {
    return guarded_call(QM_ERR_STORAGE, __func__, [&] {
        if (object == nullptr) return set_error(QM_ERR_UNKNOWN_OBJECT);
        return with_model([&](DataModel &m) { return m.remove(object); });
    });
}

int QM_DAT_resetobjdata(const char *object, int flag) {
    return guarded_call(QM_ERR_STORAGE, __func__, [&] {
        if (object == nullptr) return set_error(QM_ERR_UNKNOWN_OBJECT);
        return with_model([&](DataModel &m) { return m.reset(object, flag != 0); });
    });
}

char *QM_DAT_objname2xmlpath(const char *object) {
    return guarded_call(nullptr, __func__, [&]() -> char * {
        int code = 0;
        State *state = object != nullptr ? open_state(code, false) : nullptr;
        if (state == nullptr) return null_with_error(object == nullptr ? QM_ERR_UNKNOWN_OBJECT : code);
        auto target = state->schema->resolve(object);
        if (!target) return null_with_error(QM_ERR_UNKNOWN_OBJECT);
        set_error(QM_ERR_NONE);
        return copy_result(target->xml_path);
    });
}

int QM_XML_gettype(const char *xmlpath, int32_t *type) {
    return guarded_call(QM_ERR_STORAGE, __func__, [&] {
        if (xmlpath == nullptr || type == nullptr) return set_error(QM_ERR_UNKNOWN_OBJECT);
        int code = 0;
        State *state = open_state(code, false);
        if (state == nullptr) return set_error(code);
        auto found = state->schema->type_of_xml_path(xmlpath);
        if (!found) return set_error(QM_ERR_UNKNOWN_OBJECT);
        *type = *found;
        return set_error(QM_ERR_NONE);
    });
}

int QM_FILE_lock(void) {
    return guarded_call(QM_ERR_STORAGE, __func__, [&] {
        int code = 0;
        State *state = open_state(code, false);
        if (state == nullptr) return set_error(code);
        if (state->lock_depth > 0) {
            ++state->lock_depth;
            return set_error(QM_ERR_NONE);
        }
        code = state->lock.acquire(quelm::root_path(quelm::platform::kLockFile), state->lock_wait_ms);
        if (code == QM_ERR_NONE)
            state->lock_depth = 1;
        else if (code == QM_ERR_LOCKED)
            log_message(LOG_WARNING, "configuration library: configuration locked by another process");
        return set_error(code);
    });
}

int QM_FILE_unlock(void) {
    State *state = globals().state.get();
    if (state == nullptr || state->lock_depth == 0 || state->pid != current_pid()) return set_error(QM_ERR_NOTHING);
    if (--state->lock_depth == 0) state->lock.release();
    return set_error(QM_ERR_NONE);
}

int QM_FILE_commit(int) {
    return guarded_call(QM_ERR_STORAGE, __func__, [&] { return with_model([](DataModel &m) { return m.commit(); }); });
}

int QM_FILE_revert(void) {
    return guarded_call(QM_ERR_STORAGE, __func__, [&] { return with_model([](DataModel &m) { return m.revert(); }); });
}

int QM_FILE_factory(int option) {
    return guarded_call(QM_ERR_STORAGE, __func__, [&] {
        std::string message;
        int code = with_model([&](DataModel &m) { return m.factory(message); });
        if (code != QM_ERR_NONE) {
            log_message(LOG_ERR, "configuration library: factory defaults not restored: %s", message.c_str());
            return code;
        }
        return record_request("factory", option);
    });
}

int QM_SYS_reboot(int delay) {
    return guarded_call(QM_ERR_STORAGE, __func__, [&] {
        return record_request("reboot", delay);
    });
}

int QM_STATUS_set(int status) {
    return guarded_call(QM_ERR_STORAGE, __func__, [&] {
        return record_request("status", status);
    });
}

}  // extern "C"
