// Positions and seeks in record-array keys.
//
// Every seek runs KWLSeek's binary search itself, over the key's blocked
// order (kwRecArrOrder.h), so that callers see exactly the positions that the
// plain pointer list gave: mid = (lo + hi) >> 1, a Unique key stops at the
// first match met, the position is lo.  The members' 64-bit prefixes decide
// most probes without reading their images.
#include <new>

#include "rec/kwRecArr.h"

namespace kwz::recarr {

namespace {

// Below this many members a key is searched for a pointer linearly.
constexpr int32_t kLinearBelow = 64;

bool AnyKeyFieldEdited(const KWAKey* key, const KWRData* rec) {
    if (!rec->image) return false;
    for (int32_t i = 0; i < key->fieldCount; ++i)
        if (rec->image[key->fields[i].offset - 1] & rec::kEditBit) return true;
    return false;
}

// A member against a key record, prefixes first.
int32_t CompareEntry(const KWAKey* key, const Entry& e, uint64_t prefix, const KWRData* keyRecord) {
    if (key->prefixMode != PrefixMode::kNone) {
        const int32_t c = ComparePrefix(key, e.prefix, prefix);
        if (c != kUndecided) return c;
    }
    return CompareRecords(key, e.rec, keyRecord);
}

// The common frame of the three public seeks: key checks, the answer for a
// key without fields, the member at a found position.
template <typename Seek>
KWRData* SeekPublic(KWArray* array, int32_t k, int32_t* position, Seek&& seek) {
    int32_t pos = -1;
    KWRData* found = nullptr;
    KWAKey* key = array ? array->Key(k) : nullptr;
    if (key) {
        if (key->fieldCount == 0) {
            pos = key->Descending() ? 0 : key->order.Size();
        } else if (seek(key, &pos)) {
            found = key->order.At(pos).rec;
        }
    }
    if (position) *position = pos;
    return found;
}

}  // namespace

bool SeekRecord(const KWAKey* key, const KWRData* keyRecord, int32_t* position) {
    const bool usePrefix = key->prefixMode != PrefixMode::kNone;
    const uint64_t prefix = usePrefix ? RecordPrefix(key, keyRecord) : 0;
    return SeekKey(
        key, [&](uint64_t p) { return usePrefix ? ComparePrefix(key, p, prefix) : kUndecided; },
        [&](const Entry& e) { return CompareRecords(key, e.rec, keyRecord); }, position);
}

bool SeekRecordExcept(const KWAKey* key, const KWRData* keyRecord, int32_t skip, int32_t* position) {
    const bool usePrefix = key->prefixMode != PrefixMode::kNone;
    const uint64_t prefix = usePrefix ? RecordPrefix(key, keyRecord) : 0;
    const KeyOrder& order = key->order;
    auto cmp = [&](int32_t mid) {
        return CompareEntry(key, order.At(mid < skip ? mid : mid + 1), prefix, keyRecord);
    };
    return SeekSorted(order.Size() - 1, key->Unique(), cmp, position);
}

// A linear search by pointer where the order cannot be trusted to lead to
// the record (no fields, not maintained, a key field being changed) or is
// too short to bother; otherwise a seek by the record's own values and a
// forward scan over the equal members.  Should the record not be among them
// (an order disturbed by changes made behind the array's back), the linear
// search still finds it.
int32_t FindMember(const KWAKey* key, const KWRData* rec) {
    const KeyOrder& order = key->order;
    const int32_t n = order.Size();
    if (key->fieldCount == 0 || !key->Maintained() || n < kLinearBelow ||
        (rec->state != 0 && AnyKeyFieldEdited(key, rec))) {
        return order.IndexOf(rec);
    }
    int32_t pos = 0;
    SeekRecord(key, rec, &pos);
    const uint64_t prefix = key->prefixMode != PrefixMode::kNone ? RecordPrefix(key, rec) : 0;
    for (; pos < n; ++pos) {
        const Entry& e = order.At(pos);
        if (e.rec == rec) return pos;
        if (CompareEntry(key, e, prefix, rec) != 0) break;
    }
    return order.IndexOf(rec);
}

bool PlaceNew(const KWAKey* key, const KWRData* rec, int32_t* position) {
    const int32_t n = key->order.Size();
    if (!key->Maintained()) {
        *position = n;
        return true;
    }
    if (key->fieldCount == 0) {
        *position = key->Descending() ? 0 : n;
        return true;
    }
    return !(SeekRecord(key, rec, position) && key->Unique());
}

bool InsertInKeys(KWArray* array, KWRData* rec, const int32_t* positions) {
    size_t done = 0;
    try {
        for (; done < array->keys.size(); ++done) {
            KWAKey* key = array->keys[done].get();
            key->order.Insert(positions[done], MakeEntry(key, rec));
        }
    } catch (const std::bad_alloc&) {
        while (done-- > 0) array->keys[done]->order.Erase(positions[done]);
        return false;
    }
    return true;
}


KWRData* Rec(KWArray* array, int32_t key, int32_t index) {
    KWAKey* k = array ? array->Key(key) : nullptr;
    if (!k || index < 0 || index >= k->order.Size()) return nullptr;
    return k->order.At(index).rec;
}

int32_t RecIdx(KWArray* array, int32_t key, const KWRData* record) {
    KWAKey* k = array ? array->Key(key) : nullptr;
    if (!k || !record || record->owner != array || !IsMember(record)) return -1;
    return FindMember(k, record);
}

KWRData* RecSeek(KWArray* array, int32_t key, const KWRData* keyRecord, int32_t* position) {
    if (!keyRecord || !keyRecord->image || !array || keyRecord->length < array->type.dataLength) {
        if (position) *position = -1;
        return nullptr;
    }
    return SeekPublic(array, key, position,
                      [&](KWAKey* k, int32_t* pos) { return SeekRecord(k, keyRecord, pos); });
}

KWRData* RecSeekF(KWArray* array, int32_t key, KWACompareFn compare, void* searchKey,
                             int32_t* position) {
    if (!compare) {
        if (position) *position = -1;
        return nullptr;
    }
    return SeekPublic(array, key, position, [&](KWAKey* k, int32_t* pos) {
        return SeekOrder(k, [&](const Entry& e) { return compare(k, e.rec, searchKey); }, pos);
    });
}

KWRData* RecSeekV(KWArray* array, int32_t key, const KWRVal* cells, int32_t* position) {
    return SeekPublic(array, key, position, [&](KWAKey* k, int32_t* pos) {
        const bool usePrefix = k->prefixMode != PrefixMode::kNone;
        const uint64_t prefix = usePrefix ? CellPrefix(k, cells) : 0;
        return SeekKey(
            k, [&](uint64_t p) { return usePrefix ? ComparePrefix(k, p, prefix) : kUndecided; },
            [&](const Entry& e) { return CompareCells(k, e.rec, cells); }, pos);
    });
}

}  // namespace kwz::recarr
