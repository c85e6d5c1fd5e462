// The byte code of compiled functions, drawn once: every instruction with
// its operands and its effect on the operand stack.  The compiler emits
// from this table, the interpreter and the disassembler decode with it.
// Operands are little-endian and unaligned.
//
//   code  mnemonic   operands                       stack
//   ----  ---------  -----------------------------  ---------------------
//    33   ldp        local u16, index count u16     pops n, pushes 1
//    34   ldl        local u16, index count u16     pops n, pushes 1
//    35   nil        -                              pushes 1 (empty)
//    36   int        i64                            pushes 1
//    37   dbl        f64                            pushes 1
//    38   str        length u16, bytes, 0           pushes 1
//    39   drop       count u16                      c = 0: pops 1; else the top
//                                                   replaces the c values below
//    49..54  add sub mul div divi mod   -           pops 2, pushes 1
//    65..70  eq ne lt le gt ge          -           pops 2, pushes 1
//    81   neg        -                              pops 1, pushes 1
//    82   not, 83 bnot                              pops 1, pushes 1
//    84   and, 85 or (after their tests)            pops 2, pushes 1
//    86..90  band bxor bor shl shr      -           pops 2, pushes 1
//    97..180  built-in functions        -           pops its argument count
//                                                   (1 for none: an empty is
//                                                   pushed), pushes 1
//   225   dbg        point u16, text offset u32     -
//   241   call       external u16                   as a built-in, with the
//                                                   external's argument count
//   242   jmp        rel i32                        -
//   243   andt       rel i32                        - (the value stays)
//   244   ort        rel i32                        - (the value stays)
//   245   jf         rel i32                        pops 1
//   246   stp        local u16, index count u16     pops n (the value stays)
//   247   stl        local u16, index count u16     pops n (the value stays)
//   248   idx        index count u16                pops n + 1, pushes 1
//   249   arr        element count u32              pops n, pushes 1
//   250   try        absolute offset of its 251 u32 -
//   251   endtry     -                              pops 1, pushes 1 (status)
//   252   exit       -                              -
//   253   end        -                              -
//
// Relative offsets (242..245) count from the offset field itself; the
// operand of 250 counts from the start of the code.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kwz::calcl {

enum Op : uint8_t {
    kOpLoadParam = 33,
    kOpLoadLocal = 34,
    kOpEmpty = 35,
    kOpInt = 36,
    kOpDbl = 37,
    kOpStr = 38,
    kOpCollapse = 39,
    kOpNeg = 81,
    kOpDebug = 225,
    kOpCall = 241,
    kOpJump = 242,
    kOpAndTest = 243,
    kOpOrTest = 244,
    kOpJumpFalse = 245,
    kOpStoreParam = 246,
    kOpStoreLocal = 247,
    kOpIndex = 248,
    kOpArray = 249,
    kOpTry = 250,
    kOpEndTry = 251,
    kOpExit = 252,
    kOpEnd = 253,
};

// How an instruction's operands are laid out.
enum class Operands : uint8_t {
    kNone,
    kLocal,     // u16 local index, u16 index count
    kI64,
    kF64,
    kStr,       // u16 length, bytes, 0
    kU16,       // count or external index
    kRel32,     // signed offset from the field
    kU32,       // element count
    kAbs32,     // offset from the start of the code
    kDebug,     // u16 point number, u32 text offset
};

struct OpInfo {
    uint8_t code;
    const char* mnemonic;
    Operands operands;
};

// The instruction of a code, or null for a byte that is none.
const OpInfo* FindOp(uint8_t code);
// Length of the instruction at p (code byte included), 0 for no instruction.
size_t OpLength(const uint8_t* p);

}  // namespace kwz::calcl
