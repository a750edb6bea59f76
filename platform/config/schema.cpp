#include "schema.h"

#include <charconv>
#include <cstring>
#include <limits>

#include <iksemel.h>

#include "quelm_chars.h"
#include "quelm_owned.h"
#include "quelm_text.h"

namespace quelm::platform {
namespace {

using IksDocument = std::unique_ptr<iks, quelm::CDeleter<iks_delete>>;

bool is_leaf_code(int code) {
    switch (code) {
    case QM_TYPE_STRING:
    case QM_TYPE_INT:
    case QM_TYPE_UINT:
    case QM_TYPE_BOOL:
    case QM_TYPE_IPV4:
    case QM_TYPE_SECRET_ENCRYPTED:
    case QM_TYPE_SECRET: return true;
    default: return false;
    }
}

bool is_object_code(int code) { return code == QM_TYPE_NODE || code == QM_TYPE_ARRAY || code == QM_TYPE_LIST; }

bool is_text_code(int code) {
    return code == QM_TYPE_STRING || code == QM_TYPE_SECRET || code == QM_TYPE_SECRET_ENCRYPTED;
}

template <typename T>
bool parse_number(std::string_view text, T &out) {
    if (text.empty()) return false;
    const char *first = text.data();
    const char *last = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(first, last, out);
    return ec == std::errc() && ptr == last;
}

bool valid_component_name(std::string_view name) {
    if (name.empty() || name.size() > kMaxComponentNameLength) return false;
    if (!is_ascii_alpha(name[0])) return false;
    for (char c : name)
        if (!is_ascii_alnum(c) && c != '_') return false;
    // A trailing "_" or "__" would make names ambiguous.
    return name.back() != '_' && name.find("__") == std::string_view::npos;
}

bool valid_ipv4(std::string_view text) {
    int parts = 0;
    bool ok = quelm::split(text, '.', [&](std::string_view part) {
        unsigned value = 0;
        if (part.empty() || part.size() > 3 || (part.size() > 1 && part[0] == '0')) return false;
        ++parts;
        return parse_number(part, value) && value <= 255;
    });
    return ok && parts == 4;
}

// Instance number of a name component: decimal, 1..kMaxInstanceNumber,
// without sign or leading zero, so that every instance has one spelling.
std::optional<std::uint32_t> parse_instance(std::string_view text) {
    if (text.empty() || text[0] == '0') return std::nullopt;
    for (char c : text)
        if (!is_digit(c)) return std::nullopt;
    std::uint32_t value = 0;
    if (!parse_number(text, value) || value > kMaxInstanceNumber) return std::nullopt;
    return value;
}

class Loader {
public:
    explicit Loader(std::string &error) : error_(error) {}

    bool load_children(iks *element, SchemaNode &parent, std::size_t depth) {
        if (depth > kMaxSchemaDepth) return fail("schema deeper than the limit", parent.name);
        for (iks *tag = iks_first_tag(element); tag != nullptr; tag = iks_next_tag(tag)) {
            if (++count_ > kMaxSchemaNodes) return fail("too many schema entries", parent.name);
            auto node = std::make_unique<SchemaNode>();
            if (!load_node(tag, *node, depth)) return false;
            for (const auto &sibling : parent.children)
                if (sibling->name == node->name) return fail("duplicate name", node->name);
            node->parent = &parent;
            node->index = static_cast<std::uint32_t>(parent.children.size());
            parent.children.push_back(std::move(node));
        }
        return true;
    }

private:
    bool fail(const char *what, std::string_view where) {
        error_ = what;
        error_ += ": ";
        error_ += where;
        return false;
    }

    bool load_node(iks *tag, SchemaNode &node, std::size_t depth) {
        std::string_view element = iks_name(tag);
        const char *name = iks_find_attrib(tag, "name");
        const char *type = iks_find_attrib(tag, "type");
        if (name == nullptr || !valid_component_name(name)) return fail("bad or missing name", name ? name : "?");
        node.name = name;
        if (type == nullptr || !parse_number(std::string_view(type), node.type))
            return fail("bad or missing type", node.name);
        if (element == "object") {
            if (!is_object_code(node.type)) return fail("object with a leaf type", node.name);
            if (const char *count = iks_find_attrib(tag, "count")) {
                if (node.type != QM_TYPE_ARRAY || !parse_number(std::string_view(count), node.initial_count) ||
                    node.initial_count > kMaxArrayCount)
                    return fail("bad count", node.name);
            }
            return load_children(tag, node, depth + 1);
        }
        if (element != "param") return fail("unknown element", element);
        if (!is_leaf_code(node.type)) return fail("param with an object type", node.name);
        if (iks_first_tag(tag) != nullptr) return fail("param with children", node.name);
        if (const char *maxlen = iks_find_attrib(tag, "maxlen")) {
            if (!is_text_code(node.type) || !parse_number(std::string_view(maxlen), node.max_length) ||
                node.max_length > kMaxValueLength)
                return fail("bad maxlen", node.name);
        }
        for (const char *bound : {"min", "max"}) {
            const char *text = iks_find_attrib(tag, bound);
            if (text == nullptr) continue;
            long long value = 0;
            if ((node.type != QM_TYPE_INT && node.type != QM_TYPE_UINT) || !parse_number(std::string_view(text), value))
                return fail("bad bound", node.name);
            (std::strcmp(bound, "min") == 0 ? node.min : node.max) = value;
        }
        const char *fallback =
            node.type == QM_TYPE_INT || node.type == QM_TYPE_UINT || node.type == QM_TYPE_BOOL ? "0" : "";
        const char *def = iks_find_attrib(tag, "default");
        node.default_value = def != nullptr ? def : fallback;
        if (validate_value(node, node.default_value) != 0) return fail("default does not fit the type", node.name);
        return true;
    }

    std::string &error_;
    std::size_t count_ = 0;
};

}  // namespace

void append_key_component(std::string &key, std::uint32_t value) {
    char digits[kKeyComponentWidth];
    digits[kKeyComponentWidth - 1] = '/';
    for (std::size_t i = kKeyComponentWidth - 1; i > 0; --i) {
        digits[i - 1] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
    key.append(digits, kKeyComponentWidth);
}

std::string join_name(std::string_view object, std::string_view component) {
    std::string out;
    out.reserve(object.size() + 1 + component.size());
    out.append(object);
    if (!object.empty()) out.push_back('_');
    out.append(component);
    return out;
}

int validate_value(const SchemaNode &leaf, std::string_view value) {
    if (value.size() > kMaxValueLength || value.find_first_of("\r\n") != std::string_view::npos)
        return QM_ERR_BAD_VALUE;
    switch (leaf.type) {
    case QM_TYPE_STRING:
    case QM_TYPE_SECRET:
    case QM_TYPE_SECRET_ENCRYPTED: return value.size() <= leaf.max_length ? QM_ERR_NONE : QM_ERR_BAD_VALUE;
    case QM_TYPE_BOOL: return value == "0" || value == "1" ? QM_ERR_NONE : QM_ERR_BAD_VALUE;
    case QM_TYPE_IPV4: return value.empty() || valid_ipv4(value) ? QM_ERR_NONE : QM_ERR_BAD_VALUE;
    case QM_TYPE_INT:
    case QM_TYPE_UINT: {
        long long number = 0;
        if (leaf.type == QM_TYPE_INT) {
            std::int32_t n = 0;
            if (!parse_number(value, n)) return QM_ERR_BAD_VALUE;
            number = n;
        } else {
            std::uint32_t n = 0;
            // from_chars would take no "-", but "+" is refused as well.
            if (value.empty() || !is_digit(value[0]) || !parse_number(value, n)) return QM_ERR_BAD_VALUE;
            number = n;
        }
        if (leaf.min && number < *leaf.min) return QM_ERR_BAD_VALUE;
        if (leaf.max && number > *leaf.max) return QM_ERR_BAD_VALUE;
        return QM_ERR_NONE;
    }
    default: return QM_ERR_BAD_VALUE;
    }
}

std::unique_ptr<Schema> Schema::load(const std::string &path, std::string &error) {
    iks *raw = nullptr;
    int rc = iks_load(path.c_str(), &raw);
    IksDocument doc(raw);
    if (rc != IKS_OK || doc == nullptr) {
        error = "cannot read schema " + path;
        return nullptr;
    }
    iks *top = iks_root(doc.get());
    if (top == nullptr || std::strcmp(iks_name(top), "schema") != 0) {
        error = "not a schema document: " + path;
        return nullptr;
    }
    auto schema = std::unique_ptr<Schema>(new Schema());
    schema->root_ = std::make_unique<SchemaNode>();
    Loader loader(error);
    if (!loader.load_children(top, *schema->root_, 0)) {
        error = path + ": " + error;
        return nullptr;
    }
    return schema;
}

std::optional<Resolved> Schema::resolve(std::string_view name) const {
    if (name.empty() || name.size() > kMaxNameLength) return std::nullopt;
    Resolved out;
    out.name = name;
    const SchemaNode *node = root_.get();
    std::string_view rest = name;
    while (true) {
        // Longest child name that is followed by "_" or the end.
        const SchemaNode *best = nullptr;
        for (const auto &child : node->children) {
            std::string_view cn = child->name;
            if (rest.size() >= cn.size() && rest.substr(0, cn.size()) == cn &&
                (rest.size() == cn.size() || rest[cn.size()] == '_') &&
                (best == nullptr || cn.size() > best->name.size()))
                best = child.get();
        }
        if (best == nullptr) return std::nullopt;
        node = best;
        append_key_component(out.key, node->index);
        if (!out.xml_path.empty()) out.xml_path.push_back('.');
        out.xml_path += node->name;
        out.at_instance = false;
        rest.remove_prefix(node->name.size());
        if (rest.empty()) break;
        rest.remove_prefix(1);  // "_"
        if (rest.empty() || node->is_leaf()) return std::nullopt;
        if (node->is_collection()) {
            std::size_t end = rest.find('_');
            auto number = parse_instance(rest.substr(0, end));
            if (!number) return std::nullopt;
            append_key_component(out.key, *number);
            out.xml_path += ".{i}";
            out.at_instance = true;
            InstanceRef ref;
            ref.collection = node;
            ref.number = *number;
            ref.name = std::string(name.substr(0, static_cast<std::size_t>(rest.data() - name.data()) +
                                                      (end == std::string_view::npos ? rest.size() : end)));
            ref.key = out.key;
            out.instances.push_back(std::move(ref));
            if (end == std::string_view::npos) break;
            rest.remove_prefix(end + 1);
            if (rest.empty()) return std::nullopt;
        }
    }
    if (out.xml_path.size() > kMaxXmlPathLength) return std::nullopt;
    out.node = node;
    return out;
}

std::optional<int> Schema::type_of_xml_path(std::string_view xml_path) const {
    if (xml_path.empty() || xml_path.size() > kMaxXmlPathLength) return std::nullopt;
    const SchemaNode *node = root_.get();
    bool at_instance = false;
    bool found = quelm::split(xml_path, '.', [&](std::string_view part) {
        if (part == "{i}") {
            if (node == root_.get() || !node->is_collection() || at_instance) return false;
            at_instance = true;
            return true;
        }
        if (node->is_collection() && !at_instance) return false;
        const SchemaNode *next = nullptr;
        for (const auto &child : node->children)
            if (child->name == part) next = child.get();
        if (next == nullptr) return false;
        node = next;
        at_instance = false;
        return true;
    });
    if (!found) return std::nullopt;
    return at_instance ? QM_TYPE_NODE : node->type;
}

std::optional<Resolved> Schema::resolve_as(std::string_view name, bool (Resolved::*kind)() const) const {
    auto target = resolve(name);
    if (target && !((*target).*kind)()) return std::nullopt;
    return target;
}

}  // namespace quelm::platform
