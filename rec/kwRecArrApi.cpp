// The C edge of record arrays: each exported KWA... function runs its core
// (rec/kwRecArr.h) through kwz::CEdge.  Out of memory and any other
// exception give -1 (NULL for records, 0 for sizes and comparisons); a
// failed call leaves the array as the header says.
#include "base/kwGuard.h"
#include "rec/kwRecArr.h"

namespace {

template <typename Fn>
int32_t Edge(const char* tag, Fn&& body) noexcept {
    return kwz::CEdge<int32_t>(tag, -1, -1, std::forward<Fn>(body));
}

template <typename Fn>
KWRData* EdgeRec(const char* tag, Fn&& body) noexcept {
    return kwz::CEdge<KWRData*>(tag, nullptr, nullptr, std::forward<Fn>(body));
}

}  // namespace

using namespace kwz;

extern "C" {

KWZ_API int32_t KWACreate(KWArray** array, const KWRType* type) {
    return Edge(KWA_TAG("KWACreate"), [&] { return recarr::Create(array, type); });
}

KWZ_API void KWADestroy(KWArray* array) {
    CEdgeVoid(KWA_TAG("KWADestroy"), [&] { recarr::Destroy(array); });
}

KWZ_API KWRType* KWAType(KWArray* array) {
    return CEdge<KWRType*>(KWA_TAG("KWAType"), nullptr, nullptr, [&] { return recarr::Type(array); });
}

KWZ_API int32_t KWAFldAdd(KWArray* array, int32_t count, const KWRFieldDef* defs) {
    return Edge(KWA_TAG("KWAFldAdd"), [&] { return recarr::FldAdd(array, count, defs); });
}

KWZ_API int32_t KWAKeyAdd(KWArray* array, int32_t count, const KWAKeyDef* defs) {
    return Edge(KWA_TAG("KWAKeyAdd"), [&] { return recarr::KeyAdd(array, count, defs); });
}

KWZ_API int32_t KWAKeyDel(KWArray* array, int32_t key) {
    return Edge(KWA_TAG("KWAKeyDel"), [&] { return recarr::KeyDel(array, key); });
}

KWZ_API KWRData* KWARecNew(KWArray* array) {
    return EdgeRec(KWA_TAG("KWARecNew"), [&] { return recarr::RecNew(array); });
}

KWZ_API KWRData* KWARecEdit(KWRData* member) {
    return EdgeRec(KWA_TAG("KWARecEdit"), [&] { return recarr::RecEdit(member); });
}

KWZ_API int32_t KWARecPost(KWRData* record, KWRData** member) {
    return Edge(KWA_TAG("KWARecPost"), [&] { return recarr::RecPost(record, member); });
}

KWZ_API int32_t KWARecDel(KWRData* record) {
    return Edge(KWA_TAG("KWARecDel"), [&] { return recarr::RecDel(record); });
}

KWZ_API KWRData* KWARecAdd(KWArray* array, const KWRVal* cells) {
    return EdgeRec(KWA_TAG("KWARecAdd"), [&] { return recarr::RecAdd(array, cells); });
}

KWZ_API KWRData* KWARec(KWArray* array, int32_t key, int32_t index) {
    return EdgeRec(KWA_TAG("KWARec"), [&] { return recarr::Rec(array, key, index); });
}

KWZ_API KWArray* KWARecArr(const KWRData* record) {
    return CEdge<KWArray*>(KWA_TAG("KWARecArr"), nullptr, nullptr, [&] { return recarr::RecArr(record); });
}

KWZ_API int32_t KWARecCount(KWArray* array) {
    return CEdge<int32_t>(KWA_TAG("KWARecCount"), 0, 0, [&] { return recarr::RecCount(array); });
}

KWZ_API int32_t KWARecIdx(KWArray* array, int32_t key, const KWRData* record) {
    return Edge(KWA_TAG("KWARecIdx"), [&] { return recarr::RecIdx(array, key, record); });
}

KWZ_API KWRData* KWARecSeek(KWArray* array, int32_t key, const KWRData* keyRecord, int32_t* position) {
    return EdgeRec(KWA_TAG("KWARecSeek"), [&] { return recarr::RecSeek(array, key, keyRecord, position); });
}

KWZ_API KWRData* KWARecSeekF(KWArray* array, int32_t key, KWACompareFn compare, void* searchKey,
                             int32_t* position) {
    return EdgeRec(KWA_TAG("KWARecSeekF"),
                   [&] { return recarr::RecSeekF(array, key, compare, searchKey, position); });
}

KWZ_API KWRData* KWARecSeekV(KWArray* array, int32_t key, const KWRVal* cells, int32_t* position) {
    return EdgeRec(KWA_TAG("KWARecSeekV"), [&] { return recarr::RecSeekV(array, key, cells, position); });
}

KWZ_API int32_t KWARecSort(KWArray* array, int32_t key) {
    return Edge(KWA_TAG("KWARecSort"), [&] { return recarr::RecSort(array, key); });
}

KWZ_API int32_t KWARecComp(void* key, void* a, void* b) {
    return CEdge<int32_t>(KWA_TAG("KWARecComp"), 0, 0, [&] { return recarr::RecComp(key, a, b); });
}

KWZ_API int32_t KWAVarComp(void* key, void* member, void* cells) {
    return CEdge<int32_t>(KWA_TAG("KWAVarComp"), 0, 0, [&] { return recarr::VarComp(key, member, cells); });
}

KWZ_API int32_t KWAClearRec(KWArray* array) {
    return Edge(KWA_TAG("KWAClearRec"), [&] { return recarr::ClearRec(array); });
}

KWZ_API int32_t KWAClearKey(KWArray* array) {
    return Edge(KWA_TAG("KWAClearKey"), [&] { return recarr::ClearKey(array); });
}

KWZ_API int32_t KWAClearAll(KWArray* array) {
    return Edge(KWA_TAG("KWAClearAll"), [&] { return recarr::ClearAll(array); });
}

KWZ_API int32_t KWACopy(KWArray* destination, KWArray* source, uint32_t options) {
    return Edge(KWA_TAG("KWACopy"), [&] { return recarr::Copy(destination, source, options); });
}

KWZ_API uint64_t KWAPack(KWArray* array, void** block) {
    return CEdge<uint64_t>(KWA_TAG("KWAPack"), 0, 0, [&] { return recarr::Pack(array, block); });
}

KWZ_API uint64_t KWAPackBuff(KWArray* array, void* buffer) {
    return CEdge<uint64_t>(KWA_TAG("KWAPackBuff"), 0, 0, [&] { return recarr::PackBuff(array, buffer); });
}

KWZ_API uint64_t KWAUnpack(KWArray* array, const void* table) {
    return CEdge<uint64_t>(KWA_TAG("KWAUnpack"), 0, 0, [&] {
        const int64_t rc = recarr::Unpack(array, table);
        return rc > 0 ? static_cast<uint64_t>(rc) : 0;
    });
}

KWZ_API int64_t KWAUnpackForRead(KWArray* array, const void* table) {
    return CEdge<int64_t>(KWA_TAG("KWAUnpackForRead"), -1, 0, [&] { return recarr::UnpackForRead(array, table); });
}

KWZ_API int32_t KWAPackForRead(KWArray* array) {
    return Edge(KWA_TAG("KWAPackForRead"), [&] { return recarr::PackForRead(array); });
}

KWZ_API int32_t KWAUnpackForWrite(KWArray* array) {
    return Edge(KWA_TAG("KWAUnpackForWrite"), [&] { return array ? recarr::UnpackForWrite(array) : -1; });
}

KWZ_API KWRData* KWARecAddPack(KWArray* array, const KWRVal* cells) {
    return EdgeRec(KWA_TAG("KWARecAddPack"), [&] { return recarr::RecAddPack(array, cells); });
}

KWZ_API int64_t KWAUnpackChecked(KWArray* array, const void* table, uint64_t length, bool forRead) {
    return CEdge<int64_t>(KWA_TAG("KWAUnpackChecked"), -1, -2,
                          [&] { return recarr::UnpackChecked(array, table, length, forRead); });
}

}  // extern "C"
