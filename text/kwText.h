// Character classes shared by the string class and the modules above it.
#pragma once

namespace kwz::text {

// The blanks of trimming and of the XML reader: space, tab, CR and LF.
constexpr bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

}  // namespace kwz::text
