// kwz demo: the end-to-end showcase, shared between its files.
//   cmd_demo.cpp       the command, its three modes and the step lines
//   cmd_demo_net.cpp   the transport: a server that collects, a client that sends
//   cmd_demo_data.cpp  what the server does with the records
//   cmd_demo_report.cpp  the XML report
//
// The wire between the two sides carries three record types:
//   101 Parcel       the records themselves (kParcelDefinition)
//   100 DemoHello    client -> server first: the Parcel definition text and the count
//   102 DemoAnswer   server -> client last: what the server made of them
#pragma once

#include <VomKwz.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace kwz::tool::demo {

constexpr uint32_t kHelloId = 100;
constexpr uint32_t kParcelId = 101;
constexpr uint32_t kAnswerId = 102;

// The record type of the demo, declared by its definition text: the client
// sends this very text, and the server builds its type from what arrives.
extern const char* const kParcelDefinition;
extern const char* const kHelloDefinition;
extern const char* const kAnswerDefinition;

// The derived column's script: the record's fields are its parameters.
extern const char* const kDefaultFormula;

using Clock = std::chrono::steady_clock;
double MsSince(Clock::time_point start);

// ------------------------------------------------------------ output
// One line per step: how long it took, its name, what it did.  A step that
// fails prints its message through Fail() and returns false instead.
void StepLine(const char* name, const std::string& text, double ms);
// Every step line's name and time so far, in order.
struct Timing {
    std::string step;
    double ms;
};
const std::vector<Timing>& StepTimings();
// "Parcel: Id:I4 Customer:CH16 ..." of a type.
std::string TypeText(const KWRType& type);
// "1,234,567"
std::string Thousands(uint64_t n);
// "12.3 ms", "1.24 s"
std::string Duration(double ms);

// A bar for long steps, drawn only when standard output is a terminal and
// the step has run for a moment; cleared before the step's line.
class Progress {
public:
    Progress(const char* name, uint64_t total);
    ~Progress() { Clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    void Update(uint64_t done);
    void Clear();

private:
    const char* name_;
    uint64_t total_;
    bool enabled_;
    bool drawn_ = false;
    Clock::time_point start_, last_;
};

// ------------------------------------------------------------ the parcels
// Depots numbered 1..depots; a parcel travels between two of them.
uint32_t DepotCount(uint32_t records);
// Distance of two depots around the ring they stand on.
uint32_t RingDistance(uint32_t a, uint32_t b, uint32_t depots);

// ------------------------------------------------------------ server side
// The parcels as the server keeps them: the type built from the client's
// definition, and a record array of its fields plus the derived Cost, keyed
// by Id (unique) and by Customer;Id (case ignored).
class Table {
public:
    Table();
    ~Table();
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;
    // The type from the definition text, the array and its keys; false after a message.
    bool Build(const std::string& definition);
    // Checks a received image against the type and adds it to the array;
    // *priority gets its Priority.  False after a message.
    bool Add(const KWRData& record, uint32_t* priority);

    KWRType type;
    KWArray* array = nullptr;
    // The array's own fields.
    const KWRField *id = nullptr, *customer = nullptr, *from = nullptr, *to = nullptr, *weight = nullptr,
                   *priority = nullptr, *cost = nullptr;
};

// What the server's steps compute, for the summary and the report.
struct Results {
    uint32_t records = 0;
    uint32_t depots = 0;
    double firstPriority = 0, lastPriority = 0;  // mean of the first / last tenth received
    double costMin = 0, costMax = 0, costMean = 0;
    std::string lookupText;
    uint64_t tableBytes = 0, containerBytes = 0;
    std::string hash;
    uint32_t graphNodes = 0, graphLinks = 0;
    uint32_t pathFrom = 0, pathTo = 0, hops = 0;
    uint64_t shortestPaths = 0;
    std::vector<uint32_t> path;
    struct Customer {
        std::string name;
        uint32_t parcels;
        double cost;
    };
    std::vector<Customer> customers;
    uint64_t reportBytes = 0;
};

// Where the server writes its files (made by the command beforehand).
struct OutFiles {
    std::string dir;
    bool force = false;
    std::string Path(const char* name) const { return dir + "/" + name; }
};

// Compiles the derived column's script (the default, or the formula in its
// body) on its own: false after the compiler's message.
bool CheckFormula(const std::string& formula);
// Every step after the collection: derive, lookups, pack, compress, hash,
// graph, report.  False after a message.
bool ServerSteps(Table& table, const std::string& formula, const OutFiles& out, Results* results);
// report.xml from the results, parsed back to check it.  False after a message.
bool WriteReport(const std::string& formula, const OutFiles& out, Results* results);

// ------------------------------------------------------------ transport
// The socket table of the process: started once, freed at the end.
bool StartTransport();
// Frees it and waits (bounded) for its threads; false when they linger.
bool StopTransport();
// Ctrl-C only sets a flag, which the waits below watch.
void CatchInterrupt();
bool Interrupted();

// What the server answers and the client prints.
struct Answer {
    int32_t records = 0;
    int64_t tableBytes = 0;
    int64_t containerBytes = 0;
    std::string hash;
};

// The listening side: one client at a time, its records queued by the
// transport's threads and drained into the table by the caller's thread.
class Server {
public:
    Server();
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    // Listens on port (0: one the system chooses); *bound gets the port.
    bool Listen(uint32_t port, uint32_t* bound);
    // Waits for a client's hello: the record type's definition and the
    // count that follows.  False after a message (or on Ctrl-C).
    bool WaitHello(std::string* definition, uint32_t* count);
    // Drains count parcels into the table; the mean priorities of the first
    // and last tenth go to results.  False after a message.
    bool Collect(Table& table, uint32_t count, Results* results);
    // Sends the answer and waits (bounded) until it has left.
    bool SendAnswer(const Answer& answer);
    // Waits (bounded) for the client to close, then closes.
    void Finish();

private:
    uint32_t listener_ = 0;
};

// The sending side: builds the parcels from the definition text, queues
// them all with their priorities, and waits for the server's answer.
class Client {
public:
    Client();
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    bool Connect(const std::string& host, uint32_t port);
    // The type step: the Parcel type from its definition text.
    bool MakeType();
    // Queues the hello and count parcels, then waits until every one has
    // been handed to the socket.  False after a message.
    bool Send(uint32_t count);
    // Waits for the server's answer (Ctrl-C or the connection's end stop the wait).
    bool WaitAnswer(Answer* answer);
    void Close();

private:
    KWRType parcel_, hello_;
    uint32_t idn_ = 0;
    bool open_ = false;
};

}  // namespace kwz::tool::demo
