// kwz compile (a calculator function's code as text) and kwz value (a value
// image as a tree); the value reader also serves `kwz info`.  Evaluating
// scripts is cmd_calc.cpp's.
#include <VomKwz.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "command.h"
#include "kwz_calc.h"
#include "kwz_util.h"
#include "kwz_value.h"

namespace kwz::tool {

namespace {

// The type name as the registry gives it, asked of a copy so that the value
// itself is left alone (an array is asked through an empty one).
std::string TypeName(const CVar& v) {
    CVar tmp;
    CVarInit(&tmp, 1);
    if (v.type == 4)
        CVarSetArr(&tmp, 0);
    else
        CVarCopy(&tmp, &v);
    std::string name;
    if (CVar_TypeName(&tmp) == 0 && tmp.type == 3 && tmp.v.s) name.assign(tmp.v.s, size_t(tmp.count));
    else name = "tag " + std::to_string(v.type);
    CVarSetEmpty(&tmp);
    return name;
}

// One line per value, two blanks per level; arrays list their elements.
// Images nest at most 256 deep, so the recursion is bounded.
void PrintTree(const CVar& v, int depth, const std::string& label) {
    std::printf("%*s%s%s", depth * 2, "", label.c_str(), TypeName(v).c_str());
    switch (v.type) {
    case 1: std::printf(" %" PRId64 "\n", v.v.i); break;
    case 2: std::printf(" %.17g\n", v.v.d); break;
    case 3:
        std::printf(" %s\n", QuoteText(v.v.s ? v.v.s : "", size_t(v.count), SIZE_MAX).c_str());
        break;
    case 4:
        std::printf("[%d]\n", v.count);
        for (int32_t i = 0; i < v.count; ++i) PrintTree(v.v.a[i], depth + 1, "[" + std::to_string(i) + "] ");
        break;
    default: std::printf("\n"); break;
    }
}

}  // namespace

bool PrintValueImage(const std::string& name, const std::vector<uint8_t>& bytes) {
    if (bytes.empty() || bytes.size() > 0x7FFFFFFF) return false;
    CVar v;
    CVarInit(&v, 1);
    const int32_t used = CVarFromBuffN(&v, bytes.data(), int32_t(bytes.size()));
    const bool whole = used > 0 && size_t(used) == bytes.size();
    if (whole) {
        std::printf("%s: value image, %zu bytes\n", name.c_str(), bytes.size());
        PrintTree(v, 1, "");
    }
    CVarSetEmpty(&v);
    return whole;
}

}  // namespace kwz::tool

namespace {

using namespace kwz::tool;

// The local names of the debug information after the code's end: parameters
// first, then "result" and the vars.  The end is the last instruction the
// disassembly lists.
std::vector<std::string> LocalNames(const KWFunDef& f, const std::string& listing) {
    std::vector<std::string> names;
    const size_t stats = listing.find("\nstack need:");
    if (stats == std::string::npos) return names;
    const size_t lineStart = listing.rfind('\n', stats - 1);
    const size_t from = lineStart == std::string::npos ? 0 : lineStart + 1;
    unsigned endAt = 0;
    if (std::sscanf(listing.c_str() + from, "%x", &endAt) != 1) return names;
    const uint8_t* p = f.code + endAt + 1;
    int32_t params = 0, others = 0;
    std::memcpy(&params, p, 4);
    std::memcpy(&others, p + 4, 4);
    if (params != f.paramCount || others < 0 || others > 65535) return names;
    const char* name = reinterpret_cast<const char*>(p + 8);
    for (int32_t i = 0; i < params + others; ++i) {
        names.emplace_back(name);
        name += names.back().size() + 1;
    }
    return names;
}

}  // namespace

KWZ_COMMAND(compile, {400, "calculator", "compile", "FILE|-",
                      "compile a calculator function and list its code", 1, 1, {},
                      "Prints one instruction a line (offset, mnemonic, operands; jump targets as\n"
                      "offsets, strings quoted), then the stack need, the parameters, the locals\n"
                      "(parameters first, then result and the vars) and the external names.\n"
                      "A compile error is shown as kwz compile: FILE:LINE:COLUMN: message (columns\n"
                      "count bytes) with the source line and a caret under the token at fault; exit 1."}) {
    const std::string file = call.Arg(0);
    std::vector<uint8_t> bytes;
    if (!ReadInput(file, &bytes)) return kExitFailure;
    const std::string source(bytes.begin(), bytes.end());
    if (source.find('\0') != std::string::npos) return Fail(InputName(file), "holds a 0 byte; a function is text");
    KWFunDef* f = nullptr;
    const int32_t rc = KWFunCompile(source.c_str(), &f, 1, nullptr);
    if (!f) return Fail(InputName(file), "out of memory");
    int exitCode = kExitOk;
    if (rc != 0 || f->paramCount < 0) {
        exitCode = ReportCompileError(InputName(file), source, 0, *f);
    } else {
        char* text = KWFunDisassemble(f);
        if (!text) {
            exitCode = Fail(InputName(file), "the code cannot be listed");
        } else {
            const std::string listing = text;
            KWMemFree(text);
            std::printf("function %s\n%s", f->name ? f->name : "", listing.c_str());
            std::printf("locals:");
            for (const auto& name : LocalNames(*f, listing)) std::printf(" %s", name.c_str());
            std::printf("\n");
        }
    }
    KWFunFree(f);
    return exitCode;
}

KWZ_COMMAND(value, {410, "calculator", "value", "--decode FILE", "print a value image as a tree", 1, 1,
                    {{"--decode", nullptr, nullptr, "read FILE as one value image (the only form)"}},
                    "FILE (- = standard input) must hold exactly one image; each value is a line with\n"
                    "its type name, arrays list their elements below them, texts are quoted."}) {
    if (!call.Has("--decode")) UsageError("--decode", "needed (the only form so far)");
    const std::string file = call.Arg(0);
    std::vector<uint8_t> bytes;
    if (!ReadInput(file, &bytes)) return kExitFailure;
    if (!PrintValueImage(InputName(file), bytes)) return Fail(InputName(file), "not a value image");
    return kExitOk;
}
