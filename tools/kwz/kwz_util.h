// What every kwz subcommand shares: exit codes and the one message style,
// the argument parser, the number parser, the file reader and writer, type
// definitions, and the one field setter.
#pragma once

#include <VomKwz.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "command.h"

namespace kwz::tool {

// ------------------------------------------------------------ exit codes, messages
// The same for every subcommand: 0 done, 1 failed (a refused definition,
// value or file included), 2 the command line itself is wrong.
enum ExitCode { kExitOk = 0, kExitFailure = 1, kExitUsage = 2 };

// Thrown once a usage error has been printed; main() exits with 2.
struct UsageExit {};

// The command whose name prefixes the messages ("kwz pack: ...").
void SetCurrentCommand(const Command* command);

// "kwz CMD: what: reason" on stderr; returns kExitFailure.
int Fail(const std::string& what, const std::string& reason);
// "kwz CMD: what: note: reason" on stderr; the command goes on.
void Note(const std::string& what, const std::string& reason);
// "kwz CMD: what: reason" and the command's usage lines, then UsageExit.
[[noreturn]] void UsageError(const std::string& what, const std::string& reason);

// `kwz help CMD`: usage forms, summary, options and notes.
void PrintCommandHelp(const Command& command, FILE* out);
// "usage: kwz CMD FORM" for each form.
void PrintUsage(const Command& command, FILE* out);

// ------------------------------------------------------------ arguments
// One parser for every command.  Options may come anywhere; "--name=value"
// equals "--name value"; "--" ends the options; "-" alone is an argument
// (standard input or output).  An option the command does not declare, a
// missing value or a wrong number of arguments is a usage error.
class Call {
public:
    // Parses args for command; throws UsageExit after the message.
    Call(const Command& command, const std::vector<std::string>& args);

    struct Given {
        const Option* option;
        std::string value;
    };

    bool HelpWanted() const { return help_; }
    size_t Count() const { return args_.size(); }
    const std::string& Arg(size_t i) const { return args_.at(i); }
    const std::vector<std::string>& Args() const { return args_; }
    // The options as given, in their order (for options that apply to the
    // one before, like table's --unique after --key).
    const std::vector<Given>& InOrder() const { return given_; }

    // option is the declared name ("--out"), whichever spelling was typed.
    bool Has(const char* option) const;
    // The value given last, or fallback.
    std::string Value(const char* option, const std::string& fallback = "") const;
    // The option's value as an integer in lo..hi, fallback when absent; a
    // value that is not such a number is a usage error.
    int64_t Number(const char* option, int64_t lo, int64_t hi, int64_t fallback) const;
    // The same for argument i, named what in the message.
    int64_t NumberArg(size_t i, const char* what, int64_t lo, int64_t hi) const;

private:
    std::vector<std::string> args_;
    std::vector<Given> given_;
    bool help_ = false;
};

// ------------------------------------------------------------ numbers
// An integer: optional sign, then decimal digits or 0x and hex digits, in
// lo..hi.  Nothing else is accepted (no spaces, no octal, no suffix).
bool ParseInt(const std::string& text, int64_t lo, int64_t hi, int64_t* out);
// A floating-point number as strtod reads it, the whole text consumed.
bool ParseReal(const std::string& text, double* out);

// ------------------------------------------------------------ files
using FilePtr = std::unique_ptr<FILE, int (*)(FILE*)>;

// "standard input" for "-", else the path.
std::string InputName(const std::string& path);
// Reads a whole file, or standard input for "-"; false after a message.
bool ReadInput(const std::string& path, std::vector<uint8_t>* bytes);
// Opens a file for reading ("-": standard input); null after a message.
FilePtr OpenInput(const std::string& path);
// Opens a file for writing ("-": standard output).  An existing file is
// only written over with force; null after a message.
FilePtr OpenOutput(const std::string& path, bool force);
// Writes a whole file under the same rule; false after a message.
bool WriteFile(const std::string& path, const void* data, size_t size, bool force);
// Size of a regular file, 0 for pipes and the like.
uint64_t FileSize(FILE* file);

uint32_t Load32(const uint8_t* p);  // little-endian

// ------------------------------------------------------------ types
// Owners of a type and a record for the length of a command.
struct TypeHolder {
    KWRType t;
    TypeHolder() { KWRTypInit(&t); }
    ~TypeHolder() { KWRTypFree(&t); }
    TypeHolder(const TypeHolder&) = delete;
    TypeHolder& operator=(const TypeHolder&) = delete;
};
struct RecordHolder {
    KWRData r;
    RecordHolder() { KWRRecInit(&r); }
    ~RecordHolder() { KWRRecFree(&r); }
    RecordHolder(const RecordHolder&) = delete;
    RecordHolder& operator=(const RecordHolder&) = delete;
};

// Shell users type line ends as the two-character escapes \r and \n (and a
// backslash as \\); other backslashes stand for themselves.
std::string UnescapeDefinition(const std::string& in);
// Builds a type from definition text (UnescapeDefinition first for text
// typed on a command line).  A refused definition fails with
// "definition: line N: what is wrong"; false then.
bool LoadType(const std::string& definition, uint32_t id, KWRType* type);
// Why KWRTypSet refused text: the line at fault and what is wrong there.
std::string DiagnoseDefinition(const std::string& text);

// "L1", "B1", ... "CB" for a type code; "?" for an invalid one.
const char* TypeCodeName(uint8_t type);
// The code as a definition writes it ("CH20" with its capacity).
std::string FieldCode(uint8_t type, uint32_t width);
std::string FieldCode(const KWRField& field);
// code: "L1" | "B1" | "I1" | "I2" | "I4" | "I8" | "F4" | "F8" | "CH" n | "CM" | "CB"
// (case ignored); sets def's type and width.
bool ParseFieldCode(const std::string& code, KWRFieldDef* def);

// ------------------------------------------------------------ values
enum class TextStyle {
    kQuoted,  // null, numbers, texts in double quotes with C escapes
    kPlain,   // NULL, numbers, texts bare with \xNN for control bytes
    kCsv,     // one CSV field that SetField reads back to the same value
};
// One field's value as text.
std::string FieldText(const KWRField& field, const KWRData& record, TextStyle style = TextStyle::kQuoted);

// The one field setter: stores text into the field in the field's own type.
//   L1      false/true/no/yes/off/on, or an integer (nonzero is true)
//   B1..I8  an integer (0x for hex); it wraps to the field's width as the
//           library converts it, with a note
//   F4, F8  a number
//   CH, CM  the text; CH cuts it to its capacity, with a note
//   CB      the text, or 0x and hex digits for raw bytes
// A leading backslash is dropped and the rest taken literally ("\0x41" is
// the text 0x41).  False with *problem set when the text does not fit the
// type; *note is set when the value was stored changed.
bool SetField(const KWRField& field, KWRData* record, const std::string& text, std::string* problem,
              std::string* note);
// "field=value" into a record of the type: "null" makes the field null,
// else SetField.  An argument without '=' is a usage error; an unknown
// field or refused value fails (message, false).
bool AssignField(const KWRType& type, KWRData* record, const std::string& arg);

// "0b 05 00 00"
std::string HexBytes(const uint8_t* data, size_t size);
// A double-quoted text with C escapes for non-printable bytes, cut after
// maxShown bytes with "..." appended.
std::string QuoteText(const char* data, size_t size, size_t maxShown = 64);

}  // namespace kwz::tool
