#include "demo/Pictures.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include <png.h>

#include "support/PngErrors.h"

namespace qzsse::demo {

using support::FileCloser;
using support::pngError;
using support::PngErrorState;
using support::pngWarning;

int PictureZoom(int width, int height)
{
    const int side = std::max(1, std::max(width, height));
    return std::clamp((600 + side - 1) / side, 1, 8);
}

Rgb HeightColour(float t)
{
    struct Stop {
        float at;
        float r, g, b;
    };
    static constexpr std::array<Stop, 7> stops{{{0.00f, 36, 58, 140},
                                                {0.15f, 38, 128, 178},
                                                {0.32f, 70, 160, 92},
                                                {0.52f, 176, 190, 98},
                                                {0.72f, 196, 146, 74},
                                                {0.88f, 140, 98, 72},
                                                {1.00f, 246, 244, 240}}};
    if (!(t > 0.0f))
        t = 0.0f;
    t = std::min(t, 1.0f);
    size_t i = 1;
    while (i + 1 < stops.size() && t > stops[i].at)
        ++i;
    const Stop& a = stops[i - 1];
    const Stop& b = stops[i];
    const float f = (t - a.at) / (b.at - a.at);
    auto mix = [f](float u, float v) { return static_cast<std::uint8_t>(std::lround(u + (v - u) * f)); };
    return {mix(a.r, b.r), mix(a.g, b.g), mix(a.b, b.b)};
}

Picture::Picture(int imageWidth, int imageHeight, int zoom, Rgb background)
    : m_width(imageWidth * zoom), m_height(imageHeight * zoom), m_zoom(zoom),
      m_rgb(static_cast<size_t>(m_width) * static_cast<size_t>(m_height) * 3)
{
    for (size_t i = 0; i < m_rgb.size(); i += 3) {
        m_rgb[i] = background.r;
        m_rgb[i + 1] = background.g;
        m_rgb[i + 2] = background.b;
    }
}

Rgb Picture::At(int px, int py) const
{
    const size_t i = (static_cast<size_t>(py) * static_cast<size_t>(m_width) + static_cast<size_t>(px)) * 3;
    return {m_rgb[i], m_rgb[i + 1], m_rgb[i + 2]};
}

void Picture::blendPicturePixel(int px, int py, Rgb colour, float alpha)
{
    if (px < 0 || py < 0 || px >= m_width || py >= m_height || !(alpha > 0.0f))
        return;
    alpha = std::min(alpha, 1.0f);
    std::uint8_t* p = &m_rgb[(static_cast<size_t>(py) * static_cast<size_t>(m_width) + static_cast<size_t>(px)) * 3];
    auto mix = [alpha](std::uint8_t old, std::uint8_t add) {
        return static_cast<std::uint8_t>(std::lround(static_cast<float>(old) + (static_cast<float>(add) - static_cast<float>(old)) * alpha));
    };
    p[0] = mix(p[0], colour.r);
    p[1] = mix(p[1], colour.g);
    p[2] = mix(p[2], colour.b);
}

void Picture::SetImagePixel(int x, int y, Rgb colour) { BlendImagePixel(x, y, colour, 1.0f); }

void Picture::BlendImagePixel(int x, int y, Rgb colour, float alpha)
{
    for (int dy = 0; dy < m_zoom; ++dy)
        for (int dx = 0; dx < m_zoom; ++dx)
            blendPicturePixel(x * m_zoom + dx, y * m_zoom + dy, colour, alpha);
}

float Picture::toPicture(float imageCoordinate) const
{
    return (imageCoordinate + 0.5f) * static_cast<float>(m_zoom) - 0.5f;
}

// Coverage by distance to the segment: only the band of pixels along the major axis is
// visited, so long lines cost their length, not their bounding box.
void Picture::DrawLine(float x0, float y0, float x1, float y1, Rgb colour, float width, float alpha)
{
    const float ax = toPicture(x0), ay = toPicture(y0), bx = toPicture(x1), by = toPicture(y1);
    const float dx = bx - ax, dy = by - ay;
    const float lengthSquared = dx * dx + dy * dy;
    const float half = width * 0.5f;
    const int reach = static_cast<int>(std::ceil(half)) + 1;
    auto cover = [&](int px, int py) {
        float t = lengthSquared > 0.0f ? ((static_cast<float>(px) - ax) * dx + (static_cast<float>(py) - ay) * dy) / lengthSquared : 0.0f;
        t = std::clamp(t, 0.0f, 1.0f);
        const float ex = static_cast<float>(px) - (ax + t * dx), ey = static_cast<float>(py) - (ay + t * dy);
        const float distance = std::sqrt(ex * ex + ey * ey);
        blendPicturePixel(px, py, colour, alpha * std::clamp(half + 0.5f - distance, 0.0f, 1.0f));
    };
    const bool alongX = std::fabs(dx) >= std::fabs(dy);
    const float from = alongX ? std::min(ax, bx) : std::min(ay, by);
    const float to = alongX ? std::max(ax, bx) : std::max(ay, by);
    const int limit = alongX ? m_width : m_height;
    const int first = std::max(static_cast<int>(std::floor(from)) - reach, 0);
    const int last = std::min(static_cast<int>(std::ceil(to)) + reach, limit - 1);
    for (int major = first; major <= last; ++major) {
        float minor;
        if (alongX)
            minor = dx != 0.0f ? ay + (static_cast<float>(major) - ax) * dy / dx : ay;
        else
            minor = dy != 0.0f ? ax + (static_cast<float>(major) - ay) * dx / dy : ax;
        // Beyond the ends the line's continuation is not where the caps are; clamp to them.
        const float lo = alongX ? std::min(ay, by) : std::min(ax, bx);
        const float hi = alongX ? std::max(ay, by) : std::max(ax, bx);
        minor = std::clamp(minor, lo, hi);
        const int centre = static_cast<int>(std::lround(minor));
        for (int m = centre - reach; m <= centre + reach; ++m)
            alongX ? cover(major, m) : cover(m, major);
    }
}

void Picture::DrawDot(float x, float y, Rgb colour, float radius)
{
    const float cx = toPicture(x), cy = toPicture(y);
    const int r = static_cast<int>(std::ceil(radius)) + 1;
    const int px0 = static_cast<int>(std::lround(cx)), py0 = static_cast<int>(std::lround(cy));
    for (int py = py0 - r; py <= py0 + r; ++py)
        for (int px = px0 - r; px <= px0 + r; ++px) {
            const float ex = static_cast<float>(px) - cx, ey = static_cast<float>(py) - cy;
            blendPicturePixel(px, py, colour, std::clamp(radius + 0.5f - std::sqrt(ex * ex + ey * ey), 0.0f, 1.0f));
        }
}

void Picture::WritePng(const std::filesystem::path& path) const
{
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "wb"));
    if (!file)
        throw std::runtime_error("cannot create " + path.string());
    PngErrorState errors;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &errors, pngError, pngWarning);
    if (!png)
        throw std::bad_alloc();
    png_infop info = png_create_info_struct(png);
    std::vector<png_const_bytep> rows(static_cast<size_t>(m_height));
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        throw std::runtime_error("cannot write " + path.string() + " (" + errors.message + ")");
    }
    if (!info)
        png_error(png, "out of memory");
    png_init_io(png, file.get());
    png_set_IHDR(png, info, static_cast<png_uint_32>(m_width), static_cast<png_uint_32>(m_height), 8, PNG_COLOR_TYPE_RGB,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (int y = 0; y < m_height; ++y)
        rows[static_cast<size_t>(y)] = m_rgb.data() + static_cast<size_t>(y) * static_cast<size_t>(m_width) * 3;
    png_write_rows(png, const_cast<png_bytepp>(rows.data()), static_cast<png_uint_32>(m_height));
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    if (std::fflush(file.get()) != 0 || std::ferror(file.get()))
        throw std::runtime_error("cannot write " + path.string() + " (disk full?)");
}

Picture RenderHeights(const std::vector<float>& heights, int width, int height, float low, float high, bool hillshade,
                      const std::vector<bool>* blank)
{
    Picture picture(width, height, PictureZoom(width, height), Rgb{40, 40, 40});
    const float span = high > low ? high - low : 1.0f;
    // Relief is exaggerated so that the shading reads the same whatever the height unit.
    const float relief = 2.0f * static_cast<float>(std::max(width, height)) / span;
    auto at = [&](int x, int y) {
        x = std::clamp(x, 0, width - 1);
        y = std::clamp(y, 0, height - 1);
        return heights[static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)];
    };
    const float lx = -0.5f, ly = -0.5f, lz = 0.70710678f;   // light from the north-west, 45 degrees up
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            if (blank && (*blank)[static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)])
                continue;
            Rgb c = HeightColour((at(x, y) - low) / span);
            if (hillshade) {
                const float gx = (at(x + 1, y) - at(x - 1, y)) * 0.5f * relief;
                const float gy = (at(x, y + 1) - at(x, y - 1)) * 0.5f * relief;
                const float norm = std::sqrt(gx * gx + gy * gy + 1.0f);
                const float lambert = std::max(0.0f, (-gx * lx - gy * ly + lz) / norm);
                const float shade = 0.45f + 0.75f * lambert;
                auto lit = [shade](std::uint8_t v) {
                    return static_cast<std::uint8_t>(std::min(255.0f, std::round(static_cast<float>(v) * shade)));
                };
                c = {lit(c.r), lit(c.g), lit(c.b)};
            }
            picture.SetImagePixel(x, y, c);
        }
    return picture;
}

} // namespace qzsse::demo
