#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>

#include <gtest/gtest.h>
#include <png.h>
#include <zlib.h>

#include "qzsse/storage/detail/PngGrey8Direct.h"
#include "qzsse/base/RbStreamWriteBinaryBuffer.h"
#include "storage/StorageTestUtil.h"

using namespace qzsse::storagetest;
using qzsse::detail::DecodedImage;

namespace {

// PNGs put together here from the format's own rules (CRC-32, Adler-32, stored deflate
// blocks, the five row filters), independently of the codecs under test.
std::uint32_t Crc32(const unsigned char* p, size_t n)
{
    std::uint32_t c = 0xFFFFFFFFu;
    for (size_t i = 0; i < n; ++i) {
        c ^= p[i];
        for (int k = 0; k < 8; ++k)
            c = c & 1 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
    }
    return ~c;
}

void PutU32(Bytes& b, std::uint32_t v)
{
    for (int s = 24; s >= 0; s -= 8)
        b.push_back(static_cast<unsigned char>(v >> s));
}

void PutChunk(Bytes& file, const char* type, const Bytes& data)
{
    PutU32(file, static_cast<std::uint32_t>(data.size()));
    Bytes body(type, type + 4);
    body.insert(body.end(), data.begin(), data.end());
    file.insert(file.end(), body.begin(), body.end());
    PutU32(file, Crc32(body.data(), body.size()));
}

// A zlib stream of stored blocks.
Bytes StoredZlib(const Bytes& raw)
{
    Bytes z = {0x78, 0x01};
    size_t at = 0;
    do {
        const size_t n = std::min<size_t>(raw.size() - at, 65535);
        z.push_back(at + n == raw.size() ? 1 : 0);
        z.push_back(static_cast<unsigned char>(n));
        z.push_back(static_cast<unsigned char>(n >> 8));
        z.push_back(static_cast<unsigned char>(~n));
        z.push_back(static_cast<unsigned char>(~n >> 8));
        z.insert(z.end(), raw.begin() + static_cast<std::ptrdiff_t>(at), raw.begin() + static_cast<std::ptrdiff_t>(at + n));
        at += n;
    } while (at < raw.size());
    std::uint32_t a = 1, b = 0;
    for (unsigned char c : raw) {
        a = (a + c) % 65521;
        b = (b + a) % 65521;
    }
    PutU32(z, b << 16 | a);
    return z;
}

int Paeth(int a, int b, int c)
{
    const int p = a + b - c, pa = std::abs(p - a), pb = std::abs(p - b), pc = std::abs(p - c);
    return pa <= pb && pa <= pc ? a : pb <= pc ? b : c;
}

// Row y filtered with filters[y % filters.size()].
Bytes Filtered(const Bytes& pixels, unsigned width, unsigned height, const std::vector<int>& filters)
{
    Bytes out;
    for (unsigned y = 0; y < height; ++y) {
        const int f = filters[y % filters.size()];
        out.push_back(static_cast<unsigned char>(f));
        for (unsigned x = 0; x < width; ++x) {
            const auto at = [&](unsigned xx, unsigned yy) { return static_cast<int>(pixels[yy * width + xx]); };
            const int a = x > 0 ? at(x - 1, y) : 0, b = y > 0 ? at(x, y - 1) : 0;
            const int c = x > 0 && y > 0 ? at(x - 1, y - 1) : 0;
            const int predictor = f == 0 ? 0 : f == 1 ? a : f == 2 ? b : f == 3 ? (a + b) / 2 : Paeth(a, b, c);
            out.push_back(static_cast<unsigned char>(at(x, y) - predictor));
        }
    }
    return out;
}

struct Layout {
    std::vector<int> filters;
    int idatChunks = 1;
    bool textChunk = false;   // an ancillary chunk before the image data
};

Bytes HandMadePng(const Bytes& pixels, unsigned width, unsigned height, const Layout& layout)
{
    Bytes file = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    Bytes ihdr;
    PutU32(ihdr, width);
    PutU32(ihdr, height);
    ihdr.insert(ihdr.end(), {8, 0, 0, 0, 0});
    PutChunk(file, "IHDR", ihdr);
    if (layout.textChunk)
        PutChunk(file, "tEXt", Bytes{'C', 'o', 'm', 'm', 'e', 'n', 't', 0, 'h', 'i'});
    const Bytes z = StoredZlib(Filtered(pixels, width, height, layout.filters));
    const size_t part = (z.size() + static_cast<size_t>(layout.idatChunks) - 1) / static_cast<size_t>(layout.idatChunks);
    for (size_t at = 0; at < z.size(); at += part)
        PutChunk(file, "IDAT", Bytes(z.begin() + static_cast<std::ptrdiff_t>(at),
                                     z.begin() + static_cast<std::ptrdiff_t>(std::min(z.size(), at + part))));
    PutChunk(file, "IEND", {});
    return file;
}

Bytes Noise(size_t n, unsigned seed, int low, int high)
{
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> value(low, high);
    Bytes b(n);
    for (unsigned char& c : b)
        c = static_cast<unsigned char>(value(rng));
    return b;
}

// A smooth terrain-like surface of codes.
Bytes SmoothSurface(unsigned width, unsigned height)
{
    Bytes smooth(width * height);
    for (unsigned y = 0; y < height; ++y)
        for (unsigned x = 0; x < width; ++x)
            smooth[y * width + x] = static_cast<unsigned char>(127.5 + 120.0 * std::sin(x / 90.0) * std::cos(y / 70.0));
    return smooth;
}

DecodedImage Direct(const Bytes& file)
{
    DecodedImage image;
    image.maxBytes = 1ull << 30;
    qzsse::detail::ReadSimplePngGrey8(file.data(), file.size(), image);
    return image;
}

// libpng's own reading, the reference for what a reader of our payloads sees.
Bytes ThroughLibpng(const Bytes& file, unsigned& width, unsigned& height)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&image, file.data(), file.size()))
        return {};
    image.format = PNG_FORMAT_GRAY;
    Bytes pixels(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr))
        return {};
    width = image.width;
    height = image.height;
    return pixels;
}

void AppendBytes(png_structp png, png_bytep data, size_t n)
{
    auto* out = static_cast<Bytes*>(png_get_io_ptr(png));
    out->insert(out->end(), data, data + n);
}

// libpng with Paeth rows and zlib's run-length deflate: the payloads stores held before.
Bytes LibpngPaethRuns(const unsigned char* pixels, unsigned width, unsigned height)
{
    Bytes out;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_set_write_fn(png, &out, AppendBytes, [](png_structp) {});
    png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_set_filter(png, PNG_FILTER_TYPE_BASE, PNG_FILTER_PAETH);
    png_set_compression_strategy(png, Z_RLE);
    png_write_info(png, info);
    for (unsigned y = 0; y < height; ++y)
        png_write_row(png, pixels + static_cast<size_t>(y) * width);
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return out;
}

} // namespace

TEST(PngDirect, PassesOfTheRealDemAreNoLargerThanLibpngPaethRuns)
{
    // The DEM's first pass and the residual a second pass codes at the bound 0.5.
    RbStreamWriteBinaryBuffer descriptions;
    CodecAccess dem(JacksboroHeights());
    const auto q = dem.createAndEncodeQuantizer(false, descriptions);
    const RbArray<unsigned char> first = dem.quantize(*q);
    CodecAccess firstValues;
    firstValues.Create(dem.GetSizeX(), dem.GetSizeY());
    firstValues.deQuantize(*q, first);
    CodecAccess residual(dem);
    residual.SubMatrix(firstValues);
    residual.GetCompressionParameters().m_fMaxAbsError = 0.5f;
    const RbArray<unsigned char> second = residual.quantize(*residual.createAndEncodeQuantizer(false, descriptions));
    const unsigned width = static_cast<unsigned>(dem.GetSizeX()), height = static_cast<unsigned>(dem.GetSizeY());
    for (const RbArray<unsigned char>* codes : {&first, &second}) {
        Bytes ours;
        ASSERT_TRUE(qzsse::detail::WritePngGrey8Direct(codes->GetData(), width, height, ours));
        EXPECT_LE(ours.size(), LibpngPaethRuns(codes->GetData(), width, height).size());
        EXPECT_EQ(Direct(ours).pixels, Bytes(codes->begin(), codes->end()));
    }
}

TEST(PngDirect, ReadsEveryRowFilterOfOneIdatAndLeavesOtherLayoutsToLibpng)
{
    const unsigned width = 37, height = 9;
    const Bytes pixels = Noise(width * height, 3, 0, 255);
    const struct {
        Layout layout;
        bool direct;
    } cases[] = {
        {{{0}}, true},           {{{1}}, true}, {{{2}}, true}, {{{3}}, true}, {{{4}}, true},
        {{{4, 3, 2, 1, 0}}, true}, {{{2}, 3}, false}, {{{2}, 1, true}, false},
    };
    for (const auto& c : cases) {
        const Bytes file = HandMadePng(pixels, width, height, c.layout);
        const DecodedImage direct = Direct(file);
        EXPECT_EQ(!direct.pixels.empty(), c.direct) << c.layout.filters[0] << " " << c.layout.idatChunks;
        if (c.direct) {
            EXPECT_EQ(direct.pixels, pixels);
        }
        const DecodedImage decoded = qzsse::detail::DecodePng(file.data(), file.size());
        EXPECT_EQ(decoded.pixels, pixels) << c.layout.filters[0] << " " << c.layout.idatChunks;
        EXPECT_EQ(std::tuple(decoded.width, decoded.height, decoded.bitsPerPixel), std::tuple(width, height, 8u));
    }
}

TEST(PngDirect, DamagedPayloadsAreRefusedByBothReaders)
{
    const Bytes good = HandMadePng(Noise(20 * 6, 4, 0, 255), 20, 6, {{2}});
    const size_t idatData = 8 + 25 + 8;
    const auto damaged = [&](size_t at, unsigned char value) {
        Bytes b = good;
        b.at(at) = value;
        return b;
    };
    const Bytes cases[] = {
        damaged(idatData + 20, static_cast<unsigned char>(good[idatData + 20] ^ 1)),   // IDAT CRC fails
        damaged(8 + 8 + 8, 16),                                                           // 16-bit in IHDR, CRC fails
        Bytes(good.begin(), good.end() - 12),                                             // no IEND
        HandMadePng(Noise(20 * 6, 4, 0, 255), 20, 6, {{5}}),                              // filter type 5
    };
    for (const Bytes& file : cases) {
        EXPECT_TRUE(Direct(file).pixels.empty());
        EXPECT_TRUE(qzsse::detail::DecodePng(file.data(), file.size()).pixels.empty());
    }
}

TEST(PngDirect, WrittenPayloadsOfBothDeflatesPassPngcheckAndLibpng)
{
    // A smooth surface and residual noise, each large enough to be judged on a sample.
    const unsigned width = 700, height = 500;
    const Bytes smooth = SmoothSurface(width, height);
    const Bytes noise = Noise(width * height, 5, 124, 131);   // a residual of a few codes
    bool seen[2] = {false, false};
    for (const Bytes* pixels : std::array<const Bytes*, 2>{&smooth, &noise}) {
        Bytes file;
        qzsse::detail::PngDeflate used{};
        ASSERT_TRUE(qzsse::detail::WritePngGrey8Direct(pixels->data(), width, height, file, &used));
        seen[static_cast<int>(used)] = true;
        unsigned w = 0, h = 0;
        EXPECT_EQ(ThroughLibpng(file, w, h), *pixels);
        EXPECT_EQ(std::tuple(w, h), std::tuple(width, height));
        EXPECT_EQ(Direct(file).pixels, *pixels);
        if (std::filesystem::exists("/usr/bin/pngcheck")) {
            ScratchDir dir;
            WriteFileBytes(dir.File("p.png"), file);
            EXPECT_EQ(std::system(("/usr/bin/pngcheck -q " + dir.File("p.png") + " > /dev/null").c_str()), 0);
        }
    }
    EXPECT_TRUE(seen[0] && seen[1]) << "the two images should take both deflates: " << seen[0] << seen[1];
}

TEST(PngDirect, WrittenRowsAreTheReferenceFilterOfTheirFilterByte)
{
    // Crops of the DEM's codes (real terrain, where Paeth rows are chosen) at widths around
    // the 16-byte steps of the row filters, and smooth ramps, where Up rows are.
    RbStreamWriteBinaryBuffer descriptions;
    CodecAccess dem(JacksboroHeights());
    const RbArray<unsigned char> codes = dem.quantize(*dem.createAndEncodeQuantizer(false, descriptions));
    const unsigned demWidth = static_cast<unsigned>(dem.GetSizeX());
    int paethImages = 0, upImages = 0;
    for (const unsigned width : {1u, 2u, 16u, 17u, 31u, 33u, 48u, 403u})
        for (const unsigned height : {1u, 3u, 200u})
            for (const bool ramp : {false, true}) {
                Bytes pixels(static_cast<size_t>(width) * height);
                for (unsigned y = 0; y < height; ++y)
                    for (unsigned x = 0; x < width; ++x)
                        pixels[y * width + x] = ramp ? static_cast<unsigned char>(x + 2 * y)
                                                     : codes.GetData()[(y + 50) * demWidth + x];
                Bytes file;
                ASSERT_TRUE(qzsse::detail::WritePngGrey8Direct(pixels.data(), width, height, file));
                const size_t idatLength = static_cast<size_t>(file[33]) << 24 | file[34] << 16 | file[35] << 8 | file[36];
                uLongf filteredBytes = (width + 1) * height;
                Bytes filtered(filteredBytes);
                ASSERT_EQ(uncompress(filtered.data(), &filteredBytes, file.data() + 41, idatLength), Z_OK);
                ASSERT_EQ(filteredBytes, filtered.size());
                const int filter = filtered[0];
                ASSERT_TRUE(filter == 2 || filter == 4) << filter;
                (filter == 4 ? paethImages : upImages) += 1;
                EXPECT_EQ(filtered, Filtered(pixels, width, height, {filter})) << width << " x " << height;
            }
    EXPECT_GT(paethImages, 0);
    EXPECT_GT(upImages, 0);
}

namespace {

// zlib's literal-only deflate (Huffman codes, no matches) of raw, independently of our writer.
Bytes HuffmanOnlyZlib(const Bytes& raw)
{
    z_stream z{};
    EXPECT_EQ(deflateInit2(&z, 6, Z_DEFLATED, 15, 8, Z_HUFFMAN_ONLY), Z_OK);
    Bytes out(deflateBound(&z, static_cast<uLong>(raw.size())));
    z.next_in = const_cast<unsigned char*>(raw.data());
    z.avail_in = static_cast<uInt>(raw.size());
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(deflate(&z, Z_FINISH), Z_STREAM_END);
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

Bytes PngOfZlib(unsigned width, unsigned height, const Bytes& zlib)
{
    Bytes file = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    Bytes ihdr;
    PutU32(ihdr, width);
    PutU32(ihdr, height);
    ihdr.insert(ihdr.end(), {8, 0, 0, 0, 0});
    PutChunk(file, "IHDR", ihdr);
    PutChunk(file, "IDAT", zlib);
    PutChunk(file, "IEND", {});
    return file;
}

// The rows of file through PngGrey8Rows, `step` rows per call; empty when it refuses them.
Bytes ByRows(const Bytes& file, unsigned step, bool* literalOnly = nullptr)
{
    qzsse::detail::PngGrey8Rows rows;
    if (!rows.Open(file.data(), file.size(), 1ull << 30))
        return {};
    if (literalOnly)
        *literalOnly = rows.LiteralOnly();
    Bytes pixels(static_cast<size_t>(rows.Width()) * rows.Height());
    for (unsigned y = 0; y < rows.Height(); y += step) {
        const unsigned n = std::min(step, rows.Height() - y);
        if (!rows.ReadRows(pixels.data() + static_cast<size_t>(y) * rows.Width(), n))
            return {};
    }
    return rows.Finish() ? pixels : Bytes{};
}

} // namespace

TEST(PngDirect, RowReaderGivesLibpngsRowsInAnyStepAndTellsLiteralOnlyStreams)
{
    const unsigned width = 700, height = 500;
    const Bytes smooth = SmoothSurface(width, height);
    const Bytes noise = Noise(width * height, 5, 124, 131);
    for (const Bytes* pixels : std::array<const Bytes*, 2>{&smooth, &noise}) {
        Bytes written;
        qzsse::detail::PngDeflate used{};
        ASSERT_TRUE(qzsse::detail::WritePngGrey8Direct(pixels->data(), width, height, written, &used));
        // zlib's literal-only deflate: every filter, and runs of Paeth rows of every length.
        const auto huffman = [&](const std::vector<int>& filters) {
            return PngOfZlib(width, height, HuffmanOnlyZlib(Filtered(*pixels, width, height, filters)));
        };
        const struct {
            Bytes file;
            bool literalOnly;
        } cases[] = {{written, used == qzsse::detail::PngDeflate::Literals},
                     {huffman({0, 1, 2, 3, 4}), true},
                     {huffman({4, 4, 4, 4, 4, 4, 4, 2, 4, 4, 1, 4, 0, 4, 4, 4}), true}};
        for (const auto& c : cases) {
            unsigned w = 0, h = 0;
            ASSERT_EQ(ThroughLibpng(c.file, w, h), *pixels);
            for (const unsigned step : {1u, 7u, 16u, height}) {
                bool literalOnly = !c.literalOnly;
                EXPECT_EQ(ByRows(c.file, step, &literalOnly), *pixels) << step;
                EXPECT_EQ(literalOnly, c.literalOnly);
            }
        }
    }
}

TEST(PngDirect, DamagedLiteralOnlyStreamsAreRefusedByTheDirectReadersAndLeftToLibpng)
{
    const unsigned width = 40, height = 30;
    const Bytes pixels = Noise(width * height, 6, 0, 255);
    const Bytes zlib = HuffmanOnlyZlib(Filtered(pixels, width, height, {4}));
    const auto changed = [&](size_t at) {
        Bytes z = zlib;
        z.at(at) ^= 0x21;
        return z;
    };
    Bytes longer = zlib;
    longer.push_back(0);
    const Bytes cases[] = {
        changed(zlib.size() - 1),                                                   // Adler-32
        changed(zlib.size() / 2),                                                   // a code inside the block
        longer,                                                                     // a byte after the stream
        Bytes(zlib.begin(), zlib.end() - 5),                                        // cut inside the block
        HuffmanOnlyZlib(Filtered(Bytes(pixels.begin(), pixels.end() - width), width, height - 1, {4})),   // a row short
    };
    for (const Bytes& z : cases) {
        const Bytes file = PngOfZlib(width, height, z);
        unsigned w = 0, h = 0;
        const Bytes libpng = ThroughLibpng(file, w, h);
        EXPECT_TRUE(ByRows(file, 16).empty());
        EXPECT_TRUE(Direct(file).pixels.empty());
        EXPECT_EQ(qzsse::detail::DecodePng(file.data(), file.size()).pixels, libpng);
    }
}
