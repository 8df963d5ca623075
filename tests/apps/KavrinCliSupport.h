#pragma once
// Runs the kavrin tool as a process in a fresh folder per test and collects its status and output.

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "ObjIO.h"

namespace KavrinCliTest {

namespace fs = std::filesystem;

struct Outcome {
    int status;
    std::string out, err;
    int errLines() const { return static_cast<int>(std::count(err.begin(), err.end(), '\n')); }
};

inline std::string Slurp(const fs::path& file) {
    std::ifstream in(file);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

class KavrinCliFixture : public ::testing::Test {
protected:
    // The process id keeps runs from other checkouts on the same machine out of this folder.
    const fs::path dir = fs::temp_directory_path() /
                         ("kavrin-cli-" + std::to_string(getpid()) + "-" +
                          ::testing::UnitTest::GetInstance()->current_test_info()->test_suite_name() + "-" +
                          ::testing::UnitTest::GetInstance()->current_test_info()->name());
    // Words put before every run's arguments (a fixture for one command sets its name).
    std::string command;
    // A program that starts the tool (prlimit with its options, say), or nothing.
    std::string launcher;
    void SetUp() override {
        fs::remove_all(dir);
        fs::create_directories(dir);
    }
    void TearDown() override { fs::remove_all(dir); }

    // Runs kavrin with args (shell words) in the test's folder.
    Outcome run(const std::string& args) const {
        const fs::path out = dir / "stdout.txt", err = dir / "stderr.txt";
        const int raw = std::system(("cd " + dir.string() + " && " + launcher + std::string(KAVRIN_BINARY_DIR) +
                                     "/apps/kavrin/kavrin " + command + args + " >" + out.string() + " 2>" + err.string())
                                        .c_str());
        return Outcome{WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, Slurp(out), Slurp(err)};
    }
    std::string path(const std::string& name) const { return (dir / name).string(); }
    std::string save(const std::string& name, const Kavrin::KPolyMesh& mesh) const {
        Kavrin::WriteObj(path(name), mesh);
        return path(name);
    }
    std::string write(const std::string& name, const std::string& text) const {
        std::ofstream(path(name), std::ios::binary) << text;
        return path(name);
    }
};

}  // namespace KavrinCliTest
