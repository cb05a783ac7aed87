// A walk through the float matrix: build a synthetic height image, threshold it into a
// mask, mask the heights with it and measure what is left, printing each step.

#include <chrono>
#include <cmath>
#include <cstdio>

#include "qzsse/qzsse.h"

namespace {

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Two hills on a tilted plane, with a flat empty (0) border as scanners leave it.
float terrain(int x, int y, int sizeX, int sizeY)
{
    const float fx = static_cast<float>(x) / static_cast<float>(sizeX);
    const float fy = static_cast<float>(y) / static_cast<float>(sizeY);
    if (fx < 0.05f || fx > 0.95f || fy < 0.05f || fy > 0.95f)
        return 0.0f;
    auto hill = [](float dx, float dy, float r) { return std::exp(-(dx * dx + dy * dy) / (r * r)); };
    return 10.0f + 5.0f * fx + 40.0f * hill(fx - 0.3f, fy - 0.4f, 0.15f)
           + 25.0f * hill(fx - 0.7f, fy - 0.65f, 0.1f);
}

void report(const char* step, const CSSEMatrix& m, double ms)
{
    float maxValue = 0, minValue = 0;
    m.CalcMinMaxValues(&maxValue, &minValue);
    std::printf("%-34s %5d x %-5d min %8.3f  max %8.3f  (%.2f ms)\n", step, m.GetSizeX(),
                m.GetSizeY(), minValue, maxValue, ms);
}

} // namespace

int main()
{
    const int sizeX = 1024, sizeY = 768;

    auto t = Clock::now();
    CSSEMatrix heights;
    heights.Create(sizeX, sizeY);
    for (int y = 0; y < sizeY; ++y)
        for (int x = 0; x < sizeX; ++x)
            heights.SetPointUnsafe(x, y, terrain(x, y, sizeX, sizeY));
    report("height image built", heights, millisecondsSince(t));

    t = Clock::now();
    float maxValue = 0, minValue = 0;
    heights.CalcMinMaxValuesExcludeZero(&maxValue, &minValue);
    const float integral = heights.IntegrateMatrixValid();
    std::printf("%-34s non-empty min %.3f max %.3f, integral %.1f (%.2f ms)\n",
                "measured", minValue, maxValue, integral, millisecondsSince(t));

    // Everything more than 30 above the lowest ground becomes the mask.
    const float level = minValue + 30.0f;
    t = Clock::now();
    CSSEMatrix mask(heights);
    mask.TresholdAbove(level, 1.0f);
    const int above = mask.NumValuesAbove(0.5f);
    std::printf("%-34s level %.3f: %d pixels above (%.1f%%) (%.2f ms)\n", "thresholded into a mask",
                level, above, 100.0 * above / (static_cast<double>(sizeX) * sizeY), millisecondsSince(t));

    t = Clock::now();
    CSSEMatrix peaks(heights);
    peaks.MaskOut(mask);
    peaks.OffsetMatrixAbove(0.0f, -level);
    report("heights masked, relative to level", peaks, millisecondsSince(t));
    std::printf("%-34s %.1f (volume above the level, in pixel units)\n", "integral of the peaks",
                peaks.IntegrateMatrixValid());

    t = Clock::now();
    CSSEMatrix slope(heights);
    slope.CalcDerivativeX();
    CSSEMatrix slopeY(heights);
    slopeY.CalcDerivativeY();
    slope.CombineAbsolute(slopeY);
    slope.MaskOut(mask);
    report("gradient magnitude on the mask", slope, millisecondsSince(t));
    return 0;
}
