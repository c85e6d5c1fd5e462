// KWList: a growable array of untyped pointers.  The list never frees, copies
// or compares what its items point at; its owner serialises access.
//
// Growth (KWLAdd, KWLInsert): when full, the capacity becomes count + 16
// below 65 items and count + count / 4 from 65 on.
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "base/kwBase.h"
#include "base/kwMem.h"
#include "base/kwSearch.h"
#include "base/kwSort.h"
#include "base/kwGuard.h"

namespace {

bool InRange(const KWList* list, int32_t index) { return index >= 0 && index < list->count; }

void SetCapacity(KWList* list, int32_t n) {
    if (!list || n < list->count || n == list->capacity) return;
    if (n == 0) {
        kwz::MemFree(list->items);
        list->items = nullptr;
        list->capacity = 0;
        return;
    }
    void* grown = kwz::MemReAlloc(list->items, sizeof(void*) * static_cast<size_t>(n));
    if (!grown) return;
    list->items = static_cast<void**>(grown);
    list->capacity = n;
}

int32_t GrownCapacity(int32_t count) {
    const int64_t grown = count < 65 ? int64_t{count} + 16 : int64_t{count} + count / 4;
    return static_cast<int32_t>(std::min<int64_t>(grown, INT32_MAX));
}

// Makes room for one more item; false when the list is full and cannot grow.
bool Reserve(KWList* list) {
    if (list->count < list->capacity) return true;
    SetCapacity(list, GrownCapacity(list->count));
    return list->count < list->capacity;
}

}  // namespace

extern "C" {

KWZ_API void KWLInit(KWList* list) {
    if (!list) return;
    list->items = nullptr;
    list->count = 0;
    list->capacity = 0;
}

KWZ_API void* KWLGet(KWList* list, int32_t index) {
    return list && InRange(list, index) ? list->items[index] : nullptr;
}

KWZ_API void KWLPut(KWList* list, int32_t index, void* item) {
    if (list && InRange(list, index)) list->items[index] = item;
}

KWZ_API void* KWLDel(KWList* list, int32_t index) {
    if (!list || !InRange(list, index)) return nullptr;
    void* item = list->items[index];
    --list->count;
    std::memmove(list->items + index, list->items + index + 1,
                 sizeof(void*) * static_cast<size_t>(list->count - index));
    return item;
}

KWZ_API void KWLExchange(KWList* list, int32_t i, int32_t j) {
    if (list && InRange(list, i) && InRange(list, j)) std::swap(list->items[i], list->items[j]);
}

KWZ_API void KWLMove(KWList* list, int32_t from, int32_t to) {
    if (!list || from == to || !InRange(list, from) || !InRange(list, to)) return;
    void** items = list->items;
    if (from < to) {
        std::rotate(items + from, items + from + 1, items + to + 1);
    } else {
        std::rotate(items + to, items + from, items + from + 1);
    }
}

KWZ_API int32_t KWLIndexOf(KWList* list, void* item) {
    if (!list) return -1;
    for (int32_t i = 0; i < list->count; ++i) {
        if (list->items[i] == item) return i;
    }
    return -1;
}

KWZ_API int32_t KWLRemove(KWList* list, void* item) {
    if (!list) return -1;
    void** end = list->items + list->count;
    void** at = std::find(list->items, end, item);
    if (at == end) return -1;
    const int32_t index = static_cast<int32_t>(at - list->items);
    std::memmove(at, at + 1, sizeof(void*) * static_cast<size_t>(end - at - 1));
    --list->count;
    return index;
}

KWZ_API void* KWLFirst(KWList* list) { return list && list->count > 0 ? list->items[0] : nullptr; }

KWZ_API void* KWLLast(KWList* list) { return list && list->count > 0 ? list->items[list->count - 1] : nullptr; }

// A failed resize leaves the list as it was; nothing is reported.
KWZ_API void KWLCapacity(KWList* list, int32_t n) { SetCapacity(list, n); }

KWZ_API int32_t KWLAdd(KWList* list, void* item) {
    if (!list || !Reserve(list)) return -1;
    list->items[list->count] = item;
    return list->count++;
}

KWZ_API int32_t KWLInsert(KWList* list, int32_t index, void* item) {
    if (!list) return -1;
    index = std::clamp(index, 0, list->count);
    if (!Reserve(list)) return -1;
    std::memmove(list->items + index + 1, list->items + index,
                 sizeof(void*) * static_cast<size_t>(list->count - index));
    list->items[index] = item;
    ++list->count;
    return index;
}

// Truncates (items are not freed) or appends null items.
KWZ_API void KWLCount(KWList* list, int32_t n) {
    if (!list || n < 0) return;
    if (n > list->capacity) {
        SetCapacity(list, n);
        if (n > list->capacity) return;
    }
    if (n > list->count) {
        std::memset(list->items + list->count, 0, sizeof(void*) * static_cast<size_t>(n - list->count));
    }
    list->count = n;
}

KWZ_API void KWLClear(KWList* list) {
    if (!list) return;
    list->count = 0;
    SetCapacity(list, 0);
}

KWZ_API void KWLSort(void* context, KWList* list, KWLCompareFn compare) {
    if (!list || !list->items || list->count <= 0) return;
    kwz::CEdgeVoid("Kwz.kwCross.KWLSort",
                   [&] { kwz::QuickSort(context, list->items, 0, list->count - 1, compare); });
}

// Binary search of a sorted list; the comparator gets (context, item, key).
// The position is the lowest one whose item is not below the key: the first
// of several equal items, or the insertion point.  Under a Unique key the
// search stops at the first match it meets instead, and that match's index is
// the position.
KWZ_API int32_t KWLSeek(void* context, KWList* list, KWLCompareFn compare, void* key,
                        int32_t* position) {
    int32_t lo = 0;
    int32_t found = 0;
    if (list && list->items && compare) {
        // The context, when given, starts with the key's option word (a
        // uint32_t of iKeyOpt_ bits); that word alone decides the Unique rule.
        const bool unique =
            context && (*static_cast<const uint32_t*>(context) & iKeyOpt_Unique);
        // A throwing comparator ends the search as "not found" at 0.
        found = kwz::CEdge("Kwz.kwCross.KWLSeek", 0, 0, [&] {
            return kwz::SeekSorted(list->count, unique,
                                   [&](int32_t mid) { return compare(context, list->items[mid], key); },
                                   &lo) ? 1 : 0;
        });
    }
    if (position) *position = lo;
    return found;
}

}  // extern "C"
