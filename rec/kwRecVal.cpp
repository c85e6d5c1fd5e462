// Value cells (KWRVal): the unit in which other modules move field values,
// one cell per field or a whole record of them in field order.
//
//   KWRVal, 14 bytes: [type][isNull][value, 12 bytes]
//   value: a number in its own width at byte 0 (types 1..8), or for texts
//   (types 9..11) a u32 length at 0..3 and a text pointer at 4..11.
#include <cstring>

#include "base/kwBase.h"
#include "base/kwMem.h"
#include "rec/kwRecCore.h"
#include "rec/kwRecord.h"

namespace kwz::rec {
namespace {

constexpr size_t kCellLength = 0;
constexpr size_t kCellText = 4;

}  // namespace


// A null field gives its type, isNull 1, zero value and result 0: the cell
// itself says that the value is null.
uint32_t GetVal(const KWRField* field, const KWRData* record, KWRVal* cell) {
    if (!cell) return KWR_BADARG;
    std::memset(cell, 0, sizeof *cell);
    if (uint32_t rc = CheckFieldAccess(field, record)) return rc;
    const uint8_t header = *HeaderOf(field, record);
    const uint8_t type = header & kTypeMask;
    cell->type = type;
    cell->isNull = (header & kNullBit) ? 1 : 0;
    if (!IsValidType(type)) return KWR_CORRUPT;
    if (cell->isNull) return KWR_OK;
    if (!IsTextType(type)) {
        std::memcpy(cell->value, ValueOf(field, record), TypeWidth(type, 0));
        return KWR_OK;
    }
    uint32_t length = 0;
    const char* text = nullptr;
    const uint32_t rc = FindText(field, record, &length, &text);
    StoreU32(cell->value + kCellLength, length);
    Store<const char*>(cell->value + kCellText, text);
    return rc;
}

// "F4" fields are refused with 5 although KWRSetAsFloat accepts them: cell
// producers have always had to send such values through the typed setter, and
// callers test for this 5, so the asymmetry stays.
uint32_t SetVal(const KWRField* field, KWRData* record, const KWRVal* cell) {
    if (!cell || cell->isNull) return SetNull(field, record);
    if (uint32_t rc = CheckFieldAccess(field, record)) return rc;
    const uint8_t type = *HeaderOf(field, record) & kTypeMask;
    if (type == iFldType_Float || !IsValidType(type)) return KWR_BADTYPE;
    if (!IsTextType(type)) return WriteScalar(field, record, cell->type, cell->value);
    if (!IsTextType(cell->type)) return KWR_BADTYPE;
    const uint32_t length = LoadU32(cell->value + kCellLength);
    const auto* text = Load<const void*>(cell->value + kCellText);
    return SetAsText(field, record, static_cast<int32_t>(length), text);
}

uint32_t GetRec(const KWRType* type, const KWRData* record, KWRVal* cells) {
    if (!cells || !type || !record) return KWR_BADARG;
    if (!record->image) return KWR_NOIMAGE;
    for (uint32_t i = 0; i < type->fieldCount; ++i) {
        if (uint32_t rc = GetVal(&type->fields[i], record, &cells[i])) return rc;
    }
    return KWR_OK;
}

uint32_t SetRec(const KWRType* type, KWRData* record, const KWRVal* cells) {
    if (!type || !record) return KWR_BADARG;
    if (!record->image) return KWR_NOIMAGE;
    for (uint32_t i = 0; i < type->fieldCount; ++i) {
        const KWRField* field = &type->fields[i];
        const uint32_t rc = cells ? SetVal(field, record, &cells[i]) : SetNull(field, record);
        if (rc != KWR_OK) return rc;
    }
    return KWR_OK;
}

}  // namespace kwz::rec
