#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "EndToEndTest.h"

namespace mirel::test {

/// The PIN of the cards, and another one that is none.
inline constexpr const char* kPin = "7kQ#x2Zp";
inline constexpr const char* kWrongPin = "w4R~mT9v";

/// A key as cardmaker's description has it: both halves and a certificate. The label is that of all three.
struct KeyLine {
  std::string_view type;
  std::string_view id;
  std::string_view label;
  std::string_view usage = "digitalSignature";
  std::string_view allow = "sign";
};

/// Keys of every kind: "01" signs, "02" decrypts, "03" exchanges keys.
[[nodiscard]] std::vector<KeyLine> severalKeys();

[[nodiscard]] std::vector<std::string> linesOf(const std::string& text);
/// What stands in the columns of a table, which are two blanks or more apart.
[[nodiscard]] std::vector<std::string> cellsOf(const std::string& line);

/// Runs the commands that use keys, on a card of SoftHSM2 with the label "Card" and the PIN kPin.
class KeyTest : public EndToEndTest {
 protected:
  /// Makes the card; the only one, whatever there was before.
  void makeCard(const std::vector<KeyLine>& keys) const;

  /// A file in the test's folder.
  [[nodiscard]] std::filesystem::path path(std::string_view name) const { return folder() / name; }
  /// Writes such a file. Returns its path.
  std::string write(std::string_view name, std::string_view content, mode_t mode = 0600) const;
  [[nodiscard]] std::string read(std::string_view name) const;
  [[nodiscard]] mode_t modeOf(std::string_view name) const;
  /// What is in the folder `name`, sorted.
  [[nodiscard]] std::vector<std::string> filesIn(std::string_view name) const;

  /// `mireltoken` with the right PIN from a file and this on its standard input.
  [[nodiscard]] Invocation withPin(std::vector<std::string> arguments, std::string input = {}) const;
  [[nodiscard]] Result runWithPin(std::vector<std::string> arguments, std::string input = {}) const;

  /// The same, on a module that plays what a test stages (see StagedModule.cpp). Calls are noted.
  [[nodiscard]] Invocation staged(std::vector<std::string> arguments, const std::string& answers = {},
                                  const std::string& tokenFlags = {}) const;
  /// How often a staged run has called that function.
  [[nodiscard]] int stagedCallsOf(std::string_view function) const;
  /// Waits, for twenty seconds at most, until a staged run has called that function.
  [[nodiscard]] bool waitForStagedCallOf(std::string_view function) const;
};

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

/// Expects that a signature was made: no output but the one line that says so.
void expectSigned(const Result& result);

}  // namespace mirel::test
