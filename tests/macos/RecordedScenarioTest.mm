/// Recordings of cards, played on both implementations.
///
/// tests/recordings has for each NAME.jsonl a NAME.txt: lines that begin with "> " are steps, and those
/// behind a step are what comes of it. MIREL_WRITE_RECORDED=1 writes what came of the core's steps there, for
/// a new recording; read it before you keep it.

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#import "AdapterScenarioDriver.h"
#import "CoreHolder.h"
#include "CoreScenarioDriver.h"
#include "ExtensionServices.h"
#include "platform/Log.h"
#include "support/FakeUserDirectory.h"
#include "support/ModuleHome.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace mirel::test {
namespace {

namespace fs = std::filesystem;

using Data = std::vector<std::uint8_t>;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

std::vector<std::string> linesOf(const fs::path& file) {
  std::vector<std::string> lines;
  std::ifstream in{file};
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

/// The name of a key, in which \xNN stands for a byte.
std::string keyNamed(std::string_view word) {
  std::string name;
  for (std::size_t at = 0; at < word.size(); ++at) {
    const bool isByte = word.substr(at, 2) == "\\x" && at + 4 <= word.size();
    name +=
        isByte ? static_cast<char>(std::stoi(std::string{word.substr(at + 2, 2)}, nullptr, 16)) : word[at];
    if (isByte) at += 3;
  }
  return name;
}

/// Carries out a step such as "sign RSASignatureRaw 01 256": the data are so many bytes.
void carryOut(const std::string& step, Play& play) {
  std::istringstream words{step};
  std::string verb;
  words >> verb >> std::ws;
  if (verb == "insert") {
    std::string reader;
    std::getline(words, reader);
    return play.insert(reader);
  }
  std::string algorithm;
  std::string key;
  std::size_t size = 0;
  if (verb == "session") return play.openSession();
  if (verb == "login") return play.logIn(0);
  if (verb == "remove") return play.remove();
  words >> algorithm >> key >> size;
  key = keyNamed(key);
  if (verb == "sign") return play.sign(0, Data(size, 0x12), algorithm, key);
  if (verb == "decrypt") return play.decrypt(0, Data(size, 0x12), algorithm, key);
  ADD_FAILURE() << "there is no step \"" << step << '"';
}

class OnRecording : public ::testing::TestWithParam<fs::path> {
 protected:
  void SetUp() override {
    ASSERT_EQ(setenv("MIREL_RECORDING", GetParam().c_str(), 1), 0);
    ASSERT_EQ(setenv("MIREL_RECORDING_MISSED", missed().c_str(), 1), 0);
  }
  [[nodiscard]] fs::path transcript() const { return fs::path{GetParam()}.replace_extension(".txt"); }
  [[nodiscard]] std::string missed() const { return (folder_.path() / "missed").string(); }

  [[nodiscard]] PlatformServices services() const {
    PlatformServices all = extensionServices();
    all.user = std::make_shared<FakeUserDirectory>("alice", home_.home());
    return all;
  }

  /// The steps of the transcript, each with what came of it.
  [[nodiscard]] std::vector<std::string> played(ScenarioDriver& driver) const {
    std::vector<std::string> lines;
    Play play{driver};
    for (const std::string& line : linesOf(transcript())) {
      if (!line.starts_with("> ")) continue;
      lines.push_back(line);
      const std::size_t before = play.lines().size();
      carryOut(line.substr(2), play);
      for (std::size_t i = before; i < play.lines().size(); ++i)
        lines.push_back(withoutHome(printableLine(play.lines()[i])));
    }
    return lines;
  }

 private:
  [[nodiscard]] std::string withoutHome(std::string line) const {
    const std::size_t at = line.find(home_.home());
    return at == std::string::npos ? line : line.replace(at, home_.home().size(), "HOME");
  }

  TemporaryFolder folder_;
  ModuleHome home_{MIREL_RECORDED_MODULE};
};

TEST_P(OnRecording, BothImplementationsDoWhatTheTranscriptSays) {
  const std::vector<std::string> core = played(*coreScenarioDriver(services()));
  if (std::getenv("MIREL_WRITE_RECORDED")) {
    std::ofstream out{transcript()};
    for (const std::string& line : core) out << line << "\n";
  }
  std::vector<std::string> adapter;
  {
    ScopedExtensionServices scope{services()};
    adapter = played(*adapterScenarioDriver());
  }
  const std::vector<std::string> expected = linesOf(transcript());
  EXPECT_GT(expected.size(), 5U);
  EXPECT_THAT(core, ElementsAreArray(expected));
  EXPECT_THAT(adapter, ElementsAreArray(expected));
  EXPECT_THAT(linesOf(missed()), IsEmpty());
}

std::vector<fs::path> recordings() {
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator{MIREL_RECORDINGS}) {
    const bool isPlayed = fs::exists(fs::path{entry.path()}.replace_extension(".txt"));
    if (entry.path().extension() == ".jsonl" && isPlayed) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::string nameOf(const ::testing::TestParamInfo<fs::path>& file) {
  std::string name = file.param.stem().string();
  std::replace_if(
      name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, 'X');
  return name;
}

INSTANTIATE_TEST_SUITE_P(All, OnRecording, ::testing::ValuesIn(recordings()), nameOf);

}  // namespace
}  // namespace mirel::test
