// kavrin jiggle: secondary motion over a sequence of frames of an animated mesh.

#include "CommandSupport.h"
#include "JiggleRun.h"
#include "ValueFile.h"

namespace Kavrin {

void AddJiggleCommand(CLI::App& app, std::vector<Command>& commands) {
    // Frames count from 0; a start frame beyond the frames given leaves them all unchanged.
    const int kMaxFrame = 1000000;
    struct Options {
        KJiggleAttributes attributes;
        std::string stiffnessMap, dampingMap, normalStrengthMap, weights, topology;
        float envelope = 1.0f;
        int threads = 0;
        std::vector<std::string> frames;
        std::string out;
    };
    auto options = std::make_shared<Options>();
    KJiggleAttributes& a = options->attributes;
    CLI::App* sub = app.add_subcommand(
        "jiggle",
        "Make an animated mesh lag behind and overshoot its motion; the frames are consecutive, the first at time 0, "
        "and share their vertices and faces.");
    // Decision (behaviour note "kavrin jiggle: option ranges")
    AddNumberOption(sub, "--stiffness", a.stiffness, 0, 1, "pull of each point towards its animated position per step");
    AddNumberOption(sub, "--damping", a.damping, 0, 1, "share of the velocity lost per step");
    AddNumberOption(sub, "--normal-strength", a.normalStrength, 0, 1,
                    "how much of the motion along the surface normal is kept (1: all, 0: none)");
    AddNumberOption(sub, "--scale", a.scale, 0, kLargestCoordinate, "multiplies the distance limit");
    AddNumberOption(sub, "--distance-limit", a.distanceLimit, 0, kLargestCoordinate,
                    "farthest a point may lag from its animated position");
    AddNumberOption(sub, "--direction-bias", a.directionBias, -1, 1,
                    "positive: pull back points that lag behind the surface; negative: push them further");
    AddNumberOption(sub, "--time-scale", a.timeScale, 0, 1,
                    "simulation step per frame (above 1 the velocity could grow with every step)");
    AddCountOption(sub, "--start-frame", a.startFrame, -kMaxFrame, kMaxFrame,
                   "frames at or before this one are written unchanged; above 0, so is the next (the clock, which "
                   "stood still, jumps)");
    sub->add_flag("--more-accurate-tangent", a.moreAccurateTangent,
                  "snap flattened points back onto the surface (slower)");
    sub->add_option("--stiffness-map", options->stiffnessMap, "per-vertex stiffness factors (0 to 1), one a line");
    sub->add_option("--damping-map", options->dampingMap, "per-vertex damping factors (0 to 1), one a line");
    sub->add_option("--normal-strength-map", options->normalStrengthMap,
                    "per-vertex normal-strength factors (0 to 1), one a line");
    sub->add_option("--weights", options->weights, "per-vertex deformer weights, one a line (0 keeps the input)");
    AddNumberOption(sub, "--envelope", options->envelope, kEnvelopeLowest, kEnvelopeHighest,
                    "blend of the jiggled result (below 1e-30: off)");
    AddThreadsOption(sub, options->threads);
    AddTopologyOption(sub, options->topology,
                      "mesh (OBJ) whose faces the frames of point caches take; the OBJ frames must have its vertices "
                      "and faces");
    sub->add_option("frames", options->frames,
                    "the mesh at consecutive frames: OBJ files, or point caches (.pc2, .mdd), each frame of a cache one "
                    "frame")
        ->required();
    AddOutputOption(sub, options->out, kOutputHelp);

    commands.push_back(Command{sub, [options]() {
        KPolyMesh topology;
        if (!options->topology.empty()) topology = LoadMesh(options->topology);
        const PoseSequence frames =
            LoadPoses(options->frames, options->topology.empty() ? nullptr : &topology, options->topology);
        const int nv = frames.mesh(0).numVertices();
        KJiggleAttributes attributes = options->attributes;
        // Factors of attributes that take 0 to 1.
        const KValueRange unit{0.0, 1.0};
        const auto readMap = [nv, &unit](const std::string& path, bool& has, KArray<double>& values) {
            if (path.empty()) return;
            values = ReadValues(path, nv, &unit);
            has = true;
        };
        readMap(options->stiffnessMap, attributes.hasStiffnessMap, attributes.stiffnessMap);
        readMap(options->dampingMap, attributes.hasDampingMap, attributes.dampingMap);
        readMap(options->normalStrengthMap, attributes.hasNormalStrengthMap, attributes.normalStrengthMap);
        KArray<float> weights;
        if (!options->weights.empty()) {
            const KArray<double> values = ReadValues(options->weights, nv);
            for (double w : values) weights.push_back(static_cast<float>(w));
        }
        const ResultOutputs outputs =
            OutputPaths(options->out, frames,
                        {options->stiffnessMap, options->dampingMap, options->normalStrengthMap, options->weights,
                         options->topology});

        JiggleRun run(attributes, weights, options->threads);
        DeformEach(frames, outputs, [&](size_t i, const KPolyMesh& frame) {
            // Decision (behaviour note "kavrin jiggle: cache frames are consecutive frames")
            return run.deform(frame, static_cast<double>(i), options->envelope);
        });
    }});
}

}  // namespace Kavrin
