#include "MarkerFile.h"

#include <fstream>
#include <sstream>

namespace Kavrin {

KIntArray ReadMarkers(const std::string& path, int sourceVertices, int targetVertices) {
    std::ifstream in(path);
    if (!in) throw KFileError(path + ": cannot open the file");
    KIntArray pairs;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        std::istringstream words(line);
        std::string first;
        if (!(words >> first) || first[0] == '#') continue;
        std::istringstream values(line);
        long long source, target;
        std::string rest;
        const std::string where = path + ":" + std::to_string(number) + ": ";
        if (!(values >> source >> target) || (values >> rest))
            throw KFileError(where + "expected a source and a target vertex index");
        if (source < 0 || source >= sourceVertices)
            throw KFileError(where + "source vertex " + std::to_string(source) + " is outside the source mesh (" +
                             std::to_string(sourceVertices) + " vertices)");
        if (target < 0 || target >= targetVertices)
            throw KFileError(where + "target vertex " + std::to_string(target) + " is outside the target mesh (" +
                             std::to_string(targetVertices) + " vertices)");
        pairs.push_back(static_cast<int>(source));
        pairs.push_back(static_cast<int>(target));
    }
    if (pairs.empty()) throw KFileError(path + ": no marker pairs");
    return pairs;
}

}  // namespace Kavrin
