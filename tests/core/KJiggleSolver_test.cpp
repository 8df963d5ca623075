// Jiggle engine: hand-worked steps, a sequence against a step-by-step reference, the time rules,
// the edge cases of the simulation, map write-back, guards and threads.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>

#include "KJiggleSolver.h"
#include "MeshGenerators.h"

using namespace Kavrin;

namespace {

// Everything one evaluation needs, owned here; input() points the engine at it.
struct Frame {
    KArray<KDouble3> points;  // iterated points, object space
    KIntArray indices;
    KArray<float> weights;
    KArray<KDouble3> meshPoints;
    KVectorArray normals;
    KTriMesh tangent;
    KArray<double> maps[3];  // damping, stiffness, normal strength; empty: no values
    KJiggleInput in;

    KJiggleInput& input() {
        in.points = &points;
        in.indices = &indices;
        in.weights = &weights;
        in.meshPoints = &meshPoints;
        in.numVertices = meshPoints.length();
        in.normals = &normals;
        in.tangentMesh = &tangent;
        KJiggleMap* m[3] = {&in.dampingMap, &in.stiffnessMap, &in.normalStrengthMap};
        for (int k = 0; k < 3; ++k) *m[k] = maps[k].empty() ? KJiggleMap() : KJiggleMap{maps[k].data(), maps[k].length()};
        return in;
    }
};

// n points at x = 0, 1, ..., each its own vertex with normal (0, 0, 1), deformed in vertex order
// with weight 1.
Frame Line(int n) {
    Frame f;
    for (int v = 0; v < n; ++v) {
        f.points.push_back(KDouble3{double(v), 0, 0});
        f.indices.push_back(v);
        f.weights.push_back(1.0f);
        f.normals.push_back(KVector(0, 0, 1));
    }
    f.meshPoints = f.points;
    return f;
}

// A roof along y: ridge at x, z = 1, falling by 3/4 per unit on both sides (face normals
// (+-0.6, 0, 0.8)). Vertex 1, the middle of the ridge, is surrounded by six triangles.
KTriMesh Roof(float x) {
    KTriMesh m;
    for (const KVector& p : {KVector(x, -4, 1), KVector(x, 0, 1), KVector(x, 4, 1), KVector(x + 4, -4, -2),
                             KVector(x + 4, 4, -2), KVector(x - 4, -4, -2), KVector(x - 4, 4, -2)})
        m.points.push_back(p);
    for (const KInt3& t : {KInt3{1, 0, 3}, KInt3{1, 3, 4}, KInt3{1, 4, 2}, KInt3{1, 2, 6}, KInt3{1, 6, 5}, KInt3{1, 5, 0}})
        m.triangles.push_back(t);
    return m;
}

// The roof's ridge vertex as the one deformed point (normal (0, 0, 1)), flattening at half
// strength and snapping onto the roof.
Frame Ridge() {
    Frame f;
    f.tangent = Roof(0);
    for (const KVector& p : f.tangent.points) f.meshPoints.push_back(KDouble3{p.x, p.y, p.z});
    f.points.push_back(KDouble3{0, 0, 1});
    f.indices.push_back(1);
    f.weights.push_back(1.0f);
    f.normals.setLength(7, false);
    f.normals[1] = KVector(0, 0, 1);
    f.in.normalStrength = 0.5f;
    f.in.moreAccurateTangent = true;
    return f;
}

// The step as the deformer describes it, written out once more on plain doubles (without the
// snapping): state by vertex index, points in iterator order, every rule in its order.
struct Reference {
    using V = KDouble3;
    bool first = true;
    double lastTime = 0;
    KArray<V> cur, prev, vel;

    static V Mul(const V& p, const double m[4][4]) {
        V r;
        for (int j = 0; j < 3; ++j) r[j] = p[0] * m[0][j] + p[1] * m[1][j] + p[2] * m[2][j] + m[3][j];
        return r;
    }
    static double Dot(const KVector& n, const V& v) { return double(n.x) * v[0] + double(n.y) * v[1] + double(n.z) * v[2]; }

    // Returns false when the points are left untouched; out then holds the input.
    bool evaluate(const KJiggleInput& in, KArray<V>& out) {
        const int count = in.points->length();
        out = *in.points;
        if (first) {
            for (const KDouble3& p : *in.meshPoints) cur.push_back(Mul(p, in.localToWorld));
            prev = cur;
            vel.assign(cur.size(), V{0, 0, 0});
            lastTime = in.time;
            first = false;
        }
        const double dt = in.time - lastTime;
        if (dt > 1.0 || dt < 0) lastTime = in.time;
        if (dt > 1.0 || dt < 0 || double(in.startFrame) >= in.time) return false;
        const double h = double(in.timeScale) * dt, L = double(in.distanceLimit) * double(in.scale);
        const auto map = [](const KJiggleMap& m, int idx) { return m.values ? m.values[idx] : 1.0; };
        for (int i = 0; i < count; ++i) {
            const int idx = (*in.indices)[i];
            const double d = in.damping * map(in.dampingMap, idx), s = in.stiffness * map(in.stiffnessMap, idx);
            const double n = in.normalStrength * map(in.normalStrengthMap, idx), b = in.directionBias;
            const V g = Mul(out[i], in.localToWorld);
            V p, e, r;
            for (int k = 0; k < 3; ++k) {
                vel[idx][k] = (cur[idx][k] - prev[idx][k]) * ((1 - d) * h);
                p[k] = cur[idx][k] + vel[idx][k];
                p[k] = p[k] + (g[k] - p[k]) * (s * h * h);
                e[k] = p[k] - g[k];
            }
            const double e2 = e[0] * e[0] + e[1] * e[1] + e[2] * e[2];
            for (int k = 0; k < 3 && std::sqrt(e2) > L; ++k) {
                e[k] = (e2 > 1e-20 ? e[k] / std::sqrt(e2) : e[k]) * L;
                p[k] = g[k] + e[k];
            }
            const KVector N = (*in.normals)[idx];
            const float c = float((1 - n) * Dot(N, e));
            const float Nc[3] = {N.x * c, N.y * c, N.z * c};
            for (int k = 0; k < 3 && n < 1; ++k) p[k] -= Nc[k];
            for (int k = 0; k < 3; ++k) r[k] = p[k] - g[k];
            const double r2 = r[0] * r[0] + r[1] * r[1] + r[2] * r[2];
            const double kk = Dot(N, r2 > 1e-20 ? V{r[0] / std::sqrt(r2), r[1] / std::sqrt(r2), r[2] / std::sqrt(r2)} : r);
            for (int k = 0; k < 3 && b != 0 && kk < 0; ++k) p[k] += r[k] * (b * kk);
            prev[idx] = cur[idx];
            cur[idx] = p;
            const V q = Mul(p, in.worldToLocal);
            for (int k = 0; k < 3; ++k) out[i][k] += (q[k] - out[i][k]) * (double((*in.weights)[i]) * double(in.envelope));
        }
        lastTime = in.time;
        return true;
    }
};

void ExpectPoint(const KDouble3& got, double x, double y, double z, double tol, const char* what) {
    EXPECT_NEAR(got[0], x, tol) << what;
    EXPECT_NEAR(got[1], y, tol) << what;
    EXPECT_NEAR(got[2], z, tol) << what;
}

void SetTranslation(KJiggleInput& in, double x, double y, double z) {
    in.localToWorld[3][0] = x, in.localToWorld[3][1] = y, in.localToWorld[3][2] = z;
    in.worldToLocal[3][0] = -x, in.worldToLocal[3][1] = -y, in.worldToLocal[3][2] = -z;
}

}  // namespace

// Two steps of the ridge vertex of a roof sliding along x, every term on: maps, damping, spring,
// the distance limit (step 1), the normal flattening (step 2), snapping onto the roof, the
// direction bias, a matrix, and weight x envelope. Values worked out by hand in the comments.
TEST(Jiggle, TwoHandWorkedStepsWithEveryTermOn) {
    Frame f = Ridge();
    f.weights[0] = 0.5f;
    f.maps[0].setLengthWithValue(7, 0.5);  // d = 0.25 * 0.5 = 0.125
    f.maps[1].setLengthWithValue(7, 0.5);  // s = 0.5 * 0.5 = 0.25
    f.maps[2].setLengthWithValue(7, 0.5);  // n = 0.5 * 0.5 = 0.25
    KJiggleInput& in = f.input();
    in.damping = 0.25f;
    in.stiffness = 0.5f;
    in.distanceLimit = 0.5f;  // L = 0.5 * 2 = 1
    in.scale = 2.0f;
    in.directionBias = 0.5f;
    in.envelope = 0.5f;  // blend = 0.5 * 0.5 = 0.25
    SetTranslation(in, 0, 3, 0);  // along the ridge, so world and object space see the same roof

    KJiggleSolver solver;
    ASSERT_EQ(solver.evaluate(in).outcome.status, KOutcome::kUntouched);  // t = 0: start, at the start frame
    ExpectPoint(solver.currentPositions()[1], 0, 3, 1, 0, "started at the goal in world space");

    // t = 1, the roof slid by 2: g = (2, 3, 1). v = 0; spring: p = (0,3,1) + (2,0,0) * 0.25 = (0.5, 3, 1);
    // e = (-1.5, 0, 0), |e| > 1: e = (-1, 0, 0), p = (1, 3, 1). N.e = 0: no flattening. Snapping: p is
    // 0.6 above the left face (normal (-0.6, 0, 0.8)): closest (1.36, 3, 0.52). Bias: r = (-0.64, 0, -0.48),
    // unit (-0.8, 0, -0.6), k = -0.6: p += r * (0.5 * -0.6) -> (1.552, 3, 0.664). Output:
    // (2, 0, 1) + ((1.552, 0, 0.664) - (2, 0, 1)) * 0.25 = (1.888, 0, 0.916).
    f.tangent = Roof(2);
    f.points[0] = KDouble3{2, 0, 1};
    in.time = 1;
    ASSERT_EQ(solver.evaluate(f.input()).outcome.status, KOutcome::kDeformed);
    ExpectPoint(solver.currentPositions()[1], 1.552, 3, 0.664, 1e-6, "step 1 state");
    ExpectPoint(solver.points()[0], 1.888, 0, 0.916, 1e-6, "step 1 output");

    // t = 2, the roof at x = 3: g = (3, 3, 1). v = (1.552, 0, -0.336) * 0.875 = (1.358, 0, -0.294);
    // p = (2.91, 3, 0.37); spring: + (0.09, 0, 0.63) * 0.25 -> (2.9325, 3, 0.5275); e = (-0.0675, 0,
    // -0.4725), |e| < 1. c = 0.75 * -0.4725 = -0.354375: p = (2.9325, 3, 0.881875). Snapping: below the
    // left face by 0.054 (right face 0.135, ridge 0.136): (2.9001, 3, 0.925075). Bias: r = (-0.0999, 0,
    // -0.074925) = 0.124875 * (-0.8, 0, -0.6): p += r * -0.3 -> (2.93007, 3, 0.9475525). Output:
    // (3, 0, 1) + ((2.93007, 0, 0.9475525) - (3, 0, 1)) * 0.25 = (2.9825175, 0, 0.986888125).
    f.tangent = Roof(3);
    f.points[0] = KDouble3{3, 0, 1};
    in.time = 2;
    ASSERT_EQ(solver.evaluate(f.input()).outcome.status, KOutcome::kDeformed);
    ExpectPoint(solver.velocities()[1], 1.358, 0, -0.294, 1e-6, "step 2 velocity");
    ExpectPoint(solver.currentPositions()[1], 2.93007, 3, 0.9475525, 1e-6, "step 2 state");
    ExpectPoint(solver.points()[0], 2.9825175, 0, 0.986888125, 1e-6, "step 2 output");
    EXPECT_EQ(solver.lastTime(), 2.0);
}

// Twelve frames of a waving sheet with a rotating, scaling, translating matrix, random maps and
// weights, the limit, the flattening and the bias all at work, and time steps of every kind. The
// points are part of the vertices in a shuffled order, a quarter of them named twice (they step
// one after the other, whatever the team size): the engine must match the reference to the bit.
TEST(Jiggle, SequenceMatchesStepByStepReference) {
    const KPolyMesh sheet = MakeDetailedGrid(80, 4.0f);  // enough points for a team of threads
    const int nv = sheet.numVertices();
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    Frame f;
    for (int v = 0; v < nv; ++v) f.meshPoints.push_back(KDouble3{sheet.points[v].x, sheet.points[v].y, sheet.points[v].z});
    std::vector<int> order;
    for (int v = 0; v < nv; ++v)
        if (v % 5 != 3) order.push_back(v);
    for (int v = 0; v < nv; v += 4) order.push_back(v);
    std::shuffle(order.begin(), order.end(), rng);
    for (int v : order) {
        f.indices.push_back(v);
        f.weights.push_back(static_cast<float>(u(rng)));
        f.points.push_back(KDouble3());
    }
    for (KArray<double>& m : f.maps)
        for (int v = 0; v < nv; ++v) m.push_back(0.3 + 0.9 * u(rng));

    KJiggleInput& in = f.input();
    in.damping = 0.2f;
    in.stiffness = 0.45f;
    in.normalStrength = 0.6f;
    in.distanceLimit = 0.35f;
    in.scale = 1.5f;
    in.directionBias = -0.4f;
    in.timeScale = 0.9f;
    in.startFrame = 1;
    in.envelope = 0.8f;
    in.threads = 4;
    // Rows: 0.8 * rotation about z by the angle with cosine 0.6, then translation.
    const double m[4][4] = {{0.48, 0.64, 0, 0}, {-0.64, 0.48, 0, 0}, {0, 0, 0.8, 0}, {1.5, -2, 0.25, 1}};
    const double inv[4][4] = {{0.75, -1, 0, 0}, {1, 0.75, 0, 0}, {0, 0, 1.25, 0}, {0.875, 3, -0.3125, 1}};
    std::copy(&m[0][0], &m[0][0] + 16, &in.localToWorld[0][0]);
    std::copy(&inv[0][0], &inv[0][0] + 16, &in.worldToLocal[0][0]);

    KJiggleSolver solver;
    Reference ref;
    int deformed = 0;
    for (double t : {0.0, 1.0, 2.0, 3.0, 3.0, 3.5, 4.25, 6.0, 7.0, 6.5, 7.5, 8.5}) {  // a repeat, jumps, a step back
        KPolyMesh pose = sheet;
        for (KVector& p : pose.points) p.z += 0.6f * std::sin(1.3f * p.x + 0.8f * float(t)) + 0.2f * p.y * float(t);
        for (int i = 0; i < f.indices.length(); ++i) {
            const KVector& p = pose.points[f.indices[i]];
            f.points[i] = KDouble3{p.x, p.y, p.z};
        }
        Triangulated(pose).getVertexNormals(f.normals, true);
        in.time = t;
        KArray<KDouble3> expected;
        const bool refDeformed = ref.evaluate(f.input(), expected);
        ASSERT_EQ(solver.evaluate(f.input()).outcome.deformed(), refDeformed) << "t = " << t;
        deformed += refDeformed;
        ASSERT_TRUE(!refDeformed || solver.points() == expected) << "t = " << t;
        ASSERT_TRUE(solver.currentPositions() == ref.cur && solver.velocities() == ref.vel) << "t = " << t;
    }
    // 0 starts, 1 is at the start frame (the clock stays at 0), so 2 is a jump; 6 and 6.5 jump too.
    EXPECT_EQ(deformed, 7);
}

// The clock: a jump forward of more than 1 or any step back only moves it (scrubbing back shows
// the input once, then steps on from the kept state); at or before the start frame neither the
// clock nor the state moves; the same time again steps with h = 0 (the velocity becomes zero, the
// limit still applies).
TEST(Jiggle, TimeRules) {
    Frame f = Line(1);
    KJiggleInput& in = f.input();
    in.startFrame = 2;
    in.stiffness = 0.5f;
    KJiggleSolver solver;
    const struct {
        double time, goal;
        KOutcome::Status status;
        double lastTime, x, velocity;
        const char* what;
    } steps[] = {
        {0, 0, KOutcome::kUntouched, 0, 0, 0, "start"},
        {1, 0, KOutcome::kUntouched, 0, 0, 0, "before the start frame: the clock stays"},
        {2, 0, KOutcome::kUntouched, 2, 0, 0, "dt = 2 jumps: only the clock moves"},
        {2, 0, KOutcome::kUntouched, 2, 0, 0, "at the start frame nothing moves"},
        {3, 1, KOutcome::kDeformed, 3, 0.5, 0, "dt = 1 steps: 0 + (1 - 0) * 0.5"},
        {3, 3, KOutcome::kDeformed, 3, 2, 0, "dt = 0: no velocity, no spring, e = -2.5 limited to -1"},
        {2.5, 3, KOutcome::kUntouched, 2.5, 2, 0, "backwards: only the clock moves"},
        {3.5, 3, KOutcome::kDeformed, 3.5, 3.175, 1.35, "steps from the kept state: 2 + 1.5 * 0.9, then the spring"},
        {4.75, 3, KOutcome::kUntouched, 4.75, 3.175, 1.35, "dt = 1.25 jumps"},
    };
    for (const auto& s : steps) {
        f.points[0] = KDouble3{s.goal, 0, 0};
        in.time = s.time;
        EXPECT_EQ(solver.evaluate(f.input()).outcome.status, s.status) << s.what;
        EXPECT_EQ(solver.lastTime(), s.lastTime) << s.what;
        EXPECT_NEAR(solver.currentPositions()[0][0], s.x, 1e-6) << s.what;
        EXPECT_NEAR(solver.velocities()[0][0], s.velocity, 1e-6) << s.what;
    }
}

// The described edge cases of the simulation, on one point whose goal moves along x (0.5 t^2) and
// along its normal z (0.8 t) unless `step` places it elsewhere; flattening and bias are at work,
// and the snapping surface is empty, so snapping finds nothing and changes nothing.
TEST(Jiggle, EdgeCasesOfTheSimulation) {
    struct Run {
        Frame f = Line(1);
        KJiggleSolver s;
    };
    const auto run = [](const std::function<void(Frame&, int)>& step) {
        Run r;
        r.f.in.normalStrength = 0.5f;
        r.f.in.directionBias = 0.5f;
        for (int t = 0; t <= 3; ++t) {
            r.f.points[0] = KDouble3{0.5 * t * t, 0, 0.8 * t};
            r.f.in.time = t;
            step(r.f, t);
            r.s.evaluate(r.f.input());
        }
        return r;
    };

    // Stiffness 1 lands on the goal (1) in the first step; then, with no spring and no loss, the
    // point keeps moving by 1 per step although the goal stays at 1.
    const Run drift = run([](Frame& f, int t) {
        f.points[0] = KDouble3{t > 0 ? 1.0 : 0.0, 0, 0};
        f.in.stiffness = t == 1 ? 1.0f : 0.0f, f.in.damping = 0.0f, f.in.distanceLimit = 1e6f;
    });
    EXPECT_EQ(drift.s.currentPositions()[0], (KDouble3{3, 0, 0}));
    EXPECT_EQ(drift.s.velocities()[0], (KDouble3{1, 0, 0}));

    // stiffness x map x h^2 = 1, whichever way: the point lands on its goal (the limit and the
    // bias then have nothing to act on).
    const struct {
        float stiffness, map, timeScale;
    } units[] = {{1, 1, 1}, {0.25f, 1, 2}, {0.5f, 0.5f, 2}, {1, 4, 0.5f}};
    for (const auto& c : units) {
        const Run r = run([&](Frame& f, int) {
            f.in.stiffness = c.stiffness, f.in.timeScale = c.timeScale, f.in.damping = 0.3f;
            f.maps[1].setLengthWithValue(1, c.map);
        });
        ExpectPoint(r.s.currentPositions()[0], 4.5, 0, 2.4, 1e-14, "on the goal");
    }

    // distanceLimit 0 or scale 0: the point sits on its goal; e = 0 leaves nothing for the normal
    // and bias terms.
    for (const auto& limits : {std::make_pair(0.0f, 1.0f), std::make_pair(1.0f, 0.0f)}) {
        const Run r = run([&](Frame& f, int) { f.in.distanceLimit = limits.first, f.in.scale = limits.second; });
        EXPECT_EQ(r.s.currentPositions()[0], r.f.points[0]);
        EXPECT_EQ(r.s.points()[0], r.f.points[0]);
    }

    // normalStrength 1 with map 1 skips the flattening even with moreAccurateTangent on; a map
    // value below 1 brings it back.
    const Run plain = run([](Frame& f, int) { f.in.normalStrength = 1.0f; });
    const Run accurate = run([](Frame& f, int) { f.in.normalStrength = 1.0f, f.in.moreAccurateTangent = true; });
    const Run snapped = run([](Frame& f, int) {
        f.in.normalStrength = 1.0f, f.in.moreAccurateTangent = true;
        f.maps[2].setLengthWithValue(1, 0.99);
    });
    EXPECT_EQ(plain.s.points(), accurate.s.points());
    EXPECT_NE(plain.s.points(), snapped.s.points());

    // Weight 0 leaves the point at its input, while the state evolves exactly as with weight 1.
    const Run unweighted = run([](Frame& f, int) { f.weights[0] = 0.0f; });
    const Run weighted = run([](Frame&, int) {});
    EXPECT_EQ(unweighted.s.points(), unweighted.f.points);
    EXPECT_EQ(unweighted.s.currentPositions(), weighted.s.currentPositions());
}

// Snapping searches the surface in world space, where the simulated point is, within
// 1.5 |e| + 1e-4; a point with no surface that near keeps its position, and normal strength 1
// (map 1) skips the snapping.
TEST(Jiggle, SnappingSearchesTheWorldSpaceSurfaceWithinItsRadius) {
    // One step of the ridge vertex by 0.2 along x with the object lifted along z: p = (0.06, 0,
    // 1 + lift), e = (-0.14, 0, 0), no flattening (e is along the ridge's tangent); p lies
    // 0.75 * 0.06 above the right face (normal (0.6, 0, 0.8)), 0.036 from it, within the radius
    // 0.2101: closest (0.0384, 0, 1 + lift - 0.0288), whatever the lift. With the roof moved 1
    // along x the nearest face lies 0.564 away: nothing is found and p stays.
    const struct {
        double lift;
        float roofAt, normalStrength;
        double x, z;  // object space
    } cases[] = {{0, 0, 0.5f, 0.0384, 1 - 0.0288}, {100, 0, 0.5f, 0.0384, 1 - 0.0288}, {0, 1, 0.5f, 0.06, 1},
                 {100, 1, 0.5f, 0.06, 1},           {0, 0, 1.0f, 0.06, 1}};
    for (const auto& c : cases) {
        Frame f = Ridge();
        f.in.normalStrength = c.normalStrength;
        SetTranslation(f.in, 0, 0, c.lift);
        KJiggleSolver solver;
        solver.evaluate(f.input());
        f.tangent = Roof(c.roofAt);
        f.points[0] = KDouble3{0.2, 0, 1};
        f.in.time = 1;
        ASSERT_EQ(solver.evaluate(f.input()).outcome.status, KOutcome::kDeformed);
        ExpectPoint(solver.currentPositions()[1], c.x, 0, c.z + c.lift, 1e-5, "world position");
        ExpectPoint(solver.points()[0], c.x, 0, c.z, 1e-5, "object space");
    }
}

// Below 1e-30 the envelope switches the deformer off: nothing runs, the simulation does not even
// start. Maps without values become one 1.0 per vertex and are written back; stored maps are used
// as they are, whatever their values.
TEST(Jiggle, EnvelopeOffAndMapsWrittenBack) {
    for (float envelope : {0.0f, 1e-31f, -1.0f}) {
        Frame f = Line(1);
        f.in.envelope = envelope;
        KJiggleSolver solver;
        const KJiggleResult r = solver.evaluate(f.input());
        EXPECT_EQ(r.outcome.status, KOutcome::kUntouched);
        EXPECT_TRUE(!r.writeDampingMap && !r.writeStiffnessMap && !r.writeNormalStrengthMap && solver.meshPointsNeeded());
    }

    Frame f = Line(1);
    f.meshPoints.push_back(KDouble3{5, 5, 5});  // a second vertex that is not deformed
    f.normals.push_back(KVector(0, 0, 1));
    f.maps[1] = KArray<double>{2.0, 7.0};
    KJiggleSolver solver;
    KJiggleInput& in = f.input();
    const KArray<double> empty;
    in.dampingMap = KJiggleMap{empty.data(), 0};  // read, but empty
    const KJiggleResult r = solver.evaluate(in);
    EXPECT_TRUE(r.writeDampingMap && r.writeNormalStrengthMap);
    EXPECT_FALSE(r.writeStiffnessMap);
    EXPECT_EQ(solver.fullMap(), (KArray<double>{1.0, 1.0}));

    // The in-memory attributes take the write-back, and keep a stored map.
    KJiggleAttributes a;
    a.hasStiffnessMap = true;
    a.stiffnessMap = KArray<double>(9);
    KJiggleSolver s2;
    a.evaluate(s2, MakeDetailedGrid(3, 1.0f), 0.0, nullptr, 1.0f, 1);
    EXPECT_TRUE(a.hasDampingMap && a.hasNormalStrengthMap);
    EXPECT_TRUE(a.dampingMap == s2.fullMap() && a.normalStrengthMap == s2.fullMap() && s2.fullMap().length() == 9);
    EXPECT_EQ(a.stiffnessMap, KArray<double>(9));
}

// Guards: each turns a read outside an array into a failed evaluation with its message that
// writes nothing and leaves the state as it was.
TEST(Jiggle, GuardsFailWithTheirMessageAndTouchNothing) {
    const struct {
        const char* message;
        std::function<void(Frame&)> spoil;
    } cases[] = {
        {kJiggleBadIndex, [](Frame& f) { f.indices[1] = 2; }},
        {kJiggleBadIndex, [](Frame& f) { f.indices[0] = -1; }},
        {kJiggleMeshGrew, [](Frame& f) { f.meshPoints.push_back(KDouble3()), f.normals.push_back(KVector()), f.indices[1] = 2; }},
        {kJiggleDampingMapTooShort, [](Frame& f) { f.maps[0] = KArray<double>{1.0}; }},
        {kJiggleStiffnessMapTooShort, [](Frame& f) { f.maps[1] = KArray<double>{1.0}; }},
        {kJiggleNormalStrengthMapTooShort, [](Frame& f) { f.maps[2] = KArray<double>{1.0}; }},
        {kJiggleInputMismatch, [](Frame& f) { f.weights.pop_back(); }},
        {kJiggleInputMismatch, [](Frame& f) { f.normals.pop_back(); }},
    };
    for (const auto& c : cases) {
        Frame f = Line(2);
        KJiggleSolver solver;
        solver.evaluate(f.input());  // started on two vertices
        f.in.time = 1;
        for (KDouble3& p : f.points) p[0] += 0.5;
        c.spoil(f);
        const KArray<KDouble3> before = solver.currentPositions();
        const KJiggleResult r = solver.evaluate(f.input());
        EXPECT_EQ(r.outcome.message, c.message);
        EXPECT_TRUE(r.outcome.failed() && !r.writeDampingMap && !r.writeStiffnessMap && !r.writeNormalStrengthMap) << c.message;
        EXPECT_TRUE(solver.currentPositions() == before && solver.lastTime() == 0.0) << c.message << ": state kept";
    }

    // A failure at the first evaluation does not start the simulation; evaluations that do not
    // step read nothing per vertex and so do not fail.
    Frame f = Line(1);
    f.in.time = 1;
    f.meshPoints.clear();
    KJiggleSolver solver;
    EXPECT_EQ(solver.evaluate(f.input()).outcome.message, kJiggleInputMismatch);
    EXPECT_TRUE(solver.meshPointsNeeded());
    Frame g = Line(1);
    solver.evaluate(g.input());
    g.in.time = -1;
    g.indices[0] = 40;
    EXPECT_EQ(solver.evaluate(g.input()).outcome.status, KOutcome::kUntouched);
}

// The node's thread rule, and results (snapping included) that do not depend on the team size.
TEST(Jiggle, ThreadsRuleAndIdenticalResults) {
    const int teams[] = {1, 1, 8, 1};  // only mode 2 spreads; 1 ("Multi-CPUs") stays on one thread
    for (int mode = 0; mode < 4; ++mode) EXPECT_EQ(KJiggleSolver::TeamSize(mode, 8), teams[mode]) << mode;

    const KPolyMesh sheet = MakeDetailedGrid(90, 4.0f);  // 8,100 vertices: several threads take part
    KArray<KDouble3> results[2];
    const int threads[2] = {1, 4};
    for (int k = 0; k < 2; ++k) {
        KJiggleAttributes a;
        a.normalStrength = 0.4f;
        a.directionBias = 0.3f;
        a.moreAccurateTangent = true;
        KJiggleSolver solver;
        for (int t = 0; t < 4; ++t) {
            KPolyMesh pose = sheet;
            for (KVector& p : pose.points) p.z += 0.3f * std::sin(p.x + t);
            ASSERT_FALSE(a.evaluate(solver, pose, t, nullptr, 1.0f, threads[k]).outcome.failed());
        }
        results[k] = solver.points();
    }
    EXPECT_EQ(results[0], results[1]);
}
