// The data-model path language: its pure parsers, and reads of any path
// against the factory model. No read may print a secret, and no filter may
// touch the 1024-entry instance flag table out of its bounds.
//
// Input: one path (a NUL ends it).
#include <cstring>
#include <memory>
#include <string>

#include "datamodel/datamodel_internal.h"
#include "fuzz_support.h"
#include "qm_generic.h"
#include "qm_node.h"
#include "ssi.h"

namespace {

using namespace cgissi::datamodel;

// Secrets set at start; no read may print them.
constexpr const char *kUserSecret = "Fz-user-secret";
constexpr const char *kWifiSecret = "Fz-wifi-secret";
constexpr std::size_t kLongestPath = 2048;

void parse_purely(const std::string &path) {
    instance_numbers(path);
    const ListPath list = split_list_path(path);
    Selector selector;
    parse_selector(list.after, selector);
    WhereClause where;
    if (parse_where(path.c_str(), where)) {
        fuzz::require(where.field.size() < kScanFieldSize && where.value.size() < kScanFieldSize,
                      "a where clause beyond its scan field");
        compare_where(where.op, "1", where.value.c_str());
    }
    Lookup lookup;
    parse_lookup(path.c_str(), lookup);
    IndirectIndex index;
    parse_indirect_index(path, index);
    const std::string checked = rights_path(path);
    fuzz::require(checked.size() <= path.size(), "the rights path grew");
    std::string argument = path;
    CliOptions options;
    strip_cli_options(argument, options);
    replace_last_created(path, 7);
    decimal_value(path.c_str());
}

// The filters over a table of exactly its size: a write past it is an
// overflow ASan reports.
void filter_flags(const std::string &path, unsigned instances) {
    std::unique_ptr<int[]> flags(new int[QM_INDEX_FLAGS_SIZE]());
    const unsigned last = instances % QM_INDEX_FLAGS_SIZE;
    for (unsigned i = 1; i < last; ++i) flags[i] = 1;
    flags[last] = -1;
    compute_generic_list(path.c_str(), flags.get());
}

void read_model(const std::string &path) {
    const std::string out = fuzz::captured([&] {
        SSI_Set_Mode(SSI_MODE_JSON);
        if (qm_node *root = create_tree_full(path.c_str(), nullptr, nullptr)) {
            dump_JSON_tree(root->child, 1);
            free_all_node(root);
        }
        if (char *name = compute_name(path.c_str())) {
            fuzz::require(std::strlen(name) < kComputedNameSize, "a computed name beyond its size");
            std::free(name);
        }
        SSI_Set_Mode(SSI_MODE_PLAIN);
    });
    fuzz::require(out.find(kUserSecret) == std::string::npos && out.find(kWifiSecret) == std::string::npos,
                  "a read printed a secret");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::gateway_root();
    QM_DAT_setobjproperty("User_1", "Password", kUserSecret, 1);
    QM_DAT_setobjproperty("WLANInterface_1_Config", "KeyPassphrase", kWifiSecret, 1);
    QM_LOG_set(1);  // the path messages are formatted too
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size > kLongestPath) return 0;
    const std::string path(fuzz::text_of(data, size).substr(0, fuzz::text_of(data, size).find('\0')));
    parse_purely(path);
    filter_flags(path, size == 0 ? 0 : data[size - 1] * 5u);
    read_model(path);
    return 0;
}
