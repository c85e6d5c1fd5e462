// The record-array key descriptor (KWAKey, opaque in the public header).
// KWLSeek, given a key as its context, reads the key's first word as the
// option bits for the Unique rule (it knows nothing else of keys): `options`
// stays the first member, a uint32_t; the static_assert below holds it there.
#pragma once

#include <VomKwz.h>

#include <cstdint>

#include "rec/kwRecArrOrder.h"

namespace kwz::recarr {

constexpr int32_t kMaxKeys = 16;
constexpr int32_t kMaxKeyFields = 6;
constexpr size_t kExpressionSize = 384;  // with its NUL

// Where a key field's value lies in a member's image, cached from the
// array's type (field offsets never move: fields are only ever appended).
struct KeyField {
    uint32_t offset = 0;
    uint8_t type = 0;
};

// How far the 64-bit prefix kept beside each member decides a comparison.
enum class PrefixMode : uint8_t {
    kNone,     // not kept (no fields, floating first field, NonMaintained)
    kPartial,  // different prefixes decide; equal ones need the records
    kExact,    // the prefix is the whole key: equal prefixes are equal keys
};

}  // namespace kwz::recarr

struct KWAKey {
    uint32_t options = 0;  // iKeyOpt_... bits
    char expression[kwz::recarr::kExpressionSize] = {};
    int32_t fieldCount = 0;
    uint32_t fieldNumbers[kwz::recarr::kMaxKeyFields] = {};
    kwz::recarr::KeyField fields[kwz::recarr::kMaxKeyFields] = {};
    kwz::recarr::PrefixMode prefixMode = kwz::recarr::PrefixMode::kNone;
    bool floating = false;  // a key field is "F4" or "F8" (NaN compares inconsistently)
    bool unsorted = false;  // the order came from outside and is not sorted
    KWArray* array = nullptr;
    kwz::recarr::KeyOrder order;  // the members in key order

    bool Unique() const { return options & iKeyOpt_Unique; }
    bool Descending() const { return options & iKeyOpt_Descending; }
    bool NoCase() const { return options & iKeyOpt_CaseInsensitive; }
    bool Maintained() const { return !(options & iKeyOpt_NonMaintained); }
    // True when the order is sorted by a consistent comparison, so that a
    // seek may take the lower bound (see SeekKey in kwRecArr.h).
    bool SortedSeek() const {
        return prefixMode != kwz::recarr::PrefixMode::kNone && !floating && !unsorted;
    }
};

#include <cstddef>
// KWAKey is not standard-layout (its order has members of its own), but it has
// no bases and no virtual functions, so its first member sits at offset 0.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
static_assert(offsetof(KWAKey, options) == 0 && sizeof(KWAKey::options) == sizeof(uint32_t),
              "KWLSeek reads a key context's first word as its option bits");
#pragma GCC diagnostic pop
