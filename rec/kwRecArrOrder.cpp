// KeyOrder: the blocked sequence behind every record-array key (see
// kwRecArrOrder.h for the layout).
#include "rec/kwRecArrOrder.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kwz::recarr {

namespace {

constexpr int32_t kMergeBelow = KeyOrder::kBlockCapacity / 4;
constexpr int32_t kMergeUpTo = KeyOrder::kBlockCapacity / 2;

// Room for one more element, growing geometrically (reserve(size + 1)
// alone would copy the whole vector on every growth).
template <typename T>
void RoomForOneMore(std::vector<T>& v, size_t extra = 1) {
    if (v.size() + extra > v.capacity()) v.reserve(v.capacity() * 2 + 16 + extra);
}

size_t HighestBit(size_t n) {
    size_t bit = 1;
    while (bit <= n / 2) bit <<= 1;
    return bit;
}

}  // namespace

void KeyOrder::Locate(int32_t index) const {
    const size_t m = slots_.size();
    // Walking forward or backward by one block is the common case.
    if (cacheEnd_ > cacheStart_) {
        if (index == cacheEnd_ && cacheBlock_ + 1 < m) {
            ++cacheBlock_;
            cacheStart_ = cacheEnd_;
            cacheEnd_ = cacheStart_ + slots_[cacheBlock_].count;
            return;
        }
        if (index == cacheStart_ - 1 && cacheBlock_ > 0) {
            --cacheBlock_;
            cacheEnd_ = cacheStart_;
            cacheStart_ = cacheEnd_ - slots_[cacheBlock_].count;
            return;
        }
    }
    // Fenwick descent: the largest block count prefix not above index.
    size_t pos = 0;
    int32_t rest = index;
    for (size_t step = HighestBit(m); step; step >>= 1) {
        const size_t next = pos + step;
        if (next <= m && fenwick_[next] <= rest) {
            pos = next;
            rest -= fenwick_[next];
        }
    }
    cacheBlock_ = pos;
    cacheStart_ = index - rest;
    cacheEnd_ = cacheStart_ + slots_[pos].count;
}

int32_t KeyOrder::Start(size_t block) const {
    int32_t sum = 0;
    for (size_t i = block; i > 0; i -= i & (~i + 1)) sum += fenwick_[i];
    return sum;
}

void KeyOrder::Set(int32_t index, Entry entry) {
    if (index < cacheStart_ || index >= cacheEnd_) Locate(index);
    const int32_t off = index - cacheStart_;
    Slot& slot = slots_[cacheBlock_];
    slot.block->entries[off] = entry;
    if (off == 0) slot.first = entry.prefix;
}

void KeyOrder::Rebuild() {
    const size_t m = slots_.size();
    fenwick_.assign(m + 1, 0);  // never grows here: callers reserve first
    for (size_t i = 1; i <= m; ++i) {
        fenwick_[i] += slots_[i - 1].count;
        const size_t j = i + (i & (~i + 1));
        if (j <= m) fenwick_[j] += fenwick_[i];
    }
    Invalidate();
}

void KeyOrder::FenwickAdd(size_t block, int32_t delta) {
    for (size_t i = block + 1; i < fenwick_.size(); i += i & (~i + 1)) fenwick_[i] += delta;
}

// Puts the entry at offset `off` of a block that has room.
void KeyOrder::PutInBlock(size_t b, int32_t off, Entry entry) {
    Slot& slot = slots_[b];
    Entry* e = slot.block->entries;
    std::memmove(e + off + 1, e + off, sizeof(Entry) * static_cast<size_t>(slot.count - off));
    e[off] = entry;
    ++slot.count;
    if (off == 0) slot.first = entry.prefix;
    ++size_;
}

std::unique_ptr<KeyOrder::Block> KeyOrder::TakeBlock() {
    if (spare_) return std::move(spare_);
    return std::make_unique<Block>();
}

void KeyOrder::Reserve() {
    RoomForOneMore(slots_);
    if (fenwick_.capacity() < slots_.size() + 2) fenwick_.reserve(slots_.size() * 2 + 16);
    if (!spare_) spare_ = std::make_unique<Block>();
}

void KeyOrder::Insert(int32_t index, Entry entry) {
    if (slots_.empty()) {
        fenwick_.reserve(2);
        slots_.reserve(1);
        slots_.push_back(Slot{TakeBlock(), 0, 0});
        PutInBlock(0, 0, entry);
        Rebuild();
        CheckInvariants();
        return;
    }
    size_t b;
    int32_t off;
    if (index >= size_) {
        b = slots_.size() - 1;
        off = slots_[b].count;
    } else {
        if (index < 0) index = 0;
        Locate(index);
        b = cacheBlock_;
        off = index - cacheStart_;
    }
    if (slots_[b].count < kBlockCapacity) {
        PutInBlock(b, off, entry);
        FenwickAdd(b, 1);
        Invalidate();
        CheckInvariants();
        return;
    }
    // A full block.  Allocate everything before anything moves, so that a
    // failed allocation leaves the order as it was.
    auto fresh = TakeBlock();
    RoomForOneMore(fenwick_, slots_.size() + 2 - fenwick_.size());
    RoomForOneMore(slots_);
    if (off == kBlockCapacity && b + 1 == slots_.size()) {
        // Appending: start a new block rather than leave two half-full ones.
        slots_.push_back(Slot{std::move(fresh), 0, 0});
        b += 1;
        off = 0;
    } else if (off == 0 && b == 0) {
        slots_.insert(slots_.begin(), Slot{std::move(fresh), 0, 0});
    } else {
        constexpr int32_t half = kBlockCapacity / 2;
        Slot& full = slots_[b];
        std::memcpy(fresh->entries, full.block->entries + half, sizeof(Entry) * (kBlockCapacity - half));
        Slot tail{std::move(fresh), kBlockCapacity - half, 0};
        tail.first = tail.block->entries[0].prefix;
        full.count = half;
        slots_.insert(slots_.begin() + static_cast<std::ptrdiff_t>(b) + 1, std::move(tail));
        if (off > half) {
            b += 1;
            off -= half;
        }
    }
    PutInBlock(b, off, entry);
    Rebuild();
    CheckInvariants();
}

void KeyOrder::RemoveBlock(size_t block) {
    slots_.erase(slots_.begin() + static_cast<std::ptrdiff_t>(block));
    Rebuild();
}

Entry KeyOrder::Erase(int32_t index) {
    Locate(index);
    const size_t b = cacheBlock_;
    const int32_t off = index - cacheStart_;
    Slot& slot = slots_[b];
    Entry* e = slot.block->entries;
    const Entry out = e[off];
    std::memmove(e + off, e + off + 1, sizeof(Entry) * static_cast<size_t>(slot.count - off - 1));
    --slot.count;
    --size_;
    if (slot.count == 0) {
        RemoveBlock(b);
        CheckInvariants();
        return out;
    }
    if (off == 0) slot.first = e[0].prefix;
    if (slot.count < kMergeBelow) {
        // Fold a thin block into a neighbour that has room, so that mass
        // deletes do not leave thousands of nearly empty blocks behind.
        if (b > 0 && slots_[b - 1].count + slot.count <= kMergeUpTo) {
            Slot& prev = slots_[b - 1];
            std::memcpy(prev.block->entries + prev.count, e, sizeof(Entry) * static_cast<size_t>(slot.count));
            prev.count += slot.count;
            RemoveBlock(b);
            CheckInvariants();
            return out;
        }
        if (b + 1 < slots_.size() && slots_[b + 1].count + slot.count <= kMergeUpTo) {
            Slot& next = slots_[b + 1];
            Entry* n = next.block->entries;
            std::memmove(n + slot.count, n, sizeof(Entry) * static_cast<size_t>(next.count));
            std::memcpy(n, e, sizeof(Entry) * static_cast<size_t>(slot.count));
            next.count += slot.count;
            next.first = n[0].prefix;
            RemoveBlock(b);
            CheckInvariants();
            return out;
        }
    }
    FenwickAdd(b, -1);
    Invalidate();
    CheckInvariants();
    return out;
}

void KeyOrder::Clear() {
    slots_.clear();
    fenwick_.clear();
    size_ = 0;
    Invalidate();
}

void KeyOrder::Assign(const Entry* entries, int32_t count) {
    std::vector<Slot> slots;
    const int32_t n = count > 0 ? count : 0;
    slots.reserve(static_cast<size_t>(n / kBlockCapacity) + 1);
    for (int32_t i = 0; i < n; i += kBlockCapacity) {
        Slot slot{std::make_unique<Block>(), n - i < kBlockCapacity ? n - i : kBlockCapacity, entries[i].prefix};
        std::memcpy(slot.block->entries, entries + i, sizeof(Entry) * static_cast<size_t>(slot.count));
        slots.push_back(std::move(slot));
    }
    std::vector<int32_t> fenwick;
    fenwick.reserve(slots.size() + 2);
    slots_.swap(slots);
    fenwick_.swap(fenwick);
    size_ = n;
    Rebuild();
    CheckInvariants();
}

void KeyOrder::CopyTo(std::vector<Entry>& out) const {
    out.reserve(out.size() + static_cast<size_t>(size_));
    for (const auto& slot : slots_) out.insert(out.end(), slot.block->entries, slot.block->entries + slot.count);
}

int32_t KeyOrder::IndexOf(const KWRData* rec) const {
    int32_t start = 0;
    for (const auto& slot : slots_) {
        for (int32_t i = 0; i < slot.count; ++i)
            if (slot.block->entries[i].rec == rec) return start + i;
        start += slot.count;
    }
    return -1;
}

#ifdef KWZ_DEBUG_CHECKS
void KeyOrder::CheckInvariants() const {
    auto fail = [](const char* what) {
        std::fprintf(stderr, "KeyOrder invariant broken: %s\n", what);
        std::abort();
    };
    const size_t m = slots_.size();
    if (fenwick_.size() != m + 1 && !(m == 0 && fenwick_.empty()))
        fail("Fenwick size differs from the block count + 1");
    int32_t total = 0;
    for (size_t b = 0; b < m; ++b) {
        const Slot& slot = slots_[b];
        if (!slot.block) fail("slot without a block");
        if (slot.count < 1 || slot.count > kBlockCapacity) fail("block count outside 1..capacity");
        if (slot.first != slot.block->entries[0].prefix) fail("first prefix differs from the block's");
        if (Start(b) != total) fail("Fenwick prefix sum differs from the block counts");
        total += slot.count;
    }
    if (total != size_) fail("block counts do not add up to the size");
    if (m > 0 && Start(m) != size_) fail("Fenwick total differs from the size");
    if (cacheEnd_ > cacheStart_) {
        if (cacheBlock_ >= m) fail("cached block out of range");
        if (Start(cacheBlock_) != cacheStart_ || cacheEnd_ - cacheStart_ != slots_[cacheBlock_].count)
            fail("cached block range stale");
    }
}
#else
void KeyOrder::CheckInvariants() const {}
#endif

}  // namespace kwz::recarr
