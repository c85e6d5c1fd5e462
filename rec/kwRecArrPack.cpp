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
        Log(2, KWA_TAG("KWAPack"), "table larger than 4 GiB");
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

// Steps shared by both unpackers, on a fresh array: add the fields, read the
// key descriptors and add the first key.  Returns the offset of the first
// record image, 0 when the table does not make an array, -1 when memory runs
// out; *keys gets the descriptors.
int64_t UnpackHead(KWArray* array, const uint8_t* table, const TableHeader& h,
                   std::vector<KeyDescriptor>* keys) {
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
    if (h.fieldCount) {
        const int32_t rc = FldAdd(array, static_cast<int32_t>(h.fieldCount), defs.data());
        if (rc != 0) return rc == -1 ? -1 : 0;
    }
    for (uint32_t k = 0; k < h.keyCount; ++k) {
        const auto* expression = reinterpret_cast<const char*>(table + pos);
        pos += std::strlen(expression) + 1;
        keys->push_back(KeyDescriptor{expression, LoadU32(table + pos)});
        pos += 4;
    }
    if (keys->empty()) return static_cast<int64_t>(pos);
    if (const int32_t rc = AddKey(array, (*keys)[0].expression, (*keys)[0].options, KWA_TAG("KWAUnpack")))
        return rc == -1 ? -1 : 0;
    return static_cast<int64_t>(pos);
}

// The remaining keys, each sorted from key 0 by KWAKeyAdd's rule: 0, -1 out
// of memory, or the failing AddKey's -3.
int32_t UnpackTail(KWArray* array, const std::vector<KeyDescriptor>& keys) {
    for (size_t k = 1; k < keys.size() && array->KeyCount() < kMaxKeys; ++k)
        if (const int32_t rc = AddKey(array, keys[k].expression, keys[k].options, KWA_TAG("KWAUnpack")))
            return rc;
    array->changes = 0;
    return 0;
}

// An image length that cannot be one: below the image header.  The trusting
// unpackers refuse such a table rather than make members of whatever follows.
bool BadImageLength(uint32_t length) { return length < rec::kImageHead; }

// Fills a fresh array from a trusted table: its size, 0 when the table does
// not make an array, -1 when memory runs out.
int64_t UnpackTable(KWArray* array, const uint8_t* table) {
    TableHeader h;
    if (!ReadTableHeader(table, UINT64_MAX, &h)) return 0;
    std::vector<KeyDescriptor> keys;
    const int64_t head = UnpackHead(array, table, h, &keys);
    if (head <= 0) return head;
    uint64_t pos = static_cast<uint64_t>(head);
    if (keys.empty()) {
        // The records of a table without keys are not read.
        array->changes = 0;
        return static_cast<int64_t>(h.total);
    }
    if (h.recordCount && !array->HasFields()) return 0;  // no record can be made
    KWAKey* key0 = array->keys[0].get();
    std::vector<Entry> entries;
    struct Owned {  // the records made so far, until key 0 holds them
        std::vector<Entry>& list;
        bool keep = false;
        ~Owned() {
            if (!keep)
                for (auto& e : list) FreeRecord(e.rec);
        }
    } owned{entries};
    entries.reserve(h.recordCount);
    for (uint32_t i = 0; i < h.recordCount; ++i) {
        const uint32_t length = LoadU32(table + pos);
        if (BadImageLength(length)) return 0;
        KWRData* rec = AllocRecord();
        auto* image = rec ? static_cast<uint8_t*>(kwz::MemAlloc(length)) : nullptr;
        if (!image) {
            kwz::MemFree(rec);
            LogNoMemory(KWA_TAG("KWAUnpack"));
            return -1;
        }
        std::memcpy(image, table + pos, length);
        pos += length;
        rec::RecSet(rec, image);  // cannot refuse: the length is at least 6
        rec->typeId = array->fieldVersion;
        rec->owner = array;
        rec->editSource = MemberMark();
        entries.push_back(MakeEntry(key0, rec));
    }
    // The images come in key-0 order: appending puts each at its place.
    key0->order.Assign(entries.data(), static_cast<int32_t>(entries.size()));
    owned.keep = true;
    CheckSorted(key0);
    if (const int32_t rc = UnpackTail(array, keys)) return rc == -1 ? -1 : 0;
    return static_cast<int64_t>(h.total);
}

// As UnpackTable, into read-from-pack storage: every image in one data block.
int64_t UnpackTableForRead(KWArray* array, const uint8_t* table) {
    TableHeader h;
    if (!ReadTableHeader(table, UINT64_MAX, &h)) return 0;
    std::vector<KeyDescriptor> keys;
    const int64_t head = UnpackHead(array, table, h, &keys);
    if (head <= 0) return head;
    const uint64_t first = static_cast<uint64_t>(head);
    if (keys.empty()) {
        array->changes = 0;
        return static_cast<int64_t>(h.total);
    }
    if (h.recordCount && !array->HasFields()) return 0;
    uint64_t bytes = 0;
    for (uint32_t i = 0; i < h.recordCount; ++i) {
        const uint32_t length = LoadU32(table + first + bytes);
        if (BadImageLength(length)) return 0;
        bytes += length;
    }
    auto store = std::make_unique<PackStore>();
    RecordBlock* rb = h.recordCount ? store->AddRecordBlock(h.recordCount) : nullptr;
    DataBlock* db = rb ? store->AddDataBlock(bytes) : nullptr;
    if (h.recordCount && !db) {
        LogNoMemory(KWA_TAG("KWAUnpackForRead"));
        return -1;
    }
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
            rec::RecInit(rec);
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
    key0->order.Assign(entries.data(), static_cast<int32_t>(entries.size()));
    store->imageBytes = bytes;
    array->store = std::move(store);
    CheckSorted(key0);
    if (const int32_t rc = UnpackTail(array, keys)) return rc == -1 ? -1 : 0;
    return static_cast<int64_t>(h.total);
}

// Unpacks into a fresh array and moves it into `array` only when the whole
// table made one, so that a failure leaves the array as it was.
int64_t UnpackAtomic(KWArray* array, const uint8_t* table, bool forRead) {
    KWArray* made = nullptr;
    if (Create(&made, nullptr) != 0) return -1;
    std::unique_ptr<KWArray, void (*)(KWArray*)> fresh(made, Destroy);
    const int64_t rc = forRead ? UnpackTableForRead(made, table) : UnpackTable(made, table);
    if (rc <= 0) return rc;
    TakeOver(array, made);
    return rc;
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

uint64_t Pack(KWArray* array, void** block) {
    if (!array) return 0;
    const uint64_t size = TableSize(array);
    if (size == 0 || !block) return size;
    std::unique_ptr<uint8_t, decltype(&kwz::MemFree)> out(static_cast<uint8_t*>(kwz::MemAlloc(size)),
                                                          &kwz::MemFree);
    if (!out) {
        LogNoMemory(KWA_TAG("KWAPack"));
        return 0;
    }
    if (!WriteTable(array, out.get(), size)) return 0;
    *block = out.release();
    return size;
}

uint64_t PackBuff(KWArray* array, void* buffer) {
    if (!array) return 0;
    const uint64_t size = TableSize(array);
    if (size == 0 || !buffer) return size;
    return WriteTable(array, static_cast<uint8_t*>(buffer), size) ? size : 0;
}

int64_t Unpack(KWArray* array, const void* table) {
    if (!array || !table) return 0;
    return UnpackAtomic(array, static_cast<const uint8_t*>(table), false);
}

int64_t UnpackForRead(KWArray* array, const void* table) {
    if (!array || !table) return 0;
    return UnpackAtomic(array, static_cast<const uint8_t*>(table), true);
}

}  // namespace kwz::recarr
