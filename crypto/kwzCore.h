// The C++ core of the compression, data-helper and hash functions.  Each
// exported function (crypto/kwzApi.cpp) is its core run through the C edge;
// code inside the library calls the core.  Arguments, results and ownership
// are those of the exported function named beside each.
#pragma once

#include <VomKwz.h>

#include <cstdint>

namespace kwz::lzop {

bool CompressBuffer(const void* input, uint32_t inputLength, void* output, uint32_t* outputSize,
                    void* work);                                                    // LZOPCompress_
bool DecompressBuffer(const void* container, void* output, uint32_t* outputLength,
                      int32_t option);                                              // LZOPDecompress_
bool Compress(void* context, LZOPReadFn read, LZOPWriteFn write);                 // LZOPCompress
bool Decompress(void* context, LZOPReadFn read, LZOPWriteFn write);               // LZOPDecompress

int32_t DataCompress(int32_t n, const void* data, int32_t* outLength, void** outBlock);
int32_t DataDeCompress(int32_t n, const void* data, int32_t* outLength, void** outBlock);
int32_t DataIsCompress(int32_t n, const void* data, bool* flag);
int32_t ArrayPack(KWArray* array, int32_t* outLength, void** outBlock, bool compress);
int32_t ArrayUnPack(KWArray* array, const void* data, bool forRead);
int32_t ArrayUnPackN(KWArray* array, const void* data, uint64_t length, bool forRead);
int32_t DataHash(int32_t n, const void* data, char* out, const char* key);

}  // namespace kwz::lzop

namespace kwz::md5 {

void Init(md5_state_t* state);
void Append(md5_state_t* state, const uint8_t* data, int32_t length);
void Finish(md5_state_t* state, uint8_t digest[16]);
void FinishA(md5_state_t* state, char out[32]);

}  // namespace kwz::md5

namespace kwz::rc4 {

void PrepareKey(const uint8_t* key, int32_t keyLength, RC4Key* state);
void Code(uint8_t* data, int32_t length, RC4Key* state);

}  // namespace kwz::rc4
