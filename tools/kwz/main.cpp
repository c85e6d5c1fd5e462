// kwz: the command-line face of libVomKwz.  `kwz help` lists the subcommands.
#include <VomKwz.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "command.h"

namespace kwz {

std::vector<Command>& Commands() {
    static std::vector<Command> commands;
    return commands;
}

std::vector<DemoStep>& DemoSteps() {
    static std::vector<DemoStep> steps;
    return steps;
}

}  // namespace kwz

namespace {

void PrintHelp(FILE* out) {
    auto commands = kwz::Commands();
    std::sort(commands.begin(), commands.end(),
              [](const kwz::Command& a, const kwz::Command& b) { return std::strcmp(a.name, b.name) < 0; });
    std::fprintf(out, "usage: kwz <command> [arguments]\n\ncommands:\n");
    for (const auto& c : commands) {
        std::string head = std::string(c.name) + (c.usage[0] ? " " : "") + c.usage;
        if (head.size() <= 44) {
            std::fprintf(out, "  %-44s %s\n", head.c_str(), c.summary);
        } else {
            std::fprintf(out, "  %s\n  %-44s %s\n", head.c_str(), "", c.summary);
        }
    }
}

}  // namespace

KWZ_COMMAND(help, "help", "", "list the commands") {
    (void)args;
    PrintHelp(stdout);
    return 0;
}

KWZ_COMMAND(version, "version", "", "print the library version") {
    (void)args;
    uint64_t major = 0, minor = 0, release = 0, build = 0;
    const char* credits = nullptr;
    KWZGetVersion(&major, &minor, &release, &build, &credits);
    std::printf("libVomKwz_x64 %llu.%llu.%llu (build %llu)\n%s\n", (unsigned long long)major,
                (unsigned long long)minor, (unsigned long long)release, (unsigned long long)build,
                credits ? credits : "");
    return 0;
}

KWZ_COMMAND(demo, "demo", "", "run the end-to-end showcase") {
    (void)args;
    auto steps = kwz::DemoSteps();
    std::sort(steps.begin(), steps.end(),
              [](const kwz::DemoStep& a, const kwz::DemoStep& b) { return a.order < b.order; });
    for (const auto& step : steps) {
        std::printf("== %s ==\n", step.title);
        if (int rc = step.run(); rc != 0) {
            std::fprintf(stderr, "demo step \"%s\" failed (%d)\n", step.title, rc);
            return 1;
        }
        std::printf("\n");
    }
    std::printf("demo finished: %zu steps\n", steps.size());
    return 0;
}

int main(int argc, char** argv) {
    if (argc < 2) {
        PrintHelp(stderr);
        return 2;
    }
    std::vector<std::string> args(argv + 2, argv + argc);
    for (const auto& c : kwz::Commands()) {
        if (std::strcmp(c.name, argv[1]) == 0) return c.run(args);
    }
    std::fprintf(stderr, "kwz: unknown command \"%s\"\n\n", argv[1]);
    PrintHelp(stderr);
    return 2;
}
