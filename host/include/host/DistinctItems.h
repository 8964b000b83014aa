#pragma once

#include <cstddef>
#include <vector>

#include "host/Host.h"

namespace mirel {

/// An item, and how many there are that are alike in everything.
struct DistinctItem {
  const PublishedItem* item = nullptr;  ///< the first of them
  std::size_t count = 0;
};

/// The items of a card without their repetitions, in the order of the first of each. Pointers into `items`.
[[nodiscard]] std::vector<DistinctItem> distinctItems(const std::vector<PublishedItem>& items);

}  // namespace mirel
