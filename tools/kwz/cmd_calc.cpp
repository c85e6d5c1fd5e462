// kwz calc (one expression, lines from standard input, or the interactive
// calculator of cmd_calc_repl.cpp) and kwz run (a script's main).
#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include "command.h"
#include "kwz_calc.h"
#include "kwz_util.h"

using namespace kwz::tool;

KWZ_COMMAND(calc, {401, "calculator", "calc", "[EXPR]", "evaluate an expression, or calculate interactively", 0, 1,
                   {kMaxStepsOption, kMaxMemoryOption},
                   "Prints the value: numbers as they are (a Dbl always with a point or exponent),\n"
                   "a text bare, an array as [1, 2.5, \"x\", [null]] with its texts quoted.\n"
                   "An error prints kwz calc: error -N at column C: message (compile errors) or\n"
                   "kwz calc: error -N [in FUNCTION]: message (run time); exit 1.\n"
                   "Without EXPR, lines come from standard input, one evaluated after the other\n"
                   "(exit 1 when any failed); on a terminal with line editing, a history kept\n"
                   "in ~/.kwz_calc_history, Tab completion of names, and Ctrl-C stopping a run.\n"
                   "A line is an expression (x = EXPR keeps x for later lines),\n"
                   "def NAME(PARAMS) { BODY } (adds or replaces a function), :vars, :funcs,\n"
                   ":help or :quit."}) {
    CalcSession session(BudgetOf(call));
    if (!session.Ready()) return kExitFailure;
    if (call.Count() == 1) {
        const std::string& text = call.Arg(0);
        if (text.find('\n') != std::string::npos) return Fail("EXPR", "one line expected");
        return session.Line(text) == CalcSession::Outcome::kFailed ? kExitFailure : kExitOk;
    }
    if (::isatty(STDIN_FILENO)) return RunInteractive(session);
    bool failed = false;
    for (std::string line; std::getline(std::cin, line);) {
        const CalcSession::Outcome outcome = session.Line(line);
        std::fflush(stdout);
        if (outcome == CalcSession::Outcome::kQuit) break;
        failed = failed || outcome == CalcSession::Outcome::kFailed;
    }
    return failed ? kExitFailure : kExitOk;
}

KWZ_COMMAND(run, {402, "calculator", "run", "FILE [ARG...]", "run a script's main function", 1, -1,
                  {kMaxStepsOption, kMaxMemoryOption},
                  "FILE (- = standard input) holds calculator functions one after the other;\n"
                  "main is called, with one parameter: the ARGs as an array of texts (a main\n"
                  "without parameters takes no ARG).  Its result is printed as kwz calc prints\n"
                  "values (nothing for null).  Put -- before ARGs that begin with -.\n"
                  "A compile error prints kwz run: FILE:LINE:COLUMN: message; a failing run\n"
                  "kwz run: FILE:LINE:COLUMN: error -N in FUNCTION: message (the statement at\n"
                  "fault), a budget exceeded kwz run: error -N: message; exit 1."}) {
    const std::string file = call.Arg(0);
    std::vector<uint8_t> bytes;
    if (!ReadInput(file, &bytes)) return kExitFailure;
    CalcSession session(BudgetOf(call));
    if (!session.Ready()) return kExitFailure;
    const std::string source(bytes.begin(), bytes.end());
    if (!session.AddSource(InputName(file), source)) return kExitFailure;
    const std::vector<std::string> args(call.Args().begin() + 1, call.Args().end());
    return session.RunMain(args);
}
