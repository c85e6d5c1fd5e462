// The record wire image: KWRRecPack brings a record into its self-contained
// form, KWRSetBuff builds that form directly from value cells.
//
// Packed image (little-endian, unaligned):
//
//   0           u32  L, the whole image
//   4           u8   record flags
//   5           u8   field count N
//   6           N slots, field i's header byte at fields[i].offset - 1;
//               bit 4 (owned block) is clear in every slot
//   dataLength  variable part: the texts of the non-null "CM"/"CB" fields,
//               in field order, each followed by one 0 byte
//   L
//
// Example, "_LOGIN|3\r\n_Login|CB\r\n_Password|CB\r\n_AddType|L1" with
// abcde / xyz / 1 (edited bits set):
//   24 00 00 00 00 03 | 2b 05 00 00 00 1a 00 00 00 | 2b 03 00 00 00 20 00 00 00
//   | 21 01 | 61 62 63 64 65 00 78 79 7a 00
#include <cstdlib>
#include <cstring>

#include "base/kwBase.h"
#include "base/kwMem.h"
#include "rec/kwRecCore.h"
#include "rec/kwRecord.h"

namespace kwz::rec {
namespace {

constexpr uint64_t kMaxImage = UINT32_MAX;

// Steps 1-2 of packing: the size of the variable part and whether any owned
// block exists.  -2 when a text in the image reaches past the image (a
// damaged received image).  Changes nothing, so that a failure leaves the
// record as it was.
uint32_t MeasureTexts(const KWRType* type, const KWRData* record, uint64_t* total, bool* owned) {
    *total = 0;
    *owned = false;
    for (uint32_t i = 0; i < type->fieldCount; ++i) {
        const KWRField* field = &type->fields[i];
        const uint8_t* header = HeaderOf(field, record);
        if (!IsVarType(*header & kTypeMask) || (*header & kNullBit)) continue;
        const uint8_t* value = ValueOf(field, record);
        if (*header & kOwnedBit) {
            *owned = true;
            if (const uint8_t* block = LoadBlock(value)) *total += LoadU32(block);  // length + 1
            continue;
        }
        const uint32_t offset = LoadU32(value + kVarOffset);
        if (offset == 0) continue;
        const uint64_t length = LoadU32(value + kVarLength);
        if (offset + length >= record->length) return KWR_CORRUPT;
        *total += length + 1;
    }
    return KWR_OK;
}

// Step 3, once nothing can fail: the edited / user bits cleared as asked.
void ClearBits(const KWRType* type, KWRData* record, uint8_t clearMask) {
    for (uint32_t i = 0; i < type->fieldCount; ++i) *HeaderOf(&type->fields[i], record) &= static_cast<uint8_t>(~clearMask);
}

// Step 5: the new image.  Owned blocks are freed as their texts are copied;
// nothing can fail any more at this point.
//   per non-null "CM"/"CB" field: [text][0] appended, slot = (length, offset)
void WriteVariablePart(const KWRType* type, const KWRData* record, uint8_t* image) {
    uint32_t pos = type->dataLength;
    for (uint32_t i = 0; i < type->fieldCount; ++i) {
        const KWRField* field = &type->fields[i];
        uint8_t* header = HeaderByte(field, image);
        if (!IsVarType(*header & kTypeMask) || (*header & kNullBit)) continue;
        uint8_t* value = ValuePtr(field, image);
        const uint8_t* text = nullptr;
        uint32_t length = 0;
        bool present = false;
        if (*header & kOwnedBit) {
            uint8_t* block = LoadBlock(value);
            if (block) {
                const uint32_t size = LoadU32(block);
                length = size ? size - 1 : 0;
                std::memcpy(image + pos, block + kBlockHead, length);
                kwz::MemFree(block);
                present = true;
            }
            *header &= static_cast<uint8_t>(~kOwnedBit);
        } else if (const uint32_t offset = LoadU32(value + kVarOffset)) {
            // An empty text with an offset keeps its 0 byte, as it was counted.
            length = LoadU32(value + kVarLength);
            text = record->image + offset;
            present = true;
        }
        if (!present) {
            // No text: both words 0, so that no length stands without an
            // offset (KWRRecCheck refuses that).
            StoreU32(value + kVarLength, 0);
            StoreU32(value + kVarOffset, 0);
            continue;
        }
        if (text) std::memcpy(image + pos, text, length);
        StoreU32(value + kVarLength, length);
        StoreU32(value + kVarOffset, pos);
        pos += length;
        image[pos++] = 0;
    }
}

}  // namespace


uint32_t RecPack(const KWRType* type, KWRData* record, uint32_t clearEdited,
                            uint32_t clearUser) {
    if (!type || !record) return KWR_BADARG;
    if (!record->image) return KWR_NOIMAGE;
    // Both flags are tested as bytes: 0x100 means "no".
    const bool edited = static_cast<uint8_t>(clearEdited) != 0;
    const bool user = static_cast<uint8_t>(clearUser) != 0;
    // A packed record is left alone, edited bits and all, unless user marks
    // are to go.
    if (record->state == kStatePacked && !user) return KWR_OK;
    if (record->length < type->dataLength) return KWR_CORRUPT;
    const uint8_t clearMask = static_cast<uint8_t>((edited ? kEditBit : 0) | (user ? kUserBit : 0));
    uint64_t total = 0;
    bool owned = false;
    if (uint32_t rc = MeasureTexts(type, record, &total, &owned)) return rc;
    const uint64_t length = total + type->dataLength;
    if (length > kMaxImage) return KWR_NOMEM;
    if (length == record->length && !owned) {
        ClearBits(type, record, clearMask);
        record->state = kStatePacked;  // already packed: no copy
        return KWR_OK;
    }
    auto* image = static_cast<uint8_t*>(kwz::MemAlloc(length));
    if (!image) return KWR_NOMEM;
    ClearBits(type, record, clearMask);
    std::memcpy(image, record->image, type->dataLength);
    StoreU32(image, static_cast<uint32_t>(length));
    WriteVariablePart(type, record, image);
    kwz::MemFree(record->image);
    record->image = image;
    record->length = static_cast<uint32_t>(length);
    record->state = kStatePacked;
    return KWR_OK;
}

// Without a buffer only the size is computed (and stored when asked for).
// With one, the caller guarantees room for that size.  Scalar fields are
// written by the setters' conversion table and so come out edited; text
// fields get the bare type code.
uint32_t SetBuff(const KWRType* type, void* buffer, const KWRVal* cells,
                            uint32_t* size) {
    if (!type) return KWR_BADARG;
    auto cellLength = [&](uint32_t i) { return LoadU32(cells[i].value); };
    auto cellText = [&](uint32_t i) { return Load<const uint8_t*>(cells[i].value + 4); };
    if (!buffer) {
        if (!size) return KWR_OK;
        uint64_t total = type->dataLength;
        for (uint32_t i = 0; cells && i < type->fieldCount; ++i) {
            if (IsVarType(type->fields[i].type) && !cells[i].isNull && cellLength(i) != 0)
                total += uint64_t{cellLength(i)} + 1;
        }
        *size = static_cast<uint32_t>(total);
        return KWR_OK;
    }
    auto* image = static_cast<uint8_t*>(buffer);
    std::memset(image, 0, type->dataLength);
    image[4] = 0;
    image[5] = type->fieldCount;
    uint32_t pos = type->dataLength;
    uint32_t rc = KWR_OK;
    for (uint32_t i = 0; i < type->fieldCount && rc == KWR_OK; ++i) {
        const KWRField* field = &type->fields[i];
        uint8_t* header = HeaderByte(field, image);
        uint8_t* value = ValuePtr(field, image);
        const uint8_t ft = field->type;
        if (ft == iFldType_Char) value[kCharCapacity] = static_cast<uint8_t>(field->width);
        if (!cells || cells[i].isNull) {
            *header = static_cast<uint8_t>(ft | kNullBit);
            continue;
        }
        const KWRVal& cell = cells[i];
        *header = ft;
        if (!IsTextType(ft)) {
            ConvertValue(cell.type, cell.value, ft, value);
            *header |= kEditBit;
            continue;
        }
        if (!IsTextType(cell.type)) {
            rc = KWR_BADTYPE;  // the buffer keeps the partial image
            break;
        }
        const uint8_t* text = cellText(i);
        uint32_t n = text ? cellLength(i) : 0;
        if (ft == iFldType_Char) {
            n = n < field->width ? n : field->width;
            if (n) std::memcpy(value + kCharText, text, n);
            value[kCharLength] = static_cast<uint8_t>(n);
            value[kCharText + n] = 0;
        } else if (n != 0) {
            std::memcpy(image + pos, text, n);
            StoreU32(value + kVarLength, n);
            StoreU32(value + kVarOffset, pos);
            pos += n;
            image[pos++] = 0;
        }
    }
    StoreU32(image, pos);
    if (size) *size = pos;
    return rc;
}

}  // namespace kwz::rec
