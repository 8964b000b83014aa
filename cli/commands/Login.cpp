#include "Commands.h"
#include "Json.h"
#include "Output.h"
#include "Session.h"

namespace mirel::cli {
namespace {

Result<void> run(Session& session) {
  if (auto connected = session.connect(); !connected) return connected;
  const std::string before = session.remarkOnPin();
  if (auto accepted = session.client().logIn(session.pins()); !accepted) return accepted;
  if (session.options().json) {
    return writeOutput(jsonLines(
        "login",
        Json{{"reader", session.card().reader.name.toUtf8()}, {"accepted", true}, {"before", before}}));
  }
  std::string text = "The card accepts the PIN.\n";
  if (!before.empty()) text.append("Before this: ").append(before).append(".\n");
  return writeOutput(text);
}

constexpr CommandOption kOptions[] = {{CommandOption::Kind::kPin}};

}  // namespace

const Command loginCommand{"login", "Check the PIN", kOptions, run};

}  // namespace mirel::cli
