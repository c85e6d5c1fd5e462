// The value-image reader shared by `kwz value --decode` and `kwz info`.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kwz::tool {

// When bytes hold exactly one value image, prints "NAME: value image, N
// bytes" and the value as a tree and returns true; otherwise prints nothing
// and returns false.
bool PrintValueImage(const std::string& name, const std::vector<uint8_t>& bytes);

}  // namespace kwz::tool
