// MD5 (RFC 1321) over the exported md5_state_t, and the library's own text
// digest md5_finishA that KWZDataHash produces.
//
// State: count[0..1] is the message length in bits (low word first), abcd the
// four chaining words, buf the block being filled (count tells how full).
#include <cstring>

#include "base/kwBase.h"
#include "crypto/kwzCore.h"

namespace kwz::md5 {
namespace {

// Per-round shift amounts and the sine-derived constants of RFC 1321.
constexpr uint8_t kShift[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
constexpr uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

inline uint32_t Rotl(uint32_t v, unsigned s) { return v << s | v >> (32 - s); }

// One 64-byte block into the chaining words.
void Transform(uint32_t abcd[4], const uint8_t* block) {
    uint32_t x[16];
    for (int i = 0; i < 16; ++i) x[i] = LoadU32(block + 4 * i);
    uint32_t a = abcd[0], b = abcd[1], c = abcd[2], d = abcd[3];
    for (int i = 0; i < 64; ++i) {
        const int round = i >> 4;
        uint32_t f;
        int g;
        switch (round) {
            case 0: f = (b & c) | (~b & d); g = i; break;
            case 1: f = (d & b) | (~d & c); g = (5 * i + 1) & 15; break;
            case 2: f = b ^ c ^ d; g = (3 * i + 5) & 15; break;
            default: f = c ^ (b | ~d); g = (7 * i) & 15; break;
        }
        const uint32_t t = d;
        d = c;
        c = b;
        b = b + Rotl(a + f + kSine[i] + x[g], kShift[round][i & 3]);
        a = t;
    }
    abcd[0] += a;
    abcd[1] += b;
    abcd[2] += c;
    abcd[3] += d;
}

}  // namespace

void Init(md5_state_t* state) {
    if (!state) return;
    state->count[0] = state->count[1] = 0;
    state->abcd[0] = 0x67452301;
    state->abcd[1] = 0xefcdab89;
    state->abcd[2] = 0x98badcfe;
    state->abcd[3] = 0x10325476;
}

void Append(md5_state_t* state, const uint8_t* data, int32_t length) {
    if (!state || !data || length <= 0) return;
    size_t used = (state->count[0] >> 3) & 63;
    const uint32_t bits = uint32_t(length) << 3;
    state->count[1] += uint32_t(length) >> 29;
    state->count[0] += bits;
    if (state->count[0] < bits) state->count[1]++;

    size_t left = size_t(length);
    if (used) {
        size_t take = 64 - used < left ? 64 - used : left;
        std::memcpy(state->buf + used, data, take);
        data += take;
        left -= take;
        if (used + take < 64) return;
        Transform(state->abcd, state->buf);
    }
    for (; left >= 64; data += 64, left -= 64) Transform(state->abcd, data);
    if (left) std::memcpy(state->buf, data, left);
}

void Finish(md5_state_t* state, uint8_t digest[16]) {
    if (!state || !digest) return;
    static const uint8_t kPad[64] = {0x80};
    uint8_t length[8];
    kwz::StoreU32(length, state->count[0]);
    kwz::StoreU32(length + 4, state->count[1]);
    // Pad to 56 bytes modulo 64, then the length in bits.
    const uint32_t used = (state->count[0] >> 3) & 63;
    Append(state, kPad, int32_t(((55 - used) & 63) + 1));
    Append(state, length, 8);
    for (int i = 0; i < 4; ++i) kwz::StoreU32(digest + 4 * i, state->abcd[i]);
}

// Not plain hexadecimal: out[2i+1] is the digit of the LOW four bits of the
// character already standing at out[i], not of digest byte i.  Every hash
// value that KWZDataHash has ever stored or sent depends on this, so it is
// kept exactly.  (out[i] is written at step i/2, so it is always there when read.)
void FinishA(md5_state_t* state, char out[32]) {
    if (!state || !out) return;
    static const char kDigits[] = "0123456789ABCDEF";
    uint8_t digest[16];
    Finish(state, digest);
    for (int i = 0; i < 16; ++i) {
        out[2 * i] = kDigits[digest[i] >> 4];
        out[2 * i + 1] = kDigits[uint8_t(out[i]) & 0x0F];
    }
}

}  // namespace kwz::md5
