// MD5, the library's text digest and data hash, RC4; the "#LZ2" container:
// buffer and streaming writers and readers, the data helpers, record-array
// packing through containers.
#include <VomKwz.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "guard_page.h"
#include "kwz_test_util.h"
#include "test_recarr_util.h"

namespace {

std::string Hex(const uint8_t* p, size_t n) {
    std::string s;
    char two[3];
    for (size_t i = 0; i < n; ++i) s.append(two, size_t(std::snprintf(two, sizeof two, "%02x", p[i])));
    return s;
}

// MD5 state over data, appended in pieces of the given size.
md5_state_t Fed(const std::string& data, size_t piece = 1 << 30) {
    md5_state_t st;
    md5_init(&st);
    for (size_t at = 0; at < data.size(); at += piece)
        md5_append(&st, reinterpret_cast<const uint8_t*>(data.data() + at), int32_t(std::min(piece, data.size() - at)));
    return st;
}

std::vector<uint8_t> Digest(const std::string& data, size_t piece = 1 << 30) {
    md5_state_t st = Fed(data, piece);
    std::vector<uint8_t> digest(16);
    md5_finish(&st, digest.data());
    return digest;
}

std::string Md5Hex(const std::string& data, size_t piece = 1 << 30) { return Hex(Digest(data, piece).data(), 16); }

// Character k of the text digest, computed independently of md5_finishA (by
// recursion, not in writing order): the digit of the high half of digest byte
// k/2 when k is even; when k is odd the digit of the low bits of character
// (k-1)/2.
char QuirkChar(const uint8_t digest[16], int k) {
    static const char digits[] = "0123456789ABCDEF";
    return k % 2 ? digits[uint8_t(QuirkChar(digest, (k - 1) / 2)) & 15] : digits[digest[k / 2] >> 4];
}

std::string QuirkText(const uint8_t digest[16]) {
    std::string out;
    for (int k = 0; k < 32; ++k) out += QuirkChar(digest, k);
    return out;
}

std::string Hash(const std::string& data, const char* key) {
    char out[40];
    std::memset(out, 'x', sizeof out);
    EXPECT_EQ(KWZDataHash(int32_t(data.size()), data.data(), out, key), 0);
    EXPECT_EQ(out[32], '\0');
    EXPECT_EQ(out[33], 'x') << "wrote past the 33 bytes";
    return std::string(out);
}

std::string ReferenceHash(const std::string& data, const std::string& key) {
    return QuirkText(Digest(data + key).data());
}

// ---------------------------------------------------------------- MD5

TEST(md5Digest, Rfc1321Vectors) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (const auto& [in, md5] : cases) EXPECT_EQ(Md5Hex(in), md5) << '"' << in << '"';
    EXPECT_EQ(Md5Hex(std::string(1000000, 'a')), "7707d6ae4e027c70eea2a935c2296f21");
}

// Lengths around the 55/56/64-byte padding edges, fed in pieces of every
// awkward size, must match the one-shot digest.
TEST(md5Digest, PiecewiseAppendMatchesOneShot) {
    std::string data;
    for (int i = 0; i < 300; ++i) data += char(i * 37 + 11);
    for (size_t len : {55u, 56u, 63u, 64u, 65u, 119u, 120u, 128u, 300u}) {
        for (size_t piece : {1u, 3u, 63u, 64u, 65u})
            EXPECT_EQ(Md5Hex(data.substr(0, len), piece), Md5Hex(data.substr(0, len))) << len << " in " << piece;
    }
}

// ------------------------------------------------- the library's text digest

// Against the independent reference over inputs of many lengths, some of
// whose digests start with a 0 byte (one in 256 does).  "abc" has the digest
// 90 01 50 98 ...: position 0 is '9', position 1 the digit of '9' & 15 = 9,
// position 3 that of out[1] ('9'), position 5 that of out[2] ('0'), and so on.
TEST(md5TextDigest, MatchesIndependentReference) {
    int zeroFirst = 0;
    for (int i = 0; i < 2000; ++i) {
        const std::string in = i == 0 ? "abc" : std::string(size_t(i % 70), 'x') + std::to_string(i);
        md5_state_t st = Fed(in);
        char text[32];
        md5_finishA(&st, text);
        const auto digest = Digest(in);
        ASSERT_EQ(std::string(text, 32), QuirkText(digest.data())) << '"' << in << '"';
        EXPECT_TRUE(i > 0 || std::string(text, 6) == "990950") << std::string(text, 32);
        zeroFirst += digest[0] == 0;
    }
    EXPECT_GT(zeroFirst, 0);
}

// ---------------------------------------------------------------- data hash

// The text digest of the data followed by the key; a null or empty key is the
// default key.  Stored hash values must never change: pinned.
TEST(cryptoHash, KeysAndGoldenValues) {
    const std::string data = "record array contents";
    EXPECT_EQ(Hash(data, nullptr), ReferenceHash(data, "47PX6K302B"));
    EXPECT_EQ(Hash(data, ""), Hash(data, nullptr));
    EXPECT_EQ(Hash(data, "other key"), ReferenceHash(data, "other key"));
    EXPECT_EQ(Hash("", nullptr), "44046064D640F6C41456C440664673A4");
    EXPECT_EQ(Hash("abc", nullptr), "44C4E334A573130401D58723A193A0B4");
    EXPECT_EQ(Hash("abc", "secret"), "33E3C56343B5F6238483F2754696F233");
}

TEST(cryptoHash, BadArguments) {
    char out[33];
    EXPECT_EQ(KWZDataHash(3, "abc", nullptr, nullptr), -2);
    EXPECT_EQ(KWZDataHash(-1, "abc", out, nullptr), -2);
    EXPECT_EQ(KWZDataHash(3, nullptr, out, nullptr), -2);
    EXPECT_EQ(KWZDataHash(0, nullptr, out, nullptr), 0);
    EXPECT_EQ(std::string(out), "44046064D640F6C41456C440664673A4");
}

// ---------------------------------------------------------------- RC4

std::vector<uint8_t> Keystream(const std::vector<uint8_t>& key, size_t n) {
    RC4Key st;
    RC4CodePrepare_Key(key.data(), int32_t(key.size()), &st);
    std::vector<uint8_t> out(n, 0);
    RC4Code(out.data(), int32_t(n), &st);
    return out;
}

// RFC 6229 keystream vectors (offsets 0, 16, 240 and 4096).
TEST(cryptoRc4, Rfc6229Keystreams) {
    const std::vector<uint8_t> key40 = {1, 2, 3, 4, 5};
    const std::vector<uint8_t> key128 = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    const std::tuple<const std::vector<uint8_t>*, size_t, const char*> cases[] = {
        {&key40, 0, "b2396305f03dc027ccc3524a0a1118a8"},
        {&key40, 16, "6982944f18fc82d589c403a47a0d0919"},
        {&key40, 240, "28cb1132c96ce286421dcaadb8b69eae"},
        {&key40, 4096, "ff25b58995996707e51fbdf08b34d875"},
        {&key128, 0, "9ac7cc9a609d1ef7b2932899cde41b97"},
        {&key128, 240, "065902e4b620f6cc36c8589f66432f2b"},
        {&key128, 4096, "a36a4c301ae8ac13610ccbc12256cacc"},
    };
    for (const auto& [key, offset, hex] : cases) {
        const auto ks = Keystream(*key, offset + 16);
        EXPECT_EQ(Hex(ks.data() + offset, 16), hex) << key->size() * 8 << "-bit key, offset " << offset;
    }
}

// The state carries on between calls: coding data in pieces is the XOR with
// the one keystream that coding zeros in one call gives, so coding twice
// with a fresh key each time restores the data.
TEST(cryptoRc4, PiecesAndRoundTrip) {
    const std::vector<uint8_t> key = {'k', 'w', 'z'}, ks = Keystream(key, 1000);
    std::vector<uint8_t> plain(1000), data(1000);
    for (size_t i = 0; i < plain.size(); ++i) data[i] = plain[i] = uint8_t(i * 7);
    RC4Key st;
    RC4CodePrepare_Key(key.data(), 3, &st);
    for (size_t at = 0, step = 1; at < data.size(); at += step, step = step * 2 + 1)
        RC4Code(data.data() + at, int32_t(std::min(step, data.size() - at)), &st);
    for (size_t i = 0; i < data.size(); ++i) ASSERT_EQ(data[i], plain[i] ^ ks[i]) << i;
}

// ============================================================ the "#LZ2" container

using Bytes = std::vector<uint8_t>;
constexpr uint32_t kChunk = 64480;

// Lines of text that LZO shrinks well; the same bytes on every run.
Bytes Text(size_t n) {
    std::string s;
    for (unsigned i = 0; s.size() < n; ++i)
        s += std::to_string(100000 + i).substr(1) + " the quick brown fox jumps over the lazy dog; record " +
             std::to_string(i * 7919 % 1000) + "\n";
    return Bytes(s.begin(), s.begin() + long(n));
}

// Bytes that do not compress (xorshift32; x is not 0 unless n is).
Bytes Random(size_t n, uint32_t x) {
    Bytes out(n);
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

Bytes Golden(const char* name) {
    std::ifstream f(std::string(KWZ_TEST_DATA_DIR) + "/" + name, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

// The writers refuse a null input even for 0 bytes; an empty vector's data()
// may be null.
const void* Ptr(const Bytes& b) { return b.empty() ? "" : static_cast<const void*>(b.data()); }

// Copies a block the library allocated and frees it.
Bytes Take(void* block, int32_t len) {
    Bytes out(static_cast<uint8_t*>(block), static_cast<uint8_t*>(block) + (block ? len : 0));
    KWMemFree(block);
    return out;
}

Bytes Compress(const Bytes& in) {
    int32_t len = -1;
    void* block = nullptr;
    EXPECT_EQ(KWZDataCompress(int32_t(in.size()), Ptr(in), &len, &block), 0);
    return Take(block, len);
}

// KWZDataDeCompress over a copy whose last byte is the last readable one, so
// that a read past the given length faults in every build.  The call must
// return `want`; its output.
Bytes Decompress(const Bytes& container, int32_t want = 0) {
    const kwztest::GuardedBytes exact(container);
    int32_t len = -1;
    void* block = reinterpret_cast<void*>(1);
    const int32_t rc = KWZDataDeCompress(int32_t(exact.size()), exact.data(), &len, &block);
    EXPECT_EQ(rc, want);
    EXPECT_TRUE(rc == 0 || block == nullptr) << "failure left a block";
    return rc == 0 ? Take(block, len) : Bytes();
}

struct Chunk {
    uint32_t stored, length;
};

// Parses the chunk headers the test's own way (sscanf), for checks.
std::vector<Chunk> Chunks(const Bytes& c) {
    std::vector<Chunk> out;
    EXPECT_EQ(std::string(c.begin(), c.begin() + long(std::min<size_t>(4, c.size()))), "#LZ2");
    for (size_t pos = 4; pos + 8 <= c.size(); pos += 8 + out.back().stored) {
        std::string head(c.begin() + long(pos), c.begin() + long(pos) + 8);
        unsigned s = 0, l = 0;
        EXPECT_EQ(std::sscanf(head.c_str(), "%4X%4X", &s, &l), 2) << head;
        if (s == 0) {
            EXPECT_EQ(pos + 8, c.size()) << "terminator is not the last 8 bytes";
            return out;
        }
        out.push_back({s, l});
    }
    ADD_FAILURE() << "no terminator";
    return out;
}

// One context serves both callbacks of a streaming call: the input, handed
// out in pieces whose sizes cycle through `reads`, and the output, taken in
// pieces of at most the next `writes` size.
struct Pipe {
    const Bytes* in;
    std::vector<int32_t> reads = {1 << 30}, writes = {1 << 30};
    Bytes out = {};
    size_t pos = 0, readTurn = 0, writeTurn = 0;
};

int32_t ReadPieces(void* context, void* buffer, int32_t size) {
    auto* p = static_cast<Pipe*>(context);
    const int64_t piece = p->reads[p->readTurn++ % p->reads.size()];
    const int32_t n = int32_t(std::min<int64_t>({size, piece, int64_t(p->in->size() - p->pos)}));
    if (n > 0) std::memcpy(buffer, p->in->data() + p->pos, size_t(n));
    p->pos += size_t(n);
    return n;
}

int32_t WritePieces(void* context, const void* buffer, int32_t size) {
    auto* p = static_cast<Pipe*>(context);
    const int32_t n = std::min(size, p->writes[p->writeTurn++ % p->writes.size()]);
    const auto* b = static_cast<const uint8_t*>(buffer);
    p->out.insert(p->out.end(), b, b + n);
    return n;
}

// The streaming writer or reader over `in`, which must return `ok`; its output.
Bytes Stream(bool compress, const Bytes& in, bool ok = true, std::vector<int32_t> reads = {1 << 30},
             std::vector<int32_t> writes = {1 << 30}) {
    Pipe pipe{&in, std::move(reads), std::move(writes)};
    EXPECT_EQ(ok, compress ? LZOPCompress(&pipe, ReadPieces, WritePieces)
                           : LZOPDecompress(&pipe, ReadPieces, WritePieces, 0));
    return pipe.out;
}

// ============================================================ container layout

// Full chunks of 64480 bytes, the rest last.  A chunk that does not shrink is
// stored ("SSSS0000"), so incompressible data costs n + 8 per chunk + 12.  The
// writer needs exactly n + floor(min(n, 64480) / 64) + floor(n / 64480) * 8 + 32
// bytes of room and refuses one byte less.
TEST(lzopContainer, ChunksStoredChunksAndBound) {
    for (size_t n : {0u, 1u, 63u, 64u, 64479u, 64480u, 64481u, 128960u, 128961u, 200000u}) {
        for (bool random : {false, true}) {
            SCOPED_TRACE(std::to_string(n) + (random ? " random" : " text"));
            const Bytes in = random ? Random(n, uint32_t(n)) : Text(n);
            const uint32_t bound = uint32_t(n + std::min<size_t>(n, kChunk) / 64 + n / kChunk * 8 + 32);
            Bytes c(bound);
            uint32_t size = bound - 1;
            kwztest::LogCapture log(3);
            EXPECT_FALSE(LZOPCompress_(Ptr(in), uint32_t(n), c.data(), &size, nullptr));
            EXPECT_EQ(size, bound - 1);
            EXPECT_TRUE(log.Has("Kwz.lzop.LZOPCompress_", "below the bound"));
            // Exactly the bound, in an exact-size buffer: nothing written past it.
            size = bound;
            ASSERT_TRUE(LZOPCompress_(Ptr(in), uint32_t(n), c.data(), &size, nullptr));
            ASSERT_LE(size, bound);
            c.resize(size);
            EXPECT_EQ(c, Compress(in));

            const auto chunks = Chunks(c);
            ASSERT_EQ(chunks.size(), (n + kChunk - 1) / kChunk);
            for (size_t i = 0; i < chunks.size(); ++i) {
                const uint32_t raw = chunks[i].length ? chunks[i].length : chunks[i].stored;
                EXPECT_EQ(raw, std::min<size_t>(kChunk, n - i * kChunk)) << "chunk " << i;
                EXPECT_TRUE(chunks[i].length == 0 || chunks[i].stored < chunks[i].length);
            }
            // Stored data costs its headers (with the checks above: every chunk
            // of random data is stored); text shrinks once there is enough of it.
            EXPECT_TRUE(random ? c.size() == n + 8 * chunks.size() + 12 : c.size() < n || n < kChunk / 2);
            EXPECT_EQ(Decompress(c), in);
        }
    }
}

// The bytes written are pinned by golden files (LZO1X-1 output is stable),
// which the streaming reader decodes in odd pieces.  The older "#LZP"
// container carries the same chunk stream; to the data helper it is not a
// container at all, so it comes back as it is.
TEST(lzopContainer, GoldenFiles) {
    const std::pair<const char*, Bytes> cases[] = {
        {"lzop_text.lz2", Text(150000)}, {"lzop_stored.lz2", Random(100, 1)}, {"lzop_old.lzp", Text(1000)}};
    for (const auto& [file, input] : cases) {
        SCOPED_TRACE(file);
        const bool old = std::strstr(file, ".lzp") != nullptr;
        const Bytes golden = Golden(file);
        Bytes container = Compress(input);
        if (old) std::memcpy(container.data(), "#LZP", 4);
        EXPECT_EQ(container, golden);
        EXPECT_EQ(Decompress(golden), old ? golden : input);
        EXPECT_EQ(Stream(false, golden, true, {5, 11}), input);
    }
}

// ============================================================ readers

// The size query and the fill walk the same chunks; the fill keeps to the
// room it is given in *outputLength.  Only "#LZ2" is taken.
TEST(lzopReader, SizeQueryFillAndMagic) {
    const Bytes in = Concat(Text(70000), Random(70000, 3)), c = Compress(in);
    uint32_t len = 0;
    ASSERT_TRUE(LZOPDecompress_(c.data(), nullptr, &len, 0));
    ASSERT_EQ(len, in.size());

    Bytes out(len);
    ASSERT_TRUE(LZOPDecompress_(c.data(), out.data(), &len, 0));
    EXPECT_EQ(out, in);

    Bytes small(in.size() - 1);
    uint32_t room = uint32_t(small.size());
    kwztest::LogCapture log(3);
    EXPECT_FALSE(LZOPDecompress_(c.data(), small.data(), &room, 0));
    EXPECT_TRUE(log.Has("Kwz.lzop.LZOPDecompress_", "cannot be decoded"));

    // With more room than needed, *outputLength becomes the bytes written.
    Bytes big(in.size() + 100);
    room = uint32_t(big.size());
    ASSERT_TRUE(LZOPDecompress_(c.data(), big.data(), &room, 0));
    EXPECT_EQ(room, in.size());

    // Other magics are refused; the older one is for the streaming reader only.
    EXPECT_FALSE(LZOPDecompress_("#LZ300000000", nullptr, &len, 0));
    EXPECT_FALSE(LZOPDecompress_("#LZP00000000", nullptr, &len, 0));
    EXPECT_TRUE(LZOPDecompress_("#LZ200000000", nullptr, &len, 0));
    EXPECT_EQ(len, 0u);
}

// Every way of breaking or cutting a container gives -4, frees everything and
// reads nothing past the given bytes; the streaming reader refuses it too.
TEST(lzopReader, CorruptAndCutContainersAreRefused) {
    const Bytes good = Compress(Concat(Text(70000), Random(300, 9)));
    ASSERT_EQ(Chunks(good).size(), 2u);
    const Chunk first = Chunks(good)[0];
    auto with = [&](size_t at, const char* text) {
        Bytes b = good;
        std::copy(text, text + std::strlen(text), b.begin() + long(at));
        return b;
    };
    auto head = [&](unsigned stored, unsigned length) {
        char h[16];
        std::snprintf(h, sizeof h, "%04X%04X", stored, length);
        return with(4, h);
    };
    const std::pair<const char*, Bytes> cases[] = {
        {"non-hex header", with(4, "00G00000")},
        {"header ends in space", with(4, "FBE0 000")},
        {"declared length too long", head(first.stored, first.length + 1)},
        {"declared length too short", head(first.stored, first.length - 1)},
        {"stored length one short", head(first.stored - 1, first.length)},
        {"chunk runs past the end", head(0xFFFF, first.length)},
        {"garbage compressed bytes", with(12, "\xff\xff\xff\xff\xff\xff\xff\xff")},
        {"broken terminator", with(good.size() - 8, "0000000G")},
    };
    for (const auto& [what, data] : cases) {
        SCOPED_TRACE(what);
        Decompress(data, -4);
        Stream(false, data, false);
    }
    for (size_t n = 12; n < good.size(); n += (n < 40 || n > good.size() - 40) ? 1 : 97) {
        SCOPED_TRACE("cut at " + std::to_string(n));
        const Bytes cut(good.begin(), good.begin() + long(n));
        Decompress(cut, -4);
        Stream(false, cut, false);
    }
}

// The readers stop at the terminator, so data may follow it.  (The helper's
// length as a bound: every Decompress above ends at the edge of a page.)
TEST(lzopReader, DataMayFollowTheTerminator) {
    const Bytes in = Text(90000), c = Compress(in), followed = Concat(c, Bytes(10, 'z'));
    Pipe pipe{&followed};
    ASSERT_TRUE(LZOPDecompress(&pipe, ReadPieces, WritePieces, 0));
    EXPECT_EQ(pipe.out, in);
    EXPECT_EQ(pipe.pos, c.size());
    EXPECT_EQ(Decompress(followed), in);
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
                EXPECT_EQ(Stream(true, in, true, pieces[r], pieces[w]), buffered);
                EXPECT_EQ(Stream(false, buffered, true, pieces[r], pieces[w]), in);
            }
        }
    }
}

int32_t ThrowStd(void*, void*, int32_t) { throw std::runtime_error("disk gone"); }
int32_t ThrowInt(void*, void*, int32_t) { throw 42; }
int32_t WriteThrow(void*, const void*, int32_t) { throw std::runtime_error("pipe closed"); }
int32_t WriteNothing(void*, const void*, int32_t) { return 0; }
int32_t WriteFail(void*, const void*, int32_t) { return -1; }
int32_t ReadTooMuch(void*, void*, int32_t size) { return size + 1; }
int32_t ReadFail(void*, void*, int32_t) { return -1; }

// Callbacks that are null, fail, take nothing or hand out too much make the
// call fail.  Exceptions from C++ callbacks stop at the library edge: false
// and a log line at level 2 with the function's tag.
TEST(lzopStream, BadCallbacksFail) {
    const Bytes in = Text(1000), c = Compress(in), old = Golden("lzop_old.lzp");
    auto run = [&](const Bytes* input, LZOPReadFn read, LZOPWriteFn write) {
        Pipe pipe{input};  // the plain input is compressed, containers decompressed
        return input == &in ? LZOPCompress(&pipe, read, write) : LZOPDecompress(&pipe, read, write, 0);
    };
    const std::pair<LZOPReadFn, LZOPWriteFn> bad[] = {{ReadTooMuch, WritePieces}, {ReadFail, WritePieces},
                                                      {nullptr, WritePieces},     {ReadPieces, WriteNothing},
                                                      {ReadPieces, WriteFail},    {ReadPieces, nullptr}};
    for (const Bytes* input : {&in, &c}) {
        for (size_t i = 0; i < std::size(bad); ++i)
            EXPECT_FALSE(run(input, bad[i].first, bad[i].second)) << (input == &in ? "compress " : "decompress ") << i;
    }
    const std::tuple<const Bytes*, LZOPReadFn, LZOPWriteFn, const char*, const char*> throwing[] = {
        {&in, ThrowStd, WritePieces, "Kwz.lzop.LZOPCompress", "disk gone"},
        {&in, ThrowInt, WritePieces, "Kwz.lzop.LZOPCompress", "unknown"},
        {&c, ReadPieces, WriteThrow, "Kwz.lzop.LZOPDecompress", "pipe closed"},
        {&old, ReadPieces, WriteThrow, "Kwz.lzop.OldDecompress", "pipe closed"},
    };
    for (const auto& [input, read, write, tag, text] : throwing) {
        kwztest::LogCapture log(2);
        EXPECT_FALSE(run(input, read, write)) << tag;
        EXPECT_TRUE(log.Has(tag, text)) << text;
        for (const auto& line : log.Lines()) EXPECT_EQ(line.level, 2) << tag;
    }
}

// The writers keep per-thread scratch: threads compressing at once must not
// see each other's chunks, in any round.
TEST(lzopStream, ThreadsCompressAtOnce) {
    std::vector<Bytes> inputs;
    for (uint32_t t = 0; t < 4; ++t) inputs.push_back(Concat(Text(90000 + t * 1000), Random(70000, t + 1)));
    std::vector<std::thread> threads;
    for (size_t t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 5; ++round)
                EXPECT_EQ(Decompress(Stream(true, inputs[t])), inputs[t]) << "thread " << t << " round " << round;
        });
    }
    for (auto& th : threads) th.join();
}

// ============================================================ data helpers

// The bytes end where readable memory ends: the smallest container (magic
// and terminator) is one at 12 bytes and nothing at 11.
TEST(lzopData, IsCompress) {
    const char container[] = "#LZ200000000";
    const std::tuple<int32_t, const char*, int32_t, bool> cases[] = {  // n, data, rc, flag
        {12, container, 0, true},       {11, container, 0, false}, {12, "#LZ300000000", 0, false},
        {12, "#LZP00000000", 0, false}, {0, container, -2, false}, {-1, container, -2, false},
        {12, nullptr, -2, false},
    };
    for (const auto& [n, data, rc, want] : cases) {
        const kwztest::GuardedBytes bytes(data ? data : "", data ? size_t(std::max(n, 0)) : 0);
        bool flag = !want;
        EXPECT_EQ(KWZDataIsCompress(n, data ? bytes.data() : nullptr, &flag), rc) << n;
        EXPECT_EQ(flag, want) << n;
    }
    EXPECT_EQ(KWZDataIsCompress(12, container, nullptr), -2);
}

// Data that is not a container is copied with a terminating 0 byte; the
// 11-byte head of a container is such data.  The length output is optional.
TEST(lzopData, NonContainersAreCopied) {
    for (const std::string data : {"#LZ20000000", "", "hello", "#LZ3 whatever!", "#LZP00000000"}) {
        const int32_t n = int32_t(data.size());
        int32_t len = -1;
        void* block = nullptr;
        ASSERT_EQ(KWZDataDeCompress(n, data.data(), &len, &block), 0) << data;
        EXPECT_EQ(len, n);
        EXPECT_EQ(std::memcmp(block, data.data(), data.size()), 0);
        EXPECT_EQ(static_cast<uint8_t*>(block)[n], 0);
        KWMemFree(block);
    }
    void* block = nullptr;
    EXPECT_EQ(KWZDataDeCompress(5, "hello", nullptr, &block), 0);
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
    EXPECT_EQ(KWZArrayPack(nullptr, &len, &block, true), -2);
}

// ============================================================ record arrays

// A table packed through a container is the container of the plain packed
// table and unpacks to the same table, for reading or not; a broken
// container is -4, a container of anything else -1.
TEST(lzopArray, PackThroughContainers) {
    using namespace recarrtest;
    Array array({Field("A", iFldType_Int32)}, {Key("A")});
    for (int32_t a = 3000; a > 0; --a) ASSERT_NE(Add(array, {I4(a)}), nullptr);
    const Bytes plain = PackZ(array, false), packed = PackZ(array, true);
    ASSERT_GT(plain.size(), 4u);
    EXPECT_EQ(std::memcmp(plain.data(), "#RA2", 4), 0);
    EXPECT_EQ(Decompress(packed), plain);
    EXPECT_LT(packed.size(), plain.size());
    for (bool forRead : {false, true}) {
        for (const Bytes* data : {&plain, &packed}) {
            Array copy;
            EXPECT_EQ(KWZArrayUnPack(copy, data->data(), forRead), 0);
            EXPECT_EQ(PackZ(copy, false), plain) << forRead;
        }
    }
    Bytes bad = packed;
    bad[4] = 'G';  // first chunk header
    EXPECT_EQ(KWZArrayUnPack(array, bad.data(), false), -4);
    EXPECT_EQ(KWZArrayUnPack(array, Compress(::Text(500)).data(), true), -1);
}

}  // namespace
