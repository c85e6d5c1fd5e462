// The object-type registry: one process-wide table of descriptors by tag and
// an index of them sorted by name.  Not locked: hosts register their types
// from one thread before calculators are created.
#include <array>
#include <cstring>
#include <string>

#include "base/kwSort.h"
#include "base/kwGuard.h"
#include "base/kwSearch.h"
#include "calc/kwCalcConst.h"
#include "calc/kwCalcVar.h"

namespace kwz::calc {
namespace {

const char* NameOf(const void* def) {
    const char* name = static_cast<const KWCalcObjDef*>(def)->name;
    return name ? name : "";
}

int32_t CompareNames(void*, void* a, void* b) { return kwz::StrICmpRus(NameOf(a), NameOf(b)); }

class Registry {
public:
    KWCalcObjDef* Register(int32_t tag, KWCalcObjDef* def) {
        if (!IsObjTag(tag)) return nullptr;
        byTag_[size_t(tag)] = def;
        RebuildNameIndex();
        return def;
    }

    KWCalcObjDef* ByTag(int32_t tag) const { return IsObjTag(tag) ? byTag_[size_t(tag)] : nullptr; }

    // Of several equal names, the first in sorted order.
    KWCalcObjDef* ByName(const char* name) const {
        if (!name) return nullptr;
        int32_t at = 0;
        const bool found = SeekSorted(count_, false,
                                      [&](int32_t mid) { return kwz::StrICmpRus(NameOf(byName_[size_t(mid)]), name); },
                                      &at);
        return found ? byName_[size_t(at)] : nullptr;
    }

private:
    // The index is rebuilt whole on every change: tags 5..255 in order, then
    // the same quicksort as the lists use, so that equal names come out in
    // the order that existing hosts see.
    void RebuildNameIndex() {
        count_ = 0;
        byName_.fill(nullptr);
        for (int32_t tag = kFirstObj; tag <= kLastTag; ++tag)
            if (byTag_[size_t(tag)]) byName_[size_t(count_++)] = byTag_[size_t(tag)];
        if (count_ >= 2)
            kwz::QuickSort(nullptr, reinterpret_cast<void**>(byName_.data()), 0, count_ - 1, CompareNames);
    }

    std::array<KWCalcObjDef*, 256> byTag_{};   // entries 0..4 stay null
    std::array<KWCalcObjDef*, 256> byName_{};  // the first count_ are in use
    int32_t count_ = 0;
};

Registry g_registry;

// Calls fn(name, number, property) for each script constant of the type:
// number -1 and property null for "it<Type>" and "st<Type>".
template <typename Fn>
void ForEachConstant(const ObjTypeInfo& type, Fn&& fn) {
    const std::string typeName = type.descriptor->name ? type.descriptor->name : "";
    fn("it" + typeName, -1, nullptr);
    fn("st" + typeName, -1, nullptr);
    for (int32_t i = 0; i < type.propertyCount; ++i) {
        const char* prop = type.properties[i];
        fn("ip" + typeName + "_" + prop, i + 1, prop);
        fn("sp" + typeName + "_" + prop, i + 1, prop);
    }
}

void DeleteConstants(const ObjTypeInfo& type, KWCalcConst* constants) {
    if (!constants) return;
    ForEachConstant(type, [&](const std::string& name, int32_t, const char*) {
        ConstDel(constants, name.c_str());
    });
}

void DefineConstants(const ObjTypeInfo& type, int32_t tag, KWCalcConst* constants) {
    if (!constants) return;
    const char* typeName = type.descriptor->name ? type.descriptor->name : "";
    ForEachConstant(type, [&](const std::string& name, int32_t number, const char* prop) {
        const bool isInt = name[0] == 'i';
        if (isInt)
            ConstInt(constants, name.c_str(), number < 0 ? tag : number, nullptr);
        else
            ConstStr(constants, name.c_str(), prop ? prop : typeName,
                     int32_t(std::strlen(prop ? prop : typeName)), nullptr);
    });
}

}  // namespace

KWCalcObjDef* RegisterObjType(const ObjTypeInfo& type, int32_t tag, KWCalcConst* constants) {
    int32_t& current = *type.tag;
    if (tag == 0) {
        if (current != 0) {
            g_registry.Register(current, nullptr);
            current = 0;
            DeleteConstants(type, constants);
        }
        return nullptr;
    }
    if (tag == current) return type.descriptor;
    if (current != 0) {
        g_registry.Register(current, nullptr);
        current = 0;
    }
    if (!IsObjTag(tag) || g_registry.ByTag(tag)) return nullptr;
    current = tag;
    DefineConstants(type, tag, constants);
    return g_registry.Register(tag, type.descriptor);
}

KWCalcObjDef* TypeReg(int32_t tag, KWCalcObjDef* def) { return g_registry.Register(tag, def); }
KWCalcObjDef* ObjType(int32_t tag) { return g_registry.ByTag(tag); }
KWCalcObjDef* ObjTypeFromName(const char* name) { return g_registry.ByName(name); }

}  // namespace kwz::calc

extern "C" {

KWZ_API KWCalcObjDef* KWCalcObjTypeReg(int32_t tag, KWCalcObjDef* descriptor) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcObjTypeReg", static_cast<KWCalcObjDef*>(nullptr),
                      static_cast<KWCalcObjDef*>(nullptr), [&] {
                          if (!kwz::calc::IsObjTag(tag)) {
                              kwz::LogF(3, "Kwz.kwCalc.KWCalcObjTypeReg", "tag %d outside 5..255", tag);
                              return static_cast<KWCalcObjDef*>(nullptr);
                          }
                          return kwz::calc::TypeReg(tag, descriptor);
                      });
}

KWZ_API KWCalcObjDef* KWCalcObjType(int32_t tag) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcObjType", static_cast<KWCalcObjDef*>(nullptr),
                      static_cast<KWCalcObjDef*>(nullptr), [&] { return kwz::calc::ObjType(tag); });
}

KWZ_API KWCalcObjDef* KWCalcObjTypeFromName(const char* name) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcObjTypeFromName", static_cast<KWCalcObjDef*>(nullptr),
                      static_cast<KWCalcObjDef*>(nullptr),
                      [&] { return kwz::calc::ObjTypeFromName(name); });
}

}  // extern "C"
