// The calculator's values: the C++ core behind the CVar..., CStr... and
// registry functions.  Internal code calls these, never the exported ones.
//
// A CVar is 24 packed bytes:
//
//   byte  0       4                12      16      20      24
//         +-------+----------------+-------+-------+-------+
//         | type  | payload        | count | ref   | spare |
//         +-------+----------------+-------+-------+-------+
//                 |<- CStr / CArr: pointer, count, ref ->|
//
// Str and Arr with ref 0 own their block; with ref != 0 they alias a block
// owned elsewhere.  Object types (tags 5..255) use the 20 bytes as they like.
#pragma once

#include <VomKwz.h>

#include <cstddef>
#include <cstdint>

namespace kwz::calc {

constexpr int32_t kEmpty = 0;
constexpr int32_t kInt = 1;
constexpr int32_t kDbl = 2;
constexpr int32_t kStr = 3;
constexpr int32_t kArr = 4;
constexpr int32_t kFirstObj = 5;
constexpr int32_t kLastTag = 255;

constexpr int32_t kOk = 0;
constexpr int32_t kNoMem = -21;
constexpr int32_t kNotSupported = -44;
constexpr int32_t kUnknownFun = -45;
constexpr int32_t kStackSmall = -47;
constexpr int32_t kNoProp = -48;
constexpr int32_t kBadIndex = -49;

// Deep copies and images walk nested arrays recursively.  Owned arrays form a
// tree, but references can make a cycle; this bound turns a cycle into a
// failure instead of a stack overflow.
constexpr int32_t kMaxWalkDepth = 1000;

inline bool IsObjTag(int32_t tag) { return tag >= kFirstObj && tag <= kLastTag; }

// --- strings (kwCalcStr.cpp) ---------------------------------------------

// Capacity of a string block: ((length + 1) rounded down to 128) + 128.
inline size_t StrCapacity(int32_t length) {
    return ((static_cast<size_t>(length) + 1) & ~size_t(127)) + 128;
}
// A fresh block for length bytes with the 0 byte at [length]; null when
// memory runs out or length is negative.
char* StrBlock(int32_t length);
// Resizes an owned block to the capacity of length (null on failure, the
// old block then kept).
char* StrBlockResize(char* block, int32_t length);
void StrBlockFree(char* block);
int32_t StrCmp(const char* a, int32_t na, const char* b, int32_t nb);
int32_t StrCmpI(const char* a, int32_t na, const char* b, int32_t nb);
uint32_t PropNameToInt(const char* name);

// --- values (kwCalcVar.cpp) ----------------------------------------------

CVar* AllocVars(int32_t count);        // zero-filled; null on failure or count < 1
void FreeVars(CVar* block);
void SetEmpty(CVar* value);
void Clear(CVar* values, int32_t count);
void Move(CVar* destination, CVar* source);
void SetInt(CVar* value, int64_t i);
void SetDbl(CVar* value, double d);
// 0, or -21 with an empty Str (length 0) left; a negative length leaves the
// value empty and gives 0.
int32_t SetStr(CVar* value, const char* bytes, int32_t length);
// 0, or -21 with an array of 0 elements left.
int32_t SetArr(CVar* value, int32_t count);
// Deep copy: 0, -21 out of memory or -44 nesting beyond kMaxWalkDepth; on
// failure the destination is empty.
int32_t Copy(CVar* destination, const CVar* source);
void CopyRef(CVar* destination, const CVar* source);
// A referenced Str or Arr becomes an owned copy: 0 or -21 (then unchanged).
int32_t Own(CVar* value);
int32_t ArrCopy(CVar* values, int32_t n);  // 0 or -21 (values unchanged)
// Resizes an owned array part: false when memory runs out (unchanged).
bool ArrResize(CVar*& items, int32_t& count, int32_t newCount);
// The Int an index value casts to, without changing it: 0, -21, or -44.
int32_t IntOf(const CVar* value, int64_t* out);
CVar* ArrItm(CVar* array, const CVar* indexes, int32_t n, int32_t* status);
int32_t GetChar(CVar* destination, const CVar* string, const CVar* index);
int32_t PutChar(CVar* string, const CVar* index, const CVar* value);

// --- casts and type names (kwCalcCast.cpp) --------------------------------

int32_t Cast(CVar* value, int32_t tag);
// Truncation toward zero into 32 bits: out of range or NaN is INT32_MIN.
int32_t DblToInt32(double d);
int32_t TypeOf(CVar* value);
int32_t TypeNameOf(CVar* value);
// "Empty" .. "Arr" or the descriptor's name; null for an unknown tag.
const char* TagName(int32_t tag);

// --- the value image (kwCalcImage.cpp) -------------------------------------

int32_t ToBuff(const CVar* value, void* destination, int32_t room);
// length: the bytes that may be read (SIZE_MAX: the source is trusted).
int32_t FromBuff(CVar* value, const void* source, size_t length);
// While an object type's FromBuff slot runs inside FromBuff: the bytes of the
// image left behind the tag byte (SIZE_MAX when the source is trusted, and
// outside a read).  The slot gets no bound of its own; the library's own types
// read this one so that a short image is refused instead of over-read.
size_t ImageBytesLeft();

// --- the object-type registry (kwCalcReg.cpp) -------------------------------

KWCalcObjDef* TypeReg(int32_t tag, KWCalcObjDef* descriptor);
KWCalcObjDef* ObjType(int32_t tag);
KWCalcObjDef* ObjTypeFromName(const char* name);

// What an object type tells about itself for registration: its descriptor,
// the global that holds its tag (0 while unregistered) and its property
// names, numbered from 1.
struct ObjTypeInfo {
    KWCalcObjDef* descriptor;
    int32_t* tag;
    const char* const* properties;
    int32_t propertyCount;
};

// The registration every object type's XxxObjTypeReg(tag, constants) does:
// tag 0 unregisters (deleting the type's constants from the table, if one is
// given) and gives null; the current tag gives the descriptor at once; a tag
// held by another type gives null, leaving this type unregistered; else the
// type moves to the tag, defines "it<Type>", "st<Type>" and per property
// "ip<Type>_<Prop>" and "sp<Type>_<Prop>" in the table, and is registered.
KWCalcObjDef* RegisterObjType(const ObjTypeInfo& type, int32_t tag, KWCalcConst* constants);

}  // namespace kwz::calc
