#include "EndToEndTest.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "cardmaker/SoftHsm.h"

namespace mirel::test {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// What the sanitizers of an instrumented child need of our own environment.
void passSanitizerOptions(std::map<std::string, std::string>& environment) {
  for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS"}) {
    if (const char* value = std::getenv(name)) environment[name] = value;
  }
}

/// SoftHSM2 writes every object in many small steps, which memory takes a lot faster than a disk.
TemporaryFolder folderInMemory() {
  constexpr const char* kMemory = "/dev/shm";
  if (!std::getenv("TMPDIR") && access(kMemory, W_OK | X_OK) == 0) (void)setenv("TMPDIR", kMemory, 1);
  return {};
}

Result runCardmaker(std::vector<std::string> arguments, const std::string& input) {
  Invocation invocation{
      .program = MIREL_CARDMAKER, .arguments = std::move(arguments), .environment = {}, .input = input};
  invocation.environment["MIREL_SOFTHSM2_MODULE"] = softHsmModule().string();
  passSanitizerOptions(invocation.environment);
  Result result = run(invocation);
  if (result.exitCode != 0) throw std::runtime_error{"cardmaker failed: " + result.err};
  return result;
}

std::vector<FoundObject> readWitnessFile(const fs::path& path) {
  std::vector<FoundObject> found;
  std::ifstream file{path};
  for (std::string line; std::getline(file, line);) {
    std::istringstream words{line};
    FoundObject object{};
    std::string id;
    std::string label;
    words >> object.objectClass >> id >> label;
    found.push_back({object.objectClass, bytesOfHex(id), bytesOfHex(label)});
  }
  return found;
}

}  // namespace

std::string bytesOfHex(std::string_view digits) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
    bytes.push_back(static_cast<char>(std::stoi(std::string{digits.substr(i, 2)}, nullptr, 16)));
  return bytes;
}

std::string hexOfBytes(std::string_view bytes) {
  std::ostringstream digits;
  digits << std::hex << std::uppercase;
  for (const char c : bytes) {
    const unsigned byte = static_cast<unsigned char>(c);
    digits << (byte < 0x10 ? "0" : "") << byte;
  }
  return digits.str();
}

std::string characters(std::string_view bytes) {
  std::string utf8;
  for (const char c : bytes) {
    const unsigned byte = static_cast<unsigned char>(c);
    if (byte < 0x80) {
      utf8.push_back(c);
    } else {
      utf8.push_back(byte < 0xC0 ? '\xC2' : '\xC3');
      utf8.push_back(static_cast<char>(0x80U | (byte & 0x3FU)));
    }
  }
  return utf8;
}

std::string trimmedText(std::string_view digits) {
  std::string bytes = bytesOfHex(digits);
  bytes.erase(bytes.find_last_not_of(' ') + 1);
  return characters(bytes);
}

EndToEndTest::EndToEndTest() : folder_{folderInMemory()} {}

void EndToEndTest::SetUp() {
  if (softHsmModule().empty()) GTEST_SKIP() << kSoftHsmIsMissing;
  fs::create_directory(temporaryFiles());
}

void EndToEndTest::TearDown() {
  if (IsSkipped()) return;
  EXPECT_TRUE(fs::is_empty(temporaryFiles())) << *fs::directory_iterator{temporaryFiles()};
}

void EndToEndTest::makeCards(const std::string& description) const {
  (void)runCardmaker({"make", folder().string(), "--keys", MIREL_KEY_FOLDER}, description);
}

Json EndToEndTest::slots() const { return Json::parse(runCardmaker({"list", folder().string()}, "").out); }

std::string EndToEndTest::readerOf(std::string_view tokenLabel) const {
  for (const Json& slot : slots()) {
    if (trimmedText(slot["label"].get<std::string>()) == tokenLabel)
      return trimmedText(slot["description"].get<std::string>());
  }
  throw std::runtime_error{"no such token"};
}

Invocation EndToEndTest::invocation(std::vector<std::string> arguments) const {
  Invocation result{
      .program = MIREL_MIRELTOKEN, .arguments = std::move(arguments), .environment = {}, .input = {}};
  result.environment["SOFTHSM2_CONF"] = (folder() / "softhsm2.conf").string();
  result.environment["TMPDIR"] = temporaryFiles().string();
  passSanitizerOptions(result.environment);
  return result;
}

Invocation EndToEndTest::onSoftHsm(std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), {"--module", softHsmModule().string()});
  return invocation(std::move(arguments));
}

Result EndToEndTest::mireltoken(std::vector<std::string> arguments) const {
  return run(onSoftHsm(std::move(arguments)));
}

Json EndToEndTest::items() const {
  const Result result = mireltoken({"items", "--json"});
  expectSuccess(result);
  return Json::parse(result.out)["items"];
}

Json EndToEndTest::items(std::vector<FoundObject>& outFound) const {
  const fs::path witnessFile = folder() / "witness";
  Invocation witnessed =
      invocation({"--trust-module", "--module", MIREL_WITNESS_MODULE_FILE, "items", "--json"});
  witnessed.environment["MIREL_WITNESS_MODULE"] = softHsmModule().string();
  witnessed.environment["MIREL_WITNESS_FILE"] = witnessFile.string();
  const Result result = run(witnessed);
  expectSuccess(result);
  outFound = readWitnessFile(witnessFile);
  return Json::parse(result.out)["items"];
}

std::vector<Json> itemsOfClass(const Json& items, std::string_view itemClass) {
  std::vector<Json> found;
  std::copy_if(items.begin(), items.end(), std::back_inserter(found),
               [&](const Json& item) { return item["class"] == itemClass; });
  return found;
}

Json itemLabelled(const Json& items, std::string_view itemClass, std::string_view bytes) {
  const std::vector<Json> candidates = itemsOfClass(items, itemClass);
  const auto fits = [label = characters(bytes)](const Json& item) { return item["label"] == label; };
  if (std::count_if(candidates.begin(), candidates.end(), fits) != 1) return {};
  return *std::find_if(candidates.begin(), candidates.end(), fits);
}

void expectFailure(const Result& result, int exitCode, const std::vector<std::string>& parts) {
  EXPECT_EQ(result.exitCode, exitCode);
  EXPECT_THAT(result.out, IsEmpty());
  EXPECT_THAT(result.err, ::testing::MatchesRegex("mireltoken: [^\n]+: [^\n]+; [^\n]+\n"));
  for (const std::string& part : parts) EXPECT_THAT(result.err, HasSubstr(part));
}

void expectSuccess(const Result& result) {
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.err, IsEmpty());
}

}  // namespace mirel::test
