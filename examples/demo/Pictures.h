#pragma once

// Small RGB pictures for looking at what the library did: a height image in colour with
// hill shading, anti-aliased lines and dots drawn over it, written as 8-bit RGB PNG.
//
// A picture shows an image of width x height pixels at an integer zoom: image pixel (x, y)
// covers the zoom x zoom block whose centre is at picture position ((x + 0.5) zoom,
// (y + 0.5) zoom). Drawing calls take image coordinates (pixel centres at integers).

#include <cstdint>
#include <filesystem>
#include <vector>

namespace qzsse::demo {

struct Rgb {
    std::uint8_t r, g, b;
};

// The zoom the demo draws an image of this size at: small images are enlarged so that the
// larger side reaches at least 600 picture pixels, at most 8 times.
int PictureZoom(int width, int height);

// t in [0, 1] (clamped) to a colour running from low blue through green and brown to
// white peaks.
Rgb HeightColour(float t);

class Picture {
public:
    Picture(int imageWidth, int imageHeight, int zoom, Rgb background);

    int Width() const { return m_width; }
    int Height() const { return m_height; }
    int Zoom() const { return m_zoom; }
    Rgb At(int px, int py) const;

    // Fills image pixel (x, y) (its whole zoom block).
    void SetImagePixel(int x, int y, Rgb colour);
    // Mixes colour into image pixel (x, y) with weight alpha in [0, 1].
    void BlendImagePixel(int x, int y, Rgb colour, float alpha);
    // Line from image position (x0, y0) to (x1, y1), `width` picture pixels wide, with
    // soft edges; alpha scales its opacity.
    void DrawLine(float x0, float y0, float x1, float y1, Rgb colour, float width, float alpha = 1.0f);
    // Filled disc of `radius` picture pixels at an image position.
    void DrawDot(float x, float y, Rgb colour, float radius);

    // Writes the picture as an 8-bit RGB PNG; throws std::runtime_error on failure.
    void WritePng(const std::filesystem::path& path) const;

private:
    void blendPicturePixel(int px, int py, Rgb colour, float alpha);
    float toPicture(float imageCoordinate) const;

    int m_width;
    int m_height;
    int m_zoom;
    std::vector<std::uint8_t> m_rgb;
};

// Row-major heights (width x height) in colour, scaled from low..high, lit from the
// north-west when hillshade is set. Pixels for which `blank` returns true are drawn in
// dark grey (undrawn parts of an envelope, for example).
Picture RenderHeights(const std::vector<float>& heights, int width, int height, float low, float high, bool hillshade,
                      const std::vector<bool>* blank = nullptr);

} // namespace qzsse::demo
