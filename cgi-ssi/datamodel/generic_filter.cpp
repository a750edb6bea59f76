// The data-model path language: instance lists, wildcard filters, where
// clauses, indirect names, and list instances created for an access token.
#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "datamodel/datamodel_internal.h"
#include "qm_config.h"
#include "qm_generic.h"
#include "qm_token.h"
#include "quelm_root.h"
#include "util/text_scan.h"

namespace cgissi::datamodel {
namespace {

static_assert(kComputedNameSize == QM_COMPUTED_NAME_SIZE);
static_assert(kFlagTableSize == QM_INDEX_FLAGS_SIZE);

struct FreeDeleter {
    void operator()(void *p) const { std::free(p); }
};
using Text = std::unique_ptr<char, FreeDeleter>;

struct RecordsDeleter {
    void operator()(QM_DAT_record *r) const { QM_DAT_freedata(&r); }
};
using Records = std::unique_ptr<QM_DAT_record, RecordsDeleter>;

bool ends_with(const char *text, std::string_view suffix) {
    std::string_view t(text);
    return t.size() >= suffix.size() && t.substr(t.size() - suffix.size()) == suffix;
}

bool all_digits(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return quelm::util::is_digit(c); });
}

// atoi without its undefined overflow: what "%d" reads, 0 when nothing.
int decimal_value(const char *text) {
    int value = 0;
    return quelm::util::scan_int(text, value) ? value : 0;
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

bool is_secret(const std::string &name) {
    int type = 0;
    return schema_type(name.c_str(), type) && is_secret_type(type);
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
        if (ends_with(r->name, suffix) && lookup.value == r->value) {
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
    Text value(QM_DAT_getobjproperty(index.object.c_str(), index.property.c_str()));
    if (!value) return nullptr;
    if (!all_digits(value.get()) || is_secret(index.object + "_" + index.property)) {
        QM_LOG_print("%s %d: %s_%s does not hold an instance number", __func__, __LINE__, index.object.c_str(),
                     index.property.c_str());
        return nullptr;
    }
    return computed_copy(index.prefix + "_" + value.get() + "_" + index.rest);
}

// Reads a property with its type: from records when they hold it, else
// from the data model.
bool read_property(QM_DAT_record *records, const std::string &name, std::string &value, int &type) {
    for (const QM_DAT_record *r = records; r != nullptr; r = r->next) {
        if (r->name != nullptr && r->value != nullptr && name == r->name) {
            value = r->value;
            type = r->type;
            return true;
        }
    }
    Records read(QM_DAT_getobjdata(name.c_str(), 0));
    for (const QM_DAT_record *r = read.get(); r != nullptr; r = r->next) {
        if (r->name != nullptr && r->value != nullptr && name == r->name) {
            value = r->value;
            type = r->type;
            return true;
        }
    }
    return false;
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
// names list_name: "<list>,<first instance>,<field=value,...>".
bool find_create_right(std::FILE *file, const char *list_name, CreateRight &out) {
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
            QM_LOG_print("%s %d : syntax error on  %s", __func__, __LINE__, line);
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

// Sets the token line's defaults in the new instance. Each default's
// record gets its name blanked, so that it is not granted afterwards.
// False when a default has no "=".
bool apply_defaults(const std::string &instance, const std::string &defaults, QM_DAT_record *records) {
    std::size_t start = 0;
    while (start <= defaults.size()) {
        std::size_t comma = defaults.find(',', start);
        if (comma == std::string::npos) comma = defaults.size();
        const std::string item = defaults.substr(start, comma - start);
        start = comma + 1;
        if (item.empty()) continue;
        const std::string assignment = instance + "_" + item;
        const std::size_t equal = assignment.rfind('=');
        if (equal == std::string::npos) {
            QM_LOG_print("%s %d: Value not found", __func__, __LINE__);
            return false;
        }
        const std::string field = assignment.substr(0, equal);
        const std::string value = assignment.substr(equal + 1);
        QM_DAT_record *record = find_field(records, field.c_str());
        if (record == nullptr) {
            QM_LOG_print("%s %d: failed to found %s in %s", __func__, __LINE__, field.c_str(), instance.c_str());
            continue;
        }
        const std::string name = record->name;
        const std::size_t cut = name.rfind('_');
        const std::string object = name.substr(0, cut == std::string::npos ? 0 : cut);
        const std::string property = cut == std::string::npos ? name : name.substr(cut + 1);
        if (QM_DAT_setobjproperty(object.c_str(), property.c_str(), value.c_str(), 0) != 0) {
            QM_LOG_print("%s %d : failed to set %s_%s with %s", __func__, __LINE__, object.c_str(), property.c_str(),
                         value.c_str());
        }
        record->name[0] = '\0';
    }
    return true;
}

int create_for_token(const char *list_name) {
    if (last_token_name == nullptr || last_token_name[0] == '\0') {
        QM_LOG_print("%s %d: last_token_name is NULL", "create_object", __LINE__);
        return -1;
    }
    const std::string path = quelm::root_path(last_token_name);
    std::FILE *file = std::fopen(path.c_str(), "re");
    if (file == nullptr) {
        QM_LOG_print("%s %d: failed to open %s", "create_object", __LINE__, last_token_name);
        return -1;
    }
    CreateRight right;
    const bool found = find_create_right(file, list_name, right);
    std::fclose(file);
    if (!found || right.first <= 0) {
        QM_LOG_print("%s %d : no right found to create %s", "create_object", __LINE__, list_name);
        return -1;
    }

    Text count(QM_DAT_getobjcount(list_name));
    if (!count) {
        QM_LOG_print("%s %d: QM_DAT_getobjcount failed for %s", "create_object", __LINE__, list_name);
        return -1;
    }
    int instance = right.first;
    while (instance < INT_MAX && find_in_list_word(count.get(), std::to_string(instance).c_str()) == 1) ++instance;

    const std::string name = std::string(list_name) + "_" + std::to_string(instance);
    if (name.size() >= kComputedNameSize || QM_DAT_createobject(name.c_str(), 0) != 0) {
        QM_LOG_print("%s %d: failed to create %s", "create_object", __LINE__, name.c_str());
        return -1;
    }

    Records records(QM_DAT_getobjdata(name.c_str(), 0));
    if (!apply_defaults(name, right.defaults, records.get())) return -1;
    // The holder may write every field of its new instance but those the
    // token's line forces.
    for (const QM_DAT_record *r = records.get(); r != nullptr; r = r->next) {
        if (r->name != nullptr && r->name[0] != '\0') extend_token(last_token_name, r->name);
    }
    refresh_token_timestamp(last_token_name, last_token_lifetime);
    return instance;
}

}  // namespace

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

std::string json_key(std::string_view key) {
    std::string out;
    for (char c : key) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", byte);
            out += escape;
        } else {
            out += c;
        }
    }
    return out;
}

std::string masked_value(std::string_view value) {
    const std::size_t commas = value.find_first_not_of(',');
    if (commas == std::string_view::npos) return std::string(value);
    return std::string(value.substr(0, commas)) + "********";
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
    Text xml(QM_DAT_objname2xmlpath(name));
    if (!xml) return false;
    int32_t code = 0;
    if (QM_XML_gettype(xml.get(), &code) != 0) return false;
    type = code;
    return true;
}

}  // namespace cgissi::datamodel

using namespace cgissi::datamodel;

extern "C" {

int last_created_indice = -1;

void *malloczero(size_t size) { return std::calloc(1, size); }

QM_DAT_record *find_field(QM_DAT_record *records, const char *suffix) {
    if (suffix == nullptr) return nullptr;
    for (QM_DAT_record *r = records; r != nullptr; r = r->next) {
        if (r->name != nullptr && ends_with(r->name, suffix)) return r;
    }
    return nullptr;
}

char *find_field_value(QM_DAT_record *records, const char *suffix, const char *value) {
    if (suffix == nullptr || value == nullptr) return nullptr;
    for (QM_DAT_record *r = records; r != nullptr; r = r->next) {
        if (r->name != nullptr && r->value != nullptr && ends_with(r->name, suffix) &&
            std::strcmp(r->value, value) == 0) {
            return strdup(r->name);
        }
    }
    return nullptr;
}

int find_in_list_word(const char *list, const char *word) {
    if (list == nullptr || word == nullptr || list[0] == '\0') return 0;
    const std::string_view items(list);
    std::size_t start = 0;
    while (start <= items.size()) {
        std::size_t comma = items.find(',', start);
        if (comma == std::string_view::npos) comma = items.size();
        if (items.substr(start, comma - start) == word) return 1;
        start = comma + 1;
    }
    return 0;
}

char *compute_name(const char *path) {
    if (path == nullptr) return nullptr;
    try {
        Lookup lookup;
        if (parse_lookup(path, lookup)) return resolve_lookup(lookup);
        if (std::strstr(path, "_0_") != nullptr) {
            if (last_created_indice == -1) return nullptr;
            return computed_copy(replace_last_created(path, last_created_indice));
        }
        IndirectIndex index;
        if (!parse_indirect_index(path, index)) return nullptr;
        return resolve_indirect_index(index);
    } catch (...) {
        return nullptr;
    }
}

int compute_generic_list(const char *filter_text, int *flags) {
    if (filter_text == nullptr || flags == nullptr) return -1;
    try {
        std::string current = filter_text;
        while (true) {
            char op[3] = "";
            char rest[kFilterRestSize] = "";
            int number = 0;
            static_assert(kFilterRestSize == 1025, "scan width below");
            const int items = std::sscanf(current.c_str(), "%2[<>=!]%d%1024s", op, &number, rest);
            if (items < 2) break;
            const std::string_view o(op);
            for (int i = 1; i < kFlagTableSize && flags[i] != -1; ++i) {
                if (flags[i] != 1) continue;
                bool keep;
                if (o == "=") {
                    keep = i == number;
                } else if (o == "!=") {
                    keep = i != number;
                } else if (o == "<") {
                    keep = i < number;
                } else if (o == "<=") {
                    keep = i <= number;
                } else if (o == ">") {
                    keep = i > number;
                } else if (o == ">=") {
                    keep = i >= number;
                } else {
                    return -1;
                }
                if (!keep) flags[i] = 0;
            }
            if (items < 3) {
                current.clear();
                break;
            }
            current = rest;
        }
        return static_cast<int>(std::min<std::size_t>(current.size(), INT_MAX));
    } catch (...) {
        return -1;
    }
}

int Where_check(QM_DAT_record *records, const char *instance_name, const char *clause) {
    if (instance_name == nullptr || clause == nullptr) return 0;
    try {
        WhereClause where;
        if (!parse_where(clause, where)) {
            QM_LOG_print("%s : failed to extract operator or value in %s", __func__, clause);
            return 0;
        }
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
            QM_LOG_print("%s: unknow operator (%s)", __func__, where.op.c_str());
            return 0;
        }
        return holds;
    } catch (...) {
        return 0;
    }
}

int create_object(const char *list_name) {
    if (list_name == nullptr) return -1;
    try {
        return create_for_token(list_name);
    } catch (...) {
        return -1;
    }
}

}  // extern "C"
