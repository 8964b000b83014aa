/// The codes that docs/cards.md names are those of the program.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <string>

#include "ExitCode.h"
#include "host/Finding.h"

namespace mirel::cli {
namespace {

std::string cardsPage() {
  std::ifstream file{MIREL_SOURCE_FOLDER "/docs/cards.md"};
  return {std::istreambuf_iterator<char>{file}, {}};
}

TEST(CardsPage, NamesFindingsThatThereAre) {
  const std::string page = cardsPage();
  const std::regex code{"MT-[A-Z]*[0-9]*"};
  std::size_t numCodes = 0;
  for (std::sregex_iterator it{page.begin(), page.end(), code}; it != std::sregex_iterator{};
       ++it, ++numCodes)
    EXPECT_NE(findEntry(it->str()), nullptr) << it->str();
  EXPECT_GT(numCodes, 30U);
}

TEST(CardsPage, NamesTheExitCodeOfEachFinding) {
  const std::pair<const char*, FailureKind> rows[] = {
      {"MT-M05", FailureKind::kModuleNotLoadable},     {"MT-M06", FailureKind::kModuleRefuses},
      {"MT-R10", FailureKind::kCardEnumerationFailed}, {"MT-P04", FailureKind::kPinCannotBeEntered},
      {"MT-K05", FailureKind::kVerificationFailed},    {"MT-K01", FailureKind::kVerificationFailed},
      {"MT-K02", FailureKind::kVerificationFailed}};
  const std::string page = cardsPage();
  const std::regex both{"\\(exit code ([0-9]+)[^;)]*; (MT-[A-Z][0-9]+)\\)"};
  std::vector<std::string> told;
  for (std::sregex_iterator it{page.begin(), page.end(), both}; it != std::sregex_iterator{}; ++it)
    told.push_back(it->str(2) + " " + it->str(1));
  std::vector<std::string> expected;
  for (const auto& [code, kind] : rows)
    expected.push_back(std::string{code} + " " + std::to_string(static_cast<int>(exitCodeOf(kind))));
  EXPECT_EQ(told, expected);
}

}  // namespace
}  // namespace mirel::cli
