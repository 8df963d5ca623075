#include "KDeformationTransferMessages.h"

#include <algorithm>

namespace Kavrin {

const char* const kDtNoSourceFixedPoint = "No source mesh fixed point.";
const char* const kDtNoTargetFixedPoint = "No target mesh fixed point.";
const char* const kDtNoCorrespondences = "No correspondences.";
const char* const kDtModeMayBeInaccurate = "This calculation mode may cause inaccurate result.";
const char* const kDtCheckCalcMode = "Check the calculation mode.";
const char* const kDtInvalidCalcMode = "Invalid value of calc mode.";
const char* const kDtCholmodError = "cholmod error!";

const char* const kDtFindingCorrespondences = "KDeformationTransfer: Finding Triangle Correspondences ...";
const char* const kDtCorrespondencesFound = "KDeformationTransfer: Triangle Correspondences Found!...";
const char* const kDtBuildingMatrix = "KDeformationTransfer: Building Coefficient Matrix ...";
const char* const kDtMatrixCreated = "KDeformationTransfer: Coefficient Matrix Created!\n";
const char* const kDtIterationCount = "KDeformationTransfer: iteration count ";

namespace {

std::string N(int v) { return std::to_string(v); }

}  // namespace

std::string DtFixedVertexOutside(const char* mesh, int vertex, int numVertices) {
    return std::string("KDeformationTransfer: the ") + mesh + " fixed vertex " + N(vertex) + " is not a vertex of the " +
           mesh + " mesh (" + N(numVertices) + " vertices); the output was not written.";
}

std::string DtPairOutside(int pair, int source, int target, int sourceVertices, int targetVertices) {
    return "KDeformationTransfer: correspondence pair " + N(pair) + " (" + N(source) + ", " + N(target) +
           ") names a vertex outside the meshes (source " + N(sourceVertices) + " vertices, target " +
           N(targetVertices) + "); nothing was recalculated.";
}

std::string DtMeshIndicesInvalid(const char* mesh) {
    return std::string("KDeformationTransfer: the ") + mesh +
           " mesh has triangles that name vertices it does not have; nothing was recalculated.";
}

std::string DtPairingSize(int entries, int targetTriangles) {
    return "KDeformationTransfer: the triangle correspondence has " + N(entries) + " entries for a target of " +
           N(targetTriangles) + " triangles; the transfer system was not built.";
}

std::string DtPairingNamesMissingTriangle(int targetTriangle) {
    return "KDeformationTransfer: the triangle correspondence of target triangle " + N(targetTriangle) +
           " names a source triangle the source mesh does not have; the transfer system was not built.";
}

std::string DtStoredFitSize(int points, int sourceVertices) {
    return "KDeformationTransfer: the stored correspondence's fitted source has " + N(points) +
           " points for a source of " + N(sourceVertices) + " vertices; the transfer system was not built.";
}

std::string DtSourceChanged(int vertices, int triangles, int restVertices, int restTriangles) {
    return "KDeformationTransfer: the source mesh (" + N(vertices) + " vertices, " + N(triangles) +
           " triangles) no longer matches the rest pose the system was built from (" + N(restVertices) +
           " vertices, " + N(restTriangles) + " triangles); recalculate. The output was not written.";
}

std::string DtTargetChanged(int vertices, int triangles, int builtVertices, int builtTriangles) {
    return "KDeformationTransfer: the target mesh (" + N(vertices) + " vertices, " + N(triangles) +
           " triangles) no longer matches the one the system was built for (" + N(builtVertices) + " vertices, " +
           N(builtTriangles) + " triangles); recalculate. The output was not written.";
}

std::string DtSingular(const char* system, const char* consequence) {
    return std::string("KDeformationTransfer: the normal equations of the ") + system + " are singular; " +
           consequence;
}

std::string DtSingularAt(const char* system, const std::string& where, const char* consequence) {
    return std::string("KDeformationTransfer: the normal equations of the ") + system + " are singular at " + where +
           "; " + consequence;
}

std::string DtSingularColumn(const char* system, const char* mesh, const int* vertexColumn, int numVertices,
                             int numFree, int numTriangles, int column, const char* consequence) {
    if (column >= 0 && column < numFree) {
        const int v = static_cast<int>(std::find(vertexColumn, vertexColumn + numVertices, column) - vertexColumn);
        return DtSingularAt(system, std::string(mesh) + " vertex " + N(v), consequence);
    }
    if (column >= numFree && column - numFree < numTriangles)
        return DtSingularAt(system, std::string("the fourth vertex of ") + mesh + " triangle " + N(column - numFree),
                            consequence);
    return DtSingular(system, consequence);
}

std::string DtIsolatedSourceVertex(int vertex) {
    return "KDeformationTransfer: source vertex " + N(vertex) +
           " lies in no triangle and no marker pins it, so the source fit is singular; the correspondence search "
           "was abandoned.";
}

std::string DtDegenerateTriangle(const char* mesh, int triangle, int a, int b, int c, const char* system,
                                 const char* consequence) {
    return std::string("KDeformationTransfer: ") + mesh + " triangle " + N(triangle) + " (vertices " + N(a) + ", " +
           N(b) + ", " + N(c) + ") has no area, so the " + system + " is singular; " + consequence;
}

std::string DtTooLargeTriangle(const char* mesh, int triangle, int a, int b, int c, const char* system,
                               const char* consequence) {
    return std::string("KDeformationTransfer: ") + mesh + " triangle " + N(triangle) + " (vertices " + N(a) + ", " +
           N(b) + ", " + N(c) + ") is too large to compute with (its edges' cross product overflows single "
           "precision), so the " + system + " cannot be formed; " + consequence;
}

}  // namespace Kavrin
