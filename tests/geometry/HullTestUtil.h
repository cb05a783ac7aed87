#pragma once

#include <vector>

#include "qzsse/geometry/CHConvexHull3D.h"
#include "qzsse/geometry/detail/HullRecordLists.h"

namespace qzsse::test {

using qzsse::detail::ListOf;

inline std::vector<tVertexStructure*> Vertices(const CHConvexHull3D& hull) { return ListOf(hull.GetVertices()); }
inline std::vector<tFaceStructure*> Faces(const CHConvexHull3D& hull) { return ListOf(hull.GetFaces()); }

} // namespace qzsse::test
