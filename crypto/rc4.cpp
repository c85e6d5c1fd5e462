// RC4, the stream cipher, kept for compatibility with existing peers that
// still encrypt with it.  It is NOT a secure cipher (its keystream is biased
// and it has no integrity protection): never choose it for new protocols.
//
// RC4Key holds the 256-byte permutation and the two indexes x (i) and y (j).
// Encryption and decryption are the same operation.
#include "base/kwBase.h"
#include "crypto/kwzCore.h"

#include <utility>

namespace kwz::rc4 {

// The key schedule.  A null key or a length <= 0 leaves the identity
// permutation (there is no meaningful empty RC4 key).
void PrepareKey(const uint8_t* key, int32_t keyLength, RC4Key* state) {
    if (!state) return;
    for (int i = 0; i < 256; ++i) state->state[i] = uint8_t(i);
    state->x = 0;
    state->y = 0;
    if (!key || keyLength <= 0) return;
    uint8_t j = 0;
    for (int i = 0; i < 256; ++i) {
        j = uint8_t(j + state->state[i] + key[i % keyLength]);
        std::swap(state->state[i], state->state[j]);
    }
}

// XORs length bytes of data with the keystream, continuing where the last
// call stopped.
void Code(uint8_t* data, int32_t length, RC4Key* state) {
    if (!data || !state || length <= 0) return;
    uint8_t x = state->x, y = state->y;
    uint8_t* s = state->state;
    for (int32_t n = 0; n < length; ++n) {
        x = uint8_t(x + 1);
        y = uint8_t(y + s[x]);
        std::swap(s[x], s[y]);
        data[n] ^= s[uint8_t(s[x] + s[y])];
    }
    state->x = x;
    state->y = y;
}

}  // namespace kwz::rc4
