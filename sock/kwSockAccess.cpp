// The small accessors of the socket table: the caller's value, the state
// snapshot, port, descriptor, event callback, idn by index and peer names.
// Each runs under ModCrit.  An absent table logs "SE_NOINIT" (level 3), an
// unknown idn "SE_NOSOCK ..." (level 2).
#include <cstring>

#include "base/kwBase.h"
#include "base/kwGuard.h"
#include "sock/kwSockInt.h"

using namespace kwz;
using namespace kwz::sock;

namespace {

// Bounded copy of at most length characters, not terminated when the text
// fills the buffer (callers rely on strncpy semantics here).
void CopyPeerText(const char* text, char* buffer, int32_t length) {
    if (!buffer || length <= 0) return;
    buffer[0] = 0;
    if (text) std::strncpy(buffer, text, static_cast<size_t>(length));
}

int32_t PeerText(uint32_t idn, char* buffer, int32_t length, bool name, const char* tag) EXCLUDES(ModCrit) {
    if (buffer && length > 0) buffer[0] = 0;
    MutexLock lock(ModCrit);
    if (SockItem* s = FindSlotLogged(idn, false, tag, false)) CopyPeerText(name ? s->HostName : s->HostAddr, buffer, length);
    return 0;
}

int32_t SockSetDat(uint32_t idn, void* value) {
    Module& m = Mod();
    MutexLock lock(ModCrit);
    SockItem* s = FindSlotLogged(idn, true, KWSOCK_TAG("KWSockSetDat"), false);
    if (!s) return m.SockNum == 0 ? SE_NOINIT : SE_NOSOCK;
    s->Dat = value;
    return 0;
}

int32_t SockGetDat(uint32_t idn, void** value) {
    if (value) *value = nullptr;
    Module& m = Mod();
    MutexLock lock(ModCrit);
    SockItem* s = FindSlotLogged(idn, true, KWSOCK_TAG("KWSockGetDat"), false);
    if (!s) return m.SockNum == 0 ? SE_NOINIT : SE_NOSOCK;
    if (value) *value = s->Dat.load();
    return 0;
}

// Answers for any slot whose Idn matches, free or not.
int32_t SockGetState(uint32_t idn, SockState* state) {
    MutexLock lock(ModCrit);
    SockItem* s = FindSlotLogged(idn, false, KWSOCK_TAG("KWSockGetState"), true);
    if (!s) return 0;
    if (state) {
        std::memset(state, 0, sizeof *state);
        state->type = s->Type;
        state->port = s->Port;
        state->flags = s->Flags;
        state->recvTick = s->RecvTick;
        state->sendTick = s->SendTick;
        state->sendTimeout = s->SendTimeout;  // send before receive: kept order
        state->recvTimeout = s->RecvTimeout;
        state->bufNum = s->BufNum;
        state->bufSize = s->BufSize;
        state->recvBytes = s->RecvBytes;
        state->sendBytes = s->SendBytes;
    }
    return 1;
}

int32_t SockGetPort(uint32_t idn, uint32_t* port) {
    if (port) *port = 0;
    MutexLock lock(ModCrit);
    SockItem* s = FindSlotLogged(idn, true, KWSOCK_TAG("KWSockGetPort"), true);
    if (!s) return 0;
    if (port) *port = s->Port;
    return 1;
}

int32_t SockGetId(uint32_t idn, int32_t* socket) {
    if (socket) *socket = -1;
    MutexLock lock(ModCrit);
    SockItem* s = FindSlotLogged(idn, true, KWSOCK_TAG("KWSockGetId"), true);
    if (!s) return 0;
    if (socket) *socket = s->Socket;
    return 1;
}

// Logs under the tag of KWSockGetId: a copied tag that log filters know.
SockEventFn SockRecvEventGet(uint32_t idn) {
    MutexLock lock(ModCrit);
    SockItem* s = FindSlotLogged(idn, true, KWSOCK_TAG("KWSockGetId"), true);
    return s ? s->StreamEvent() : nullptr;
}

// A node slot's callback has the node signature: a stream callback cannot
// take its place, so node slots are refused like unknown ones.
SockEventFn SockRecvEventSet(uint32_t idn, SockEventFn callback) {
    MutexLock lock(ModCrit);
    SockItem* s = FindSlotLogged(idn, true, KWSOCK_TAG("KWSockRecvEventSet"), true);
    if (s && s->Type == SOCK_NODE) {
        SockLogF(2, KWSOCK_TAG("KWSockRecvEventSet"), "SE_NOSOCK (idn=%d)", static_cast<int>(idn));
        return nullptr;
    }
    return s ? reinterpret_cast<SockEventFn>(s->Event.exchange(FnPtr(callback))) : nullptr;
}

uint32_t SockGetIdn(int32_t index) {
    Module& m = Mod();
    MutexLock lock(ModCrit);
    if (index < 0 || index >= m.SockNum) {
        SockLogF(2, KWSOCK_TAG("KWSockGetIdn"), "SE_NOSOCK (all=%d, idx=%d)", m.SockNum, index);
        return 0;
    }
    return m.SockArr[index]->Idn;
}

int32_t PeerHostName(uint32_t idn, char* buffer, int32_t length) {
    return PeerText(idn, buffer, length, true, KWSOCK_TAG("GetPeerHostName"));
}

int32_t PeerHostAddr(uint32_t idn, char* buffer, int32_t length) {
    return PeerText(idn, buffer, length, false, KWSOCK_TAG("GetPeerHostAddr"));
}

}  // namespace

extern "C" {

KWZ_API int32_t KWSockSetDat(uint32_t idn, void* value) {
    return CEdge(KWSOCK_TAG("KWSockSetDat"), SE_NOSOCK, SE_NOSOCK, [&] { return SockSetDat(idn, value); });
}

KWZ_API int32_t KWSockGetDat(uint32_t idn, void** value) {
    return CEdge(KWSOCK_TAG("KWSockGetDat"), SE_NOSOCK, SE_NOSOCK, [&] { return SockGetDat(idn, value); });
}

KWZ_API int32_t KWSockGetState(uint32_t idn, SockState* state) {
    return CEdge(KWSOCK_TAG("KWSockGetState"), 0, 0, [&] { return SockGetState(idn, state); });
}

KWZ_API int32_t KWSockGetPort(uint32_t idn, uint32_t* port) {
    return CEdge(KWSOCK_TAG("KWSockGetPort"), 0, 0, [&] { return SockGetPort(idn, port); });
}

KWZ_API int32_t KWSockGetId(uint32_t idn, int32_t* socket) {
    return CEdge(KWSOCK_TAG("KWSockGetId"), 0, 0, [&] { return SockGetId(idn, socket); });
}

KWZ_API SockEventFn KWSockRecvEventGet(uint32_t idn) {
    return CEdge(KWSOCK_TAG("KWSockRecvEventGet"), SockEventFn{}, SockEventFn{},
                 [&] { return SockRecvEventGet(idn); });
}

KWZ_API SockEventFn KWSockRecvEventSet(uint32_t idn, SockEventFn callback) {
    return CEdge(KWSOCK_TAG("KWSockRecvEventSet"), SockEventFn{}, SockEventFn{},
                 [&] { return SockRecvEventSet(idn, callback); });
}

KWZ_API uint32_t KWSockGetIdn(int32_t index) {
    return CEdge(KWSOCK_TAG("KWSockGetIdn"), 0u, 0u, [&] { return SockGetIdn(index); });
}

KWZ_API int32_t GetPeerHostName(uint32_t idn, char* buffer, int32_t length) {
    return CEdge(KWSOCK_TAG("GetPeerHostName"), 0, 0, [&] { return PeerHostName(idn, buffer, length); });
}

KWZ_API int32_t GetPeerHostAddr(uint32_t idn, char* buffer, int32_t length) {
    return CEdge(KWSOCK_TAG("GetPeerHostAddr"), 0, 0, [&] { return PeerHostAddr(idn, buffer, length); });
}

}  // extern "C"
