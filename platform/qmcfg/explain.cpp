#include <algorithm>
#include <cstdint>
#include <vector>

#include "explain.h"
#include "platform.h"
#include "qm_config.h"
#include "quelm_config_errors.h"
#include "quelm_owned.h"
#include "quelm_text.h"

namespace qmcfg {
namespace {

// Suggestions further than this many edits from the name are no help.
constexpr std::size_t kMaxSuggestionDistance = 3;

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Edits (insert, delete, replace) between a and b, letter case ignored.
std::size_t distance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            std::size_t above = row[j];
            std::size_t replace = diagonal + (lower(a[i - 1]) == lower(b[j - 1]) ? 0 : 1);
            row[j] = std::min({above + 1, row[j - 1] + 1, replace});
            diagonal = above;
        }
    }
    return row[b.size()];
}

// The property of object nearest to the name's last part, or "" when the
// object does not exist or nothing comes near.
std::string nearest_property(std::string_view object, std::string_view property) {
    std::string lines;
    if (quelm::platform::dump_text(object, lines) != QM_ERR_NONE) return {};
    std::string best;
    std::size_t best_distance = kMaxSuggestionDistance + 1;
    quelm::split(lines, '\n', [&](std::string_view line) {
        std::string_view name = line.substr(0, line.find('='));
        if (name.size() <= object.size() + 1 || !name.starts_with(object)) return;
        std::string_view own = name.substr(object.size() + 1);
        if (own.find('_') != std::string_view::npos) return;  // a property further down
        std::size_t d = distance(own, property);
        if (d < best_distance) {
            best_distance = d;
            best = std::string(name);
        }
    });
    return best;
}

std::string unknown(std::string_view name) {
    std::size_t cut = name.rfind('_');
    if (cut == std::string_view::npos) {
        std::string lines;
        bool exists = quelm::platform::dump_text(name, lines) == QM_ERR_NONE;
        return exists ? error_text(QM_ERR_UNKNOWN_OBJECT) : "unknown name: no such object";
    }
    std::string hint = nearest_property(name.substr(0, cut), name.substr(cut + 1));
    if (!hint.empty()) return "unknown name: no such property; did you mean " + hint + "?";
    return error_text(QM_ERR_UNKNOWN_OBJECT);
}

// What the property's type asks for, or "" when its type is unknown or a
// text (whose value is not repeated: it may hold a line break).
std::string_view type_demand(std::string_view name) {
    quelm::MallocString path(QM_DAT_objname2xmlpath(std::string(name).c_str()));
    int32_t type = 0;
    if (!path || QM_XML_gettype(path.get(), &type) != 0) return {};
    switch (type) {
    case 2: return "is not an integer";
    case 3: return "is not an unsigned integer in the property's range";
    case 4: return "is not a boolean (0 or 1)";
    case 5: return "is not an IPv4 address (or empty)";
    default: return {};
    }
}

}  // namespace

// The texts are keyed by number in the shared table; these are the numbers.
static_assert(QM_ERR_UNKNOWN_OBJECT == 2 && QM_ERR_BAD_VALUE == 3 && QM_ERR_STORAGE == 4 && QM_ERR_EXISTS == 5 &&
              QM_ERR_NOT_INSTANCE == 6 && QM_ERR_NOTHING == 7 && QM_ERR_LOCKED == 8 && QM_ERR_NOT_INIT == 9);

const char *error_text(int code) { return quelm::config_error_text(code); }

std::string explain(std::string_view name, int code, std::string_view value) {
    std::string out(name);
    out += ": ";
    if (code == QM_ERR_UNKNOWN_OBJECT) return out + unknown(name);
    if (code == QM_ERR_BAD_VALUE) {
        std::string_view demand = type_demand(name);
        if (!demand.empty()) {
            out += value;
            out += ' ';
            out += demand;
            out += "; the ";
        }
    }
    return out + error_text(code);
}

}  // namespace qmcfg
