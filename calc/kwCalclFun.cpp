// The compiler's state and code buffer, and the exported KWFunCompile,
// KWFunRefFree and KWFunFree.
#include <cstring>
#include <new>

#include "base/kwSort.h"
#include "base/kwGuard.h"
#include "base/kwMem.h"
#include "calc/kwCalcOps.h"
#include "calc/kwCalcVar.h"
#include "calc/kwCalcl.h"

namespace kwz::calcl {
namespace {

// The messages of the error codes -1 .. -8, exactly as callers compare them
// (the first word of -2 begins with a Latin "C", and the misspellings stay).
const char* const kMessages[] = {
    "Недостаточно памяти",  // -1
    "Cинтаксическая ошибка",  // -2
    "Недопустимое значение",  // -3
    "Нет закрывающей круглой скобки",  // -4
    "Нет закрывающей квадратной скобки",  // -5
    "Нет ожидаемого выражение",  // -6
    "Неправильное количество параментов функции",  // -7
    "Имя дублируется",  // -8
};

}  // namespace

const char* CompileMessage(int32_t code) {
    return code <= -1 && code >= -8 ? kMessages[-code - 1] : "";
}

Compiler::Compiler(const char* text, bool debug, KWCalcConst* constants)
    : tok_(text, this), debug_(debug), constants_(constants) {
    code_.reserve(2048);
}

Compiler::~Compiler() = default;

int32_t Compiler::Local(const std::string& name, int32_t* index) {
    const int32_t i = FindLocal(name);
    if (i < 0) return 0;
    *index = i;
    return i < paramCount_ ? kTokParam : kTokLocal;
}

// In the body: the function's own constants, then the caller's table.
int32_t Compiler::Constant(const std::string& name, int64_t* i, double* d, std::string* s) {
    if (!body_) return 0;
    const KWCalcConst::Entry* e = kwz::calc::ConstFind(own_.get(), name.c_str());
    if (!e) e = kwz::calc::ConstFind(constants_, name.c_str());
    if (!e) return 0;
    switch (e->value.type) {
    case kwz::calc::kInt:
        *i = e->value.v.i;
        return kTokInt;
    case kwz::calc::kDbl:
        *d = e->value.v.d;
        return kTokDbl;
    case kwz::calc::kStr:
        s->assign(e->value.v.s ? e->value.v.s : "", size_t(e->value.count));
        return kTokStr;
    default:
        return 0;
    }
}

void Compiler::Expect(int32_t token, int32_t error) {
    if (tok_.token != token) throw CompileError{error};
    Next();
}

void Compiler::Emit(uint8_t op) { code_.push_back(op); }

namespace {

template <typename T>
void Append(std::vector<uint8_t>* code, T v) {
    const size_t at = code->size();
    code->resize(at + sizeof v);
    std::memcpy(code->data() + at, &v, sizeof v);
}

}  // namespace

void Compiler::Emit16(uint16_t v) { Append(&code_, v); }
void Compiler::Emit32(uint32_t v) { Append(&code_, v); }
void Compiler::Emit64(uint64_t v) { Append(&code_, v); }

size_t Compiler::EmitJump(uint8_t op) {
    Emit(op);
    const size_t field = code_.size();
    Emit32(0);
    return field;
}

// Jump offsets count from the offset field itself.
void Compiler::PatchTo(size_t field, size_t target) {
    const int32_t rel = int32_t(int64_t(target) - int64_t(field));
    std::memcpy(&code_[field], &rel, 4);
}

// 225, point number, byte offset of the current token; only when debugging.
void Compiler::DebugPoint() {
    if (!debug_) return;
    points_.push_back(uint32_t(code_.size()));
    Emit(kOpDebug);
    Emit16(uint16_t(points_.size() - 1));
    Emit32(uint32_t(tok_.start));
}

void Compiler::Push(int32_t n) {
    depth_ += n;
    if (depth_ > maxDepth_) maxDepth_ = depth_;
}

int32_t Compiler::FindLocal(const std::string& name) const {
    for (size_t i = 0; i < locals_.size(); ++i)
        if (locals_[i].size() == name.size() && kwz::StrICmpRus(locals_[i].c_str(), name.c_str()) == 0)
            return int32_t(i);
    return -1;
}

void Compiler::AddLocal(const std::string& name) { locals_.push_back(name); }

// Behind the code, with the debug flag:
//   i32 parameter count, i32 count of the other locals ("result", vars),
//   the local names, each followed by a 0 byte (parameters first),
//   i32 debug point count, then each point's code offset as u32.
void Compiler::DebugInfo() {
    Emit32(uint32_t(paramCount_));
    Emit32(uint32_t(int32_t(locals_.size()) - paramCount_));
    for (const std::string& name : locals_) {
        code_.insert(code_.end(), name.begin(), name.end());
        code_.push_back(0);
    }
    Emit32(uint32_t(points_.size()));
    for (uint32_t p : points_) Emit32(p);
}

void Compiler::Run(Compiled* out) {
    Header();
    if (debug_) DebugInfo();
    out->name = name_;
    out->stackNeed = maxDepth_;
    out->paramCount = paramCount_;
    out->externals = std::move(externals_);
    out->code = std::move(code_);
}

}  // namespace kwz::calcl

namespace {

using namespace kwz::calcl;

char* CopyText(const char* text, size_t n) {
    auto* copy = static_cast<char*>(kwz::MemAlloc(n + 1));
    if (!copy) throw std::bad_alloc();
    std::memcpy(copy, text, n);
    copy[n] = 0;
    return copy;
}

void RefFree(KWFunDef* f) {
    auto* ext = static_cast<KWFunExtern*>(f->externNames);
    if (ext)
        for (int32_t i = 0; i < f->externCount; ++i) kwz::MemFree(ext[i].name);
    kwz::MemFree(ext);
    kwz::MemFree(f->code);
    f->externNames = nullptr;
    f->code = nullptr;
    f->externCount = 0;
}

// Moves a compilation into the record's C blocks.
void Fill(KWFunDef* f, const Compiled& c) {
    f->name = CopyText(c.name.data(), c.name.size());
    f->stackNeed = c.stackNeed;
    f->paramCount = c.paramCount;
    if (!c.externals.empty()) {
        auto* ext = static_cast<KWFunExtern*>(kwz::MemAlloc(c.externals.size() * sizeof(KWFunExtern)));
        if (!ext) throw std::bad_alloc();
        std::memset(static_cast<void*>(ext), 0, c.externals.size() * sizeof(KWFunExtern));
        f->externNames = ext;
        for (const External& e : c.externals) {
            ext[f->externCount].name = CopyText(e.name.data(), e.name.size());
            ext[f->externCount].argCount = e.args;
            ++f->externCount;
        }
    }
    f->code = static_cast<uint8_t*>(kwz::MemAlloc(c.code.size()));
    if (!f->code) throw std::bad_alloc();
    std::memcpy(f->code, c.code.data(), c.code.size());
}

}  // namespace

namespace kwz::calcl {

int32_t FunCompile(const char* text, KWFunDef** function, int32_t debug, KWCalcConst* constants) {
    if (!function) return kErrSyntax;
    *function = nullptr;
    auto* f = static_cast<KWFunDef*>(kwz::MemAlloc(sizeof(KWFunDef)));
    if (!f) return kErrNoMem;
    std::memset(static_cast<void*>(f), 0, sizeof(KWFunDef));
    *function = f;
    int32_t code = 0;
    size_t position = 0;
    try {
        if (!text) throw CompileError{kErrSyntax};
        Compiled compiled;
        Compiler compiler(text, debug != 0, constants);
        try {
            compiler.Run(&compiled);
        } catch (const std::bad_alloc&) {
            throw CompileError{kErrNoMem};
        } catch (const CompileError&) {
            position = compiler.Position();
            throw;
        }
        Fill(f, compiled);
        return 0;
    } catch (const CompileError& e) {
        code = e.code;
    } catch (const std::bad_alloc&) {
        code = kErrNoMem;
    }
    // A failure leaves the code, the position and a copy of the message.
    RefFree(f);
    kwz::MemFree(f->name);
    f->name = nullptr;
    f->stackNeed = 0;
    f->paramCount = code;
    f->externCount = int32_t(position);
    const char* message = CompileMessage(code);
    const size_t n = std::strlen(message);
    if (auto* copy = static_cast<char*>(kwz::MemAlloc(n + 1))) {
        std::memcpy(copy, message, n + 1);
        f->code = reinterpret_cast<uint8_t*>(copy);
    }
    return code;
}

void FunFree(KWFunDef* function) {
    if (!function) return;
    RefFree(function);
    kwz::MemFree(function->name);
    kwz::MemFree(function);
}

}  // namespace kwz::calcl

extern "C" {

KWZ_API int32_t KWFunCompile(const char* text, KWFunDef** function, int32_t debug,
                             KWCalcConst* constants) {
    return kwz::CEdge("Kwz.kwCalcl.KWFunCompile", kErrNoMem, kErrSyntax,
                      [&] { return kwz::calcl::FunCompile(text, function, debug, constants); });
}

KWZ_API void KWFunRefFree(KWFunDef* function) {
    kwz::CEdgeVoid("Kwz.kwCalcl.KWFunRefFree", [&] {
        if (function) RefFree(function);
    });
}

KWZ_API void KWFunFree(KWFunDef* function) {
    kwz::CEdgeVoid("Kwz.kwCalcl.KWFunFree", [&] { kwz::calcl::FunFree(function); });
}

}  // extern "C"
