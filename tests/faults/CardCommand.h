#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "faults/CommandRun.h"
#include "faults/Fault.h"
#include "faults/FaultyCard.h"

namespace mirel::test {

/// What must be true of a command that ends with exit code 0.
enum class Answer {
  kSignature,  ///< it verifies with the key
  kPlainText,  ///< it is the one that was encrypted
  kLogin,      ///< the module has accepted the PIN
  kListing,    ///< it is that of the card without a fault, or says that something could not be read
  kReport,     ///< it is a report, which has exit codes of its own
  kNone,       ///< there is none
};

struct CardCommand {
  std::string name;
  std::vector<std::string> arguments;
  Answer answer;
  std::vector<std::string> files{};  ///< that a successful run leaves in the folder

  [[nodiscard]] bool isJson() const { return name.find("--json") != std::string::npos; }
};

/// Where runs have their files: those that are there before a run, and those that a run leaves.
class RunFolder {
 public:
  explicit RunFolder(const FaultyCard& card, std::filesystem::path folder);

  [[nodiscard]] const std::vector<CardCommand>& commands() const { return commands_; }

  /// What is wrong with how a run came out; empty: nothing. `good`: the run without a fault.
  [[nodiscard]] std::string complaint(const CardCommand& command, const Fault& fault, const RunResult& result,
                                      const RunResult& good) const;
  /// Removes what a run has left. Returns what should not be there.
  [[nodiscard]] std::string tidyUp(const CardCommand& command, const RunResult& result) const;

 private:
  [[nodiscard]] std::string wrongAnswer(const CardCommand& command, const Fault& fault,
                                        const RunResult& result, const RunResult& good) const;
  [[nodiscard]] bool isSignature(const std::string& bytes) const;
  [[nodiscard]] std::string result(const CardCommand& command, const RunResult& run,
                                   const char* member) const;
  [[nodiscard]] std::string path(const std::string& name) const { return (folder_ / name).string(); }

  const FaultyCard& card_;
  std::filesystem::path folder_;
  std::vector<std::string> ownFiles_;
  std::vector<CardCommand> commands_;
};

}  // namespace mirel::test
