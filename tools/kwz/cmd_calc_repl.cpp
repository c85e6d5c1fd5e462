// The interactive face of `kwz calc`: libedit's line editing, a history kept
// in ~/.kwz_calc_history, Tab completion of built-in names and of the
// session's functions and variables, and Ctrl-C stopping a long run.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <editline/readline.h>

#include "kwz_calc.h"

namespace kwz::tool {

namespace {

CalcSession* g_session = nullptr;
// Word breaks: every operator and bracket, but not ':' (":vars") or '_'.
char g_breaks[] = " \t\n\"\\'`@$><=;|&{}()[],+-*/%!~^";

// One candidate per call, as readline's generator protocol asks (state 0
// starts a new word); each is malloc'd for the library to free.
char* NextName(const char* text, int state) {
    static std::vector<std::string> names;
    static size_t next = 0;
    if (state == 0) {
        names = g_session->Names();
        next = 0;
    }
    const size_t n = std::strlen(text);
    while (next < names.size()) {
        const std::string& name = names[next++];
        if (name.compare(0, n, text) == 0) return ::strdup(name.c_str());
    }
    return nullptr;
}

char** Complete(const char* text, int, int) {
    rl_attempted_completion_over = 1;  // no file names
    return rl_completion_matches(text, &NextName);
}

void StopRun(int) { g_session->Stop(); }

std::string HistoryPath() {
    const char* home = std::getenv("HOME");
    return home && *home ? std::string(home) + "/.kwz_calc_history" : std::string();
}

}  // namespace

int RunInteractive(CalcSession& session) {
    g_session = &session;
    rl_readline_name = "kwz";
    rl_attempted_completion_function = &Complete;
    rl_completer_word_break_characters = g_breaks;
    rl_completion_append_character = '\0';  // "sqrt" then "(" typed, no blank between
    const std::string history = HistoryPath();
    stifle_history(1000);
    if (!history.empty()) read_history(history.c_str());
    std::printf("kwz calc: :help lists the commands, :quit or Ctrl-D leaves\n");
    for (;;) {
        char* raw = readline("calc> ");
        if (!raw) break;
        const std::string line = raw;
        std::free(raw);
        if (line.find_first_not_of(" \t") != std::string::npos) add_history(line.c_str());
        // Ctrl-C during a run stops it (-46) instead of ending the tool.
        struct sigaction stop {}, old {};
        stop.sa_handler = &StopRun;
        sigemptyset(&stop.sa_mask);
        sigaction(SIGINT, &stop, &old);
        const CalcSession::Outcome outcome = session.Line(line);
        sigaction(SIGINT, &old, nullptr);
        std::fflush(stdout);
        if (outcome == CalcSession::Outcome::kQuit) break;
    }
    if (!history.empty()) write_history(history.c_str());
    g_session = nullptr;
    return 0;
}

}  // namespace kwz::tool
