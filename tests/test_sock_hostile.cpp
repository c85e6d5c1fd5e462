// Peers and callers that misbehave: a peer that asks without reading, one
// that sets the server's clocks, one that stops reading; the send-queue
// bound; callbacks that throw; readers of the clock results while answers
// arrive.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <tuple>

#include "kwz_test_util.h"
#include "sock_test_util.h"

using namespace socktest;
using kwztest::LogCapture;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

class sock_hostile : public RawPeerFixture<16> {
protected:
    MsgType msg_;
};

// ---- a peer that sets the server's clocks --------------------------------

// Rows: who receives, the control Type, the value the peer asks, the value
// the connection takes and, for Type 3, the Type 2 answer it sends back.
// Applied in order on one connection of each side (each row differs from the
// one before, so that every row takes effect).
TEST_F(sock_hostile, ClockValuesFromAPeerAreClamped) {
    struct Row {
        bool server;
        int32_t type;
        uint32_t asked, taken, answer;
    };
    const Row rows[] = {
        // A server connection: 1..1249 become 1250, 0 and more than ten
        // minutes become ten minutes.
        {true, 3, 1, 1250, 5000},
        {true, 3, 0, 600000, 2400000},
        {true, 3, 3000, 3000, 12000},
        {true, 3, 0xFFFFFFFFu, 600000, 2400000},
        {true, 3, 1249, 1250, 5000},
        {true, 2, 0, 600000, 0},
        {true, 2, 1, 1250, 0},
        {true, 2, 8000, 8000, 0},
        {true, 2, 700000, 600000, 0},
        // A client connection: the same raise, and 0 (none) is allowed.
        {false, 3, 7, 1250, 5000},
        {false, 3, 0, 0, 0},
        {false, 2, 3, 1250, 0},
        {false, 2, 0, 0, 0},
    };
    uint32_t srv = 0, cli = 0;
    const int toSrv = RawToServer(&srv);
    const int toCli = ClientToRaw(&cli);
    // The next frame that is not a keep-alive (the connections keep alive
    // as the rows ask them to).
    const auto Answer = [](int raw) {
        std::string f = ReadFrame(raw);
        while (f == KeepAliveFrame()) f = ReadFrame(raw);
        return f;
    };
    for (const Row& r : rows) {
        const uint32_t idn = r.server ? srv : cli;
        const int raw = r.server ? toSrv : toCli;
        ASSERT_TRUE(WriteAll(raw, ControlFrame(r.type, U32Bytes(r.asked))));
        if (r.type == 3) {
            EXPECT_EQ(Answer(raw), ControlFrame(2, U32Bytes(r.answer))) << r.asked;
            EXPECT_EQ(StateOf(idn).sendTimeout, r.taken) << r.asked;
        } else {
            EXPECT_TRUE(WaitUntil([&] { return StateOf(idn).recvTimeout == r.taken; })) << r.asked;
        }
    }
    // A peer asking for a keep-alive every millisecond gets one every 1250
    // ms: at most one frame in 0.5 s (unclamped, hundreds).
    ASSERT_TRUE(WriteAll(toSrv, ControlFrame(3, U32Bytes(3000))));
    EXPECT_EQ(Answer(toSrv), ControlFrame(2, U32Bytes(12000)));
    ASSERT_TRUE(WriteAll(toSrv, ControlFrame(3, U32Bytes(1))));
    EXPECT_EQ(Answer(toSrv), ControlFrame(2, U32Bytes(5000)));
    const auto end = Clock::now() + 500ms;
    int frames = 0;
    while (Clock::now() < end)
        if (!ReadFrame(toSrv, 100).empty()) ++frames;
    EXPECT_LE(frames, 1);
}

// ---- a peer that asks and never reads --------------------------------------

// The server's sending thread is held while a peer sends 300 time requests
// and 300 time-out requests: one answer of each kind waits, carrying the
// newest request's values.
TEST_F(sock_hostile, OneTimeAnswerAndOneTimeoutAnswerWaitAtMost) {
    uint32_t srv = 0;
    const int raw = RawToServer(&srv);
    ASSERT_TRUE(HoldSender(srv, msg_));
    std::string burst;
    for (uint32_t i = 1; i <= 300; ++i) burst += ControlFrame(4, U32Bytes(i)) + ControlFrame(3, U32Bytes(2000 + i));
    ASSERT_TRUE(WriteAll(raw, burst));
    // The last request read and acted on: everything before it was too.
    ASSERT_TRUE(WaitUntil([&] { return StateOf(srv).sendTimeout == 2300u; }));
    EXPECT_EQ(uint64_t{StateOf(srv).recvBytes}, burst.size());  // a copy: the field is 4-aligned
    EXPECT_EQ(StateOf(srv).bufNum, 2u);
    GateOpen() = true;
    EXPECT_EQ(msg_.Seq(ReadFrame(raw).substr(4)), 1);  // the record that held the thread
    const std::string answer = ReadFrame(raw);
    ASSERT_EQ(answer.size(), 4u + 20 + 25);
    EXPECT_EQ(MsgType::GetI32(answer, 4 + 20), 300);  // the newest request's tick, echoed
    EXPECT_EQ(ReadFrame(raw), ControlFrame(2, U32Bytes(4 * 2300)));
    EXPECT_EQ(ReadFrame(raw, 300), "");  // nothing more
}

// Three peers flood one server with time and time-out requests and never
// read; an honest client meanwhile does round trips through the same
// server.  Every flooded connection's queue stays at a handful of records and
// the honest round trip stays short.
TEST_F(sock_hostile, AFloodOfRequestsCostsTheServerNothing) {
    uint32_t lst = 0, cli = 0;
    ASSERT_EQ(KWSockSrvOpen(0, EchoEvent, &lst), 0);
    ASSERT_EQ(KWSockCliOpen("127.0.0.1", ListenPort(lst), RecordEvent, &cli), 0);
    const uint32_t honest = AcceptedIdn();
    ASSERT_NE(honest, 0u);
    constexpr int kFlooders = 3;
    std::vector<int> raws;
    for (int i = 0; i < kFlooders; ++i) {
        const int small = 4096;
        raws.push_back(Keep(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)));
        setsockopt(raws.back(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(ListenPort(lst)));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(connect(raws.back(), reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    }
    std::vector<uint32_t> flooded;
    for (size_t n = 2; n <= kFlooders + 1; ++n) flooded.push_back(AcceptedIdn(n));
    ASSERT_EQ(std::count(flooded.begin(), flooded.end(), 0u), 0);

    std::atomic<bool> stop{false};
    std::vector<std::thread> flooders;
    for (int fd : raws) {
        flooders.emplace_back([fd, &stop] {
            std::string burst;
            for (uint32_t i = 0; i < 32; ++i) burst += ControlFrame(4, U32Bytes(i)) + ControlFrame(3, U32Bytes(1 + i));
            while (!stop && send(fd, burst.data(), burst.size(), MSG_NOSIGNAL) > 0) std::this_thread::sleep_for(1ms);
        });
    }
    std::vector<double> trips;
    uint32_t worstQueue = 0;
    const auto end = Clock::now() + 1s;  // unbounded, the queues grow by thousands a second
    for (int32_t seq = 1; Clock::now() < end; ++seq) {
        for (uint32_t idn : flooded) {
            const SockState st = StateOf(idn);
            if (st.type == SOCK_SRV && !(st.flags & 0x10)) worstQueue = std::max(worstQueue, st.bufNum);
        }
        const auto start = Clock::now();
        ASSERT_EQ(KWSockSendEx(cli, msg_.New(seq), ReleaseCompletion, 0), 0);
        const auto got = Recorder::Get().WaitMatching(
            [seq](const Event& e) { return e.code == SOCK_EV_DATA && MsgType::Seq(e.image) == seq; }, 1, 5000);
        ASSERT_EQ(got.size(), 1u) << seq;
        trips.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        Recorder::Get().Reset();
        std::this_thread::sleep_for(5ms);
    }
    stop = true;
    for (auto& t : flooders) t.join();
    std::sort(trips.begin(), trips.end());
    const double median = trips[trips.size() / 2];
    EXPECT_LE(worstQueue, 4u);
    EXPECT_LT(median, kSanitized ? 25.0 : 5.0) << trips.size() << " round trips";
}

// ---- a peer that stops reading ---------------------------------------------

// A server connection whose peer reads nothing: once the socket buffers are
// full, the send makes no progress for two send time-outs and the
// connection closes with reason -7; every record comes back.  The socket's
// time-out is then cut to 300 ms behind the library's back, so that the two
// time-outs pass quickly.
TEST_F(sock_hostile, APeerThatStopsReadingIsClosed) {
    uint32_t srv = 0;
    const int raw = RawToServer(&srv);
    int32_t fd = -1;
    ASSERT_EQ(KWSockGetId(srv, &fd), 1);
    timeval tv{};
    socklen_t len = sizeof tv;
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, &len), 0);
    EXPECT_EQ(tv.tv_sec, 5);  // every server connection has a send time-out
    const int small = 4096;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    setsockopt(raw, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    ASSERT_EQ(KWSockSetSendTimeout(srv, 1250), 1);
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, &len), 0);
    EXPECT_NEAR(tv.tv_sec * 1000 + tv.tv_usec / 1000, 1250, 10);  // the caller's, in kernel ticks
    tv = {0, 300000};
    ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv), 0);
    LogCapture log;
    constexpr int kCount = 40;
    for (int32_t seq = 0; seq < kCount; ++seq)
        ASSERT_EQ(KWSockSendEx(srv, msg_.New(seq, std::string(60000, 's')), RecordCompletion, 0), 0);
    const auto start = Clock::now();
    EXPECT_EQ(Recorder::Get().WaitCode(SOCK_EV_ABORT, srv, 1, 15000).size(), 1u);
    EXPECT_GE(Clock::now() - start, 600ms);  // two time-outs of 300 ms without progress
    EXPECT_TRUE(log.Has("Kwz.kwSock.Send_Net", "send tcp/ip data ERR=11"));
    auto done = Recorder::Get().WaitMatching([](const Event& e) { return e.code >= 90; }, kCount);
    EXPECT_EQ(done.size(), static_cast<size_t>(kCount));
    EXPECT_GT(Recorder::Get().Count([](const Event& e) { return e.code == kCompletion + SOCK_EV_NOSEND; }), 0u);
}

// ---- the caller's bound on queued bytes ------------------------------------

TEST_F(sock_hostile, TheSendLimitRefusesWithoutTakingTheRecord) {
    uint32_t cli = 0;
    const int raw = ClientToRaw(&cli);
    ASSERT_TRUE(HoldSender(cli, msg_));
    ASSERT_FALSE(ReadFrame(raw).empty());
    KWRData* probe = msg_.New(2);
    const uint32_t len = probe->length;
    KWRRecRelease(probe);
    // Two records fit exactly; the third would pass the bound.
    ASSERT_EQ(KWSockSetSendLimit(cli, 2 * len), 0);
    ASSERT_EQ(KWSockSendEx(cli, msg_.New(2), RecordCompletion, 0), 0);
    ASSERT_EQ(KWSockSendEx(cli, msg_.New(3), RecordCompletion, 0), 0);
    KWRData* refused = msg_.New(4);
    {
        LogCapture log;
        EXPECT_EQ(KWSockSendEx(cli, refused, RecordCompletion, 9), SE_SENDLIMIT);
        EXPECT_TRUE(log.Has("Kwz.kwSock.KWSockSendEx", "SE_SENDLIMIT"));
    }
    EXPECT_EQ(refused->guard, 0);  // still the caller's, intact
    EXPECT_EQ(StateOf(cli).bufNum, 2u);
    // The transport's own records count too: a control record in the queue
    // leaves no room for another record under a bound of two.
    ASSERT_EQ(KWSockSetSendLimit(cli, 0), 0);
    ASSERT_EQ(KWSockSetRecvTimeout(cli, 20000), 1);
    ASSERT_EQ(KWSockSetSendLimit(cli, 3 * len), 0);
    EXPECT_EQ(KWSockSendEx(cli, refused, RecordCompletion, 0), SE_SENDLIMIT);
    GateOpen() = true;
    EXPECT_EQ(Recorder::Get().WaitCode(kCompletion + 0, cli, 3).size(), 3u);
    ASSERT_TRUE(WaitUntil([&] { return StateOf(cli).bufNum == 0; }));
    EXPECT_EQ(KWSockSendEx(cli, refused, RecordCompletion, 0), 0);  // room again
    EXPECT_EQ(Recorder::Get().WaitMatching([](const Event& e) { return e.code >= 90 && MsgType::Seq(e.image) == 4; }).size(), 1u);

    // A listener's bound is where its connections start; nodes and unknown
    // idns are refused.
    uint32_t lst = 0, node = 0;
    ASSERT_EQ(KWSockSrvOpen(0, RecordEvent, &lst), 0);
    ASSERT_EQ(KWSockSetSendLimit(lst, len - 1), 0);
    const int peer = Keep(RawConnect(ListenPort(lst)));
    ASSERT_GE(peer, 0);
    const uint32_t srv = AcceptedIdn();
    ASSERT_NE(srv, 0u);
    KWRData* big = msg_.New(5);
    EXPECT_EQ(KWSockSendEx(srv, big, RecordCompletion, 0), SE_SENDLIMIT);
    KWRRecRelease(big);
    ASSERT_EQ(KWSockNodeOpen(0, nullptr, &node), 0);
    EXPECT_EQ(KWSockSetSendLimit(node, 1), SE_NOSOCK);
    EXPECT_EQ(KWSockSetSendLimit(0x7777, 1), SE_NOSOCK);
}

// A prioritised insert steps from run to run of equal priority, not from
// record to record: queueing many records of one priority costs about what
// appending them does.
TEST_F(sock_hostile, PrioritisedInsertsDoNotWalkTheQueue) {
    uint32_t cli = 0;
    ClientToRaw(&cli);
    ASSERT_TRUE(HoldSender(cli, msg_));
    constexpr int kCount = 40000;
    std::vector<KWRData*> recs;
    for (int i = 0; i < 2 * kCount; ++i) recs.push_back(msg_.New(i));
    const auto Queue = [&](int from, uint32_t priority) {
        const auto start = Clock::now();
        for (int i = from; i < from + kCount; ++i) EXPECT_EQ(KWSockSendEx(cli, recs[i], ReleaseCompletion, priority), 0);
        return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    };
    const double appended = Queue(0, 0);
    const double prioritised = Queue(kCount, 7);
    EXPECT_LT(prioritised, 4 * appended + 100) << "appended in " << appended << " ms";
    EXPECT_EQ(StateOf(cli).bufNum, 2u * kCount);
    KWSockClose(cli);  // the records come back dropped and are released
}

// ---- callbacks that throw ----------------------------------------------------

std::atomic<int> g_throwOn{-1};

// Records, then throws for the record whose Seq is g_throwOn.
extern "C" void ThrowingCompletion(int32_t result, uint32_t idn, KWRData* rec) {
    const int32_t seq = MsgType::Seq(std::string(reinterpret_cast<const char*>(rec->image), rec->length));
    RecordCompletion(result, idn, rec);
    if (seq == g_throwOn) throw std::runtime_error("completion boom");
}

extern "C" void ThrowingEvent(int32_t code, uint32_t idn, KWRData* rec) {
    RecordEvent(code, idn, rec);
    if (code == SOCK_EV_DATA) throw std::runtime_error("event boom");
}

// A completion that throws: the other records of its batch still get their
// results (sent), then the connection closes; records still queued at a
// close whose first completion throws all come back, and the close event
// still arrives.
TEST_F(sock_hostile, ThrowingCallbacksLoseNothing) {
    {
        uint32_t cli = 0;
        const int raw = ClientToRaw(&cli);
        ASSERT_TRUE(HoldSender(cli, msg_));
        g_throwOn = 2;
        for (int32_t seq = 2; seq <= 4; ++seq) ASSERT_EQ(KWSockSendEx(cli, msg_.New(seq), ThrowingCompletion, 0), 0);
        LogCapture log;
        GateOpen() = true;
        auto sent = Recorder::Get().WaitCode(kCompletion + 0, cli, 4);
        ASSERT_EQ(sent.size(), 4u);  // 1 (the held one), 2 (which threw), 3, 4
        EXPECT_EQ(Recorder::Get().WaitCode(SOCK_EV_ABORT, cli).size(), 1u);
        EXPECT_TRUE(log.Has("Kwz.kwSock.SockSendThread", "completion boom"));
        for (int i = 0; i < 4; ++i) ASSERT_FALSE(ReadFrame(raw).empty());
    }
    Recorder::Get().Reset();
    GateOpen() = false;
    {
        uint32_t cli = 0;
        ClientToRaw(&cli);
        ASSERT_TRUE(HoldSender(cli, msg_));
        g_throwOn = 12;
        for (int32_t seq = 12; seq <= 14; ++seq) ASSERT_EQ(KWSockSendEx(cli, msg_.New(seq), ThrowingCompletion, 0), 0);
        LogCapture log;
        EXPECT_EQ(KWSockClose(cli), 0);
        GateOpen() = true;
        EXPECT_EQ(Recorder::Get().WaitCode(kCompletion + SOCK_EV_DROPPED, cli, 3).size(), 3u);
        EXPECT_EQ(Recorder::Get().WaitCode(SOCK_EV_CLOSE, cli).size(), 1u);
        EXPECT_TRUE(WaitUntil([&] { return log.Has("Kwz.kwSock.CLEANUP_FIN", "completion: completion boom"); }));
        EXPECT_TRUE(log.Has("Kwz.kwSock.CLEANUP_FIN", "bufnum(2)"));
    }
    // An event callback that throws: the record is freed (ASan would see it
    // leak), the connection aborts and the close event still comes.
    uint32_t srv = 0;
    LogCapture log;
    const int raw = RawToServer(&srv, 0, ThrowingEvent);
    ASSERT_TRUE(WriteAll(raw, Frame(MsgType::kId, 0, msg_.Image(1, "x"))));
    EXPECT_EQ(Recorder::Get().WaitCode(SOCK_EV_ABORT, srv).size(), 1u);
    EXPECT_TRUE(log.Has("Kwz.kwSock.SockRecvThread", "event boom"));
}

// ---- clock results read while answers arrive --------------------------------

// A raw server sends time answers that alternate between a clock ten million
// seconds ahead (zone 1) and one ten million seconds behind (zone 2) while
// this thread reads: every reading is one answer's (seconds and milliseconds
// of one sign, the zone of that answer).
TEST_F(sock_hostile, ClockResultsAreReadAsOneSet) {
    uint32_t cli = 0;
    const int raw = ClientToRaw(&cli);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int i = 0; i < 40000 && !stop; ++i) {
            KWTimeStamp now{};
            CTimeUTC(&now);
            const bool ahead = i % 2 == 0;
            const int64_t ms = now.seconds * 1000 + now.millis + (ahead ? 1 : -1) * 10000000000LL + 500;
            uint8_t data[24] = {};
            const uint32_t tick = GetTickCount();
            std::memcpy(data, &tick, 4);
            const int64_t sec = ms / 1000;
            const auto milli = static_cast<uint16_t>(ms % 1000);
            const int16_t zone1 = ahead ? 1 : 2, zone2 = ahead ? 11 : 22;
            std::memcpy(data + 8, &sec, 8);
            std::memcpy(data + 16, &milli, 2);
            std::memcpy(data + 18, &zone1, 2);
            std::memcpy(data + 20, &zone2, 2);
            if (!WriteAll(raw, ControlFrame(5, std::string(reinterpret_cast<const char*>(data), 24)))) break;
        }
    });
    int readings = 0, torn = 0;
    const auto end = Clock::now() + 500ms;
    while (Clock::now() < end && readings < 2000000) {
        uint32_t s = 0, ms = 0, z = 0;
        if (!KWSockTimeDltAbo(cli, &s, &ms, &z)) continue;
        ++readings;
        const auto sec = static_cast<int32_t>(s), milli = static_cast<int32_t>(ms);
        const bool ahead = sec > 0;
        if ((ahead ? milli < 0 : milli > 0) || static_cast<int32_t>(z) != (ahead ? 1 : 2)) ++torn;
    }
    stop = true;
    writer.join();
    EXPECT_GT(readings, 0);
    EXPECT_EQ(torn, 0) << readings << " readings";
}

}  // namespace
