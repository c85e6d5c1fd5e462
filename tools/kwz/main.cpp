// kwz: the command-line face of libVomKwz.  `kwz help` lists the subcommands,
// `kwz help CMD` (or `kwz CMD --help`) shows one with its options.
#include <VomKwz.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "command.h"
#include "kwz_util.h"

namespace kwz::tool {

std::vector<Command>& Commands() {
    static std::vector<Command> commands;
    return commands;
}

const Command* FindCommand(const std::string& name) {
    for (const Command& c : Commands())
        if (name == c.name) return &c;
    return nullptr;
}

}  // namespace kwz::tool

namespace {

using namespace kwz::tool;

constexpr int kHeadWidth = 40;  // longer usages put the summary on the next line

// The overview: the commands by family, in rank order, each with the forms
// of its usage and its summary.
void PrintHelp(FILE* out) {
    std::vector<const Command*> commands;
    for (const Command& c : Commands()) commands.push_back(&c);
    std::stable_sort(commands.begin(), commands.end(), [](const Command* a, const Command* b) {
        return a->rank != b->rank ? a->rank < b->rank : std::strcmp(a->name, b->name) < 0;
    });
    std::fprintf(out, "usage: kwz COMMAND [ARGUMENTS]   (kwz help COMMAND: its options)\n");
    const char* family = "";
    for (const Command* c : commands) {
        if (std::strcmp(family, c->family) != 0) {
            family = c->family;
            std::fprintf(out, "\n%s:\n", family);
        }
        // Every form on a line of its own, the summary beside the last one
        // when there is room, else below it.
        std::string line;
        for (const char* form = c->usage;;) {
            const char* newline = std::strchr(form, '\n');
            if (!line.empty()) std::fprintf(out, "  %s\n", line.c_str());
            line = c->name;
            if (*form) line += " " + std::string(form, newline ? size_t(newline - form) : std::strlen(form));
            if (!newline) break;
            form = newline + 1;
        }
        if (line.size() <= size_t(kHeadWidth))
            std::fprintf(out, "  %-*s  %s\n", kHeadWidth, line.c_str(), c->summary);
        else
            std::fprintf(out, "  %s\n  %-*s  %s\n", line.c_str(), kHeadWidth, "", c->summary);
    }
    std::fprintf(out, "\nexit status: 0 done, 1 failed, 2 wrong command line\n");
}

// Runs one command: parses its arguments, answers --help, maps a usage
// error to 2.
int Run(const Command& command, const std::vector<std::string>& args) {
    SetCurrentCommand(&command);
    try {
        const Call call(command, args);
        if (call.HelpWanted()) {
            PrintCommandHelp(command, stdout);
            return kExitOk;
        }
        return command.run(call);
    } catch (const UsageExit&) {
        return kExitUsage;
    }
}

}  // namespace

KWZ_COMMAND(help, {910, "general", "help", "[COMMAND]", "list the commands, or show one with its options", 0, 1}) {
    if (call.Count() == 0) {
        PrintHelp(stdout);
        return kExitOk;
    }
    const Command* command = FindCommand(call.Arg(0));
    if (!command) UsageError(call.Arg(0), "unknown command");
    PrintCommandHelp(*command, stdout);
    return kExitOk;
}

KWZ_COMMAND(version, {920, "general", "version", "", "print the library version", 0, 0}) {
    (void)call;
    uint64_t major = 0, minor = 0, release = 0, build = 0;
    const char* credits = nullptr;
    KWZGetVersion(&major, &minor, &release, &build, &credits);
    std::printf("libVomKwz_x64 %llu.%llu.%llu (build %llu)\n%s\n", (unsigned long long)major,
                (unsigned long long)minor, (unsigned long long)release, (unsigned long long)build,
                credits ? credits : "");
    return kExitOk;
}

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + std::min(argc, 2), argv + argc);
    const std::string name = argc > 1 ? argv[1] : "";
    if (name == "-h" || name == "--help") return Run(*FindCommand("help"), args);
    if (const Command* command = FindCommand(name)) return Run(*command, args);
    if (name.empty())
        std::fprintf(stderr, "kwz: no command given\n\n");
    else
        std::fprintf(stderr, "kwz: %s: unknown command\n\n", name.c_str());
    PrintHelp(stderr);
    return kExitUsage;
}
