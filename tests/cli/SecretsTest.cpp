/// Where PINs and plain texts do not get, and what keeps the memory of a process that has them from others.

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "EndToEndTest.h"
#include "PseudoTerminal.h"
#include "ReferenceCryptography.h"

namespace mirel::test {
namespace {

/// The text with two bytes for each character, as UTF-16 has it here.
std::string inUtf16(const std::string& ascii) {
  std::string bytes;
  for (const char c : ascii) bytes.append(1, c).append(1, '\0');
  return bytes;
}

std::string processFile(const RunningChild& child, const std::string& name) {
  return contentOf("/proc/" + std::to_string(child.worker()) + "/" + name);
}

/// A process's memory as far as it can be written, area by area.
std::vector<std::string> memoryOf(const RunningChild& child) {
  // Far more than the program needs; a sanitizer's reserve is larger, and mostly empty.
  constexpr std::size_t kLargestArea = std::size_t{256} << 20U;
  std::vector<std::string> areas;
  const int memory = open(("/proc/" + std::to_string(child.worker()) + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
  for (const std::string& line : linesOf(processFile(child, "maps"))) {
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

void expectWiped(const RunningChild& child, const std::vector<std::string>& secrets) {
  const std::vector<std::string> memory = memoryOf(child);
  ASSERT_TRUE(isIn(memory, "SOFTHSM2_CONF=")) << "the search finds nothing";
  for (const std::string& secret : secrets) {
    EXPECT_FALSE(isIn(memory, secret));
    EXPECT_FALSE(isIn(memory, inUtf16(secret)));
    EXPECT_FALSE(isIn(memory, hexOfBytes(secret)));
  }
}

void expectNoTraceOf(const std::string& pin, const std::string& text) {
  for (const std::string& form : {pin, inUtf16(pin), hexOfBytes(pin), pin.substr(0, 4)})
    EXPECT_THAT(text, Not(HasSubstr(form)));
}

/// A run at a terminal that is open to the looks of this process, which may not be root.
class Watched {
 public:
  explicit Watched(Invocation call)
      : child{[&] {
          call.environment["MIREL_STAGED_TRACEABLE"] = "yes";
          call.terminal = &terminal;
          return call;
        }()} {}
  /// Types it when the prompt is shown for that time.
  void typeAtPrompt(const std::string& keys, int times = 1) {
    ASSERT_TRUE(terminal.waitFor("PIN for \"Card\"", times));
    terminal.type(keys);
  }

  PseudoTerminal terminal;
  RunningChild child;
};

class Pins : public EndToEndTest {
 protected:
  Pins() : EndToEndTest{severalKeys()} {}
};

TEST_F(Pins, AreInNoOutputAndNoLog) {
  const std::string cipher = " --in " + write("cipher", encrypted("rsa2048", "pkcs1", kPlain));
  const std::string point = " --in " + write("point", newPoint("p256"));
  const std::string commands[] = {"login",
                                  "login --json",
                                  "sign --key 01 --out " + path("signature"),
                                  "sign --key 01 --json",
                                  "sign --key 01 --algorithm RSASignatureMessagePKCS1v15SHA256",
                                  "decrypt --key 02" + cipher,
                                  "decrypt --key 02 --algorithm RSAEncryptionRaw" + cipher,
                                  "exchange --key 03" + point};
  for (const std::string pin : {kPin, kWrongPin, "too#Long4aPin"}) {
    for (const std::string& command : commands) {
      for (const char* source : {" -v --pin-file ", " -v --pin-fd "}) {
        SCOPED_TRACE(command + source + pin);
        const bool isFile = std::string_view{source} == " -v --pin-file ";
        Invocation call = onSoftHsm(command + source + (isFile ? write("pin", pin + "\n") : "41"));
        if (!isFile) call.pipes[41] = pin;
        const Result result = run(call);
        EXPECT_THAT(result.err, HasSubstr("[MirelSCTokenDriver-")) << "without a log this shows nothing";
        expectNoTraceOf(pin, result.out + result.err);
      }
    }
  }
}

TEST_F(Pins, TypedInAreInNoOutputAndNoLog) {
  Watched login{onSoftHsm("login -v")};
  login.typeAtPrompt(std::string{kWrongPin} + "\r");
  login.typeAtPrompt(std::string{kPin} + "\r", 2);
  const Result result = login.child.wait();
  EXPECT_EQ(result.exitCode, 0);
  for (const char* pin : {kPin, kWrongPin})
    expectNoTraceOf(pin, result.out + result.err + login.terminal.shown());
}

TEST_F(Pins, AreNeverAmongTheArgumentsOrInTheEnvironmentAndWipedOnceTheCardHasTakenThem) {
  for (const bool typed : {false, true}) {
    SCOPED_TRACE(typed ? "typed" : "from a file");
    const Stage stage{{"PAUSE", "C_SignInit"}};
    Watched signing{typed ? staged("sign --key 01", stage) : stagedWithPin("sign --key 01", stage)};
    if (typed) signing.typeAtPrompt(std::string{kPin} + "\r");
    ASSERT_TRUE(waitForStagedCallOf("C_SignInit"));
    expectWiped(signing.child, {kPin});
    EXPECT_TRUE(isIn(memoryOf(signing.child), inUtf16("PINAlways"))) << "the search finds no UTF-16";
    EXPECT_THAT(processFile(signing.child, "cmdline"), HasSubstr("sign"));
    EXPECT_THAT(processFile(signing.child, "environ"), HasSubstr("SOFTHSM2_CONF="));
    for (const char* name : {"cmdline", "environ"}) expectNoTraceOf(kPin, processFile(signing.child, name));
  }
}

TEST_F(Pins, AreWipedOnceTheCardHasRefusedThem) {
  Watched login{staged("login")};
  login.typeAtPrompt(std::string{kWrongPin} + "\r");
  ASSERT_TRUE(login.terminal.waitFor("PIN for \"Card\"", 2));
  expectWiped(login.child, {kWrongPin});
}

TEST_F(Pins, AreWipedFromWhatWasTakenBackToo) {
  Watched login{staged("login")};
  for (const char* key : {"\x7F\x7F\x7F\x7F\x7F\x7F\x7F\x7F", "\x15"}) {
    SCOPED_TRACE(hexOfBytes(key));
    login.typeAtPrompt(std::string{kWrongPin} + key);
    ASSERT_TRUE(login.terminal.waitUntilRead());
    expectWiped(login.child, {kWrongPin});
  }
}

// Shows that the searches above can find a PIN.
TEST_F(Pins, AreInMemoryWhileTheyAreTyped) {
  Watched login{staged("login")};
  login.typeAtPrompt(kWrongPin);
  ASSERT_TRUE(login.terminal.waitUntilRead());
  EXPECT_TRUE(isIn(memoryOf(login.child), kWrongPin));
}

TEST_F(Pins, GoIntoNoCoreFile) {
  // What a shell that wants core files sets.
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_CORE, &before), 0);
  const rlimit most{before.rlim_max, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_CORE, &most), 0);
  const RunningChild child{stagedWithPin("login", {{"PAUSE", "C_Login"}})};
  (void)setrlimit(RLIMIT_CORE, &before);
  ASSERT_TRUE(waitForStagedCallOf("dumpable 0"));
  EXPECT_THAT(processFile(child, "limits"), ContainsRegex("Max core file size +0 +0 "));
}

TEST_F(Pins, AreInLockedMemory) {
  if (kHasAddressSanitizer) GTEST_SKIP() << "sanitizers leave out mlock";
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_MEMLOCK, &limit), 0);
  if (limit.rlim_cur == 0) GTEST_SKIP() << "no memory may be locked here";
  const RunningChild child{stagedWithPin("login", {{"PAUSE", "C_Login"}})};
  ASSERT_TRUE(waitForStagedCallOf("C_Login"));
  EXPECT_THAT(processFile(child, "status"), ContainsRegex("VmLck:[ \t]+[1-9][0-9]* kB"));
}

class PlainTexts : public EndToEndTest {
 protected:
  PlainTexts() : EndToEndTest{severalKeys()} {
    // Such that no two parts of it are alike, and that nothing else looks like.
    for (int i = 0; plain.size() < 200; ++i) plain += "Plain~" + std::to_string(1000 + 37 * i) + "#";
  }

  /// `decrypt` on a module that leaves no copy of the plain text, and waits at its end.
  [[nodiscard]] Invocation decrypting(const std::string& more) const {
    Invocation call =
        stagedWithPin("decrypt --key 02" + more, {{"PLAIN", write("plain", plain)}, {"PAUSE", "exit"}});
    call.input = encrypted("rsa2048", "pkcs1", "what the module does not look at");
    return call;
  }
  void expectWipedAtTheEnd(const Invocation& call) const {
    const RunningChild child{call};
    ASSERT_TRUE(waitForStagedCallOf("exit"));
    // What was freed may have lost its beginning.
    expectWiped(child, {plain.substr(0, 24), plain.substr(40, 24), plain.substr(plain.size() - 24)});
  }

  std::string plain;
};

TEST_F(PlainTexts, AreWipedWhenTheyAreWritten) {
  const std::string out = " --out " + path("out");
  for (const std::string& more : {std::string{}, out, std::string{" --json"}, " --json" + out}) {
    SCOPED_TRACE(more);
    expectWipedAtTheEnd(decrypting(more));
  }
  EXPECT_EQ(read("out"), plain);
}

TEST_F(PlainTexts, AreWipedWhenATerminalHasShownThem) {
  Invocation call = decrypting("");
  call.output = Output::kTerminal;
  expectWipedAtTheEnd(call);
}

}  // namespace
}  // namespace mirel::test
