// The one binary search behind KWLSeek and the record-array keys.
#pragma once

#include <cstdint>

namespace kwz {

// Searches positions 0..count-1 of a sorted sequence; cmp(mid) compares the
// item at mid with the search key.  The result is the lowest position whose
// item is not below the key: the first of several equal items, or the
// insertion point.  With `unique`, the search stops narrowing at the first
// match it meets and that match's index is the position: callers with Unique
// keys depend on exactly this probe sequence (mid = (lo + hi) >> 1), so keep
// it.  Returns true when an equal item was met.
template <typename Cmp>
bool SeekSorted(int32_t count, bool unique, Cmp&& cmp, int32_t* position) {
    int32_t lo = 0;
    int32_t hi = count - 1;
    bool found = false;
    while (lo <= hi) {
        const int32_t mid = (lo + hi) >> 1;
        const int32_t c = cmp(mid);
        if (c < 0) {
            lo = mid + 1;
        } else {
            hi = mid - 1;
            if (c == 0) {
                found = true;
                if (unique) lo = mid;
            }
        }
    }
    *position = lo;
    return found;
}

}  // namespace kwz
