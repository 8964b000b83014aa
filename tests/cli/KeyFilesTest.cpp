#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "KeyTest.h"
#include "ReferenceCryptography.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kMessage = "What is to be signed\n";
constexpr const char* kPlain = "The plain text\n";

/// Lets no file grow beyond so many bytes, in this process and its children, for its lifetime.
class ScopedFileSizeLimit {
 public:
  explicit ScopedFileSizeLimit(rlim_t size) : action_{std::signal(SIGXFSZ, SIG_IGN)} {
    (void)getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limited{size, before_.rlim_max};
    (void)setrlimit(RLIMIT_FSIZE, &limited);
  }
  ScopedFileSizeLimit(const ScopedFileSizeLimit&) = delete;
  ScopedFileSizeLimit& operator=(const ScopedFileSizeLimit&) = delete;
  ~ScopedFileSizeLimit() {
    (void)setrlimit(RLIMIT_FSIZE, &before_);
    (void)std::signal(SIGXFSZ, action_);
  }

 private:
  void (*action_)(int);
  rlimit before_{};
};

/// A working folder, of this process and its children, for its lifetime.
class ScopedWorkingFolder {
 public:
  explicit ScopedWorkingFolder(const std::filesystem::path& folder)
      : before_{std::filesystem::current_path()} {
    std::filesystem::current_path(folder);
  }
  ScopedWorkingFolder(const ScopedWorkingFolder&) = delete;
  ScopedWorkingFolder& operator=(const ScopedWorkingFolder&) = delete;
  ~ScopedWorkingFolder() { std::filesystem::current_path(before_); }

 private:
  std::filesystem::path before_;
};

class KeyFiles : public KeyTest {
 protected:
  void SetUp() override {
    KeyTest::SetUp();
    if (IsSkipped()) return;
    makeCard({{"rsa2048", "01", "Signature"}, {"rsa2048", "02", "Encryption", "keyEncipherment", "decrypt"}});
    std::filesystem::create_directory(path("out"));
    (void)write("cipher", encrypted("rsa2048", "pkcs1", kPlain));
  }

  /// Signs kMessage into that file.
  [[nodiscard]] Result signInto(const std::string& file) const {
    return runWithPin({"sign", "--key", "01", "--out", file}, kMessage);
  }
  [[nodiscard]] Result decryptInto(const std::string& file) const {
    return runWithPin({"decrypt", "--key", "02", "--in", path("cipher"), "--out", file});
  }
  [[nodiscard]] bool isSignature(const std::string& bytes, const std::string& message = kMessage) const {
    return pssVerifies("rsa2048", "SHA256", digestOf("SHA256", message), bytes);
  }
  /// The arguments of a staged run with the right PIN.
  [[nodiscard]] Invocation stagedWithPin(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--pin-file", write("pin", kPin)});
    Invocation call = staged(std::move(arguments));
    call.input = kMessage;
    return call;
  }
  /// The failure to sign into out/file when that can hold less than a signature.
  void expectNoSpaceForASignature() const {
    // The message must fit in as well, and so tells no long path.
    const ScopedWorkingFolder inFolder{path("out")};
    const ScopedFileSizeLimit limit{200};
    expectFailure(signInto("file"), 14, {"file cannot be written", "File too large"});
  }
  /// The failure of a command that never got to asking the card for its key.
  void expectEarlyFailure(std::vector<std::string> arguments, const std::vector<std::string>& parts) const {
    expectFailure(run(stagedWithPin(std::move(arguments))), 14, parts);
    EXPECT_FALSE(std::filesystem::exists(path("calls"))) << "the module was loaded";
  }
};

TEST_F(KeyFiles, AreTheStandardStreamsUnlessToldOtherwise) {
  for (const std::vector<std::string>& names :
       {std::vector<std::string>{}, std::vector<std::string>{"--in", "-", "--out", "-"}}) {
    SCOPED_TRACE(names.size());
    std::vector<std::string> arguments{"sign", "--key", "01"};
    arguments.insert(arguments.end(), names.begin(), names.end());
    const Result signature = runWithPin(arguments, kMessage);
    EXPECT_EQ(signature.exitCode, 0);
    EXPECT_TRUE(isSignature(signature.out));

    arguments = {"decrypt", "--key", "02"};
    arguments.insert(arguments.end(), names.begin(), names.end());
    const Result plain = runWithPin(arguments, read("cipher"));
    expectSuccess(plain);
    EXPECT_EQ(plain.out, kPlain);
  }
}

TEST_F(KeyFiles, AreReadAndWrittenByName) {
  const Result signature =
      runWithPin({"sign", "--key", "01", "--in", write("message", kMessage), "--out", path("out/signature")},
                 "not this");
  expectSigned(signature);
  EXPECT_THAT(signature.out, IsEmpty());
  EXPECT_TRUE(isSignature(read("out/signature")));

  const Result plain = decryptInto(path("out/plain"));
  expectSuccess(plain);
  EXPECT_THAT(plain.out, IsEmpty());
  EXPECT_EQ(read("out/plain"), kPlain);
  EXPECT_THAT(filesIn("out"), ElementsAre("plain", "signature"));
}

TEST_F(KeyFiles, MayBeTheSameForBoth) {
  expectSuccess(runWithPin({"decrypt", "--key", "02", "--in", path("cipher"), "--out", path("cipher")}));
  EXPECT_EQ(read("cipher"), kPlain);
}

TEST_F(KeyFiles, HoldEveryByteOfAMessage) {
  std::string message;
  for (int byte = 0; byte < 256; ++byte) message.push_back(static_cast<char>(byte));
  const Result result = runWithPin({"sign", "--key", "01"}, message);
  EXPECT_TRUE(isSignature(result.out, message));
}

TEST_F(KeyFiles, OfPlainTextsAreForTheUserAloneWhateverTheMask) {
  for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{077}}) {
    SCOPED_TRACE(mask);
    const ScopedMask scope{mask};
    expectSuccess(decryptInto(path("out/plain")));
    EXPECT_EQ(modeOf("out/plain"), mode_t{0600});
    std::filesystem::remove(path("out/plain"));
  }
}

TEST_F(KeyFiles, OfSignaturesAndCertificatesFollowTheMask) {
  struct Row {
    mode_t mask;
    mode_t mode;
  };
  for (const Row& row : {Row{0, 0666}, Row{022, 0644}, Row{027, 0640}, Row{077, 0600}}) {
    SCOPED_TRACE(row.mask);
    const ScopedMask scope{row.mask};
    expectSigned(signInto(path("out/signature")));
    EXPECT_EQ(modeOf("out/signature"), row.mode);
    expectSuccess(mireltoken({"certificate", "--key", "01", "--out", path("out/certificate")}));
    EXPECT_EQ(modeOf("out/certificate"), row.mode);
    std::filesystem::remove(path("out/signature"));
    std::filesystem::remove(path("out/certificate"));
  }
}

TEST_F(KeyFiles, OfPlainTextsAreForTheUserAloneWhenTheyReplaceOthers) {
  (void)write("out/plain", "older", 0644);
  expectSuccess(decryptInto(path("out/plain")));
  EXPECT_EQ(modeOf("out/plain"), mode_t{0600});
  EXPECT_EQ(read("out/plain"), kPlain);
}

TEST_F(KeyFiles, KeepTheModeOfTheFileThatTheyReplace) {
  const ScopedMask scope{022};
  for (const mode_t mode : {mode_t{0600}, mode_t{0640}, mode_t{0644}, mode_t{0666}, mode_t{0755}}) {
    SCOPED_TRACE(mode);
    (void)write("out/signature", "older", mode);
    expectSigned(signInto(path("out/signature")));
    EXPECT_EQ(modeOf("out/signature"), mode);
    (void)write("out/certificate", "older", mode);
    expectSuccess(mireltoken({"certificate", "--key", "01", "--out", path("out/certificate")}));
    EXPECT_EQ(modeOf("out/certificate"), mode);
  }
}

TEST_F(KeyFiles, DoNotTakeTheModeOfSomebodyElsesFile) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  const ScopedMask scope{022};
  const std::string file = write("out/signature", "older", 0666);
  ASSERT_EQ(chown(file.c_str(), 4321, static_cast<gid_t>(-1)), 0);
  expectSigned(signInto(file));
  EXPECT_EQ(modeOf("out/signature"), mode_t{0644});
}

TEST_F(KeyFiles, AreNotWrittenWhereTheModeForbidsIt) {
  for (const mode_t mode : {mode_t{0400}, mode_t{0444}, mode_t{0}, mode_t{0466}}) {
    SCOPED_TRACE(mode);
    const std::string file = write("out/file", "older", mode);
    expectEarlyFailure({"sign", "--key", "01", "--out", file},
                       {file + " cannot be written", "its mode does not let it be written", "chmod u+w"});
    EXPECT_EQ(modeOf("out/file"), mode);
    ASSERT_EQ(chmod(file.c_str(), 0600), 0);
    EXPECT_EQ(read("out/file"), "older");
    EXPECT_THAT(filesIn("out"), ElementsAre("file"));
  }
}

TEST_F(KeyFiles, AreReplacedAsAWhole) {
  (void)write("out/signature", std::string(5000, 'x'));
  expectSigned(signInto(path("out/signature")));
  EXPECT_TRUE(isSignature(read("out/signature")));
  EXPECT_THAT(filesIn("out"), ElementsAre("signature"));
}

TEST_F(KeyFiles, KeepTheirContentWhenTheCommandFails) {
  const std::string file = write("out/file", "older");
  expectFailure(run(staged({"sign", "--key", "01", "--out", file, "--pin-file", write("wrong", kWrongPin)})),
                7, {});
  expectFailure(
      runWithPin({"sign", "--key", "01", "--algorithm", "RSASignatureMessagePKCS1v15SHA256", "--out", file},
                 kMessage),
      11, {});
  Invocation decrypting =
      staged({"decrypt", "--key", "02", "--out", file, "--pin-file", write("pin", kPin)}, "C_Decrypt=40");
  decrypting.input = std::string(256, '\0');
  expectFailure(run(decrypting), 13, {});
  EXPECT_EQ(read("out/file"), "older");
  EXPECT_THAT(filesIn("out"), ElementsAre("file"));
}

TEST_F(KeyFiles, KeepTheirContentWhenThereIsNoSpaceForTheNew) {
  (void)write("out/file", "older");
  expectNoSpaceForASignature();
  EXPECT_EQ(read("out/file"), "older");
  EXPECT_THAT(filesIn("out"), ElementsAre("file"));
}

TEST_F(KeyFiles, DoNotAppearWhenThereIsNoSpaceForThem) {
  expectNoSpaceForASignature();
  EXPECT_THAT(filesIn("out"), IsEmpty());
}

TEST_F(KeyFiles, ThatCannotBeWrittenAreToldBeforeTheCardIsAsked) {
  (void)write("plain file", "x");
  struct Row {
    std::string name;
    const char* why;
  };
  for (const Row& row :
       {Row{path("missing/file"), "No such file or directory"}, Row{path("out"), "Is a directory"},
        Row{path("plain file/file"), "Not a directory"}}) {
    for (const char* command : {"sign", "decrypt", "exchange", "certificate"}) {
      SCOPED_TRACE(row.name + " " + command);
      std::vector<std::string> arguments{command, "--key", "01", "--out", row.name};
      if (std::string_view{command} != "certificate") {
        expectEarlyFailure(arguments, {row.name + " cannot be written", row.why});
      } else {
        expectFailure(mireltoken(arguments), 14, {row.name + " cannot be written", row.why});
      }
    }
  }
  EXPECT_THAT(filesIn("out"), IsEmpty());
}

TEST_F(KeyFiles, CannotBeWrittenIntoAClosedFolder) {
  Invocation call = stagedWithPin({"sign", "--key", "01", "--out", path("out/file")});
  if (geteuid() == 0) {
    // No folder is closed for root, unless root gives up the right to open them all.
    constexpr const char* kSetpriv = "/usr/bin/setpriv";
    if (!std::filesystem::exists(kSetpriv)) GTEST_SKIP() << "install setpriv, or do not be root";
    call.arguments.insert(call.arguments.begin(),
                          {"--bounding-set=-dac_override,-dac_read_search", call.program.string()});
    call.program = kSetpriv;
  }
  ASSERT_EQ(chmod(path("out").c_str(), 0500), 0);
  expectFailure(run(call), 14, {"out/file cannot be written: Permission denied"});
  EXPECT_FALSE(std::filesystem::exists(path("calls"))) << "the module was loaded";
  ASSERT_EQ(chmod(path("out").c_str(), 0700), 0);
  EXPECT_THAT(filesIn("out"), IsEmpty());
}

TEST_F(KeyFiles, ThatCannotBeReadAreToldBeforeTheCardIsAsked) {
  for (const char* command : {"sign", "decrypt", "exchange"}) {
    SCOPED_TRACE(command);
    expectEarlyFailure({command, "--key", "01", "--in", path("missing"), "--out", path("out/file")},
                       {path("missing").string() + " cannot be read: No such file or directory"});
  }
  EXPECT_THAT(filesIn("out"), IsEmpty());
}

TEST_F(KeyFiles, ThatAreFoldersCannotBeRead) {
  expectFailure(runWithPin({"sign", "--key", "01", "--in", path("out"), "--out", path("out/file")}), 14,
                {"cannot be read: Is a directory"});
}

TEST_F(KeyFiles, AreNoEmptyMessageWhenStandardInputIsClosed) {
  Invocation call = withPin({"sign", "--key", "01", "--out", path("out/file")});
  call.inputIsClosed = true;
  expectFailure(run(call), 14, {"standard input cannot be read: Bad file descriptor"});
  EXPECT_THAT(filesIn("out"), IsEmpty());
}

TEST_F(KeyFiles, ThatAreDevicesAreWrittenInPlace) {
  expectSigned(signInto("/dev/null"));
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
  expectFailure(signInto("/dev/full"), 14, {"/dev/full cannot be written: No space left on device"});
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/full"));
}

TEST_F(KeyFiles, BehindALinkAreReplacedAndTheLinkStays) {
  (void)write("out/signature", "older");
  std::filesystem::create_symlink("out/signature", path("link"));
  expectSigned(signInto(path("link")));
  EXPECT_TRUE(std::filesystem::is_symlink(path("link")));
  EXPECT_TRUE(isSignature(read("out/signature")));
  EXPECT_THAT(filesIn("out"), ElementsAre("signature"));
}

TEST_F(KeyFiles, BehindALinkThatLeadsNowhereYetAreMadeThere) {
  std::filesystem::create_symlink("out/signature", path("link"));
  expectSigned(signInto(path("link")));
  EXPECT_TRUE(std::filesystem::is_symlink(path("link")));
  EXPECT_TRUE(isSignature(read("out/signature")));
}

TEST_F(KeyFiles, BehindALinkThatLeadsToItselfCannotBeWritten) {
  std::filesystem::create_symlink("loop", path("loop"));
  std::filesystem::create_symlink("there", path("here"));
  std::filesystem::create_symlink("here", path("there"));
  for (const char* name : {"loop", "here"}) {
    SCOPED_TRACE(name);
    expectEarlyFailure({"sign", "--key", "01", "--out", path(name)},
                       {path(name).string() + " cannot be written: Too many levels of symbolic links"});
    EXPECT_TRUE(std::filesystem::is_symlink(path(name)));
  }
}

TEST_F(KeyFiles, ThatStandForAnOpenFileAreAddedBehindWhatIsThere) {
  const std::string file = write("out/both", "before");
  const int descriptor = open(file.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  ASSERT_GE(descriptor, 0);
  Invocation call = withPin({"sign", "--key", "01", "--out", "/dev/fd/41"}, kMessage);
  call.descriptors[41] = descriptor;
  expectSigned(run(call));
  (void)close(descriptor);
  ASSERT_TRUE(read("out/both").starts_with("before"));
  EXPECT_TRUE(isSignature(read("out/both").substr(6)));
}

TEST_F(KeyFiles, ThatStandForAnOpenFileAreWrittenInPlace) {
  const Result result = signInto("/dev/fd/1");
  expectSigned(result);
  EXPECT_TRUE(isSignature(result.out));
}

TEST_F(KeyFiles, AreNotSilentlyLostWhenStandardOutputTakesNothing) {
  struct Row {
    Output output;
    const char* why;
  };
  for (const Row& row : {Row{Output::kFull, "No space left on device"}, Row{Output::kUnread, "Broken pipe"},
                         Row{Output::kClosed, "Bad file descriptor"}}) {
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"sign", "--key", "01"},
          std::vector<std::string>{"decrypt", "--key", "02", "--in", path("cipher")},
          std::vector<std::string>{"certificate", "--key", "01"}}) {
      SCOPED_TRACE(command.front() + " " + row.why);
      Invocation call = command.front() == "certificate" ? onSoftHsm(command) : withPin(command);
      call.output = row.output;
      expectFailure(run(call), 14, {"standard output cannot be written", row.why});
    }
  }
}

TEST_F(KeyFiles, OfSignaturesAreNotShownOnATerminal) {
  Invocation call = stagedWithPin({"sign", "--key", "01"});
  call.output = Output::kTerminal;
  expectFailure(run(call), 2, {"a signature is no text for a terminal", "--out"});
  EXPECT_FALSE(std::filesystem::exists(path("calls")));
}

TEST_F(KeyFiles, OfPlainTextsAreShownOnATerminalWhenTheyAreText) {
  Invocation call = withPin({"decrypt", "--key", "02"}, read("cipher"));
  call.output = Output::kTerminal;
  const Result result = run(call);
  expectSuccess(result);
  EXPECT_EQ(result.out, "The plain text\r\n");
}

TEST_F(KeyFiles, OfPlainTextsAreNotShownOnATerminalWhenTheyCouldControlIt) {
  for (const std::string& plain : {std::string{"\x1B[2J"}, std::string{"\0\1", 2}, std::string{"\xFF\xFE"}}) {
    SCOPED_TRACE(hexOfBytes(plain));
    Invocation call = withPin({"decrypt", "--key", "02"}, encrypted("rsa2048", "pkcs1", plain));
    call.output = Output::kTerminal;
    expectFailure(run(call), 2, {"the plain text is not shown", "--out"});
  }
}

class LargeMessages : public KeyFiles {
 protected:
  static constexpr int kNumPieces = 20;
  static constexpr std::size_t kPieceSize = std::size_t{1} << 20U;

  void SetUp() override {
    KeyFiles::SetUp();
    if (IsSkipped()) return;
    std::ofstream file{path("message"), std::ios::binary};
    for (int i = 0; i < kNumPieces; ++i) file << std::string(kPieceSize, static_cast<char>('a' + i));
  }

  /// The most memory, in kilobytes, that a run had taken when it had read the message.
  [[nodiscard]] long peakMemoryFor(const std::string& message) const {
    Invocation call = stagedWithPin({"sign", "--key", "01", "--in", message});
    call.environment["MIREL_STAGED_PAUSE"] = "C_SignInit";
    std::filesystem::remove(path("calls"));
    const RunningChild child{call};
    EXPECT_TRUE(waitForStagedCallOf("C_SignInit"));
    std::ifstream status{"/proc/" + std::to_string(child.pid()) + "/status"};
    long peak = 0;
    for (std::string word; status >> word;) {
      if (word == "VmHWM:") status >> peak;
    }
    return peak;
  }
};

TEST_F(LargeMessages, AreSigned) {
  const Result result =
      runWithPin({"sign", "--key", "01", "--in", path("message"), "--out", path("out/signature")});
  expectSigned(result);
  EXPECT_TRUE(isSignature(read("out/signature"), read("message")));
}

TEST_F(LargeMessages, TakeNoMoreMemoryThanSmallOnes) {
  const long small = peakMemoryFor(write("small", kMessage));
  const long large = peakMemoryFor(path("message"));
  EXPECT_GT(small, 0);
  EXPECT_LT(large, small + 4096);
}

}  // namespace
}  // namespace mirel::test
