// The instruction table behind FindOp and OpLength.
#include "calc/kwCalcOps.h"

#include <array>
#include <cstring>

#include "calc/kwCalclToken.h"

namespace kwz::calcl {
namespace {

constexpr OpInfo kOps[] = {
    {33, "ldp", Operands::kLocal},    {34, "ldl", Operands::kLocal},
    {35, "nil", Operands::kNone},     {36, "int", Operands::kI64},
    {37, "dbl", Operands::kF64},      {38, "str", Operands::kStr},
    {39, "drop", Operands::kU16},     {49, "add", Operands::kNone},
    {50, "sub", Operands::kNone},     {51, "mul", Operands::kNone},
    {52, "div", Operands::kNone},     {53, "divi", Operands::kNone},
    {54, "mod", Operands::kNone},     {65, "eq", Operands::kNone},
    {66, "ne", Operands::kNone},      {67, "lt", Operands::kNone},
    {68, "le", Operands::kNone},      {69, "gt", Operands::kNone},
    {70, "ge", Operands::kNone},      {81, "neg", Operands::kNone},
    {82, "not", Operands::kNone},     {83, "bnot", Operands::kNone},
    {84, "and", Operands::kNone},     {85, "or", Operands::kNone},
    {86, "band", Operands::kNone},    {87, "bxor", Operands::kNone},
    {88, "bor", Operands::kNone},     {89, "shl", Operands::kNone},
    {90, "shr", Operands::kNone},     {225, "dbg", Operands::kDebug},
    {241, "call", Operands::kU16},    {242, "jmp", Operands::kRel32},
    {243, "andt", Operands::kRel32},  {244, "ort", Operands::kRel32},
    {245, "jf", Operands::kRel32},    {246, "stp", Operands::kLocal},
    {247, "stl", Operands::kLocal},   {248, "idx", Operands::kU16},
    {249, "arr", Operands::kU32},     {250, "try", Operands::kAbs32},
    {251, "endtry", Operands::kNone}, {252, "exit", Operands::kNone},
    {253, "end", Operands::kNone},
};

struct Table {
    std::array<OpInfo, 256> ops{};
    std::array<bool, 256> present{};
    Table() {
        for (const OpInfo& op : kOps) {
            ops[op.code] = op;
            present[op.code] = true;
        }
        // The built-in functions take their names as mnemonics ("try" has
        // its own pair of instructions above).
        for (int code = 97; code <= 180; ++code) {
            if (const Builtin* b = BuiltinByCode(code)) {
                ops[size_t(code)] = {uint8_t(code), b->name, Operands::kNone};
                present[size_t(code)] = true;
            }
        }
    }
};

const Table& TheTable() {
    static const Table table;
    return table;
}

}  // namespace

const OpInfo* FindOp(uint8_t code) {
    const Table& t = TheTable();
    return t.present[code] ? &t.ops[code] : nullptr;
}

size_t OpLength(const uint8_t* p) {
    const OpInfo* op = FindOp(*p);
    if (!op) return 0;
    switch (op->operands) {
    case Operands::kNone: return 1;
    case Operands::kLocal: return 5;
    case Operands::kI64:
    case Operands::kF64: return 9;
    case Operands::kStr: {
        uint16_t n;
        std::memcpy(&n, p + 1, 2);
        return 3 + size_t(n) + 1;
    }
    case Operands::kU16: return 3;
    case Operands::kRel32:
    case Operands::kU32:
    case Operands::kAbs32: return 5;
    case Operands::kDebug: return 7;
    }
    return 0;
}

}  // namespace kwz::calcl
