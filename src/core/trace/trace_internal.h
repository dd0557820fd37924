#pragma once
// The library's end as it unloads.

namespace TraceTools {

// From now on nothing below level 6 is traced; then the formatting singletons go.
// Runs once, from a static destructor of the library.
void BeginUnload() noexcept;

}  // namespace TraceTools
