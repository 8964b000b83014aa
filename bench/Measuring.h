#pragma once

/// What the benchmarks measure with.

#include <algorithm>
#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "platform/CryptokiObserver.h"
#include "platform/Log.h"

namespace mirel::bench {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

class QuietLog final : public Log {
 public:
  void systemDefault(std::string_view) noexcept override {}
  void systemError(std::string_view) noexcept override {}
  void process(std::string_view) noexcept override {}
};

class CallClock final : public CryptokiObserver {
 public:
  void callStarts(const char*) noexcept override { start_ = Clock::now(); }
  void callReturned(const char* function, std::uint64_t) noexcept override {
    inModule_ += Clock::now() - start_;
    ++numCalls_;
    if (counting_) ++calls_[function];
  }
  void operationReturned(BridgeOperation, std::uint64_t) noexcept override {}

  void reset(bool counting) {
    inModule_ = {};
    numCalls_ = 0;
    counting_ = counting;
  }
  [[nodiscard]] Microseconds inModule() const { return inModule_; }
  [[nodiscard]] long numCalls() const { return numCalls_; }
  [[nodiscard]] const std::map<std::string, long>& calls() const { return calls_; }

 private:
  Clock::time_point start_;
  Clock::duration inModule_{};
  long numCalls_ = 0;
  bool counting_ = false;
  std::map<std::string, long> calls_;
};

[[nodiscard]] inline double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace mirel::bench
