// The scalar object types IntS, DblS and StrS on untrusted bytes.  The input
// is up to four value images (read with CVarFromBuffN, each written back to
// the same bytes) followed by operations of two bytes each (what, operands)
// applied to those four values: operator slots as the engine calls them,
// casts, image round trips, properties, new, copies and UndefFun.  Nothing may
// crash, read out of bounds or leak.
#include <VomKwz.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr int32_t kIntS = 20, kDblS = 21, kStrS = 22;
constexpr int32_t kMaxImage = 1 << 16;  // larger values do not grow further

void Check(bool ok) {
    if (!ok) std::abort();
}

std::vector<uint8_t> ImageOf(const CVar* v) {
    const int32_t n = CVarToBuff(v, nullptr, 0);
    std::vector<uint8_t> out(size_t(n > 0 ? n : 0));
    if (n > 0) Check(CVarToBuff(v, out.data(), n) == n);
    return out;
}

using Slot = int32_t (*KWCalcObjDef::*)(CVar*);
const Slot kSlots[] = {
    &KWCalcObjDef::Sum, &KWCalcObjDef::Sub, &KWCalcObjDef::Mul, &KWCalcObjDef::Div,
    &KWCalcObjDef::DivI, &KWCalcObjDef::Mod, &KWCalcObjDef::LE, &KWCalcObjDef::LNE,
    &KWCalcObjDef::LL, &KWCalcObjDef::LLE, &KWCalcObjDef::LG, &KWCalcObjDef::LGE,
    &KWCalcObjDef::LAnd, &KWCalcObjDef::LOr, &KWCalcObjDef::BAnd, &KWCalcObjDef::BXor,
    &KWCalcObjDef::BOr, &KWCalcObjDef::Shl, &KWCalcObjDef::Shr,
    &KWCalcObjDef::UMin, &KWCalcObjDef::LNot, &KWCalcObjDef::BDop,  // unary: the last three
};
constexpr int kSlotCount = int(sizeof kSlots / sizeof kSlots[0]);
const int32_t kTags[] = {0, 1, 2, 3, 4, kIntS, kDblS, kStrS};

bool Big(const CVar* v) { return CVarToBuff(v, nullptr, 0) > kMaxImage; }

// x := x op y through the slot the engine would choose.
void Operate(int which, CVar* x, const CVar* y) {
    const bool unary = which >= kSlotCount - 3;
    CVar pair[2] = {};
    CVarCopy(&pair[0], x);
    CVarCopy(&pair[1], y);
    const int32_t tag = pair[0].type >= 5 ? pair[0].type : !unary ? pair[1].type : 0;
    const KWCalcObjDef* def = KWCalcObjType(tag);
    if (def && def->*kSlots[which] && !(which == 0 && (Big(&pair[0]) || Big(&pair[1])))) {
        if ((def->*kSlots[which])(pair) == 0) CVarMove(x, &pair[0]);
    }
    CVarClear(pair, 2);
}

// A property read or write through the stack protocol.
void Property(KWCalcStack* s, CVar* x, const CVar* y, uint8_t o, bool put) {
    KWCalcStackClear(s);
    CVar* sel = KWCalcStackPush(s);
    switch (o & 3) {
    case 0: CVarSetInt(sel, (o >> 2) & 3); break;
    case 1: CVarSetStr(sel, "val", 3); break;
    case 2: CVarSetStr(sel, "Sign", 4); break;
    default: CVarCopy(sel, y); break;
    }
    if (put) {
        CVarCopy(KWCalcStackPush(s), y);
        CVarPutObjVar(s, x, 1);
    } else if (CVarGetObjVar(s, x, 1) == 0) {
        CVarMove(x, KWCalcStackArg(s, 0));
    }
    KWCalcStackClear(s);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool registered = IntSObjTypeReg(kIntS, nullptr) && DblSObjTypeReg(kDblS, nullptr) &&
                                   StrSObjTypeReg(kStrS, nullptr);
    Check(registered);
    if (size > 1 << 16) return 0;
    // A copy of exactly `size` bytes, so that the sanitizer sees any read past it.
    std::vector<uint8_t> bytes(data, data + size);
    const uint8_t* p = bytes.data();
    size_t left = size;
    CVar pool[4] = {};
    int filled = 0;
    // The images: the first byte says how many (0..3 + 1).
    if (left > 0) {
        const int wanted = 1 + (*p & 3);
        ++p;
        --left;
        for (; filled < wanted && left > 0; ++filled) {
            const int32_t n = CVarFromBuffN(&pool[filled], p, int32_t(left));
            if (n == 0) {
                Check(pool[filled].type == 0);
                break;
            }
            Check(n > 0 && size_t(n) <= left);
            const std::vector<uint8_t> image = ImageOf(&pool[filled]);
            Check(image.size() == size_t(n) && std::memcmp(image.data(), p, size_t(n)) == 0);
            p += n;
            left -= size_t(n);
        }
    }
    KWCalcStack* stack = nullptr;
    Check(KWCalcStackCreate(nullptr, &stack, 16) == 0);
    for (int steps = 0; left >= 2 && steps < 256; ++steps, p += 2, left -= 2) {
        const uint8_t what = p[0], o = p[1];
        CVar* x = &pool[o & 3];
        CVar* y = &pool[(o >> 2) & 3];
        const int kind = what % 32;
        if (kind < kSlotCount) {
            Operate(kind, x, y);
        } else if (kind == 22) {
            CVarCast(x, kTags[(o >> 4) & 7]);
        } else if (kind == 23) {
            const std::vector<uint8_t> image = ImageOf(x);
            CVar back{};
            const int32_t n = CVarFromBuffN(&back, image.data(), int32_t(image.size()));
            Check(n == int32_t(image.size()));
            if (n > 0) Check(ImageOf(&back) == image);
            CVarSetEmpty(&back);
        } else if (kind == 24 || kind == 25) {
            const KWCalcObjDef* def = KWCalcObjType(x->type);
            CVar pair[2] = {};
            CVarCopy(&pair[0], x);
            CVarSetInt(&pair[1], (o >> 4) - 8);  // round's digit count
            if (def && def->UndefFun && def->UndefFun(pair, kind == 24 ? "round" : "sqrt") == 0)
                CVarMove(x, &pair[0]);
            CVarClear(pair, 2);
        } else if (kind == 26 || kind == 27) {
            Property(stack, x, y, uint8_t(o >> 4), kind == 27);
        } else if (kind == 28) {
            KWCalcStackClear(stack);
            static const char* const kNames[] = {"IntS", "DblS", "StrS", "ints"};
            const char* name = kNames[(o >> 4) & 3];
            CVarSetStr(KWCalcStackPush(stack), name, int32_t(std::strlen(name)));
            CVarCopy(KWCalcStackPush(stack), y);
            if (CVar_New(stack) == 0) CVarMove(x, KWCalcStackArg(stack, 0));
            KWCalcStackClear(stack);
        } else if (kind == 29) {
            if (x != y) CVarCopy(x, y);
        } else if (kind == 30) {
            // An array of two pool values, to reach nested images and casts.
            CVar arr{};
            CVarSetArr(&arr, 2);
            if (arr.count == 2 && !Big(x) && !Big(y)) {
                CVarCopy(&arr.v.a[0], x);
                CVarCopy(&arr.v.a[1], y);
                CVarMove(x, &arr);
            }
            CVarSetEmpty(&arr);
        } else {
            CVarSetEmpty(x);
        }
    }
    KWCalcStackFree(stack);
    CVarClear(pool, 4);
    return 0;
}
