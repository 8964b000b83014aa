#pragma once

#include <string>
#include <vector>

#include "host/Finding.h"
#include "host/Host.h"

namespace mirel {

/// What the checks use of a second look at a card.
struct CardLook {
  struct Key {
    Text objectID;
    std::string works;
    bool worksForNothing = false;
  };
  std::vector<Finding> findings;
  std::vector<Key> keys;
  std::size_t numUnpublished = 0;
};

[[nodiscard]] CardLook lookAtCard(Host& host, const InsertedCard& card, bool afterLogin);
/// The same for a card that cannot be inserted.
[[nodiscard]] CardLook lookAtCard(Host& host, const Reader& reader);

}  // namespace mirel
