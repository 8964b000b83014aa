#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/DynamicLoader.h"

namespace mirel::test {

/// Keeps every call, as "open PATH", "symbol NAME" and "close". Hands them on to another loader; without
/// one, nothing can be opened.
class RecordingLoader final : public DynamicLoader {
 public:
  explicit RecordingLoader(std::shared_ptr<DynamicLoader> real = nullptr) : real_{std::move(real)} {}

  [[nodiscard]] void* open(const char* path) noexcept override {
    calls.push_back(std::string{"open "} + path);
    return real_ ? real_->open(path) : nullptr;
  }
  [[nodiscard]] void* symbol(void* library, const char* name) noexcept override {
    calls.push_back(std::string{"symbol "} + name);
    return real_ ? real_->symbol(library, name) : nullptr;
  }
  bool close(void* library) noexcept override {
    calls.emplace_back("close");
    return real_ && real_->close(library);
  }
  [[nodiscard]] std::string errorText() noexcept override { return real_ ? real_->errorText() : "no loader"; }

  std::vector<std::string> calls;

 private:
  std::shared_ptr<DynamicLoader> real_;
};

}  // namespace mirel::test
