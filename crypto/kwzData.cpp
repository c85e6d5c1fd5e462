// Data helpers over the "#LZ2" container: compress and decompress blocks,
// pack and unpack record arrays (optionally compressed), and the text hash.
// Every block handed out comes from KWMemAlloc and is freed with KWMemFree;
// every failure path frees what it allocated.
#include <cstring>
#include <exception>

#include "crypto/lzop.h"
#include "base/kwBase.h"

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
    void* block = nullptr;
    if (bound > UINT32_MAX || !work || !KWMemAlloc(uint32_t(bound), &block)) {
        LogMessageF(2, tag, "SE_NOMEM container of %llu bytes", (unsigned long long)bound);
        return nullptr;
    }
    uint32_t written = uint32_t(bound);
    if (!LZOPCompress_(data, n, block, &written, work)) {
        KWMemFree(block);
        return nullptr;
    }
    // Shrinking cannot really fail; if it does the larger block is still
    // valid, so keep it rather than lose the data.
    void* shrunk = block;
    if (KWMemReAlloc(written ? written : 1, &shrunk)) block = shrunk;
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
        LogMessage(3, tag, "container cannot be decoded");
        return kBadData;
    }
    if (walk.output > INT32_MAX) {
        LogMessageF(2, tag, "SE_NOMEM decompressed size %llu too large",
                    (unsigned long long)walk.output);
        return kNoMem;
    }
    // One spare byte would change nothing for the caller; it only keeps an
    // empty container from asking malloc for 0 bytes.
    void* block = nullptr;
    if (!KWMemAlloc(walk.output ? uint32_t(walk.output) : 1, &block)) {
        LogMessageF(2, tag, "SE_NOMEM %llu bytes", (unsigned long long)walk.output);
        return kNoMem;
    }
    uint64_t written = 0;
    if (!DecodeContainer(p, n, static_cast<uint8_t*>(block), walk.output, &written) ||
        written != walk.output) {
        KWMemFree(block);
        LogMessage(3, tag, "container cannot be decoded");
        return kBadData;
    }
    *out = block;
    *size = uint32_t(written);
    return kOk;
}

int32_t DataCompress(int32_t n, const void* data, int32_t* outLength, void** outBlock) {
    constexpr char kTag[] = "Kwz.lzop.KWZDataCompress";
    if (outLength) *outLength = 0;
    if (outBlock) *outBlock = nullptr;
    if (n < 0 || !data || !outLength || !outBlock) return kBadArg;
    uint32_t size = 0;
    void* block = CompressToBlock(data, uint32_t(n), &size, kTag);
    if (!block) return kNoMem;
    if (size > INT32_MAX) {  // only an incompressible input of nearly 2 GiB gets here
        KWMemFree(block);
        LogMessage(2, kTag, "container larger than 2 GiB");
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
        void* block = nullptr;
        if (!KWMemAlloc(uint32_t(n) + 1, &block)) {
            LogMessageF(2, kTag, "SE_NOMEM %d bytes", n);
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
    const uint64_t size = KWAPack(array, &packed);
    if (size == 0 || size > INT32_MAX || !packed) {
        KWMemFree(packed);
        LogMessageF(2, kTag, "packing failed (size %llu)", (unsigned long long)size);
        return kNoMem;
    }
    if (!compress) {
        *outBlock = packed;
        if (outLength) *outLength = int32_t(size);
        return kOk;
    }
    uint32_t written = 0;
    void* block = CompressToBlock(packed, uint32_t(size), &written, kTag);
    KWMemFree(packed);
    if (!block) return kNoMem;
    if (written > INT32_MAX) {
        KWMemFree(block);
        return kNoMem;
    }
    *outBlock = block;
    if (outLength) *outLength = int32_t(written);
    return kOk;
}

int32_t ArrayUnPack(KWArray* array, const void* data, bool forRead) {
    constexpr char kTag[] = "Kwz.lzop.KWZArrayUnPack";
    if (!array || !data) return kBadArg;
    if (!HasMagic(data, kMagic)) {
        // A plain packed table carries no length we could check it against.
        const int64_t rc = forRead ? KWAUnpackForRead(array, data) : int64_t(KWAUnpack(array, data));
        return rc > 0 ? kOk : kNoMem;
    }
    // The container's own length is unknown here, as in LZOPDecompress_: its
    // headers are trusted.  The table that comes out of it has a known
    // length, so it is unpacked with the checked reader.
    void* table = nullptr;
    uint32_t size = 0;
    int32_t rc = DecompressToBlock(data, SIZE_MAX, &table, &size, kTag);
    if (rc != kOk) return rc;
    const int64_t unpacked = KWAUnpackChecked(array, table, size, forRead);
    KWMemFree(table);
    if (unpacked <= 0) {
        LogMessage(3, kTag, "packed table refused");
        return kNoMem;
    }
    return kOk;
}

int32_t DataHash(int32_t n, const void* data, char* out, const char* key) {
    if (!out || n < 0 || (!data && n > 0)) return kBadArg;
    md5_state_t state;
    md5_init(&state);
    md5_append(&state, static_cast<const uint8_t*>(data), n);
    if (key && *key)
        md5_append(&state, reinterpret_cast<const uint8_t*>(key), int32_t(std::strlen(key)));
    else
        md5_append(&state, reinterpret_cast<const uint8_t*>(kHashKey), int32_t(sizeof kHashKey - 1));
    char text[33];
    md5_finishA(&state, text);
    text[32] = 0;
    std::memcpy(out, text, sizeof text);
    return kOk;
}

// The helpers meet no callbacks, but KWAPack and the unpackers may still
// throw (a corrupt record); nothing crosses the C edge.
template <typename Fn>
int32_t Guard(const char* tag, Fn fn) {
    return Guarded(tag, false, kNoMem, fn);
}

}  // namespace
}  // namespace kwz::lzop

using namespace kwz::lzop;

extern "C" {

KWZ_API int32_t KWZDataCompress(int32_t length, const void* data, int32_t* outLength,
                                void** outBlock) {
    return Guard("Kwz.lzop.KWZDataCompress",
                 [&] { return DataCompress(length, data, outLength, outBlock); });
}

KWZ_API int32_t KWZDataDeCompress(int32_t length, const void* data, int32_t* outLength,
                                  void** outBlock) {
    return Guard("Kwz.lzop.KWZDataDeCompress",
                 [&] { return DataDeCompress(length, data, outLength, outBlock); });
}

KWZ_API int32_t KWZDataIsCompress(int32_t length, const void* data, bool* flag) {
    if (!flag) return kBadArg;
    *flag = false;
    if (length <= 0 || !data) return kBadArg;
    *flag = IsContainer(data, uint32_t(length));
    return kOk;
}

KWZ_API int32_t KWZArrayPack(KWArray* array, int32_t* outLength, void** outBlock, bool compress) {
    return Guard("Kwz.lzop.KWZArrayPack",
                 [&] { return ArrayPack(array, outLength, outBlock, compress); });
}

KWZ_API int32_t KWZArrayUnPack(KWArray* array, const void* data, bool forRead) {
    return Guard("Kwz.lzop.KWZArrayUnPack", [&] { return ArrayUnPack(array, data, forRead); });
}

// MD5 over the data, then over the key (the library's key when none or an
// empty one is given), as 32 characters of md5_finishA and a 0 byte.
KWZ_API int32_t KWZDataHash(int32_t length, const void* data, char* out, const char* key) {
    return DataHash(length, data, out, key);
}

}  // extern "C"
