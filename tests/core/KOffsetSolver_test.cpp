// Offset engine: the displacement's order and precision, the sample arrays, messages and guards.

#include <gtest/gtest.h>

#include "KOffsetSolver.h"

using namespace Kavrin;

namespace {

// Answers every sample with one colour (or with what `colours` holds) and records what it saw.
struct FixedSampler : KShadingSampler {
    KFloat3 colour{0.25f, 0.0f, 0.0f};
    KArray<KFloat3> colours;  // used instead of `colour` when not empty
    bool succeed = true;
    int calls = 0;
    std::string engine;
    KOffsetSamples seen;

    bool sample(const std::string& shadingEngine, const KOffsetSamples& samples, KArray<KFloat3>& out) override {
        ++calls;
        engine = shadingEngine;
        seen = samples;
        if (!colours.empty())
            out = colours;
        else
            out.setLengthWithValue(samples.count(), colour);
        return succeed;
    }
};

KOffsetVertex Vertex(KDouble3 position, KDouble3 normal, float weight = 1.0f, float u = 0.0f, float v = 0.0f) {
    KOffsetVertex vertex;
    vertex.position = position;
    vertex.normal = normal;
    vertex.weight = weight;
    vertex.u = u;
    vertex.v = v;
    return vertex;
}

struct OffsetRun {
    KArray<KOffsetVertex> vertices;
    KOffsetInput input;
    KOffsetSolver solver;
    FixedSampler sampler;

    OffsetRun() {
        input.shadingEngine = "offsetEngine1";
        input.vertices = &vertices;
    }
    KOutcome evaluate() { return solver.evaluate(input, sampler); }
    KDouble3 point(int i) const {
        double out[3];
        solver.displacedPoint(i, vertices[i].position.v, out);
        return KDouble3{out[0], out[1], out[2]};
    }
};

}  // namespace

TEST(Offset, DisplacementIsFormedInDoubleThenNarrowedAndAppliedPerComponentInSingle) {
    OffsetRun run;
    // 0.1f * 3 * 0.7f * 0.3f is 0x1.020c4ap-4 when the product is formed in double and narrowed
    // once; a product formed in float would give 0x1.020c4cp-4.
    run.vertices.push_back(Vertex({1.0, 2.0, 3.0}, {0.6, 0.8, 0.1}, 0.3f));
    run.input.envelope = 0.1f;
    run.input.scale = 3.0;
    run.sampler.colour = KFloat3{0.7f, 0.0f, 0.0f};
    ASSERT_TRUE(run.evaluate().deformed());
    const KVector d = run.solver.displacements()[0];
    EXPECT_EQ(d.x, 0x1.35a85ap-5f) << "0.6f * a rounded to float, not 0.6 * a in double";
    EXPECT_EQ(d.y, 0x1.9ce076p-5f);
    EXPECT_EQ(d.z, 0x1.9ce076p-8f);
    const KDouble3 p = run.point(0);
    EXPECT_EQ(p[0], 1.0 + 0x1.35a85ap-5) << "the point is p + d added in double";
    EXPECT_EQ(p[1], 2.0 + 0x1.9ce076p-5);
    EXPECT_EQ(p[2], 3.0 + 0x1.9ce076p-8);
}

TEST(Offset, ConstantRedMovesAlongTheNormalByEnvelopeScaleRedWeight) {
    struct Case {
        float envelope;
        double scale;
        float red, weight;
        double expected;  // signed distance along the unit normal (0, 0, 1)
    };
    const Case cases[] = {
        {1.0f, 1.0, 0.25f, 1.0f, 0.25},
        {0.5f, 2.0, 0.25f, 0.8f, double(0.2f)},  // a = 0.2 narrowed: 0.20000000298...
        {1.0f, -1.5, 0.5f, 1.0f, -0.75},          // negative scale pushes inwards
        {1.0f, 1.0, -0.5f, 1.0f, -0.5},           // a negative red as well
        {0.0f, 1.0, 0.5f, 1.0f, 0.0},             // envelope 0: in place, no early exit
        {1.0f, 0.0, 0.5f, 1.0f, 0.0},             // scale 0
        {1.0f, 1.0, 0.5f, 0.0f, 0.0},             // weight 0
        {2.0f, 1.0, 0.5f, 1.0f, 1.0},             // envelope above 1 is not clamped
    };
    for (const Case& c : cases) {
        OffsetRun run;
        run.vertices.push_back(Vertex({0.5, -1.0, 3.0}, {0.0, 0.0, 1.0}, c.weight));
        run.input.envelope = c.envelope;
        run.input.scale = c.scale;
        run.sampler.colour = KFloat3{c.red, 0.9f, 0.9f};
        ASSERT_TRUE(run.evaluate().deformed());
        EXPECT_EQ(run.sampler.calls, 1) << "the sampling runs whatever the amount";
        const KDouble3 p = run.point(0);
        EXPECT_EQ(p[0], 0.5);
        EXPECT_EQ(p[1], -1.0);
        EXPECT_EQ(p[2], 3.0 + c.expected) << c.envelope << " " << c.scale << " " << c.red << " " << c.weight;
    }
    // 0.2 itself would be 3.2; the single-precision amount shows.
    OffsetRun run;
    run.vertices.push_back(Vertex({0.0, 0.0, 3.0}, {0.0, 0.0, 1.0}, 0.8f));
    run.input.envelope = 0.5f;
    run.input.scale = 2.0;
    run.evaluate();
    EXPECT_NE(run.point(0)[2], 3.2);
}

TEST(Offset, OnlyRedMattersAndEachVertexTakesItsOwnSample) {
    // A unit octahedron's six vertices with their outward normals, all weights 1.
    KArray<KOffsetVertex> vertices;
    const KDouble3 axes[] = {{1, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}};
    for (const KDouble3& a : axes) vertices.push_back(Vertex(a, a));
    const KFloat3 reds[] = {{0.1f, 0, 0}, {0.2f, 0, 0}, {-0.3f, 0, 0}, {0.4f, 0, 0}, {0.0f, 0, 0}, {1.0f, 0, 0}};

    KVectorArray reference;
    for (int variant = 0; variant < 3; ++variant) {
        OffsetRun run;
        run.vertices = vertices;
        for (int i = 0; i < 6; ++i) {
            KFloat3 c = reds[i];
            c[1] = variant * 0.37f * float(i);  // green and blue change between runs
            c[2] = variant == 2 ? -5.0f : 1.0f;
            run.sampler.colours.push_back(c);
        }
        ASSERT_TRUE(run.evaluate().deformed());
        if (variant == 0) {
            reference = run.solver.displacements();
            for (int i = 0; i < 6; ++i) {
                const KDouble3 p = run.point(i);
                for (int k = 0; k < 3; ++k)
                    EXPECT_EQ(p[k], axes[i][k] * (1.0 + double(reds[i][0]))) << "vertex " << i << " axis " << k;
            }
        } else {
            EXPECT_EQ(run.solver.displacements(), reference) << "variant " << variant;
        }
    }
}

TEST(Offset, BuildsTheSampleArraysInIteratorOrder) {
    OffsetRun run;
    run.vertices.push_back(Vertex({0.1, 2.0, -3.0}, {0.0, 0.6, 0.8}, 0.5f, 0.25f, 0.75f));
    run.vertices.push_back(Vertex({1e-9, 1.0 / 3.0, 7.0}, {1.0 / 3.0, 0.0, 0.0}, 0.0f, -1.5f, 2.0f));
    run.input.shadingEngine = "offsetEngine7";
    ASSERT_TRUE(run.evaluate().deformed());
    ASSERT_EQ(run.sampler.calls, 1);
    EXPECT_EQ(run.sampler.engine, "offsetEngine7");
    const KOffsetSamples& s = run.sampler.seen;
    ASSERT_EQ(s.count(), 2);
    EXPECT_EQ(s.positions[0], (KFloatPoint{0.1f, 2.0f, -3.0f, 1.0f}));
    EXPECT_EQ(s.positions[1], (KFloatPoint{1e-9f, 1.0f / 3.0f, 7.0f, 1.0f}));
    EXPECT_EQ(s.u[0], 0.25f);
    EXPECT_EQ(s.v[0], 0.75f);
    EXPECT_EQ(s.u[1], -1.5f) << "UVs are handed over as read, not wrapped";
    EXPECT_EQ(s.v[1], 2.0f);
    EXPECT_EQ(s.normals[0], KVector(0.0f, 0.6f, 0.8f));
    EXPECT_EQ(s.normals[1], KVector(1.0f / 3.0f, 0.0f, 0.0f));
    EXPECT_EQ(s.filterSizes[0], 1e-5f);
    EXPECT_EQ(s.filterSizes[1], 1e-5f);
    EXPECT_EQ(s.weights[0], 0.5f);
    EXPECT_EQ(s.weights[1], 0.0f);
    EXPECT_EQ(run.solver.samples().count(), 2);
}

TEST(Offset, MessagesAndGuards) {
    struct Case {
        const char* what;
        bool polyMesh;
        std::string engine;
        bool sampleOk;
        int colours;  // -1: one per sample
        KOutcome::Status status;
        KOutcome::Severity severity;
        std::string message;
        int calls;
    };
    const Case cases[] = {
        {"not a mesh", false, "offsetEngine1", true, -1, KOutcome::kFailed, KOutcome::kWarning,
         "KOffsetMeshDeformer works only for poly meshes.", 0},
        {"not a mesh comes first", false, "", true, -1, KOutcome::kFailed, KOutcome::kWarning,
         "KOffsetMeshDeformer works only for poly meshes.", 0},
        {"no shading engine", true, "", true, -1, KOutcome::kFailed, KOutcome::kWarning,
         "KOffsetMeshDeformer cannot find connected shading shadingEng", 0},
        {"sampling fails", true, "e", false, -1, KOutcome::kFailed, KOutcome::kError, kOffsetSamplingFailed, 1},
        {"too few colours", true, "e", true, 1, KOutcome::kFailed, KOutcome::kError, kOffsetTooFewColours, 1},
        {"more colours than samples", true, "e", true, 3, KOutcome::kDeformed, KOutcome::kError, "", 1},
    };
    for (const Case& c : cases) {
        OffsetRun run;
        run.vertices.push_back(Vertex({0, 0, 0}, {0, 0, 1}));
        run.vertices.push_back(Vertex({1, 0, 0}, {0, 0, 1}));
        run.input.polyMesh = c.polyMesh;
        run.input.shadingEngine = c.engine;
        run.sampler.succeed = c.sampleOk;
        if (c.colours >= 0) run.sampler.colours.setLengthWithValue(c.colours, KFloat3{0.5f, 0, 0});
        EXPECT_EQ(KOffsetSolver::VerticesNeeded(run.input), c.polyMesh && !c.engine.empty()) << c.what;
        const KOutcome outcome = run.evaluate();
        EXPECT_EQ(outcome.status, c.status) << c.what;
        EXPECT_EQ(outcome.message, c.message) << c.what;
        if (outcome.failed()) {
            EXPECT_EQ(outcome.severity, c.severity) << c.what;
        }
        EXPECT_EQ(run.sampler.calls, c.calls) << c.what;
    }

    // No iterated vertex (an empty group, or no vertex array): nothing is sampled.
    for (bool nullVertices : {false, true}) {
        OffsetRun run;
        if (nullVertices) run.input.vertices = nullptr;
        EXPECT_TRUE(run.evaluate().deformed());
        EXPECT_EQ(run.sampler.calls, 0);
        EXPECT_TRUE(run.solver.displacements().empty());
    }
}

TEST(Offset, ReusedSolverFollowsTheLatestGeometry) {
    OffsetRun run;
    for (int i = 0; i < 5; ++i) run.vertices.push_back(Vertex({double(i), 0, 0}, {0, 1, 0}));
    ASSERT_TRUE(run.evaluate().deformed());
    ASSERT_EQ(run.solver.displacements().length(), 5);
    run.vertices.resize(2);
    run.sampler.colour = KFloat3{1.0f, 0, 0};
    ASSERT_TRUE(run.evaluate().deformed());
    ASSERT_EQ(run.solver.displacements().length(), 2);
    EXPECT_EQ(run.solver.displacements()[1], KVector(0.0f, 1.0f, 0.0f));
    EXPECT_EQ(run.sampler.seen.count(), 2);
}
