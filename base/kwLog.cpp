// The process-wide log sink: one callback and one threshold, read without a
// lock by every thread that logs (set them while no other thread logs).
#include "base/kwLog.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "base/kwBase.h"
#include "base/kwGuard.h"

namespace {

// Relaxed atomics: the contract is "set before other threads log", but a
// plain read racing with a set must still not be undefined behaviour.
std::atomic<KWLogFn> g_callback{nullptr};
std::atomic<int32_t> g_level{0};

constexpr int32_t kMaxLevel = 5;
constexpr size_t kFormatBuffer = 2048;

void LogV(int32_t level, const char* tag, const char* format, va_list args) {
    KWLogFn cb = g_callback.load(std::memory_order_acquire);
    if (!cb || !format || level > g_level.load(std::memory_order_relaxed)) return;
    char text[kFormatBuffer];
    // An over-long text is cut, never written past the buffer.
    std::vsnprintf(text, sizeof text, format, args);
    cb(level, tag, text);
}

}  // namespace

namespace kwz {

bool LogEnabled(int32_t level) {
    return g_callback.load(std::memory_order_relaxed) != nullptr &&
           level <= g_level.load(std::memory_order_relaxed);
}

void Log(int32_t level, const char* tag, const char* text) {
    KWLogFn cb = g_callback.load(std::memory_order_acquire);
    if (cb && level <= g_level.load(std::memory_order_relaxed)) cb(level, tag, text);
}

void LogF(int32_t level, const char* tag, const char* format, ...) {
    va_list args;
    va_start(args, format);
    LogV(level, tag, format, args);
    va_end(args);
}

}  // namespace kwz

extern "C" {

// The logging functions run the caller's callback; an exception it throws
// stops at this edge (a C caller could not catch it).
KWZ_API KWLogFn LogMessageSet(KWLogFn callback, int32_t level) {
    if (level < 0) level = 0;
    if (level > kMaxLevel) level = kMaxLevel;
    g_level.store(level, std::memory_order_relaxed);
    return g_callback.exchange(callback, std::memory_order_acq_rel);
}

KWZ_API int32_t LogMessageLevel(void) { return g_level.load(std::memory_order_relaxed); }

KWZ_API void LogMessage(int32_t level, const char* tag, const char* text) {
    kwz::CEdgeVoid(nullptr, [&] { kwz::Log(level, tag, text); });
}

KWZ_API void LogMessageF(int32_t level, const char* tag, const char* format, ...) {
    va_list args;
    va_start(args, format);
    kwz::CEdgeVoid(nullptr, [&] { LogV(level, tag, format, args); });
    va_end(args);
}

}  // extern "C"
