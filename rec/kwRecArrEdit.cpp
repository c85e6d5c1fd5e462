// The edit protocol of record arrays: new or edit, then post or delete.
//
// A record is one of three things, told by its edit source:
//   null          a new record from KWARecNew, not yet posted;
//   a member      a working copy from KWARecEdit that will replace it;
//   all bits set  a member of the array (possibly changed in place).
// Posting keeps every maintained key in order; a failed post changes no key
// and leaves the working record to the caller.
#include <new>

#include "rec/kwRecArr.h"

namespace kwz::recarr {

namespace {

bool AnyKeyFieldEdited(const KWAKey* key, const KWRData* rec) {
    for (int32_t i = 0; i < key->fieldCount; ++i)
        if (rec->image[key->fields[i].offset - 1] & rec::kEditBit) return true;
    return false;
}

bool Affected(const KWAKey* key, const KWRData* rec) {
    return key->Maintained() && key->fieldCount > 0 && AnyKeyFieldEdited(key, rec);
}

int32_t DuplicateCode(size_t k) { return -(7 + static_cast<int32_t>(k)); }

void LogDuplicate(const char* tag, size_t k) {
    LogMessageF(3, tag, "duplicate values under unique key %zu", k);
}

// A member leaves its key at `from` and comes back at `to` (a position
// counted with it still in place), carrying a fresh prefix.
void MoveMember(KWAKey* key, int32_t from, int32_t to, KWRData* member) {
    if (to == from || to == from + 1) {
        key->order.Set(from, MakeEntry(key, member));
        return;
    }
    key->order.Erase(from);
    key->order.Insert(to > from ? to - 1 : to, MakeEntry(key, member));
}

int32_t PostNew(KWArray* array, KWRData* rec, KWRData** out) {
    if (array->store && UnpackForWrite(array) != 0) return -3;
    if (!EnsureKey0(array)) return -1;
    int32_t positions[kMaxKeys];
    for (size_t k = 0; k < array->keys.size(); ++k) {
        if (!PlaceNew(array->keys[k].get(), rec, &positions[k])) {
            LogDuplicate(KWA_TAG("KWARecPost"), k);
            return DuplicateCode(k);
        }
    }
    if (KWRRecPack(&array->type, rec, 1, 0) == KWR_NOMEM) return -1;
    if (!InsertInKeys(array, rec, positions)) return -1;
    rec->editSource = MemberMark();
    ++array->changes;
    *out = rec;
    return 0;
}

// Gives a member the packed image of its working copy; the copy takes the
// member's old image (and its owned texts) and is freed with it.
void AdoptImage(KWArray* array, KWRData* member, KWRData* copy) {
    if (InStore(array, member)) {
        if (member->state != 0) {
            // Owned texts of changes made in place go with a scratch copy.
            KWRData* scratch = CloneRecord(member);
            if (scratch) {
                scratch->state = member->state;
                FreeRecord(scratch);
            }
        }
        std::memcpy(member->image, copy->image, copy->length);
    } else {
        std::swap(member->image, copy->image);
        std::swap(member->length, copy->length);
        copy->state = member->state;
    }
    member->flags = copy->flags;
    member->fieldCount = copy->fieldCount;
    member->state = 0;
    FreeRecord(copy);
}

int32_t PostCopy(KWArray* array, KWRData* copy, KWRData** out) {
    KWRData* member = copy->editSource;
    if (copy->state == 0) {
        FreeRecord(copy);
        *out = member;
        return 0;
    }
    struct Move {
        KWAKey* key;
        int32_t from;
        int32_t to;
    };
    Move moves[kMaxKeys];
    size_t count = 0;
    for (size_t k = 0; k < array->keys.size(); ++k) {
        KWAKey* key = array->keys[k].get();
        if (!Affected(key, copy)) continue;
        const int32_t from = FindMember(key, member);
        if (from < 0) {
            LogMessageF(2, KWA_TAG("KWARecPost"), "member not found in key %zu", k);
            return -6;
        }
        int32_t to = 0;
        if (SeekRecord(key, copy, &to) && key->Unique() && key->order.At(to).rec != member) {
            LogDuplicate(KWA_TAG("KWARecPost"), k);
            return DuplicateCode(k);
        }
        moves[count++] = Move{key, from, to};
    }
    if (KWRRecPack(&array->type, copy, 1, 0) == KWR_NOMEM) return -1;
    if (InStore(array, member) && copy->length != member->length) {
        LogMessage(2, KWA_TAG("KWARecPost"), "image size differs from the stored one");
        return -2;
    }
    AdoptImage(array, member, copy);
    try {
        for (size_t i = 0; i < count; ++i) MoveMember(moves[i].key, moves[i].from, moves[i].to, member);
    } catch (const std::bad_alloc&) {
        LogNoMemory(KWA_TAG("KWARecPost"));
        return -1;
    }
    ++array->changes;
    *out = member;
    return 0;
}

int32_t PostInPlace(KWArray* array, KWRData* member, KWRData** out) {
    *out = member;
    if (member->state == 0) return 0;
    for (size_t k = 0; k < array->keys.size(); ++k) {
        KWAKey* key = array->keys[k].get();
        if (!Affected(key, member)) continue;
        const int32_t from = FindMember(key, member);
        if (from < 0) {
            LogMessageF(2, KWA_TAG("KWARecPost"), "member not found in key %zu", k);
            return -6;
        }
        const Entry old = key->order.Erase(from);
        int32_t to = 0;
        if (SeekRecord(key, member, &to) && key->Unique()) {
            key->order.Insert(from, old);
            LogDuplicate(KWA_TAG("KWARecPost"), k);
            return DuplicateCode(k);
        }
        key->order.Insert(to, MakeEntry(key, member));
    }
    const int32_t rc = InStore(array, member)
                           ? RepackStored(array, member)
                           : (KWRRecPack(&array->type, member, 1, 0) == KWR_NOMEM ? -1 : 0);
    if (rc != 0) return rc;
    ++array->changes;
    return 0;
}

}  // namespace

}  // namespace kwz::recarr

using namespace kwz::recarr;

extern "C" {

KWZ_API KWRData* KWARecNew(KWArray* array) {
    if (!array || !array->HasFields()) return nullptr;
    KWRData* rec = AllocRecord();
    if (!rec || KWRRecNew(&array->type, rec) != KWR_OK) {
        if (rec) FreeRecord(rec);
        LogNoMemory(KWA_TAG("KWARecNew"));
        return nullptr;
    }
    rec->typeId = array->fieldVersion;
    rec->owner = array;
    rec->editSource = nullptr;
    return rec;
}

KWZ_API KWRData* KWARecEdit(KWRData* member) {
    if (!member || !member->image || !IsMember(member)) return nullptr;
    auto* array = static_cast<KWArray*>(member->owner);
    if (!array || !array->HasFields() || member->typeId != array->fieldVersion || member->state == 255)
        return nullptr;
    KWRData* copy = CloneRecord(member);
    if (!copy) {
        LogNoMemory(KWA_TAG("KWARecEdit"));
        return nullptr;
    }
    copy->editSource = member;
    return copy;
}

KWZ_API int32_t KWARecPost(KWRData* record, KWRData** member) {
    KWRData* dummy = nullptr;
    KWRData** out = member ? member : &dummy;
    *out = nullptr;
    if (!record) return 0;
    auto* array = static_cast<KWArray*>(record->owner);
    if (!array || !record->image) return -1;
    if (!array->HasFields()) return -4;
    if (record->typeId != array->fieldVersion) return -5;
    try {
        if (!record->editSource) return PostNew(array, record, out);
        if (IsMember(record)) return PostInPlace(array, record, out);
        return PostCopy(array, record, out);
    } catch (const std::bad_alloc&) {
        LogNoMemory(KWA_TAG("KWARecPost"));
        return -1;
    }
}

KWZ_API int32_t KWARecDel(KWRData* record) {
    if (!record) return 0;
    if (!IsMember(record)) {
        FreeRecord(record);
        return 0;
    }
    auto* array = static_cast<KWArray*>(record->owner);
    if (!array || array->keys.empty()) return -6;
    if (array->store) {
        // The conversion replaces every member structure but keeps key 0's
        // order, so the record is found again by its position there.
        const int32_t at = FindMember(array->keys[0].get(), record);
        if (at < 0) return -6;
        if (UnpackForWrite(array) != 0) return -3;
        record = array->keys[0]->order.At(at).rec;
    }
    int32_t positions[kMaxKeys];
    for (size_t k = 0; k < array->keys.size(); ++k) {
        positions[k] = FindMember(array->keys[k].get(), record);
        if (positions[k] < 0) {
            LogMessageF(2, KWA_TAG("KWARecDel"), "member not found in key %zu", k);
            return -6;
        }
    }
    for (size_t k = 0; k < array->keys.size(); ++k) array->keys[k]->order.Erase(positions[k]);
    FreeRecord(record);
    ++array->changes;
    return 0;
}

KWZ_API KWRData* KWARecAdd(KWArray* array, const KWRVal* cells) {
    if (!array) return nullptr;
    if (array->store) return KWARecAddPack(array, cells);
    KWRData* rec = KWARecNew(array);
    if (!rec) return nullptr;
    KWRData* member = nullptr;
    if (KWRSetRec(&array->type, rec, cells) != KWR_OK || KWARecPost(rec, &member) != 0) {
        KWARecDel(rec);
        return nullptr;
    }
    return member;
}

}  // extern "C"
