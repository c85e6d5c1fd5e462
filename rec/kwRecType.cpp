// Record types: building a type from field definitions or from a record image,
// writing its definition text back, the name index and the field lookups.
// The definition-text parser lives in kwRecTypeParse.cpp.
//
// A type owns its description, its field array and every field description;
// all of them come from the C allocator and KWRTypFree releases them.  The
// field array doubles as the hash table of the name index: bucket b's chain
// starts at fields[b].bucketHead, and a field with name s lies in bucket
// HashKey(s) % fieldCount.
#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "base/kwBase.h"
#include "base/kwMem.h"
#include "rec/kwRecCore.h"
#include "rec/kwRecImage.h"
#include "rec/kwRecType.h"

namespace kwz::rec {
namespace {

// Copies at most kMaxName bytes of text into a 64-byte name and terminates it.
void CopyName(char (&out)[64], std::string_view text) {
    size_t n = std::min(text.size(), kMaxName);
    std::memcpy(out, text.data(), n);
    std::memset(out + n, 0, sizeof out - n);
}

// A NUL-terminated copy from the C allocator, or null when out of memory.
char* DupText(std::string_view text) {
    auto* copy = static_cast<char*>(kwz::MemAlloc(text.size() + 1));
    if (!copy) return nullptr;
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

// Builds the name index over a filled field array.  Fields are put in
// declaration order at the head of their chain, so a later field stands ahead
// of earlier ones.  False when two names are equal ignoring case.
bool BuildIndex(KWRType* type) {
    const uint32_t count = type->fieldCount;
    for (uint32_t i = 0; i < count; ++i) {
        KWRField* field = &type->fields[i];
        KWRField* bucket = &type->fields[HashKey(field->name) % count];
        for (const KWRField* f = bucket->bucketHead; f; f = f->chainNext) {
            if (strcasecmp(f->name, field->name) == 0) return false;
        }
        field->chainNext = bucket->bucketHead;
        bucket->bucketHead = field;
    }
    return true;
}

const KWRField* FindByName(const KWRType* type, const char* name) {
    if (!type || !name || type->fieldCount == 0 || !type->fields) return nullptr;
    const KWRField* f = type->fields[HashKey(name) % type->fieldCount].bucketHead;
    for (; f; f = f->chainNext) {
        if (strcasecmp(f->name, name) == 0) return f;
    }
    return nullptr;
}

const KWRField* FindByNumber(const KWRType* type, uint8_t number) {
    if (!type || !type->fields || number >= type->fieldCount) return nullptr;
    return &type->fields[number];
}

// Text of a field's type code as the definition string spells it.
const char* CodeText(uint8_t type) {
    static const char* const kCodes[] = {"",   "L1", "B1", "I1", "I2", "I4",
                                         "I8", "F4", "F8", "CH", "CM", "CB"};
    return IsValidType(type) ? kCodes[type] : "";
}

// Decimal digits without std::to_string, whose out-of-line helper would be
// exported from the library as a weak symbol.
void AppendNumber(std::string& text, uint32_t value) {
    char digits[16];
    const int n = std::snprintf(digits, sizeof digits, "%u", value);
    text.append(digits, static_cast<size_t>(n));
}

// Name "|" Count ["|" Description] { CR LF FieldName "|" Code ["|" Description] }
std::string DefinitionText(const KWRType* type) {
    std::string text = type->name;
    text += '|';
    AppendNumber(text, type->fieldCount);
    if (type->description) {
        text += '|';
        text += type->description;
    }
    for (uint32_t i = 0; i < type->fieldCount; ++i) {
        const KWRField& f = type->fields[i];
        text += "\r\n";
        text += f.name;
        text += '|';
        text += CodeText(f.type);
        if (f.type == iFldType_Char) AppendNumber(text, f.width);
        if (f.description) {
            text += '|';
            text += f.description;
        }
    }
    return text;
}

// Walks a record image that arrived without a known type and reads each
// field's type (and a "CH" field's capacity) from its slot.
//
// The walk is bounded by the image length, the smaller of the record's length
// and the image's own length field: an image shorter than its header, a slot
// that would reach past the end, or a "CH" slot of capacity 0 (whose type
// could not be written back as a definition) makes the image invalid, and
// the type is left empty with 4.  This goes beyond trusting the image: images
// from the wire are not trusted to agree with their own field count.
uint32_t GenerateFromImage(KWRType* type, const char* name, const KWRData* record) {
    if (!record || !record->image || record->length < kImageHead) return KWR_SYNTAX;
    type->id = record->typeId;
    const uint8_t* image = record->image;
    const uint32_t limit = std::min(record->length, LoadU32(image));
    if (limit < kImageHead) return KWR_SYNTAX;
    const uint32_t count = record->fieldCount;

    std::array<std::array<char, 8>, 256> names;
    std::array<FieldPlan, 256> plans;
    uint32_t pos = kImageHead;
    for (uint32_t i = 0; i < count; ++i) {
        if (pos >= limit) return KWR_SYNTAX;
        const uint8_t t = image[pos] & kTypeMask;
        if (!IsValidType(t)) return KWR_SYNTAX;
        uint32_t capacity = 0;
        if (t == iFldType_Char) {
            if (limit - pos < 2) return KWR_SYNTAX;
            capacity = image[pos + 1];
            if (capacity == 0) return KWR_SYNTAX;
        }
        const uint32_t slot = SlotSize(t, capacity);
        if (slot > limit - pos) return KWR_SYNTAX;
        int n = std::snprintf(names[i].data(), names[i].size(), "F%u", i);
        plans[i].name = std::string_view(names[i].data(), static_cast<size_t>(n));
        plans[i].type = t;
        plans[i].width = TypeWidth(t, capacity);
        pos += slot;
    }
    BuildResult r = BuildType(type, name ? name : "", {}, plans.data(), count);
    return r == BuildResult::kOk ? KWR_OK : KWR_SYNTAX;
}

}  // namespace

void ResetKeepId(KWRType* type) {
    const uint32_t id = type->id;
    TypFree(type);
    type->id = id;
}

// Layout: the image header takes 6 bytes; each field's slot follows, its
// header byte first, so the first field's value lies at offset 7.
//
//   0      6    7               6+s0  7+s0
//   | head | h0 | value 0 ...    | h1 | value 1 ...
BuildResult BuildType(KWRType* type, std::string_view name, std::string_view description,
                      const FieldPlan* plans, uint32_t count) {
    CopyName(type->name, name);
    if (!description.empty()) {
        type->description = DupText(description);
        if (!type->description) {
            ResetKeepId(type);
            return BuildResult::kNoMemory;
        }
    }
    uint32_t size = kImageHead;
    if (count > 0) {
        // Zeroed: every description pointer and chain link starts null, so a
        // failure half-way can be freed with TypFree.
        type->fields = static_cast<KWRField*>(kwz::MemAlloc(count * sizeof(KWRField)));
        if (!type->fields) {
            ResetKeepId(type);
            return BuildResult::kNoMemory;
        }
        std::memset(type->fields, 0, count * sizeof(KWRField));
        type->fieldCount = static_cast<uint8_t>(count);
        for (uint32_t i = 0; i < count; ++i) {
            KWRField& f = type->fields[i];
            const FieldPlan& s = plans[i];
            CopyName(f.name, s.name);
            if (!s.description.empty()) {
                f.description = DupText(s.description);
                if (!f.description) {
                    ResetKeepId(type);
                    return BuildResult::kNoMemory;
                }
            }
            f.type = s.type;
            f.width = s.width;
            f.number = i;
            f.offset = size + 1;
            size += SlotSize(s.type, s.width);
        }
    }
    type->dataLength = size;
    if (!BuildIndex(type)) {
        ResetKeepId(type);
        return BuildResult::kDuplicate;
    }
    return BuildResult::kOk;
}



uint32_t TypInit(KWRType* type) {
    if (!type) return KWR_BADARG;
    std::memset(type, 0, sizeof *type);
    return KWR_OK;
}

uint32_t TypFree(KWRType* type) {
    if (!type) return KWR_BADARG;
    if (type->fields) {
        for (uint32_t i = 0; i < type->fieldCount; ++i) kwz::MemFree(type->fields[i].description);
    }
    kwz::MemFree(type->fields);
    kwz::MemFree(type->description);
    return TypInit(type);
}

uint32_t TypSetA(KWRType* type, uint32_t id, const char* name, uint8_t count,
                            const KWRFieldDef* defs) {
    if (!type) return KWR_BADARG;
    TypFree(type);
    type->id = id;
    if (count > 0 && !defs) return KWR_BADARG;
    std::array<FieldPlan, 256> plans;
    for (uint32_t i = 0; i < count; ++i) {
        const KWRFieldDef& d = defs[i];
        if (!IsValidType(d.type)) return KWR_SYNTAX;
        plans[i].name = std::string_view(d.name, strnlen(d.name, sizeof d.name));
        plans[i].type = d.type;
        // The definition's width counts for "CH" only, and is taken as given.
        plans[i].width = TypeWidth(d.type, d.width);
    }
    switch (BuildType(type, name ? name : "", {}, plans.data(), count)) {
        case BuildResult::kOk: return KWR_OK;
        case BuildResult::kNoMemory: return KWR_NOMEM;
        case BuildResult::kDuplicate: break;
    }
    return KWR_SYNTAX;
}

uint32_t TypGen(KWRType* type, const char* name, const KWRData* record) {
    if (!type) return KWR_BADARG;
    TypFree(type);
    return GenerateFromImage(type, name, record);
}

uint32_t TypGet(const KWRType* type, char** text) {
    if (!text) return KWR_OK;
    *text = nullptr;
    if (!type) return KWR_BADARG;
    for (uint32_t i = 0; i < type->fieldCount; ++i) {
        if (!IsValidType(type->fields[i].type)) return KWR_CORRUPT;
    }
    try {
        const std::string def = DefinitionText(type);
        auto* out = static_cast<char*>(kwz::MemAlloc(static_cast<uint32_t>(def.size() + 1)));
        if (!out) return KWR_NOMEM;
        std::memcpy(out, def.c_str(), def.size() + 1);
        *text = out;
        return KWR_OK;
    } catch (const std::bad_alloc&) {
        return KWR_NOMEM;
    }
}

uint32_t TypDefStrSet(KWRType* type, const char* text) {
    if (!type) return KWR_BADARG;
    char* copy = nullptr;
    if (text && *text) {
        copy = DupText(text);
        if (!copy) return KWR_NOMEM;  // the old description stays
    }
    kwz::MemFree(type->description);
    type->description = copy;
    return KWR_OK;
}

uint32_t TypFld(const KWRType* type, const char* name, KWRField** field) {
    auto* f = const_cast<KWRField*>(FindByName(type, name));
    if (field) *field = f;
    return f ? KWR_OK : KWR_NOFIELD;
}

uint32_t TypFldN(const KWRType* type, uint8_t number, KWRField** field) {
    auto* f = const_cast<KWRField*>(FindByNumber(type, number));
    if (field) *field = f;
    return f ? KWR_OK : KWR_NOFIELD;
}

KWRField* FldByName(const KWRType* type, const char* name) {
    return const_cast<KWRField*>(FindByName(type, name));
}

KWRField* FldByNum(const KWRType* type, uint8_t number) {
    return const_cast<KWRField*>(FindByNumber(type, number));
}

// h = h * 33 + c over the name's bytes taken as signed chars, with 32 taken
// off bytes above 96 so that a-z hash like A-Z.  Bytes 0x80..0xFF are
// negative, hence neither folded nor added as their unsigned value; names are
// hashed this way wherever an index was ever built, so keep it.
uint32_t HashKey(const char* name) {
    if (!name) return 0;
    uint32_t h = 0;
    for (const auto* p = reinterpret_cast<const signed char*>(name); *p; ++p) {
        const int c = *p;
        h = h * 33u + static_cast<uint32_t>(c > 96 ? c - 32 : c);
    }
    return h;
}

uint32_t FldAddGet(const KWRType* type, KWRFieldDef* defs) {
    if (!type || !defs || !type->fields) return 0;
    uint32_t variable = 0;
    for (uint32_t i = 0; i < type->fieldCount; ++i) {
        const KWRField& f = type->fields[i];
        KWRFieldDef& d = defs[i];
        std::memset(&d, 0, sizeof d);
        std::memcpy(d.name, f.name, sizeof d.name);
        d.width = static_cast<uint8_t>(f.width);
        d.type = f.type;
        if (IsVarType(f.type)) variable = 1;
    }
    return variable;
}

}  // namespace kwz::rec
