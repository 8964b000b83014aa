#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "EndToEndTest.h"
#include "PseudoTerminal.h"
#include "ReferenceCryptography.h"
#include "ScopedFileSizeLimit.h"

namespace mirel::test {
namespace {

namespace fs = std::filesystem;

class KeyFiles : public EndToEndTest {
 protected:
  KeyFiles() : EndToEndTest{severalKeys()} {}
  void SetUp() override {
    EndToEndTest::SetUp();
    if (IsSkipped()) return;
    fs::create_directory(path("files"));
    (void)write("cipher", encrypted("rsa2048", "pkcs1", kPlain));
  }

  /// A file in the folder "files".
  [[nodiscard]] std::string file(const std::string& name) const { return path("files/" + name); }
  /// Signs kMessage into that file.
  [[nodiscard]] Result signInto(const std::string& name) const {
    return runWithPin({"sign", "--key", "01", "--out", name}, kMessage);
  }
  [[nodiscard]] Result decryptInto(const std::string& name) const {
    return runWithPin({"decrypt", "--key", "02", "--in", path("cipher"), "--out", name});
  }
  [[nodiscard]] Result certificateInto(const std::string& name) const {
    return mireltoken({"certificate", "--key", "01", "--out", name});
  }
  [[nodiscard]] static bool isSignature(const std::string& bytes, const std::string& message = kMessage) {
    return pssVerifies("rsa2048", "SHA256", digestOf("SHA256", message), bytes);
  }
  /// Failures before the card is asked for its key.
  void expectEarlyFailures(const std::vector<FailingRun>& rows) const {
    for (const FailingRun& row : rows) {
      expectFailures({row});
      EXPECT_TRUE(row.arguments.front() == "certificate" || !exists("calls")) << "the module was loaded";
    }
  }
  /// The failure to sign into files/file when that can hold less than a signature.
  void expectNoSpaceForASignature() const {
    // The message must fit in as well, and so tells no long path.
    const fs::path before = fs::current_path();
    fs::current_path(path("files"));
    {
      const ScopedFileSizeLimit limit{200};
      expectFailure(signInto("file"), 14, {"file cannot be written", "File too large"});
    }
    fs::current_path(before);
  }
};

TEST_F(KeyFiles, AreTheStandardStreamsUnlessToldOtherwise) {
  std::string message;
  for (int byte = 0; byte < 256; ++byte) message.push_back(static_cast<char>(byte));
  for (const std::string names : {"", " --in - --out -"}) {
    SCOPED_TRACE(names);
    const Result signature = runWithPin("sign --key 01" + names, message);
    EXPECT_EQ(signature.exitCode, 0);
    EXPECT_TRUE(isSignature(signature.out, message));
    expectOutput(runWithPin("decrypt --key 02" + names, read("cipher")), kPlain);
  }
}

TEST_F(KeyFiles, AreReadAndWrittenByName) {
  const Result signature = runWithPin(
      "sign --key 01 --in " + write("message", kMessage) + " --out " + file("signature"), "not this");
  expectSigned(signature);
  EXPECT_THAT(signature.out, IsEmpty());
  EXPECT_TRUE(isSignature(read("files/signature")));

  expectOutput(decryptInto(file("plain")), "");
  EXPECT_EQ(read("files/plain"), kPlain);
  EXPECT_THAT(filesIn("files"), ElementsAre("plain", "signature"));
}

TEST_F(KeyFiles, MayBeTheSameForBoth) {
  expectSuccess(decryptInto(path("cipher")));
  EXPECT_EQ(read("cipher"), kPlain);
}

TEST_F(KeyFiles, TakeThePlaceOfNoOtherFileOfTheCommandLine) {
  expectFailure(signInto(path("./pin")), 2, {"--out would overwrite the file of --pin-file"});
  EXPECT_EQ(read("pin"), kPin);
  fs::copy_file(MIREL_STAGED_MODULE_FILE, file("module.so"));
  expectFailure(run(invocation({"certificate", "--key", "01", "--module", file("module.so"), "--out",
                                file("./module.so")})),
                2, {"--out would overwrite the file of --module"});
  EXPECT_EQ(read("files/module.so"), contentOf(MIREL_STAGED_MODULE_FILE));
}

TEST_F(KeyFiles, AreThoseInTheFolderOfTheCallerWhereverTheModuleGoes) {
  fs::create_directory(path("elsewhere"));
  (void)write("files/pin", kPin);
  (void)write("files/message", kMessage);
  const fs::path before = fs::current_path();
  fs::current_path(path("files"));
  const Stage stage{{"FOLDER", path("elsewhere")}};
  expectSigned(run(staged("sign --key 01 --in message --out signature --pin-file pin", stage)));
  (void)run(staged("conformance --html page", stage));
  fs::current_path(before);
  EXPECT_TRUE(isSignature(read("files/signature")));
  EXPECT_THAT(filesIn("files"), ElementsAre("message", "page", "pin", "signature"));
  EXPECT_THAT(filesIn("elsewhere"), IsEmpty());
}

TEST_F(KeyFiles, OfPlainTextsAreForTheUserAloneWhateverTheMask) {
  for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{077}}) {
    SCOPED_TRACE(mask);
    const ScopedMask scope{mask};
    fs::remove(file("plain"));
    expectSuccess(decryptInto(file("plain")));
    EXPECT_EQ(modeOf("files/plain"), mode_t{0600});
  }
  (void)write("files/plain", "older", 0644);
  expectSuccess(decryptInto(file("plain")));
  EXPECT_EQ(modeOf("files/plain"), mode_t{0600});
  EXPECT_EQ(read("files/plain"), kPlain);
}

TEST_F(KeyFiles, OfSignaturesAndCertificatesFollowTheMask) {
  const std::pair<mode_t, mode_t> rows[] = {{0, 0666}, {022, 0644}, {027, 0640}, {077, 0600}};
  for (const auto& [mask, mode] : rows) {
    SCOPED_TRACE(mask);
    const ScopedMask scope{mask};
    for (const char* name : {"signature", "certificate"}) fs::remove(file(name));
    expectSigned(signInto(file("signature")));
    expectSuccess(certificateInto(file("certificate")));
    EXPECT_EQ(modeOf("files/signature"), mode);
    EXPECT_EQ(modeOf("files/certificate"), mode);
  }
}

TEST_F(KeyFiles, KeepTheModeOfTheFileThatTheyReplace) {
  const ScopedMask scope{022};
  for (const mode_t mode : {mode_t{0600}, mode_t{0640}, mode_t{0644}, mode_t{0666}, mode_t{0755}}) {
    SCOPED_TRACE(mode);
    expectSigned(signInto(write("files/signature", "older", mode)));
    EXPECT_EQ(modeOf("files/signature"), mode);
    expectSuccess(certificateInto(write("files/certificate", "older", mode)));
    EXPECT_EQ(modeOf("files/certificate"), mode);
  }
}

TEST_F(KeyFiles, KeepTheGroupOfTheFileThatTheyReplaceAndWhatItMayDo) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files to any group";
  const std::string name = write("files/signature", "older", 0664);
  ASSERT_EQ(chown(name.c_str(), static_cast<uid_t>(-1), 4321), 0);
  expectSigned(signInto(name));
  EXPECT_EQ(modeOf("files/signature"), mode_t{0664});
  struct stat status {};
  ASSERT_EQ(stat(name.c_str(), &status), 0);
  EXPECT_EQ(status.st_gid, gid_t{4321});
}

TEST_F(KeyFiles, DoNotTakeTheModeOfSomebodyElsesFile) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  const ScopedMask scope{022};
  const std::string name = write("files/signature", "older", 0666);
  ASSERT_EQ(chown(name.c_str(), 4321, static_cast<gid_t>(-1)), 0);
  expectSigned(signInto(name));
  EXPECT_EQ(modeOf("files/signature"), mode_t{0644});
}

TEST_F(KeyFiles, AreNotWrittenWhereTheModeForbidsIt) {
  for (const mode_t mode : {mode_t{0400}, mode_t{0444}, mode_t{0}, mode_t{0466}}) {
    SCOPED_TRACE(mode);
    const std::string name = write("files/file", "older", mode);
    expectEarlyFailures(
        {{"sign --key 01 --out " + name,
          14,
          {name + " cannot be written", "its mode does not let it be written", "chmod u+w"}}});
    EXPECT_EQ(modeOf("files/file"), mode);
    ASSERT_EQ(chmod(name.c_str(), 0600), 0);
    EXPECT_EQ(read("files/file"), "older");
    EXPECT_THAT(filesIn("files"), ElementsAre("file"));
  }
}

TEST_F(KeyFiles, OfSomebodyElseAreNotWrittenByRootWhereTheirModeForbidsIt) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  const std::string name = write("files/file", "older", 0444);
  ASSERT_EQ(chown(name.c_str(), 4321, static_cast<gid_t>(-1)), 0);
  expectEarlyFailures({{"sign --key 01 --out " + name, 14, {"its mode does not let it be written"}}});
  EXPECT_EQ(read("files/file"), "older");
}

TEST_F(KeyFiles, AreReplacedAsAWhole) {
  expectSigned(signInto(write("files/signature", std::string(5000, 'x'))));
  EXPECT_TRUE(isSignature(read("files/signature")));
  EXPECT_THAT(filesIn("files"), ElementsAre("signature"));
}

TEST_F(KeyFiles, KeepTheirContentWhenTheCommandFails) {
  const std::string out = " --out " + write("files/file", "older");
  expectFailures({
      {"sign --key 01 --pin-file " + write("wrong", kWrongPin) + out, 7},
      {"sign --key 01 --algorithm RSASignatureMessagePKCS1v15SHA256" + out, 11},
      {"decrypt --key 02" + out, 13, {}, std::string(256, '\0'), {{"ANSWERS", "C_Decrypt=40"}}},
  });
  expectNoSpaceForASignature();
  EXPECT_EQ(read("files/file"), "older");
  EXPECT_THAT(filesIn("files"), ElementsAre("file"));
}

TEST_F(KeyFiles, AreReplacedOnceTheNewContentHasReachedTheDisk) {
  Invocation call = preloaded(withPin("sign --key 01 --out " + file("file"), kMessage));
  call.environment["MIREL_TEST_FULL_DISK"] = "yes";
  expectSigned(run(call));  // there is nothing to lose
  EXPECT_TRUE(isSignature(read("files/file")));
  (void)write("files/file", "older");
  expectFailure(run(call), 14, {"files/file cannot be written: No space left on device"});
  EXPECT_EQ(read("files/file"), "older");
  EXPECT_THAT(filesIn("files"), ElementsAre("file"));
}

TEST_F(KeyFiles, DoNotAppearWhenThereIsNoSpaceForThem) {
  expectNoSpaceForASignature();
  EXPECT_THAT(filesIn("files"), IsEmpty());
}

TEST_F(KeyFiles, ThatCannotBeUsedAreToldBeforeTheCardIsAsked) {
  const std::string missing = path("missing");
  std::vector<FailingRun> rows;
  for (const std::string command : {"sign", "decrypt", "exchange", "certificate"}) {
    const std::string start = command + " --key 01";
    const auto refuses = [&](const std::string& name, const std::string& why) {
      rows.push_back({start + " --out " + name, 14, {name + " cannot be written", why}});
    };
    refuses(missing + "/file", "No such file or directory");
    refuses(path("files"), "Is a directory");
    refuses(write("plain", "x") + "/file", "Not a directory");
    if (command == "certificate") continue;
    rows.push_back({start + " --in " + missing + " --out " + file("file"),
                    14,
                    {missing + " cannot be read: No such file or directory"}});
  }
  expectEarlyFailures(rows);
  EXPECT_THAT(filesIn("files"), IsEmpty());
}

TEST_F(KeyFiles, CannotBeWrittenIntoAClosedFolder) {
  Invocation call = stagedWithPin("sign --key 01 --out " + file("file"));
  if (geteuid() == 0) {
    // No folder is closed for root, unless root gives up the right to open them all.
    constexpr const char* kSetpriv = "/usr/bin/setpriv";
    if (!fs::exists(kSetpriv)) GTEST_SKIP() << "install setpriv, or do not be root";
    call.arguments.insert(call.arguments.begin(),
                          {"--bounding-set=-dac_override,-dac_read_search", call.program.string()});
    call.program = kSetpriv;
  }
  ASSERT_EQ(chmod(path("files").c_str(), 0500), 0);
  expectFailure(run(call), 14, {"files/file cannot be written: Permission denied"});
  EXPECT_FALSE(exists("calls")) << "the module was loaded";
  ASSERT_EQ(chmod(path("files").c_str(), 0700), 0);
  EXPECT_THAT(filesIn("files"), IsEmpty());
}

TEST_F(KeyFiles, ThatAreFoldersOrClosedCannotBeRead) {
  expectFailure(runWithPin("sign --key 01 --in " + path("files") + " --out " + file("file")), 14,
                {"cannot be read: Is a directory"});
  Invocation call = withPin("sign --key 01 --out " + file("file"));
  call.inputIsClosed = true;  // which makes no empty message
  expectFailure(run(call), 14, {"standard input cannot be read: Bad file descriptor"});
  EXPECT_THAT(filesIn("files"), IsEmpty());
}

TEST_F(KeyFiles, ThatAreDevicesAreWrittenInPlace) {
  expectSigned(signInto("/dev/null"));
  EXPECT_TRUE(fs::is_character_file("/dev/null"));
  expectFailure(signInto("/dev/full"), 14, {"/dev/full cannot be written: No space left on device"});
  EXPECT_TRUE(fs::is_character_file("/dev/full"));
}

TEST_F(KeyFiles, BehindALinkAreMadeOrReplacedAndTheLinkStays) {
  fs::create_symlink("files/signature", path("link"));
  for (const char* what : {"leads nowhere yet", "leads to a file"}) {
    SCOPED_TRACE(what);
    expectSigned(signInto(path("link")));
    EXPECT_TRUE(fs::is_symlink(path("link")));
    EXPECT_TRUE(isSignature(read("files/signature")));
    EXPECT_THAT(filesIn("files"), ElementsAre("signature"));
    (void)write("files/signature", "older");
  }
}

TEST_F(KeyFiles, BehindALinkOfSomebodyElseInASharedFolderAreNotWritten) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give links away";
  constexpr uid_t kSomebody = 4321;
  constexpr auto kSameGroup = static_cast<gid_t>(-1);
  fs::create_symlink(write("target", "older"), file("link"));
  if (lchown(file("link").c_str(), kSomebody, kSameGroup) != 0)
    GTEST_SKIP() << "this root cannot give it away";
  ASSERT_EQ(chmod(path("files").c_str(), 01777), 0);
  expectEarlyFailures(
      {{"sign --key 01 --out " + file("link"), 14, {"files/link cannot be written: Permission denied"}}});
  EXPECT_EQ(read("target"), "older");
  // The owner of the folder could do with its files what they like.
  ASSERT_EQ(chown(path("files").c_str(), kSomebody, kSameGroup), 0);
  expectSigned(signInto(file("link")));
  EXPECT_TRUE(isSignature(read("target")));
}

TEST_F(KeyFiles, BehindALinkThatLeadsToItselfCannotBeWritten) {
  fs::create_symlink("loop", path("loop"));
  fs::create_symlink("there", path("here"));
  fs::create_symlink("here", path("there"));
  for (const char* name : {"loop", "here"}) {
    expectEarlyFailures({{"sign --key 01 --out " + path(name),
                          14,
                          {path(name) + " cannot be written: Too many levels of symbolic links"}}});
    EXPECT_TRUE(fs::is_symlink(path(name)));
  }
}

TEST_F(KeyFiles, TellAtATerminalHowFarLongReadingIs) {
  PseudoTerminal terminal;
  const int descriptor = open(terminal.name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  Invocation call = withPin("sign --key 01 --in /dev/fd/41 --out " + file("signature"));
  call.descriptors[STDERR_FILENO] = descriptor;
  call.pipes[41] = "What is";
  call.pipesStayOpen = true;
  RunningChild child{call};
  std::this_thread::sleep_for(std::chrono::milliseconds{2500});
  child.writeToPipe(41, " to be signed\n");
  EXPECT_TRUE(terminal.waitFor("\rreading the input: 0 MB"));
  EXPECT_EQ(child.wait().exitCode, 0);
  EXPECT_TRUE(terminal.waitFor("\r                       \rSigned with the key"));
  EXPECT_TRUE(isSignature(read("files/signature")));
  (void)close(descriptor);
}

TEST_F(KeyFiles, ThatStandForAnOpenFileAreAddedBehindWhatIsThere) {
  const int descriptor = open(write("files/both", "before").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  ASSERT_GE(descriptor, 0);
  Invocation call = withPin("sign --key 01 --out /dev/fd/41", kMessage);
  call.descriptors[41] = descriptor;
  expectSigned(run(call));
  (void)close(descriptor);
  ASSERT_TRUE(read("files/both").starts_with("before"));
  EXPECT_TRUE(isSignature(read("files/both").substr(6)));
}

TEST_F(KeyFiles, ThatStandForAnOpenFileAreWrittenInPlace) {
  const Result result = signInto("/dev/fd/1");
  expectSigned(result);
  EXPECT_TRUE(isSignature(result.out));
}

TEST_F(KeyFiles, AreNotSilentlyLostWhenStandardOutputTakesNothing) {
  const std::pair<Output, const char*> rows[] = {{Output::kFull, "No space left on device"},
                                                 {Output::kClosed, "Bad file descriptor"}};
  for (const auto& [output, why] : rows) {
    for (Invocation call : {withPin("sign --key 01"), withPin("decrypt --key 02 --in " + path("cipher")),
                            onSoftHsm("certificate --key 01")}) {
      SCOPED_TRACE(::testing::PrintToString(call.arguments) + why);
      call.output = output;
      expectFailure(run(call), 14, {"standard output cannot be written", why});
    }
  }
}

TEST_F(KeyFiles, OfSignaturesAreNotShownOnATerminal) {
  Invocation call = stagedWithPin("sign --key 01");
  call.output = Output::kTerminal;
  expectFailure(run(call), 2, {"a signature is no text for a terminal", "--out"});
  EXPECT_FALSE(exists("calls"));
}

TEST_F(KeyFiles, OfPlainTextsAreShownOnATerminalUnlessTheyCouldControlIt) {
  Invocation call = withPin("decrypt --key 02", read("cipher"));
  call.output = Output::kTerminal;
  expectOutput(run(call), "The plain text\r\n");
  for (const std::string& plain : {std::string{"\x1B[2J"}, std::string{"\0\1", 2}, std::string{"\xFF\xFE"}}) {
    SCOPED_TRACE(hexOfBytes(plain));
    call.input = encrypted("rsa2048", "pkcs1", plain);
    expectFailure(run(call), 2, {"the plain text is not shown", "--out"});
  }
}

class LargeMessages : public KeyFiles {
 protected:
  void SetUp() override {
    KeyFiles::SetUp();
    std::ofstream message{path("message"), std::ios::binary};
    for (char letter = 'a'; letter < 'u'; ++letter) message << std::string(std::size_t{1} << 20U, letter);
  }

  /// The most memory, in kilobytes, that a run had taken when it had read the message.
  [[nodiscard]] long peakMemoryFor(const std::string& message) const {
    const RunningChild child{stagedWithPin("sign --key 01 --in " + message, {{"PAUSE", "C_SignInit"}})};
    EXPECT_TRUE(waitForStagedCallOf("C_SignInit"));
    std::ifstream status{"/proc/" + std::to_string(child.worker()) + "/status"};
    long peak = 0;
    for (std::string word; status >> word;) {
      if (word == "VmHWM:") status >> peak;
    }
    return peak;
  }
};

TEST_F(LargeMessages, AreSigned) {
  expectSigned(runWithPin("sign --key 01 --in " + path("message") + " --out " + file("signature")));
  EXPECT_TRUE(isSignature(read("files/signature"), read("message")));
}

TEST_F(LargeMessages, TakeNoMoreMemoryThanSmallOnes) {
  const long small = peakMemoryFor(write("small", kMessage));
  const long large = peakMemoryFor(path("message"));
  EXPECT_GT(small, 0);
  EXPECT_LT(large, small + 4096);
}

}  // namespace
}  // namespace mirel::test
