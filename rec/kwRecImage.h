// The layout of a record's data image, shared by every module that reads or
// writes images directly (records, record arrays, the transport).
//
//   offset 0  u32  L, total image length (fixed part + variable part)
//          4  u8   record flags
//          5  u8   field count N
//          6       N field slots in field order; field i's header byte is at
//                  fields[i].offset - 1, its value at fields[i].offset
//   dataLength     variable part: "CM"/"CB" texts, each followed by a 0 byte
//
// Header byte: bits 0..3 type code 1..11, 0x10 value in an owned block,
// 0x20 edited, 0x40 user mark, 0x80 null.
//
// Value bytes: L1/B1/I1 1, I2 2, I4/F4 4, I8/F8 8; "CH"n: capacity, length,
// n text bytes, terminator; "CM"/"CB" in the image: u32 length, u32 offset
// from byte 0 (0 = no text); "CM"/"CB" owned (0x10): 8-byte pointer to a block
// of u32 size (length + 1), the text, a 0 byte.
#pragma once

#include <VomKwz.h>

#include <cstdint>

#include "base/kwBase.h"

namespace kwz::rec {

constexpr uint32_t kImageHead = 6;  // length, flags, field count
constexpr uint32_t kImageFlags = 4; // offset of the record flags byte
constexpr uint32_t kImageCount = 5; // offset of the field count byte
constexpr uint8_t kTypeMask = 0x0F;
constexpr uint8_t kOwnedBit = 0x10;
constexpr uint8_t kEditBit = 0x20;
constexpr uint8_t kUserBit = 0x40;
constexpr uint8_t kNullBit = 0x80;
constexpr uint8_t kMaxType = iFldType_Blob;

constexpr bool IsValidType(uint8_t type) { return type >= 1 && type <= kMaxType; }
constexpr bool IsTextType(uint8_t type) { return type >= iFldType_Char && type <= iFldType_Blob; }
constexpr bool IsVarType(uint8_t type) { return type == iFldType_Memo || type == iFldType_Blob; }

// Width of a field's value by type ("CH" uses its capacity, "CM"/"CB" 0).
constexpr uint32_t TypeWidth(uint8_t type, uint32_t capacity) {
    switch (type) {
        case iFldType_Bool: case iFldType_Byte: case iFldType_Int8: return 1;
        case iFldType_Int16: return 2;
        case iFldType_Int32: case iFldType_Float: return 4;
        case iFldType_Int64: case iFldType_Double: return 8;
        case iFldType_Char: return capacity;
        default: return 0;
    }
}

// Size of a field's slot in the image, header byte included; 0 for an
// invalid type.
constexpr uint32_t SlotSize(uint8_t type, uint32_t capacity) {
    switch (type) {
        case iFldType_Char: return capacity + 4;
        case iFldType_Memo: case iFldType_Blob: return 9;
        default: return IsValidType(type) ? TypeWidth(type, 0) + 1 : 0;
    }
}

inline uint8_t* HeaderByte(const KWRField* field, uint8_t* image) { return image + field->offset - 1; }
inline const uint8_t* HeaderByte(const KWRField* field, const uint8_t* image) {
    return image + field->offset - 1;
}
inline uint8_t* ValuePtr(const KWRField* field, uint8_t* image) { return image + field->offset; }
inline const uint8_t* ValuePtr(const KWRField* field, const uint8_t* image) {
    return image + field->offset;
}

// "CH" value: capacity byte, length byte, the text, a terminator byte.
constexpr uint32_t kCharCapacity = 0;  // value offset of the capacity byte
constexpr uint32_t kCharLength = 1;    // value offset of the length byte
constexpr uint32_t kCharText = 2;      // value offset of the first text byte

// "CM"/"CB" value in the image: u32 length at +0, u32 offset at +4.  With the
// owned bit set the same 8 bytes hold the block pointer instead.
constexpr uint32_t kVarLength = 0;
constexpr uint32_t kVarOffset = 4;

// An owned block: u32 size (text length + 1), the text, a 0 byte.
constexpr uint32_t kBlockHead = 4;
inline uint8_t* LoadBlock(const uint8_t* value) { return Load<uint8_t*>(value); }
inline void StoreBlock(uint8_t* value, uint8_t* block) { Store<uint8_t*>(value, block); }

// Walks the slots of an image by its own header bytes, without a type, the
// way a receiver must: fn(header, value) is called per slot in order.  Returns
// 0, or KWR_CORRUPT at the first header whose type code is not 1..11 or slot
// that would run past `length` (fn is not called for it or after it).
template <typename Fn>
uint32_t WalkSlots(uint8_t* image, uint32_t length, uint8_t count, Fn&& fn) {
    uint64_t pos = kImageHead;
    for (uint32_t i = 0; i < count; ++i) {
        if (pos + 1 > length) return KWR_CORRUPT;
        const uint8_t type = image[pos] & kTypeMask;
        if (!IsValidType(type)) return KWR_CORRUPT;
        uint32_t capacity = 0;
        if (type == iFldType_Char) {
            if (pos + 2 > length) return KWR_CORRUPT;
            capacity = image[pos + 1 + kCharCapacity];
        }
        const uint32_t size = SlotSize(type, capacity);
        if (pos + size > length) return KWR_CORRUPT;
        fn(image + pos, image + pos + 1);
        pos += size;
    }
    return KWR_OK;
}

}  // namespace kwz::rec
