// Pure parsers of the platform's small text formats: the "Name=Value" lines
// of the factory defaults and of qmcfg dump/load, and the where clauses of
// a filtered record query ("User_*[Enable=1][Services?=web_admin]").
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quelm::platform {

constexpr std::size_t kMaxAssignmentLine = 8192;
constexpr std::size_t kMaxWhereClauses = 16;

struct Assignment {
    std::string name;
    std::string value;
    std::size_t line = 0;  // 1-based line number, for messages
};

// One "Name=Value" per line; the name ends at the first "=", the value is
// the rest of the line (possibly empty; a final "\r" is dropped). Blank
// lines and lines starting with "#" are skipped. Returns nullopt with a
// message naming the line on a line without "=", with an empty name, or
// longer than kMaxAssignmentLine.
std::optional<std::vector<Assignment>> parse_assignments(std::string_view text, std::string &error);

enum class WhereOp { Equal, NotEqual, Less, LessEqual, Greater, GreaterEqual, InList };

struct WhereClause {
    std::string field;  // property path inside the instance, e.g. "Enable" or "Sub_Name"
    WhereOp op = WhereOp::Equal;
    std::string value;
};

// Parses a run of "[field OP value]" clauses (the whole text must be
// clauses; "" gives none). Fields are letters, digits, "_" and "-"; the
// value runs to the "]". nullopt on any other text or an unknown operator.
std::optional<std::vector<WhereClause>> parse_where_clauses(std::string_view text);

// Whether a clause holds for the property value (null: the property is
// absent, which fails every clause). Ordering operators compare decimal
// integers, taking a text that is not a number as 0; = and != compare
// exact texts; ?= holds when clause.value is one of the ","-separated items
// of the property.
bool where_holds(const WhereClause &clause, const std::string *value);

}  // namespace quelm::platform
