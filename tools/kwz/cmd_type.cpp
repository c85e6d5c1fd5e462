// kwz type: parses a type-definition string and prints the type, or names
// the line at fault.  Also the "record types" step of `kwz demo`.
#include <VomKwz.h>
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "command.h"
#include "kwz_util.h"

namespace {

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
                    kwz::tool::FieldCode(f).c_str(), f.width, f.offset, f.description ? "  " : "",
                    f.description ? f.description : "");
    }
}

// ------------------------------------------------------------ diagnosis
// A small checker of the definition grammar that knows line numbers, used
// only to explain a definition that the library has refused.

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
    KWRType probe;
    KWRTypInit(&probe);
    const std::string one = "X|1\r\nX|" + code;
    const uint32_t rc = KWRTypSet(&probe, 0, one.c_str());
    KWRTypFree(&probe);
    if (rc == 0) return "";
    if (strncasecmp(code.c_str(), "CH", 2) == 0) {
        return "\"" + code + "\": a CH field needs a capacity of 1..255, e.g. CH20";
    }
    return "unknown type code \"" + code + "\" (L1 B1 I1 I2 I4 I8 F4 F8 CHn CM CB)";
}

std::string Diagnose(const std::string& text) {
    const std::vector<Line> lines = SplitLines(text);
    if (lines.empty() || lines[0].number != 1) return "line 1: the header Name|Count is missing";
    const std::vector<std::string> header = Parts(lines[0].text);
    if (header.size() < 2 || header[0].empty()) {
        return "line 1: the header must read Name|Count[|Description]";
    }
    const auto count = static_cast<uint8_t>(std::strtol(header[1].c_str(), nullptr, 10));
    std::vector<std::string> names;
    for (int k = 0; k < count; ++k) {
        const std::string declared = " (field " + std::to_string(k + 1) + " of " +
                                     std::to_string(count) + " declared)";
        if (static_cast<size_t>(k + 1) >= lines.size()) {
            return "line " + std::to_string(lines.back().number + 1) +
                   ": the text ends before the field list is complete" + declared;
        }
        const Line& line = lines[static_cast<size_t>(k) + 1];
        const std::string fault = CheckField(line.text);
        if (!fault.empty()) return "line " + std::to_string(line.number) + ": " + fault + declared;
        const std::string name = Parts(line.text)[0].substr(0, 63);
        for (size_t j = 0; j < names.size(); ++j) {
            if (strcasecmp(names[j].c_str(), name.c_str()) == 0) {
                return "line " + std::to_string(line.number) + ": field name \"" + name +
                       "\" repeats the name on line " + std::to_string(lines[j + 1].number) +
                       " (names are compared ignoring case)";
            }
        }
        names.push_back(name);
    }
    return "the definition was refused";
}

}  // namespace

KWZ_COMMAND(type, "type", "[\"DEF\" | -] [ID]",
            "parse a type definition (argument, or stdin; \\r and \\n escapes allowed)") {
    std::string text;
    if (args.empty() || args[0] == "-") {
        text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    } else {
        text = kwz::tool::UnescapeDefinition(args[0]);
    }
    const uint32_t id =
        args.size() > 1 ? static_cast<uint32_t>(std::strtoul(args[1].c_str(), nullptr, 0)) : 0;
    KWRType type;
    KWRTypInit(&type);
    const uint32_t rc = KWRTypSet(&type, id, text.c_str());
    if (rc != KWR_OK) {
        if (rc == KWR_SYNTAX) {
            std::fprintf(stderr, "kwz type: syntax error: %s\n", Diagnose(text).c_str());
        } else {
            std::fprintf(stderr, "kwz type: the type could not be built (%d)\n",
                         static_cast<int32_t>(rc));
        }
        return 1;
    }
    PrintType(type);
    KWRTypFree(&type);
    return 0;
}

KWZ_DEMO_STEP(10, "record types") {
    const struct {
        uint32_t id;
        const char* definition;
    } types[] = {
        {101, "_LOGIN|3\r\n_Login|CB\r\n_Password|CB\r\n_AddType|L1"},
        {102, "Order|6|customer orders\r\nId|I8\r\nCode|CH12|order code\r\nCustomer|CH40\r\n"
              "Qty|I4\r\nPrice|F8|unit price\r\nNote|CM"},
    };
    KWRType type;
    KWRTypInit(&type);
    for (const auto& t : types) {
        if (KWRTypSet(&type, t.id, t.definition) != KWR_OK) return 1;
        PrintType(type);
        std::printf("\n");
    }
    // A third type built from field definitions rather than text.
    KWRFieldDef defs[3] = {
        {"X", 0, iFldType_Double}, {"Y", 0, iFldType_Double}, {"Label", 16, iFldType_Char}};
    if (KWRTypSetA(&type, 103, "Point", 3, defs) != KWR_OK) return 1;
    PrintType(type);

    if (KWRTypSet(&type, 102, types[1].definition) != KWR_OK) return 1;
    const KWRField* price = KWRFldByName(&type, "PRICE");
    if (!price) return 1;
    std::printf("\nlookup \"PRICE\" (case ignored): field %u at offset %u\n", price->number,
                price->offset);
    char* text = nullptr;
    if (KWRTypGet(&type, &text) != KWR_OK) return 1;
    std::string shown;  // line ends shown as the escapes `kwz type` accepts
    for (const char* p = text; *p; ++p) {
        if (*p == '\r') shown += "\\r";
        else if (*p == '\n') shown += "\\n";
        else shown += *p;
    }
    std::printf("definition written back: \"%s\"\n", shown.c_str());
    KWMemFree(text);
    KWRTypFree(&type);
    return 0;
}
