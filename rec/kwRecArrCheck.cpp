// KWAUnpackChecked: the packed-table reader for data from outside.  The
// table is first walked within its known length; only a table that passes
// every test below reaches the trusting unpackers.
//
//   - magic "#RA" and a header that fits (18 bytes, or 22 for the older
//     layout), its total size within the given length;
//   - field descriptors: name terminated inside the table, at most 63
//     characters; width and type present; type 1..11; "CH" width 1..255;
//     names unique (the temporary type must build);
//   - key descriptors: expression terminated, at most 383 characters,
//     options present, every name a field, at most six;
//   - records: each image inside the table, L >= 6, and valid for the
//     fields as KWRRecCheck sees it.
#include <cstring>
#include <new>
#include <vector>

#include "rec/kwRecArr.h"

namespace kwz::recarr {

namespace {

constexpr const char* kTag = KWA_TAG("KWAUnpackChecked");

struct TempType {
    KWRType type;
    TempType() { rec::TypInit(&type); }
    ~TempType() { rec::TypFree(&type); }
    TempType(const TempType&) = delete;
    TempType& operator=(const TempType&) = delete;
};

// Length of the NUL-terminated text at pos, or -1 when no NUL comes
// before the limit.
int64_t TextAt(const uint8_t* table, uint64_t pos, uint64_t limit) {
    if (pos >= limit) return -1;
    const void* nul = std::memchr(table + pos, 0, limit - pos);
    return nul ? static_cast<const uint8_t*>(nul) - (table + pos) : -1;
}

const char* Validate(const uint8_t* table, uint64_t length) {
    TableHeader h;
    if (!ReadTableHeader(table, length, &h)) return "bad magic or truncated header";
    if (h.total < h.descriptors || h.total > length) return "total size outside the table";
    const uint64_t limit = h.total;
    uint64_t pos = h.descriptors;

    std::vector<KWRFieldDef> defs(h.fieldCount);
    for (auto& d : defs) {
        const int64_t n = TextAt(table, pos, limit);
        if (n < 0) return "field name not terminated";
        if (n > 63) return "field name longer than 63 characters";
        std::memset(&d, 0, sizeof d);
        std::memcpy(d.name, table + pos, static_cast<size_t>(n));
        pos += static_cast<uint64_t>(n) + 1;
        if (pos + 2 > limit) return "field descriptor truncated";
        d.width = table[pos++];
        d.type = table[pos++];
        if (!rec::IsValidType(d.type)) return "invalid field type code";
        if (d.type == iFldType_Char && d.width == 0) return "\"CH\" field without capacity";
    }
    TempType temp;
    const uint32_t built = rec::TypSetA(&temp.type, 1, "KWA", static_cast<uint8_t>(h.fieldCount), defs.data());
    if (built == KWR_NOMEM) throw std::bad_alloc();
    if (built != KWR_OK) return "duplicate field names";

    for (uint32_t k = 0; k < h.keyCount; ++k) {
        const int64_t n = TextAt(table, pos, limit);
        if (n < 0) return "key expression not terminated";
        if (n >= static_cast<int64_t>(kExpressionSize)) return "key expression too long";
        ParsedKey parsed;
        if (ParseKeyExpression(&temp.type, reinterpret_cast<const char*>(table + pos), &parsed, nullptr) != 0)
            return "key names an unknown field";
        pos += static_cast<uint64_t>(n) + 1;
        if (pos + 4 > limit) return "key options truncated";
        pos += 4;
    }

    for (uint32_t r = 0; r < h.recordCount; ++r) {
        if (pos + 4 > limit) return "record image outside the table";
        const uint32_t n = LoadU32(table + pos);
        if (n < rec::kImageHead || pos + n > limit) return "record image outside the table";
        KWRData view;
        rec::RecInit(&view);
        view.length = n;
        view.image = const_cast<uint8_t*>(table + pos);
        view.flags = table[pos + 4];
        view.fieldCount = table[pos + 5];
        if (rec::RecCheck(&temp.type, &view) != KWR_OK) return "record image does not fit the fields";
        pos += n;
    }
    return nullptr;
}

}  // namespace

int64_t UnpackChecked(KWArray* array, const void* table, uint64_t length, bool forRead) {
    if (!array) return -1;
    if (!table) return -2;
    if (const char* problem = Validate(static_cast<const uint8_t*>(table), length)) {
        LogF(2, kTag, "malformed table: %s", problem);
        return -2;
    }
    const int64_t rc = forRead ? UnpackForRead(array, table) : Unpack(array, table);
    // A table that passed the checks and still made no array (records
    // without fields to read them by) counts as malformed too.
    return rc == 0 ? -2 : rc;
}

}  // namespace kwz::recarr
