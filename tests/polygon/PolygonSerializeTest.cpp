#include "polygon/PolygonTestUtil.h"
#include "qzsse/base/CArchive.h"
#include "qzsse/base/CFile.h"
#include "qzsse/base/RbStreamReadBinaryBuffer.h"
#include "qzsse/base/RbStreamWriteBinaryBuffer.h"

namespace {

// Little-endian 32-bit words: the integers first, then the bits of each float.
Bytes Words(std::initializer_list<float> floats, std::initializer_list<std::uint32_t> ints = {})
{
    Bytes b;
    const auto put = [&](std::uint32_t v) {
        for (int k = 0; k < 4; ++k)
            b.push_back(static_cast<unsigned char>(v >> (8 * k)));
    };
    for (std::uint32_t v : ints)
        put(v);
    for (float v : floats)
        put(std::bit_cast<std::uint32_t>(v));
    return b;
}

Bytes operator+(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes ArchiveBytes(CSSE3dPolygon& p)
{
    TempFile file;
    CFile f;
    EXPECT_TRUE(f.Open(file.Path(), CFile::modeCreate | CFile::modeWrite));
    CArchive ar(&f, CArchive::store);
    p.Serialize(ar);
    ar.Close();
    f.Close();
    return file.ReadBytes();
}

void LoadArchive(const Bytes& bytes, CSSE3dPolygon& p)
{
    TempFile file;
    file.WriteBytes(bytes);
    CFile f;
    ASSERT_TRUE(f.Open(file.Path(), CFile::modeRead));
    CArchive ar(&f, CArchive::load);
    p.Serialize(ar);
}

Bytes StreamBytes(const CSSE3dPolygon& p)
{
    RbStreamWriteBinaryBuffer out;
    p.Serialize(out);
    return out.GetBytes();
}

void LoadStream(const Bytes& bytes, CSSE3dPolygon& p)
{
    RbStreamReadBinaryBuffer in(bytes.data(), bytes.size());
    p.Serialize(in);
}

const Pts kFive = {{0.5f, 10, 0}, {1.5f, 11, -1}, {2.5f, 12, -2}, {3.5f, 13, -3}, {4.5f, 14, -4}};

} // namespace

// n, then per group of four points their four X, four Y, four Z (padding slots included).
TEST(Polygon3dArchive, StoresGroupsOfFourLanesAndLoadsTheLastPointAsItsPredecessor)
{
    CSSE3dPolygon p, dst;
    Fill(p, kFive);
    const Bytes b = ArchiveBytes(p);
    ASSERT_EQ(b.size(), 4u + 2 * 48);
    EXPECT_EQ(Bytes(b.begin(), b.begin() + 56), Words({0.5f, 1.5f, 2.5f, 3.5f, 10, 11, 12, 13, 0, -1, -2, -3, 4.5f}, {5}));
    EXPECT_EQ(Bytes(b.begin() + 68, b.begin() + 72), Words({14})); // the second group's Y at +16
    EXPECT_EQ(Bytes(b.begin() + 84, b.begin() + 88), Words({-4})); // and its Z at +32
    Fill(dst, {{9, 9, 9}});
    dst.CalcBoundingBox();
    LoadArchive(b, dst);
    Pts expected = kFive;
    expected[4] = expected[3];
    EXPECT_EQ(Points(dst), expected);
    EXPECT_FALSE(dst.IsBoundingBoxCalculated());
    Fill(p, {{1, 2, 3}}); // no predecessor: the single point keeps what was stored
    LoadArchive(ArchiveBytes(p), dst);
    EXPECT_EQ(Points(dst), (Pts{{1, 2, 3}}));
}

TEST(Polygon3dArchive, DamagedBytesThrowOrLoadButNeverCrash)
{
    CSSE3dPolygon p;
    Fill(p, kFive);
    ExpectDamageRejected(ArchiveBytes(p), LoadArchive, false);
}

TEST(Polygon3dStream, WritesTheVersion2LayoutAndReadsItBack)
{
    CSSE3dPolygon p, dst;
    Fill(p, {{1, 2, 3}, {-4, 5, 6}});
    p.SetPointNormalized(0, 0.5f, 0.25f, 0.125f);
    p.SetPointNormalized(1, 7, 8, 9);
    p.CalcGeometricCenter();
    p.CalcBoundingBox();
    // Version, n, points, normalized points, centre, flag, then bottom-left, top-right and
    // their 2-D forms.
    const Bytes head = Words({1, 2, 3, -4, 5, 6, 0.5f, 0.25f, 0.125f, 7, 8, 9, -1.5f, 3.5f, 4.5f}, {2, 2});
    const Bytes want = head + Bytes{1} + Words({-4, 2, 3, 1, 5, 6, 1, 5, 0, -4, 2, 0});
    EXPECT_EQ(StreamBytes(p), want);
    LoadStream(want, dst);
    EXPECT_EQ(Points(dst), (Pts{{1, 2, 3}, {-4, 5, 6}}));
    EXPECT_EQ(Points(dst, true), Points(p, true));
    EXPECT_TRUE(dst.IsBoundingBoxCalculated());
    EXPECT_EQ(StreamBytes(dst), want);
    p.SetPoint(0, 1, 2, 3); // without the flag the box is not written
    EXPECT_EQ(StreamBytes(p), head + Bytes{0});
}

TEST(Polygon3dStream, Version1RestoresPointsAndDefaultsTheRest)
{
    CSSE3dPolygon dst;
    Fill(dst, kFive);
    t_resolutiondata r{2, 2, 2};
    dst.NormalizeXYZ(r);
    dst.CalcGeometricCenter();
    dst.CalcBoundingBox();
    LoadStream(Words({1, 2, 3, 4, 5, 6}, {1, 2}), dst);
    EXPECT_EQ(Points(dst), (Pts{{1, 2, 3}, {4, 5, 6}}));
    EXPECT_EQ(Points(dst, true), (Pts{{0, 0, 0}, {0, 0, 0}}));
    SSEPoint c;
    dst.GetGeometricCenter(c);
    EXPECT_EQ((P3{c.x, c.y, c.z}), (P3{0, 0, 0}));
    EXPECT_FALSE(dst.IsBoundingBoxCalculated());
    LoadStream(Words({}, {0}), dst); // version 0: no points
    EXPECT_EQ(dst.GetNumPoints(), 0);
    EXPECT_THROW(LoadStream(Words({}, {3, 0}), dst), RbStreamException); // newer than known
}

TEST(Polygon3dStream, DamagedBytesThrowOrLoadAndFailuresLeaveThePolygonAlone)
{
    CSSE3dPolygon p;
    Fill(p, kFive);
    p.CalcBoundingBox();
    ExpectDamageRejected(StreamBytes(p), LoadStream, true);
}
