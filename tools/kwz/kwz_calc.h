// What `kwz compile`, `kwz calc` and `kwz run` share: source positions and
// compile-error reports, values as text, status messages, the budget
// options, and the calculator session that evaluates lines and files.
#pragma once

#include <VomKwz.h>

#include <cstdint>
#include <string>
#include <vector>

#include "command.h"

namespace kwz::tool {

// Line and column (1-based, in bytes) of a byte offset, and the line's text.
struct SourcePlace {
    size_t line = 1, column = 1;
    std::string text;
};
SourcePlace Locate(const std::string& source, size_t offset);

// A failed compilation as "kwz CMD: LABEL:LINE:COLUMN: message (code N)",
// then the source line and a caret under the token at fault; `offset` is
// where the function's text starts in source.  Returns kExitFailure.
int ReportCompileError(const std::string& label, const std::string& source, size_t offset,
                       const KWFunDef& failed);

// A value as text.  At the top a Str is its bytes as they are; inside an
// array it is quoted with C escapes.  Int in decimal, Dbl with the fewest
// digits that read back to it (".0" added when it would look like an Int),
// Empty as null, arrays as [1, 2.5, "x"], an object as <TypeName>.
std::string ValueText(const CVar& value, bool top = true);

// What a calculator status means, in a few words ("division by zero").
std::string StatusMessage(int32_t status);

// --max-steps and --max-memory, on by default.
inline constexpr int64_t kDefaultSteps = 100000000;
inline constexpr int64_t kDefaultMemory = int64_t(256) << 20;
inline constexpr Option kMaxStepsOption{"--max-steps", nullptr, "N",
                                        "stop a run after N instructions (default 100000000; 0: no limit)"};
inline constexpr Option kMaxMemoryOption{"--max-memory", nullptr, "BYTES",
                                         "stop a run holding more than BYTES in texts and arrays "
                                         "(default 268435456; 0: no limit)"};
struct Budget {
    int64_t steps = kDefaultSteps;
    int64_t memory = kDefaultMemory;
};
Budget BudgetOf(const Call& call);

// A calculator with its functions and variables.  Lines are expressions,
// "def NAME(PARAMS) { BODY }" or the commands :vars, :funcs, :help, :help
// types, :quit.  The object types IntS, DblS, StrS and Graph are registered
// for the session's life.
// Results go to standard output, failures to standard error in the tool's
// one style.
class CalcSession {
public:
    enum class Outcome { kDone, kFailed, kQuit };

    explicit CalcSession(const Budget& budget);
    ~CalcSession();
    CalcSession(const CalcSession&) = delete;
    CalcSession& operator=(const CalcSession&) = delete;

    // False when the calculator could not be made (after a message).
    bool Ready() const { return stack_ != nullptr; }
    Outcome Line(const std::string& line);
    // Asks a run in progress to end (-46); safe from a signal handler.
    void Stop() const { KWCalcStackStop(stack_); }
    // Built-in names, the session's functions and variables (completion).
    std::vector<std::string> Names() const;

    // `kwz run`: adds every function of a file; false after the message.
    // source must outlive the session (failures point into it).
    bool AddSource(const std::string& label, const std::string& source);
    // Calls main with the arguments (see `kwz help run`), prints its result.
    int RunMain(const std::vector<std::string>& args);

private:
    struct Function {
        std::string name;
        std::string text;  // the definition as given
        int32_t params = 0;
        std::string label;  // a script's: its file's name, and where text starts there
        size_t offset = 0;
    };
    struct Variable {
        std::string name;
        CVar value{};
    };

    // text is the definition after "def", starting at byte column0 of the line.
    Outcome Define(const std::string& text, size_t column0);
    Outcome Evaluate(const std::string& text);
    void ShowTypes() const;
    void ShowVariables() const;
    void ShowFunctions() const;
    // Adds (or replaces) a function whose text compiles; false after the message.
    bool Install(Function f, const std::string& label);
    // The names a compiled line calls must be session functions with as
    // many arguments; else the message (at the name's column) and false.
    bool CheckCalls(const KWFunDef& f, const std::string& text) const;
    // Calls the entry with the arguments on the stack and moves its result
    // into *result; reports a failure and returns its status.
    int32_t CallEntry(KWCalcNameDef* entry, CVar* result);
    Function* FindFunction(const std::string& name);
    const Function* FindFunction(const std::string& name) const;

    KWCalcConst* constants_ = nullptr;  // the object types' constants
    KWCalcDef* calc_ = nullptr;
    KWCalcStack* stack_ = nullptr;
    Budget budget_;
    std::vector<Function> functions_;
    std::vector<Variable> variables_;
    const std::string* source_ = nullptr;  // the script of AddSource
};

}  // namespace kwz::tool

namespace kwz::tool {

// The interactive calculator (libedit): reads lines with editing, history
// and completion until :quit or end of input.  Exit code: always 0.
int RunInteractive(CalcSession& session);

}  // namespace kwz::tool
