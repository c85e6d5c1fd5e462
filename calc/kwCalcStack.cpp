// The execution stack as far as values and object types need it: creation,
// frames, push and pop, and the protocol through which an object type's Get,
// Put and New slots see their arguments.  The engine adds calls and hooks.
#include "calc/kwCalcStack.h"

#include <emmintrin.h>

#include <cstring>
#include <new>

#include "base/kwGuard.h"
#include "base/kwMem.h"
#include "calc/kwCalcFast.h"
#include "calc/kwCalcVar.h"

namespace kwz::calc {
namespace {

// A number popped into the host's value.  The slot's words were written one
// by one (PutWords), so they are read one by one: a 16-byte load of two
// separately written words waits until both stores retire.  The host's
// value is written as 16 + 8 bytes, so that a read of the payload at byte 4
// (v.d, v.i) lies within one store and is forwarded from it.
void PopNum(CVar* out, const CVar* v) {
    using AliasDbl = double __attribute__((may_alias));
    const AliasDbl* p = reinterpret_cast<const AliasDbl*>(v);
    // Two 8-byte loads straight into the low and high halves of one register
    // (the empty asm keeps the compiler from merging them into one).
    __m128d w0 = _mm_set_sd(p[0]);
    asm("" : "+x"(w0));
    const __m128d w01 = _mm_loadh_pd(w0, p + 1);
    uint64_t w2;
    std::memcpy(&w2, p + 2, 8);
    char* d = reinterpret_cast<char*>(out);
    _mm_storeu_pd(reinterpret_cast<double*>(d), w01);
    std::memcpy(d + 16, &w2, 8);
}

// A slot that still holds a block, emptied; out of line, so that the push of
// a slot holding a number keeps no register.
__attribute__((noinline)) CVar* EmptiedSlot(CVar* v) {
    SetEmpty(v);
    return v;
}

// The pop of a value that may hold a block (or into none), out of line like
// EmptiedSlot: 0.
__attribute__((noinline)) int32_t PopHeld(CVar* out, CVar* v) {
    if (out) Move(out, v);
    else SetEmpty(v);
    return kOk;
}

// Header rounded up so that the slots start on an 8-byte boundary.
constexpr size_t kHeader = (sizeof(KWCalcStack) + 7) & ~size_t(7);

// Gets the frame ready for a slot call that reads slots 0..used-1: they must
// fit, and the top covers them.
int32_t FrameFor(KWCalcStack* s, int32_t used) {
    if (s->base + used > s->capacity) return kStackSmall;
    if (s->top < s->base + used) s->top = s->base + used;
    return kOk;
}

// After a slot call the frame holds its result alone (empty on failure).
int32_t EndFrame(KWCalcStack* s, int32_t status) {
    CVar* frame = s->slots + s->base;
    if (status != kOk) SetEmpty(&frame[0]);
    Clear(frame + 1, s->top - s->base - 1);
    s->top = s->base + 1;
    return status;
}

// Checks shared by reading and writing: the type must have the slot, a
// selector must be given, and the frame must hold slots 0..used-1.
int32_t Prepare(KWCalcStack* s, const CVar* object, int32_t n, bool put, int32_t used,
                const KWCalcObjDef** def) {
    if (!s || !object) return kNotSupported;
    *def = ObjType(object->type);
    if (!*def || !(put ? (*def)->Put : (*def)->Get)) return kNotSupported;
    if (n <= 0) return kNoProp;
    const int32_t given = n + (put ? 1 : 0);
    if (s->base + (given > used ? given : used) > s->capacity) return kStackSmall;
    if (s->top < s->base + given) s->top = s->base + given;
    return FrameFor(s, used);
}

}  // namespace

int32_t StackTest(const KWCalcStack* s, int32_t need) {
    return need < s->capacity - s->top ? kOk : kStackSmall;
}

CVar* StackArg(KWCalcStack* s, int32_t i) {
    if (i < 0 || i >= s->capacity - s->base) return nullptr;
    return s->slots + s->base + i;
}

// slot 0 = a copy of the object, slot 1 = the selector (or an array of the
// n selectors); the type's Get leaves the result in slot 0.
int32_t GetObjVar(KWCalcStack* s, CVar* object, int32_t n) {
    const KWCalcObjDef* def = nullptr;
    int32_t status = Prepare(s, object, n, false, 2, &def);
    if (status != kOk) return status;
    CVar* frame = s->slots + s->base;
    if (n != 1 && (status = ArrCopy(frame, n)) != kOk) return EndFrame(s, status);
    Move(&frame[1], &frame[0]);
    if ((status = Copy(&frame[0], object)) != kOk) return EndFrame(s, status);
    return EndFrame(s, def->Get(s));
}

// As GetObjVar, with slot 2 = the new value; on success the object takes the
// modified copy from slot 0.
int32_t PutObjVar(KWCalcStack* s, CVar* object, int32_t n) {
    const KWCalcObjDef* def = nullptr;
    int32_t status = Prepare(s, object, n, true, 3, &def);
    if (status != kOk) return status;
    CVar* frame = s->slots + s->base;
    if (n != 1) {
        if ((status = ArrCopy(frame, n)) != kOk) return EndFrame(s, status);
        Move(&frame[2], &frame[n]);
        Move(&frame[1], &frame[0]);
    } else {
        Move(&frame[2], &frame[1]);
        Move(&frame[1], &frame[0]);
    }
    if ((status = Copy(&frame[0], object)) != kOk) return EndFrame(s, status);
    status = def->Put(s);
    if (status == kOk) Move(object, &frame[0]);
    return EndFrame(s, status);
}

// new(type, value): the type by tag or by name; its New slot builds the
// object from argument 1 and leaves it in slot 0.
int32_t NewObject(KWCalcStack* s) {
    if (!s || FrameFor(s, 2) != kOk) return kNotSupported;
    const CVar* which = s->slots + s->base;
    const KWCalcObjDef* def = nullptr;
    if (which->type == kInt)
        def = which->v.i >= kFirstObj && which->v.i <= kLastTag ? ObjType(int32_t(which->v.i)) : nullptr;
    else if (which->type == kStr && which->v.s)
        def = ObjTypeFromName(which->v.s);
    if (!def || !def->New) return kNotSupported;
    return def->New(s);
}

int32_t StackCreate(KWCalcDef* calculator, KWCalcStack** stack, int32_t capacity) {
    if (!stack) return kNotSupported;
    *stack = nullptr;
    if (capacity < 1) return kStackSmall;
    const size_t bytes = kHeader + size_t(capacity) * sizeof(CVar);
    void* block = kwz::MemAlloc(bytes);
    if (!block) {
        kwz::LogF(2, "Kwz.kwCalc.KWCalcStackCreate", "SE_NOMEM stack of %d values", capacity);
        return kNoMem;
    }
    std::memset(block, 0, bytes);
    auto* s = new (block) KWCalcStack{};
    s->capacity = capacity;
    s->calculator = calculator;
    s->slots = reinterpret_cast<CVar*>(static_cast<char*>(block) + kHeader);
    *stack = s;
    return kOk;
}

void StackFree(KWCalcStack* stack) {
    if (!stack) return;
    Clear(stack->slots, stack->capacity);
    stack->~KWCalcStack();
    kwz::MemFree(stack);
}

}  // namespace kwz::calc

using namespace kwz::calc;

extern "C" {

KWZ_API int32_t KWCalcStackCreate(KWCalcDef* calculator, KWCalcStack** stack, int32_t capacity) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcStackCreate", kNoMem, kNotSupported,
                      [&] { return StackCreate(calculator, stack, capacity); });
}

KWZ_API int32_t KWCalcStackTest(KWCalcStack* stack, int32_t need) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcStackTest", kNoMem, kStackSmall,
                      [&] { return stack ? StackTest(stack, need) : kStackSmall; });
}

KWZ_API void KWCalcStackClear(KWCalcStack* stack) {
    kwz::CEdgeVoid("Kwz.kwCalc.KWCalcStackClear", [&] {
        if (!stack) return;
        Clear(stack->slots, stack->capacity);
        stack->base = stack->top = 0;
        stack->flags.fetch_and(~0x20u);  // a stop request ends with the clear
    });
}

KWZ_API void KWCalcStackFree(KWCalcStack* stack) {
    kwz::CEdgeVoid("Kwz.kwCalc.KWCalcStackFree", [&] { StackFree(stack); });
}

KWZ_API CVar* KWCalcStackArg(KWCalcStack* stack, int32_t index) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcStackArg", static_cast<CVar*>(nullptr),
                      static_cast<CVar*>(nullptr),
                      [&] { return stack ? StackArg(stack, index) : nullptr; });
}

KWZ_API CVar* KWCalcStackPush(KWCalcStack* stack) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcStackPush", static_cast<CVar*>(nullptr),
                      static_cast<CVar*>(nullptr), [&]() -> CVar* {
                          if (!stack || stack->top >= stack->capacity) return nullptr;
                          CVar* v = stack->slots + stack->top++;
                          if (!Plain(v)) return EmptiedSlot(v);
                          Wipe(v);  // a number needs no freeing
                          return v;
                      });
}

KWZ_API int32_t KWCalcStackPop(KWCalcStack* stack, CVar* out) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcStackPop", kNoMem, kStackSmall, [&] {
        if (!stack || stack->top <= stack->base) return kStackSmall;
        CVar* v = stack->slots + --stack->top;
        if (!out || !Plain(v) || !Plain(out)) return PopHeld(out, v);
        PopNum(out, v);  // numbers on both sides: nothing to free
        Wipe(v);
        return kOk;
    });
}

KWZ_API void* KWCalcStackData(KWCalcStack* stack) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcStackData", static_cast<void*>(nullptr),
                      static_cast<void*>(nullptr), [&] { return stack ? stack->data : nullptr; });
}

KWZ_API int32_t CVarGetObjVar(KWCalcStack* stack, CVar* object, int32_t n) {
    return kwz::CEdge("Kwz.kwCalc.CVarGetObjVar", kNoMem, kNotSupported,
                      [&] { return GetObjVar(stack, object, n); });
}

KWZ_API int32_t CVarPutObjVar(KWCalcStack* stack, CVar* object, int32_t n) {
    return kwz::CEdge("Kwz.kwCalc.CVarPutObjVar", kNoMem, kNotSupported,
                      [&] { return PutObjVar(stack, object, n); });
}

KWZ_API int32_t CVar_New(KWCalcStack* stack) {
    return kwz::CEdge("Kwz.kwCalc.CVar_New", kNoMem, kNotSupported,
                      [&] { return NewObject(stack); });
}

}  // extern "C"
