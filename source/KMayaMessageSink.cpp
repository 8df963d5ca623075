#include "KMayaMessageSink.h"

#include <iostream>

#include <maya/MGlobal.h>
#include <maya/MString.h>

namespace Kavrin {

void KMayaMessageSink::error(const std::string& message) { MGlobal::displayError(MString(message.c_str())); }

void KMayaMessageSink::warning(const std::string& message) { MGlobal::displayWarning(MString(message.c_str())); }

void KMayaMessageSink::output(const std::string& text) { std::cout << text << std::flush; }

void ReportOutcome(const KOutcome& outcome) {
    if (!outcome.failed()) return;
    KMayaMessageSink sink;
    if (outcome.severity == KOutcome::kWarning)
        sink.warning(outcome.message);
    else
        sink.error(outcome.message);
}

}  // namespace Kavrin
