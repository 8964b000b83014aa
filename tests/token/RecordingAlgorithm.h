#pragma once

#include <vector>

#include "platform/TokenKit.h"

namespace mirel::test {

/// An algorithm that no client can ask for: every one or none. Keeps what it was compared with.
class RecordingAlgorithm final : public TKTokenKeyAlgorithm {
 public:
  explicit RecordingAlgorithm(bool isEvery) : isEvery_{isEvery} {}
  [[nodiscard]] bool isAlgorithm(SecKeyAlgorithm algorithm) const noexcept override {
    askedFor_.push_back(algorithm);
    return isEvery_;
  }

  [[nodiscard]] const std::vector<SecKeyAlgorithm>& askedFor() const { return askedFor_; }

 private:
  bool isEvery_;
  mutable std::vector<SecKeyAlgorithm> askedFor_;
};

}  // namespace mirel::test
