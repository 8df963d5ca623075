// The exit-status table of docs/kavrin.md, case by case: 2 for anything about the input or the
// output paths (found before any work, so nothing is printed or written), 1 for a failed run, 0
// for success; every failure exactly one line on standard error, in the tool's own words. The
// rows under "Once ..." are the kinds of failure a hostile-input sweep found: results silently
// wrong, a run that hung, a valid input refused and messages that did not name their cause; the
// second test covers runs that fail half-way.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>

#include "KavrinCliSupport.h"
#include "MeshGenerators.h"
#include "ObjIO.h"
#include "PointCache.h"

using namespace Kavrin;
using namespace KavrinCliTest;
namespace fs = std::filesystem;

using KavrinStatus = KavrinCliFixture;

TEST_F(KavrinStatus, EveryCaseHasItsStatusAndOneExactLine) {
    const KPolyMesh grid = MakeDetailedGrid(4, 1.0f);
    const std::string rest = save("rest.obj", grid), pose = save("pose.obj", BendAroundY(grid, 0.5f));
    for (const std::string folder : {"a", "b"}) {
        fs::create_directories(dir / folder);
        save(folder + "/p.obj", grid);
    }
    write("nan.obj", "v 0 0 0\nv 1 0 0\nv nan 1 0\nf 1 2 3\n");
    write("short.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2\n");
    write("loose.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nv 5 5 5\nv 6 6 6\nf 1 2 3\n");
    write("file", "not a folder\n");
    write("points.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\n");
    // Three coincident corners: the fit's equations cannot be solved.
    write("flat.obj", "v 0 0 0\nv 0 0 0\nv 0 0 0\nv 1 0 0\nf 1 2 3\nf 1 3 4\n");
    write("m3.txt", "3 3\n");
    // Coordinates near the float limit, which no engine can compute with.
    write("huge.obj", "v 3e38 0 0\nv -3e38 0 0\nv 0 3e38 0\nv 0 -3e38 3e38\nf 1 2 3\nf 2 4 3\n");
    // The same grid with old Mac line ends and a byte-order mark.
    {
        std::string text = "\xEF\xBB\xBF" + Slurp(dir / "rest.obj");
        std::replace(text.begin(), text.end(), '\n', '\r');
        write("mac.obj", text);
    }
    KPolyMesh source = MakeUVSphere(6, 8), target = MakeIcosphere(1);
    ScalePoints(target, 1.0f, 1.1f, 0.9f);
    const std::string s = save("s.obj", source), t = save("t.obj", target);
    source.points.push_back(KVector(5, 5, 5));
    target.points.push_back(KVector(5, 5, 5));
    const std::string sLoose = save("s-loose.obj", source), tLoose = save("t-loose.obj", target);
    write("m.txt", "0 0\n49 41\n");
    write("twice.txt", "0 0\n# paw\n7 3\n0 5\n");
    write("m-loose.txt", "0 0\n49 41\n50 2\n");  // the source's loose vertex is marked: it is pinned
    write("far.txt", "0 0\n5 9999\n");
    // Two extra shells no marker touches: a flat pentagon and a single triangle.
    {
        KPolyMesh shells = source;
        shells.points.setLength(50, false);  // without the loose vertex
        const int n = shells.numVertices();
        for (int k = 0; k < 5; ++k)
            shells.points.push_back(KVector(3.0f + 0.2f * std::cos(1.2566f * k), 0.2f * std::sin(1.2566f * k), 0.0f));
        for (const KVector& p : {KVector(3, 1, 0), KVector(3.2f, 1, 0), KVector(3, 1.2f, 0)}) shells.points.push_back(p);
        shells.faceCounts.push_back(5);
        shells.faceCounts.push_back(3);
        for (int v = n; v < n + 8; ++v) shells.faceVertices.push_back(v);
        save("shells.obj", shells);
    }
    // Values for the relaxation's 0-to-1 maps, one of them out of range.
    std::string ones, five;
    for (int v = 0; v < 16; ++v) ones += "1\n", five += v == 2 ? "5\n" : "0.5\n";
    write("five.txt", five);
    write("wide.txt", "1.5\n" + ones.substr(2));
    write("ball.obj", Slurp(dir / "t.obj"));
    // Point caches: two frames of the grid, one of five points, a header alone, a frame too large.
    {
        KPointCache frames;
        frames.points = grid.numVertices();
        for (const KPolyMesh& m : {grid, BendAroundY(grid, 0.5f)})
            for (const KVector& p : m.points) frames.xyz.insert(frames.xyz.end(), {p.x, p.y, p.z});
        WritePointCache(path("a.pc2"), frames);
        for (int k = 0; k < 3; ++k) frames.xyz[3 * frames.points + k] = k == 0 ? 3e38f : 0.0f;
        WritePointCache(path("big.pc2"), frames);
        frames.points = 5;
        frames.xyz.resize(15);
        WritePointCache(path("small.pc2"), frames);
        write("bad.pc2", Slurp(dir / "a.pc2").substr(0, 16));
    }
    const std::string dm = "deltamush --rest rest.obj ", tr = "transfer --source-rest s.obj --target t.obj ";

    const struct {
        std::string args;
        int status;
        std::string err;  // the whole of standard error, or its start followed by '*'
        std::string out = "";  // text standard output must hold
    } cases[] = {
        // Parse errors point to --help.
        {"", 2, "kavrin: a command is required: deltamush, transfer, wrap, jiggle, relax, offset, render or demo (see 'kavrin --help')"},
        {"bogus", 2,
         "kavrin: unknown command 'bogus'; the commands are deltamush, transfer, wrap, jiggle, relax, offset, render or demo (see 'kavrin --help')"},
        {"deltamush pose.obj -o x.obj", 2, "kavrin deltamush: --rest is required (see 'kavrin deltamush --help')"},
        // Options refused with the reason.
        {dm + "--iterations 0 pose.obj -o x.obj", 2,
         "kavrin deltamush: --iterations: 0 sweeps leave the smoothed mesh at the origin, so every vertex would be "
         "written there; use 1 to 10000 (see 'kavrin deltamush --help')"},
        {dm + "--iterations 10001 pose.obj -o x.obj", 2,
         "kavrin deltamush: --iterations: 10001 is outside 1 to 10000 (see 'kavrin deltamush --help')"},
        {dm + "--iterations 2.5 pose.obj -o x.obj", 2,
         "kavrin deltamush: --iterations: '2.5' is not a whole number (see 'kavrin deltamush --help')"},
        {dm + "--threads -1 pose.obj -o x.obj", 2,
         "kavrin deltamush: --threads: -1 is outside 0 to 1024 (see 'kavrin deltamush --help')"},
        {dm + "--threads 1025 pose.obj -o x.obj", 2,
         "kavrin deltamush: --threads: 1025 is outside 0 to 1024 (see 'kavrin deltamush --help')"},
        {dm + "--envelope nan pose.obj -o x.obj", 2,
         "kavrin deltamush: --envelope: 'nan' is not a finite number (see 'kavrin deltamush --help')"},
        {dm + "--envelope 2.5 pose.obj -o x.obj", 2,
         "kavrin deltamush: --envelope: 2.5 is outside -2 to 2 (see 'kavrin deltamush --help')"},
        {dm + "pose.obj -o ''", 2,
         "kavrin deltamush: --output: the output path is empty (see 'kavrin deltamush --help')"},
        {tr + "--markers m.txt --aim source-to-target --iterations 0 -o x.obj", 2,
         "kavrin transfer: --iterations: 0 with --aim source-to-target: the fitted source is only written after an "
         "iteration, so the file would have no vertices; use 1 to 30"},
        {tr + "--markers m.txt --aim source-to-target --pairing-log log.txt -o x.obj", 2,
         "kavrin transfer: --pairing-log: --aim source-to-target pairs no triangles"},
        {"demo -o ''", 2, "kavrin demo: --output: the output path is empty (see 'kavrin demo --help')"},
        // Input files.
        {dm + "missing.obj -o x.obj", 2, "kavrin deltamush: missing.obj: cannot open the file (No such file or directory)"},
        {dm + "nan.obj -o x.obj", 2, "kavrin deltamush: nan.obj:3: 'nan' is not a finite number"},
        {dm + "short.obj -o x.obj", 2,
         "kavrin deltamush: short.obj:4: a face needs at least three vertices; this one has 2"},
        {dm + "s.obj -o x.obj", 2, "kavrin deltamush: s.obj: 50 vertices, but rest.obj has 16"},
        {"deltamush --rest loose.obj loose.obj -o x.obj", 2,
         "kavrin deltamush: loose.obj: 2 vertices are in no face (3, 4, counting from 0); delta mush has no edge to "
         "smooth such a vertex over and would write it as NaN"},
        {tr + "--markers twice.txt s.obj -o x.obj", 2,
         "kavrin transfer: twice.txt:4: source vertex 0 is marked twice, here and on line 1"},
        {"transfer --source-rest s-loose.obj --target t.obj --markers m.txt s-loose.obj -o x.obj", 2,
         "kavrin transfer: s-loose.obj: 1 vertex is in no face (50, counting from 0); the fit cannot place such a "
         "vertex unless it is marked (its equations would be singular)"},
        {"transfer --source-rest s.obj --target t-loose.obj --markers m.txt s.obj -o x.obj", 2,
         "kavrin transfer: t-loose.obj: 1 vertex is in no face (42, counting from 0); the transfer cannot place such "
         "a vertex (its equations would be singular)"},
        {tr + "--markers far.txt s.obj -o x.obj", 2,
         "kavrin transfer: far.txt:2: target vertex 9999 is outside the target mesh (42 vertices)"},
        {tr + "--markers m.txt --mode same s.obj -o x.obj", 2,
         "kavrin transfer: --mode same needs meshes with the same vertices; the source has 50, the target 42"},
        {tr + "--markers m.txt --fixed 0 42 s.obj -o x.obj", 2,
         "kavrin transfer: --fixed: target vertex 42 is outside the target mesh"},
        {tr + "--markers m.txt s.obj t.obj -o x", 2, "kavrin transfer: t.obj: 42 vertices, but s.obj has 50"},
        // Output paths, checked before any work.
        {dm + "pose.obj -o no/such/x.obj", 2,
         "kavrin deltamush: no/such/x.obj: cannot write the file (the folder no/such does not exist)"},
        {dm + "pose.obj -o pose.obj", 2,
         "kavrin deltamush: pose.obj: is also an input; kavrin does not write over its inputs"},
        {dm + "pose.obj rest.obj -o rest.obj", 2, "kavrin deltamush: rest.obj: is a file; with several poses -o names a folder"},
        {dm + "pose.obj rest.obj -o file/sub", 2,
         "kavrin deltamush: file/sub: cannot create the output folder (Not a directory)"},
        {dm + "pose.obj rest.obj -o .", 2, "kavrin deltamush: ./pose.obj: is also an input; kavrin does not write over its inputs"},
        {dm + "a/p.obj b/p.obj -o out", 2, "kavrin deltamush: the results of a/p.obj and b/p.obj would both be out/p.obj"},
        {tr + "--markers m.txt --aim source-to-target -o a", 2, "kavrin transfer: a: is a folder, not a file to write"},
        {tr + "--markers m.txt --pairing-log out/t-from-s.obj s.obj -o out/", 2,
         "kavrin transfer: --pairing-log: out/t-from-s.obj is also where a result goes"},
        {"demo -o file", 2, "kavrin demo: file: is a file, not a folder"},
        {"render rest.obj -o x.jpg", 2, "kavrin render: x.jpg: the picture is written as PNG; give it the extension .png"},
        {"render rest.obj --reference s.obj -o x.png", 2,
         "kavrin render: s.obj: 50 vertices, but none of the meshes has that many, so none could be coloured"},
        {"render rest.obj --width 15 -o x.png", 2,
         "kavrin render: --width: 15 is outside 16 to 2048 (see 'kavrin render --help')"},
        {"render rest.obj --height 2049 -o x.png", 2,
         "kavrin render: --height: 2049 is outside 16 to 2048 (see 'kavrin render --help')"},
        {"render missing.obj -o x.png", 2, "kavrin render: missing.obj: cannot open the file (No such file or directory)"},
        {"deltamush --rest points.obj points.obj -o x.obj", 2,
         "kavrin deltamush: points.obj: 3 vertices are in no face (0, 1, 2, counting from 0); delta mush has no "
         "edge to smooth such a vertex over and would write it as NaN"},
        // Point caches and --topology.
        {dm + "small.pc2 -o x.obj", 2, "kavrin deltamush: small.pc2: 5 vertices, but rest.obj has 16"},
        {dm + "bad.pc2 -o x.obj", 2, "kavrin deltamush: bad.pc2: 16 bytes, too short for a PC2 header (32 bytes)"},
        {dm + "big.pc2 -o x.obj", 2,
         "kavrin deltamush: big.pc2 frame 1: vertex 0 is at (3e38, 0, 0); coordinates outside -1e9 to 1e9 overflow "
         "the engines' single-precision arithmetic"},
        {dm + "a.pc2 -o a.pc2", 2, "kavrin deltamush: a.pc2: is also an input; kavrin does not write over its inputs"},
        {"jiggle a.pc2 -o x.obj", 2,
         "kavrin jiggle: a.pc2: a point cache holds positions only; give the mesh whose faces its frames take with "
         "--topology"},
        {"jiggle --topology '' a.pc2 -o x.obj", 2,
         "kavrin jiggle: --topology: the path is empty (see 'kavrin jiggle --help')"},
        {"jiggle --topology missing.obj a.pc2 -o x.obj", 2,
         "kavrin jiggle: missing.obj: cannot open the file (No such file or directory)"},
        {"jiggle --topology s.obj a.pc2 -o x.obj", 2, "kavrin jiggle: a.pc2: 16 vertices, but s.obj has 50"},
        {"jiggle --topology rest.obj s.obj -o x.obj", 2, "kavrin jiggle: s.obj: 50 vertices, but rest.obj has 16"},
        {"offset --red 1 rest.obj a.pc2 -o x.obj", 2,
         "kavrin offset: a.pc2: a point cache holds positions only; give the mesh whose faces its frames take with "
         "--topology"},
        {"offset --red 1 rest.obj s.obj -o x.pc2", 2,
         "kavrin offset: x.pc2: a point cache holds one mesh, but rest.obj has 16 vertices and s.obj 50"},
        {tr + "--markers m.txt --aim source-to-target -o x.pc2", 2,
         "kavrin transfer: x.pc2: --aim source-to-target writes the fitted source as a mesh (OBJ), not a point cache"},
        {tr + "--markers m.txt --pairing-log x.pc2 s.obj -o x.pc2", 2,
         "kavrin transfer: --pairing-log: x.pc2 is also where a result goes"},
        {dm + "a.pc2 pose.obj -o ok.mdd", 0, "", "[3/3] pose.obj -> ok.mdd frame 2"},
        {"jiggle --topology rest.obj a.pc2 -o frames/", 0, "", "a.pc2 frame 1 -> frames/a.0001.obj"},

        // A failed run (for the transfer, only the status and the single line are checked here: the
        // message is the engine's).
        {"transfer --source-rest flat.obj --target t.obj --markers m3.txt --aim source-to-target -o x.obj", 1,
         "kavrin transfer: *"},

        // Once silently wrong: values outside the range where the arithmetic means something.
        {"relax --rest rest.obj --stiffness 2 pose.obj -o x.obj", 2,
         "kavrin relax: --stiffness: 2 is outside 0 to 1 (see 'kavrin relax --help')"},
        {"relax --rest rest.obj --stiffness -1 pose.obj -o x.obj", 2,
         "kavrin relax: --stiffness: -1 is outside 0 to 1 (see 'kavrin relax --help')"},
        {"relax --rest rest.obj --stiffness-map five.txt pose.obj -o x.obj", 2,
         "kavrin relax: five.txt:3: 5 is outside 0 to 1"},
        {"relax --rest rest.obj --collider ball.obj --collider-map wide.txt pose.obj -o x.obj", 2,
         "kavrin relax: wide.txt:1: 1.5 is outside 0 to 1"},
        {"jiggle --damping-map five.txt pose.obj -o x.obj", 2, "kavrin jiggle: five.txt:3: 5 is outside 0 to 1"},
        {"jiggle --time-scale 1.5 pose.obj -o x.obj", 2,
         "kavrin jiggle: --time-scale: 1.5 is outside 0 to 1 (see 'kavrin jiggle --help')"},
        {"offset --red 1 --scale 1e30 pose.obj -o x.obj", 2,
         "kavrin offset: --scale: 1e30 is outside -1e9 to 1e9 (see 'kavrin offset --help')"},
        // Once a hang of 14 minutes: the fit's iterations are bounded, each reports itself.
        {tr + "--markers m.txt --iterations 32767 s.obj -o x.obj", 2,
         "kavrin transfer: --iterations: 32767 is outside 0 to 30 (see 'kavrin transfer --help')"},
        {tr + "--markers m.txt --iterations 2 --aim source-to-target -o fit2.obj", 0, "",
         "fit iteration 2 of 2 ("},
        // Once refused: unmarked shells of any shape.
        {"transfer --source-rest shells.obj --target t.obj --markers m.txt shells.obj -o shells-out/", 0, "",
         "-> shells-out/t-from-shells.obj"},
        // Once unclear: messages now name the input, the cause and the option in the tool's words.
        {"deltamush --rest huge.obj huge.obj -o h.obj", 2,
         "kavrin deltamush: huge.obj: vertex 0 is at (3e38, 0, 0); coordinates outside -1e9 to 1e9 overflow the "
         "engines' single-precision arithmetic"},
        {"deltamush --rest mac.obj mac.obj -o mac-out.obj", 0, ""},
        {dm + "--bogus pose.obj -o x.obj", 2, "kavrin deltamush: unknown option --bogus (see 'kavrin deltamush --help')"},
        {dm + "--rest pose.obj pose.obj -o x.obj", 2,
         "kavrin deltamush: --rest: given 2 times; give it once (see 'kavrin deltamush --help')"},
        {tr + "--markers m.txt --fixed 3 -o x.obj s.obj", 2,
         "kavrin transfer: --fixed: '-o' is not a vertex index (--fixed takes two, SRC TRG) (see 'kavrin transfer "
         "--help')"},
        {tr + "--markers m.txt --mode both s.obj -o x.obj", 2,
         "kavrin transfer: --mode: 'both' is not same or different (see 'kavrin transfer --help')"},
        {"relax --rest rest.obj --stiffness 0.5 --stiffness-map five.txt pose.obj -o x.obj", 2,
         "kavrin relax: give --stiffness or --stiffness-map, not both (see 'kavrin relax --help')"},
        {"transfer --source-rest s.obj --target s.obj --markers m.txt --iterations 1 --aim source-to-target -o "
         "same.obj",
         0,
         "kavrin transfer: warning: This calculation mode may cause inaccurate result. The meshes have the same "
         "vertex count; --mode same may fit better."},

        // Success: nothing on standard error; the documented maximum of an option is accepted.
        {dm + "pose.obj -o ok.obj", 0, ""},
        {dm + "pose.obj -o new/", 0, ""},
        {dm + "--iterations 10000 --threads 1024 --envelope 2 pose.obj -o max.obj", 0, ""},
        {"transfer --source-rest s-loose.obj --target t.obj --markers m-loose.txt --aim source-to-target "
         "--iterations 1 -o fit.obj",
         0, ""},
        {"--version", 0, ""},
        {"deltamush --help", 0, ""},
        {"render rest.obj s.obj --reference pose.obj -o ok.png", 0, ""},
    };
    for (const auto& c : cases) {
        const Outcome r = run(c.args);
        EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.err;
        if (!c.err.empty() && c.err.back() == '*') {
            EXPECT_EQ(r.err.substr(0, c.err.size() - 1), c.err.substr(0, c.err.size() - 1)) << c.args;
            EXPECT_EQ(r.errLines(), 1) << r.err;
        } else {
            EXPECT_EQ(r.err, c.err.empty() ? "" : c.err + "\n") << c.args;
        }
        if (c.status == 2) {
            EXPECT_EQ(r.out, "") << c.args << ": nothing runs before the checks";
        }
        EXPECT_NE(r.out.find(c.out), std::string::npos) << c.args << "\n" << r.out;
    }
    for (const char* never : {"x.obj", "x.pc2", "h.obj", "out", "no", "file/sub", "x.jpg", "x.png"}) EXPECT_FALSE(fs::exists(dir / never)) << never;
    EXPECT_EQ(ReadObj(path("mac-out.obj")).faceVertices, grid.faceVertices) << "old Mac line ends and a BOM are read";
    EXPECT_TRUE(fs::exists(dir / "ok.obj"));
    EXPECT_TRUE(fs::exists(dir / "new" / "pose.obj")) << "a path ending in / is a folder, also for one pose";
    EXPECT_TRUE(fs::exists(dir / "fit.obj"));
    EXPECT_TRUE(fs::exists(dir / "ok.png"));
    const KPointCache mdd = ReadPointCache(path("ok.mdd"));
    EXPECT_EQ(mdd.frames(), 3) << "two cache frames and an OBJ pose, in order";
    EXPECT_EQ(mdd.times, (std::vector<float>{0.0f, 1.0f / 24, 2.0f / 24})) << "mixed inputs: frame i at i / 24 s";
}

// A run that fails part-way (a full disk at its second result, a device that takes nothing)
// leaves every destination exactly as it was and no file or folder of its own behind.
TEST_F(KavrinStatus, AFailedRunLeavesEveryOutputAsItWas) {
    // Two frames of one sheet: short coordinates, then long ones, so that a file-size limit
    // between their sizes lets the first result be written and stops the second.
    KPolyMesh a = MakeDetailedGrid(30, 29.0f);
    KPolyMesh b = a;
    for (KVector& p : b.points) p += KVector(0.123456789f, 1e-5f / 3, 0.3f);
    save("a.obj", a);
    save("b.obj", b);
    std::string zeros;
    for (int v = 0; v < a.numVertices(); ++v) zeros += "0\n";
    write("zeros.txt", zeros);  // weights 0: each result is its frame
    const std::string jiggle = "jiggle --weights zeros.txt a.obj b.obj -o ";
    const auto size = [&](const char* name) { return fs::file_size(dir / name); };
    ASSERT_LT(size("a.obj") + 1000, size("b.obj"));
    const std::string limit = std::to_string((size("a.obj") + size("b.obj")) / 2);

    ASSERT_EQ(run(jiggle + "old").status, 0);
    write("old/a.obj", "an earlier result\n");
    const std::string before = Slurp(dir / "old" / "a.obj") + Slurp(dir / "old" / "b.obj");
    launcher = "prlimit --fsize=" + limit + " ";
    const struct {
        std::string args, err;
    } cases[] = {
        {jiggle + "old", "kavrin jiggle: old/b.obj: cannot write the file (File too large); nothing was written\n"},
        {jiggle + "new/sub", "kavrin jiggle: new/sub/b.obj: cannot write the file (File too large); nothing was "
                             "written\n"},
        {"deltamush --rest a.obj b.obj -o /dev/full",
         "kavrin deltamush: /dev/full: cannot write the file (No space left on device); nothing was written\n"},
    };
    for (const auto& c : cases) {
        const Outcome r = run(c.args);
        EXPECT_EQ(r.status, 1) << c.args;
        EXPECT_EQ(r.err, c.err) << c.args;
    }
    launcher.clear();
    EXPECT_EQ(Slurp(dir / "old" / "a.obj") + Slurp(dir / "old" / "b.obj"), before) << "the earlier results stay";
    EXPECT_EQ(std::distance(fs::directory_iterator(dir / "old"), fs::directory_iterator()), 2) << "no temporary file";
    EXPECT_FALSE(fs::exists(dir / "new")) << "folders the failed run made are removed";
}
