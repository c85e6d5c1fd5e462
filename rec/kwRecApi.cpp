// The C edge of record types and records: each exported KWR... function runs
// its core (rec/kwRecCore.h) through kwz::CEdge, so that no exception reaches
// a C caller.  Out of memory gives -1 (NULL for pointers); any other
// exception -2.  KWRRecFree alone lets kwz::DataCorrupt through, as its
// callers expect.
#include "base/kwGuard.h"
#include "rec/kwRecCore.h"
#include "rec/kwRecord.h"

namespace {

template <typename Fn>
uint32_t Edge(const char* tag, Fn&& body) noexcept {
    return kwz::CEdge(tag, KWR_NOMEM, KWR_CORRUPT, std::forward<Fn>(body));
}

template <typename Fn>
auto EdgePtr(const char* tag, Fn&& body) noexcept {
    using R = decltype(body());
    return kwz::CEdge<R>(tag, nullptr, nullptr, std::forward<Fn>(body));
}

}  // namespace

#define KWR_TAG(function) "Kwz.kwRec." function

using namespace kwz;

extern "C" {

// ---- record types -----------------------------------------------------------

KWZ_API uint32_t KWRTypInit(KWRType* type) {
    return Edge(KWR_TAG("KWRTypInit"), [&] { return rec::TypInit(type); });
}

KWZ_API uint32_t KWRTypFree(KWRType* type) {
    return Edge(KWR_TAG("KWRTypFree"), [&] { return rec::TypFree(type); });
}

KWZ_API uint32_t KWRTypSet(KWRType* type, uint32_t id, const char* definition) {
    return Edge(KWR_TAG("KWRTypSet"), [&] { return rec::TypSet(type, id, definition); });
}

KWZ_API uint32_t KWRTypSetA(KWRType* type, uint32_t id, const char* name, uint8_t count,
                            const KWRFieldDef* defs) {
    return Edge(KWR_TAG("KWRTypSetA"), [&] { return rec::TypSetA(type, id, name, count, defs); });
}

KWZ_API uint32_t KWRTypGen(KWRType* type, const char* name, const KWRData* record) {
    return Edge(KWR_TAG("KWRTypGen"), [&] { return rec::TypGen(type, name, record); });
}

KWZ_API uint32_t KWRTypGet(const KWRType* type, char** text) {
    return Edge(KWR_TAG("KWRTypGet"), [&] { return rec::TypGet(type, text); });
}

KWZ_API uint32_t KWRTypDefStrSet(KWRType* type, const char* text) {
    return Edge(KWR_TAG("KWRTypDefStrSet"), [&] { return rec::TypDefStrSet(type, text); });
}

KWZ_API uint32_t KWRTypFld(const KWRType* type, const char* name, KWRField** field) {
    return Edge(KWR_TAG("KWRTypFld"), [&] { return rec::TypFld(type, name, field); });
}

KWZ_API uint32_t KWRTypFldN(const KWRType* type, uint8_t number, KWRField** field) {
    return Edge(KWR_TAG("KWRTypFldN"), [&] { return rec::TypFldN(type, number, field); });
}

KWZ_API KWRField* KWRFldByName(const KWRType* type, const char* name) {
    return EdgePtr(KWR_TAG("KWRFldByName"), [&] { return rec::FldByName(type, name); });
}

KWZ_API KWRField* KWRFldByNum(const KWRType* type, uint8_t number) {
    return EdgePtr(KWR_TAG("KWRFldByNum"), [&] { return rec::FldByNum(type, number); });
}

KWZ_API uint32_t HashKey(const char* name) {
    return CEdge(KWR_TAG("HashKey"), 0u, 0u, [&] { return rec::HashKey(name); });
}

KWZ_API uint32_t _FldAddGet(const KWRType* type, KWRFieldDef* defs) {
    return CEdge(KWR_TAG("_FldAddGet"), 0u, 0u, [&] { return rec::FldAddGet(type, defs); });
}

// ---- records ----------------------------------------------------------------

KWZ_API uint32_t KWRRecInit(KWRData* record) {
    return Edge(KWR_TAG("KWRRecInit"), [&] { return rec::RecInit(record); });
}

KWZ_API uint32_t KWRRecNew(const KWRType* type, KWRData* record) {
    return Edge(KWR_TAG("KWRRecNew"), [&] { return rec::RecNew(type, record); });
}

// The one record function that throws: a NULL record or one whose guard byte
// is set is logged and reported as kwz::DataCorrupt, which callers catch by
// its text "KWRRecFree RE_DATACORRUPT".
KWZ_API uint32_t KWRRecFree(KWRData* record) {
    return CEdgeCorrupt(KWR_TAG("KWRRecFree"), KWR_NOMEM, KWR_CORRUPT, [&] {
        if (!record || record->guard != 0) {
            rec::LogCorrupt(KWR_TAG("KWRRecFree"));
            throw DataCorrupt("KWRRecFree RE_DATACORRUPT");
        }
        return rec::RecFree(record);
    });
}

KWZ_API uint32_t KWRRecSet(KWRData* record, void* image) {
    return Edge(KWR_TAG("KWRRecSet"), [&] { return rec::RecSet(record, image); });
}

KWZ_API KWRData* KWRRecAlloc(const KWRType* type, const KWRVal* cells) {
    return EdgePtr(KWR_TAG("KWRRecAlloc"), [&] { return rec::RecAlloc(type, cells); });
}

KWZ_API void KWRRecRelease(KWRData* record) {
    CEdgeVoid(KWR_TAG("KWRRecRelease"), [&] { rec::RecRelease(record); });
}

KWZ_API uint32_t KWRSetFlags(KWRData* record, uint8_t flags) {
    return Edge(KWR_TAG("KWRSetFlags"), [&] { return rec::SetFlags(record, flags); });
}

KWZ_API uint32_t KWRIsNull(const KWRField* field, const KWRData* record, uint8_t* out) {
    return Edge(KWR_TAG("KWRIsNull"), [&] { return rec::IsNull(field, record, out); });
}

KWZ_API uint32_t KWRIsEdit(const KWRField* field, const KWRData* record, uint8_t* out) {
    return Edge(KWR_TAG("KWRIsEdit"), [&] { return rec::IsEdit(field, record, out); });
}

KWZ_API uint32_t KWRIsUser(const KWRField* field, const KWRData* record, uint8_t* out) {
    return Edge(KWR_TAG("KWRIsUser"), [&] { return rec::IsUser(field, record, out); });
}

KWZ_API uint32_t KWRSetNull(const KWRField* field, KWRData* record) {
    return Edge(KWR_TAG("KWRSetNull"), [&] { return rec::SetNull(field, record); });
}

KWZ_API uint32_t KWRSetEdit(const KWRField* field, KWRData* record, uint8_t on) {
    return Edge(KWR_TAG("KWRSetEdit"), [&] { return rec::SetEdit(field, record, on); });
}

KWZ_API uint32_t KWRSetUser(const KWRField* field, KWRData* record, uint8_t on) {
    return Edge(KWR_TAG("KWRSetUser"), [&] { return rec::SetUser(field, record, on); });
}

// ---- typed access -----------------------------------------------------------

#define KWZ_SCALAR_ACCESSORS(Name, CType, Code)                                                  \
    KWZ_API uint32_t KWRGetAs##Name(const KWRField* field, const KWRData* record, CType* out) {  \
        return Edge(KWR_TAG("KWRGetAs" #Name), [&] {                                             \
            CType value{};                                                                       \
            const uint32_t rc = rec::ReadScalar(field, record, Code, &value);                    \
            if (out) *out = value;                                                               \
            return rc;                                                                           \
        });                                                                                      \
    }                                                                                            \
    KWZ_API uint32_t KWRSetAs##Name(const KWRField* field, KWRData* record, CType value) {      \
        return Edge(KWR_TAG("KWRSetAs" #Name),                                                   \
                    [&] { return rec::WriteScalar(field, record, Code, &value); });              \
    }

KWZ_SCALAR_ACCESSORS(Bool, uint8_t, iFldType_Bool)
KWZ_SCALAR_ACCESSORS(Byte, uint8_t, iFldType_Byte)
KWZ_SCALAR_ACCESSORS(Int8, int8_t, iFldType_Int8)
KWZ_SCALAR_ACCESSORS(Int16, int16_t, iFldType_Int16)
KWZ_SCALAR_ACCESSORS(Int32, int32_t, iFldType_Int32)
KWZ_SCALAR_ACCESSORS(Int64, int64_t, iFldType_Int64)
KWZ_SCALAR_ACCESSORS(Float, float, iFldType_Float)
KWZ_SCALAR_ACCESSORS(Double, double, iFldType_Double)

#undef KWZ_SCALAR_ACCESSORS

KWZ_API uint32_t KWRGetAsText(const KWRField* field, const KWRData* record, int32_t start,
                              int32_t size, char* buffer) {
    return Edge(KWR_TAG("KWRGetAsText"), [&] { return rec::GetAsText(field, record, start, size, buffer); });
}

KWZ_API uint32_t KWRSetAsText(const KWRField* field, KWRData* record, int32_t length,
                              const void* text) {
    return Edge(KWR_TAG("KWRSetAsText"), [&] { return rec::SetAsText(field, record, length, text); });
}

KWZ_API uint32_t KWRGetTextRef(const KWRField* field, const KWRData* record, uint32_t* length,
                               const char** text) {
    return Edge(KWR_TAG("KWRGetTextRef"), [&] { return rec::GetTextRef(field, record, length, text); });
}

KWZ_API uint32_t KWRGetTextLen(const KWRField* field, const KWRData* record, uint32_t* length) {
    return Edge(KWR_TAG("KWRGetTextLen"), [&] { return rec::GetTextRef(field, record, length, nullptr); });
}

KWZ_API uint32_t KWRGetTextPtr(const KWRField* field, const KWRData* record, const char** text) {
    return Edge(KWR_TAG("KWRGetTextPtr"), [&] { return rec::GetTextRef(field, record, nullptr, text); });
}

// ---- value cells ------------------------------------------------------------

KWZ_API uint32_t KWRGetVal(const KWRField* field, const KWRData* record, KWRVal* cell) {
    return Edge(KWR_TAG("KWRGetVal"), [&] { return rec::GetVal(field, record, cell); });
}

KWZ_API uint32_t KWRSetVal(const KWRField* field, KWRData* record, const KWRVal* cell) {
    return Edge(KWR_TAG("KWRSetVal"), [&] { return rec::SetVal(field, record, cell); });
}

KWZ_API uint32_t KWRGetRec(const KWRType* type, const KWRData* record, KWRVal* cells) {
    return Edge(KWR_TAG("KWRGetRec"), [&] { return rec::GetRec(type, record, cells); });
}

KWZ_API uint32_t KWRSetRec(const KWRType* type, KWRData* record, const KWRVal* cells) {
    return Edge(KWR_TAG("KWRSetRec"), [&] { return rec::SetRec(type, record, cells); });
}

// ---- images -----------------------------------------------------------------

KWZ_API uint32_t KWRRecPack(const KWRType* type, KWRData* record, uint32_t clearEdited,
                            uint32_t clearUser) {
    return Edge(KWR_TAG("KWRRecPack"), [&] { return rec::RecPack(type, record, clearEdited, clearUser); });
}

KWZ_API uint32_t KWRSetBuff(const KWRType* type, void* buffer, const KWRVal* cells, uint32_t* size) {
    return Edge(KWR_TAG("KWRSetBuff"), [&] { return rec::SetBuff(type, buffer, cells, size); });
}

KWZ_API uint32_t KWRRecCheck(const KWRType* type, const KWRData* record) {
    return Edge(KWR_TAG("KWRRecCheck"), [&] { return rec::RecCheck(type, record); });
}

}  // extern "C"
