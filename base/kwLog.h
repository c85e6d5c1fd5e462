// The library's own logging: what the exported LogMessage... functions do,
// callable from inside without passing through the C edge.
#pragma once

#include <cstdint>

namespace kwz {

// True when a message of this level would reach the log sink; lets callers
// skip building expensive arguments.
bool LogEnabled(int32_t level);

// Sends text to the sink when level is at most the threshold.
void Log(int32_t level, const char* tag, const char* text);

// printf-style; the text is cut at 2,047 bytes.
void LogF(int32_t level, const char* tag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

}  // namespace kwz
