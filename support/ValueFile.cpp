#include "ValueFile.h"

#include <charconv>
#include <cmath>
#include <vector>

#include "TextFields.h"

namespace Kavrin {

KArray<double> ParseValues(std::string_view text, const std::string& name, int expectedCount,
                           const KValueRange* range) {
    KTextLines lines(text, name);
    KArray<double> values;
    std::vector<std::string_view> words;
    std::string why;
    std::string_view line;
    while (lines.next(line)) {
        SplitWords(line, words);
        if (words.empty()) continue;
        if (words.size() != 1)
            throw lines.error("expected one number; this line has " + std::to_string(words.size()) + " values");
        double value = 0.0;
        if (!ParseFloatWord(words[0], value, why)) throw lines.error(why);
        if (range && !(value >= range->lowest && value <= range->highest))
            throw lines.error(NumberText(value) + " is outside " + RangeText(range->lowest, range->highest));
        values.push_back(value);
    }
    if (expectedCount >= 0 && values.length() != expectedCount)
        throw KFileError(ValueCountMismatch(name, values.length(), expectedCount));
    return values;
}

KArray<double> ReadValues(const std::string& path, int expectedCount, const KValueRange* range) {
    return ParseValues(ReadTextFile(path), path, expectedCount, range);
}

// Decision (behaviour note "Values in value files")
std::string FormatValues(const KArray<double>& values) {
    std::string out;
    char buffer[32];
    for (int i = 0; i < values.length(); ++i) {
        if (!std::isfinite(values[i]) || !WithinFloatRange(values[i]))
            throw KFileError("value " + std::to_string(i) + " is not a finite number within the range of a float; "
                             "nothing was written");
        const std::to_chars_result r = std::to_chars(buffer, buffer + sizeof(buffer), values[i]);
        out.append(buffer, r.ptr);
        out += '\n';
    }
    return out;
}

void WriteValues(const std::string& path, const KArray<double>& values) {
    WriteFormatted(path, [&] { return FormatValues(values); });
}

}  // namespace Kavrin
