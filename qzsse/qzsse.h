#pragma once

// Umbrella header: every public header of the library.

#include "qzsse/base/RbReferenceCounted.h"
#include "qzsse/base/RyField2D.h"

#include "qzsse/core/CSSEFns.h"
#include "qzsse/core/SSEPoint.h"
#include "qzsse/core/SafeAlloc.h"

#include "qzsse/matrix/CImgFromToArray.h"
#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/CSSEcharMatrix.h"
