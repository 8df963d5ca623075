#pragma once
// The cases of `kavrin demo`: each generates its meshes, runs one engine the way its node runs
// and writes the inputs and results into the demo folder. A new case is one file and one line in
// the table of cmd_demo.cpp.

#include <string>

#include "KArray.h"
#include "KPolyMesh.h"

namespace Kavrin {

void DeltaMushDemo(const std::string& folder, int threads);
void TransferDemo(const std::string& folder, int threads);
void OffsetDemo(const std::string& folder, int threads);
void JiggleDemo(const std::string& folder, int threads);
void RelaxDemo(const std::string& folder, int threads);
void WrapDemo(const std::string& folder, int threads);

// Shared by the cases.
std::string DemoPath(const std::string& folder, const std::string& name);
double MaxDistance(const KVectorArray& a, const KVectorArray& b);
double Diagonal(const KPolyMesh& mesh);
int NearestVertex(const KPolyMesh& mesh, const KVector& p);
// A steady clock in milliseconds, for timing one step.
double DemoClock();

}  // namespace Kavrin
