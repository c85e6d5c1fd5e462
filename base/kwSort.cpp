// QuickSort over an array of pointers, and stricmp_rus, the case-insensitive
// comparison of 8-bit Latin and Windows-1251 Cyrillic text.
#include "base/kwSort.h"

#include "base/kwBase.h"
#include "base/kwGuard.h"

namespace kwz {

// Hoare partition around the pointer in the middle, taken once per pass (not
// re-read as items move).  The left part is sorted recursively, the right one
// by the loop.  Not stable; the context goes to every comparison.
void QuickSort(void* context, void** items, int32_t lo, int32_t hi, KWLCompareFn compare) {
    if (!items || !compare || lo >= hi) return;
    do {
        int32_t i = lo;
        int32_t j = hi;
        void* const pivot = items[(lo + hi) / 2];
        do {
            while (compare(context, items[i], pivot) < 0) ++i;
            while (compare(context, items[j], pivot) > 0) --j;
            if (i <= j) {
                void* t = items[i];
                items[i] = items[j];
                items[j] = t;
                ++i;
                --j;
            }
        } while (i <= j);
        if (lo < j) QuickSort(context, items, lo, j, compare);
        lo = i;
    } while (lo < hi);
}

// A null text compares as the empty text.
int32_t StrICmpRus(const char* a, const char* b) {
    if (!a) a = "";
    if (!b) b = "";
    const auto* p = reinterpret_cast<const unsigned char*>(a);
    const auto* q = reinterpret_cast<const unsigned char*>(b);
    for (;; ++p, ++q) {
        const unsigned x = FoldCaseRus(*p), y = FoldCaseRus(*q);
        if (x != y) return x < y ? -1 : 1;
        if (x == 0) return 0;
    }
}

}  // namespace kwz

extern "C" {

// The caller's comparator may be C++ that throws: the sort stops there, its
// items in some order, and nothing crosses into C.
KWZ_API void QuickSort(void* context, void** items, int32_t lo, int32_t hi, KWLCompareFn compare) {
    kwz::CEdgeVoid("Kwz.kwCross.QuickSort",
                   [&] { kwz::QuickSort(context, items, lo, hi, compare); });
}

KWZ_API int32_t stricmp_rus(const char* a, const char* b) { return kwz::StrICmpRus(a, b); }

}  // extern "C"
