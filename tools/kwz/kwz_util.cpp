// Files and byte display shared by the kwz subcommands.
#include "kwz_util.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace kwz::tool {

namespace {

int NoClose(FILE*) { return 0; }

// False after a message when path names an existing file and force is off.
bool MayWrite(const std::string& path, bool force) {
    struct stat st;
    if (force || ::stat(path.c_str(), &st) != 0) return true;
    Fail(path, "exists (-f writes over it)");
    return false;
}

}  // namespace

std::string InputName(const std::string& path) { return path == "-" ? "standard input" : path; }

bool ReadInput(const std::string& path, std::vector<uint8_t>* bytes) {
    FilePtr in = OpenInput(path);
    if (!in) return false;
    bytes->clear();
    uint8_t chunk[65536];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, in.get())) > 0) bytes->insert(bytes->end(), chunk, chunk + n);
    if (std::ferror(in.get())) {
        Fail(InputName(path), "read error");
        return false;
    }
    return true;
}

FilePtr OpenInput(const std::string& path) {
    if (path == "-") return FilePtr(stdin, NoClose);
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) Fail(path, std::strerror(errno));
    return FilePtr(f, f ? std::fclose : NoClose);
}

FilePtr OpenOutput(const std::string& path, bool force) {
    if (path == "-") return FilePtr(stdout, NoClose);
    if (!MayWrite(path, force)) return FilePtr(nullptr, NoClose);
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) Fail(path, std::strerror(errno));
    return FilePtr(f, f ? std::fclose : NoClose);
}

bool WriteFile(const std::string& path, const void* data, size_t size, bool force) {
    FilePtr out = OpenOutput(path, force);
    if (!out) return false;
    const bool ok = std::fwrite(data, 1, size, out.get()) == size;
    if (std::fclose(out.release()) != 0 || !ok) {
        Fail(path, "write error");
        return false;
    }
    return true;
}

uint64_t FileSize(FILE* file) {
    struct stat st;
    return ::fstat(fileno(file), &st) == 0 && S_ISREG(st.st_mode) ? uint64_t(st.st_size) : 0;
}

uint32_t Load32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
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
