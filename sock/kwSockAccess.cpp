// The small accessors of the socket table: the caller's value, the state
// snapshot, port, descriptor, event callback, idn by index and peer names.
// Each runs under ModCrit.  An absent table logs "SE_NOINIT" (level 3), an
// unknown idn "SE_NOSOCK ..." (level 2).
#include <cstring>

#include "base/kwBase.h"
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

int32_t PeerText(uint32_t idn, char* buffer, int32_t length, bool name, const char* tag) {
    if (buffer && length > 0) buffer[0] = 0;
    Module& m = Mod();
    std::lock_guard<std::mutex> lock(m.ModCrit);
    if (SockItem* s = FindSlotLogged(idn, false, tag, false)) CopyPeerText(name ? s->HostName : s->HostAddr, buffer, length);
    return 0;
}

}  // namespace

extern "C" {

KWZ_API int32_t KWSockSetDat(uint32_t idn, void* value) {
    Module& m = Mod();
    std::lock_guard<std::mutex> lock(m.ModCrit);
    SockItem* s = FindSlotLogged(idn, true, KWSOCK_TAG("KWSockSetDat"), false);
    if (!s) return m.SockNum == 0 ? SE_NOINIT : SE_NOSOCK;
    s->Dat = value;
    return 0;
}

KWZ_API int32_t KWSockGetDat(uint32_t idn, void** value) {
    if (value) *value = nullptr;
    Module& m = Mod();
    std::lock_guard<std::mutex> lock(m.ModCrit);
    SockItem* s = FindSlotLogged(idn, true, KWSOCK_TAG("KWSockGetDat"), false);
    if (!s) return m.SockNum == 0 ? SE_NOINIT : SE_NOSOCK;
    if (value) *value = s->Dat.load();
    return 0;
}

// Answers for any slot whose Idn matches, free or not.
KWZ_API int32_t KWSockGetState(uint32_t idn, SockState* state) {
    Module& m = Mod();
    std::lock_guard<std::mutex> lock(m.ModCrit);
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

KWZ_API int32_t KWSockGetPort(uint32_t idn, uint32_t* port) {
    if (port) *port = 0;
    Module& m = Mod();
    std::lock_guard<std::mutex> lock(m.ModCrit);
    SockItem* s = FindSlotLogged(idn, true, KWSOCK_TAG("KWSockGetPort"), true);
    if (!s) return 0;
    if (port) *port = s->Port;
    return 1;
}

KWZ_API int32_t KWSockGetId(uint32_t idn, int32_t* socket) {
    if (socket) *socket = -1;
    Module& m = Mod();
    std::lock_guard<std::mutex> lock(m.ModCrit);
    SockItem* s = FindSlotLogged(idn, true, KWSOCK_TAG("KWSockGetId"), true);
    if (!s) return 0;
    if (socket) *socket = s->Socket;
    return 1;
}

// Logs under the tag of KWSockGetId: a copied tag that log filters know.
KWZ_API SockEventFn KWSockRecvEventGet(uint32_t idn) {
    Module& m = Mod();
    std::lock_guard<std::mutex> lock(m.ModCrit);
    SockItem* s = FindSlotLogged(idn, true, KWSOCK_TAG("KWSockGetId"), true);
    return s ? s->StreamEvent() : nullptr;
}

// A node slot's callback has the node signature: a stream callback cannot
// take its place, so node slots are refused like unknown ones.
KWZ_API SockEventFn KWSockRecvEventSet(uint32_t idn, SockEventFn callback) {
    Module& m = Mod();
    std::lock_guard<std::mutex> lock(m.ModCrit);
    SockItem* s = FindSlotLogged(idn, true, KWSOCK_TAG("KWSockRecvEventSet"), true);
    if (s && s->Type == SOCK_NODE) {
        LogMessageF(2, KWSOCK_TAG("KWSockRecvEventSet"), "SE_NOSOCK (idn=%d)", static_cast<int>(idn));
        return nullptr;
    }
    return s ? reinterpret_cast<SockEventFn>(s->Event.exchange(FnPtr(callback))) : nullptr;
}

KWZ_API uint32_t KWSockGetIdn(int32_t index) {
    Module& m = Mod();
    std::lock_guard<std::mutex> lock(m.ModCrit);
    if (index < 0 || index >= m.SockNum) {
        LogMessageF(2, KWSOCK_TAG("KWSockGetIdn"), "SE_NOSOCK (all=%d, idx=%d)", m.SockNum, index);
        return 0;
    }
    return m.SockArr[index]->Idn;
}

KWZ_API int32_t GetPeerHostName(uint32_t idn, char* buffer, int32_t length) {
    return PeerText(idn, buffer, length, true, KWSOCK_TAG("GetPeerHostName"));
}

KWZ_API int32_t GetPeerHostAddr(uint32_t idn, char* buffer, int32_t length) {
    return PeerText(idn, buffer, length, false, KWSOCK_TAG("GetPeerHostAddr"));
}

}  // extern "C"
