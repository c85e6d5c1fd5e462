// Internal helpers shared by every module of the library (not exported).
#pragma once

#include <VomKwz.h>

#include <cstdint>
#include <cstring>

#include "base/kwLog.h"

namespace kwz {

// Integers in images, tables and frames are little-endian and unaligned; the
// supported platform is little-endian, so a memcpy is the whole conversion.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "little-endian platform required");

template <typename T>
inline T Load(const void* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

template <typename T>
inline void Store(void* p, T v) {
    std::memcpy(p, &v, sizeof v);
}

inline uint32_t LoadU32(const void* p) { return Load<uint32_t>(p); }
inline void StoreU32(void* p, uint32_t v) { Store<uint32_t>(p, v); }

}  // namespace kwz
