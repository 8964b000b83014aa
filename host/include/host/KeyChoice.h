#pragma once

#include <string>
#include <string_view>

#include "host/Host.h"
#include "host/Result.h"

namespace mirel {

/// A key and its certificate.
struct ChosenKey {
  PublishedKey key;
  PublishedCertificate certificate;
};

/// The keys among the items, in their order; those that are alike in everything count as one.
[[nodiscard]] std::vector<PublishedKey> keysOf(const InsertedCard& card);

/// The key that `name` (UTF-8) stands for: its object identifier as it is displayed, "#N" for the N-th key,
/// or a label (of its item, or of its certificate on the card) that no other key has. kKeyNotFound otherwise;
/// the failure tells what keys there are. Where a read failed when the card was inserted, a key may be
/// missing: then only an object identifier stands for a key, and anything else is kCardEnumerationFailed.
[[nodiscard]] Result<ChosenKey> chooseKey(const InsertedCard& card, std::string_view name);

}  // namespace mirel
