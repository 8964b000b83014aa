#include "Presentable.h"

#include <cstdio>
#include <span>

#include "Check.h"
#include "platform/Log.h"
#include "platform/Text.h"
#include "platform/Utf.h"

namespace mirel::fuzz {
namespace {

/// The controls of Unicode's category Cc, and those that embed, override or isolate a direction, or break a
/// line.
bool controls(char32_t character) {
  return character < 0x20 || (character >= 0x7F && character < 0xA0) || character == 0x61C ||
         (character >= 0x200E && character <= 0x200F) || (character >= 0x2028 && character <= 0x202E) ||
         (character >= 0x2066 && character <= 0x2069);
}

void checkThat(bool condition, std::string_view text, const char* what) {
  if (condition) return;
  (void)std::fprintf(stderr, "%s: \"%s\"\n", what, printableLine(text).c_str());
  check(false, "a text is fit to be shown");
}

}  // namespace

void checkShown(std::string_view text, const char* what) {
  const std::span bytes{reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
  checkThat(isValidUtf8(bytes), text, what);
  for (std::string_view rest = text; !rest.empty();) {
    const DecodedCharacter next = decodedFromUtf8(rest);
    checkThat(!controls(next.character), text, what);
    rest.remove_prefix(next.size);
  }
}

void checkOneLine(std::string_view text, const char* what) {
  checkThat(!text.empty() && !text.ends_with('.'), text, what);
  checkShown(text, what);
}

void checkFailure(const Failure& failure) {
  checkOneLine(failure.what, "what failed");
  checkOneLine(failure.why, "why it failed");
  if (!failure.advice.step()) checkOneLine(failure.advice.words(), "the advice");
  checkThat(failure.kind != FailureKind::kInternal, failure.why, "a failure that is not ours");
}

void checkFinding(const Finding& finding) {
  checkShown(finding.subject, "what a finding is about");
  checkShown(finding.evidence, "the evidence of a finding");
}

}  // namespace mirel::fuzz
