// Sorting and the Cyrillic-aware comparison, for the library's own use.
#pragma once

#include <VomKwz.h>

#include <cstdint>

namespace kwz {

// Sorts items[lo..hi] with compare(context, a, b); not stable.
void QuickSort(void* context, void** items, int32_t lo, int32_t hi, KWLCompareFn compare);

// Case-insensitive comparison of 8-bit Latin and Windows-1251 Cyrillic text.
int32_t StrICmpRus(const char* a, const char* b);

}  // namespace kwz
