// OBJ reading and writing: index order, winding, polygons, what real exporters add, and every
// malformed line refused with its file, line and reason.

#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>

#include "ObjCommonReader.h"
#include "ObjIO.h"
#include "Refusal.h"

using namespace Kavrin;
namespace fs = std::filesystem;

namespace {

const char* const kTriangle = "v 0 0 0\nv 1 0 0\nv 0 1 0\n";

}  // namespace

TEST(ObjIO, ReadsOrderPolygonsWindingAndWhatExportersAdd) {
    // A quad and triangles with relative indices counting back from the last vertex; CRLF line
    // ends, tabs, trailing comments, groups, materials, smoothing, a w weight, vertex colours,
    // explicit plus signs, tiny values, every corner form, texture coordinates on some faces.
    const std::string text =
        "mtllib cat.mtl\r\no body\r\n"
        "v\t1.5 -2 +3 1.0 # w\r\n"
        "v .5 2. 1e-3 0.2 0.4 0.6\r\n"
        "v 1e-50 -0 7\r\nv 1 1 1\r\nv 2 0.5 +.25\r\n"
        "vt 0.25 0.75 0\r\nvt 1 1\r\nvt 0.75 0.125\r\nvn 0 0 1\r\n"
        "usemtl fur\r\ns 1\r\ng left\r\n"
        "f 1//1 2//1 3//1 4//1\r\n"
        "s off\r\n"
        "f 3/1/1 2/2/1 5/3/1\nf -3/-1 -1/2 -4/1\n# a last face without texture coordinates\nf 1 3 4\n";
    KCornerUVs uvs;
    const KPolyMesh mesh = ParseObj(text, "m.obj", &uvs);
    ASSERT_EQ(mesh.numVertices(), 5);
    EXPECT_EQ(mesh.points[0], KVector(1.5f, -2.0f, 3.0f));
    EXPECT_EQ(mesh.points[1], KVector(0.5f, 2.0f, 0.001f));
    EXPECT_EQ(mesh.points[2], KVector(0.0f, 0.0f, 7.0f));
    EXPECT_EQ(mesh.points[4], KVector(2.0f, 0.5f, 0.25f));
    EXPECT_EQ(mesh.faceCounts, (KIntArray{4, 3, 3, 3}));
    EXPECT_EQ(mesh.faceVertices, (KIntArray{0, 1, 2, 3, 2, 1, 4, 2, 4, 1, 0, 2, 3}));
    EXPECT_EQ(uvs.corners, (KIntArray{-1, -1, -1, -1, 0, 1, 2, 2, 1, 0, -1, -1, -1}));
    EXPECT_EQ(uvs.uvs, (KArray<KFloat2>{KFloat2{0.25f, 0.75f}, KFloat2{1.0f, 1.0f}, KFloat2{0.75f, 0.125f}}));
    // Without uvs asked for, the same text reads to the same mesh; so it does with a UTF-8
    // byte-order mark in front and old Mac line ends (a lone carriage return).
    EXPECT_EQ(ParseObj(text, "m.obj").faceVertices, mesh.faceVertices);
    std::string mac;
    for (size_t i = 0; i < text.size(); ++i)
        if (text[i] != '\n' || i == 0 || text[i - 1] != '\r') mac += text[i] == '\n' ? '\r' : text[i];
    const KPolyMesh again = ParseObj("\xEF\xBB\xBF" + mac, "m.obj");
    EXPECT_EQ(again.points, mesh.points);
    EXPECT_EQ(again.faceVertices, mesh.faceVertices);
}

TEST(ObjIO, TheCommonFormIsReadInPiecesAsTheStrictParserReadsIt) {
    // Large enough for two pieces: a face in the second refers to vertices of the first.
    std::string many;
    for (int i = 0; i < 12000; ++i) many += "v " + std::to_string(i) + " 0.5 -1e-3\n";
    for (int i = 1; i + 2 <= 12000; i += 2) many += "f " + std::to_string(i) + " " + std::to_string(i + 1) + " 12000\n";
    const std::string t = kTriangle;
    const std::pair<std::string, bool> cases[] = {
        {"o body\r\nv\t1.5 -2 3 1.0 # w\r\nv .5 2. 1e-3 0.2 0.4 0.6\r\nv 1e-50 -0 7\r\nvt 0.25 0.75 0\r\nvt 1 1\r\n"
         "vn 0 0 1\r\nusemtl fur\r\ns 1\r\ng left\r\nf 1/1/1 2/2/1 3/1/1\r\nf 1//1 2//1 3//1\r\nf 3 2 1\r\n",
         true},
        {t + "vt 0 0\nf 1/1 2/1 3/1", true},  // no line end at the end
        {many, true},
        {many + "f 1 2 12001\nv 0 0 0\n", false},  // a forward reference, past the pieces
        {t + "f -1 -2 -3\n", false},                // relative indices: the strict parser's
        {t + "v +1 2 3\n", false},
        {"v 1 2 3\rv 4 5 6\rv 7 8 9\rf 1 2 3\r", false},  // old Mac line ends
        {"\xEF\xBB\xBF" + t, false},
    };
    for (const auto& [text, common] : cases) {
        KPolyMesh fast;
        KCornerUVs fastUVs, uvs;
        EXPECT_EQ(KObjCommonReader::ReadText(text.data(), text.size(), fast, &fastUVs), common) << text.substr(0, 40);
        // Through a file read in blocks of 100 bytes: lines span blocks, and one is longer.
        const std::string path = (fs::temp_directory_path() / ("kavrin-common-" + std::to_string(getpid()))).string();
        std::ofstream(path, std::ios::binary) << text;
        KPolyMesh fromFile;
        EXPECT_EQ(KObjCommonReader::ReadFile(path, fromFile, nullptr, 100), common);
        fs::remove(path);
        if (!common) continue;
        const KPolyMesh strict = ParseObjStrict(text, "m.obj", &uvs);
        EXPECT_TRUE(fast.points == strict.points && fast.faceVertices == strict.faceVertices &&
                    fast.faceCounts == strict.faceCounts && fastUVs.uvs == uvs.uvs && fastUVs.corners == uvs.corners &&
                    fromFile.points == strict.points && fromFile.faceVertices == strict.faceVertices)
            << text.substr(0, 40);
    }
    EXPECT_EQ(Refusal([&] { ParseObj(cases[3].first, "m.obj"); }),
              "m.obj:18000: vertex index 12001 refers past the 12000 vertices read so far");
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
        {"v 1 2 3\rv 4 5\r", "m.obj:2: a vertex takes x y z (and an optional w, or an r g b colour); this one has 2 values"},
        {"v 1 2 3\n\xEF\xBB\xBFv 4 5 6\n", "m.obj:2: unknown statement '???v'"},
        {"# nothing here\n\n", "m.obj: no vertices"},
        {"", "m.obj: no vertices"},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(Refusal([&] { ParseObj(text, "m.obj"); }), expected) << text;
}

TEST(ObjIO, WritesExactFloatsAndNothingTheReaderWouldRefuse) {
    KPolyMesh mesh = ParseObj(std::string(kTriangle) + "v 2 0.5 0.25\nf 1 2 3 4\nf 3 2 4\n", "m.obj");
    mesh.points[0] = KVector(0.1f, 1.0f / 3.0f, -123456.789f);
    mesh.points[1] = KVector(1e-7f, 3.4028235e38f, -0.0f);
    mesh.points[2] = KVector(1.4e-45f, -1.17549435e-38f, 16777217.0f);
    // The shortest text that reads back exactly: 0.1f is written "0.1", not "0.100000001".
    const std::string text = FormatObj(mesh);
    EXPECT_EQ(text.substr(0, 28), "v 0.1 0.33333334 -123456.79\n");
    const KPolyMesh back = ParseObj(text, "copy.obj");
    for (int i = 0; i < mesh.numVertices(); ++i)
        for (int k = 0; k < 3; ++k) EXPECT_EQ(back.points[i][k], mesh.points[i][k]) << i << " " << k;
    EXPECT_EQ(back.faceCounts, mesh.faceCounts);
    EXPECT_EQ(back.faceVertices, mesh.faceVertices);

    // Files that cannot be read or written, and meshes the reader would refuse: nothing is written.
    const fs::path dir = fs::temp_directory_path() / ("kavrin-obj-" + std::to_string(getpid()));
    fs::create_directories(dir);
    const std::string missing = (dir / "missing.obj").string(), out = (dir / "out.obj").string();
    KPolyMesh notFinite = mesh, badFaces = mesh;
    notFinite.points[1].y = std::nanf("");
    notFinite.points[2].x = INFINITY;
    badFaces.faceVertices[2] = 4;
    const std::pair<std::string, std::string> cases[] = {
        {Refusal([&] { ReadObj(missing); }), missing + ": cannot open the file (No such file or directory)"},
        {Refusal([&] { ReadObj(dir.string()); }), dir.string() + ": cannot open the file (it is a folder)"},
        {Refusal([&] { WriteObj(out, notFinite); }), out + ": 2 vertices are not finite (1, 2); nothing was written"},
        {Refusal([&] { WriteObj(out, badFaces); }), out + ": the faces do not fit the vertices; nothing was written"},
        {Refusal([&] { WriteObj((dir / "no" / "x.obj").string(), mesh); }),
         (dir / "no" / "x.obj").string() + ": cannot write the file (No such file or directory)"},
    };
    for (const auto& [got, expected] : cases) EXPECT_EQ(got, expected);
    EXPECT_FALSE(fs::exists(out));
    WriteObj(out, mesh);
    EXPECT_EQ(ReadObj(out).faceVertices, mesh.faceVertices);
    // A file's lines are named by its path.
    std::ofstream(out, std::ios::binary) << kTriangle << "\nf 1 2\n";
    EXPECT_EQ(Refusal([&] { ReadObj(out); }), out + ":5: a face needs at least three vertices; this one has 2");
    fs::remove_all(dir);
}
