// KWACopy: fields, keys and records of one array into another.
#include <cstdlib>
#include <cstring>
#include <new>

#include "rec/kwRecArr.h"

namespace kwz::recarr {

namespace {

// Copies the source's members, in the order of its key 0, into the
// destination's key 0 and orders every further key from it.
int32_t CopyRecords(KWArray* dst, KWArray* src) {
    if (!EnsureKey0(dst)) return -1;
    KWAKey* key0 = dst->keys[0].get();
    KeyOrder& from = src->keys[0]->order;
    std::vector<Entry> entries;
    std::vector<uint8_t> scratch;
    try {
        entries.reserve(static_cast<size_t>(from.Size()));
        for (int32_t i = 0; i < from.Size(); ++i) {
            // Changed members are packed first (keeping their flags), so
            // that every copy is a self-contained image.
            uint32_t length = 0;
            const uint8_t* image = PackedImageOf(src, from.At(i).rec, scratch, &length);
            KWRData* copy = image ? AllocRecord() : nullptr;
            auto* bytes = copy ? static_cast<uint8_t*>(kwz::MemAlloc(length)) : nullptr;
            if (!bytes) {
                kwz::MemFree(copy);
                throw std::bad_alloc();
            }
            std::memcpy(bytes, image, length);
            const KWRData* rec = from.At(i).rec;
            copy->length = length;
            copy->image = bytes;
            copy->flags = rec->flags;
            copy->fieldCount = rec->fieldCount;
            copy->typeId = dst->fieldVersion;
            copy->owner = dst;
            copy->editSource = MemberMark();
            entries.push_back(MakeEntry(key0, copy));
        }
        key0->order.Assign(entries.data(), static_cast<int32_t>(entries.size()));
        entries.clear();
        CheckSorted(key0);
        // Sorted whenever a key has more than one member, as copies always
        // were, fields or not.
        RebuildKeysFromKey0(dst, false);
    } catch (const std::bad_alloc&) {
        for (auto& e : entries) FreeRecord(e.rec);
        ClearRecords(dst);
        LogNoMemory(KWA_TAG("KWACopy"));
        return -1;
    }
    return 0;
}

// The copy itself, into a fresh destination.
int32_t CopyInto(KWArray* destination, KWArray* source, uint32_t options) {
    if (!source->HasFields()) return 0;
    KWRFieldDef defs[256];
    rec::FldAddGet(&source->type, defs);
    if (const int32_t rc = SetFields(destination, source->type.fieldCount, defs)) return rc;
    if (options & iCopyOpt_Key) {
        if (source->keys.empty()) {
            // The variable flag stays unset on this path: kept as it always was.
            destination->variable = 0;
            return 0;
        }
        // std::bad_alloc here leaves a half-made fresh array, which goes.
        for (const auto& from : source->keys) {
            auto key = std::make_unique<KWAKey>();
            key->options = from->options;
            std::memcpy(key->expression, from->expression, sizeof key->expression);
            key->fieldCount = from->fieldCount;
            std::memcpy(key->fieldNumbers, from->fieldNumbers, sizeof key->fieldNumbers);
            key->array = destination;
            RefreshKeyFields(key.get(), &destination->type);
            destination->keys.push_back(std::move(key));
        }
    }
    if (source->keys.empty()) return 0;
    if (options & iCopyOpt_Rec) return CopyRecords(destination, source);
    return 0;
}

}  // namespace

// Made in a fresh array and moved into the destination only when complete,
// so that a failure leaves the destination as it was.
int32_t Copy(KWArray* destination, KWArray* source, uint32_t options) {
    if (!destination || !source || destination == source) return -1;
    KWArray* made = nullptr;
    if (Create(&made, nullptr) != 0) return -1;
    std::unique_ptr<KWArray, void (*)(KWArray*)> fresh(made, Destroy);
    if (const int32_t rc = CopyInto(made, source, options)) return rc;
    TakeOver(destination, made);
    return 0;
}
}  // namespace kwz::recarr
