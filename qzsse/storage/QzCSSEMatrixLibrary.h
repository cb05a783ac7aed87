#pragma once

#include "qzsse/base/CFile.h"
#include "qzsse/base/CString.h"
#include "qzsse/base/RbArray.h"
#include "qzsse/base/RbMap.h"
#include "qzsse/matrix/CSSEMatrix.h"

class RbStreamReadBinary;
class RbStreamWriteBinary;

// A named store of matrices: entries are registered under ids (from matrix files, each
// with its own compression parameters and optionally a reference it is difference-coded
// against), written together into one store file, and read back one by one from it.
//
// Store file: string "SSEMatrixLibrary", version 2, the position map (uint32 count, then
// per entry id, int64 byte offset, reference id) and the entries' data in map order. An
// entry without reference is a matrix stream; an entry with one is a difference stream:
// one mode byte and the mode's data, made only of matrix streams. In every mode the
// writer first brings a copy of the matrix to the reference's size (cropped, or padded
// with 0); D is that copy minus the reference and e the entry's m_fMaxAbsError.
//
//   mode 0  D as one matrix stream with the entry's nine matrix parameters; the reader
//           adds the reference back. The error is whatever those parameters give.
//   mode 1  local changes. D as one PNG stream in which the pixels the reference
//           already holds (|D| <= e; with e = 0, D exactly 0) carry the stream's invalid
//           value c_fDifferenceCodingPNGSpecialValue. The reader takes the reference there
//           and reference + decoded D elsewhere.
//   mode 2  wide changes inside a sharp outline. The difference mask U (1 where |D| <= e,
//           as in mode 1) as a two-level (CCITT) stream; the body: D with the U pixels
//           filled in by smoothing from the changed ones, as a JPEG stream; then the
//           corrections: D - decoded body at the changed pixels where that misses e (the
//           high-entropy pixels), as a PNG stream whose other pixels hold the special
//           value. Reader: the reference at U pixels, elsewhere reference + (body +
//           correction).
//   mode 3  differences that are smooth apart from noise within e (re-surveys, drift):
//           the body is D smoothed over the whole image, as JPEG, and the corrections as
//           in mode 2 over all pixels; no mask. Noise beyond e turns into corrections.
//
// Modes 1 to 3 meet e wherever float arithmetic allows: the PNG streams take the
// smallest pass count (1 to 8) whose reconstruction is within e; with e = 0 (no bound)
// they use the entry's pass count. The body's JPEG quality is m_fDifferenceCodingParameter
// when that lies in (0, 1], else 0.25 (the corrections make up for a coarse body; the
// entry's m_fJPEGQuality belongs to mode 0). Smoothing is
// c_iNumberOfSmoothingIterations passes of p = (p + mean of the four neighbours) / 2,
// edges repeated. The entry's invalid value has no special meaning in difference coding.
class QzCSSEMatrixLibrary {
public:
    struct QzSCompressionParameters : CSSEMatrix::QzSCompressionParameters {
        QzSCompressionParameters() = default;
        explicit QzSCompressionParameters(const CSSEMatrix::QzSCompressionParameters& matrixParameters)
            : CSSEMatrix::QzSCompressionParameters(matrixParameters) {}
        virtual ~QzSCompressionParameters() = default;
        QzSCompressionParameters(const QzSCompressionParameters&) = default;
        QzSCompressionParameters& operator=(const QzSCompressionParameters&) = default;

        int m_iDifferenceCodingMode = 0;
        float m_fDifferenceCodingParameter = 0.0f;
    };

    struct SFileInfo {
        long long m_iPosition = -1;   // -1: registered from a matrix file, not in a store file
        CString m_strPath;
        CString m_strReferenceId;
        bool m_bHasOwnParameters = false;
        QzSCompressionParameters m_Parameters;
    };

    static constexpr unsigned int c_uiStoreVersion = 2;
    static constexpr int c_iNumberOfSmoothingIterations = 100;
    static constexpr float c_fDifferenceCodingPNGSpecialValue = 3.4028235e38f;

    QzCSSEMatrixLibrary();
    virtual ~QzCSSEMatrixLibrary();
    QzCSSEMatrixLibrary(const QzCSSEMatrixLibrary&) = delete;
    QzCSSEMatrixLibrary& operator=(const QzCSSEMatrixLibrary&) = delete;

    // Opens a store file and reads its map. False for a missing file or one without the
    // magic; a newer version, or a map with more entries or positions than the file can
    // hold, throws RbStreamException.
    bool Init(const CString& path);
    bool AddSSEMatrix(const CString& id, const CString& path, const CString& referenceId,
                      const QzSCompressionParameters& params);
    bool AddSSEMatrix(const CString& id, const CString& path, const CSSEMatrix::QzSCompressionParameters& params);
    bool AddSSEMatrix(const CString& id, const CString& path);
    // A registered entry comes from its matrix file as it is; a stored one from the store
    // file, where a read that fails without an exception is not reported (true). Damaged
    // bytes throw RbStreamException. References nest at most c_iMaxReferenceDepth deep
    // (deeper chains, or cycles in a damaged file, fail).
    bool LoadSSEMatrix(const CString& id, CSSEMatrix& matrix);
    RbArray<CString> GetIDs() const;
    unsigned int GetNumberOfEntries() const;
    const QzSCompressionParameters& GetDefaultCompressionParameters() const;
    void SetDefaultCompressionParameters(const QzSCompressionParameters& params);
    float GetMaxAbsCompressionError() const;
    // Writes a temporary file beside path and renames it over path only when every entry
    // was written; a failed Store (also one that meets an exception) returns false and
    // leaves an existing file untouched, so a library may store over the file it reads.
    bool Store(const CString& path) const;

protected:
    using PositionMap = RbMap<CString, SFileInfo>;

    bool loadSSEMatrix(const CString& id, CSSEMatrix& matrix, bool asStored) const;
    static void serializePositionMap(RbStreamWriteBinary& stream, const PositionMap& map);
    void serializePositionMap(RbStreamReadBinary& stream, unsigned int version);

    bool serializeMatrix(RbStreamWriteBinary& stream, const CSSEMatrix& matrix, const SFileInfo& entry,
                         float& error) const;
    bool serializeMatrix(RbStreamReadBinary& stream, CSSEMatrix& matrix, const CString& referenceId) const;
    static bool serializeMatrix(RbStreamWriteBinary& stream, const CSSEMatrix& matrix,
                                const CSSEMatrix::QzSCompressionParameters& params, float& error);
    static bool serializeMatrix(RbStreamReadBinary& stream, CSSEMatrix& matrix);
    // The difference coder (rules above).
    bool serializeMatrix(RbStreamWriteBinary& stream, const CSSEMatrix& matrix, const CSSEMatrix& reference,
                         const QzSCompressionParameters& params, float& error) const;
    bool serializeMatrix(RbStreamReadBinary& stream, CSSEMatrix& matrix, const CSSEMatrix& reference) const;

    // --- pieces of the difference coder -----------------------------------------------------
    // The mode writers and readers (QzCSSEMatrixDifferenceCoder.cpp).
    struct DifferenceCoder;

    static constexpr int c_iMaxReferenceDepth = 64;

    // out = matrix brought to the reference's size: cropped, or padded with 0; the
    // matrix's compression parameters are kept.
    static void enforceMatrixSize(const CSSEMatrix& matrix, const CSSEMatrix& reference, CSSEMatrix& out);
    // Comparisons with value treat NaN as equal to NaN. Every lane is processed, padding
    // included; mask, matrix and out take the size of the first input.
    // mask = 1.0 where src equals value, else 0.0.
    static bool createMask(const CSSEMatrix& src, CSSEMatrix& mask, float value);
    // matrix = value where mask is not 0; false on a size mismatch.
    static bool applyMask(CSSEMatrix& matrix, const CSSEMatrix& mask, float value);
    // out = a where b equals value, else b; false on a size mismatch. out may be a or b.
    static bool assembleMatrix(const CSSEMatrix& a, const CSSEMatrix& b, CSSEMatrix& out, float value);
    // iterations smoothing passes over the real pixels. With known given, pixels where
    // known is not c_fDifferenceCodingPNGSpecialValue are reset to it after every pass, so
    // only the others are filled in.
    static void smooth(CSSEMatrix& matrix, const CSSEMatrix* known, int iterations);
    // One smoothing pass over band `band` of src into dst (same size). Padding rows of src
    // must repeat the last real row.
    static void smoothBlock(const CSSEMatrix& src, CSSEMatrix& dst, int band);
    // unchanged = 1.0 where |difference| <= maxAbsError (where it is 0 when the bound is
    // 0), else 0.0, written as a two-level matrix stream.
    static void createAndSerializeDifferenceMask(RbStreamWriteBinary& stream, const CSSEMatrix& difference,
                                                 float maxAbsError, CSSEMatrix& unchanged);
    // corrections = residual where |residual| > maxAbsError and unchanged (if given) is 0,
    // else c_fDifferenceCodingPNGSpecialValue; it carries pngParameters for writing.
    static void createHighEntropyMask(const CSSEMatrix& residual, const CSSEMatrix* unchanged, float maxAbsError,
                                      const CSSEMatrix::QzSCompressionParameters& pngParameters,
                                      CSSEMatrix& corrections);

    QzSCompressionParameters m_DefaultParameters;
    PositionMap m_PositionMap;
    unsigned int m_uiStoreVersion = 0;
    mutable CFile m_File;
    mutable float m_fMaxAbsCompressionError = 0.0f;
    // Nesting of loadSSEMatrix through references, against cycles and unbounded recursion.
    mutable int m_iLoadDepth = 0;
};
