#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>
#include <utility>
#include <vector>

#include "matrix/MatrixTestUtil.h"
#include "qzsse/contour/CPixelChain.h"
#include "qzsse/matrix/CSSEMatrix.h"

namespace {

using Points = std::vector<std::pair<int, int>>;

Points positions(const CPixelChain& chain)
{
    Points out;
    for (int i = 0; i < chain.GetCount(); ++i)
        out.emplace_back(chain[i].x, chain[i].y);
    return out;
}

// A field of `background` with the box [x0, x1] x [y0, y1] set to `inside`.
void makeBox(CSSEMatrix& m, int w, int h, float background, float inside, int x0, int y0, int x1, int y1)
{
    m.Create(w, h);
    m.Fill(background);
    for (int y = y0; y <= y1; ++y)
        for (int x = x0; x <= x1; ++x)
            m.SetPoint(x, y, inside);
}

// The trace written plainly from its description, on a copy of the stored rows: frame
// marking, last qualifying neighbour in the order d+4, ..., d+3, clamps, closing rules.
struct TraceModel {
    int w, h, rows;
    std::vector<float> g; // rows x w, padding rows included

    float& at(int x, int y) { return g[static_cast<size_t>(y) * w + x]; }
    float read(long x, long y)
    {
        x = std::min<long>(std::max(0L, x), w - 1);
        y = std::min<long>(std::max(0L, y), h - 1);
        return at(static_cast<int>(x), static_cast<int>(y));
    }

    Points trace(float level, long sx, long sy, long maxSteps, bool above, bool exactClose, int minSteps)
    {
        for (int y = 0; y < rows; ++y)
            for (int x = 0; x < w; ++x)
                if (y < 4 || y >= rows - 4 || x < 3 || x >= w - 3)
                    at(x, y) = level;
        const int ddx[8] = {0, -1, -1, -1, 0, 1, 1, 1};
        const int ddy[8] = {-1, -1, 0, 1, 1, 1, 0, -1};
        const int order[8] = {4, 5, 6, 7, 0, 1, 2, 3};
        Points chain;
        long x = sx, y = sy, steps = 0;
        int d = 4;
        while (true) {
            if (chain.size() < 100000)
                chain.emplace_back(static_cast<int>(x), static_cast<int>(y));
            int chosen = -1;
            for (int k : order) {
                const int n = (d + k) % 8;
                const float v = read(x + ddx[n], y + ddy[n]);
                if (above ? v > level : v < level)
                    chosen = n;
            }
            if (chosen >= 0) {
                d = chosen;
                x += ddx[d];
                y += ddy[d];
            }
            x = std::min<long>(std::max(1L, x), w - 2);
            y = std::min<long>(std::max(1L, y), h - 2);
            if (++steps > maxSteps)
                break;
            if (exactClose || steps <= minSteps) {
                if (x == sx && y == sy)
                    break;
            } else if (std::labs(x - sx) <= 1 && std::labs(y - sy) <= 1) {
                break;
            }
        }
        return chain;
    }
};

const Points c_box3x3 = {{4, 4}, {5, 4}, {6, 4}, {6, 5}, {6, 6}, {5, 6}, {4, 6}, {4, 5}};

} // namespace

TEST(PixelChainTrace, ClosedRegionIsWalkedClockwiseBackToTheStart)
{
    CSSEMatrix m;
    makeBox(m, 12, 12, 10.0f, 0.0f, 4, 4, 6, 6);
    CPixelChain chain;
    chain.CreatePixelChain(&m, 5.0f, 4, 4, 1000, false, true, 0);
    EXPECT_EQ(positions(chain), c_box3x3);
    EXPECT_EQ(chain[3].value, 0.0f);

    // The same region as a plateau above the level.
    makeBox(m, 12, 12, 0.0f, 10.0f, 4, 4, 6, 6);
    chain.CreatePixelChain(&m, 5.0f, 4, 4, 1000, true, true, 0);
    EXPECT_EQ(positions(chain), c_box3x3);

    // A one-pixel-wide line is walked out and back; the middle pixel is stored twice.
    makeBox(m, 12, 12, 10.0f, 0.0f, 4, 5, 6, 5);
    chain.CreatePixelChain(&m, 5.0f, 4, 5, 1000, false, true, 0);
    EXPECT_EQ(positions(chain), (Points{{4, 5}, {5, 5}, {6, 5}, {5, 5}}));
}

TEST(PixelChainTrace, LooseCloseStopsNextToTheStartOnceMinStepsArePassed)
{
    CSSEMatrix m;
    makeBox(m, 12, 12, 10.0f, 0.0f, 4, 4, 6, 6);
    CPixelChain chain;
    // Step 1 already lands beside the start.
    chain.CreatePixelChain(&m, 5.0f, 4, 4, 1000, false, false, 0);
    EXPECT_EQ(positions(chain), (Points{{4, 4}}));
    // After five steps the walk is at (4,6), two rows off; step 7 at (4,5) is a neighbour.
    makeBox(m, 12, 12, 10.0f, 0.0f, 4, 4, 6, 6);
    chain.CreatePixelChain(&m, 5.0f, 4, 4, 1000, false, false, 5);
    EXPECT_EQ(positions(chain), Points(c_box3x3.begin(), c_box3x3.end() - 1));
}

TEST(PixelChainTrace, IsolatedStartOrZeroStepsGiveOnePoint)
{
    CSSEMatrix m;
    makeBox(m, 12, 12, 10.0f, 10.0f, 0, 0, 0, 0);
    CPixelChain chain;
    for (bool exactClose : {false, true}) {
        chain.CreatePixelChain(&m, 5.0f, 5, 5, 1000, false, exactClose, 500);
        ASSERT_EQ(chain.GetCount(), 1);
        EXPECT_EQ(chain[0].x, 5);
        EXPECT_EQ(chain[0].y, 5);
        EXPECT_EQ(chain[0].value, 10.0f);
    }
    makeBox(m, 12, 12, 10.0f, 0.0f, 4, 4, 6, 6);
    chain.CreatePixelChain(&m, 5.0f, 4, 4, 0, false, true, 0);
    EXPECT_EQ(positions(chain), (Points{{4, 4}}));
}

TEST(PixelChainTrace, RegionAtTheBorderIsWalkedAlongTheMarkedFrame)
{
    // 18 rows: five bands, the last holding real rows 16 and 17 and two padding rows.
    CSSEMatrix m;
    makeBox(m, 16, 18, 10.0f, 0.0f, 0, 10, 5, 17);
    CPixelChain chain;
    chain.CreatePixelChain(&m, 5.0f, 3, 10, 1000, false, true, 0);
    Points expected = {{3, 10}, {4, 10}, {5, 10}};
    for (int y = 11; y <= 15; ++y)
        expected.emplace_back(5, y);
    expected.insert(expected.end(), {{4, 15}, {3, 15}});
    for (int y = 14; y >= 11; --y)
        expected.emplace_back(3, y);
    EXPECT_EQ(positions(chain), expected);

    const std::vector<float> stored = qzsse::test::storedFloats(m);
    for (int y = 0; y < 20; ++y)
        for (int x = 0; x < 16; ++x) {
            if (y < 4 || y >= 16 || x < 3 || x >= 13) {
                EXPECT_EQ(stored[qzsse::test::storedIndex(m, x, y)], 5.0f) << x << "," << y;
            }
        }
}

TEST(PixelChainTrace, LongTraceKeepsTheFirstHundredThousandPoints)
{
    // From S the walk enters the pair A-B and swings between them, never back to S.
    CSSEMatrix m;
    makeBox(m, 10, 10, 10.0f, 0.0f, 5, 5, 6, 5);
    CPixelChain chain;
    chain.CreatePixelChain(&m, 5.0f, 4, 5, 150000, false, true, 0);
    ASSERT_EQ(chain.GetCount(), 100000);
    EXPECT_EQ(positions(chain)[0], std::make_pair(4, 5));
    EXPECT_EQ(positions(chain)[1], std::make_pair(5, 5));
    EXPECT_EQ(positions(chain)[2], std::make_pair(6, 5));
    EXPECT_EQ(positions(chain)[99999], std::make_pair(5, 5));
    EXPECT_EQ(positions(chain)[99998], std::make_pair(6, 5));

    chain.CreatePixelChain(&m, 5.0f, 4, 5, 99998, false, true, 0);
    EXPECT_EQ(chain.GetCount(), 99999);
}

TEST(PixelChainTrace, MatchesPlainModelOnRandomFields)
{
    std::mt19937 rng(7);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (int trial = 0; trial < 400; ++trial) {
        const int w = std::uniform_int_distribution<int>(1, 24)(rng);
        const int h = std::uniform_int_distribution<int>(1, 24)(rng);
        CSSEMatrix m;
        m.Create(w, h);
        TraceModel model{w, h, 4 * m.GetSSESizeY(), {}};
        // Blobs from a few discs, with level-valued and NaN pixels scattered in.
        std::vector<float> stored(qzsse::test::storedFloats(m).size());
        std::uniform_int_distribution<int> pick(0, 19);
        const int cx = std::uniform_int_distribution<int>(-2, w + 1)(rng);
        const int cy = std::uniform_int_distribution<int>(-2, h + 1)(rng);
        const int r2 = std::uniform_int_distribution<int>(0, 60)(rng);
        for (int y = 0; y < model.rows; ++y)
            for (int x = 0; x < w; ++x) {
                float v = ((x - cx) * (x - cx) + (y - cy) * (y - cy) <= r2) ? 0.0f : 9.0f;
                const int p = pick(rng);
                if (p == 0)
                    v = 4.0f;
                else if (p == 1)
                    v = nan;
                else if (p < 4)
                    v = 9.0f - v;
                stored[qzsse::test::storedIndex(m, x, y)] = v;
                model.g.push_back(v);
            }
        qzsse::test::setStoredFloats(m, stored);

        const long sx = std::uniform_int_distribution<int>(-1, w)(rng);
        const long sy = std::uniform_int_distribution<int>(-1, h)(rng);
        const long maxSteps = std::uniform_int_distribution<int>(-1, 300)(rng);
        const bool above = pick(rng) < 10, exact = pick(rng) < 10;
        const int minSteps = std::uniform_int_distribution<int>(0, 12)(rng);

        const Points expected = model.trace(4.0f, sx, sy, maxSteps, above, exact, minSteps);
        CPixelChain chain;
        chain.CreatePixelChain(&m, 4.0f, sx, sy, maxSteps, above, exact, minSteps);
        ASSERT_EQ(positions(chain), expected) << "trial " << trial;
        for (int i = 0; i < chain.GetCount(); ++i)
            ASSERT_TRUE(qzsse::test::sameFloat(chain[i].value, model.read(chain[i].x, chain[i].y)));
        const std::vector<float> after = qzsse::test::storedFloats(m);
        for (int y = 0; y < model.rows; ++y)
            for (int x = 0; x < w; ++x)
                ASSERT_TRUE(qzsse::test::sameFloat(after[qzsse::test::storedIndex(m, x, y)], model.at(x, y)));
    }
}
