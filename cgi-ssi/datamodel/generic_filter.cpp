// The data-model path language: instance lists, wildcard filters, where
// clauses, indirect names, and list instances created for an access token.
#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "datamodel/datamodel_internal.h"
#include "qm_config.h"
#include "qm_generic.h"
#include "qm_token.h"
#include "quelm_guard.h"
#include "quelm_owned.h"
#include "quelm_root.h"
#include "quelm_text.h"
#include "util/text_scan.h"

namespace cgissi::datamodel {
namespace {

static_assert(kComputedNameSize == QM_COMPUTED_NAME_SIZE);
static_assert(kFlagTableSize == QM_INDEX_FLAGS_SIZE);

using quelm::MallocString;

bool all_digits(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return quelm::util::is_digit(c); });
}

// malloc'd copy cut to the computed-name limit.
char *computed_copy(std::string_view name) {
    const std::size_t n = std::min(name.size(), kComputedNameSize - 1);
    char *out = static_cast<char *>(std::malloc(n + 1));
    if (out == nullptr) return nullptr;
    std::memcpy(out, name.data(), n);
    out[n] = '\0';
    return out;
}

// Form "Obj_[Field=Value]rest". Secret properties are never matched, so a
// lookup cannot be used to guess a password.
char *resolve_lookup(const Lookup &lookup) {
    Records records(QM_DAT_getobjdata(lookup.object.c_str(), 0));
    if (!records) return nullptr;
    const std::string suffix = "_" + lookup.field;
    const QM_DAT_record *match = nullptr;
    for (const QM_DAT_record *r = records.get(); r != nullptr; r = r->next) {
        if (r->name == nullptr || r->value == nullptr || is_secret_type(r->type)) continue;
        if (std::string_view(r->name).ends_with(suffix) && lookup.value == r->value) {
            match = r;
            break;
        }
    }
    if (match == nullptr) {
        QM_LOG_print("found nothing to match %s_%s [%s]", lookup.object.c_str(), lookup.field.c_str(),
                     lookup.value.c_str());
        return nullptr;
    }
    int instance = -1;
    const std::string prefix = lookup.object + "_";
    if (std::strncmp(match->name, prefix.c_str(), prefix.size()) == 0) {
        const char *number = match->name + prefix.size();
        if (!quelm::util::scan_int(number, instance)) instance = -1;
    }
    return computed_copy(prefix + std::to_string(instance) + lookup.rest);
}

// Form "Obj_[Other_N_Prop]_rest". Only a decimal instance number read from
// a property that is not secret is accepted.
char *resolve_indirect_index(const IndirectIndex &index) {
    MallocString value(QM_DAT_getobjproperty(index.object.c_str(), index.property.c_str()));
    if (!value) return nullptr;
    if (!all_digits(value.get()) || is_secret_name(index.object + "_" + index.property)) {
        QM_LOG_print("%s %d: %s_%s does not hold an instance number", __func__, __LINE__, index.object.c_str(),
                     index.property.c_str());
        return nullptr;
    }
    return computed_copy(index.prefix + "_" + value.get() + "_" + index.rest);
}

// The record named exactly name, or null.
const QM_DAT_record *record_named(const QM_DAT_record *records, const std::string &name) {
    for (const QM_DAT_record *r = records; r != nullptr; r = r->next) {
        if (r->name != nullptr && r->value != nullptr && name == r->name) return r;
    }
    return nullptr;
}

// Reads a property with its type: from records when they hold it, else
// from the data model.
bool read_property(QM_DAT_record *records, const std::string &name, std::string &value, int &type) {
    const QM_DAT_record *found = record_named(records, name);
    Records read;
    if (found == nullptr) {
        read.reset(QM_DAT_getobjdata(name.c_str(), 0));
        found = record_named(read.get(), name);
    }
    if (found == nullptr) return false;
    value = found->value;
    type = found->type;
    return true;
}

void skip_line(std::FILE *file) {
    for (int c = std::getc(file); c != EOF && c != '\n'; c = std::getc(file)) {
    }
}

struct CreateRight {
    int first = 0;
    std::string defaults;
};

// The first line of the token file (after its lifetime and rights) that
// names list_name: "<list>,<first instance>,<field=value,...>". where names
// the entry point in the log messages.
bool find_create_right(std::FILE *file, const char *list_name, const char *where, CreateRight &out) {
    skip_line(file);
    skip_line(file);
    char line[kTokenLineSize];
    while (std::fgets(line, sizeof line, file) != nullptr) {
        line[std::strcspn(line, "\n")] = '\0';
        char list[kTokenLineSize] = "";
        char defaults[kTokenLineSize] = "";
        int first = 0;
        static_assert(kTokenLineSize == 401, "scan widths below");
        const int items = std::sscanf(line, "%400[a-zA-Z_],%d,%400s", list, &first, defaults);
        if (items < 2) {
            // compat: two blanks before the line, as the log readers expect.
            QM_LOG_print("%s %d : syntax error on  %s", where, __LINE__, line);
            continue;
        }
        if (std::strcmp(list, list_name) == 0) {
            out.first = first;
            out.defaults = defaults;
            return true;
        }
    }
    return false;
}

// Sets one "field=value" default in the new instance and blanks its
// record's name, so that it is not granted afterwards. False when the item
// has no "=".
bool apply_default(const std::string &instance, std::string_view item, QM_DAT_record *records, const char *where) {
    const std::string assignment = instance + "_" + std::string(item);
    const std::size_t equal = assignment.rfind('=');
    if (equal == std::string::npos) {
        QM_LOG_print("%s %d: Value not found", where, __LINE__);
        return false;
    }
    const std::string field = assignment.substr(0, equal);
    const std::string value = assignment.substr(equal + 1);
    QM_DAT_record *record = find_field(records, field.c_str());
    if (record == nullptr) {
        // compat: "failed to found" as the log readers search for it.
        QM_LOG_print("%s %d: failed to found %s in %s", where, __LINE__, field.c_str(), instance.c_str());
        return true;
    }
    const std::string name = record->name;
    const std::size_t cut = name.rfind('_');
    const std::string object = name.substr(0, cut == std::string::npos ? 0 : cut);
    const std::string property = cut == std::string::npos ? name : name.substr(cut + 1);
    if (QM_DAT_setobjproperty(object.c_str(), property.c_str(), value.c_str(), 0) != 0) {
        QM_LOG_print("%s %d : failed to set %s_%s with %s", where, __LINE__, object.c_str(), property.c_str(),
                     value.c_str());
    }
    record->name[0] = '\0';
    return true;
}

// The token's line for list_name, or false (logged).
bool read_create_right(const char *list_name, const char *where, CreateRight &right) {
    if (last_token_name == nullptr || last_token_name[0] == '\0') {
        QM_LOG_print("%s %d: last_token_name is NULL", where, __LINE__);
        return false;
    }
    const quelm::UniqueFile file(std::fopen(quelm::root_path(last_token_name).c_str(), "re"));
    if (!file) {
        QM_LOG_print("%s %d: failed to open %s", where, __LINE__, last_token_name);
        return false;
    }
    if (!find_create_right(file.get(), list_name, where, right) || right.first <= 0) {
        QM_LOG_print("%s %d : no right found to create %s", where, __LINE__, list_name);
        return false;
    }
    return true;
}

int create_for_token(const char *list_name, const char *where) {
    CreateRight right;
    if (!read_create_right(list_name, where, right)) return -1;
    MallocString count(QM_DAT_getobjcount(list_name));
    if (!count) {
        QM_LOG_print("%s %d: QM_DAT_getobjcount failed for %s", where, __LINE__, list_name);
        return -1;
    }
    int instance = right.first;
    while (instance < INT_MAX && find_in_list_word(count.get(), std::to_string(instance).c_str()) == 1) ++instance;

    const std::string name = std::string(list_name) + "_" + std::to_string(instance);
    if (name.size() >= kComputedNameSize || QM_DAT_createobject(name.c_str(), 0) != 0) {
        QM_LOG_print("%s %d: failed to create %s", where, __LINE__, name.c_str());
        return -1;
    }

    Records records(QM_DAT_getobjdata(name.c_str(), 0));
    const bool applied = quelm::split(right.defaults, ',', [&](std::string_view item) {
        return item.empty() || apply_default(name, item, records.get(), where);
    });
    if (!applied) return -1;
    // The holder may write every field of its new instance but those the
    // token's line forces.
    for (const QM_DAT_record *r = records.get(); r != nullptr; r = r->next) {
        if (r->name != nullptr && r->name[0] != '\0') extend_token(last_token_name, r->name);
    }
    refresh_token_timestamp(last_token_name, last_token_lifetime);
    return instance;
}

char *resolve_name(const char *path) {
    Lookup lookup;
    if (parse_lookup(path, lookup)) return resolve_lookup(lookup);
    if (std::strstr(path, "_0_") != nullptr) {
        if (last_created_indice == -1) return nullptr;
        return computed_copy(replace_last_created(path, last_created_indice));
    }
    IndirectIndex index;
    if (!parse_indirect_index(path, index)) return nullptr;
    return resolve_indirect_index(index);
}

// Whether instance i stays selected under "<op><number>"; nothing for an
// operator that is not one of = != < <= > >=.
std::optional<bool> keeps(std::string_view op, int i, int number) {
    if (op == "=") return i == number;
    if (op == "!=") return i != number;
    if (op == "<") return i < number;
    if (op == "<=") return i <= number;
    if (op == ">") return i > number;
    if (op == ">=") return i >= number;
    return std::nullopt;
}

int filter_flags(const char *filter_text, int *flags) {
    std::string current = filter_text;
    while (true) {
        char op[3] = "";
        char rest[kFilterRestSize] = "";
        int number = 0;
        static_assert(kFilterRestSize == 1025, "scan width below");
        const int items = std::sscanf(current.c_str(), "%2[<>=!]%d%1024s", op, &number, rest);
        if (items < 2) break;
        for (int i = 1; i < kFlagTableSize && flags[i] != -1; ++i) {
            if (flags[i] != 1) continue;
            const std::optional<bool> keep = keeps(op, i, number);
            if (!keep) return -1;
            if (!*keep) flags[i] = 0;
        }
        if (items < 3) {
            current.clear();
            break;
        }
        current = rest;
    }
    return static_cast<int>(std::min<std::size_t>(current.size(), INT_MAX));
}

// Where_check's name in the log and in its guard, for both ways in.
constexpr const char *kWhereCheck = "Where_check";

int clause_holds(QM_DAT_record *records, const char *instance_name, const WhereClause &where) {
    std::string object = instance_name;
    std::string property = where.field;
    const std::size_t cut = where.field.rfind('_');
    if (cut != std::string::npos) {
        object.append("_").append(where.field, 0, cut);
        property = where.field.substr(cut + 1);
    }
    std::string value;
    int type = 0;
    if (!read_property(records, object + "_" + property, value, type)) return 0;
    // A clause on a secret would let a reader test guesses of it.
    if (is_secret_type(type)) return 0;
    const int holds = compare_where(where.op, value.c_str(), where.value.c_str());
    if (holds < 0) {
        // compat: "unknow" as the log readers search for it.
        QM_LOG_print("%s: unknow operator (%s)", kWhereCheck, where.op.c_str());
        return 0;
    }
    return holds;
}

int where_holds(QM_DAT_record *records, const char *instance_name, const char *clause) {
    WhereClause where;
    if (!parse_where(clause, where)) {
        QM_LOG_print("%s : failed to extract operator or value in %s", kWhereCheck, clause);
        return 0;
    }
    return clause_holds(records, instance_name, where);
}

}  // namespace

int where_check(QM_DAT_record *records, const char *instance_name, const WhereClause &where) {
    return quelm::guarded(0, kWhereCheck, [&] { return clause_holds(records, instance_name, where); });
}

// ---- Pure parsers ------------------------------------------------------------

std::vector<int> instance_numbers(std::string_view list) {
    const std::string text(list);
    std::vector<int> out;
    int current = 0;
    const char *p = text.c_str();
    while (true) {
        int number = 0;
        const char *scan = p;
        const bool read = quelm::util::scan_int(scan, number);
        const char *next = nullptr;
        if (read) {
            current = number;
            const char *comma = std::strchr(p, ',');
            if (comma != nullptr) next = comma + 1;
        }
        if (current == 0) break;
        out.push_back(current);
        if (next == nullptr) break;
        p = next;
    }
    return out;
}

ListPath split_list_path(std::string_view path) {
    ListPath out;
    const std::size_t star = path.find("_*");
    const std::size_t brace = path.find("_{");
    const std::size_t at = std::min(star, brace);
    if (at == std::string_view::npos) return out;
    out.marker = at == star ? ListMarker::wildcard : ListMarker::set;
    out.object = std::string(path.substr(0, std::min(at, kComputedNameSize - 1)));
    out.after = path.substr(at + 2);
    return out;
}

SelectorResult parse_selector(std::string_view tail, Selector &out) {
    out = Selector{};
    if (tail.empty()) return SelectorResult::ok;
    if (tail[0] == '_') {
        out.remainder = std::string(tail);
        return SelectorResult::ok;
    }
    if (tail[0] != '[') return SelectorResult::unknown_selector;
    std::size_t pos = 0;
    while (pos < tail.size() && tail[pos] == '[') {
        const std::size_t close = tail.find(']', pos + 1);
        if (close == std::string_view::npos) return SelectorResult::bad_wheres;
        out.wheres.emplace_back(tail.substr(pos + 1, close - pos - 1));
        pos = close + 1;
    }
    out.remainder = std::string(tail.substr(pos));
    return SelectorResult::ok;
}

bool parse_where(const char *clause, WhereClause &out) {
    char field[kScanFieldSize] = "";
    char op[16] = "";  // any operator longer than two characters is unknown anyway
    char value[kScanFieldSize] = "";
    static_assert(kScanFieldSize == 129, "scan widths below");
    if (std::sscanf(clause, "%128[a-zA-Z0-9_-]%15[<>!=?]%128s", field, op, value) < 3) return false;
    out = WhereClause{field, op, value};
    return true;
}

int compare_where(std::string_view op, const char *property_value, const char *value) {
    if (op == "<") return decimal_value(property_value) < decimal_value(value) ? 1 : 0;
    if (op == "<=") return decimal_value(property_value) <= decimal_value(value) ? 1 : 0;
    if (op == ">") return decimal_value(property_value) > decimal_value(value) ? 1 : 0;
    if (op == ">=") return decimal_value(property_value) >= decimal_value(value) ? 1 : 0;
    if (op == "=") return std::strcmp(property_value, value) == 0 ? 1 : 0;
    if (op == "!=") return std::strcmp(property_value, value) != 0 ? 1 : 0;
    if (op == "?=") return find_in_list_word(property_value, value);
    return -1;
}

bool parse_lookup(const char *path, Lookup &out) {
    char object[kScanFieldSize] = "";
    char field[kScanFieldSize] = "";
    char value[kScanFieldSize] = "";
    int end = -1;
    static_assert(kScanFieldSize == 129, "scan widths below");
    const int items =
        std::sscanf(path, "%128[a-zA-Z0-9_-][%128[a-zA-Z0-9_-]=%128[ a-zA-Z0-9._-]]%n", object, field, value, &end);
    // The closing "]" is part of the form: without it the path is not a lookup.
    if (items < 3 || end < 0) return false;
    out.object = object;
    if (!out.object.empty() && out.object.back() == '_') out.object.pop_back();
    out.field = field;
    out.value = value;
    out.rest = path + end;
    return true;
}

std::string replace_last_created(std::string_view path, int instance) {
    const std::size_t at = path.find("_0_");
    if (at == std::string_view::npos) return {};
    return std::string(path.substr(0, at)) + "_" + std::to_string(instance) + "_" + std::string(path.substr(at + 3));
}

bool parse_indirect_index(std::string_view path, IndirectIndex &out) {
    const std::size_t open = path.find("_[");
    if (open == std::string_view::npos) return false;
    const std::size_t close = path.find("]_", open + 2);
    if (close == std::string_view::npos) return false;
    const std::string_view inside = path.substr(open + 2, close - open - 2);
    const std::size_t cut = inside.rfind('_');
    if (cut == std::string_view::npos) return false;
    out.prefix = std::string(path.substr(0, open));
    out.object = std::string(inside.substr(0, cut));
    out.property = std::string(inside.substr(cut + 1));
    out.rest = std::string(path.substr(close + 2));
    return true;
}

std::string rights_path(std::string_view path) {
    if (path.find_first_of("[{") == std::string_view::npos) return std::string(path);
    std::string out;
    std::string open;  // brackets still open, innermost last
    for (char c : path) {
        if (c == '[' || c == '{') {
            if (open.empty()) out += c;
            open += c;
        } else if (!open.empty() && ((c == ']' && open.back() == '[') || (c == '}' && open.back() == '{'))) {
            open.pop_back();
            if (open.empty()) out += c;
        } else if (open.empty()) {
            out += c;
        }
    }
    return out;
}

int decimal_value(const char *text) {
    int value = 0;
    return quelm::util::scan_int(text, value) ? value : 0;
}

void strip_cli_options(std::string &argument, CliOptions &options) {
    static constexpr std::string_view kOptions[] = {":write", ":show", ":shadow"};
    for (bool stripped = true; stripped;) {
        stripped = false;
        for (std::string_view option : kOptions) {
            if (argument.size() <= option.size() || !argument.ends_with(option)) continue;
            argument.resize(argument.size() - option.size());
            if (option == ":write") options.autolearn = true;
            if (option == ":show") options.shadow = 0;
            if (option == ":shadow") options.shadow = 1;
            stripped = true;
        }
    }
}

bool schema_type(const char *name, int &type) {
    MallocString xml(QM_DAT_objname2xmlpath(name));
    if (!xml) return false;
    int32_t code = 0;
    if (QM_XML_gettype(xml.get(), &code) != 0) return false;
    type = code;
    return true;
}

bool is_secret_name(const std::string &name) {
    int type = 0;
    return schema_type(name.c_str(), type) && is_secret_type(type);
}

bool may_create_instance(const std::string &object) {
    // The last all-digit component is the instance; its list is what comes
    // before it. A path without one names no instance.
    std::size_t end = object.size();
    while (end > 0) {
        const std::size_t start = object.rfind('_', end - 1);
        const std::size_t from = start == std::string::npos ? 0 : start + 1;
        const std::string_view part = std::string_view(object).substr(from, end - from);
        if (!part.empty() && std::all_of(part.begin(), part.end(), quelm::is_digit)) {
            if (start == std::string::npos) return true;
            const std::string list = object.substr(0, start);
            CreateRight right;
            return read_create_right(list.c_str(), __func__, right) &&
                   decimal_value(std::string(part).c_str()) >= right.first;
        }
        if (start == std::string::npos) break;
        end = start;
    }
    return true;
}

}  // namespace cgissi::datamodel

using namespace cgissi::datamodel;

extern "C" {

// Process-wide because qm_generic.h exports it to plugins; it holds an
// instance only while the "generic.cgi" request that created it runs
// (generic_cgi clears it before and after).
int last_created_indice = -1;

void *malloczero(size_t size) {
    return quelm::guarded<void *>(nullptr, __func__, [&] { return std::calloc(1, size); });
}

QM_DAT_record *find_field(QM_DAT_record *records, const char *suffix) {
    if (suffix == nullptr) return nullptr;
    return quelm::guarded<QM_DAT_record *>(nullptr, __func__, [&]() -> QM_DAT_record * {
        for (QM_DAT_record *r = records; r != nullptr; r = r->next) {
            if (r->name != nullptr && std::string_view(r->name).ends_with(suffix)) return r;
        }
        return nullptr;
    });
}

char *find_field_value(QM_DAT_record *records, const char *suffix, const char *value) {
    if (suffix == nullptr || value == nullptr) return nullptr;
    return quelm::guarded<char *>(nullptr, __func__, [&]() -> char * {
        for (QM_DAT_record *r = records; r != nullptr; r = r->next) {
            if (r->name != nullptr && r->value != nullptr && std::string_view(r->name).ends_with(suffix) &&
                std::strcmp(r->value, value) == 0) {
                return strdup(r->name);
            }
        }
        return nullptr;
    });
}

int find_in_list_word(const char *list, const char *word) {
    if (list == nullptr || word == nullptr || list[0] == '\0') return 0;
    return quelm::guarded(0, __func__, [&] {
        const bool missing = quelm::split(list, ',', [&](std::string_view item) { return item != word; });
        return missing ? 0 : 1;
    });
}

char *compute_name(const char *path) {
    if (path == nullptr) return nullptr;
    return quelm::guarded<char *>(nullptr, __func__, [&] { return resolve_name(path); });
}

int compute_generic_list(const char *filter_text, int *flags) {
    if (filter_text == nullptr || flags == nullptr) return -1;
    return quelm::guarded(-1, __func__, [&] { return filter_flags(filter_text, flags); });
}

int Where_check(QM_DAT_record *records, const char *instance_name, const char *clause) {
    if (instance_name == nullptr || clause == nullptr) return 0;
    return quelm::guarded(0, kWhereCheck, [&] { return where_holds(records, instance_name, clause); });
}

int create_object(const char *list_name) {
    if (list_name == nullptr) return -1;
    const char *where = __func__;
    return quelm::guarded(-1, where, [&] { return create_for_token(list_name, where); });
}

}  // extern "C"
