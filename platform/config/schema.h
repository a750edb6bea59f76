// The object tree of the data model, read from the schema file, and the
// mapping of object names onto it.
//
// Object names are the components of a path joined by "_": "Device_Hostname",
// "Services_IADConfigurator_SessionDelay", "User_3_Username". After a List or
// an Array the next component is an instance number (decimal, 1 upwards, no
// leading zero). A schema component may itself hold "_", so names are
// resolved against the tree (longest matching child first), never by
// splitting.
//
// Schema paths join the same components with "." and write every instance
// number as "{i}": "User.{i}.Username".
//
// Every stored row has a key built from the path: one fixed-width component
// per step (the child's position among its siblings, then the instance
// number after a collection), each followed by "/". Sorting by key gives
// schema order with instances in numeric order, and the rows of an object
// and all its descendants are exactly the keys that start with its key
// ("User_1" never takes in "User_10").
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qm_config.h"

namespace quelm::platform {

constexpr std::size_t kMaxNameLength = 255;          // full object or property name
constexpr std::size_t kMaxXmlPathLength = 511;       // schema path
constexpr std::size_t kMaxComponentNameLength = 63;  // one schema name
constexpr std::size_t kMaxSchemaDepth = 16;
constexpr std::size_t kMaxSchemaNodes = 4096;
constexpr std::size_t kDefaultMaxValueLength = 255;  // text values without "maxlen"
constexpr std::size_t kMaxValueLength = 4095;        // any value, whatever "maxlen" says
constexpr std::uint32_t kMaxInstanceNumber = 99999999;
constexpr std::uint32_t kMaxArrayCount = 64;   // "count" of an Array in the schema
constexpr std::size_t kKeyComponentWidth = 9;  // eight digits and "/"

struct SchemaNode {
    std::string name;
    int type = QM_TYPE_NODE;
    std::string default_value;  // leaves only
    std::size_t max_length = kDefaultMaxValueLength;
    std::optional<long long> min, max;  // int and uint leaves
    std::uint32_t initial_count = 0;    // Arrays: instances made with the parent
    const SchemaNode *parent = nullptr;
    std::uint32_t index = 0;  // position among the parent's children
    std::vector<std::unique_ptr<SchemaNode>> children;

    bool is_leaf() const { return !is_container() && !is_collection(); }
    bool is_container() const { return type == QM_TYPE_NODE; }
    bool is_collection() const { return type == QM_TYPE_ARRAY || type == QM_TYPE_LIST; }
};

// One instance on the way to a name: "User_3" in "User_3_Username".
struct InstanceRef {
    const SchemaNode *collection = nullptr;
    std::uint32_t number = 0;
    std::string name;  // object name of the instance
    std::string key;   // storage key of the instance
};

// What an object or property name designates.
struct Resolved {
    const SchemaNode *node = nullptr;  // last schema node on the path
    bool at_instance = false;          // the name ends with an instance number of node
    std::string name;                  // the name itself
    std::string key;                   // storage key
    std::string xml_path;
    std::vector<InstanceRef> instances;  // instances on the way, outermost first

    // 31 for an instance, else the node's own code.
    int type() const { return at_instance ? QM_TYPE_NODE : node->type; }
    bool is_property() const { return !at_instance && node->is_leaf(); }
    // The List or Array itself, without an instance number.
    bool is_collection() const { return !at_instance && node->is_collection(); }
};

class Schema {
public:
    // Reads and checks the schema file. Returns null and a message on error.
    static std::unique_ptr<Schema> load(const std::string &path, std::string &error);

    std::optional<Resolved> resolve(std::string_view name) const;
    // resolve(), keeping only a name of one kind (&Resolved::is_property,
    // &Resolved::is_collection).
    std::optional<Resolved> resolve_as(std::string_view name, bool (Resolved::*kind)() const) const;
    // Type code of a schema path ("User.{i}.Username"); nullopt if unknown.
    std::optional<int> type_of_xml_path(std::string_view xml_path) const;

    const SchemaNode &root() const { return *root_; }

private:
    std::unique_ptr<SchemaNode> root_;
};

// Storage key helpers.
void append_key_component(std::string &key, std::uint32_t value);
// Joins an object name and a component ("" + "Device" is "Device").
std::string join_name(std::string_view object, std::string_view component);

// 0 when value fits the leaf's type and limits, else QM_ERR_BAD_VALUE. No
// value may hold a line break or exceed kMaxValueLength.
int validate_value(const SchemaNode &leaf, std::string_view value);

}  // namespace quelm::platform
