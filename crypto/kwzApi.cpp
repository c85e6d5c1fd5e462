// The C edge of the compression, data-helper and hash functions: each one
// runs its core (crypto/kwzCore.h) through kwz::CEdge.  The data helpers give
// -1 for out of memory and any other exception; the LZO functions false.
// The streaming functions add their own layer for callback exceptions (see
// CallbackEdge in crypto/lzop.h).
#include "base/kwGuard.h"
#include "crypto/kwzCore.h"

#define KWZ_TAG(function) "Kwz.lzop." function

using namespace kwz;

namespace {

template <typename Fn>
int32_t Edge(const char* tag, Fn&& body) noexcept {
    return CEdge<int32_t>(tag, -1, -1, std::forward<Fn>(body));
}

template <typename Fn>
bool EdgeBool(const char* tag, Fn&& body) noexcept {
    return CEdge(tag, false, false, std::forward<Fn>(body));
}

}  // namespace

extern "C" {

// Without work memory the thread's own (131072 bytes, allocated on its first
// use and kept until the thread ends) is used.  *outputSize must hold at
// least Bound(inputLength); it is left alone on failure.
KWZ_API bool LZOPCompress_(const void* input, uint32_t inputLength, void* output,
                           uint32_t* outputSize, void* work) {
    return EdgeBool(KWZ_TAG("LZOPCompress_"),
                    [&] { return lzop::CompressBuffer(input, inputLength, output, outputSize, work); });
}

// option is reserved and ignored; callers pass 0.
KWZ_API bool LZOPDecompress_(const void* container, void* output, uint32_t* outputLength,
                             int32_t option) {
    return EdgeBool(KWZ_TAG("LZOPDecompress_"),
                    [&] { return lzop::DecompressBuffer(container, output, outputLength, option); });
}

KWZ_API bool LZOPCompress(void* context, LZOPReadFn read, LZOPWriteFn write) {
    return EdgeBool(KWZ_TAG("LZOPCompress"), [&] { return lzop::Compress(context, read, write); });
}

// option is reserved and ignored; callers pass 0.
KWZ_API bool LZOPDecompress(void* context, LZOPReadFn read, LZOPWriteFn write, int32_t option) {
    (void)option;
    return EdgeBool(KWZ_TAG("LZOPDecompress"), [&] { return lzop::Decompress(context, read, write); });
}

KWZ_API int32_t KWZDataCompress(int32_t length, const void* data, int32_t* outLength,
                                void** outBlock) {
    return Edge(KWZ_TAG("KWZDataCompress"),
                [&] { return lzop::DataCompress(length, data, outLength, outBlock); });
}

KWZ_API int32_t KWZDataDeCompress(int32_t length, const void* data, int32_t* outLength,
                                  void** outBlock) {
    return Edge(KWZ_TAG("KWZDataDeCompress"),
                [&] { return lzop::DataDeCompress(length, data, outLength, outBlock); });
}

KWZ_API int32_t KWZDataIsCompress(int32_t length, const void* data, bool* flag) {
    return Edge(KWZ_TAG("KWZDataIsCompress"), [&] { return lzop::DataIsCompress(length, data, flag); });
}

KWZ_API int32_t KWZArrayPack(KWArray* array, int32_t* outLength, void** outBlock, bool compress) {
    return Edge(KWZ_TAG("KWZArrayPack"),
                [&] { return lzop::ArrayPack(array, outLength, outBlock, compress); });
}

KWZ_API int32_t KWZArrayUnPack(KWArray* array, const void* data, bool forRead) {
    return Edge(KWZ_TAG("KWZArrayUnPack"), [&] { return lzop::ArrayUnPack(array, data, forRead); });
}

KWZ_API int32_t KWZArrayUnPackN(KWArray* array, const void* data, uint64_t length, bool forRead) {
    return Edge(KWZ_TAG("KWZArrayUnPackN"),
                [&] { return lzop::ArrayUnPackN(array, data, length, forRead); });
}

// MD5 over the data, then over the key (the library's key when none or an
// empty one is given), as 32 characters of md5_finishA and a 0 byte.
KWZ_API int32_t KWZDataHash(int32_t length, const void* data, char* out, const char* key) {
    return Edge(KWZ_TAG("KWZDataHash"), [&] { return lzop::DataHash(length, data, out, key); });
}

KWZ_API void md5_init(md5_state_t* state) {
    CEdgeVoid("Kwz.md5.md5_init", [&] { md5::Init(state); });
}

KWZ_API void md5_append(md5_state_t* state, const uint8_t* data, int32_t length) {
    CEdgeVoid("Kwz.md5.md5_append", [&] { md5::Append(state, data, length); });
}

KWZ_API void md5_finish(md5_state_t* state, uint8_t digest[16]) {
    CEdgeVoid("Kwz.md5.md5_finish", [&] { md5::Finish(state, digest); });
}

KWZ_API void md5_finishA(md5_state_t* state, char out[32]) {
    CEdgeVoid("Kwz.md5.md5_finishA", [&] { md5::FinishA(state, out); });
}

KWZ_API void RC4CodePrepare_Key(const uint8_t* key, int32_t keyLength, RC4Key* state) {
    CEdgeVoid("Kwz.rc4.RC4CodePrepare_Key", [&] { rc4::PrepareKey(key, keyLength, state); });
}

KWZ_API void RC4Code(uint8_t* data, int32_t length, RC4Key* state) {
    CEdgeVoid("Kwz.rc4.RC4Code", [&] { rc4::Code(data, length, state); });
}

}  // extern "C"
