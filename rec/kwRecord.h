// Internal interface of the record module: shared by the lifecycle
// (kwRecord.cpp), the typed accessors (kwRecConv.cpp), the text accessors
// (kwRecText.cpp), the value cells (kwRecVal.cpp) and the image builders
// (kwRecPack.cpp).
//
// Every accessor takes the field's type from the field's header byte in the
// image, not from the KWRField: the image describes itself, and the two agree
// for every record made or checked by this library.
#pragma once

#include <VomKwz.h>

#include <cstdint>

#include "rec/kwRecImage.h"

namespace kwz::rec {

inline uint8_t* HeaderOf(const KWRField* field, const KWRData* record) {
    return HeaderByte(field, record->image);
}
inline uint8_t* ValueOf(const KWRField* field, const KWRData* record) {
    return ValuePtr(field, record->image);
}

// Argument test shared by the field accessors: 7 for a null field or record,
// 1 when the record has no image.
inline uint32_t CheckFieldAccess(const KWRField* field, const KWRData* record) {
    if (!field || !record) return KWR_BADARG;
    if (!record->image) return KWR_NOIMAGE;
    return KWR_OK;
}

// Record states: packed, changed in place, needs packing before it is sent.
constexpr uint8_t kStatePacked = 0;
constexpr uint8_t kStateChanged = 1;
constexpr uint8_t kStateRepack = 255;

// A write to a field succeeded: edited on, null off, state 0 raised to 1.
inline void MarkWritten(uint8_t* header, KWRData* record) {
    *header = static_cast<uint8_t>((*header | kEditBit) & ~kNullBit);
    if (record->state == kStatePacked) record->state = kStateChanged;
}

// Converts the value of scalar type `from` (1..8) at src into scalar type `to`
// (1..8) at dst, in to's width.  The one table behind both the getters (field
// type into the caller's variable) and the setters (caller's type into the
// field); see kwRecConv.cpp.
void ConvertValue(uint8_t from, const void* src, uint8_t to, void* dst);

// Where a text value lies: *text (null when there is none) and *length.
// Returns 0, 2 null field, 5 not a text field, 6 a non-empty image text
// without an offset.  The record must have an image.
uint32_t FindText(const KWRField* field, const KWRData* record, uint32_t* length,
                  const char** text);

// Logs "REC DATA CORRUPT" at level 1 under the given tag.
void LogCorrupt(const char* tag);

}  // namespace kwz::rec
