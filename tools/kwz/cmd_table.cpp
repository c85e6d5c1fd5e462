// kwz table: CSV into a packed record table ("#RA2") and back to text; and
// the "record arrays" step of kwz demo.
#include <VomKwz.h>

#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <strings.h>
#include <algorithm>
#include <string>
#include <vector>

#include "command.h"

namespace {

using Strings = std::vector<std::string>;

// ---- CSV ----------------------------------------------------------------

// line: field { "," field };  field: plain text | '"' { char | '""' } '"'.
// Reads one record, which may span lines inside quotes.  `quoted` tells
// which fields were quoted (an empty quoted field is an empty text, not
// null).  False at the end of the input.
bool ReadCsvRecord(std::istream& in, Strings* fields, std::vector<bool>* quoted) {
    fields->clear();
    quoted->clear();
    std::string field;
    bool inQuotes = false, wasQuoted = false, any = false;
    for (int c; (c = in.get()) != EOF;) {
        any = true;
        if (inQuotes) {
            if (c == '"') {
                if (in.peek() == '"') {
                    field.push_back('"');
                    in.get();
                } else {
                    inQuotes = false;
                }
            } else {
                field.push_back(static_cast<char>(c));
            }
        } else if (c == '"' && field.empty()) {
            inQuotes = wasQuoted = true;
        } else if (c == ',') {
            fields->push_back(field);
            quoted->push_back(wasQuoted);
            field.clear();
            wasQuoted = false;
        } else if (c == '\n') {
            break;
        } else if (c != '\r') {
            field.push_back(static_cast<char>(c));
        }
    }
    if (!any) return false;
    fields->push_back(field);
    quoted->push_back(wasQuoted);
    return true;
}

Strings SplitCsvLine(const std::string& line) {
    std::istringstream in(line);
    Strings out;
    std::vector<bool> quoted;
    ReadCsvRecord(in, &out, &quoted);
    return out;
}

// code: "L1" | "B1" | "I1" | "I2" | "I4" | "I8" | "F4" | "F8" | "CH" n | "CM" | "CB"
bool ParseCode(const std::string& code, KWRFieldDef* def) {
    static const char* const kCodes[] = {"L1", "B1", "I1", "I2", "I4", "I8", "F4", "F8", "CH", "CM", "CB"};
    if (code.size() < 2) return false;
    for (uint8_t t = 0; t < 11; ++t) {
        if (strncasecmp(code.c_str(), kCodes[t], 2) != 0) continue;
        def->type = static_cast<uint8_t>(t + 1);
        if (def->type == iFldType_Char) {
            const long n = std::strtol(code.c_str() + 2, nullptr, 10);
            if (n < 1 || n > 255) return false;
            def->width = static_cast<uint8_t>(n);
        } else if (code.size() != 2) {
            return false;
        }
        return true;
    }
    return false;
}

const char* CodeOf(const KWRField& f, char* buf) {
    static const char* const kCodes[] = {"??", "L1", "B1", "I1", "I2", "I4", "I8", "F4", "F8", "CH", "CM", "CB"};
    if (f.type == iFldType_Char) {
        std::snprintf(buf, 8, "CH%u", f.width);
        return buf;
    }
    return kCodes[f.type <= 11 ? f.type : 0];
}

// Stores a text value into a field in the field's own type: 0, or a
// message for a value the field cannot take.
const char* SetFromText(const KWRField* f, KWRData* rec, const std::string& text) {
    char* end = nullptr;
    errno = 0;
    switch (f->type) {
        case iFldType_Bool:
            if (text == "1" || strcasecmp(text.c_str(), "true") == 0) return KWRSetAsBool(f, rec, 1), nullptr;
            if (text == "0" || strcasecmp(text.c_str(), "false") == 0) return KWRSetAsBool(f, rec, 0), nullptr;
            return "expected 0, 1, true or false";
        case iFldType_Byte: case iFldType_Int8: case iFldType_Int16: case iFldType_Int32:
        case iFldType_Int64: {
            const long long v = std::strtoll(text.c_str(), &end, 10);
            if (*end || errno) return "expected an integer";
            KWRSetAsInt64(f, rec, v);
            return nullptr;
        }
        case iFldType_Float:
        case iFldType_Double: {
            const double v = std::strtod(text.c_str(), &end);
            if (*end) return "expected a number";
            if (f->type == iFldType_Float) KWRSetAsFloat(f, rec, static_cast<float>(v));
            else KWRSetAsDouble(f, rec, v);
            return nullptr;
        }
        default:
            return KWRSetAsText(f, rec, static_cast<int32_t>(text.size()), text.data()) == 0 ? nullptr
                                                                                             : "cannot store the text";
    }
}

std::string ValueText(const KWRField* f, const KWRData* rec) {
    uint8_t isNull = 0;
    KWRIsNull(f, rec, &isNull);
    if (isNull) return "NULL";
    char buf[64];
    switch (f->type) {
        case iFldType_Float:
        case iFldType_Double: {
            double v = 0;
            KWRGetAsDouble(f, rec, &v);
            std::snprintf(buf, sizeof buf, "%.*g", f->type == iFldType_Float ? 7 : 15, v);
            return buf;
        }
        case iFldType_Char: case iFldType_Memo: case iFldType_Blob: {
            uint32_t n = 0;
            const char* p = nullptr;
            KWRGetTextRef(f, rec, &n, &p);
            std::string out;
            for (uint32_t i = 0; p && i < n; ++i) {
                const auto c = static_cast<unsigned char>(p[i]);
                if (c >= 0x20 && c != 0x7F) {
                    out.push_back(static_cast<char>(c));
                } else {
                    std::snprintf(buf, sizeof buf, "\\x%02X", c);
                    out += buf;
                }
            }
            return out;
        }
        default: {
            int64_t v = 0;
            KWRGetAsInt64(f, rec, &v);
            std::snprintf(buf, sizeof buf, "%" PRId64, v);
            return buf;
        }
    }
}

std::string OptionsText(uint32_t options) {
    static const char* const kNames[] = {"primary", "unique", "desc", "nocase", "expression", "nonmaint"};
    std::string out;
    for (int i = 0; i < 6; ++i)
        if (options & (1u << i)) out += (out.empty() ? "" : ",") + std::string(kNames[i]);
    return out.empty() ? "-" : out;
}

// ---- printing -------------------------------------------------------------

struct KeyInfo {
    std::string expression;
    uint32_t options;
};

// The key descriptors of a packed table that KWAUnpackChecked accepted.
std::vector<KeyInfo> KeysOfTable(const std::vector<uint8_t>& t) {
    std::vector<KeyInfo> keys;
    size_t pos = t[3] == '2' ? 18 : 22;
    for (unsigned i = 0; i < t[4]; ++i) pos += std::strlen(reinterpret_cast<const char*>(&t[pos])) + 3;
    for (unsigned k = 0; k < t[5]; ++k) {
        KeyInfo info;
        info.expression = reinterpret_cast<const char*>(&t[pos]);
        pos += info.expression.size() + 1;
        std::memcpy(&info.options, &t[pos], 4);
        pos += 4;
        keys.push_back(info);
    }
    return keys;
}

void PrintRecords(KWArray* a, int32_t key, int32_t mark = -1) {
    const KWRType* type = KWAType(a);
    std::vector<Strings> rows;
    Strings head{"#"};
    for (uint32_t i = 0; i < type->fieldCount; ++i) head.push_back(type->fields[i].name);
    rows.push_back(head);
    for (int32_t i = 0; KWRData* r = KWARec(a, key, i); ++i) {
        Strings row{std::to_string(i)};
        for (uint32_t f = 0; f < type->fieldCount; ++f) row.push_back(ValueText(&type->fields[f], r));
        rows.push_back(row);
    }
    std::vector<size_t> width(head.size(), 0);
    for (const auto& row : rows)
        for (size_t c = 0; c < row.size(); ++c) width[c] = std::max(width[c], row[c].size());
    for (size_t r = 0; r < rows.size(); ++r) {
        std::string line = r > 0 && static_cast<int32_t>(r) - 1 == mark ? "> " : "  ";
        for (size_t c = 0; c < rows[r].size(); ++c) {
            std::string cell = rows[r][c];
            cell.resize(width[c], ' ');
            line += cell + (c + 1 < rows[r].size() ? "  " : "");
        }
        while (!line.empty() && line.back() == ' ') line.pop_back();
        std::printf("%s\n", line.c_str());
    }
}

void PrintLayout(KWArray* a, const std::vector<KeyInfo>& keys) {
    const KWRType* type = KWAType(a);
    std::printf("fields:");
    char buf[8];
    for (uint32_t i = 0; i < type->fieldCount; ++i)
        std::printf(" %s:%s", type->fields[i].name, CodeOf(type->fields[i], buf));
    std::printf("\nkeys:\n");
    for (size_t k = 0; k < keys.size(); ++k)
        std::printf("  %zu  %-24s %s\n", k, keys[k].expression.empty() ? "(posting order)" : keys[k].expression.c_str(),
                    OptionsText(keys[k].options).c_str());
    std::printf("records: %d\n", KWARecCount(a));
}

// A key record for a seek: the key's fields set from the given texts.
KWRData* KeyRecord(KWArray* a, const std::string& expression, const Strings& values, std::string* error) {
    KWRData* rec = KWARecNew(a);
    Strings names;
    size_t start = 0;
    while (start <= expression.size()) {
        size_t end = expression.find(';', start);
        if (end == std::string::npos) end = expression.size();
        if (end > start) names.push_back(expression.substr(start, end - start));
        start = end + 1;
    }
    for (size_t i = 0; i < names.size() && i < values.size(); ++i) {
        if (values[i].empty()) continue;  // null
        const KWRField* f = KWRFldByName(KWAType(a), names[i].c_str());
        if (const char* problem = f ? SetFromText(f, rec, values[i]) : "unknown field") {
            *error = names[i] + ": " + problem;
            KWARecDel(rec);
            return nullptr;
        }
    }
    return rec;
}

std::vector<uint8_t> ReadAll(const std::string& path, bool* ok) {
    std::ifstream in(path, std::ios::binary);
    *ok = static_cast<bool>(in);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

int Show(const Strings& args) {
    std::string file, seek;
    int32_t key = 0;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--show" && i + 1 < args.size()) file = args[++i];
        else if (args[i] == "--key" && i + 1 < args.size()) key = std::atoi(args[++i].c_str());
        else if (args[i] == "--seek" && i + 1 < args.size()) seek = args[++i];
        else {
            std::fprintf(stderr, "kwz table: unexpected argument \"%s\"\n", args[i].c_str());
            return 2;
        }
    }
    bool ok = false;
    const std::vector<uint8_t> table = ReadAll(file, &ok);
    if (!ok) {
        std::fprintf(stderr, "kwz table: cannot read %s\n", file.c_str());
        return 1;
    }
    KWArray* a = nullptr;
    KWACreate(&a, nullptr);
    const int64_t rc = KWAUnpackChecked(a, table.data(), table.size(), true);
    if (rc <= 0) {
        std::fprintf(stderr, "kwz table: %s is not a valid packed table (%" PRId64 ")\n", file.c_str(), rc);
        KWADestroy(a);
        return 1;
    }
    const std::vector<KeyInfo> keys = KeysOfTable(table);
    std::printf("%s: packed table, %" PRId64 " bytes, version %c\n", file.c_str(), rc, table[3]);
    PrintLayout(a, keys);
    if (key < 0 || key >= static_cast<int32_t>(keys.size())) {
        if (!keys.empty() || key != 0) std::fprintf(stderr, "kwz table: no key %d\n", key);
        KWADestroy(a);
        return keys.empty() && key == 0 ? 0 : 1;
    }
    int32_t mark = -1;
    if (!seek.empty()) {
        std::string error;
        KWRData* probe = KeyRecord(a, keys[static_cast<size_t>(key)].expression, SplitCsvLine(seek), &error);
        if (!probe) {
            std::fprintf(stderr, "kwz table: --seek %s\n", error.c_str());
            KWADestroy(a);
            return 1;
        }
        int32_t pos = -1;
        const KWRData* found = KWARecSeek(a, key, probe, &pos);
        KWARecDel(probe);
        std::printf("seek %s in key %d: %s at position %d\n", seek.c_str(), key, found ? "found" : "not found, insert",
                    pos);
        if (found) mark = pos;
    }
    std::printf("in the order of key %d (%s):\n", key, keys[static_cast<size_t>(key)].expression.c_str());
    PrintRecords(a, key, mark);
    KWADestroy(a);
    return 0;
}

int Build(const Strings& args) {
    std::vector<KWAKeyDef> keys;
    std::string out, csv;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        const bool flag = arg == "--unique" || arg == "--desc" || arg == "--nocase" || arg == "--nonmaint";
        if (arg == "--key" && i + 1 < args.size()) {
            KWAKeyDef def;
            std::memset(&def, 0, sizeof def);
            std::snprintf(def.expression, sizeof def.expression, "%s", args[++i].c_str());
            keys.push_back(def);
        } else if (flag && !keys.empty()) {
            keys.back().options |= arg == "--unique" ? iKeyOpt_Unique
                                   : arg == "--desc" ? iKeyOpt_Descending
                                   : arg == "--nocase" ? iKeyOpt_CaseInsensitive
                                                       : iKeyOpt_NonMaintained;
        } else if (arg == "-o" && i + 1 < args.size()) {
            out = args[++i];
        } else if (csv.empty() && arg[0] != '-') {
            csv = arg;
        } else {
            std::fprintf(stderr, "kwz table: unexpected argument \"%s\"\n", arg.c_str());
            return 2;
        }
    }
    if (csv.empty()) {
        std::fprintf(stderr, "kwz table: no CSV file given\n");
        return 2;
    }
    if (out.empty()) out = csv + ".ra2";
    std::ifstream in(csv, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "kwz table: cannot read %s\n", csv.c_str());
        return 1;
    }
    Strings head;
    std::vector<bool> quoted;
    if (!ReadCsvRecord(in, &head, &quoted)) {
        std::fprintf(stderr, "kwz table: %s is empty\n", csv.c_str());
        return 1;
    }
    // header: name ":" code { "," name ":" code }
    std::vector<KWRFieldDef> defs;
    for (const auto& column : head) {
        KWRFieldDef def;
        std::memset(&def, 0, sizeof def);
        const size_t colon = column.rfind(':');
        if (colon == std::string::npos || colon == 0 || colon > 63 ||
            !ParseCode(column.substr(colon + 1), &def)) {
            std::fprintf(stderr, "kwz table: bad column \"%s\" (want name:CODE, e.g. id:I4)\n", column.c_str());
            return 1;
        }
        std::memcpy(def.name, column.data(), colon);
        defs.push_back(def);
    }
    KWArray* a = nullptr;
    KWACreate(&a, nullptr);
    int status = 0;
    if (KWAFldAdd(a, static_cast<int32_t>(defs.size()), defs.data()) != 0 ||
        (!keys.empty() && KWAKeyAdd(a, static_cast<int32_t>(keys.size()), keys.data()) != 0)) {
        std::fprintf(stderr, "kwz table: bad fields or keys (duplicate field, unknown key field?)\n");
        status = 1;
    }
    Strings values;
    for (int line = 2; status == 0 && ReadCsvRecord(in, &values, &quoted); ++line) {
        if (values.size() == 1 && values[0].empty() && !quoted[0]) continue;  // blank line
        if (values.size() != defs.size()) {
            std::fprintf(stderr, "kwz table: %s:%d: %zu values for %zu fields\n", csv.c_str(), line, values.size(),
                         defs.size());
            status = 1;
            break;
        }
        KWRData* rec = KWARecNew(a);
        for (size_t f = 0; f < values.size() && status == 0; ++f) {
            if (values[f].empty() && !quoted[f]) continue;  // null
            if (const char* problem = SetFromText(&KWAType(a)->fields[f], rec, values[f])) {
                std::fprintf(stderr, "kwz table: %s:%d: %s: %s\n", csv.c_str(), line, defs[f].name, problem);
                status = 1;
            }
        }
        if (status == 0) {
            const int32_t rc = KWARecPost(rec, nullptr);
            if (rc != 0) {
                std::fprintf(stderr, "kwz table: %s:%d: post failed (%d%s)\n", csv.c_str(), line, rc,
                             rc <= -7 ? ", duplicate under a unique key" : "");
                status = 1;
            }
        }
        if (status != 0) KWARecDel(rec);
    }
    if (status == 0) {
        void* block = nullptr;
        const uint64_t size = KWAPack(a, &block);
        FILE* f = size ? std::fopen(out.c_str(), "wb") : nullptr;
        if (!f || std::fwrite(block, 1, size, f) != size) {
            std::fprintf(stderr, "kwz table: cannot write %s\n", out.c_str());
            status = 1;
        } else {
            std::printf("%s: %d records, %zu keys, %" PRIu64 " bytes\n", out.c_str(), KWARecCount(a), keys.size(), size);
        }
        if (f) std::fclose(f);
        KWMemFree(block);
    }
    KWADestroy(a);
    return status;
}

}  // namespace

KWZ_COMMAND(table, "table",
            "[--key \"a;b\" [--unique] [--desc] [--nocase] [--nonmaint]]... [-o OUT] CSV | --show FILE [--key N] "
            "[--seek v,...]",
            "CSV (header name:CODE,...) to a packed table, or show one") {
    for (const auto& a : args)
        if (a == "--show") return Show(args);
    return Build(args);
}

KWZ_DEMO_STEP(30, "record arrays") {
    const KWRFieldDef fields[] = {
        {"id", 0, iFldType_Int32}, {"name", 16, iFldType_Char}, {"price", 0, iFldType_Double}};
    KWAKeyDef keys[2];
    std::memset(keys, 0, sizeof keys);
    std::strcpy(keys[0].expression, "id");
    keys[0].options = iKeyOpt_Unique | iKeyOpt_Primary;
    std::strcpy(keys[1].expression, "name ; price");  // spaces are dropped
    keys[1].options = iKeyOpt_CaseInsensitive;
    KWArray* a = nullptr;
    KWACreate(&a, nullptr);
    KWAFldAdd(a, 3, fields);
    KWAKeyAdd(a, 2, keys);
    KWRType* type = KWAType(a);
    const KWRField* id = &type->fields[0];
    const KWRField* name = &type->fields[1];
    const KWRField* price = &type->fields[2];

    struct Item {
        int32_t id;
        const char* name;
        double price;
    };
    for (const Item& it : {Item{30, "pear", 1.25}, Item{10, "Apple", 0.5}, Item{20, "apple", 0.75},
                           Item{40, "fig", 3.0}}) {
        KWRData* rec = KWARecNew(a);
        KWRSetAsInt32(id, rec, it.id);
        KWRSetAsText(name, rec, static_cast<int32_t>(std::strlen(it.name)), it.name);
        KWRSetAsDouble(price, rec, it.price);
        if (KWARecPost(rec, nullptr) != 0) return 1;
    }
    std::printf("posted 4 records; key 0 \"id\" (unique), key 1 \"name;price\" (nocase):\n");
    PrintRecords(a, 1);

    KWRData* dup = KWARecNew(a);
    KWRSetAsInt32(id, dup, 20);
    std::printf("posting another id 20: %d (duplicate under unique key 0)\n", KWARecPost(dup, nullptr));
    KWARecDel(dup);

    KWRVal cell;
    std::memset(&cell, 0, sizeof cell);
    cell.type = iFldType_Int32;
    const int32_t want = 40;
    std::memcpy(cell.value, &want, 4);
    int32_t pos = -1;
    KWRData* fig = KWARecSeekV(a, 0, &cell, &pos);
    KWRData* copy = KWARecEdit(fig);
    KWRSetAsText(name, copy, 6, "Banana");
    KWRData* member = nullptr;
    const int32_t rc = KWARecPost(copy, &member);
    std::printf("seek id 40: position %d; edited its name to Banana: %d, now at %d in key 1\n", pos, rc,
                KWARecIdx(a, 1, member));

    void* block = nullptr;
    const uint64_t size = KWAPack(a, &block);
    std::printf("packed to %" PRIu64 " bytes:", size);
    for (uint64_t i = 0; i < 18 && i < size; ++i) std::printf(" %02X", static_cast<uint8_t*>(block)[i]);
    std::printf(" ...\n");
    KWArray* b = nullptr;
    KWACreate(&b, nullptr);
    const int64_t back = KWAUnpackForRead(b, block);
    KWMemFree(block);
    std::printf("unpacked for read (%" PRId64 " bytes), in key 0 order:\n", back);
    PrintRecords(b, 0);
    KWADestroy(b);
    KWADestroy(a);
    return back > 0 && rc == 0 ? 0 : 1;
}
