#include "recording/RecordedCall.h"

namespace mirel::recording {

bool operator==(const Value& a, const Value& b) { return a.held == b.held; }

bool operator==(const NamedValue& a, const NamedValue& b) { return a.name == b.name && a.value == b.value; }

}  // namespace mirel::recording
