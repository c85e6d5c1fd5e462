// The socket table: module life, idns and their generations, opening and
// closing, the accessors and their refusals, table exhaustion, and stopping
// the module while connections are still finishing.  Then datagram nodes on
// loopback: sizes up to the largest datagram, the special addresses,
// completions, multicast membership and the options' errors, and the
// refusals between node and stream slots.
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <tuple>

#include "kwz_test_util.h"
#include "sock_test_util.h"

using namespace socktest;
using kwztest::LogCapture;

namespace {

// Records every event; a received record blocks the receiving thread until
// the gate opens, which keeps the slot's thread inside a callback.
extern "C" void BlockingEvent(int32_t code, uint32_t idn, KWRData* rec) {
    RecordEvent(code, idn, rec);
    if (code == SOCK_EV_DATA) WaitGate();
}

// The canonical name the resolver gives for name ("" when none).
std::string CanonicalName(const char* name) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_CANONNAME;
    addrinfo* found = nullptr;
    std::string canon;
    if (getaddrinfo(name, nullptr, &hints, &found) == 0 && found && found->ai_canonname) canon = found->ai_canonname;
    if (found) freeaddrinfo(found);
    return canon.empty() ? name : canon;
}

class sock_table : public SockFixture<0> {
protected:
    // A listening slot on a system-chosen port.
    uint32_t Listen(SockEventFn fn = RecordEvent) {
        uint32_t idn = 0;
        EXPECT_EQ(KWSockSrvOpen(0, fn, &idn), 0);
        EXPECT_NE(ListenPort(idn), 0u);
        return idn;
    }
    // A raw client of a BlockingEvent listener whose server side sits in the
    // data callback; *raw gets the client socket.
    uint32_t HeldInCallback(uint32_t lst, int* raw) {
        *raw = RawConnect(ListenPort(lst));
        const uint32_t srv = AcceptedIdn();
        EXPECT_TRUE(WriteAll(*raw, Frame(MsgType::kId, 0, MsgType().Image(1, "x"))));
        // Recorded on entry to the data callback, which then waits: flag 0x08
        // alone would not do, the accept callback sets it too.
        EXPECT_EQ(Recorder::Get().WaitCode(SOCK_EV_DATA, srv).size(), 1u);
        return srv;
    }
};

TEST_F(sock_table, InitSizesOnceAndFreeReleasesAnEmptyTable) {
    LogCapture log;
    EXPECT_EQ(KWSockInit(0), SE_NOINIT);
    EXPECT_EQ(KWSockInit(-3), SE_NOINIT);
    ASSERT_EQ(KWSockInit(2), 0);
    EXPECT_EQ(KWSockInit(50), 0);  // active: no resize
    EXPECT_EQ(KWSockIsActive(), 0);
    EXPECT_EQ(KWSockGetIdn(0), 0x10000u);
    EXPECT_EQ(KWSockGetIdn(1), 0x20001u);
    EXPECT_EQ(KWSockGetIdn(2), 0u);  // the second init kept 2 slots
    EXPECT_TRUE(log.Has("Kwz.kwSock.KWSockGetIdn", "SE_NOSOCK (all=2, idx=2)"));
    EXPECT_EQ(KWSockFree(), 0);  // nothing open: the table goes at once
    EXPECT_EQ(KWSockIsActive(), SE_NOINIT);
    EXPECT_EQ(KWSockFree(), 0);
    void* dat = &dat;
    EXPECT_EQ(KWSockGetDat(0x10000, &dat), SE_NOINIT);
    EXPECT_EQ(dat, nullptr);
    EXPECT_EQ(KWSockClose(0x10000), SE_NOINIT);
    EXPECT_TRUE(log.Has("Kwz.kwSock.KWSockClose", "SE_NOINIT"));
}

TEST(sock_fresh, CloseBeforeTheFirstInitIsRefused) {
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";  // a fresh process
    EXPECT_EXIT(
        {
            LogCapture log;
            const bool ok = KWSockClose(0x10000) == SE_NOINIT &&
                            log.Has("Kwz.kwSock.KWSockClose", "The module is not initialized");
            std::exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

// A refused open still allocates and releases a slot: a cheap way to walk the
// generations of slot 0.
TEST_F(sock_table, GenerationsAdvanceWrapAndRefuseStaleIdns) {
    ASSERT_EQ(KWSockInit(1), 0);
    const uint32_t first = KWSockGetIdn(0);
    uint32_t idn = 1;
    EXPECT_EQ(KWSockCliOpen("", 1, nullptr, &idn), SE_OPEN);
    EXPECT_EQ(idn, 0u);
    const uint32_t second = KWSockGetIdn(0);
    EXPECT_EQ(second, first + (1u << 16));  // only the generation differs

    // The slot is free again but its Idn still matches: the state answers,
    // the port does not, a close is a no-op.
    SockState st{};
    EXPECT_EQ(KWSockGetState(second, &st), 1);
    EXPECT_EQ(st.type, SOCK_FREE);
    EXPECT_EQ(KWSockGetPort(second, nullptr), 0);
    EXPECT_EQ(KWSockClose(second), 0);

    for (int g = 3; g <= 16383; ++g) KWSockCliOpen(nullptr, 1, nullptr, &idn);
    EXPECT_EQ(KWSockGetIdn(0), 16383u << 16);
    KWSockCliOpen(nullptr, 1, nullptr, &idn);
    EXPECT_EQ(KWSockGetIdn(0), 1u << 16);  // wrapped

    EXPECT_EQ(KWSockClose(second), SE_NOSOCK);  // stale now
    EXPECT_EQ(KWSockGetState(second, &st), 0);
}

TEST_F(sock_table, UnknownIdnsAreRefusedWithTheirOwnTexts) {
    ASSERT_EQ(KWSockInit(4), 0);
    const uint32_t bad = 0x50003;  // slot 3, a generation it never had
    void* dat = &dat;
    uint32_t port = 1;
    int32_t fd = 7;
    SockState st{};
    char buf[8] = "xxxxxxx";
    // Each call: refused with its out value cleared, and the line it logs
    // (the event getter logs under the tag of KWSockGetId).
    const struct {
        const char* fn;
        const char* text;
        std::function<bool()> refused;
    } calls[] = {
        {"KWSockSetDat", "SE_NOSOCK (327683)", [&] { return KWSockSetDat(bad, nullptr) == SE_NOSOCK; }},
        {"KWSockGetDat", "SE_NOSOCK (327683)", [&] { return KWSockGetDat(bad, &dat) == SE_NOSOCK && !dat; }},
        {"KWSockGetState", "SE_NOSOCK (idn=327683)", [&] { return KWSockGetState(bad, &st) == 0; }},
        {"KWSockGetPort", "SE_NOSOCK (idn=327683)", [&] { return KWSockGetPort(bad, &port) == 0 && port == 0; }},
        {"KWSockGetId", "SE_NOSOCK (idn=327683)", [&] { return KWSockGetId(bad, &fd) == 0 && fd == -1; }},
        {"KWSockGetId", "SE_NOSOCK (idn=327683)", [&] { return KWSockRecvEventGet(bad) == nullptr; }},
        {"KWSockRecvEventSet", "SE_NOSOCK (idn=327683)", [&] { return !KWSockRecvEventSet(bad, RecordEvent); }},
        {"KWSockClose", "SE_NOSOCK (327683)", [&] { return KWSockClose(bad) == SE_NOSOCK; }},
        {"GetPeerHostName", "SE_NOSOCK (327683)", [&] { return GetPeerHostName(bad, buf, 8) == 0 && !buf[0]; }},
    };
    for (const auto& c : calls) {
        LogCapture log;
        EXPECT_TRUE(c.refused()) << c.fn;
        EXPECT_TRUE(log.Has(std::string("Kwz.kwSock.") + c.fn, c.text)) << c.fn;
    }
}

TEST_F(sock_table, AConnectionKnowsItsPeerBothWays) {
    ASSERT_EQ(KWSockInit(8), 0);
    const uint32_t lst = Listen();
    uint32_t cli = 0;
    ASSERT_EQ(KWSockCliOpen("localhost", ListenPort(lst), RecordEvent, &cli), 0);
    uint32_t dotted = 0;
    ASSERT_EQ(KWSockCliOpen("127.0.0.1", ListenPort(lst), RecordEvent, &dotted), 0);
    const uint32_t srv = AcceptedIdn();
    ASSERT_NE(srv, 0u);

    char name[256] = {}, addr[64] = {};
    // The client's host identification names the server side's peer.
    EXPECT_TRUE(WaitUntil([&] {
        GetPeerHostName(srv, name, sizeof name);
        return HostName() == name;
    }));
    GetPeerHostAddr(srv, addr, sizeof addr);
    EXPECT_STREQ(addr, "127.0.0.1");
    // A name is resolved and the resolver's canonical name kept (whatever
    // this host's resolver calls it); a dotted address is kept as given.
    GetPeerHostName(cli, name, sizeof name);
    EXPECT_EQ(std::string(name), CanonicalName("localhost"));
    GetPeerHostName(dotted, name, sizeof name);
    EXPECT_STREQ(name, "127.0.0.1");
    GetPeerHostAddr(cli, addr, sizeof addr);
    EXPECT_STREQ(addr, "127.0.0.1");

    // A bounded copy: not terminated when the text fills the buffer.
    char small[7] = "XXXXXX";
    GetPeerHostAddr(cli, small, 4);
    EXPECT_STREQ(small, "127.XX");

    // type, send and receive time-out, port: the defaults of each side.
    const auto Row = [](const SockState& st) {
        return std::vector<uint32_t>{st.type, st.sendTimeout, st.recvTimeout, st.port};
    };
    EXPECT_EQ(Row(StateOf(cli)), (std::vector<uint32_t>{SOCK_CLI, 5000, 0, ListenPort(lst)}));
    EXPECT_EQ(Row(StateOf(srv)), (std::vector<uint32_t>{SOCK_SRV, 0, 20000, ListenPort(lst)}));
    EXPECT_EQ(StateOf(lst).type, SOCK_LISTEN);
    int32_t fd = -1;
    EXPECT_EQ(KWSockGetId(cli, &fd), 1);
    EXPECT_GE(fd, 0);

    int token = 0;
    void* dat = nullptr;
    EXPECT_EQ(KWSockSetDat(cli, &token), 0);
    EXPECT_EQ(KWSockGetDat(cli, &dat), 0);
    EXPECT_EQ(dat, &token);
    EXPECT_EQ(KWSockRecvEventGet(cli), RecordEvent);
    EXPECT_EQ(KWSockRecvEventSet(cli, BlockingEvent), RecordEvent);
    EXPECT_EQ(KWSockRecvEventGet(cli), BlockingEvent);
}

// Opens that fail leave their slot free: to a port nothing listens on (that
// of a listener that was closed), to a name that does not resolve, and to the
// local host's own name in any case, which is refused outright.
TEST_F(sock_table, AnOpenThatFailsLeavesTheSlotFree) {
    ASSERT_EQ(KWSockInit(2), 0);
    uint32_t idn = 1;
    const uint32_t lst = Listen();
    const uint32_t port = ListenPort(lst);
    KWSockClose(lst);
    ASSERT_TRUE(WaitUntil([&] { return StateOf(lst).type == SOCK_FREE; }));
    EXPECT_EQ(KWSockCliOpen("127.0.0.1", port, RecordEvent, &idn), SE_OPEN);
    // An empty label: refused by the resolver itself, without a query.
    EXPECT_EQ(KWSockCliOpen("no-such-host..invalid", port, RecordEvent, &idn), SE_OPEN);
    std::string upper = HostName(), lower = HostName();
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
    for (const std::string& name : {HostName(), upper, lower}) {
        LogCapture log;
        EXPECT_EQ(KWSockCliOpen(name.c_str(), port, RecordEvent, &idn), SE_OPEN) << name;
        EXPECT_TRUE(log.Has("Kwz.kwSock.KWSockCliOpen", "Incorrect server address")) << name;
    }
    // Both slots can still be used.
    const uint32_t again = Listen();
    EXPECT_EQ(KWSockCliOpen("127.0.0.1", ListenPort(again), RecordEvent, &idn), 0);
}

TEST_F(sock_table, AFullTableRefusesConnectionsButKeepsListening) {
    ASSERT_EQ(KWSockInit(2), 0);
    const uint32_t lst = Listen();
    const int first = RawConnect(ListenPort(lst));
    const uint32_t srv = AcceptedIdn();
    ASSERT_NE(srv, 0u);
    {
        LogCapture log;
        const int refused = RawConnect(ListenPort(lst));
        ASSERT_GE(refused, 0);  // the system accepts; the listener closes it
        EXPECT_TRUE(PeerClosed(refused));
        close(refused);
        EXPECT_TRUE(log.Has("Kwz.kwSock.SockListenThreadNet", "There are no available sockets (all=2, use=2)"));
    }
    close(first);
    EXPECT_EQ(Recorder::Get().WaitCode(SOCK_EV_CLOSE, srv).size(), 1u);
    ASSERT_TRUE(WaitUntil([&] { return StateOf(srv).type == SOCK_FREE; }));
    const int third = RawConnect(ListenPort(lst));
    EXPECT_NE(AcceptedIdn(2), 0u);
    close(third);
}

// A slot whose receiving thread is inside a callback stays closing until the
// callback returns; closes meanwhile are no-ops.
TEST_F(sock_table, ClosingTwiceWhileACallbackRuns) {
    ASSERT_EQ(KWSockInit(4), 0);
    const uint32_t lst = Listen(BlockingEvent);
    int raw = -1;
    const uint32_t srv = HeldInCallback(lst, &raw);
    ASSERT_NE(srv, 0u);

    EXPECT_EQ(KWSockClose(srv), 0);
    EXPECT_EQ(KWSockClose(srv), 0);  // already closing
    EXPECT_NE(StateOf(srv).flags & 0x10, 0u);
    EXPECT_EQ(StateOf(srv).type, SOCK_SRV);  // not final while the callback runs
    GateOpen() = true;
    EXPECT_EQ(Recorder::Get().WaitCode(SOCK_EV_CLOSE, srv).size(), 1u);
    EXPECT_TRUE(WaitUntil([&] { return StateOf(srv).type == SOCK_FREE; }));
    close(raw);
}

// KWSockFree while a slot cannot finish yet: the module is suspended, new
// work is refused, no close event reaches the caller, and once the slot is
// gone the table goes and a new init succeeds.
TEST_F(sock_table, FreeWhileConnectionsFinish) {
    ASSERT_EQ(KWSockInit(4), 0);
    MsgType msg;
    const uint32_t lst = Listen(BlockingEvent);
    int raw = -1;
    const uint32_t srv = HeldInCallback(lst, &raw);
    ASSERT_NE(srv, 0u);
    KWRData* rec = msg.New(2);

    EXPECT_EQ(KWSockFree(), SE_SUSPEND);
    EXPECT_EQ(KWSockIsActive(), SE_SUSPEND);
    EXPECT_EQ(KWSockInit(4), SE_SUSPEND);
    EXPECT_EQ(KWSockClose(srv), SE_SUSPEND);
    EXPECT_EQ(KWSockCliOpen("127.0.0.1", ListenPort(lst), RecordEvent, nullptr), SE_NOINIT);
    EXPECT_EQ(KWSockSrvOpen(0, RecordEvent, nullptr), SE_NOINIT);
    EXPECT_EQ(KWSockSendEx(srv, rec, nullptr, 0), SE_NOINIT);
    KWRRecRelease(rec);
    EXPECT_TRUE(PeerClosed(raw));  // the socket was shut down at once
    close(raw);

    GateOpen() = true;
    ASSERT_TRUE(WaitUntil([] { return KWSockFree() == 0; }, 10000));
    EXPECT_EQ(KWSockIsActive(), SE_NOINIT);
    EXPECT_EQ(Recorder::Get().Count([](const Event& e) { return e.code == SOCK_EV_CLOSE || e.code == SOCK_EV_ABORT; }),
              0u);
    EXPECT_EQ(KWSockInit(3), 0);
    EXPECT_EQ(KWSockGetIdn(2), 0x30002u);  // a new table
}

// ---- datagram nodes ----------------------------------------------------------

// Records a datagram and whether the byte after it was the added 0 byte.
extern "C" void TerminatedEvent(int32_t code, uint32_t idn, int32_t port, const char* addr, const void* data,
                                int32_t length) {
    const bool terminated = data && static_cast<const char*>(data)[length] == 0;
    RecordNodeEvent(code, idn, port, terminated ? addr : "unterminated", data, length);
}

class sock_node : public SockFixture<16> {
protected:
    uint32_t Open(SockNodeEventFn fn = RecordNodeEvent) {
        uint32_t idn = 0;
        EXPECT_EQ(KWSockNodeOpen(0, fn, &idn), 0);
        EXPECT_NE(ListenPort(idn), 0u);
        return idn;
    }
    // The datagrams node received, as texts.
    std::vector<std::string> Received(uint32_t node, size_t n) {
        std::vector<std::string> out;
        for (const auto& e : Recorder::Get().WaitCode(SOCK_EV_DATA, node, n)) out.push_back(e.image);
        return out;
    }
};

TEST_F(sock_node, DatagramsOfEverySizeArriveWholeAndTerminated) {
    const uint32_t a = Open(), b = Open(TerminatedEvent);
    for (int32_t n : {0, 1, 65507}) {
        Recorder::Get().Reset();
        std::string payload;
        for (int32_t i = 0; i < n; ++i) payload += static_cast<char>('a' + i % 26);
        ASSERT_EQ(KWSockSendNode(a, static_cast<int32_t>(ListenPort(b)), "127.0.0.1", payload.data(), n,
                                 RecordNodeCompletion), 0);
        auto got = Recorder::Get().WaitCode(SOCK_EV_DATA, b);
        ASSERT_EQ(got.size(), 1u) << n;
        EXPECT_EQ(got[0].image, payload) << n;
        EXPECT_EQ(got[0].addr, "127.0.0.1") << n;
        EXPECT_EQ(static_cast<uint32_t>(got[0].port), ListenPort(a));
        auto done = Recorder::Get().WaitCode(kCompletion + 0, a);
        ASSERT_EQ(done.size(), 1u);
        EXPECT_EQ(done[0].image, payload);  // the completion sees the datagram's fields
        EXPECT_EQ(static_cast<uint32_t>(done[0].port), ListenPort(b));
        EXPECT_EQ(done[0].addr, "127.0.0.1");
    }
    EXPECT_EQ(uint64_t{StateOf(b).recvBytes}, 65508u);
}

// An empty or null address is the own host, a name is resolved; one that
// does not resolve completes with -7 and leaves the node open.
TEST_F(sock_node, SpecialAddressesAndNames) {
    const uint32_t a = Open(), b = Open();
    const auto port = static_cast<int32_t>(ListenPort(b));
    ASSERT_EQ(KWSockSendNode(a, port, "no-such-host..invalid", "x", 1, RecordNodeCompletion), 0);
    ASSERT_EQ(KWSockSendNode(a, port, "", "own", 3, RecordNodeCompletion), 0);
    ASSERT_EQ(KWSockSendNode(a, port, nullptr, "null", 4, RecordNodeCompletion), 0);
    ASSERT_EQ(KWSockSendNode(a, port, "localhost", "name", 4, RecordNodeCompletion), 0);
    EXPECT_EQ(Received(b, 3), (std::vector<std::string>{"own", "null", "name"}));
    EXPECT_EQ(Recorder::Get().WaitCode(kCompletion + 0, a, 3).size(), 3u);
    auto failed = Recorder::Get().WaitCode(kCompletion + SOCK_EV_NOSEND, a);
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].addr, "no-such-host..invalid");
    Recorder::Get().Reset();
    ASSERT_EQ(KWSockSendNode(a, port, "*", "broadcast", 9, RecordNodeCompletion), 0);
    auto done = Recorder::Get().WaitMatching([](const Event& e) { return e.code >= 90; });
    ASSERT_EQ(done.size(), 1u);
    if (done[0].code != kCompletion) GTEST_SKIP() << "this host has no route for the broadcast address";
    EXPECT_EQ(Received(b, 1), (std::vector<std::string>{"broadcast"}));
}

TEST_F(sock_node, AMulticastMemberReceivesUntilItLeaves) {
    const uint32_t a = Open(), b = Open();
    const auto port = static_cast<int32_t>(ListenPort(b));
    const char* group = "239.255.42.99";
    ASSERT_EQ(KWSockNodeSetOpt(b, 1, "239.255.42.99,127.0.0.1"), 0);
    ASSERT_EQ(KWSockNodeSetOpt(a, 4, "127.0.0.1"), 0);
    const int32_t on = 1;
    ASSERT_EQ(KWSockNodeSetOpt(a, 5, &on), 0);
    ASSERT_EQ(KWSockSendNode(a, port, group, "m1", 2, nullptr), 0);
    EXPECT_EQ(Received(b, 1), (std::vector<std::string>{"m1"}));

    ASSERT_EQ(KWSockNodeSetOpt(b, 2, "239.255.42.99,127.0.0.1"), 0);
    ASSERT_EQ(KWSockSendNode(a, port, group, "m2", 2, nullptr), 0);
    ASSERT_EQ(KWSockSendNode(a, port, "127.0.0.1", "marker", 6, nullptr), 0);
    // The marker follows the second group datagram; only it arrives.
    EXPECT_EQ(Received(b, 2), (std::vector<std::string>{"m1", "marker"}));
}

TEST_F(sock_node, OptionsTakeEffectOrFailWithTheirCodes) {
    const uint32_t a = Open();
    int32_t fd = -1;
    ASSERT_EQ(KWSockGetId(a, &fd), 1);
    auto ipOpt = [&](int name) {
        int v = -1;
        socklen_t len = sizeof v;
        getsockopt(fd, IPPROTO_IP, name, &v, &len);
        return v;
    };
    const int32_t zero = 0, four = 4;
    EXPECT_EQ(KWSockNodeSetOpt(a, 3, &zero), 0);
    EXPECT_EQ(ipOpt(IP_MULTICAST_TTL), 1);  // the count plus one
    EXPECT_EQ(KWSockNodeSetOpt(a, 3, &four), 0);
    EXPECT_EQ(ipOpt(IP_MULTICAST_TTL), 5);
    EXPECT_EQ(KWSockNodeSetOpt(a, 5, &zero), 0);
    EXPECT_EQ(ipOpt(IP_MULTICAST_LOOP), 0);
    EXPECT_EQ(KWSockNodeSetOpt(a, 4, ""), 0);
    EXPECT_EQ(KWSockNodeSetOpt(a, 4, nullptr), 0);
    EXPECT_EQ(KWSockNodeSetOpt(a, 6, "anything"), 0);  // unknown options are ignored
    EXPECT_EQ(KWSockNodeSetOpt(a, 0, nullptr), 0);

    // Option, value, and the line logged: unparsable values, then values the
    // system refuses (a group never joined, an address that is no group).
    const std::tuple<int32_t, const char*, const char*> errors[] = {
        {1, "not-an-address", "SE_OPTION (option=1)"}, {1, "239.1.1.1,bad", "SE_OPTION (option=1)"},
        {2, nullptr, "SE_OPTION (option=2)"},          {4, "bad", "SE_OPTION (option=4)"},
        {2, "239.9.9.9", "SE_OPTION (option=2, err="}, {1, "10.0.0.1", "SE_OPTION (option=1, err="},
    };
    for (const auto& [option, value, text] : errors) {
        LogCapture log;
        EXPECT_EQ(KWSockNodeSetOpt(a, option, value), SE_OPTION) << option << " " << (value ? value : "null");
        EXPECT_TRUE(log.Has("Kwz.kwSock.KWSockNodeSetOpt", text)) << text;
    }
    LogCapture log;
    EXPECT_EQ(KWSockNodeSetOpt(0x7777, 1, "239.1.1.1"), SE_NOSOCK);
    EXPECT_TRUE(log.Has("Kwz.kwSock.KWSockNodeSetOpt", "SE_NOSOCK (idn=30583)"));
}

// Node and stream slots refuse each other's calls (a node keeps its node
// callback), and a node's close arrives as a node event without a datagram.
TEST_F(sock_node, NodeAndStreamSlotsRefuseEachOthersCalls) {
    const uint32_t node = Open();
    uint32_t lst = 0;
    ASSERT_EQ(KWSockSrvOpen(0, RecordEvent, &lst), 0);
    MsgType msg;
    KWRData* rec = msg.New(1);
    LogCapture log;
    EXPECT_EQ(KWSockSendNode(lst, 1, "127.0.0.1", "x", 1, nullptr), SE_NOSOCK);
    EXPECT_TRUE(log.Has("Kwz.kwSock.KWSockSendNode", "SE_NOSOCK (" + std::to_string(lst) + ")"));
    EXPECT_EQ(KWSockSendEx(node, rec, nullptr, 0), SE_NOSOCK);
    EXPECT_EQ(KWSockSetRecvTimeout(node, 100), 0);
    EXPECT_EQ(KWSockRecvEventSet(node, RecordEvent), nullptr);  // a stream callback cannot serve a node
    ASSERT_EQ(KWSockSendNode(node, static_cast<int32_t>(ListenPort(node)), "127.0.0.1", "self", 4, nullptr), 0);
    EXPECT_EQ(Received(node, 1), (std::vector<std::string>{"self"}));
    EXPECT_EQ(KWSockSendNode(node, 1, "127.0.0.1", "x", -1, nullptr), SE_DATANOSEND);
    KWRRecRelease(rec);
    EXPECT_EQ(KWSockClose(node), 0);
    auto got = Recorder::Get().WaitCode(SOCK_EV_CLOSE, node);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].port, 0);
    EXPECT_EQ(got[0].addr, "(null)");
    EXPECT_TRUE(got[0].image.empty());
}

}  // namespace
