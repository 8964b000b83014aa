#pragma once

/// Against what the platform raises. What is raised in one request, say over one card, must not end the
/// process, and with it the tokens of all other cards; nor may it go through functions of the core, which
/// take no exceptions. So a guard stands right around each call of the platform, or around a few that belong
/// together, with nothing between them that is noexcept.

#import <Foundation/Foundation.h>

#include <type_traits>

namespace mirel {

/// Writes a line at error level. `what`: what does not happen. `raised`: an exception as a rule; any object
/// can be raised.
void logRaised(const char* what, id raised) noexcept;

namespace detail {

template <typename Call, typename Handle>
auto caught(Call&& call, Handle&& handle) noexcept {
  using Value = std::invoke_result_t<Call>;
  if constexpr (std::is_void_v<Value>) {
    @try {
      call();
    } @catch (id raised) {
      handle(raised);
    }
  } else {
    Value value{};
    @try {
      value = call();
    } @catch (id raised) {
      handle(raised);
    }
    return value;
  }
}

}  // namespace detail

/// What `call` returns; after something was raised a log line, and the value that its type begins with: nil,
/// null, 0, false. `what`: see logRaised.
template <typename Call>
auto guarded(const char* what, Call&& call) noexcept {
  return detail::caught(call, [what](id raised) { logRaised(what, raised); });
}

/// The same without a line, for the log itself.
template <typename Call>
auto guardedSilently(Call&& call) noexcept {
  return detail::caught(call, [](id) {});
}

}  // namespace mirel
