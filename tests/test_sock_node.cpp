// Datagram nodes on loopback: sizes up to the largest datagram, the special
// addresses, completions, multicast membership and the options' errors, and
// the refusals between node and stream slots.
#include <netinet/in.h>
#include <sys/socket.h>

#include <tuple>

#include "kwz_test_util.h"
#include "sock_test_util.h"

using namespace socktest;
using kwztest::LogCapture;

namespace {

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
