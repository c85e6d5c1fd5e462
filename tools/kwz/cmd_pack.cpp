// kwz pack / unpack / hash / info.
//
// pack and unpack stream through LZOPCompress/LZOPDecompress with callbacks
// over FILE*, one 64,480-byte chunk at a time, so files larger than memory
// work.  "-" names stdin or stdout.
#include <VomKwz.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "command.h"
#include "kwz_util.h"
#include "kwz_value.h"

namespace {

using namespace kwz::tool;

constexpr uint64_t kProgressMin = 64ull << 20;  // show progress above 64 MB
constexpr uint64_t kProgressStep = 16ull << 20;
constexpr char kSuffix[] = ".lz2";

// ------------------------------------------------------------ stream callbacks

// One context serves both callbacks of a call: the input, the output (null
// to count and discard) and the progress line.
struct Pipe {
    FILE* in = nullptr;
    FILE* out = nullptr;
    uint64_t read = 0, written = 0, total = 0, next = kProgressStep;
    bool progress = false;
    const char* verb = "";
    uint8_t head[4] = {};  // the first output bytes, kept when discarding
};

int32_t ReadCallback(void* context, void* buffer, int32_t size) {
    auto* p = static_cast<Pipe*>(context);
    size_t n = std::fread(buffer, 1, size_t(size), p->in);
    if (n == 0 && std::ferror(p->in)) return -1;
    p->read += n;
    if (p->progress && p->read >= p->next) {
        p->next += kProgressStep;
        std::fprintf(stderr, "\rkwz %s: %llu of %llu MB (%d%%)", p->verb,
                     (unsigned long long)(p->read >> 20), (unsigned long long)(p->total >> 20),
                     int(p->read * 100 / p->total));
    }
    return int32_t(n);
}

int32_t WriteCallback(void* context, const void* buffer, int32_t size) {
    auto* p = static_cast<Pipe*>(context);
    if (!p->out && p->written < sizeof p->head)
        std::memcpy(p->head + p->written, buffer,
                    std::min(size_t(size), sizeof p->head - size_t(p->written)));
    size_t n = p->out ? std::fwrite(buffer, 1, size_t(size), p->out) : size_t(size);
    p->written += n;
    return n == 0 ? -1 : int32_t(n);
}

bool EndsWith(const std::string& s, const char* suffix) {
    size_t n = std::strlen(suffix);
    return s.size() > n && s.compare(s.size() - n, n, suffix) == 0;
}

double Ratio(uint64_t part, uint64_t whole) { return whole ? double(part) / double(whole) : 0.0; }

// pack and unpack share everything but the direction.
int Transcode(const Call& call, bool pack) {
    const std::string file = call.Arg(0);
    std::string out = call.Value("--out");
    if (!call.Has("--out")) {
        if (file == "-")
            out = "-";
        else if (pack)
            out = file + kSuffix;
        else if (EndsWith(file, kSuffix))
            out = file.substr(0, file.size() - 4);
        else
            UsageError(file, "does not end in .lz2; name the output with -o");
    }
    if (pack && out == "-" && ::isatty(STDOUT_FILENO)) UsageError("-", "not writing a container to a terminal");
    FilePtr in = OpenInput(file);
    if (!in) return kExitFailure;
    FilePtr output = OpenOutput(out, call.Has("--force"));
    if (!output) return kExitFailure;

    Pipe pipe;
    pipe.in = in.get();
    pipe.out = output.get();
    pipe.total = FileSize(in.get());
    pipe.progress = pipe.total > kProgressMin && ::isatty(STDERR_FILENO);
    pipe.verb = pack ? "pack" : "unpack";
    bool ok = pack ? LZOPCompress(&pipe, ReadCallback, WriteCallback)
                   : LZOPDecompress(&pipe, ReadCallback, WriteCallback, 0);
    if (pipe.progress) std::fprintf(stderr, "\n");
    ok = std::fflush(output.get()) == 0 && ok;
    if (!ok || std::ferror(output.get())) {
        if (out != "-") {
            output.reset();
            std::remove(out.c_str());
        }
        return Fail(InputName(file), pack ? "compression failed" : "not a container, or a damaged one");
    }
    if (out != "-") {
        uint64_t plain = pack ? pipe.read : pipe.written, packed = pack ? pipe.written : pipe.read;
        std::fprintf(stderr, "%s -> %s: %llu -> %llu bytes (%.3f)\n", file.c_str(), out.c_str(),
                     (unsigned long long)pipe.read, (unsigned long long)pipe.written, Ratio(packed, plain));
    }
    return kExitOk;
}

// ------------------------------------------------------------ info

// Walks the chunk headers with seeks (nothing is decompressed to count),
// then checks the data by decoding it into nothing.
int InfoContainer(const std::string& name, FILE* f, bool lzp) {
    std::printf("%s: %s container\n", name.c_str(), lzp ? "\"#LZP\" (first-release layout)" : "\"#LZ2\"");
    uint64_t data = 0, pos = 4;
    uint32_t chunks = 0, stored = 0;
    bool complete = false;
    char head[9] = {};
    std::fseek(f, 4, SEEK_SET);
    while (std::fread(head, 1, 8, f) == 8) {
        unsigned s = 0, l = 0;
        if (std::sscanf(head, "%4X%4X", &s, &l) != 2) break;
        pos += 8;
        if (s == 0) {
            complete = true;
            break;
        }
        chunks++;
        stored += l == 0;
        data += l ? l : s;
        pos += s;
        if (std::fseek(f, long(s), SEEK_CUR) != 0) break;
    }
    const uint64_t size = FileSize(f);
    std::printf("  chunks      %u (%u compressed, %u stored)\n", chunks, chunks - stored, stored);
    std::printf("  container   %llu bytes\n", (unsigned long long)pos);
    std::printf("  data        %llu bytes\n", (unsigned long long)data);
    std::printf("  ratio       %.3f (container / data)\n", Ratio(pos, data));
    if (!complete) {
        std::printf("  damaged: no terminator or a bad chunk header after %llu bytes\n",
                    (unsigned long long)pos);
        return 1;
    }
    if (size > pos) std::printf("  %llu bytes follow the container\n", (unsigned long long)(size - pos));
    std::fseek(f, 0, SEEK_SET);
    Pipe pipe;
    pipe.in = f;
    bool ok = LZOPDecompress(&pipe, ReadCallback, WriteCallback, 0) && pipe.written == data;
    std::printf("  check       %s\n", ok ? "ok" : "FAILED: a chunk does not decode");
    if (ok && data >= 4 && std::memcmp(pipe.head, "#RA", 3) == 0)
        std::printf("  contents    a packed record table (\"#RA%c\")\n", pipe.head[3]);
    return ok ? 0 : 1;
}

// "#RA2" (or the first-release "#RA1" layout with a 64-bit size): header,
// field and key descriptors.
int InfoTable(const std::string& name, const std::vector<uint8_t>& b) {
    const bool v2 = b[3] == '2';
    const size_t head = v2 ? 18 : 22;
    if (b.size() < head) {
        std::printf("%s: truncated packed table (%zu bytes)\n", name.c_str(), b.size());
        return 1;
    }
    uint64_t total = Load32(b.data() + 10);
    if (!v2) std::memcpy(&total, b.data() + 10, 8);
    std::printf("%s: packed record table \"#RA%c\"%s\n", name.c_str(), b[3],
                v2 ? "" : " (first-release layout)");
    std::printf("  fields %u, keys %u, records %u, size %llu bytes%s\n", b[4], b[5], Load32(b.data() + 6),
                (unsigned long long)total, total == b.size() ? "" : " (differs from the file size)");
    size_t at = head;
    auto text = [&](std::string* out) {
        const void* end = std::memchr(b.data() + at, 0, b.size() - at);
        if (!end) return false;
        size_t len = size_t(static_cast<const uint8_t*>(end) - (b.data() + at));
        out->assign(reinterpret_cast<const char*>(b.data() + at), len);
        at += len + 1;
        return true;
    };
    for (unsigned i = 0; i < b[4]; ++i) {
        std::string field;
        if (!text(&field) || b.size() - at < 2) {
            std::printf("  truncated in field %u\n", i);
            return 1;
        }
        std::printf("  field %-3u %-24s %s\n", i, field.c_str(), FieldCode(b[at + 1], b[at]).c_str());
        at += 2;
    }
    for (unsigned i = 0; i < b[5]; ++i) {
        std::string expr;
        if (!text(&expr) || b.size() - at < 4) {
            std::printf("  truncated in key %u\n", i);
            return 1;
        }
        std::printf("  key %-5u %-24s options 0x%X\n", i, expr.c_str(), Load32(b.data() + at));
        at += 4;
    }
    return 0;
}

// A record image: walk its slots with KWRTypGen and print the field types.
int InfoImage(const std::string& name, const std::vector<uint8_t>& b) {
    void* image = KWMemAlloc(uint32_t(b.size()), nullptr);
    if (!image) return 1;
    std::memcpy(image, b.data(), b.size());
    KWRData record;
    KWRRecInit(&record);
    if (KWRRecSet(&record, image) != 0) {
        KWMemFree(image);
        return 1;
    }
    KWRType type;
    KWRTypInit(&type);
    int rc = 0;
    std::printf("%s: record image, %zu bytes, %u fields, flags 0x%02X\n", name.c_str(), b.size(),
                b[5], b[4]);
    if (KWRTypGen(&type, "image", &record) != 0) {
        std::printf("  its field slots do not parse\n");
        rc = 1;
    } else {
        for (unsigned i = 0; i < type.fieldCount; ++i) {
            const KWRField& f = type.fields[i];
            const uint8_t header = b[f.offset - 1];
            std::printf("  %-4s %-5s%s\n", f.name, FieldCode(f.type, f.width).c_str(),
                        header & 0x80 ? " null" : "");
        }
        if (KWRRecCheck(&type, &record) != 0) {
            std::printf("  the image is not valid (texts or lengths out of place)\n");
            rc = 1;
        }
    }
    KWRTypFree(&type);
    try {
        KWRRecFree(&record);
    } catch (const std::exception&) {
    }
    return rc;
}

int InfoGraph(const std::string& name, const std::vector<uint8_t>& b, uint32_t magic) {
    static const char* const kinds[] = {"nodes", "links", "group nodes"};
    const uint32_t count = b.size() >= 8 ? Load32(b.data() + 4) : 0;
    std::printf("%s: saved graph buffer (magic 0x%08X): %u %s\n", name.c_str(), magic, count,
                kinds[magic - 0x012358D1]);
    return 0;
}

}  // namespace

KWZ_COMMAND(pack, {300, "data", "pack", "FILE [-o OUT] [-f]", "compress FILE (- = stdin) into a .lz2 container", 1, 1,
                   {kOutOption, kForceOption},
                   "The output is FILE.lz2 unless -o names it; standard input goes to standard output."}) {
    return Transcode(call, true);
}

KWZ_COMMAND(unpack, {310, "data", "unpack", "FILE.lz2 [-o OUT] [-f]", "decompress a .lz2 container", 1, 1,
                     {kOutOption, kForceOption},
                     "The output is FILE without .lz2 unless -o names it; standard input goes to standard output."}) {
    return Transcode(call, false);
}

KWZ_COMMAND(hash, {320, "data", "hash", "FILE [--key K]", "the library's MD5-based text hash of FILE", 1, 1,
                   {{"--key", nullptr, "K", "the text the hash is keyed with"}}}) {
    const std::string file = call.Arg(0);
    std::vector<uint8_t> data;
    if (!ReadInput(file, &data)) return kExitFailure;
    if (data.size() > 0x7FFFFFFF) return Fail(InputName(file), "2 GiB or more; the hash takes a 32-bit length");
    char text[33];
    const std::string key = call.Value("--key");
    if (KWZDataHash(int32_t(data.size()), data.data(), text, call.Has("--key") ? key.c_str() : nullptr) != 0)
        return Fail(InputName(file), "cannot be hashed");
    std::printf("%s  %s\n", text, file.c_str());
    return kExitOk;
}

KWZ_COMMAND(info, {330, "data", "info", "FILE",
                   "tell what FILE is: container, packed table, record or value image, graph", 1, 1}) {
    const std::string file = call.Arg(0);
    if (file == "-") UsageError("-", "info needs a file it can seek in");
    FilePtr in = OpenInput(file);
    if (!in) return kExitFailure;
    uint8_t head[4] = {};
    const size_t got = std::fread(head, 1, 4, in.get());
    int rc = -1;
    if (got == 4 && std::memcmp(head, "#LZ", 3) == 0 && (head[3] == '2' || head[3] == 'P'))
        rc = InfoContainer(file, in.get(), head[3] == 'P');
    const uint64_t size = FileSize(in.get());
    if (rc < 0 && size > (256u << 20)) {
        std::printf("%s: %llu bytes, not a container (too large to look further)\n", file.c_str(),
                    (unsigned long long)size);
        return kExitOk;
    }
    std::vector<uint8_t> b;
    if (rc < 0) {
        b.resize(size);
        std::fseek(in.get(), 0, SEEK_SET);
        if (size && std::fread(b.data(), 1, size, in.get()) != size) return Fail(file, "read error");
        const uint32_t magic = size >= 4 ? Load32(b.data()) : 0;
        if (size >= 4 && std::memcmp(b.data(), "#RA", 3) == 0)
            rc = InfoTable(file, b);
        else if (magic >= 0x012358D1 && magic <= 0x012358D3)
            rc = InfoGraph(file, b, magic);
        else if (size >= 6 && magic == size)
            rc = InfoImage(file, b);
        else if (PrintValueImage(file, b))
            rc = 0;
    }
    if (rc < 0) {
        std::printf("%s: %llu bytes of unknown data", file.c_str(), (unsigned long long)size);
        for (size_t i = 0; i < 8 && i < size; ++i) std::printf("%s%02X", i ? " " : ", begins ", b[i]);
        std::printf("\n");
        return kExitOk;
    }
    return rc == 0 ? kExitOk : Fail(file, "damaged or inconsistent (see above)");
}

