#pragma once

#include <cstdio>
#include <png.h>

namespace qzsse::support {

// libpng reports errors through a callback that must not return: the message is kept for
// the caller's exception and control goes back to its setjmp.
struct PngErrorState {
    char message[256] = {};
};

[[noreturn]] inline void pngError(png_structp png, png_const_charp message)
{
    auto* state = static_cast<PngErrorState*>(png_get_error_ptr(png));
    std::snprintf(state->message, sizeof state->message, "%s", message);
    png_longjmp(png, 1);
}

// Only failures are reported; libpng's warnings are not shown.
inline void pngWarning(png_structp, png_const_charp) {}

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};

} // namespace qzsse::support
