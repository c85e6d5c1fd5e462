// The disassembler of compiled functions: one instruction per line with its
// offset, mnemonic and operands, then the function's figures.
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <VomKwz.h>

#include "base/kwGuard.h"
#include "base/kwMem.h"
#include "calc/kwCalcOps.h"

namespace kwz::calcl {
namespace {

template <typename T>
T Read(const uint8_t* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

void Appendf(std::string* out, const char* format, ...) __attribute__((format(printf, 2, 3)));
void Appendf(std::string* out, const char* format, ...) {
    char line[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    *out += line;
}

// A string literal in double quotes with C escapes for what is not printable.
void Quoted(std::string* out, const uint8_t* p, size_t n) {
    *out += '"';
    for (size_t i = 0; i < n; ++i) {
        const uint8_t c = p[i];
        if (c == '"' || c == '\\') {
            *out += '\\';
            *out += char(c);
        } else if (c >= 32 && c < 127) {
            *out += char(c);
        } else {
            Appendf(out, "\\x%02X", c);
        }
    }
    *out += '"';
}

}  // namespace

// Returns false when the code holds a byte that is no instruction.
bool Disassemble(const KWFunDef* f, std::string* out) {
    const uint8_t* code = f->code;
    const auto* ext = static_cast<const KWFunExtern*>(f->externNames);
    size_t at = 0;
    for (;;) {
        const uint8_t* p = code + at;
        const OpInfo* op = FindOp(*p);
        if (!op) {
            Appendf(out, "%04zx  ?? %u\n", at, unsigned(*p));
            return false;
        }
        Appendf(out, "%04zx  %-8s", at, op->mnemonic);
        switch (op->operands) {
        case Operands::kNone: break;
        case Operands::kLocal:
            Appendf(out, "%u, %u", unsigned(Read<uint16_t>(p + 1)), unsigned(Read<uint16_t>(p + 3)));
            break;
        case Operands::kI64: Appendf(out, "%" PRId64, Read<int64_t>(p + 1)); break;
        case Operands::kF64: Appendf(out, "%.17g", Read<double>(p + 1)); break;
        case Operands::kStr: Quoted(out, p + 3, Read<uint16_t>(p + 1)); break;
        case Operands::kU16:
            if (*p == kOpCall) {
                const uint16_t i = Read<uint16_t>(p + 1);
                Appendf(out, "%u", unsigned(i));
                if (ext && i < f->externCount) Appendf(out, " (%s/%d)", ext[i].name, ext[i].argCount);
            } else {
                Appendf(out, "%u", unsigned(Read<uint16_t>(p + 1)));
            }
            break;
        case Operands::kRel32:
            Appendf(out, "-> %04zx", size_t(int64_t(at + 1) + Read<int32_t>(p + 1)));
            break;
        case Operands::kU32: Appendf(out, "%u", Read<uint32_t>(p + 1)); break;
        case Operands::kAbs32: Appendf(out, "-> %04x", Read<uint32_t>(p + 1)); break;
        case Operands::kDebug:
            Appendf(out, "%u @%u", unsigned(Read<uint16_t>(p + 1)), Read<uint32_t>(p + 3));
            break;
        }
        while (!out->empty() && out->back() == ' ') out->pop_back();
        *out += '\n';
        if (*p == kOpEnd) break;
        at += OpLength(p);
    }
    Appendf(out, "stack need: %d\nparameters: %d\nexternals:", f->stackNeed, f->paramCount);
    for (int32_t i = 0; ext && i < f->externCount; ++i) Appendf(out, " %s/%d", ext[i].name, ext[i].argCount);
    *out += '\n';
    return true;
}

}  // namespace kwz::calcl

extern "C" {

KWZ_API char* KWFunDisassemble(const KWFunDef* function) {
    return kwz::CEdge("Kwz.kwCalcl.KWFunDisassemble", static_cast<char*>(nullptr),
                      static_cast<char*>(nullptr), [&]() -> char* {
                          if (!function || !function->code || function->paramCount < 0) return nullptr;
                          std::string text;
                          kwz::calcl::Disassemble(function, &text);
                          auto* block = static_cast<char*>(kwz::MemAlloc(text.size() + 1));
                          if (block) std::memcpy(block, text.c_str(), text.size() + 1);
                          return block;
                      });
}

}  // extern "C"
