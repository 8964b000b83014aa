#pragma once

#include <memory>

#include "platform/Certificate.h"

namespace mirel {

/// The parser `next`, which is asked once for each certificate and each fact about it: a card that gives all
/// its objects one ID has each certificate published once for each key. It keeps every certificate it has
/// made.
[[nodiscard]] std::shared_ptr<CertificateParser> parserWithMemory(std::shared_ptr<CertificateParser> next);

}  // namespace mirel
