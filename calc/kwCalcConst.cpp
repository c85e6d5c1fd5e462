// Calculator constant tables.
#include "calc/kwCalcConst.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "base/kwGuard.h"
#include "calc/kwCalcVar.h"

namespace kwz::calc {
namespace {

// Names fold like every name of the calculator: Latin and Windows-1251
// Cyrillic capitals to small letters.
std::string Folded(const char* name) {
    std::string key(name);
    for (char& c : key) {
        const auto u = static_cast<unsigned char>(c);
        if ((u >= 'A' && u <= 'Z') || (u >= 0xC0 && u <= 0xDF)) c = char(u + 0x20);
    }
    return key;
}

}  // namespace

KWCalcConst::Entry* ConstFind(const KWCalcConst* table, const char* name) {
    if (!table || !name) return nullptr;
    const auto it = table->byName.find(Folded(name));
    return it == table->byName.end() ? nullptr : it->second;
}

int32_t ConstSet(KWCalcConst* table, const char* name, const CVar& value, const char* description) {
    if (!table || !name) return kNotSupported;
    if (KWCalcConst::Entry* found = ConstFind(table, name)) {
        if (found->value.type != kEmpty) return kOk;  // set once: the first value stays
        const int32_t status = Copy(&found->value, &value);
        if (status == kOk && description) found->description = description;
        return status;
    }
    auto entry = std::make_unique<KWCalcConst::Entry>();
    entry->name = name;
    if (description) entry->description = description;
    if (const int32_t status = Copy(&entry->value, &value); status != kOk) return status;
    table->entries.reserve(table->entries.size() + 1);
    table->byName.emplace(Folded(name), entry.get());  // may throw: nothing changed yet
    table->entries.push_back(std::move(entry));
    return kOk;
}

int32_t ConstInt(KWCalcConst* table, const char* name, int64_t value, const char* description) {
    CVar v{};
    v.type = kInt;
    v.v.i = value;
    return ConstSet(table, name, v, description);
}

int32_t ConstDbl(KWCalcConst* table, const char* name, double value, const char* description) {
    CVar v{};
    v.type = kDbl;
    v.v.d = value;
    return ConstSet(table, name, v, description);
}

int32_t ConstStr(KWCalcConst* table, const char* name, const char* text, int32_t length,
                 const char* description) {
    CVar v{};
    v.type = kStr;  // a reference to the caller's bytes: ConstSet copies them
    v.v.s = const_cast<char*>(text ? text : "");
    v.count = text && length > 0 ? length : 0;
    v.ref = 1;
    return ConstSet(table, name, v, description);
}

int32_t ConstDel(KWCalcConst* table, const char* name) {
    KWCalcConst::Entry* entry = ConstFind(table, name);
    if (!entry) return kNotSupported;
    table->byName.erase(Folded(name));
    auto& list = table->entries;
    const auto it = std::find_if(list.begin(), list.end(), [&](const auto& e) { return e.get() == entry; });
    list.erase(it);
    return kOk;
}

void ConstClear(KWCalcConst* table) {
    table->byName.clear();
    table->entries.clear();
}

}  // namespace kwz::calc

KWCalcConst::Entry::~Entry() { kwz::calc::SetEmpty(&value); }

using namespace kwz::calc;

extern "C" {

KWZ_API int32_t KWCalcConstCreate(KWCalcConst** table, int32_t capacity) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcConstCreate", kNoMem, kNotSupported, [&] {
        if (!table) return kNotSupported;
        if (capacity < 1) return kOk;  // nothing is made
        auto made = std::make_unique<KWCalcConst>();
        made->entries.reserve(size_t(capacity));
        *table = made.release();
        return kOk;
    });
}

KWZ_API void KWCalcConstClear(KWCalcConst* table) {
    kwz::CEdgeVoid("Kwz.kwCalc.KWCalcConstClear", [&] {
        if (table) ConstClear(table);
    });
}

KWZ_API void KWCalcConstDestroy(KWCalcConst* table) {
    kwz::CEdgeVoid("Kwz.kwCalc.KWCalcConstDestroy", [&] { delete table; });
}

// The destination gets the source's entries; names it already holds keep
// their values, as every constant is set once.
KWZ_API int32_t KWCalcConstCopy(KWCalcConst* destination, const KWCalcConst* source) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcConstCopy", kNoMem, kNotSupported, [&] {
        if (!destination || !source) return kNotSupported;
        for (const auto& e : source->entries) {
            const int32_t status = ConstSet(destination, e->name.c_str(), e->value,
                                            e->description.empty() ? nullptr : e->description.c_str());
            if (status != kOk) return status;
        }
        return kOk;
    });
}

KWZ_API int32_t KWCalcConstInt(KWCalcConst* table, const char* name, int64_t value,
                               const char* description) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcConstInt", kNoMem, kNotSupported,
                      [&] { return ConstInt(table, name, value, description); });
}

KWZ_API int32_t KWCalcConstDbl(KWCalcConst* table, const char* name, double value,
                               const char* description) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcConstDbl", kNoMem, kNotSupported,
                      [&] { return ConstDbl(table, name, value, description); });
}

KWZ_API int32_t KWCalcConstStr(KWCalcConst* table, const char* name, const char* value,
                               int32_t length, const char* description) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcConstStr", kNoMem, kNotSupported,
                      [&] { return ConstStr(table, name, value, length, description); });
}

KWZ_API int32_t KWCalcConstDel(KWCalcConst* table, const char* name) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcConstDel", kNoMem, kNotSupported,
                      [&] { return ConstDel(table, name); });
}

KWZ_API int32_t KWCalcConstGet(KWCalcConst* table, const char* name, CVar** value) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcConstGet", 0, 0, [&] {
        KWCalcConst::Entry* e = ConstFind(table, name);
        if (value) *value = e ? &e->value : nullptr;
        return e ? 1 : 0;
    });
}

}  // extern "C"
