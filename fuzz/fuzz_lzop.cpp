// Fuzz target for the container readers.  The input is given to
//  - KWZDataDeCompress with its exact length (container or not),
//  - the streaming reader LZOPDecompress through a read callback over it,
//    once whole and once in small pieces,
// and the readers must agree: when one decodes, all do, to the same bytes.
// When the input decodes, the buffer reader LZOPDecompress_ (which trusts
// the headers) is safe to run on it too and must agree as well.  The input
// also goes to KWZArrayUnPackN with its exact length, in both modes: it
// gives 0, -1 or -4, leaves the array empty when it fails, and agrees with
// the checked table reader on a plain table.  Finally the input is
// compressed and must come back unchanged.
#include <VomKwz.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

struct Pipe {
    const uint8_t* data;
    size_t size, pos = 0;
    int32_t piece;
    std::vector<uint8_t> out;
};

int32_t Read(void* context, void* buffer, int32_t size) {
    auto* p = static_cast<Pipe*>(context);
    size_t n = size_t(size < p->piece ? size : p->piece);
    if (n > p->size - p->pos) n = p->size - p->pos;
    if (n) std::memcpy(buffer, p->data + p->pos, n);
    p->pos += n;
    return int32_t(n);
}

int32_t Write(void* context, const void* buffer, int32_t size) {
    auto* p = static_cast<Pipe*>(context);
    const auto* b = static_cast<const uint8_t*>(buffer);
    p->out.insert(p->out.end(), b, b + size);
    return size;
}

bool Stream(const uint8_t* data, size_t size, int32_t piece, std::vector<uint8_t>* out) {
    Pipe pipe{data, size, 0, piece, {}};
    bool ok = LZOPDecompress(&pipe, Read, Write, 0);
    *out = std::move(pipe.out);
    return ok;
}

void Check(bool condition) {
    if (!condition) std::abort();
}

bool Same(const void* a, const void* b, size_t n) { return n == 0 || std::memcmp(a, b, n) == 0; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > (1u << 24)) return 0;
    // An exact-size copy: a read past the end is a sanitizer report.
    std::unique_ptr<uint8_t[]> input(new uint8_t[size ? size : 1]);
    if (size) std::memcpy(input.get(), data, size);
    const uint8_t* in = input.get();

    int32_t length = 0;
    void* block = nullptr;
    const int32_t rc = KWZDataDeCompress(int32_t(size), in, &length, &block);
    Check(rc == 0 || rc == -4 || rc == -1);
    const bool container = size >= 12 && std::memcmp(in, "#LZ2", 4) == 0;

    std::vector<uint8_t> whole, pieces;
    const bool streamed = Stream(in, size, 1 << 30, &whole);
    if (size < 4096) Check(Stream(in, size, 13, &pieces) == streamed && pieces == whole);

    if (rc == 0 && container) {
        const auto* b = static_cast<const uint8_t*>(block);
        Check(streamed && whole.size() == size_t(length) &&
              Same(whole.data(), b, whole.size()));
        uint32_t query = 0;
        Check(LZOPDecompress_(in, nullptr, &query, 0) && query == uint32_t(length));
        std::vector<uint8_t> filled(query + 1);
        uint32_t room = query;
        Check(LZOPDecompress_(in, filled.data(), &room, 0) && room == query &&
              Same(filled.data(), b, query));
    } else if (container && rc == -4) {
        // Both readers see the same bytes up to the terminator.
        Check(!streamed);
    }
    KWMemFree(block);

    // Packed tables, in a container or plain.
    for (bool forRead : {false, true}) {
        KWArray* array = nullptr;
        if (KWACreate(&array, nullptr) != 0) break;
        const int32_t unpacked = KWZArrayUnPackN(array, in, size, forRead);
        Check(unpacked == 0 || unpacked == -1 || unpacked == -4);
        if (unpacked != 0) {
            Check(KWARecCount(array) == 0 && KWAType(array)->fieldCount == 0);
        } else {
            void* table = nullptr;
            Check(KWAPack(array, &table) > 0);
            KWMemFree(table);
        }
        if (!container && unpacked != -1) {
            KWArray* checked = nullptr;
            Check(KWACreate(&checked, nullptr) == 0);
            const int64_t rc2 = KWAUnpackChecked(checked, in, size, forRead);
            Check((rc2 > 0) == (unpacked == 0) || rc2 == -1);
            KWADestroy(checked);
        }
        KWADestroy(array);
    }

    // Round trip of the raw input.
    int32_t packedLength = 0, backLength = 0;
    void *packed = nullptr, *back = nullptr;
    Check(KWZDataCompress(int32_t(size), in, &packedLength, &packed) == 0);
    Check(KWZDataDeCompress(packedLength, packed, &backLength, &back) == 0);
    Check(size_t(backLength) == size && Same(back, in, size));
    KWMemFree(packed);
    KWMemFree(back);
    return 0;
}
