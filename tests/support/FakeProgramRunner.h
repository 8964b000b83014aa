#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/ProgramRunner.h"

namespace mirel::test {

/// Programs that answer what a test sets; others are missing. An answer goes with the name of the program, or
/// with a line of name and arguments.
class FakeProgramRunner final : public ProgramRunner {
 public:
  ProgramAnswer run(const std::string& path, const std::vector<std::string>& arguments) noexcept override {
    std::string line = path;
    for (const std::string& argument : arguments) line += " " + argument;
    lines.push_back(line);
    for (const std::string& key : {line, path}) {
      if (const auto answer = answers.find(key); answer != answers.end()) return answer->second;
    }
    return {};
  }

  void answer(const std::string& line, std::string output, int code = 0) {
    answers[line] = {ProgramAnswer::End::kExited, code, std::move(output)};
  }

  std::map<std::string, ProgramAnswer> answers;
  std::vector<std::string> lines;  ///< what was run
};

}  // namespace mirel::test
