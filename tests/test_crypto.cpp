// MD5, the library's text digest and data hash, and RC4.
#include <VomKwz.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

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

}  // namespace
