/// The services of macOS, on the double.

#import <CoreServices/CoreServices.h>
#import <Foundation/Foundation.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#import <objc/runtime.h>
#import <os/log.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <map>
#include <optional>

#import "Certificate.h"
#import "Convert.h"
#import "Guard.h"
#import "Holder.h"
#include "cli/ChildProcess.h"
#include "double/Desktop.h"
#include "double/LogRecorder.h"
#include "double/RaisingCall.h"
#import "double/Switches.h"
#import "double/Utf8.h"
#include "platform/CertificateBuilder.h"
#include "platform/Desktop.h"
#include "platform/DistributedNotificationCenter.h"
#include "platform/PublicKey.h"
#include "platform/UserDirectory.h"
#include "support/TemporaryFolder.h"
#include "token/TestCertificates.h"

namespace mirel::test {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::SizeIs;
using ::testing::StartsWith;

// ---- The double, where it could hide what is wrong with ours ----

TEST(Double, HidesDynamicTextsThatAreNotPublic) {
  const LogRecorder recorder;
  os_log(OS_LOG_DEFAULT, "<%{public}s>", "card");
  os_log(OS_LOG_DEFAULT, "<%s>", "card");
  EXPECT_THAT(recorder.texts(), ElementsAre("default: <card>", "default: <<private>>"));
}

TEST(DoubleDeathTest, ReferencesThatAreReleasedMustNotBeNull) {
  CFTypeRef volatile nothing = nullptr;
  EXPECT_DEATH(CFRelease((CFTypeRef)nothing), "CFRelease: NULL");
}

// ---- The user ----

TEST(MacUserDirectory, KnowsTheLoginNameOfThePlatformAndBuildsItsHome) {
  EXPECT_EQ(systemUserDirectory()->loginName(), utf8Of(NSUserName()));
  EXPECT_EQ(systemUserDirectory()->homeOf("ada"), "/Users/ada");
  EXPECT_EQ(systemUserDirectory()->homeOf(""), "");
}

// ---- Notifications ----

struct Posted {
  std::string name;
  std::optional<std::string> object;
  bool hasUserInfo = false;
  bool immediately = false;
};

std::vector<Posted>& posted() {
  static std::vector<Posted> all;
  return all;
}

void record(id, SEL, NSString* name, NSString* object, NSDictionary* userInfo, BOOL immediately) {
  posted().push_back({utf8Of(name), object ? std::optional{utf8Of(object)} : std::nullopt, userInfo != nil,
                      immediately == YES});
}

/// In its lifetime what is posted goes nowhere, and is recorded.
class RecordedNotifications {
 public:
  RecordedNotifications() : method_ {
    class_getInstanceMethod([NSDistributedNotificationCenter class],
                            @selector(postNotificationName:object:userInfo:deliverImmediately:))
  }
  , before_{method_setImplementation(method_, reinterpret_cast<IMP>(reinterpret_cast<void (*)()>(&record)))} {
    posted().clear();
  }
  RecordedNotifications(const RecordedNotifications&) = delete;
  RecordedNotifications& operator=(const RecordedNotifications&) = delete;
  ~RecordedNotifications() { (void)method_setImplementation(method_, before_); }

 private:
  Method method_;
  IMP before_;
};

TEST(MacNotificationCenter, PostsWithoutUserInfo) {
  const RecordedNotifications recorded;
  systemDistributedNotificationCenter()->postNotificationName(Text{u"TokenNotify"}, Text{u"Reader A"}, true);
  systemDistributedNotificationCenter()->postNotificationName(Text{u"TokenNotify"}, Text{}, false);
  ASSERT_THAT(posted(), SizeIs(2));
  EXPECT_EQ(posted()[0].name, "TokenNotify");
  EXPECT_EQ(posted()[0].object, "Reader A");
  EXPECT_FALSE(posted()[0].hasUserInfo);
  EXPECT_TRUE(posted()[0].immediately);
  EXPECT_EQ(posted()[1].object, std::nullopt);
  EXPECT_FALSE(posted()[1].immediately);
}

TEST(MacNotificationCenter, OutlivesWhatThePlatformRaises) {
  const LogRecorder recorder;
  const RaisingCall raising{
      "-[NSDistributedNotificationCenter postNotificationName:object:userInfo:deliverImmediately:]"};
  systemDistributedNotificationCenter()->postNotificationName(Text{u"TokenNotify"}, Text{}, true);
  EXPECT_EQ(raising.count(), 1U);
  EXPECT_THAT(recorder.texts(), ElementsAre(StartsWith("error: [Guard-15] a notification is not sent: ")));
}

// ---- What the platform raises ----

struct RaisingRow {
  const char* call;
  std::function<bool()> fails;
  const char* line;
};

void expectFailures(std::initializer_list<RaisingRow> rows) {
  for (const RaisingRow& row : rows) {
    SCOPED_TRACE(std::string{row.call} + ": " + row.line);
    const LogRecorder recorder;
    EXPECT_FALSE(row.fails());
    const RaisingCall raising{row.call};
    EXPECT_TRUE(row.fails());
    EXPECT_THAT(recorder.texts(),
                ElementsAre(StartsWith(std::string{"error: [Guard-15] "} + row.line + ": ")));
  }
}

TEST(MacGuard, CatchesObjectsThatAreNoExceptions) {
  const LogRecorder recorder;
  EXPECT_EQ(guarded("a number is not told", []() -> int { @throw @[ @"three", @"four" ]; }), 0);
  EXPECT_EQ(guardedSilently([]() -> int { @throw @"text"; }), 0);
  ASSERT_THAT(recorder.texts(), SizeIs(1));
  EXPECT_THAT(recorder.texts()[0], StartsWith("error: [Guard-15] a number is not told: the system raised "));
  EXPECT_THAT(recorder.texts()[0], AllOf(HasSubstr("Array: "), HasSubstr("three")));
}

TEST(MacGuard, TellsOfAnObjectThatCannotBePrinted) {
  const LogRecorder recorder;
  const RaisingCall raising{"-[NSDate description]"};
  guarded("nothing is done", [] { @throw [NSDate date]; });
  EXPECT_EQ(raising.count(), 1U);
  EXPECT_THAT(recorder.texts(),
              ElementsAre(StartsWith("error: [Guard-15] nothing is done: the system raised ")));
}

// ---- Certificates ----

class MacCertificate : public ::testing::Test {
 protected:
  [[nodiscard]] static std::shared_ptr<SecCertificate> parsed(const CertificateRequest& request) {
    return systemCertificateParser()->createWithData(Bytes{testCertificate(request)});
  }
  void TearDown() override { EXPECT_EQ(livingObjects(), livingBefore); }

  // Other tests keep keys for the whole process.
  const std::map<std::string, int> livingBefore = livingObjects();
  ScopedSwitches switches;
};

TEST_F(MacCertificate, HasTypeAndSizeOfItsKey) {
  const struct {
    TestKey key;
    CertificateKeyType type;
    int bits;
  } rows[] = {
      {TestKey::kRsa2048, CertificateKeyType::kRSA, 2048},
      {TestKey::kP256, CertificateKeyType::kECPrimeRandom, 256},
      {TestKey::kEd25519, CertificateKeyType::kOther, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.bits);
    const auto certificate = parsed({.key = row.key});
    ASSERT_TRUE(certificate);
    EXPECT_EQ(certificate->keyType(), row.type);
    EXPECT_EQ(certificate->keySizeInBits(), row.bits);
  }
}

TEST_F(MacCertificate, TellsTheEndOfItsValidityHoweverThePlatformDoes) {
  for (const ValidityForm form : {ValidityForm::kSeconds, ValidityForm::kDate}) {
    switches->validityForm = form;
    EXPECT_EQ(parsed({})->notAfter(), Text{u"2035-01-02T03:04:05Z"});
  }
}

TEST_F(MacCertificate, TellsNoEndThatItCannotRead) {
  for (const ValidityForm form : {ValidityForm::kText, ValidityForm::kFarAway}) {
    switches->validityForm = form;
    EXPECT_TRUE(parsed({})->notAfter().isNull());
  }
  switches->keyUsageForm = KeyUsageForm::kError;
  EXPECT_TRUE(parsed({})->notAfter().isNull());
}

TEST_F(MacCertificate, IsNullWithSomethingBehindItWhichThePlatformWouldTake) {
  const auto good = testCertificate({.keyUsage = 1});
  ASSERT_TRUE(systemCertificateParser()->createWithData(Bytes{good}));
  for (const std::size_t behind : {std::size_t{1}, std::size_t{512}}) {
    auto longer = good;
    longer.resize(good.size() + behind);
    const auto platform = CFHolder<SecCertificateRef>::adopt(
        SecCertificateCreateWithData(nullptr, (CFDataRef)dataOf(Bytes{longer})));
    EXPECT_TRUE(platform);
    EXPECT_FALSE(systemCertificateParser()->createWithData(Bytes{longer}));
  }
}

TEST_F(MacCertificate, IsNamedAsThePlatformSumsItUp) {
  const auto certificate = parsed({});
  EXPECT_FALSE(certificate->subject().isEmpty());
  switches->withoutSummary = true;
  EXPECT_EQ(certificate->subject(), Text{u""});
}

TEST_F(MacCertificate, TellsNothingOverWhichThePlatformRaises) {
  const auto certificate = parsed({.keyUsage = 1});
  expectFailures({
      {"SecCertificateCreateWithData", [] { return parsed({}) == nullptr; }, "a certificate is not read"},
      {"SecCertificateCopyValues", [&] { return !certificate->keyUsage(); }, "the key usage is not known"},
      {"SecCertificateCopyValues", [&] { return certificate->notAfter().isNull(); },
       "the end of a certificate is not known"},
      {"SecCertificateCopySubjectSummary", [&] { return certificate->subject() == Text{u""}; },
       "the name of a certificate is not known"},
      {"SecCertificateCopyKey", [&] { return certificate->keyType() == CertificateKeyType::kOther; },
       "the kind of a key is not known"},
      {"SecKeyCopyAttributes", [&] { return certificate->keySizeInBits() == 0; },
       "the size of a key is not known"},
  });
}

TEST_F(MacCertificate, IsNullForAnythingElse) {
  EXPECT_FALSE(systemCertificateParser()->createWithData(Bytes{}));
  for (const auto& [description, der] : noCertificates())
    EXPECT_FALSE(systemCertificateParser()->createWithData(Bytes{der})) << description;
}

// ---- Public keys ----

TEST(MacPublicKey, TellsNothingOverWhichThePlatformRaises) {
  const auto der = testCertificate({.key = TestKey::kRsa2048});
  const auto key = publicKeyOfCertificate(der);
  ASSERT_TRUE(key);
  std::vector<std::uint8_t> one(256);  // is its own signature
  one.back() = 1;
  const auto verifies = [&] {
    return key->verifies(SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureRaw, one, one);
  };
  const auto recovers = [&] { return key->recoveredBlock(one) == ByteVector{one}; };
  const auto reads = [&] { return publicKeyOfCertificate(der) != nullptr; };
  const char* const noBlock = "the block in a signature is not known";
  const char* const noKey = "the key of a certificate is not read";
  const char* const newData = "+[NSData dataWithBytes:length:]";
  expectFailures({
      {"SecKeyVerifySignature", std::not_fn(verifies), "a signature is not verified"},
      {newData, std::not_fn(verifies), "a signature is not verified"},
      {"SecKeyGetBlockSize", std::not_fn(recovers), noBlock},
      {"SecKeyCreateEncryptedData", std::not_fn(recovers), noBlock},
      {newData, std::not_fn(recovers), noBlock},
      {"SecCertificateCreateWithData", std::not_fn(reads), noKey},
      {"SecCertificateCopyKey", std::not_fn(reads), noKey},
      {newData, std::not_fn(reads), noKey},
  });
}

// ---- The desktop ----

class MacDesktop : public ::testing::Test {
 protected:
  MacDesktop() { (void)takeDesktopRequests(); }

  ScopedSwitches switches;
  std::shared_ptr<Desktop> desktop = systemDesktop();
};

TEST_F(MacDesktop, IsOfAProgramOutsideOfAnAppThatWasStartedByAnother) {
  EXPECT_EQ(desktop->appPath(), "");
  EXPECT_FALSE(desktop->appWasOpened());
  EXPECT_EQ(desktop->localized("No such text"), Text{u"No such text"});
}

TEST_F(MacDesktop, RegistersTheBundleOfTheProgramAnew) {
  EXPECT_EQ(desktop->registerApp(), 0);
  const auto registrations = takeDesktopRequests().registrations;
  ASSERT_THAT(registrations, SizeIs(1));
  EXPECT_EQ(registrations[0].path, utf8Of([[NSBundle mainBundle] bundlePath]));
  EXPECT_TRUE(registrations[0].update);
  switches->registrationStatus = -10819;
  EXPECT_EQ(desktop->registerApp(), -10819);
}

TEST_F(MacDesktop, ShowsAMessageUntilItWasRead) {
  EXPECT_TRUE(desktop->showMessage(Text{u"Title"}, Text{u"Text \u20AC"}));
  const auto messages = takeDesktopRequests().messages;
  ASSERT_THAT(messages, SizeIs(1));
  EXPECT_EQ(messages[0].title, "Title");
  EXPECT_EQ(messages[0].text, "Text \xE2\x82\xAC");
  EXPECT_EQ(messages[0].level, static_cast<unsigned long>(kCFUserNotificationNoteAlertLevel));
  EXPECT_EQ(messages[0].timeout, 0);
  switches->messageStatus = -1;
  EXPECT_FALSE(desktop->showMessage(Text{u"Title"}, Text{u"Text"}));
}

TEST_F(MacDesktop, FailsInWhatThePlatformRaises) {
  const auto registers = [&] { return desktop->registerApp() == 0; };
  const auto shows = [&] { return desktop->showMessage(Text{u"Title"}, Text{u"Text"}); };
  const char* const noMessage = "a message is not shown";
  expectFailures({
      {"LSRegisterURL", std::not_fn(registers), "the app is not made known"},
      {"-[NSBundle bundleURL]", std::not_fn(registers), "the app is not made known"},
      {"CFUserNotificationDisplayAlert", std::not_fn(shows), noMessage},
      {"-[NSBundle URLForResource:withExtension:]", std::not_fn(shows), noMessage},
  });
}

TEST_F(MacDesktop, AnswersAsWithoutAnAppWhenThePlatformRaises) {
  const LogRecorder recorder;
  {
    const RaisingCall raising{"-[NSBundle bundlePath]"};
    EXPECT_EQ(desktop->appPath(), "");
  }
  const RaisingCall raising{"-[NSBundle localizedStringForKey:value:table:]"};
  EXPECT_EQ(desktop->localized("A text"), Text{u"A text"});
  EXPECT_THAT(recorder.texts(),
              ElementsAre(StartsWith("error: [Guard-15] the place of the app is not known: "),
                          StartsWith("error: [Guard-15] a text is not translated: ")));
}

TEST(MacApp, SaysWhatToDoNextInTheWordsOfItsOwnTable) {
  const TemporaryFolder folder;
  const auto app = folder.path() / "Mirel Token.app";
  // Where this system's Foundation looks for the program and the texts of an app.
  const auto texts = app / "Resources" / "en.lproj";
  std::filesystem::create_directories(texts);
  std::filesystem::copy_file(MIREL_FIRST_START, app / "Mirel Token");
  std::ofstream{texts / "App.strings"}
      << "\"The software of your card's maker is missing\" = \"Where is it?\";\n";
  std::ofstream{texts / "Localizable.strings"}
      << "\"The software of your card's maker is missing\" = \"No!\";\n";
  // Foundation itself leaves something behind when it looks for the language.
  const std::map<std::string, std::string> environment{{"LANGUAGES", "English"},
                                                       {"ASAN_OPTIONS", "detect_leaks=0"}};
  const Result result = run({.program = app / "Mirel Token", .environment = environment});
  EXPECT_EQ(result.exitCode, 3) << result.err;
  EXPECT_THAT(result.out, ::testing::StartsWith("Where is it?\nInstall "));
  EXPECT_THAT(result.out, ::testing::HasSubstr("/Library/LunetLocalSignServer/libTorvo_p11v1.dylib\n"));
  EXPECT_THAT(result.out,
              ::testing::EndsWith(": \"" + app.string() + "/Contents/MacOS/mireltoken\" items\n"));
  const Result withArgument =
      run({.program = app / "Mirel Token", .arguments = {"items"}, .environment = environment});
  EXPECT_EQ(withArgument.exitCode, 99);
  EXPECT_EQ(withArgument.out, "");
}

}  // namespace
}  // namespace mirel::test
