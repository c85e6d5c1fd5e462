// Control records: records of type id 0 with the layout of
// "TestTyp2|2\r\nType|I4\r\nData|CB" that the transport exchanges with its
// peer and never shows to the caller.
//
//   Type 1  host identification, Data = the client's host name
//   Type 2  "use this receive time-out", Data = u32 ms
//   Type 3  "send at least every T ms", Data = u32 T; answered by a Type 2
//           of 4 * T, so a receiver waits four keep-alive intervals
//   Type 4  time request, Data = u32 requester's tick (stamped when sent)
//   Type 5  time answer, Data = 24 bytes:
//             +0 u32 the request's tick echoed   +8 i64 UTC seconds
//             +16 u16 milliseconds  +18 i16 zone 1  +20 i16 zone 2
//           (seconds, milliseconds and zones stamped when sent)
//
// A peer that sends requests without reading its answers makes at most one
// time answer and one time-out answer wait in the queue: a newer request
// rewrites the waiting answer instead of queueing another.
//
// Also the time-out functions of the caller and the receive limit.
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>

#include "base/kwBase.h"
#include "base/kwGuard.h"
#include "rec/kwRecImage.h"
#include "sock/kwSockInt.h"

namespace kwz::sock {
namespace {

constexpr uint32_t kTimeAnswerLen = 24;

// Queues a control record the transport made at the top priority; when slot
// is given, the record becomes the one waiting answer of that kind.
// Releases the record when refused.
bool QueueOwn(SockItem* s, KWRData* rec, KWRData* SockItem::*slot = nullptr) EXCLUDES(ModCrit) {
    MutexLock lock(ModCrit);
    if (SockBufAdd(s, rec, ReleaseRecord, kPrioTop)) {
        if (slot) s->*slot = rec;
        return true;
    }
    kwz::rec::RecRelease(rec);
    return false;
}

// Rewrites the first four Data bytes of the waiting answer of this kind;
// false when none is waiting (the send thread has taken it).
bool RewriteWaiting(SockItem* s, KWRData* SockItem::*slot, const void* bytes) REQUIRES(ModCrit) {
    KWRData* waiting = s->*slot;
    if (!waiting) return false;
    uint8_t* data = ControlData(waiting, 4);
    if (!data) return false;
    std::memcpy(data, bytes, 4);
    return true;
}

void SetPeerHostName(SockItem* s, const char* text, uint32_t len) {
    auto* copy = static_cast<char*>(std::malloc(len + 1));
    if (!copy) return;
    std::memcpy(copy, text, len);
    copy[len] = 0;
    MutexLock lock(ModCrit);
    std::free(s->HostName);
    s->HostName = copy;
}

void SetRecvTimeoutFromPeer(SockItem* s, int fd, uint32_t asked) {
    const uint32_t tnew = ClampPeerTimeout(s, asked);
    SockLogF(5, KWSOCK_TAG("_SetRecvTimeout"), "Execute (idn=%d, type=%d, tnew=%d, told=%d)", s->OwnIdn(),
             s->OwnType(), static_cast<int>(tnew), static_cast<int>(s->RecvTimeout.load()));
    if (tnew == s->RecvTimeout) return;
    s->RecvTimeout = tnew;
    SetTimeoutOpt(fd, SO_RCVTIMEO, tnew ? tnew : kSockRecvTimeout);  // result ignored
}

void SetSendTimeoutFromPeer(SockItem* s, int fd, uint32_t asked) {
    static const char* const tag = KWSOCK_TAG("_SetSendTimeout");
    const uint32_t t = ClampPeerTimeout(s, asked);
    SockLogF(5, tag, "Execute (idn=%d, type=%d, tnew=%d, told=%d)", s->OwnIdn(), s->OwnType(), static_cast<int>(t),
             static_cast<int>(s->SendTimeout.load()));
    if (t == s->SendTimeout) return;
    // The peer waits four intervals; saturated so that a huge interval does
    // not wrap into a short wait.
    const uint32_t answer = t > 0xFFFFFFFFu / 4 ? 0xFFFFFFFFu : 4 * t;
    {
        MutexLock lock(ModCrit);
        if (RewriteWaiting(s, &SockItem::QueuedTimeoutAnswer, &answer)) {
            s->SendTimeout = t;
            ApplySendTimeout(s, fd, t ? t : kSockSendTimeout);
            return;
        }
    }
    KWRData* rec = MakeControl(2, &answer, sizeof answer, tag);
    if (!rec) return;
    s->SendTimeout = t;
    ApplySendTimeout(s, fd, t ? t : kSockSendTimeout);  // 5000 when 0
    QueueOwn(s, rec, &SockItem::QueuedTimeoutAnswer);
}

void TimeRequest(SockItem* s, const char* data) {
    {
        // Cleared before the answer can leave, so that nobody who has seen
        // the answer arrive can still read this side as synchronised.
        MutexLock lock(ModCrit);
        s->Time.Synced = false;
        if (RewriteWaiting(s, &SockItem::QueuedTimeAnswer, data)) return;  // the tick of the newer request
    }
    uint8_t answer[kTimeAnswerLen] = {};
    std::memcpy(answer, data, 4);  // the requester's tick, echoed
    KWRData* rec = MakeControl(5, answer, sizeof answer, KWSOCK_TAG("_TimeRequest"));
    if (!rec) return;
    QueueOwn(s, rec, &SockItem::QueuedTimeAnswer);
}

// difference = D - R / 2, where D is the peer's clock minus ours at the
// answer and R the round trip of the request, both in milliseconds.
void TimeAnswer(SockItem* s, const char* data) {
    SockLogF(5, KWSOCK_TAG("_TimeAnswer"), "Execute (idn=%d, type=%d)", s->OwnIdn(), s->OwnType());
    KWTimeStamp now{};
    kwz::TimeUTC(&now);
    const auto remoteSec = Load<int64_t>(data + 8);
    const auto remoteMs = Load<uint16_t>(data + 16);
    // Wrapping arithmetic: an absurd answer from a peer gives an absurd but
    // defined difference.
    const uint64_t d = (static_cast<uint64_t>(remoteSec) - static_cast<uint64_t>(now.seconds)) * 1000u +
                       static_cast<uint64_t>(int64_t{remoteMs} - int64_t{now.millis});
    const uint32_t r = SockTick() - LoadU32(data);  // wrapping 32-bit
    const auto diff = static_cast<int64_t>(d - uint64_t{r / 2});
    // One answer's values, published together.
    MutexLock lock(ModCrit);
    s->Time.DltSec = static_cast<int32_t>(diff / 1000);
    s->Time.DltMs = static_cast<int32_t>(diff % 1000);  // same sign as the seconds
    s->Time.Zone1 = Load<int16_t>(data + 18);
    s->Time.Zone2 = Load<int16_t>(data + 20);
    s->Time.Synced = true;
}

}  // namespace

uint8_t* ControlData(const KWRData* rec, uint32_t need) {
    const KWRType& t = Mod().TestTyp2;
    if (rec->typeId != 0 || rec->fieldCount != 2 || !rec->image || rec->length < t.dataLength) return nullptr;
    const KWRField& type = t.fields[0];
    const KWRField& data = t.fields[1];
    const uint8_t* image = rec->image;
    // The Type slot an Int32 that is not null, the Data slot a "CB" that is
    // not null and lies in the image (not in an owned block).
    if ((*rec::HeaderByte(&type, image) & (rec::kTypeMask | rec::kNullBit)) != iFldType_Int32) return nullptr;
    if ((*rec::HeaderByte(&data, image) & (rec::kTypeMask | rec::kOwnedBit | rec::kNullBit)) != iFldType_Blob)
        return nullptr;
    const uint32_t len = LoadU32(rec::ValuePtr(&data, image) + rec::kVarLength);
    const uint32_t off = LoadU32(rec::ValuePtr(&data, image) + rec::kVarOffset);
    if (len < need || off == 0 || uint64_t{off} + len > rec->length) return nullptr;
    return rec->image + off;
}

uint32_t ClampPeerTimeout(SockItem* s, uint32_t ms) {
    if (s->OwnType() == SOCK_SRV) {
        if (ms == 0 || ms > kSrvMaxTimeout) return kSrvMaxTimeout;
    }
    return (ms >= 1 && ms < kMinTimeout) ? kMinTimeout : ms;
}

void ApplySendTimeout(SockItem* s, int fd, uint32_t ms) {
    if (ms == 0 && s->OwnType() == SOCK_SRV) ms = kSockSendTimeout;
    if (fd >= 0) SetTimeoutOpt(fd, SO_SNDTIMEO, ms);  // result ignored
    s->SendStall = ms;
}

void HandleControl(SockItem* s, int fd, const KWRData* rec) {
    const KWRType& t = Mod().TestTyp2;
    int32_t type = 0;
    if (kwz::rec::ReadInt32(&t.fields[0], rec, &type) != KWR_OK) return;
    uint32_t len = 0;
    const char* data = nullptr;
    if (kwz::rec::GetTextRef(&t.fields[1], rec, &len, &data) != KWR_OK || !data) len = 0;
    switch (type) {
        case 1:
            if (len > 0) SetPeerHostName(s, data, len);  // an empty name changes nothing
            break;
        case 2:
            if (len >= 4) SetRecvTimeoutFromPeer(s, fd, LoadU32(data));
            break;
        case 3:
            if (len >= 4) SetSendTimeoutFromPeer(s, fd, LoadU32(data));
            break;
        case 4:
            if (len >= 4) TimeRequest(s, data);
            break;
        case 5:
            if (len >= 22) TimeAnswer(s, data);
            break;
        default:
            break;  // 0 and above 5: ignored
    }
}

int32_t TimeControlType(const KWRData* rec) {
    if (rec->typeId != 0 || rec->fieldCount != 2) return 0;
    const uint8_t* data = ControlData(rec, 4);
    if (!data) return 0;
    const auto type = Load<int32_t>(rec->image + Mod().TestTyp2.fields[0].offset);
    if (type == 4) return 4;
    if (type == 5 && ControlData(rec, 22)) return 5;
    return 0;
}

void StampTimeControl(SockItem* s, KWRData* rec, int32_t type) {
    uint8_t* data = ControlData(rec, type == 4 ? 4 : 22);
    if (!data) return;
    if (type == 4) {
        StoreU32(data, SockTick());
        return;
    }
    KWTimeStamp now{};
    kwz::TimeUTC(&now);
    int32_t zone1 = now.zoneMinutes;
    int32_t zone2 = now.daylight;
    if (s->Time.SetZone1 != -1) {
        zone1 = s->Time.SetZone1;
        zone2 = s->Time.SetZone2;
    }
    Store<int64_t>(data + 8, now.seconds);
    Store<uint16_t>(data + 16, now.millis);
    Store<int16_t>(data + 18, static_cast<int16_t>(zone1));
    Store<int16_t>(data + 20, static_cast<int16_t>(zone2));
}

}  // namespace kwz::sock

using namespace kwz;
using namespace kwz::sock;

namespace {

// Shared head of the two time-out functions: the stream slot or null.
SockItem* TimeoutSlot(uint32_t idn, uint32_t ms, bool send, const char* tag) REQUIRES(ModCrit) {
    SockItem* s = FindSlotLogged(idn, true, tag, true, true);
    if (!s) return nullptr;
    SockLogF(5, tag, "Execute (idn=%d, tnew=%d, told=%d)", static_cast<int>(idn), static_cast<int>(ms),
             static_cast<int>(send ? s->SendTimeout.load() : s->RecvTimeout.load()));
    return s;
}

// Asks the peer to send at least every T ms; RecvTimeout becomes 4 * T when
// the peer's answer (Type 2) arrives.
int32_t SockSetRecvTimeout(uint32_t idn, uint32_t ms) EXCLUDES(ModCrit) {
    static const char* const tag = KWSOCK_TAG("KWSockSetRecvTimeout");
    MutexLock lock(ModCrit);
    SockItem* s = TimeoutSlot(idn, ms, false, tag);
    if (!s) return 0;
    if (ms == s->RecvTimeout) return 1;
    const uint32_t t = (ms >= 1 && ms <= 4999) ? 1250 : ms / 4;
    KWRData* rec = MakeControl(3, &t, sizeof t, tag);
    if (!rec) return 0;
    if (SockBufAdd(s, rec, ReleaseRecord, kPrioTop)) return 1;
    kwz::rec::RecRelease(rec);
    return 0;
}

// Sends at least every ms (at least 1250) and tells the peer to wait four
// times that long.
int32_t SockSetSendTimeout(uint32_t idn, uint32_t ms) EXCLUDES(ModCrit) {
    static const char* const tag = KWSOCK_TAG("KWSockSetSendTimeout");
    MutexLock lock(ModCrit);
    SockItem* s = TimeoutSlot(idn, ms, true, tag);
    if (!s) return 0;
    if (ms == s->SendTimeout) return 1;
    uint32_t value = ms;
    uint32_t told = ms > 0xFFFFFFFFu / 4 ? 0xFFFFFFFFu : 4 * ms;
    if (ms >= 1 && ms < kMinTimeout) {
        value = kMinTimeout;
        told = 4 * kMinTimeout;
    }
    KWRData* rec = MakeControl(2, &told, sizeof told, tag);
    if (!rec) return 0;
    s->SendTimeout = value;
    ApplySendTimeout(s, s->Socket, value);
    if (SockBufAdd(s, rec, ReleaseRecord, kPrioTop)) return 1;
    kwz::rec::RecRelease(rec);
    return 0;
}

// A frame whose image is longer than maxImage closes the connection with
// reason -6; 0 removes the limit.  A listening slot passes its limit on to
// the connections it accepts.
int32_t SockSetRecvLimit(uint32_t idn, uint32_t maxImage) EXCLUDES(ModCrit) {
    static const char* const tag = KWSOCK_TAG("KWSockSetRecvLimit");
    Module& m = Mod();
    MutexLock lock(ModCrit);
    SockItem* s = FindSlotLogged(idn, true, tag);
    if (!s) return m.SockNum == 0 ? SE_NOINIT : SE_NOSOCK;
    s->RecvLimit = maxImage;
    return 0;
}

}  // namespace

extern "C" {

KWZ_API int32_t KWSockSetRecvTimeout(uint32_t idn, uint32_t ms) {
    return CEdge(KWSOCK_TAG("KWSockSetRecvTimeout"), 0, 0, [&] { return SockSetRecvTimeout(idn, ms); });
}

KWZ_API int32_t KWSockSetSendTimeout(uint32_t idn, uint32_t ms) {
    return CEdge(KWSOCK_TAG("KWSockSetSendTimeout"), 0, 0, [&] { return SockSetSendTimeout(idn, ms); });
}

KWZ_API int32_t KWSockSetRecvLimit(uint32_t idn, uint32_t maxImage) {
    return CEdge(KWSOCK_TAG("KWSockSetRecvLimit"), SE_NOSOCK, SE_NOSOCK, [&] { return SockSetRecvLimit(idn, maxImage); });
}

}  // extern "C"
