#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace mirel {

/// An environment variable that has another value while this lives.
class ScopedVariable {
 public:
  /// `value` null: the variable is not set.
  ScopedVariable(const char* name, const char* value) : name_{name} {
    if (const char* old = std::getenv(name)) old_ = old;
    assign(value);
  }
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;
  ~ScopedVariable() { assign(old_ ? old_->c_str() : nullptr); }

 private:
  void assign(const char* value) {
    if (value) {
      setenv(name_, value, 1);
    } else {
      unsetenv(name_);
    }
  }

  const char* name_;
  std::optional<std::string> old_;
};

}  // namespace mirel
