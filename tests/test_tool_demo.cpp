// kwz demo as a user runs it: the whole showcase in one process on a small
// count, its command-line errors, and the same showcase split over two
// processes on a loopback port, which must give the same container.
#include <VomKwz.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tool/tool_process.h"

#ifndef KWZ_TOOL
#define KWZ_TOOL ""
#endif

namespace {

using kwztest::ReadFile;
using kwztest::RunTool;
using kwztest::ScratchDir;
using kwztest::ToolProcess;
using kwztest::ToolResult;
using Args = std::vector<std::string>;

const std::string kTool = KWZ_TOOL;

#define NEED_TOOL() \
    if (kTool.empty()) GTEST_SKIP() << "the kwz tool is not built (KWZ_BUILD_TOOLS=OFF)"

// The 32 characters after "hash " on the answer line, "" when absent.
std::string AnswerHash(const std::string& out) {
    const size_t line = out.find("answer ");
    const size_t at = line == std::string::npos ? line : out.find("hash ", line);
    return at == std::string::npos ? "" : out.substr(at + 5, 32);
}

struct Row {
    Args args;  // after "kwz demo"
    int rc;
    std::vector<std::string> outHas = {};
    std::vector<std::string> errHas = {};
};

void Check(const Row& row, const std::string& dir) {
    Args args{"demo"};
    for (const std::string& a : row.args) args.push_back(a == "DIR" ? dir : a);
    std::string shown = "kwz";
    for (const auto& a : args) shown += " " + a;
    SCOPED_TRACE(shown);
    const ToolResult r = RunTool(kTool, args, "", "", 30000);
    EXPECT_EQ(r.rc, row.rc) << "stdout:\n" << r.out << "stderr:\n" << r.err;
    for (const auto& text : row.outHas) EXPECT_NE(r.out.find(text), std::string::npos) << text << " in\n" << r.out;
    for (const auto& text : row.errHas) EXPECT_NE(r.err.find(text), std::string::npos) << text << " in\n" << r.err;
    if (row.rc != 0) {
        EXPECT_EQ(r.err.rfind("kwz demo: ", 0), 0u) << r.err;
    }
}

TEST(tool_Demo, OneProcessStepsFilesAndErrors) {
    NEED_TOOL();
    ScratchDir dir;
    const Row rows[] = {
        {{"--records", "300", "--out", "DIR"},
         0,
         {"transport server on 127.0.0.1:", "type      Parcel: Id:I4 Customer:CH16", "send      300 parcels",
          "collect   300 parcels checked", "derive    Cost of 300 records by the script", "lookup    Id 150: ",
          "pack      packed table", "compress  container", "hash      of the container: ",
          "graph     12 depots, ", "report    report.xml: ", "answer    the server holds 300 parcels",
          "\nsummary\n", "demo finished\n"}},
        // The files are there now: only -f writes over them.
        {{"--records", "300", "--out", "DIR"}, 1, {}, {"parcels.ra2: exists (-f writes over it)"}},
        {{"--records", "40", "--out", "DIR", "-f", "--formula", "Weight * 2 + dist(From, To)"},
         0,
         {"by the formula Weight * 2 + dist(From, To): "}},
        {{"--formula", "1+"}, 1, {}, {"kwz demo: --formula: syntax error", "at byte 2"}},
        {{"--records", "5", "--out", "DIR", "-f", "--formula", "\"text\""}, 1, {}, {"the result is not a number"}},
        {{"--records", "5", "--out", "DIR", "-f", "--formula", "Weight / (Id - Id)"}, 1, {}, {"division by zero"}},
        {{"--records", "5", "--out", "DIR", "-f", "--formula", "nosuch(Id)"}, 1, {}, {"an unknown function"}},
        {{"--records", "0"}, 2, {}, {"--records: \"0\" is not a number in 1..1000000", "usage: kwz demo"}},
        {{"--bogus"}, 2, {}, {"--bogus: unknown option"}},
        {{"extra"}, 2, {}, {"extra: unexpected argument"}},
        {{"-f"}, 2, {}, {"--force: needs --out DIR"}},
        {{"--formula", " "}, 2, {}, {"--formula: is empty"}},
        {{"--connect", "127.0.0.1"}, 2, {}, {"--connect: needs HOST and PORT"}},
        {{"--connect", "127.0.0.1", "70000"}, 2, {}, {"PORT: \"70000\" is not a number"}},
        {{"--connect", "127.0.0.1", "1", "--out", "DIR"}, 2, {}, {"--out: belongs to the server's side"}},
        {{"--serve", "0", "--records", "5"}, 2, {}, {"--records: is the client's to choose"}},
        {{"--serve", "0", "--connect", "127.0.0.1", "1"}, 2, {}, {"--serve: does not go with --connect"}},
        {{"--connect", "127.0.0.1", "1"}, 1, {}, {"127.0.0.1:1: cannot connect"}},
    };
    for (const Row& row : rows) Check(row, dir.path);

    // What the last successful row (40 records) wrote: the report parses
    // and holds that run's figures.
    const std::string report = ReadFile(dir / "report.xml");
    _tagXMLNode* doc = KWXmlNew(KWXML_DOCUMENT);
    int32_t at = -1;
    ASSERT_EQ(KWXmlSetXml(doc, report.c_str(), &at), 0) << report;
    _tagXMLNode* table = KWXmlFind(doc, "table");
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(std::string(KWXmlAttrGet(table, "hash")).size(), 32u);
    EXPECT_STREQ(KWXmlAttrGet(KWXmlFind(doc, "demo"), "records"), "40");
    _tagXMLNode* customers = KWXmlFind(doc, "customers");
    ASSERT_NE(customers, nullptr);
    EXPECT_EQ(std::to_string(KWXmlCount(customers)), KWXmlAttrGet(customers, "count"));
    KWXmlFree(doc);
    const std::string edges = ReadFile(dir / "depots.txt");
    EXPECT_EQ(edges.rfind("# depots linked", 0), 0u);
}

TEST(tool_Demo, ServeAndConnectGiveTheSameContainer) {
    NEED_TOOL();
    ScratchDir one, two;
    const ToolResult local = RunTool(kTool, {"demo", "--records", "200", "--out", one.path}, "", "", 30000);
    ASSERT_EQ(local.rc, 0) << local.err;
    const std::string hash = AnswerHash(local.out);
    ASSERT_EQ(hash.size(), 32u) << local.out;

    ToolProcess server(kTool, {"demo", "--serve", "0", "--out", two.path}, "", "");
    ASSERT_TRUE(server.WaitFor("(Ctrl-C stops)\n", 10000)) << server.Out();
    const std::string out = server.Out();
    const size_t at = out.find("listening on port ");
    ASSERT_NE(at, std::string::npos);
    const std::string port = std::to_string(std::atoi(out.c_str() + at + 18));
    const ToolResult client =
        RunTool(kTool, {"demo", "--connect", "127.0.0.1", port, "--records", "200"}, "", "", 30000);
    EXPECT_EQ(client.rc, 0) << client.err;
    EXPECT_NE(client.out.find("transport connected to 127.0.0.1:" + port), std::string::npos) << client.out;
    EXPECT_EQ(AnswerHash(client.out), hash) << client.out;
    const ToolResult served = server.Finish(0, 15000);
    EXPECT_EQ(served.rc, 0) << served.err;
    for (const char* text : {"a client connected; its hello announces 200 parcels", "from the client's definition text",
                             "collect   200 parcels", "demo server finished\n"})
        EXPECT_NE(served.out.find(text), std::string::npos) << text << " in\n" << served.out;
    EXPECT_NE(served.out.find(hash), std::string::npos) << served.out;
    // The same parcels make the same files on both sides.
    EXPECT_EQ(ReadFile(one / "parcels.ra2.lz2"), ReadFile(two / "parcels.ra2.lz2"));
}

}  // namespace
