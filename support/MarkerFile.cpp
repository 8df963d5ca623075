#include "MarkerFile.h"

#include <unordered_map>
#include <vector>

#include "TextFields.h"

namespace Kavrin {

KIntArray ParseMarkers(std::string_view text, const std::string& name, int sourceVertices, int targetVertices) {
    KTextLines lines(text, name);
    KIntArray pairs;
    std::unordered_map<long long, int> markedOn;  // source vertex -> line that marked it
    std::vector<std::string_view> words;
    std::string why;
    std::string_view line;
    while (lines.next(line)) {
        SplitWords(line, words);
        if (words.empty()) continue;
        if (words.size() != 2) throw lines.error("expected a source and a target vertex index");
        long long source = 0, target = 0;
        if (!ParseIntegerWord(words[0], "source vertex index", source, why) ||
            !ParseIntegerWord(words[1], "target vertex index", target, why))
            throw lines.error(why);
        if (source < 0 || source >= sourceVertices)
            throw lines.error("source vertex " + std::to_string(source) + " is outside the source mesh (" +
                              std::to_string(sourceVertices) + " vertices)");
        if (target < 0 || target >= targetVertices)
            throw lines.error("target vertex " + std::to_string(target) + " is outside the target mesh (" +
                              std::to_string(targetVertices) + " vertices)");
        // Decision (behaviour note "A source vertex marked twice")
        const auto marked = markedOn.emplace(source, lines.number());
        if (!marked.second)
            throw lines.error("source vertex " + std::to_string(source) + " is marked twice, here and on line " +
                              std::to_string(marked.first->second));
        pairs.push_back(static_cast<int>(source));
        pairs.push_back(static_cast<int>(target));
    }
    if (pairs.empty()) throw KFileError(name + ": no marker pairs");
    return pairs;
}

KIntArray ReadMarkers(const std::string& path, int sourceVertices, int targetVertices) {
    return ParseMarkers(ReadTextFile(path), path, sourceVertices, targetVertices);
}

std::string FormatMarkers(const KIntArray& pairs) {
    if (pairs.length() % 2 != 0) throw KFileError("an odd number of indices is not a list of pairs; nothing was written");
    std::string out;
    std::unordered_map<int, int> pairOf;  // source vertex -> first pair that marks it
    for (int i = 0; i < pairs.length(); i += 2) {
        if (pairs[i] < 0 || pairs[i + 1] < 0)
            throw KFileError("pair " + std::to_string(i / 2) + " has a negative index; nothing was written");
        const auto marked = pairOf.emplace(pairs[i], i / 2);
        if (!marked.second)
            throw KFileError("pairs " + std::to_string(marked.first->second) + " and " + std::to_string(i / 2) +
                             " mark source vertex " + std::to_string(pairs[i]) + "; nothing was written");
        out += std::to_string(pairs[i]) + " " + std::to_string(pairs[i + 1]) + "\n";
    }
    return out;
}

void WriteMarkers(const std::string& path, const KIntArray& pairs) {
    WriteFormatted(path, [&] { return FormatMarkers(pairs); });
}

}  // namespace Kavrin
