#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/Finding.h"
#include "host/Host.h"
#include "host/Result.h"
#include "platform/CardService.h"

namespace mirel {

/// The reader's name as a slot description would have it.
[[nodiscard]] Text nameOf(const ServiceReader& reader);

/// Why a reader, or its card, cannot be used: the module's view held against that of the card service. What
/// explains the most comes first; where no slot holds a token there is always something.
/// `slots`: all that the module lists, those without a token too.
[[nodiscard]] std::vector<Finding> readerFindings(const std::vector<Reader>& slots,
                                                  const CardServiceView& service);

/// The same for that one reader alone.
[[nodiscard]] std::vector<Finding> findingsOfReader(const Text& name, const std::vector<Reader>& slots,
                                                    const CardServiceView& service);

/// The reader of that name of the card service; slot descriptions hold its first 64 bytes. Null: none. Valid
/// as long as the view.
[[nodiscard]] const ServiceReader* readerOfService(const CardServiceView& service, const Text& name);

/// Whether that is a name of the module for that reader, which the service has: a longer one, behind a blank
/// or another sign that ends a word, and not one that begins with the name of another reader.
[[nodiscard]] bool isLongerNameOf(const ServiceReader& reader, const Text& name,
                                  const CardServiceView& service);

/// What the card service tells; nothing where there is none (null).
[[nodiscard]] CardServiceView viewOf(const std::shared_ptr<CardService>& service);

/// The failure of whoever wanted a card. `findings`: not empty.
[[nodiscard]] Failure noCardFailure(std::string what, const std::vector<Finding>& findings);

}  // namespace mirel
