// Calculator constant tables: named values, each set once, with an optional
// description.  Names compare ignoring case.  Object types define their
// script constants here; the compiler reads them while classifying names.
#pragma once

#include <VomKwz.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

struct KWCalcConst {
    struct Entry {
        std::string name;
        std::string description;
        CVar value{};
        Entry() = default;
        Entry(const Entry&) = delete;
        Entry& operator=(const Entry&) = delete;
        ~Entry();  // frees the value
    };
    // Entries keep their address while they exist: KWCalcConstGet hands
    // out a pointer to the value.
    std::vector<std::unique_ptr<Entry>> entries;
    std::unordered_map<std::string, Entry*> byName;  // key: the name folded to lower case

    KWCalcConst() = default;
    KWCalcConst(const KWCalcConst&) = delete;
    KWCalcConst& operator=(const KWCalcConst&) = delete;
};

namespace kwz::calc {

// The entry of this name, or null.
KWCalcConst::Entry* ConstFind(const KWCalcConst* table, const char* name);
// Finds or creates the entry; a value already there is kept (a constant is
// set once).  0, or -21 (bad_alloc propagates from std::).
int32_t ConstSet(KWCalcConst* table, const char* name, const CVar& value, const char* description);
int32_t ConstInt(KWCalcConst* table, const char* name, int64_t value, const char* description);
int32_t ConstDbl(KWCalcConst* table, const char* name, double value, const char* description);
int32_t ConstStr(KWCalcConst* table, const char* name, const char* text, int32_t length,
                 const char* description);
// 0 removed, -44 no such name.
int32_t ConstDel(KWCalcConst* table, const char* name);
void ConstClear(KWCalcConst* table);

}  // namespace kwz::calc
