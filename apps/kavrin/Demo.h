#pragma once
// The cases of `kavrin demo`: each generates its meshes, runs one engine the way its node runs,
// writes every input it used and every result into the demo folder, prints its figures and draws
// a before/after picture. A new case is one file and one line in the table of cmd_demo.cpp.

#include <string>
#include <vector>

#include "KArray.h"
#include "KPolyMesh.h"

namespace Kavrin {

// A mesh of a picture and the file of the demo folder it was written to.
struct DemoMesh {
    std::string file;
    const KPolyMesh* mesh;
};

// What the cases report: every line is printed as it comes and kept, with the pictures, for
// the folder's index.html.
class DemoReport {
public:
    DemoReport(std::string folder, int threads) : _folder(std::move(folder)), _threads(threads) {}

    int threads() const { return _threads; }
    // The path of a file of the demo folder.
    std::string path(const std::string& file) const;

    // Starts a case with its title line.
    void title(const char* format, ...) __attribute__((format(printf, 2, 3)));
    // One line of the current case's figures, printed indented.
    void line(const char* format, ...) __attribute__((format(printf, 2, 3)));
    // Draws the meshes side by side into the folder's file `file` the way `kavrin render` does,
    // coloured by their distance from reference when it has a mesh (red at range, or at the largest
    // distance for 0), and shows the picture under the current case with the caption, the colour
    // range and the command that draws it again.
    void picture(const std::string& file, const std::vector<DemoMesh>& meshes, const DemoMesh& reference, bool zUp,
                 const std::string& caption, double range = 0.0);

    // Writes index.html into the folder: every case's title, figures and pictures.
    void writeIndex() const;

private:
    struct Case {
        std::string title;
        std::vector<std::string> lines;
        std::string pictures;  // HTML
    };
    std::string _folder;
    int _threads;
    std::vector<Case> _cases;
};

void DeltaMushDemo(DemoReport& demo);
void TransferDemo(DemoReport& demo);
void OffsetDemo(DemoReport& demo);
void JiggleDemo(DemoReport& demo);
void RelaxDemo(DemoReport& demo);
void WrapDemo(DemoReport& demo);

// Shared by the cases.
double MaxDistance(const KVectorArray& a, const KVectorArray& b);
double Diagonal(const KPolyMesh& mesh);
int NearestVertex(const KPolyMesh& mesh, const KVector& p);
// A steady clock in milliseconds, for timing one step.
double DemoClock();

}  // namespace Kavrin
