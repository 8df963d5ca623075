#pragma once
// Where an engine's messages for the artist go: errors, warnings and text for standard output.
// The Maya layer forwards them to the host's message functions, the command-line tool prints
// them, and tests record them.

#include <string>
#include <vector>

namespace Kavrin {

class KMessageSink {
public:
    virtual ~KMessageSink() {}
    virtual void error(const std::string& message) = 0;
    virtual void warning(const std::string& message) = 0;
    // Text for standard output, written exactly as given (it carries its own line ends).
    virtual void output(const std::string& text) = 0;
};

// Keeps every message, in order, for inspection.
class KRecordingSink : public KMessageSink {
public:
    struct Entry {
        enum Kind { kError, kWarning, kOutput } kind;
        std::string text;
    };
    std::vector<Entry> entries;

    void error(const std::string& message) override { entries.push_back(Entry{Entry::kError, message}); }
    void warning(const std::string& message) override { entries.push_back(Entry{Entry::kWarning, message}); }
    void output(const std::string& text) override { entries.push_back(Entry{Entry::kOutput, text}); }

    std::vector<std::string> errors() const { return texts(Entry::kError); }
    std::vector<std::string> warnings() const { return texts(Entry::kWarning); }
    std::vector<std::string> outputs() const { return texts(Entry::kOutput); }

private:
    std::vector<std::string> texts(Entry::Kind kind) const {
        std::vector<std::string> r;
        for (const Entry& e : entries)
            if (e.kind == kind) r.push_back(e.text);
        return r;
    }
};

}  // namespace Kavrin
