// Internals of the data-model access shared by its files and its tests:
// the pure parsers of the path language, and the "generic.cgi" request
// context with its field operations.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "datamodel/result_tree.h"
#include "json/json_writer.h"
#include "qm_config.h"
#include "qm_config_records.h"
#include "qm_node.h"
#include "qm_token.h"
#include "quelm_owned.h"

namespace cgissi::datamodel {

// ---- Fixed sizes (bytes including the terminator unless stated) ---------

constexpr std::size_t kScanFieldSize = 129;       // one "%128[" field of a lookup or a where clause
constexpr std::size_t kComputedNameSize = 128;    // compute_name results, object part of a list path
constexpr std::size_t kInstanceNameSize = 256;    // "<object>_<i>" while walking a list
constexpr std::size_t kItemPathSize = 512;        // "<object>_<i><remainder>"
constexpr std::size_t kFilterRestSize = 1025;     // "%1024s" rest of a wildcard filter
constexpr std::size_t kCountTextLimit = 1024;     // longest instance list text accepted
constexpr int kFlagTableSize = 1024;              // index flag table entries
constexpr std::size_t kTokenLineSize = QM_TOKEN_LINE_SIZE;   // a token file line: 400 characters
constexpr std::size_t kMessageSize = 1024;        // one formatted error message
constexpr std::size_t kErrorTextSize = QM_TOKEN_ERROR_TEXT_SIZE;  // accumulated error text (token_context)
constexpr std::size_t kFormTokenSize = QM_TOKEN_FIELD_SIZE;  // the "token" field
constexpr std::size_t kCryptSize = 1024;          // decoded and decrypted secret values
constexpr std::size_t kWritesPropertySize = 256;  // property of one "writes" item

// Schema type codes this module cares about.
constexpr int kTypeSecretEncrypted = 14;
constexpr int kTypeSecret = 28;
constexpr int kTypeArray = 32;
constexpr int kTypeList = 33;

constexpr bool is_secret_type(int type) { return type == kTypeSecretEncrypted || type == kTypeSecret; }

// ---- Instance list text ("1,3,4") ------------------------------------------

// The instance numbers in visiting order. Each step reads one "%d" and moves
// past the next ","; a 0 or an item that does not parse ends the walk, but
// an item that does not parse after a number repeats that number once
// ("1,2," gives 1, 2, 2), as the original list walk did.
std::vector<int> instance_numbers(std::string_view list);

// ---- List paths -------------------------------------------------------------

enum class ListMarker { none, wildcard, set };

struct ListPath {
    ListMarker marker = ListMarker::none;
    std::string object;      // text before the marker (cut to kComputedNameSize - 1)
    std::string_view after;  // text after "_*" or "_{"
};

// Finds the first of "_*" and "_{".
ListPath split_list_path(std::string_view path);

struct Selector {
    std::vector<std::string> wheres;  // contents of the "[...]" clauses, in order
    std::string remainder;            // what follows, with its leading "_"
};

enum class SelectorResult { ok, unknown_selector, bad_wheres };

// Parses the tail after the wildcard filters or the closing "}".
SelectorResult parse_selector(std::string_view tail, Selector &out);

// ---- Where clauses ----------------------------------------------------------

struct WhereClause {
    std::string field, op, value;
};

// "%128[a-zA-Z0-9_-]%15[<>!=?]%128s"; false when fewer than three items.
bool parse_where(const char *clause, WhereClause &out);
// Where_check of a clause parse_where took: 1 when the instance's field
// (read from records) satisfies it, else 0.
int where_check(QM_DAT_record *records, const char *instance_name, const WhereClause &where);

// 1 holds, 0 does not, -1 unknown operator.
int compare_where(std::string_view op, const char *property_value, const char *value);

// ---- Indirect names ---------------------------------------------------------

struct Lookup {
    std::string object;  // trailing "_" dropped
    std::string field, value;
    std::string rest;  // text after "]"
};

// "Obj_[Field=Value]rest"; false when it does not parse.
bool parse_lookup(const char *path, Lookup &out);

// "..._0_..." with the first "_0_" replaced by "_<instance>_"; empty when
// the path holds no "_0_".
std::string replace_last_created(std::string_view path, int instance);

struct IndirectIndex {
    std::string prefix;  // path up to "_["
    std::string object, property;
    std::string rest;  // after "]_"
};

// "Obj_[Other_N_Prop]_rest"; false without "_[", "]_" or a "_" inside.
bool parse_indirect_index(std::string_view path, IndirectIndex &out);

// ---- Access checks -------------------------------------------------------------

// The path with the contents of its "[...]" and "{...}" removed (the
// brackets stay), so that a right named inside a where clause, a lookup or
// an instance set grants nothing. An unclosed bracket drops the rest.
std::string rights_path(std::string_view path);

// Whether this request's token may bring the missing instance named in
// object (its last all-digit component) into being: the token holds a
// create line for its list whose first instance is not above it. True for
// a path that names no instance.
bool may_create_instance(const std::string &object);

// atoi without its undefined overflow: what "%d" reads, 0 when nothing.
int decimal_value(const char *text);

// ---- SSI hook options ---------------------------------------------------------

struct CliOptions {
    bool autolearn = false;
    int shadow = 1;
};

// Strips ":write", ":show" and ":shadow" from the end of argument,
// repeatedly, each only when a character precedes it.
void strip_cli_options(std::string &argument, CliOptions &options);

// ---- "generic.cgi" request context -----------------------------------------

struct GenericRequest {
    // Three C strings of 21 kB in all: only their terminators are set, so a
    // request does not pay for clearing them (every use reads them as strings).
    GenericRequest() { token.message[0] = token.rights[0] = token.error_text[0] = '\0'; }

    token_context token;           // message, token rights, error text
    std::uint32_t error_code = 0;  // latest error, 0 none
    std::string last_written;      // object of the latest accepted write
    json::Writer answer{json::kAnswerLayout};  // the one object answered
    bool modified = false;         // commit at the end
    bool store_only = false;       // passed to QM_DAT_setobjproperty
};

// Formats the message (at most kMessageSize - 1 characters), appends it to
// the error text and sets the code.
void set_cgi_error(GenericRequest &request, std::uint32_t code, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
// Appends text without touching the code (kept below kErrorTextSize).
void append_error_text(GenericRequest &request, std::string_view text);

void read_cgi_value(std::string &value, GenericRequest &request);
void write_cgi_value(std::string &value, GenericRequest &request);
void writes_cgi_value(std::string &value, GenericRequest &request);
void create_cgi_value(std::string &value, GenericRequest &request);
void fct_cgi_value(std::string &value, GenericRequest &request);
void clear_cgi_value(std::string &value, GenericRequest &request);
void delete_cgi_value(std::string &value, GenericRequest &request);
void reset_cgi_value(std::string &value, GenericRequest &request);

// Schema type of a name; false when the schema does not know it.
bool schema_type(const char *name, int &type);
bool is_secret_name(const std::string &name);

// ---- Shared by the front ends ------------------------------------------------

struct TreeDeleter {
    void operator()(qm_node *n) const { free_all_node(n); }
};
using Tree = std::unique_ptr<qm_node, TreeDeleter>;

using Records = quelm::ConfigRecords;

// The result tree of a path of the path language (what create_tree_full
// gives for it with no suffix and no records); false when there is none.
bool read_tree(const std::string &path, ResultTree &tree);

// Prints the children of parent (a tree's root) as a result tree, in one
// write.
void write_tree(const TreeNode *parent, bool shadow);

// True when the token grants path (has_right result 1); names inside
// brackets grant nothing (rights_path).
bool granted(const GenericRequest &request, const std::string &path);

// Ssi as left by a producer, which may have filled all of it.
std::string_view ssi_text();
void clear_ssi();

// Splits "name:arguments" (the arguments null when there is no ":").
struct FunctionCall {
    std::string name;
    std::string arguments;
    bool has_arguments = false;
    const char *argument_ptr() const { return has_arguments ? arguments.c_str() : nullptr; }
};
FunctionCall split_call(std::string_view text);

}  // namespace cgissi::datamodel
