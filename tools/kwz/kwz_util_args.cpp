// Messages, the argument parser, command help and the number parser.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "kwz_util.h"

namespace kwz::tool {

namespace {

const Command* g_current = nullptr;

std::string Prefix() { return std::string("kwz ") + (g_current ? g_current->name : "") + ": "; }

// The forms of a usage text, one per line.
std::vector<std::string> Forms(const char* usage) {
    std::vector<std::string> forms;
    const char* p = usage;
    for (;;) {
        const char* end = std::strchr(p, '\n');
        forms.emplace_back(p, end ? size_t(end - p) : std::strlen(p));
        if (!end) return forms;
        p = end + 1;
    }
}

std::string Spelling(const Option& o) {
    std::string s = o.alias ? std::string(o.alias) + ", " + o.name : std::string(o.name);
    if (o.value) s += std::string(" ") + o.value;
    return s;
}

const Option* FindOption(const Command& command, const std::string& name) {
    for (const Option& o : command.options)
        if (name == o.name || (o.alias && name == o.alias)) return &o;
    return nullptr;
}

}  // namespace

void SetCurrentCommand(const Command* command) { g_current = command; }

int Fail(const std::string& what, const std::string& reason) {
    std::fprintf(stderr, "%s%s: %s\n", Prefix().c_str(), what.c_str(), reason.c_str());
    return kExitFailure;
}

void Note(const std::string& what, const std::string& reason) {
    std::fprintf(stderr, "%s%s: note: %s\n", Prefix().c_str(), what.c_str(), reason.c_str());
}

void UsageError(const std::string& what, const std::string& reason) {
    std::fprintf(stderr, "%s%s: %s\n", Prefix().c_str(), what.c_str(), reason.c_str());
    if (g_current) PrintUsage(*g_current, stderr);
    throw UsageExit{};
}

void PrintUsage(const Command& command, FILE* out) {
    const char* lead = "usage:";
    for (const std::string& form : Forms(command.usage)) {
        std::fprintf(out, "%s kwz %s%s%s\n", lead, command.name, form.empty() ? "" : " ", form.c_str());
        lead = "      ";
    }
}

void PrintCommandHelp(const Command& command, FILE* out) {
    PrintUsage(command, out);
    std::fprintf(out, "\n%s\n", command.summary);
    if (!command.options.empty()) {
        size_t width = 0;
        for (const Option& o : command.options) width = std::max(width, Spelling(o).size());
        std::fprintf(out, "\noptions:\n");
        for (const Option& o : command.options)
            std::fprintf(out, "  %-*s  %s\n", int(width), Spelling(o).c_str(), o.help);
    }
    if (command.notes[0]) std::fprintf(out, "\n%s\n", command.notes);
}

// ------------------------------------------------------------ Call

Call::Call(const Command& command, const std::vector<std::string>& args) {
    bool optionsEnd = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (optionsEnd || a.size() < 2 || a[0] != '-') {
            args_.push_back(a);
            continue;
        }
        if (a == "--") {
            optionsEnd = true;
            continue;
        }
        if (a == "-h" || a == "--help") {
            help_ = true;
            continue;
        }
        const size_t eq = a.compare(0, 2, "--") == 0 ? a.find('=') : std::string::npos;
        const std::string name = a.substr(0, eq);
        const Option* o = FindOption(command, name);
        if (!o) UsageError(name, "unknown option");
        Given given{o, ""};
        if (!o->value) {
            if (eq != std::string::npos) UsageError(name, "takes no value");
        } else if (eq != std::string::npos) {
            given.value = a.substr(eq + 1);
        } else if (i + 1 < args.size()) {
            given.value = args[++i];
        } else {
            UsageError(name, std::string("needs a value (") + o->value + ")");
        }
        given_.push_back(given);
    }
    if (help_) return;
    const int n = int(args_.size());
    if (n < command.minArgs)
        UsageError("arguments", std::to_string(command.minArgs) + (command.minArgs == command.maxArgs ? "" : " or more") +
                                    " expected, " + (n ? std::to_string(n) : "none") + " given");
    if (command.maxArgs >= 0 && n > command.maxArgs)
        UsageError(args_[size_t(command.maxArgs)], "unexpected argument");
}

bool Call::Has(const char* option) const {
    for (const Given& g : given_)
        if (std::strcmp(g.option->name, option) == 0) return true;
    return false;
}

std::string Call::Value(const char* option, const std::string& fallback) const {
    std::string value = fallback;
    for (const Given& g : given_)
        if (std::strcmp(g.option->name, option) == 0) value = g.value;
    return value;
}

int64_t Call::Number(const char* option, int64_t lo, int64_t hi, int64_t fallback) const {
    if (!Has(option)) return fallback;
    const std::string text = Value(option);
    int64_t v = 0;
    if (!ParseInt(text, lo, hi, &v))
        UsageError(option, "\"" + text + "\" is not a number in " + std::to_string(lo) + ".." + std::to_string(hi));
    return v;
}

int64_t Call::NumberArg(size_t i, const char* what, int64_t lo, int64_t hi) const {
    int64_t v = 0;
    if (!ParseInt(Arg(i), lo, hi, &v))
        UsageError(what, "\"" + Arg(i) + "\" is not a number in " + std::to_string(lo) + ".." + std::to_string(hi));
    return v;
}

// ------------------------------------------------------------ numbers

bool ParseInt(const std::string& text, int64_t lo, int64_t hi, int64_t* out) {
    const size_t sign = !text.empty() && (text[0] == '-' || text[0] == '+') ? 1 : 0;
    const bool hex = text.compare(sign, 2, "0x") == 0 || text.compare(sign, 2, "0X") == 0;
    const size_t digits = sign + (hex ? 2 : 0);
    if (digits >= text.size()) return false;
    for (size_t i = digits; i < text.size(); ++i)
        if (!(hex ? std::isxdigit(static_cast<unsigned char>(text[i])) : std::isdigit(static_cast<unsigned char>(text[i]))))
            return false;
    errno = 0;
    const long long v = std::strtoll(text.c_str(), nullptr, hex ? 16 : 10);
    if (errno == ERANGE || v < lo || v > hi) return false;
    *out = v;
    return true;
}

bool ParseReal(const std::string& text, double* out) {
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) return false;
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (*end) return false;
    *out = v;
    return true;
}

}  // namespace kwz::tool
