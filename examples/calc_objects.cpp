// calc_objects.cpp - the calculator from C++: a host function, an object
// type of our own, and a script that uses both.
//
// The object type "Vec" is a 2-D vector.  Scripts make one with
// new("Vec", [x, y]), read get(v, "x"), get(v, "y") and get(v, "len"), and
// add two with +.  The host function clamp(x, lo, hi) is C++ code that the
// script calls like a built-in.
//
//   c++ -std=c++17 calc_objects.cpp $(pkg-config --cflags --libs VomKwz) -o calc_objects
#include <VomKwz.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {

// ------------------------------------------------------------ the object type

constexpr int32_t kVecTag = 20;  // tags 5..255 belong to the program's types

struct Vec {
    double x, y;
};

// A Vec value keeps its payload behind the CVar's pointer.
Vec* AsVec(const CVar* v) { return static_cast<Vec*>(v->v.p); }

void SetVec(CVar* v, double x, double y) {
    CVarSetEmpty(v);  // frees what the slot held
    v->type = kVecTag;
    v->v.p = new Vec{x, y};
}

// Number of an Int or Dbl value into *out; false for other types.
bool Number(const CVar* v, double* out) {
    if (v->type == 1) *out = double(v->v.i);
    else if (v->type == 2) *out = v->v.d;
    else return false;
    return true;
}

// Slots: the library calls them; each returns 0 or a calculator code.
void VecFree(CVar* v) { delete AsVec(v); }
void VecCopy(CVar* destination, const CVar* source) { destination->v.p = new Vec(*AsVec(source)); }

// new("Vec", [x, y]): slot 0 holds the type's name, slot 1 the argument;
// the new object takes slot 0.
int32_t VecNew(KWCalcStack* stack) {
    const CVar* init = KWCalcStackArg(stack, 1);
    double x = 0, y = 0;
    if (init->type != 4 || init->count != 2 || !Number(&init->v.a[0], &x) || !Number(&init->v.a[1], &y))
        return -44;  // type not supported
    SetVec(KWCalcStackArg(stack, 0), x, y);
    return 0;
}

// get(v, "x" | "y" | "len"): slot 0 holds a copy of the object, slot 1 the
// selector; the property's value replaces the copy.
int32_t VecGet(KWCalcStack* stack) {
    CVar* object = KWCalcStackArg(stack, 0);
    const CVar* selector = KWCalcStackArg(stack, 1);
    if (selector->type != 3) return -48;  // no or unknown property selector
    const Vec v = *AsVec(object);
    if (std::strcmp(selector->v.s, "x") == 0) CVarSetDbl(object, v.x);
    else if (std::strcmp(selector->v.s, "y") == 0) CVarSetDbl(object, v.y);
    else if (std::strcmp(selector->v.s, "len") == 0) CVarSetDbl(object, std::hypot(v.x, v.y));
    else return -48;
    return 0;
}

// a + b: the operands lie side by side; the sum takes the first one's place
// (the library empties the second).
int32_t VecSum(CVar* operands) {
    if (operands[0].type != kVecTag || operands[1].type != kVecTag) return -44;
    AsVec(&operands[0])->x += AsVec(&operands[1])->x;
    AsVec(&operands[0])->y += AsVec(&operands[1])->y;
    return 0;
}

// ------------------------------------------------------------ the host function

// clamp(x, lo, hi): arguments are slots 0..2 of the call's frame; the
// result goes into slot 0.
int32_t Clamp(KWCalcStack* stack) {
    double x = 0, lo = 0, hi = 0;
    if (!Number(KWCalcStackArg(stack, 0), &x) || !Number(KWCalcStackArg(stack, 1), &lo) ||
        !Number(KWCalcStackArg(stack, 2), &hi))
        return -44;
    CVarSetDbl(KWCalcStackArg(stack, 0), x < lo ? lo : x > hi ? hi : x);
    return 0;
}

const char* const kScript =
    "walk(steps){\n"
    "  var p, i;\n"
    "  p = new(\"Vec\", [0, 0]);\n"
    "  i = 1;\n"
    "  while (i <= steps) {\n"
    "    p = p + new(\"Vec\", [i, clamp(i * i, 0, 10)]);\n"
    "    i = i + 1;\n"
    "  }\n"
    "  Result = [get(p, \"x\"), get(p, \"y\"), get(p, \"len\")];\n"
    "}";

// Owners, so that every path out of main releases what it made.
using Calculator = std::unique_ptr<KWCalcDef, void (*)(KWCalcDef*)>;
using Stack = std::unique_ptr<KWCalcStack, void (*)(KWCalcStack*)>;

int Fail(const char* what, int32_t status) {
    std::fprintf(stderr, "calc_objects: %s: %d\n", what, status);
    return 1;
}

int Run() {
    KWCalcDef* c = nullptr;
    int32_t st = KWCalcCreate(&c, nullptr, nullptr);
    if (st != 0) return Fail("KWCalcCreate", st);
    Calculator calc(c, KWCalcDestroy);

    if ((st = KWCalcFunAdd(calc.get(), "clamp", 3, Clamp, nullptr, nullptr)) != 0) return Fail("KWCalcFunAdd", st);
    // A script that runs away is stopped: at most a million instructions.
    if ((st = KWCalcSetLimits(calc.get(), 1000000, 0, 0)) != 0) return Fail("KWCalcSetLimits", st);
    if ((st = KWCalcFunAddI(calc.get(), kScript, nullptr, 0, 0)) != 0) return Fail("KWCalcFunAddI", st);

    // A formula needs no stack of ours.
    CVar value;
    CVarInit(&value, 1);
    if ((st = KWCalcFormula("get(new(\"Vec\", [3, 4]), \"len\")", &value, calc.get(), 0)) != 0)
        return Fail("KWCalcFormula", st);
    std::printf("len of (3, 4): %g\n", value.v.d);
    CVarSetEmpty(&value);

    // A script function called from C++: push the arguments, call, pop the result.
    KWCalcStack* s = nullptr;
    if ((st = KWCalcStackCreate(calc.get(), &s, 64)) != 0) return Fail("KWCalcStackCreate", st);
    Stack stack(s, KWCalcStackFree);
    CVar* steps = KWCalcStackPush(stack.get());
    if (!steps) return Fail("KWCalcStackPush", -47);
    CVarSetInt(steps, 5);
    if ((st = KWCalcFun2(stack.get(), "walk")) != 0) return Fail("walk", st);
    if ((st = KWCalcStackPop(stack.get(), &value)) != 0) return Fail("KWCalcStackPop", st);
    if (value.type != 4 || value.count != 3) return Fail("walk's result", -44);
    std::printf("walk(5): x %g, y %g, len %.3f\n", value.v.a[0].v.d, value.v.a[1].v.d, value.v.a[2].v.d);
    CVarSetEmpty(&value);
    return 0;
}

}  // namespace

int main() {
    // The descriptor: a name and the slots the type supports (the rest stay
    // null).  Registered before any calculator is made; it must outlive the
    // registration.
    static KWCalcObjDef vec{};
    vec.name = "Vec";
    vec.Free = VecFree;
    vec.Copy = VecCopy;
    vec.New = VecNew;
    vec.Get = VecGet;
    vec.Sum = VecSum;
    if (KWCalcObjTypeReg(kVecTag, &vec) != &vec) return Fail("KWCalcObjTypeReg", -44);
    const int status = Run();
    KWCalcObjTypeReg(kVecTag, nullptr);
    return status;
}
