// Data helpers over the "#LZ2" container: compress and decompress blocks,
// pack and unpack record arrays (optionally compressed), and the text hash.
// Every block handed out comes from KWMemAlloc and is freed with KWMemFree;
// every failure path frees what it allocated.
#include <cstring>
#include <exception>
#include <memory>

#include "base/kwBase.h"
#include "base/kwMem.h"
#include "crypto/kwzCore.h"
#include "crypto/lzop.h"
#include "rec/kwRecArr.h"

namespace kwz::lzop {
namespace {

constexpr int32_t kOk = 0;
constexpr int32_t kNoMem = -1;    // out of memory, or compression failed
constexpr int32_t kBadArg = -2;   // null pointer, negative length
constexpr int32_t kBadData = -4;  // a container that cannot be decoded

// The key that KWZDataHash appends when the caller gives none.
constexpr char kHashKey[] = "47PX6K302B";

bool IsContainer(const void* data, uint64_t n) { return n >= kEmptySize && HasMagic(data, kMagic); }

// Writes the container of n bytes into a new block of Bound(n) bytes, shrunk
// to the bytes written.  Null when memory runs out or compression fails.
void* CompressToBlock(const void* data, uint32_t n, uint32_t* size, const char* tag) {
    const uint64_t bound = Bound(n);
    uint8_t* work = ThreadWork();
    void* block = bound <= UINT32_MAX && work ? MemAlloc(bound) : nullptr;
    if (!block) {
        LogF(2, tag, "SE_NOMEM container of %llu bytes", (unsigned long long)bound);
        return nullptr;
    }
    uint32_t written = uint32_t(bound);
    if (!CompressBuffer(data, n, block, &written, work)) {
        MemFree(block);
        return nullptr;
    }
    // Shrinking cannot really fail; if it does the larger block is still
    // valid, so keep it rather than lose the data.
    if (void* shrunk = MemReAlloc(block, written ? written : 1)) block = shrunk;
    *size = written;
    return block;
}

// Decompresses a container of at most n bytes into a new block of exactly
// its decompressed size.  The walk is checked against n before anything is
// allocated or decoded, so no byte past data + n is read.
int32_t DecompressToBlock(const void* data, uint64_t n, void** out, uint32_t* size,
                          const char* tag) {
    const auto* p = static_cast<const uint8_t*>(data);
    Walk walk;
    if (!LzoReady() || !WalkContainer(p, n, &walk)) {
        Log(3, tag, "container cannot be decoded");
        return kBadData;
    }
    if (walk.output > INT32_MAX) {
        LogF(2, tag, "SE_NOMEM decompressed size %llu too large",
                    (unsigned long long)walk.output);
        return kNoMem;
    }
    // One spare byte would change nothing for the caller; it only keeps an
    // empty container from asking malloc for 0 bytes.
    void* block = MemAlloc(walk.output ? walk.output : 1);
    if (!block) {
        LogF(2, tag, "SE_NOMEM %llu bytes", (unsigned long long)walk.output);
        return kNoMem;
    }
    uint64_t written = 0;
    if (!DecodeContainer(p, n, static_cast<uint8_t*>(block), walk.output, &written) ||
        written != walk.output) {
        MemFree(block);
        Log(3, tag, "container cannot be decoded");
        return kBadData;
    }
    *out = block;
    *size = uint32_t(written);
    return kOk;
}

}  // namespace

int32_t DataCompress(int32_t n, const void* data, int32_t* outLength, void** outBlock) {
    constexpr char kTag[] = "Kwz.lzop.KWZDataCompress";
    if (outLength) *outLength = 0;
    if (outBlock) *outBlock = nullptr;
    if (n < 0 || !data || !outLength || !outBlock) return kBadArg;
    uint32_t size = 0;
    void* block = CompressToBlock(data, uint32_t(n), &size, kTag);
    if (!block) return kNoMem;
    if (size > INT32_MAX) {  // only an incompressible input of nearly 2 GiB gets here
        MemFree(block);
        Log(2, kTag, "container larger than 2 GiB");
        return kNoMem;
    }
    *outBlock = block;
    *outLength = int32_t(size);
    return kOk;
}

int32_t DataDeCompress(int32_t n, const void* data, int32_t* outLength, void** outBlock) {
    constexpr char kTag[] = "Kwz.lzop.KWZDataDeCompress";
    if (outLength) *outLength = 0;
    if (outBlock) *outBlock = nullptr;
    if (!data || !outBlock || n < 0) return kBadArg;
    if (!IsContainer(data, uint32_t(n))) {
        // Not a container: a copy with a terminating 0 byte after the n bytes,
        // so that callers may treat text as a C string.  The decompressed
        // block below has no such byte; callers rely on both as they are.
        void* block = MemAlloc(size_t(n) + 1);
        if (!block) {
            LogF(2, kTag, "SE_NOMEM %d bytes", n);
            return kNoMem;
        }
        std::memcpy(block, data, size_t(n));
        static_cast<uint8_t*>(block)[n] = 0;
        *outBlock = block;
        if (outLength) *outLength = n;
        return kOk;
    }
    uint32_t size = 0;
    void* block = nullptr;
    int32_t rc = DecompressToBlock(data, uint32_t(n), &block, &size, kTag);
    if (rc != kOk) return rc;
    *outBlock = block;
    if (outLength) *outLength = int32_t(size);
    return kOk;
}

int32_t ArrayPack(KWArray* array, int32_t* outLength, void** outBlock, bool compress) {
    constexpr char kTag[] = "Kwz.lzop.KWZArrayPack";
    if (outLength) *outLength = 0;
    if (outBlock) *outBlock = nullptr;
    if (!array || !outBlock) return kBadArg;
    void* packed = nullptr;
    const uint64_t size = recarr::Pack(array, &packed);
    if (size == 0 || size > INT32_MAX || !packed) {
        MemFree(packed);
        LogF(2, kTag, "packing failed (size %llu)", (unsigned long long)size);
        return kNoMem;
    }
    if (!compress) {
        *outBlock = packed;
        if (outLength) *outLength = int32_t(size);
        return kOk;
    }
    uint32_t written = 0;
    void* block = CompressToBlock(packed, uint32_t(size), &written, kTag);
    MemFree(packed);
    if (!block) return kNoMem;
    if (written > INT32_MAX) {
        MemFree(block);
        return kNoMem;
    }
    *outBlock = block;
    if (outLength) *outLength = int32_t(written);
    return kOk;
}

// The size of a plain packed table's bytes is not known here, so it is
// unpacked with the trusting reader; a table that does not unpack (one whose
// first record claims fewer than 6 bytes among them) gives -1, and the array
// stays as it was.
int32_t ArrayUnPack(KWArray* array, const void* data, bool forRead) {
    constexpr char kTag[] = "Kwz.lzop.KWZArrayUnPack";
    if (!array || !data) return kBadArg;
    if (!HasMagic(data, kMagic)) {
        const int64_t rc = forRead ? recarr::UnpackForRead(array, data) : recarr::Unpack(array, data);
        if (rc > 0) return kOk;
        Log(3, kTag, "packed table refused");
        return kNoMem;
    }
    // The container's own length is unknown here, as in LZOPDecompress_: its
    // headers are trusted.  The table that comes out of it has a known
    // length, so it is unpacked with the checked reader.
    void* table = nullptr;
    uint32_t size = 0;
    int32_t rc = DecompressToBlock(data, SIZE_MAX, &table, &size, kTag);
    if (rc != kOk) return rc;
    std::unique_ptr<void, decltype(&MemFree)> owned(table, &MemFree);
    const int64_t unpacked = recarr::UnpackChecked(array, table, size, forRead);
    if (unpacked <= 0) {
        Log(3, kTag, "packed table refused");
        return kNoMem;
    }
    return kOk;
}

// Everything is checked against length: the container's chunks, then the
// table that comes out of it (or the plain table itself) with the checked
// reader.  -4 for bytes that do not decode, -1 when memory runs out.
int32_t ArrayUnPackN(KWArray* array, const void* data, uint64_t length, bool forRead) {
    constexpr char kTag[] = "Kwz.lzop.KWZArrayUnPackN";
    if (!array || !data) return kBadArg;
    if (length < kMagicSize) {
        Log(3, kTag, "fewer bytes than a magic");
        return kBadData;
    }
    const void* table = data;
    uint64_t size = length;
    std::unique_ptr<void, decltype(&MemFree)> owned(nullptr, &MemFree);
    if (HasMagic(data, kMagic)) {
        void* block = nullptr;
        uint32_t decoded = 0;
        if (const int32_t rc = DecompressToBlock(data, length, &block, &decoded, kTag)) return rc;
        owned.reset(block);
        table = block;
        size = decoded;
    }
    const int64_t unpacked = recarr::UnpackChecked(array, table, size, forRead);
    if (unpacked == -1) return kNoMem;
    if (unpacked <= 0) {
        Log(3, kTag, "packed table refused");
        return kBadData;
    }
    return kOk;
}

int32_t DataIsCompress(int32_t n, const void* data, bool* flag) {
    if (!flag) return kBadArg;
    *flag = false;
    if (n <= 0 || !data) return kBadArg;
    *flag = IsContainer(data, uint32_t(n));
    return kOk;
}

int32_t DataHash(int32_t n, const void* data, char* out, const char* key) {
    if (!out || n < 0 || (!data && n > 0)) return kBadArg;
    md5_state_t state;
    md5::Init(&state);
    md5::Append(&state, static_cast<const uint8_t*>(data), n);
    if (key && *key)
        md5::Append(&state, reinterpret_cast<const uint8_t*>(key), int32_t(std::strlen(key)));
    else
        md5::Append(&state, reinterpret_cast<const uint8_t*>(kHashKey), int32_t(sizeof kHashKey - 1));
    char text[33];
    md5::FinishA(&state, text);
    text[32] = 0;
    std::memcpy(out, text, sizeof text);
    return kOk;
}

}  // namespace kwz::lzop
