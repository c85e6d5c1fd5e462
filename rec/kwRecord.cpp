// Records: lifecycle (init, new, free, adopt, alloc, release), record flags
// and the per-field null / edited / user bits.
#include <cstdlib>
#include <cstring>

#include "base/kwBase.h"
#include "base/kwMem.h"
#include "rec/kwRecCore.h"
#include "rec/kwRecord.h"

namespace kwz::rec {

void LogCorrupt(const char* tag) { Log(1, tag, "REC DATA CORRUPT"); }

namespace {

constexpr const char* kFreeTag = "Kwz.kwRec.KWRRecFree";

// Frees the owned "CM"/"CB" blocks of an image found by walking its header
// bytes.  The walk is made twice, to check and then to free, so that a corrupt
// header stops it with -2 before anything is freed and the record stays
// exactly as it was.  A type code 0 counts as corrupt like one above 11: a
// walk cannot know the size of its slot.
uint32_t FreeOwnedBlocks(KWRData* record) {
    auto noop = [](uint8_t*, uint8_t*) {};
    if (uint32_t rc = WalkSlots(record->image, record->length, record->fieldCount, noop)) return rc;
    WalkSlots(record->image, record->length, record->fieldCount, [](uint8_t* header, uint8_t* value) {
        if (IsVarType(*header & kTypeMask) && (*header & kOwnedBit)) {
            kwz::MemFree(LoadBlock(value));
            StoreBlock(value, nullptr);
        }
    });
    return KWR_OK;
}

// The body of KWRRecFree for a record already known to be sound.  Owned blocks
// exist only after a change (state not 0), so a packed record is not walked.
uint32_t FreeRecord(KWRData* record) {
    if (record->image && record->state != kStatePacked) {
        if (uint32_t rc = FreeOwnedBlocks(record)) return rc;
    }
    kwz::MemFree(record->image);
    std::memset(record, 0, sizeof *record);
    return KWR_OK;
}

// Guard test of the functions that must not throw: log and report -2.
bool GuardBroken(const KWRData* record, const char* tag) {
    if (record->guard == 0) return false;
    LogCorrupt(tag);
    return true;
}

// Makes a fresh image of the type with every field null.
//   [L u32][flags 0][N] then per field: header = type | null, for "CH" also
//   the capacity byte; all value bytes zero.
uint32_t NewImage(const KWRType* type, KWRData* record) {
    auto* image = static_cast<uint8_t*>(kwz::MemAlloc(type->dataLength));
    if (!image) return KWR_NOMEM;
    std::memset(image, 0, type->dataLength);
    StoreU32(image, type->dataLength);
    image[4] = 0;
    image[5] = type->fieldCount;
    for (uint32_t i = 0; i < type->fieldCount; ++i) {
        const KWRField& f = type->fields[i];
        *HeaderByte(&f, image) = static_cast<uint8_t>(f.type | kNullBit);
        if (f.type == iFldType_Char) ValuePtr(&f, image)[kCharCapacity] = static_cast<uint8_t>(f.width);
    }
    record->image = image;
    record->length = type->dataLength;
    record->flags = 0;
    record->fieldCount = type->fieldCount;
    record->state = kStatePacked;
    return KWR_OK;
}

bool UsableType(const KWRType* type) {
    return type && type->dataLength >= kImageHead && (type->fieldCount == 0 || type->fields);
}

uint32_t ReadBit(const KWRField* field, const KWRData* record, uint8_t* out, uint8_t bit) {
    if (!out) return KWR_OK;
    *out = 0;
    if (uint32_t rc = CheckFieldAccess(field, record)) return rc;
    *out = (*HeaderOf(field, record) & bit) ? 1 : 0;
    return KWR_OK;
}

}  // namespace


uint32_t RecInit(KWRData* record) {
    if (!record) return KWR_BADARG;
    std::memset(record, 0, sizeof *record);
    return KWR_OK;
}

uint32_t RecNew(const KWRType* type, KWRData* record) {
    if (!record || !UsableType(type)) return KWR_BADARG;
    if (GuardBroken(record, "Kwz.kwRec.KWRRecNew")) return KWR_CORRUPT;
    if (uint32_t rc = FreeRecord(record)) return rc;
    record->typeId = type->id;
    return NewImage(type, record);
}

uint32_t RecFree(KWRData* record) {
    if (!record || record->guard != 0) {
        LogCorrupt(kFreeTag);
        return KWR_CORRUPT;
    }
    return FreeRecord(record);
}

// The caller keeps the block when it is refused (-2): only an accepted image
// is adopted, and the record is left as it was.
uint32_t RecSet(KWRData* record, void* image) {
    if (!record) return KWR_BADARG;
    if (!image || LoadU32(image) < kImageHead) return KWR_CORRUPT;
    if (GuardBroken(record, "Kwz.kwRec.KWRRecSet")) return KWR_CORRUPT;
    if (uint32_t rc = FreeRecord(record)) return rc;
    auto* bytes = static_cast<uint8_t*>(image);
    record->image = bytes;
    record->length = LoadU32(bytes);
    record->flags = bytes[4];
    record->fieldCount = bytes[5];
    record->state = kStatePacked;
    return KWR_OK;
}

KWRData* RecAlloc(const KWRType* type, const KWRVal* cells) {
    if (!UsableType(type)) return nullptr;
    auto* record = static_cast<KWRData*>(kwz::MemAlloc(sizeof(KWRData)));
    if (!record) return nullptr;
    RecInit(record);
    uint32_t rc = RecNew(type, record);
    if (rc == KWR_OK && cells) {
        rc = SetRec(type, record, cells);
        if (rc == KWR_OK) rc = RecPack(type, record, 1, 1);
    }
    if (rc != KWR_OK) {
        RecRelease(record);
        return nullptr;
    }
    return record;
}

// Never throws (only KWRRecFree does): a corrupt structure is logged and left
// alone, since its pointers cannot be trusted.  An image whose walk fails is
// still released, without the owned blocks the walk could not reach.
void RecRelease(KWRData* record) {
    if (!record) return;
    if (GuardBroken(record, "Kwz.kwRec.KWRRecRelease")) return;
    if (FreeRecord(record) != KWR_OK) {
        LogCorrupt("Kwz.kwRec.KWRRecRelease");
        kwz::MemFree(record->image);
    }
    kwz::MemFree(record);
}

uint32_t SetFlags(KWRData* record, uint8_t flags) {
    if (!record) return KWR_BADARG;
    if (!record->image) return KWR_NOIMAGE;
    record->image[4] = flags;
    record->flags = flags;
    return KWR_OK;
}

uint32_t IsNull(const KWRField* field, const KWRData* record, uint8_t* out) {
    return ReadBit(field, record, out, kNullBit);
}

uint32_t IsEdit(const KWRField* field, const KWRData* record, uint8_t* out) {
    return ReadBit(field, record, out, kEditBit);
}

uint32_t IsUser(const KWRField* field, const KWRData* record, uint8_t* out) {
    return ReadBit(field, record, out, kUserBit);
}

// Null value bytes are zeroed ("CH" keeps its capacity byte, which a walk
// needs); a "CM"/"CB" text is dropped first so that an owned block is freed.
uint32_t SetNull(const KWRField* field, KWRData* record) {
    if (uint32_t rc = CheckFieldAccess(field, record)) return rc;
    uint8_t* header = HeaderOf(field, record);
    if (*header & kNullBit) return KWR_OK;
    const uint8_t type = *header & kTypeMask;
    uint8_t* value = ValueOf(field, record);
    if (IsVarType(type)) {
        if (uint32_t rc = SetAsText(field, record, 0, nullptr)) return rc;
    } else if (type == iFldType_Char) {
        std::memset(value + kCharLength, 0, value[kCharCapacity] + 2u);
    } else {
        std::memset(value, 0, TypeWidth(type, 0));
    }
    *header |= kNullBit | kEditBit;
    if (record->state == kStatePacked) record->state = kStateChanged;
    return KWR_OK;
}

uint32_t SetEdit(const KWRField* field, KWRData* record, uint8_t on) {
    if (uint32_t rc = CheckFieldAccess(field, record)) return rc;
    uint8_t* header = HeaderOf(field, record);
    if (on) {
        *header |= kEditBit;
        if (record->state == kStatePacked) record->state = kStateChanged;
    } else {
        *header &= static_cast<uint8_t>(~kEditBit);
    }
    return KWR_OK;
}

uint32_t SetUser(const KWRField* field, KWRData* record, uint8_t on) {
    if (uint32_t rc = CheckFieldAccess(field, record)) return rc;
    uint8_t* header = HeaderOf(field, record);
    if (on) {
        *header |= kUserBit;
    } else {
        *header &= static_cast<uint8_t>(~kUserBit);
    }
    return KWR_OK;
}

}  // namespace kwz::rec
