#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "ChildProcess.h"
#include "support/AddressSanitizer.h"
#include "support/TemporaryFolder.h"

namespace mirel::test {

using Json = nlohmann::ordered_json;

// What most tests of runs use.
using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

/// The PIN of the cards, and another one that is none. Their "#" and "~" keep them out of random names.
inline constexpr const char* kPin = "7kQ#x2Zp";
inline constexpr const char* kWrongPin = "w4R~mT9v";

inline constexpr const char* kMessage = "What is to be signed\n";
inline constexpr const char* kPlain = "The plain text\n";

/// The words of a command line: one by one, or in one text with blanks between them.
struct Arguments : std::vector<std::string> {
  // NOLINTBEGIN(google-explicit-constructor): so that a command can be written as its user types it
  Arguments(const char* line) : Arguments(std::string{line}) {}
  Arguments(const std::string& line);
  Arguments(std::initializer_list<std::string> words) : vector{words} {}
  // NOLINTEND(google-explicit-constructor)
};
[[nodiscard]] Arguments operator+(Arguments first, const Arguments& second);

/// What the staged module plays: the environment's variables of StagedModule.cpp without "MIREL_STAGED_".
using Stage = std::map<std::string, std::string>;

/// A key as cardmaker's description has it: both halves and a certificate. The label is that of all three.
struct KeyLine {
  std::string type = "rsa2048";
  std::string id = "01";
  std::string label = "Signature";
  std::string usage = "digitalSignature";
  std::string allow = "sign";
  std::string subject = "Holder";
};

/// Keys of every kind: "01" signs, "02" decrypts, "03" exchanges keys.
[[nodiscard]] std::vector<KeyLine> severalKeys();

/// A card without private keys: one key that agrees on others, and its certificate.
inline constexpr const char* kOneCard =
    "token label=Card\n"
    "public type=p256 id=01 label=Key\n"
    "certificate type=p256 id=01 label=Certificate usage=keyAgreement\n";

/// A run that fails, and how: with this exit code and all of these words in its message.
struct FailingRun {
  Arguments arguments;
  int exitCode = 0;
  std::vector<std::string> words{};
  std::string input = kMessage;
  Stage stage{};
};

/// Runs `mireltoken` on cards of SoftHSM2, each test in a temporary folder of its own. Skips the test when
/// there is no SoftHSM2. Fails it when a run has left something in the folder for temporary files.
class EndToEndTest : public ::testing::Test {
 protected:
  /// `keys`: those of the card that each test begins with; none: it begins without a card.
  explicit EndToEndTest(std::vector<KeyLine> keys = {});
  void SetUp() override;
  void TearDown() override;

  /// Makes the tokens of a description (see cardmaker/main.cpp); the only ones, whatever there was before.
  void makeCards(const std::string& description) const;
  /// Makes a card with the label "Card" and the PIN kPin; the only one.
  void makeCard(const std::vector<KeyLine>& keys) const;

  /// The slots with a token, in the module's order, as `cardmaker list` gives them.
  [[nodiscard]] Json slots() const;
  /// The name of the reader whose token has this label.
  [[nodiscard]] std::string readerOf(std::string_view tokenLabel) const;

  /// `mireltoken` with these arguments, as the tests start it: with an environment of its own.
  [[nodiscard]] Invocation invocation(Arguments arguments) const;
  /// The same, with SoftHSM2 for --module.
  [[nodiscard]] Invocation onSoftHsm(const Arguments& arguments) const;
  /// The same, with the right PIN from a file and this on its standard input.
  [[nodiscard]] Invocation withPin(const Arguments& arguments, std::string input = {}) const;
  /// `mireltoken` on a module that hands on to SoftHSM2 all but what a test stages. Calls are noted anew.
  [[nodiscard]] Invocation staged(const Arguments& arguments, const Stage& stage = {}) const;
  /// The same, with the right PIN from a file and kMessage on its standard input.
  [[nodiscard]] Invocation stagedWithPin(const Arguments& arguments, const Stage& stage = {}) const;
  /// The same with what PasswordDatabase.cpp has in the place of the system's.
  [[nodiscard]] static Invocation preloaded(Invocation call);
  /// Runs `mireltoken` on SoftHSM2.
  [[nodiscard]] Result mireltoken(const Arguments& arguments) const { return run(onSoftHsm(arguments)); }
  [[nodiscard]] Result runWithPin(const Arguments& arguments, std::string input = {}) const {
    return run(withPin(arguments, std::move(input)));
  }

  /// How often the last staged run has called that function; 0 when it did not even load the module.
  [[nodiscard]] int stagedCallsOf(std::string_view function) const;
  /// Waits, for twenty seconds at most, until a staged run has called that function.
  [[nodiscard]] bool waitForStagedCallOf(std::string_view function) const;

  /// Runs each with the right PIN (unless it names where it comes from), and expects it to fail as its row
  /// says and to leave no file "out".
  void expectFailures(const std::vector<FailingRun>& rows) const;

  /// The items of `mireltoken items --json`, whose success is expected.
  [[nodiscard]] Json items() const;

  [[nodiscard]] const std::filesystem::path& folder() const { return folder_.path(); }
  /// Where runs of `mireltoken` put their temporary files.
  [[nodiscard]] std::string temporaryFiles() const { return path("tmp"); }
  /// A file in the test's folder.
  [[nodiscard]] std::string path(std::string_view name) const { return folder() / name; }
  /// Writes such a file. Returns its path.
  std::string write(std::string_view name, std::string_view content, mode_t mode = 0600) const;
  [[nodiscard]] std::string read(std::string_view name) const;
  [[nodiscard]] bool exists(std::string_view name) const { return std::filesystem::exists(path(name)); }
  [[nodiscard]] mode_t modeOf(std::string_view name) const;
  /// What is in the folder `name`, sorted.
  [[nodiscard]] std::vector<std::string> filesIn(std::string_view name) const;

 private:
  std::vector<KeyLine> keys_;
  TemporaryFolder folder_;
};

/// The bytes that pairs of hexadecimal digits stand for.
[[nodiscard]] std::string bytesOfHex(std::string_view digits);
[[nodiscard]] std::string hexOfBytes(std::string_view bytes);
/// The bytes as characters U+0000 to U+00FF, in UTF-8.
[[nodiscard]] std::string characters(std::string_view bytes);
/// Fixed-width text of `slots`, which is in hexadecimal digits, without the blanks at its end.
[[nodiscard]] std::string textOf(const Json& digits);

[[nodiscard]] std::string contentOf(const std::string& file);
[[nodiscard]] std::vector<std::string> linesOf(const std::string& text);
/// What stands in the columns of a table, which are two blanks or more apart.
[[nodiscard]] std::vector<std::string> cellsOf(const std::string& line);

/// Sets the process's mask for new files, which children inherit, for its lifetime.
class ScopedMask {
 public:
  explicit ScopedMask(mode_t mask);
  ScopedMask(const ScopedMask&) = delete;
  ScopedMask& operator=(const ScopedMask&) = delete;
  ~ScopedMask();

 private:
  mode_t before_;
};

/// Expects that a run failed as the command line promises: this exit code, nothing on standard output,
/// and on standard error one line of the form "mireltoken: what: why; what to do" with all of `words`.
void expectFailure(const Result& result, int exitCode, const std::vector<std::string>& words);
/// The same of a run with --json, which has an object of the kind "error" on standard output that tells the
/// same.
void expectJsonFailure(const Result& result, int exitCode, const std::vector<std::string>& words);
/// Expects success with nothing on standard error.
void expectSuccess(const Result& result);
/// Expects success with this on standard output, and nothing on standard error.
void expectOutput(const Result& result, const std::string& output);
/// Expects that a signature was made: success with the one line that says so.
void expectSigned(const Result& result);

}  // namespace mirel::test
