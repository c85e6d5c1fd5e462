// Bytes that end exactly where readable memory ends: the page after them is
// PROT_NONE, so a reader that looks one byte past its bound faults at once
// (in every build, not only under AddressSanitizer).
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace kwztest {

class GuardedBytes {
public:
    // Copies bytes so that their last one is the last readable byte.
    explicit GuardedBytes(const std::vector<uint8_t>& bytes) : GuardedBytes(bytes.data(), bytes.size()) {}
    GuardedBytes(const void* bytes, size_t n) {
        page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        readable_ = (n + page_ - 1) / page_ * page_;
        if (readable_ == 0) readable_ = page_;
        map_ = mmap(nullptr, readable_ + page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (map_ == MAP_FAILED) {
            map_ = nullptr;
            return;
        }
        mprotect(static_cast<uint8_t*>(map_) + readable_, page_, PROT_NONE);
        data_ = static_cast<uint8_t*>(map_) + readable_ - n;
        if (n) std::memcpy(data_, bytes, n);
        size_ = n;
    }
    ~GuardedBytes() {
        if (map_) munmap(map_, readable_ + page_);
    }
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;

    uint8_t* data() const { return data_; }
    size_t size() const { return size_; }

private:
    void* map_ = nullptr;
    size_t page_ = 0;
    size_t readable_ = 0;
    uint8_t* data_ = nullptr;
    size_t size_ = 0;
};

}  // namespace kwztest
