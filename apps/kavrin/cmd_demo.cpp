// kavrin demo: generates its own meshes, runs the engines on them and writes the results.

#include <cstdio>
#include <filesystem>

#include "CommandSupport.h"
#include "Demo.h"

namespace fs = std::filesystem;

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
};

}  // namespace

void AddDemoCommand(CLI::App& app, std::vector<Command>& commands) {
    struct Options {
        std::string folder = "kavrin-demo";
        int threads = 0;
    };
    auto options = std::make_shared<Options>();
    CLI::App* sub = app.add_subcommand("demo", "Run the engines on generated meshes and write the results to a folder.");
    sub->add_option("-o,--output", options->folder, "folder for the results")->capture_default_str();
    sub->add_option("--threads", options->threads, "worker threads (0: all cores)")->capture_default_str();
    commands.push_back(Command{sub, [options]() {
        std::error_code ec;
        fs::create_directories(options->folder, ec);
        if (!fs::is_directory(options->folder, ec)) throw UsageError(options->folder + ": cannot create the folder");
        std::printf("kavrin demo: writing to %s/\n", options->folder.c_str());
        for (const DemoCase& c : kDemoCases) c.run(options->folder, options->threads);
        std::printf("Done. Open the OBJ files in %s/ to compare poses and results.\n", options->folder.c_str());
    }});
}

}  // namespace Kavrin
