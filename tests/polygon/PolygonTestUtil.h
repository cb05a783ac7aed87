#pragma once

// Shared by the polygon tests: building and reading polygons, random outlines, the crossing
// rule written out plainly, the fine fills' scan written as "test every pixel of the window",
// and one check that feeds a reader every truncation and many corruptions of its bytes.

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "base/BaseTestUtil.h"
#include "matrix/MatrixTestUtil.h"
#include "qzsse/polygon/CSSE3dPolygon.h"
#include "qzsse/polygon/detail/RasterCommon.h"

struct P3 {
    float x, y, z;
    bool operator==(const P3&) const = default;
};
using Pts = std::vector<P3>;

inline void Fill(CSSE3dPolygon& polygon, const Pts& points)
{
    polygon.Create(static_cast<int>(points.size()));
    for (int i = 0; i < static_cast<int>(points.size()); ++i)
        polygon.SetPoint(i, points[i].x, points[i].y, points[i].z);
}

inline Pts Points(const CSSE3dPolygon& polygon, bool normalized = false)
{
    Pts out(static_cast<size_t>(polygon.GetNumPoints()));
    for (int i = 0; i < polygon.GetNumPoints(); ++i)
        if (normalized)
            polygon.GetPointNormalized(i, out[i].x, out[i].y, out[i].z);
        else
            polygon.GetPoint(i, out[i].x, out[i].y, out[i].z);
    return out;
}

inline Pts RandomPoints(std::mt19937& rng, int n, float range)
{
    std::uniform_real_distribution<float> c(-range, range);
    Pts out;
    for (int i = 0; i < n; ++i)
        out.push_back({c(rng), c(rng), c(rng)});
    return out;
}

// Bit patterns of every stored float, padding rows included: equal means identical.
inline std::vector<std::uint32_t> Bits(const CSSEMatrix& m)
{
    std::vector<std::uint32_t> out;
    for (float f : qzsse::test::storedFloats(m))
        out.push_back(std::bit_cast<std::uint32_t>(f));
    return out;
}

// Gives the tests the protected rasterisation helpers.
struct RasterPolygon : CSSE3dPolygon {
    using CSSE3dPolygon::drawInMatrixWithInsertPolygonAndFillFine;
    using CSSE3dPolygon::fillFromPoint;
};

// Star-shaped (so simple), counter-clockwise.
inline Pts StarOutline(std::mt19937& rng, int n, float cx, float cy, float rMin, float rMax)
{
    std::uniform_real_distribution<float> angle(0.0f, 2.0f * std::numbers::pi_v<float>), radius(rMin, rMax);
    std::vector<float> angles(static_cast<size_t>(n));
    for (float& a : angles)
        a = angle(rng);
    std::sort(angles.begin(), angles.end());
    Pts o;
    for (float a : angles) {
        const float r = radius(rng);
        o.push_back({cx + r * std::cos(a), cy + r * std::sin(a), 0.0f});
    }
    return o;
}

// Stars, self-intersecting scatters, integer and half-integer vertices (edges through pixel
// centres, along rows and columns), repeated points, and outlines reaching past any side.
inline Pts RandomOutline(std::mt19937& rng, int width, int height)
{
    std::uniform_int_distribution<int> count(3, 14);
    std::uniform_real_distribution<float> px(-12.0f, width + 12.0f), py(-12.0f, height + 12.0f);
    const int kind = static_cast<int>(rng() % 5);
    if (kind == 0) {
        const float r = 0.25f * static_cast<float>(std::min(width, height));
        return StarOutline(rng, count(rng) + 10, px(rng), py(rng), 0.3f * r, 1.6f * r);
    }
    Pts o;
    for (int i = count(rng); i > 0; --i) {
        P3 p{px(rng), py(rng), 0.0f};
        if (kind >= 2)
            p = {std::round(p.x), std::round(p.y), 0.0f};
        if (kind == 3 && !o.empty() && (rng() & 1))
            p = {o.back().x, (rng() & 1) ? o.back().y : p.y, 0.0f};
        if (kind == 4)
            p.x = std::round(p.x * 2.0f) * 0.5f;
        o.push_back(p);
    }
    return o;
}

// The crossing rule, box seeded with +-1e6 and folded as (box < v) ? box : v so that a NaN
// coordinate reaches the box as it does in CalcBoundingBox.
inline bool ModelInside(const Pts& o, int step, float x, float y)
{
    const int n = static_cast<int>(o.size());
    if (n < 3)
        return false;
    float minX = 1e6f, minY = 1e6f, maxX = -1e6f, maxY = -1e6f;
    for (const P3& p : o) {
        minX = (minX < p.x) ? minX : p.x;
        minY = (minY < p.y) ? minY : p.y;
        maxX = (maxX > p.x) ? maxX : p.x;
        maxY = (maxY > p.y) ? maxY : p.y;
    }
    if (x < minX || y < minY || x > maxX || y > maxY)
        return false;
    bool inside = false;
    const auto edge = [&](P3 prev, P3 cur) {
        if ((x > cur.x) == (prev.x >= x)) {
            const P3 a = (prev.x < cur.x) ? prev : cur, b = (prev.x < cur.x) ? cur : prev;
            if ((b.y - a.y) * (x - a.x) > (b.x - a.x) * (y - a.y))
                inside = !inside;
        }
    };
    P3 prev = o[n - 1];
    for (int i = 0; i <= n - step; i += step) {
        edge(prev, o[i]);
        prev = o[i];
    }
    if (step >= 2)
        edge(prev, o[n - 1]);
    return inside;
}

struct Window {
    int x0, x1, y0, y1;
};

// The fine fills' window: box rows limited by yMin / yMax (yHi uses yLo before its clamp),
// clamped into the matrix, margins 5 before and 4 after.
inline Window FineWindow(CSSE3dPolygon& p, int width, int height, float yMin, float yMax)
{
    p.CalcBoundingBox();
    float minX, minY, minZ, maxX, maxY, maxZ;
    p.GetBoundingBox3D(minX, minY, minZ, maxX, maxY, maxZ);
    // Boxes of far-away or huge polygons do not fit an int; truncate as the fills do.
    using qzsse::detail::truncToInt;
    const int yLo = std::min(std::max(truncToInt(minY), truncToInt(yMin)), truncToInt(maxY));
    const int yHi = std::max(yLo, std::min(truncToInt(maxY), truncToInt(yMax)));
    return {std::clamp(truncToInt(minX), 0, width - 1) - 5, std::clamp(truncToInt(maxX), 0, width - 1) + 4,
            std::clamp(yLo, 0, height - 1) - 5, std::clamp(yHi, 0, height - 1) + 4};
}

// The outline the fills test against: a copy, optionally subsampled, repeated points gone.
inline Pts PreparedOutline(const CSSE3dPolygon& p, bool subsample)
{
    CSSE3dPolygon copy;
    copy.CreateSimilar(&p);
    if (subsample)
        copy.Subsample(5, true);
    copy.RemoveEqualPointsXY();
    return Points(copy);
}

// Every pixel of the fine window tested on its own; visit gets the cell clamped into the matrix.
template <class Visit>
void ForEachFineInterior(CSSE3dPolygon& p, int width, int height, bool subsample, float yMin, float yMax, Visit visit)
{
    const Window w = FineWindow(p, width, height, yMin, yMax);
    const Pts o = PreparedOutline(p, subsample);
    for (int y = w.y0; y <= w.y1; ++y)
        for (int x = w.x0; x <= w.x1; ++x)
            if (ModelInside(o, 1, static_cast<float>(x), static_cast<float>(y)))
                visit(std::clamp(x, 0, width - 1), std::clamp(y, 0, height - 1));
}

// Loads every truncation of good (each must throw) and every byte of it set to each of a few
// values (each must throw or load, never crash; the sanitizer build watches). A polygon that
// failed to load is readable afterwards, and unchanged when the reader promises so.
template <class Load>
void ExpectDamageRejected(const Bytes& good, Load load, bool unchangedOnFailure)
{
    std::vector<std::pair<Bytes, bool>> inputs; // bytes, must throw
    for (size_t len = 0; len < good.size(); ++len)
        inputs.emplace_back(Bytes(good.begin(), good.begin() + static_cast<long>(len)), true);
    for (size_t at = 0; at < good.size(); ++at)
        for (unsigned char v : {0x00, 0x01, 0x7F, 0x80, 0xFF}) {
            inputs.emplace_back(good, false);
            inputs.back().first[at] = v;
        }
    for (const auto& [bytes, mustThrow] : inputs) {
        CSSE3dPolygon p;
        Fill(p, {{7, 8, 9}});
        try {
            load(bytes, p);
            EXPECT_FALSE(mustThrow) << "loaded a truncation to " << bytes.size() << " bytes";
        } catch (const RbStreamException&) {
            EXPECT_TRUE(!unchangedOnFailure || Points(p) == Pts({{7, 8, 9}})) << bytes.size();
        }
        Points(p, true);
    }
}
