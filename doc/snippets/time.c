/* Ticks and time: a duration, today's date in local time, the zone. */
#include <VomKwz.h>
#include <stdio.h>

int main(void) {
    const int64_t start = CTimeTick64(); /* true milliseconds, for durations */
    struct tm local;
    if (CTimeLocal(CTimeNow(), &local) != 1) return 1; /* 1: converted, 0: not */
    KWTimeZone zone;
    const int32_t daylight = CTimeZoneGet(&zone); /* 2: the zone has daylight saving */
    printf("%04d-%02d-%02d, %lld minutes west of UTC%s, in %lld ms\n", local.tm_year + 1900, local.tm_mon + 1,
           local.tm_mday, (long long)zone.bias, daylight == 2 ? " (daylight saving)" : "",
           (long long)(CTimeTick64() - start));
    return 0;
}
