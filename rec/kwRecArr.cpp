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

void LogNoMemory(const char* tag) { Log(1, tag, "SE_NOMEM out of memory"); }

KWRData* AllocRecord() {
    auto* rec = static_cast<KWRData*>(kwz::MemAlloc(sizeof(KWRData)));
    if (rec) rec::RecInit(rec);
    return rec;
}

// The structure is the array's own and always goes; the image of a record
// whose guard byte is set stays where it is (RecFree logs it), since its
// pointers cannot be trusted.
void FreeRecord(KWRData* rec) {
    rec::RecFree(rec);
    kwz::MemFree(rec);
}

KWRData* CloneRecord(const KWRData* rec) {
    KWRData* copy = AllocRecord();
    if (!copy) return nullptr;
    auto* image = static_cast<uint8_t*>(kwz::MemAlloc(rec->length));
    if (!image) {
        kwz::MemFree(copy);
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
            LogF(2, KWA_TAG("KWAFldAdd"), "field \"%.63s\": \"CH\" needs a capacity of 1..255",
                        defs[i].name);
            return -3;
        }
    }
    KWRType fresh;
    rec::TypInit(&fresh);
    const uint32_t rc = rec::TypSetA(&fresh, kArrayTypeId, kArrayTypeName, static_cast<uint8_t>(count), defs);
    if (rc == KWR_NOMEM) return -1;
    if (rc != KWR_OK) {
        Log(2, KWA_TAG("KWAFldAdd"), "bad field definition (type code or duplicate name)");
        return -3;
    }
    rec::TypFree(&array->type);
    array->type = fresh;  // the field array lives on the heap: moving the struct is enough
    array->variable = 0;
    for (uint32_t i = 0; i < array->type.fieldCount; ++i)
        if (rec::IsVarType(array->type.fields[i].type)) array->variable = 1;
    ++array->fieldVersion;
    for (auto& key : array->keys) RefreshKeyFields(key.get(), &array->type);
    return 0;
}

// Moves the contents of `fresh`, just filled, into `array`; the array's old
// contents go to `fresh`, to be destroyed with it.  The field version moves
// on as a clear and a field change would move it, so that working records of
// the old contents are refused (-5).  Cannot fail.
void TakeOver(KWArray* array, KWArray* fresh) {
    const uint32_t version = array->fieldVersion + 2;
    std::swap(array->type, fresh->type);
    array->keys.swap(fresh->keys);
    array->store.swap(fresh->store);
    std::swap(array->variable, fresh->variable);
    std::swap(array->changes, fresh->changes);
    array->fieldVersion = version;
    for (auto& key : array->keys) key->array = array;
    for (auto& key : fresh->keys) key->array = fresh;
    if (!array->keys.empty()) {
        array->keys[0]->order.ForEach([&](Entry& e) {
            e.rec->owner = array;
            e.rec->typeId = version;
        });
    }
}

int32_t Create(KWArray** array, const KWRType* type) {
    if (!array) return -1;
    *array = nullptr;
    auto* a = new (std::nothrow) KWArray;
    if (!a) {
        LogNoMemory(KWA_TAG("KWACreate"));
        return -1;
    }
    rec::TypInit(&a->type);
    if (rec::TypSetA(&a->type, 1, "KWA", 0, nullptr) != KWR_OK) {
        delete a;
        return -1;
    }
    if (type && type->fieldCount > 0 && type->fields) {
        KWRFieldDef defs[256];
        rec::FldAddGet(type, defs);
        if (const int32_t rc = SetFields(a, type->fieldCount, defs); rc != 0) {
            rec::TypFree(&a->type);
            delete a;
            return rc == -1 ? -1 : rc;
        }
    }
    *array = a;
    return 0;
}

void Destroy(KWArray* array) {
    if (!array) return;
    ClearRecords(array);
    rec::TypFree(&array->type);
    delete array;
}

KWRType* Type(KWArray* array) { return array ? &array->type : nullptr; }

int32_t FldAdd(KWArray* array, int32_t count, const KWRFieldDef* defs) {
    if (!array || count < 0 || (count > 0 && !defs)) return -1;
    const int32_t have = array->type.fieldCount;
    if (have >= kMaxFields || count == 0) return 0;
    const int32_t add = count < kMaxFields - have ? count : kMaxFields - have;  // the rest is ignored
    ClearRecords(array);
    KWRFieldDef all[256];
    rec::FldAddGet(&array->type, all);
    std::memcpy(all + have, defs, sizeof(KWRFieldDef) * static_cast<size_t>(add));
    return SetFields(array, have + add, all);
}

int32_t ClearRec(KWArray* array) {
    if (!array) return -1;
    ClearRecords(array);
    return 0;
}

int32_t ClearKey(KWArray* array) {
    if (!array) return -1;
    ClearRecords(array);
    array->keys.clear();
    return 0;
}

int32_t ClearAll(KWArray* array) {
    if (!array) return -1;
    ClearKey(array);
    rec::TypSetA(&array->type, 1, "KWA", 0, nullptr);
    array->variable = 0;
    ++array->fieldVersion;
    return 0;
}

KWArray* RecArr(const KWRData* record) {
    return record ? static_cast<KWArray*>(record->owner) : nullptr;
}

int32_t RecCount(KWArray* array) {
    return array && !array->keys.empty() ? array->keys[0]->order.Size() : 0;
}

}  // namespace kwz::recarr
