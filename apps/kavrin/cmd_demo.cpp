// kavrin demo: generates its own meshes, runs the engines on them and writes the inputs, the
// results, a picture per engine and index.html, which shows the pictures with the figures.

#include "CommandSupport.h"
#include "Demo.h"

namespace Kavrin {

namespace {

// The cases, in the order they run.
void (*const kDemoCases[])(DemoReport&) = {
    DeltaMushDemo, TransferDemo, WrapDemo, JiggleDemo, RelaxDemo, OffsetDemo,
};

}  // namespace

void AddDemoCommand(CLI::App& app, std::vector<Command>& commands) {
    struct Options {
        std::string folder = "kavrin-demo";
        int threads = 0;
    };
    auto options = std::make_shared<Options>();
    CLI::App* sub = app.add_subcommand(
        "demo",
        "Run the engines on generated meshes and write the inputs, the results, a picture per engine and index.html "
        "(the pictures with the figures) to a folder.");
    AddOutputOption(sub, options->folder, "folder for the results")->required(false)->capture_default_str();
    AddThreadsOption(sub, options->threads);
    commands.push_back(Command{sub, [options]() {
        OutputFolder(options->folder);
        Progress("kavrin demo: writing to %s/", options->folder.c_str());
        DemoReport report(options->folder, options->threads);
        for (const auto run : kDemoCases) run(report);
        report.writeIndex();
        Progress("Done. Open %s in a browser for the pictures and figures; the OBJ files beside it are the inputs "
                 "and results.",
                 report.path("index.html").c_str());
    }});
}

}  // namespace Kavrin
