#include "KeyTest.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "cardmaker/SoftHsm.h"

namespace mirel::test {

namespace fs = std::filesystem;

void KeyTest::makeCard(const std::vector<KeyLine>& keys) const {
  fs::remove_all(path("tokens"));
  std::ostringstream text;
  text << "token label=Card pin=" << kPin << '\n';
  for (const KeyLine& key : keys) {
    std::ostringstream common;
    common << " type=" << key.type << " id=" << key.id << " label=" << key.label;
    text << "public" << common.str() << '\n';
    text << "private" << common.str() << " allow=" << key.allow << '\n';
    text << "certificate" << common.str() << " usage=" << key.usage << '\n';
  }
  makeCards(text.str());
}

std::string KeyTest::write(std::string_view name, std::string_view content, mode_t mode) const {
  const fs::path file = path(name);
  std::ofstream{file, std::ios::binary} << content;
  if (chmod(file.c_str(), mode) != 0) throw std::runtime_error{"chmod does not work"};
  return file.string();
}

std::string KeyTest::read(std::string_view name) const {
  std::ifstream file{path(name), std::ios::binary};
  return {std::istreambuf_iterator<char>{file}, {}};
}

mode_t KeyTest::modeOf(std::string_view name) const {
  struct stat status {};
  return stat(path(name).c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

std::vector<std::string> KeyTest::filesIn(std::string_view name) const {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator{path(name)}) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

Invocation KeyTest::withPin(std::vector<std::string> arguments, std::string input) const {
  arguments.insert(arguments.end(), {"--pin-file", write("pin", kPin)});
  Invocation call = onSoftHsm(std::move(arguments));
  call.input = std::move(input);
  return call;
}

Result KeyTest::runWithPin(std::vector<std::string> arguments, std::string input) const {
  return run(withPin(std::move(arguments), std::move(input)));
}

Invocation KeyTest::staged(std::vector<std::string> arguments, const std::string& answers,
                           const std::string& tokenFlags) const {
  // The checkout may belong to somebody else.
  arguments.insert(arguments.begin(), {"--trust-module", "--module", MIREL_STAGED_MODULE_FILE});
  Invocation call = invocation(std::move(arguments));
  call.environment["MIREL_STAGED_MODULE"] = softHsmModule().string();
  call.environment["MIREL_STAGED_CALLS"] = path("calls").string();
  if (!answers.empty()) call.environment["MIREL_STAGED_ANSWERS"] = answers;
  if (!tokenFlags.empty()) call.environment["MIREL_STAGED_TOKEN_FLAGS"] = tokenFlags;
  return call;
}

int KeyTest::stagedCallsOf(std::string_view function) const {
  if (!fs::exists(path("calls"))) throw std::runtime_error{"no staged run has noted its calls"};
  std::istringstream lines{read("calls")};
  int count = 0;
  for (std::string line; std::getline(lines, line);) count += line == function ? 1 : 0;
  return count;
}

bool KeyTest::waitForStagedCallOf(std::string_view function) const {
  for (int i = 0; i < 2000; ++i) {
    if (fs::exists(path("calls")) && stagedCallsOf(function) > 0) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds{10});
  }
  return false;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in{text};
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> cellsOf(const std::string& line) {
  std::vector<std::string> cells;
  for (std::size_t start = 0; start < line.size();) {
    const std::size_t end = std::min(line.find("  ", start), line.size());
    cells.push_back(line.substr(start, end - start));
    start = std::min(line.find_first_not_of(' ', end), line.size());
  }
  return cells;
}

std::vector<KeyLine> severalKeys() {
  return {{"rsa2048", "01", "Signature"},
          {"rsa2048", "02", "Encryption", "keyEncipherment", "decrypt"},
          {"p256", "03", "Agreement", "keyAgreement", "derive"}};
}

ScopedMask::ScopedMask(mode_t mask) : before_{umask(mask)} {}
ScopedMask::~ScopedMask() { umask(before_); }

void expectSigned(const Result& result) {
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.err, ::testing::MatchesRegex("Signed with the key [^\n]+\\.\n"));
}

}  // namespace mirel::test
