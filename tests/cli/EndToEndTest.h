#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "ChildProcess.h"
#include "support/TemporaryFolder.h"

namespace mirel::test {

using Json = nlohmann::ordered_json;

/// The bytes that pairs of hexadecimal digits stand for.
[[nodiscard]] std::string bytesOfHex(std::string_view digits);
[[nodiscard]] std::string hexOfBytes(std::string_view bytes);

/// The bytes as characters U+0000 to U+00FF, in UTF-8.
[[nodiscard]] std::string characters(std::string_view bytes);

/// Fixed-width text, given in hexadecimal digits, without the blanks at its end.
[[nodiscard]] std::string trimmedText(std::string_view digits);

/// An object that a search has found.
struct FoundObject {
  int objectClass;  ///< 1 certificate, 2 public key
  std::string id;
  std::string label;
};

/// Runs `mireltoken` on cards of SoftHSM2, each test in a temporary folder of its own. Skips the test when
/// there is no SoftHSM2. Fails it when a run has left something in the folder for temporary files.
class EndToEndTest : public ::testing::Test {
 protected:
  EndToEndTest();
  void SetUp() override;
  void TearDown() override;

  /// Makes the tokens of a description (see cardmaker/main.cpp).
  void makeCards(const std::string& description) const;

  /// The slots with a token, in the module's order, as `cardmaker list` gives them.
  [[nodiscard]] Json slots() const;
  /// The name of the reader whose token has this label.
  [[nodiscard]] std::string readerOf(std::string_view tokenLabel) const;

  /// `mireltoken` with these arguments, as the tests start it: with an environment of its own.
  [[nodiscard]] Invocation invocation(std::vector<std::string> arguments) const;
  /// The same, with SoftHSM2 for --module.
  [[nodiscard]] Invocation onSoftHsm(std::vector<std::string> arguments) const;
  /// Runs `mireltoken` on SoftHSM2.
  [[nodiscard]] Result mireltoken(std::vector<std::string> arguments) const;

  /// The items of `mireltoken items --json`, whose success is expected.
  [[nodiscard]] Json items() const;
  /// The same, and what the searches of that very run have found.
  [[nodiscard]] Json items(std::vector<FoundObject>& outFound) const;

  [[nodiscard]] const std::filesystem::path& folder() const { return folder_.path(); }
  /// Where runs of `mireltoken` put their temporary files.
  [[nodiscard]] std::filesystem::path temporaryFiles() const { return folder() / "tmp"; }

 private:
  TemporaryFolder folder_;
};

/// The items with that value of "class".
[[nodiscard]] std::vector<Json> itemsOfClass(const Json& items, std::string_view itemClass);

/// The one item of that class whose label is these bytes; null when there is none or another one.
[[nodiscard]] Json itemLabelled(const Json& items, std::string_view itemClass, std::string_view bytes);

/// Expects that a run failed as the command line promises: this exit code, nothing on standard output,
/// and on standard error one line of the form "mireltoken: what: why; what to do" with all of `parts`.
void expectFailure(const Result& result, int exitCode, const std::vector<std::string>& parts);

/// Expects success with nothing on standard error.
void expectSuccess(const Result& result);

}  // namespace mirel::test
