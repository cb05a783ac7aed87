// The fills, each against its rule written per pixel on top of ModelInside, on random
// polygons over random matrices (NaN and signed zeros included), compared to the bit.

#include <functional>
#include <limits>
#include <string_view>

#include "polygon/PolygonTestUtil.h"
#include "qzsse/matrix/CSSEcharMatrix.h"

namespace {

struct FillCase {
    Pts outline, hole;
    int width, height;
    bool subsample;
    float yMin, yMax, value, threshold;
};

FillCase RandomCase(std::mt19937& rng, int trial)
{
    std::uniform_int_distribution<int> size(8, 40);
    FillCase c;
    c.width = size(rng);
    c.height = (trial % 25 == 0) ? 200 : size(rng); // tall ones give the threaded fill work
    c.outline = RandomOutline(rng, c.width, c.height);
    c.hole = RandomOutline(rng, c.width, c.height);
    c.subsample = rng() % 4 == 0;
    std::uniform_real_distribution<float> limit(-20.0f, c.height + 20.0f);
    c.yMin = (rng() & 1) ? -1e6f : limit(rng);
    c.yMax = (rng() & 1) ? 1e6f : limit(rng);
    c.value = qzsse::test::randomValue(rng);
    c.threshold = qzsse::test::randomValue(rng);
    return c;
}

// Far-off and non-finite coordinates, where the row scan leaves for the per-pixel rule.
FillCase ExtremeCase(int k)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const Pts outlines[] = {{{2, 2, 0}, {1e20f, 5, 0}, {20, 20, 0}, {3, 18, 0}},
                            {{2, 2, 0}, {25, 4, 0}, {nan, 9, 0}, {20, 20, 0}, {3, 18, 0}},
                            {{-3e7f, 1, 0}, {3e7f, 2, 0}, {10, 3e7f, 0}}};
    return {outlines[k], outlines[(k + 1) % 3], 24, 24, false, -1e6f, 1e6f, 2.0f, 1.0f};
}

using Draw = std::function<void(CSSE3dPolygon&, CSSEMatrix&, const FillCase&)>;

struct Variant {
    const char* name;
    Draw draw, model; // the model writes the expected result over the same starting matrix
    int maxCells = 1 << 30;
    bool extremes = true; // whether the model can walk the extreme cases' lattice
};

// Fills whose rule is "every interior cell of the fine scan, clamped, gets update(cell)".
Draw FineRule(float (*update)(float cell, const FillCase&))
{
    return [update](CSSE3dPolygon& p, CSSEMatrix& m, const FillCase& c) {
        ForEachFineInterior(p, c.width, c.height, c.subsample, c.yMin, c.yMax,
                            [&](int x, int y) { m.SetPoint(x, y, update(m.GetPoint(x, y), c)); });
    };
}

float Store(float, const FillCase& c) { return c.value; }

// Lattice x0 - 9, x0 - 6, ... below x1 + 9 (rows alike); each inside point writes a 3x3 box.
void CoarseModel(CSSE3dPolygon& p, CSSEMatrix& m, const FillCase& c)
{
    p.CalcBoundingBox();
    float minX, minY, minZ, maxX, maxY, maxZ;
    p.GetBoundingBox3D(minX, minY, minZ, maxX, maxY, maxZ);
    const int x0 = static_cast<int>(minX), x1 = static_cast<int>(maxX), top = static_cast<int>(maxY);
    const int y0 = std::min(std::max(static_cast<int>(minY), static_cast<int>(c.yMin)), top);
    const int y1 = std::max(std::min(top, static_cast<int>(c.yMax)), y0);
    const Pts o = PreparedOutline(p, c.subsample);
    for (int y = y0 - 9; y < y1 + 9; y += 3)
        for (int x = x0 - 9; x < x1 + 9; x += 3)
            if (ModelInside(o, 1, static_cast<float>(x), static_cast<float>(y)))
                m.Set3x3BoxPoint(x, y, c.value);
}

void InsertModel(CSSE3dPolygon& p, CSSEMatrix& m, const FillCase& c)
{
    CSSE3dPolygon hole;
    Fill(hole, c.hole);
    const Pts inner = PreparedOutline(hole, c.subsample);
    const Window w = FineWindow(p, c.width, c.height, c.yMin, c.yMax);
    const Pts outer = PreparedOutline(p, c.subsample);
    for (int y = w.y0; y <= w.y1; ++y)
        for (int x = w.x0; x <= w.x1; ++x)
            if (ModelInside(outer, 1, x, y) && !ModelInside(inner, 1, x, y))
                m.SetPoint(x, y, c.value);
}

// Each window column is filled from the window's first row to its last interior row.
void FrontModel(CSSE3dPolygon& p, CSSEMatrix& m, const FillCase& c)
{
    const Window w = FineWindow(p, c.width, c.height, c.yMin, c.yMax);
    const Pts o = PreparedOutline(p, c.subsample);
    for (int x = w.x0; x <= w.x1; ++x) {
        int last = w.y0 - 1;
        for (int y = w.y0; y <= w.y1; ++y)
            if (ModelInside(o, 1, x, y))
                last = y;
        for (int y = w.y0; y <= last; ++y)
            m.SetPoint(x, y, c.value);
    }
}

void OutsideModel(CSSE3dPolygon&, CSSEMatrix& m, const FillCase& c)
{
    for (int y = 0; y < c.height; ++y)
        for (int x = 0; x < c.width; ++x)
            if (!ModelInside(c.outline, 1, x, y))
                m.SetPoint(x, y, c.value);
}

// Brute force over the matrix framed by one ring of outside positions.
void DistanceModel(CSSE3dPolygon&, CSSEMatrix& m, const FillCase& c)
{
    const auto inside = [&](int x, int y) {
        return x >= 0 && y >= 0 && x < c.width && y < c.height && ModelInside(c.outline, 1, x, y);
    };
    std::vector<std::pair<int, int>> outside;
    for (int v = -1; v <= c.height; ++v)
        for (int u = -1; u <= c.width; ++u)
            if (!inside(u, v))
                outside.emplace_back(u, v);
    for (int y = 0; y < c.height; ++y)
        for (int x = 0; x < c.width; ++x) {
            int best = inside(x, y) ? 1 << 30 : 0;
            for (auto [u, v] : outside)
                best = std::min(best, (u - x) * (u - x) + (v - y) * (v - y));
            m.SetPoint(x, y, std::sqrt(static_cast<float>(best)));
        }
}

const Variant kVariants[] = {
    {"Fine", [](auto& p, auto& m, auto& c) { p.DrawInMatrixAndFillFine(c.value, &m, c.subsample, c.yMin, c.yMax); },
     FineRule(Store)},
    {"FineForLoop",
     [](auto& p, auto& m, auto& c) { p.DrawInMatrixAndFillFineForLoop(c.value, &m, c.subsample, c.yMin, c.yMax); },
     FineRule(Store)},
    {"FineMin", [](auto& p, auto& m, auto& c) { p.DrawInMatrixAndFillFineMin(c.value, &m, c.subsample, c.yMin, c.yMax); },
     FineRule([](float cell, const FillCase& c) { return (c.value > cell) ? cell : c.value; })},
    {"FineMax", [](auto& p, auto& m, auto& c) { p.DrawInMatrixAndFillFineMax(c.value, &m, c.subsample, c.yMin, c.yMax); },
     FineRule([](float cell, const FillCase& c) { return (cell > c.value) ? cell : c.value; })},
    {"Sub",
     [](auto& p, auto& m, auto& c) { p.DrawSubInMatrixAndFill(c.value, &m, c.threshold, c.subsample, c.yMin, c.yMax); },
     FineRule([](float cell, const FillCase& c) { return (c.threshold > cell - c.value) ? 0.0f : cell; })},
    {"Coarse", [](auto& p, auto& m, auto& c) { p.DrawInMatrixAndFillCoarse(c.value, &m, c.subsample, c.yMin, c.yMax); },
     CoarseModel, 1 << 30, false},
    {"InsertHole",
     [](auto& p, auto& m, auto& c) {
         CSSE3dPolygon hole;
         Fill(hole, c.hole);
         static_cast<RasterPolygon&>(p).drawInMatrixWithInsertPolygonAndFillFine(c.value, &m, &hole, c.subsample,
                                                                                  c.yMin, c.yMax);
     },
     InsertModel},
    {"FrontSide",
     [](auto& p, auto& m, auto& c) { p.DrawInMatrixAndFillToOneSideFront(c.value, &m, c.subsample, c.yMin, c.yMax); },
     FrontModel},
    {"OutsidePixels", [](auto& p, auto& m, auto& c) { p.DrawOutsidePixels(c.value, &m); }, OutsideModel},
    {"DistanceTransform", [](auto& p, auto& m, auto&) { p.InternalAreaDistanceTransform(&m); }, DistanceModel, 900},
};

} // namespace

TEST(Fill, EveryVariantMatchesItsPerPixelRule)
{
    std::mt19937 rng(3);
    for (const Variant& v : kVariants) {
        int changed = 0, trials = 0;
        for (int trial = 0; trial < 303; ++trial) {
            const FillCase c = trial < 300 ? RandomCase(rng, trial) : ExtremeCase(trial - 300);
            if (c.width * c.height > v.maxCells || (trial >= 300 && !v.extremes))
                continue;
            RasterPolygon p;
            Fill(p, c.outline);
            CSSEMatrix got = qzsse::test::randomMatrix(rng, c.width, c.height), expected(got);
            const auto before = Bits(got);
            v.draw(p, got, c);
            v.model(p, expected, c);
            ASSERT_EQ(Bits(got), Bits(expected)) << v.name << ", trial " << trial;
            changed += Bits(got) != before;
            ++trials;
        }
        EXPECT_GT(changed, trials / 4) << v.name; // the cases are not trivially empty
    }
}

TEST(Fill, CharMatrixMatchesThePerPixelRule)
{
    std::mt19937 rng(5);
    for (int trial = 0; trial < 300; ++trial) {
        const FillCase c = RandomCase(rng, trial);
        CSSE3dPolygon p;
        Fill(p, c.outline);
        CSSEcharMatrix got, expected;
        got.Create(c.width, c.height);
        for (int y = 0; y < c.height; ++y)
            for (int x = 0; x < c.width; ++x)
                got.SetPoint(x, y, static_cast<signed char>(rng()));
        expected = got;
        const auto value = static_cast<signed char>(-100 + trial % 200);
        p.DrawInCharMatrixAndFillFine(value, &got, c.subsample, c.yMin, c.yMax);
        ForEachFineInterior(p, c.width, c.height, c.subsample, c.yMin, c.yMax,
                            [&](int x, int y) { expected.SetPoint(x, y, value); });
        for (int j = 0; j < got.GetSSESizeY(); ++j) // every stored byte, padding rows included
            ASSERT_EQ(std::memcmp(got.GetMatrixDataDirectly()[j], expected.GetMatrixDataDirectly()[j],
                                  16 * static_cast<size_t>(got.GetSSESizeX())), 0) << trial << ", band " << j;
    }
}

// Larger outlines whose rows cross many edges and 64-column words: jagged stars (one
// wider than the matrix by a word or more), long
// near-horizontal zigzags (boundaries found by search), thin vertical teeth, self-crossing
// scatters, outlines scaled from 1e-3 to 1e5 about the matrix (far edges that nearly pass
// through pixels), integer and half-integer vertices (crossings exactly on pixels), and
// outlines reaching past every side.
float BoxArea(const Pts& o)
{
    const auto [x0, x1] = std::minmax_element(o.begin(), o.end(), [](const P3& a, const P3& b) { return a.x < b.x; });
    const auto [y0, y1] = std::minmax_element(o.begin(), o.end(), [](const P3& a, const P3& b) { return a.y < b.y; });
    return (x1->x - x0->x) * (y1->y - y0->y);
}

std::vector<FillCase> AdversarialCases()
{
    std::mt19937 rng(11);
    std::vector<FillCase> cases;
    const auto add = [&](Pts o, int width, int height) {
        cases.push_back({std::move(o), {}, width, height, false, -1e6f, 1e6f, 3.0f, 0.5f});
    };
    add(StarOutline(rng, 300, 100, 90, 20, 95), 200, 180);
    add(StarOutline(rng, 400, 380, 70, 30, 420), 741, 150); // many words, past both sides
    Pts zigzag;
    for (int i = 0; i <= 40; ++i)
        zigzag.push_back({-10.0f + 5.5f * i, 60.0f + ((i & 1) ? 0.37f : -0.0001f * i), 0.0f});
    zigzag.push_back({210, 150, 0});
    zigzag.push_back({-10, 150, 0});
    add(zigzag, 200, 160);
    Pts comb;
    for (int i = 0; i < 30; ++i) {
        const float x = 3.0f + 6.3f * i;
        comb.push_back({x, 5, 0});
        comb.push_back({x + 0.4f, 140.5f, 0});
        comb.push_back({x + 2.9f, 140.5f, 0});
        comb.push_back({x + 3.1f, 5, 0});
    }
    comb.push_back({195, -3, 0});
    comb.push_back({3, -3, 0});
    add(comb, 190, 150);
    add(RandomPoints(rng, 60, 170.0f), 170, 170);
    for (float scale : {1e-3f, 0.37f, 1e3f, 1e5f}) {
        Pts far = StarOutline(rng, 40, 0, 0, 0.5f, 1.0f);
        for (P3& q : far)
            q = {70.0f + q.x * scale, 65.0f + q.y * scale * 0.01f, 0.0f};
        add(far, 140, 130);
    }
    for (float unit : {1.0f, 0.5f}) {
        Pts snapped = StarOutline(rng, 200, 66, 64, 10, 75);
        for (P3& q : snapped)
            q = {std::round(q.x / unit) * unit, std::round(q.y / unit) * unit, 0.0f};
        add(snapped, 131, 129);
        Pts scatter;
        for (int i = 0; i < 50; ++i)
            scatter.push_back({std::round(std::uniform_real_distribution<float>(-8, 140)(rng) / unit) * unit,
                               std::round(std::uniform_real_distribution<float>(-8, 140)(rng) / unit) * unit, 0.0f});
        add(scatter, 131, 129);
    }
    for (size_t k = 0; k < cases.size(); ++k) // holes that cut across the outlines
        cases[k].hole = cases[(k + 1) % cases.size()].outline;
    return cases;
}

TEST(Fill, AdversarialOutlinesMatchThePerPixelRule)
{
    std::mt19937 rng(7);
    const std::vector<FillCase> cases = AdversarialCases();
    for (size_t k = 0; k < cases.size(); ++k) {
        const FillCase& c = cases[k];
        for (const Variant& v : kVariants) {
            const std::string_view name(v.name);
            if (name.substr(0, 4) != "Fine" && name != "InsertHole" && name != "FrontSide" && name != "Coarse")
                continue;
            if (name == "Coarse" && BoxArea(c.outline) > 2e7f)
                continue; // the model walks the whole lattice

            RasterPolygon p;
            Fill(p, c.outline);
            CSSEMatrix got = qzsse::test::randomMatrix(rng, c.width, c.height), expected(got);
            v.draw(p, got, c);
            v.model(p, expected, c);
            ASSERT_EQ(Bits(got), Bits(expected)) << v.name << ", case " << k;
        }
        CSSE3dPolygon p;
        Fill(p, c.outline);
        CSSEcharMatrix got, expected;
        got.Create(c.width, c.height);
        expected.Create(c.width, c.height);
        p.DrawInCharMatrixAndFillFine(9, &got, false, c.yMin, c.yMax);
        int inside = 0;
        ForEachFineInterior(p, c.width, c.height, false, c.yMin, c.yMax, [&](int x, int y) {
            expected.SetPoint(x, y, 9);
            ++inside;
        });
        EXPECT_GT(inside, 0) << "case " << k;
        for (int j = 0; j < got.GetSSESizeY(); ++j)
            ASSERT_EQ(std::memcmp(got.GetMatrixDataDirectly()[j], expected.GetMatrixDataDirectly()[j],
                                  16 * static_cast<size_t>(got.GetSSESizeX())), 0) << "case " << k << ", band " << j;
    }
}

// Worked by hand. The square x in [-8, -2], y in [2, 6] lies left of a 10 x 10 matrix: its
// interior pixels are x = -7 .. -2, y = 2 .. 5; the window reaches x = -5 .. 4, so x = -5 .. -2
// are tested and all land on column 0. The tall square with rows limited to 10 .. 14 scans
// rows 5 .. 18 only.
TEST(Fill, InteriorOutsideTheMatrixPaintsItsBorderAndYLimitsNarrowTheRows)
{
    CSSE3dPolygon p;
    Fill(p, {{-8, 2, 0}, {-2, 2, 0}, {-2, 6, 0}, {-8, 6, 0}});
    CSSEMatrix m;
    m.Create(10, 40);
    p.DrawInMatrixAndFillFine(4.0f, &m, false, -1e6f, 1e6f);
    Fill(p, {{2, 2, 0}, {12, 2, 0}, {12, 30, 0}, {2, 30, 0}});
    p.DrawInMatrixAndFillFine(1.0f, &m, false, 10.0f, 14.0f);
    for (int y = 0; y < 40; ++y)
        for (int x = 0; x < 10; ++x) {
            const float want = (x == 0 && y >= 2 && y <= 5) ? 4.0f : (x >= 3 && y >= 5 && y <= 18) ? 1.0f : 0.0f;
            EXPECT_EQ(m.GetPoint(x, y), want) << x << ", " << y;
        }
}

// Two squares, (0.5,0.5)-(3.5,3.5) and (3.5,3.5)-(6.5,6.5), meet at one corner: their
// interior pixels (1..3 and 4..6 on both axes) touch only diagonally, so each is its own region.
TEST(Fill, SeedFillTakesOnlyTheFourConnectedInteriorOfTheSeed)
{
    RasterPolygon p;
    Fill(p, {{0.5f, 0.5f, 0}, {3.5f, 0.5f, 0}, {3.5f, 3.5f, 0}, {6.5f, 3.5f, 0}, {6.5f, 6.5f, 0}, {3.5f, 6.5f, 0},
             {3.5f, 3.5f, 0}, {0.5f, 3.5f, 0}});
    CSSEMatrix m;
    m.Create(20, 10);
    p.fillFromPoint(7.0f, &m, 4, 2);  // not an interior pixel
    p.fillFromPoint(7.0f, &m, 99, 5); // clamped onto column 19, outside
    p.fillFromPoint(7.0f, &m, 2, -4); // clamped onto row 0, outside
    EXPECT_EQ(Bits(m), std::vector<std::uint32_t>(Bits(m).size(), 0u));
    p.fillFromPoint(7.0f, &m, 2, 2);
    for (int y = 0; y < 10; ++y)
        for (int x = 0; x < 20; ++x)
            EXPECT_EQ(m.GetPoint(x, y), (x >= 1 && x <= 3 && y >= 1 && y <= 3) ? 7.0f : 0.0f) << x << ", " << y;
}
