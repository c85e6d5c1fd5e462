// The C++ core of the record-type and record functions.  Each exported KWR...
// function (kwRecApi.cpp) is this core run through the C edge; code inside
// the library calls the core directly.  Arguments, results and ownership are
// those of the exported function of the same name without its "KWR" prefix
// (see include/VomKwz.h); none of them throws except where said.
#pragma once

#include <VomKwz.h>

#include <cstdint>

namespace kwz::rec {

// ---- record types (kwRecType.cpp, kwRecTypeParse.cpp) ----------------------
uint32_t TypInit(KWRType* type);
uint32_t TypFree(KWRType* type);
uint32_t TypSet(KWRType* type, uint32_t id, const char* definition);
uint32_t TypSetA(KWRType* type, uint32_t id, const char* name, uint8_t count, const KWRFieldDef* defs);
uint32_t TypGen(KWRType* type, const char* name, const KWRData* record);
uint32_t TypGet(const KWRType* type, char** text);
uint32_t TypDefStrSet(KWRType* type, const char* text);
uint32_t TypFld(const KWRType* type, const char* name, KWRField** field);
uint32_t TypFldN(const KWRType* type, uint8_t number, KWRField** field);
KWRField* FldByName(const KWRType* type, const char* name);
KWRField* FldByNum(const KWRType* type, uint8_t number);
uint32_t HashKey(const char* name);
uint32_t FldAddGet(const KWRType* type, KWRFieldDef* defs);

// ---- records (kwRecord.cpp) -------------------------------------------------
uint32_t RecInit(KWRData* record);
uint32_t RecNew(const KWRType* type, KWRData* record);
// KWRRecFree without the exception: a null record or one whose guard byte is
// set is logged and gives -2, and nothing is freed (its pointers cannot be
// trusted).
uint32_t RecFree(KWRData* record);
uint32_t RecSet(KWRData* record, void* image);
KWRData* RecAlloc(const KWRType* type, const KWRVal* cells);
void RecRelease(KWRData* record);
uint32_t SetFlags(KWRData* record, uint8_t flags);
uint32_t IsNull(const KWRField* field, const KWRData* record, uint8_t* out);
uint32_t IsEdit(const KWRField* field, const KWRData* record, uint8_t* out);
uint32_t IsUser(const KWRField* field, const KWRData* record, uint8_t* out);
uint32_t SetNull(const KWRField* field, KWRData* record);
uint32_t SetEdit(const KWRField* field, KWRData* record, uint8_t on);
uint32_t SetUser(const KWRField* field, KWRData* record, uint8_t on);

// ---- typed and text access (kwRecConv.cpp, kwRecText.cpp) ------------------
// Reads the field as scalar type `to` (1..8) into dst; the getters' core.
uint32_t ReadScalar(const KWRField* field, const KWRData* record, uint8_t to, void* dst);
// Writes the scalar of type `from` (1..8) at src; the setters' core.
uint32_t WriteScalar(const KWRField* field, KWRData* record, uint8_t from, const void* src);

// The 32-bit accessors, as KWRGetAsInt32 / KWRSetAsInt32 do them.
inline uint32_t ReadInt32(const KWRField* field, const KWRData* record, int32_t* out) {
    int32_t value = 0;
    const uint32_t rc = ReadScalar(field, record, iFldType_Int32, &value);
    if (out) *out = value;
    return rc;
}
inline uint32_t WriteInt32(const KWRField* field, KWRData* record, int32_t value) {
    return WriteScalar(field, record, iFldType_Int32, &value);
}
uint32_t GetAsText(const KWRField* field, const KWRData* record, int32_t start, int32_t size, char* buffer);
uint32_t SetAsText(const KWRField* field, KWRData* record, int32_t length, const void* text);
uint32_t GetTextRef(const KWRField* field, const KWRData* record, uint32_t* length, const char** text);

// ---- value cells (kwRecVal.cpp) ---------------------------------------------
uint32_t GetVal(const KWRField* field, const KWRData* record, KWRVal* cell);
uint32_t SetVal(const KWRField* field, KWRData* record, const KWRVal* cell);
uint32_t GetRec(const KWRType* type, const KWRData* record, KWRVal* cells);
uint32_t SetRec(const KWRType* type, KWRData* record, const KWRVal* cells);

// ---- images (kwRecPack.cpp, kwRecCheck.cpp) --------------------------------
uint32_t RecPack(const KWRType* type, KWRData* record, uint32_t clearEdited, uint32_t clearUser);
uint32_t SetBuff(const KWRType* type, void* buffer, const KWRVal* cells, uint32_t* size);
uint32_t RecCheck(const KWRType* type, const KWRData* record);

}  // namespace kwz::rec
