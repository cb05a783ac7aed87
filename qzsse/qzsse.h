#pragma once

// Umbrella header: every public header of the library.

#include "qzsse/base/CArchive.h"
#include "qzsse/base/CFile.h"
#include "qzsse/base/CString.h"
#include "qzsse/base/QzCDirectory.h"
#include "qzsse/base/RbArray.h"
#include "qzsse/base/RbMap.h"
#include "qzsse/base/RbReferenceCounted.h"
#include "qzsse/base/RbStreamException.h"
#include "qzsse/base/RbStreamReadBinary.h"
#include "qzsse/base/RbStreamReadBinaryBuffer.h"
#include "qzsse/base/RbStreamWriteBinary.h"
#include "qzsse/base/RbStreamWriteBinaryBuffer.h"
#include "qzsse/base/RbThreadPool.h"
#include "qzsse/base/RbVector3f.h"
#include "qzsse/base/RyField2D.h"
#include "qzsse/base/RyFloatingPointQuantization.h"
#include "qzsse/base/RyHermiteSpline.h"
#include "qzsse/base/RyJPEGWriter.h"
#include "qzsse/base/RyPolyLineOld.h"
#include "qzsse/base/RyStreamReadBinaryFile.h"
#include "qzsse/base/RyStreamWriteBinaryFile.h"

#include "qzsse/core/CSSEFns.h"
#include "qzsse/core/SSEPoint.h"
#include "qzsse/core/SafeAlloc.h"

#include "qzsse/matrix/CFilters.h"
#include "qzsse/matrix/CImgFromToArray.h"
#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/CSSEcharMatrix.h"
#include "qzsse/matrix/QzCSSEMatrixIterator.h"

#include "qzsse/storage/QzCSSEMatrixLibrary.h"
#include "qzsse/storage/ReaderLimits.h"

#include "qzsse/contour/CPixelChain.h"

#include "qzsse/polygon/CSSE2dPolygon.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

#include "qzsse/mesh/CHTriangulation.h"
#include "qzsse/mesh/MeshInterchange.h"

#include "qzsse/geometry/CH2DDelaunay.h"
#include "qzsse/geometry/CHConvexHull2D.h"
#include "qzsse/geometry/CHConvexHull3D.h"
#include "qzsse/geometry/CHDecideRyTriInRyTri.h"
#include "qzsse/geometry/CHDegenerateHullException.h"
#include "qzsse/geometry/CHOctree.h"
#include "qzsse/geometry/CHPolygonTriangulator.h"
#include "qzsse/geometry/CHPolygonTriangulationRefinement.h"
#include "qzsse/geometry/CHSimpleBasisFcns.h"
#include "qzsse/geometry/CRestorationOctree.h"
#include "qzsse/geometry/QzRyTriangulationTo2DHull.h"
