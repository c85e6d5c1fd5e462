// What the scalar object types "IntS", "DblS" and "StrS" share: their tags,
// the setters every result goes through, the promotion tables of their binary
// operators and the one dispatcher that reads them, property selectors, the
// shared script functions "Val" and "Sign", and their registration.
//
// Layout behind the tag (the CVar of kwCalcVar.h):
//
//   IntS  | int64 value    | count = Sign | ref unused   | spare unused |
//   DblS  | double value   | count = Sign | ref unused   | spare unused |
//   StrS  | text (CStr)    | count = len  | ref = CStr's | spare = Sign |
#pragma once

#include <VomKwz.h>

#include <cstdint>
#include <initializer_list>

#include "calc/kwCalcVar.h"

namespace kwz::calc {

// The tags the types are registered under; 0 while unregistered.  Operations
// compare tags against these, never against fixed numbers: hosts choose them.
extern int32_t IntSTypeNum;
extern int32_t DblSTypeNum;
extern int32_t StrSTypeNum;

// --- setters ---------------------------------------------------------------

// Empties the value and makes IntS(i, sign).  The integer is 32 bits wide and
// sign-extended into the payload: every result made here is narrowed, which
// scripts depend on.
void CIntSSet_(CVar* v, int32_t i, int32_t sign);
void CDblSSet_(CVar* v, int32_t sign, double d);
// A StrS of a copy of the bytes; -21 (value empty) when memory runs out.
int32_t CStrSSet_(CVar* v, const char* bytes, int32_t length, int32_t sign);

// --- operand kinds -----------------------------------------------------------

enum Kind : uint8_t { kKEmpty, kKInt, kKDbl, kKStr, kKArr, kKIntS, kKDblS, kKStrS, kKOther, kKinds };
Kind KindOf(const CVar* v);
// The Sign of an S value, 0 for a plain one.
int32_t SignOf(const CVar* v);
const char* TextOf(const CVar* v);  // never null

// --- promotion tables ----------------------------------------------------------

// The binary operators of the three types.  The comparisons are expressed
// through three relations: LE = eq, LNE = !eq, LL = lt, LLE = le,
// LG = !le, LGE = !lt.
enum class Op : uint8_t { kAdd, kSub, kMul, kDiv, kDivI, kMod, kLE, kLNE, kLL, kLLE, kLG, kLGE,
                          kLAnd, kLOr, kBAnd, kBXor, kBOr, kShl, kShr };

// What a cell of a table makes of operands A (left) and B (right).
enum class Out : uint8_t {
    kNotMine,  // neither side is the table's type: 0, A unchanged
    kFail,     // -44
    kIntS,     // IntS of the 64-bit result
    kIntS32,   // IntS through CIntSSet_: the result narrowed to 32 bits
    kIntSTrunc,// IntS through CIntSSet_ of the double result truncated toward zero
    kDblS,     // DblS of the double result
    kInt,      // plain Int (comparisons and logic give 0 or 1)
    kStr,      // plain Str: B's text appended to A's
    kStrS,     // StrS: B's text appended to A's
};
enum class Dom : uint8_t { kNone, kInt, kDbl, kText, kTruth };  // what the operands are taken as
enum class Sg : uint8_t { kNone, kA, kB, kOr };                  // the result's Sign

enum CellFlag : uint8_t {
    kB32 = 1,        // a plain Int B counts with its low 32 bits, sign-extended
    kZeroDiv = 2,    // a zero divisor gives -43
    kSignEq = 4,     // equality also needs equal signs
    kEqBGtA = 8,     // "equality" is B > A (kept as it stands)
    kEqALeB = 16,    // "equality" is A <= B (kept as it stands)
    kOwnedA = 32,    // A must own its text, else -44
};

struct Cell {
    Out out = Out::kFail;
    Dom dom = Dom::kNone;
    Sg sign = Sg::kNone;
    uint8_t flags = 0;
};

// One table per operator family and type: a cell for every pair of kinds.
struct Table {
    Cell cell[kKinds][kKinds];
};
// A row of a table as written in the type's file.
struct Row {
    Kind a, b;
    Cell cell;
};
// Builds a table from rows: pairs not listed give kNotMine when neither side
// is `own`, else kFail.  Constant: the tables exist before any static code
// could call an operator.
constexpr Table MakeTable(Kind own, std::initializer_list<Row> rows) {
    Table t{};
    for (int a = 0; a < kKinds; ++a)
        for (int b = 0; b < kKinds; ++b)
            t.cell[a][b].out = a == own || b == own ? Out::kFail : Out::kNotMine;
    for (const Row& r : rows) t.cell[r.a][r.b] = r.cell;
    return t;
}

// The one dispatcher: applies op to a[0] op a[1] by the table's cell.  The
// result replaces a[0]; a[1] is left for the caller to empty.  On failure
// both are unchanged.
int32_t Dispatch(const Table& table, Op op, CVar* a);

// --- properties ----------------------------------------------------------------

// 1 Val, 2 Sign; 0 unknown (-48); -1 a selector that is neither Int nor Str (-44).
int32_t PropertyOf(const CVar* selector);
extern const char* const kPropNames[2];

// Casts a copy of v to tag; the copy is left in out (0, or the cast's code).
int32_t CastCopy(const CVar* v, int32_t tag, CVar* out);
// A value's Int cast as 64 bits: 0, -44, or -21 when memory runs out.
int32_t IntArg(const CVar* v, int64_t* out);
// A failed cast reported as `code`, except that running out of memory stays -21.
inline int32_t Failed(int32_t status, int32_t code) { return status == kNoMem ? kNoMem : code; }

// [value, sign]: the value moved in, the sign as an Int.
int32_t PairArr(CVar* v, CVar* value, int32_t sign);
// The parts of an [value, sign] array: the first element cast to valueTag, the
// second to Int; missing elements give 0 (an empty value cast).  0, -44, -21.
int32_t ArrToPair(const CVar* arr, int32_t valueTag, CVar* value, int64_t* sign);

// Text of printf for a number ("%lld", "%f"), with " 0x%x" of the sign when
// withSign; into a Str (or StrS with sign when asStrS).
int32_t PrintInto(CVar* v, bool isDbl, int64_t i, double d, int32_t sign, bool withSign, bool asStrS);

// Dbl truncated toward zero into 64 bits (out of range and NaN: INT64_MIN).
int64_t Trunc64(double d);

// --- script functions and registration -----------------------------------------

// Adds "Val" and "Sign" of the type to the calculator when it has no function
// of that name yet: the first type in tag order provides them.
void AddShared(KWCalcDef* calc, KWCalcFn val, KWCalcFn sign);
// The registration of one of the three types (constants "it", "st", "ip", "sp").
KWCalcObjDef* RegisterS(KWCalcObjDef* def, int32_t* tag, int32_t wanted, KWCalcConst* constants);

// The Val and Sign that IntS and DblS share: an IntS gives its Int, a DblS its
// Dbl, either its sign as an Int; anything else -44.
int32_t NumSVal(KWCalcStack* s);
int32_t NumSSign(KWCalcStack* s);

}  // namespace kwz::calc
