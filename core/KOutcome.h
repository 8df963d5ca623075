#pragma once
// What one evaluation of an engine did, in a form both hosts act on: the Maya node writes its
// outputs or leaves them, the command line writes a file or exits with the message.
//
// A failed evaluation's message travels only here, never through the engine's KMessageSink, so
// that every host reports it exactly once (Maya: displayError or displayWarning as `severity`
// says; the command line: one line on standard error). Messages that do not end the evaluation
// (warnings, an error the node shows and goes on after, progress) go through the sink as they
// happen.

#include <string>

namespace Kavrin {

struct KOutcome {
    enum Status {
        kDeformed,   // the engine's result is ready: the host writes it
        kUntouched,  // nothing to do (an envelope below 1e-30, say): outputs stay as they are
        kFailed      // nothing to write; `message` says why
    };
    enum Severity { kError, kWarning };

    Status status = kUntouched;
    Severity severity = kError;
    std::string message;

    static KOutcome Deformed() { return KOutcome(kDeformed, kError, std::string()); }
    static KOutcome Untouched() { return KOutcome(kUntouched, kError, std::string()); }
    static KOutcome Failed(const std::string& message, Severity severity = kError) {
        return KOutcome(kFailed, severity, message);
    }

    bool deformed() const { return status == kDeformed; }
    bool failed() const { return status == kFailed; }

    KOutcome() {}

private:
    KOutcome(Status s, Severity v, const std::string& m) : status(s), severity(v), message(m) {}
};

}  // namespace Kavrin
