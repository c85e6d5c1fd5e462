#include "kwz_util.h"

#include <strings.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstdio>
#include <cstring>

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

const char* TypeCodeName(uint8_t type) {
    static const char* const kCodes[] = {"?",  "L1", "B1", "I1", "I2", "I4",
                                         "I8", "F4", "F8", "CH", "CM", "CB"};
    return type <= iFldType_Blob ? kCodes[type] : "?";
}

std::string FieldCode(const KWRField& field) {
    std::string code = TypeCodeName(field.type);
    if (field.type == iFldType_Char) code += std::to_string(field.width);
    return code;
}

bool ReadInput(const std::string& path, std::vector<uint8_t>* bytes, std::string* error) {
    const bool useStdin = path.empty() || path == "-";
    FILE* in = useStdin ? stdin : std::fopen(path.c_str(), "rb");
    if (!in) {
        *error = path + ": " + std::strerror(errno);
        return false;
    }
    bytes->clear();
    uint8_t chunk[65536];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, in)) > 0) bytes->insert(bytes->end(), chunk, chunk + n);
    const bool failed = std::ferror(in) != 0;
    if (!useStdin) std::fclose(in);
    if (failed) *error = (useStdin ? std::string("standard input") : path) + ": read error";
    return !failed;
}

bool WriteFile(const std::string& path, const void* data, size_t size, std::string* error) {
    FILE* out = std::fopen(path.c_str(), "wb");
    if (!out) {
        *error = path + ": " + std::strerror(errno);
        return false;
    }
    const bool ok = std::fwrite(data, 1, size, out) == size;
    if (std::fclose(out) != 0 || !ok) {
        *error = path + ": write error";
        return false;
    }
    return true;
}

std::string HexBytes(const uint8_t* data, size_t size) {
    std::string out;
    char hex[4];
    for (size_t i = 0; i < size; ++i) {
        std::snprintf(hex, sizeof hex, i ? " %02x" : "%02x", data[i]);
        out += hex;
    }
    return out;
}

std::string QuoteText(const char* data, size_t size, size_t maxShown) {
    std::string out = "\"";
    for (size_t i = 0; i < size && i < maxShown; ++i) {
        const unsigned char c = static_cast<unsigned char>(data[i]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
        } else {
            char esc[5];
            std::snprintf(esc, sizeof esc, "\\x%02x", c);
            out += esc;
        }
    }
    out += '"';
    if (size > maxShown) out += "...";
    return out;
}

std::string FieldText(const KWRField& f, const KWRData& r) {
    uint8_t isNull = 0;
    KWRIsNull(&f, &r, &isNull);
    if (isNull) return "null";
    char buf[64];
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
            std::snprintf(buf, sizeof buf, "%.9g", v);
            return buf;
        }
        case iFldType_Double: {
            double v = 0;
            KWRGetAsDouble(&f, &r, &v);
            std::snprintf(buf, sizeof buf, "%.17g", v);
            return buf;
        }
        default: {
            uint32_t n = 0;
            const char* p = nullptr;
            if (KWRGetTextRef(&f, &r, &n, &p) == KWR_NOTEXT) return "(text reference without offset)";
            return QuoteText(p ? p : "", n);
        }
    }
}

namespace {

bool ParseInteger(const std::string& s, int64_t* v) {
    const size_t sign = (!s.empty() && (s[0] == '-' || s[0] == '+')) ? 1 : 0;
    const bool hex = s.compare(sign, 2, "0x") == 0 || s.compare(sign, 2, "0X") == 0;
    errno = 0;
    char* end = nullptr;
    *v = std::strtoll(s.c_str(), &end, hex ? 16 : 10);
    return !s.empty() && errno == 0 && end && *end == '\0' && end != s.c_str();
}

bool ParseHex(const std::string& s, std::string* out) {
    if (s.size() % 2) return false;
    for (size_t i = 0; i < s.size(); i += 2) {
        char pair[3] = {s[i], s[i + 1], 0};
        char* end = nullptr;
        const long b = std::strtol(pair, &end, 16);
        if (*end || !std::isxdigit(static_cast<unsigned char>(s[i]))) return false;
        *out += static_cast<char>(b);
    }
    return true;
}

}  // namespace

// field=value: "null" makes the field null; a leading backslash is dropped and
// the rest taken literally ("\null" is the text null).  Numbers wrap to the
// field's width as the library converts them, with a note.
bool AssignField(const char* tool, const KWRType& type, KWRData* rec, const std::string& arg) {
    const size_t eq = arg.find('=');
    if (eq == std::string::npos || eq == 0) {
        std::fprintf(stderr, "%s: expected field=value, got \"%s\"\n", tool, arg.c_str());
        return false;
    }
    const std::string name = arg.substr(0, eq);
    std::string value = arg.substr(eq + 1);
    const KWRField* f = KWRFldByName(&type, name.c_str());
    if (!f) {
        std::fprintf(stderr, "%s: type %s has no field \"%s\"\n", tool, type.name, name.c_str());
        return false;
    }
    if (value == "null") return KWRSetNull(f, rec) == 0;
    if (!value.empty() && value[0] == '\\') value.erase(0, 1);
    const char* code = TypeCodeName(f->type);
    if (f->type == iFldType_Bool) {
        const char* const words[] = {"false", "true", "no", "yes", "off", "on"};
        for (int i = 0; i < 6; ++i)
            if (strcasecmp(value.c_str(), words[i]) == 0) return KWRSetAsBool(f, rec, i % 2) == 0;
    }
    if (f->type <= iFldType_Int64) {
        int64_t v = 0;
        if (!ParseInteger(value, &v)) {
            std::fprintf(stderr, "%s: %s is %s; \"%s\" is not an integer\n", tool, name.c_str(), code,
                         value.c_str());
            return false;
        }
        KWRSetAsInt64(f, rec, v);
        int64_t back = 0;
        KWRGetAsInt64(f, rec, &back);
        if (back != v && f->type != iFldType_Bool)
            std::fprintf(stderr, "%s: note: %s does not fit %s; %s stores %lld\n", tool, value.c_str(),
                         code, name.c_str(), static_cast<long long>(back));
        return true;
    }
    if (f->type <= iFldType_Double) {
        char* end = nullptr;
        const double v = std::strtod(value.c_str(), &end);
        if (value.empty() || *end) {
            std::fprintf(stderr, "%s: %s is %s; \"%s\" is not a number\n", tool, name.c_str(), code,
                         value.c_str());
            return false;
        }
        return KWRSetAsDouble(f, rec, v) == 0;
    }
    std::string bytes = value;
    if (f->type == iFldType_Blob && value.compare(0, 2, "0x") == 0) {
        bytes.clear();
        if (!ParseHex(value.substr(2), &bytes)) {
            std::fprintf(stderr, "%s: %s: \"%s\" is not an even number of hex digits\n",
                         tool, name.c_str(), value.c_str());
            return false;
        }
    }
    if (f->type == iFldType_Char && bytes.size() > f->width)
        std::fprintf(stderr, "%s: note: %s holds %u bytes; the text is cut\n", tool, name.c_str(),
                     f->width);
    return KWRSetAsText(f, rec, static_cast<int32_t>(bytes.size()), bytes.data()) == 0;
}

}  // namespace kwz::tool
