// Result trees: built from the data model's records for a path of the path
// language, printed as JSON-like text or as XML.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cgi_output.h"
#include "datamodel/datamodel_internal.h"
#include "qm_config.h"
#include "qm_generic.h"
#include "qm_node.h"
#include "qm_token.h"
#include "ssi.h"
#include "quelm_chars.h"
#include "quelm_guard.h"
#include "quelm_owned.h"

namespace cgissi::datamodel {
namespace {

constexpr const char *kSourceName = "node.cpp";
constexpr int kMallocFailed = 10;  // shared error code of a failed allocation

using quelm::MallocString;

// Where the walk of the previous record went at each depth. Records arrive
// grouped by object, so most components are found again at once instead of
// by a scan of a chain that, at the top of a large list, holds every
// instance. Chains never hold two nodes with the same text, so a hit is the
// node a scan would find.
struct ChainCache {
    qm_node *parent = nullptr;
    qm_node *matched = nullptr;  // child of parent found or added last
};

class TreeBuilder {
public:
    explicit TreeBuilder(qm_node *root) : root_(root) {}

    // Adds one record under its relative name. False on allocation failure.
    bool add(std::string_view relative, const QM_DAT_record &record) {
        qm_node *node = root_;
        std::size_t depth = 0;
        std::size_t start = 0;
        // The relative name with "_" appended, split at "_".
        while (start <= relative.size()) {
            std::size_t cut = relative.find('_', start);
            if (cut == std::string_view::npos) cut = relative.size();
            node = child(node, depth, relative.substr(start, cut - start));
            if (node == nullptr) return false;
            start = cut + 1;
            ++depth;
        }
        qm_node *leaf = create_node(record.value);
        if (leaf == nullptr) return false;
        // A value replaces whatever the node held: later records may hang
        // siblings beside the leaf, earlier ones are lost.
        free_all_node(node->child);
        node->child = leaf;
        node->type = record.type;
        leaf->type = record.type;
        if (cache_.size() > depth) cache_.resize(depth);
        return true;
    }

    // The tree changed outside add(): nothing remembered may be used.
    void forget() { cache_.clear(); }

private:
    qm_node *child(qm_node *parent, std::size_t depth, std::string_view text) {
        if (cache_.size() <= depth) cache_.resize(depth + 1);
        ChainCache &c = cache_[depth];
        if (c.parent == parent && c.matched != nullptr && text == c.matched->text) return c.matched;
        qm_node *last = nullptr;
        for (qm_node *n = parent->child; n != nullptr; n = n->next) {
            if (text == n->text) {
                c = ChainCache{parent, n};
                return n;
            }
            last = n;
        }
        const std::string copy(text);
        qm_node *added = create_node(copy.c_str());
        if (added == nullptr) return nullptr;
        if (last == nullptr) {
            parent->child = added;
        } else {
            last->next = added;
        }
        c = ChainCache{parent, added};
        return added;
    }

    qm_node *root_;
    std::vector<ChainCache> cache_;
};

// A name with no records: its last component is a property of the rest,
// or the pseudo-properties Count and List of a List or Array.
qm_node *single_value(qm_node *root, const char *name) {
    const std::string copy(name);
    const std::size_t cut = copy.rfind('_');
    if (cut == std::string::npos) return nullptr;
    const std::string object = copy.substr(0, cut);
    const std::string property = copy.substr(cut + 1);
    MallocString value(property == "Count" || property == "List" ? QM_DAT_getobjcount(object.c_str())
                                                         : QM_DAT_getobjproperty(object.c_str(), property.c_str()));
    if (!value) return nullptr;
    qm_node *leaf = create_node(value.get());
    if (leaf == nullptr) return nullptr;
    int type = 0;
    // Carries the property's type so that a secret read this way is masked too.
    if (property != "Count" && property != "List" && schema_type(name, type)) leaf->type = static_cast<int8_t>(type);
    root->child = leaf;
    return root;
}

// Flags of the instances of a wildcard's List or Array, filtered; the
// flagged numbers joined by "," go to list, the text after the filters to
// tail.
// where names the entry point in the log messages.
bool wildcard_instances(const std::string &object, std::string_view filter, const char *path, const char *where,
                        std::string &list, std::string_view &tail) {
    MallocString xml(QM_DAT_objname2xmlpath(object.c_str()));
    if (!xml) {
        QM_LOG_print("QM_DAT_objname2xmlpath returns NULL for %s", object.c_str());
        return false;
    }
    int32_t type = 0;
    if (QM_XML_gettype(xml.get(), &type) != 0 || (type != kTypeArray && type != kTypeList)) {
        // compat: the message's own wording, as log readers search for it.
        QM_LOG_print("QM_XML_gettype returns NULL or %s is not List neither Array", object.c_str());
        return false;
    }
    MallocString count(QM_DAT_getobjcount(object.c_str()));
    if (!count) return false;
    if (std::strlen(count.get()) > kCountTextLimit) {
        QM_LOG_print("%s:%d Count string is too long (MAX 1024) for %s", kSourceName, __LINE__, path);
        return false;
    }

    int flags[kFlagTableSize] = {};
    int highest = 0;
    auto out_of_range = [&](int instance) {
        QM_LOG_print("%s:%d instance %d out of range (MAX %d) for %s", kSourceName, __LINE__, instance,
                     kFlagTableSize - 1, path);
        return false;
    };
    if (type == kTypeArray) {
        highest = decimal_value(count.get());
        if (highest < 0 || highest >= kFlagTableSize) return out_of_range(highest);
        for (int i = 1; i <= highest; ++i) flags[i] = 1;
    } else {
        for (int instance : instance_numbers(count.get())) {
            if (instance < 1 || instance >= kFlagTableSize) return out_of_range(instance);
            flags[instance] = 1;
            highest = std::max(highest, instance);
        }
    }
    // With instance 1023 selected the table's end is the end mark.
    if (highest + 1 < kFlagTableSize) flags[highest + 1] = -1;

    const std::string filter_text(filter);
    const int left = compute_generic_list(filter_text.c_str(), flags);
    if (left < 0) {
        QM_LOG_print(" %s : bad syntax for %s", where, path);  // compat: leading blank
        return false;
    }
    tail = filter.substr(filter.size() - std::min<std::size_t>(static_cast<std::size_t>(left), filter.size()));

    for (int i = 1; i < kFlagTableSize && flags[i] != -1; ++i) {
        if (flags[i] != 1) continue;
        if (!list.empty()) list += ',';
        list += std::to_string(i);
    }
    return true;
}

// The instance list of "_{...}"; false when it cannot be had.
bool set_instances(std::string_view content, std::string &list) {
    if (content.empty()) {
        list.clear();
        return true;
    }
    if (quelm::is_digit(content[0])) {
        list = std::string(content);
        return true;
    }
    const std::size_t cut = content.rfind('_');
    if (cut == std::string_view::npos) return false;
    const std::string object(content.substr(0, cut));
    const std::string property(content.substr(cut + 1));
    int type = 0;
    if (schema_type(std::string(content).c_str(), type) && is_secret_type(type)) return false;
    MallocString value(QM_DAT_getobjproperty(object.c_str(), property.c_str()));
    if (!value) return false;
    list = value.get();
    return true;
}

std::string bounded(std::string text, std::size_t size) {
    if (text.size() >= size) text.resize(size - 1);
    return text;
}

// The instance list a list path names ("{*}" or "{1,3}") and the text after
// its closing brace; false (logged where needed) when there is none.
bool path_instances(const char *path, const ListPath &list_path, const char *where, std::string &list,
                    std::string_view &tail) {
    if (list_path.marker == ListMarker::wildcard) {
        return wildcard_instances(list_path.object, list_path.after, path, where, list, tail);
    }
    const std::size_t close = list_path.after.find('}');
    if (close == std::string_view::npos) {
        QM_LOG_print("%s : bad syntax for %s", where, path);
        return false;
    }
    if (!set_instances(list_path.after.substr(0, close), list)) return false;
    tail = list_path.after.substr(close + 1);
    return true;
}

qm_node *list_tree(const char *path, const ListPath &list_path, const char *suffix, QM_DAT_record *records,
                   const char *where) {
    Tree root(create_node(""));
    if (!root) return nullptr;
    std::string list;
    std::string_view tail;
    if (!path_instances(path, list_path, where, list, tail)) return nullptr;

    Selector selector;
    switch (parse_selector(tail, selector)) {
        case SelectorResult::ok: break;
        case SelectorResult::unknown_selector:
            // compat: "unknow" as the log readers search for it.
            QM_LOG_print("%s %d : unknow selector (%c for %s)", where, __LINE__, tail[0], path);
            return nullptr;
        case SelectorResult::bad_wheres: QM_LOG_print("Bad syntax in Wheres, aborting the query"); return nullptr;
    }

    qm_node *list_node = create_node("List");
    if (list_node == nullptr) return nullptr;
    root->child = list_node;
    qm_node *last = list_node;
    const std::string sub_suffix = selector.remainder.empty() ? std::string() : selector.remainder.substr(1);
    const char *next_suffix = selector.remainder.empty() ? suffix : sub_suffix.c_str();
    std::string built;

    for (int i : instance_numbers(list)) {
        const std::string number = std::to_string(i);
        const std::string instance = bounded(list_path.object + "_" + number, kInstanceNameSize);
        const std::string item = bounded(list_path.object + "_" + number + selector.remainder, kItemPathSize);
        int type = 0;
        // Where clauses apply only when the item path is in the schema.
        if (!selector.wheres.empty() && schema_type(item.c_str(), type)) {
            const bool selected = std::all_of(
                selector.wheres.begin(), selector.wheres.end(),
                [&](const std::string &w) { return Where_check(records, instance.c_str(), w.c_str()) == 1; });
            if (!selected) continue;
        }
        Records item_records(QM_DAT_getobjdata(item.c_str(), 0));
        Tree sub(create_tree_full(instance.c_str(), next_suffix, item_records.get()));
        Tree key(create_node(number.c_str()));
        if (!sub || !key) continue;
        key->child = sub->child;
        sub->child = nullptr;
        last->next = key.release();
        last = last->next;
        if (!built.empty()) built += ',';
        built += number;
    }

    list_node->child = create_node(built.c_str());
    if (list_node->child == nullptr) return nullptr;
    return root.release();
}

qm_node *plain_tree(const char *path, const char *suffix, QM_DAT_record *records) {
    std::string name = path;
    if (std::strstr(path, "_[") != nullptr) {
        MallocString computed(compute_name(path));
        if (!computed) {
            QM_LOG_print("compute_name has failed");
            return nullptr;
        }
        name = computed.get();
    }
    if (token_ssi_autolearn != 0 && last_token_name != nullptr && last_token_name[0] != '\0') {
        const std::string learned = suffix != nullptr && suffix[0] != '\0' ? name + "_" + suffix : name;
        extend_token(last_token_name, learned.c_str());
        refresh_token_timestamp(last_token_name, last_token_lifetime);
    }
    return create_tree_simple(name.c_str(), suffix, records);
}

void free_tree(qm_node *node) {
    // Siblings iteratively: a list's chain holds one node per instance.
    while (node != nullptr) {
        qm_node *next = node->next;
        free_tree(node->child);
        std::free(node->text);
        std::free(node);
        node = next;
    }
}

// A record named after the object or below it, kept by the suffix (empty:
// every record).
bool wanted_record(std::string_view relative, std::string_view wanted) {
    if (wanted.empty() || relative == wanted) return true;
    return relative.size() > wanted.size() && relative.starts_with(wanted) && relative[wanted.size()] == '_';
}

qm_node *object_tree(const char *name, const char *suffix, QM_DAT_record *records) {
    Tree root(create_node(""));
    if (!root) return nullptr;
    Records owned;
    QM_DAT_record *recs = records;
    if (recs == nullptr) {
        owned.reset(QM_DAT_getobjdata(name, 0));
        recs = owned.get();
    }
    if (recs == nullptr) return single_value(root.get(), name) != nullptr ? root.release() : nullptr;

    const std::string_view base(name);
    const std::string_view wanted = suffix != nullptr ? suffix : "";
    TreeBuilder builder(root.get());
    for (const QM_DAT_record *r = recs; r != nullptr; r = r->next) {
        if (r->name == nullptr || r->value == nullptr) continue;
        const std::string_view full(r->name);
        if (full == base) {
            // The name is itself a property: its value is the payload.
            if (!wanted.empty()) continue;
            qm_node *leaf = create_node(r->value);
            if (leaf == nullptr) return nullptr;
            leaf->type = r->type;
            free_tree(root->child);
            root->child = leaf;
            builder.forget();
            continue;
        }
        if (full.size() <= base.size() || !full.starts_with(base) || full[base.size()] != '_') continue;
        const std::string_view relative = full.substr(base.size() + 1);
        if (!wanted_record(relative, wanted)) continue;
        if (!builder.add(relative, *r)) return nullptr;
    }
    return root.release();
}

void write_chain(json::Writer &out, const qm_node *node, bool shadow) {
    if (node == nullptr) return;
    if (node->child == nullptr && node->next == nullptr) {
        out.secret(node->text, shadow && is_secret_type(node->type), json::Escape::output_mode);
        return;
    }
    out.begin_object();
    for (const qm_node *n = node; n != nullptr; n = n->next) {
        out.key(n->text);
        write_chain(out, n->child, shadow);
    }
    out.end_object();
}

void write_xml(const qm_node *node) {
    for (const qm_node *n = node; n != nullptr; n = n->next) {
        if (n->child != nullptr) {
            cgi_out_printf("<%s>", n->text);
            write_xml(n->child);
            cgi_out_printf("</%s> ", n->text);
        } else {
            cgi_out_printf("%s", n->text);
        }
    }
}

}  // namespace

void write_tree(const qm_node *node, bool shadow) {
    json::Writer out(json::kTreeLayout);
    write_chain(out, node, shadow);
}

}  // namespace cgissi::datamodel

using namespace cgissi::datamodel;

// The C entry points here that do not run through quelm::guarded cannot
// throw: they allocate nothing, or only with malloc, whose failure is
// their error result.
extern "C" {

qm_node *create_node(const char *text) {
    auto *node = static_cast<qm_node *>(std::calloc(1, sizeof(qm_node)));
    char *copy = node != nullptr ? strdup(text != nullptr ? text : "") : nullptr;
    if (copy == nullptr) {
        std::free(node);
        // compat: the message ends in a line break of its own.
        QM_LOG_print("malloc failed - %s [%d]\n", kSourceName, __LINE__);
        QM_err_set(kMallocFailed);
        return nullptr;
    }
    node->text = copy;
    return node;
}

void free_all_node(qm_node *node) {
    quelm::guarded(__func__, [&] { free_tree(node); });
}

qm_node *create_tree_simple(const char *name, const char *suffix, QM_DAT_record *records) {
    if (name == nullptr) return nullptr;
    return quelm::guarded<qm_node *>(nullptr, __func__, [&] { return object_tree(name, suffix, records); });
}

qm_node *create_tree_full(const char *path, const char *suffix, QM_DAT_record *records) {
    if (path == nullptr) return nullptr;
    const char *where = __func__;
    return quelm::guarded<qm_node *>(nullptr, where, [&]() -> qm_node * {
        const ListPath list_path = split_list_path(path);
        if (list_path.marker == ListMarker::none) return plain_tree(path, suffix, records);
        return list_tree(path, list_path, suffix, records, where);
    });
}

void dump_JSON_tree(const qm_node *node, int shadow) {
    quelm::guarded(__func__, [&] { write_tree(node, shadow != 0); });
}

void dump_XML_tree(const qm_node *node) {
    quelm::guarded(__func__, [&] { write_xml(node); });
}

}  // extern "C"
