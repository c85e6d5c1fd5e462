// The parser of the formula compiler: the function header, its const and
// var sections, statements and the expression levels from the loosest
// binding ("," lists) to the tightest (indexes).
#include <array>
#include <cstring>

#include "base/kwSort.h"
#include "calc/kwCalcOps.h"
#include "calc/kwCalcVar.h"
#include "calc/kwCalcl.h"

namespace kwz::calcl {

// function: name [ "(" [ param { "," param } ] ")" ] "{" [ const ] [ var ]
//           { statement } "}"
void Compiler::Header() {
    Next();
    if (tok_.token != kTokName) throw CompileError{kErrSyntax};
    name_ = tok_.text;
    Next();
    if (tok_.token == kTokLParen) {
        Next();
        while (tok_.token != kTokRParen) {
            if (tok_.token != kTokName && tok_.token != kTokBuiltin && tok_.token != kTokParam)
                throw CompileError{kErrSyntax};
            const std::string& p = tok_.text;
            if (tok_.token == kTokParam || kwz::StrICmpRus(p.c_str(), name_.c_str()) == 0 ||
                kwz::StrICmpRus(p.c_str(), "result") == 0)
                throw CompileError{kErrDuplicate};
            AddLocal(p);
            ++paramCount_;
            Next();
            if (tok_.token == kTokComma) {
                Next();
                if (tok_.token == kTokRParen) throw CompileError{kErrSyntax};
            } else if (tok_.token != kTokRParen) {
                throw CompileError{kErrSyntax};
            }
        }
        Next();
    }
    if (tok_.token != kTokLBrace) throw CompileError{kErrSyntax};
    AddLocal("result");
    Emit(kOpEmpty);
    Push();
    Next();
    if (tok_.token == kTokConst) ConstSection();
    if (tok_.token == kTokVar) VarSection();
    body_ = true;
    // The body's first token was read before constants were visible.
    if (tok_.token == kTokName) {
        std::string text;
        if (const int32_t t = Constant(tok_.text, &tok_.intValue, &tok_.dblValue, &text)) {
            tok_.token = t;
            if (t == kTokStr) tok_.text.swap(text);
        }
    }
    while (tok_.token != kTokRBrace) {
        if (tok_.token == kTokEnd) throw CompileError{kErrSyntax};
        Statement();
    }
    DebugPoint();
    Emit(kOpEnd);
}

// A name that a const or var section may introduce: new, and not the
// function's own.
static bool IsNewName(const Tokenizer& t, const std::string& function, const KWCalcConst* own) {
    if (t.token != kTokName && t.token != kTokBuiltin) return false;
    return kwz::StrICmpRus(t.text.c_str(), function.c_str()) != 0 &&
           !kwz::calc::ConstFind(own, t.text.c_str());
}

// const: "const" name "=" literal { "," name "=" literal } ";"
void Compiler::ConstSection() {
    own_ = std::make_unique<KWCalcConst>();
    own_->entries.reserve(64);
    do {
        Next();
        if (tok_.token == kTokParam || tok_.token == kTokLocal) throw CompileError{kErrDuplicate};
        if (tok_.token != kTokName && tok_.token != kTokBuiltin) throw CompileError{kErrSyntax};
        if (!IsNewName(tok_, name_, own_.get())) throw CompileError{kErrDuplicate};
        const std::string name = tok_.text;
        Next();
        Expect(kTokAssign, kErrSyntax);
        int32_t status;
        if (tok_.token == kTokInt)
            status = kwz::calc::ConstInt(own_.get(), name.c_str(), tok_.intValue, nullptr);
        else if (tok_.token == kTokDbl)
            status = kwz::calc::ConstDbl(own_.get(), name.c_str(), tok_.dblValue, nullptr);
        else if (tok_.token == kTokStr)
            status = kwz::calc::ConstStr(own_.get(), name.c_str(), tok_.text.data(),
                                         int32_t(tok_.text.size()), nullptr);
        else
            throw CompileError{kErrSyntax};
        if (status != 0) throw CompileError{kErrNoMem};
        Next();
    } while (tok_.token == kTokComma);
    Expect(kTokSemicolon, kErrSyntax);
}

// var: "var" name { "," name } ";"
void Compiler::VarSection() {
    do {
        Next();
        if (tok_.token == kTokParam || tok_.token == kTokLocal) throw CompileError{kErrDuplicate};
        if (tok_.token != kTokName && tok_.token != kTokBuiltin) throw CompileError{kErrSyntax};
        if (!IsNewName(tok_, name_, own_.get())) throw CompileError{kErrDuplicate};
        AddLocal(tok_.text);
        Emit(kOpEmpty);
        Push();
        Next();
    } while (tok_.token == kTokComma);
    Expect(kTokSemicolon, kErrSyntax);
}

// statement: ";" | "{" { statement } "}" | if | while | "break" ";"
//          | "continue" ";" | "exit" ";" | expression ";"
void Compiler::Statement() {
    switch (tok_.token) {
    case kTokSemicolon:
        Next();
        return;
    case kTokLBrace:
        Next();
        while (tok_.token != kTokRBrace) {
            if (tok_.token == kTokEnd) throw CompileError{kErrSyntax};
            Statement();
        }
        Next();
        return;
    case kTokIf:
        IfStatement();
        return;
    case kTokWhile:
        WhileStatement();
        return;
    case kTokBreak:
    case kTokContinue: {
        const int32_t which = tok_.token;
        DebugPoint();
        Next();
        Expect(kTokSemicolon, kErrSyntax);
        // Outside a loop the jump goes nowhere useful; the language leaves
        // that undefined and the compiler does not reject it.
        if (loops_.empty()) {
            PatchTo(EmitJump(kOpJump), code_.size());
        } else if (which == kTokBreak) {
            loops_.back().exits.push_back(EmitJump(kOpJump));
        } else {
            PatchTo(EmitJump(kOpJump), loops_.back().start);
        }
        return;
    }
    case kTokExit:
        DebugPoint();
        Next();
        Expect(kTokSemicolon, kErrSyntax);
        Emit(kOpExit);
        return;
    default:
        DebugPoint();
        Level2_();
        Emit(kOpCollapse);
        Emit16(0);
        Pop();
        Expect(kTokSemicolon, kErrSyntax);
        return;
    }
}

// if: "if" "(" expr ")" statement { "elseif" "(" expr ")" statement }
//     [ "else" statement ]
void Compiler::IfStatement() {
    std::vector<size_t> ends;
    do {
        Next();  // "if" or "elseif"
        DebugPoint();
        if (tok_.token != kTokLParen) throw CompileError{kErrSyntax};
        Level14();
        const size_t skip = EmitJump(kOpJumpFalse);
        Pop();
        Statement();
        if (tok_.token == kTokElseIf || tok_.token == kTokElse) ends.push_back(EmitJump(kOpJump));
        PatchTo(skip, code_.size());
    } while (tok_.token == kTokElseIf);
    if (tok_.token == kTokElse) {
        Next();
        Statement();
    }
    for (size_t field : ends) PatchTo(field, code_.size());
}

// while: "while" "(" expr ")" statement
void Compiler::WhileStatement() {
    Next();
    loops_.push_back(Loop{code_.size(), {}});
    DebugPoint();
    if (tok_.token != kTokLParen) throw CompileError{kErrSyntax};
    Level14();
    loops_.back().exits.push_back(EmitJump(kOpJumpFalse));
    Pop();
    Statement();
    PatchTo(EmitJump(kOpJump), loops_.back().start);
    for (size_t field : loops_.back().exits) PatchTo(field, code_.size());
    loops_.pop_back();
}

// list: [ expr3 { "," expr3 } ] before `closing`; all values stay.  Returns
// their number.
int32_t Compiler::Level2(int32_t closing) {
    // A list is empty when it starts at its closing token or at a token
    // that ends any expression.
    switch (tok_.token) {
    case kTokRParen: case kTokRBracket: case kTokSemicolon: case kTokRBrace:
    case kTokComma: case kTokEnd:
        return 0;
    default:
        if (tok_.token == closing) return 0;
        break;
    }
    int32_t n = 0;
    for (;;) {
        Level3();
        ++n;
        if (tok_.token != kTokComma) return n;
        Next();
    }
}

// comma expression: expr3 { "," expr3 }; one value remains.
void Compiler::Level2_() {
    const int32_t n = Level2(-1);
    if (n == 0) throw CompileError{kErrNoExpr};
    if (n > 1) {
        Emit(kOpCollapse);
        Emit16(uint16_t(n - 1));
        Pop(n - 1);
    }
}

// or: and { "||" and }, short-circuit through one linked chain.
void Compiler::Level3() {
    Level4();
    std::vector<size_t> chain;
    while (tok_.token == kTokOr) {
        chain.push_back(EmitJump(kOpOrTest));
        Next();
        Level4();
        Emit(kTokOr);
        Pop();
    }
    for (size_t field : chain) PatchTo(field, code_.size());
}

// and: bitor { "&&" bitor }
void Compiler::Level4() {
    Binary(5);
    std::vector<size_t> chain;
    while (tok_.token == kTokAnd) {
        chain.push_back(EmitJump(kOpAndTest));
        Next();
        Binary(5);
        Emit(kTokAnd);
        Pop();
    }
    for (size_t field : chain) PatchTo(field, code_.size());
}

// Levels 5..12, each left-associative:
//   5 "|"   6 "^"   7 "&"   8 "==" "!="   9 "<" "<=" ">" ">="
//  10 "<<" ">>"   11 "+" "-"   12 "*" "/" "\" "%"
void Compiler::Binary(int level) {
    // The level of each binary operator token, 0 for other tokens.
    static const auto kLevelOf = [] {
        std::array<uint8_t, 256> t{};
        const int32_t levels[8][4] = {
            {kTokBOr}, {kTokBXor}, {kTokBAnd}, {kTokEq, kTokNe}, {kTokLt, kTokLe, kTokGt, kTokGe},
            {kTokShl, kTokShr}, {kTokAdd, kTokSub}, {kTokMul, kTokDiv, kTokDivI, kTokMod},
        };
        for (int l = 0; l < 8; ++l)
            for (int32_t op : levels[l])
                if (op) t[size_t(op)] = uint8_t(l + 5);
        return t;
    }();
    auto operand = [&] {
        if (level < 12)
            Binary(level + 1);
        else
            Level13();
    };
    operand();
    while (tok_.token < 256 && kLevelOf[size_t(tok_.token)] == level) {
        const int32_t op = tok_.token;
        Next();
        operand();
        Emit(uint8_t(op));
        Pop();
    }
}

// unary: [ "+" | "-" | "!" | "~" ] primary.  One prefix only: "- -x" is a
// syntax error, which scripts rely on staying one.
void Compiler::Level13() {
    const int32_t op = tok_.token;
    if (op != kTokAdd && op != kTokSub && op != kTokNot && op != kTokBNot) {
        Level14();
        return;
    }
    Next();
    Level14();
    if (op == kTokSub) Emit(kOpNeg);
    else if (op != kTokAdd) Emit(uint8_t(op));
}

// primary: "(" expr ")" | variable [ indexes ] [ "=" expr3 ] | builtin [ args ]
//        | external [ args ] | literal | "[" [ list ] "]";  then [ indexes ]
void Compiler::Level14() {
    switch (tok_.token) {
    case kTokLParen:
        Next();
        Level2_();
        Expect(kTokRParen, kErrNoRParen);
        break;
    case kTokParam:
    case kTokLocal: {
        const bool param = tok_.token == kTokParam;
        const int32_t index = tok_.index;
        Next();
        const int32_t n = Level15();
        if (tok_.token == kTokAssign) {
            Next();
            Level3();
            Emit(param ? kOpStoreParam : kOpStoreLocal);
            Emit16(uint16_t(index));
            Emit16(uint16_t(n));
            Pop(n);
        } else {
            Emit(param ? kOpLoadParam : kOpLoadLocal);
            Emit16(uint16_t(index));
            Emit16(uint16_t(n));
            Pop(n);
            Push();
        }
        return;  // its indexes are in the instruction
    }
    case kTokBuiltin: {
        const Builtin* b = InnerFun(tok_.text.data(), tok_.text.size());
        Call(b, -1);
        break;
    }
    case kTokName:
        Call(nullptr, 0);
        break;
    case kTokInt:
    case kTokDbl:
    case kTokStr:
        Literal();
        break;
    case kTokLBracket: {
        Next();
        const int32_t n = Level2(kTokRBracket);
        Expect(kTokRBracket, kErrNoRBracket);
        Emit(kOpArray);
        Emit32(uint32_t(n));
        Pop(n);
        Push();
        break;
    }
    default:
        throw CompileError{kErrSyntax};
    }
    if (const int32_t n = Level15()) {
        Emit(kOpIndex);
        Emit16(uint16_t(n));
        Pop(n);
    }
}

// indexes: { "[" list "]" }; returns the number of index values pushed.
int32_t Compiler::Level15() {
    int32_t n = 0;
    while (tok_.token == kTokLBracket) {
        Next();
        const int32_t k = Level2(kTokRBracket);
        if (k == 0) throw CompileError{kErrNoExpr};
        Expect(kTokRBracket, kErrNoRBracket);
        n += k;
    }
    return n;
}

// call: name [ "(" list ")" ]; a built-in's argument count is fixed, an
// external's is fixed by its first call.
void Compiler::Call(const Builtin* builtin, int32_t) {
    const std::string name = tok_.text;
    Next();
    size_t tryField = 0;
    if (builtin && builtin->code == kOpTry) {
        Emit(kOpTry);
        tryField = code_.size();
        Emit32(0);
    }
    int32_t n = 0;
    if (tok_.token == kTokLParen) {
        Next();
        n = Level2(kTokRParen);
        Expect(kTokRParen, kErrNoRParen);
    }
    if (builtin && n != builtin->args) throw CompileError{kErrArgCount};
    int32_t external = -1;
    if (!builtin) {
        for (size_t i = 0; i < externals_.size(); ++i)
            if (kwz::StrICmpRus(externals_[i].name.c_str(), name.c_str()) == 0) external = int32_t(i);
        if (external < 0) {
            externals_.push_back(External{name, n});
            external = int32_t(externals_.size() - 1);
        } else if (externals_[size_t(external)].args != n) {
            throw CompileError{kErrArgCount};
        }
    }
    if (n == 0) {
        Emit(kOpEmpty);
        Push();
        n = 1;
    }
    if (tryField) {
        const uint32_t at = uint32_t(code_.size());
        std::memcpy(&code_[tryField], &at, 4);
        Emit(kOpEndTry);
    } else if (builtin) {
        Emit(uint8_t(builtin->code));
    } else {
        Emit(kOpCall);
        Emit16(uint16_t(external));
    }
    Pop(n);
    Push();
}

// literal: integer (36), double (37) or string (38).
void Compiler::Literal() {
    if (tok_.token == kTokInt) {
        Emit(kOpInt);
        Emit64(uint64_t(tok_.intValue));
    } else if (tok_.token == kTokDbl) {
        uint64_t bits;
        std::memcpy(&bits, &tok_.dblValue, 8);
        Emit(kOpDbl);
        Emit64(bits);
    } else {
        if (tok_.text.size() > 0xFFFF) throw CompileError{kErrValue};
        Emit(kOpStr);
        Emit16(uint16_t(tok_.text.size()));
        code_.insert(code_.end(), tok_.text.begin(), tok_.text.end());
        code_.push_back(0);
    }
    Push();
    Next();
}

}  // namespace kwz::calcl
