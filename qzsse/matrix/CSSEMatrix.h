#pragma once

#include <memory>
#include <xmmintrin.h>

#include "qzsse/base/CString.h"
#include "qzsse/base/RbArray.h"
#include "qzsse/base/RbReferenceCounted.h"
#include "qzsse/base/RyField2D.h"
#include "qzsse/matrix/CImgFromToArray.h"

class CArchive;
class CSSEcharMatrix;
class RbStreamReadBinary;
class RbStreamWriteBinary;
class RyFloatingPointQuantization;

namespace qzsse {
// Image containers behind CSSEMatrix::encode / decode.
enum class ImageContainer { Png, Tiff };
// Encoder settings: the TIFF compression (3 = CCITT group 4); 0 leaves the codec's default.
struct ImageEncodeOptions {
    unsigned char tiffCompressionMethod = 0;
};
} // namespace qzsse

// A float image stored in bands of four rows: pixel (x, y) is lane y & 3 of vector x of
// band y >> 2, so one packed instruction handles four rows of a column. There are
// (height >> 2) + 1 bands, always at least one band of padding rows below the image.
// Whole-storage operations write the padding rows too; 0.0 is the empty pixel.
class CSSEMatrix : public RbReferenceCounted {
public:
    // Codec settings carried by every matrix: nine 32-bit words, copied by value.
    struct QzSCompressionParameters {
        int m_eMethod = 0;                 // 0 raw, 1 JPEG, 2 PNG, 3 PNG then JPEG, 4 CCITT G4
        bool m_bUseInvalidValue = false;   // low byte of a 32-bit slot
        float m_fInvalidValue = 0.0f;
        unsigned int m_uiNumberOfPasses = 1;
        float m_fJPEGQuality = 0.95f;
        float m_fMaxAbsError = 0.0f;       // 0: no bound
        bool m_bUseFixedRange = false;     // low byte of a 32-bit slot
        float m_fRangeMin = 0.0f;
        float m_fRangeMax = 0.0f;
    };

    static constexpr int c_iMaxFields = 250;
    static constexpr int c_iLinesPerField = 32;

    CSSEMatrix();
    CSSEMatrix(const CSSEMatrix& other);
    explicit CSSEMatrix(const RyField2D<float, 1>& field);
    ~CSSEMatrix() override;
    const CSSEMatrix& operator=(const CSSEMatrix& other);

    // --- storage -------------------------------------------------------------------------
    // Forgets the storage without releasing it, for objects whose blocks were handed on.
    void init();
    void Create(int sizeX, int sizeY);
    void CreateNoClear(int sizeX, int sizeY);
    void CreateSimilar(CSSEMatrix& other);
    // Keeps the sizes: callers test for storage with GetMatrixDataDirectly().
    void Free();
    void Clear();
    void Fill(float value);
    void ClearRow(int y, float value);
    // Copying a matrix without storage leaves this one's pixels as they are.
    void CopyFromSSEMatrix(const CSSEMatrix& src);
    void CopyFromField(const RyField2D<float, 1>& field);

    int GetSizeX() const { return m_SizeX; }
    int GetSizeY() const { return m_SizeY; }
    int GetSSESizeX() const { return m_SSESizeX; }
    int GetSSESizeY() const { return m_SSESizeY; }
    __m128** GetMatrixDataDirectly() { return m_Data; }
    __m128** GetMatrixDataDirectly() const { return m_Data; }
    __m128* GetField(int i) const { return m_FieldData[i]; }
    int GetFields() const { return m_Fields; }
    int GetLinesPerField() const { return c_iLinesPerField; }
    int GetRowProcessed() const { return m_RowProcessed; }
    void SetRowProcessed(int row) { m_RowProcessed = row; }
    CImgFromToArray& GetFromToArray() { return m_FromToArray; }
    QzSCompressionParameters& GetCompressionParameters() { return m_CompressionParameters; }
    const QzSCompressionParameters& GetCompressionParameters() const { return m_CompressionParameters; }
    void SetCompressionParameters(const QzSCompressionParameters& params) { m_CompressionParameters = params; }
    float GetMaxAbsCompressionError() const { return m_fMaxAbsCompressionError; }

    // --- point access: coordinates are clamped into the image unless the name says Unsafe;
    // the neighbourhood writers clamp the centre so the whole box stays inside ------------
    float GetPoint(int x, int y) const;
    float GetPointValue(int x, int y) const { return GetPoint(x, y); }
    float GetPointUnsafe(int x, int y) const
    {
        return reinterpret_cast<const float*>(m_Data[y >> 2])[(x << 2) + (y & 3)];
    }
    void SetPoint(int x, int y, float v);
    void SetPointUnsafe(int x, int y, float v)
    {
        reinterpret_cast<float*>(m_Data[y >> 2])[(x << 2) + (y & 3)] = v;
    }
    float* GetPointAddress(int x, int y);
    float* GetPointAddressUnsafe(int x, int y)
    {
        return reinterpret_cast<float*>(m_Data[y >> 2]) + (x << 2) + (y & 3);
    }
    void SetPointMin(int x, int y, float v);
    void SetPointMax(int x, int y, float v);
    void SetPointAndRightOfPoint(int x, int y, float v);
    void SetPointAndLeftOfPoint(int x, int y, float v);
    void SetTriplePointMin(int x, int y, float v);
    void SetTriplePointMax(int x, int y, float v);
    void SetCross(int x, int y, float v);
    void SetCrossMin(int x, int y, float v);
    void SetCrossMax(int x, int y, float v);
    void Set3x3BoxPoint(int x, int y, float v);
    void Set3x3BoxPointMin(int x, int y, float v);
    void Set3x3BoxPointMax(int x, int y, float v);
    void Set5x5BoxPointMin(int x, int y, float v);
    void Set5x5BoxPointMax(int x, int y, float v);
    void Set11x11BoxPointMax(int x, int y, float v);
    // Largest of the five-point cross around (x, y); the diagonals are not looked at.
    float GetPointMax3x3(int x, int y);
    // Bilinear sample; the outermost ring is reached only as the neighbour of the ring
    // inside it. The flag is accepted and ignored.
    float GetPixelPreciseFloat(float x, float y, bool unused) const;
    // Copies the last finished row (m_RowProcessed) into every row below it.
    void FillMatrixWithProcessedRow();

    // --- arithmetic with a scalar (all bands, padding included) -----------------------------
    void OffsetMatrix(float d);
    void OffsetMatrixAbove(float t, float d);
    void OffsetMatrixBelow(float t, float d);
    void LiftWhereNonZero(float d);
    void ScalarMultiply(float s);
    void InvertSign();
    // sqrt(p * p): overflowing squares give +inf, underflowing ones 0.
    void Absolute();

    // --- arithmetic with a second matrix ------------------------------------------------------
    // "this extent": other must be at least as large; "common extent": the smaller of both.
    void AddMatrix(const CSSEMatrix& other);                                   // this extent
    void SubMatrix(const CSSEMatrix& other);                                   // common extent
    void SubMatrixValidate(CSSEMatrix& other);                                 // common extent
    void AddMatrixOffseted(const CSSEMatrix& other, float a);                  // this extent
    void AddMatrixOffsetedNormed(const CSSEMatrix& other, float a, float b);   // this extent
    void AddMatrixOffsetedConstrained(const CSSEMatrix& other, float a, float b, float c); // this extent
    // Where either pixel is NaN, or both are zeros, MaximumOf and MinimumOf keep this one's.
    void MaximumOf(CSSEMatrix& other);                                         // common extent
    void MinimumOf(CSSEMatrix& other);                                         // common extent
    void CombineAbsolute(CSSEMatrix& other);                                   // common extent
    void CombineMultiplicative(CSSEMatrix& other, bool absolute);              // common extent

    // --- thresholds and replacement --------------------------------------------------------------
    void TresholdAbove(float t, float v);
    void TresholdBelow(float t, float v);
    // Columns 0..n-1 become 0; n is not clamped (0 <= n <= width is the caller's duty).
    void TresholdAbove(float t, float v, int n);
    void TresholdBelow(float t, float v, int n);
    void TresholdAboveKeep(float t, float v);
    void ResetPixelsGreaterWithValue(float t, float v); // the same function as TresholdAboveKeep
    void ResetPixelsLowerWithValue(float t, float v);
    void ResetPixelsInInterval(float lo, float hi, float v);
    void ErasePixelsGreater(float t);
    void ErasePixelsLower(float t);
    void EraseOtherValuePixels(float a, float tol);
    void ReplaceValueWithValue(float a, float b);
    void ReplaceValueWithValue(float a, float b, float tol);
    void ReplaceLineAbove(float t, float v, int y);

    // --- masking with a second matrix (common extent unless stated) -------------------------------
    void MaskOut(CSSEMatrix& mask);
    void Stencil(CSSEMatrix& stencil, float sx, float sy);
    void StencilThreshAbove(CSSEMatrix& stencil, float t);
    void StencilThreshBelow(CSSEMatrix& stencil, float t); // the same function as StencilThreshAbove
    void MaskOutAndValidate(CSSEMatrix& mask);

    // --- counting and sums --------------------------------------------------------------------------
    int NumValuesAbove(float t);
    int NumValuesBelow(float t);
    int NumValuesAbove(CSSEMatrix* other);
    int NumValuesBelow(CSSEMatrix* other);
    float IntegrateMatrix();
    // Maximum first, then minimum; seeded with -1e6 / +1e6.
    void CalcMinMaxValues(float* maxValue, float* minValue) const;
    void CalcMinMaxValuesExcludeZero(float* maxValue, float* minValue);
    float IntegrateMatrixAbsolute();
    float IntegrateMatrixValid();

    // --- derivatives (in place) -------------------------------------------------------------------
    void CalcDerivativeX();
    void CalcDerivativeY();

    // --- morphology and filters (CSSEMatrixMorphology.cpp, CSSEMatrixDistance.cpp,
    // CSSEMatrixThinning.cpp; the medians are in CFilters) ----------------------------------------
    // In place, on the caller's thread: every real pixel becomes the minimum of the
    // (2 radius + 1) x (2 radius + 1) box around it. Pixels outside the image take no part (the
    // same as clamped access); a NaN in the box gives NaN; the sign of a zero result is not
    // pinned; padding rows become 0. A radius below 0 counts as 0.
    void SimpleMinimumFilter(int radius);
    // SimpleMinimumFilter's rule over a (2 radiusX + 1) x (2 radiusY + 1) box, its bands shared out
    // as tasks of pool (RbThreadPool::GetGlobal() when null) while the caller waits. Each output
    // vector is computed the same way by whichever thread: the result never depends on the pool.
    void Erode(int radiusX, int radiusY, class RbThreadPool* pool = nullptr);
    // In place: every real pixel that is not empty (0.0 of either sign; NaN is not empty) becomes
    // the length of the cheapest 8-connected path to an empty pixel, a step to an axial neighbour
    // costing axial and to a diagonal one diagonal. So 3-4 gives about three times the Euclidean
    // distance in pixels, 1-1 the chessboard and 1-2 the city-block distance. Empty pixels stay 0,
    // there being none every pixel becomes +inf; padding rows become 0.
    void Chamfer(float axial = 3.0f, float diagonal = 4.0f);
    // In place: every real pixel that is not empty (0.0 of either sign; NaN is not empty) becomes
    // the exact Euclidean distance in pixels to the nearest empty pixel: sqrtf of the integer
    // squared distance (exact below 2^24). Without an empty pixel every pixel becomes +inf; padding
    // rows become 0.
    void DistanceTransform();
    // Thins the mask in place to a skeleton of one-pixel-wide 8-connected lines by the
    // Zhang-Suen rule: non-zero pixels (NaN included) are the foreground, pixels outside the image
    // count as background; afterwards skeleton pixels are 1.0, all others 0.0, padding rows 0.
    void ZhangSuen();

    // --- members with rules of this library's own (documented at each) ---------------------------
    // QZSSE-OPEN-MEMBERS-BEGIN
    // Smallest box of real pixels with p > threshold (above) or p < threshold (!above). With
    // none, returns false and leaves minX = minY = 1000000 and maxX = maxY = -1000000.
    bool CalcBoundingBox(int& minX, int& minY, int& maxX, int& maxY, float threshold, bool above);
    // Patch: columns x0..x1, rows y0..y1 (inclusive, each clamped into the image); NaN takes no
    // part. The maximum starts from -1000000, which is what an empty patch reports.
    void CalcMaxValueOfPatch(float* maxValue, int x0, int y0, int x1, int y1);
    // Smallest pixel of the patch, or -1000000 when no pixel takes part.
    void CalcMinValueOfPatch(float* minValue, int x0, int y0, int x1, int y1);
    // As CalcMinValueOfPatch, but pixels with -0.002 < p < 0.002 take no part.
    void CalcMinValueOfPatchExcludeZero(float* minValue, int x0, int y0, int x1, int y1);
    // Every real pixel samples the stencil as the scaled Stencil does (trunc(x*sx + 0.5), clamped,
    // even for a scale of 1) and becomes 0 where that byte is 0.
    void Stencil(CSSEcharMatrix& stencil, float sx, float sy);
    // p = value where p is not above threshold (NaN included); higher pixels keep their height.
    // All lanes, padding included, like the other thresholds.
    void BinarizeBackground(float threshold, float value);
    // Real pixel (x, y) samples the mask at trunc((x - offsetX)*sx + 0.5), trunc((y - offsetY)*sy + 0.5)
    // and becomes 0 where that lies outside the mask or the mask value is below threshold.
    void MaskMatrix(const CSSEMatrix& mask, float threshold, int offsetX, int offsetY, float sx, float sy);
    // Real pixels of the common extent: p = value where mask < maskThreshold and lo < p < hi
    // holds (inside) or fails (!inside, NaN included).
    void MaskOutWithValue(const CSSEMatrix& mask, float lo, float hi, float maskThreshold, float value, bool inside);
    // Sum of sqrt(p*p) over the real pixels with lo < p < hi, accumulated like IntegrateMatrix.
    float IntegrateMatrixAbsolute(float lo, float hi);
    // Sum of p(x, y) + o(x + offsetX, y + offsetY) over the real pixels both matrices hold,
    // accumulated like IntegrateMatrix; 0 for a null other.
    float ComputeSumOfTwoMatrices(CSSEMatrix* other, int offsetX, int offsetY);
    // Over the common extent of this, a and b (all lanes): p = a - b, or 0 where a (onlyValidA)
    // or b (onlyValidB) is not above 0. this may be a or b.
    void CalcDifferenceMatrixConstrained(CSSEMatrix& a, CSSEMatrix& b, bool onlyValidA, bool onlyValidB);
    // QZSSE-OPEN-MEMBERS-END

    // --- framing, scaling, area fill and point search (CSSEMatrixFraming.cpp,
    // CSSEMatrixScale.cpp, CSSEMatrixAreaFill.cpp) -------------------------------------------
    // Resampling rules of ScaleMatrix.
    enum class ScaleMode { Nearest, Bilinear, Area };
    // This becomes src framed by left/top/right/bottom columns and rows of borderValue, src's
    // pixel (0, 0) landing at (left, top); negative margins are taken as 0. Padding rows are 0.
    void EmbedMatrix(const CSSEMatrix& src, int left, int top, int right, int bottom, float borderValue = 0.0f);
    // This becomes sizeX x sizeY (negative taken as 0) holding src(x0 + x, y0 + y); pixels that
    // fall outside src are 0, the empty pixel. Padding rows are 0.
    void ExtractFrame_nonSSE(const CSSEMatrix& src, int x0, int y0, int sizeX, int sizeY);
    // This becomes sizeX x sizeY resampled from src (which must not be this). Pixel centres map
    // as s = (d + 0.5) * srcSize / size - 0.5 per axis. Nearest takes the source pixel whose
    // centre span holds the point, trunc((2d + 1) * srcSize / (2 * size)) in integers.
    // Bilinear weighs the two source pixels around s (beyond the outer centres the outer pixel
    // alone), first along rows, then along columns. Area averages the source pixels the
    // target pixel covers, weighted by the covered fraction, where an axis shrinks; an axis
    // that grows is resampled bilinearly. 0.0 and NaN are ordinary values. Padding rows are 0.
    void ScaleMatrix(const CSSEMatrix& src, int sizeX, int sizeY, ScaleMode mode);
    // Flood fill from the seed (clamped into the image): the seed and every pixel connected
    // to it (4- or 8-connected) whose value v satisfies s - 0.002 <= v <= s + 0.002 for the
    // seed's old value s become value. Returns the number of pixels written (0 without pixels).
    int FillArea(int seedX, int seedY, float value, bool eightConnected);
    // First real pixel in row order (y, then x) with p > threshold (above) or p < threshold
    // (!above); NaN never qualifies. Without one, returns false and sets x = y = -1.
    bool FindFirstPoint(int& x, int& y, float threshold, bool above) const;

    // --- persistence: the versioned matrix stream, its archive form and files
    // (defined in qzsse/storage/) -------------------------------------------------------------
    static constexpr unsigned int c_uiStreamVersion = 4;
    // Also sets m_fMaxAbsCompressionError to the largest error a reader will see. Departures,
    // on purpose: more than 255 passes (methods 1-3) throw std::invalid_argument before
    // anything is written, where an 8-bit pass counter would never reach the end; a pass
    // or bit plane the image codecs cannot encode (a matrix without pixels under methods 2-4)
    // throws std::runtime_error, and a matrix without storage std::logic_error, both with
    // nothing written. An invalid value NaN matches every NaN.
    void Serialize(RbStreamWriteBinary& stream) const;
    // Serialize(stream) with the deflate of each PNG pass handed to pool as a task while the
    // caller's thread goes on with the next pass (or the error); the bytes and the error are
    // those of Serialize(stream). Null: everything on the caller's thread. Off unless asked.
    void Serialize(RbStreamWriteBinary& stream, class RbThreadPool* pool) const;
    void Serialize(RbStreamReadBinary& stream);
    // Untrusted bytes: impossible sizes, raw floats or pass images that the rest of the
    // stream cannot hold, and more than 255 passes throw RbStreamException before the matrix
    // is resized. After any exception the matrix is whole but may hold part of the data.
    void serialize(RbStreamReadBinary& stream, unsigned int version);
    // Loading falls back to the untagged version-1 form when the first item is not the
    // string "CSSEMatrix", including when it cannot be read as a string at all.
    void Serialize(CArchive& archive);
    // Writes a temporary file beside path and renames it over path only when complete
    // (a departure from writing in place, which lost the old file on failure). False if the
    // temporary file cannot be created or renamed, with path untouched; an exception while
    // writing propagates after the temporary file is removed, path untouched as well.
    bool Store(CString path);
    // False if the file cannot be opened; read errors throw (RbStreamException for bad bytes).
    bool Load(CString path);

protected:
    // --- codecs (defined in qzsse/storage/) --------------------------------------------------
    std::unique_ptr<RyFloatingPointQuantization> createAndEncodeQuantizer(bool withInvalid,
                                                                        RbStreamWriteBinary& stream) const;
    static std::unique_ptr<RyFloatingPointQuantization> createQuantizer(RbStreamReadBinary& stream,
                                                                        unsigned int version,
                                                                        bool& hasInvalid,
                                                                        float& invalidValue);
    RbArray<unsigned char> quantize(const RyFloatingPointQuantization& q) const;
    void deQuantize(const RyFloatingPointQuantization& q, const RbArray<unsigned char>& codes);
    void encode(const RbArray<unsigned char>& pixels, RbStreamWriteBinary& stream,
                qzsse::ImageContainer container, unsigned int bitsPerPixel,
                const qzsse::ImageEncodeOptions* options) const;
    static RbArray<unsigned char> decode(RbStreamReadBinary& stream, unsigned int bitsPerPixel,
                                         unsigned int& width, unsigned int& height);
    void encodePNG(RbStreamWriteBinary& stream) const;
    void encodeJPEG(RbStreamWriteBinary& stream) const;
    void encodeCCITT4(RbStreamWriteBinary& stream) const;
    void decodeCCIT4(RbStreamReadBinary& stream);
    void decodeCompressed(RbStreamReadBinary& stream, unsigned int version, bool& hasInvalid,
                          float& invalidValue);

    QzSCompressionParameters m_CompressionParameters;
    mutable float m_fMaxAbsCompressionError;
    int m_SizeX;
    int m_SizeY;
    int m_SSESizeX;
    int m_SSESizeY;
    int m_RowProcessed;
    int m_Fields;
    __m128* m_FieldData[c_iMaxFields];
    __m128** m_Data;
    CImgFromToArray m_FromToArray;

private:
    void allocate(int sizeX, int sizeY);
    int fieldBandCount(int field) const;
};

static_assert(sizeof(CSSEMatrix::QzSCompressionParameters) == 36, "nine 32-bit words");
