// OBJ reading and writing: index order, winding, polygons and malformed files.

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
        std::ofstream((path / name).string()) << text;
        return (path / name).string();
    }
};

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
    awkward.points[1] = KVector(1e-7f, 3.4e38f, 0.0f);
    const std::string copy = (dir.path / "copy.obj").string();
    WriteObj(copy, awkward);
    const KPolyMesh back = ReadObj(copy);
    EXPECT_EQ(back.points, awkward.points);
    EXPECT_EQ(back.faceCounts, mesh.faceCounts);
    EXPECT_EQ(back.faceVertices, mesh.faceVertices);
}

TEST(ObjIO, BadFilesAreOneLineErrors) {
    TempDir dir;
    const std::pair<std::string, std::string> cases[] = {
        {(dir.path / "missing.obj").string(), ": cannot open the file"},
        {dir.write("empty.obj", "# nothing here\n"), ": no vertices"},
        {dir.write("outside.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 9\n"),
         ": a face refers to a vertex that does not exist"},
        {dir.write("text.obj", "this is not a mesh\nat all\n"), ": no vertices"},
    };
    for (const auto& [file, expected] : cases) {
        try {
            ReadObj(file);
            ADD_FAILURE() << file << " was read";
        } catch (const KFileError& e) {
            EXPECT_EQ(std::string(e.what()), file + expected);
        }
    }
    EXPECT_THROW(WriteObj((dir.path / "no-such-dir" / "x.obj").string(), KPolyMesh()), KFileError);
}

TEST(ObjIO, TextureCoordinatesPerFaceCorner) {
    TempDir dir;
    KCornerUVs uvs;
    const KPolyMesh mesh = ReadObj(dir.write("uv.obj",
                                             "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\n"
                                             "vt 0.25 0.5\nvt 1 0\nvt 0.75 0.125\n"
                                             "f 1/1 2/2 3/3\nf 1 3 4\nf 4/-1/1 3/2 1/1\n"),
                                   &uvs);
    ASSERT_EQ(mesh.numFaces(), 3);
    ASSERT_EQ(uvs.uvs.length(), 3);
    EXPECT_EQ(uvs.uvs[2], (KFloat2{0.75f, 0.125f}));
    EXPECT_EQ(uvs.corners, (KIntArray{0, 1, 2, -1, -1, -1, 2, 1, 0}));
    EXPECT_THROW(ReadObj(dir.write("bad.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\nvt 0 0\nf 1/1 2/2 3/1\n"), &uvs),
                 KFileError);
}
