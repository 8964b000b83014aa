#include "host/Outcomes.h"

#include <string>

namespace mirel::test {
namespace {

void expectOneLine(const std::string& text) {
  EXPECT_FALSE(text.empty());
  for (const char c : text)
    EXPECT_GE(static_cast<unsigned char>(c), 0x20) << "a control character in " << text;
  EXPECT_FALSE(text.ends_with('.')) << text;
}

}  // namespace

void expectPresentable(const Failure& failure) {
  expectOneLine(failure.what);
  expectOneLine(failure.why);
  if (!failure.advice.step()) expectOneLine(std::string{failure.advice.words()});
}

}  // namespace mirel::test
