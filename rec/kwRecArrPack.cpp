// The packed table "#RA2": a whole record array (fields, keys, records) in
// one self-contained block, and its rebuild.
//
//   offset  size
//   0       4     magic 0x23 0x52 0x41 '2'  ("#RA2")
//   4       1     field count F
//   5       1     key count K
//   6       4     record count R
//   10      4     total size of the table
//   14      4     reserved, 0
//   18            F x { name, 0 byte, width (u8: capacity for "CH"), type (u8) }
//                 K x { expression, 0 byte, options (u32) }
//                 R x record image (packed; its first u32 is its length),
//                     in key-0 order
//
// The older layout, still read: any version byte other than '2', the total
// as a u64 at 10, reserved u32 at 18, descriptors from 22.  Integers are
// little-endian and unaligned.  See doc/formats/packed-table.md.
#include <cstdlib>
#include <cstring>
#include <new>

#include "rec/kwRecArr.h"

namespace kwz::recarr {

namespace {

constexpr uint8_t kMagic[4] = {0x23, 0x52, 0x41, '2'};
constexpr uint32_t kHeader = 18;
constexpr uint32_t kOldHeader = 22;

// The table's size, packing every record first; 0 when one cannot be
// packed or the size does not fit the u32 total of the layout.
uint64_t TableSize(KWArray* array) {
    uint64_t size = kHeader;
    for (uint32_t i = 0; i < array->type.fieldCount; ++i) size += std::strlen(array->type.fields[i].name) + 3;
    for (const auto& key : array->keys) size += std::strlen(key->expression) + 5;
    if (!array->keys.empty()) {
        std::vector<uint8_t> scratch;
        KeyOrder& order = array->keys[0]->order;
        for (int32_t i = 0; i < order.Size(); ++i) {
            uint32_t length = 0;
            if (!PackedImageOf(array, order.At(i).rec, scratch, &length)) {
                LogNoMemory(KWA_TAG("KWAPack"));
                return 0;
            }
            size += length;
        }
    }
    if (size > UINT32_MAX) {
        LogMessage(2, KWA_TAG("KWAPack"), "table larger than 4 GiB");
        return 0;
    }
    return size;
}

// Writes the table of `size` bytes (from TableSize) into out; false when a
// record cannot be packed.
bool WriteTable(KWArray* array, uint8_t* out, uint64_t size) {
    std::memset(out, 0, size);
    std::memcpy(out, kMagic, 4);
    const int32_t records = array->keys.empty() ? 0 : array->keys[0]->order.Size();
    out[4] = array->type.fieldCount;
    out[5] = static_cast<uint8_t>(array->keys.size());
    StoreU32(out + 6, static_cast<uint32_t>(records));
    StoreU32(out + 10, static_cast<uint32_t>(size));
    uint8_t* p = out + kHeader;
    for (uint32_t i = 0; i < array->type.fieldCount; ++i) {
        const KWRField& f = array->type.fields[i];
        const size_t n = std::strlen(f.name);
        std::memcpy(p, f.name, n + 1);
        p += n + 1;
        *p++ = static_cast<uint8_t>(f.width);
        *p++ = f.type;
    }
    for (const auto& key : array->keys) {
        const size_t n = std::strlen(key->expression);
        std::memcpy(p, key->expression, n + 1);
        p += n + 1;
        StoreU32(p, key->options);
        p += 4;
    }
    std::vector<uint8_t> scratch;
    for (int32_t i = 0; i < records; ++i) {
        uint32_t length = 0;
        const uint8_t* image = PackedImageOf(array, array->keys[0]->order.At(i).rec, scratch, &length);
        if (!image || p + length > out + size) return false;
        std::memcpy(p, image, length);
        p += length;
    }
    return true;
}

struct KeyDescriptor {
    const char* expression;
    uint32_t options;
};

// Steps shared by both unpackers: clear the array, add the fields, read the
// key descriptors and add the first key.  Returns the offset of the first
// record image, or 0 on failure; *keys gets the descriptors.
uint64_t UnpackHead(KWArray* array, const uint8_t* table, const TableHeader& h,
                    std::vector<KeyDescriptor>* keys) {
    KWAClearAll(array);
    uint64_t pos = h.descriptors;
    std::vector<KWRFieldDef> defs(h.fieldCount);
    for (auto& d : defs) {
        const auto* name = reinterpret_cast<const char*>(table + pos);
        const size_t n = std::strlen(name);
        std::memset(&d, 0, sizeof d);
        std::memcpy(d.name, name, n < sizeof d.name ? n : sizeof d.name - 1);
        pos += n + 1;
        d.width = table[pos++];
        d.type = table[pos++];
    }
    if (h.fieldCount && KWAFldAdd(array, static_cast<int32_t>(h.fieldCount), defs.data()) != 0) return 0;
    for (uint32_t k = 0; k < h.keyCount; ++k) {
        const auto* expression = reinterpret_cast<const char*>(table + pos);
        pos += std::strlen(expression) + 1;
        keys->push_back(KeyDescriptor{expression, LoadU32(table + pos)});
        pos += 4;
    }
    if (keys->empty()) return pos;
    if (AddKey(array, (*keys)[0].expression, (*keys)[0].options, KWA_TAG("KWAUnpack")) != 0) return 0;
    return pos;
}

// The remaining keys, each sorted from key 0 by KWAKeyAdd's rule.
bool UnpackTail(KWArray* array, const std::vector<KeyDescriptor>& keys) {
    for (size_t k = 1; k < keys.size() && array->KeyCount() < kMaxKeys; ++k)
        if (AddKey(array, keys[k].expression, keys[k].options, KWA_TAG("KWAUnpack")) != 0) return false;
    array->changes = 0;
    return true;
}

uint64_t Unpack(KWArray* array, const uint8_t* table) {
    TableHeader h;
    if (!ReadTableHeader(table, UINT64_MAX, &h)) return 0;
    std::vector<KeyDescriptor> keys;
    uint64_t pos = UnpackHead(array, table, h, &keys);
    if (pos == 0) return 0;
    if (keys.empty()) {
        // The records of a table without keys are not read.
        array->changes = 0;
        return h.total;
    }
    if (h.recordCount && !array->HasFields()) return 0;  // no record can be made
    KWAKey* key0 = array->keys[0].get();
    std::vector<Entry> entries;
    entries.reserve(h.recordCount);
    auto fail = [&] {
        for (auto& e : entries) FreeRecord(e.rec);
        LogNoMemory(KWA_TAG("KWAUnpack"));
        return uint64_t{0};
    };
    for (uint32_t i = 0; i < h.recordCount; ++i) {
        const uint32_t length = LoadU32(table + pos);
        KWRData* rec = AllocRecord();
        auto* image = rec ? static_cast<uint8_t*>(std::malloc(length < 6 ? 6 : length)) : nullptr;
        if (!image) {
            std::free(rec);
            return fail();
        }
        std::memcpy(image, table + pos, length);
        pos += length;
        if (KWRRecSet(rec, image) != KWR_OK) {
            std::free(image);
            std::free(rec);
            for (auto& e : entries) FreeRecord(e.rec);
            return 0;
        }
        rec->typeId = array->fieldVersion;
        rec->owner = array;
        rec->editSource = MemberMark();
        entries.push_back(MakeEntry(key0, rec));
    }
    // The images come in key-0 order: appending puts each at its place.
    try {
        key0->order.Assign(entries.data(), static_cast<int32_t>(entries.size()));
    } catch (const std::bad_alloc&) {
        return fail();
    }
    CheckSorted(key0);
    if (!UnpackTail(array, keys)) return 0;
    return h.total;
}

int64_t UnpackForRead(KWArray* array, const uint8_t* table) {
    TableHeader h;
    if (!ReadTableHeader(table, UINT64_MAX, &h)) return 0;
    std::vector<KeyDescriptor> keys;
    const uint64_t first = UnpackHead(array, table, h, &keys);
    if (first == 0) return 0;
    if (keys.empty()) {
        array->changes = 0;
        return static_cast<int64_t>(h.total);
    }
    if (h.recordCount && !array->HasFields()) return 0;
    uint64_t bytes = 0;
    for (uint32_t i = 0; i < h.recordCount; ++i) bytes += LoadU32(table + first + bytes);
    auto store = std::unique_ptr<PackStore>(new (std::nothrow) PackStore);
    RecordBlock* rb = store && h.recordCount ? store->AddRecordBlock(h.recordCount) : nullptr;
    DataBlock* db = rb ? store->AddDataBlock(bytes) : nullptr;
    if (h.recordCount && !db) {
        LogNoMemory(KWA_TAG("KWAUnpackForRead"));
        return -1;
    }
    if (!store) return -1;
    KWAKey* key0 = array->keys[0].get();
    std::vector<Entry> entries;
    entries.reserve(h.recordCount);
    if (db) {
        std::memcpy(db->Bytes(), table + first, bytes);  // every image in one piece
        db->used = bytes;
        KWRData* recs = rb->Records();
        uint64_t at = 0;
        for (uint32_t i = 0; i < h.recordCount; ++i) {
            KWRData* rec = &recs[i];
            KWRRecInit(rec);
            rec->image = db->Bytes() + at;
            rec->length = LoadU32(rec->image);
            rec->flags = rec->image[4];
            rec->fieldCount = array->type.fieldCount;
            rec->typeId = array->fieldVersion;
            rec->owner = array;
            rec->editSource = MemberMark();
            at += rec->length;
            entries.push_back(MakeEntry(key0, rec));
        }
        rb->used = h.recordCount;
    }
    store->imageBytes = bytes;
    array->store = std::move(store);
    key0->order.Assign(entries.data(), static_cast<int32_t>(entries.size()));
    CheckSorted(key0);
    if (!UnpackTail(array, keys)) return 0;
    return static_cast<int64_t>(h.total);
}

}  // namespace

bool ReadTableHeader(const uint8_t* table, uint64_t length, TableHeader* h) {
    if (!table || length < 4 || table[0] != 0x23 || table[1] != 0x52 || table[2] != 0x41) return false;
    const bool current = table[3] == '2';
    h->descriptors = current ? kHeader : kOldHeader;
    if (length < h->descriptors) return false;
    h->fieldCount = table[4];
    h->keyCount = table[5];
    h->recordCount = LoadU32(table + 6);
    h->total = current ? LoadU32(table + 10) : Load<uint64_t>(table + 10);
    return true;
}

}  // namespace kwz::recarr

using namespace kwz::recarr;

extern "C" {

KWZ_API uint64_t KWAPack(KWArray* array, void** block) {
    if (!array) return 0;
    try {
        const uint64_t size = TableSize(array);
        if (size == 0 || !block) return size;
        auto* out = static_cast<uint8_t*>(KWMemAlloc(static_cast<uint32_t>(size), nullptr));
        if (!out) {
            LogNoMemory(KWA_TAG("KWAPack"));
            return 0;
        }
        if (!WriteTable(array, out, size)) {
            KWMemFree(out);
            return 0;
        }
        *block = out;
        return size;
    } catch (const std::bad_alloc&) {
        LogNoMemory(KWA_TAG("KWAPack"));
        return 0;
    }
}

KWZ_API uint64_t KWAPackBuff(KWArray* array, void* buffer) {
    if (!array) return 0;
    try {
        const uint64_t size = TableSize(array);
        if (size == 0 || !buffer) return size;
        return WriteTable(array, static_cast<uint8_t*>(buffer), size) ? size : 0;
    } catch (const std::bad_alloc&) {
        LogNoMemory(KWA_TAG("KWAPackBuff"));
        return 0;
    }
}

KWZ_API uint64_t KWAUnpack(KWArray* array, const void* table) {
    if (!array || !table) return 0;
    try {
        return Unpack(array, static_cast<const uint8_t*>(table));
    } catch (const std::bad_alloc&) {
        LogNoMemory(KWA_TAG("KWAUnpack"));
        return 0;
    }
}

KWZ_API int64_t KWAUnpackForRead(KWArray* array, const void* table) {
    if (!array || !table) return 0;
    try {
        return UnpackForRead(array, static_cast<const uint8_t*>(table));
    } catch (const std::bad_alloc&) {
        LogNoMemory(KWA_TAG("KWAUnpackForRead"));
        return -1;
    }
}

}  // extern "C"
