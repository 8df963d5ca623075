#include "ValueFile.h"

#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace Kavrin {

namespace {

// The one number a line holds, surrounded by optional blanks; false on anything else.
bool ParseValue(const std::string& line, double& value, std::string& why) {
    const char* begin = line.c_str();
    while (*begin == ' ' || *begin == '\t') ++begin;
    char* end = nullptr;
    errno = 0;
    value = std::strtod(begin, &end);
    if (end == begin) {
        why = "expected one number";
        return false;
    }
    const char* rest = end;
    while (*rest == ' ' || *rest == '\t' || *rest == '\r') ++rest;
    if (*rest != '\0') {
        why = "expected one number and nothing else";
        return false;
    }
    const bool overflow = errno == ERANGE && std::fabs(value) > 1.0;
    if (!overflow && !std::isfinite(value)) {
        why = "the value is not a finite number";
        return false;
    }
    if (overflow || std::fabs(value) > FLT_MAX) {
        why = "the value is beyond the range of a float";
        return false;
    }
    return true;
}

}  // namespace

KArray<double> ReadValues(const std::string& path, int expectedCount) {
    std::ifstream in(path);
    if (!in) throw KFileError(path + ": cannot open the file");
    KArray<double> values;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        const size_t first = line.find_first_not_of(" \t\r");
        if (first == std::string::npos || line[first] == '#') continue;
        double value = 0.0;
        std::string why;
        if (!ParseValue(line, value, why)) throw KFileError(path + ":" + std::to_string(number) + ": " + why);
        values.push_back(value);
    }
    if (expectedCount >= 0 && values.length() != expectedCount)
        throw KFileError(path + ": " + std::to_string(values.length()) + " values for " +
                         std::to_string(expectedCount) + " vertices");
    return values;
}

void WriteValues(const std::string& path, const KArray<double>& values) {
    std::FILE* file = std::fopen(path.c_str(), "w");
    if (!file) throw KFileError(path + ": cannot write the file");
    for (double v : values) std::fprintf(file, "%.17g\n", v);
    const bool failed = std::ferror(file) != 0;
    if (std::fclose(file) != 0 || failed) throw KFileError(path + ": cannot write the file");
}

}  // namespace Kavrin
