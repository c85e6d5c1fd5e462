// The formula compiler: one pass of recursive descent over the tokenizer,
// writing byte code (kwCalcOps.h) while it parses and counting the operand
// stack as it goes.
#pragma once

#include <VomKwz.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "calc/kwCalcConst.h"
#include "calc/kwCalclToken.h"

namespace kwz::calcl {

// KWFunCompile and KWFunFree without the C edge (bad_alloc may escape).
int32_t FunCompile(const char* text, KWFunDef** function, int32_t debug, KWCalcConst* constants);
void FunFree(KWFunDef* function);

// The message of a compiler error code -1 .. -8 (UTF-8), "" for others.
const char* CompileMessage(int32_t code);

struct External {
    std::string name;
    int32_t args;
};

// What a successful compilation gives.
struct Compiled {
    std::string name;
    int32_t stackNeed = 0;
    int32_t paramCount = 0;
    std::vector<External> externals;
    std::vector<uint8_t> code;  // with the debug information behind it
};

class Compiler : private NameResolver {
public:
    Compiler(const char* text, bool debug, KWCalcConst* constants);
    ~Compiler() override;

    // Compiles the function; throws CompileError.  The token position of an
    // error is Position().
    void Run(Compiled* out);
    size_t Position() const { return tok_.start; }

private:
    // NameResolver: locals, and in the body the constants.
    int32_t Local(const std::string& name, int32_t* index) override;
    int32_t Constant(const std::string& name, int64_t* i, double* d, std::string* s) override;

    // Parsing (kwCalclParse.cpp).
    void Header();
    void ConstSection();
    void VarSection();
    void Statement();
    void IfStatement();
    void WhileStatement();
    int32_t Level2(int32_t closing);
    void Level2_();
    void Level3();
    void Level4();
    void Binary(int level);
    void Level13();
    void Level14();
    int32_t Level15();
    void Call(const Builtin* builtin, int32_t external);
    void Literal();

    // Emitting (kwCalclFun.cpp).
    void Next() { tok_.Next(); }
    void Expect(int32_t token, int32_t error);
    void Emit(uint8_t op);
    void Emit16(uint16_t v);
    void Emit32(uint32_t v);
    void Emit64(uint64_t v);
    size_t EmitJump(uint8_t op);  // the position of its offset field
    void PatchTo(size_t field, size_t target);
    void DebugPoint();
    void Push(int32_t n = 1);
    void Pop(int32_t n = 1) { depth_ -= n; }
    int32_t FindLocal(const std::string& name) const;
    void AddLocal(const std::string& name);
    void DebugInfo();

    Tokenizer tok_;
    bool debug_;
    bool body_ = false;
    KWCalcConst* constants_;
    std::unique_ptr<KWCalcConst> own_;
    std::string name_;
    std::vector<std::string> locals_;
    int32_t paramCount_ = 0;
    std::vector<External> externals_;
    std::vector<uint8_t> code_;
    std::vector<uint32_t> points_;
    int32_t depth_ = 0;
    int32_t maxDepth_ = 0;
    struct Loop {
        size_t start;
        std::vector<size_t> exits;
    };
    std::vector<Loop> loops_;
};

}  // namespace kwz::calcl
