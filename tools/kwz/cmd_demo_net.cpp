// kwz demo, the transport: a server that takes one client's records and
// queues them for the caller's thread, and a client that builds the parcels
// from their definition text and sends them with their priorities.  The
// callbacks run on the transport's worker threads: they only copy and
// queue, under one mutex, and the caller's thread does the rest.
#include <VomKwz.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "cmd_demo.h"
#include "kwz_util.h"

namespace kwz::tool::demo {

const char* const kParcelDefinition =
    "Parcel|6|a parcel between two depots\r\n"
    "Id|I4\r\nCustomer|CH16\r\nFrom|I4|depot\r\nTo|I4|depot\r\nWeight|F8|kg\r\nPriority|B1|0..9, 9 first";
const char* const kHelloDefinition = "DemoHello|2\r\nDefinition|CB\r\nCount|I4";
const char* const kAnswerDefinition =
    "DemoAnswer|4\r\nRecords|I4\r\nTableBytes|I8\r\nContainerBytes|I8\r\nHash|CH32";

namespace {

std::atomic<bool> g_interrupted{false};
extern "C" void DemoOnSignal(int) { g_interrupted = true; }

// A received image, copied out of the callback.
struct Incoming {
    uint32_t typeId;
    uint8_t* image;  // malloc'd; adopted by KWRRecSet
};

// What the callbacks share with the caller's thread.
struct Shared {
    std::mutex mu;
    std::condition_variable changed;
    // server side
    uint32_t connection = 0;  // the one client served
    bool connectionClosed = false;
    std::deque<Incoming> inbox;
    bool answerLeft = false;
    // client side
    bool clientClosed = false;
    bool answered = false;
    Answer answer;
    uint64_t sent = 0, failed = 0;
};
Shared g_net;

// The answer's type, for the client's callback to read it with.
KWRType* AnswerType() {
    static KWRType* type = [] {
        static KWRType t;
        KWRTypInit(&t);
        KWRTypSet(&t, kAnswerId, kAnswerDefinition);
        return &t;
    }();
    return type;
}

template <typename Pred>
bool WaitUntil(std::unique_lock<std::mutex>& lock, Pred pred, int timeoutMs, bool interruptible = true) {
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!pred()) {
        if (Clock::now() >= end || (interruptible && g_interrupted)) return pred();
        g_net.changed.wait_for(lock, std::chrono::milliseconds(50));
    }
    return true;
}

constexpr int kForever = 24 * 3600 * 1000;  // waits that only Ctrl-C or the peer ends (a day)

uint8_t* CopyImage(const KWRData* rec) {
    auto* image = static_cast<uint8_t*>(std::malloc(rec->length));
    if (image) std::memcpy(image, rec->image, rec->length);
    return image;
}

extern "C" void DemoServerEvent(int32_t event, uint32_t idn, KWRData* rec) {
    std::unique_lock<std::mutex> lock(g_net.mu);
    switch (event) {
    case SOCK_EV_ACCEPT:
        if (g_net.connection == 0) {
            g_net.connection = idn;
        } else {
            lock.unlock();
            KWSockClose(idn);  // one client at a time
            return;
        }
        break;
    case SOCK_EV_DATA:
        if (idn != g_net.connection || !rec || !rec->image) return;
        g_net.inbox.push_back({rec->typeId, CopyImage(rec)});
        break;
    default:
        if (idn == g_net.connection) g_net.connectionClosed = true;
        break;
    }
    g_net.changed.notify_all();
}

extern "C" void DemoAnswerSent(int32_t, uint32_t, KWRData* rec) {
    KWRRecRelease(rec);
    std::lock_guard<std::mutex> lock(g_net.mu);
    g_net.answerLeft = true;
    g_net.changed.notify_all();
}

extern "C" void DemoClientEvent(int32_t event, uint32_t, KWRData* rec) {
    std::lock_guard<std::mutex> lock(g_net.mu);
    if (event == SOCK_EV_DATA && rec && rec->typeId == kAnswerId) {
        KWRType* t = AnswerType();
        if (KWRRecCheck(t, rec) == 0) {
            int32_t records = 0;
            char hash[33] = {};
            KWRGetAsInt32(KWRFldByName(t, "Records"), rec, &records);
            KWRGetAsInt64(KWRFldByName(t, "TableBytes"), rec, &g_net.answer.tableBytes);
            KWRGetAsInt64(KWRFldByName(t, "ContainerBytes"), rec, &g_net.answer.containerBytes);
            KWRGetAsText(KWRFldByName(t, "Hash"), rec, 0, 32, hash);
            g_net.answer.records = records;
            g_net.answer.hash = hash;
            g_net.answered = true;
        }
    } else if (event == SOCK_EV_CLOSE || event == SOCK_EV_ABORT) {
        g_net.clientClosed = true;
    }
    g_net.changed.notify_all();
}

extern "C" void DemoParcelSent(int32_t result, uint32_t, KWRData* rec) {
    KWRRecRelease(rec);
    std::lock_guard<std::mutex> lock(g_net.mu);
    (result == 0 ? g_net.sent : g_net.failed) += 1;
    g_net.changed.notify_all();
}

// The parcels are the same for a given count on every run: a fixed seed.
class Random {
public:
    uint32_t Next() {
        x_ ^= x_ << 13;
        x_ ^= x_ >> 17;
        x_ ^= x_ << 5;
        return x_;
    }
    uint32_t Below(uint32_t n) { return Next() % n; }

private:
    uint32_t x_ = 2463534242u;
};

const char* const kCustomers[] = {"Acme",   "Birch & Co", "Cobalt", "Delta Foods", "Elm Street", "Fjord",
                                  "Granite", "Harbor",     "Iris",   "Juniper",     "Kestrel",    "Lumen"};

}  // namespace

// ------------------------------------------------------------ process-wide

bool StartTransport() { return KWSockInit(16) == 0; }

bool StopTransport() {
    KWSockFree();
    const auto end = Clock::now() + std::chrono::seconds(10);
    while (KWSockFree() != 0) {
        if (Clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

void CatchInterrupt() {
    struct sigaction sa {};
    sa.sa_handler = DemoOnSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

bool Interrupted() { return g_interrupted; }

uint32_t DepotCount(uint32_t records) { return std::min<uint32_t>(std::max<uint32_t>(records / 25, 12), 4000); }

uint32_t RingDistance(uint32_t a, uint32_t b, uint32_t depots) {
    const uint32_t d = a > b ? a - b : b - a;
    return std::min(d, depots > d ? depots - d : 0);
}

// ------------------------------------------------------------ server

Server::Server() = default;

Server::~Server() {
    std::lock_guard<std::mutex> lock(g_net.mu);
    for (Incoming& in : g_net.inbox) std::free(in.image);
    g_net.inbox.clear();
}

bool Server::Listen(uint32_t port, uint32_t* bound) {
    if (KWSockSrvOpen(port, DemoServerEvent, &listener_) != 0)
        return Fail("port " + std::to_string(port), "cannot listen"), false;
    if (KWSockGetPort(listener_, bound) != 1) return Fail("port " + std::to_string(port), "not found"), false;
    return true;
}

bool Server::WaitHello(std::string* definition, uint32_t* count) {
    std::unique_lock<std::mutex> lock(g_net.mu);
    if (!WaitUntil(lock, [] { return !g_net.inbox.empty() || g_net.connectionClosed; }, kForever))
        return Fail("server", "interrupted"), false;
    if (g_net.inbox.empty() || g_net.inbox.front().typeId != kHelloId)
        return Fail("server", g_net.inbox.empty() ? "the client left without a word" : "the client did not say hello first"),
               false;
    Incoming in = g_net.inbox.front();
    g_net.inbox.pop_front();
    lock.unlock();
    TypeHolder hello;
    RecordHolder rec;
    KWRTypSet(&hello.t, kHelloId, kHelloDefinition);
    KWRRecSet(&rec.r, in.image);
    const KWRField* def = KWRFldByName(&hello.t, "Definition");
    const char* text = nullptr;
    uint32_t length = 0;
    int32_t n = 0;
    if (KWRRecCheck(&hello.t, &rec.r) != 0 || KWRGetTextRef(def, &rec.r, &length, &text) != 0 ||
        KWRGetAsInt32(KWRFldByName(&hello.t, "Count"), &rec.r, &n) != 0 || n < 1)
        return Fail("server", "the client's hello is not sound"), false;
    definition->assign(text, length);
    *count = uint32_t(n);
    return true;
}

bool Server::Collect(Table& table, uint32_t count, Results* results) {
    std::vector<uint8_t> priorities;
    priorities.reserve(count);
    Progress bar("collect", count);
    while (priorities.size() < count) {
        std::unique_lock<std::mutex> lock(g_net.mu);
        if (!WaitUntil(lock, [] { return !g_net.inbox.empty() || g_net.connectionClosed; }, kForever))
            return Fail("collect", "interrupted"), false;
        if (g_net.inbox.empty())
            return Fail("collect", "the client left after " + std::to_string(priorities.size()) + " of " +
                                       std::to_string(count) + " parcels"),
                   false;
        std::deque<Incoming> batch;
        batch.swap(g_net.inbox);
        lock.unlock();
        bool ok = true;
        for (Incoming& in : batch) {
            RecordHolder rec;
            KWRRecSet(&rec.r, in.image);  // adopts the copy
            in.image = nullptr;
            uint32_t priority = 0;
            if (!ok || in.typeId != kParcelId) continue;
            ok = table.Add(rec.r, &priority);
            priorities.push_back(uint8_t(priority));
        }
        if (!ok) return false;
        bar.Update(priorities.size());
    }
    bar.Clear();
    // Higher priorities leave the client's queue first, as far as the queue
    // was full: the first tenth received against the last.
    const size_t tenth = std::max<size_t>(count / 10, 1);
    double first = 0, last = 0;
    for (size_t i = 0; i < tenth; ++i) {
        first += priorities[i];
        last += priorities[count - 1 - i];
    }
    results->records = count;
    results->firstPriority = first / double(tenth);
    results->lastPriority = last / double(tenth);
    return true;
}

bool Server::SendAnswer(const Answer& answer) {
    uint32_t connection = 0;
    {
        std::lock_guard<std::mutex> lock(g_net.mu);
        connection = g_net.connection;
    }
    KWRType* t = AnswerType();
    KWRData* rec = KWRRecAlloc(t, nullptr);
    if (!rec) return Fail("answer", "out of memory"), false;
    KWRSetAsInt32(KWRFldByName(t, "Records"), rec, answer.records);
    KWRSetAsInt64(KWRFldByName(t, "TableBytes"), rec, answer.tableBytes);
    KWRSetAsInt64(KWRFldByName(t, "ContainerBytes"), rec, answer.containerBytes);
    KWRSetAsText(KWRFldByName(t, "Hash"), rec, int32_t(answer.hash.size()), answer.hash.data());
    if (KWRRecPack(t, rec, 1, 0) != 0 || KWSockSendEx(connection, rec, DemoAnswerSent, 0) != 0) {
        KWRRecRelease(rec);
        return Fail("answer", "cannot be sent"), false;
    }
    std::unique_lock<std::mutex> lock(g_net.mu);
    if (!WaitUntil(lock, [] { return g_net.answerLeft; }, 10000)) return Fail("answer", "not sent"), false;
    return true;
}

void Server::Finish() {
    {
        std::unique_lock<std::mutex> lock(g_net.mu);
        WaitUntil(lock, [] { return g_net.connectionClosed; }, 5000);
    }
    KWSockClose(listener_);
}

// ------------------------------------------------------------ client

Client::Client() {
    KWRTypInit(&parcel_);
    KWRTypInit(&hello_);
}

Client::~Client() {
    Close();
    KWRTypFree(&parcel_);
    KWRTypFree(&hello_);
}

bool Client::Connect(const std::string& host, uint32_t port) {
    if (KWSockCliOpen(host.c_str(), port, DemoClientEvent, &idn_) != 0)
        return Fail(host + ":" + std::to_string(port), "cannot connect"), false;
    open_ = true;
    return true;
}

bool Client::MakeType() {
    const auto start = Clock::now();
    if (KWRTypSet(&parcel_, kParcelId, kParcelDefinition) != 0 || KWRTypSet(&hello_, kHelloId, kHelloDefinition) != 0)
        return Fail("type", "refused"), false;
    StepLine("type", TypeText(parcel_) + ", from its definition text", MsSince(start));
    return true;
}

bool Client::Send(uint32_t count) {
    const auto start = Clock::now();
    // First the hello: the definition text itself and the count.
    KWRData* hello = KWRRecAlloc(&hello_, nullptr);
    if (!hello) return Fail("send", "out of memory"), false;
    KWRSetAsText(KWRFldByName(&hello_, "Definition"), hello, int32_t(std::strlen(kParcelDefinition)), kParcelDefinition);
    KWRSetAsInt32(KWRFldByName(&hello_, "Count"), hello, int32_t(count));
    if (KWRRecPack(&hello_, hello, 1, 0) != 0 || KWSockSendEx(idn_, hello, DemoParcelSent, UINT32_MAX) != 0) {
        KWRRecRelease(hello);
        return Fail("send", "the hello cannot be sent"), false;
    }
    const KWRField* fields = parcel_.fields;  // Id Customer From To Weight Priority
    const uint32_t depots = DepotCount(count);
    const uint64_t window = 65536;  // records queued at most, so that memory stays bounded
    Random rnd;
    Progress bar("send", count);
    uint64_t bytes = 0;
    for (uint32_t i = 1; i <= count; ++i) {
        const uint32_t from = 1 + rnd.Below(depots);
        // Mostly to one of the next three depots on the ring, now and then across it.
        uint32_t to = rnd.Below(200) < 1 ? 1 + rnd.Below(depots) : (from + rnd.Below(3)) % depots + 1;
        if (to == from) to = from % depots + 1;
        const char* customer = kCustomers[rnd.Below(sizeof kCustomers / sizeof kCustomers[0])];
        const auto priority = uint8_t(rnd.Below(10));
        KWRData* rec = KWRRecAlloc(&parcel_, nullptr);
        if (!rec) return Fail("send", "out of memory"), false;
        KWRSetAsInt32(&fields[0], rec, int32_t(i));
        KWRSetAsText(&fields[1], rec, int32_t(std::strlen(customer)), customer);
        KWRSetAsInt32(&fields[2], rec, int32_t(from));
        KWRSetAsInt32(&fields[3], rec, int32_t(to));
        KWRSetAsDouble(&fields[4], rec, 0.5 + rnd.Below(400) / 10.0);
        KWRSetAsByte(&fields[5], rec, priority);
        if (KWRRecPack(&parcel_, rec, 1, 0) != 0) {
            KWRRecRelease(rec);
            return Fail("send", "a parcel does not pack"), false;
        }
        bytes += rec->length;
        if (KWSockSendEx(idn_, rec, DemoParcelSent, priority) != 0) {
            KWRRecRelease(rec);
            return Fail("send", "parcel " + std::to_string(i) + " cannot be queued"), false;
        }
        std::unique_lock<std::mutex> lock(g_net.mu);
        if (!WaitUntil(lock, [&] { return i + 1 - g_net.sent - g_net.failed < window || g_net.clientClosed; }, kForever))
            return Fail("send", "interrupted"), false;
        bar.Update(g_net.sent);
    }
    std::unique_lock<std::mutex> lock(g_net.mu);
    while (!WaitUntil(lock, [&] { return g_net.sent + g_net.failed >= count + 1 || g_net.clientClosed; }, 100)) {
        if (g_interrupted) return Fail("send", "interrupted"), false;
        bar.Update(g_net.sent);
    }
    bar.Clear();
    if (g_net.failed || g_net.sent < count + 1)
        return Fail("send", std::to_string(g_net.sent) + " of " + std::to_string(count + 1) + " records sent"), false;
    StepLine("send",
             Thousands(count) + " parcels (" + Thousands(bytes) + " bytes of images) after the hello, " +
                 "queued with priorities 0..9 (9 leaves first), all handed to the socket",
             MsSince(start));
    return true;
}

bool Client::WaitAnswer(Answer* answer) {
    std::unique_lock<std::mutex> lock(g_net.mu);
    if (!WaitUntil(lock, [] { return g_net.answered || g_net.clientClosed; }, kForever))
        return Fail("answer", "interrupted"), false;
    if (!g_net.answered) return Fail("answer", "the server closed without answering"), false;
    *answer = g_net.answer;
    return true;
}

void Client::Close() {
    if (open_) KWSockClose(idn_);
    open_ = false;
}

}  // namespace kwz::tool::demo
