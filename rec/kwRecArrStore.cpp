// Read-from-pack storage: members whose structures share record blocks and
// whose images share data blocks (see kwRecArr.h for the block layouts), so
// that a large table opens with two allocations instead of two per record.
// The first post of a new record or delete converts the array back
// (UnpackForWrite); posting a working copy writes its image into place when
// the length is unchanged.
//
// Converting in either direction replaces every member structure: pointers
// to members (and working copies of them) taken before a conversion must not
// be used after it.
#include <cstdlib>
#include <cstring>
#include <new>

#include "rec/kwRecArr.h"

namespace kwz::recarr {

namespace {

using rec::kOwnedBit;

}  // namespace

void ReleaseOwned(const KWRType* type, KWRData* rec) {
    for (uint32_t i = 0; i < type->fieldCount; ++i) {
        const KWRField* f = &type->fields[i];
        if (!rec::IsVarType(f->type)) continue;
        uint8_t* header = rec::HeaderByte(f, rec->image);
        if (!(*header & kOwnedBit)) continue;
        kwz::MemFree(rec::LoadBlock(rec::ValuePtr(f, rec->image)));
        *header = static_cast<uint8_t>(*header & ~kOwnedBit);
        std::memset(rec::ValuePtr(f, rec->image), 0, 8);
    }
}

namespace {

// An individually owned copy of a stored record, owned text blocks
// duplicated too, so that packing the copy leaves the original intact.
KWRData* DeepClone(const KWRType* type, const KWRData* rec) {
    KWRData* copy = CloneRecord(rec);
    if (!copy) return nullptr;
    copy->state = rec->state;
    copy->editSource = nullptr;
    for (uint32_t i = 0; i < type->fieldCount; ++i) {
        const KWRField* f = &type->fields[i];
        if (!rec::IsVarType(f->type) || !(*rec::HeaderByte(f, copy->image) & kOwnedBit)) continue;
        uint8_t* value = rec::ValuePtr(f, copy->image);
        const uint8_t* block = rec::LoadBlock(value);
        uint8_t* dup = nullptr;
        if (block) {
            const size_t bytes = rec::kBlockHead + LoadU32(block);
            dup = static_cast<uint8_t*>(kwz::MemAlloc(bytes));
            if (dup) std::memcpy(dup, block, bytes);
        }
        rec::StoreBlock(value, dup);
        if (block && !dup) {
            // Undo: the blocks duplicated so far belong to the copy.
            *rec::HeaderByte(f, copy->image) = static_cast<uint8_t>(*rec::HeaderByte(f, copy->image) & ~kOwnedBit);
            for (uint32_t j = i + 1; j < type->fieldCount; ++j) {
                const KWRField* g = &type->fields[j];
                if (rec::IsVarType(g->type))
                    *rec::HeaderByte(g, copy->image) = static_cast<uint8_t>(*rec::HeaderByte(g, copy->image) & ~kOwnedBit);
            }
            FreeRecord(copy);
            return nullptr;
        }
    }
    return copy;
}

// Moves the newest data block to its used size; records pointing into it
// follow when it moves.
void ShrinkNewestData(PackStore* store) {
    DataBlock* block = store->data;
    if (!block || block->used == block->capacity) return;
    const uintptr_t oldBytes = reinterpret_cast<uintptr_t>(block->Bytes());
    const uint64_t used = block->used;
    auto* moved = static_cast<DataBlock*>(kwz::MemReAlloc(block, sizeof(DataBlock) + used));
    if (!moved) return;  // keeping the spare room is harmless
    moved->capacity = used;
    store->data = moved;
    const uintptr_t newBytes = reinterpret_cast<uintptr_t>(moved->Bytes());
    if (newBytes == oldBytes) return;
    for (RecordBlock* rb = store->records; rb; rb = rb->next) {
        KWRData* recs = rb->Records();
        for (uint64_t i = 0; i < rb->used; ++i) {
            const uintptr_t at = reinterpret_cast<uintptr_t>(recs[i].image);
            if (at >= oldBytes && at < oldBytes + used)
                recs[i].image = reinterpret_cast<uint8_t*>(newBytes + (at - oldBytes));
        }
    }
}

// Capacity of a data block made for a new image of `need` bytes: a big
// image gets exactly its size; otherwise room for about 2,048 images of the
// average size so far (or of the type's data length), at most 0x200000.
uint64_t NewDataCapacity(const KWArray* array, uint64_t need) {
    if (need > kBigImage) return need;
    const int32_t n = array->keys.empty() ? 0 : array->keys[0]->order.Size();
    const uint64_t base = n > 0 ? array->store->imageBytes / static_cast<uint64_t>(n) + 1 : array->type.dataLength;
    uint64_t cap = kImagesPerDataBlock * base;
    if (cap > kDataBlockLimit) cap = kDataBlockLimit;
    return cap > need ? cap : need;
}

// Points every key entry at the structure its record's edit source
// forwards to (set by a conversion just before).
void ForwardEntries(KWArray* array) {
    for (auto& key : array->keys) key->order.ForEach([](Entry& e) { e.rec = e.rec->editSource; });
}

}  // namespace

PackStore::~PackStore() {
    while (records) {
        RecordBlock* next = records->next;
        kwz::MemFree(records);
        records = next;
    }
    while (data) {
        DataBlock* next = data->next;
        kwz::MemFree(data);
        data = next;
    }
}

RecordBlock* PackStore::AddRecordBlock(uint64_t slots) {
    auto* block = static_cast<RecordBlock*>(kwz::MemAlloc(sizeof(RecordBlock) + slots * sizeof(KWRData)));
    if (!block) return nullptr;
    block->used = 0;
    block->slots = slots;
    block->next = records;
    records = block;
    return block;
}

DataBlock* PackStore::AddDataBlock(uint64_t capacity) {
    auto* block = static_cast<DataBlock*>(kwz::MemAlloc(sizeof(DataBlock) + capacity));
    if (!block) return nullptr;
    block->used = 0;
    block->capacity = capacity;
    block->next = data;
    data = block;
    return block;
}

void FreeStore(KWArray* array) {
    if (!array->store) return;
    for (RecordBlock* rb = array->store->records; rb; rb = rb->next) {
        KWRData* recs = rb->Records();
        for (uint64_t i = 0; i < rb->used; ++i)
            if (recs[i].state != 0) ReleaseOwned(&array->type, &recs[i]);
    }
    array->store.reset();
}

const uint8_t* PackedImageOf(KWArray* array, KWRData* rec, std::vector<uint8_t>& scratch, uint32_t* length) {
    if (!InStore(array, rec)) {
        if (rec::RecPack(&array->type, rec, 0, 0) == KWR_NOMEM) return nullptr;
        *length = rec->length;
        return rec->image;
    }
    if (rec->state == 0) {
        *length = rec->length;
        return rec->image;
    }
    KWRData* copy = DeepClone(&array->type, rec);
    if (!copy || rec::RecPack(&array->type, copy, 0, 0) == KWR_NOMEM) {
        if (copy) FreeRecord(copy);
        return nullptr;
    }
    scratch.assign(copy->image, copy->image + copy->length);
    *length = copy->length;
    FreeRecord(copy);
    return scratch.data();
}

int32_t RepackStored(KWArray* array, KWRData* rec) {
    if (rec->state == 0) return 0;
    KWRData* copy = DeepClone(&array->type, rec);
    if (!copy || rec::RecPack(&array->type, copy, 1, 0) == KWR_NOMEM) {
        if (copy) FreeRecord(copy);
        return -1;
    }
    if (copy->length != rec->length) {
        FreeRecord(copy);
        Log(2, KWA_TAG("KWARecPost"), "image size differs from the stored one");
        return -2;
    }
    ReleaseOwned(&array->type, rec);
    std::memcpy(rec->image, copy->image, copy->length);
    rec->flags = copy->flags;
    rec->state = 0;
    FreeRecord(copy);
    return 0;
}

// All or nothing: every copy is made before any structure is replaced, so a
// failed allocation leaves the array as it was.  Owned text blocks of
// records changed in place move to their copies with the image bytes.
int32_t UnpackForWrite(KWArray* array) {
    if (!array->store) return 0;
    std::vector<KWRData*> copies;
    const int32_t n = array->keys.empty() ? 0 : array->keys[0]->order.Size();
    try {
        copies.reserve(static_cast<size_t>(n));
    } catch (const std::bad_alloc&) {
        return -1;
    }
    for (int32_t i = 0; i < n; ++i) {
        KWRData* old = array->keys[0]->order.At(i).rec;
        KWRData* copy = CloneRecord(old);
        if (!copy) {
            for (KWRData* c : copies) {
                kwz::MemFree(c->image);  // not FreeRecord: owned blocks still belong to the stored records
                kwz::MemFree(c);
            }
            LogNoMemory(KWA_TAG("KWAUnpackForWrite"));
            return -1;
        }
        copy->state = old->state;
        copies.push_back(copy);
    }
    for (int32_t i = 0; i < n; ++i) array->keys[0]->order.At(i).rec->editSource = copies[static_cast<size_t>(i)];
    ForwardEntries(array);
    array->store.reset();
    return 0;
}


int32_t PackForRead(KWArray* array) {
    if (!array) return -1;
    if (array->store) return 0;
    if (!array->HasFields()) return -4;
    std::vector<KWRData*> olds;  // std::bad_alloc here changes nothing
    if (!array->keys.empty()) array->keys[0]->order.ForEach([&](Entry& e) { olds.push_back(e.rec); });
    const uint64_t n = olds.size();
    uint64_t total = 0;
    for (KWRData* rec : olds) {
        if (rec::RecPack(&array->type, rec, 0, 0) == KWR_NOMEM) return -1;
        total += rec->length;
    }
    // Above 0x1FFFFF bytes the images get one block of exactly their size.
    // Smaller totals get the room that KWARecAddPack would give a new block,
    // so that the first additions need no block of their own.
    uint64_t capacity = total;
    if (total <= kSingleDataBlock) {
        uint64_t room = kImagesPerDataBlock * (n > 0 ? total / n + 1 : array->type.dataLength);
        if (room > kDataBlockLimit) room = kDataBlockLimit;
        if (room > capacity) capacity = room;
    }
    auto store = std::make_unique<PackStore>();
    RecordBlock* rb = store->AddRecordBlock(n > kRecordBlockSlots ? n : kRecordBlockSlots);
    DataBlock* db = rb ? store->AddDataBlock(capacity) : nullptr;
    if (!db) {
        LogNoMemory(KWA_TAG("KWAPackForRead"));
        return -1;
    }
    KWRData* slots = rb->Records();
    for (uint64_t i = 0; i < n; ++i) {
        KWRData* old = olds[i];
        KWRData* slot = &slots[i];
        *slot = *old;
        slot->image = db->Bytes() + db->used;
        std::memcpy(slot->image, old->image, old->length);
        db->used += old->length;
        old->editSource = slot;
    }
    rb->used = n;
    store->imageBytes = total;
    ForwardEntries(array);
    for (KWRData* old : olds) FreeRecord(old);
    array->store = std::move(store);
    return 0;
}

KWRData* RecAddPack(KWArray* array, const KWRVal* cells) {
    static constexpr const char* kTag = KWA_TAG("KWARecAddPack");
    if (!array || !array->HasFields()) return nullptr;
    if (!array->store && PackForRead(array) != 0) return nullptr;
    if (!EnsureKey0(array)) return nullptr;
    PackStore* store = array->store.get();
    uint32_t size = 0;
    if (rec::SetBuff(&array->type, nullptr, cells, &size) != KWR_OK) return nullptr;
    if (!store->records || store->records->used == store->records->slots) {
        if (!store->AddRecordBlock(kRecordBlockSlots)) {
            LogNoMemory(kTag);
            return nullptr;
        }
    }
    if (!store->data || store->data->capacity - store->data->used < size) {
        ShrinkNewestData(store);
        if (!store->AddDataBlock(NewDataCapacity(array, size))) {
            LogNoMemory(kTag);
            return nullptr;
        }
    }
    RecordBlock* rb = store->records;
    DataBlock* db = store->data;
    uint8_t* image = db->Bytes() + db->used;
    if (rec::SetBuff(&array->type, image, cells, &size) != KWR_OK) return nullptr;
    // Members carry no edited bits, as a post leaves them.
    for (uint32_t i = 0; i < array->type.fieldCount; ++i) {
        uint8_t* header = kwz::rec::HeaderByte(&array->type.fields[i], image);
        *header = static_cast<uint8_t>(*header & ~kwz::rec::kEditBit);
    }
    KWRData* rec = rb->Records() + rb->used;
    rec::RecInit(rec);
    rec->length = size;
    rec->image = image;
    rec->flags = image[4];
    rec->fieldCount = image[5];
    rec->typeId = array->fieldVersion;
    rec->owner = array;
    rec->editSource = MemberMark();
    // Placed as a post places a new record: NonMaintained keys and keys
    // without fields at the end (the front when Descending), others at
    // their seek position; a Unique key holding equal values refuses it.
    int32_t positions[kMaxKeys];
    for (size_t k = 0; k < array->keys.size(); ++k) {
        if (!PlaceNew(array->keys[k].get(), rec, &positions[k])) {
            LogF(3, kTag, "duplicate values under unique key %zu", k);
            return nullptr;
        }
    }
    if (!InsertInKeys(array, rec, positions)) {
        LogNoMemory(kTag);
        return nullptr;
    }
    ++rb->used;
    db->used += size;
    store->imageBytes += size;
    ++array->changes;
    return rec;
}

}  // namespace kwz::recarr
