// Tick counters.
//
// The real-time ticks are seconds * 1000 + nanoseconds / 1000 of the coarse
// real-time clock: microseconds, not milliseconds, are added to the second
// count, so the value jumps within each second and is not a millisecond
// count.  Peers compare these values with their own, so the formula is kept
// exactly.  CTimeTick64 is the one true millisecond counter.
#include <time.h>

#include <chrono>

#include "base/kwTime.h"

#include "base/kwBase.h"

namespace {

// Taken by the shared library's static initialisation, i.e. when it is loaded.
const std::chrono::steady_clock::time_point g_loadTime = std::chrono::steady_clock::now();

}  // namespace

namespace kwz {

uint64_t CoarseTicks() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME_COARSE, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

int64_t SteadyMs() {
    const auto elapsed = std::chrono::steady_clock::now() - g_loadTime;
    return std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count();
}

}  // namespace kwz

extern "C" {

KWZ_API uint32_t GetTickCount(void) { return static_cast<uint32_t>(kwz::CoarseTicks()); }

KWZ_API uint64_t GetTickCount64(void) { return kwz::CoarseTicks(); }

KWZ_API uint32_t CTimeTick32(void) { return static_cast<uint32_t>(kwz::CoarseTicks()); }

KWZ_API int64_t CTimeTick64(void) { return kwz::SteadyMs(); }

}  // extern "C"
