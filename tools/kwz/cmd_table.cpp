// kwz table: CSV into a packed record table ("#RA2"), and a packed table
// back to text (aligned, or CSV that reads back to the same table).
#include <VomKwz.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "command.h"
#include "kwz_util.h"

namespace {

using namespace kwz::tool;
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

// A header cell, quoted when the CSV reader would otherwise split or strip it.
std::string CsvCell(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos && !text.empty()) return text;
    std::string out = "\"";
    for (char c : text) out += c == '"' ? std::string("\"\"") : std::string(1, c);
    return out + "\"";
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
        info.options = Load32(&t[pos]);
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
        for (uint32_t f = 0; f < type->fieldCount; ++f) row.push_back(FieldText(type->fields[f], *r, TextStyle::kPlain));
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

// The table as CSV in the order of key: the header `kwz table` reads, then
// one line per record.
void PrintCsv(KWArray* a, int32_t key) {
    const KWRType* type = KWAType(a);
    for (uint32_t i = 0; i < type->fieldCount; ++i)
        std::printf("%s%s", i ? "," : "", CsvCell(std::string(type->fields[i].name) + ":" + FieldCode(type->fields[i])).c_str());
    std::printf("\n");
    for (int32_t i = 0; KWRData* r = KWARec(a, key, i); ++i) {
        for (uint32_t f = 0; f < type->fieldCount; ++f)
            std::printf("%s%s", f ? "," : "", FieldText(type->fields[f], *r, TextStyle::kCsv).c_str());
        std::printf("\n");
    }
}

void PrintLayout(KWArray* a, const std::vector<KeyInfo>& keys) {
    const KWRType* type = KWAType(a);
    std::printf("fields:");
    for (uint32_t i = 0; i < type->fieldCount; ++i)
        std::printf(" %s:%s", type->fields[i].name, FieldCode(type->fields[i]).c_str());
    std::printf("\nkeys:\n");
    for (size_t k = 0; k < keys.size(); ++k)
        std::printf("  %zu  %-24s %s\n", k, keys[k].expression.empty() ? "(posting order)" : keys[k].expression.c_str(),
                    OptionsText(keys[k].options).c_str());
    std::printf("records: %d\n", KWARecCount(a));
}

// A key record for a seek: the key's fields set from the given texts (an
// empty text leaves the field null).  Null after a message.
KWRData* KeyRecord(KWArray* a, const std::string& expression, const Strings& values) {
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
        if (values[i].empty()) continue;
        const KWRField* f = KWRFldByName(KWAType(a), names[i].c_str());
        std::string problem = "not a field of the table", note;
        if (!f || !SetField(*f, rec, values[i], &problem, &note)) {
            Fail("--seek", names[i] + ": " + problem);
            KWARecDel(rec);
            return nullptr;
        }
    }
    return rec;
}

struct ArrayHolder {
    KWArray* a = nullptr;
    ArrayHolder() { KWACreate(&a, nullptr); }
    ~ArrayHolder() { KWADestroy(a); }
    ArrayHolder(const ArrayHolder&) = delete;
    ArrayHolder& operator=(const ArrayHolder&) = delete;
};

int Show(const Call& call) {
    const std::string file = call.Value("--show");
    const auto order = int32_t(call.Number("--order", 0, 255, 0));
    std::vector<uint8_t> table;
    if (!ReadInput(file, &table)) return kExitFailure;
    ArrayHolder array;
    KWArray* a = array.a;
    const int64_t rc = KWAUnpackChecked(a, table.data(), table.size(), true);
    if (rc <= 0) return Fail(InputName(file), "not a valid packed table (" + std::to_string(rc) + ")");
    const std::vector<KeyInfo> keys = KeysOfTable(table);
    // Without keys the records are still reachable in posting order.
    if (order >= static_cast<int32_t>(std::max<size_t>(keys.size(), 1)))
        return Fail("--order", "the table has no key " + std::to_string(order));
    if (call.Has("--csv")) {
        PrintCsv(a, order);
        return kExitOk;
    }
    std::printf("%s: packed table, %" PRId64 " bytes, version %c\n", InputName(file).c_str(), rc, table[3]);
    PrintLayout(a, keys);
    const std::string expression = keys.empty() ? "" : keys[size_t(order)].expression;
    int32_t mark = -1;
    if (call.Has("--seek")) {
        if (keys.empty()) return Fail("--seek", "the table has no key to seek in");
        const std::string seek = call.Value("--seek");
        KWRData* probe = KeyRecord(a, expression, SplitCsvLine(seek));
        if (!probe) return kExitFailure;
        int32_t pos = -1;
        const KWRData* found = KWARecSeek(a, order, probe, &pos);
        KWARecDel(probe);
        std::printf("seek %s in key %d: %s at position %d\n", seek.c_str(), order, found ? "found" : "not found, insert",
                    pos);
        if (found) mark = pos;
    }
    std::printf("in the order of key %d (%s):\n", order, expression.empty() ? "posting order" : expression.c_str());
    PrintRecords(a, order, mark);
    return kExitOk;
}

// The --key options with the flags that follow each.
bool KeysOf(const Call& call, std::vector<KWAKeyDef>* keys) {
    for (const Call::Given& g : call.InOrder()) {
        const std::string name = g.option->name;
        if (name == "--key") {
            KWAKeyDef def;
            std::memset(&def, 0, sizeof def);
            if (g.value.empty() || g.value.size() >= sizeof def.expression)
                UsageError("--key", "\"" + g.value + "\" is not a key expression of 1.." +
                                        std::to_string(sizeof def.expression - 1) + " bytes");
            std::memcpy(def.expression, g.value.data(), g.value.size());
            keys->push_back(def);
            continue;
        }
        const uint32_t flag = name == "--unique"   ? iKeyOpt_Unique
                              : name == "--desc"   ? iKeyOpt_Descending
                              : name == "--nocase" ? iKeyOpt_CaseInsensitive
                              : name == "--nonmaint" ? iKeyOpt_NonMaintained
                                                     : 0;
        if (!flag) continue;
        if (keys->empty()) UsageError(name, "applies to the --key before it; there is none");
        keys->back().options |= flag;
    }
    return true;
}

int Build(const Call& call) {
    if (call.Count() != 1) UsageError("arguments", "one CSV file expected");
    std::vector<KWAKeyDef> keys;
    KeysOf(call, &keys);
    const std::string csv = call.Arg(0);
    if (csv == "-" && !call.Has("--out")) UsageError("-", "the table from standard input needs -o OUT");
    const std::string out = call.Value("--out", csv + ".ra2");
    std::vector<uint8_t> bytes;
    if (!ReadInput(csv, &bytes)) return kExitFailure;
    std::istringstream in(std::string(bytes.begin(), bytes.end()));
    const std::string name = InputName(csv);
    Strings head;
    std::vector<bool> quoted;
    if (!ReadCsvRecord(in, &head, &quoted)) return Fail(name, "empty; the first line names the fields (name:CODE,...)");
    // header: name ":" code { "," name ":" code }
    std::vector<KWRFieldDef> defs;
    for (const auto& column : head) {
        KWRFieldDef def;
        std::memset(&def, 0, sizeof def);
        const size_t colon = column.rfind(':');
        if (colon == std::string::npos || colon == 0 || colon > 63 || !ParseFieldCode(column.substr(colon + 1), &def))
            return Fail(name + ":1", "bad column \"" + column + "\" (want name:CODE, e.g. id:I4)");
        std::memcpy(def.name, column.data(), colon);
        defs.push_back(def);
    }
    ArrayHolder array;
    KWArray* a = array.a;
    if (KWAFldAdd(a, static_cast<int32_t>(defs.size()), defs.data()) != 0)
        return Fail(name + ":1", "the fields are refused (a name given twice?)");
    if (!keys.empty() && KWAKeyAdd(a, static_cast<int32_t>(keys.size()), keys.data()) != 0)
        return Fail("--key", "refused (a field that the CSV does not have?)");
    Strings values;
    for (int line = 2; ReadCsvRecord(in, &values, &quoted); ++line) {
        if (values.size() == 1 && values[0].empty() && !quoted[0]) continue;  // blank line
        const std::string where = name + ":" + std::to_string(line);
        if (values.size() != defs.size())
            return Fail(where, std::to_string(values.size()) + " values for " + std::to_string(defs.size()) + " fields");
        KWRData* rec = KWARecNew(a);
        for (size_t f = 0; f < values.size(); ++f) {
            if (values[f].empty() && !quoted[f]) continue;  // null
            std::string problem, note;
            if (!SetField(KWAType(a)->fields[f], rec, values[f], &problem, &note)) {
                KWARecDel(rec);
                return Fail(where, std::string(defs[f].name) + ": " + problem);
            }
            if (!note.empty()) Note(where, std::string(defs[f].name) + ": " + note);
        }
        const int32_t rc = KWARecPost(rec, nullptr);
        if (rc != 0) {
            KWARecDel(rec);
            return Fail(where, "post failed (" + std::to_string(rc) + (rc <= -7 ? ", duplicate under a unique key" : "") + ")");
        }
    }
    void* block = nullptr;
    const uint64_t size = KWAPack(a, &block);
    if (!size) return Fail(out, "the table cannot be packed");
    const bool written = WriteFile(out, block, size, call.Has("--force"));
    KWMemFree(block);
    if (!written) return kExitFailure;
    std::printf("%s: %d records, %zu keys, %" PRIu64 " bytes\n", out.c_str(), KWARecCount(a), keys.size(), size);
    return kExitOk;
}

}  // namespace

KWZ_COMMAND(table, {120, "records and tables", "table",
                    "[--key EXPR [--unique] [--desc] [--nocase] [--nonmaint]]... [-o OUT] [-f] CSV\n"
                    "--show FILE [--order N] [--seek VALUES | --csv]",
                    "CSV to a packed table, or show one (as text or CSV)", 0, 1,
                    {{"--key", nullptr, "EXPR", "add a key on the fields EXPR (\"name;id\"); the flags below apply to it"},
                     {"--unique", nullptr, nullptr, "the last key refuses duplicates"},
                     {"--desc", nullptr, nullptr, "the last key sorts descending"},
                     {"--nocase", nullptr, nullptr, "the last key compares texts ignoring case"},
                     {"--nonmaint", nullptr, nullptr, "the last key is not maintained on post"},
                     kOutOption,
                     kForceOption,
                     {"--show", nullptr, "FILE", "print the packed table in FILE"},
                     {"--order", nullptr, "N", "with --show: list in the order of key N (default 0)"},
                     {"--seek", nullptr, "VALUES", "with --show: seek the key's values (CSV) and mark the record"},
                     {"--csv", nullptr, nullptr, "with --show: print CSV that `kwz table` reads back"}},
                    "The CSV's first line names the fields as name:CODE (id:I4,name:CH20,price:F8); the output\n"
                    "is CSV.ra2 unless -o names it.  An empty unquoted value is null, \"\" an empty text; values\n"
                    "are read as `kwz record` reads them."}) {
    const bool show = call.Has("--show");
    const std::vector<const char*> buildOnly = {"--key", "--unique", "--desc", "--nocase", "--nonmaint", "--out", "--force"};
    const std::vector<const char*> showOnly = {"--order", "--seek", "--csv"};
    for (const char* o : show ? buildOnly : showOnly)
        if (call.Has(o)) UsageError(o, show ? "does not go with --show" : "goes with --show only");
    if (show && call.Count() != 0) UsageError(call.Arg(0), "unexpected argument");
    if (show && call.Has("--seek") && call.Has("--csv")) UsageError("--seek", "does not go with --csv");
    return show ? Show(call) : Build(call);
}

