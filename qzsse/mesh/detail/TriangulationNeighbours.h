#pragma once

namespace qzsse::detail {

// Test switch (per thread): when set, CHTriangulation::CalcNeighbours replays the pairwise
// scan on every mesh, the form its edge matching of plain meshes is checked against.
inline thread_local bool g_bDirectNeighbourReplay = false;

} // namespace qzsse::detail
