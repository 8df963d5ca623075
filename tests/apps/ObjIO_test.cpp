// OBJ reading and writing: index order, winding, polygons and malformed files.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "ObjIO.h"

using namespace Kavrin;
namespace fs = std::filesystem;

namespace {

struct TempDir {
    fs::path path;
    TempDir() {
        path = fs::temp_directory_path() / ("kavrin-obj-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
                                            "-" + ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(path);
    }
    ~TempDir() { fs::remove_all(path); }
    std::string write(const std::string& name, const std::string& text) const {
        const std::string file = (path / name).string();
        std::ofstream(file) << text;
        return file;
    }
};

}  // namespace

TEST(ObjIO, KeepsVertexOrderPolygonsAndWinding) {
    TempDir dir;
    const std::string file = dir.write("mixed.obj",
                                       "# a quad and a triangle\n"
                                       "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nv 2 0.5 0.25\n"
                                       "vn 0 0 1\n"
                                       "f 1//1 2//1 3//1 4//1\n"
                                       "g second\n"
                                       "f 3 2 5\n");
    const KPolyMesh mesh = ReadObj(file);
    ASSERT_EQ(mesh.numVertices(), 5);
    EXPECT_EQ(mesh.points[4], KVector(2.0f, 0.5f, 0.25f));
    EXPECT_EQ(mesh.faceCounts, (KIntArray{4, 3}));
    EXPECT_EQ(mesh.faceVertices, (KIntArray{0, 1, 2, 3, 2, 1, 4}));

    const std::string copy = (dir.path / "copy.obj").string();
    WriteObj(copy, mesh);
    const KPolyMesh back = ReadObj(copy);
    EXPECT_EQ(back.points, mesh.points);
    EXPECT_EQ(back.faceCounts, mesh.faceCounts);
    EXPECT_EQ(back.faceVertices, mesh.faceVertices);
}

TEST(ObjIO, WritesFloatsExactly) {
    TempDir dir;
    KPolyMesh mesh;
    mesh.points.push_back(KVector(0.1f, 1.0f / 3.0f, -123456.789f));
    mesh.points.push_back(KVector(1e-7f, 3.4e38f, 0.0f));
    mesh.points.push_back(KVector(1, 1, 1));
    mesh.faceCounts.push_back(3);
    mesh.faceVertices = KIntArray{0, 1, 2};
    const std::string file = (dir.path / "exact.obj").string();
    WriteObj(file, mesh);
    EXPECT_EQ(ReadObj(file).points, mesh.points);
}

TEST(ObjIO, RelativeIndicesCountBackFromTheLastVertex) {
    TempDir dir;
    const KPolyMesh mesh = ReadObj(dir.write("rel.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf -3 -2 -1\n"));
    EXPECT_EQ(mesh.faceVertices, (KIntArray{0, 1, 2}));
}

TEST(ObjIO, BadFilesAreOneLineErrors) {
    TempDir dir;
    const auto message = [](const std::string& path) {
        try {
            ReadObj(path);
        } catch (const KObjError& e) {
            return std::string(e.what());
        }
        return std::string("no error");
    };
    const std::string missing = (dir.path / "missing.obj").string();
    EXPECT_EQ(message(missing), missing + ": cannot open the file");

    const std::string empty = dir.write("empty.obj", "# nothing here\n");
    EXPECT_EQ(message(empty), empty + ": no vertices");

    const std::string outside = dir.write("outside.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 9\n");
    EXPECT_EQ(message(outside), outside + ": a face refers to a vertex that does not exist");

    const std::string text = dir.write("text.obj", "this is not a mesh\nat all\n");
    EXPECT_EQ(message(text), text + ": no vertices");

    for (const std::string& m : {message(missing), message(empty), message(outside)})
        EXPECT_EQ(m.find('\n'), std::string::npos);

    EXPECT_THROW(WriteObj((dir.path / "no-such-dir" / "x.obj").string(), KPolyMesh()), KObjError);
}
