// Internal interface of the record-array module (kwRecArr*.cpp): the array
// structure, the read-from-pack storage, and the helpers that the array,
// key, edit, seek, copy and pack files share.
#pragma once

#include <VomKwz.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "base/kwBase.h"
#include "base/kwMem.h"
#include "base/kwSearch.h"
#include "rec/kwKey.h"
#include "rec/kwRecCore.h"
#include "rec/kwRecord.h"
#include "rec/kwRecImage.h"

#define KWA_TAG(function) "Kwz.kwRecArr." function

namespace kwz::recarr {

// The edit-source value that marks a member of an array (all bits set).
inline KWRData* MemberMark() { return reinterpret_cast<KWRData*>(~uintptr_t{0}); }
inline bool IsMember(const KWRData* rec) { return rec->editSource == MemberMark(); }

// Read-from-pack storage.  Record blocks hold the members' KWRData
// structures, data blocks their images; both are chained newest first and
// allocated with malloc.
//
//   RecordBlock:  u64 used | u64 slots | next | KWRData[slots]
//   DataBlock:    u64 used | u64 capacity | next | image bytes[capacity]
struct RecordBlock {
    uint64_t used;
    uint64_t slots;
    RecordBlock* next;
    KWRData* Records() { return reinterpret_cast<KWRData*>(this + 1); }
};
struct DataBlock {
    uint64_t used;
    uint64_t capacity;
    DataBlock* next;
    uint8_t* Bytes() { return reinterpret_cast<uint8_t*>(this + 1); }
};

constexpr uint64_t kRecordBlockSlots = 4096;
constexpr uint64_t kBigImage = 0x100000;          // an image this big gets a block of its own
constexpr uint64_t kDataBlockLimit = 0x200000;    // largest data block made for small images
constexpr uint64_t kSingleDataBlock = 0x1FFFFF;   // above this, one block of exactly the total
constexpr uint64_t kImagesPerDataBlock = 2048;

struct PackStore {
    RecordBlock* records = nullptr;
    DataBlock* data = nullptr;
    uint64_t imageBytes = 0;  // bytes of the images of every stored record

    PackStore() = default;
    PackStore(const PackStore&) = delete;
    PackStore& operator=(const PackStore&) = delete;
    ~PackStore();

    RecordBlock* AddRecordBlock(uint64_t slots);  // null when out of memory
    DataBlock* AddDataBlock(uint64_t capacity);   // null when out of memory
};

// ---- the exported functions' cores (kwRecArrApi.cpp runs them at the C
// edge).  Arguments, results and ownership are those of the KWA... function
// of the same name; they may throw std::bad_alloc, with the array left as
// the header says for out of memory.

int32_t Create(KWArray** array, const KWRType* type);
void Destroy(KWArray* array);
KWRType* Type(KWArray* array);
int32_t FldAdd(KWArray* array, int32_t count, const KWRFieldDef* defs);
int32_t KeyAdd(KWArray* array, int32_t count, const KWAKeyDef* defs);
int32_t KeyDel(KWArray* array, int32_t key);
KWRData* RecNew(KWArray* array);
KWRData* RecEdit(KWRData* member);
int32_t RecPost(KWRData* record, KWRData** member);
int32_t RecDel(KWRData* record);
KWRData* RecAdd(KWArray* array, const KWRVal* cells);
KWRData* Rec(KWArray* array, int32_t key, int32_t index);
KWArray* RecArr(const KWRData* record);
int32_t RecCount(KWArray* array);
int32_t RecIdx(KWArray* array, int32_t key, const KWRData* record);
KWRData* RecSeek(KWArray* array, int32_t key, const KWRData* keyRecord, int32_t* position);
KWRData* RecSeekF(KWArray* array, int32_t key, KWACompareFn compare, void* searchKey, int32_t* position);
KWRData* RecSeekV(KWArray* array, int32_t key, const KWRVal* cells, int32_t* position);
int32_t RecSort(KWArray* array, int32_t key);
int32_t RecComp(void* key, void* a, void* b);
int32_t VarComp(void* key, void* member, void* cells);
int32_t ClearRec(KWArray* array);
int32_t ClearKey(KWArray* array);
int32_t ClearAll(KWArray* array);
int32_t Copy(KWArray* destination, KWArray* source, uint32_t options);
uint64_t Pack(KWArray* array, void** block);
uint64_t PackBuff(KWArray* array, void* buffer);
// Both unpackers leave the array as it was unless the whole table made one:
// the size, 0 when the table does not make an array, -1 out of memory.  A
// record image shorter than 6 bytes makes a table that does not.
int64_t Unpack(KWArray* array, const void* table);
int64_t UnpackForRead(KWArray* array, const void* table);
int32_t PackForRead(KWArray* array);
KWRData* RecAddPack(KWArray* array, const KWRVal* cells);
// The size, -1 out of memory or null array, -2 a malformed table (nothing
// read at or past table + length) or a null table.
int64_t UnpackChecked(KWArray* array, const void* table, uint64_t length, bool forRead);

}  // namespace kwz::recarr

struct KWArray {
    KWRType type;  // "KWA", id 1: the fields
    std::vector<std::unique_ptr<KWAKey>> keys;
    uint32_t fieldVersion = 0;
    uint32_t changes = 0;  // posts and deletes since the last KWAClearRec
    std::unique_ptr<kwz::recarr::PackStore> store;  // read-from-pack mode when set
    // 1 when a field is "CM" or "CB".  Nothing reads it to decide what to do;
    // KWACopy leaves it 0 in one case, which is kept (see kwRecArrCopy.cpp).
    uint8_t variable = 0;

    int32_t KeyCount() const { return static_cast<int32_t>(keys.size()); }
    bool HasFields() const { return type.fieldCount > 0; }
    KWAKey* Key(int32_t k) { return k >= 0 && k < KeyCount() ? keys[static_cast<size_t>(k)].get() : nullptr; }
};

namespace kwz::recarr {

// ---- comparators and prefixes (kwRecArrComp.cpp) --------------------------

int32_t CompareRecords(const KWAKey* key, const KWRData* a, const KWRData* b);
// As CompareRecords, but NaN orders after every number: the consistent
// order that sorting needs.
int32_t CompareRecordsForSort(const KWAKey* key, const KWRData* a, const KWRData* b);
int32_t CompareCells(const KWAKey* key, const KWRData* member, const KWRVal* cells);
uint64_t RecordPrefix(const KWAKey* key, const KWRData* rec);
uint64_t CellPrefix(const KWAKey* key, const KWRVal* cells);
// Re-reads offsets and types of the key's fields from the array's type and
// chooses the key's prefix mode.
void RefreshKeyFields(KWAKey* key, const KWRType* type);

inline Entry MakeEntry(const KWAKey* key, KWRData* rec) {
    return Entry{rec, key->prefixMode != PrefixMode::kNone ? RecordPrefix(key, rec) : 0};
}

// The comparison of two prefixes in key direction, or kUndecided when they
// cannot decide (equal prefixes of a partial key).
inline int32_t ComparePrefix(const KWAKey* key, uint64_t member, uint64_t search) {
    if (member != search) {
        const int32_t c = member < search ? -1 : 1;
        return key->Descending() ? -c : c;
    }
    return key->prefixMode == PrefixMode::kExact ? 0 : kUndecided;
}

// ---- seeking (kwRecArrSeek.cpp) -------------------------------------------

// Binary search over a key's order with exactly KWLSeek's rule (one search,
// kwz::SeekSorted).  cmp(const Entry&) compares a member with the search key.
template <typename Cmp>
bool SeekOrder(const KWAKey* key, Cmp&& cmp, int32_t* position) {
    return SeekSorted(key->order.Size(), key->Unique(),
                      [&](int32_t mid) { return cmp(key->order.At(mid)); }, position);
}

// A seek with KWLSeek's result, faster where the order is known to be
// sorted by a consistent comparison (a maintained key without floating
// fields, see KWAKey::SortedSeek).  On such an order the binary search ends
// at the lower bound, and found means the member there is equal; only a
// Unique key's early stop depends on the probe sequence, and only when
// equal members sit side by side, which is checked and then searched the
// long way.  pcmp(prefix) and cmp(entry) compare a member with the key.
template <typename PrefixCmp, typename Cmp>
bool SeekKey(const KWAKey* key, PrefixCmp&& pcmp, Cmp&& cmp, int32_t* position) {
    auto compare = [&](const Entry& e) {
        const int32_t c = pcmp(e.prefix);
        return c != kUndecided ? c : cmp(e);
    };
    if (!key->SortedSeek()) return SeekOrder(key, compare, position);
    const KeyOrder& order = key->order;
    const int32_t n = order.Size();
    const int32_t pos = order.LowerBound(pcmp, cmp);
    const bool found = pos < n && compare(order.At(pos)) == 0;
    if (found && key->Unique() && pos + 1 < n && compare(order.At(pos + 1)) == 0)
        return SeekOrder(key, compare, position);
    *position = pos;
    return found;
}

// Seek of a key with fields by a record's key values.
bool SeekRecord(const KWAKey* key, const KWRData* keyRecord, int32_t* position);
// SeekRecord over the key's order as if the entry at `skip` were not there:
// where a member changed in place goes once it has left its old position.
bool SeekRecordExcept(const KWAKey* key, const KWRData* keyRecord, int32_t skip, int32_t* position);
// Position of a member in the key (KWARecIdx), or -1.
int32_t FindMember(const KWAKey* key, const KWRData* rec);
// Where a new record goes under the post rules; false (and *position set to
// the match) when a Unique key already holds equal values.
bool PlaceNew(const KWAKey* key, const KWRData* rec, int32_t* position);
// Inserts rec into every key at the positions PlaceNew found (one per key);
// false, with no key changed, when memory runs out.
bool InsertInKeys(KWArray* array, KWRData* rec, const int32_t* positions);

// ---- keys (kwRecArrKey.cpp) -----------------------------------------------

// A key expression taken apart: spaces removed, field numbers in order.
struct ParsedKey {
    char expression[kExpressionSize] = {};
    int32_t fieldCount = 0;
    uint32_t fieldNumbers[kMaxKeyFields] = {};
};
// 0, or -3 for a name longer than 63 characters, a name the type lacks or
// more than six names (logged under tag when it is not null).
int32_t ParseKeyExpression(const KWRType* type, const char* expression, ParsedKey* out, const char* tag);
// Adds one key filled from key 0 (sorted when it has fields and members):
// 0 or -3; std::bad_alloc leaves the array without the new key.
int32_t AddKey(KWArray* array, const char* expression, uint32_t options, const char* tag);
// Makes the empty key 0 of an array without keys; false when out of memory.
bool EnsureKey0(KWArray* array);
// Sorts a key's members with QuickSort and the record comparator, prefixes
// refreshed.  Throws std::bad_alloc (the key is then unchanged).
void SortKey(KWAKey* key);
// Marks a key whose order came from outside (an unpacked table, a copy) as
// unsorted when it is, so that seeks keep to the plain binary search there.
void CheckSorted(KWAKey* key);
// Gives every key after key 0 a copy of key 0's order; sorted when `sort`
// and the key has more than one member (and fields, when `needFields`).
// Throws std::bad_alloc.
void RebuildKeysFromKey0(KWArray* array, bool needFields);

// ---- records and fields (kwRecArr.cpp) -------------------------------------

KWRData* AllocRecord();          // a zeroed KWRData from malloc, or null
void FreeRecord(KWRData* rec);   // KWRRecFree and the structure
// Copies image and structure of rec into a new individually owned record
// (state 0); null when out of memory.
KWRData* CloneRecord(const KWRData* rec);
void ClearRecords(KWArray* array);
// Replaces the array's fields by defs (count of them): 0, -1, -3.
int32_t SetFields(KWArray* array, int32_t count, const KWRFieldDef* defs);
void LogNoMemory(const char* tag);
// Replaces the contents of `array` by those of `fresh` (an array just filled
// by an unpacker or a copy), whose old contents go to `fresh` to be
// destroyed with it; members and keys are pointed at `array`, and the field
// version moves on so that the old contents' working records are refused.
// Cannot fail.
void TakeOver(KWArray* array, KWArray* fresh);

// ---- read-from-pack storage (kwRecArrStore.cpp) ----------------------------

// True when the member's image lives in a data block.
inline bool InStore(const KWArray* array, const KWRData* rec) { return array->store && IsMember(rec); }
// Frees the storage, and the owned text blocks of stored records that were
// changed in place.
void FreeStore(KWArray* array);
// Frees the owned text blocks of a stored record changed in place, leaving
// its "CM"/"CB" slots empty; the image itself stays.
void ReleaseOwned(const KWRType* type, KWRData* rec);
// The packed image of any member, without changing a stored one: a stored
// record that needs packing is packed through a scratch copy.  Individual
// records are packed in place with KWRRecPack(type, rec, 0, 0).  Null when
// out of memory.
const uint8_t* PackedImageOf(KWArray* array, KWRData* rec, std::vector<uint8_t>& scratch,
                             uint32_t* length);
// Packs a stored member changed in place (clearing edited bits) into its own
// place: 0, -1, -2 when the packed image would not be the same length.
int32_t RepackStored(KWArray* array, KWRData* rec);
int32_t UnpackForWrite(KWArray* array);

// ---- packed tables (kwRecArrPack.cpp) ---------------------------------------

// The header of a packed table, either layout.
struct TableHeader {
    uint32_t fieldCount = 0;
    uint32_t keyCount = 0;
    uint32_t recordCount = 0;
    uint64_t total = 0;
    uint32_t descriptors = 0;  // offset of the first field descriptor
};
// Reads the magic and header; false when the magic is wrong or (when
// length is given) the header does not fit.
bool ReadTableHeader(const uint8_t* table, uint64_t length, TableHeader* header);

}  // namespace kwz::recarr
