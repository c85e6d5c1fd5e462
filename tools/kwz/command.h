// Subcommand registry of the kwz tool.  Each cmd_*.cpp file registers its
// own family of subcommands; main.cpp itself holds only help and version.
//
//   KWZ_COMMAND(pack, {300, "data", "pack", "FILE [-o OUT] [-f]",
//                      "compress FILE into a .lz2 container", 1, 1,
//                      {kOutOption, kForceOption}}) {
//       ... call.Arg(0), call.Has("--force") ...
//   }
//
// The braces are a kwz::tool::Command without its run function: the rank
// orders `kwz help` (commands of a family share a hundred: records 100,
// transport 200, data 300, general 900; a new family takes a free hundred
// and its own cmd_<family>.cpp), the family titles the group, the
// usage shows the arguments (one line per form), two numbers bound the
// positional arguments (-1: no upper bound), and the options are the only
// ones the command accepts.  The body gets a parsed kwz::tool::Call.
#pragma once

#include <string>
#include <vector>

namespace kwz::tool {

class Call;
using CommandFn = int (*)(const Call& call);

// An option: its name ("--out"), an optional second spelling ("-o"), the
// name of its value (nullptr for a flag) and a line of help.
struct Option {
    const char* name;
    const char* alias;
    const char* value;
    const char* help;
};

struct Command {
    int rank;
    const char* family;
    const char* name;
    const char* usage;    // after "kwz NAME"; '\n' separates the forms
    const char* summary;  // one line
    int minArgs = 0;
    int maxArgs = -1;
    std::vector<Option> options = {};
    const char* notes = "";  // more text for `kwz help NAME`
    CommandFn run = nullptr;
};

std::vector<Command>& Commands();
// The command called name, or nullptr.
const Command* FindCommand(const std::string& name);

struct CommandRegistrar {
    CommandRegistrar(CommandFn run, Command command) {
        command.run = run;
        Commands().push_back(std::move(command));
    }
};

// Options that several commands share, spelled the same everywhere.
inline constexpr Option kOutOption{"--out", "-o", "OUT", "write the output to OUT"};
inline constexpr Option kForceOption{"--force", "-f", nullptr, "write over an existing output file"};

}  // namespace kwz::tool

#define KWZ_COMMAND(ident, ...)                                                     \
    static int kwz_cmd_##ident(const ::kwz::tool::Call& call);                      \
    static const ::kwz::tool::CommandRegistrar kwz_reg_cmd_##ident(                 \
        &kwz_cmd_##ident, ::kwz::tool::Command __VA_ARGS__);                        \
    static int kwz_cmd_##ident(const ::kwz::tool::Call& call)
