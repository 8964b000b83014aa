#include "EndToEndTest.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <span>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "cardmaker/SoftHsm.h"
#include "platform/Hex.h"
#include "platform/Text.h"

namespace mirel::test {
namespace {

namespace fs = std::filesystem;

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

std::span<const std::uint8_t> viewOf(std::string_view bytes) {
  return {reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()};
}

std::string runCardmaker(const Arguments& arguments, const std::string& input) {
  Invocation invocation{
      .program = MIREL_CARDMAKER, .arguments = arguments, .environment = {}, .input = input};
  invocation.environment["MIREL_SOFTHSM2_MODULE"] = softHsmModule().string();
  passSanitizerOptions(invocation.environment);
  const Result result = run(invocation);
  if (result.exitCode != 0) throw std::runtime_error{"cardmaker failed: " + result.err};
  return result.out;
}

bool has(const Arguments& arguments, std::string_view word) {
  return std::find(arguments.begin(), arguments.end(), word) != arguments.end();
}

/// Whether it takes a PIN and does not say from where.
bool lacksPin(const Arguments& arguments) {
  constexpr std::array kOthers{"--pin-file", "--pin-fd", "certificate", "algorithms", "items", "readers"};
  return std::none_of(kOthers.begin(), kOthers.end(), [&](const char* word) { return has(arguments, word); });
}

}  // namespace

Arguments::Arguments(const std::string& line) {
  std::istringstream words{line};
  assign(std::istream_iterator<std::string>{words}, {});
}

Arguments operator+(Arguments first, const Arguments& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

std::vector<KeyLine> severalKeys() {
  return {{},
          {.id = "02", .label = "Encryption", .usage = "keyEncipherment", .allow = "decrypt"},
          {.type = "p256", .id = "03", .label = "Agreement", .usage = "keyAgreement", .allow = "derive"}};
}

EndToEndTest::EndToEndTest(std::vector<KeyLine> keys) : keys_{std::move(keys)}, folder_{folderInMemory()} {}

void EndToEndTest::SetUp() {
  if (softHsmModule().empty()) GTEST_SKIP() << kSoftHsmIsMissing;
  fs::create_directory(temporaryFiles());
  if (!keys_.empty()) makeCard(keys_);
}

void EndToEndTest::TearDown() {
  if (IsSkipped()) return;
  EXPECT_THAT(filesIn("tmp"), IsEmpty());
}

void EndToEndTest::makeCards(const std::string& description) const {
  fs::remove_all(path("tokens"));
  (void)runCardmaker({"make", folder().string(), "--keys", MIREL_KEY_FOLDER}, description);
}

void EndToEndTest::makeCard(const std::vector<KeyLine>& keys) const {
  std::string text = std::string{"token label=Card pin="} + kPin + "\n";
  for (const KeyLine& key : keys) {
    const std::string common = " type=" + key.type + " id=" + key.id + " label=" + key.label;
    text += "public" + common + "\nprivate" + common + " allow=" + key.allow + "\n";
    text += "certificate" + common + " usage=" + key.usage + " subject=" + key.subject + "\n";
  }
  makeCards(text);
}

Json EndToEndTest::slots() const { return Json::parse(runCardmaker({"list", folder().string()}, "")); }

std::string EndToEndTest::readerOf(std::string_view tokenLabel) const {
  for (const Json& slot : slots()) {
    if (textOf(slot["label"]) == tokenLabel) return textOf(slot["description"]);
  }
  throw std::runtime_error{"no such token"};
}

Invocation EndToEndTest::invocation(Arguments arguments) const {
  Invocation result{
      .program = MIREL_MIRELTOKEN, .arguments = std::move(arguments), .environment = {}, .input = {}};
  result.environment["SOFTHSM2_CONF"] = path("softhsm2.conf");
  result.environment["TMPDIR"] = temporaryFiles();
  passSanitizerOptions(result.environment);
  return result;
}

Invocation EndToEndTest::onSoftHsm(const Arguments& arguments) const {
  return invocation(Arguments{"--module", softHsmModule().string()} + arguments);
}

Invocation EndToEndTest::withPin(const Arguments& arguments, std::string input) const {
  Invocation call = onSoftHsm(arguments + Arguments{"--pin-file", write("pin", kPin)});
  call.input = std::move(input);
  return call;
}

Invocation EndToEndTest::staged(const Arguments& arguments, const Stage& stage) const {
  fs::remove(path("calls"));
  // The checkout may belong to somebody else.
  Invocation call = invocation(Arguments{"--trust-module", "--module", MIREL_STAGED_MODULE_FILE} + arguments);
  call.environment["MIREL_STAGED_MODULE"] = softHsmModule().string();
  call.environment["MIREL_STAGED_CALLS"] = path("calls");
  for (const auto& [name, value] : stage) call.environment["MIREL_STAGED_" + name] = value;
  return call;
}

Invocation EndToEndTest::stagedWithPin(const Arguments& arguments, const Stage& stage) const {
  Invocation call = staged(arguments + Arguments{"--pin-file", write("pin", kPin)}, stage);
  call.input = kMessage;
  return call;
}

Invocation EndToEndTest::preloaded(Invocation call) {
  call.environment["LD_PRELOAD"] = MIREL_PASSWORD_DATABASE;
  // The address sanitizer wants to be loaded first, but has no need to here.
  std::string& options = call.environment["ASAN_OPTIONS"];
  options += (options.empty() ? "" : ":") + std::string{"verify_asan_link_order=0"};
  return call;
}

int EndToEndTest::stagedCallsOf(std::string_view function) const {
  const std::vector<std::string> lines = linesOf(read("calls"));
  return static_cast<int>(std::count(lines.begin(), lines.end(), function));
}

bool EndToEndTest::waitForStagedCallOf(std::string_view function) const {
  for (int i = 0; i < 2000; ++i) {
    if (stagedCallsOf(function) > 0) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds{10});
  }
  return false;
}

void EndToEndTest::expectFailures(const std::vector<FailingRun>& rows) const {
  for (const FailingRun& row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.arguments) + ::testing::PrintToString(row.stage));
    Invocation call =
        lacksPin(row.arguments) ? stagedWithPin(row.arguments, row.stage) : staged(row.arguments, row.stage);
    call.input = row.input;
    const auto expectIt = has(row.arguments, "--json") ? expectJsonFailure : expectFailure;
    expectIt(run(call), row.exitCode, row.words);
    EXPECT_FALSE(exists("out"));
  }
}

Json EndToEndTest::items() const {
  const Result result = mireltoken("items --json");
  expectSuccess(result);
  return Json::parse(result.out)["items"];
}

std::string EndToEndTest::write(std::string_view name, std::string_view content, mode_t mode) const {
  const std::string file = path(name);
  std::ofstream{file, std::ios::binary} << content;
  if (chmod(file.c_str(), mode) != 0) throw std::runtime_error{"chmod does not work"};
  return file;
}

std::string EndToEndTest::read(std::string_view name) const { return contentOf(path(name)); }

mode_t EndToEndTest::modeOf(std::string_view name) const {
  struct stat status {};
  return stat(path(name).c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

std::vector<std::string> EndToEndTest::filesIn(std::string_view name) const {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator{path(name)}) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

std::string bytesOfHex(std::string_view digits) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
    bytes.push_back(static_cast<char>(std::stoi(std::string{digits.substr(i, 2)}, nullptr, 16)));
  return bytes;
}

std::string hexOfBytes(std::string_view bytes) { return mirel::hexOfBytes(viewOf(bytes), HexDigits::kUpper); }

std::string characters(std::string_view bytes) { return Text::fromBytes(viewOf(bytes)).toUtf8(); }

std::string textOf(const Json& digits) {
  std::string bytes = bytesOfHex(digits.get<std::string>());
  bytes.erase(bytes.find_last_not_of(' ') + 1);
  return characters(bytes);
}

std::string contentOf(const std::string& file) {
  std::ifstream in{file, std::ios::binary};
  return {std::istreambuf_iterator<char>{in}, {}};
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

ScopedMask::ScopedMask(mode_t mask) : before_{umask(mask)} {}
ScopedMask::~ScopedMask() { umask(before_); }

void expectFailure(const Result& result, int exitCode, const std::vector<std::string>& words) {
  EXPECT_EQ(result.exitCode, exitCode);
  EXPECT_THAT(result.out, IsEmpty());
  EXPECT_THAT(result.err, MatchesRegex("mireltoken: [^\n]+: [^\n]+; [^\n]+\n"));
  for (const std::string& word : words) EXPECT_THAT(result.err, HasSubstr(word));
}

void expectJsonFailure(const Result& result, int exitCode, const std::vector<std::string>& words) {
  Result line = result;
  line.out.clear();
  expectFailure(line, exitCode, words);
  const Json error = Json::parse(result.out, nullptr, false).value("error", Json::object());
  EXPECT_EQ(error.value("exitCode", 0), exitCode) << result.out;
  // A byte that is no UTF-8 is shown in one way to people, in another to programs.
  if (result.out.find("\\ufffd") != std::string::npos) return;
  EXPECT_EQ(result.err, "mireltoken: " + error.value("what", "") + ": " + error.value("why", "") + "; " +
                            error.value("advice", "") + "\n");
}

void expectSuccess(const Result& result) {
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.err, IsEmpty());
}

void expectOutput(const Result& result, const std::string& output) {
  expectSuccess(result);
  EXPECT_EQ(result.out, output);
}

void expectSigned(const Result& result) {
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.err, MatchesRegex("Signed with the key [^\n]+\\.\n"));
}

}  // namespace mirel::test
