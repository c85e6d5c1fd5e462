// Fuzz target for the packed-table reader: KWAUnpackChecked in both modes,
// then every key walked, a few seeks, an addition and a delete, and a second
// pack that must equal the pack of its own unpack.
#include <VomKwz.h>

#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

std::vector<uint8_t> PackOf(KWArray* a) {
    void* block = nullptr;
    const uint64_t n = KWAPack(a, &block);
    std::vector<uint8_t> out(static_cast<uint8_t*>(block), static_cast<uint8_t*>(block) + n);
    KWMemFree(block);
    return out;
}

void Exercise(KWArray* a, bool forRead) {
    for (int32_t k = 0; k < 16; ++k) {
        for (int32_t i = 0; KWRData* r = KWARec(a, k, i); ++i) {
            if (KWARecIdx(a, k, r) != i) std::abort();
            if (i < 8) {
                int32_t pos = -1;
                KWARecSeek(a, k, r, &pos);
                KWRVal cells[6];
                std::memset(cells, 0, sizeof cells);
                KWARecSeekV(a, k, cells, &pos);
            }
        }
    }
    const std::vector<uint8_t> first = PackOf(a);
    if (first.empty()) std::abort();
    KWArray* b = nullptr;
    KWACreate(&b, nullptr);
    if (KWAUnpackChecked(b, first.data(), first.size(), forRead) != static_cast<int64_t>(first.size())) std::abort();
    if (PackOf(b) != first) std::abort();
    KWADestroy(b);

    // An all-null addition (in read-from-pack storage when forRead), then
    // its delete, which converts the storage back.
    if (KWRData* added = KWARecAdd(a, nullptr)) {
        if (KWARecDel(KWARec(a, 0, KWARecIdx(a, 0, added))) != 0) std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    for (bool forRead : {false, true}) {
        KWArray* a = nullptr;
        if (KWACreate(&a, nullptr) != 0) return 0;
        const int64_t rc = KWAUnpackChecked(a, data, size, forRead);
        if (rc > 0) Exercise(a, forRead);
        KWADestroy(a);
    }
    return 0;
}
