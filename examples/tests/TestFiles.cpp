#include "tests/TestFiles.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include <png.h>
#include <tiffio.h>

namespace demotest {

void WriteNpy(const fs::path& path, const Grid& grid, const std::string& dtype, const std::vector<int>& shape)
{
    std::string shapeText = "(";
    size_t count = 1;
    for (const int s : shape) {
        shapeText += std::to_string(s) + ", ";
        count *= static_cast<size_t>(s);
    }
    if (shape.size() > 1)
        shapeText.resize(shapeText.size() - 2);
    else
        shapeText.resize(shapeText.size() - 1);
    shapeText += ")";
    std::string header = "{'descr': '" + dtype + "', 'fortran_order': False, 'shape': " + shapeText + ", }";
    while ((10 + header.size() + 1) % 64 != 0)
        header += ' ';
    header += '\n';
    std::string bytes = "\x93NUMPY";
    bytes += '\x01';
    bytes += '\x00';
    bytes += static_cast<char>(header.size() & 0xFF);
    bytes += static_cast<char>(header.size() >> 8);
    bytes += header;
    for (size_t i = 0; i < count; ++i) {
        const float v = grid.values[i % grid.values.size()];
        if (dtype == "<f4") {
            char b[4];
            std::memcpy(b, &v, 4);
            bytes.append(b, 4);
        } else if (dtype == "<f8") {
            const double d = v;
            char b[8];
            std::memcpy(b, &d, 8);
            bytes.append(b, 8);
        } else {
            const auto s = static_cast<std::int16_t>(std::lround(v));
            bytes += static_cast<char>(s & 0xFF);
            bytes += static_cast<char>((s >> 8) & 0xFF);
        }
    }
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

namespace {

void writePng(const fs::path& path, int width, int height, int bitDepth, int colourType, const std::vector<unsigned char>& pixels)
{
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file)
        throw std::runtime_error("cannot create " + path.string());
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        std::fclose(file);
        throw std::runtime_error("libpng failed on " + path.string());
    }
    png_init_io(png, file);
    png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), bitDepth, colourType,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    const size_t rowBytes = pixels.size() / static_cast<size_t>(height);
    for (int y = 0; y < height; ++y)
        png_write_row(png, pixels.data() + rowBytes * static_cast<size_t>(y));
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    std::fclose(file);
}

} // namespace

void WritePngGrey(const fs::path& path, const Grid& grid, int bitDepth)
{
    std::vector<unsigned char> pixels;
    for (const float v : grid.values) {
        const long q = std::clamp(std::lround(v), 0L, bitDepth == 8 ? 255L : 65535L);
        if (bitDepth == 16)
            pixels.push_back(static_cast<unsigned char>(q >> 8));
        pixels.push_back(static_cast<unsigned char>(q & 0xFF));
    }
    writePng(path, grid.width, grid.height, bitDepth, PNG_COLOR_TYPE_GRAY, pixels);
}

void WritePngRgb(const fs::path& path, int width, int height)
{
    std::vector<unsigned char> pixels(static_cast<size_t>(width) * static_cast<size_t>(height) * 3);
    for (size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = static_cast<unsigned char>(i * 7);
    writePng(path, width, height, 8, PNG_COLOR_TYPE_RGB, pixels);
}

void WriteTiffFloat(const fs::path& path, const Grid& grid)
{
    TIFF* tif = TIFFOpen(path.c_str(), "w");
    if (!tif)
        throw std::runtime_error("cannot create " + path.string());
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, static_cast<std::uint32_t>(grid.width));
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, static_cast<std::uint32_t>(grid.height));
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 32);
    TIFFSetField(tif, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_IEEEFP);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, 8);
    std::vector<float> row(static_cast<size_t>(grid.width));
    for (int y = 0; y < grid.height; ++y) {
        for (int x = 0; x < grid.width; ++x)
            row[static_cast<size_t>(x)] = grid.at(x, y);
        TIFFWriteScanline(tif, row.data(), static_cast<std::uint32_t>(y), 0);
    }
    TIFFClose(tif);
}

void Truncate(const fs::path& path, std::uintmax_t keep) { fs::resize_file(path, keep); }

std::pair<int, int> DecodePngSize(const fs::path& path)
{
    png_image image;
    std::memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str()))
        return {-1, -1};
    image.format = PNG_FORMAT_RGB;
    std::vector<unsigned char> pixels(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr))
        return {-1, -1};
    return {static_cast<int>(image.width), static_cast<int>(image.height)};
}

PlyMesh ReadPly(const fs::path& path)
{
    PlyMesh mesh;
    std::ifstream in(path, std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(in), {});
    const size_t end = bytes.find("end_header\n");
    if (bytes.rfind("ply\nformat binary_little_endian 1.0\n", 0) != 0 || end == std::string::npos) {
        mesh.error = "no binary little-endian PLY header";
        return mesh;
    }
    std::istringstream header(bytes.substr(0, end));
    long long vertices = -1, faces = -1;
    std::string line, properties;
    while (std::getline(header, line)) {
        std::istringstream words(line);
        std::string first, second;
        long long n = -1;
        words >> first >> second >> n;
        if (first == "element" && second == "vertex")
            vertices = n;
        else if (first == "element" && second == "face")
            faces = n;
        else if (first == "property")
            properties += line + ";";
    }
    if (properties != "property float x;property float y;property float z;property list uchar int vertex_indices;") {
        mesh.error = "unexpected properties " + properties;
        return mesh;
    }
    const size_t body = end + 11;
    if (vertices < 0 || faces < 0 || bytes.size() - body != static_cast<size_t>(vertices * 12 + faces * 13)) {
        mesh.error = "body length does not match the header";
        return mesh;
    }
    mesh.xyz.resize(static_cast<size_t>(vertices) * 3);
    std::memcpy(mesh.xyz.data(), bytes.data() + body, mesh.xyz.size() * 4);
    for (long long f = 0; f < faces; ++f) {
        const char* p = bytes.data() + body + static_cast<size_t>(vertices * 12 + f * 13);
        if (static_cast<unsigned char>(p[0]) != 3) {
            mesh.error = "a face without three corners";
            return mesh;
        }
        for (int k = 0; k < 3; ++k) {
            std::int32_t index;
            std::memcpy(&index, p + 1 + 4 * k, 4);
            if (index < 0 || index >= vertices) {
                mesh.error = "a corner index outside the vertex list";
                return mesh;
            }
            mesh.corners.push_back(index);
        }
    }
    return mesh;
}

} // namespace demotest
