// The kwz tool as users meet it: help and the README's copy of it, usage
// errors (exit 2), failures (exit 1) in one message style, and each
// subcommand on a small input, the transport ones (and the demo split over
// two processes) on loopback ports that the system chooses.
#include <VomKwz.h>
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
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

void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string Shown(const Args& args) {
    std::string s = "kwz";
    for (const auto& a : args) s += " " + a;
    return s;
}

// One call of the tool and what it must show: the exit code, texts its
// standard output and its standard error contain, and (outIs) the whole
// standard output.  input feeds standard input; saveOut keeps standard
// output as a file for later rows.  An argument "DIR" stands for the
// directory the call runs in.
struct Row {
    Args args;
    int rc;
    std::vector<std::string> outHas = {};
    std::vector<std::string> errHas = {};
    std::string input = "";
    const char* outIs = nullptr;
    const char* saveOut = nullptr;
};

void Check(const Row& row, const std::string& cwd) {
    SCOPED_TRACE(Shown(row.args));
    Args args = row.args;
    for (std::string& a : args) a = a == "DIR" ? cwd : a;
    const ToolResult r = RunTool(kTool, args, cwd, row.input);
    EXPECT_EQ(r.rc, row.rc) << "stdout:\n" << r.out << "stderr:\n" << r.err;
    for (const auto& text : row.outHas) EXPECT_NE(r.out.find(text), std::string::npos) << text << " in\n" << r.out;
    for (const auto& text : row.errHas) EXPECT_NE(r.err.find(text), std::string::npos) << text << " in\n" << r.err;
    if (row.outIs) {
        EXPECT_EQ(r.out, row.outIs);
    }
    if (row.saveOut) WriteFile(cwd + "/" + row.saveOut, r.out);
    // A failing call's first message names the command: "kwz CMD: what:
    // reason" ("kwz: ..." when there is no command to name, as the row says).
    if (r.rc != 0 && !row.args.empty()) {
        const bool unnamed = !row.errHas.empty() && row.errHas[0].rfind("kwz: ", 0) == 0;
        EXPECT_EQ(r.err.rfind(unnamed ? "kwz: " : "kwz " + row.args[0] + ": ", 0), 0u) << r.err;
    }
}

// The commands `kwz help` lists (the first word of each indented line).
std::set<std::string> ListedCommands(const std::string& help) {
    std::set<std::string> names;
    std::istringstream in(help);
    for (std::string line; std::getline(in, line);) {
        if (line.size() < 3 || line.compare(0, 2, "  ") != 0 || !std::islower(static_cast<unsigned char>(line[2])))
            continue;
        names.insert(line.substr(2, line.find(' ', 2) - 2));
    }
    return names;
}

// ------------------------------------------------------------ help

TEST(tool_Help, ReadmeBlockIsTheHelpOutput) {
    NEED_TOOL();
    const std::string readme = ReadFile(KWZ_README);
    const std::string marker = "`kwz help` lists the subcommands:";
    const size_t at = readme.find(marker);
    ASSERT_NE(at, std::string::npos) << "README.md has no \"" << marker << "\"";
    const size_t open = readme.find("```\n", at);
    ASSERT_NE(open, std::string::npos);
    const size_t close = readme.find("\n```", open + 3);
    ASSERT_NE(close, std::string::npos);
    const std::string block = readme.substr(open + 4, close + 1 - (open + 4));
    const ToolResult r = RunTool(kTool, {"help"});
    ASSERT_EQ(r.rc, 0);
    EXPECT_EQ(block, r.out) << "copy the output of `kwz help` into README.md";
}

TEST(tool_Help, EveryCommandHasHelpAndRejectsUnknownOptions) {
    NEED_TOOL();
    const ToolResult help = RunTool(kTool, {"help"});
    ASSERT_EQ(help.rc, 0);
    EXPECT_EQ(RunTool(kTool, {"--help"}).out, help.out);
    EXPECT_EQ(RunTool(kTool, {"-h"}).out, help.out);
    const std::set<std::string> names = ListedCommands(help.out);
    for (const char* expected : {"type", "record", "table", "serve", "send", "netbench", "clock", "node", "node-send",
                                 "pack", "unpack", "hash", "info", "compile", "value", "graph", "xml", "demo", "help",
                                 "version"})
        EXPECT_EQ(names.count(expected), 1u) << expected;
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        const ToolResult one = RunTool(kTool, {"help", name});
        EXPECT_EQ(one.rc, 0);
        EXPECT_EQ(one.out.rfind("usage: kwz " + name, 0), 0u) << one.out;
        EXPECT_EQ(RunTool(kTool, {name, "--help"}).out, one.out);
        const ToolResult bad = RunTool(kTool, {name, "--no-such-option"});
        EXPECT_EQ(bad.rc, 2);
        EXPECT_EQ(bad.err.rfind("kwz " + name + ": --no-such-option: unknown option\nusage: kwz " + name, 0), 0u)
            << bad.err;
    }
}

TEST(tool_Help, TopLevelUsageErrors) {
    NEED_TOOL();
    const Row rows[] = {
        {{}, 2, {}, {"kwz: no command given", "usage: kwz COMMAND"}},
        {{"frobnicate"}, 2, {}, {"kwz: frobnicate: unknown command"}},
        {{"help", "frobnicate"}, 2, {}, {"kwz help: frobnicate: unknown command"}},
        {{"help", "pack", "unpack"}, 2, {}, {"kwz help: unpack: unexpected argument"}},
        {{"version"}, 0, {"libVomKwz_x64 "}},
    };
    for (const Row& row : rows) Check(row, "");
}

// ------------------------------------------------------------ usage errors and failures

constexpr const char* kDef = "T|2\\nA|I4\\nB|CM";
constexpr const char* kBadDef = "T|2\\nA|I4\\nB|Q4";

TEST(tool_Errors, UsageIsTwoFailureIsOne) {
    NEED_TOOL();
    ScratchDir dir;
    WriteFile(dir / "exists.ra2", "x");
    WriteFile(dir / "exists.csv", "id:I4\n1\n");
    const Row rows[] = {
        // bad numbers: an error, never a silent 0
        {{"type", kDef, "x"}, 2, {}, {"kwz type: ID: \"x\" is not a number in 0..4294967295"}},
        {{"table", "--show", "t.ra2", "--order", "1.5"}, 2, {}, {"kwz table: --order: \"1.5\" is not a number"}},
        {{"table", "--show", "t.ra2", "--order", ""}, 2, {}, {"--order: \"\" is not a number"}},
        {{"serve", "70000"}, 2, {}, {"kwz serve: PORT: \"70000\" is not a number in 0..65535"}},
        {{"node", "0x"}, 2, {}, {"kwz node: PORT:"}},
        {{"send", "127.0.0.1", "http", kDef}, 2, {}, {"kwz send: PORT:"}},
        {{"send", "127.0.0.1", "1", kDef, "--count", "0"}, 2, {}, {"kwz send: --count: \"0\" is not a number in 1..100000000"}},
        {{"netbench", "127.0.0.1", "1", "--seconds=2s"}, 2, {}, {"kwz netbench: --seconds:"}},
        {{"clock", "127.0.0.1", "1", "--count", "010x"}, 2, {}, {"kwz clock: --count:"}},
        {{"node-send", "*", "-5", "text"}, 2, {}, {"kwz node-send: -5: unknown option"}},
        // the shape of the command line
        {{"hash"}, 2, {}, {"kwz hash: arguments: 1 expected, none given"}},
        {{"info", "a", "b"}, 2, {}, {"kwz info: b: unexpected argument"}},
        {{"info", "-"}, 2, {}, {"kwz info: -: info needs a file it can seek in"}},
        {{"hash", "f", "--key"}, 2, {}, {"kwz hash: --key: needs a value (K)"}},
        {{"pack", "f", "--force=yes"}, 2, {}, {"kwz pack: --force: takes no value"}},
        {{"unpack", "f.bin"}, 2, {}, {"kwz unpack: f.bin: does not end in .lz2"}},
        {{"record", kDef, "A"}, 2, {}, {"kwz record: A: expected field=value"}},
        {{"record", "--decode", kDef, "-o", "x"}, 2, {}, {"kwz record: --decode: writes no file"}},
        {{"table", "--unique", "--key", "id", "x.csv"}, 2, {}, {"kwz table: --unique: applies to the --key before it"}},
        {{"table", "--show", "t.ra2", "--key", "id"}, 2, {}, {"kwz table: --key: does not go with --show"}},
        {{"table", "--order", "1", "x.csv"}, 2, {}, {"kwz table: --order: goes with --show only"}},
        // a refused definition is a failure, the same in every command
        {{"type", kBadDef}, 1, {}, {"kwz type: definition: line 3: unknown type code \"Q4\""}},
        {{"record", kBadDef}, 1, {}, {"kwz record: definition: line 3:"}},
        {{"record", "--decode", kBadDef, "exists.ra2"}, 1, {}, {"kwz record: definition: line 3:"}},
        {{"send", "127.0.0.1", "1", kBadDef}, 1, {}, {"kwz send: definition: line 3:"}},
        // refused values, missing and existing files
        {{"record", kDef, "A=x"}, 1, {}, {"kwz record: A: \"x\" is not an integer (I4)"}},
        {{"record", kDef, "C=1"}, 1, {}, {"kwz record: C: type T has no such field"}},
        {{"hash", "missing.bin"}, 1, {}, {"kwz hash: missing.bin: No such file or directory"}},
        {{"table", "exists.csv", "-o", "exists.ra2"}, 1, {}, {"kwz table: exists.ra2: exists (-f writes over it)"}},
        {{"record", kDef, "A=1", "-o", "exists.ra2"}, 1, {}, {"kwz record: exists.ra2: exists (-f writes over it)"}},
        {{"pack", "exists.csv", "-o", "exists.ra2"}, 1, {}, {"kwz pack: exists.ra2: exists (-f writes over it)"}},
        {{"table", "--show", "exists.csv"}, 1, {}, {"kwz table: exists.csv: not a valid packed table"}},
        {{"table", "--show", "exists.ra2"}, 1, {}, {"kwz table: exists.ra2: not a valid packed table"}},
    };
    for (const Row& row : rows) Check(row, dir.path);
    EXPECT_EQ(ReadFile(dir / "exists.ra2"), "x") << "an existing file was written over without -f";
}

// ------------------------------------------------------------ the file commands

constexpr const char* kCsv =
    "id:I4,name:CH12,price:F8,note:CM,raw:CB,ok:L1\n"
    "3,pear,1.25,\"a, \"\"quoted\"\"\nnote\",0x00ff,yes\n"
    "1,Apple,0.1,,\"\",0\n"
    "2,\\null,,x,\\0xzz,1\n";

// The same table as `kwz table --show --csv` writes it, in key 0 order.
constexpr const char* kCsvBack =
    "id:I4,name:CH12,price:F8,note:CM,raw:CB,ok:L1\n"
    "1,\"Apple\",0.1,,\"\",0\n"
    "2,\"null\",,\"x\",\"\\0xzz\",1\n"
    "3,\"pear\",1.25,\"a, \"\"quoted\"\"\nnote\",\"0x00ff\",1\n";

TEST(tool_Files, EachCommandOnASmallInput) {
    NEED_TOOL();
    ScratchDir dir;
    WriteFile(dir / "d.csv", kCsv);
    char hello[33], keyed[33];
    KWZDataHash(5, "hello", hello, nullptr);
    KWZDataHash(int32_t(std::string(kCsv).size()), kCsv, keyed, "k");
    const std::string def = "Order|3\\r\\nId|I8\\r\\nQty|I2\\r\\nNote|CM";
    const Row rows[] = {
        {{"type", def, "7"}, 0, {"type Order (id 7), 3 fields, data length", "Qty   I2"}},
        {{"type"}, 0, {"type T (id 0), 1 field,"}, {}, "T|1\r\nA|I4"},
        {{"type", "-", "0x10"}, 0, {"type T (id 16)"}, {}, "T|1\nA|I4"},
        {{"record", def, "Id=0x10", "Qty=70000", "Note=hi", "-o", "r.bin"}, 0,
         {"record image of type Order", "#0 Id I8 = 16", "#1 Qty I2 = 4464", "text of Note and its 0 byte"},
         {"kwz record: Qty: note: 70000 does not fit I2; stored 4464"}},
        {{"record", def, "Id=1", "-o", "r.bin", "-f"}, 0, {"#0 Id I8 = 1", "#2 Note CM [null] = null"}},
        {{"record", "--decode", def, "r.bin"}, 0, {"valid image of type Order", "I8    1"}},
        {{"record", "--decode", "U|1\\nA|I8", "r.bin"}, 1, {}, {"kwz record: r.bin: not a valid image of type U"}},
        {{"table", "--key", "id", "--unique", "--key", "name;price", "--nocase", "d.csv"}, 0,
         {"d.csv.ra2: 3 records, 2 keys"}},
        {{"table", "--show", "d.csv.ra2", "--order", "1", "--seek", "PEAR,1.25"}, 0,
         {"fields: id:I4 name:CH12 price:F8 note:CM raw:CB ok:L1", "1  name;price               nocase",
          "seek PEAR,1.25 in key 1: found at position 2", "> 2  3   pear"}},
        {{"table", "--show", "d.csv.ra2", "--csv"}, 0, {}, {}, "", kCsvBack, "back.csv"},
        {{"table", "back.csv", "--key", "id", "-o", "back.ra2"}, 0, {"back.ra2: 3 records, 1 keys"}},
        {{"table", "--show", "back.ra2", "--csv"}, 0, {}, {}, "", kCsvBack},
        {{"table", "-", "-o", "stdin.ra2"}, 0, {"stdin.ra2: 3 records, 0 keys"}, {}, kCsv},
        {{"pack", "d.csv"}, 0, {}, {"d.csv -> d.csv.lz2: "}},
        {{"unpack", "d.csv.lz2", "-o", "d2.csv"}, 0, {}, {"d.csv.lz2 -> d2.csv: "}},
        {{"unpack", "d.csv.lz2"}, 1, {}, {"kwz unpack: d.csv: exists (-f writes over it)"}},
        {{"pack", "-"}, 0, {"#LZ2"}, {}, "hello"},
        {{"hash", "-"}, 0, {std::string(hello) + "  -"}, {}, "hello"},
        {{"hash", "d2.csv", "--key", "k"}, 0, {std::string(keyed) + "  d2.csv"}},
        {{"info", "d.csv.lz2"}, 0, {"d.csv.lz2: \"#LZ2\" container", "check       ok"}},
        {{"info", "d.csv.ra2"}, 0, {"packed record table \"#RA2\"", "key 1     name;price"}},
        {{"info", "r.bin"}, 0, {"r.bin: record image, "}},
        {{"info", "d.csv"}, 0, {"d.csv: ", "bytes of unknown data"}},
    };
    for (const Row& row : rows) Check(row, dir.path);
    EXPECT_EQ(ReadFile(dir / "d2.csv"), kCsv);

    // A damaged container: info and unpack fail in the same style.
    std::string packed = ReadFile(dir / "d.csv.lz2");
    ASSERT_GT(packed.size(), 20u);
    packed.resize(packed.size() - 8);
    WriteFile(dir / "cut.lz2", packed);
    const Row damaged[] = {
        {{"info", "cut.lz2"}, 1, {"damaged"}, {"kwz info: cut.lz2: damaged or inconsistent"}},
        {{"unpack", "cut.lz2"}, 1, {}, {"kwz unpack: cut.lz2: not a container, or a damaged one"}},
    };
    for (const Row& row : damaged) Check(row, dir.path);
}

// The one field setter, as `kwz record` (and send, and table's CSV) use it.
TEST(tool_Values, TextToEachFieldCode) {
    NEED_TOOL();
    const std::string def = "V|6\\nB|L1\\nI|I8\\nF|F4\\nD|F8\\nC|CB\\nS|CH3";
    const Row rows[] = {
        {{"record", def, "B=on", "I=-0x10", "F=0.1", "D=1e300", "C=0x0aFF", "S=\\null"}, 0,
         {"#0 B L1 = 1", "#1 I I8 = -16", "#2 F F4 = 0.1", "#3 D F8 = 1e+300", "#4 C CB = \"\\x0a\\xff\"",
          "#5 S CH3 = \"nul\""},
         {"kwz record: S: note: the text of 4 bytes is cut to CH3"}},
        {{"record", def, "B=0", "I=+12", "C=\\0x41", "S=null"}, 0,
         {"#0 B L1 = 0", "#1 I I8 = 12", "#4 C CB = \"0x41\"", "#5 S CH3 [null] = null"}},
        {{"record", def, "B=maybe"}, 1, {}, {"kwz record: B: \"maybe\" is not true, false or an integer (L1)"}},
        {{"record", def, "I=99999999999999999999"}, 1, {}, {"kwz record: I: \"99999999999999999999\" is not an integer"}},
        {{"record", def, "I=1 "}, 1, {}, {"kwz record: I: \"1 \" is not an integer"}},
        {{"record", def, "F=1e"}, 1, {}, {"kwz record: F: \"1e\" is not a number (F4)"}},
        {{"record", def, "C=0xabc"}, 1, {}, {"kwz record: C: \"0xabc\" is not 0x and an even number of hex digits"}},
        {{"record", def, "=1"}, 2, {}, {"kwz record: =1: expected field=value"}},
    };
    for (const Row& row : rows) Check(row, "");
}

// ------------------------------------------------------------ calculator, graphs, documents

// f(a, b) with a var, a condition, an array of a string, a built-in and an
// external call: every part of the listing shows.
constexpr const char* kFunction =
    "f(a, b)\n{ var x;\n  x = a + b * 2; if (x > 3) result = [x, \"hi\\n\"]; else result = sin(x) + g(a); }\n";

// Arr[3]: Int 5, Str "a\"b\n", Arr[2]: Dbl 1.5, Empty.
const std::string kValueImage("\x04\x03\x00\x00\x00\x01\x05\x00\x00\x00\x00\x00\x00\x00\x03\x04\x00\x00\x00"
                              "a\"b\n\x04\x02\x00\x00\x00\x02\x00\x00\x00\x00\x00\x00\xf8\x3f\x00",
                              38);
constexpr const char* kValueTree =
    "  Arr[3]\n"
    "    [0] Int 5\n"
    "    [1] Str \"a\\\"b\\x0a\"\n"
    "    [2] Arr[2]\n"
    "      [0] Dbl 1.5\n"
    "      [1] Empty\n";

TEST(tool_Calc, CompileAndValues) {
    NEED_TOOL();
    ScratchDir dir;
    WriteFile(dir / "f.txt", kFunction);
    WriteFile(dir / "bad.txt", "f(a)\n{ result = a + ; }\n");
    WriteFile(dir / "v.bin", kValueImage);
    WriteFile(dir / "cut.bin", kValueImage.substr(0, 10));
    const std::string decoded = std::string("v.bin: value image, 38 bytes\n") + kValueTree;
    const Row rows[] = {
        {{"compile", "f.txt"}, 0,
         {"function f\n0000  nil\n", "stl     3, 0", "jf      -> 0066", "str     \"hi\\x0A\"", "call    0 (g/1)",
          "end\nstack need: 5\nparameters: 2\nexternals: g/1\nlocals: a b result x\n"}},
        {{"compile", "bad.txt"}, 1, {}, {"bad.txt:2:16: ", "(code -2)\n{ result = a + ; }\n               ^\n"}},
        {{"compile", "-"}, 1, {}, {"standard input:1:22: ", "(code -4)\n", "\n                     ^\n"}, "f(a){ result = (a + 1; }"},
        {{"compile"}, 2, {}, {"kwz compile: arguments: 1 expected, none given"}},
        {{"compile", "missing.txt"}, 1, {}, {"kwz compile: missing.txt: No such file or directory"}},
        {{"value", "--decode", "v.bin"}, 0, {}, {}, "", decoded.c_str()},
        {{"info", "v.bin"}, 0, {"v.bin: value image, 38 bytes\n", kValueTree}},
        {{"value", "--decode", "cut.bin"}, 1, {}, {"kwz value: cut.bin: not a value image"}},
        {{"info", "cut.bin"}, 0, {"cut.bin: 10 bytes of unknown data"}},
        {{"value", "v.bin"}, 2, {}, {"kwz value: --decode: needed"}},
    };
    for (const Row& row : rows) Check(row, dir.path);
}

// kwz calc: one value of each type, errors with their column, budgets; lines
// from standard input with variables, def, :funcs and :vars.
TEST(tool_Calc, CalcValuesAndLines) {
    NEED_TOOL();
    ScratchDir dir;
    const Row rows[] = {
        {{"calc", "2+3*4"}, 0, {}, {}, "", "14\n"},
        {{"calc", "7/2"}, 0, {}, {}, "", "3.5\n"},
        {{"calc", "dbl(2)"}, 0, {}, {}, "", "2.0\n"},
        {{"calc", "1/3"}, 0, {}, {}, "", "0.3333333333333333\n"},
        {{"calc", "\"ab\"+\"c\""}, 0, {}, {}, "", "abc\n"},
        {{"calc", "[1, 2.5, \"x\\\"y\", [null()], []]"}, 0, {}, {}, "", "[1, 2.5, \"x\\\"y\", [null], []]\n"},
        {{"calc", "null()"}, 0, {}, {}, "", "null\n"},
        {{"calc", "4611686018427387904*2"}, 0, {}, {}, "", "-9223372036854775808\n"},
        {{"calc", "1/0"}, 1, {}, {"kwz calc: error -43: division by zero\n"}, "", ""},
        {{"calc", "1+*2"}, 1, {}, {"kwz calc: error -2 at column 3: syntax error\n"}},
        {{"calc", "(1+2"}, 1, {}, {"kwz calc: error -4 at column 5: missing \")\"\n"}},
        {{"calc", "f(1)"}, 1, {}, {"kwz calc: error -45 at column 1: unknown function f\n"}},
        {{"calc", "--max-memory", "1000", "len(printf(\"%5000s\", [\"x\"]))"}, 1, {},
         {"kwz calc: error -51: memory budget exceeded (--max-memory 1000)\n"}},
        {{"calc", "len(printf(\"%5000s\", [\"x\"]))"}, 0, {}, {}, "", "5000\n"},
        {{"calc", "--max-steps", "x", "1"}, 2, {}, {"kwz calc: --max-steps: "}},
        {{"calc", "1", "2"}, 2},
        // Lines: variables persist, def adds a function, :funcs and :vars list.
        {{"calc"}, 0, {}, {}, "x = 5\nx*2\ndef sq(a) { Result = a*a; }\nsq(x)+1\n\ny = [x, \"s\"]\n:funcs\n:vars\n",
         "5\n10\n26\n[5, \"s\"]\nsq(a)\nx = 5\ny = [5, \"s\"]\n"},
        // A failing line does not end the input, but the exit status tells.
        {{"calc"}, 1, {}, {"kwz calc: error -43: division by zero\n"}, "1/0\n2\n", "2\n"},
        {{"calc"}, 1, {}, {"kwz calc: error -22 at column 1: sq takes 1 argument, not 2\n"},
         "def sq(a) { Result = a*a; }\nsq(1,2)\nsq(3)\n", "9\n"},
        // Replacing a function relinks its callers.
        {{"calc"}, 0, {}, {}, "def f(a) { Result = a+1; }\ndef g(a) { Result = f(a)*10; }\ng(1)\n"
                              "def f(a) { Result = a+2; }\ng(1)\n", "20\n30\n"},
        {{"calc", "--max-steps", "100000"}, 1, {},
         {"kwz calc: error -50: instruction budget exceeded (--max-steps 100000)\n"},
         "def spin() { while (1) {} }\nspin()\n:quit\n3\n", ""},
        {{"calc"}, 1, {}, {"kwz calc: error -2 at column 24: syntax error\n"}, "  def  f(a) { Result = ; }\n", ""},
        {{"calc"}, 1, {}, {"kwz calc: :nope: unknown command"}, ":nope\n", ""},
        // The object types are there: graphs shared by variables, IntS, the constants.
        {{"calc"}, 0, {}, {}, "g = CGraphNew()\nCGraphAddNode(g, 1) + CGraphAddNode(g, 2)\n"
                              "CGraphAddLink(g, 1, 2)\nh = g\nCGraphDelLink(h, 2, 1)\nget(g, \"Nodes\")\n"
                              "[get(g, 4), typename(g), IntS(5, 1) + 4294967297 == IntS(6, 1)]\n",
         "<Graph>\n2\n1\n<Graph>\n1\n[2, 1]\n[0, \"Graph\", 1]\n"},
        {{"calc", "[itGraph, itIntS, spGraph_NodeCount]"}, 0, {}, {}, "", "[23, 20, \"NodeCount\"]\n"},
        {{"calc"}, 0, {"Graph (tag 23): CGraphNew/0", "  ipGraph_GroupNodes       9\n  ipGraph_GroupHasNode",
                       "  smXml_AddLink            \"AddLink\"\n", "  itIntS                   20\n"},
         {}, ":help types\n"},
    };
    for (const Row& row : rows) Check(row, dir.path);
}

// kwz run: main with arguments, compile and link errors, failures at run
// time and an endless loop ended by the instruction budget.
TEST(tool_Calc, RunScripts) {
    NEED_TOOL();
    ScratchDir dir;
    WriteFile(dir / "sum.txt",
              "// the arguments as numbers, summed\n"
              "main(args) {\n"
              "    var i, s;\n"
              "    i = 0; s = 0;\n"
              "    while (i < len(args)) { s = s + int(args[i]); i = i + 1; }\n"
              "    Result = [len(args), s, twice(s), args[0]];\n"
              "}\n"
              "twice(x) { Result = x * 2; }\n");
    WriteFile(dir / "bad.txt", "main() {\n  Result = (1 + 2;\n}\n");
    WriteFile(dir / "loop.txt", "main() { var i; i = 0; while (1) { i = i + 1; } }\n");
    WriteFile(dir / "deep.txt", "main() { Result = down(0); }\ndown(n) { Result = down(n + 1); }\n");
    WriteFile(dir / "div.txt", "main() { Result = f(0); }\nf(x) { Result = 1 / x; }\n");
    WriteFile(dir / "nomain.txt", "f() { Result = 1; }\n");
    WriteFile(dir / "twice.txt", "main() { Result = 1; }\nmain() { Result = 2; }\n");
    WriteFile(dir / "undef.txt", "main() { Result = g(1); }\n");
    const Row rows[] = {
        {{"run", "sum.txt", "1", "2", "39"}, 0, {}, {}, "", "[3, 42, 84, \"1\"]\n"},
        {{"run", "-"}, 0, {}, {}, "main() { Result = \"plain text\"; }\n", "plain text\n"},
        {{"run", "-"}, 0, {}, {}, "main() { }\n", ""},
        {{"run", "-"}, 1, {}, {"kwz run: standard input:4:5: error -49 in main: index not an integer or out of range\n"},
         "main() {\n  var a;\n  a = [1, 2];\n    Result = a[5];\n}\n"},
        {{"run", "bad.txt"}, 1, {}, {"kwz run: bad.txt:2:18: missing \")\" (code -4)\n  Result = (1 + 2;\n"}},
        // The default budget ends the loop too, after about 2 s: too slow for a test.
        {{"run", "--max-steps", "100000", "loop.txt"}, 1, {},
         {"kwz run: error -50: instruction budget exceeded (--max-steps 100000)\n"}},
        {{"run", "deep.txt"}, 1, {}, {"kwz run: error -52: too many nested calls\n"}},
        {{"run", "div.txt"}, 1, {}, {"kwz run: div.txt:2:8: error -43 in f: division by zero\n"}},
        {{"run", "nomain.txt"}, 1, {}, {"kwz run: main: the script has no function main\n"}},
        {{"run", "twice.txt"}, 1, {}, {"kwz run: twice.txt:2:1: main: defined twice\n"}},
        {{"run", "undef.txt"}, 1, {}, {"kwz run: undef.txt: main: calls g, which the script does not define\n"}},
        {{"run", "nomain.txt", "x"}, 1},
        {{"run", "missing.txt"}, 1, {}, {"kwz run: missing.txt: No such file or directory"}},
        {{"run"}, 2},
    };
    for (const Row& row : rows) Check(row, dir.path);
}

// A square 1-2-3-4 with a tail 3-5, a pair 10-11 and a node 12 alone.
constexpr const char* kEdges = "# test graph\n1 2\n2 3\n1 4 # a comment\n4 3\n\n3 5\n10 11\n12\n";

TEST(tool_Graph, QueriesSaveLoadAndDot) {
    NEED_TOOL();
    ScratchDir dir;
    WriteFile(dir / "e.txt", kEdges);
    WriteFile(dir / "bad.txt", "1 2\n3 x\n");
    WriteFile(dir / "s.nodes", "junk");
    constexpr const char* kPath = "# shortest paths from 1 to 5: 5 nodes, 5 links\n1 2\n1 4\n2 3\n3 4\n3 5\n";
    const Row rows[] = {
        {{"graph", "e.txt"}, 0, {"nodes            8\n", "links            6\n", "connected parts  3\n"}},
        {{"graph", "e.txt", "--path", "1", "5"}, 0, {}, {}, "", kPath},
        {{"graph", "-", "--path", "1", "3"}, 0, {"2 nodes, 1 links\n1 3\n"}, {}, "1 2\n2 3\n1 3\n"},
        {{"graph", "e.txt", "--all-paths", "2", "4"}, 0, {"# paths from 2 to 4: 4 nodes, 4 links\n1 2\n1 4\n2 3\n3 4\n"}},
        {{"graph", "e.txt", "--border", "1", "--barrier", "2", "--border-set", "3,5"}, 0,
         {"# border reached from 1: 1 nodes, 0 links\n3\n"}},
        {{"graph", "e.txt", "--path", "1", "10"}, 0, {}, {}, "", "# shortest paths from 1 to 10: 0 nodes, 0 links\n"},
        {{"graph", "e.txt", "--components"}, 0, {}, {}, "", "# 3 connected parts\n5: 1 2 3 4 5\n2: 10 11\n1: 12\n"},
        {{"graph", "e.txt", "--save", "s"}, 1, {}, {"kwz graph: s.nodes: exists (-f writes over it)"}},
        {{"graph", "e.txt", "--save", "s", "-f"}, 0, {}, {"s.nodes: written", "s.groups: not needed"}},
        {{"graph", "--load", "s", "--path", "1", "5"}, 0, {}, {}, "", kPath},
        {{"graph", "e.txt", "--path", "1", "5", "--dot"}, 0, {"graph kwz {", "  n3 -- n5;\n}\n"}, {}, "", nullptr, "p.dot"},
        {{"graph", "e.txt", "--components", "--dot"}, 0, {"  n1 [label=\"1 2 3 4 5\"];"}},
        // failures and usage errors
        {{"graph", "bad.txt"}, 1, {}, {"kwz graph: bad.txt:2: \"x\" is not a node id"}},
        {{"graph", "-"}, 1, {}, {"kwz graph: standard input:1: expected \"a b\" or one node id, found 3 words"}, "1 2 3\n"},
        {{"graph", "e.txt", "--path", "1", "99"}, 1, {}, {"kwz graph: 99: no such node in the graph"}},
        {{"graph", "--load", "nothere", "--stats"}, 1, {}, {"kwz graph: nothere.nodes: No such file or directory"}},
        {{"graph", "--load", "e.txt"}, 1, {}, {"kwz graph: e.txt.nodes:"}},
        {{"graph", "e.txt", "--path", "1"}, 2, {}, {"kwz graph: arguments: 3 expected, 2 given"}},
        {{"graph", "e.txt", "--components", "--stats"}, 2, {}, {"kwz graph: graph: give one of"}},
        {{"graph", "e.txt", "--barrier", "1"}, 2, {}, {"kwz graph: --barrier: goes with --border only"}},
        {{"graph", "e.txt", "--border", "1,y"}, 2, {}, {"kwz graph: --border: \"y\" is not a node id"}},
        {{"graph", "e.txt", "--path", "1", "-3"}, 2, {}, {"kwz graph: -3: unknown option"}},
    };
    for (const Row& row : rows) Check(row, dir.path);
    // Damaged buffers are refused, not trusted.
    WriteFile(dir / "s.links", ReadFile(dir / "s.links").substr(0, 12));
    Check({{"graph", "--load", "s"}, 1, {}, {"kwz graph: s: the saved buffers are damaged"}}, dir.path);

    if (std::system("command -v dot >/dev/null 2>&1") != 0) GTEST_SKIP() << "Graphviz (dot) is not installed";
    ASSERT_EQ(std::system(("dot -Tsvg '" + dir / "p.dot" + "' -o '" + dir / "p.svg" + "'").c_str()), 0);
    const std::string svg = ReadFile(dir / "p.svg");
    EXPECT_NE(svg.find("<svg"), std::string::npos);
    EXPECT_NE(svg.find("shortest paths from 1 to 5"), std::string::npos);
}

constexpr const char* kXml =
    "<?xml version=\"1.0\"?>\n<!-- c -->\n<cfg name=\"x\">\n  <item id=\"1\">one</item>\n"
    "  <item id=\"2\">two &amp; more</item>\n  <sub><![CDATA[raw <b>]]></sub>\n</cfg>\n";

TEST(tool_Xml, ParsePrettyGetAndErrors) {
    NEED_TOOL();
    ScratchDir dir;
    WriteFile(dir / "a.xml", kXml);
    WriteFile(dir / "bad.xml", "<a>\n  <b>x</c>\n</a>\n");
    const Row rows[] = {
        {{"xml", "a.xml"}, 0, {}, {}, "", "a.xml: root <cfg>, 4 elements, 3 attributes\n"},
        {{"xml", "a.xml", "--pretty"}, 0, {}, {}, "",
         "<?xml version=\"1.0\"?>\n<!-- c -->\n<cfg name=\"x\">\n  <item id=\"1\">one</item>\n"
         "  <item id=\"2\">two &amp; more</item>\n  <sub>\n    <![CDATA[raw <b>]]>\n  </sub>\n</cfg>\n"},
        {{"xml", "a.xml", "--get", "cfg/item[2]"}, 0, {}, {}, "", "two & more\n"},
        {{"xml", "a.xml", "--get", "/cfg/item[2]/@id"}, 0, {}, {}, "", "2\n"},
        {{"xml", "a.xml", "--get", "CFG/@Name"}, 0, {}, {}, "", "x\n"},
        {{"xml", "a.xml", "--get", "*/item"}, 0, {}, {}, "", "one\n"},
        {{"xml", "a.xml", "--get", "cfg/item[3]"}, 1, {}, {"kwz xml: cfg/item[3]: no element item[3] under /cfg[1]"}},
        {{"xml", "a.xml", "--get", "cfg/@nope"}, 1, {}, {"kwz xml: cfg/@nope: /cfg[1] has no attribute \"nope\""}},
        {{"xml", "a.xml", "--get", "cfg/item[0]"}, 2, {}, {"kwz xml: cfg/item[0]: expected a path like a/b[2]/@attr"}},
        {{"xml", "a.xml", "--get", "@id/cfg"}, 2, {}, {"expected a path"}},
        {{"xml", "a.xml", "--get", "a", "--pretty"}, 2, {}, {"kwz xml: --get: does not go with --pretty"}},
        {{"xml", "bad.xml"}, 1, {}, {}, "", ""},
        {{"xml", "-"}, 1, {}, {"kwz xml: standard input:1:2: Element must be closed. (error 1)"}, "<"},
        {{"xml", "-"}, 1, {}, {"standard input:2:4: <b> attribute has error  (error 4)"}, "<a>\n<b x=\"1></b></a>"},
        {{"xml", "-"}, 1, {}, {"kwz xml: standard input: holds no element"}, "<!-- only a comment -->"},
        {{"xml", "missing.xml"}, 1, {}, {"kwz xml: missing.xml: No such file or directory"}},
    };
    for (const Row& row : rows) Check(row, dir.path);
    // The error names the line and column of the close tag at fault; --force
    // accepts it (and so meets the next mismatch).
    const ToolResult r = RunTool(kTool, {"xml", "bad.xml"}, dir.path);
    EXPECT_EQ(r.err, "kwz xml: bad.xml:2:7: '<b> ... </c>' is not wel-formed. (error 3)\n");
    EXPECT_NE(RunTool(kTool, {"xml", "bad.xml", "--force"}, dir.path).err.find("bad.xml:3:"), std::string::npos);
}

// ------------------------------------------------------------ transport

// The number after prefix in text ("listening on port 41234").
std::string PortAfter(const std::string& text, const std::string& prefix) {
    const size_t at = text.find(prefix);
    if (at == std::string::npos) return "";
    return std::to_string(std::atoi(text.c_str() + at + prefix.size()));
}

TEST(tool_Transport, ServeSendClockNetbench) {
    NEED_TOOL();
    ToolProcess serve(kTool, {"serve", "0"}, "", "");
    ASSERT_TRUE(serve.WaitFor("(Ctrl-C stops)", 10000)) << serve.Out();
    const std::string port = PortAfter(serve.Out(), "listening on port ");
    const Row rows[] = {
        {{"send", "127.0.0.1", port, kDef, "A=5", "B=hello", "--count", "2", "--priority", "3"}, 0,
         {"sent 2 records of 26 bytes"}},
        {{"clock", "127.0.0.1", port, "--count", "2"}, 0, {"peer clock ", "2 measurements: median "}},
    };
    for (const Row& row : rows) Check(row, "");
    EXPECT_TRUE(serve.WaitFor("F1(CM)=\"hello\"\n", 5000)) << serve.Out();
    const ToolResult served = serve.Finish(SIGINT, 15000);
    EXPECT_EQ(served.rc, 0) << served.err;
    EXPECT_NE(served.out.find("record type 1, 26 bytes: F0(I4)=5, F1(CM)=\"hello\""), std::string::npos) << served.out;
    EXPECT_NE(served.out.find("stopped\n"), std::string::npos) << served.out;

    ToolProcess sink(kTool, {"serve", "0", "--sink"}, "", "");
    ASSERT_TRUE(sink.WaitFor("(Ctrl-C stops)", 10000)) << sink.Out();
    Check({{"netbench", "127.0.0.1", PortAfter(sink.Out(), "listening on port "), "--seconds", "1", "--size", "100"}, 0,
           {"records of 100 bytes in "}},
          "");
    EXPECT_EQ(sink.Finish(SIGINT, 15000).rc, 0);

    Check({{"send", "127.0.0.1", port, kDef}, 1, {}, {"kwz send: 127.0.0.1:" + port + ": cannot connect"}}, "");
}

TEST(tool_Transport, NodeAndNodeSend) {
    NEED_TOOL();
    ToolProcess node(kTool, {"node", "0"}, "", "");
    ASSERT_TRUE(node.WaitFor("(Ctrl-C stops)", 10000)) << node.Out();
    const std::string port = PortAfter(node.Out(), "datagrams to port ");
    Check({{"node-send", "127.0.0.1", port, "hello node"}, 0, {"sent 10 bytes to 127.0.0.1:" + port}}, "");
    EXPECT_TRUE(node.WaitFor("10 bytes  \"hello node\"", 5000)) << node.Out();
    EXPECT_EQ(node.Finish(SIGINT, 15000).rc, 0);
}

// ------------------------------------------------------------ demo

// The 32 characters after "hash " on the answer line, "" when absent.
std::string AnswerHash(const std::string& out) {
    const size_t line = out.find("answer ");
    const size_t at = line == std::string::npos ? line : out.find("hash ", line);
    return at == std::string::npos ? "" : out.substr(at + 5, 32);
}

// The whole showcase in one process on a small count, then its command-line
// errors; the files the last successful row wrote.
TEST(tool_Demo, OneProcessStepsFilesAndErrors) {
    NEED_TOOL();
    ScratchDir dir;
    const Row rows[] = {
        {{"demo", "--records", "300", "--out", "DIR"},
         0,
         {"transport server on 127.0.0.1:", "type      Parcel: Id:I4 Customer:CH16", "send      300 parcels",
          "collect   300 parcels checked", "derive    Cost of 300 records by the script", "lookup    Id 150: ",
          "pack      packed table", "compress  container", "hash      of the container: ",
          "graph     12 depots, ", "report    report.xml: ", "answer    the server holds 300 parcels",
          "\nsummary\n", "demo finished\n"}},
        // The files are there now: only -f writes over them.
        {{"demo", "--records", "300", "--out", "DIR"}, 1, {}, {"parcels.ra2: exists (-f writes over it)"}},
        {{"demo", "--records", "40", "--out", "DIR", "-f", "--formula", "Weight * 2 + dist(From, To)"},
         0,
         {"by the formula Weight * 2 + dist(From, To): "}},
        {{"demo", "--formula", "1+"}, 1, {}, {"kwz demo: --formula: syntax error", "at byte 2"}},
        {{"demo", "--records", "5", "--out", "DIR", "-f", "--formula", "\"text\""}, 1, {}, {"the result is not a number"}},
        {{"demo", "--records", "5", "--out", "DIR", "-f", "--formula", "Weight / (Id - Id)"}, 1, {}, {"division by zero"}},
        {{"demo", "--records", "5", "--out", "DIR", "-f", "--formula", "nosuch(Id)"}, 1, {}, {"an unknown function"}},
        {{"demo", "--records", "0"}, 2, {}, {"--records: \"0\" is not a number in 1..1000000", "usage: kwz demo"}},
        {{"demo", "--bogus"}, 2, {}, {"--bogus: unknown option"}},
        {{"demo", "extra"}, 2, {}, {"extra: unexpected argument"}},
        {{"demo", "-f"}, 2, {}, {"--force: needs --out DIR"}},
        {{"demo", "--formula", " "}, 2, {}, {"--formula: is empty"}},
        {{"demo", "--connect", "127.0.0.1"}, 2, {}, {"--connect: needs HOST and PORT"}},
        {{"demo", "--connect", "127.0.0.1", "70000"}, 2, {}, {"PORT: \"70000\" is not a number"}},
        {{"demo", "--connect", "127.0.0.1", "1", "--out", "DIR"}, 2, {}, {"--out: belongs to the server's side"}},
        {{"demo", "--serve", "0", "--records", "5"}, 2, {}, {"--records: is the client's to choose"}},
        {{"demo", "--serve", "0", "--connect", "127.0.0.1", "1"}, 2, {}, {"--serve: does not go with --connect"}},
        {{"demo", "--connect", "127.0.0.1", "1"}, 1, {}, {"127.0.0.1:1: cannot connect"}},
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
    EXPECT_EQ(ReadFile(dir / "depots.txt").rfind("# depots linked", 0), 0u);
}

// The showcase split over a server and a client process gives the
// container of the one-process run, on both sides.
TEST(tool_Demo, ServeAndConnectGiveTheSameContainer) {
    NEED_TOOL();
    ScratchDir one, two;
    const ToolResult local = RunTool(kTool, {"demo", "--records", "200", "--out", one.path});
    ASSERT_EQ(local.rc, 0) << local.err;
    const std::string hash = AnswerHash(local.out);
    ASSERT_EQ(hash.size(), 32u) << local.out;

    ToolProcess server(kTool, {"demo", "--serve", "0", "--out", two.path}, "", "");
    ASSERT_TRUE(server.WaitFor("(Ctrl-C stops)\n", 10000)) << server.Out();
    const std::string port = PortAfter(server.Out(), "listening on port ");
    ASSERT_FALSE(port.empty()) << server.Out();
    const ToolResult client = RunTool(kTool, {"demo", "--connect", "127.0.0.1", port, "--records", "200"});
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
