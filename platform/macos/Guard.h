#pragma once

/// Against what the platform raises.

#import <Foundation/Foundation.h>

namespace mirel {

/// Writes a line at error level. `what`: what does not happen.
void logRaised(const char* what, NSException* exception) noexcept;

/// Runs `call`, which hands the platform what a card holds. Not all that it wants of texts and items is
/// documented; what it raises over one card must not end the process, and with it the tokens of the others.
template <typename Call>
void guard(const char* what, Call&& call) noexcept {
  @try {
    call();
  } @catch (NSException* exception) {
    logRaised(what, exception);
  }
}

}  // namespace mirel
