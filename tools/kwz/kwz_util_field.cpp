// Type definitions, type codes and field values for the kwz subcommands:
// the one place where text becomes a field value and back.
#include <strings.h>

#include <cctype>
#include <cstdlib>

#include "kwz_util.h"

namespace kwz::tool {

std::string UnescapeDefinition(const std::string& in) {
    std::string out;
    for (size_t i = 0; i < in.size(); ++i) {
        const char next = i + 1 < in.size() ? in[i + 1] : '\0';
        if (in[i] == '\\' && (next == 'r' || next == 'n' || next == '\\')) {
            out += next == 'r' ? '\r' : next == 'n' ? '\n' : '\\';
            ++i;
        } else {
            out += in[i];
        }
    }
    return out;
}

bool LoadType(const std::string& definition, uint32_t id, KWRType* type) {
    const uint32_t rc = KWRTypSet(type, id, definition.c_str());
    if (rc == KWR_OK) return true;
    if (rc == KWR_SYNTAX)
        Fail("definition", DiagnoseDefinition(definition));
    else
        Fail("definition", "the type could not be built (" + std::to_string(int32_t(rc)) + ")");
    return false;
}

// ------------------------------------------------------------ diagnosis
// A small checker of the definition grammar that knows line numbers, used
// only to explain a definition that the library has refused.
namespace {

struct Line {
    int number;  // 1-based; every CR LF pair, CR or LF ends one line
    std::string text;
};

std::vector<Line> SplitLines(const std::string& text) {
    std::vector<Line> lines;
    int number = 1;
    size_t i = 0;
    while (i <= text.size()) {
        size_t end = text.find_first_of("\r\n", i);
        if (end == std::string::npos) end = text.size();
        if (end > i) lines.push_back({number, text.substr(i, end - i)});
        if (end == text.size()) break;
        end += text.compare(end, 2, "\r\n") == 0 ? 2 : 1;
        ++number;
        i = end;
    }
    return lines;
}

// The parts of a line between "|" separators.
std::vector<std::string> Parts(const std::string& line) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        size_t bar = line.find('|', start);
        parts.push_back(line.substr(start, bar == std::string::npos ? std::string::npos : bar - start));
        if (bar == std::string::npos) return parts;
        start = bar + 1;
    }
}

std::string CheckField(const std::string& line) {
    const std::vector<std::string> parts = Parts(line);
    if (parts.size() < 2) return "expected Field|Code, found no '|'";
    if (parts[0].empty()) return "empty field name";
    const std::string& code = parts[1];
    if (code.size() < 2) return "type code \"" + code + "\" is too short";
    TypeHolder probe;
    const std::string one = "X|1\r\nX|" + code;
    if (KWRTypSet(&probe.t, 0, one.c_str()) == KWR_OK) return "";
    if (strncasecmp(code.c_str(), "CH", 2) == 0) return "\"" + code + "\": a CH field needs a capacity of 1..255, e.g. CH20";
    return "unknown type code \"" + code + "\" (L1 B1 I1 I2 I4 I8 F4 F8 CHn CM CB)";
}

}  // namespace

std::string DiagnoseDefinition(const std::string& text) {
    const std::vector<Line> lines = SplitLines(text);
    if (lines.empty() || lines[0].number != 1) return "line 1: the header Name|Count is missing";
    const std::vector<std::string> header = Parts(lines[0].text);
    if (header.size() < 2 || header[0].empty()) return "line 1: the header must read Name|Count[|Description]";
    // The count is taken modulo 256, as the library reads it.
    const auto count = static_cast<uint8_t>(std::strtol(header[1].c_str(), nullptr, 10));
    std::vector<std::string> names;
    for (int k = 0; k < count; ++k) {
        const std::string declared =
            " (field " + std::to_string(k + 1) + " of " + std::to_string(count) + " declared)";
        if (static_cast<size_t>(k + 1) >= lines.size())
            return "line " + std::to_string(lines.back().number + 1) +
                   ": the text ends before the field list is complete" + declared;
        const Line& line = lines[static_cast<size_t>(k) + 1];
        const std::string fault = CheckField(line.text);
        if (!fault.empty()) return "line " + std::to_string(line.number) + ": " + fault + declared;
        const std::string name = Parts(line.text)[0].substr(0, 63);
        for (size_t j = 0; j < names.size(); ++j) {
            if (strcasecmp(names[j].c_str(), name.c_str()) == 0)
                return "line " + std::to_string(line.number) + ": field name \"" + name + "\" repeats the name on line " +
                       std::to_string(lines[j + 1].number) + " (names are compared ignoring case)";
        }
        names.push_back(name);
    }
    return "the definition was refused";
}

// ------------------------------------------------------------ codes

namespace {
const char* const kCodes[] = {"?", "L1", "B1", "I1", "I2", "I4", "I8", "F4", "F8", "CH", "CM", "CB"};
}

const char* TypeCodeName(uint8_t type) { return type <= iFldType_Blob ? kCodes[type] : "?"; }

std::string FieldCode(uint8_t type, uint32_t width) {
    std::string code = TypeCodeName(type);
    if (type == iFldType_Char) code += std::to_string(width);
    return code;
}

std::string FieldCode(const KWRField& field) { return FieldCode(field.type, field.width); }

bool ParseFieldCode(const std::string& code, KWRFieldDef* def) {
    for (uint8_t t = iFldType_Bool; t <= iFldType_Blob; ++t) {
        if (code.size() < 2 || strncasecmp(code.c_str(), kCodes[t], 2) != 0) continue;
        def->type = t;
        if (t == iFldType_Char) {
            int64_t n = 0;
            if (!ParseInt(code.substr(2), 1, 255, &n)) return false;
            def->width = static_cast<uint8_t>(n);
            return true;
        }
        return code.size() == 2;
    }
    return false;
}

// ------------------------------------------------------------ values

namespace {

// The shortest %g text that reads back to the same value.
std::string RealText(double v, bool single) {
    char buf[64];
    for (int precision = single ? 6 : 15; precision <= (single ? 9 : 17); ++precision) {
        std::snprintf(buf, sizeof buf, "%.*g", precision, v);
        if (single ? std::strtof(buf, nullptr) == static_cast<float>(v) : std::strtod(buf, nullptr) == v) break;
    }
    return buf;
}

std::string Plain(const char* p, size_t n) {
    std::string out;
    char esc[5];
    for (size_t i = 0; i < n; ++i) {
        const auto c = static_cast<unsigned char>(p[i]);
        if (c >= 0x20 && c != 0x7F) {
            out.push_back(static_cast<char>(c));
        } else {
            std::snprintf(esc, sizeof esc, "\\x%02X", c);
            out += esc;
        }
    }
    return out;
}

// A text as a CSV field that SetField reads back: always quoted (an empty
// unquoted field is null), a blob with unprintable bytes as 0x and hex, and
// a backslash before what SetField would otherwise read specially.
std::string CsvText(const KWRField& f, const char* p, size_t n) {
    std::string text(p, n);
    bool printable = true;
    for (unsigned char c : text) printable = printable && c >= 0x20 && c < 0x7F;
    if (f.type == iFldType_Blob && !printable) {
        text = "0x";
        char two[3];
        for (size_t i = 0; i < n; ++i) {
            std::snprintf(two, sizeof two, "%02x", static_cast<unsigned char>(p[i]));
            text += two;
        }
    } else if (!text.empty() && (text[0] == '\\' || (f.type == iFldType_Blob && (text.compare(0, 2, "0x") == 0 ||
                                                                                  text.compare(0, 2, "0X") == 0)))) {
        text.insert(0, 1, '\\');
    }
    std::string out = "\"";
    for (char c : text) out += c == '"' ? std::string("\"\"") : std::string(1, c);
    return out + "\"";
}

bool ParseHex(const std::string& s, std::string* out) {
    if (s.size() % 2) return false;
    for (size_t i = 0; i < s.size(); i += 2) {
        if (!std::isxdigit(static_cast<unsigned char>(s[i])) || !std::isxdigit(static_cast<unsigned char>(s[i + 1])))
            return false;
        *out += static_cast<char>(std::strtol(s.substr(i, 2).c_str(), nullptr, 16));
    }
    return true;
}

}  // namespace

std::string FieldText(const KWRField& f, const KWRData& r, TextStyle style) {
    uint8_t isNull = 0;
    KWRIsNull(&f, &r, &isNull);
    if (isNull) return style == TextStyle::kQuoted ? "null" : style == TextStyle::kPlain ? "NULL" : "";
    switch (f.type) {
        case iFldType_Bool:
        case iFldType_Byte: {
            uint8_t v = 0;  // an "L1" field read as a byte gives its raw byte
            KWRGetAsByte(&f, &r, &v);
            return std::to_string(v);
        }
        case iFldType_Int8:
        case iFldType_Int16:
        case iFldType_Int32:
        case iFldType_Int64: {
            int64_t v = 0;
            KWRGetAsInt64(&f, &r, &v);
            return std::to_string(v);
        }
        case iFldType_Float: {
            float v = 0;
            KWRGetAsFloat(&f, &r, &v);
            return RealText(v, true);
        }
        case iFldType_Double: {
            double v = 0;
            KWRGetAsDouble(&f, &r, &v);
            return RealText(v, false);
        }
        default: {
            uint32_t n = 0;
            const char* p = nullptr;
            if (KWRGetTextRef(&f, &r, &n, &p) == KWR_NOTEXT) return "(text reference without offset)";
            if (!p) n = 0;
            if (style == TextStyle::kQuoted) return QuoteText(p ? p : "", n);
            if (style == TextStyle::kPlain) return Plain(p, n);
            return CsvText(f, p, n);
        }
    }
}

bool SetField(const KWRField& f, KWRData* rec, const std::string& typed, std::string* problem, std::string* note) {
    std::string text = typed;
    const bool literal = !text.empty() && text[0] == '\\';
    if (literal) text.erase(0, 1);
    const std::string code = FieldCode(f);
    if (f.type == iFldType_Bool) {
        const char* const words[] = {"false", "true", "no", "yes", "off", "on"};
        for (int i = 0; i < 6; ++i)
            if (strcasecmp(text.c_str(), words[i]) == 0) return KWRSetAsBool(&f, rec, uint8_t(i % 2)) == 0;
    }
    if (f.type <= iFldType_Int64) {
        int64_t v = 0;
        if (!ParseInt(text, INT64_MIN, INT64_MAX, &v)) {
            *problem = "\"" + text + "\" is not " + (f.type == iFldType_Bool ? "true, false or an integer" : "an integer");
            return false;
        }
        KWRSetAsInt64(&f, rec, v);
        int64_t back = 0;
        KWRGetAsInt64(&f, rec, &back);
        if (back != v && f.type != iFldType_Bool)
            *note = text + " does not fit " + code + "; stored " + std::to_string(back);
        return true;
    }
    if (f.type <= iFldType_Double) {
        double v = 0;
        if (!ParseReal(text, &v)) {
            *problem = "\"" + text + "\" is not a number";
            return false;
        }
        return KWRSetAsDouble(&f, rec, v) == 0;
    }
    std::string bytes = text;
    if (f.type == iFldType_Blob && !literal && (text.compare(0, 2, "0x") == 0 || text.compare(0, 2, "0X") == 0)) {
        bytes.clear();
        if (!ParseHex(text.substr(2), &bytes)) {
            *problem = "\"" + text + "\" is not 0x and an even number of hex digits";
            return false;
        }
    }
    if (f.type == iFldType_Char && bytes.size() > f.width)
        *note = "the text of " + std::to_string(bytes.size()) + " bytes is cut to " + code;
    if (KWRSetAsText(&f, rec, static_cast<int32_t>(bytes.size()), bytes.data()) != 0) {
        *problem = "the text cannot be stored";
        return false;
    }
    return true;
}

bool AssignField(const KWRType& type, KWRData* rec, const std::string& arg) {
    const size_t eq = arg.find('=');
    if (eq == std::string::npos || eq == 0) UsageError(arg, "expected field=value");
    const std::string name = arg.substr(0, eq);
    const std::string value = arg.substr(eq + 1);
    const KWRField* f = KWRFldByName(&type, name.c_str());
    if (!f) {
        Fail(name, std::string("type ") + type.name + " has no such field");
        return false;
    }
    if (value == "null") return KWRSetNull(f, rec) == 0;
    std::string problem, note;
    if (!SetField(*f, rec, value, &problem, &note)) {
        Fail(name, problem + " (" + FieldCode(*f) + ")");
        return false;
    }
    if (!note.empty()) Note(name, note);
    return true;
}

}  // namespace kwz::tool
