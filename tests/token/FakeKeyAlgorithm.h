#pragma once

#include "platform/TokenKit.h"

namespace mirel::test {

/// A request for exactly one algorithm.
class FakeKeyAlgorithm final : public TKTokenKeyAlgorithm {
 public:
  explicit FakeKeyAlgorithm(SecKeyAlgorithm algorithm) : algorithm_{algorithm} {}
  [[nodiscard]] bool isAlgorithm(SecKeyAlgorithm algorithm) const noexcept override {
    return algorithm == algorithm_;
  }

 private:
  SecKeyAlgorithm algorithm_;
};

}  // namespace mirel::test
