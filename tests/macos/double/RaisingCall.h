#pragma once

#include <cstddef>
#include <string>

namespace mirel::test {

/// As long as it lives, one call of the platform raises instead of doing anything. One at a time.
class RaisingCall {
 public:
  /// `call`: a method as "-[Class selector]" or "+[Class selector]", or a function of the double by its name.
  /// An initialiser lets go of its object first. What there is not ends the program.
  explicit RaisingCall(const std::string& call);
  RaisingCall(const RaisingCall&) = delete;
  RaisingCall& operator=(const RaisingCall&) = delete;
  ~RaisingCall();

  /// How often it has raised.
  [[nodiscard]] std::size_t count() const;

 private:
  struct State;
  static State* current;
  friend void raiseIn(const char* function);

  State* state_;
};

/// For the double's own functions: raises while such a call is wanted to.
void raiseIn(const char* function);

}  // namespace mirel::test
