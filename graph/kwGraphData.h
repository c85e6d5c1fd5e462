// Saving and loading graphs as three flat buffers (doc/formats/graph-buffers.md).
#pragma once

#include <VomKwz.h>

#include <cstdint>

namespace kwz::graph {

// Each non-null output receives a new block of the library's allocator
// (*groups null when the graph has no group node).  All or nothing: when
// memory runs out this throws and no output is written.
void Save(TGraphItem const& g, void** nodes, void** links, void** groups);

enum class LoadResult { kLoaded, kNoNodes, kMalformed };

// Replaces the graph by the one saved in the buffers, reading nothing past a
// buffer's length (UINT64_MAX: trusted).  kNoNodes and kMalformed leave the
// graph empty; out of memory throws and leaves the graph as it was.
LoadResult Load(TGraphItem& graph, const void* nodes, uint64_t nodesLength, const void* links,
                uint64_t linksLength, const void* groups, uint64_t groupsLength);

}  // namespace kwz::graph
