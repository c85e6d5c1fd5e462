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
    LogF(3, tag, "duplicate values under unique key %zu", k);
}

// A member leaves its key at `from` and comes back at `to` (a position
// counted with it still in place), carrying a fresh prefix.  Allocates
// nothing once the key's order has been reserved.
void MoveMember(KWAKey* key, int32_t from, int32_t to, KWRData* member) {
    if (to == from || to == from + 1) {
        key->order.Set(from, MakeEntry(key, member));
        return;
    }
    key->order.Erase(from);
    key->order.Insert(to > from ? to - 1 : to, MakeEntry(key, member));
}

// A planned move of a member inside one key.
struct Move {
    KWAKey* key;
    int32_t from;
    int32_t to;
};

// Makes room in every key that a post will change, so that the changes that
// follow cannot fail half-way: -1 (nothing changed) when memory runs out.
int32_t ReserveKeys(KWAKey* const* keys, size_t count) {
    try {
        for (size_t i = 0; i < count; ++i) keys[i]->order.Reserve();
    } catch (const std::bad_alloc&) {
        LogNoMemory(KWA_TAG("KWARecPost"));
        return -1;
    }
    return 0;
}

int32_t ReserveMoves(const Move* moves, size_t count) {
    KWAKey* keys[kMaxKeys];
    for (size_t i = 0; i < count; ++i) keys[i] = moves[i].key;
    return ReserveKeys(keys, count);
}

// A new record: every check and every allocation comes before the first key
// changes, so a failure leaves the array as it was and the record with the
// caller.
int32_t PostNew(KWArray* array, KWRData* rec, KWRData** out) {
    if (array->store && UnpackForWrite(array) != 0) return -3;
    if (!EnsureKey0(array)) return -1;
    int32_t positions[kMaxKeys];
    KWAKey* keys[kMaxKeys];
    const size_t n = array->keys.size();
    for (size_t k = 0; k < n; ++k) {
        keys[k] = array->keys[k].get();
        if (!PlaceNew(keys[k], rec, &positions[k])) {
            LogDuplicate(KWA_TAG("KWARecPost"), k);
            return DuplicateCode(k);
        }
    }
    if (ReserveKeys(keys, n) != 0) return -1;
    if (rec::RecPack(&array->type, rec, 1, 0) == KWR_NOMEM) return -1;
    if (!InsertInKeys(array, rec, positions)) return -1;
    rec->editSource = MemberMark();
    ++array->changes;
    *out = rec;
    return 0;
}

// Gives a member the packed image of its working copy; the copy takes the
// member's old image (and its owned texts) and is freed with it.  Cannot
// fail.
void AdoptImage(KWArray* array, KWRData* member, KWRData* copy) {
    if (InStore(array, member)) {
        if (member->state != 0) ReleaseOwned(&array->type, member);  // texts of changes made in place
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
    Move moves[kMaxKeys];
    size_t count = 0;
    for (size_t k = 0; k < array->keys.size(); ++k) {
        KWAKey* key = array->keys[k].get();
        if (!Affected(key, copy)) continue;
        const int32_t from = FindMember(key, member);
        if (from < 0) {
            LogF(2, KWA_TAG("KWARecPost"), "member not found in key %zu", k);
            return -6;
        }
        int32_t to = 0;
        if (SeekRecord(key, copy, &to) && key->Unique() && key->order.At(to).rec != member) {
            LogDuplicate(KWA_TAG("KWARecPost"), k);
            return DuplicateCode(k);
        }
        moves[count++] = Move{key, from, to};
    }
    if (ReserveMoves(moves, count) != 0) return -1;
    if (rec::RecPack(&array->type, copy, 1, 0) == KWR_NOMEM) return -1;
    if (InStore(array, member) && copy->length != member->length) {
        Log(2, KWA_TAG("KWARecPost"), "image size differs from the stored one");
        return -2;
    }
    AdoptImage(array, member, copy);
    for (size_t i = 0; i < count; ++i) MoveMember(moves[i].key, moves[i].from, moves[i].to, member);
    ++array->changes;
    *out = member;
    return 0;
}

// A member changed in place.  Its new place in each key is sought with the
// member left out of the order, every duplicate found and the image packed
// before any key changes, so that a failure leaves every key as it was.
int32_t PostInPlace(KWArray* array, KWRData* member, KWRData** out) {
    *out = member;
    if (member->state == 0) return 0;
    Move moves[kMaxKeys];
    size_t count = 0;
    for (size_t k = 0; k < array->keys.size(); ++k) {
        KWAKey* key = array->keys[k].get();
        if (!Affected(key, member)) continue;
        const int32_t from = FindMember(key, member);
        if (from < 0) {
            LogF(2, KWA_TAG("KWARecPost"), "member not found in key %zu", k);
            return -6;
        }
        int32_t to = 0;
        if (SeekRecordExcept(key, member, from, &to) && key->Unique()) {
            LogDuplicate(KWA_TAG("KWARecPost"), k);
            return DuplicateCode(k);
        }
        // `to` counts positions without the member; as a position with it in
        // place, one past it when it lies at or after the old one.
        moves[count++] = Move{key, from, to >= from ? to + 1 : to};
    }
    if (ReserveMoves(moves, count) != 0) return -1;
    const int32_t rc = InStore(array, member)
                           ? RepackStored(array, member)
                           : (rec::RecPack(&array->type, member, 1, 0) == KWR_NOMEM ? -1 : 0);
    if (rc != 0) return rc;
    for (size_t i = 0; i < count; ++i) MoveMember(moves[i].key, moves[i].from, moves[i].to, member);
    ++array->changes;
    return 0;
}

}  // namespace

KWRData* RecNew(KWArray* array) {
    if (!array || !array->HasFields()) return nullptr;
    KWRData* rec = AllocRecord();
    if (!rec || rec::RecNew(&array->type, rec) != KWR_OK) {
        if (rec) FreeRecord(rec);
        LogNoMemory(KWA_TAG("KWARecNew"));
        return nullptr;
    }
    rec->typeId = array->fieldVersion;
    rec->owner = array;
    rec->editSource = nullptr;
    return rec;
}

KWRData* RecEdit(KWRData* member) {
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

int32_t RecPost(KWRData* record, KWRData** member) {
    KWRData* dummy = nullptr;
    KWRData** out = member ? member : &dummy;
    *out = nullptr;
    if (!record) return 0;
    auto* array = static_cast<KWArray*>(record->owner);
    if (!array || !record->image) return -1;
    if (!array->HasFields()) return -4;
    if (record->typeId != array->fieldVersion) return -5;
    if (!record->editSource) return PostNew(array, record, out);
    if (IsMember(record)) return PostInPlace(array, record, out);
    return PostCopy(array, record, out);
}

int32_t RecDel(KWRData* record) {
    if (!record) return 0;
    if (record->guard != 0) {
        // Its pointers cannot be trusted: nothing is freed or unlinked.
        rec::LogCorrupt(KWA_TAG("KWARecDel"));
        return -2;
    }
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
            LogF(2, KWA_TAG("KWARecDel"), "member not found in key %zu", k);
            return -6;
        }
    }
    for (size_t k = 0; k < array->keys.size(); ++k) array->keys[k]->order.Erase(positions[k]);
    FreeRecord(record);
    ++array->changes;
    return 0;
}

KWRData* RecAdd(KWArray* array, const KWRVal* cells) {
    if (!array) return nullptr;
    if (array->store) return RecAddPack(array, cells);
    KWRData* rec = RecNew(array);
    if (!rec) return nullptr;
    KWRData* member = nullptr;
    if (rec::SetRec(&array->type, rec, cells) != KWR_OK || RecPost(rec, &member) != 0) {
        RecDel(rec);
        return nullptr;
    }
    return member;
}

}  // namespace kwz::recarr
