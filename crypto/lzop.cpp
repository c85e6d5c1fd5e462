// The "#LZ2" container over LZO1X-1: the chunk coder shared by every writer
// and reader, and the buffer writer and reader LZOPCompress_/LZOPDecompress_.
// The byte layout is drawn in crypto/lzop.h.
#include "crypto/lzop.h"

#include <lzo/lzo1x.h>

#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <new>

#include "base/kwBase.h"
#include "crypto/kwzCore.h"

namespace kwz::lzop {

static_assert(LZO1X_1_MEM_COMPRESS == kWorkSize, "LZO1X-1 work memory is 131072 bytes");
static_assert(Bound(0) == 32, "the bound of nothing");
static_assert(kChunkMax <= kFieldMax, "a stored chunk's length fits four hex digits");

namespace {

constexpr char kTagCompress[] = "Kwz.lzop.LZOPCompress_";
constexpr char kTagDecompress[] = "Kwz.lzop.LZOPDecompress_";
constexpr char kHexDigits[] = "0123456789ABCDEF";

// The value of one hexadecimal digit, or -1.
inline int HexValue(uint8_t c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

bool ParseField(const uint8_t* p, uint32_t* value) {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) {
        int d = HexValue(p[i]);
        if (d < 0) return false;
        v = v << 4 | uint32_t(d);
    }
    *value = v;
    return true;
}

void FormatField(uint8_t* p, uint32_t value) {
    for (int i = 3; i >= 0; --i, value >>= 4) p[i] = uint8_t(kHexDigits[value & 0xF]);
}

struct Scratch {
    std::unique_ptr<uint8_t[]> work;
    std::unique_ptr<uint8_t[]> spill;
};
thread_local Scratch t_scratch;

uint8_t* Lazy(std::unique_ptr<uint8_t[]>& slot, size_t size) {
    if (!slot) slot.reset(new (std::nothrow) uint8_t[size]);
    return slot.get();
}

}  // namespace

bool LzoReady() {
    static std::once_flag once;
    static bool ready = false;
    std::call_once(once, [] {
        ready = lzo_init() == LZO_E_OK;
        if (!ready) Log(1, "Kwz.lzop.LZOPInit", "LZO library failed to initialise");
    });
    return ready;
}

bool ParseHeader(const uint8_t* p, uint32_t* stored, uint32_t* length) {
    return ParseField(p, stored) && ParseField(p + 4, length);
}

void FormatHeader(uint8_t* p, uint32_t stored, uint32_t length) {
    FormatField(p, stored);
    FormatField(p + 4, length);
}

uint8_t* ThreadWork() { return Lazy(t_scratch.work, kWorkSize); }
uint8_t* ThreadSpill() { return Lazy(t_scratch.spill, LzoWorst(kChunkMax)); }

size_t EncodeChunk(const uint8_t* in, uint32_t len, uint8_t* dst, size_t room, void* work) {
    if (room < kHeaderSize) return 0;
    uint8_t* body = dst + kHeaderSize;
    const size_t bodyRoom = room - kHeaderSize;
    // LZO has no output limit: compress in place only when its worst case
    // fits, else into the spill area (only the last chunk or two of an
    // output sized by Bound() ever take that road).
    uint8_t* target = bodyRoom >= LzoWorst(len) ? body : ThreadSpill();
    if (!target) return 0;
    lzo_uint packed = 0;
    if (lzo1x_1_compress(in, len, target, &packed, work) != LZO_E_OK) return 0;
    if (packed < len) {
        if (bodyRoom < packed) return 0;
        if (target != body) std::memcpy(body, target, packed);
        FormatHeader(dst, uint32_t(packed), len);
        return kHeaderSize + packed;
    }
    // Compression did not shrink the chunk: keep the input as it is.
    if (bodyRoom < len) return 0;
    std::memcpy(body, in, len);
    FormatHeader(dst, len, 0);
    return kHeaderSize + len;
}

bool DecodeChunk(const uint8_t* in, uint32_t stored, uint8_t* out, uint32_t length) {
    // The declared length is the decompressor's output limit: a corrupt
    // chunk stops with an error instead of writing past it.
    lzo_uint produced = length;
    int rc = lzo1x_decompress_safe(in, stored, out, &produced, nullptr);
    return rc == LZO_E_OK && produced == length;
}

bool WalkContainer(const uint8_t* p, size_t limit, Walk* walk) {
    if (limit < kEmptySize || !HasMagic(p, kMagic)) return false;
    size_t pos = kMagicSize;
    Walk w;
    for (;;) {
        uint32_t stored = 0, length = 0;
        if (limit - pos < kHeaderSize || !ParseHeader(p + pos, &stored, &length)) return false;
        pos += kHeaderSize;
        if (stored == 0) break;
        if (limit - pos < stored) return false;
        pos += stored;
        w.output += length ? length : stored;
        w.chunks++;
        if (length == 0) w.stored++;
    }
    w.size = pos;
    *walk = w;
    return true;
}

bool DecodeContainer(const uint8_t* p, size_t limit, uint8_t* out, uint64_t room,
                     uint64_t* written) {
    if (limit < kEmptySize || !HasMagic(p, kMagic)) return false;
    size_t pos = kMagicSize;
    uint64_t done = 0;
    for (;;) {
        uint32_t stored = 0, length = 0;
        if (limit - pos < kHeaderSize || !ParseHeader(p + pos, &stored, &length)) return false;
        pos += kHeaderSize;
        if (stored == 0) break;
        if (limit - pos < stored) return false;
        const uint32_t produced = length ? length : stored;
        if (room - done < produced) return false;
        if (length) {
            if (!DecodeChunk(p + pos, stored, out + done, length)) return false;
        } else {
            std::memcpy(out + done, p + pos, stored);
        }
        pos += stored;
        done += produced;
    }
    *written = done;
    return true;
}

bool EncodeContainer(const uint8_t* in, uint64_t n, uint8_t* out, uint64_t room, void* work,
                     uint64_t* written) {
    if (room < Bound(n)) return false;
    std::memcpy(out, kMagic, kMagicSize);
    uint64_t pos = kMagicSize;
    for (uint64_t done = 0; done < n;) {
        const uint32_t len = uint32_t(n - done < kChunkMax ? n - done : kChunkMax);
        size_t chunk = EncodeChunk(in + done, len, out + pos, size_t(room - pos), work);
        if (chunk == 0) return false;
        pos += chunk;
        done += len;
    }
    // Bound() leaves room for this: every chunk takes at most its length + 8.
    std::memcpy(out + pos, "00000000", kHeaderSize);
    *written = pos + kHeaderSize;
    return true;
}


// Without work memory the thread's own (131072 bytes, allocated on its first
// use and kept until the thread ends) is used.  *outputSize must hold at
// least Bound(inputLength); it is left alone on failure.
bool CompressBuffer(const void* input, uint32_t inputLength, void* output,
                           uint32_t* outputSize, void* work) {
    {
        if (!LzoReady()) return false;
        if (!input || !output || !outputSize) {
            Log(3, kTagCompress, "null argument");
            return false;
        }
        if (*outputSize < Bound(inputLength)) {
            LogF(3, kTagCompress, "output room %u below the bound %llu for %u bytes",
                        *outputSize, (unsigned long long)Bound(inputLength), inputLength);
            return false;
        }
        if (!work) work = ThreadWork();
        uint64_t written = 0;
        if (!work || !EncodeContainer(static_cast<const uint8_t*>(input), inputLength,
                                      static_cast<uint8_t*>(output), *outputSize, work, &written)) {
            Log(2, kTagCompress, "compression failed");
            return false;
        }
        *outputSize = uint32_t(written);
        return true;
    }
}

// The container has no length of its own here: the reader trusts its chunk
// headers and reads up to its terminator, so the caller must pass a whole
// container (KWZDataDeCompress checks one against its length first).
//
// With output null, *outputLength receives the decompressed size.  With an
// output, *outputLength is its room on entry (what the size query left
// there) and the bytes written on return: the fill never writes past the room
// even if the container differs from the one that was measured.  option is
// reserved and ignored; callers pass 0.
bool DecompressBuffer(const void* container, void* output, uint32_t* outputLength,
                             int32_t option) {
    (void)option;
    {
        if (!LzoReady()) return false;
        if (!container || !outputLength) {
            Log(3, kTagDecompress, "null argument");
            return false;
        }
        const auto* p = static_cast<const uint8_t*>(container);
        if (!output) {
            Walk walk;
            if (!WalkContainer(p, SIZE_MAX, &walk) || walk.output > UINT32_MAX) {
                Log(3, kTagDecompress, "not a valid container");
                return false;
            }
            *outputLength = uint32_t(walk.output);
            return true;
        }
        uint64_t written = 0;
        if (!DecodeContainer(p, SIZE_MAX, static_cast<uint8_t*>(output), *outputLength, &written)) {
            Log(3, kTagDecompress, "container cannot be decoded");
            return false;
        }
        *outputLength = uint32_t(written);
        return true;
    }
}

}  // namespace kwz::lzop
