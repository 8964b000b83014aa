#pragma once

#include <functional>
#include <memory>

#include "platform/CardService.h"

namespace mirel::test {

/// A card service that tells what a test sets. Counts how often it is asked.
class FakeCardService final : public CardService {
 public:
  CardServiceView look() noexcept override {
    ++looks;
    if (whenAsked) whenAsked();
    return view;
  }

  std::unique_ptr<CardServiceWatch> watch() noexcept override { return nullptr; }

  CardServiceView view{CardServiceView::State::kAnswers, {}, {}};
  int looks = 0;
  std::function<void()> whenAsked;
};

}  // namespace mirel::test
