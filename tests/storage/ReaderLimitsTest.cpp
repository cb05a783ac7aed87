// Reader limits: small inputs that ask for huge matrices fail at once, naming the sizes,
// and the caller's limits move the bounds.

#include <ctime>
#include <functional>

#include "qzsse/storage/ReaderLimits.h"
#include "qzsse/storage/detail/ImageCodecs.h"
#include "storage/StorageTestUtil.h"

namespace qzsse::storagetest {
namespace {

// Restores the default limits when a test ends, whatever it set.
struct DefaultLimitsAfter {
    ~DefaultLimitsAfter() { SetReaderLimits(ReaderLimits{}); }
};

// CPU seconds of this thread: other work on a shared machine does not count.
double ThreadSeconds()
{
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

std::string StreamError(const Bytes& bytes)
{
    CSSEMatrix m = Rows(1, {3});
    try {
        ReadStream(m, bytes);
    } catch (const RbStreamException& e) {
        EXPECT_EQ(Pixels(m), std::vector<float>{3}) << "the matrix changed before the refusal";
        return e.what();
    }
    return "read without error";
}

TEST(ReaderLimits, SmallInputsAskingForGigabytesAreRefusedAtOnceNamingTheSizes)
{
    ScratchDir dir;
    // A bit-plane matrix of 138000 x 31999 (17.7 GB of floats) in a tagged archive.
    WriteFileBytes(dir.File("big.ssem"), ByteWriter().archiveString("CSSEMatrix").u32(4).i32(138000).i32(31999)
                                             .u8(4).f32(1).f32(0).bytes(Bytes(300, 0x2A)).get());
    // A store whose one entry is a bit-plane matrix of 25000 x 31999 (3.2 GB).
    const Bytes entry = ByteWriter().u32(4).i32(25000).i32(31999).u8(4).f32(1).f32(0).u32(0).get();
    const Bytes head = ByteWriter().str("SSEMatrixLibrary").u32(2).u32(1).str("big").i64(0).str("").get();
    WriteFileBytes(dir.File("big.lib"), ByteWriter().str("SSEMatrixLibrary").u32(2).u32(1).str("big")
                                            .i64(static_cast<std::int64_t>(head.size())).str("").bytes(entry).get());

    struct Case {
        const char* what;
        std::function<std::string()> read;
        const char* size;
    };
    const Case cases[] = {
        // 15 bytes: an unknown method, whose matrix is only created (8.3 GB).
        {"stream of an unknown method", [] { return StreamError(ByteWriter().u32(4).i32(65000).i32(31999).u8(9).u8(0).u8(0).get()); },
         "65000 x 31999"},
        // 17 bytes: PNG passes, none of them (a matrix and its mask, 3.5 GB).
        {"stream without passes", [] { return StreamError(ByteWriter().u32(4).i32(27000).i32(31999).u8(2).u32(0).get()); },
         "27000 x 31999"},
        {"archive", [&] {
             CSSEMatrix m;
             try {
                 m.Load(dir.File("big.ssem"));
             } catch (const RbStreamException& e) {
                 return std::string(e.what());
             }
             return std::string("read without error");
         }, "138000 x 31999"},
        {"store entry", [&] {
             QzCSSEMatrixLibrary library;
             CSSEMatrix m;
             try {
                 if (!library.Init(dir.File("big.lib")))
                     return std::string("not a store file");
                 library.LoadSSEMatrix("big", m);
             } catch (const RbStreamException& e) {
                 return std::string(e.what());
             }
             return std::string("read without error");
         }, "25000 x 31999"},
    };
    for (const Case& c : cases) {
        const double start = ThreadSeconds();
        const std::string message = c.read();
        const double seconds = ThreadSeconds() - start;
        EXPECT_NE(message.find(c.size), std::string::npos) << c.what << ": " << message;
        EXPECT_NE(message.find("limit"), std::string::npos) << c.what << ": " << message;
        EXPECT_LT(seconds, 1.0) << c.what;
    }
}

TEST(ReaderLimits, TheDefaultAdmitsTheTallestMatricesOfTheFormatAndTheCallerMovesTheBound)
{
    const DefaultLimitsAfter restore;
    // Raw streams without their floats: within the limit the reader goes on to find the
    // payload missing, above it the limit refuses the size first.
    const auto raw = [](int width, int height) { return ByteWriter().u32(4).i32(width).i32(height).u8(0).get(); };
    struct Case {
        unsigned long long limit;   // 0: the default
        int width, height;
        bool withinLimit;
    };
    const Case cases[] = {
        {0, 4194, 31999, true},   {0, 4195, 31999, false}, {0, 32768, 4095, true}, {0, 32769, 4095, false},
        {1000, 50, 19, true},     {1000, 50, 20, false},   // 20 rows are stored as 24
        {1000, 1001, 0, false},   // the padding band of a matrix without rows costs 4 rows
    };
    for (const Case& c : cases) {
        SetReaderLimits({c.limit, 0});
        const std::string message = StreamError(raw(c.width, c.height));
        EXPECT_EQ(message.find("limit") == std::string::npos, c.withinLimit)
            << c.width << " x " << c.height << " under " << c.limit << ": " << message;
    }
    SetReaderLimits({1000, 64});
    EXPECT_EQ(GetReaderLimits().maxMatrixPixels, 1000u);
    EXPECT_EQ(GetReaderLimits().maxDecodedBytes, 64u);
    SetReaderLimits({0, 0});
    EXPECT_EQ(GetReaderLimits().maxMatrixPixels, ReaderLimits::c_ullDefaultMaxMatrixPixels);
    EXPECT_EQ(GetReaderLimits().maxDecodedBytes, ReaderLimits::c_ullDefaultMaxDecodedBytes);
}

TEST(ReaderLimits, PassImagesAboveTheDecodedLimitDecodeToNothingAndAboveTheMatrixLimitAreRefused)
{
    const DefaultLimitsAfter restore;
    const CSSEMatrix source = MatrixOf(16, 8, [](int x, int y) { return static_cast<float>(x * y); });
    CSSEMatrix coded(source);
    coded.GetCompressionParameters().m_eMethod = 2;
    const Bytes bytes = StreamBytes(coded);
    for (const unsigned long long limit : {128ull, 127ull}) {   // the pass image is 16 x 8 bytes
        SetReaderLimits({0, limit});
        CSSEMatrix back;
        ReadStream(back, bytes);
        if (limit == 128)
            EXPECT_LE(MaxAbsError(source, back), coded.GetMaxAbsCompressionError() + 1e-4f);
        else
            EXPECT_EQ(Pixels(back), std::vector<float>(16 * 8, 0.0f));
    }
    // The same pass under a 2 x 2 header: the matrix is within a limit of 100 pixels, its
    // 16 x 8 pass image (16 x 12 stored) is not.
    Bytes small = bytes;
    small[4] = 2;
    small[8] = 2;
    SetReaderLimits({100, 0});
    CSSEMatrix refused;
    try {
        ReadStream(refused, small);
        ADD_FAILURE() << "read without error";
    } catch (const RbStreamException& e) {
        EXPECT_NE(std::string(e.what()).find("pass image"), std::string::npos) << e.what();
    }
    // Within the limit the pass reaches the common part, as the full-size read has it.
    SetReaderLimits({200, 0});
    CSSEMatrix whole;
    ReadStream(whole, bytes);
    CSSEMatrix corner;
    ReadStream(corner, small);
    EXPECT_EQ(Pixels(corner), (std::vector<float>{whole.GetPoint(0, 0), whole.GetPoint(1, 0), whole.GetPoint(0, 1),
                                                 whole.GetPoint(1, 1)}));
}

// 255 passes whose images cannot be decoded but claim the matrix's size: with zero as the
// invalid value each settles the whole matrix, which only the first needs to do.
TEST(ReaderLimits, RepeatedUndecodablePassesCostTheirBytesNotTheMatrixEachTime)
{
    const int side = 3000;
    // A valid 1-bit image of the matrix's size, which an 8-bit pass cannot use.
    std::vector<unsigned char> plane(static_cast<size_t>(side + 7) / 8 * side, 0);
    std::vector<unsigned char> tiff;
    ASSERT_TRUE(detail::EncodeTiffBilevelG4(plane.data(), side, side, tiff));
    // Zeros in place of the coded rows (which follow the 8-byte header): the header still
    // reads, the rows do not.
    std::fill(tiff.begin() + 8, tiff.begin() + 72, 0);
    const detail::DecodedImage damaged = detail::DecodeTiff(tiff.data(), tiff.size());
    ASSERT_EQ(damaged.width, static_cast<unsigned>(side));
    ASSERT_TRUE(damaged.pixels.empty());
    CodecAccess q(Rows(2, {0, 5}));
    q.GetCompressionParameters().m_bUseInvalidValue = true;
    RbStreamWriteBinaryBuffer quantizer;
    q.createAndEncodeQuantizer(true, quantizer);

    const auto stream = [&](unsigned passes) {
        ByteWriter w;
        w.u32(4).i32(side).i32(side).u8(2).u32(passes);
        for (unsigned k = 0; k < passes; ++k)
            w.bytes(quantizer.GetBytes()).str(std::string(tiff.begin(), tiff.end()));
        return w.get();
    };
    const auto timedRead = [&](unsigned passes, CSSEMatrix& m) {
        const Bytes bytes = stream(passes);
        const double start = ThreadSeconds();
        ReadStream(m, bytes);
        return ThreadSeconds() - start;
    };
    // 20 passes hold the bytes this size needs at the least; 255 may cost a few times more
    // for their bytes, not 13 times for their passes.
    CSSEMatrix few;
    CSSEMatrix many;
    const double fewSeconds = timedRead(20, few);
    const double manySeconds = timedRead(255, many);
    EXPECT_EQ(Bits(many), Bits(few));
    EXPECT_LT(manySeconds, 4 * fewSeconds);
}

} // namespace
} // namespace qzsse::storagetest
