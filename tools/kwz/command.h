// Subcommand registry of the kwz tool.  A file adds its subcommands with
//   KWZ_COMMAND(type, "type", "\"DEF\"", "parse a type-definition string") { ... }
// and steps of `kwz demo` with
//   KWZ_DEMO_STEP(10, "record types") { ... }
// Registration runs before main(), so main.cpp knows no command by name.
#pragma once

#include <string>
#include <vector>

namespace kwz {

using CommandFn = int (*)(const std::vector<std::string>& args);

struct Command {
    const char* name;
    const char* usage;    // arguments, shown by `kwz help`
    const char* summary;  // one line
    CommandFn run;
};

struct DemoStep {
    int order;  // steps run in ascending order
    const char* title;
    int (*run)();  // 0 = success
};

std::vector<Command>& Commands();
std::vector<DemoStep>& DemoSteps();

struct CommandRegistrar {
    explicit CommandRegistrar(Command command) { Commands().push_back(command); }
};
struct DemoRegistrar {
    explicit DemoRegistrar(DemoStep step) { DemoSteps().push_back(step); }
};

}  // namespace kwz

#define KWZ_COMMAND(ident, name, usage, summary)                                   \
    static int kwz_cmd_##ident(const std::vector<std::string>& args);             \
    static const ::kwz::CommandRegistrar kwz_reg_cmd_##ident(                      \
        ::kwz::Command{name, usage, summary, &kwz_cmd_##ident});                   \
    static int kwz_cmd_##ident(const std::vector<std::string>& args)

#define KWZ_DEMO_STEP(order, title)                                                \
    static int kwz_demo_##order();                                                 \
    static const ::kwz::DemoRegistrar kwz_reg_demo_##order(                        \
        ::kwz::DemoStep{order, title, &kwz_demo_##order});                         \
    static int kwz_demo_##order()
