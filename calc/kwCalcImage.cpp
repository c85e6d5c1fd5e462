// The value image: a tag byte followed by the value's body, little-endian,
// unaligned.
//
//   tag 0  Empty  | 00 |                                        1 byte
//   tag 1  Int    | 01 | int64                                  9
//   tag 2  Dbl    | 02 | IEEE-754 binary64 bits                 9
//   tag 3  Str    | 03 | int32 L | L bytes, no terminator      5 + L
//   tag 4  Arr    | 04 | int32 N | N images of this format    5 + their sizes
//   tag 5..255    | tt | the type's ToBuff bytes              1 + that size
//                 | tt | or the 20 bytes behind the tag       21
//
// The reader takes the tag byte as signed: tags 128..255 are written but never
// read back.  Hosts keep their travelling types below 128 and depend on the
// refusal staying as it is.
#include <cstring>

#include "base/kwBase.h"
#include "base/kwGuard.h"
#include "base/kwMem.h"
#include "calc/kwCalcVar.h"

namespace kwz::calc {
namespace {

constexpr size_t kStackArea = 1024;
constexpr size_t kObjRaw = sizeof(CVar) - sizeof(int32_t);  // 20 bytes behind the tag
constexpr int32_t kMaxReadDepth = 256;

// The bound of the object read in progress on this thread (ImageBytesLeft).
thread_local size_t t_objectBytesLeft = SIZE_MAX;

// Sets the bound for one FromBuff slot call and restores the outer one: a
// type's reader may itself read images.
class ObjectBound {
public:
    explicit ObjectBound(size_t left) : saved_(t_objectBytesLeft) { t_objectBytesLeft = left; }
    ~ObjectBound() { t_objectBytesLeft = saved_; }
    ObjectBound(const ObjectBound&) = delete;
    ObjectBound& operator=(const ObjectBound&) = delete;

private:
    size_t saved_;
};

// Builds an image in a 1,024-byte area on the stack, moving to the heap only
// when the image outgrows it.  A caller's destination of at least that size
// is written directly instead, until an item does not fit in it.  In
// measuring mode nothing is written.
class ImageWriter {
public:
    ImageWriter(void* destination, int32_t room) : measure_(destination == nullptr) {
        if (destination && size_t(room) >= kStackArea) {
            buf_ = static_cast<uint8_t*>(destination);
            cap_ = size_t(room);
        }
    }
    ~ImageWriter() {
        if (OnHeap()) MemFree(buf_);
    }
    ImageWriter(const ImageWriter&) = delete;
    ImageWriter& operator=(const ImageWriter&) = delete;

    // True while the image lies in the caller's destination.
    bool Direct() const { return !measure_ && buf_ != area_ && !heap_; }

    bool Write(const CVar* v, int32_t depth) {
        switch (v->type) {
        case kEmpty:
            if (!Room(1)) return false;
            Byte(kEmpty);
            return true;
        case kInt:
        case kDbl:
            if (!Room(9)) return false;
            Byte(uint8_t(v->type));
            Raw(&v->v, 8);
            return true;
        case kStr: {
            const int32_t n = v->count;
            if (n < 0 || (n > 0 && !v->v.s) || !Room(5 + size_t(n))) return false;
            Byte(kStr);
            U32(uint32_t(n));
            Raw(v->v.s, size_t(n));
            return true;
        }
        case kArr: {
            const int32_t n = v->count;
            if (n < 0 || (n > 0 && !v->v.a) || depth >= kMaxWalkDepth || !Room(5)) return false;
            Byte(kArr);
            U32(uint32_t(n));
            for (int32_t i = 0; i < n; ++i)
                if (!Write(&v->v.a[i], depth + 1)) return false;
            return true;
        }
        default:
            return WriteObject(v);
        }
    }

    size_t Size() const { return pos_; }
    const uint8_t* Data() const { return buf_; }

private:
    bool WriteObject(const CVar* v) {
        const KWCalcObjDef* def = ObjType(v->type);
        if (!def) return false;
        if (!def->ToBuff) {
            if (!Room(1 + kObjRaw)) return false;
            Byte(uint8_t(v->type));
            Raw(reinterpret_cast<const uint8_t*>(v) + sizeof(int32_t), kObjRaw);
            return true;
        }
        const int32_t need = def->ToBuff(v, nullptr, 0);
        if (need <= 0 || !Room(1 + size_t(need))) return false;
        Byte(uint8_t(v->type));
        if (!measure_) {
            // A body may leave bytes unwritten (the graph form's last word):
            // they read as zero, never as what the buffer held before.
            std::memset(buf_ + pos_, 0, size_t(need));
            if (def->ToBuff(v, buf_ + pos_, need) != need) return false;
        }
        pos_ += size_t(need);
        return true;
    }

    bool OnHeap() const { return heap_; }

    // Makes room for the next item: grows to position + need + 1024 when
    // position + need would reach the capacity.  The caller's destination
    // may be filled to its last byte.
    bool Room(size_t need) {
        if (pos_ + need > size_t(INT32_MAX)) return false;
        if (measure_ || pos_ + need < cap_ || (Direct() && pos_ + need == cap_)) return true;
        const size_t grown = pos_ + need + kStackArea;
        void* block = heap_ ? MemReAlloc(buf_, grown) : MemAlloc(grown);
        if (!block) return false;
        if (!heap_) std::memcpy(block, buf_, pos_);
        buf_ = static_cast<uint8_t*>(block);
        cap_ = grown;
        heap_ = true;
        return true;
    }

    // Writers of an item's parts, after Room() made space for all of it.
    void Raw(const void* p, size_t n) {
        if (!measure_ && n > 0) std::memcpy(buf_ + pos_, p, n);
        pos_ += n;
    }
    void Byte(uint8_t b) {
        if (!measure_) buf_[pos_] = b;
        ++pos_;
    }
    void U32(uint32_t x) {
        if (!measure_) StoreU32(buf_ + pos_, x);
        pos_ += 4;
    }

    uint8_t area_[kStackArea];
    uint8_t* buf_ = area_;
    size_t cap_ = kStackArea;
    size_t pos_ = 0;
    bool measure_;
    bool heap_ = false;
};

// Reads images from at most `left` bytes; SIZE_MAX trusts the source.
class ImageReader {
public:
    ImageReader(const uint8_t* p, size_t left) : p_(p), left_(left) {}

    // Fills the empty value v; false leaves it empty.
    bool Read(CVar* v, int32_t depth) {
        if (left_ < 1) return false;
        const auto tag = static_cast<int8_t>(*p_);
        Skip(1);
        switch (tag) {
        case kEmpty:
            return true;
        case kInt:
        case kDbl:
            if (left_ < 8) return false;
            std::memcpy(&v->v, p_, 8);
            v->type = tag;
            Skip(8);
            return true;
        case kStr: {
            int32_t n = 0;
            if (!Count(&n) || SetStr(v, reinterpret_cast<const char*>(p_), n) != kOk) return Fail(v);
            Skip(size_t(n));
            return true;
        }
        case kArr: {
            int32_t n = 0;
            // Every element takes at least one byte: a count beyond the bytes
            // left is refused before anything is allocated.
            if (depth >= kMaxReadDepth || !Count(&n) || SetArr(v, n) != kOk) return Fail(v);
            for (int32_t i = 0; i < n; ++i)
                if (!Read(&v->v.a[i], depth + 1)) return Fail(v);
            return true;
        }
        default:
            return ReadObject(v, tag);
        }
    }

    size_t Consumed(const uint8_t* start) const { return size_t(p_ - start); }

private:
    bool ReadObject(CVar* v, int32_t tag) {
        const KWCalcObjDef* def = tag > 0 ? ObjType(tag) : nullptr;
        if (!def) return false;
        v->type = tag;
        if (!def->FromBuff) {
            if (left_ < kObjRaw) return Fail(v);
            std::memcpy(reinterpret_cast<uint8_t*>(v) + sizeof(int32_t), p_, kObjRaw);
            Skip(kObjRaw);
            return true;
        }
        // The type's reader is given no bound; what it reports is checked
        // against the bytes that were there.
        int32_t n;
        {
            ObjectBound bound(left_);
            n = def->FromBuff(v, p_);
        }
        if (n <= 0 || size_t(n) > left_) return Fail(v);
        Skip(size_t(n));
        return true;
    }

    // A length or count: not negative and not beyond the bytes left.
    bool Count(int32_t* n) {
        if (left_ < 4) return false;
        *n = static_cast<int32_t>(LoadU32(p_));
        Skip(4);
        return *n >= 0 && size_t(*n) <= left_;
    }

    static bool Fail(CVar* v) {
        SetEmpty(v);
        return false;
    }

    void Skip(size_t n) {
        p_ += n;
        if (left_ != SIZE_MAX) left_ -= n;
    }

    const uint8_t* p_;
    size_t left_;
};

}  // namespace

size_t ImageBytesLeft() { return t_objectBytesLeft; }

int32_t ToBuff(const CVar* value, void* destination, int32_t room) {
    ImageWriter writer(destination, room);
    if (!value || !writer.Write(value, 0)) return 0;
    if (destination && room > 0 && !writer.Direct()) {
        const size_t n = writer.Size() < size_t(room) ? writer.Size() : size_t(room);
        std::memcpy(destination, writer.Data(), n);
    }
    return int32_t(writer.Size());
}

int32_t FromBuff(CVar* value, const void* source, size_t length) {
    SetEmpty(value);
    if (!source) return 0;
    const auto* start = static_cast<const uint8_t*>(source);
    ImageReader reader(start, length);
    if (!reader.Read(value, 0)) return 0;
    return int32_t(reader.Consumed(start));
}

}  // namespace kwz::calc

extern "C" {

KWZ_API int32_t CVarToBuff(const CVar* value, void* destination, int32_t room) {
    return kwz::CEdge("Kwz.kwCalc.CVarToBuff", 0, 0,
                      [&] { return kwz::calc::ToBuff(value, destination, room); });
}

KWZ_API int32_t CVarFromBuff(CVar* value, const void* source) {
    return kwz::CEdge("Kwz.kwCalc.CVarFromBuff", 0, 0, [&] {
        return value ? kwz::calc::FromBuff(value, source, SIZE_MAX) : 0;
    });
}

KWZ_API int32_t CVarFromBuffN(CVar* value, const void* source, int32_t length) {
    return kwz::CEdge("Kwz.kwCalc.CVarFromBuffN", 0, 0, [&] {
        if (!value) return 0;
        if (length < 0) {
            kwz::calc::SetEmpty(value);
            return 0;
        }
        return kwz::calc::FromBuff(value, source, size_t(length));
    });
}

}  // extern "C"
