// kwz type: parses a type-definition string and prints the type, or names
// the line at fault.
#include <VomKwz.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "command.h"
#include "kwz_util.h"

namespace {

using namespace kwz::tool;

void PrintType(const KWRType& t) {
    std::printf("type %s (id %u), %u field%s, data length %u bytes\n", t.name, t.id, t.fieldCount,
                t.fieldCount == 1 ? "" : "s", t.dataLength);
    if (t.description) std::printf("description: %s\n", t.description);
    if (t.fieldCount == 0) return;
    int nameWidth = 4;
    for (int i = 0; i < t.fieldCount; ++i) {
        nameWidth = std::max(nameWidth, static_cast<int>(std::string(t.fields[i].name).size()));
    }
    std::printf("  %3s  %-*s  %-5s  %5s  %6s  %s\n", "#", nameWidth, "name", "code", "width",
                "offset", "description");
    for (int i = 0; i < t.fieldCount; ++i) {
        const KWRField& f = t.fields[i];
        std::printf("  %3u  %-*s  %-5s  %5u  %6u%s%s\n", f.number, nameWidth, f.name,
                    FieldCode(f).c_str(), f.width, f.offset, f.description ? "  " : "",
                    f.description ? f.description : "");
    }
}

}  // namespace

KWZ_COMMAND(type, {100, "records and tables", "type", "[\"DEF\" | -] [ID]",
                   "parse a type definition and print its fields", 0, 2, {},
                   "DEF may write its line ends as \\r\\n or \\n; without DEF, or with -, the definition\n"
                   "is read from standard input as it is.  ID is the type's number (default 0)."}) {
    std::string text;
    if (call.Count() == 0 || call.Arg(0) == "-") {
        std::vector<uint8_t> bytes;
        if (!ReadInput("-", &bytes)) return kExitFailure;
        text.assign(bytes.begin(), bytes.end());
    } else {
        text = UnescapeDefinition(call.Arg(0));
    }
    const auto id = uint32_t(call.Count() > 1 ? call.NumberArg(1, "ID", 0, UINT32_MAX) : 0);
    TypeHolder type;
    if (!LoadType(text, id, &type.t)) return kExitFailure;
    PrintType(type.t);
    return kExitOk;
}

