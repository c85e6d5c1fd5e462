// Helpers shared by the kwz subcommands: definition arguments, type codes,
// input files, hex and text display.
#pragma once

#include <VomKwz.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kwz::tool {

// Shell users type line ends as the two-character escapes \r and \n (and a
// backslash as \\); other backslashes stand for themselves.
std::string UnescapeDefinition(const std::string& in);

// "L1", "B1", ... "CB" for a type code; "?" for an invalid one.
const char* TypeCodeName(uint8_t type);
// The field's code as a definition writes it ("CH" with its capacity).
std::string FieldCode(const KWRField& field);

// Reads a whole file, or standard input for "" or "-".  False with a message.
bool ReadInput(const std::string& path, std::vector<uint8_t>* bytes, std::string* error);
bool WriteFile(const std::string& path, const void* data, size_t size, std::string* error);

// "0b 05 00 00"
std::string HexBytes(const uint8_t* data, size_t size);
// A double-quoted text with C escapes for non-printable bytes, cut after
// maxShown bytes with "..." appended.
std::string QuoteText(const char* data, size_t size, size_t maxShown = 64);

// One field's value for display: null, a number, or a quoted text.
std::string FieldText(const KWRField& field, const KWRData& record);
// Stores "field=value" into a record of the type: "null" makes the field null
// (a leading backslash takes the rest literally), integers wrap to the field's
// width with a note, "0x..." is hex (raw bytes for "CB").  Messages go to
// stderr prefixed with the tool's name; false when the value is refused.
bool AssignField(const char* tool, const KWRType& type, KWRData* record, const std::string& arg);

}  // namespace kwz::tool
