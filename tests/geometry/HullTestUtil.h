#pragma once

#include <vector>

#include "qzsse/geometry/CHConvexHull3D.h"

namespace qzsse::test {

// The records of one of the hull's circular lists, from its head.
template <class Record>
std::vector<Record*> ListFrom(Record* head)
{
    std::vector<Record*> out;
    if (Record* r = head) {
        do {
            out.push_back(r);
            r = r->next;
        } while (r != head);
    }
    return out;
}

inline std::vector<tVertexStructure*> Vertices(const CHConvexHull3D& hull) { return ListFrom(hull.GetVertices()); }
inline std::vector<tFaceStructure*> Faces(const CHConvexHull3D& hull) { return ListFrom(hull.GetFaces()); }

} // namespace qzsse::test
