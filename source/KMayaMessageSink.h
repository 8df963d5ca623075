#pragma once
// Engine messages into Maya: errors and warnings through the script editor's message calls,
// other text to standard output as given.

#include "KMessageSink.h"
#include "KOutcome.h"

namespace Kavrin {

class KMayaMessageSink : public KMessageSink {
public:
    void error(const std::string& message) override;
    void warning(const std::string& message) override;
    void output(const std::string& text) override;
};

// Shows a failed outcome's message as an error or a warning, as its severity says; nothing for
// any other outcome.
void ReportOutcome(const KOutcome& outcome);

}  // namespace Kavrin
