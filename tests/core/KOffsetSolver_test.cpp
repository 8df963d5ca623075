// Offset engine: the displacement's order and precision, the sample arrays, messages and guards.

#include <gtest/gtest.h>

#include <algorithm>

#include "KOffsetSolver.h"

using namespace Kavrin;

namespace {

// Answers sample i with colours[i] (the last colour for the samples past them), `count` colours
// in all (-1: one per sample), and records what it saw.
struct FixedSampler : KShadingSampler {
    KArray<KFloat3> colours{KFloat3{0.25f, 0.0f, 0.0f}};
    int count = -1;
    bool succeed = true;
    int calls = 0;
    std::string engine;
    KOffsetSamples seen;

    bool sample(const std::string& shadingEngine, const KOffsetSamples& samples, KArray<KFloat3>& out) override {
        ++calls;
        engine = shadingEngine;
        seen = samples;
        out.setLength(count < 0 ? samples.count() : count, false);
        for (int i = 0; i < out.length(); ++i) out[i] = colours[std::min(i, colours.length() - 1)];
        return succeed;
    }
};

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
    run.vertices.push_back(KOffsetVertex{{1.0, 2.0, 3.0}, {0.6, 0.8, 0.1}, 0.0f, 0.0f, 0.3f});
    run.input.envelope = 0.1f;
    run.input.scale = 3.0;
    run.sampler.colours[0] = KFloat3{0.7f, 0.0f, 0.0f};
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

// The displacement is envelope x scale x red x weight along the normal; green and blue (0.9 here)
// change nothing, and nothing ends the evaluation early.
TEST(Offset, ConstantRedMovesAlongTheNormalByEnvelopeScaleRedWeight) {
    const struct {
        float envelope;
        double scale;
        float red, weight;
        double expected;  // signed distance along the unit normal (0, 0, 1)
    } cases[] = {
        {1.0f, 1.0, 0.25f, 1.0f, 0.25},
        {0.5f, 2.0, 0.25f, 0.8f, double(0.2f)},  // a = 0.2 narrowed: 0.20000000298...
        {1.0f, -1.5, 0.5f, 1.0f, -0.75},          // negative scale pushes inwards
        {1.0f, 1.0, -0.5f, 1.0f, -0.5},           // a negative red as well
        {0.0f, 1.0, 0.5f, 1.0f, 0.0},             // envelope 0: in place, no early exit
        {1.0f, 0.0, 0.5f, 1.0f, 0.0},             // scale 0
        {1.0f, 1.0, 0.5f, 0.0f, 0.0},             // weight 0
        {2.0f, 1.0, 0.5f, 1.0f, 1.0},             // envelope above 1 is not clamped
    };
    for (const auto& c : cases) {
        OffsetRun run;
        run.vertices.push_back(KOffsetVertex{{0.5, -1.0, 3.0}, {0.0, 0.0, 1.0}, 0.0f, 0.0f, c.weight});
        run.input.envelope = c.envelope;
        run.input.scale = c.scale;
        run.sampler.colours[0] = KFloat3{c.red, 0.9f, 0.9f};
        ASSERT_TRUE(run.evaluate().deformed());
        EXPECT_EQ(run.sampler.calls, 1) << "the sampling runs whatever the amount";
        const KDouble3 p = run.point(0);
        EXPECT_EQ(p, (KDouble3{0.5, -1.0, 3.0 + c.expected})) << c.envelope << " " << c.scale << " " << c.red << " " << c.weight;
    }
}

// The samples are built in iterator order; each vertex is displaced by its own sample. A solver
// used again follows the new geometry.
TEST(Offset, BuildsTheSampleArraysInIteratorOrder) {
    OffsetRun run;
    run.vertices.push_back(KOffsetVertex{{0.1, 2.0, -3.0}, {0.0, 0.6, 0.8}, 0.25f, 0.75f, 0.5f});
    run.vertices.push_back(KOffsetVertex{{1e-9, 1.0 / 3.0, 7.0}, {1.0 / 3.0, 0.0, 0.0}, -1.5f, 2.0f, 1.0f});
    run.input.shadingEngine = "offsetEngine7";
    run.sampler.colours = KArray<KFloat3>{KFloat3{0.5f, 1.0f, 1.0f}, KFloat3{-3.0f, 0.0f, 0.0f}};
    ASSERT_TRUE(run.evaluate().deformed());
    ASSERT_EQ(run.sampler.calls, 1);
    EXPECT_EQ(run.sampler.engine, "offsetEngine7");
    const KOffsetSamples& s = run.sampler.seen;
    ASSERT_EQ(s.count(), 2);
    EXPECT_EQ(s.positions[0], (KFloatPoint{0.1f, 2.0f, -3.0f, 1.0f}));
    EXPECT_EQ(s.positions[1], (KFloatPoint{1e-9f, 1.0f / 3.0f, 7.0f, 1.0f}));
    EXPECT_EQ(s.u, (KArray<float>{0.25f, -1.5f})) << "UVs are handed over as read, not wrapped";
    EXPECT_EQ(s.v, (KArray<float>{0.75f, 2.0f}));
    EXPECT_EQ(s.filterSizes, (KArray<float>{1e-5f, 1e-5f}));
    EXPECT_EQ(run.solver.displacements()[0], KVector(0.0f, 0.6f * 0.25f, 0.8f * 0.25f));
    EXPECT_EQ(run.solver.displacements()[1], KVector(-1.0f, 0.0f, 0.0f));

    run.vertices.resize(1);
    ASSERT_TRUE(run.evaluate().deformed());
    EXPECT_EQ(run.sampler.seen.count(), 1);
    EXPECT_EQ(run.solver.displacements().length(), 1);
}

TEST(Offset, MessagesAndGuards) {
    const struct {
        bool polyMesh;
        std::string engine;
        bool sampleOk;
        int colours;  // -1: one per sample
        KOutcome::Severity severity;
        std::string message;
        int calls;
    } cases[] = {
        {false, "offsetEngine1", true, -1, KOutcome::kWarning, "KOffsetMeshDeformer works only for poly meshes.", 0},
        {false, "", true, -1, KOutcome::kWarning, "KOffsetMeshDeformer works only for poly meshes.", 0},
        {true, "", true, -1, KOutcome::kWarning, "KOffsetMeshDeformer cannot find connected shading shadingEng", 0},
        {true, "e", false, -1, KOutcome::kError, kOffsetSamplingFailed, 1},
        {true, "e", true, 1, KOutcome::kError, kOffsetTooFewColours, 1},
        {true, "e", true, 3, KOutcome::kError, "", 1},  // more colours than samples: deformed
    };
    for (const auto& c : cases) {
        OffsetRun run;
        run.vertices = KArray<KOffsetVertex>{KOffsetVertex{{0, 0, 0}, {0, 0, 1}, 0.0f, 0.0f, 1.0f},
                                             KOffsetVertex{{1, 0, 0}, {0, 0, 1}, 0.0f, 0.0f, 1.0f}};
        run.input.polyMesh = c.polyMesh;
        run.input.shadingEngine = c.engine;
        run.sampler.succeed = c.sampleOk;
        run.sampler.count = c.colours;
        EXPECT_EQ(KOffsetSolver::VerticesNeeded(run.input), c.polyMesh && !c.engine.empty()) << c.message;
        const KOutcome outcome = run.evaluate();
        EXPECT_EQ(outcome.status, c.message.empty() ? KOutcome::kDeformed : KOutcome::kFailed) << c.message;
        EXPECT_EQ(outcome.message, c.message);
        if (outcome.failed()) {
            EXPECT_EQ(outcome.severity, c.severity) << c.message;
        }
        EXPECT_EQ(run.sampler.calls, c.calls) << c.message;
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
