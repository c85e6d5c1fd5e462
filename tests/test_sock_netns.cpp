// Broadcast and multicast between two hosts: two network namespaces joined
// by a veth pair, made and removed by the test, with helper_sock_peer
// receiving in one and sending from the other.  Skipped where the kernel (or
// the lack of privileges) refuses network namespaces.
#include <unistd.h>

#include "sock_test_util.h"

using namespace socktest;

namespace {

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
