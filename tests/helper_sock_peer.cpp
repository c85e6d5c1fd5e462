// A second process for the transport tests.  Every mode reports on stdout,
// one line per fact, and gives up after a bounded time.
//
//   helper_sock_peer server
//       listens on a system-chosen port ("PORT n"), greets the first
//       connection with records 500..504, echoes every record with seq + 1000
//       and the text reversed, and ends when the connection closes
//       ("DONE recv=n").
//   helper_sock_peer node-recv PORT [GROUP[,IFACE]]
//       opens a node (joins the group), prints "READY", then "DGRAM addr text"
//       for the first datagram, and exits.
//   helper_sock_peer node-send ADDR PORT TEXT [IFACE]
//       sends one datagram (outgoing multicast interface IFACE) and prints
//       "SENT code" with the completion result.
#include <VomKwz.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

namespace {

std::mutex g_mu;
std::condition_variable g_cv;
bool g_done = false;
int32_t g_code = 0;
std::string g_line;
std::atomic<int> g_received{0};
KWRType g_type;

void Finish(int32_t code, const std::string& line) {
    {
        std::lock_guard<std::mutex> lock(g_mu);
        if (g_done) return;
        g_done = true;
        g_code = code;
        g_line = line;
    }
    g_cv.notify_all();
}

bool WaitDone(int seconds) {
    std::unique_lock<std::mutex> lock(g_mu);
    return g_cv.wait_for(lock, std::chrono::seconds(seconds), [] { return g_done; });
}

KWRData* NewMsg(int32_t seq, const std::string& text) {
    KWRData* r = KWRRecAlloc(&g_type, nullptr);
    KWRSetAsInt32(&g_type.fields[0], r, seq);
    KWRSetAsText(&g_type.fields[1], r, static_cast<int32_t>(text.size()), text.data());
    KWRRecPack(&g_type, r, 1, 0);
    return r;
}

void Release(int32_t, uint32_t, KWRData* rec) { KWRRecRelease(rec); }

void ServerEvent(int32_t code, uint32_t idn, KWRData* rec) {
    if (code == SOCK_EV_ACCEPT) {
        const uint32_t priorities[] = {0, 9, 5, 5, 0};
        for (int32_t i = 0; i < 5; ++i)
            KWSockSendEx(idn, NewMsg(500 + i, "greeting"), Release, priorities[i]);
    } else if (code == SOCK_EV_DATA && rec && rec->typeId == 77) {
        int32_t seq = 0;
        const char* text = nullptr;
        uint32_t len = 0;
        KWRGetAsInt32(&g_type.fields[0], rec, &seq);
        KWRGetTextRef(&g_type.fields[1], rec, &len, &text);
        std::string back(text ? text : "", len);
        std::reverse(back.begin(), back.end());
        KWSockSendEx(idn, NewMsg(seq + 1000, back), Release, static_cast<uint32_t>(seq % 10));
        ++g_received;
    } else if (code == SOCK_EV_CLOSE || code == SOCK_EV_ABORT) {
        Finish(code, "");
    }
}

int Server() {
    if (KWSockInit(8) != 0) return 3;
    uint32_t lst = 0, port = 0;
    if (KWSockSrvOpen(0, ServerEvent, &lst) != 0 || !KWSockGetPort(lst, &port)) return 3;
    std::printf("PORT %u\n", port);
    if (!WaitDone(20)) return 2;
    std::printf("DONE recv=%d\n", g_received.load());
    return g_code == SOCK_EV_CLOSE ? 0 : 1;
}

void NodeEvent(int32_t code, uint32_t, int32_t, const char* addr, const void* data, int32_t length) {
    if (code != SOCK_EV_DATA) return;
    Finish(0, std::string("DGRAM ") + (addr ? addr : "?") + " " +
                  std::string(static_cast<const char*>(data), static_cast<size_t>(length)));
}

void NodeSent(int32_t code, uint32_t, int32_t, const char*, const void*, int32_t) {
    Finish(code, "SENT " + std::to_string(code));
}

int NodeRecv(int argc, char** argv) {
    if (argc < 3 || KWSockInit(4) != 0) return 3;
    uint32_t idn = 0;
    if (KWSockNodeOpen(static_cast<uint32_t>(std::atoi(argv[2])), NodeEvent, &idn) != 0) return 3;
    if (argc > 3 && KWSockNodeSetOpt(idn, 1, argv[3]) != 0) return 4;
    std::printf("READY\n");
    if (!WaitDone(10)) return 2;
    std::printf("%s\n", g_line.c_str());
    return 0;
}

int NodeSend(int argc, char** argv) {
    if (argc < 5 || KWSockInit(4) != 0) return 3;
    uint32_t idn = 0;
    if (KWSockNodeOpen(0, nullptr, &idn) != 0) return 3;
    if (argc > 5 && KWSockNodeSetOpt(idn, 4, argv[5]) != 0) return 4;
    const int32_t len = static_cast<int32_t>(std::strlen(argv[4]));
    if (KWSockSendNode(idn, std::atoi(argv[3]), argv[2], argv[4], len, NodeSent) != 0) return 3;
    if (!WaitDone(10)) return 2;
    std::printf("%s\n", g_line.c_str());
    return g_code == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // every report line leaves at once
    KWRTypInit(&g_type);
    KWRTypSet(&g_type, 77, "Msg|2\r\nSeq|I4\r\nText|CB");
    const std::string mode = argc > 1 ? argv[1] : "";
    int rc = 64;  // an unknown mode
    if (mode == "server") rc = Server();
    else if (mode == "node-recv") rc = NodeRecv(argc, argv);
    else if (mode == "node-send") rc = NodeSend(argc, argv);
    // Worker threads may still be on their way out: leave without running
    // static destructors under them.
    std::_Exit(rc);
}
