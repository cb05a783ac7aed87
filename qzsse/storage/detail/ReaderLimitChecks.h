#pragma once

// The checks behind qzsse::SetReaderLimits, for the readers in this folder.

namespace qzsse::detail {

// Throws RbStreamException naming the reader, the size and the limit when the matrix's
// storage (padding rows included) is above the matrix limit. Negative sizes are left to
// the caller's own check.
void CheckMatrixSizeWithinLimit(const char* reader, long long width, long long height, unsigned long long offset);

// The current decoded payload limit, in bytes.
unsigned long long MaxDecodedBytes();

} // namespace qzsse::detail
