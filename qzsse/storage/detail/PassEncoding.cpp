#include "qzsse/storage/detail/PassEncoding.h"

#include <algorithm>
#include <cmath>
#include <emmintrin.h>
#include <limits>
#include <type_traits>

#include "qzsse/base/RyFloatingPointQuantization.h"
#include "qzsse/matrix/detail/BandWalk.h"
#include "qzsse/matrix/detail/RowMask.h"

namespace qzsse::detail {
namespace {

constexpr float c_fLargestFloat = std::numeric_limits<float>::max();
// CalcMinMaxValues starts its extremes here.
constexpr float c_fMinMaxSeed = 1000000.0f;

// Four lanes of a pass of row-major codes (rows of stride bytes) at column x, `rows` of them
// real (0 in the others).
[[gnu::always_inline]] inline __m128 passLanes(const unsigned char* row, size_t stride, size_t x, int rows, const float* values)
{
    if (rows == 4)
        return _mm_setr_ps(values[row[x]], values[row[stride + x]], values[row[2 * stride + x]],
                           values[row[3 * stride + x]]);
    alignas(16) float lanes[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    for (int r = 0; r < rows; ++r)
        lanes[r] = values[row[static_cast<size_t>(r) * stride + x]];
    return _mm_load_ps(lanes);
}

template <bool Store, bool WithSettled, bool WithOffset>
LaneExtremes subtractAs(const CSSEMatrix& src, CSSEMatrix* dst, CSSEMatrix* settled, const unsigned char* codes,
                        const PassValues& pass, bool hasInvalid, float invalid, const PassOffset* offset)
{
    const float* values = pass.values;
    const __m128 zero = _mm_setzero_ps();
    const __m128 one = _mm_set1_ps(1.0f);
    const __m128 inv = _mm_set1_ps(invalid);
    const __m128 invIsNaN = _mm_cmpunord_ps(inv, inv);
    const __m128 checkInvalid = hasInvalid ? _mm_cmpeq_ps(zero, zero) : zero;
    const __m128 largest = _mm_set1_ps(c_fLargestFloat);
    const __m128 lowest = _mm_set1_ps(-c_fLargestFloat);
    const int width = src.GetSizeX();
    const int height = src.GetSizeY();
    const size_t stride = static_cast<size_t>(width);
    __m128** s = src.GetMatrixDataDirectly();
    __m128** d = Store ? dst->GetMatrixDataDirectly() : nullptr;
    __m128** m = WithSettled ? settled->GetMatrixDataDirectly() : nullptr;
    // Two running pairs halve the dependency chains; extremes do not depend on the order.
    __m128 min0 = largest, min1 = largest, max0 = lowest, max1 = lowest;

    // ov: the offset pass's value (WithOffset).
    const auto combineWith = [&](int j, int x, __m128 tv, __m128 ov, __m128 real, __m128& runMin, __m128& runMax) {
        __m128 before = s[j][x];
        if constexpr (WithOffset)
            before = _mm_sub_ps(before, ov);
        __m128 r = _mm_sub_ps(before, tv);
        if constexpr (WithSettled) {
            r = select(_mm_cmpeq_ps(m[j][x], zero), r, before);
            const __m128 invalidLanes = _mm_or_ps(_mm_cmpeq_ps(tv, inv), _mm_and_ps(_mm_cmpunord_ps(tv, tv), invIsNaN));
            m[j][x] = select(_mm_and_ps(invalidLanes, checkInvalid), one, m[j][x]);
        }
        if constexpr (Store)
            d[j][x] = r;
        // A NaN lane leaves the running value: _mm_min_ps returns its second operand then.
        runMin = _mm_min_ps(select(real, r, largest), runMin);
        runMax = _mm_max_ps(select(real, r, lowest), runMax);
    };
    const auto combine = [&](int j, int x, __m128 tv, __m128 real, __m128& runMin, __m128& runMax) {
        __m128 ov = zero;
        if constexpr (WithOffset) {
            const int rows = std::clamp(height - 4 * j, 0, 4);
            if (rows > 0 && x < width)
                ov = passLanes(offset->codes + static_cast<size_t>(4 * j) * stride, stride, static_cast<size_t>(x), rows,
                               offset->values.values);
        }
        combineWith(j, x, tv, ov, real, runMin, runMax);
    };

    const __m128 all = _mm_cmpeq_ps(zero, zero);
    for (int j = 0; j < src.GetSSESizeY(); ++j) {
        const int rows = std::clamp(height - 4 * j, 0, 4);
        const unsigned char* row = codes + static_cast<size_t>(4 * j) * stride;
        int x = 0;
        if (rows == 4) {
            const unsigned char* offsetRow = WithOffset ? offset->codes + static_cast<size_t>(4 * j) * stride : nullptr;
            for (; x + 4 <= width; x += 4) {
                __m128 tv[4];
                __m128 ov[4] = {zero, zero, zero, zero};
                ColumnValues4(row, stride, static_cast<size_t>(x), pass, tv);
                if constexpr (WithOffset)
                    ColumnValues4(offsetRow, stride, static_cast<size_t>(x), offset->values, ov);
                combineWith(j, x, tv[0], ov[0], all, min0, max0);
                combineWith(j, x + 1, tv[1], ov[1], all, min1, max1);
                combineWith(j, x + 2, tv[2], ov[2], all, min0, max0);
                combineWith(j, x + 3, tv[3], ov[3], all, min1, max1);
            }
            for (; x + 1 < width; x += 2) {
                combine(j, x, passLanes(row, stride, static_cast<size_t>(x), 4, values), all, min0, max0);
                combine(j, x + 1, passLanes(row, stride, static_cast<size_t>(x) + 1, 4, values), all, min1, max1);
            }
            for (; x < width; ++x)
                combine(j, x, passLanes(row, stride, static_cast<size_t>(x), 4, values), all, min0, max0);
        } else {
            const __m128 real = realRowsMask(j, height);
            for (; x < width; ++x)
                combine(j, x, rows > 0 ? passLanes(row, stride, static_cast<size_t>(x), rows, values) : zero, real,
                        min0, max0);
        }
        // Columns beyond the width, where the storage has any.
        for (; x < src.GetSSESizeX(); ++x)
            combine(j, x, zero, zero, min0, max0);
    }
    return {_mm_min_ps(min1, min0), _mm_max_ps(max1, max0)};
}

} // namespace

LaneExtremes SubtractPassCodes(const CSSEMatrix& src, CSSEMatrix* dst, CSSEMatrix* settled,
                               const unsigned char* codes, const RyFloatingPointQuantization& q, bool hasInvalid,
                               float invalid, const PassOffset* offset)
{
    const PassValues values(q);
    const auto as = [&](auto store, auto withSettled) {
        if (offset != nullptr)
            return subtractAs<store(), withSettled(), true>(src, dst, settled, codes, values, hasInvalid, invalid, offset);
        return subtractAs<store(), withSettled(), false>(src, dst, settled, codes, values, hasInvalid, invalid, nullptr);
    };
    using Yes = std::true_type;
    using No = std::false_type;
    if (dst != nullptr)
        return settled != nullptr ? as(Yes{}, Yes{}) : as(Yes{}, No{});
    return settled != nullptr ? as(No{}, Yes{}) : as(No{}, No{});
}

float ErrorFromExtremes(const LaneExtremes& e)
{
    alignas(16) float mins[4];
    alignas(16) float maxs[4];
    _mm_store_ps(mins, e.min);
    _mm_store_ps(maxs, e.max);
    float smallest = c_fMinMaxSeed;
    float largest = -c_fMinMaxSeed;
    for (int lane = 0; lane < 4; ++lane) {
        smallest = mins[lane] < smallest ? mins[lane] : smallest;
        largest = maxs[lane] > largest ? maxs[lane] : largest;
    }
    return std::max(std::fabs(smallest), std::fabs(largest));
}

} // namespace qzsse::detail
