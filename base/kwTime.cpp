// Calendar time: the current time, conversions through struct tm and the
// local time zone.  Zone data comes from the C library's globals (timezone,
// daylight, tzname), which tzset fills from the TZ environment variable.
#include <time.h>

#include <cstring>

#include "base/kwTime.h"

#include "base/kwBase.h"

namespace {

timespec CoarseNow() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME_COARSE, &ts);
    return ts;
}

// The platform's timezone is in seconds west of UTC; callers get minutes,
// truncated toward zero.
long ZoneMinutesWest() { return timezone / 60; }

// strncpy into a fixed field: at most size bytes, the rest zero-filled.
template <size_t N>
void CopyZoneName(char (&out)[N], const char* name) {
    const size_t n = name ? strnlen(name, N) : 0;
    if (n) std::memcpy(out, name, n);
    std::memset(out + n, 0, N - n);
}

}  // namespace

// Reads the zone globals as they are, without tzset: a caller that changes TZ
// calls CTimeZoneGet (or any local conversion) first.
void kwz::TimeUTC(KWTimeStamp* stamp) {
    if (!stamp) return;
    const timespec ts = CoarseNow();
    stamp->seconds = ts.tv_sec;
    stamp->millis = static_cast<uint16_t>(ts.tv_nsec / 1000000);
    stamp->zoneMinutes = static_cast<int16_t>(ZoneMinutesWest());
    stamp->daylight = static_cast<int16_t>(daylight);
}

extern "C" {

KWZ_API int64_t CTimeNow(void) { return CoarseNow().tv_sec; }

KWZ_API void CTimeUTC(KWTimeStamp* stamp) { kwz::TimeUTC(stamp); }

// localtime_r does not reread TZ the way localtime does, so tzset comes first
// to give the same result.  1 on success; 0 for a null output or a time that
// cannot be broken down (where localtime would have returned null).
KWZ_API int32_t CTimeLocal(int64_t time, struct tm* out) {
    if (!out) return 0;
    tzset();
    const time_t t = static_cast<time_t>(time);
    struct tm result;
    if (!localtime_r(&t, &result)) return 0;
    *out = result;
    return 1;
}

KWZ_API int32_t CTimeGM(int64_t time, struct tm* out) {
    if (!out) return 0;
    const time_t t = static_cast<time_t>(time);
    struct tm result;
    if (!gmtime_r(&t, &result)) return 0;
    *out = result;
    return 1;
}

// mktime normalises the structure in place.  A null structure stores -1.
KWZ_API int32_t CTimeMake(struct tm* tm, int64_t* time) {
    if (!tm) {
        if (time) *time = -1;
        return 0;
    }
    const time_t t = mktime(tm);
    if (time) *time = static_cast<int64_t>(t);
    return t != static_cast<time_t>(-1) ? 1 : 0;
}

// The names are copied with a bounded copy of 32 bytes: a 32-character name
// is not terminated, as readers of the structure expect.
KWZ_API int32_t CTimeZoneGet(KWTimeZone* zone) {
    tzset();
    if (zone) {
        zone->bias = ZoneMinutesWest();
        CopyZoneName(zone->standardName, tzname[0]);
        CopyZoneName(zone->daylightName, tzname[1]);
        zone->daylight = daylight ? 1 : 0;
    }
    return daylight ? 2 : 0;
}

}  // extern "C"
