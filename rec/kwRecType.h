// Internal interface of the record-type module, shared by the definition
// parser (kwRecTypeParse.cpp) and the other builders (kwRecType.cpp).
#pragma once

#include <VomKwz.h>

#include <cstdint>
#include <string_view>

namespace kwz::rec {

// Longest type or field name kept; longer names are cut to this many bytes.
constexpr size_t kMaxName = 63;

// One field as a builder has read it, before the type's field array exists.
// The views point into the builder's own input and must outlive BuildType.
struct FieldPlan {
    std::string_view name;         // not yet cut to kMaxName
    std::string_view description;  // empty: none
    uint8_t type = iFldType_None;  // a valid KWRFldType
    uint32_t width = 0;            // TypeWidth(type, capacity)
};

enum class BuildResult {
    kOk,
    kNoMemory,   // the field array or a description could not be allocated
    kDuplicate,  // two field names equal ignoring case
};

// Fills an empty type (just freed, id already stored) with name, description
// and fields: names cut to kMaxName, offsets laid out from the image header,
// data length, and the name index.  On any result other than kOk the type is
// freed again (left empty, id kept) and nothing stays allocated.  The field
// types must already be valid.
BuildResult BuildType(KWRType* type, std::string_view name, std::string_view description,
                      const FieldPlan* fields, uint32_t count);

// Empties the type but keeps its id: the state every failed build leaves.
void ResetKeepId(KWRType* type);

}  // namespace kwz::rec
