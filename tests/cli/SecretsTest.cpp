#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>

#include "KeyTest.h"
#include "PseudoTerminal.h"
#include "ReferenceCryptography.h"

namespace mirel::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr int kDescriptor = 41;
constexpr const char* kPlain = "The plain text";

/// The text with two bytes for each character, as UTF-16 has it here.
std::string inUtf16(const std::string& ascii) {
  std::string bytes;
  for (const char c : ascii) bytes.append(1, c).append(1, '\0');
  return bytes;
}

std::string contentOf(const std::string& file) {
  std::ifstream in{file, std::ios::binary};
  return {std::istreambuf_iterator<char>{in}, {}};
}

/// A process's memory as far as it can be written, area by area.
std::vector<std::string> memoryOf(pid_t pid) {
  // Far more than the program needs; a sanitizer's reserve is larger, and mostly empty.
  constexpr std::size_t kLargestArea = std::size_t{256} << 20U;
  std::vector<std::string> areas;
  const std::string folder = "/proc/" + std::to_string(pid);
  const int memory = open((folder + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
  std::ifstream maps{folder + "/maps"};
  for (std::string line; std::getline(maps, line);) {
    std::istringstream words{line};
    std::size_t start = 0;
    std::size_t end = 0;
    char dash = 0;
    std::string rights;
    words >> std::hex >> start >> dash >> end >> rights;
    if (!rights.starts_with("rw") || end - start > kLargestArea) continue;
    std::string area(end - start, '\0');
    const ssize_t got = pread(memory, area.data(), area.size(), static_cast<off_t>(start));
    area.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    areas.push_back(std::move(area));
  }
  (void)close(memory);
  return areas;
}

bool isIn(const std::vector<std::string>& areas, const std::string& bytes) {
  return std::any_of(areas.begin(), areas.end(),
                     [&](const std::string& area) { return area.find(bytes) != std::string::npos; });
}

class Pins : public KeyTest {
 protected:
  void SetUp() override {
    KeyTest::SetUp();
    if (IsSkipped()) return;
    makeCard({{"rsa2048", "01", "Signature"},
              {"rsa2048", "02", "Encryption", "keyEncipherment", "decrypt"},
              {"p256", "03", "Agreement", "keyAgreement", "derive"}});
    (void)write("cipher", encrypted("rsa2048", "pkcs1", kPlain));
    (void)write("point", newPoint("p256"));
  }

  /// The same, but open to the looks of this process, which may not be root.
  [[nodiscard]] static Invocation traceable(Invocation call) {
    call.environment["MIREL_STAGED_TRACEABLE"] = "yes";
    return call;
  }

  /// Every way of using the PIN.
  [[nodiscard]] std::vector<std::vector<std::string>> commands() const {
    return {{"login"},
            {"login", "--json"},
            {"sign", "--key", "01", "--out", path("signature")},
            {"sign", "--key", "01", "--json"},
            {"sign", "--key", "01", "--algorithm", "RSASignatureMessagePKCS1v15SHA256"},
            {"decrypt", "--key", "02", "--in", path("cipher")},
            {"decrypt", "--key", "02", "--in", path("cipher"), "--algorithm", "RSAEncryptionRaw"},
            {"exchange", "--key", "03", "--in", path("point")}};
  }
};

void expectNoTraceOf(const std::string& pin, const std::string& text) {
  EXPECT_THAT(text, Not(HasSubstr(pin)));
  EXPECT_THAT(text, Not(HasSubstr(inUtf16(pin))));
  EXPECT_THAT(text, Not(HasSubstr(hexOfBytes(pin))));
  EXPECT_THAT(text, Not(HasSubstr(pin.substr(0, 4))));  // A "#" or "~" keeps them out of random names.
}

TEST_F(Pins, AreInNoOutputAndNoLog) {
  for (const std::string pin : {kPin, kWrongPin, "too#Long4aPin"}) {
    const std::string file = write("pin", pin + "\n");
    for (const std::vector<std::string>& command : commands()) {
      SCOPED_TRACE(::testing::PrintToString(command));
      std::vector<std::string> arguments = command;
      arguments.insert(arguments.end(), {"-v", "--pin-file", file});
      const Result result = mireltoken(arguments);
      EXPECT_THAT(result.err, HasSubstr("[MirelSCTokenDriver-")) << "without a log this shows nothing";
      expectNoTraceOf(pin, result.out);
      expectNoTraceOf(pin, result.err);
    }
  }
}

TEST_F(Pins, FromADescriptorAreInNoOutputAndNoLog) {
  for (const std::string pin : {kPin, kWrongPin}) {
    Invocation call = onSoftHsm({"login", "-v", "--pin-fd", std::to_string(kDescriptor)});
    call.pipes[kDescriptor] = pin;
    const Result result = run(call);
    EXPECT_THAT(result.err, HasSubstr("[MirelSCTokenDriver-"));
    expectNoTraceOf(pin, result.out + result.err);
  }
}

TEST_F(Pins, TypedInAreInNoOutputAndNoLog) {
  PseudoTerminal terminal;
  Invocation call = onSoftHsm({"login", "-v"});
  call.terminal = &terminal;
  RunningChild child{call};
  ASSERT_TRUE(terminal.waitFor("PIN for \"Card\""));
  terminal.type(std::string{kWrongPin} + "\r");
  ASSERT_TRUE(terminal.waitFor("PIN for \"Card\"", 2));
  terminal.type(std::string{kPin} + "\r");
  const Result result = child.wait();
  EXPECT_EQ(result.exitCode, 0);
  for (const char* pin : {kPin, kWrongPin}) expectNoTraceOf(pin, result.out + result.err + terminal.shown());
}

TEST_F(Pins, AreNeverAmongTheArgumentsOrInTheEnvironment) {
  Invocation call = traceable(staged({"sign", "--key", "01", "--pin-file", write("pin", kPin)}));
  call.environment["MIREL_STAGED_PAUSE"] = "C_SignInit";
  const RunningChild child{call};
  ASSERT_TRUE(waitForStagedCallOf("C_SignInit"));
  const std::string process = "/proc/" + std::to_string(child.pid());
  const std::string arguments = contentOf(process + "/cmdline");
  const std::string environment = contentOf(process + "/environ");
  EXPECT_THAT(arguments, HasSubstr("sign"));
  EXPECT_THAT(environment, HasSubstr("SOFTHSM2_CONF="));
  expectNoTraceOf(kPin, arguments);
  expectNoTraceOf(kPin, environment);
}

TEST_F(Pins, AreWipedOnceTheCardHasTakenThem) {
  for (const bool typed : {false, true}) {
    SCOPED_TRACE(typed ? "typed" : "from a file");
    PseudoTerminal terminal;
    std::vector<std::string> arguments{"sign", "--key", "01"};
    if (!typed) arguments.insert(arguments.end(), {"--pin-file", write("pin", kPin)});
    std::filesystem::remove(path("calls"));
    Invocation call = traceable(staged(arguments));
    call.environment["MIREL_STAGED_PAUSE"] = "C_SignInit";
    call.terminal = &terminal;
    const RunningChild child{call};
    if (typed) {
      ASSERT_TRUE(terminal.waitFor("PIN for \"Card\""));
      terminal.type(std::string{kPin} + "\r");
    }
    ASSERT_TRUE(waitForStagedCallOf("C_SignInit"));
    const std::vector<std::string> memory = memoryOf(child.pid());
    ASSERT_TRUE(isIn(memory, "MIREL_STAGED_PAUSE=")) << "the search finds nothing";
    ASSERT_TRUE(isIn(memory, inUtf16("PINAlways"))) << "the search finds no UTF-16";
    EXPECT_FALSE(isIn(memory, kPin));
    EXPECT_FALSE(isIn(memory, inUtf16(kPin)));
  }
}

TEST_F(Pins, AreWipedOnceTheCardHasRefusedThem) {
  PseudoTerminal terminal;
  Invocation call = traceable(staged({"login"}));
  call.terminal = &terminal;
  const RunningChild child{call};
  ASSERT_TRUE(terminal.waitFor("PIN for \"Card\""));
  terminal.type(std::string{kWrongPin} + "\r");
  ASSERT_TRUE(terminal.waitFor("PIN for \"Card\"", 2));
  const std::vector<std::string> memory = memoryOf(child.pid());
  ASSERT_TRUE(isIn(memory, "SOFTHSM2_CONF=")) << "the search finds nothing";
  EXPECT_FALSE(isIn(memory, kWrongPin));
  EXPECT_FALSE(isIn(memory, inUtf16(kWrongPin)));
}

TEST_F(Pins, AreWipedFromWhatWasTakenBackToo) {
  PseudoTerminal terminal;
  Invocation call = traceable(staged({"login"}));
  call.terminal = &terminal;
  const RunningChild child{call};
  for (const char* key : {"\x7F\x7F\x7F\x7F\x7F\x7F\x7F\x7F", "\x15"}) {
    SCOPED_TRACE(hexOfBytes(key));
    ASSERT_TRUE(terminal.waitFor("PIN for \"Card\""));
    terminal.type(std::string{kWrongPin} + key);
    ASSERT_TRUE(terminal.waitUntilRead());
    const std::vector<std::string> memory = memoryOf(child.pid());
    ASSERT_TRUE(isIn(memory, "SOFTHSM2_CONF="));
    EXPECT_FALSE(isIn(memory, kWrongPin));
  }
}

// Shows that the searches above can find a PIN.
TEST_F(Pins, AreInMemoryWhileTheyAreTyped) {
  PseudoTerminal terminal;
  Invocation call = traceable(staged({"login"}));
  call.terminal = &terminal;
  const RunningChild child{call};
  ASSERT_TRUE(terminal.waitFor("PIN for \"Card\""));
  terminal.type(kWrongPin);
  ASSERT_TRUE(terminal.waitUntilRead());
  EXPECT_TRUE(isIn(memoryOf(child.pid()), kWrongPin));
}

// ---- Plain texts ----

/// Such that no two parts of it are alike, and that nothing else looks like.
std::string markedPlainText() {
  std::string text;
  for (int i = 0; text.size() < 200; ++i) text += "Plain~" + std::to_string(1000 + 37 * i) + "#";
  return text;
}

class PlainTexts : public KeyTest {
 protected:
  void SetUp() override {
    KeyTest::SetUp();
    if (IsSkipped()) return;
    makeCard({{"rsa2048", "02", "Encryption", "keyEncipherment", "decrypt"}});
    (void)write("cipher", encrypted("rsa2048", "pkcs1", "what the module does not look at"));
    (void)write("plain", plain);
  }

  /// `decrypt` on a module that leaves no copy of the plain text, and waits at its end.
  [[nodiscard]] Invocation decrypting(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {"decrypt", "--key", "02", "--in", path("cipher")});
    arguments.insert(arguments.end(), {"--pin-file", write("pin", kPin)});
    Invocation call = staged(std::move(arguments));
    call.environment["MIREL_STAGED_PLAIN"] = path("plain").string();
    call.environment["MIREL_STAGED_PAUSE"] = "exit";
    return call;
  }

  const std::string plain = markedPlainText();
};

TEST_F(PlainTexts, AreWipedWhenTheyAreWritten) {
  const std::pair<const char*, std::vector<std::string>> kRows[] = {
      {"to a file", {"--out", path("out")}},
      {"to standard output", {}},
      {"as JSON", {"--json"}},
      {"to a file, with JSON", {"--json", "--out", path("out")}},
  };
  for (const auto& [name, arguments] : kRows) {
    SCOPED_TRACE(name);
    std::filesystem::remove(path("calls"));
    const RunningChild child{decrypting(arguments)};
    ASSERT_TRUE(waitForStagedCallOf("exit"));
    const std::vector<std::string> memory = memoryOf(child.pid());
    ASSERT_TRUE(isIn(memory, "MIREL_STAGED_PAUSE=")) << "the search finds nothing";
    // What was freed may have lost its beginning.
    for (const std::size_t at : {std::size_t{0}, std::size_t{40}, plain.size() - 24}) {
      const std::string part = plain.substr(at, 24);
      EXPECT_FALSE(isIn(memory, part)) << at;
      EXPECT_FALSE(isIn(memory, hexOfBytes(part))) << at;
      EXPECT_FALSE(isIn(memory, inUtf16(part))) << at;
    }
  }
  EXPECT_EQ(read("out"), plain);
}

TEST_F(PlainTexts, AreWipedWhenATerminalHasShownThem) {
  Invocation call = decrypting({});
  call.output = Output::kTerminal;
  const RunningChild child{call};
  ASSERT_TRUE(waitForStagedCallOf("exit"));
  const std::vector<std::string> memory = memoryOf(child.pid());
  for (const std::size_t at : {std::size_t{0}, std::size_t{40}, plain.size() - 24})
    EXPECT_FALSE(isIn(memory, plain.substr(at, 24))) << at;
}

}  // namespace
}  // namespace mirel::test
