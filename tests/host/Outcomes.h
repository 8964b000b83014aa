#pragma once

#include <gtest/gtest.h>

#include "host/Result.h"

namespace mirel::test {

/// Checks that the user is told three things, each in one line without a full stop.
void expectPresentable(const Failure& failure);

/// What went wrong, which is presentable; a success fails the test.
template <typename Value>
[[nodiscard]] Failure failureOf(const Result<Value>& outcome) {
  if (outcome) {
    ADD_FAILURE() << "there is no failure";
    return {};
  }
  expectPresentable(outcome.failure());
  return outcome.failure();
}

}  // namespace mirel::test
