#pragma once

namespace qzsse::detail {

// Test switch (per thread): when set, the matrix stream writer decodes every PNG pass it
// wrote to form the next residual, the form the reuse of the encoded codes is checked against.
inline thread_local bool g_bDirectPassDecoding = false;

} // namespace qzsse::detail
