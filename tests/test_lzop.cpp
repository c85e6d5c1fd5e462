// The "#LZ2" container: buffer and streaming writers and readers, the data
// helpers, record-array packing through containers.
#include <VomKwz.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kwz_test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint32_t kChunk = 64480;

// ------------------------------------------------------------ inputs

// Lines of text that LZO shrinks well; the same bytes on every run.
Bytes Text(size_t n) {
    Bytes out;
    out.reserve(n + 100);
    char line[128];
    for (unsigned i = 0; out.size() < n; ++i) {
        int len = std::snprintf(line, sizeof line,
                                "%05u the quick brown fox jumps over the lazy dog; record %u\n", i,
                                i * 7919 % 1000);
        out.insert(out.end(), line, line + len);
    }
    out.resize(n);
    out.shrink_to_fit();
    return out;
}

// Bytes that do not compress (xorshift32).
Bytes Random(size_t n, uint32_t seed) {
    Bytes out(n);
    uint32_t x = seed ? seed : 1;
    for (auto& b : out) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        b = uint8_t(x >> 24);
    }
    return out;
}

Bytes Concat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    a.shrink_to_fit();
    return a;
}

// n + floor(min(n, 64480) / 64) + floor(n / 64480) * 8 + 32, written out.
uint64_t ExpectedBound(uint64_t n) {
    uint64_t first = n < kChunk ? n : kChunk;
    return n + first / 64 + (n / kChunk) * 8 + 32;
}

// ------------------------------------------------------------ helpers

// The writers refuse a null input even for 0 bytes; an empty vector's data()
// may be null.
const void* Ptr(const Bytes& b) { return b.empty() ? "" : static_cast<const void*>(b.data()); }

Bytes Compress(const Bytes& in) {
    int32_t len = -1;
    void* block = nullptr;
    EXPECT_EQ(KWZDataCompress(int32_t(in.size()), Ptr(in), &len, &block), 0);
    if (!block) return {};
    Bytes out(static_cast<uint8_t*>(block), static_cast<uint8_t*>(block) + len);
    KWMemFree(block);
    return out;
}

// KWZDataDeCompress over an exact-size copy, so that a read past the end is
// a sanitizer report.
int32_t Decompress(const Bytes& container, Bytes* out) {
    Bytes exact(container);
    exact.shrink_to_fit();
    int32_t len = -1;
    void* block = reinterpret_cast<void*>(1);
    int32_t rc = KWZDataDeCompress(int32_t(exact.size()), exact.data(), &len, &block);
    out->clear();
    if (rc == 0) {
        out->assign(static_cast<uint8_t*>(block), static_cast<uint8_t*>(block) + len);
        KWMemFree(block);
    } else {
        EXPECT_EQ(block, nullptr);
    }
    return rc;
}

struct Chunk {
    uint32_t stored, length;
};

// Parses the chunk headers the test's own way (sscanf), for checks.
std::vector<Chunk> Chunks(const Bytes& c) {
    std::vector<Chunk> out;
    EXPECT_GE(c.size(), 12u);
    EXPECT_EQ(std::string(c.begin(), c.begin() + 4), "#LZ2");
    for (size_t pos = 4; pos + 8 <= c.size();) {
        std::string head(c.begin() + long(pos), c.begin() + long(pos) + 8);
        unsigned s = 0, l = 0;
        EXPECT_EQ(std::sscanf(head.c_str(), "%4X%4X", &s, &l), 2) << head;
        if (s == 0) {
            EXPECT_EQ(pos + 8, c.size()) << "terminator is not the last 8 bytes";
            return out;
        }
        out.push_back({s, l});
        pos += 8 + s;
    }
    ADD_FAILURE() << "no terminator";
    return out;
}

Bytes ReadFile(const std::string& name) {
    std::ifstream f(std::string(KWZ_TEST_DATA_DIR) + "/" + name, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

// ------------------------------------------------------------ streaming callbacks

// One context serves both callbacks of a call: the input, handed out in
// pieces whose sizes cycle through readPieces, and the output, taken in
// pieces of at most the next writePieces size.
struct Pipe {
    explicit Pipe(const Bytes* input, std::vector<int32_t> reads = {1 << 30},
                  std::vector<int32_t> writes = {1 << 30})
        : in(input), readPieces(std::move(reads)), writePieces(std::move(writes)) {}
    const Bytes* in;
    std::vector<int32_t> readPieces, writePieces;
    Bytes out;
    size_t pos = 0, readTurn = 0, writeTurn = 0;
};

int32_t ReadPieces(void* context, void* buffer, int32_t size) {
    auto* p = static_cast<Pipe*>(context);
    const int64_t piece = p->readPieces[p->readTurn++ % p->readPieces.size()];
    const int32_t n = int32_t(std::min<int64_t>({size, piece, int64_t(p->in->size() - p->pos)}));
    if (n > 0) std::memcpy(buffer, p->in->data() + p->pos, size_t(n));
    p->pos += size_t(n);
    return n;
}

int32_t WritePieces(void* context, const void* buffer, int32_t size) {
    auto* p = static_cast<Pipe*>(context);
    const int32_t n = std::min(size, p->writePieces[p->writeTurn++ % p->writePieces.size()]);
    const auto* b = static_cast<const uint8_t*>(buffer);
    p->out.insert(p->out.end(), b, b + n);
    return n;
}

bool StreamCompress(const Bytes& in, Bytes* out, std::vector<int32_t> readPieces = {1 << 30},
                    std::vector<int32_t> writePieces = {1 << 30}) {
    Pipe pipe(&in, readPieces, writePieces);
    bool ok = LZOPCompress(&pipe, ReadPieces, WritePieces);
    *out = pipe.out;
    return ok;
}

bool StreamDecompress(const Bytes& in, Bytes* out, std::vector<int32_t> readPieces = {1 << 30},
                      std::vector<int32_t> writePieces = {1 << 30}, size_t* consumed = nullptr) {
    Pipe pipe(&in, readPieces, writePieces);
    bool ok = LZOPDecompress(&pipe, ReadPieces, WritePieces, 0);
    *out = pipe.out;
    if (consumed) *consumed = pipe.pos;
    return ok;
}

// ============================================================ container layout

TEST(lzopContainer, EmptyInputIsTwelveBytes) {
    const Bytes expect = {'#', 'L', 'Z', '2', '0', '0', '0', '0', '0', '0', '0', '0'};
    EXPECT_EQ(Compress({}), expect);

    Bytes stream;
    ASSERT_TRUE(StreamCompress({}, &stream));
    EXPECT_EQ(stream, expect);

    Bytes back{1, 2, 3};
    EXPECT_EQ(Decompress(expect, &back), 0);
    EXPECT_TRUE(back.empty());
}

// Incompressible data is stored: headers "SSSS0000", size n + 8 per chunk + 12.
TEST(lzopContainer, IncompressibleInputIsStored) {
    for (size_t n : {1u, 100u, 64479u, 64480u, 64481u, 128960u, 128961u, 200000u}) {
        SCOPED_TRACE(n);
        const Bytes in = Random(n, uint32_t(n));
        const Bytes c = Compress(in);
        const size_t chunks = (n + kChunk - 1) / kChunk;
        EXPECT_EQ(c.size(), n + 8 * chunks + 12);
        auto parsed = Chunks(c);
        ASSERT_EQ(parsed.size(), chunks);
        for (size_t i = 0; i < chunks; ++i) {
            EXPECT_EQ(parsed[i].length, 0u);
            EXPECT_EQ(parsed[i].stored, i + 1 < chunks ? kChunk : n - (chunks - 1) * kChunk);
        }
        Bytes back;
        ASSERT_EQ(Decompress(c, &back), 0);
        EXPECT_EQ(back, in);
    }
}

// Chunk boundaries on compressible data: full chunks of 64480, the rest last.
TEST(lzopContainer, ChunkBoundaries) {
    const struct {
        size_t n;
        std::vector<uint32_t> lengths;
    } cases[] = {
        {64479, {64479}},
        {64480, {64480}},
        {64481, {64480, 1}},
        {2 * 64480 + 5000, {64480, 64480, 5000}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.n);
        const Bytes in = Text(c.n);
        const Bytes container = Compress(in);
        auto parsed = Chunks(container);
        ASSERT_EQ(parsed.size(), c.lengths.size());
        for (size_t i = 0; i < parsed.size(); ++i) {
            // A one-byte chunk cannot shrink and is stored.
            uint32_t len = parsed[i].length ? parsed[i].length : parsed[i].stored;
            EXPECT_EQ(len, c.lengths[i]);
            if (parsed[i].length) {
                EXPECT_LT(parsed[i].stored, parsed[i].length);
            }
        }
        EXPECT_LT(container.size(), c.n);
        Bytes back;
        ASSERT_EQ(Decompress(container, &back), 0);
        EXPECT_EQ(back, in);
    }
}

// The writer needs exactly the bound and refuses one byte less.
TEST(lzopContainer, OutputBoundIsExact) {
    for (size_t n : {0u, 1u, 63u, 64u, 64480u, 64481u, 200000u}) {
        for (bool random : {false, true}) {
            SCOPED_TRACE(std::to_string(n) + (random ? " random" : " text"));
            const Bytes in = random ? Random(n, 7) : Text(n);
            const uint32_t bound = uint32_t(ExpectedBound(n));
            Bytes out(bound);
            uint32_t size = bound - 1;
            kwztest::LogCapture log(3);
            EXPECT_FALSE(LZOPCompress_(Ptr(in), uint32_t(n), out.data(), &size, nullptr));
            EXPECT_EQ(size, bound - 1);
            EXPECT_TRUE(log.Has("Kwz.lzop.LZOPCompress_", "below the bound"));
            // Exactly the bound, in an exact-size buffer: nothing written past it.
            size = bound;
            ASSERT_TRUE(LZOPCompress_(Ptr(in), uint32_t(n), out.data(), &size, nullptr));
            EXPECT_LE(size, bound);
            out.resize(size);
            EXPECT_EQ(out, Compress(in));
        }
    }
}

// The bytes written are pinned by golden files (LZO1X-1 output is stable).
TEST(lzopContainer, GoldenFiles) {
    const struct {
        const char* file;
        Bytes input;
    } cases[] = {
        {"lzop_text.lz2", Text(150000)},
        {"lzop_stored.lz2", Random(100, 1)},
    };
    const bool write = std::getenv("KWZ_WRITE_GOLDEN") != nullptr;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        const Bytes container = Compress(c.input);
        if (write) {
            std::ofstream(std::string(KWZ_TEST_DATA_DIR) + "/" + c.file, std::ios::binary)
                .write(reinterpret_cast<const char*>(container.data()), long(container.size()));
        }
        EXPECT_EQ(container, ReadFile(c.file));
    }
    if (write) {  // the older container: "#LZP" and the same chunk stream
        Bytes old = Compress(Text(1000));
        std::memcpy(old.data(), "#LZP", 4);
        std::ofstream(std::string(KWZ_TEST_DATA_DIR) + "/lzop_old.lzp", std::ios::binary)
            .write(reinterpret_cast<const char*>(old.data()), long(old.size()));
    }
    for (const auto& c : cases) {
        Bytes back;
        ASSERT_EQ(Decompress(ReadFile(c.file), &back), 0);
        EXPECT_EQ(back, c.input);
    }
}

// ============================================================ buffer reader

// The size query and the fill walk the same chunks; the fill keeps to the
// room it is given in *outputLength.
TEST(lzopReader, SizeQueryAndFillAgree) {
    const Bytes in = Concat(Text(70000), Random(70000, 3));
    const Bytes c = Compress(in);
    uint32_t len = 0;
    ASSERT_TRUE(LZOPDecompress_(c.data(), nullptr, &len, 0));
    ASSERT_EQ(len, in.size());

    Bytes out(len);
    ASSERT_TRUE(LZOPDecompress_(c.data(), out.data(), &len, 0));
    EXPECT_EQ(len, in.size());
    EXPECT_EQ(out, in);

    Bytes small(in.size() - 1);
    uint32_t room = uint32_t(small.size());
    kwztest::LogCapture log(3);
    EXPECT_FALSE(LZOPDecompress_(c.data(), small.data(), &room, 0));
    EXPECT_TRUE(log.Has("Kwz.lzop.LZOPDecompress_", "cannot be decoded"));

    Bytes big(in.size() + 100);
    room = uint32_t(big.size());
    ASSERT_TRUE(LZOPDecompress_(c.data(), big.data(), &room, 0));
    EXPECT_EQ(room, in.size());
}

TEST(lzopReader, RefusesOtherMagics) {
    uint32_t len = 0;
    EXPECT_FALSE(LZOPDecompress_("#LZ300000000", nullptr, &len, 0));
    // The older magic is for the streaming reader only.
    EXPECT_FALSE(LZOPDecompress_("#LZP00000000", nullptr, &len, 0));
    EXPECT_TRUE(LZOPDecompress_("#LZ200000000", nullptr, &len, 0));
    EXPECT_EQ(len, 0u);
}

// Every way of breaking a container gives -4, frees everything and reads
// nothing past the given bytes.
TEST(lzopReader, CorruptContainersAreRefused) {
    const Bytes good = Compress(Concat(Text(70000), Random(300, 9)));
    ASSERT_EQ(Chunks(good).size(), 2u);
    const Chunk first = Chunks(good)[0];
    auto with = [&](size_t at, const char* text) {
        Bytes b = good;
        const size_t n = std::strlen(text);
        if (at + n <= b.size()) std::copy(text, text + n, b.begin() + long(at));
        return b;
    };
    char head[16];
    std::snprintf(head, sizeof head, "%04X%04X", first.stored, first.length + 1);
    const Bytes longer = with(4, head);
    std::snprintf(head, sizeof head, "%04X%04X", first.stored, first.length - 1);
    const Bytes shorter = with(4, head);
    std::snprintf(head, sizeof head, "%04X%04X", first.stored - 1, first.length);
    const Bytes cutChunk = with(4, head);
    std::snprintf(head, sizeof head, "%04X%04X", 0xFFFF, first.length);
    const Bytes overrun = with(4, head);

    const struct {
        const char* what;
        Bytes data;
    } cases[] = {
        {"non-hex header", with(4, "00G00000")},
        {"header ends in space", with(4, "FBE0 000")},
        {"declared length too long", longer},
        {"declared length too short", shorter},
        {"stored length one short", cutChunk},
        {"chunk runs past the end", overrun},
        {"garbage compressed bytes", with(12, "\xff\xff\xff\xff\xff\xff\xff\xff")},
        {"no terminator", Bytes(good.begin(), good.end() - 8)},
        {"broken terminator", with(good.size() - 8, "0000000G")},
    };
    for (const auto& c : cases) {
        Bytes out;
        EXPECT_EQ(Decompress(c.data, &out), -4) << c.what;
        Bytes streamed;
        EXPECT_FALSE(StreamDecompress(c.data, &streamed)) << c.what;
    }
}

TEST(lzopReader, EveryTruncationIsRefused) {
    const Bytes good = Compress(Concat(Random(64480, 5), Text(3000)));
    ASSERT_EQ(Chunks(good).size(), 2u);
    for (size_t n = 12; n < good.size(); n += (n < 40 || n > good.size() - 40) ? 1 : 97) {
        Bytes cut(good.begin(), good.begin() + long(n)), out;
        ASSERT_EQ(Decompress(cut, &out), -4) << n;
        ASSERT_FALSE(StreamDecompress(cut, &out)) << n;
    }
}

// ============================================================ streaming

// Whatever piece sizes the callbacks use, the streaming writer produces the
// buffer writer's bytes and the streaming reader gives the input back.
TEST(lzopStream, MatchesBufferOutputWithOddPieces) {
    const std::vector<std::vector<int32_t>> pieces = {
        {1 << 30}, {1}, {7, 4096, 1, 65535}, {64479}, {64481, 3}};
    const Bytes inputs[] = {Bytes{}, Bytes{42}, Text(64480), Concat(Text(100000), Random(80000, 4))};
    for (const auto& in : inputs) {
        const Bytes buffered = Compress(in);
        for (size_t r = 0; r < pieces.size(); ++r) {
            for (size_t w = 0; w < pieces.size(); ++w) {
                if (in.size() > 100000 && (pieces[r][0] == 1 || pieces[w][0] == 1)) continue;
                SCOPED_TRACE(std::to_string(in.size()) + " bytes, pieces " + std::to_string(r) +
                             "/" + std::to_string(w));
                Bytes streamed, back;
                ASSERT_TRUE(StreamCompress(in, &streamed, pieces[r], pieces[w]));
                EXPECT_EQ(streamed, buffered);
                ASSERT_TRUE(StreamDecompress(buffered, &back, pieces[r], pieces[w]));
                EXPECT_EQ(back, in);
            }
        }
    }
}

// The reader asks for nothing past the terminator, so data may follow.
TEST(lzopStream, StopsAtTheTerminator) {
    const Bytes in = Text(90000);
    const Bytes c = Compress(in);
    const Bytes followed = Concat(c, Bytes{'t', 'a', 'i', 'l'});
    Bytes back;
    size_t consumed = 0;
    ASSERT_TRUE(StreamDecompress(followed, &back, {1 << 30}, {1 << 30}, &consumed));
    EXPECT_EQ(back, in);
    EXPECT_EQ(consumed, c.size());
}

TEST(lzopStream, ReadsTheOlderMagic) {
    const Bytes old = ReadFile("lzop_old.lzp");
    ASSERT_GE(old.size(), 12u);
    EXPECT_EQ(std::string(old.begin(), old.begin() + 4), "#LZP");
    Bytes back;
    ASSERT_TRUE(StreamDecompress(old, &back, {5, 11}));
    EXPECT_EQ(back, Text(1000));
    // The same chunk stream as the current container of the same input.
    const Bytes current = Compress(back);
    EXPECT_EQ(Bytes(old.begin() + 4, old.end()), Bytes(current.begin() + 4, current.end()));
}

int32_t ThrowStd(void*, void*, int32_t) { throw std::runtime_error("disk gone"); }
int32_t ThrowInt(void*, void*, int32_t) { throw 42; }
int32_t WriteThrow(void*, const void*, int32_t) { throw std::runtime_error("pipe closed"); }
int32_t WriteNothing(void*, const void*, int32_t) { return 0; }
int32_t WriteFail(void*, const void*, int32_t) { return -1; }
int32_t ReadTooMuch(void*, void*, int32_t size) { return size + 1; }
int32_t ReadFail(void*, void*, int32_t) { return -1; }

// Exceptions from C++ callbacks stop at the library edge: false and a log
// line at level 2 with the function's tag.
TEST(lzopStream, CallbackExceptionsAreCaughtAndLogged) {
    const Bytes in = Text(1000);
    const Bytes c = Compress(in);
    const Bytes old = ReadFile("lzop_old.lzp");
    Pipe src(&in);
    Pipe csrc(&c);
    Pipe osrc(&old);
    {
        kwztest::LogCapture log(2);
        EXPECT_FALSE(LZOPCompress(&src, ThrowStd, WritePieces));
        EXPECT_TRUE(log.Has("Kwz.lzop.LZOPCompress", "disk gone"));
    }
    {
        kwztest::LogCapture log(2);
        EXPECT_FALSE(LZOPCompress(&src, ThrowInt, WritePieces));
        EXPECT_TRUE(log.Has("Kwz.lzop.LZOPCompress", "unknown"));
    }
    {
        kwztest::LogCapture log(2);
        EXPECT_FALSE(LZOPDecompress(&csrc, ReadPieces, WriteThrow, 0));
        EXPECT_TRUE(log.Has("Kwz.lzop.LZOPDecompress", "pipe closed"));
    }
    {
        kwztest::LogCapture log(2);
        EXPECT_FALSE(LZOPDecompress(&osrc, ReadPieces, WriteThrow, 0));
        EXPECT_TRUE(log.Has("Kwz.lzop.OldDecompress", "pipe closed"));
        for (const auto& line : log.Lines()) EXPECT_EQ(line.level, 2);
    }
}

TEST(lzopStream, MisbehavingCallbacksFail) {
    const Bytes in = Text(1000);
    const Bytes c = Compress(in);
    const struct {
        const char* what;
        bool compress;
        LZOPReadFn read;
        LZOPWriteFn write;
    } cases[] = {
        {"read returns more than asked", true, ReadTooMuch, WritePieces},
        {"read fails", true, ReadFail, WritePieces},
        {"write takes nothing", true, ReadPieces, WriteNothing},
        {"write fails", true, ReadPieces, WriteFail},
        {"read returns more than asked", false, ReadTooMuch, WritePieces},
        {"read fails", false, ReadFail, WritePieces},
        {"write takes nothing", false, ReadPieces, WriteNothing},
        {"write fails", false, ReadPieces, WriteFail},
        {"no read callback", true, nullptr, WritePieces},
        {"no write callback", false, ReadPieces, nullptr},
    };
    for (const auto& t : cases) {
        Pipe src(t.compress ? &in : &c);
        bool ok = t.compress ? LZOPCompress(&src, t.read, t.write)
                             : LZOPDecompress(&src, t.read, t.write, 0);
        EXPECT_FALSE(ok) << t.what << (t.compress ? " (compress)" : " (decompress)");
    }
}

// The writers keep per-thread scratch: threads compressing at once must not
// see each other's chunks.
TEST(lzopStream, ThreadsCompressAtOnce) {
    std::vector<Bytes> inputs, results(4);
    for (uint32_t t = 0; t < 4; ++t) inputs.push_back(Concat(Text(90000 + t * 1000), Random(70000, t + 1)));
    std::vector<std::thread> threads;
    for (size_t t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 5; ++round) {
                Bytes c, back;
                if (!StreamCompress(inputs[t], &c) || Decompress(c, &back) != 0) return;
                results[t] = back;
            }
        });
    }
    for (auto& th : threads) th.join();
    for (size_t t = 0; t < 4; ++t) EXPECT_EQ(results[t], inputs[t]) << "thread " << t;
}

// ============================================================ data helpers

TEST(lzopData, IsCompress) {
    const char container[] = "#LZ200000000";
    const struct {
        int32_t n;
        const void* data;
        int32_t rc;
        bool flag;
    } cases[] = {
        {12, container, 0, true},
        {11, container, 0, false},
        {12, "#LZ300000000", 0, false},
        {12, "#LZP00000000", 0, false},
        {0, container, -2, false},
        {-1, container, -2, false},
        {12, nullptr, -2, false},
    };
    for (const auto& c : cases) {
        bool flag = !c.flag;
        EXPECT_EQ(KWZDataIsCompress(c.n, c.data, &flag), c.rc) << c.n;
        EXPECT_EQ(flag, c.flag) << c.n;
    }
    EXPECT_EQ(KWZDataIsCompress(12, container, nullptr), -2);
}

// Data that is not a container is copied with a terminating 0 byte; the
// 11-byte head of a container is such data.
TEST(lzopData, NonContainersAreCopied) {
    const struct {
        int32_t n;
        const char* data;
    } cases[] = {
        {11, "#LZ20000000"},
        {0, ""},
        {5, "hello"},
        {14, "#LZ3 whatever!"},
        {12, "#LZP00000000"},
    };
    for (const auto& c : cases) {
        int32_t len = -1;
        void* block = nullptr;
        ASSERT_EQ(KWZDataDeCompress(c.n, c.data, &len, &block), 0) << c.data;
        EXPECT_EQ(len, c.n);
        EXPECT_EQ(std::memcmp(block, c.data, size_t(c.n)), 0);
        EXPECT_EQ(static_cast<uint8_t*>(block)[c.n], 0);
        KWMemFree(block);
    }
    void* block = nullptr;
    EXPECT_EQ(KWZDataDeCompress(5, "hello", nullptr, &block), 0);  // length is optional
    KWMemFree(block);
}

// Bad arguments give -2 and leave the outputs cleared.
TEST(lzopData, BadArguments) {
    int32_t len = 7;
    void* block = &len;
    EXPECT_EQ(KWZDataCompress(-1, "x", &len, &block), -2);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(KWZDataCompress(1, nullptr, &len, &block), -2);
    EXPECT_EQ(KWZDataDeCompress(1, nullptr, &len, &block), -2);
    EXPECT_EQ(KWZDataDeCompress(-1, "x", &len, &block), -2);
}

// The helper's length is a bound: a container whose chunks run past it is
// refused before anything is decoded, even when the bytes after it happen to
// complete the container.
TEST(lzopData, ContainerMustFitTheGivenLength) {
    const Bytes in = Text(5000);
    const Bytes c = Compress(in);
    int32_t len = 0;
    void* block = nullptr;
    EXPECT_EQ(KWZDataDeCompress(int32_t(c.size() - 1), c.data(), &len, &block), -4);
    EXPECT_EQ(block, nullptr);
    // Bytes after the terminator are ignored.
    Bytes back;
    ASSERT_EQ(Decompress(Concat(c, Bytes(10, 'z')), &back), 0);
    EXPECT_EQ(back, in);
}

// ============================================================ record arrays

KWArray* MakeArray(int records) {
    KWArray* array = nullptr;
    if (KWACreate(&array, nullptr) != 0 || !array) return nullptr;
    KWRFieldDef defs[2] = {};
    std::strcpy(defs[0].name, "A");
    defs[0].type = iFldType_Int32;
    std::strcpy(defs[1].name, "B");
    defs[1].type = iFldType_Char;
    defs[1].width = 10;
    KWAKeyDef key = {};
    std::strcpy(key.expression, "A");
    EXPECT_EQ(KWAFldAdd(array, 2, defs), 0);
    EXPECT_EQ(KWAKeyAdd(array, 1, &key), 0);
    for (int i = 0; i < records; ++i) {
        char text[16];
        std::snprintf(text, sizeof text, "r%d", i % 50);
        KWRVal cells[2] = {};
        cells[0].type = iFldType_Int32;
        int32_t a = records - i;
        std::memcpy(cells[0].value, &a, 4);
        cells[1].type = iFldType_Char;
        uint32_t tlen = uint32_t(std::strlen(text));
        const char* tp = text;
        std::memcpy(cells[1].value, &tlen, 4);
        std::memcpy(cells[1].value + 4, &tp, 8);
        EXPECT_NE(KWARecAdd(array, cells), nullptr);
    }
    return array;
}

void ExpectSameRecords(KWArray* array, int records) {
    ASSERT_EQ(KWARecCount(array), records);
    KWRField* a = KWRFldByName(KWAType(array), "A");
    ASSERT_NE(a, nullptr);
    for (int i = 0; i < records; ++i) {
        int32_t v = 0;
        ASSERT_EQ(KWRGetAsInt32(a, KWARec(array, 0, i), &v), 0u);
        EXPECT_EQ(v, i + 1);  // key 0 order
    }
}

TEST(lzopArray, PackCompressedAndBack) {
    const int kRecords = 3000;
    KWArray* array = MakeArray(kRecords);
    ASSERT_NE(array, nullptr);
    int32_t plainLen = 0, packedLen = 0;
    void *plain = nullptr, *packed = nullptr;
    ASSERT_EQ(KWZArrayPack(array, &plainLen, &plain, false), 0);
    EXPECT_EQ(std::memcmp(plain, "#RA2", 4), 0);
    ASSERT_EQ(KWZArrayPack(array, &packedLen, &packed, true), 0);
    bool flag = false;
    EXPECT_EQ(KWZDataIsCompress(packedLen, packed, &flag), 0);
    EXPECT_TRUE(flag);
    EXPECT_LT(packedLen, plainLen);

    for (bool forRead : {false, true}) {
        for (void* data : {plain, packed}) {
            KWArray* copy = nullptr;
            ASSERT_EQ(KWACreate(&copy, nullptr), 0);
            EXPECT_EQ(KWZArrayUnPack(copy, data, forRead), 0);
            ExpectSameRecords(copy, kRecords);
            KWADestroy(copy);
        }
    }
    KWMemFree(plain);
    KWMemFree(packed);
    KWADestroy(array);
}

TEST(lzopArray, Failures) {
    KWArray* array = MakeArray(10);
    ASSERT_NE(array, nullptr);
    void* block = nullptr;
    int32_t len = 0;
    EXPECT_EQ(KWZArrayPack(nullptr, &len, &block, true), -2);
    ASSERT_EQ(KWZArrayPack(array, &len, &block, true), 0);
    Bytes bad(static_cast<uint8_t*>(block), static_cast<uint8_t*>(block) + len);
    KWMemFree(block);
    bad[4] = 'G';  // first chunk header
    EXPECT_EQ(KWZArrayUnPack(array, bad.data(), false), -4);
    // A container of something that is not a packed table.
    const Bytes notTable = Compress(Text(500));
    EXPECT_EQ(KWZArrayUnPack(array, notTable.data(), true), -1);
    KWADestroy(array);
}

}  // namespace
