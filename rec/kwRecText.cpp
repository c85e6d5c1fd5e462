// Text access: "CH" texts inside the slot, "CM"/"CB" texts in the image's
// variable part or in an owned block.
//
//   "CH" n slot:  [hdr][cap n][len][n text bytes][terminator]
//   "CM"/"CB" slot, text in the image (bit 4 clear):
//                 [hdr][u32 length][u32 offset from image byte 0, 0 = none]
//   "CM"/"CB" slot, text in an owned block (bit 4 set):
//                 [hdr][block pointer]  ->  [u32 length + 1][text][0]
//
// A text that no longer fits where it lies moves to an owned block and a text
// that shrinks in the image leaves spare room; either way the state becomes
// 255 and the record must be packed (KWRRecPack) before it is sent.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "base/kwBase.h"
#include "base/kwMem.h"
#include "rec/kwRecCore.h"
#include "rec/kwRecord.h"

namespace kwz::rec {

uint32_t FindText(const KWRField* field, const KWRData* record, uint32_t* length,
                  const char** text) {
    *length = 0;
    *text = nullptr;
    const uint8_t header = *HeaderOf(field, record);
    const uint8_t type = header & kTypeMask;
    if (!IsTextType(type)) return KWR_BADTYPE;
    if (header & kNullBit) return KWR_NULL;
    const uint8_t* value = ValueOf(field, record);
    if (type == iFldType_Char) {
        *length = std::min(value[kCharLength], value[kCharCapacity]);
        *text = reinterpret_cast<const char*>(value + kCharText);
        return KWR_OK;
    }
    if (header & kOwnedBit) {
        const uint8_t* block = LoadBlock(value);
        if (!block) return KWR_OK;
        const uint32_t size = LoadU32(block);
        *length = size ? size - 1 : 0;
        *text = reinterpret_cast<const char*>(block + kBlockHead);
        return KWR_OK;
    }
    const uint32_t n = LoadU32(value + kVarLength);
    const uint32_t offset = LoadU32(value + kVarOffset);
    if (n == 0) return KWR_OK;
    if (offset == 0) return KWR_NOTEXT;
    *length = n;
    *text = reinterpret_cast<const char*>(record->image + offset);
    return KWR_OK;
}

namespace {

// A new owned block holding n bytes of text (zeros for a null text).
uint8_t* NewBlock(uint32_t n, const void* text) {
    auto* block = static_cast<uint8_t*>(kwz::MemAlloc(size_t{n} + kBlockHead + 1));
    if (!block) return nullptr;
    StoreU32(block, n + 1);
    if (text) {
        std::memcpy(block + kBlockHead, text, n);
    } else {
        std::memset(block + kBlockHead, 0, n);
    }
    block[kBlockHead + n] = 0;
    return block;
}

void CopyText(uint8_t* dst, const void* text, uint32_t n) {
    if (text) {
        std::memmove(dst, text, n);  // the text may lie in this very image
    } else {
        std::memset(dst, 0, n);
    }
}

// "CH": the text is cut to the capacity (a capacity 0 slot, which only a type
// built from definitions can have, takes nothing rather than overrun).
void SetCharText(uint8_t* value, uint32_t n, const void* text) {
    const uint8_t capacity = value[kCharCapacity];
    n = std::min<uint32_t>(n, capacity);
    CopyText(value + kCharText, text, n);
    value[kCharLength] = static_cast<uint8_t>(n);
    if (n < capacity) value[kCharText + n] = 0;
}

// "CM"/"CB" with the text in an owned block.  The new block is made before the
// old one is freed, so a text taken from the old block itself is safe.
uint32_t SetOwnedText(uint8_t* header, uint8_t* value, uint32_t n, const void* text,
                      bool* repack) {
    uint8_t* old = LoadBlock(value);
    if (n == 0) {
        kwz::MemFree(old);
        StoreU32(value + kVarLength, 0);
        StoreU32(value + kVarOffset, 0);
        *header &= static_cast<uint8_t>(~kOwnedBit);
        return KWR_OK;
    }
    uint8_t* block = NewBlock(n, text);
    if (!block) return KWR_NOMEM;
    kwz::MemFree(old);
    StoreBlock(value, block);
    *repack = true;
    return KWR_OK;
}

// "CM"/"CB" with the text in the image: overwritten in place when it fits in
// the old text's room, else moved to a new owned block.
// A null field has no text, whatever its value bytes say: a received image
// may carry anything there, and they are never read.
uint32_t SetImageText(KWRData* record, uint8_t* header, uint8_t* value, uint32_t n,
                      const void* text, bool* repack) {
    const bool isNull = (*header & kNullBit) != 0;
    const uint32_t old = isNull ? 0 : LoadU32(value + kVarLength);
    const uint32_t offset = isNull ? 0 : LoadU32(value + kVarOffset);
    if (n == 0) {
        if (old != 0 || offset != 0) *repack = true;
        StoreU32(value + kVarLength, 0);
        StoreU32(value + kVarOffset, 0);
        return KWR_OK;
    }
    // The in-place test also asks that the old text lie inside the image, so a
    // damaged offset never turns into a write outside it.
    if (offset != 0 && n <= old && uint64_t{offset} + old < record->length) {
        uint8_t* dst = record->image + offset;
        CopyText(dst, text, n);
        StoreU32(value + kVarLength, n);
        if (n < old) {
            dst[n] = 0;
            *repack = true;
        }
        return KWR_OK;
    }
    uint8_t* block = NewBlock(n, text);
    if (!block) return KWR_NOMEM;
    StoreBlock(value, block);
    *header |= kOwnedBit;
    *repack = true;
    return KWR_OK;
}

}  // namespace


uint32_t GetAsText(const KWRField* field, const KWRData* record, int32_t start,
                              int32_t size, char* buffer) {
    if (!buffer) return KWR_BADARG;
    if (size > 0) buffer[0] = 0;
    if (uint32_t rc = CheckFieldAccess(field, record)) return rc;
    if (start < 0) return KWR_BADARG;
    const uint8_t header = *HeaderOf(field, record);
    const uint8_t type = header & kTypeMask;
    if (!IsTextType(type)) return KWR_BADTYPE;
    if (header & kNullBit) return KWR_NULL;
    // A "CM"/"CB" text in the image without an offset gives 6 even when its
    // length is 0 (no text at all), unlike KWRGetTextRef; callers test for 6
    // to tell "no text was ever set", so it stays.
    if (IsVarType(type) && !(header & kOwnedBit) && LoadU32(ValueOf(field, record) + kVarOffset) == 0)
        return KWR_NOTEXT;
    uint32_t length = 0;
    const char* text = nullptr;
    if (uint32_t rc = FindText(field, record, &length, &text)) return rc;
    if (size <= 0 || static_cast<uint32_t>(start) >= length) return KWR_OK;
    const uint32_t count = std::min(static_cast<uint32_t>(size), length - static_cast<uint32_t>(start));
    std::memcpy(buffer, text + start, count);
    if (count < static_cast<uint32_t>(size)) buffer[count] = 0;
    return KWR_OK;
}

uint32_t SetAsText(const KWRField* field, KWRData* record, int32_t length,
                              const void* text) {
    if (uint32_t rc = CheckFieldAccess(field, record)) return rc;
    if (length < 0) return KWR_BADARG;
    uint8_t* header = HeaderOf(field, record);
    const uint8_t type = *header & kTypeMask;
    if (!IsTextType(type)) return KWR_BADTYPE;
    uint32_t n = static_cast<uint32_t>(length);
    if (field->width >= 1 && n > field->width) n = field->width;
    uint8_t* value = ValueOf(field, record);
    bool repack = false;
    uint32_t rc = KWR_OK;
    if (type == iFldType_Char) {
        SetCharText(value, n, text);
    } else if (*header & kOwnedBit) {
        rc = SetOwnedText(header, value, n, text, &repack);
    } else {
        rc = SetImageText(record, header, value, n, text, &repack);
    }
    if (rc != KWR_OK) return rc;
    MarkWritten(header, record);
    if (repack) record->state = kStateRepack;
    return KWR_OK;
}

uint32_t GetTextRef(const KWRField* field, const KWRData* record, uint32_t* length,
                               const char** text) {
    uint32_t n = 0;
    const char* p = nullptr;
    uint32_t rc = CheckFieldAccess(field, record);
    if (rc == KWR_OK) rc = FindText(field, record, &n, &p);
    if (length) *length = n;
    if (text) *text = p;
    return rc;
}

}  // namespace kwz::rec
