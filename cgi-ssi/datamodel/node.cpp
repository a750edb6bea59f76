// Result trees: built from the data model's records for a path of the path
// language, printed as JSON-like text or as XML.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cgi_output.h"
#include "datamodel/datamodel_internal.h"
#include "datamodel/result_tree.h"
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
// From this many instances on, a list read fetches the whole list at once
// rather than each item by itself.
constexpr std::size_t kOneReadInstances = 8;

using quelm::MallocString;

// A record of a read as the tree builder sees it: views of texts that live
// as long as the tree (or, for a C caller's records, as long as the call,
// which copies the tree before it returns), so that nodes may point into
// them.
struct RecordView {
    std::string_view name;
    std::string_view value;
    std::int8_t type;
};
using RecordSpan = std::span<const RecordView>;

// The records of name, their texts copied into the tree's arena; false
// (the shared error code set) when there are none.
bool read_records(ResultTree &tree, const char *name, std::vector<RecordView> &out) {
    struct Sink {
        ResultTree &tree;
        std::vector<RecordView> &out;
    } sink{tree, out};
    const QM_DAT_visitor visit = [](void *context, const QM_DAT_view *r) -> int {
        auto &s = *static_cast<Sink *>(context);
        s.out.push_back({s.tree.copy({r->name, r->name_len}), s.tree.copy({r->value, r->value_len}), r->type});
        return 0;
    };
    return QM_DAT_visitobjdata(name, visit, &sink) == 0;
}

// Where the walk of the previous record went at each depth. Records arrive
// grouped by object, so most components are found again at once instead of
// by a scan of a chain that, at the top of a large list, holds every
// instance. Chains never hold two nodes with the same text, so a hit is the
// node a scan would find.
struct ChainCache {
    TreeNode *parent = nullptr;
    TreeNode *matched = nullptr;  // child of parent found or added last
};

class TreeBuilder {
public:
    TreeBuilder(ResultTree &tree, TreeNode *root) : tree_(tree), root_(root) {}

    // Adds one record under its relative name.
    void add(std::string_view relative, const RecordView &record) {
        TreeNode *node = root_;
        std::size_t depth = 0;
        std::size_t start = 0;
        // The relative name with "_" appended, split at "_".
        while (start <= relative.size()) {
            std::size_t cut = relative.find('_', start);
            if (cut == std::string_view::npos) cut = relative.size();
            node = child(node, depth, relative.substr(start, cut - start));
            start = cut + 1;
            ++depth;
        }
        TreeNode *leaf = tree_.node_of(record.value);
        // A value replaces whatever the node held: later records may hang
        // siblings beside the leaf, earlier ones are lost.
        node->child = leaf;
        node->type = record.type;
        leaf->type = record.type;
        cached_ = std::min(cached_, depth);
    }

    // The tree changed outside add(): nothing remembered may be used.
    void forget() { cached_ = 0; }

private:
    static bool same(const TreeNode *n, std::string_view text) {
        return n->text.size() == text.size() && (text.empty() || n->text[0] == text[0]) && n->text == text;
    }

    TreeNode *child(TreeNode *parent, std::size_t depth, std::string_view text) {
        ChainCache *c = nullptr;
        if (depth < kCachedDepths) {
            // Depths beyond the cached ones are remembered afresh.
            if (cached_ <= depth) {
                for (std::size_t d = cached_; d <= depth; ++d) cache_[d] = ChainCache{};
                cached_ = depth + 1;
            }
            c = &cache_[depth];
            if (c->parent == parent && c->matched != nullptr && same(c->matched, text)) return c->matched;
        }
        TreeNode *last = nullptr;
        for (TreeNode *n = parent->child; n != nullptr; n = n->next) {
            if (same(n, text)) {
                if (c != nullptr) *c = ChainCache{parent, n};
                return n;
            }
            last = n;
        }
        TreeNode *added = tree_.node_of(text);
        if (last == nullptr) {
            parent->child = added;
        } else {
            last->next = added;
        }
        if (c != nullptr) *c = ChainCache{parent, added};
        return added;
    }

    // Names deeper than this are found by a scan of their chain.
    static constexpr std::size_t kCachedDepths = 16;
    ResultTree &tree_;
    TreeNode *root_;
    std::array<ChainCache, kCachedDepths> cache_{};
    std::size_t cached_ = 0;  // entries of cache_ in use
};

// A name with no records: its last component is a property of the rest,
// or the pseudo-properties Count and List of a List or Array.
TreeNode *single_value(ResultTree &tree, TreeNode *root, const char *name) {
    const std::string copy(name);
    const std::size_t cut = copy.rfind('_');
    if (cut == std::string::npos) return nullptr;
    const std::string object = copy.substr(0, cut);
    const std::string property = copy.substr(cut + 1);
    MallocString value(property == "Count" || property == "List" ? QM_DAT_getobjcount(object.c_str())
                                                         : QM_DAT_getobjproperty(object.c_str(), property.c_str()));
    if (!value) return nullptr;
    TreeNode *leaf = tree.node(value.get());
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

TreeNode *object_tree(ResultTree &tree, const char *name, const char *suffix, const RecordSpan *records);
TreeNode *plain_tree(ResultTree &tree, const char *path, const char *suffix, const RecordSpan *records);

// The records of every instance of a list, read with one query, each
// instance's run (they arrive in instance order) kept when its name is the
// item "<object>_<n><remainder>" or below it: what a read of that item
// gives, for all instances at once.
class InstanceRecords {
public:
    // False when the list cannot be read in one piece; the caller then reads
    // each item by itself.
    bool read(ResultTree &tree, const std::string &object, std::string_view remainder) {
        // Names that the data model resolves by itself (indirect names,
        // nested selections) are left to the item reads.
        if (object.find_first_of("[{*") != std::string::npos ||
            remainder.find_first_of("[{*") != std::string_view::npos) {
            return false;
        }
        std::vector<RecordView> all;
        if (!read_records(tree, object.c_str(), all)) return false;
        for (const RecordView &r : all) {
            int number = 0;
            if (!item_of(r.name, object, remainder, number)) continue;
            if (runs_.empty() || runs_.back().number != number) runs_.push_back({number, records_.size(), 0});
            records_.push_back(r);
            ++runs_.back().count;
        }
        return true;
    }

    // The records of instance number (none when it has none).
    RecordSpan of(int number) const {
        auto at = std::lower_bound(runs_.begin(), runs_.end(), number,
                                   [](const Run &run, int n) { return run.number < n; });
        if (at == runs_.end() || at->number != number) return {};
        return RecordSpan(records_).subspan(at->first, at->count);
    }

private:
    struct Run {
        int number;
        std::size_t first, count;
    };

    // "<object>_<digits>" followed by the remainder, then nothing or "_".
    static bool item_of(std::string_view name, std::string_view object, std::string_view remainder, int &number) {
        if (name.size() <= object.size() + 1 || !name.starts_with(object) || name[object.size()] != '_') return false;
        std::size_t at = object.size() + 1;
        const std::size_t digits = at;
        number = 0;
        while (at < name.size() && quelm::is_digit(name[at]) && at - digits < kMaxInstanceDigits) {
            number = number * 10 + (name[at++] - '0');
        }
        if (at == digits || (at < name.size() && name[at] != '_')) return false;
        const std::string_view rest = name.substr(at);
        return rest.starts_with(remainder) && (rest.size() == remainder.size() || rest[remainder.size()] == '_');
    }

    static constexpr std::size_t kMaxInstanceDigits = 9;  // fits an int
    std::vector<RecordView> records_;
    std::vector<Run> runs_;  // in increasing instance order
};

TreeNode *list_tree(ResultTree &tree, const char *path, const ListPath &list_path, const char *suffix,
                    QM_DAT_record *records, const char *where) {
    TreeNode *root = tree.node("");
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

    TreeNode *list_node = tree.node("List");
    root->child = list_node;
    TreeNode *last = list_node;
    const std::string sub_suffix = selector.remainder.empty() ? std::string() : selector.remainder.substr(1);
    const char *next_suffix = selector.remainder.empty() ? suffix : sub_suffix.c_str();
    std::string built;
    const std::vector<int> numbers = instance_numbers(list);
    InstanceRecords grouped;
    const bool one_read = numbers.size() >= kOneReadInstances && grouped.read(tree, list_path.object, selector.remainder);

    for (int i : numbers) {
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
        RecordSpan item_records = one_read ? grouped.of(i) : RecordSpan();
        std::vector<RecordView> read;
        // An instance the list read has nothing for is read as before, by
        // its item path (which may name a pseudo-property).
        if (item_records.empty() && read_records(tree, item.c_str(), read)) item_records = read;
        const bool found = !item_records.empty();
        TreeNode *sub = plain_tree(tree, instance.c_str(), next_suffix, found ? &item_records : nullptr);
        if (sub == nullptr) continue;
        TreeNode *key = tree.node(number);
        key->child = sub->child;
        last->next = key;
        last = key;
        if (!built.empty()) built += ',';
        built += number;
    }

    list_node->child = tree.node(built);
    return root;
}

TreeNode *plain_tree(ResultTree &tree, const char *path, const char *suffix, const RecordSpan *records) {
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
    return object_tree(tree, name.c_str(), suffix, records);
}

// A record named after the object or below it, kept by the suffix (empty:
// every record).
bool wanted_record(std::string_view relative, std::string_view wanted) {
    if (wanted.empty() || relative == wanted) return true;
    return relative.size() > wanted.size() && relative.starts_with(wanted) && relative[wanted.size()] == '_';
}

TreeNode *object_tree(ResultTree &tree, const char *name, const char *suffix, const RecordSpan *records) {
    TreeNode *root = tree.node("");
    std::vector<RecordView> read;
    RecordSpan recs;
    if (records != nullptr) {
        recs = *records;
    } else if (read_records(tree, name, read)) {
        recs = read;
    } else {
        return single_value(tree, root, name);
    }

    const std::string_view base(name);
    const std::string_view wanted = suffix != nullptr ? suffix : "";
    TreeBuilder builder(tree, root);
    for (const RecordView &r : recs) {
        if (r.name == base) {
            // The name is itself a property: its value is the payload.
            if (!wanted.empty()) continue;
            TreeNode *leaf = tree.node(r.value);
            leaf->type = r.type;
            root->child = leaf;
            builder.forget();
            continue;
        }
        if (r.name.size() <= base.size() || !r.name.starts_with(base) || r.name[base.size()] != '_') continue;
        const std::string_view relative = r.name.substr(base.size() + 1);
        if (!wanted_record(relative, wanted)) continue;
        builder.add(relative, r);
    }
    return root;
}

TreeNode *full_tree(ResultTree &tree, const char *path, const char *suffix, const RecordSpan *records,
                    QM_DAT_record *where_records, const char *where) {
    const ListPath list_path = split_list_path(path);
    if (list_path.marker == ListMarker::none) return plain_tree(tree, path, suffix, records);
    return list_tree(tree, path, list_path, suffix, where_records, where);
}

// Views of a C caller's records (those without a name or a value left out).
std::vector<RecordView> views_of(const QM_DAT_record *records) {
    std::vector<RecordView> views;
    for (const QM_DAT_record *r = records; r != nullptr; r = r->next) {
        if (r->name != nullptr && r->value != nullptr) views.push_back({r->name, r->value, r->type});
    }
    return views;
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

// A malloc'd copy of the chain that starts at node, for the C interface;
// null (nothing left allocated) when memory runs out.
qm_node *to_c_chain(const TreeNode *node) {
    qm_node *head = nullptr;
    qm_node **tail = &head;
    for (const TreeNode *n = node; n != nullptr; n = n->next) {
        qm_node *copy = create_node(std::string(n->text).c_str());
        if (copy == nullptr) break;
        copy->type = n->type;
        *tail = copy;
        tail = &copy->next;
        if (n->child != nullptr && (copy->child = to_c_chain(n->child)) == nullptr) break;
        if (n->next == nullptr) return head;
    }
    free_tree(head);
    return nullptr;
}

// The C interface's tree of a build: null when the build gave none.
qm_node *to_c_tree(const TreeNode *root) { return root != nullptr ? to_c_chain(root) : nullptr; }

template <typename Node>
void write_chain(json::Writer &out, const Node *node, bool shadow) {
    if (node == nullptr) return;
    if (node->child == nullptr && node->next == nullptr) {
        out.secret(node->text, shadow && is_secret_type(node->type), json::Escape::output_mode);
        return;
    }
    out.begin_object();
    for (const Node *n = node; n != nullptr; n = n->next) {
        out.key(n->text);
        write_chain(out, n->child, shadow);
    }
    out.end_object();
}

// The whole chain printed into one buffer and written in one piece.
template <typename Node>
void print_chain(const Node *node, bool shadow) {
    json::OutBuffer buffer;
    json::Writer out(json::kTreeLayout, buffer);
    write_chain(out, node, shadow);
    const std::string_view text = buffer.view();
    cgi_out_write(text.data(), text.size());
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

bool read_tree(const std::string &path, ResultTree &tree) {
    return quelm::guarded(false, "create_tree_full", [&] {
        tree.root = full_tree(tree, path.c_str(), nullptr, nullptr, nullptr, "create_tree_full");
        return tree.root != nullptr;
    });
}

void write_tree(const TreeNode *node, bool shadow) { print_chain(node, shadow); }

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
    return quelm::guarded<qm_node *>(nullptr, __func__, [&] {
        ResultTree tree;
        const std::vector<RecordView> views = views_of(records);
        const RecordSpan span(views);
        return to_c_tree(object_tree(tree, name, suffix, records != nullptr ? &span : nullptr));
    });
}

qm_node *create_tree_full(const char *path, const char *suffix, QM_DAT_record *records) {
    if (path == nullptr) return nullptr;
    const char *where = __func__;
    return quelm::guarded<qm_node *>(nullptr, where, [&]() -> qm_node * {
        ResultTree tree;
        const std::vector<RecordView> views = views_of(records);
        const RecordSpan span(views);
        return to_c_tree(full_tree(tree, path, suffix, records != nullptr ? &span : nullptr, records, where));
    });
}

void dump_JSON_tree(const qm_node *node, int shadow) {
    quelm::guarded(__func__, [&] { print_chain(node, shadow != 0); });
}

void dump_XML_tree(const qm_node *node) {
    quelm::guarded(__func__, [&] { write_xml(node); });
}

}  // extern "C"
