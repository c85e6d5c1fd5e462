// Value operations: emptying, moving, setting, deep and reference copies,
// arrays and indexing.  Strings and arrays are built completely in a fresh
// value before the destination is emptied, so a destination that holds (or
// lies inside) the source is safe, and a failed allocation changes nothing
// that the caller still needs.
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "base/kwGuard.h"
#include "base/kwMem.h"
#include "calc/kwCalcFast.h"
#include "calc/kwCalcVar.h"

namespace kwz::calc {
namespace {

// Three 8-byte words (as the interpreter writes values): a memset of the
// packed 24 bytes compiles to "rep stos", slow for so few bytes on every
// emptied value.
inline void Zero(CVar* v) {
    const uint64_t zero = 0;
    char* p = reinterpret_cast<char*>(v);
    std::memcpy(p, &zero, 8);
    std::memcpy(p + 8, &zero, 8);
    std::memcpy(p + 16, &zero, 8);
}

inline void SetArrPart(CVar* v, CVar* items, int32_t count, int32_t ref) {
    v->type = kArr;
    v->v.a = items;
    v->count = count;
    v->ref = ref;
    v->spare = 0;
}

// Copies source into d, which is empty and not reachable from source.  On
// failure d is left empty.
int32_t CopyInto(CVar* d, const CVar* s, int32_t depth) {
    switch (s->type) {
    case kEmpty:
        return kOk;
    case kInt:
    case kDbl:
        *d = *s;
        return kOk;
    case kStr: {
        const int32_t status = SetStr(d, s->v.s, s->count > 0 ? s->count : 0);
        if (status != kOk) Zero(d);
        return status;
    }
    case kArr: {
        if (depth >= kMaxWalkDepth) return kNotSupported;
        const int32_t n = s->count > 0 && s->v.a ? s->count : 0;
        CVar* items = nullptr;
        if (n > 0 && !(items = AllocVars(n))) return kNoMem;
        for (int32_t i = 0; i < n; ++i) {
            const int32_t status = CopyInto(&items[i], &s->v.a[i], depth + 1);
            if (status != kOk) {
                Clear(items, n);
                FreeVars(items);
                return status;
            }
        }
        SetArrPart(d, items, n, 0);
        return kOk;
    }
    default:
        break;
    }
    // Object types: an unregistered (or impossible) tag leaves d empty.
    const KWCalcObjDef* def = ObjType(s->type);
    if (!def) return kOk;
    if (def->Copy) {
        d->type = s->type;  // the slot gets a zero payload under the right tag
        def->Copy(d, s);
    } else {
        *d = *s;
    }
    return kOk;
}

}  // namespace

CVar* AllocVars(int32_t count) {
    if (count < 1) return nullptr;
    const size_t bytes = size_t(count) * sizeof(CVar);
    auto* block = static_cast<CVar*>(MemAlloc(bytes));
    if (block) std::memset(static_cast<void*>(block), 0, bytes);
    return block;
}

void FreeVars(CVar* block) { MemFree(block); }

namespace {

// Arrays nested deeper than this are freed through a work list on the heap
// instead of the C stack, so that no nesting a script can build overflows it.
constexpr int32_t kRecurseDepth = 128;

void EmptyAt(CVar* v, int32_t depth);

void ClearAt(CVar* values, int32_t count, int32_t depth) {
    for (int32_t i = 0; i < count; ++i) EmptyAt(&values[i], depth);
}

// Frees everything but owned arrays, and empties the value.
void EmptyLeaf(CVar* v) {
    if (v->type == kStr) {
        if (v->ref == 0) StrBlockFree(v->v.s);
    } else if (v->type >= kFirstObj) {
        if (const KWCalcObjDef* def = ObjType(v->type); def && def->Free) def->Free(v);
    }
    Zero(v);
}

bool IsOwnedArray(const CVar* v) { return v->type == kArr && v->ref == 0 && v->v.a; }

// Depth-first over blocks kept on a work list; when the list cannot grow,
// that block is freed by recursion after all.
void FreeDeep(CVar* items, int32_t count) {
    std::vector<std::pair<CVar*, int32_t>> work;
    auto push = [&](CVar* block, int32_t n) {
        try {
            work.emplace_back(block, n);
        } catch (const std::bad_alloc&) {
            ClearAt(block, n, 0);
            FreeVars(block);
        }
    };
    push(items, count);
    while (!work.empty()) {
        const auto [block, n] = work.back();
        work.pop_back();
        for (int32_t i = 0; i < n; ++i) {
            CVar* e = &block[i];
            if (IsOwnedArray(e)) {
                push(e->v.a, e->count);
                Zero(e);
            } else {
                EmptyLeaf(e);
            }
        }
        FreeVars(block);
    }
}

void EmptyAt(CVar* v, int32_t depth) {
    if (!IsOwnedArray(v)) {
        EmptyLeaf(v);
        return;
    }
    if (depth < kRecurseDepth) {
        ClearAt(v->v.a, v->count, depth + 1);
        FreeVars(v->v.a);
    } else {
        FreeDeep(v->v.a, v->count);
    }
    Zero(v);
}

}  // namespace

void SetEmpty(CVar* v) {
    if (!v) return;
    if (uint32_t(v->type) <= uint32_t(kDbl)) Zero(v);  // nothing to free
    else EmptyAt(v, 0);
}

void Clear(CVar* values, int32_t count) {
    if (values) ClearAt(values, count, 0);
}

void Move(CVar* d, CVar* s) {
    if (!d || !s || d == s) return;
    const CVar taken = *s;
    Zero(s);
    SetEmpty(d);
    *d = taken;
}

// Written as the interpreter reads them (see kwCalcFast.h).
void SetInt(CVar* v, int64_t i) {
    SetEmpty(v);
    PutInt(v, i);
}

void SetDbl(CVar* v, double d) {
    SetEmpty(v);
    PutDbl(v, d);
}

int32_t SetStr(CVar* v, const char* bytes, int32_t length) {
    if (length < 0) {
        SetEmpty(v);
        return kOk;
    }
    char* block = StrBlock(length);
    if (block && length > 0) {
        if (bytes)
            std::memcpy(block, bytes, size_t(length));
        else
            std::memset(block, 0, size_t(length));
    }
    SetEmpty(v);
    v->type = kStr;
    v->v.s = block;
    v->count = block ? length : 0;
    return block ? kOk : kNoMem;
}

int32_t SetArr(CVar* v, int32_t count) {
    if (count < 0) {
        SetEmpty(v);
        return kOk;
    }
    CVar* items = AllocVars(count);
    SetEmpty(v);
    SetArrPart(v, items, items ? count : 0, 0);
    return count > 0 && !items ? kNoMem : kOk;
}

int32_t Copy(CVar* d, const CVar* s) {
    if (!d || d == s) return kOk;
    if (!s) {
        SetEmpty(d);
        return kOk;
    }
    CVar copy{};
    const int32_t status = CopyInto(&copy, s, 0);
    SetEmpty(d);
    *d = copy;
    return status;
}

void CopyRef(CVar* d, const CVar* s) {
    if (!d || d == s) return;
    if (!s || s->type < 0 || s->type > kLastTag) {
        SetEmpty(d);
        return;
    }
    CVar taken = *s;
    if (s->type == kStr || s->type == kArr) {
        taken.ref = 1;
    } else if (IsObjTag(s->type)) {
        // A type decides itself whether its copy shares.
        const KWCalcObjDef* def = ObjType(s->type);
        if (def && def->Copy) {
            Zero(&taken);
            taken.type = s->type;
            def->Copy(&taken, s);
        }
    }
    SetEmpty(d);
    *d = taken;
}

int32_t Own(CVar* v) {
    if (!v || v->ref == 0) return kOk;
    if (v->type == kStr) {
        const int32_t n = v->count > 0 ? v->count : 0;
        char* block = StrBlock(n);
        if (!block) return kNoMem;
        if (n > 0) std::memcpy(block, v->v.s, size_t(n));
        v->v.s = block;
        v->count = n;
        v->ref = 0;
    } else if (v->type == kArr) {
        CVar copy{};
        const int32_t status = CopyInto(&copy, v, 0);
        if (status != kOk) return status;
        *v = copy;  // the reference frees nothing
    }
    return kOk;
}

int32_t ArrCopy(CVar* values, int32_t n) {
    if (!values || n < 1) return kOk;
    CVar* items = AllocVars(n);
    if (!items) return kNoMem;
    std::memcpy(static_cast<void*>(items), values, size_t(n) * sizeof(CVar));
    std::memset(static_cast<void*>(values), 0, size_t(n) * sizeof(CVar));
    SetArrPart(&values[0], items, n, 0);
    return kOk;
}

// Shrinking cannot fail: when the smaller block cannot be had, the larger
// one is kept under the smaller count.
bool ArrResize(CVar*& items, int32_t& count, int32_t newCount) {
    if (newCount < 0) newCount = 0;
    const int32_t old = items ? count : 0;
    if (newCount <= old) {
        Clear(items + newCount, old - newCount);
        if (newCount == 0) {
            FreeVars(items);
            items = nullptr;
        } else if (auto* smaller = static_cast<CVar*>(
                       MemReAlloc(items, size_t(newCount) * sizeof(CVar)))) {
            items = smaller;
        }
        count = newCount;
        return true;
    }
    auto* grown = static_cast<CVar*>(MemReAlloc(items, size_t(newCount) * sizeof(CVar)));
    if (!grown) return false;
    std::memset(static_cast<void*>(grown + old), 0, size_t(newCount - old) * sizeof(CVar));
    items = grown;
    count = newCount;
    return true;
}

int32_t IntOf(const CVar* v, int64_t* out) {
    *out = 0;
    switch (v ? v->type : kEmpty) {
    case kEmpty:
        return kOk;
    case kInt:
        *out = v->v.i;
        return kOk;
    case kDbl:
        *out = DblToInt32(v->v.d);
        return kOk;
    case kStr:
        *out = v->count > 0 && v->v.s ? std::strtol(v->v.s, nullptr, 10) : 0;
        return kOk;
    case kArr:
        return kNotSupported;
    default:
        break;
    }
    CVar copy{};
    int32_t status = Copy(&copy, v);
    if (status == kOk) status = Cast(&copy, kInt);
    if (status == kOk && copy.type == kInt) *out = copy.v.i;
    else if (status == kOk) status = kNotSupported;
    SetEmpty(&copy);
    return status;
}

CVar* ArrItm(CVar* array, const CVar* indexes, int32_t n, int32_t* status) {
    CVar* cur = array;
    int32_t result = cur && (indexes || n <= 0) ? kOk : kBadIndex;
    for (int32_t k = 0; result == kOk && k < n; ++k) {
        int64_t i = 0;
        if (cur->type != kArr) {
            result = kBadIndex;
        } else if (const int32_t s = IntOf(&indexes[k], &i); s != kOk) {
            result = s == kNoMem ? kNoMem : kBadIndex;
        } else if (i < 0 || i >= cur->count || !cur->v.a) {
            result = kBadIndex;
        } else {
            cur = &cur->v.a[i];
        }
    }
    if (status) *status = result;
    return result == kOk ? cur : nullptr;
}

// The byte at index of a Str; 0, -44 not a Str, -49 bad index, -21.
static int32_t CharIndex(const CVar* string, const CVar* index, int64_t* at) {
    if (!string || string->type != kStr) return kNotSupported;
    const int32_t s = IntOf(index, at);
    if (s != kOk) return s == kNoMem ? kNoMem : kBadIndex;
    if (*at < 0 || *at >= string->count || !string->v.s) return kBadIndex;
    return kOk;
}

int32_t GetChar(CVar* d, const CVar* string, const CVar* index) {
    int64_t at = 0;
    const int32_t status = CharIndex(string, index, &at);
    if (status != kOk) return status;
    SetInt(d, static_cast<unsigned char>(string->v.s[at]));
    return kOk;
}

int32_t PutChar(CVar* string, const CVar* index, const CVar* value) {
    int64_t at = 0;
    int32_t status = CharIndex(string, index, &at);
    if (status != kOk) return status;
    char c;
    if (value && value->type == kInt)
        c = static_cast<char>(value->v.i & 0xFF);
    else if (value && value->type == kStr)
        c = value->count > 0 && value->v.s ? value->v.s[0] : 0;
    else
        return kNotSupported;
    if ((status = Own(string)) != kOk) return status;
    string->v.s[at] = c;
    return kOk;
}

}  // namespace kwz::calc

using namespace kwz::calc;

namespace {

void LogNoMem(const char* tag, int32_t status) {
    if (status == kNoMem) kwz::Log(2, tag, "SE_NOMEM value left empty");
}

}  // namespace

// SetDbl out of line, for a value that may hold a block: the setting of a
// number then keeps no register.
static __attribute__((noinline)) void SetDblHeld(CVar* v, double d) { SetDbl(v, d); }

extern "C" {

KWZ_API void CVarInit(CVar* values, int32_t count) {
    kwz::CEdgeVoid("Kwz.kwCalc.CVarInit", [&] {
        if (values && count > 0)
            std::memset(static_cast<void*>(values), 0, size_t(count) * sizeof(CVar));
    });
}

KWZ_API CVar* CVarAlloc(int32_t count, CVar** out) {
    return kwz::CEdge("Kwz.kwCalc.CVarAlloc", static_cast<CVar*>(nullptr),
                      static_cast<CVar*>(nullptr), [&] {
                          CVar* block = AllocVars(count);
                          if (!block && count > 0)
                              kwz::LogF(2, "Kwz.kwCalc.CVarAlloc", "SE_NOMEM %d values", count);
                          if (out) *out = block;
                          return block;
                      });
}

KWZ_API void CVarSetEmpty(CVar* value) {
    kwz::CEdgeVoid("Kwz.kwCalc.CVarSetEmpty", [&] { SetEmpty(value); });
}

KWZ_API void CVarClear(CVar* values, int32_t count) {
    kwz::CEdgeVoid("Kwz.kwCalc.CVarClear", [&] { Clear(values, count); });
}

KWZ_API void CVarFree(CVar* values, int32_t count) {
    kwz::CEdgeVoid("Kwz.kwCalc.CVarFree", [&] {
        Clear(values, count);
        FreeVars(values);
    });
}

KWZ_API void CVarMove(CVar* destination, CVar* source) {
    kwz::CEdgeVoid("Kwz.kwCalc.CVarMove", [&] { Move(destination, source); });
}

KWZ_API void CVarSetInt(CVar* value, int64_t i) {
    kwz::CEdgeVoid("Kwz.kwCalc.CVarSetInt", [&] {
        if (value) SetInt(value, i);
    });
}

KWZ_API void CVarSetDbl(CVar* value, double d) {
    kwz::CEdgeVoid("Kwz.kwCalc.CVarSetDbl", [&] {
        if (!value) return;
        if (Plain(value)) PutDbl(value, d);  // the host's argument: a number needs no freeing
        else SetDblHeld(value, d);
    });
}

KWZ_API void CVarSetStr(CVar* value, const char* bytes, int32_t length) {
    kwz::CEdgeVoid("Kwz.kwCalc.CVarSetStr", [&] {
        if (value) LogNoMem("Kwz.kwCalc.CVarSetStr", SetStr(value, bytes, length));
    });
}

KWZ_API void CVarSetArr(CVar* value, int32_t count) {
    kwz::CEdgeVoid("Kwz.kwCalc.CVarSetArr", [&] {
        if (value) LogNoMem("Kwz.kwCalc.CVarSetArr", SetArr(value, count));
    });
}

KWZ_API void CVarCopy(CVar* destination, const CVar* source) {
    kwz::CEdgeVoid("Kwz.kwCalc.CVarCopy", [&] {
        const int32_t status = Copy(destination, source);
        LogNoMem("Kwz.kwCalc.CVarCopy", status);
        if (status == kNotSupported)
            kwz::Log(2, "Kwz.kwCalc.CVarCopy", "arrays nested too deep; value left empty");
    });
}

KWZ_API void CVarCopyRef(CVar* destination, const CVar* source) {
    kwz::CEdgeVoid("Kwz.kwCalc.CVarCopyRef", [&] { CopyRef(destination, source); });
}

KWZ_API void CArrCopy(CVar* values, int32_t n) {
    kwz::CEdgeVoid("Kwz.kwCalc.CArrCopy", [&] {
        if (ArrCopy(values, n) == kNoMem)
            kwz::Log(2, "Kwz.kwCalc.CArrCopy", "SE_NOMEM values left as they were");
    });
}

KWZ_API void CArrReAlloc(CArr* arr, int32_t newCount) {
    kwz::CEdgeVoid("Kwz.kwCalc.CArrReAlloc", [&] {
        if (!arr) return;
        if (arr->ref != 0) {  // resize an owned copy, never the aliased block
            CVar whole{};
            SetArrPart(&whole, arr->items, arr->count, arr->ref);
            if (Own(&whole) != kOk) return;
            arr->items = whole.v.a;
            arr->count = whole.count;
            arr->ref = 0;
        }
        CVar* items = arr->items;
        int32_t count = arr->count;
        if (ArrResize(items, count, newCount)) {
            arr->items = items;
            arr->count = count;
        }
    });
}

KWZ_API CVar* CVarArrItm(CVar* array, CVar* indexes, int32_t n, int32_t* status) {
    return kwz::CEdge("Kwz.kwCalc.CVarArrItm", static_cast<CVar*>(nullptr),
                      static_cast<CVar*>(nullptr), [&] {
                          if (status) *status = kNoMem;
                          return ArrItm(array, indexes, n, status);
                      });
}

KWZ_API int32_t CVarGetChar(CVar* destination, const CVar* string, const CVar* index,
                            int32_t* status) {
    const int32_t result = kwz::CEdge("Kwz.kwCalc.CVarGetChar", kNoMem, kNotSupported, [&] {
        return destination ? GetChar(destination, string, index) : kBadIndex;
    });
    if (status) *status = result;
    return result;
}

KWZ_API int32_t CVarPutChar(CVar* string, const CVar* index, const CVar* value, int32_t* status) {
    const int32_t result = kwz::CEdge("Kwz.kwCalc.CVarPutChar", kNoMem, kNotSupported,
                                      [&] { return PutChar(string, index, value); });
    if (status) *status = result;
    return result;
}

}  // extern "C"
