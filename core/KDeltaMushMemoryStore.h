#pragma once
// The delta-mush deformer's stored attributes held in memory, for running the engine outside a
// host (the command-line tool, tests, benchmarks).

#include "KDeltaMushSolver.h"

namespace Kavrin {

class KDeltaMushMemoryStore : public KDeltaMushStore {
public:
    bool onlyOnceValue = true;
    bool gotDeltaValue = false;
    int numIterValue = 15;
    KTriMesh restMesh;
    KVertexNeighbours restNeighbours;
    bool hasDelta = false;
    KArray<KDouble3> delta;

    // The mesh captureRestMesh() copies into restMesh: the one being evaluated.
    const KTriMesh* input = nullptr;
    const KVertexNeighbours* inputNeighbours = nullptr;

    bool onlyOnce() override { return onlyOnceValue; }
    void setOnlyOnce(bool value) override { onlyOnceValue = value; }
    void captureRestMesh() override {
        if (input) restMesh = *input;
        if (inputNeighbours) restNeighbours = *inputNeighbours;
    }
    bool gotDelta() override { return gotDeltaValue; }
    void setGotDelta(bool value) override { gotDeltaValue = value; }
    int numIter() override { return numIterValue; }
    void readRestMesh(KTriMesh& mesh, KVertexNeighbours& neighbours) override {
        mesh = restMesh;
        neighbours = restNeighbours;
    }
    bool readDelta(KArray<KDouble3>& deltas) override {
        if (!hasDelta) return false;
        deltas = delta;
        return true;
    }
    void writeDelta(const KArray<KDouble3>& deltas) override {
        delta = deltas;
        hasDelta = true;
    }
};

}  // namespace Kavrin
