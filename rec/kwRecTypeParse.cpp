// KWRTypSet: the type-definition string parser.
//
//   definition := header { line-end field }
//   header     := Name "|" Count [ "|" Description ]
//   field      := FieldName "|" Code [ "|" Description ]
//   line-end   := any run of CR and LF characters (blank lines included)
//
// Separators are "|" within a line; nothing else is special and no blank is
// ever skipped, so a space belongs to the name or code it stands in.  A part
// runs up to the next "|", CR, LF or the terminating NUL.  Whatever follows a
// line's last recognised part up to the line end is ignored, and so is all
// text after the declared number of fields.
#include <cstdlib>
#include <new>
#include <string>

#include "base/kwBase.h"
#include "rec/kwRecImage.h"
#include "rec/kwRecCore.h"
#include "rec/kwRecType.h"

namespace kwz::rec {
namespace {

constexpr bool IsLineEnd(char c) { return c == '\r' || c == '\n'; }

// Reads one part of a line and steps over the "|" that ends it.  *stop gets
// the character that ended the part: '|', CR, LF or 0 at the end of the text.
std::string_view ReadPart(const char*& p, char* stop) {
    const char* start = p;
    while (*p && *p != '|' && !IsLineEnd(*p)) ++p;
    *stop = *p;
    std::string_view part(start, static_cast<size_t>(p - start));
    if (*p == '|') ++p;
    return part;
}

void SkipRestOfLine(const char*& p) {
    while (*p && !IsLineEnd(*p)) ++p;
}

void SkipLineEnds(const char*& p) {
    while (IsLineEnd(*p)) ++p;
}

// A number read the way strtol reads it (base 10: leading white space, an
// optional sign, digits up to the first non-digit, 0 when there are none,
// LONG_MAX/LONG_MIN on overflow).  The part is copied so that strtol cannot
// run past it into the next line.  May throw std::bad_alloc.
long ReadNumber(std::string_view part) {
    const std::string copy(part);
    return std::strtol(copy.c_str(), nullptr, 10);
}

constexpr char AsciiUpper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; }

// The field type named by a code's first two characters, ignoring case;
// iFldType_None when no code matches.
uint8_t CodeType(std::string_view code) {
    static constexpr struct {
        char first, second;
        uint8_t type;
    } kCodes[] = {
        {'L', '1', iFldType_Bool},  {'B', '1', iFldType_Byte},   {'I', '1', iFldType_Int8},
        {'I', '2', iFldType_Int16}, {'I', '4', iFldType_Int32},  {'I', '8', iFldType_Int64},
        {'F', '4', iFldType_Float}, {'F', '8', iFldType_Double}, {'C', 'H', iFldType_Char},
        {'C', 'M', iFldType_Memo},  {'C', 'B', iFldType_Blob},
    };
    const char a = AsciiUpper(code[0]), b = AsciiUpper(code[1]);
    for (const auto& c : kCodes) {
        if (c.first == a && c.second == b) return c.type;
    }
    return iFldType_None;
}

// field := FieldName "|" Code [ "|" Description ]
// Code  := two characters naming the type, compared ignoring case; further
//          characters are ignored, except after "CH", where they are the
//          capacity 1..255.
bool ParseField(const char*& p, FieldPlan* plan) {
    char stop = 0;
    plan->name = ReadPart(p, &stop);
    // A line without "|", the end of the text or an empty name: the list
    // ended before the declared count was reached.
    if (stop != '|' || plan->name.empty()) return false;
    std::string_view code = ReadPart(p, &stop);
    if (code.size() < 2) return false;
    plan->type = CodeType(code);
    if (plan->type == iFldType_None) return false;
    long capacity = 0;
    if (plan->type == iFldType_Char) {
        capacity = ReadNumber(code.substr(2));
        if (capacity < 1 || capacity > 255) return false;
    }
    plan->width = TypeWidth(plan->type, static_cast<uint32_t>(capacity));
    plan->description = stop == '|' ? ReadPart(p, &stop) : std::string_view();
    SkipRestOfLine(p);
    return true;
}

// header := Name "|" Count [ "|" Description ]
uint32_t ParseDefinition(KWRType* type, const char* text) {
    const char* p = text;
    char stop = 0;
    const std::string_view name = ReadPart(p, &stop);
    if (stop != '|' || name.empty()) return KWR_SYNTAX;
    // The count is taken modulo 256: "300" declares 44 fields and "-1" 255.
    // Callers have always relied on this reduction; it is not an overflow bug.
    const auto count = static_cast<uint8_t>(ReadNumber(ReadPart(p, &stop)));
    const std::string_view description = stop == '|' ? ReadPart(p, &stop) : std::string_view();
    SkipRestOfLine(p);

    FieldPlan plans[256];
    for (uint32_t i = 0; i < count; ++i) {
        SkipLineEnds(p);
        if (!ParseField(p, &plans[i])) return KWR_SYNTAX;
    }
    // Allocation failures of the type itself are reported as syntax errors,
    // like every other failure once the text has been read.
    return BuildType(type, name, description, plans, count) == BuildResult::kOk ? KWR_OK
                                                                                 : KWR_SYNTAX;
}

}  // namespace

// 0, 4 for any fault in the text (and a failed allocation of the type's own
// storage), -1 when the parser's working storage cannot be allocated (the
// type is then left empty, its id kept).
uint32_t TypSet(KWRType* type, uint32_t id, const char* definition) {
    if (!type) return KWR_BADARG;
    TypFree(type);
    type->id = id;
    if (!definition) return KWR_SYNTAX;
    try {
        return ParseDefinition(type, definition);
    } catch (const std::bad_alloc&) {
        ResetKeepId(type);
        return KWR_NOMEM;
    }
}

}  // namespace kwz::rec
