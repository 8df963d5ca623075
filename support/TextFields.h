#pragma once
// The strict pieces the file readers share: reading a whole text file, walking it line by line,
// splitting a line into words, and reading numbers that are exactly numbers (no locale, no
// partial reads, nothing non-finite, nothing beyond a float). Every failure is one line that
// names the file and, where there is one, the line.

#include <string>
#include <string_view>
#include <vector>

#include "FileError.h"

namespace Kavrin {

// The whole file. Throws KFileError "<path>: cannot open the file (<reason>)" when it cannot be
// read (missing, a folder, no permission).
std::string ReadTextFile(const std::string& path);

// Writes text as the whole file. Throws KFileError "<path>: cannot write the file (<reason>)".
void WriteTextFile(const std::string& path, const std::string& text);

// Writes the text format() returns as the whole file. A KFileError from format() comes out with
// the path in front ("<path>: <what>"), and nothing is written then.
template <class Format>
void WriteFormatted(const std::string& path, Format format) {
    std::string text;
    try {
        text = format();
    } catch (const KFileError& e) {
        throw KFileError(path + ": " + e.what());
    }
    WriteTextFile(path, text);
}

// Lines of a text, numbered from 1, without their line end: "\n", "\r\n" or a lone "\r" (old Mac
// files). A UTF-8 byte-order mark at the start of the text is skipped. Everything from a '#' to
// the end of the line is a comment and left out.
class KTextLines {
public:
    KTextLines(std::string_view text, std::string name);

    // The next line's content (comment removed); false at the end of the text.
    bool next(std::string_view& line);
    int number() const { return _number; }
    // "<name>:<line>: " for messages about the current line.
    std::string where() const { return _name + ":" + std::to_string(_number) + ": "; }
    // A KFileError about the current line.
    KFileError error(const std::string& what) const { return KFileError(where() + what); }
    const std::string& name() const { return _name; }

private:
    std::string_view _text;
    std::string _name;
    size_t _at = 0;
    int _number = 0;
};

// The blank-separated words of a line (spaces, tabs, carriage returns, form feeds).
void SplitWords(std::string_view line, std::vector<std::string_view>& words);

// A word as it may appear in a message: printable ASCII only, at most 24 characters, quoted.
std::string Quoted(std::string_view word);

// Whether a double rounds to a finite float (its magnitude is below FLT_MAX plus half a unit in
// the last place).
bool WithinFloatRange(double value);

// The float a double within the float range rounds to.
float ToFloat(double value);

// A decimal number ("1", "-0.5", "+2.", ".25", "1e-3") within the range of a float (magnitudes
// too small even for a double read as zero, as any rounding). False, with why naming the word,
// for anything else: not a number, a decimal comma, "nan", "inf", beyond the range of a float.
bool ParseFloatWord(std::string_view word, double& value, std::string& why);

// A whole decimal number (optional sign, digits only) within [-2^63, 2^63). False, with why,
// for anything else; what names what the number is meant to be ("vertex index").
bool ParseIntegerWord(std::string_view word, const char* what, long long& value, std::string& why);

// A number as messages and help texts show it: whole numbers up to a million in full, others as
// the shortest text that reads back as the same double, with a plain exponent ("0.3", "-2",
// "100000", "1e9", "2.5e-7").
std::string NumberText(double value);
// The same for a float: the shortest text that reads back as the same float ("0.1", "3e38").
std::string NumberText(float value);
// "0 to 1", "-1e9 to 1e9": a closed range as messages show it.
std::string RangeText(double lowest, double highest);

// "3, 8, 9" for a short list, "3, 8, 9, 12, 15, ..." for a longer one: the first few items of a
// list a message is about.
std::string FirstFew(const std::vector<int>& items, size_t most = 5);

}  // namespace Kavrin
