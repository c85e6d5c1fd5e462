#include "kwz_util.h"

#include <cerrno>
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

}  // namespace kwz::tool
