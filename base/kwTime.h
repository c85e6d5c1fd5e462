// Ticks and calendar time, for the library's own use (the exported GetTick...
// and CTime... functions are thin wrappers over these).
#pragma once

#include <VomKwz.h>

#include <cstdint>

namespace kwz {

// seconds * 1000 + microseconds of the coarse real-time clock: the value that
// peers compare, jumping within each second (not a millisecond count).
uint64_t CoarseTicks();

// True milliseconds since the library was loaded (steady clock).
int64_t SteadyMs();

// The current UTC time with the local zone's offset and daylight flag.
void TimeUTC(KWTimeStamp* stamp);

}  // namespace kwz
