// The execution stack: a header followed by `capacity` CVar slots in one
// block.  A frame is the run of slots from `base` up; `top` is the first free
// slot.  The engine keeps base at the first argument of the call it runs.
//
//   slots: [0 ............ base ... base+i ... top ........ capacity)
//                          |<- frame: argument i ->|<- free ->|
#pragma once

#include <VomKwz.h>

#include <atomic>
#include <cstdint>

struct KWCalcStack {
    int32_t capacity;
    int32_t base;
    int32_t top;
    // 0x20 stop requested, 0x4000 debug hook running.  Atomic: another thread
    // may set the stop bit while a run goes on.
    std::atomic<uint32_t> flags;
    KWCalcDef* calculator;  // may be null
    KWCalcNameDef* entry;   // the entry being run
    void* data;             // that entry's data, for KWCalcStackData
    KWCalcFn debugHook;
    void* errorHook;        // set and typed by the engine
    CVar* slots;            // points just behind the header, same block
    // The budgets of the run in progress, counted from the outermost call.
    int64_t steps;          // instructions executed
    int32_t depth;          // nested calls
};

namespace kwz::calc {

// KWCalcStackCreate and KWCalcStackFree without the C edge.
int32_t StackCreate(KWCalcDef* calculator, KWCalcStack** stack, int32_t capacity);
void StackFree(KWCalcStack* stack);
// 0 when `need` more values fit below the capacity, else -47.
int32_t StackTest(const KWCalcStack* stack, int32_t need);
// Slot base + i, or null outside the capacity.
CVar* StackArg(KWCalcStack* stack, int32_t i);

// The property protocol (kwCalcStack.cpp): see CVarGetObjVar/CVarPutObjVar.
int32_t GetObjVar(KWCalcStack* stack, CVar* object, int32_t n);
int32_t PutObjVar(KWCalcStack* stack, CVar* object, int32_t n);
int32_t NewObject(KWCalcStack* stack);

}  // namespace kwz::calc
