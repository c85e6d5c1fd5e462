// The record comparator (KWARecComp), the value comparator (KWAVarComp) and
// the 64-bit key prefixes that let seeks decide most comparisons without
// touching the members' images.
//
// Rules, field by field in key order, the first difference deciding:
//   - a null value orders before a non-null one; two nulls are equal;
//   - "L1" false before true; "B1" unsigned; "I1".."I8" signed;
//   - "F4"/"F8" as floating values; a comparison involving NaN orders the
//     left operand first (so it is not a consistent order, and floating
//     first fields get no prefix);
//   - "CH"/"CM" as NUL-terminated texts, a missing text counting as empty,
//     bytes unsigned, or folded as stricmp_rus folds them under
//     CaseInsensitive;
//   - "CB" byte by byte over the common length, then the shorter first (an
//     empty block before any other);
//   - Descending negates every non-zero result.
// Results are -1, 0 or 1.
#include <cmath>
#include <cstring>

#include "rec/kwRecArr.h"

namespace kwz::recarr {

namespace {

using rec::kNullBit;
using rec::kOwnedBit;

// One side of a field comparison.
struct Operand {
    bool null = true;
    int64_t i = 0;
    double d = 0;
    const uint8_t* text = nullptr;
    size_t length = 0;
};

constexpr uint8_t Fold(uint8_t c) {
    return (c >= 0x61 && c <= 0x7A) || c >= 0xE0 ? static_cast<uint8_t>(c - 0x20) : c;
}

size_t BoundedLength(const uint8_t* text, size_t limit) {
    const void* nul = std::memchr(text, 0, limit);
    return nul ? static_cast<size_t>(static_cast<const uint8_t*>(nul) - text) : limit;
}

// A number of type 1..8 stored at v in its own width.
void ReadNumber(uint8_t type, const uint8_t* v, Operand* o) {
    switch (type) {
        case iFldType_Bool: o->i = v[0] != 0; break;
        case iFldType_Byte: o->i = v[0]; break;
        case iFldType_Int8: o->i = static_cast<int8_t>(v[0]); break;
        case iFldType_Int16: o->i = Load<int16_t>(v); break;
        case iFldType_Int32: o->i = Load<int32_t>(v); break;
        case iFldType_Int64: o->i = Load<int64_t>(v); break;
        case iFldType_Float: o->d = Load<float>(v); break;
        case iFldType_Double: o->d = Load<double>(v); break;
        default: break;
    }
}

// A member's value.  Texts are bounded by their stored length, which gives
// what a NUL-terminated comparison gives for every well-formed image and
// never reads past a malformed one.
Operand FromRecord(const KeyField& field, const KWRData* rec) {
    Operand o;
    const uint8_t* image = rec->image;
    if (!image) return o;
    const uint8_t header = image[field.offset - 1];
    if (header & kNullBit) return o;
    o.null = false;
    const uint8_t* v = image + field.offset;
    switch (field.type) {
        case iFldType_Bool: case iFldType_Byte: case iFldType_Int8: case iFldType_Int16:
        case iFldType_Int32: case iFldType_Int64: case iFldType_Float: case iFldType_Double:
            ReadNumber(field.type, v, &o);
            break;
        case iFldType_Char: {
            const uint8_t n = v[rec::kCharLength] < v[rec::kCharCapacity] ? v[rec::kCharLength]
                                                                          : v[rec::kCharCapacity];
            o.text = v + rec::kCharText;
            o.length = BoundedLength(o.text, n);
            break;
        }
        case iFldType_Memo:
        case iFldType_Blob: {
            if (header & kOwnedBit) {
                const uint8_t* block = rec::LoadBlock(v);
                if (block) {
                    const uint32_t size = LoadU32(block);
                    o.text = block + rec::kBlockHead;
                    o.length = size ? size - 1 : 0;
                }
            } else {
                const uint32_t n = LoadU32(v + rec::kVarLength);
                const uint32_t offset = LoadU32(v + rec::kVarOffset);
                if (offset != 0 && uint64_t{offset} + n <= rec->length) {
                    o.text = image + offset;
                    o.length = n;
                }
            }
            if (field.type == iFldType_Memo && o.text) o.length = BoundedLength(o.text, o.length);
            break;
        }
        default: o.null = true; break;
    }
    return o;
}

// A value cell standing for a key field: read in the field's own type (the
// cell's type byte is not consulted); "CH"/"CM" take the cell's pointer as a
// NUL-terminated text and ignore its length, "CB" uses both.
Operand FromCell(const KeyField& field, const KWRVal* cell) {
    Operand o;
    if (!cell || cell->isNull) return o;
    o.null = false;
    const uint8_t* v = cell->value;
    switch (field.type) {
        case iFldType_Bool: case iFldType_Byte: case iFldType_Int8: case iFldType_Int16:
        case iFldType_Int32: case iFldType_Int64: case iFldType_Float: case iFldType_Double:
            ReadNumber(field.type, v, &o);
            break;
        case iFldType_Char:
        case iFldType_Memo: {
            const auto* text = Load<const char*>(v + 4);
            o.text = reinterpret_cast<const uint8_t*>(text);
            o.length = text ? std::strlen(text) : 0;
            break;
        }
        case iFldType_Blob:
            o.text = Load<const uint8_t*>(v + 4);
            o.length = o.text ? LoadU32(v) : 0;
            break;
        default: o.null = true; break;
    }
    return o;
}

int32_t CompareBytes(const Operand& a, const Operand& b, bool fold) {
    const size_t n = a.length < b.length ? a.length : b.length;
    if (fold) {
        for (size_t k = 0; k < n; ++k) {
            const uint8_t x = Fold(a.text[k]), y = Fold(b.text[k]);
            if (x != y) return x < y ? -1 : 1;
        }
    } else if (n) {
        const int c = std::memcmp(a.text, b.text, n);
        if (c) return c < 0 ? -1 : 1;
    }
    return a.length == b.length ? 0 : (a.length < b.length ? -1 : 1);
}

int32_t CompareOperands(uint8_t type, bool noCase, const Operand& a, const Operand& b, bool forSort = false) {
    if (a.null || b.null) return a.null == b.null ? 0 : (a.null ? -1 : 1);
    switch (type) {
        case iFldType_Float:
        case iFldType_Double:
            if (a.d < b.d) return -1;
            if (a.d > b.d) return 1;
            if (a.d == b.d) return 0;
            // NaN: the left operand first.  Sorting cannot live with that (a
            // NaN pivot would send QuickSort's scan past the end of the
            // array), so there NaN orders after every number instead.
            if (!forSort) return -1;
            return std::isnan(a.d) == std::isnan(b.d) ? 0 : (std::isnan(a.d) ? 1 : -1);
        case iFldType_Char:
        case iFldType_Memo: return CompareBytes(a, b, noCase);
        case iFldType_Blob: return CompareBytes(a, b, false);
        default: return a.i == b.i ? 0 : (a.i < b.i ? -1 : 1);
    }
}

// An order-keeping 64-bit image of a first key field: different prefixes
// order as the values do (before Descending), equal prefixes decide nothing
// unless the key's prefix mode is exact.  0 is null; texts keep their first
// seven bytes (folded under CaseInsensitive) behind a 1 in the top byte.
uint64_t PrefixOf(uint8_t type, bool noCase, const Operand& o) {
    if (o.null) return 0;
    switch (type) {
        case iFldType_Int64:
            return 1 + ((static_cast<uint64_t>(o.i) ^ (uint64_t{1} << 63)) >> 1);
        case iFldType_Char:
        case iFldType_Memo:
        case iFldType_Blob: {
            uint64_t p = uint64_t{1} << 56;
            const bool fold = noCase && type != iFldType_Blob;
            const size_t n = o.length < 7 ? o.length : 7;
            for (size_t k = 0; k < n; ++k) {
                const uint8_t c = fold ? Fold(o.text[k]) : o.text[k];
                p |= uint64_t{c} << (8 * (6 - k));
            }
            return p;
        }
        default:  // L1, B1, I1, I2, I4: the value itself, shifted to unsigned
            return 1 + static_cast<uint64_t>(o.i + 0x80000000LL);
    }
}

}  // namespace

int32_t CompareRecords(const KWAKey* key, const KWRData* a, const KWRData* b) {
    const bool noCase = key->NoCase();
    for (int32_t i = 0; i < key->fieldCount; ++i) {
        const KeyField& f = key->fields[i];
        const int32_t c = CompareOperands(f.type, noCase, FromRecord(f, a), FromRecord(f, b));
        if (c) return key->Descending() ? -c : c;
    }
    return 0;
}

int32_t CompareRecordsForSort(const KWAKey* key, const KWRData* a, const KWRData* b) {
    const bool noCase = key->NoCase();
    for (int32_t i = 0; i < key->fieldCount; ++i) {
        const KeyField& f = key->fields[i];
        const int32_t c = CompareOperands(f.type, noCase, FromRecord(f, a), FromRecord(f, b), true);
        if (c) return key->Descending() ? -c : c;
    }
    return 0;
}

int32_t CompareCells(const KWAKey* key, const KWRData* member, const KWRVal* cells) {
    const bool noCase = key->NoCase();
    for (int32_t i = 0; i < key->fieldCount; ++i) {
        const KeyField& f = key->fields[i];
        const int32_t c = CompareOperands(f.type, noCase, FromRecord(f, member),
                                          FromCell(f, cells ? cells + i : nullptr));
        if (c) return key->Descending() ? -c : c;
    }
    return 0;
}

uint64_t RecordPrefix(const KWAKey* key, const KWRData* rec) {
    const KeyField& f = key->fields[0];
    return PrefixOf(f.type, key->NoCase(), FromRecord(f, rec));
}

uint64_t CellPrefix(const KWAKey* key, const KWRVal* cells) {
    const KeyField& f = key->fields[0];
    return PrefixOf(f.type, key->NoCase(), FromCell(f, cells));
}

void RefreshKeyFields(KWAKey* key, const KWRType* type) {
    for (int32_t i = 0; i < key->fieldCount; ++i) {
        const KWRField* field = rec::FldByNum(type, static_cast<uint8_t>(key->fieldNumbers[i]));
        key->fields[i].offset = field ? field->offset : 0;
        key->fields[i].type = field ? field->type : 0;
    }
    key->floating = false;
    for (int32_t i = 0; i < key->fieldCount; ++i)
        if (key->fields[i].type == iFldType_Float || key->fields[i].type == iFldType_Double) key->floating = true;
    key->prefixMode = PrefixMode::kNone;
    if (key->fieldCount == 0 || !key->Maintained()) return;
    const KWRField* first = rec::FldByNum(type, static_cast<uint8_t>(key->fieldNumbers[0]));
    if (!first) return;
    switch (first->type) {
        case iFldType_Float:
        case iFldType_Double: return;  // NaN makes floating order inconsistent
        case iFldType_Bool: case iFldType_Byte: case iFldType_Int8: case iFldType_Int16:
        case iFldType_Int32:
            key->prefixMode = key->fieldCount == 1 ? PrefixMode::kExact : PrefixMode::kPartial;
            return;
        default: key->prefixMode = PrefixMode::kPartial; return;
    }
}

namespace {

// A record the key's fields can be read from: an image at least as long as
// the array's fixed part (a record made before fields were added is not).
bool Readable(const KWAKey* key, const KWRData* rec) {
    return rec && rec->image && (!key->array || rec->length >= key->array->type.dataLength);
}

}  // namespace

int32_t RecComp(void* key, void* a, void* b) {
    const auto* k = static_cast<const KWAKey*>(key);
    const auto* ra = static_cast<const KWRData*>(a);
    const auto* rb = static_cast<const KWRData*>(b);
    if (!k || !Readable(k, ra) || !Readable(k, rb)) return 0;
    return CompareRecords(k, ra, rb);
}

int32_t VarComp(void* key, void* member, void* cells) {
    const auto* k = static_cast<const KWAKey*>(key);
    const auto* m = static_cast<const KWRData*>(member);
    if (!k || !Readable(k, m)) return 0;
    return CompareCells(k, m, static_cast<const KWRVal*>(cells));
}

}  // namespace kwz::recarr
