// qmcfg's error messages: what is wrong, naming the thing.
#pragma once

#include <string>
#include <string_view>

namespace qmcfg {

// The library's text for a QM_ERR_ code.
const char *error_text(int code);

// Why name (and value, for set) failed with code, as one line without the
// "qmcfg: COMMAND: " prefix: "User_1_Enable: 7 is not a boolean (0 or 1)
// ...", "Device_Nope: unknown name: no such property; did you mean
// Device_Name?". Reads the schema and the running configuration.
std::string explain(std::string_view name, int code, std::string_view value = {});

}  // namespace qmcfg
