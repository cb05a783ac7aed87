#pragma once

// The demo reads its input through the shared height-image reader.

#include "support/HeightImage.h"

namespace qzsse::demo {

using support::HeightImage;
using support::InputError;
using support::kMaxSide;
using support::kMinSide;
using support::LoadHeightImage;

} // namespace qzsse::demo
