// kavrin: runs the toolkit's deformation engines on mesh files.

#include <cstdio>
#include <exception>

#include "CommandSupport.h"
#include "FileError.h"

using namespace Kavrin;

namespace {

typedef void (*AddCommand)(CLI::App&, std::vector<Command>&);

// The subcommands, in the order --help lists them.
const AddCommand kCommands[] = {
    AddDeltaMushCommand,
    AddTransferCommand,
    AddWrapCommand,
    AddDemoCommand,
};

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("kavrin: mesh deformation on OBJ files (delta mush, deformation transfer)", "kavrin");
    app.require_subcommand(1);
    std::vector<Command> commands;
    for (const AddCommand add : kCommands) add(app, commands);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::fprintf(stderr, "kavrin: %s\n", e.what());
        return kExitBadInput;
    }

    for (const Command& command : commands) {
        if (!command.app->parsed()) continue;
        const std::string name = "kavrin " + command.app->get_name();
        try {
            command.run();
            return kExitSuccess;
        } catch (const KFileError& e) {
            std::fprintf(stderr, "%s: %s\n", name.c_str(), e.what());
            return kExitBadInput;
        } catch (const UsageError& e) {
            std::fprintf(stderr, "%s: %s\n", name.c_str(), e.what());
            return kExitBadInput;
        } catch (const RunError& e) {
            std::fprintf(stderr, "%s: %s\n", name.c_str(), e.what());
            return kExitFailedRun;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "%s: %s\n", name.c_str(), e.what());
            return kExitFailedRun;
        }
    }
    return kExitBadInput;
}
