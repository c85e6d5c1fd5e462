// The order of one record-array key: a sequence of member pointers that
// behaves like a sorted pointer list (index access, insert and erase at an
// index) without the cost of shifting the whole list on every post.
//
// Layout: a vector of slots, each a block of at most kBlockCapacity entries
// with its count and its first entry's prefix kept beside it (so that the
// searches over blocks read one small array), and a Fenwick tree over the
// counts that maps a position to its block in O(log blocks).  Insert and erase shift at most one block and update the
// tree; a block that fills up is split (or, at either end of the sequence, a
// fresh block is started, so that appending fills blocks completely) and the
// tree rebuilt, which happens once per many inserts.  The block found last is
// cached, so that walking the positions in order costs O(1) per step.
//
// Each entry carries, beside the record, the key's 64-bit prefix of the
// record's first key field (see kwRecArrComp.cpp); the order never looks at it.
#pragma once

#include <VomKwz.h>

#include "base/kwSanitize.h"

// Debug builds and AddressSanitizer builds check the key orders' invariants
// after every change (KWZ_DEBUG_CHECKS may also be defined by hand).
#if !defined(KWZ_DEBUG_CHECKS)
#if !defined(NDEBUG) || KWZ_ADDRESS_SANITIZER
#define KWZ_DEBUG_CHECKS 1
#endif
#endif

#include <cstdint>
#include <memory>
#include <vector>

namespace kwz::recarr {

struct Entry {
    KWRData* rec;
    uint64_t prefix;
};

// What a prefix comparison returns when equal prefixes cannot decide.
constexpr int32_t kUndecided = 2;

class KeyOrder {
public:
    static constexpr int32_t kBlockCapacity = 256;

    KeyOrder() = default;
    KeyOrder(const KeyOrder&) = delete;
    KeyOrder& operator=(const KeyOrder&) = delete;

    int32_t Size() const { return size_; }

    // The entry at 0 <= index < Size().
    const Entry& At(int32_t index) const {
        if (index < cacheStart_ || index >= cacheEnd_) Locate(index);
        return slots_[cacheBlock_].block->entries[index - cacheStart_];
    }
    // Replaces the entry at 0 <= index < Size().
    void Set(int32_t index, Entry entry);

    // The first position whose entry is not less than the search key, for
    // an order sorted by it: a search over the blocks' first prefixes (one
    // small array) and then inside one block, instead of a position lookup
    // per probe.  pcmp(prefix) compares a member's prefix with the key's
    // (kUndecided when it cannot tell), cmp(entry) the member itself.
    template <typename PrefixCmp, typename Cmp>
    int32_t LowerBound(PrefixCmp&& pcmp, Cmp&& cmp) const {
        auto compare = [&](const Entry& e) {
            const int32_t c = pcmp(e.prefix);
            return c != kUndecided ? c : cmp(e);
        };
        size_t lo = 0, hi = slots_.size();
        while (lo < hi) {  // the first block whose first entry is not less
            const size_t mid = (lo + hi) / 2;
            int32_t c = pcmp(slots_[mid].first);
            if (c == kUndecided) c = cmp(slots_[mid].block->entries[0]);
            if (c < 0) lo = mid + 1;
            else hi = mid;
        }
        if (lo == 0) return 0;
        const size_t b = lo - 1;  // its first entry is less: the boundary lies here or at its end
        const Block* block = slots_[b].block.get();
        const int32_t count = slots_[b].count;
        int32_t l = 1, h = count;
        while (l < h) {
            const int32_t mid = (l + h) / 2;
            if (compare(block->entries[mid]) < 0) l = mid + 1;
            else h = mid;
        }
        const int32_t start = Start(b);
        cacheBlock_ = b;
        cacheStart_ = start;
        cacheEnd_ = start + count;
        return start + l;
    }

    // Inserts before index (0 <= index <= Size()); throws std::bad_alloc,
    // leaving the order as it was.  After Reserve() the next Insert, and an
    // Erase followed by one Insert, allocate nothing and cannot fail.
    void Insert(int32_t index, Entry entry);
    // Makes room for one Insert (a spare block and the vectors' capacity);
    // throws std::bad_alloc with the order unchanged.
    void Reserve();
    // Checks the blocks and the Fenwick index against each other (counts,
    // first prefixes, the tree's sums, the size); aborts with a message on a
    // mismatch.  Only in builds with KWZ_DEBUG_CHECKS, after every change;
    // elsewhere it does nothing.
    void CheckInvariants() const;
    // Removes and returns the entry at 0 <= index < Size().
    Entry Erase(int32_t index);
    void Clear();
    // Replaces the whole sequence (throws std::bad_alloc, order unchanged).
    void Assign(const Entry* entries, int32_t count);
    // Appends every entry, in order, to out.
    void CopyTo(std::vector<Entry>& out) const;
    // First index holding rec, or -1 (a scan of every block).
    int32_t IndexOf(const KWRData* rec) const;

    // Calls fn(Entry&) for every entry in order; fn may change the records
    // but not the prefixes.
    template <typename Fn>
    void ForEach(Fn&& fn) {
        for (auto& slot : slots_)
            for (int32_t i = 0; i < slot.count; ++i) fn(slot.block->entries[i]);
    }

private:
    struct Block {
        Entry entries[kBlockCapacity];
    };
    struct Slot {
        std::unique_ptr<Block> block;
        int32_t count = 0;
        uint64_t first = 0;  // block->entries[0].prefix
    };

    void Locate(int32_t index) const;  // fills the cache for index
    int32_t Start(size_t block) const;   // position of the block's first entry
    void Invalidate() const { cacheStart_ = 0, cacheEnd_ = 0; }
    void Rebuild();                    // Fenwick tree from the block counts
    void FenwickAdd(size_t block, int32_t delta);
    void RemoveBlock(size_t block);
    void PutInBlock(size_t block, int32_t off, Entry entry);  // the block has room
    std::unique_ptr<Block> TakeBlock();  // the spare block, or a new one

    std::vector<Slot> slots_;
    std::vector<int32_t> fenwick_;  // 1-based over slots_
    std::unique_ptr<Block> spare_;  // made by Reserve, used by the next split
    int32_t size_ = 0;
    // The block found last covers positions [cacheStart_, cacheEnd_).
    mutable size_t cacheBlock_ = 0;
    mutable int32_t cacheStart_ = 0;
    mutable int32_t cacheEnd_ = 0;
};

}  // namespace kwz::recarr
