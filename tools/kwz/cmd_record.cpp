// kwz record: builds a record of a type from field=value arguments, packs it
// and prints the image as an annotated hex dump (--out also writes it); with
// --decode it reads an image, checks it against the type and prints its
// fields.
#include <VomKwz.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "command.h"
#include "kwz_util.h"

namespace {

using namespace kwz::tool;

// ------------------------------------------------------------ the dump

constexpr size_t kRowBytes = 16;
constexpr size_t kMaxRows = 4;  // longer items show their first rows only

void Row(const uint8_t* image, size_t offset, size_t size, const std::string& note) {
    for (size_t i = 0; i < size; i += kRowBytes) {
        if (i / kRowBytes == kMaxRows) {
            std::printf("  %06zx  ... %zu bytes in all\n", offset + i, size);
            return;
        }
        const std::string hex = HexBytes(image + offset + i, std::min(kRowBytes, size - i));
        if (i == 0)
            std::printf("  %06zx  %-47s  %s\n", offset + i, hex.c_str(), note.c_str());
        else
            std::printf("  %06zx  %s\n", offset + i, hex.c_str());
    }
}

std::string SlotNote(const KWRField& f, const KWRData& r) {
    const uint8_t header = r.image[f.offset - 1];
    std::string note = "#" + std::to_string(f.number) + " " + f.name + " " + FieldCode(f);
    std::string flags;
    if (header & 0x80) flags += " null";
    if (header & 0x20) flags += " edited";
    if (header & 0x40) flags += " user";
    if (!flags.empty()) note += " [" + flags.substr(1) + "]";
    note += " = " + FieldText(f, r);
    if ((f.type == iFldType_Memo || f.type == iFldType_Blob) && !(header & 0x80)) {
        note += " (" + std::to_string(Load32(r.image + f.offset)) + " bytes at " +
                std::to_string(Load32(r.image + f.offset + 4)) + ")";
    }
    return note;
}

// A packed image: head, one row per slot, then the variable part by the
// texts that the slots point at (gaps shown as not referenced).
void Dump(const KWRType& type, const KWRData& r) {
    std::printf("record image of type %s, %u bytes\n", type.name, r.length);
    std::printf("  offset  %-47s  meaning\n", "bytes");
    Row(r.image, 0, 4, "length " + std::to_string(Load32(r.image)));
    char flags[32];
    std::snprintf(flags, sizeof flags, "record flags 0x%02x", r.image[4]);
    Row(r.image, 4, 1, flags);
    Row(r.image, 5, 1, "field count " + std::to_string(r.image[5]));
    struct Text { uint32_t offset, size; const KWRField* field; };
    std::vector<Text> texts;
    for (uint32_t i = 0; i < type.fieldCount; ++i) {
        const KWRField& f = type.fields[i];
        const uint32_t next = i + 1 < type.fieldCount ? type.fields[i + 1].offset : type.dataLength + 1;
        Row(r.image, f.offset - 1, next - f.offset, SlotNote(f, r));
        const bool var = f.type == iFldType_Memo || f.type == iFldType_Blob;
        if (var && !(r.image[f.offset - 1] & 0x80) && Load32(r.image + f.offset + 4) != 0)
            texts.push_back({Load32(r.image + f.offset + 4), Load32(r.image + f.offset) + 1, &f});
    }
    std::sort(texts.begin(), texts.end(), [](const Text& a, const Text& b) { return a.offset < b.offset; });
    uint32_t pos = type.dataLength;
    for (const Text& t : texts) {
        if (t.offset > pos) Row(r.image, pos, t.offset - pos, "(not referenced)");
        Row(r.image, t.offset, t.size, std::string("text of ") + t.field->name + " and its 0 byte");
        pos = std::max(pos, t.offset + t.size);
    }
    if (pos < r.length) Row(r.image, pos, r.length - pos, "(not referenced)");
}

// Why KWRRecCheck refused an image: the first rule it breaks.
std::string Explain(const KWRType& type, const uint8_t* image, uint32_t length) {
    if (image[5] != type.fieldCount)
        return "it has " + std::to_string(image[5]) + " fields, the type " + std::to_string(type.fieldCount);
    if (length < type.dataLength)
        return "it is shorter than the type's fixed part of " + std::to_string(type.dataLength) + " bytes";
    for (uint32_t i = 0; i < type.fieldCount; ++i) {
        const KWRField& f = type.fields[i];
        const uint8_t header = image[f.offset - 1];
        const uint8_t* v = image + f.offset;
        const std::string where = std::string("field ") + f.name + ": ";
        if ((header & 0x0F) != f.type)
            return where + "its header byte says " + TypeCodeName(header & 0x0F) + ", the type " + FieldCode(f);
        if (header & 0x10) return where + "bit 4 of its header byte is set (a text outside the image)";
        if (f.type == iFldType_Char && (v[0] != f.width || v[1] > v[0]))
            return where + "capacity " + std::to_string(v[0]) + " / length " + std::to_string(v[1]) +
                   " do not fit " + FieldCode(f);
        if ((f.type == iFldType_Memo || f.type == iFldType_Blob) && !(header & 0x80)) {
            const uint64_t n = Load32(v), offset = Load32(v + 4);
            if ((offset == 0 && n != 0) ||
                (offset != 0 && (offset < type.dataLength || offset + n >= length || image[offset + n] != 0)))
                return where + "its text (" + std::to_string(n) + " bytes at " + std::to_string(offset) +
                       ") does not lie in " + std::to_string(type.dataLength) + ".." + std::to_string(length) +
                       " followed by a 0 byte";
        }
    }
    return "it does not match the type";
}

int Decode(const std::string& def, const std::string& path) {
    TypeHolder type;
    if (!LoadType(UnescapeDefinition(def), 1, &type.t)) return kExitFailure;
    std::vector<uint8_t> bytes;
    if (!ReadInput(path, &bytes)) return kExitFailure;
    if (bytes.size() < 6)
        return Fail(InputName(path), std::to_string(bytes.size()) + " bytes are too short for a record image (6 at least)");
    if (Load32(bytes.data()) != bytes.size())
        return Fail(InputName(path), "the image's length field says " + std::to_string(Load32(bytes.data())) +
                                         " bytes, the input has " + std::to_string(bytes.size()));
    RecordHolder rec;
    auto* block = static_cast<uint8_t*>(std::malloc(bytes.size()));
    if (!block) return Fail(InputName(path), "out of memory");
    std::memcpy(block, bytes.data(), bytes.size());
    KWRRecSet(&rec.r, block);  // at least 6 bytes and a matching length: adopted
    if (KWRRecCheck(&type.t, &rec.r) != 0)
        return Fail(InputName(path), std::string("not a valid image of type ") + type.t.name + ": " +
                                         Explain(type.t, rec.r.image, rec.r.length));
    std::printf("valid image of type %s\n", type.t.name);
    for (uint32_t i = 0; i < type.t.fieldCount; ++i) {
        const KWRField& f = type.t.fields[i];
        std::printf("  %-20s %-5s %s\n", f.name, FieldCode(f).c_str(), FieldText(f, rec.r).c_str());
    }
    std::printf("\n");
    Dump(type.t, rec.r);
    return 0;
}

int Build(const std::string& def, const std::vector<std::string>& assignments, const std::string& out, bool force) {
    TypeHolder type;
    if (!LoadType(UnescapeDefinition(def), 1, &type.t)) return kExitFailure;
    RecordHolder rec;
    if (KWRRecNew(&type.t, &rec.r) != 0) return Fail("record", "cannot be made");
    for (const auto& a : assignments)
        if (!AssignField(type.t, &rec.r, a)) return kExitFailure;
    if (KWRRecPack(&type.t, &rec.r, 1, 1) != 0) return Fail("record", "cannot be packed");
    if (!out.empty() && !WriteFile(out, rec.r.image, rec.r.length, force)) return kExitFailure;
    Dump(type.t, rec.r);
    return kExitOk;
}

}  // namespace

KWZ_COMMAND(record, {110, "records and tables", "record",
                     "\"DEF\" [field=value ...] [-o OUT] [-f]\n--decode \"DEF\" [FILE]",
                     "build and dump a record image, or check and decode one", 1, -1,
                     {{"--decode", nullptr, nullptr, "check the image in FILE (standard input without it) and print its fields"},
                      kOutOption, kForceOption},
                     "values: integers (0x.. for hex), true/false/yes/no/on/off for L1, numbers, texts;\n"
                     "        CB also takes 0x and hex digits for raw bytes; null makes a field null;\n"
                     "        a leading \\ takes the rest literally (\\null is the text null)"}) {
    if (call.Has("--decode")) {
        if (call.Has("--out") || call.Has("--force")) UsageError("--decode", "writes no file (-o, -f)");
        if (call.Count() > 2) UsageError(call.Arg(2), "unexpected argument");
        return Decode(call.Arg(0), call.Count() > 1 ? call.Arg(1) : "-");
    }
    if (call.Has("--force") && !call.Has("--out")) UsageError("--force", "needs -o OUT");
    return Build(call.Arg(0), std::vector<std::string>(call.Args().begin() + 1, call.Args().end()), call.Value("--out"),
                 call.Has("--force"));
}

