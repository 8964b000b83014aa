#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bridge/BridgeOperation.h"
#include "platform/CryptokiObserver.h"

namespace mirel::test {

/// Keeps what it is told.
class RecordingObserver final : public CryptokiObserver {
 public:
  struct Event {
    enum class Kind { kCallStarts, kCallReturned, kOperationReturned };
    Kind kind;
    std::string name;
    std::uint64_t result = 0;
    [[nodiscard]] friend bool operator==(const Event&, const Event&) = default;
  };

  void callStarts(const char* function) noexcept override {
    events.push_back({Event::Kind::kCallStarts, function, 0});
  }
  void callReturned(const char* function, std::uint64_t result) noexcept override {
    events.push_back({Event::Kind::kCallReturned, function, result});
  }
  void operationReturned(BridgeOperation operation, std::uint64_t result) noexcept override {
    events.push_back({Event::Kind::kOperationReturned, operationName(operation), result});
  }

  std::vector<Event> events;
};

}  // namespace mirel::test
