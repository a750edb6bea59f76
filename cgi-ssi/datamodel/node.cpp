// Result trees: built from the data model's records for a path of the path
// language, printed as JSON-like text or as XML.
#include <algorithm>
#include <iterator>
#include <array>
#include <bit>
#include <charconv>
#include <limits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
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
// as long as the tree (records the tree holds, or, for a C caller's
// records, as long as the call, which copies the tree before it returns),
// so that nodes may point into them.
using RecordView = TreeMember;
using RecordSpan = std::span<const RecordView>;

// The records of name, held by the tree (their texts are not copied);
// false (the shared error code set) when there are none.
bool held_records(ResultTree &tree, const char *name, std::span<const QM_DAT_view> &out) {
    const QM_DAT_view *views = nullptr;
    std::size_t count = 0;
    QM_DAT_hold *hold = nullptr;
    if (QM_DAT_holdobjdata(name, &views, &count, &hold) != 0) return false;
    tree.keep(hold);
    out = std::span(views, count);
    return true;
}

RecordView record_view(const QM_DAT_view &r) { return {{r.name, r.name_len}, {r.value, r.value_len}, r.type}; }

bool read_records(ResultTree &tree, const char *name, std::vector<RecordView> &out) {
    std::span<const QM_DAT_view> views;
    if (!held_records(tree, name, views)) return false;
    out.reserve(out.size() + views.size());
    std::transform(views.begin(), views.end(), std::back_inserter(out), record_view);
    return true;
}

// Distinct names are checked pairwise: cheap for an instance's few
// properties, not for a whole list.
constexpr std::size_t kMaxFlatRecords = 32;

// A bit per (length, first byte) of a name: names whose bits differ differ,
// so most names need not be compared with the others.
std::uint64_t name_shape(std::string_view name) {
    const unsigned first = name.empty() ? 0 : static_cast<unsigned char>(name[0]);
    return std::uint64_t{1} << ((name.size() * 7 + first) % 64);
}

// Whether a record named `relative` (below its object) may join `count`
// members whose names seen(i) gives (see TreeNode): one component, none of
// theirs, and room left. `shapes` holds the name_shape bits of theirs and
// gains its own.
template <typename Seen>
bool joins_members(std::string_view relative, std::uint64_t &shapes, std::size_t count, Seen &&seen) {
    if (count >= kMaxFlatRecords || std::find(relative.begin(), relative.end(), '_') != relative.end()) return false;
    const std::uint64_t shape = name_shape(relative);
    if ((shapes & shape) != 0) {
        for (std::size_t i = 0; i < count; ++i) {
            if (seen(i) == relative) return false;
        }
    }
    shapes |= shape;
    return true;
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

// Cuts text to what a buffer of size bytes holds with its terminator.
void cut(std::string &text, std::size_t size) {
    if (text.size() >= size) text.resize(size - 1);
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
        std::span<const QM_DAT_view> all;
        if (!held_records(tree, object.c_str(), all)) return false;
        records_.reserve(all.size());
        // The members are the tree's: its nodes point at them.
        members_ = tree.members(all.size());
        std::string_view run_name;  // the first record of the current run
        for (const QM_DAT_view &view : all) {
            const std::string_view name(view.name, view.name_len);
            int number = 0;
            std::size_t base = 0;
            if (remainder.empty() && !runs_.empty() && name.size() > runs_.back().base &&
                name[runs_.back().base] == '_' && same_prefix(name, run_name, runs_.back().base)) {
                // "<object>_<number>_..." of the current run: the same item.
                number = runs_.back().number;
                base = runs_.back().base;
            } else if (!item_of(name, object, remainder, number, base)) {
                continue;
            }
            if (runs_.empty() || runs_.back().number != number) {
                run_name = name;
                // Instances arrive in increasing order, each in one run, or
                // the runs cannot be searched: the items are read by themselves.
                if (!runs_.empty() && number < runs_.back().number) return false;
                runs_.push_back({number, records_.size(), 0, base, true, 0});
            }
            Run &run = runs_.back();
            const std::string_view value(view.value, view.value_len);
            add_to_flat(run, name.substr(base));
            records_.push_back({name, value, view.type});
            // As a member, when the run is one: named below the instance.
            members_[records_.size() - 1] = {run.flat ? name.substr(base + 1) : std::string_view(), value, view.type};
            ++run.count;
        }
        return true;
    }

    struct Item {
        RecordSpan records;  // the instance's records (none when it has none)
        // The same as the instance's members (see TreeNode), when they are.
        std::span<const TreeMember> members;
    };

    Item of(int number) {
        // Lists are mostly read in instance order: the run after the last
        // one found is tried first.
        auto at = cursor_ < runs_.size() && runs_[cursor_].number == number
                      ? runs_.begin() + static_cast<std::ptrdiff_t>(cursor_)
                      : std::lower_bound(runs_.begin(), runs_.end(), number,
                                         [](const Run &run, int n) { return run.number < n; });
        if (at == runs_.end() || at->number != number) return {};
        cursor_ = static_cast<std::size_t>(at - runs_.begin()) + 1;
        Item item{RecordSpan(records_).subspan(at->first, at->count), {}};
        if (at->flat) item.members = std::span<const TreeMember>(members_ + at->first, at->count);
        return item;
    }

private:
    struct Run {
        int number;
        std::size_t first, count;
        std::size_t base;  // length of "<object>_<number>"
        // Whether the records are what object_tree keeps as members: each
        // one property below the instance, no two the same (see
        // flat_records, which decides the same for an object read).
        bool flat;
        std::uint64_t shapes;  // a bit per (length, first byte) of the names seen
    };

    // rest: the record's name after "<object>_<number>".
    void add_to_flat(Run &run, std::string_view rest) {
        if (!run.flat) return;
        run.flat = !rest.empty() && joins_members(rest.substr(1), run.shapes, run.count, [&](std::size_t i) {
            return records_[run.first + i].name.substr(run.base + 1);
        });
    }

    // "<object>_<digits>" (base: its length) followed by the remainder, then
    // nothing or "_".
    static bool item_of(std::string_view name, std::string_view object, std::string_view remainder, int &number,
                        std::size_t &base) {
        if (name.size() <= object.size() + 1 || name[object.size()] != '_' || !same_prefix(name, object, object.size())) return false;
        std::size_t at = object.size() + 1;
        const std::size_t digits = at;
        const std::size_t digits_end = std::min(name.size(), digits + kMaxInstanceDigits);
        number = 0;
        for (; at < digits_end; ++at) {
            const unsigned digit = static_cast<unsigned char>(name[at]) - unsigned{'0'};
            if (digit > 9) break;
            number = number * 10 + static_cast<int>(digit);
        }
        if (at == digits || (at < name.size() && name[at] != '_')) return false;
        base = at;
        const std::string_view rest = name.substr(at);
        return rest.starts_with(remainder) && (rest.size() == remainder.size() || rest[remainder.size()] == '_');
    }

    // Whether the first n bytes of a and b (both at least that long) are the
    // same. The prefixes of list items are short: one comparison of a word
    // where both are long enough, else byte by byte (less than a call).
    static bool same_prefix(std::string_view a, std::string_view b, std::size_t n) {
        if constexpr (std::endian::native == std::endian::little) {
            if (n <= sizeof(std::uint64_t) && a.size() >= sizeof(std::uint64_t) && b.size() >= sizeof(std::uint64_t)) {
                std::uint64_t x = 0, y = 0;
                std::memcpy(&x, a.data(), sizeof x);
                std::memcpy(&y, b.data(), sizeof y);
                const std::uint64_t mask = n == sizeof x ? ~std::uint64_t{0} : (std::uint64_t{1} << (8 * n)) - 1;
                return ((x ^ y) & mask) == 0;
            }
        }
        for (std::size_t i = 0; i < n; ++i) {
            if (a[i] != b[i]) return false;
        }
        return true;
    }

    static constexpr std::size_t kMaxInstanceDigits = 9;  // fits an int
    std::vector<RecordView> records_;
    TreeMember *members_ = nullptr;    // records_ as members, in runs that are flat
    std::vector<Run> runs_;            // in increasing instance order
    std::size_t cursor_ = 0;           // the run after the one found last
};

TreeNode *list_tree(ResultTree &tree, const char *path, const ListPath &list_path, const char *suffix,
                    QM_DAT_record *records, const char *where) {
    TreeNode *root = tree.node_of("");
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

    TreeNode *list_node = tree.node_of("List");
    root->child = list_node;
    TreeNode *last = list_node;
    const std::string sub_suffix = selector.remainder.empty() ? std::string() : selector.remainder.substr(1);
    const char *next_suffix = selector.remainder.empty() ? suffix : sub_suffix.c_str();
    std::string built;
    const std::vector<int> numbers = instance_numbers(list);
    InstanceRecords grouped;
    const bool one_read = numbers.size() >= kOneReadInstances && grouped.read(tree, list_path.object, selector.remainder);

    // Instances whose names the token learns take the whole way (plain_tree).
    const bool learning = token_ssi_autolearn != 0 && last_token_name != nullptr && last_token_name[0] != '\0';
    // Made again for each instance in the same buffers.
    std::string number, instance, item;
    // Each clause is parsed once for all instances; one that does not parse
    // goes to Where_check each time, which logs it for each instance.
    std::vector<std::optional<WhereClause>> clauses;
    clauses.reserve(selector.wheres.size());
    for (const std::string &w : selector.wheres) {
        WhereClause clause;
        clauses.push_back(parse_where(w.c_str(), clause) ? std::optional<WhereClause>(std::move(clause)) : std::nullopt);
    }
    auto clause_holds = [&](std::size_t n) {
        return (clauses[n] ? where_check(records, instance.c_str(), *clauses[n])
                           : Where_check(records, instance.c_str(), selector.wheres[n].c_str())) == 1;
    };
    for (int i : numbers) {
        char digits[std::numeric_limits<int>::digits10 + 2];
        number.assign(digits, std::to_chars(digits, digits + sizeof digits, i).ptr);
        // The instance's key, after the last one; its number joins the list.
        auto add_key = [&] {
            TreeNode *key = tree.node(number);
            last->next = key;
            last = key;
            if (!built.empty()) built += ',';
            built += number;
            return last;
        };
        // The item's names, made when something needs them.
        bool named = false;
        auto name_item = [&] {
            if (named) return;
            instance.assign(list_path.object).append(1, '_').append(number);
            item.assign(instance).append(selector.remainder);
            cut(instance, kInstanceNameSize);
            cut(item, kItemPathSize);
            named = true;
        };
        int type = 0;
        // Where clauses apply only when the item path is in the schema.
        if (!selector.wheres.empty()) {
            name_item();
            if (schema_type(item.c_str(), type)) {
                bool selected = true;
                for (std::size_t n = 0; n < clauses.size() && selected; ++n) selected = clause_holds(n);
                if (!selected) continue;
            }
        }
        const InstanceRecords::Item grouped_item = one_read ? grouped.of(i) : InstanceRecords::Item{};
        if (!grouped_item.members.empty() && !learning) {
            // What plain_tree would make of the records, made at once.
            TreeNode *key = add_key();
            key->members = grouped_item.members.data();
            key->member_count = static_cast<std::uint32_t>(grouped_item.members.size());
            continue;
        }
        name_item();
        RecordSpan item_records = grouped_item.records;
        std::vector<RecordView> read;
        // An instance the list read has nothing for is read as before, by
        // its item path (which may name a pseudo-property).
        if (item_records.empty() && read_records(tree, item.c_str(), read)) item_records = read;
        const bool found = !item_records.empty();
        TreeNode *sub = plain_tree(tree, instance.c_str(), next_suffix, found ? &item_records : nullptr);
        if (sub == nullptr) continue;
        TreeNode *key = add_key();
        key->child = sub->child;
        key->members = sub->members;
        key->member_count = sub->member_count;
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

// The records of base that a read keeps (named below base, by the
// suffix), as members named relative to base (see TreeNode), when that is
// what the tree builder would make of them; false when one names base
// itself, one has more than one component, two have the same name, or
// there are too many to check: the builder then has to decide.
bool flat_records(std::string_view base, std::string_view wanted, RecordSpan recs,
                  UninitializedSlots<TreeMember, kMaxFlatRecords> &flat, std::size_t &count) {
    count = 0;
    if (recs.size() > kMaxFlatRecords) return false;
    std::uint64_t seen_shapes = 0;  // name_shape of the names kept
    for (const RecordView &r : recs) {
        if (r.name.size() <= base.size() || r.name[base.size()] != '_' || !r.name.starts_with(base)) {
            if (r.name == base && wanted.empty()) return false;
            continue;
        }
        const std::string_view relative = r.name.substr(base.size() + 1);
        if (!wanted_record(relative, wanted)) continue;
        if (!joins_members(relative, seen_shapes, count, [&](std::size_t i) { return flat.data()[i].name; }))
            return false;
        flat.put(count++, {relative, r.value, r.type});
    }
    return true;
}

TreeNode *object_tree(ResultTree &tree, const char *name, const char *suffix, const RecordSpan *records) {
    TreeNode *root = tree.node_of("");
    UninitializedSlots<RecordView, kMaxFlatRecords> few;  // an instance's records, viewed from the stack
    std::vector<RecordView> many;
    RecordSpan recs;
    std::span<const QM_DAT_view> views;
    if (records != nullptr) {
        recs = *records;
    } else if (held_records(tree, name, views)) {
        if (views.size() <= few.size()) {
            for (std::size_t i = 0; i < views.size(); ++i) few.put(i, record_view(views[i]));
            recs = RecordSpan(few.data(), views.size());
        } else {
            many.resize(views.size());
            std::transform(views.begin(), views.end(), many.begin(), record_view);
            recs = RecordSpan(many);
        }
    } else {
        return single_value(tree, root, name);
    }

    const std::string_view base(name);
    const std::string_view wanted = suffix != nullptr ? suffix : "";
    UninitializedSlots<TreeMember, kMaxFlatRecords> flat;
    std::size_t count = 0;
    if (flat_records(base, wanted, recs, flat, count)) {
        if (count != 0) {
            TreeMember *members = tree.members(count);
            std::copy_n(flat.data(), count, members);
            root->members = members;
            root->member_count = static_cast<std::uint32_t>(count);
        }
        return root;
    }
    TreeBuilder builder(tree, root);
    for (const RecordView &r : recs) {
        if (r.name == base) {
            // The name is itself a property: its value is the payload.
            if (!wanted.empty()) continue;
            TreeNode *leaf = tree.node_of(r.value);
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

qm_node *to_c_chain(const TreeNode *node);

// A malloc'd copy of the members as the chain they stand for; null (nothing
// left allocated) when memory runs out.
qm_node *to_c_members(std::span<const TreeMember> members) {
    qm_node *head = nullptr;
    qm_node **tail = &head;
    for (const TreeMember &m : members) {
        qm_node *copy = create_node(std::string(m.name).c_str());
        if (copy == nullptr) break;
        copy->type = m.type;
        *tail = copy;
        tail = &copy->next;
        if ((copy->child = create_node(std::string(m.value).c_str())) == nullptr) break;
        copy->child->type = m.type;
        if (&m == &members.back()) return head;
    }
    free_tree(head);
    return nullptr;
}

// A malloc'd copy of the children of node; null when it has none or
// memory runs out (then false).
bool to_c_children(const TreeNode *node, qm_node *&out) {
    if (node->member_count != 0) {
        out = to_c_members({node->members, node->member_count});
    } else {
        out = node->child != nullptr ? to_c_chain(node->child) : nullptr;
    }
    return out != nullptr || !node->has_children();
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
        if (!to_c_children(n, copy->child)) break;
        if (n->next == nullptr) return head;
    }
    free_tree(head);
    return nullptr;
}

// The C interface's tree of a build: null when the build gave none.
qm_node *to_c_tree(const TreeNode *root) { return root != nullptr ? to_c_chain(root) : nullptr; }

template <typename Node>
void write_chain(json::Writer &out, const Node *node, bool shadow);

// Members print as the chain they stand for: an object of leaves.
void write_members(json::Writer &out, std::span<const TreeMember> members, bool shadow) {
    out.begin_object();
    for (const TreeMember &m : members) out.output_member(m.name, m.value, shadow && is_secret_type(m.type));
    out.end_object();
}

void write_children(json::Writer &out, const TreeNode *node, bool shadow) {
    if (node->member_count != 0) {
        write_members(out, {node->members, node->member_count}, shadow);
    } else {
        write_chain(out, node->child, shadow);
    }
}

void write_children(json::Writer &out, const qm_node *node, bool shadow) { write_chain(out, node->child, shadow); }

bool has_members(const TreeNode *node) { return node->member_count != 0; }
bool has_members(const qm_node *) { return false; }

template <typename Node>
void write_chain(json::Writer &out, const Node *node, bool shadow) {
    if (node == nullptr) return;
    if (node->child == nullptr && node->next == nullptr) {
        out.secret(node->text, shadow && is_secret_type(node->type), json::Escape::output_mode);
        return;
    }
    out.begin_object();
    for (const Node *n = node; n != nullptr; n = n->next) {
        const Node *leaf = n->child;
        if (leaf != nullptr && leaf->child == nullptr && leaf->next == nullptr && !has_members(n)) {
            out.output_member(n->text, leaf->text, shadow && is_secret_type(leaf->type));
            continue;
        }
        out.key(n->text);
        write_children(out, n, shadow);
    }
    out.end_object();
}

// Printed into one buffer and written in one piece.
template <typename Print>
void print_buffered(Print &&print) {
    // A responder prints the same few reads again and again: the buffer
    // starts as large as the last one needed (bounded, so that one large
    // read does not make every later one reserve as much). A small buffer
    // is kept from one answer to the next; a larger one is given back.
    static std::size_t last_size = 0;
    static json::OutBuffer kept;
    static bool kept_in_use = false;
    constexpr std::size_t kMaxExpected = 1024 * 1024;
    constexpr std::size_t kMaxKept = 16 * 1024;
    const auto emit = [&](json::OutBuffer &buffer) {
        json::Writer out(json::kTreeLayout, buffer);
        print(out);
        const std::string_view text = buffer.view();
        last_size = text.size();
        cgi_out_write(text.data(), text.size());
    };
    if (kept_in_use || last_size > kMaxKept) {
        json::OutBuffer buffer(std::min(last_size, kMaxExpected));
        emit(buffer);
        return;
    }
    kept_in_use = true;
    struct Done {
        ~Done() {
            kept.clear();
            if (kept.capacity() > kMaxKept) kept.release();
            kept_in_use = false;
        }
    } done;
    emit(kept);
}

// The chain of a C caller's tree, printed as a result tree in one write.
void print_chain(const qm_node *node, bool shadow) {
    print_buffered([&](json::Writer &out) { write_chain(out, node, shadow); });
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

void write_tree(const TreeNode *parent, bool shadow) {
    print_buffered([&](json::Writer &out) { write_children(out, parent, shadow); });
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
