// Sorting and the Cyrillic-aware comparison, for the library's own use.
#pragma once

#include <VomKwz.h>

#include <cstdint>

namespace kwz {

// Sorts items[lo..hi] with compare(context, a, b); not stable.
void QuickSort(void* context, void** items, int32_t lo, int32_t hi, KWLCompareFn compare);

// Latin a..z (0x61..0x7A) and Cyrillic а..я (0xE0..0xFF) fold to upper case.
// ё (0xB8) is deliberately not folded to Ё (0xA8): existing sorted data and
// keys were built with this table.
constexpr unsigned char FoldCaseRus(unsigned char c) {
    return (c >= 0x61 && c <= 0x7A) || c >= 0xE0 ? static_cast<unsigned char>(c - 0x20u) : c;
}

// Case-insensitive comparison of 8-bit Latin and Windows-1251 Cyrillic text.
int32_t StrICmpRus(const char* a, const char* b);

}  // namespace kwz
