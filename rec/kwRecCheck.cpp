// KWRRecCheck: is an image, typically one just received and adopted with
// KWRRecSet, a sound packed image of the given type?  The accessors trust
// the image they are given; this is the test to run before trusting one from
// outside.  It reads nothing outside [image, image + L).
#include "base/kwBase.h"
#include "rec/kwRecCore.h"
#include "rec/kwRecord.h"

namespace kwz::rec {
namespace {

// The type itself must describe slots that lie inside its fixed part.
bool SlotInsideType(const KWRType* type, const KWRField& field) {
    if (!IsValidType(field.type)) return false;
    if (field.type == iFldType_Char && (field.width < 1 || field.width > 255)) return false;
    const uint64_t start = uint64_t{field.offset} - 1;
    return field.offset > kImageHead && start + SlotSize(field.type, field.width) <= type->dataLength;
}

// One slot of a packed image:
//   header: type code = field type, owned bit clear;
//   "CH":   capacity byte = width, length <= capacity;
//   "CM"/"CB", not null: no length without an offset; a text with an offset
//           lies in [dataLength, L) with its 0 byte, which is 0.
bool SlotValid(const KWRType* type, const KWRField& field, const uint8_t* image, uint32_t length) {
    const uint8_t header = *HeaderByte(&field, image);
    if ((header & kTypeMask) != field.type || (header & kOwnedBit)) return false;
    const uint8_t* value = ValuePtr(&field, image);
    if (field.type == iFldType_Char) {
        return value[kCharCapacity] == field.width && value[kCharLength] <= value[kCharCapacity];
    }
    if (!IsVarType(field.type) || (header & kNullBit)) return true;
    const uint32_t n = LoadU32(value + kVarLength);
    const uint32_t offset = LoadU32(value + kVarOffset);
    if (offset == 0) return n == 0;
    const uint64_t end = uint64_t{offset} + n;  // position of the 0 byte
    return offset >= type->dataLength && end < length && image[end] == 0;
}

uint32_t CheckImage(const KWRType* type, const KWRData* record) {
    if (!type || !record || !record->image) return KWR_CORRUPT;
    const uint8_t* image = record->image;
    const uint32_t length = record->length;
    if (length < kImageHead || LoadU32(image) != length) return KWR_CORRUPT;
    if (type->dataLength < kImageHead || length < type->dataLength) return KWR_CORRUPT;
    if (image[5] != type->fieldCount || (type->fieldCount && !type->fields)) return KWR_CORRUPT;
    for (uint32_t i = 0; i < type->fieldCount; ++i) {
        const KWRField& field = type->fields[i];
        if (!SlotInsideType(type, field) || !SlotValid(type, field, image, length)) return KWR_CORRUPT;
    }
    return KWR_OK;
}

}  // namespace

uint32_t RecCheck(const KWRType* type, const KWRData* record) { return CheckImage(type, record); }

}  // namespace kwz::rec
