#pragma once
// Every text the deformation-transfer engine shows: the node's own messages and progress lines,
// and the guards' messages (formatted with the numbers that explain them).

#include <string>

namespace Kavrin {

// Messages for the artist.
extern const char* const kDtNoSourceFixedPoint;   // "No source mesh fixed point."
extern const char* const kDtNoTargetFixedPoint;   // "No target mesh fixed point."
extern const char* const kDtNoCorrespondences;    // "No correspondences."
extern const char* const kDtModeMayBeInaccurate;  // "This calculation mode may cause inaccurate result."
extern const char* const kDtCheckCalcMode;        // "Check the calculation mode."
extern const char* const kDtInvalidCalcMode;      // "Invalid value of calc mode."
extern const char* const kDtCholmodError;         // "cholmod error!"

// Progress lines (each follows the timestamp and its code).
extern const char* const kDtFindingCorrespondences;
extern const char* const kDtCorrespondencesFound;
extern const char* const kDtBuildingMatrix;
extern const char* const kDtMatrixCreated;
extern const char* const kDtIterationCount;  // followed by the iteration number

// Guard messages.
std::string DtFixedVertexOutside(const char* mesh, int vertex, int numVertices);
std::string DtPairOutside(int pair, int source, int target, int sourceVertices, int targetVertices);
std::string DtMeshIndicesInvalid(const char* mesh);
std::string DtPairingSize(int entries, int targetTriangles);
std::string DtPairingNamesMissingTriangle(int targetTriangle);
// A stored correspondence whose fitted source does not hold one point per source vertex.
std::string DtStoredFitSize(int points, int sourceVertices);
std::string DtSourceChanged(int vertices, int triangles, int restVertices, int restTriangles);
std::string DtTargetChanged(int vertices, int triangles, int builtVertices, int builtTriangles);
std::string DtSingular(const char* system, const char* consequence);
// The normal equations broke down at `where` ("source vertex 12", "the fourth vertex of target
// triangle 7").
std::string DtSingularAt(const char* system, const std::string& where, const char* consequence);
// The same for a breakdown the sparse library reported at `column` of a system whose columns are
// the free vertices of `mesh` ("source", "target"; vertexColumn[v] is vertex v's column, -1 when
// it is fixed), numbered from 0 to numFree - 1, then the fourth vertex of each of its numTriangles
// triangles; a column outside both names nothing.
std::string DtSingularColumn(const char* system, const char* mesh, const int* vertexColumn, int numVertices,
                             int numFree, int numTriangles, int column, const char* consequence);
// Why a source fit or a transfer system is singular, found before it is factored.
std::string DtIsolatedSourceVertex(int vertex);
std::string DtDegenerateTriangle(const char* mesh, int triangle, int a, int b, int c, const char* system,
                                 const char* consequence);
std::string DtTooLargeTriangle(const char* mesh, int triangle, int a, int b, int c, const char* system,
                               const char* consequence);

}  // namespace Kavrin
