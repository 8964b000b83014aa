#import <CryptoTokenKit/CryptoTokenKit.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#import <os/log.h>

#include <set>
#include <stdexcept>
#include <string>

#import "double/LogRecorder.h"
#import "double/Objects.h"
#import "double/RaisingCall.h"
#import "double/Switches.h"
#import "double/TokenSystem.h"
#include "platform/CertificateBuilder.h"

namespace mirel::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

NSData* dataOf(const ByteVector& bytes) { return [NSData dataWithBytes:bytes.data() length:bytes.size()]; }

/// A certificate, the caller's.
SecCertificateRef newCertificate(const ByteVector& der = makeCertificate()) {
  return SecCertificateCreateWithData(nullptr, (CFDataRef)dataOf(der));
}

TKSmartCard* cardIn(NSString* reader) {
  return [[[[TKSmartCardSlot alloc] initWithName:reader] autorelease] makeSmartCard];
}

TKSmartCardToken* makeToken() {
  TKSmartCardTokenDriver* const driver = [[[TKSmartCardTokenDriver alloc] init] autorelease];
  return [[[TKSmartCardToken alloc] initWithSmartCard:cardIn(@"Reader")
                                                  AID:nil
                                           instanceID:@"1"
                                          tokenDriver:driver] autorelease];
}

TEST(DoubleObjects, AreCountedUntilTheyGo) {
  @autoreleasepool {
    (void)makeToken();
    EXPECT_EQ(livingObjects(), (std::map<std::string, int>{{"TKSmartCard", 1},
                                                           {"TKSmartCardSlot", 1},
                                                           {"TKToken", 1},
                                                           {"TKTokenDriver", 1},
                                                           {"TKTokenKeychainContents", 1}}));
  }
  EXPECT_THAT(livingObjects(), IsEmpty());
}

TEST(DoubleAlgorithm, ThereAreSeventySixDifferentOnes) {
  const std::vector<std::string> names = algorithmNames();
  EXPECT_EQ(std::set(names.begin(), names.end()).size(), 76U);
}

TEST(DoubleCertificates, OnlyWholeDerIsTakenWithWhateverFollowsIt) {
  const ByteVector good = makeCertificate();
  for (const ByteVector& bytes : {good, joinedBytes({good, {0}})}) {
    const SecCertificateRef certificate = newCertificate(bytes);
    ASSERT_TRUE(certificate);
    CFRelease(certificate);
  }
  const ByteVector shorter(good.begin(), good.end() - 1);
  for (const ByteVector& bytes : {shorter, ByteVector{}, ByteVector{0x30, 0x00}}) {
    SCOPED_TRACE(bytes.size());
    EXPECT_FALSE(newCertificate(bytes));
  }
}

TEST(DoubleCertificates, HandOutAnErrorThatIsTheCallers) {
  ScopedSwitches switches;
  switches->keyUsageForm = KeyUsageForm::kError;
  const SecCertificateRef certificate = newCertificate();
  CFErrorRef error = nullptr;
  EXPECT_FALSE(SecCertificateCopyValues(certificate, nullptr, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ([(NSError*)error retainCount], 1U);
  CFRelease(error);
  CFRelease(certificate);
}

TEST(DoubleCertificatesDeathTest, ReferencesMustNotBeNull) {
  CFTypeRef volatile nothing = nullptr;
  EXPECT_DEATH(CFRelease((CFTypeRef)nothing), "CFRelease: NULL");
}

TEST(DoubleLog, HidesDynamicTextsThatAreNotPublic) {
  const LogRecorder recorder;
  os_log(OS_LOG_DEFAULT, "a line");
  os_log(OS_LOG_DEFAULT, "<%{public}s>", "card");
  os_log(OS_LOG_DEFAULT, "<%s>", "card");
  EXPECT_THAT(recorder.texts(), ElementsAre("default: a line", "default: <card>", "default: <<private>>"));
}

TEST(DoubleLog, KnowsTheChannelOfALineAndForgetsIt) {
  LogRecorder recorder;
  os_log(OS_LOG_DEFAULT, "one");
  os_log_error(OS_LOG_DEFAULT, "two");
  NSLog(@"[%s-%d] token = %@", "File", 15, (id)nil);
  EXPECT_THAT(recorder.texts(), ElementsAre("default: one", "error: two", "NSLog: [File-15] token = (null)"));
  recorder.clear();
  EXPECT_THAT(recorder.texts(), IsEmpty());
}

TEST(DoubleLog, EvaluatesNothingForALevelThatIsOff) {
  ScopedSwitches switches;
  switches->defaultLevelOff = true;
  const LogRecorder recorder;
  int evaluated = 0;
  const auto evaluate = [&] { return std::to_string(++evaluated); };
  os_log(OS_LOG_DEFAULT, "%{public}s", evaluate().c_str());
  os_log_error(OS_LOG_DEFAULT, "%{public}s", evaluate().c_str());
  EXPECT_THAT(recorder.texts(), ElementsAre("error: 1"));
}

TEST(DoubleRaisingCall, RaisesUntilItGoes) {
  TKSmartCard* const card = cardIn(@"Reader");
  {
    const RaisingCall raising{"-[TKSmartCard cla]"};
    bool raised = false;
    @try {
      (void)[card cla];
    } @catch (NSException*) {
      raised = true;
    }
    EXPECT_TRUE(raised);
    EXPECT_EQ(raising.count(), 1U);
    EXPECT_TRUE([[[card slot] name] isEqual:@"Reader"]);
  }
  EXPECT_EQ([card cla], 0);
}

TEST(DoubleRaisingCallDeathTest, WantsACallThatThereIs) {
  EXPECT_DEATH(RaisingCall{"-[TKSmartCard colour]"}, "there is no -.TKSmartCard colour");
}

TEST(DoubleSystemDeathTest, UnknownNamesEndTheProgram) {
  TokenSystem system{"TKSmartCardTokenDriver"};
  EXPECT_DEATH((void)system.supports(7, 2, "key", "RSASignatureRaw"), "unknown session \"7\"");
}

TEST(DoublePersonality, ExceptionsOfBothLanguagesAreCaught) {
  std::string caught;
  try {
    throw std::runtime_error{"thrown in C++"};
  } catch (const std::exception& error) {
    caught = error.what();
  }
  EXPECT_EQ(caught, "thrown in C++");

  NSString* reason = nil;
  @try {
    [NSException raise:@"Name" format:@"thrown in Objective-C"];
  } @catch (NSException* exception) {
    reason = [exception reason];
  }
  EXPECT_TRUE([reason isEqual:@"thrown in Objective-C"]);
}

}  // namespace
}  // namespace mirel::test
