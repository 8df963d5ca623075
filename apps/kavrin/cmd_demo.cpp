// kavrin demo: generates its own meshes, runs the engines on them and writes the results.

#include "CommandSupport.h"
#include "Demo.h"

namespace Kavrin {

namespace {

struct DemoCase {
    void (*run)(const std::string& folder, int threads);
};

// The cases, in the order they run.
const DemoCase kDemoCases[] = {
    {DeltaMushDemo},
    {TransferDemo},
    {WrapDemo},
    {JiggleDemo},
    {RelaxDemo},
    {OffsetDemo},
};

}  // namespace

void AddDemoCommand(CLI::App& app, std::vector<Command>& commands) {
    struct Options {
        std::string folder = "kavrin-demo";
        int threads = 0;
    };
    auto options = std::make_shared<Options>();
    CLI::App* sub = app.add_subcommand("demo", "Run the engines on generated meshes and write the results to a folder.");
    AddOutputOption(sub, options->folder, "folder for the results")->required(false)->capture_default_str();
    AddThreadsOption(sub, options->threads);
    commands.push_back(Command{sub, [options]() {
        OutputFolder(options->folder);
        Progress("kavrin demo: writing to %s/", options->folder.c_str());
        for (const DemoCase& c : kDemoCases) c.run(options->folder, options->threads);
        Progress("Done. Open the OBJ files in %s/ to compare poses and results.", options->folder.c_str());
    }});
}

}  // namespace Kavrin
