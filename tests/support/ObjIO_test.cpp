// OBJ reading and writing: index order, winding, polygons, what real exporters add, and every
// malformed line refused with its file, line and reason.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "ObjIO.h"

using namespace Kavrin;
namespace fs = std::filesystem;

namespace {

struct TempDir {
    const fs::path path = fs::temp_directory_path() /
                          ("kavrin-obj-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) + "-" +
                           ::testing::UnitTest::GetInstance()->current_test_info()->name());
    TempDir() { fs::create_directories(path); }
    ~TempDir() { fs::remove_all(path); }
    std::string write(const std::string& name, const std::string& text) const {
        std::ofstream((path / name).string(), std::ios::binary) << text;
        return (path / name).string();
    }
};

std::string Refusal(const std::string& text) {
    try {
        ParseObj(text, "m.obj");
    } catch (const KFileError& e) {
        return e.what();
    }
    return "(read)";
}

const char* const kTriangle = "v 0 0 0\nv 1 0 0\nv 0 1 0\n";

}  // namespace

TEST(ObjIO, KeepsOrderPolygonsWindingAndExactFloats) {
    TempDir dir;
    // A quad, a triangle and a triangle with relative indices counting back from the last vertex.
    const KPolyMesh mesh = ReadObj(dir.write("mixed.obj",
                                             "# a quad and two triangles\n"
                                             "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nv 2 0.5 0.25\n"
                                             "vn 0 0 1\n"
                                             "f 1//1 2//1 3//1 4//1\n"
                                             "g second\n"
                                             "f 3 2 5\nf -3 -1 -4\n"));
    ASSERT_EQ(mesh.numVertices(), 5);
    EXPECT_EQ(mesh.points[4], KVector(2.0f, 0.5f, 0.25f));
    EXPECT_EQ(mesh.faceCounts, (KIntArray{4, 3, 3}));
    EXPECT_EQ(mesh.faceVertices, (KIntArray{0, 1, 2, 3, 2, 1, 4, 2, 4, 1}));

    KPolyMesh awkward = mesh;
    awkward.points[0] = KVector(0.1f, 1.0f / 3.0f, -123456.789f);
    awkward.points[1] = KVector(1e-7f, 3.4028235e38f, -0.0f);
    awkward.points[2] = KVector(1.4e-45f, -1.17549435e-38f, 16777217.0f);
    const std::string copy = (dir.path / "copy.obj").string();
    WriteObj(copy, awkward);
    const KPolyMesh back = ReadObj(copy);
    for (int i = 0; i < awkward.numVertices(); ++i)
        for (int k = 0; k < 3; ++k) EXPECT_EQ(back.points[i][k], awkward.points[i][k]) << i << " " << k;
    EXPECT_EQ(back.faceCounts, mesh.faceCounts);
    EXPECT_EQ(back.faceVertices, mesh.faceVertices);
    // The shortest text that reads back exactly: 0.1f is written "0.1", not "0.100000001".
    EXPECT_EQ(FormatObj(awkward).substr(0, 28), "v 0.1 0.33333334 -123456.79\n");
}

TEST(ObjIO, AcceptsWhatExportersWrite) {
    // CRLF line ends, tabs, trailing comments, groups, materials, smoothing, a w weight, vertex
    // colours, explicit plus signs, tiny values, all corner forms.
    const std::string text =
        "mtllib cat.mtl\r\no body\r\n"
        "v\t1.5 -2 +3 1.0 # w\r\n"
        "v .5 2. 1e-3 0.2 0.4 0.6\r\n"
        "v 1e-50 -0 7\r\n"
        "v 1 1 1\r\n"
        "vt 0.25 0.75 0\r\nvt 1 1\r\nvn 0 0 1\r\n"
        "usemtl fur\r\ns 1\r\ng left\r\n"
        "f 1/1/1 2/2/1 3/1/1\r\n"
        "s off\r\n"
        "f 1//1 3//1 -1//1\r\n";
    KCornerUVs uvs;
    const KPolyMesh mesh = ParseObj(text, "m.obj", &uvs);
    ASSERT_EQ(mesh.numVertices(), 4);
    EXPECT_EQ(mesh.points[0], KVector(1.5f, -2.0f, 3.0f));
    EXPECT_EQ(mesh.points[1], KVector(0.5f, 2.0f, 0.001f));
    EXPECT_EQ(mesh.points[2], KVector(0.0f, 0.0f, 7.0f));
    EXPECT_EQ(mesh.faceVertices, (KIntArray{0, 1, 2, 0, 2, 3}));
    EXPECT_EQ(uvs.corners, (KIntArray{0, 1, 0, -1, -1, -1}));
    EXPECT_EQ(uvs.uvs[0], (KFloat2{0.25f, 0.75f}));
}

TEST(ObjIO, RefusesMalformedLinesNamingLineAndReason) {
    const std::string t = kTriangle;
    const std::pair<std::string, std::string> cases[] = {
        {"# header\nv nan 0 0\n", "m.obj:2: 'nan' is not a finite number"},
        {"v 0 NaN 0\n", "m.obj:1: 'NaN' is not a finite number"},
        {"v 0 0 -inf\n", "m.obj:1: '-inf' is not a finite number"},
        {"v 1 2\n", "m.obj:1: a vertex takes x y z (and an optional w, or an r g b colour); this one has 2 values"},
        {"v 1 2 3 4 5\n",
         "m.obj:1: a vertex takes x y z (and an optional w, or an r g b colour); this one has 5 values"},
        {"v a b c\n", "m.obj:1: 'a' is not a number"},
        {"v 0,111 0,2 0\n", "m.obj:1: '0,111' is not a number (decimals take a point, not a comma)"},
        {"v 1e39 0 0\n", "m.obj:1: '1e39' is beyond the range of a float"},
        {"v 0 -1e400 0\n", "m.obj:1: '-1e400' is beyond the range of a float"},
        {"v 3.4028236e38 0 0\n", "m.obj:1: '3.4028236e38' is beyond the range of a float"},
        {"v 0x1p3 0 0\n", "m.obj:1: '0x1p3' is not a number"},
        {"v 1 2 3e\n", "m.obj:1: '3e' is not a number"},
        {std::string("v 1 2 3\0\n", 9), "m.obj:1: '3?' is not a number"},
        {t + "f 1 2\n", "m.obj:4: a face needs at least three vertices; this one has 2"},
        {t + "f 1\n", "m.obj:4: a face needs at least three vertices; this one has 1"},
        {t + "f 1 2 9\n", "m.obj:4: vertex index 9 refers past the 3 vertices read so far"},
        {"v 0 0 0\nf 1 2 3\nv 1 0 0\nv 0 1 0\n", "m.obj:2: vertex index 2 refers past the 1 vertex read so far"},
        {t + "f 1 x 3\n", "m.obj:4: 'x' is not a vertex index"},
        {t + "f 1 2.0 3\n", "m.obj:4: '2.0' is not a vertex index"},
        {t + "f 0 1 2\n", "m.obj:4: vertex index 0 does not exist (indices count from 1)"},
        {t + "f -4 -1 -2\n", "m.obj:4: vertex index -4 reaches back before the first of the 3 vertices read so far"},
        {t + "f 1 2 99999999999999999999\n", "m.obj:4: '99999999999999999999' is too large for a vertex index"},
        {t + "f 1 2 1\n", "m.obj:4: the face uses vertex 1 twice"},
        {t + "v 1 1 0\nf 1 2 -1 -4\n", "m.obj:5: the face uses vertex 1 twice"},
        {t + "vt 0 0\nf 1/1 2 3\n", "m.obj:5: the corners '1/1' and '2' of this face are written in different forms"},
        {t + "vt 0 0\nvn 0 0 1\nf 1/1/1 2//1 3//1\n",
         "m.obj:6: the corners '1/1/1' and '2//1' of this face are written in different forms"},
        {t + "f 1/ 2/ 3/\n", "m.obj:4: '1/' is not a face corner (v, v/vt, v/vt/vn or v//vn)"},
        {t + "f 1// 2// 3//\n", "m.obj:4: '1//' is not a face corner (v, v/vt, v/vt/vn or v//vn)"},
        {t + "f /1 2 3\n", "m.obj:4: '/1' is not a face corner (v, v/vt, v/vt/vn or v//vn)"},
        {t + "f 1/1/1/1 2 3\n", "m.obj:4: '1/1/1/1' is not a face corner (v, v/vt, v/vt/vn or v//vn)"},
        {t + "vt 0 0\nf 1/1 2/1 3/2\n",
         "m.obj:5: texture coordinate index 2 refers past the 1 texture coordinate read so far"},
        {t + "f 1//1 2//1 3//1\n", "m.obj:4: normal index 1 refers past the 0 normals read so far"},
        {t + "vt 0.5\n", "m.obj:4: a texture coordinate takes u v (and an optional w); this one has 1 value"},
        {t + "vt 0.5 nan\n", "m.obj:4: 'nan' is not a finite number"},
        {t + "vn 0 0\n", "m.obj:4: a normal takes x y z; this one has 2 values"},
        {t + "l 1 2\n", "m.obj:4: 'l' elements (points and lines) are not read: kavrin reads polygon meshes only"},
        {t + "p 1\n", "m.obj:4: 'p' elements (points and lines) are not read: kavrin reads polygon meshes only"},
        {"cstype bspline\n", "m.obj:1: free-form geometry ('cstype') is not read: export the mesh as polygons"},
        {"V 1 2 3\n", "m.obj:1: unknown statement 'V'"},
        {"this is not a mesh\n", "m.obj:1: unknown statement 'this'"},
        {"v 1 2 3\rv 4 5 6\n", "m.obj:1: a vertex takes x y z (and an optional w, or an r g b colour); this one has 7 values"},
        {"# nothing here\n\n", "m.obj: no vertices"},
        {"", "m.obj: no vertices"},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(Refusal(text), expected) << text;
}

TEST(ObjIO, FileErrorsAndWhatTheWriterRefuses) {
    TempDir dir;
    const std::string missing = (dir.path / "missing.obj").string();
    const std::pair<std::string, std::string> cases[] = {
        {missing, missing + ": cannot open the file (No such file or directory)"},
        {dir.path.string(), dir.path.string() + ": cannot open the file (it is a folder)"},
        {dir.write("short.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\n\nf 1 2\n"), "short.obj:5: a face needs at least three vertices; this one has 2"},
    };
    for (const auto& [file, expected] : cases) {
        try {
            ReadObj(file);
            ADD_FAILURE() << file << " was read";
        } catch (const KFileError& e) {
            const std::string what = e.what();
            EXPECT_EQ(what.substr(what.size() - std::min(what.size(), expected.size())), expected);
        }
    }

    // A mesh the reader would refuse is never written: nothing appears on disk.
    KPolyMesh mesh = ParseObj(std::string(kTriangle) + "f 1 2 3\n", "m.obj");
    KPolyMesh notFinite = mesh;
    notFinite.points[1].y = std::nanf("");
    notFinite.points[2].x = INFINITY;
    KPolyMesh badFaces = mesh;
    badFaces.faceVertices[2] = 3;
    const std::string out = (dir.path / "out.obj").string();
    const std::pair<KPolyMesh, std::string> refused[] = {
        {notFinite, out + ": 2 vertices are not finite (1, 2); nothing was written"},
        {badFaces, out + ": the faces do not fit the vertices; nothing was written"},
    };
    for (const auto& [bad, expected] : refused) {
        try {
            WriteObj(out, bad);
            ADD_FAILURE() << expected;
        } catch (const KFileError& e) {
            EXPECT_EQ(std::string(e.what()), expected);
        }
        EXPECT_FALSE(fs::exists(out));
    }
    EXPECT_THROW(WriteObj((dir.path / "no-such-dir" / "x.obj").string(), mesh), KFileError);
}

TEST(ObjIO, TextureCoordinatesPerFaceCorner) {
    TempDir dir;
    KCornerUVs uvs;
    const KPolyMesh mesh = ReadObj(dir.write("uv.obj",
                                             "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\n"
                                             "vt 0.25 0.5\nvt 1 0\nvt 0.75 0.125\n"
                                             "f 1/1 2/2 3/3\nf 1 3 4\nf 4/-1 3/2 1/1\n"),
                                   &uvs);
    ASSERT_EQ(mesh.numFaces(), 3);
    ASSERT_EQ(uvs.uvs.length(), 3);
    EXPECT_EQ(uvs.uvs[2], (KFloat2{0.75f, 0.125f}));
    EXPECT_EQ(uvs.corners, (KIntArray{0, 1, 2, -1, -1, -1, 2, 1, 0}));
    // Without uvs asked for, the same file reads to the same mesh.
    EXPECT_EQ(ReadObj(dir.path.string() + "/uv.obj").faceVertices, mesh.faceVertices);
}
