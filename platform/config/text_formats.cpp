#include "text_formats.h"

#include <charconv>

#include "quelm_chars.h"
#include "quelm_text.h"

namespace quelm::platform {
namespace {

bool is_field_char(char c) { return is_ascii_alnum(c) || c == '_' || c == '-'; }

// Leading decimal of a text (optional sign), 0 when there is none: the
// comparison of the path language reads numbers the same way.
long long leading_number(std::string_view text) {
    long long value = 0;
    const char *first = text.data();
    if (!text.empty() && text[0] == '+') ++first;
    auto [ptr, ec] = std::from_chars(first, text.data() + text.size(), value);
    (void)ptr;
    return ec == std::errc() ? value : 0;
}

std::optional<WhereOp> parse_op(std::string_view op) {
    if (op == "=") return WhereOp::Equal;
    if (op == "!=") return WhereOp::NotEqual;
    if (op == "<") return WhereOp::Less;
    if (op == "<=") return WhereOp::LessEqual;
    if (op == ">") return WhereOp::Greater;
    if (op == ">=") return WhereOp::GreaterEqual;
    if (op == "?=") return WhereOp::InList;
    return std::nullopt;
}

}  // namespace

std::optional<std::vector<Assignment>> parse_assignments(std::string_view text, std::string &error) {
    std::vector<Assignment> out;
    std::size_t line_number = 0;
    bool parsed = quelm::split(text, '\n', [&](std::string_view line) {
        ++line_number;
        if (line.size() > kMaxAssignmentLine) {
            error = "line " + std::to_string(line_number) + ": too long";
            return false;
        }
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (line.empty() || line[0] == '#') return true;
        std::size_t eq = line.find('=');
        if (eq == std::string_view::npos || eq == 0) {
            error = "line " + std::to_string(line_number) + ": expected Name=Value";
            return false;
        }
        out.push_back({std::string(line.substr(0, eq)), std::string(line.substr(eq + 1)), line_number});
        return true;
    });
    if (!parsed) return std::nullopt;
    return out;
}

std::optional<std::vector<WhereClause>> parse_where_clauses(std::string_view text) {
    std::vector<WhereClause> out;
    while (!text.empty()) {
        if (text[0] != '[' || out.size() == kMaxWhereClauses) return std::nullopt;
        std::size_t close = text.find(']');
        if (close == std::string_view::npos) return std::nullopt;
        std::string_view body = text.substr(1, close - 1);
        text.remove_prefix(close + 1);

        std::size_t field_end = 0;
        while (field_end < body.size() && is_field_char(body[field_end])) ++field_end;
        std::size_t op_end = field_end;
        while (op_end < body.size() && std::string_view("<>!=?").find(body[op_end]) != std::string_view::npos) ++op_end;
        auto op = parse_op(body.substr(field_end, op_end - field_end));
        if (field_end == 0 || !op) return std::nullopt;
        out.push_back({std::string(body.substr(0, field_end)), *op, std::string(body.substr(op_end))});
    }
    return out;
}

bool where_holds(const WhereClause &clause, const std::string *value) {
    if (value == nullptr) return false;
    switch (clause.op) {
    case WhereOp::Equal: return *value == clause.value;
    case WhereOp::NotEqual: return *value != clause.value;
    case WhereOp::Less: return leading_number(*value) < leading_number(clause.value);
    case WhereOp::LessEqual: return leading_number(*value) <= leading_number(clause.value);
    case WhereOp::Greater: return leading_number(*value) > leading_number(clause.value);
    case WhereOp::GreaterEqual: return leading_number(*value) >= leading_number(clause.value);
    case WhereOp::InList:
        // split stops (false) at the first item that matches.
        return !quelm::split(*value, ',', [&](std::string_view item) { return item != clause.value; });
    }
    return false;
}

}  // namespace quelm::platform
