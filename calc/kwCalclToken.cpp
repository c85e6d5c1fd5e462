// The tokenizer of the formula language (GetToken): blanks and comments,
// operators, names with their classification, numbers and string literals.
#include "calc/kwCalclToken.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <vector>
#include <array>

namespace kwz::calcl {
namespace {

// The built-in functions with the argument count every call must give.
// "ldexp" takes one argument here although the engine consumes two: the
// asymmetry is part of the language and callers' code depends on it.
constexpr Builtin kBuiltins[] = {
    {"iif", 3, 97},      {"abs", 1, 98},      {"min", 2, 99},      {"max", 2, 100},
    {"round", 2, 101},   {"abort", 1, 102},   {"sin", 1, 113},     {"cos", 1, 114},
    {"tan", 1, 115},     {"asin", 1, 116},    {"acos", 1, 117},    {"atan", 1, 118},
    {"exp", 1, 119},     {"ldexp", 1, 120},   {"log", 1, 121},     {"log10", 1, 122},
    {"sqrt", 1, 123},    {"pow", 2, 124},     {"type", 1, 129},    {"typename", 1, 130},
    {"int", 1, 131},     {"dbl", 1, 132},     {"str", 1, 133},     {"arr", 1, 134},
    {"null", 0, 135},    {"len", 1, 145},     {"mid", 3, 146},     {"cmp", 2, 147},
    {"cmpi", 2, 148},    {"pos", 2, 149},     {"left", 2, 150},    {"right", 2, 151},
    {"chr", 1, 152},     {"ord", 1, 153},     {"printf", 2, 154},  {"scanf", 2, 155},
    {"posi", 2, 156},    {"toupper", 1, 157}, {"tolower", 1, 158}, {"tmmsec", 1, 161},
    {"tmsec", 1, 162},   {"tmmin", 1, 163},   {"tmhour", 1, 164},  {"tmday", 1, 165},
    {"tmmon", 1, 166},   {"tmyear", 1, 167},  {"tmwday", 1, 168},  {"tmyday", 1, 169},
    {"tmisdst", 1, 170}, {"tmlocal", 1, 171}, {"tmgm", 1, 172},    {"tmmake", 7, 173},
    {"tmmakea", 1, 174}, {"tmstr", 2, 175},   {"new", 2, 177},     {"get", 2, 178},
    {"put", 3, 179},     {"call", 3, 180},    {"try", 1, 250},
};

struct Word {
    const char* name;
    int32_t token;
};
constexpr Word kReserved[] = {
    {"if", kTokIf},       {"else", kTokElse},         {"elseif", kTokElseIf},
    {"while", kTokWhile}, {"break", kTokBreak},       {"continue", kTokContinue},
    {"exit", kTokExit},   {"var", kTokVar},           {"const", kTokConst},
};

inline bool IsLetter(unsigned char c) { return (c | 0x20) >= 'a' && (c | 0x20) <= 'z'; }
inline bool IsDigit(unsigned char c) { return c >= '0' && c <= '9'; }
inline bool IsNameChar(unsigned char c) { return IsLetter(c) || IsDigit(c) || c == '_' || c == '.'; }
inline int HexDigit(unsigned char c) {
    if (IsDigit(c)) return c - '0';
    c |= 0x20;
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// Case-insensitive equality of a name of `length` bytes with a lower-case word.
bool SameName(const char* name, size_t length, const char* word) {
    for (size_t i = 0; i < length; ++i) {
        unsigned char c = static_cast<unsigned char>(name[i]);
        if (c >= 'A' && c <= 'Z') c = static_cast<unsigned char>(c | 0x20);
        if (word[i] == 0 || c != static_cast<unsigned char>(word[i])) return false;
    }
    return word[length] == 0;
}

[[noreturn]] void Fail(int32_t code) { throw CompileError{code}; }

// Lookups by the first letter: the tables are small, but every name of a
// program passes through both.
template <typename Entry, size_t N>
struct ByFirstLetter {
    std::array<std::vector<const Entry*>, 26> buckets;
    explicit ByFirstLetter(const Entry (&entries)[N]) {
        for (const Entry& e : entries) buckets[size_t(e.name[0] - 'a')].push_back(&e);
    }
    const Entry* Find(const char* name, size_t length) const {
        const unsigned first = static_cast<unsigned char>(name[0]) | 0x20u;
        if (length == 0 || first < 'a' || first > 'z') return nullptr;
        for (const Entry* e : buckets[first - 'a'])
            if (SameName(name, length, e->name)) return e;
        return nullptr;
    }
};

}  // namespace

const Builtin* InnerFun(const char* name, size_t length) {
    static const ByFirstLetter<Builtin, std::size(kBuiltins)> index(kBuiltins);
    return index.Find(name, length);
}

const Builtin* BuiltinByCode(int32_t code) {
    for (const Builtin& b : kBuiltins)
        if (b.code == code) return &b;
    return nullptr;
}

int32_t ReservWord(const char* name, size_t length) {
    if (length < 2 || length > 8) return 0;
    static const ByFirstLetter<Word, std::size(kReserved)> index(kReserved);
    const Word* w = index.Find(name, length);
    return w ? w->token : 0;
}

// Bytes 1..32 are blanks; "/* ... */" and "// ..." to the end of the line are
// comments.  An unclosed "/*" runs to the end of the text.
void Tokenizer::SkipBlanks() {
    for (;;) {
        const auto c = static_cast<unsigned char>(*pos_);
        if (c >= 1 && c <= 32) {
            ++pos_;
        } else if (c == '/' && pos_[1] == '*') {
            const char* close = std::strstr(pos_ + 2, "*/");
            pos_ = close ? close + 2 : pos_ + std::strlen(pos_);
        } else if (c == '/' && pos_[1] == '/') {
            while (*pos_ && *pos_ != '\n') ++pos_;
        } else {
            return;
        }
    }
}

int32_t Tokenizer::Next() {
    SkipBlanks();
    start = size_t(pos_ - text_);
    text.clear();
    const auto c = static_cast<unsigned char>(*pos_);
    if (c == 0) return token = kTokEnd;
    if (IsLetter(c) || c == '_') return token = Name();
    if (c == '"') return token = String();
    if (const int32_t op = Operator()) return token = op;
    return token = Number();
}

// The operators, longest match first; 0 when the text holds none here.
int32_t Tokenizer::Operator() {
    const char c = pos_[0], d = pos_[1];
    auto one = [&](int32_t t) { pos_ += 1; return t; };
    auto two = [&](int32_t t) { pos_ += 2; return t; };
    switch (c) {
    case '(': return one(kTokLParen);
    case ')': return one(kTokRParen);
    case '[': return one(kTokLBracket);
    case ']': return one(kTokRBracket);
    case ',': return one(kTokComma);
    case ';': return one(kTokSemicolon);
    case '{': return one(kTokLBrace);
    case '}': return one(kTokRBrace);
    case '+': return one(kTokAdd);
    case '-': return one(kTokSub);
    case '*': return one(kTokMul);
    case '/': return one(kTokDiv);
    case '\\': return one(kTokDivI);
    case '%': return one(kTokMod);
    case '~': return one(kTokBNot);
    case '^': return one(kTokBXor);
    case '=': return d == '=' ? two(kTokEq) : one(kTokAssign);
    case '!': return d == '=' ? two(kTokNe) : one(kTokNot);
    case '<': return d == '=' ? two(kTokLe) : d == '<' ? two(kTokShl) : one(kTokLt);
    case '>': return d == '=' ? two(kTokGe) : d == '>' ? two(kTokShr) : one(kTokGt);
    case '&': return d == '&' ? two(kTokAnd) : one(kTokBAnd);
    case '|': return d == '|' ? two(kTokOr) : one(kTokBOr);
    default: return 0;
    }
}

// A name is classified in this order: reserved word, parameter or local,
// built-in function, constant (in the body only), external function.
int32_t Tokenizer::Name() {
    const char* begin = pos_;
    while (IsNameChar(static_cast<unsigned char>(*pos_))) ++pos_;
    const size_t n = size_t(pos_ - begin);
    text.assign(begin, n);
    if (const int32_t word = ReservWord(begin, n)) return word;
    if (names_) {
        if (const int32_t local = names_->Local(text, &index)) return local;
    }
    if (const Builtin* b = InnerFun(begin, n)) {
        intValue = b->code;
        args = b->args;
        return kTokBuiltin;
    }
    if (names_) {
        std::string value;
        const int32_t constant = names_->Constant(text, &intValue, &dblValue, &value);
        if (constant == kTokStr) text.swap(value);
        if (constant) return constant;
    }
    return kTokName;
}

// A hexadecimal integer when the second character is "x"; otherwise strtod
// decides, and the token is a double when what it read holds "." or "e".
int32_t Tokenizer::Number() {
    char* end = nullptr;
    errno = 0;
    if ((pos_[1] | 0x20) == 'x') {
        const long long v = std::strtoll(pos_, &end, 16);
        if (end == pos_ || errno == ERANGE) Fail(kErrValue);
        pos_ = end;
        intValue = v;
        return kTokInt;
    }
    const double v = std::strtod(pos_, &end);
    if (end == pos_ || std::isinf(v)) Fail(kErrValue);
    bool isDouble = false;
    for (const char* p = pos_; p < end; ++p) isDouble |= *p == '.' || (*p | 0x20) == 'e';
    pos_ = end;
    if (isDouble) {
        dblValue = v;
        return kTokDbl;
    }
    // Beyond 64 bits the conversion gives the lowest value, as the
    // processor's conversion does.
    intValue = v >= -9223372036854775808.0 && v < 9223372036854775808.0 ? int64_t(v) : INT64_MIN;
    return kTokInt;
}

// "..." on one line, with the escapes \a \b \f \n \r \t \v (either case),
// \xHH, \" \' \? and \\.
int32_t Tokenizer::String() {
    ++pos_;
    for (;;) {
        const auto c = static_cast<unsigned char>(*pos_++);
        if (c == '"') return kTokStr;
        if (c < 32) Fail(kErrValue);
        if (c != '\\') {
            text.push_back(char(c));
            continue;
        }
        const auto e = static_cast<unsigned char>(*pos_++);
        char out;
        switch (e | (IsLetter(e) ? 0x20 : 0)) {
        case 'a': out = 7; break;
        case 'b': out = 8; break;
        case 'f': out = 12; break;
        case 'n': out = 10; break;
        case 'r': out = 13; break;
        case 't': out = 9; break;
        case 'v': out = 11; break;
        case '"': case '\'': case '?': case '\\': out = char(e); break;
        case 'x': {
            const int hi = HexDigit(static_cast<unsigned char>(pos_[0]));
            const int lo = hi < 0 ? -1 : HexDigit(static_cast<unsigned char>(pos_[1]));
            if (lo < 0) Fail(kErrValue);
            out = char(hi * 16 + lo);
            pos_ += 2;
            break;
        }
        default:
            Fail(kErrValue);
        }
        text.push_back(out);
    }
}

}  // namespace kwz::calcl
