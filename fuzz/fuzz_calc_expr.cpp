// Random well-formed expressions: the compiler accepts every one, and the
// stack need it reports is the greatest depth that its code reaches.
#include <VomKwz.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

class Bytes {
public:
    Bytes(const uint8_t* p, size_t n) : p_(p), n_(n) {}
    unsigned Next() { return n_ ? (--n_, *p_++) : 0; }
    bool Empty() const { return n_ == 0; }

private:
    const uint8_t* p_;
    size_t n_;
};

const char* const kBinary[] = {"+", "-", "*", "/", "\\", "%", "==", "!=", "<", "<=",
                               ">", ">=", "&&", "||", "&", "^", "|", "<<", ">>"};

std::string Expr(Bytes& in, int depth) {
    const unsigned choice = depth > 6 || in.Empty() ? in.Next() % 3 : in.Next() % 15;
    switch (choice) {
    case 0: return std::to_string(in.Next());
    case 1: return in.Next() % 2 ? "a" : "b";
    case 2: return "1.5";
    case 3: return "(" + Expr(in, depth + 1) + ")";
    case 4: return Expr(in, depth + 1) + " " + kBinary[in.Next() % 19] + " " + Expr(in, depth + 1);
    case 5: return std::string(1, "-!~+"[in.Next() % 4]) + "(" + Expr(in, depth + 1) + ")";
    case 6: return "min(" + Expr(in, depth + 1) + ", " + Expr(in, depth + 1) + ")";
    case 7: return "iif(" + Expr(in, depth + 1) + ", " + Expr(in, depth + 1) + ", " + Expr(in, depth + 1) + ")";
    case 8: return in.Next() % 2 ? "null" : "sin(" + Expr(in, depth + 1) + ")";
    case 9: return in.Next() % 2 ? "g0()" : "g2(" + Expr(in, depth + 1) + ", " + Expr(in, depth + 1) + ")";
    case 10: {
        const unsigned n = in.Next() % 4;
        std::string s = "[";
        for (unsigned i = 0; i < n; ++i) s += (i ? ", " : "") + Expr(in, depth + 1);
        return s + "]";
    }
    case 11: return "(" + Expr(in, depth + 1) + ")[" + Expr(in, depth + 1) + "]";
    case 12: return "(a = " + Expr(in, depth + 1) + ")";
    case 13: return "try(" + Expr(in, depth + 1) + ")";
    default: return "(" + Expr(in, depth + 1) + ", " + Expr(in, depth + 1) + ")";
    }
}

uint16_t U16(const uint8_t* p) {
    uint16_t v;
    std::memcpy(&v, p, 2);
    return v;
}

// Arguments a built-in of this code takes off the stack (at least the empty
// value pushed for none): only those the generator uses.
int BuiltinArgs(uint8_t code) {
    switch (code) {
    case 99: return 2;    // min
    case 97: return 3;    // iif
    case 135: return 1;   // null, with its empty value
    case 113: return 1;   // sin
    default: std::abort();
    }
}

// Walks the code once, in order, keeping the depth each instruction leaves.
int32_t MaxDepth(const KWFunDef* f) {
    const uint8_t* p = f->code;
    const auto* ext = static_cast<const KWFunExtern*>(f->externNames);
    int32_t depth = 0, max = 0;
    for (;;) {
        const uint8_t op = *p;
        size_t len = 1;
        switch (op) {
        case 33: case 34: depth += 1 - U16(p + 3); len = 5; break;
        case 35: depth += 1; break;
        case 36: case 37: depth += 1; len = 9; break;
        case 38: depth += 1; len = 4 + U16(p + 1); break;
        case 39: depth -= U16(p + 1) ? U16(p + 1) : 1; len = 3; break;
        case 81: case 82: case 83: case 251: break;
        case 225: len = 7; break;
        case 241: depth += 1 - (ext[U16(p + 1)].argCount ? ext[U16(p + 1)].argCount : 1); len = 3; break;
        case 242: case 243: case 244: case 250: len = 5; break;
        case 245: depth -= 1; len = 5; break;
        case 246: case 247: depth -= U16(p + 3); len = 5; break;
        case 248: depth -= U16(p + 1); len = 3; break;
        case 249: {
            uint32_t n;
            std::memcpy(&n, p + 1, 4);
            depth += 1 - int32_t(n);
            len = 5;
            break;
        }
        case 253: return max;
        default:
            if ((op >= 49 && op <= 54) || (op >= 65 && op <= 70) || (op >= 84 && op <= 90)) depth -= 1;
            else depth += 1 - BuiltinArgs(op);
        }
        if (depth > max) max = depth;
        p += len;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Bytes in(data, size);
    const std::string text = "f(a, b){ result = " + Expr(in, 0) + "; if (" + "(" + Expr(in, 0) +
                             ")) { b = " + Expr(in, 0) + "; } }";
    for (int32_t debug : {0, 1}) {
        KWFunDef* f = nullptr;
        const int32_t status = KWFunCompile(text.c_str(), &f, debug, nullptr);
        if (status != 0) {
            std::fprintf(stderr, "refused (%d at %d): %s\n", status, f ? f->externCount : -1, text.c_str());
            std::abort();
        }
        const int32_t depth = MaxDepth(f);
        if (depth != f->stackNeed) {
            std::fprintf(stderr, "stack need %d, code reaches %d: %s\n", f->stackNeed, depth, text.c_str());
            std::abort();
        }
        KWFunFree(f);
    }
    return 0;
}
