// Record-array keys: adding (expression parsing), deleting and sorting.
#include <cstring>
#include <new>
#include <string>

#include "base/kwSort.h"
#include "rec/kwRecArr.h"

namespace kwz::recarr {

namespace {

constexpr size_t kMaxFieldName = 63;

// QuickSort comparator over Entry pointers: the prefixes first, the records
// when they cannot decide.  It gives exactly the record comparator's result
// (NaN aside, see CompareRecordsForSort), so the permutation QuickSort makes
// is the one it makes with KWARecComp.
int32_t SortCompare(void* context, void* a, void* b) {
    const auto* key = static_cast<const KWAKey*>(context);
    const auto* ea = static_cast<const Entry*>(a);
    const auto* eb = static_cast<const Entry*>(b);
    if (ea == eb) return 0;  // the pivot met itself
    if (key->prefixMode != PrefixMode::kNone) {
        const int32_t c = ComparePrefix(key, ea->prefix, eb->prefix);
        if (c != kUndecided) return c;
    }
    return CompareRecordsForSort(key, ea->rec, eb->rec);
}

// Fills the key's order with key 0's members in key-0 order, sorted when
// `sort` holds and there is more than one.
void FillFromKey0(KWArray* array, KWAKey* key, bool sort) {
    std::vector<Entry> entries;
    if (!array->keys.empty() && array->keys[0].get() != key) array->keys[0]->order.CopyTo(entries);
    else key->order.CopyTo(entries);
    for (auto& e : entries) e = MakeEntry(key, e.rec);
    if (sort && entries.size() > 1) {
        std::vector<void*> items(entries.size());
        for (size_t i = 0; i < entries.size(); ++i) items[i] = &entries[i];
        kwz::QuickSort(key, items.data(), 0, static_cast<int32_t>(items.size()) - 1, SortCompare);
        std::vector<Entry> sorted(entries.size());
        for (size_t i = 0; i < items.size(); ++i) sorted[i] = *static_cast<Entry*>(items[i]);
        entries.swap(sorted);
    }
    key->order.Assign(entries.data(), static_cast<int32_t>(entries.size()));
    // Sorted now; an unsorted copy (a key without fields, sort off) has no
    // fast seek anyway.
    key->unsorted = false;
}

}  // namespace

void SortKey(KWAKey* key) { FillFromKey0(key->array, key, true); }

void CheckSorted(KWAKey* key) {
    key->unsorted = false;
    if (!key->SortedSeek()) return;
    const KeyOrder& order = key->order;
    Entry prev{nullptr, 0};
    for (int32_t i = 0; i < order.Size(); ++i) {
        const Entry e = order.At(i);
        if (i > 0) {
            int32_t c = ComparePrefix(key, prev.prefix, e.prefix);
            if (c == kUndecided) c = CompareRecords(key, prev.rec, e.rec);
            if (c > 0) {
                key->unsorted = true;
                return;
            }
        }
        prev = e;
    }
}

void RebuildKeysFromKey0(KWArray* array, bool needFields) {
    for (size_t k = 1; k < array->keys.size(); ++k) {
        KWAKey* key = array->keys[k].get();
        FillFromKey0(array, key, !needFields || key->fieldCount > 0);
    }
}

bool EnsureKey0(KWArray* array) {
    if (!array->keys.empty()) return true;
    try {
        auto key = std::make_unique<KWAKey>();
        key->array = array;
        array->keys.push_back(std::move(key));
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

// expression: name { ";" name }, at most six names of at most 63 characters,
// every one a field of the type; spaces are dropped first and empty names
// (";;", a trailing ";") are skipped.
int32_t ParseKeyExpression(const KWRType* type, const char* expression, ParsedKey* out, const char* tag) {
    std::string text;
    for (size_t i = 0; i < kExpressionSize && expression[i]; ++i)
        if (expression[i] != ' ') text.push_back(expression[i]);
    if (text.size() >= kExpressionSize) text.resize(kExpressionSize - 1);
    std::memcpy(out->expression, text.c_str(), text.size() + 1);
    out->fieldCount = 0;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find(';', start);
        if (end == std::string::npos) end = text.size();
        const std::string name = text.substr(start, end - start);
        start = end + 1;
        if (name.empty()) continue;
        if (name.size() > kMaxFieldName) {
            if (tag) LogF(2, tag, "key field name longer than 63 characters: \"%.63s...\"", name.c_str());
            return -3;
        }
        const KWRField* field = rec::FldByName(type, name.c_str());
        if (!field) {
            if (tag) LogF(2, tag, "key field \"%s\" is not a field of the array", name.c_str());
            return -3;
        }
        if (out->fieldCount == kMaxKeyFields) {
            if (tag) LogF(2, tag, "key \"%s\" has more than 6 fields", out->expression);
            return -3;
        }
        out->fieldNumbers[out->fieldCount++] = field->number;
    }
    return 0;
}

int32_t AddKey(KWArray* array, const char* expression, uint32_t options, const char* tag) {
    ParsedKey parsed;
    if (const int32_t rc = ParseKeyExpression(&array->type, expression, &parsed, tag)) return rc;
    auto key = std::make_unique<KWAKey>();
    key->options = options;
    key->array = array;
    std::memcpy(key->expression, parsed.expression, sizeof key->expression);
    key->fieldCount = parsed.fieldCount;
    std::memcpy(key->fieldNumbers, parsed.fieldNumbers, sizeof key->fieldNumbers);
    RefreshKeyFields(key.get(), &array->type);
    FillFromKey0(array, key.get(), key->fieldCount > 0);
    array->keys.push_back(std::move(key));
    return 0;
}


int32_t KeyAdd(KWArray* array, int32_t count, const KWAKeyDef* defs) {
    if (!array || count < 0 || (count > 0 && !defs)) return -1;
    for (int32_t i = 0; i < count && array->KeyCount() < kMaxKeys; ++i) {
        if (const int32_t rc = AddKey(array, defs[i].expression, defs[i].options, KWA_TAG("KWAKeyAdd")))
            return rc;
    }
    return 0;
}

int32_t KeyDel(KWArray* array, int32_t key) {
    if (!array || key < 0 || key >= array->KeyCount()) return 0;
    if (array->KeyCount() == 1) {
        // The last key stays as key 0 without a definition: it still lists
        // every member, in the order it had.
        KWAKey* k = array->keys[0].get();
        k->expression[0] = 0;
        k->fieldCount = 0;
        k->options = 0;
        RefreshKeyFields(k, &array->type);
        return 0;
    }
    array->keys.erase(array->keys.begin() + key);
    return 0;
}

int32_t RecSort(KWArray* array, int32_t key) {
    KWAKey* k = array ? array->Key(key) : nullptr;
    if (!k) return -1;
    SortKey(k);  // std::bad_alloc leaves the key as it was
    return 0;
}

}  // namespace kwz::recarr
