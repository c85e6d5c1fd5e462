// kwz demo: the end-to-end showcase.  One process by default: a server on a
// loopback port the system chooses, a client that sends it parcels declared
// by a type-definition text, and the server's steps over them (record array
// with two keys, a derived column by a calculator script, lookups, pack,
// compress, hash, a depot graph and its shortest path, an XML report).
// --serve PORT and --connect HOST PORT split the two sides over two
// processes.  Each step prints one line; long ones draw a bar on a terminal.
#include <VomKwz.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cmd_demo.h"
#include "command.h"
#include "kwz_util.h"

namespace kwz::tool::demo {

const char* const kDefaultFormula =
    "cost(Id, Customer, From, To, Weight, Priority){\r\n"
    "  Result = 2.5 + Weight * 0.4 + dist(From, To) * 0.8;\r\n"
    "  if (Priority >= 8) { Result = Result * 1.5; }\r\n"
    "}";

namespace {

std::vector<Timing> g_timings;

}  // namespace

double MsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

std::string Thousands(uint64_t n) {
    std::string digits = std::to_string(n), out;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i && (digits.size() - i) % 3 == 0) out += ',';
        out += digits[i];
    }
    return out;
}

std::string Duration(double ms) {
    char text[32];
    if (ms < 1000)
        std::snprintf(text, sizeof text, "%.1f ms", ms);
    else
        std::snprintf(text, sizeof text, "%.2f s", ms / 1000);
    return text;
}

void StepLine(const char* name, const std::string& text, double ms) {
    g_timings.push_back({name, ms});
    std::printf("%10s  %-9s %s\n", Duration(ms).c_str(), name, text.c_str());
    std::fflush(stdout);
}

const std::vector<Timing>& StepTimings() { return g_timings; }

std::string TypeText(const KWRType& type) {
    std::string text = type.name;
    for (uint8_t i = 0; i < type.fieldCount; ++i)
        text += std::string(i ? " " : ": ") + type.fields[i].name + ":" + FieldCode(type.fields[i]);
    return text;
}

// ------------------------------------------------------------ progress

Progress::Progress(const char* name, uint64_t total)
    : name_(name), total_(total), enabled_(total > 0 && ::isatty(STDOUT_FILENO)), start_(Clock::now()), last_(start_) {}

void Progress::Update(uint64_t done) {
    if (!enabled_) return;
    const auto now = Clock::now();
    // Only a step that has run for a moment gets a bar, redrawn ten times a second.
    if (now - start_ < std::chrono::milliseconds(300) || now - last_ < std::chrono::milliseconds(100)) return;
    last_ = now;
    constexpr int kWidth = 40;
    const int filled = int(kWidth * std::min<uint64_t>(done, total_) / total_);
    std::printf("\r%10s  %-9s [%s%s] %s / %s", "", name_, std::string(size_t(filled), '#').c_str(),
                std::string(size_t(kWidth - filled), '.').c_str(), Thousands(done).c_str(), Thousands(total_).c_str());
    std::fflush(stdout);
    drawn_ = true;
}

void Progress::Clear() {
    if (!drawn_) return;
    std::printf("\r\033[K");
    std::fflush(stdout);
    drawn_ = false;
}

namespace {

// ------------------------------------------------------------ the run

struct Options {
    uint32_t records = 5000;
    std::string formula;
    OutFiles out;
};

// The output directory: --out DIR (made when missing), else a new one in
// $TMPDIR or /tmp.  False after a message.
bool MakeOutDir(const Call& call, OutFiles* out) {
    out->force = call.Has("--force");
    if (call.Has("--out")) {
        out->dir = call.Value("--out");
        struct stat st;
        if (::stat(out->dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return true;
        if (::mkdir(out->dir.c_str(), 0777) != 0) return Fail(out->dir, std::strerror(errno)), false;
        return true;
    }
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/kwz-demo-XXXXXX";
    if (!::mkdtemp(&pattern[0])) return Fail(pattern, std::strerror(errno)), false;
    out->dir = pattern;
    return true;
}

// The server's part once a client is connected: its hello, the parcels
// into the table, then every step on them, and the answer.
bool ServeClient(Server& server, const Options& o, bool printType, Results* r) {
    auto start = Clock::now();
    std::string definition;
    uint32_t count = 0;
    Table table;
    if (!server.WaitHello(&definition, &count)) return false;
    if (printType) {
        StepLine("transport", "a client connected; its hello announces " + Thousands(count) + " parcels",
                 MsSince(start));
        start = Clock::now();
    }
    if (!table.Build(definition)) return false;
    r->depots = DepotCount(count);
    if (printType) StepLine("type", TypeText(table.type) + ", from the client's definition text", MsSince(start));
    start = Clock::now();
    if (!server.Collect(table, count, r)) return false;
    char line[200];
    std::snprintf(line, sizeof line,
                  "%s parcels checked into a record array keyed by Id (unique) and Customer;Id (case ignored); "
                  "mean priority %.1f in the first tenth, %.1f in the last",
                  Thousands(count).c_str(), r->firstPriority, r->lastPriority);
    StepLine("collect", line, MsSince(start));
    if (!ServerSteps(table, o.formula, o.out, r)) return false;
    Answer answer;
    answer.records = KWARecCount(table.array);
    answer.tableBytes = int64_t(r->tableBytes);
    answer.containerBytes = int64_t(r->containerBytes);
    answer.hash = r->hash;
    return server.SendAnswer(answer);
}

bool ClientAnswer(Client& client) {
    const auto start = Clock::now();
    Answer a;
    if (!client.WaitAnswer(&a)) return false;
    StepLine("answer",
             "the server holds " + Thousands(uint64_t(a.records)) + " parcels; its container: " +
                 Thousands(uint64_t(a.containerBytes)) + " bytes, hash " + a.hash,
             MsSince(start));
    return true;
}

void Summary(const Results& r, const OutFiles& out, double totalMs) {
    std::printf("\nsummary\n");
    std::printf("  records   %s parcels of 6 fields + Cost; %zu customers, %s depots, %s links\n",
                Thousands(r.records).c_str(), r.customers.size(), Thousands(r.graphNodes).c_str(),
                Thousands(r.graphLinks).c_str());
    std::printf("  sizes     packed table %s bytes, container %s bytes, report %s bytes\n",
                Thousands(r.tableBytes).c_str(), Thousands(r.containerBytes).c_str(), Thousands(r.reportBytes).c_str());
    // The three longest steps.
    std::vector<Timing> steps = StepTimings();
    std::sort(steps.begin(), steps.end(), [](const Timing& a, const Timing& b) { return a.ms > b.ms; });
    std::string longest;
    for (size_t i = 0; i < steps.size() && i < 3; ++i)
        longest += (i ? ", " : "") + steps[i].step + " " + Duration(steps[i].ms);
    std::printf("  time      %s in all; longest steps: %s\n", Duration(totalMs).c_str(), longest.c_str());
    std::printf("  files     %s: report.xml parcels.ra2 parcels.ra2.lz2 depots.txt\n", out.dir.c_str());
    std::printf("\ntry next\n");
    std::printf("  kwz info %s\n", out.Path("parcels.ra2.lz2").c_str());
    std::printf("  kwz table --show %s --csv | head\n", out.Path("parcels.ra2").c_str());
    std::printf("  kwz graph %s --path %u %u\n", out.Path("depots.txt").c_str(), r.pathFrom, r.pathTo);
    std::printf("  kwz xml %s --get demo/path/@hops\n", out.Path("report.xml").c_str());
}

int RunLocal(const Options& o) {
    const auto start = Clock::now();
    Results r;
    bool ok = false;
    {
        Server server;
        Client client;
        uint32_t port = 0;
        if (server.Listen(0, &port) && client.Connect("127.0.0.1", port)) {
            StepLine("transport",
                     "server on 127.0.0.1:" + std::to_string(port) + " (a port the system chose), client connected",
                     MsSince(start));
            ok = client.MakeType() && client.Send(o.records) && ServeClient(server, o, false, &r) &&
                 ClientAnswer(client);
            client.Close();
            if (ok) server.Finish();
        }
    }
    const bool clean = StopTransport();
    if (!ok) return kExitFailure;
    if (!clean) return Fail("transport", "threads still finishing after 10 s");
    Summary(r, o.out, MsSince(start));
    std::printf("\ndemo finished\n");
    return kExitOk;
}

int RunServe(const Options& o, uint32_t port) {
    Results r;
    bool ok = false;
    {
        Server server;
        uint32_t bound = 0;
        if (server.Listen(port, &bound)) {
            std::printf("demo server listening on port %u (Ctrl-C stops)\n", bound);
            std::fflush(stdout);
            const auto start = Clock::now();
            ok = ServeClient(server, o, true, &r);
            if (ok) {
                server.Finish();
                Summary(r, o.out, MsSince(start));
            }
        }
    }
    const bool clean = StopTransport();
    if (!ok) return kExitFailure;
    if (!clean) return Fail("transport", "threads still finishing after 10 s");
    std::printf("\ndemo server finished\n");
    return kExitOk;
}

int RunConnect(const std::string& host, uint32_t port, uint32_t records) {
    bool ok = false;
    {
        const auto start = Clock::now();
        Client client;
        if (client.Connect(host, port)) {
            StepLine("transport", "connected to " + host + ":" + std::to_string(port), MsSince(start));
            ok = client.MakeType() && client.Send(records) && ClientAnswer(client);
        }
    }
    const bool clean = StopTransport();
    if (!ok) return kExitFailure;
    if (!clean) return Fail("transport", "threads still finishing after 10 s");
    std::printf("\ndemo client finished\n");
    return kExitOk;
}

}  // namespace

}  // namespace kwz::tool::demo

namespace {

using namespace kwz::tool;

int Demo(const Call& call) {
    const bool serve = call.Has("--serve"), connect = call.Has("--connect");
    if (serve && connect) UsageError("--serve", "does not go with --connect");
    if (connect) {
        for (const char* o : {"--formula", "--out", "--force"})
            if (call.Has(o)) UsageError(o, "belongs to the server's side, not --connect");
        if (call.Count() != 1) UsageError("--connect", "needs HOST and PORT");
    } else if (call.Count() != 0) {
        UsageError(call.Arg(0), "unexpected argument");
    }
    if (serve && call.Has("--records")) UsageError("--records", "is the client's to choose (--connect)");
    if (call.Has("--force") && !call.Has("--out")) UsageError("--force", "needs --out DIR");
    demo::Options o;
    o.records = uint32_t(call.Number("--records", 1, 1000000, 5000));
    o.formula = call.Value("--formula");
    if (call.Has("--formula") && o.formula.find_first_not_of(" \t") == std::string::npos)
        UsageError("--formula", "is empty");
    const auto servePort = uint32_t(call.Number("--serve", 0, 65535, 0));
    const auto connectPort = connect ? uint32_t(call.NumberArg(0, "PORT", 1, 65535)) : 0;

    if (!connect && (!demo::CheckFormula(o.formula) || !demo::MakeOutDir(call, &o.out))) return kExitFailure;
    demo::CatchInterrupt();
    if (!demo::StartTransport()) return Fail("transport", "cannot start");
    if (connect) return demo::RunConnect(call.Value("--connect"), connectPort, o.records);
    return serve ? demo::RunServe(o, servePort) : demo::RunLocal(o);
}

}  // namespace

KWZ_COMMAND(demo, {900, "general", "demo",
                   "[--records N] [--formula EXPR] [--out DIR [-f]]\n"
                   "--serve PORT [--formula EXPR] [--out DIR [-f]]\n"
                   "--connect HOST PORT [--records N]",
                   "run the end-to-end showcase, in one process or two", 0, 1,
                   {{"--records", nullptr, "N", "parcels the client sends, 1..1000000 (default 5000)"},
                    {"--formula", nullptr, "EXPR",
                     "the derived Cost as an expression of Id, Customer, From, To, Weight, Priority and dist(A, B)"},
                    {"--out", "-o", "DIR", "write report.xml and the data files into DIR (default: a new temporary "
                                           "directory)"},
                    kForceOption,
                    {"--serve", nullptr, "PORT", "be the server only, on PORT (0: any free port), for one client"},
                    {"--connect", nullptr, "HOST", "be the client only, sending to the server at HOST PORT"}},
                   "Without --serve or --connect both sides run in this process over a loopback port that the\n"
                   "system chooses.  The default Cost is the script\n"
                   "  cost(Id, Customer, From, To, Weight, Priority){\n"
                   "    Result = 2.5 + Weight * 0.4 + dist(From, To) * 0.8;\n"
                   "    if (Priority >= 8) { Result = Result * 1.5; } }\n"
                   "where dist is a host function (the depots' distance on their ring);\n"
                   "--formula \"Weight * 2\" replaces its body.  The parcels are the same on every run of\n"
                   "the same count, and so are the table, the container and its hash."}) {
    return Demo(call);
}
