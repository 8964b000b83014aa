#include "Json.h"

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "Output.h"
#include "Wording.h"

namespace mirel::cli {

namespace {

/// `indent`: -1: all in one line.
std::string textOf(std::string_view kind, const Json& members, int indent) {
  Json all{{"schema", "mireltoken/" + std::string{kind} + "/1"}};
  all.update(members);
  // A name from the command line need not be UTF-8.
  return all.dump(indent, ' ', true, Json::error_handler_t::replace) + "\n";
}

}  // namespace

std::string jsonLines(std::string_view kind, const Json& members) { return textOf(kind, members, 2); }

std::string jsonLine(std::string_view kind, const Json& members) { return textOf(kind, members, -1); }

Bytes secretJsonLines(std::string_view kind, Json members, const char* name, const Bytes& secret) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  members[name] = "";
  const std::string text = jsonLines(kind, members);
  const auto end = text.begin() + static_cast<std::ptrdiff_t>(text.rfind('"'));
  std::vector<std::uint8_t> all;
  all.reserve(text.size() + 2 * secret.size());  // so that it never moves
  all.insert(all.end(), text.begin(), end);
  for (const std::uint8_t byte : secret.view()) {
    all.push_back(static_cast<std::uint8_t>(kDigits[byte >> 4U]));
    all.push_back(static_cast<std::uint8_t>(kDigits[byte & 0xFU]));
  }
  all.insert(all.end(), end, text.end());
  return Bytes::secret(Bytes{std::move(all)});
}

ExitCode report(const Failure& failure, bool json) {
  // One object is all that a program reads, be it a whole one or the beginning of one.
  const bool broken =
      failure.kind == FailureKind::kOutputFailure || failure.kind == FailureKind::kOutputUnread;
  if (json && !broken && !outputWasBegun()) {
    const ErrorTerms terms = errorTermsOf(failure.kind);
    const Json error{{"id", terms.id},
                     {"exitCode", static_cast<int>(terms.exitCode)},
                     {"what", failure.what},
                     {"why", failure.why},
                     {"advice", wordsOf(failure.advice)}};
    (void)writeOutput(jsonLines("error", Json{{"error", error}}));  // the message tells it all the same
  }
  return report(failure);
}

}  // namespace mirel::cli
