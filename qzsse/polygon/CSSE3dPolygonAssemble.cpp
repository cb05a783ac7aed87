#include <cmath>
#include <vector>

#include "qzsse/polygon/CSSE3dPolygon.h"

namespace {

// Ends of cut pieces meet within this much in x and in y.
constexpr float c_fCutEndTolerance = 0.002f;

struct Vertex {
    float x, y, z;
};

bool EndsMeet(const Vertex& a, const Vertex& b)
{
    return std::fabs(a.x - b.x) <= c_fCutEndTolerance && std::fabs(a.y - b.y) <= c_fCutEndTolerance;
}

double Distance2(const Vertex& a, const Vertex& b)
{
    const double dx = static_cast<double>(a.x) - b.x, dy = static_cast<double>(a.y) - b.y;
    return dx * dx + dy * dy;
}

} // namespace

bool CSSE3dPolygon::CreateFromCutPolygones(const std::vector<CSSE3dPolygon>& pieces)
{
    if (pieces.empty())
        return false;
    for (const CSSE3dPolygon& piece : pieces)
        if (piece.m_nNumPoints < 1)
            return false;
    const auto at = [](const CSSE3dPolygon& p, int i) { return Vertex{p.m_pX[i], p.m_pY[i], p.m_pZ[i]}; };

    std::vector<Vertex> chain;
    const auto append = [&](const CSSE3dPolygon& p, bool reversed, bool skipFirst) {
        const int n = p.m_nNumPoints;
        for (int k = skipFirst ? 1 : 0; k < n; ++k)
            chain.push_back(at(p, reversed ? n - 1 - k : k));
    };
    append(pieces[0], false, false);
    std::vector<char> used(pieces.size(), 0);
    used[0] = 1;
    for (size_t step = 1; step < pieces.size(); ++step) {
        const Vertex end = chain.back();
        int best = -1;
        bool bestReversed = false;
        double bestDistance = 0.0;
        for (size_t k = 0; k < pieces.size(); ++k) {
            if (used[k])
                continue;
            const CSSE3dPolygon& p = pieces[k];
            for (const bool reversed : {false, true}) {
                const Vertex v = at(p, reversed ? p.m_nNumPoints - 1 : 0);
                if (!EndsMeet(end, v))
                    continue;
                const double d = Distance2(end, v);
                if (best < 0 || d < bestDistance) {
                    best = static_cast<int>(k);
                    bestReversed = reversed;
                    bestDistance = d;
                }
            }
        }
        if (best < 0)
            return false;
        used[static_cast<size_t>(best)] = 1;
        append(pieces[static_cast<size_t>(best)], bestReversed, true);
    }
    if (chain.size() < 2 || !EndsMeet(chain.back(), chain.front()))
        return false;
    chain.pop_back();

    const int n = static_cast<int>(chain.size());
    CSSE3dPolygon result;
    result.Create(n);
    for (int i = 0; i < n; ++i) {
        result.m_pX[i] = chain[static_cast<size_t>(i)].x;
        result.m_pY[i] = chain[static_cast<size_t>(i)].y;
        result.m_pZ[i] = chain[static_cast<size_t>(i)].z;
    }
    if (result.CalcXYArea() < 0.0f)
        for (int i = 0, j = n - 1; i < j; ++i, --j) {
            std::swap(result.m_pX[i], result.m_pX[j]);
            std::swap(result.m_pY[i], result.m_pY[j]);
            std::swap(result.m_pZ[i], result.m_pZ[j]);
        }
    swapPoints(result);
    m_bBoundingBoxCalculated = false;
    return true;
}
