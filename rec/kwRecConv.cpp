// Typed field access: the KWRGetAs* / KWRSetAs* pairs and the conversion
// table between the eight scalar field types.
//
// Reading a field of type S into a variable of type T and writing a value of
// type S into a field of type T follow the same table, so one function serves
// both directions:
//
//   S \ T          L1            B1 I1 I2 I4 I8              F4 F8
//   L1             raw byte      raw byte, zero-extended,    nearest
//                                wrapped to T's width
//   B1 I1..I8      1 if != 0     two's-complement wrap       nearest
//   F4 F8          1 if != 0     truncated toward zero to    converted
//                  (NaN gives 1) int64, then wrapped
//
// "B1" and "L1" read as unsigned, "I1".."I8" as signed (sign-extended).
#include <cmath>
#include <cstring>
#include <limits>

#include "base/kwBase.h"
#include "rec/kwRecCore.h"
#include "rec/kwRecord.h"

namespace kwz::rec {
namespace {

// A scalar read from its storage: integers widened to int64 (every integer
// type fits), floating values widened to double (exact for singles).
struct Number {
    bool real;
    int64_t integer;
    double floating;
};

Number ReadNumber(uint8_t type, const void* src) {
    switch (type) {
        case iFldType_Bool:
        case iFldType_Byte: return {false, Load<uint8_t>(src), 0.0};
        case iFldType_Int8: return {false, Load<int8_t>(src), 0.0};
        case iFldType_Int16: return {false, Load<int16_t>(src), 0.0};
        case iFldType_Int32: return {false, Load<int32_t>(src), 0.0};
        case iFldType_Int64: return {false, Load<int64_t>(src), 0.0};
        case iFldType_Float: return {true, 0, Load<float>(src)};
        default: return {true, 0, Load<double>(src)};
    }
}

// Truncation toward zero to a signed 64-bit integer.  NaN and values outside
// the int64 range have no such integer; they give INT64_MIN, the value the
// platform's truncating conversion instruction (cvttsd2si) yields for them,
// so results match a peer that converts natively -- and nothing is left
// undefined.  INT64_MIN then wraps to 0 in every narrower integer type.
int64_t TruncateToInt64(double v) {
    constexpr double kTwo63 = 9223372036854775808.0;
    if (std::isnan(v) || v >= kTwo63 || v < -kTwo63) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(v);
}

template <typename T>
void StoreWrapped(void* dst, int64_t v) {
    // Two's-complement wrap: keep the low bits, defined for unsigned types.
    Store<T>(dst, static_cast<T>(static_cast<uint64_t>(v)));
}

}  // namespace

// A source type outside 1..8 stores nothing: value cells of an odd type reach
// here through KWRSetVal and KWRSetBuff, and callers rely on the field still
// being marked written (the caller does that) with result 0.
void ConvertValue(uint8_t from, const void* src, uint8_t to, void* dst) {
    if (from < iFldType_Bool || from > iFldType_Double) return;
    if (from == to) {
        std::memcpy(dst, src, TypeWidth(to, 0));
        return;
    }
    const Number n = ReadNumber(from, src);
    const int64_t asInteger = n.real ? TruncateToInt64(n.floating) : n.integer;
    switch (to) {
        case iFldType_Bool:
            Store<uint8_t>(dst, n.real ? n.floating != 0.0 : n.integer != 0);
            break;
        case iFldType_Byte: StoreWrapped<uint8_t>(dst, asInteger); break;
        case iFldType_Int8: StoreWrapped<uint8_t>(dst, asInteger); break;
        case iFldType_Int16: StoreWrapped<uint16_t>(dst, asInteger); break;
        case iFldType_Int32: StoreWrapped<uint32_t>(dst, asInteger); break;
        case iFldType_Int64: StoreWrapped<uint64_t>(dst, asInteger); break;
        case iFldType_Float:
            Store<float>(dst, n.real ? static_cast<float>(n.floating) : static_cast<float>(n.integer));
            break;
        case iFldType_Double:
            Store<double>(dst, n.real ? n.floating : static_cast<double>(n.integer));
            break;
        default: break;
    }
}

// Getter core: 5 for a text field, -2 for an invalid type code, 2 for a null
// value (dst left as the caller zeroed it), else the converted value.
uint32_t ReadScalar(const KWRField* field, const KWRData* record, uint8_t to, void* dst) {
    if (uint32_t rc = CheckFieldAccess(field, record)) return rc;
    const uint8_t header = *HeaderOf(field, record);
    const uint8_t from = header & kTypeMask;
    if (IsTextType(from)) return KWR_BADTYPE;
    if (!IsValidType(from)) return KWR_CORRUPT;
    if (header & kNullBit) return KWR_NULL;
    ConvertValue(from, ValueOf(field, record), to, dst);
    return KWR_OK;
}

// Setter core, also used by SetVal with the cell's type as `from`.
uint32_t WriteScalar(const KWRField* field, KWRData* record, uint8_t from, const void* src) {
    if (uint32_t rc = CheckFieldAccess(field, record)) return rc;
    uint8_t* header = HeaderOf(field, record);
    const uint8_t to = *header & kTypeMask;
    if (IsTextType(to)) return KWR_BADTYPE;
    if (!IsValidType(to)) return KWR_CORRUPT;
    ConvertValue(from, src, to, ValueOf(field, record));
    MarkWritten(header, record);
    return KWR_OK;
}

}  // namespace kwz::rec

