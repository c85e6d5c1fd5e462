// The calculator: its name table of callable entries, calls between them,
// the interpreter of compiled code, the operators and the built-in functions.
#pragma once

#include <VomKwz.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "calc/kwCalcStack.h"

namespace kwz::calc {
struct FastCode;
}

struct KWCalcNameDef {
    std::string name;
    int32_t argc = 0;
    KWCalcFn fn = nullptr;
    void* data = nullptr;        // a compiled function: its KWFunDef, owned here
    bool hook = false;           // calls go through the calculator's call hook
    bool compiled = false;       // fn is KWFunProc and data is ours to free
    KWCalcDef* calculator = nullptr;
    std::vector<KWCalcNameDef*> callers;   // compiled functions that call this one
    std::vector<KWCalcNameDef*> externals; // compiled: the entry of each external index
    // compiled: the code pre-decoded for the fast loop (kwCalcFastCode.h), or null
    std::shared_ptr<const kwz::calc::FastCode> fast;
};

struct KWCalcDef {
    std::vector<std::unique_ptr<KWCalcNameDef>> names;
    int32_t hostCount = 0;
    KWCalcFn defaultHandler = nullptr;
    KWCalcFn callHook = nullptr;  // empty after creation; KWCalcSetCallHook sets it
    void* hostData = nullptr;
    int64_t maxSteps = 0;         // 0: none
    int64_t maxMemory = 0;        // 0: none
    int32_t maxDepth = 0;         // 0: the default
    KWCalcConst* constants = nullptr;  // the host's table for KWCalcFunAddI/Formula, not owned
};

namespace kwz::calc {

constexpr int32_t kAbort = -40;
constexpr int32_t kNoMemRun = -41;
constexpr int32_t kArgCount = -22;
constexpr int32_t kNotCallable = -26;
constexpr int32_t kHasFunction = -27;
constexpr int32_t kDivZero = -43;
constexpr int32_t kStopped = -46;
constexpr int32_t kStepLimit = -50;
constexpr int32_t kMemLimit = -51;
constexpr int32_t kDepthLimit = -52;
constexpr int32_t kHostThrew = -53;
constexpr uint32_t kStopBit = 0x20;
constexpr uint32_t kDebugRunning = 0x4000;
// Nested calls a run may make when the calculator sets no depth.  One level
// of script call costs the interpreter well under 1 KiB of C stack; 200
// levels stay far inside a 1 MiB thread stack even with host frames between.
constexpr int32_t kDefaultDepth = 200;

// Budget failures end the whole run: try does not catch them.
inline bool IsBudget(int32_t status) {
    return status == kStepLimit || status == kMemLimit || status == kDepthLimit;
}

// --- calculator and name table (kwCalcDef.cpp) ------------------------------
std::unique_ptr<KWCalcDef> CalcCreate(KWCalcFn defaultHandler, void* hostData);  // bad_alloc escapes
void CalcDestroy(KWCalcDef* calculator);
KWCalcNameDef* NameFind(KWCalcDef* calc, const char* name, int32_t* index);
int32_t FunAdd(KWCalcDef* calc, const char* name, int32_t argc, KWCalcFn fn, void* data,
               KWCalcNameDef** entry);
int32_t FunAddI(KWCalcDef* calc, const char* text, KWCalcNameDef** entry, int32_t debug);
int32_t FunLink(KWCalcNameDef* entry, const char* name, int32_t argc, KWCalcNameDef** callee);
int32_t FunDel(KWCalcDef* calc, const char* name);

// --- calls and the interpreter (kwCalcRun.cpp) -------------------------------
// Calls entry with its arguments in the top `nargs` slots (at least 1: a
// call without arguments has one empty value there).  On success the
// result is the one value left in their place; on failure they are gone.
int32_t CallEntry(KWCalcStack* s, KWCalcNameDef* entry, int32_t nargs);
int32_t FunProc(KWCalcStack* s);
// Calls the stack's current entry with its arguments on the top, as the
// host's KWCalcFun0 does.
int32_t HostCall(KWCalcStack* s);
// KWCalcFormula without the C edge (kwCalcFormula.cpp).
int32_t Formula(const char* text, CVar* result, KWCalcDef* calc, int32_t debug);

// --- operators (kwCalcArith.cpp) ---------------------------------------------
// Applies operator `op` (49..90) to the value(s) at `a` (a[1] is the right
// operand of a binary one); the result replaces a[0], a[1] is emptied.
int32_t Operate(int32_t op, CVar* a);
// Dbl "+" and "*" for every path that computes them (the operators, the
// fast loops, the plans, the scalar object types), so that a NaN comes out
// the same everywhere: with two NaN operands, the left one's NaN, quieted.
// The compiler may swap the operands of x + y, and SSE returns the first
// source's NaN, so on x86-64 the instruction is written out with x first:
// no cost beyond the operation.  Elsewhere: the result, then one branch
// taken only on an unordered result.
inline double NanOfLeft(double x, double r) {
    if (x != x) {
        uint64_t b;
        std::memcpy(&b, &x, 8);
        b |= uint64_t(1) << 51;  // the quiet bit; sign and payload stay
        std::memcpy(&r, &b, 8);
    }
    return r;
}
#if defined(__x86_64__) && defined(__AVX__)
inline double AddDbl(double x, double y) {
    double r;
    asm("vaddsd %2, %1, %0" : "=x"(r) : "x"(x), "xm"(y));
    return r;
}
inline double MulDbl(double x, double y) {
    double r;
    asm("vmulsd %2, %1, %0" : "=x"(r) : "x"(x), "xm"(y));
    return r;
}
#elif defined(__x86_64__) && defined(__SSE2__)
inline double AddDbl(double x, double y) {
    asm("addsd %1, %0" : "+x"(x) : "xm"(y));
    return x;
}
inline double MulDbl(double x, double y) {
    asm("mulsd %1, %0" : "+x"(x) : "xm"(y));
    return x;
}
#else
inline double AddDbl(double x, double y) {
    const double r = x + y;
    return __builtin_expect(r != r, 0) ? NanOfLeft(x, r) : r;
}
inline double MulDbl(double x, double y) {
    const double r = x * y;
    return __builtin_expect(r != r, 0) ? NanOfLeft(x, r) : r;
}
#endif
bool IsUnary(int32_t op);
// The truth of a value for jumps and "!": Int cast non-zero.
int32_t Truth(const CVar* v, bool* out);

// --- built-in functions (kwCalcBuiltin.cpp) ----------------------------------
// Runs built-in `code` on the stack's top values; `floor` is the lowest slot
// it may consume (ldexp reads one more than its declared argument).
int32_t Builtin(KWCalcStack* s, int32_t code, int32_t floor);
// round(x, n): x rounded to n decimal digits (n < 0: to tens, hundreds, ...).
double RoundDigits(double x, int64_t n);

// The one-argument math built-ins (codes 113..123 but ldexp, 120): r is
// op(x); false for any other code.
inline bool MathOne(uint8_t op, double x, double& r) {
    switch (op) {
    case 113: r = std::sin(x); return true;
    case 114: r = std::cos(x); return true;
    case 115: r = std::tan(x); return true;
    case 116: r = std::asin(x); return true;
    case 117: r = std::acos(x); return true;
    case 118: r = std::atan(x); return true;
    case 119: r = std::exp(x); return true;
    case 121: r = std::log(x); return true;
    case 122: r = std::log10(x); return true;
    case 123: r = std::sqrt(x); return true;
    default: return false;
    }
}
// The time built-ins 161..175 on their arguments a[0..] (kwCalcTime.cpp).
int32_t TimeBuiltin(int32_t code, CVar* a);
// printf(a[0] format, a[1] values) and scanf(a[0] text, a[1] format) (kwCalcFormat.cpp).
int32_t Printf(CVar* a);
int32_t Scanf(CVar* a);

}  // namespace kwz::calc
