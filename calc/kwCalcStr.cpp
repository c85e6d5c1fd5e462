// Calculator strings: blocks that grow in 128-byte steps and always end in a
// 0 byte, the two comparisons shared by the operators and the built-ins, and
// the packing of property names.
#include <cstring>

#include "base/kwGuard.h"
#include "base/kwMem.h"
#include "calc/kwCalcVar.h"

namespace kwz::calc {
namespace {

// 'a'..'z' and the Windows-1251 small Cyrillic letters 0xE0..0xFF fold to
// their capitals.
inline unsigned FoldUpper(unsigned char c) {
    return (c >= 'a' && c <= 'z') || c >= 0xE0 ? c - 0x20u : c;
}

}  // namespace

char* StrBlock(int32_t length) {
    if (length < 0) return nullptr;
    auto* block = static_cast<char*>(MemAlloc(StrCapacity(length)));
    if (block) block[length] = 0;
    return block;
}

char* StrBlockResize(char* block, int32_t length) {
    if (length < 0) return nullptr;
    auto* grown = static_cast<char*>(MemReAlloc(block, StrCapacity(length)));
    if (grown) grown[length] = 0;
    return grown;
}

void StrBlockFree(char* block) { MemFree(block); }

int32_t StrCmp(const char* a, int32_t na, const char* b, int32_t nb) {
    const int32_t common = na < nb ? na : nb;
    if (common > 0) {
        const int c = std::memcmp(a, b, size_t(common));
        if (c != 0) return c;
    }
    return na < nb ? -1 : na > nb ? 1 : 0;
}

// Equal over the common prefix is equal, whatever the lengths: callers sort
// and match with this asymmetry against StrCmp, so it stays.
int32_t StrCmpI(const char* a, int32_t na, const char* b, int32_t nb) {
    const int32_t common = na < nb ? na : nb;
    const auto* p = reinterpret_cast<const unsigned char*>(a);
    const auto* q = reinterpret_cast<const unsigned char*>(b);
    for (int32_t i = 0; i < common; ++i) {
        const unsigned x = FoldUpper(p[i]), y = FoldUpper(q[i]);
        if (x != y) return x < y ? -1 : 1;
    }
    return 0;
}

uint32_t PropNameToInt(const char* name) {
    uint32_t packed = 0;
    if (!name) return 0;
    for (int i = 0; i < 4 && name[i]; ++i) {
        unsigned char c = static_cast<unsigned char>(name[i]);
        if (c >= 'A' && c <= 'Z') c = static_cast<unsigned char>(c + 0x20);
        packed = (packed << 8) | c;
    }
    return packed;
}

}  // namespace kwz::calc

using namespace kwz::calc;

extern "C" {

KWZ_API void CStrAlloc(CStr* str, int32_t length) {
    kwz::CEdgeVoid("Kwz.kwCalc.CStrAlloc", [&] {
        if (!str) return;
        str->text = StrBlock(length);
        str->length = str->text ? length : 0;
        str->ref = 0;
    });
}

// A reference is never resized in place: it becomes an owned copy of the
// bytes that fit, since the block it aliases is not its own.
KWZ_API void CStrReAlloc(CStr* str, int32_t length) {
    kwz::CEdgeVoid("Kwz.kwCalc.CStrReAlloc", [&] {
        if (!str || length < 0) return;
        const int32_t old = str->text ? str->length : 0;
        char* block;
        if (str->ref != 0 || !str->text) {
            block = StrBlock(length);
            if (!block) return;
            if (old > 0) std::memcpy(block, str->text, size_t(old < length ? old : length));
        } else {
            block = StrBlockResize(str->text, length);
            if (!block) return;
        }
        if (length > old) std::memset(block + old, 0, size_t(length - old));
        str->text = block;
        str->length = length;
        str->ref = 0;
    });
}

KWZ_API void CStrFree(CStr* str) {
    kwz::CEdgeVoid("Kwz.kwCalc.CStrFree", [&] {
        if (!str) return;
        if (str->ref == 0) StrBlockFree(str->text);
        str->text = nullptr;
        str->length = 0;
        str->ref = 0;
    });
}

// A NULL string compares as the empty one.
KWZ_API int32_t CStrCmp(const CStr* a, const CStr* b) {
    return kwz::CEdge("Kwz.kwCalc.CStrCmp", 0, 0, [&] {
        return StrCmp(a ? a->text : nullptr, a ? a->length : 0, b ? b->text : nullptr,
                      b ? b->length : 0);
    });
}

KWZ_API int32_t CStrCmpI(const CStr* a, const CStr* b) {
    return kwz::CEdge("Kwz.kwCalc.CStrCmpI", 0, 0, [&] {
        return StrCmpI(a ? a->text : nullptr, a ? a->length : 0, b ? b->text : nullptr,
                       b ? b->length : 0);
    });
}

KWZ_API uint32_t PropNameToInt(const char* name) {
    return kwz::CEdge("Kwz.kwCalc.PropNameToInt", 0u, 0u,
                      [&] { return kwz::calc::PropNameToInt(name); });
}

}  // extern "C"
