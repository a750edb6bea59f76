// "qmcfg changes": what the running configuration changed since the last
// commit, read straight from the database.
#pragma once

#include <string>

namespace qmcfg {

// Appends "Name=Value\n" for every property that is new or changed in the
// running configuration, "-Name\n" for every property or instance gone from
// it, "+Name\n" for a new instance, in name order. Returns 0, or a QM_ERR_
// number with a message.
int list_changes(std::string &out, std::string &message);

}  // namespace qmcfg
