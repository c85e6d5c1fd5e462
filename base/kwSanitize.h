// Whether this build runs under AddressSanitizer, decided once for every
// module: GCC says so with __SANITIZE_ADDRESS__, clang through
// __has_feature.  Pools that hand out their own blocks turn to plain heap
// blocks then, so that the sanitizer sees each block on its own.
#pragma once

#if defined(__SANITIZE_ADDRESS__)
#define KWZ_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KWZ_ADDRESS_SANITIZER 1
#endif
#endif
#if !defined(KWZ_ADDRESS_SANITIZER)
#define KWZ_ADDRESS_SANITIZER 0
#endif

namespace kwz {
constexpr bool kAddressSanitizer = KWZ_ADDRESS_SANITIZER != 0;
}  // namespace kwz
