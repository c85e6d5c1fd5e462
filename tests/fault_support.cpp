// Linked into every test_*_internal executable: the global operator new
// consults the library's fault counter, so that "fail the n-th allocation"
// covers std:: containers and the library's own blocks alike.
#include <cstdlib>
#include <new>

#include "base/kwMem.h"

namespace {

void* Allocate(std::size_t size) {
    if (kwz::FaultCheck()) throw std::bad_alloc();
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}

void* AllocateNoThrow(std::size_t size) noexcept {
    if (kwz::FaultCheck()) return nullptr;
    return std::malloc(size ? size : 1);
}

}  // namespace

void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return AllocateNoThrow(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return AllocateNoThrow(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
