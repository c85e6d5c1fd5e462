// Streaming writer and reader of the "#LZ2" container: LZOPCompress and
// LZOPDecompress move the data through the caller's read and write callbacks,
// one chunk at a time, so that inputs larger than memory work.  The reader
// also accepts the older "#LZP" container (crypto/lzop.h).
//
// The callbacks run on the calling thread.  A callback returns the number of
// bytes it moved, or a negative value for an error.  C++ callbacks may throw:
// the exception is caught here, logged at level 2 and the call returns false.
#include <cstring>
#include <exception>
#include <memory>
#include <new>

#include "crypto/lzop.h"
#include "base/kwBase.h"
#include "crypto/kwzCore.h"

namespace kwz::lzop {
namespace {

constexpr char kTagCompress[] = "Kwz.lzop.LZOPCompress";
constexpr char kTagDecompress[] = "Kwz.lzop.LZOPDecompress";
constexpr char kTagOld[] = "Kwz.lzop.OldDecompress";

std::unique_ptr<uint8_t[]> Buffer(size_t size) {
    return std::unique_ptr<uint8_t[]>(new (std::nothrow) uint8_t[size]);
}

// Asks for size bytes until they are all there or the input ends (the
// callback returns 0).  Returns the bytes read, or -1 for a callback error
// or a callback that returned more than it was asked for.
int64_t ReadFull(void* context, LZOPReadFn read, uint8_t* buffer, int32_t size) {
    int32_t have = 0;
    while (have < size) {
        int32_t got = read(context, buffer + have, size - have);
        if (got < 0 || got > size - have) return -1;
        if (got == 0) break;
        have += got;
    }
    return have;
}

// Hands all size bytes to the callback, which may take them in pieces; a
// callback that takes nothing, fails or claims more than it was given ends it.
bool WriteAll(void* context, LZOPWriteFn write, const uint8_t* buffer, int32_t size) {
    while (size > 0) {
        int32_t put = write(context, buffer, size);
        if (put <= 0 || put > size) return false;
        buffer += put;
        size -= put;
    }
    return true;
}

bool Fail(const char* tag, const char* why) {
    Log(3, tag, why);
    return false;
}

// The input is cut exactly as LZOPCompress_ cuts it (full chunks of 64480
// bytes, however the callback hands them out), so both writers produce the
// same bytes for the same input.
bool StreamCompress(void* context, LZOPReadFn read, LZOPWriteFn write) {
    auto in = Buffer(kChunkMax);
    const size_t outRoom = kHeaderSize + LzoWorst(kChunkMax);
    auto out = Buffer(outRoom);
    uint8_t* work = ThreadWork();
    if (!in || !out || !work) return Fail(kTagCompress, "SE_NOMEM chunk buffers");

    if (!WriteAll(context, write, reinterpret_cast<const uint8_t*>(kMagic), kMagicSize))
        return Fail(kTagCompress, "write failed");
    for (;;) {
        int64_t got = ReadFull(context, read, in.get(), kChunkMax);
        if (got < 0) return Fail(kTagCompress, "read failed");
        if (got == 0) break;
        size_t chunk = EncodeChunk(in.get(), uint32_t(got), out.get(), outRoom, work);
        if (chunk == 0) return Fail(kTagCompress, "compression failed");
        if (!WriteAll(context, write, out.get(), int32_t(chunk)))
            return Fail(kTagCompress, "write failed");
        if (got < kChunkMax) break;  // the input has ended
    }
    if (!WriteAll(context, write, reinterpret_cast<const uint8_t*>("00000000"), kHeaderSize))
        return Fail(kTagCompress, "write failed");
    return true;
}

// Reads the magic and the first header (12 bytes), then each chunk together
// with the header after it, so the reader never asks for a byte past the
// terminator: a container may be followed by other data in the same stream.
bool StreamDecompress(void* context, LZOPReadFn read, LZOPWriteFn write, const char** tag) {
    auto in = Buffer(kFieldMax + kHeaderSize);
    auto out = Buffer(kFieldMax);
    if (!in || !out) return Fail(*tag, "SE_NOMEM chunk buffers");

    if (ReadFull(context, read, in.get(), kEmptySize) != kEmptySize)
        return Fail(*tag, "short read in the container head");
    if (HasMagic(in.get(), kOldMagic)) {
        *tag = kTagOld;
    } else if (!HasMagic(in.get(), kMagic)) {
        return Fail(*tag, "not a container");
    }
    uint8_t header[kHeaderSize];
    std::memcpy(header, in.get() + kMagicSize, kHeaderSize);
    for (;;) {
        uint32_t stored = 0, length = 0;
        if (!ParseHeader(header, &stored, &length)) return Fail(*tag, "bad chunk header");
        if (stored == 0) return true;
        const int32_t want = int32_t(stored + kHeaderSize);
        if (ReadFull(context, read, in.get(), want) != want) return Fail(*tag, "short read");
        if (length) {
            if (!DecodeChunk(in.get(), stored, out.get(), length))
                return Fail(*tag, "chunk cannot be decoded");
            if (!WriteAll(context, write, out.get(), int32_t(length)))
                return Fail(*tag, "write failed");
        } else if (!WriteAll(context, write, in.get(), int32_t(stored))) {
            return Fail(*tag, "write failed");
        }
        std::memcpy(header, in.get() + stored, kHeaderSize);
    }
}

}  // namespace


bool Compress(void* context, LZOPReadFn read, LZOPWriteFn write) {
    return CallbackEdge(kTagCompress, [&] {
        if (!read || !write) return Fail(kTagCompress, "null callback");
        return LzoReady() && StreamCompress(context, read, write);
    });
}

bool Decompress(void* context, LZOPReadFn read, LZOPWriteFn write) {
    const char* tag = kTagDecompress;  // becomes the "#LZP" tag once that magic is seen
    return CallbackEdge(tag, [&] {
        if (!read || !write) return Fail(tag, "null callback");
        return LzoReady() && StreamDecompress(context, read, write, &tag);
    });
}

}  // namespace kwz::lzop
