// The interpreter's fast paths on numbers: the common cases of loads,
// operators, tests and the math built-ins on Empty, Int and Dbl, with the
// results of the operator module and the value functions (wrapping, NaN and
// zero-divisor rules included); everything else is left to those.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "calc/kwCalcEngine.h"
#include "calc/kwCalcStack.h"
#include "calc/kwCalcVar.h"

namespace kwz::calc {

// An operand of the byte code: little-endian, unaligned.
template <typename T>
T Load(const uint8_t* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Values are written and read here as three 8-byte words (type and the
// payload's low half; its high half and count; ref and spare), always the
// same way: a load that spans pieces written separately waits for them
// (store forwarding fails), and a memset of the packed 24 bytes becomes
// "rep stos", which costs more than the instruction it serves.
inline void PutWords(CVar* v, uint64_t w0, uint64_t w1, uint64_t w2) {
    char* p = reinterpret_cast<char*>(v);
    std::memcpy(p, &w0, 8);
    std::memcpy(p + 8, &w1, 8);
    std::memcpy(p + 16, &w2, 8);
}
inline void Wipe(CVar* v) { PutWords(v, 0, 0, 0); }
inline bool Plain(const CVar* v) { return uint32_t(v->type) <= uint32_t(kDbl); }  // Empty, Int, Dbl
inline bool IsNumber(const CVar* v) { return v->type == kInt || v->type == kDbl; }
inline double NumDbl(const CVar* v) { return v->type == kInt ? double(v->v.i) : v->v.d; }
inline void CopyNum(CVar* d, const CVar* v) {
    const char* p = reinterpret_cast<const char*>(v);
    uint64_t w0, w1, w2;
    std::memcpy(&w0, p, 8);
    std::memcpy(&w1, p + 8, 8);
    std::memcpy(&w2, p + 16, 8);
    PutWords(d, w0, w1, w2);
}
// A number into a slot that holds no block.
inline void PutBits(CVar* v, int32_t type, uint64_t bits) {
    PutWords(v, uint64_t(uint32_t(type)) | (bits << 32), bits >> 32, 0);
}
inline void PutInt(CVar* v, int64_t i) { PutBits(v, kInt, uint64_t(i)); }
inline void PutDbl(CVar* v, double d) {
    uint64_t bits;
    std::memcpy(&bits, &d, 8);
    PutBits(v, kDbl, bits);
}
inline int64_t WrapAdd(int64_t a, int64_t b) { return int64_t(uint64_t(a) + uint64_t(b)); }

// A number in registers: its tag (Int or Dbl) and the payload's 8 bytes.
struct Num {
    int32_t type;
    int64_t bits;
};
inline Num IntNum(int64_t i) { return Num{kInt, i}; }
inline Num DblNum(double d) {
    Num n{kDbl, 0};
    std::memcpy(&n.bits, &d, 8);
    return n;
}
inline Num NumOf(const CVar* v) {
    const char* p = reinterpret_cast<const char*>(v);
    uint64_t w0, w1;
    std::memcpy(&w0, p, 8);
    std::memcpy(&w1, p + 8, 8);
    return Num{int32_t(uint32_t(w0)), int64_t((w0 >> 32) | (w1 << 32))};
}
inline double AsDouble(const Num& n) {
    if (n.type == kInt) return double(n.bits);
    double d;
    std::memcpy(&d, &n.bits, 8);
    return d;
}
// Into a slot that holds no block.
inline void PutNum(CVar* v, const Num& n) { PutBits(v, n.type, uint64_t(n.bits)); }

// Binary operator op on the numbers x, y into *out.  False for what the
// module decides: other types, zero divisors, "\" and "%" with a Dbl side.
inline bool Compute(uint8_t op, Num x, Num y, Num* out) {
    if (x.type == kInt && y.type == kInt) {
        const int64_t a = x.bits, b = y.bits;
        // The commonest in loops first, without the table jump.
        if (op == 49) {
            *out = IntNum(WrapAdd(a, b));
            return true;
        }
        if (op == 67) {
            *out = IntNum(a < b);
            return true;
        }
        int64_t r;
        switch (op) {
        case 49: r = WrapAdd(a, b); break;
        case 50: r = int64_t(uint64_t(a) - uint64_t(b)); break;
        case 51: r = int64_t(uint64_t(a) * uint64_t(b)); break;
        case 52:
            if (b == 0) return false;
            *out = DblNum(double(a) / double(b));
            return true;
        case 53:
            if (b == 0) return false;
            r = b == -1 ? int64_t(0 - uint64_t(a)) : a / b;  // INT64_MIN \ -1 wraps
            break;
        case 54:
            if (b == 0) return false;
            r = b == -1 ? 0 : a % b;
            break;
        case 65: r = a == b; break;
        case 66: r = a != b; break;
        case 67: r = a < b; break;
        case 68: r = a <= b; break;
        case 69: r = a > b; break;
        case 70: r = a >= b; break;
        default: return false;
        }
        *out = IntNum(r);
        return true;
    }
    if ((x.type != kInt && x.type != kDbl) || (y.type != kInt && y.type != kDbl)) return false;
    const double a = AsDouble(x), b = AsDouble(y);
    switch (op) {
    case 49: *out = DblNum(AddDbl(a, b)); break;
    case 50: *out = DblNum(a - b); break;
    case 51: *out = DblNum(MulDbl(a, b)); break;
    case 52:
        if (b == 0) return false;
        *out = DblNum(a / b);
        break;
    // IEEE comparisons are the module's rules: NaN is unordered, != true.
    case 65: *out = IntNum(a == b); break;
    case 66: *out = IntNum(a != b); break;
    case 67: *out = IntNum(a < b); break;
    case 68: *out = IntNum(a <= b); break;
    case 69: *out = IntNum(a > b); break;
    case 70: *out = IntNum(a >= b); break;
    default: return false;
    }
    return true;
}

// The same on values: the result goes to out (which holds no block; it may
// be x).
inline bool FastCompute(uint8_t op, const CVar* x, const CVar* y, CVar* out) {
    Num r;
    if (!Compute(op, NumOf(x), NumOf(y), &r)) return false;
    PutNum(out, r);
    return true;
}

// The same on the top two values: the result replaces x[0], x[1] is emptied.
inline bool FastBinary(uint8_t op, CVar* x) {
    if (!FastCompute(op, x, x + 1, x)) return false;
    Wipe(x + 1);
    return true;
}

// The truth of an Empty, Int or Dbl (a Dbl truncated to Int, NaN and out of
// range counting as INT64_MIN, so true).
inline bool PlainTruth(const CVar* v) {
    if (v->type == kInt) return v->v.i != 0;
    if (v->type == kDbl) return !(v->v.d > -1.0 && v->v.d < 1.0);
    return false;
}

// The one-argument math built-ins (sin .. sqrt but ldexp) on a number.
inline bool FastMath(uint8_t op, CVar* a) {
    if (!IsNumber(a)) return false;
    double r;
    if (!MathOne(op, NumDbl(a), r)) return false;
    PutDbl(a, r);
    return true;
}

// For a run without memory rule: runs the instructions from *pc that touch
// only numbers (loads, stores, literals, drops, jumps, tests, operators,
// math; fused where a loop statement allows) and the calls of entry's
// externals, counting each in s->steps under a budget (maxSteps > 0).  Stops
// at the first instruction it leaves to the full interpreter (one it does
// not run, or one beyond the budget), with *pc and *sp there, or at a call
// that failed, with *pc at it and *status its code (the top then no lower
// than floor).  False when the stop bit was found set at a jump or after a
// call.
bool FastRun(const uint8_t* code, size_t* pc, CVar* frame, CVar** sp, CVar* limit, KWCalcStack* s,
             KWCalcNameDef* entry, int32_t floor, int64_t maxSteps, int32_t* status);

}  // namespace kwz::calc
