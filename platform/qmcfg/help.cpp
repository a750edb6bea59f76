#include <cstdio>

#include "help.h"

namespace qmcfg {
namespace {

struct Command {
    std::string_view name;
    std::string_view synopsis;  // one line of the overview
    std::string_view details;   // what "help NAME" adds
};

// Every name may be written as one word (Device_Hostname) or as its parts
// (Device Hostname); the examples use both.
constexpr Command kCommands[] = {
    {"init", "init                       set up the root named by QUELM_ROOT (keeps existing values)",
     "Creates the directories of the root, installs the schema and the factory\n"
     "defaults, and creates the data model from them the first time.\n"},
    {"get", "get NAME                   print a value: get Device Hostname, get Device_Hostname", ""},
    {"set", "set NAME VALUE             change a value and save it: set Device Hostname mybox",
     "Prints whether the change was committed (saved) or, with -n, only made\n"
     "in the running configuration.\n"},
    {"type", "type NAME                  print the schema type code of an object or property",
     "Codes: 1 text, 2 integer, 3 unsigned, 4 boolean (0 or 1), 5 IPv4 address,\n"
     "14 secret sent encrypted by pages, 28 secret, 31 object, 32 Array, 33 List.\n"},
    {"count", "count OBJECT               print the instances of a List (\"1,3\"), the count of an Array", ""},
    {"create", "create INSTANCE            create an instance: create User_4 or create User 4", ""},
    {"delete", "delete INSTANCE            delete an instance and everything below it", ""},
    {"reset", "reset OBJECT [1]           put back factory values (1: also below the object)", ""},
    {"dump", "dump [OBJECT]              print Name=Value lines", ""},
    {"load", "load FILE                  apply Name=Value lines (\"-\": standard input), all or nothing",
     "On an error nothing is changed and the first bad line is named.\n"},
    {"changes", "changes                    list what the running configuration changed since the last commit",
     "One line each: Name=Value (new or changed), -Name (gone since the commit).\n"},
    {"commit", "commit                     save the running configuration", ""},
    {"revert", "revert                     put the saved configuration back into the running one", ""},
    {"factory", "factory                    restore the factory defaults (running and saved)", ""},
    {"help", "help [COMMAND]             this overview, or what one command does", ""},
};

constexpr std::string_view kHead = "usage: qmcfg [-n] [--system] COMMAND [ARGUMENTS]\n";
constexpr std::string_view kTail =
    "  -n         leave changes in the running configuration without saving them\n"
    "  --system   allow changes to the real /var/quelm when QUELM_ROOT is not set\n"
    "The gateway root is $QUELM_ROOT (make run: ./run/root). Exit status: 0 done,\n"
    "1 failed (the message says why), 2 usage.\n";

void put(std::string_view text, std::FILE *out) { std::fwrite(text.data(), 1, text.size(), out); }

}  // namespace

void print_usage(std::FILE *out) {
    put(kHead, out);
    for (const Command &c : kCommands) {
        put("  ", out);
        put(c.synopsis, out);
        put("\n", out);
    }
    put(kTail, out);
}

bool print_command_help(std::string_view command) {
    for (const Command &c : kCommands) {
        if (c.name != command) continue;
        // The overview's line is "USAGE   WHAT": the two go on lines of their own.
        std::size_t gap = c.synopsis.find("  ");
        std::size_t what = c.synopsis.find_first_not_of(' ', gap);
        put("usage: qmcfg [-n] [--system] ", stdout);
        put(c.synopsis.substr(0, gap), stdout);
        put("\n", stdout);
        put(c.synopsis.substr(what), stdout);
        put("\n", stdout);
        put(c.details, stdout);
        return true;
    }
    return false;
}

bool is_command(std::string_view name) {
    for (const Command &c : kCommands) {
        if (c.name == name) return true;
    }
    return false;
}

}  // namespace qmcfg
