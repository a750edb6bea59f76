// qmcfg's usage text and the help of each command.
#pragma once

#include <cstdio>
#include <string_view>

namespace qmcfg {

// The overview of every command, to the given stream.
void print_usage(std::FILE *out);

// "help COMMAND": the command's own text on stdout. False for a name that
// is no command.
bool print_command_help(std::string_view command);

// Whether name is a command qmcfg knows.
bool is_command(std::string_view name);

}  // namespace qmcfg
