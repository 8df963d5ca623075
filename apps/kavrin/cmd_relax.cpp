// kavrin relax: binds the relaxation deformer to a rest mesh and relaxes each pose, optionally
// keeping it out of collider meshes.

#include "CommandSupport.h"
#include "RelaxRun.h"
#include "ValueFile.h"

namespace Kavrin {

void AddRelaxCommand(CLI::App& app, std::vector<Command>& commands) {
    // Passes in a run: 10,000 take about two minutes on a million vertices (nine with a collider).
    const int kMaxPasses = 10000;
    struct Options {
        std::string rest;
        int iterations = 10;
        double stiffness = kRelaxDefaultStiffness;
        std::string stiffnessMap;
        bool scaleSafe = false;
        std::vector<std::string> colliders;
        std::vector<std::string> colliderMaps;
        int collisionSteps = 1;
        bool noCollisions = false;
        std::string weights;
        float envelope = 1.0f;
        int threads = 0;
        std::vector<std::string> poses;
        std::string out;
    };
    auto options = std::make_shared<Options>();
    CLI::App* sub = app.add_subcommand(
        "relax",
        "Bind the relaxation deformer to a rest mesh and relax each pose towards the rest shape's relation of every "
        "vertex to its neighbours; the poses share the rest mesh's faces.");
    sub->add_option("--rest", options->rest, "rest mesh (OBJ) the binding is measured on")->required();
    // Decision (behaviour note "Relaxation options on the command line")
    AddCountOption(sub, "--iterations", options->iterations, 0, kMaxPasses,
                   "relaxation passes (0 writes the poses as they are)");
    auto* stiffness = AddNumberOption(sub, "--stiffness", options->stiffness, 0, 1,
                                      "stiffness of every vertex: 0 follows its neighbours, 1 does not move");
    sub->add_option("--stiffness-map", options->stiffnessMap, "per-vertex stiffness (0 to 1), one value a line")
        ->excludes(stiffness);
    sub->add_flag("--scale-safe", options->scaleSafe,
                  "lift each vertex by heights that scale with its neighbours instead of the rest heights");
    sub->add_option("--collider", options->colliders,
                    "collider mesh (OBJ, world space), repeatable; a collider given without a map pushes every "
                    "vertex fully (multiplier 1), unlike an unpainted collider on the node, which pushes nothing")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->expected(1)
        ->allow_extra_args(false);
    sub->add_option("--collider-map", options->colliderMaps,
                    "per-vertex multipliers (0 to 1, one a line) of the collider at the same position, repeatable")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->expected(1)
        ->allow_extra_args(false);
    AddCountOption(sub, "--collision-steps", options->collisionSteps, 1, kMaxPasses,
                   "collide after the first pass, every N-th pass and the last");
    sub->add_flag("--no-collisions", options->noCollisions, "ignore the colliders");
    sub->add_option("--weights", options->weights, "per-vertex deformer weights, one value a line");
    AddNumberOption(sub, "--envelope", options->envelope, kEnvelopeLowest, kEnvelopeHighest,
                    "blend of the result with the pose; 0 leaves the pose untouched");
    AddThreadsOption(sub, options->threads);
    sub->add_option("poses", options->poses, kPosesHelp)->required();
    AddOutputOption(sub, options->out, kOutputHelp);

    commands.push_back(Command{sub, [options]() {
        if (options->colliderMaps.size() > options->colliders.size())
            throw UsageError(std::to_string(options->colliderMaps.size()) + " collider maps for " +
                             std::to_string(options->colliders.size()) + " colliders");
        const KPolyMesh rest = LoadMesh(options->rest);
        if (!rest.valid()) throw UsageError(options->rest + ": its faces name vertices it does not have");
        const int count = rest.numVertices();
        const PoseSequence poses = LoadPoses(options->poses, &rest, options->rest);
        std::vector<KPolyMesh> colliders;
        for (const std::string& path : options->colliders) {
            colliders.push_back(LoadMesh(path));
            if (!colliders.back().valid()) throw UsageError(path + ": its faces name vertices it does not have");
        }
        // Stiffness blends between the relaxed and the previous point, a multiplier scales a push:
        // both mean something from 0 to 1 only (the node clamps painted multipliers to it).
        const KValueRange unit{0.0, 1.0};
        std::vector<KArray<double> > colliderMaps;
        for (const std::string& path : options->colliderMaps) colliderMaps.push_back(ReadValues(path, count, &unit));
        KArray<double> stiffness;
        if (!options->stiffnessMap.empty())
            stiffness = ReadValues(options->stiffnessMap, count, &unit);
        else
            stiffness.setLengthWithValue(count, options->stiffness);
        KArray<double> weights;
        if (!options->weights.empty()) weights = ReadValues(options->weights, count);
        std::vector<std::string> inputs = {options->rest, options->stiffnessMap, options->weights};
        inputs.insert(inputs.end(), options->colliders.begin(), options->colliders.end());
        inputs.insert(inputs.end(), options->colliderMaps.begin(), options->colliderMaps.end());
        const ResultOutputs outputs = OutputPaths(options->out, poses, inputs);

        RelaxRun run(rest, options->threads);
        run.setStiffness(stiffness);
        for (size_t c = 0; c < colliders.size(); ++c)
            run.addCollider(colliders[c], c < colliderMaps.size() ? &colliderMaps[c] : nullptr);
        RelaxSettings settings;
        settings.iterations = options->iterations;
        settings.scaleSafe = options->scaleSafe;
        settings.collisions = !options->noCollisions;
        settings.collisionSteps = options->collisionSteps;
        settings.envelope = options->envelope;
        settings.weights = options->weights.empty() ? nullptr : &weights;
        DeformEach(poses, outputs, [&](size_t, const KPolyMesh& pose) { return run.relax(pose, settings); });
    }});
}

}  // namespace Kavrin
