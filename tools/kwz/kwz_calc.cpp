// Values as text, status messages, compile-error reports and the session
// behind `kwz calc` and `kwz run`.
#include "kwz_calc.h"

#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "kwz_util.h"

namespace kwz::tool {

namespace {

// Arrays deeper than this print as [...]: a script can nest them without
// bound, the printer must not follow.
constexpr int kPrintDepth = 200;
constexpr const char* kLineName = "___line___";
constexpr int32_t kStackSlots = 65536;

const char* const kBuiltins[] = {
    "iif", "abs", "min", "max", "round", "abort", "sin", "cos", "tan", "asin", "acos", "atan",
    "exp", "ldexp", "log", "log10", "sqrt", "pow", "type", "typename", "int", "dbl", "str", "arr",
    "null", "len", "mid", "cmp", "cmpi", "pos", "left", "right", "chr", "ord", "printf", "scanf",
    "posi", "toupper", "tolower", "tmmsec", "tmsec", "tmmin", "tmhour", "tmday", "tmmon", "tmyear",
    "tmwday", "tmyday", "tmisdst", "tmlocal", "tmgm", "tmmake", "tmmakea", "tmstr", "new", "get",
    "put", "call", "try",
};
// Words of the language a variable may not take.
const char* const kReserved[] = {"result", "if", "elseif", "else", "while", "break", "continue",
                                 "exit", "var", "const", "def"};

// The object types every session has, under the tags chosen here (below
// 128, so that their values travel in value images), and the script
// functions their registration gives each new calculator.
struct ObjectType {
    const char* name;
    KWCalcObjDef* (*reg)(int32_t tag, KWCalcConst* constants);
    int32_t tag;
    std::vector<const char*> properties;
    std::vector<const char*> methods;
};
const ObjectType kObjectTypes[] = {
    {"IntS", IntSObjTypeReg, 20, {"Val", "Sign"}, {}},
    {"DblS", DblSObjTypeReg, 21, {"Val", "Sign"}, {}},
    {"StrS", StrSObjTypeReg, 22, {"Val", "Sign"}, {}},
    {"Graph", GraphObjTypeReg, 23,
     {"NodeCount", "Nodes", "HasNode", "LinkCount", "HasLink", "NodeLinkCount", "NodeLinks", "HasGroup",
      "GroupNodes", "GroupHasNode"},
     {"AddNode", "DelNode", "RenameNode", "RenameGroup", "AddLink", "AddLinkFirst", "MoveLinkFirst",
      "DelLink", "GroupAddNode", "GroupDelNode"}},
};
struct TypeFunction {
    const char* name;
    int32_t params;
};
const TypeFunction kTypeFunctions[] = {
    {"IntS", 2}, {"DblS", 2}, {"StrS", 2}, {"Val", 1}, {"Sign", 1},
    {"CGraphNew", 0}, {"CGraphNodeCount", 1}, {"CGraphNodes", 1}, {"CGraphHasNode", 2},
    {"CGraphAddNode", 2}, {"CGraphDelNode", 2}, {"CGraphRenameNode", 3}, {"CGraphRenameGroup", 3},
    {"CGraphLinkCount", 1}, {"CGraphHasLink", 3}, {"CGraphAddLink", 3}, {"CGraphDelLink", 3},
    {"CGraphNodeLinkCount", 2}, {"CGraphNodeLinks", 2}, {"CGraphHasGroup", 2}, {"CGraphGroupNodes", 2},
    {"CGraphGroupHasNode", 3}, {"CGraphGroupAddNode", 3}, {"CGraphGroupDelNode", 3},
    {"CGraphBuildPath", 3}, {"CGraphBuildBord", 4},
};

bool SameName(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

// The argument count of a function the object types give, -1 for none.
int32_t TypeFunctionParams(const std::string& name) {
    for (const TypeFunction& f : kTypeFunctions)
        if (SameName(name, f.name)) return f.params;
    return -1;
}

bool IsReservedOrBuiltin(const std::string& name) {
    for (const char* b : kBuiltins)
        if (SameName(name, b)) return true;
    if (TypeFunctionParams(name) >= 0) return true;
    for (const char* r : kReserved)
        if (SameName(name, r)) return true;
    return false;
}

bool NameStart(char c) { return std::isalpha(static_cast<unsigned char>(c)) || c == '_'; }
bool NamePart(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

std::string Trim(const std::string& s) {
    size_t a = 0, b = s.size();
    while (a < b && std::isspace(static_cast<unsigned char>(s[a]))) ++a;
    while (b > a && std::isspace(static_cast<unsigned char>(s[b - 1]))) --b;
    return s.substr(a, b - a);
}

// Skips a string literal or comment starting at i; returns the index after
// it, or i when there is none there.
size_t SkipLiteral(const std::string& s, size_t i) {
    if (s[i] == '"') {
        for (++i; i < s.size(); ++i) {
            if (s[i] == '\\') ++i;
            else if (s[i] == '"') return i + 1;
        }
        return s.size();
    }
    if (s.compare(i, 2, "//") == 0) {
        const size_t end = s.find('\n', i);
        return end == std::string::npos ? s.size() : end;
    }
    if (s.compare(i, 2, "/*") == 0) {
        const size_t end = s.find("*/", i + 2);
        return end == std::string::npos ? s.size() : end + 2;
    }
    return i;
}

// Names assigned with a plain "=" (not "==") in an expression.
std::vector<std::string> AssignedNames(const std::string& text) {
    std::vector<std::string> names;
    for (size_t i = 0; i < text.size();) {
        if (const size_t after = SkipLiteral(text, i); after != i) {
            i = after;
            continue;
        }
        if (!NameStart(text[i]) || (i > 0 && NamePart(text[i - 1]))) {
            ++i;
            continue;
        }
        size_t end = i;
        while (end < text.size() && NamePart(text[end])) ++end;
        size_t next = end;
        while (next < text.size() && (text[next] == ' ' || text[next] == '\t')) ++next;
        if (next < text.size() && text[next] == '=' && (next + 1 >= text.size() || text[next + 1] != '='))
            names.push_back(text.substr(i, end - i));
        i = end;
    }
    return names;
}

// The end of the function that starts at `from`: just after the "}" that
// closes its body, or the end of the text.
size_t FunctionEnd(const std::string& s, size_t from) {
    int depth = 0;
    for (size_t i = from; i < s.size();) {
        if (const size_t after = SkipLiteral(s, i); after != i) {
            i = after;
            continue;
        }
        if (s[i] == '{') ++depth;
        if (s[i] == '}' && --depth == 0) return i + 1;
        ++i;
    }
    return s.size();
}

// Blanks and comments from i on.
size_t SkipBlanks(const std::string& s, size_t i) {
    while (i < s.size()) {
        if (std::isspace(static_cast<unsigned char>(s[i]))) {
            ++i;
        } else if (const size_t after = SkipLiteral(s, i); after != i && s[i] == '/') {
            i = after;
        } else {
            break;
        }
    }
    return i;
}

std::string DblText(double d) {
    char buf[40];
    for (int digits = 1; digits <= 17; ++digits) {
        std::snprintf(buf, sizeof buf, "%.*g", digits, d);
        if (std::strtod(buf, nullptr) == d) break;
    }
    std::string s = buf;
    if (s.find_first_of(".eEn") == std::string::npos) s += ".0";  // "n": nan, inf
    return s;
}

std::string ObjectText(const CVar& v) {
    CVar tmp;
    CVarInit(&tmp, 1);
    CVarCopy(&tmp, &v);
    std::string name = "tag " + std::to_string(v.type);
    if (CVar_TypeName(&tmp) == 0 && tmp.type == 3 && tmp.v.s) name.assign(tmp.v.s, size_t(tmp.count));
    CVarSetEmpty(&tmp);
    return "<" + name + ">";
}

std::string ValueAt(const CVar& v, bool top, int depth) {
    switch (v.type) {
    case 0: return "null";
    case 1: return std::to_string(static_cast<long long>(v.v.i));
    case 2: return DblText(v.v.d);
    case 3: {
        const char* p = v.v.s ? v.v.s : "";
        return top ? std::string(p, size_t(v.count)) : QuoteText(p, size_t(v.count), SIZE_MAX);
    }
    case 4: {
        if (depth >= kPrintDepth) return "[...]";
        std::string s = "[";
        for (int32_t i = 0; i < v.count; ++i) {
            if (i) s += ", ";
            s += ValueAt(v.v.a[i], false, depth + 1);
        }
        return s + "]";
    }
    default: return ObjectText(v);
    }
}

// Where a failure happened: the innermost compiled function it left and the
// text offset of the statement at fault (-1 unknown), from the error hook.
struct Failure {
    std::string function;
    int64_t statement = -1;
} g_failure;

// The text offset of the statement holding code offset `position`: the last
// debug point ("dbg N @OFFSET" in the listing) at or before it.
int64_t StatementAt(const KWFunDef* f, int32_t position) {
    char* listing = KWFunDisassemble(f);
    if (!listing) return -1;
    int64_t found = -1;
    for (const char* line = listing; *line;) {
        unsigned at = 0, point = 0;
        long long text = 0;
        if (std::sscanf(line, "%x dbg %u @%lld", &at, &point, &text) == 3) {
            if (at > unsigned(position)) break;
            found = text;
        }
        const char* next = std::strchr(line, '\n');
        if (!next) break;
        line = next + 1;
    }
    KWMemFree(listing);
    return found;
}

int32_t NoteFailure(KWCalcStack* stack, int32_t position, int32_t) {
    const auto* f = static_cast<const KWFunDef*>(KWCalcStackData(stack));
    if (!g_failure.function.empty() || !f || !f->name) return 0;
    g_failure.function = f->name;
    g_failure.statement = StatementAt(f, position);
    return 0;
}

}  // namespace

SourcePlace Locate(const std::string& source, size_t offset) {
    SourcePlace w;
    if (offset > source.size()) offset = source.size();
    size_t start = 0;
    for (size_t i = 0; i < offset; ++i) {
        if (source[i] == '\n') {
            w.line++;
            start = i + 1;
        }
    }
    w.column = offset - start + 1;
    size_t end = source.find('\n', start);
    if (end == std::string::npos) end = source.size();
    w.text = source.substr(start, end - start);
    if (!w.text.empty() && w.text.back() == '\r') w.text.pop_back();
    return w;
}

int ReportCompileError(const std::string& label, const std::string& source, size_t offset,
                       const KWFunDef& failed) {
    const size_t at = offset + size_t(failed.externCount < 0 ? 0 : failed.externCount);
    const SourcePlace w = Locate(source, at);
    Fail(label + ":" + std::to_string(w.line) + ":" + std::to_string(w.column),
         StatusMessage(failed.paramCount) + " (code " + std::to_string(failed.paramCount) + ")");
    std::string caret;
    for (size_t i = 0; i + 1 < w.column && i < w.text.size(); ++i) caret += w.text[i] == '\t' ? '\t' : ' ';
    std::fprintf(stderr, "%s\n%s^\n", w.text.c_str(), caret.c_str());
    return kExitFailure;
}

std::string ValueText(const CVar& value, bool top) { return ValueAt(value, top, 0); }

std::string StatusMessage(int32_t status) {
    switch (status) {
    case -1: return "out of memory";
    case -2: return "syntax error";
    case -3: return "bad literal";
    case -4: return "missing \")\"";
    case -5: return "missing \"]\"";
    case -6: return "missing expression";
    case -7: return "wrong argument count";
    case -8: return "duplicate name";
    case -21: return "out of memory";
    case -22: return "the argument count differs from the function's";
    case -26: return "no function to link from";
    case -27: return "the name already has a function";
    case -40: return "aborted by the script";
    case -41: return "out of memory while running";
    case -43: return "division by zero";
    case -44: return "operation not supported for these types";
    case -45: return "unknown function";
    case -46: return "stopped";
    case -47: return "execution stack too small";
    case -48: return "no such property";
    case -49: return "index not an integer or out of range";
    case -50: return "instruction budget exceeded";
    case -51: return "memory budget exceeded";
    case -52: return "too many nested calls";
    case -53: return "a host function failed";
    default: return status < 0 ? "aborted by the script" : "failed";
    }
}

Budget BudgetOf(const Call& call) {
    Budget b;
    b.steps = call.Number("--max-steps", 0, INT64_MAX, kDefaultSteps);
    b.memory = call.Number("--max-memory", 0, INT64_MAX, kDefaultMemory);
    return b;
}

// ------------------------------------------------------------ the session

CalcSession::CalcSession(const Budget& budget) : budget_(budget) {
    // Types first: a calculator gets the functions of the types registered
    // before it is made.
    if (KWCalcConstCreate(&constants_, 64) != 0) {
        Fail("calculator", "out of memory");
        return;
    }
    for (const ObjectType& t : kObjectTypes)
        if (!t.reg(t.tag, constants_)) Fail(t.name, "the type could not be registered");
    if (KWCalcCreate(&calc_, nullptr, nullptr) != 0 || KWCalcSetLimits(calc_, budget.steps, budget.memory, 0) != 0 ||
        KWCalcStackCreate(calc_, &stack_, kStackSlots) != 0) {
        Fail("calculator", "out of memory");
        return;
    }
    // Lines and files see the types' constants (itGraph, spGraph_NodeCount...).
    KWCalcSetConstants(calc_, constants_);
    KWCalcStackSetHooks(stack_, nullptr, &NoteFailure);
}

CalcSession::~CalcSession() {
    for (Variable& v : variables_) CVarSetEmpty(&v.value);
    KWCalcStackFree(stack_);
    KWCalcDestroy(calc_);
    for (const ObjectType& t : kObjectTypes) t.reg(0, nullptr);
    KWCalcConstDestroy(constants_);
}

CalcSession::Function* CalcSession::FindFunction(const std::string& name) {
    for (Function& f : functions_)
        if (SameName(f.name, name)) return &f;
    return nullptr;
}

const CalcSession::Function* CalcSession::FindFunction(const std::string& name) const {
    return const_cast<CalcSession*>(this)->FindFunction(name);
}

std::vector<std::string> CalcSession::Names() const {
    std::vector<std::string> names(std::begin(kBuiltins), std::end(kBuiltins));
    for (const Function& f : functions_) names.push_back(f.name);
    for (const Variable& v : variables_) names.push_back(v.name);
    for (const TypeFunction& f : kTypeFunctions) names.push_back(f.name);
    for (const char* c : {":vars", ":funcs", ":help", ":quit", "def"}) names.push_back(c);
    return names;
}

CalcSession::Outcome CalcSession::Line(const std::string& line) {
    const std::string text = Trim(line);
    if (text.empty() || text.compare(0, 2, "//") == 0) return Outcome::kDone;
    if (text == ":quit" || text == ":q") return Outcome::kQuit;
    if (text == ":vars") {
        ShowVariables();
        return Outcome::kDone;
    }
    if (text == ":funcs") {
        ShowFunctions();
        return Outcome::kDone;
    }
    if (text == ":help types") {
        ShowTypes();
        return Outcome::kDone;
    }
    if (text == ":help") {
        std::printf(
            "EXPR                       evaluate an expression (x = EXPR keeps x for later lines)\n"
            "def NAME(A, B) { BODY }    add a function; Result = ...; gives its value\n"
            ":vars                      the variables and their values\n"
            ":funcs                     the functions of the session\n"
            ":help                      this text\n"
            ":help types                the object types, their functions and constants\n"
            ":quit                      leave (so does end of input)\n"
            "operators: + - * / \\ %% == != < <= > >= && || ! & | ^ ~ << >> [i] (a, b)\n"
            "Tab completes built-in names, functions and variables.\n");
        return Outcome::kDone;
    }
    if (text[0] == ':') {
        Fail(text, "unknown command (:help lists them)");
        return Outcome::kFailed;
    }
    if (text.compare(0, 3, "def") == 0 && text.size() > 3 && std::isspace(static_cast<unsigned char>(text[3])))
    {
        const std::string definition = Trim(text.substr(3));
        return Define(definition, line.rfind(definition));
    }
    return Evaluate(text);
}

// Each type with its tag, then its constants as the registration defined
// them (names the table lacks, such as "spGraph_GroupNodes", are skipped).
void CalcSession::ShowTypes() const {
    for (const ObjectType& t : kObjectTypes) {
        std::printf("%s (tag %d):", t.name, t.tag);
        for (const TypeFunction& f : kTypeFunctions)
            if (std::strncmp(f.name, t.name, std::strlen(t.name)) == 0 ||
                (std::strncmp(f.name, "CGraph", 6) == 0 && std::strcmp(t.name, "Graph") == 0))
                std::printf(" %s/%d", f.name, f.params);
        std::printf("\n");
        std::vector<std::string> names = {std::string("it") + t.name, std::string("st") + t.name};
        for (const char* p : t.properties) {
            names.push_back(std::string("ip") + t.name + "_" + p);
            names.push_back(std::string("sp") + t.name + "_" + p);
        }
        for (const char* m : t.methods) {
            names.push_back(std::string("im") + t.name + "_" + m);
            names.push_back(std::string("sm") + t.name + "_" + m);
            names.push_back(std::string("smXml_") + m);
        }
        for (const std::string& n : names) {
            CVar* value = nullptr;
            if (KWCalcConstGet(constants_, n.c_str(), &value) == 1 && value)
                std::printf("  %-24s %s\n", n.c_str(), ValueText(*value, false).c_str());
        }
    }
    std::printf("Val/1 and Sign/1 read the value and sign of IntS, DblS and StrS.\n"
                "Properties: get(g, 1) or get(g, \"Nodes\"); methods: call(g, 1, id) or call(g, \"AddNode\", id).\n");
}

void CalcSession::ShowVariables() const {
    for (const Variable& v : variables_) std::printf("%s = %s\n", v.name.c_str(), ValueText(v.value, false).c_str());
}

void CalcSession::ShowFunctions() const {
    for (const Function& f : functions_) {
        const size_t brace = f.text.find('{');
        std::printf("%s\n", Trim(f.text.substr(0, brace)).c_str());
    }
}

bool CalcSession::CheckCalls(const KWFunDef& f, const std::string& text) const {
    const auto* ext = static_cast<const KWFunExtern*>(f.externNames);
    for (int32_t i = 0; i < f.externCount; ++i) {
        const std::string name = ext[i].name;
        const Function* callee = FindFunction(name);
        if (callee && callee->params == ext[i].argCount) continue;
        if (!callee && TypeFunctionParams(name) == ext[i].argCount) continue;
        // Point at the first call of the name in the text.
        size_t at = 0;
        for (size_t p = text.find(name); p != std::string::npos; p = text.find(name, p + 1)) {
            if ((p == 0 || !NamePart(text[p - 1])) && !NamePart(text[p + name.size()])) {
                at = p;
                break;
            }
        }
        const int32_t code = callee ? -22 : -45;
        std::string why = callee ? name + " takes " + std::to_string(callee->params) +
                                       (callee->params == 1 ? " argument, not " : " arguments, not ") +
                                       std::to_string(ext[i].argCount)
                                 : "unknown function " + name;
        Fail("error " + std::to_string(code) + " at column " + std::to_string(at + 1), why);
        return false;
    }
    return true;
}

CalcSession::Outcome CalcSession::Define(const std::string& text, size_t column0) {
    KWFunDef* f = nullptr;
    const int32_t rc = KWFunCompile(text.c_str(), &f, 0, constants_);
    if (!f) {
        Fail("def", "out of memory");
        return Outcome::kFailed;
    }
    if (rc != 0) {
        const size_t column = column0 + size_t(f->externCount < 0 ? 0 : f->externCount) + 1;
        Fail("error " + std::to_string(rc) + " at column " + std::to_string(column), StatusMessage(rc));
        KWFunFree(f);
        return Outcome::kFailed;
    }
    Function fn{f->name ? f->name : "", text, f->paramCount, "", 0};
    KWFunFree(f);
    return Install(std::move(fn), "def") ? Outcome::kDone : Outcome::kFailed;
}

bool CalcSession::Install(Function fn, const std::string& label) {
    if (SameName(fn.name, kLineName)) {
        Fail(label, fn.name + ": the session's own name");
        return false;
    }
    for (const Variable& v : variables_)
        if (SameName(v.name, fn.name)) {
            Fail(label, fn.name + ": a variable has that name");
            return false;
        }
    if (Function* old = FindFunction(fn.name)) {
        // Replacing: every session function is added again, so that callers
        // link to the new one (deleting a function unlinks its callers).
        *old = fn;
        for (const Function& f : functions_) KWCalcFunDel(calc_, f.name.c_str());
        std::vector<Function> all;
        all.swap(functions_);
        bool ok = true;
        for (Function& f : all) {
            const int32_t st = KWCalcFunAddI(calc_, f.text.c_str(), nullptr, 0, 1);
            if (st == 0) {
                functions_.push_back(std::move(f));
                continue;
            }
            Fail(label, f.name + ": " + (SameName(f.name, fn.name) ? "" : "dropped: ") + StatusMessage(st) +
                            " (code " + std::to_string(st) + ")");
            ok = false;
        }
        return ok;
    }
    const int32_t st = KWCalcFunAddI(calc_, fn.text.c_str(), nullptr, 0, 1);
    if (st != 0) {
        Fail(label, fn.name + ": " + StatusMessage(st) + " (code " + std::to_string(st) + ")");
        return false;
    }
    functions_.push_back(std::move(fn));
    return true;
}

int32_t CalcSession::CallEntry(KWCalcNameDef* entry, CVar* result) {
    g_failure = Failure{};
    const int32_t st = KWCalcFun1(stack_, entry);
    if (st == 0) KWCalcStackPop(stack_, result);  // the call left its result on the top
    KWCalcStackClear(stack_);
    if (st == 0) return 0;
    std::string where = "error " + std::to_string(st);
    const Function* in = g_failure.function.empty() ? nullptr : FindFunction(g_failure.function);
    if (in) {
        where += " in " + in->name;
        // A script's function: the statement as FILE:LINE:COLUMN before it.
        if (!in->label.empty() && g_failure.statement >= 0) {
            const SourcePlace w = Locate(*source_, in->offset + size_t(g_failure.statement));
            where = in->label + ":" + std::to_string(w.line) + ":" + std::to_string(w.column) + ": " + where;
        }
    }
    std::string why = StatusMessage(st);
    if (st == -50) why += " (--max-steps " + std::to_string(budget_.steps) + ")";
    if (st == -51) why += " (--max-memory " + std::to_string(budget_.memory) + ")";
    Fail(where, why);
    return st;
}

// A line is run as a function whose parameters are the session's variables
// (those the line assigns first included):
//   ___line___(x,y){Result=[(TEXT),x,y];}
// so that the value and the variables' new values come back together.
CalcSession::Outcome CalcSession::Evaluate(const std::string& text) {
    std::vector<std::string> params;
    for (const Variable& v : variables_) params.push_back(v.name);
    const size_t known = params.size();
    for (const std::string& name : AssignedNames(text)) {
        bool have = IsReservedOrBuiltin(name) || FindFunction(name) != nullptr;
        for (const std::string& p : params) have = have || SameName(p, name);
        if (!have) params.push_back(name);
    }
    std::string head = std::string(kLineName) + "(";
    std::string tail = ")";
    for (size_t i = 0; i < params.size(); ++i) {
        head += (i ? "," : "") + params[i];
        tail += "," + params[i];
    }
    head += "){Result=[(";
    const std::string source = head + text + tail + "];}";
    KWFunDef* f = nullptr;
    const int32_t rc = KWFunCompile(source.c_str(), &f, 0, constants_);
    if (!f) {
        Fail("calculator", "out of memory");
        return Outcome::kFailed;
    }
    if (rc != 0) {
        const size_t at = size_t(f->externCount < 0 ? 0 : f->externCount);
        size_t column = at > head.size() ? at - head.size() + 1 : 1;
        if (column > text.size() + 1) column = text.size() + 1;
        Fail("error " + std::to_string(rc) + " at column " + std::to_string(column), StatusMessage(rc));
        KWFunFree(f);
        return Outcome::kFailed;
    }
    const bool callsOk = CheckCalls(*f, text);
    KWFunFree(f);
    if (!callsOk) return Outcome::kFailed;
    KWCalcNameDef* entry = nullptr;
    if (const int32_t st = KWCalcFunAddI(calc_, source.c_str(), &entry, 0, 0); st != 0) {
        Fail("error " + std::to_string(st), StatusMessage(st));
        return Outcome::kFailed;
    }
    for (size_t i = 0; i < params.size(); ++i) {
        CVar* arg = KWCalcStackPush(stack_);
        if (arg && i < known) CVarCopy(arg, &variables_[i].value);
    }
    CVar result{};
    const int32_t st = CallEntry(entry, &result);
    KWCalcFunDel(calc_, kLineName);
    if (st != 0) return Outcome::kFailed;
    if (result.type == 4 && size_t(result.count) == params.size() + 1) {
        for (size_t i = 0; i < params.size(); ++i) {
            if (i >= known) variables_.push_back(Variable{params[i], CVar{}});
            CVarMove(&variables_[i].value, &result.v.a[i + 1]);
        }
        std::printf("%s\n", ValueText(result.v.a[0]).c_str());
    }
    CVarSetEmpty(&result);
    return Outcome::kDone;
}

bool CalcSession::AddSource(const std::string& label, const std::string& source) {
    source_ = &source;  // the caller keeps it for the run
    if (source.find('\0') != std::string::npos) {
        Fail(label, "holds a 0 byte; a script is text");
        return false;
    }
    for (size_t at = SkipBlanks(source, 0); at < source.size(); at = SkipBlanks(source, at)) {
        const size_t end = FunctionEnd(source, at);
        const std::string text = source.substr(at, end - at);
        KWFunDef* f = nullptr;
        const int32_t rc = KWFunCompile(text.c_str(), &f, 0, constants_);
        if (!f) {
            Fail(label, "out of memory");
            return false;
        }
        if (rc != 0) {
            ReportCompileError(label, source, at, *f);
            KWFunFree(f);
            return false;
        }
        Function fn{f->name ? f->name : "", text, f->paramCount, label, at};
        KWFunFree(f);
        const SourcePlace w = Locate(source, at);
        const std::string place = label + ":" + std::to_string(w.line) + ":" + std::to_string(w.column);
        if (FindFunction(fn.name)) {
            Fail(place, fn.name + ": defined twice");
            return false;
        }
        if (!Install(std::move(fn), place)) return false;
        at = end;
    }
    // Every name called must be defined in the file, with as many arguments.
    for (const Function& fn : functions_) {
        KWFunDef* f = nullptr;
        if (KWFunCompile(fn.text.c_str(), &f, 0, constants_) != 0) {
            KWFunFree(f);
            continue;  // it compiled before
        }
        const auto* ext = static_cast<const KWFunExtern*>(f->externNames);
        std::string problem;
        for (int32_t i = 0; i < f->externCount && problem.empty(); ++i) {
            const Function* callee = FindFunction(ext[i].name);
            if (!callee && TypeFunctionParams(ext[i].name) == ext[i].argCount) continue;
            if (!callee)
                problem = std::string("calls ") + ext[i].name + ", which the script does not define";
            else if (callee->params != ext[i].argCount)
                problem = std::string("calls ") + ext[i].name + " with " + std::to_string(ext[i].argCount) +
                          " arguments; it takes " + std::to_string(callee->params);
        }
        KWFunFree(f);
        if (!problem.empty()) return Fail(label, fn.name + ": " + problem) == kExitOk;
    }
    return true;
}

int CalcSession::RunMain(const std::vector<std::string>& args) {
    const Function* main = FindFunction("main");
    KWCalcNameDef* entry = main ? KWCalcNameFind(calc_, "main", nullptr) : nullptr;
    if (!entry) return Fail("main", "the script has no function main");
    if (main->params > 1) return Fail("main", "takes one parameter (the arguments) or none");
    if (main->params == 0 && !args.empty()) return Fail("main", "takes no parameter; arguments given");
    if (main->params == 1) {
        CVar* list = KWCalcStackPush(stack_);
        if (!list) return Fail("main", "out of memory");
        CVarSetArr(list, int32_t(args.size()));
        if (list->count != int32_t(args.size())) return Fail("main", "out of memory");
        for (size_t i = 0; i < args.size(); ++i)
            CVarSetStr(&list->v.a[i], args[i].data(), int32_t(args[i].size()));
    }
    CVar result{};
    if (CallEntry(entry, &result) != 0) return kExitFailure;
    if (result.type != 0) std::printf("%s\n", ValueText(result).c_str());
    CVarSetEmpty(&result);
    return kExitOk;
}

}  // namespace kwz::tool
