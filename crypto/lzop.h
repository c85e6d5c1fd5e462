// The "#LZ2" compressed-data container, shared by the buffer writer/reader
// (lzop.cpp), the streaming variants (lzopStream.cpp) and the data helpers
// (kwzData.cpp).  Nothing here is exported.
//
//   offset 0   "#LZ2"                      magic (the older "#LZP": see below)
//          4   "SSSSLLLL"                  first chunk header
//         12   S bytes                     first chunk
//          …   header, bytes, header, bytes …
//      end-8   "00000000"                  terminator
//
// A header is eight ASCII hexadecimal digits, written "%04X%04X": S, the bytes
// stored in the chunk, then L, the chunk's uncompressed length when the chunk
// holds LZO1X-1 output, or 0000 when the S bytes are the input itself.  A
// header whose S is 0000 ends the container (its L digits are not looked at).
// Writers cut the input into chunks of at most 64,480 bytes and store a chunk
// whenever compression does not make it smaller, so S < L for every
// compressed chunk and S = L' <= 64,480 for a stored one.
//
// "#LZP" is the container of the first release: the same chunk stream under
// a different magic.  Only the streaming reader accepts it; nothing writes it.
#pragma once

#include <VomKwz.h>

#include <cstddef>
#include <cstdint>
#include <exception>

#include "base/kwLog.h"

namespace kwz::lzop {

constexpr uint32_t kChunkMax = 64480;     // input bytes per chunk
constexpr uint32_t kHeaderSize = 8;       // "%04X%04X"
constexpr uint32_t kMagicSize = 4;
constexpr uint32_t kEmptySize = 12;       // magic + terminator
constexpr uint32_t kFieldMax = 0xFFFF;    // largest S or L four digits hold
constexpr uint32_t kWorkSize = 131072;    // LZO1X-1 work memory on 64-bit
constexpr char kMagic[] = "#LZ2";
constexpr char kOldMagic[] = "#LZP";

// What LZO promises as the most that lzo1x_1_compress may write for len
// bytes.  Chunks are compressed straight into the caller's output only when
// this much room is left after the header.
constexpr uint32_t LzoWorst(uint32_t len) { return len + len / 16 + 64 + 3; }

// The output room a writer needs for n input bytes:
//   n + floor(min(n, 64480) / 64) + floor(n / 64480) * 8 + 32.
// Every caller allocates exactly this; LZOPCompress_ refuses less.
constexpr uint64_t Bound(uint64_t n) {
    return n + (n < kChunkMax ? n : kChunkMax) / 64 + n / kChunkMax * 8 + 32;
}

// True once lzo_init() has succeeded in this process.  The first call runs
// it (once, whatever the number of threads); a failure sticks.
bool LzoReady();

// Parses a chunk header; false when a character is not a hexadecimal digit
// (either case is accepted; writers write upper case).
bool ParseHeader(const uint8_t* p, uint32_t* stored, uint32_t* length);
void FormatHeader(uint8_t* p, uint32_t stored, uint32_t length);

inline bool HasMagic(const void* p, const char* magic) {
    const auto* b = static_cast<const uint8_t*>(p);
    return b[0] == uint8_t(magic[0]) && b[1] == uint8_t(magic[1]) && b[2] == uint8_t(magic[2]) &&
           b[3] == uint8_t(magic[3]);
}

// Per-thread scratch of the writers, allocated on first use and kept until
// the thread ends, so that steady-state compression allocates nothing but
// its result.  Both return null when memory runs out.
uint8_t* ThreadWork();   // kWorkSize bytes of LZO work memory
uint8_t* ThreadSpill();  // LzoWorst(kChunkMax) bytes, for chunks near the end of a tight output

// Writes one chunk of len (1..kChunkMax) input bytes as header + bytes at
// dst, which has room bytes; work is kWorkSize bytes of LZO work memory.
// Returns the bytes written, 0 when room is too small or the compressor
// fails.  When room does not hold LzoWorst(len) after the header, the chunk
// is compressed into ThreadSpill() first.
size_t EncodeChunk(const uint8_t* in, uint32_t len, uint8_t* dst, size_t room, void* work);

// Decodes one compressed chunk of stored bytes into exactly length bytes at
// out, with the checked decompressor; false unless it yields exactly that.
bool DecodeChunk(const uint8_t* in, uint32_t stored, uint8_t* out, uint32_t length);

// The container at p.  limit is the number of bytes that may be looked at
// (SIZE_MAX: trust the headers, as LZOPDecompress_ must).
struct Walk {
    uint64_t output = 0;     // decompressed bytes
    uint64_t size = 0;       // container bytes, terminator included
    uint32_t chunks = 0;
    uint32_t stored = 0;     // chunks kept as they were
};

// Walks the headers only: false when a header is not hexadecimal or when a
// chunk or the terminator would lie past limit.
bool WalkContainer(const uint8_t* p, size_t limit, Walk* walk);

// Walks and decodes into out (room bytes): false on any malformed chunk, a
// chunk that would not fit the room, or bytes past limit.  *written is the
// number of output bytes on success.
bool DecodeContainer(const uint8_t* p, size_t limit, uint8_t* out, uint64_t room,
                     uint64_t* written);

// Writes the container of n input bytes into out (room bytes); false when
// room < Bound(n) or the compressor fails.  *written is the container size.
bool EncodeContainer(const uint8_t* in, uint64_t n, uint8_t* out, uint64_t room, void* work,
                     uint64_t* written);

// The streaming functions' layer inside the C edge: an exception from fn --
// in practice one thrown by the caller's read or write callback -- is logged
// at level 2 as "exception in a callback: <text>" under tag, read when it is
// caught (a reader switches to the older format's tag midway), and the call
// gives false.
template <typename Fn>
bool CallbackEdge(const char* const& tag, Fn&& fn) {
    try {
        return fn();
    } catch (const std::exception& e) {
        LogF(2, tag, "exception in a callback: %s", e.what());
    } catch (...) {
        Log(2, tag, "exception in a callback: unknown");
    }
    return false;
}

}  // namespace kwz::lzop
