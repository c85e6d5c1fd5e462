// Tests with a second process, helper_sock_peer: two processes exchange
// records both ways (the helper listens, greets, echoes and reports; this
// process connects, sends and checks); and broadcast and multicast between
// two hosts: two network namespaces joined by a veth pair, made and removed
// by the test, with the helper receiving in one and sending from the other
// (skipped where the kernel, or the lack of privileges, refuses network
// namespaces).
#include <unistd.h>

#include <algorithm>
#include <set>

#include "sock_test_util.h"

using namespace socktest;

namespace {

TEST(sock_peer, TwoProcessesExchangeRecordsBothWays) {
    Recorder::Get().Reset();
    Child peer({HelperPath(), "server"});
    ASSERT_TRUE(peer.Started());
    const std::string first = peer.ReadLine();
    ASSERT_EQ(first.rfind("PORT ", 0), 0u) << first;
    const uint32_t port = static_cast<uint32_t>(std::stoul(first.substr(5)));

    ASSERT_EQ(KWSockInit(4), 0);
    MsgType msg;
    uint32_t cli = 0;
    ASSERT_EQ(KWSockCliOpen("127.0.0.1", port, RecordEvent, &cli), 0);
    // The record of each seq (and its echo, the text reversed, seq + 1000).
    const auto Text = [](int32_t seq) { return "record " + std::to_string(seq) + std::string(seq * 37u, 'z'); };
    constexpr int kCount = 40;
    for (int32_t seq = 1; seq <= kCount; ++seq)
        ASSERT_EQ(KWSockSendEx(cli, msg.New(seq, Text(seq)), RecordCompletion, static_cast<uint32_t>(seq % 4)), 0);
    auto data = Recorder::Get().WaitCode(SOCK_EV_DATA, cli, kCount + 5, 10000);
    ASSERT_EQ(data.size(), static_cast<size_t>(kCount + 5));
    // Five greetings (500 to 504) and an echo of each record.
    std::set<int32_t> seqs, expected{500, 501, 502, 503, 504};
    for (int32_t seq = 1; seq <= kCount; ++seq) expected.insert(1000 + seq);
    for (const auto& e : data) {
        const int32_t seq = msg.Seq(e.image);
        std::string text = seq >= 1000 ? Text(seq - 1000) : "greeting";
        if (seq >= 1000) std::reverse(text.begin(), text.end());
        EXPECT_EQ(e.typeId, MsgType::kId);
        EXPECT_EQ(e.image, msg.Image(seq, text)) << seq;
        seqs.insert(seq);
    }
    EXPECT_EQ(seqs, expected);
    EXPECT_EQ(Recorder::Get().WaitCode(kCompletion + 0, cli, kCount).size(), static_cast<size_t>(kCount));

    EXPECT_EQ(KWSockClose(cli), 0);
    EXPECT_EQ(peer.ReadLine(), "DONE recv=" + std::to_string(kCount));
    EXPECT_EQ(peer.Wait(), 0);
    EXPECT_TRUE(ShutdownModule());
}

// Runs `ip args...` (found on the PATH); true when it exits with 0.
bool Ip(std::vector<std::string> args) {
    args.insert(args.begin(), "ip");
    Child c(args);
    return c.Started() && c.Wait(10000) == 0;
}

// Namespaces "kwz<pid>a" and "kwz<pid>b", addresses <net>.1 and <net>.2.
class sock_netns : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string id = std::to_string(getpid()), va = "kva" + id, vb = "kvb" + id;
        a_ = "kwz" + id + "a";
        b_ = "kwz" + id + "b";
        net_ = "10.201." + std::to_string(getpid() % 250) + ".";
        created_ = Ip({"netns", "add", a_});
        const bool ok =
            created_ && Ip({"netns", "add", b_}) &&
            Ip({"link", "add", va, "netns", a_, "type", "veth", "peer", "name", vb, "netns", b_}) &&
            Ip({"-n", a_, "addr", "add", net_ + "1/24", "dev", va}) &&
            Ip({"-n", b_, "addr", "add", net_ + "2/24", "dev", vb}) && Ip({"-n", a_, "link", "set", va, "up"}) &&
            Ip({"-n", b_, "link", "set", vb, "up"}) && Ip({"-n", a_, "link", "set", "lo", "up"}) &&
            Ip({"-n", b_, "link", "set", "lo", "up"}) &&
            // The limited broadcast address leaves by the default route.
            Ip({"-n", b_, "route", "add", "default", "dev", vb});
        if (!ok) GTEST_SKIP() << "no ip tool (iproute2), or the kernel refuses network namespaces (CAP_SYS_ADMIN)";
    }
    void TearDown() override {
        if (!created_) return;
        Ip({"netns", "del", a_});
        Ip({"netns", "del", b_});
    }
    std::string Addr(int host) const { return net_ + std::to_string(host); }
    // Starts helper_sock_peer with recvArgs in A, then with sendArgs in B;
    // the receiver's report.
    std::string Exchange(std::vector<std::string> recvArgs, std::vector<std::string> sendArgs) {
        recvArgs.insert(recvArgs.begin(), {"ip", "netns", "exec", a_, HelperPath()});
        sendArgs.insert(sendArgs.begin(), {"ip", "netns", "exec", b_, HelperPath()});
        Child receiver(recvArgs);
        if (receiver.ReadLine() != "READY") return "receiver not ready";
        Child sender(sendArgs);
        const std::string sent = sender.ReadLine();
        if (sender.Wait() != 0) return "sender failed: " + sent;
        const std::string got = receiver.ReadLine(5000);
        receiver.Wait(5000);
        return got;
    }
    std::string a_, b_, net_;
    bool created_ = false;
};

constexpr const char* kPort = "40123";

TEST_F(sock_netns, ABroadcastReachesTheOtherHost) {
    EXPECT_EQ(Exchange({"node-recv", kPort}, {"node-send", "*", kPort, "hello-broadcast"}),
              "DGRAM " + Addr(2) + " hello-broadcast");
}

TEST_F(sock_netns, AMulticastGroupMemberOnTheOtherHostReceives) {
    const std::string group = "239.77.0.1";
    EXPECT_EQ(Exchange({"node-recv", kPort, group + "," + Addr(1)},
                       {"node-send", group, kPort, "hello-multicast", Addr(2)}),
              "DGRAM " + Addr(2) + " hello-multicast");
}

}  // namespace
