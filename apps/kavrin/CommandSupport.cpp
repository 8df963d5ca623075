#include "CommandSupport.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "ObjIO.h"
#include "TextFields.h"

namespace Kavrin {

namespace {

bool gVerbose = false;
std::vector<std::string> gHeldErrors;

}  // namespace

KPolyMesh LoadMesh(const std::string& path, KCornerUVs* uvs) {
    KPolyMesh mesh = ReadObj(path, uvs);
    RequireComputablePoints(mesh.points, path);
    return mesh;
}

double MillisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

// Decision (behaviour note "Thread counts on the command line")
CLI::Option* AddThreadsOption(CLI::App* sub, int& threads) {
    return AddCountOption(sub, "--threads", threads, 0, kMaxThreads, "worker threads, 0 for all cores");
}

CLI::Option* AddCountOption(CLI::App* sub, const std::string& name, int& value, int lowest, int highest,
                            const std::string& description, const std::string& whyNotLower) {
    const std::string range = RangeText(lowest, highest);
    const CLI::Validator check(
        [lowest, highest, range, whyNotLower](std::string& text) -> std::string {
            long long v = 0;
            std::string why;
            if (!ParseIntegerWord(text, "whole number", v, why)) return why;
            if (v < lowest && !whyNotLower.empty()) return whyNotLower + "; use " + range;
            if (v < lowest || v > highest) return text + " is outside " + range;
            return std::string();
        },
        "");
    return sub->add_option(name, value, description + " (" + range + ")")->check(check)->capture_default_str();
}

namespace {

template <class T>
CLI::Option* NumberOption(CLI::App* sub, const std::string& name, T& value, double lowest, double highest,
                          const std::string& description) {
    const std::string range = RangeText(lowest, highest);
    const CLI::Validator check(
        [lowest, highest, range](std::string& text) -> std::string {
            double v = 0.0;
            std::string why;
            if (!ParseFloatWord(text, v, why)) return why;
            if (v < lowest || v > highest) return text + " is outside " + range;
            return std::string();
        },
        "");
    return sub->add_option(name, value, description + " (" + range + ")")->check(check)->capture_default_str();
}

}  // namespace

CLI::Option* AddNumberOption(CLI::App* sub, const std::string& name, float& value, double lowest, double highest,
                             const std::string& description) {
    return NumberOption(sub, name, value, lowest, highest, description);
}

CLI::Option* AddNumberOption(CLI::App* sub, const std::string& name, double& value, double lowest, double highest,
                             const std::string& description) {
    return NumberOption(sub, name, value, lowest, highest, description);
}

CLI::Option* AddChoiceOption(CLI::App* sub, const std::string& name, std::string& value,
                             const std::vector<std::string>& choices, const std::string& description) {
    std::string list;
    for (size_t i = 0; i < choices.size(); ++i)
        list += (i == 0 ? "" : i + 1 == choices.size() ? " or " : ", ") + choices[i];
    const CLI::Validator check(
        [choices, list](std::string& text) -> std::string {
            for (const std::string& c : choices)
                if (text == c) return std::string();
            return Quoted(text) + " is not " + list;
        },
        "");
    return sub->add_option(name, value, description + " (" + list + ")")->check(check)->capture_default_str();
}

// Decision (behaviour note "Command-line errors in the tool's words")
std::string ParseErrorText(const CLI::ParseError& error) {
    // Recognised by their words: the library names some errors after the command, not the kind.
    const std::string text = error.what();
    const size_t colon = text.find(": ");
    const std::string option = colon == std::string::npos ? std::string() : text.substr(0, colon);
    const auto after = [&text](const char* marker) {
        const size_t at = text.find(marker);
        return at == std::string::npos ? std::string() : text.substr(at + std::strlen(marker));
    };
    const std::string times = after("At Most 1 required but received ");
    if (!times.empty()) return option + ": given " + times + " times; give it once";
    const std::string missing = " missing";
    if (text.find(" required ") != std::string::npos && text.size() > missing.size() &&
        text.compare(text.size() - missing.size(), missing.size(), missing) == 0)
        return option + ": a value is missing";
    const std::string extras = after(" not expected: ");
    if (!extras.empty()) {
        std::string line;
        for (size_t at = 0; at < extras.size();) {
            const size_t end = std::min(extras.find(' ', at), extras.size());
            const std::string word = extras.substr(at, end - at);
            if (!word.empty())
                line += (line.empty() ? "" : "; ") +
                        (word[0] == '-' ? "unknown option " + word : "unexpected argument " + Quoted(word));
            at = end + 1;
        }
        return line;
    }
    const size_t excludes = text.find(" excludes ");
    if (excludes != std::string::npos)
        return "give " + text.substr(0, excludes) + " or " + text.substr(excludes + 10) + ", not both";
    const std::string conversion = after("Could not convert: ");
    const size_t equals = conversion.find(" = ");
    if (equals != std::string::npos)
        return conversion.substr(0, equals) + ": " + Quoted(conversion.substr(equals + 3)) + " is not a value it takes";
    return text;
}

CLI::Option* AddOutputOption(CLI::App* sub, std::string& out, const std::string& description) {
    const CLI::Validator check(
        [](std::string& text) -> std::string { return text.empty() ? "the output path is empty" : std::string(); },
        "");
    return sub->add_option("-o,--output", out, description)->required()->check(check);
}

CLI::Option* AddTopologyOption(CLI::App* sub, std::string& path, const std::string& description) {
    const CLI::Validator check(
        [](std::string& text) -> std::string { return text.empty() ? "the path is empty" : std::string(); }, "");
    return sub->add_option("--topology", path, description)->check(check);
}

bool Verbose() { return gVerbose; }
void SetVerbose(bool verbose) { gVerbose = verbose; }

void Progress(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

// Decision (behaviour note "Engine errors on the command line")
void ConsoleSink::error(const std::string& message) {
    if (gVerbose) {
        std::printf("%s: error: %s\n", _prefix.c_str(), message.c_str());
        std::fflush(stdout);
    }
    gHeldErrors.push_back(_prefix + ": error: " + message);
}

void ConsoleSink::warning(const std::string& message) {
    std::fprintf(stderr, "%s: warning: %s\n", _prefix.c_str(), message.c_str());
}

void ConsoleSink::output(const std::string& text) {
    if (!gVerbose) return;
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}

std::vector<std::string> TakeHeldErrors() {
    std::vector<std::string> held;
    held.swap(gHeldErrors);
    return held;
}

}  // namespace Kavrin
