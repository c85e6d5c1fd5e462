// The record-array key descriptor (KWAKey, opaque in the public header).
// KWLSeek reads its option word for the Unique rule; everything else belongs
// to the record-array module.
#pragma once

#include <VomKwz.h>

#include <cstdint>

struct KWAKey {
    uint32_t options = 0;  // iKeyOpt_... bits
};
