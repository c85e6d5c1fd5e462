// Value images from untrusted bytes: CVarFromBuffN reads nothing past the
// length; whatever it accepts writes back to the same bytes, and a deep copy
// of it has the same image.
#include <VomKwz.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

// An object type without slots travels as its 20 raw bytes.
KWCalcObjDef g_raw = {};

void Check(bool ok) {
    if (!ok) std::abort();
}

std::vector<uint8_t> ImageOf(const CVar* v) {
    const int32_t n = CVarToBuff(v, nullptr, 0);
    std::vector<uint8_t> out(size_t(n > 0 ? n : 0));
    if (n > 0) Check(CVarToBuff(v, out.data(), n) == n);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool registered = [] {
        g_raw.name = "Raw";
        return KWCalcObjTypeReg(9, &g_raw) == &g_raw;
    }();
    Check(registered);
    if (size > 1 << 20) return 0;
    // A copy of exactly `size` bytes, so that the sanitizer sees any read past it.
    std::vector<uint8_t> bytes(data, data + size);
    CVar v{};
    const int32_t n = CVarFromBuffN(&v, bytes.data(), int32_t(size));
    if (n == 0) {
        Check(v.type == 0);
        return 0;
    }
    Check(n > 0 && size_t(n) <= size);
    const std::vector<uint8_t> image = ImageOf(&v);
    Check(image.size() == size_t(n) && std::memcmp(image.data(), bytes.data(), size_t(n)) == 0);
    CVar copy{};
    CVarCopy(&copy, &v);
    Check(ImageOf(&copy) == image);
    CVarSetEmpty(&copy);
    CVarSetEmpty(&v);
    return 0;
}
