// The caller's side of time synchronisation over a stream connection: start
// a time request (control record Type 4), read the measured clock difference
// and the peer's zone values once the answer (Type 5) has arrived, and
// override the zone values this side sends in its own answers.  The exchange
// itself is in kwSockCtl.cpp.
#include "base/kwBase.h"
#include "base/kwGuard.h"
#include "sock/kwSockInt.h"

using namespace kwz;
using namespace kwz::sock;

namespace {

// The stream slot named by idn, or null after logging.
SockItem* TimeSlot(uint32_t idn, const char* tag) REQUIRES(ModCrit) {
    SockItem* s = FindSlotLogged(idn, true, tag, true, true);
    if (!s) return nullptr;
    SockLogF(5, tag, "Execute (idn=%d)", static_cast<int>(idn));
    return s;
}

template <typename T>
void Put(T* out, T value) {
    if (out) *out = value;
}

int32_t SockTimeSynchro(uint32_t idn) {
    static const char* const tag = KWSOCK_TAG("KWSockTimeSynchro");
    MutexLock lock(ModCrit);
    SockItem* s = TimeSlot(idn, tag);
    if (!s) return 0;
    // Four Data bytes, stamped with the tick by the sending thread.
    KWRData* rec = MakeControl(4, nullptr, 4, tag);
    if (!rec) return 0;
    if (SockBufAdd(s, rec, ReleaseRecord, kPrioTop)) return 1;
    kwz::rec::RecRelease(rec);
    return 0;
}

int32_t SockTimeDlt(uint32_t idn, uint32_t* seconds, uint32_t* millis) {
    Put<uint32_t>(seconds, 0);
    Put<uint32_t>(millis, 0);
    MutexLock lock(ModCrit);
    SockItem* s = TimeSlot(idn, KWSOCK_TAG("KWSockTimeDlt"));
    if (!s || !s->Time.Synced) return 0;
    Put(seconds, static_cast<uint32_t>(s->Time.DltSec));
    Put(millis, static_cast<uint32_t>(s->Time.DltMs));
    return 1;
}

int32_t SockTimeZone(uint32_t idn, uint32_t* zone1, uint32_t* zone2) {
    Put<uint32_t>(zone1, 0);
    Put<uint32_t>(zone2, 0);
    MutexLock lock(ModCrit);
    SockItem* s = TimeSlot(idn, KWSOCK_TAG("KWSockTimeZone"));
    if (!s || !s->Time.Synced) return 0;
    const bool set = s->Time.SetZone1 != -1;
    Put(zone1, static_cast<uint32_t>(set ? s->Time.SetZone1 : s->Time.Zone1));
    Put(zone2, static_cast<uint32_t>(set ? s->Time.SetZone2 : s->Time.Zone2));
    return 1;
}

int32_t SockTimeDltAbo(uint32_t idn, uint32_t* seconds, uint32_t* millis, uint32_t* zone) {
    Put<uint32_t>(seconds, 0);
    Put<uint32_t>(millis, 0);
    Put<uint32_t>(zone, 0);
    MutexLock lock(ModCrit);
    SockItem* s = TimeSlot(idn, KWSOCK_TAG("KWSockTimeDltAbo"));
    if (!s || !s->Time.Synced) return 0;
    Put(seconds, static_cast<uint32_t>(s->Time.DltSec));
    Put(millis, static_cast<uint32_t>(s->Time.DltMs));
    const int32_t set = s->Time.SetZone1;
    Put(zone, static_cast<uint32_t>(set != -1 ? set : s->Time.Zone1));
    return 1;
}

// zone1 = -1 removes the override.
int32_t SockTimeZoneSet(uint32_t idn, int32_t zone1, int32_t zone2) {
    MutexLock lock(ModCrit);
    SockItem* s = TimeSlot(idn, KWSOCK_TAG("KWSockTimeZoneSet"));
    if (!s) return 0;
    s->Time.SetZone2 = zone2;
    s->Time.SetZone1 = zone1;
    return 1;
}

}  // namespace

extern "C" {

KWZ_API int32_t KWSockTimeSynchro(uint32_t idn) {
    return CEdge(KWSOCK_TAG("KWSockTimeSynchro"), 0, 0, [&] { return SockTimeSynchro(idn); });
}

KWZ_API int32_t KWSockTimeDlt(uint32_t idn, uint32_t* seconds, uint32_t* millis) {
    return CEdge(KWSOCK_TAG("KWSockTimeDlt"), 0, 0, [&] { return SockTimeDlt(idn, seconds, millis); });
}

KWZ_API int32_t KWSockTimeZone(uint32_t idn, uint32_t* zone1, uint32_t* zone2) {
    return CEdge(KWSOCK_TAG("KWSockTimeZone"), 0, 0, [&] { return SockTimeZone(idn, zone1, zone2); });
}

KWZ_API int32_t KWSockTimeDltAbo(uint32_t idn, uint32_t* seconds, uint32_t* millis, uint32_t* zone) {
    return CEdge(KWSOCK_TAG("KWSockTimeDltAbo"), 0, 0, [&] { return SockTimeDltAbo(idn, seconds, millis, zone); });
}

KWZ_API int32_t KWSockTimeZoneSet(uint32_t idn, int32_t zone1, int32_t zone2) {
    return CEdge(KWSOCK_TAG("KWSockTimeZoneSet"), 0, 0, [&] { return SockTimeZoneSet(idn, zone1, zone2); });
}

}  // extern "C"
