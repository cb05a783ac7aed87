// CSSEMatrix: choosing, writing and reading the quantiser, and mapping the matrix to
// 8-bit codes and back.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <emmintrin.h>
#include <limits>
#include <typeinfo>

#include "qzsse/base/RbStreamReadBinary.h"
#include "qzsse/base/RbStreamWriteBinary.h"
#include "qzsse/base/RyFloatingPointQuantization.h"
#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/detail/BandWalk.h"
#include "qzsse/matrix/detail/RowMask.h"
#include "qzsse/storage/detail/PassEncoding.h"

namespace qzsse::detail {
namespace {

constexpr float c_fLargestFloat = std::numeric_limits<float>::max();

// Code spans, bits 0x437EFFBE and 0x437DFFBE: one code fewer when the invalid value needs
// a code of its own.
constexpr float c_fCodeSpan = 254.999f;
constexpr float c_fCodeSpanWithInvalid = 253.999f;

bool equalsInvalid(float v, float invalid)
{
    return v == invalid || (std::isnan(v) && std::isnan(invalid));
}

// Lanes equal to the invalid value, NaN matching NaN. invalidIsNaN is all ones when the
// invalid value is NaN.
inline __m128 invalidLanes(__m128 v, __m128 invalid, __m128 invalidIsNaN)
{
    return _mm_or_ps(_mm_cmpeq_ps(v, invalid), _mm_and_ps(_mm_cmpunord_ps(v, v), invalidIsNaN));
}

inline __m128 allLanes(bool on)
{
    return _mm_castsi128_ps(_mm_set1_epi32(on ? -1 : 0));
}

// The first zero in row-major order that takes part in the scan.
float firstZero(const CSSEMatrix& m, bool skipInvalid, float invalid)
{
    for (int y = 0; y < m.GetSizeY(); ++y)
        for (int x = 0; x < m.GetSizeX(); ++x) {
            const float v = m.GetPointUnsafe(x, y);
            if (v == 0.0f && !(skipInvalid && equalsInvalid(v, invalid)))
                return v;
        }
    return 0.0f;
}

// Smallest and largest element, starting from +largest / -largest, as a row-by-row scan in
// which an element replaces the minimum only when it is smaller (the maximum: larger), so
// NaN never takes part. The lanes give the same values as that scan with one exception:
// between -0.0 and 0.0 the scan keeps the one it met first, so a zero result is looked up.
ValueRange finishRange(const CSSEMatrix& m, __m128 vmin, __m128 vmax, bool skipInvalid, float invalid)
{
    alignas(16) float mins[4];
    alignas(16) float maxs[4];
    _mm_store_ps(mins, vmin);
    _mm_store_ps(maxs, vmax);
    ValueRange range{c_fLargestFloat, -c_fLargestFloat};
    for (int lane = 0; lane < 4; ++lane) {
        if (mins[lane] < range.min)
            range.min = mins[lane];
        if (maxs[lane] > range.max)
            range.max = maxs[lane];
    }
    if (range.min == 0.0f)
        range.min = firstZero(m, skipInvalid, invalid);
    if (range.max == 0.0f)
        range.max = firstZero(m, skipInvalid, invalid);
    return range;
}

ValueRange scanRange(const CSSEMatrix& m, bool skipInvalid, float invalid)
{
    const __m128 largest = _mm_set1_ps(c_fLargestFloat);
    const __m128 lowest = _mm_set1_ps(-c_fLargestFloat);
    const __m128 invalidV = _mm_set1_ps(invalid);
    const __m128 invalidIsNaN = allLanes(std::isnan(invalid));
    const __m128 skip = allLanes(skipInvalid);
    __m128 vmin = largest;
    __m128 vmax = lowest;

    __m128** data = m.GetMatrixDataDirectly();
    const int realBands = (m.GetSizeY() + 3) / 4;
    for (int j = 0; j < realBands; ++j) {
        const __m128 real = realRowsMask(j, m.GetSizeY());
        const __m128* band = data[j];
        if (!skipInvalid && 4 * j + 4 <= m.GetSizeY()) {
            // Every lane takes part: two running pairs, as the order does not matter.
            __m128 min1 = largest, max1 = lowest;
            int x = 0;
            for (; x + 1 < m.GetSizeX(); x += 2) {
                vmin = _mm_min_ps(band[x], vmin);
                vmax = _mm_max_ps(band[x], vmax);
                min1 = _mm_min_ps(band[x + 1], min1);
                max1 = _mm_max_ps(band[x + 1], max1);
            }
            if (x < m.GetSizeX()) {
                vmin = _mm_min_ps(band[x], vmin);
                vmax = _mm_max_ps(band[x], vmax);
            }
            vmin = _mm_min_ps(min1, vmin);
            vmax = _mm_max_ps(max1, vmax);
            continue;
        }
        for (int x = 0; x < m.GetSizeX(); ++x) {
            const __m128 v = band[x];
            const __m128 keep = _mm_andnot_ps(_mm_and_ps(skip, invalidLanes(v, invalidV, invalidIsNaN)), real);
            // _mm_min_ps(a, b) is a < b ? a : b, exactly "replace when smaller".
            vmin = _mm_min_ps(select(keep, v, largest), vmin);
            vmax = _mm_max_ps(select(keep, v, lowest), vmax);
        }
    }
    return finishRange(m, vmin, vmax, skipInvalid, invalid);
}

// The uniform quantisers' Map on four lanes, preceded by the fixed-range clamp: the same
// codes as the scalar Map, including 0 for NaN and the saturation at the top code.
class UniformMapKernel {
public:
    UniformMapKernel(const RyFloatingPointQuantizationUniform& q, unsigned long topCode,
                     const RyFloatingPointQuantizationUniformWithInvalid* withInvalid,
                     const CSSEMatrix::QzSCompressionParameters& params)
        : m_min(_mm_set1_ps(q.GetMin())), m_factor(_mm_set1_ps(q.GetFactor())),
          m_top(_mm_set1_ps(static_cast<float>(topCode))),
          m_invalid(_mm_set1_ps(withInvalid ? withInvalid->GetInvalidValue() : 0.0f)),
          m_invalidIsNaN(allLanes(withInvalid && std::isnan(withInvalid->GetInvalidValue()))),
          m_hasInvalid(allLanes(withInvalid != nullptr)),
          m_clamp(allLanes(params.m_bUseFixedRange)), m_rangeMin(_mm_set1_ps(params.m_fRangeMin)),
          m_rangeMax(_mm_set1_ps(params.m_fRangeMax))
    {
    }

    // Neither a fixed range nor an invalid value: the clamp and the invalid code drop out.
    bool plain() const
    {
        return _mm_movemask_ps(_mm_or_ps(m_clamp, m_hasInvalid)) == 0;
    }

    template <bool Plain = false>
    __m128i codes(__m128 v) const
    {
        if constexpr (!Plain) {
            v = select(_mm_and_ps(m_clamp, _mm_cmpgt_ps(v, m_rangeMax)), m_rangeMax, v);
            v = select(_mm_and_ps(m_clamp, _mm_cmplt_ps(v, m_rangeMin)), m_rangeMin, v);
        }
        const __m128 scaled = _mm_mul_ps(_mm_sub_ps(v, m_min), m_factor);
        const __m128 positive = _mm_cmpgt_ps(scaled, _mm_setzero_ps());
        // min(rounded, top) is rounded < top ? rounded : top, so the conversion only ever
        // sees 0.5 .. top; the other lanes are masked off by `positive`.
        const __m128 capped = _mm_min_ps(_mm_add_ps(scaled, _mm_set1_ps(0.5f)), m_top);
        const __m128i code = _mm_and_si128(_mm_cvttps_epi32(capped), _mm_castps_si128(positive));
        if constexpr (Plain)
            return code;
        const __m128i invalid = _mm_castps_si128(_mm_and_ps(m_hasInvalid, invalidLanes(v, m_invalid, m_invalidIsNaN)));
        const __m128i invalidCode = _mm_set1_epi32(static_cast<int>(RyFloatingPointQuantizationUniformWithInvalid::c_ulInvalidCode));
        return _mm_or_si128(_mm_and_si128(invalid, invalidCode), _mm_andnot_si128(invalid, code));
    }

private:
    __m128 m_min, m_factor, m_top, m_invalid, m_invalidIsNaN, m_hasInvalid;
    __m128 m_clamp, m_rangeMin, m_rangeMax;
};

// Codes of the real rows, band by band: four columns at a time are turned from column
// vectors into row vectors, and four such groups into 16 bytes of each row.
template <bool WithOffset, bool Plain>
void quantizeBands(const CSSEMatrix& m, const UniformMapKernel& kernel, unsigned char* out, const PassOffset* offset)
{
    const int width = m.GetSizeX();
    const int height = m.GetSizeY();
    __m128** data = m.GetMatrixDataDirectly();
    // Element (x, 4j + lane) of the matrix that is coded.
    const float* values = WithOffset ? offset->values.values : nullptr;
    const size_t stride = static_cast<size_t>(width);
    int bandIndex = 0;
    const auto element = [&](const __m128* band, int x) {
        if constexpr (WithOffset) {
            const unsigned char* c = offset->codes + static_cast<size_t>(4 * bandIndex) * stride + static_cast<size_t>(x);
            const int rows = std::min(height - 4 * bandIndex, 4);
            if (rows == 4)
                return _mm_sub_ps(band[x], _mm_setr_ps(values[c[0]], values[c[stride]], values[c[2 * stride]],
                                                       values[c[3 * stride]]));
            alignas(16) float lanes[4] = {0.0f, 0.0f, 0.0f, 0.0f};
            for (int r = 0; r < rows; ++r)
                lanes[r] = values[c[static_cast<size_t>(r) * stride]];
            return _mm_sub_ps(band[x], _mm_load_ps(lanes));
        } else {
            return band[x];
        }
    };
    const auto rowsOfFour = [&](const __m128* band, int x) {
        __m128 r0, r1, r2, r3;
        if (WithOffset && height - 4 * bandIndex >= 4) {
            __m128 off[4];
            ColumnValues4(offset->codes + static_cast<size_t>(4 * bandIndex) * stride, stride, static_cast<size_t>(x),
                          offset->values, off);
            r0 = _mm_sub_ps(band[x], off[0]);
            r1 = _mm_sub_ps(band[x + 1], off[1]);
            r2 = _mm_sub_ps(band[x + 2], off[2]);
            r3 = _mm_sub_ps(band[x + 3], off[3]);
        } else {
            r0 = element(band, x), r1 = element(band, x + 1), r2 = element(band, x + 2), r3 = element(band, x + 3);
        }
        _MM_TRANSPOSE4_PS(r0, r1, r2, r3);
        // Byte 4r + c: row r, column x + c.
        return _mm_packus_epi16(_mm_packs_epi32(kernel.codes<Plain>(r0), kernel.codes<Plain>(r1)),
                                _mm_packs_epi32(kernel.codes<Plain>(r2), kernel.codes<Plain>(r3)));
    };
    for (int j = 0; 4 * j < height; ++j) {
        bandIndex = j;
        const __m128* band = data[j];
        const int rows = height - 4 * j < 4 ? height - 4 * j : 4;
        unsigned char* rowStart = out + static_cast<size_t>(4 * j) * width;
        int x = 0;
        if (rows == 4) {
            for (; x + 16 <= width; x += 16) {
                __m128 g0 = _mm_castsi128_ps(rowsOfFour(band, x)), g1 = _mm_castsi128_ps(rowsOfFour(band, x + 4));
                __m128 g2 = _mm_castsi128_ps(rowsOfFour(band, x + 8)), g3 = _mm_castsi128_ps(rowsOfFour(band, x + 12));
                // Each 32-bit lane is four bytes of one row: transposing the lanes gathers a row.
                _MM_TRANSPOSE4_PS(g0, g1, g2, g3);
                const __m128 rowsOut[4] = {g0, g1, g2, g3};
                for (int r = 0; r < 4; ++r)
                    _mm_storeu_si128(reinterpret_cast<__m128i*>(rowStart + static_cast<size_t>(r) * width + x),
                                     _mm_castps_si128(rowsOut[r]));
            }
        }
        for (; x + 4 <= width; x += 4) {
            alignas(16) unsigned char bytes[16];
            _mm_store_si128(reinterpret_cast<__m128i*>(bytes), rowsOfFour(band, x));
            for (int r = 0; r < rows; ++r)
                std::memcpy(rowStart + static_cast<size_t>(r) * width + x, bytes + 4 * r, 4);
        }
        for (; x < width; ++x) {
            alignas(16) std::int32_t codes[4];
            _mm_store_si128(reinterpret_cast<__m128i*>(codes), kernel.codes<Plain>(element(band, x)));
            for (int r = 0; r < rows; ++r)
                rowStart[static_cast<size_t>(r) * width + x] = static_cast<unsigned char>(codes[r]);
        }
    }
}

} // namespace

std::unique_ptr<RyFloatingPointQuantization> WritePassQuantizer(const CSSEMatrix& m,
                                                                const CSSEMatrix::QzSCompressionParameters& p,
                                                                bool withInvalid, const ValueRange* scanned,
                                                                RbStreamWriteBinary& stream)
{
    ValueRange range{c_fLargestFloat, -c_fLargestFloat};
    if (p.m_bUseFixedRange)
        range = {p.m_fRangeMin, p.m_fRangeMax};
    else if (scanned != nullptr)
        range = *scanned;
    else if (m.GetMatrixDataDirectly() != nullptr)
        range = scanRange(m, withInvalid, p.m_fInvalidValue);

    const float span = withInvalid ? c_fCodeSpanWithInvalid : c_fCodeSpan;
    const float rangeFactor = range.min == range.max ? 1.0f : (1.0f / (range.max - range.min)) * span;
    const float errorFactor = p.m_fMaxAbsError == 0.0f ? c_fLargestFloat : 0.5f / p.m_fMaxAbsError;
    // A tie takes the error factor.
    const float factor = errorFactor <= rangeFactor ? errorFactor : rangeFactor;

    stream.WriteFloat(range.min);
    stream.WriteFloat(range.max);
    stream.WriteFloat(factor);
    stream.WriteBool(withInvalid);
    if (withInvalid) {
        stream.WriteFloat(p.m_fInvalidValue);
        return std::make_unique<RyFloatingPointQuantizationUniformWithInvalid>(range.min, range.max, factor,
                                                                               p.m_fInvalidValue);
    }
    return std::make_unique<RyFloatingPointQuantizationUniform>(range.min, range.max, factor);
}

// The library's own quantisers are mapped four lanes at a time; any other implementation
// of the interface is called element by element.
PassValues::PassValues(const RyFloatingPointQuantization& q)
{
    for (unsigned long code = 0; code < 256; ++code)
        values[code] = q.Unmap(code);
    if (typeid(q) == typeid(RyFloatingPointQuantizationUniform)
        || typeid(q) == typeid(RyFloatingPointQuantizationUniformWithInvalid)) {
        const auto& uniform = static_cast<const RyFloatingPointQuantizationUniform&>(q);
        this->uniform = true;
        min = uniform.GetMin();
        factor = uniform.GetFactor();
        static_assert(RyFloatingPointQuantizationUniformWithInvalid::c_ulInvalidCode == 255);
        if (typeid(q) == typeid(RyFloatingPointQuantizationUniformWithInvalid)) {
            withInvalid = true;
            invalid = static_cast<const RyFloatingPointQuantizationUniformWithInvalid&>(q).GetInvalidValue();
        }
    }
}

void QuantizePassCodes(const CSSEMatrix& m, const RyFloatingPointQuantization& q,
                       const CSSEMatrix::QzSCompressionParameters& p, unsigned char* out, const PassOffset* offset)
{
    const auto bands = [&](const UniformMapKernel& kernel) {
        if (offset != nullptr)
            kernel.plain() ? quantizeBands<true, true>(m, kernel, out, offset)
                           : quantizeBands<true, false>(m, kernel, out, offset);
        else
            kernel.plain() ? quantizeBands<false, true>(m, kernel, out, nullptr)
                           : quantizeBands<false, false>(m, kernel, out, nullptr);
    };
    if (typeid(q) == typeid(RyFloatingPointQuantizationUniform)) {
        const auto& uniform = static_cast<const RyFloatingPointQuantizationUniform&>(q);
        bands(UniformMapKernel(uniform, RyFloatingPointQuantizationUniform::c_ulTopCode, nullptr, p));
        return;
    }
    if (typeid(q) == typeid(RyFloatingPointQuantizationUniformWithInvalid)) {
        const auto& withInvalid = static_cast<const RyFloatingPointQuantizationUniformWithInvalid&>(q);
        bands(UniformMapKernel(withInvalid, RyFloatingPointQuantizationUniformWithInvalid::c_ulTopCode, &withInvalid, p));
        return;
    }
    const size_t width = static_cast<size_t>(m.GetSizeX());
    for (int y = 0; y < m.GetSizeY(); ++y)
        for (int x = 0; x < m.GetSizeX(); ++x) {
            float v = m.GetPointUnsafe(x, y);
            if (offset != nullptr)
                v = v - offset->values.values[offset->codes[static_cast<size_t>(y) * width + static_cast<size_t>(x)]];
            if (p.m_bUseFixedRange) {
                if (v > p.m_fRangeMax)
                    v = p.m_fRangeMax;
                if (v < p.m_fRangeMin)
                    v = p.m_fRangeMin;
            }
            out[static_cast<size_t>(y) * width + static_cast<size_t>(x)] = static_cast<unsigned char>(q.Map(v));
        }
}

std::optional<ValueRange> RangeFromExtremes(const CSSEMatrix* m, const LaneExtremes& e)
{
    if (m != nullptr)
        return finishRange(*m, e.min, e.max, false, 0.0f);
    alignas(16) float mins[4];
    alignas(16) float maxs[4];
    _mm_store_ps(mins, e.min);
    _mm_store_ps(maxs, e.max);
    for (int lane = 0; lane < 4; ++lane)
        if (mins[lane] == 0.0f || maxs[lane] == 0.0f)
            return std::nullopt;
    return finishRange(CSSEMatrix(), e.min, e.max, false, 0.0f);
}

} // namespace qzsse::detail

std::unique_ptr<RyFloatingPointQuantization> CSSEMatrix::createAndEncodeQuantizer(bool withInvalid,
                                                                                RbStreamWriteBinary& stream) const
{
    return qzsse::detail::WritePassQuantizer(*this, m_CompressionParameters, withInvalid, nullptr, stream);
}

// Version 1 streams carry no description (codes were the values' own range 0..255 with
// factor 1); version 2 has no invalid flag.
std::unique_ptr<RyFloatingPointQuantization> CSSEMatrix::createQuantizer(RbStreamReadBinary& stream,
                                                                        unsigned int version,
                                                                        bool& hasInvalid, float& invalidValue)
{
    float min = 0.0f;
    float max = 0.0f;
    float factor = 1.0f;
    if (version >= 2) {
        min = stream.ReadFloat();
        max = stream.ReadFloat();
        factor = stream.ReadFloat();
    }
    const bool withInvalid = version >= 3 ? stream.ReadBool() : false;

    hasInvalid = false;
    invalidValue = 0.0f;
    if (withInvalid) {
        invalidValue = stream.ReadFloat();
        hasInvalid = true;
        return std::make_unique<RyFloatingPointQuantizationUniformWithInvalid>(min, max, factor, invalidValue);
    }
    return std::make_unique<RyFloatingPointQuantizationUniform>(min, max, factor);
}

RbArray<unsigned char> CSSEMatrix::quantize(const RyFloatingPointQuantization& q) const
{
    RbArray<unsigned char> codes;
    if (m_Data == nullptr)
        return codes;
    codes.SetSize(static_cast<std::ptrdiff_t>(m_SizeX) * m_SizeY);
    qzsse::detail::QuantizePassCodes(*this, q, m_CompressionParameters, codes.GetData());
    return codes;
}

// Unmap depends on the code alone, so a table of the 256 answers serves every quantiser.
void CSSEMatrix::deQuantize(const RyFloatingPointQuantization& q, const RbArray<unsigned char>& codes)
{
    if (m_Data == nullptr || static_cast<std::ptrdiff_t>(m_SizeX) * m_SizeY != codes.GetSize())
        return;
    float values[256];
    for (unsigned long c = 0; c < 256; ++c)
        values[c] = q.Unmap(c);

    const unsigned char* in = codes.GetData();
    const size_t width = static_cast<size_t>(m_SizeX);
    for (int j = 0; 4 * j < m_SizeY; ++j) {
        __m128* band = m_Data[j];
        const unsigned char* row = in + 4 * j * width;
        if (4 * j + 4 <= m_SizeY) {
            for (size_t x = 0; x < width; ++x)
                band[x] = _mm_setr_ps(values[row[x]], values[row[width + x]], values[row[2 * width + x]],
                                      values[row[3 * width + x]]);
        } else {
            // The last band: its padding rows keep what they hold.
            for (int y = 4 * j; y < m_SizeY; ++y)
                for (int x = 0; x < m_SizeX; ++x)
                    SetPointUnsafe(x, y, values[in[y * width + x]]);
        }
    }
}
