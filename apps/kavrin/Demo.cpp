#include "Demo.h"

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <filesystem>

#include "CommandSupport.h"
#include "MeshPicture.h"
#include "TextFields.h"

namespace Kavrin {

namespace {

std::string FormatText(const char* format, va_list args) {
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(static_cast<size_t>(std::max(length, 0)) + 1, '\0');
    std::vsnprintf(&text[0], text.size(), format, args);
    text.resize(text.size() - 1);
    return text;
}

std::string Printed(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Printed(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = FormatText(format, args);
    va_end(args);
    return text;
}

std::string EscapeHtml(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '&')
            out += "&amp;";
        else if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else if (c == '"')
            out += "&quot;";
        else
            out += c;
    }
    return out;
}

}  // namespace

std::string DemoReport::path(const std::string& file) const {
    return (std::filesystem::path(_folder) / file).string();
}

void DemoReport::title(const char* format, ...) {
    va_list args;
    va_start(args, format);
    _cases.push_back(Case{FormatText(format, args), {}, {}});
    va_end(args);
    Progress("%s", _cases.back().title.c_str());
}

void DemoReport::line(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const std::string text = FormatText(format, args);
    va_end(args);
    if (!_cases.empty()) _cases.back().lines.push_back(text);
    Progress("  %s", text.c_str());
}

void DemoReport::picture(const std::string& file, const std::vector<DemoMesh>& meshes, const DemoMesh& reference,
                         bool zUp, const std::string& caption, double range) {
    PictureSettings settings;
    settings.zUp = zUp;
    settings.range = range;
    settings.reference = reference.mesh;
    std::vector<const KPolyMesh*> drawn;
    std::string command = "kavrin render";
    for (const DemoMesh& m : meshes) {
        drawn.push_back(m.mesh);
        command += " " + path(m.file);
    }
    if (reference.mesh) command += " --reference " + path(reference.file);
    if (range > 0.0) command += Printed(" --range %g", range);
    if (zUp) command += " --up z";
    command += " -o " + file;
    const Picture picture = DrawMeshes(drawn, settings);
    WritePicture(path(file), picture);

    const std::string colours =
        picture.coloured > 0
            ? Printed("; colour: distance from %s, grey 0 to red %.3g", reference.file.c_str(), picture.range)
            : std::string();
    Progress("  -> %s: %s%s", file.c_str(), caption.c_str(), colours.c_str());
    if (_cases.empty()) return;
    _cases.back().pictures += "<figure><img src=\"" + EscapeHtml(file) + "\" alt=\"" + EscapeHtml(caption) +
                              "\"><figcaption>" + EscapeHtml(caption + colours) + ".<br>Drawn again by <code>" +
                              EscapeHtml(command) + "</code></figcaption></figure>\n";
}

void DemoReport::writeIndex() const {
    std::string html =
        "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<title>kavrin demo</title>\n"
        "<style>body{font-family:sans-serif;max-width:1000px;margin:2em auto;padding:0 1em;color:#222}"
        "pre{background:#f4f4f4;padding:.6em;white-space:pre-wrap}img{max-width:100%;border:1px solid #ddd}"
        "figure{margin:1em 0}figcaption{font-size:90%;color:#444}</style>\n</head>\n<body>\n<h1>kavrin demo</h1>\n"
        "<p>Every engine on meshes the demo generates: the figures it printed and a picture of a pose beside its "
        "result. Colours give each vertex's distance from the reference mesh named under the picture: grey for 0, "
        "then yellow and orange, red for the range given there. The OBJ files beside this page are the inputs and "
        "results.</p>\n";
    for (const Case& c : _cases) {
        html += "<h2>" + EscapeHtml(c.title) + "</h2>\n<pre>";
        for (const std::string& l : c.lines) html += EscapeHtml(l) + "\n";
        html += "</pre>\n" + c.pictures;
    }
    html += "</body>\n</html>\n";
    try {
        WriteTextFile(path("index.html"), html);
    } catch (const KFileError& e) {
        throw RunError(e.what());
    }
}

double MaxDistance(const KVectorArray& a, const KVectorArray& b) {
    double worst = 0.0;
    for (int i = 0; i < a.length(); ++i) worst = std::max(worst, static_cast<double>((a[i] - b[i]).length()));
    return worst;
}

double Diagonal(const KPolyMesh& mesh) {
    if (mesh.points.empty()) return 0.0;
    KVector lo = mesh.points[0], hi = mesh.points[0];
    for (const KVector& p : mesh.points)
        for (int k = 0; k < 3; ++k) {
            lo[k] = std::min(lo[k], p[k]);
            hi[k] = std::max(hi[k], p[k]);
        }
    return (hi - lo).length();
}

int NearestVertex(const KPolyMesh& mesh, const KVector& p) {
    int best = 0;
    for (int i = 1; i < mesh.numVertices(); ++i)
        if ((mesh.points[i] - p).squaredLength() < (mesh.points[best] - p).squaredLength()) best = i;
    return best;
}

double DemoClock() {
    using namespace std::chrono;
    return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace Kavrin
