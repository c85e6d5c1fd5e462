// KWZGetVersion: the numbers come from the public header's version macros.
#include "base/kwBase.h"

namespace {
const char kCredits[] =
    "libVomKwz - typed records, record tables and record transport. "
    "Written by the VomKwz developers.";
}

extern "C" KWZ_API void KWZGetVersion(uint64_t* major, uint64_t* minor, uint64_t* release,
                                      uint64_t* build, const char** credits) {
    if (major) *major = KWZ_VERSION_MAJOR;
    if (minor) *minor = KWZ_VERSION_MINOR;
    if (release) *release = KWZ_VERSION_RELEASE;
    if (build) *build = KWZ_VERSION_BUILD;
    if (credits) *credits = kCredits;
}
