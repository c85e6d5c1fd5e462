// Record arrays: creation, fields, clearing, and the helpers that make and
// free the arrays' records.
#include <cstdlib>
#include <cstring>
#include <new>

#include "rec/kwRecArr.h"

namespace kwz::recarr {

namespace {

constexpr uint32_t kArrayTypeId = 1;
constexpr const char* kArrayTypeName = "KWA";
constexpr int32_t kMaxFields = 255;

}  // namespace

void LogNoMemory(const char* tag) { LogMessage(1, tag, "SE_NOMEM out of memory"); }

KWRData* AllocRecord() {
    auto* rec = static_cast<KWRData*>(std::malloc(sizeof(KWRData)));
    if (rec) KWRRecInit(rec);
    return rec;
}

void FreeRecord(KWRData* rec) {
    KWRRecFree(rec);
    std::free(rec);
}

KWRData* CloneRecord(const KWRData* rec) {
    KWRData* copy = AllocRecord();
    if (!copy) return nullptr;
    auto* image = static_cast<uint8_t*>(std::malloc(rec->length));
    if (!image) {
        std::free(copy);
        return nullptr;
    }
    std::memcpy(image, rec->image, rec->length);
    *copy = *rec;
    copy->image = image;
    copy->state = 0;
    copy->guard = 0;
    return copy;
}

void ClearRecords(KWArray* array) {
    if (array->store) {
        FreeStore(array);
    } else if (!array->keys.empty()) {
        array->keys[0]->order.ForEach([](Entry& e) { FreeRecord(e.rec); });
    }
    for (auto& key : array->keys) key->order.Clear();
    array->changes = 0;
}

int32_t SetFields(KWArray* array, int32_t count, const KWRFieldDef* defs) {
    for (int32_t i = 0; i < count; ++i) {
        if (defs[i].type == iFldType_Char && defs[i].width == 0) {
            LogMessageF(2, KWA_TAG("KWAFldAdd"), "field \"%.63s\": \"CH\" needs a capacity of 1..255",
                        defs[i].name);
            return -3;
        }
    }
    KWRType fresh;
    KWRTypInit(&fresh);
    const uint32_t rc = KWRTypSetA(&fresh, kArrayTypeId, kArrayTypeName, static_cast<uint8_t>(count), defs);
    if (rc == KWR_NOMEM) return -1;
    if (rc != KWR_OK) {
        LogMessage(2, KWA_TAG("KWAFldAdd"), "bad field definition (type code or duplicate name)");
        return -3;
    }
    KWRTypFree(&array->type);
    array->type = fresh;  // the field array lives on the heap: moving the struct is enough
    array->variable = 0;
    for (uint32_t i = 0; i < array->type.fieldCount; ++i)
        if (rec::IsVarType(array->type.fields[i].type)) array->variable = 1;
    ++array->fieldVersion;
    for (auto& key : array->keys) RefreshKeyFields(key.get(), &array->type);
    return 0;
}

}  // namespace kwz::recarr

using namespace kwz::recarr;

extern "C" {

KWZ_API int32_t KWACreate(KWArray** array, const KWRType* type) {
    if (!array) return -1;
    *array = nullptr;
    auto* a = new (std::nothrow) KWArray;
    if (!a) {
        LogNoMemory(KWA_TAG("KWACreate"));
        return -1;
    }
    KWRTypInit(&a->type);
    if (KWRTypSetA(&a->type, 1, "KWA", 0, nullptr) != KWR_OK) {
        delete a;
        return -1;
    }
    if (type && type->fieldCount > 0 && type->fields) {
        KWRFieldDef defs[256];
        _FldAddGet(type, defs);
        if (const int32_t rc = SetFields(a, type->fieldCount, defs); rc != 0) {
            KWRTypFree(&a->type);
            delete a;
            return rc == -1 ? -1 : rc;
        }
    }
    *array = a;
    return 0;
}

KWZ_API void KWADestroy(KWArray* array) {
    if (!array) return;
    ClearRecords(array);
    KWRTypFree(&array->type);
    delete array;
}

KWZ_API KWRType* KWAType(KWArray* array) { return array ? &array->type : nullptr; }

KWZ_API int32_t KWAFldAdd(KWArray* array, int32_t count, const KWRFieldDef* defs) {
    if (!array || count < 0 || (count > 0 && !defs)) return -1;
    const int32_t have = array->type.fieldCount;
    if (have >= kMaxFields || count == 0) return 0;
    const int32_t add = count < kMaxFields - have ? count : kMaxFields - have;  // the rest is ignored
    ClearRecords(array);
    KWRFieldDef all[256];
    _FldAddGet(&array->type, all);
    std::memcpy(all + have, defs, sizeof(KWRFieldDef) * static_cast<size_t>(add));
    return SetFields(array, have + add, all);
}

KWZ_API int32_t KWAClearRec(KWArray* array) {
    if (!array) return -1;
    ClearRecords(array);
    return 0;
}

KWZ_API int32_t KWAClearKey(KWArray* array) {
    if (!array) return -1;
    ClearRecords(array);
    array->keys.clear();
    return 0;
}

KWZ_API int32_t KWAClearAll(KWArray* array) {
    if (!array) return -1;
    KWAClearKey(array);
    KWRTypSetA(&array->type, 1, "KWA", 0, nullptr);
    array->variable = 0;
    ++array->fieldVersion;
    return 0;
}

KWZ_API KWArray* KWARecArr(const KWRData* record) {
    return record ? static_cast<KWArray*>(record->owner) : nullptr;
}

KWZ_API int32_t KWARecCount(KWArray* array) {
    return array && !array->keys.empty() ? array->keys[0]->order.Size() : 0;
}

}  // extern "C"
