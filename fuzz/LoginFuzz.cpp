// A user logs in, at once or at the third attempt, while the module answers what the input says.

#include <optional>

#include "Check.h"
#include "Input.h"
#include "KeyRun.h"

namespace mirel::fuzz {
namespace {

/// What the host says of the tries, which must not disturb the login.
void lookAtTries(KeyRun& run) {
  const auto state = run.host().pinState(run.card().reader);
  if (!state) run.checkFailure(state.failure());
  (void)run.host().triesLeft(run.card().reader);  // any number may be right
}

}  // namespace

void runTarget(Input& input) {
  KeyRun run{input, kSigner};
  if (!run.hasClient()) return;
  // The input may have pulled the card.
  const auto before = run.moduleIsHonest() ? std::optional{run.module().script().card()} : std::nullopt;
  const auto done = run.client().logIn(run.pins());
  if (!done) run.checkFailure(done.failure());
  if (before && run.moduleIsHonest()) {
    const test::Card& after = run.module().script().card();
    check(!done || after.loggedIn, "who is told of a login is logged in");
    check(before->triesLeft - after.triesLeft <= KeyClient::kMostPins || after.triesLeft > before->triesLeft,
          "no more PINs are sent than may be");
  }
  if (run.allIsWell()) check(bool{done} || !run.pins().areGood(), "the right PIN logs in");
  lookAtTries(run);
}

}  // namespace mirel::fuzz
