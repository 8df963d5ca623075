// kavrin: runs the toolkit's deformation engines on mesh files.

#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>

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
    AddJiggleCommand,
    AddRelaxCommand,
    AddOffsetCommand,
    AddRenderCommand,
    AddDemoCommand,
};

// A message as one line: line ends inside it become "; ", and trailing ones go.
std::string OneLine(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) text.pop_back();
    std::string out;
    for (char c : text) {
        if (c == '\n')
            out += "; ";
        else if (c != '\r')
            out += c;
    }
    return out;
}

int Fail(const std::string& who, const std::string& message, int status) {
    std::fprintf(stderr, "%s: %s\n", who.c_str(), OneLine(message).c_str());
    return status;
}

std::string CommandNames(const std::vector<Command>& commands) {
    std::string names;
    for (size_t i = 0; i < commands.size(); ++i)
        names += (i == 0 ? "" : i + 1 == commands.size() ? " or " : ", ") + commands[i].app->get_name();
    return names;
}

}  // namespace

int main(int argc, char** argv) {
    // A file-size limit makes a write fail with its reason (and the run fail cleanly) instead of
    // ending the process half-way.
    std::signal(SIGXFSZ, SIG_IGN);
    CLI::App app(
        "kavrin: mesh deformation on OBJ files (delta mush, deformation transfer, wrap, jiggle, relaxation, offset) "
        "and pictures of meshes",
        "kavrin");
    app.set_version_flag("--version", "kavrin " KAVRIN_VERSION, "print the version and exit");
    bool verbose = false;
    app.add_flag("-v,--verbose", verbose, "also print the engines' own progress and trace lines");
    std::vector<Command> commands;
    for (const AddCommand add : kCommands) add(app, commands);
    // Every command takes --verbose after its name as well.
    for (const Command& command : commands)
        command.app->add_flag("-v,--verbose", verbose, "also print the engines' own progress and trace lines");

    // A first word that is neither an option nor a command is named as such, not as a missing
    // command.
    if (argc > 1 && argv[1][0] != '-') {
        bool known = false;
        for (const Command& command : commands) known = known || command.app->get_name() == argv[1];
        if (!known)
            return Fail("kavrin",
                        std::string("unknown command '") + argv[1] + "'; the commands are " + CommandNames(commands) +
                            " (see 'kavrin --help')",
                        kExitBadInput);
    }
    app.require_subcommand(1);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        std::printf("%s\n", e.what());
        return kExitSuccess;
    } catch (const CLI::ParseError& e) {
        std::string who = "kavrin";
        for (const Command& command : commands)
            if (command.app->parsed()) who = "kavrin " + command.app->get_name();
        std::string message = ParseErrorText(e);
        if (who == "kavrin" && e.get_name() == "RequiredError" && app.get_subcommands().empty())
            message = "a command is required: " + CommandNames(commands);
        return Fail(who, OneLine(message) + " (see '" + who + " --help')", kExitBadInput);
    }
    SetVerbose(verbose);

    for (const Command& command : commands) {
        if (!command.app->parsed()) continue;
        const std::string name = "kavrin " + command.app->get_name();
        // A failed run leaves every output as it was: what it wrote goes.
        // Decision (behaviour note "Nothing half-written")
        const auto failed = [&name](const std::string& message, int status) {
            DiscardOutputs();
            return Fail(name, message, status);
        };
        try {
            command.run();
            CommitOutputs();
        } catch (const KFileError& e) {
            return failed(e.what(), kExitBadInput);
        } catch (const UsageError& e) {
            return failed(e.what(), kExitBadInput);
        } catch (const RunError& e) {
            return failed(e.what(), kExitFailedRun);
        } catch (const std::bad_alloc&) {
            return failed("out of memory", kExitFailedRun);
        } catch (const std::exception& e) {
            return failed(e.what(), kExitFailedRun);
        }
        // Errors an engine reported on the way without failing the run.
        for (const std::string& line : TakeHeldErrors()) std::fprintf(stderr, "%s\n", OneLine(line).c_str());
        return kExitSuccess;
    }
    return Fail("kavrin", "a command is required: " + CommandNames(commands) + " (see 'kavrin --help')",
                kExitBadInput);
}
