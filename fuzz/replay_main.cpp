// Replay driver: runs every file of the given folders (or the given files)
// through LLVMFuzzerTestOneInput once, so that the seed corpus of a fuzz target
// is part of the ordinary test suite without libFuzzer.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace fs = std::filesystem;

static void RunOne(const fs::path& path, size_t& count) {
    std::ifstream in(path, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    ++count;
}

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        fs::path p(argv[i]);
        if (fs::is_directory(p)) {
            for (const auto& entry : fs::recursive_directory_iterator(p))
                if (entry.is_regular_file()) RunOne(entry.path(), count);
        } else if (fs::exists(p)) {
            RunOne(p, count);
        } else {
            std::fprintf(stderr, "replay: %s does not exist\n", argv[i]);
            return 1;
        }
    }
    if (count == 0) {
        std::fprintf(stderr, "replay: no inputs\n");
        return 1;
    }
    std::printf("replayed %zu inputs\n", count);
    return 0;
}
