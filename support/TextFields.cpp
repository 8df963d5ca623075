#include "TextFields.h"

#include <algorithm>
#include <cerrno>
#include <cctype>
#include <cfloat>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace Kavrin {

std::string ReadTextFile(const std::string& path) {
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec))
        throw KFileError(path + ": cannot open the file (it is a folder)");
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file) throw KFileError(path + ": cannot open the file (" + std::strerror(errno) + ")");
    std::string text;
    char buffer[1 << 16];
    size_t got;
    while ((got = std::fread(buffer, 1, sizeof(buffer), file)) > 0) text.append(buffer, got);
    const bool failed = std::ferror(file) != 0;
    const int reason = errno;
    std::fclose(file);
    if (failed) throw KFileError(path + ": cannot read the file (" + std::strerror(reason) + ")");
    return text;
}

void WriteTextFile(const std::string& path, const std::string& text) {
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) throw KFileError(path + ": cannot write the file (" + std::strerror(errno) + ")");
    const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    int reason = written ? 0 : errno;
    if (std::fclose(file) != 0 && reason == 0) reason = errno;
    if (!written || reason != 0)
        throw KFileError(path + ": cannot write the file (" + std::strerror(reason ? reason : EIO) + ")");
}

// Decision (behaviour note "What the OBJ reader accepts"): byte-order mark and line ends.
KTextLines::KTextLines(std::string_view text, std::string name) : _text(text), _name(std::move(name)) {
    if (_text.substr(0, 3) == "\xEF\xBB\xBF") _text.remove_prefix(3);
}

bool KTextLines::next(std::string_view& line) {
    if (_at >= _text.size()) return false;
    const size_t end = _text.find_first_of("\r\n", _at);
    const size_t stop = end == std::string_view::npos ? _text.size() : end;
    line = _text.substr(_at, stop - _at);
    _at = stop;
    if (_at < _text.size()) _at += _text.compare(_at, 2, "\r\n") == 0 ? 2 : 1;
    ++_number;
    const size_t comment = line.find('#');
    if (comment != std::string_view::npos) line = line.substr(0, comment);
    return true;
}

void SplitWords(std::string_view line, std::vector<std::string_view>& words) {
    words.clear();
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v'; };
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && blank(line[i])) ++i;
        const size_t start = i;
        while (i < line.size() && !blank(line[i])) ++i;
        if (i > start) words.push_back(line.substr(start, i - start));
    }
}

std::string Quoted(std::string_view word) {
    const size_t kMost = 24;
    std::string out = "'";
    for (size_t i = 0; i < word.size() && i < kMost; ++i) {
        const unsigned char c = static_cast<unsigned char>(word[i]);
        out += (c >= 32 && c < 127) ? static_cast<char>(c) : '?';
    }
    if (word.size() > kMost) out += "...";
    return out + "'";
}

namespace {

// from_chars takes no leading '+'; a '+' directly before a digit or a point is allowed here.
std::string_view withoutPlus(std::string_view word) {
    if (word.size() > 1 && word[0] == '+' && (std::isdigit(static_cast<unsigned char>(word[1])) || word[1] == '.'))
        return word.substr(1);
    return word;
}

}  // namespace

bool WithinFloatRange(double value) {
    // 2^128 - 2^103: the midpoint between FLT_MAX and the next power of two, which rounds to
    // infinity; everything below it rounds to a finite float.
    static const double kLimit = std::ldexp(1.0, 128) - std::ldexp(1.0, 103);
    return std::fabs(value) < kLimit;
}

float ToFloat(double value) {
    if (value > FLT_MAX) return FLT_MAX;
    if (value < -FLT_MAX) return -FLT_MAX;
    return static_cast<float>(value);
}

// Decision (behaviour note "What the OBJ reader accepts")
bool ParseFloatWord(std::string_view word, double& value, std::string& why) {
    const std::string_view digits = withoutPlus(word);
    const char* begin = digits.data();
    const char* end = begin + digits.size();
    double parsed = 0.0;
    const std::from_chars_result r = std::from_chars(begin, end, parsed, std::chars_format::general);
    if (digits.empty() || r.ptr != end || (r.ec != std::errc() && r.ec != std::errc::result_out_of_range)) {
        why = Quoted(word) + " is not a number";
        if (word.find(',') != std::string_view::npos) why += " (decimals take a point, not a comma)";
        return false;
    }
    if (r.ec == std::errc::result_out_of_range) {
        // Too large, or too small for a double: strtod tells which (the word is a plain decimal
        // number at this point, and the tool never changes the C locale).
        const double rounded = std::strtod(std::string(digits).c_str(), nullptr);
        if (std::fabs(rounded) > 1.0) {
            why = Quoted(word) + " is beyond the range of a float";
            return false;
        }
        parsed = std::signbit(rounded) ? -0.0 : 0.0;
    }
    if (!std::isfinite(parsed)) {
        why = Quoted(word) + " is not a finite number";
        return false;
    }
    if (!WithinFloatRange(parsed)) {
        why = Quoted(word) + " is beyond the range of a float";
        return false;
    }
    value = parsed;
    return true;
}

bool ParseIntegerWord(std::string_view word, const char* what, long long& value, std::string& why) {
    const std::string_view digits = withoutPlus(word);
    const char* begin = digits.data();
    const char* end = begin + digits.size();
    long long parsed = 0;
    const std::from_chars_result r = std::from_chars(begin, end, parsed);
    if (digits.empty() || r.ptr != end || (r.ec != std::errc() && r.ec != std::errc::result_out_of_range)) {
        why = Quoted(word) + " is not a " + what;
        return false;
    }
    if (r.ec == std::errc::result_out_of_range) {
        why = Quoted(word) + " is too large for a " + what;
        return false;
    }
    value = parsed;
    return true;
}

namespace {

// "1e+09" -> "1e9", "2.5e-07" -> "2.5e-7".
std::string PlainExponent(std::string text) {
    const size_t e = text.find('e');
    if (e == std::string::npos) return text;
    std::string exponent = text.substr(e + 1);
    const bool negative = exponent[0] == '-';
    if (exponent[0] == '+' || exponent[0] == '-') exponent.erase(0, 1);
    exponent.erase(0, std::min(exponent.find_first_not_of('0'), exponent.size() - 1));
    return text.substr(0, e + 1) + (negative ? "-" : "") + exponent;
}

template <class T>
std::string Shortest(T value) {
    // Whole numbers up to a million in full ("100000", not "1e5").
    if (std::fabs(value) <= T(1e6) && value == std::trunc(value)) return std::to_string(static_cast<long>(value));
    char buffer[32];
    const std::to_chars_result r = std::to_chars(buffer, buffer + sizeof(buffer), value);
    return PlainExponent(std::string(buffer, r.ptr));
}

}  // namespace

std::string NumberText(double value) { return Shortest(value); }
std::string NumberText(float value) { return Shortest(value); }

std::string RangeText(double lowest, double highest) { return NumberText(lowest) + " to " + NumberText(highest); }

std::string FirstFew(const std::vector<int>& items, size_t most) {
    std::string out;
    for (size_t i = 0; i < items.size() && i < most; ++i) out += (i ? ", " : "") + std::to_string(items[i]);
    if (items.size() > most) out += ", ...";
    return out;
}

}  // namespace Kavrin
