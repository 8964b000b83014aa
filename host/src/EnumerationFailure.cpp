#include "EnumerationFailure.h"

#include "CodeMeaning.h"
#include "host/Display.h"

namespace mirel {

std::string quoted(const std::string& shown) { return "\"" + shown + "\""; }

std::string quoted(const Text& name) { return quoted(displayed(name)); }

Failure enumerationFailure(const Reader& reader, const std::string& why, const Advice& advice) {
  return {FailureKind::kCardEnumerationFailed,
          "the card in reader " + quoted(reader.name) + " cannot be listed", why, advice};
}

Failure enumerationFailure(const Reader& reader, const FailedCall& cause) {
  return failureBecauseOf(cause, "the card in reader " + quoted(reader.name) + " cannot be listed",
                          FailureKind::kCardEnumerationFailed);
}

}  // namespace mirel
