#import <CryptoTokenKit/CryptoTokenKit.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#import <os/log.h>

#include <set>
#include <stdexcept>
#include <string>

#import "double/LogRecorder.h"
#import "double/Objects.h"
#import "double/Switches.h"
#import "double/TokenSystem.h"
#include "platform/CertificateBuilder.h"

namespace mirel::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

NSData* dataOf(const ByteVector& bytes) { return [NSData dataWithBytes:bytes.data() length:bytes.size()]; }

/// A certificate, the caller's.
SecCertificateRef newCertificate(const CertificateWish& wish = {}) {
  return SecCertificateCreateWithData(kCFAllocatorDefault, (CFDataRef)dataOf(makeCertificate(wish)));
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

TEST(DoublePinFormat, HasThePlatformsDefaults) {
  TKSmartCardPINFormat* const format = [[[TKSmartCardPINFormat alloc] init] autorelease];
  EXPECT_EQ([format charset], TKSmartCardPINCharsetNumeric);
  EXPECT_EQ([format encoding], TKSmartCardPINEncodingASCII);
  EXPECT_EQ([format minPINLength], 4);
  EXPECT_EQ([format maxPINLength], 8);
  EXPECT_EQ([format PINBlockByteLength], 8);
  EXPECT_EQ([format PINJustification], TKSmartCardPINJustificationLeft);
  EXPECT_EQ([format PINBitOffset], 0);
  EXPECT_EQ([format PINLengthBitOffset], 0);
  EXPECT_EQ([format PINLengthBitSize], 0);
}

TEST(DoublePinOperation, HasThePlatformsDefaultsAndSucceeds) {
  TKTokenSmartCardPINAuthOperation* const operation =
      [[[TKTokenSmartCardPINAuthOperation alloc] init] autorelease];
  EXPECT_TRUE([operation PINFormat]);
  EXPECT_FALSE([operation APDUTemplate]);
  EXPECT_EQ([operation PINByteOffset], 0);
  EXPECT_FALSE([operation smartCard]);
  EXPECT_FALSE([operation PIN]);
  EXPECT_TRUE([operation finishWithError:nil]);
}

TEST(DoublePinOperation, CopiesItsTexts) {
  TKTokenSmartCardPINAuthOperation* const operation =
      [[[TKTokenSmartCardPINAuthOperation alloc] init] autorelease];
  NSMutableString* const pin = [NSMutableString stringWithString:@"1234"];
  [operation setPIN:pin];
  [pin appendString:@"5"];
  EXPECT_TRUE([[operation PIN] isEqual:@"1234"]);
}

TEST(DoubleSmartCard, StartsWithoutMarks) {
  TKSmartCard* const card = cardIn(@"Reader A 00");
  EXPECT_TRUE([[[card slot] name] isEqual:@"Reader A 00"]);
  EXPECT_EQ([[card slot] state], TKSmartCardSlotStateValidCard);
  EXPECT_EQ([card cla], 0);
  EXPECT_FALSE([card sensitive]);
  EXPECT_FALSE([card context]);
}

TEST(DoubleSmartCard, LosesItsContext) {
  TKSmartCard* const card = cardIn(@"Reader");
  [card setContext:@YES];
  EXPECT_TRUE([[card context] boolValue]);
  [card loseContext];
  EXPECT_FALSE([card context]);
}

TEST(DoubleDelegates, AreNotKept) {
  TKSmartCardToken* const token = makeToken();
  const id delegate = [[[NSObject alloc] init] autorelease];
  const NSUInteger before = [delegate retainCount];
  [token setDelegate:delegate];
  [[token tokenDriver] setDelegate:delegate];
  EXPECT_EQ([token delegate], delegate);
  EXPECT_EQ([delegate retainCount], before);
}

TEST(DoubleContents, HoldTheItemsOfTheLastFill) {
  TKTokenKeychainContents* const contents = [makeToken() keychainContents];
  TKTokenKeychainItem* const one = [[[TKTokenKeychainItem alloc] initWithObjectID:@"1"] autorelease];
  TKTokenKeychainItem* const two = [[[TKTokenKeychainItem alloc] initWithObjectID:@"2"] autorelease];
  EXPECT_EQ([[contents items] count], 0U);

  [contents fillWithItems:@[ one, two ]];
  [contents fillWithItems:@[ two ]];
  EXPECT_TRUE([[contents items] isEqual:@[ two ]]);
  EXPECT_EQ([contents numFills], 2U);
}

TEST(DoubleContents, FindKeysAndCertificatesByTheirIdentifiers) {
  const SecCertificateRef certificate = newCertificate();
  TKTokenKeychainKey* const key = [[[TKTokenKeychainKey alloc] initWithCertificate:certificate
                                                                          objectID:@"same"] autorelease];
  TKTokenKeychainCertificate* const item =
      [[[TKTokenKeychainCertificate alloc] initWithCertificate:certificate objectID:@"same"] autorelease];
  CFRelease(certificate);
  TKTokenKeychainContents* const contents = [makeToken() keychainContents];
  [contents fillWithItems:@[ item, key ]];

  NSError* error = nil;
  EXPECT_EQ([contents keyForObjectID:@"same" error:&error], key);
  EXPECT_EQ([contents certificateForObjectID:@"same" error:&error], item);
  EXPECT_FALSE(error);

  EXPECT_FALSE([contents keyForObjectID:@"other" error:nil]);
  EXPECT_FALSE([contents keyForObjectID:@"other" error:&error]);
  EXPECT_TRUE([[error domain] isEqual:TKErrorDomain]);
  EXPECT_EQ([error code], TKErrorCodeObjectNotFound);
}

TEST(DoubleItems, TakeWhatTheCertificateTells) {
  const KeyHolder rsa = makeRsaKey(2048);
  const KeyHolder p384 = makeEcKey("P-384");
  const struct {
    const char* name;
    EVP_PKEY* key;
    CFStringRef type;
    NSInteger size;
    NSUInteger publicKeyLength;
    unsigned char firstByte;
  } rows[] = {
      // A SEQUENCE of a modulus of 257 bytes and an exponent of 3, each with its header.
      {"RSA", rsa.get(), kSecAttrKeyTypeRSA, 2048, 4 + 4 + 257 + 2 + 3, 0x30},
      // An uncompressed point.
      {"P-384", p384.get(), kSecAttrKeyTypeECSECPrimeRandom, 384, 1 + 48 + 48, 0x04},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const SecCertificateRef certificate = newCertificate({.key = row.key});
    TKTokenKeychainKey* const key = [[[TKTokenKeychainKey alloc] initWithCertificate:certificate
                                                                            objectID:@"id"] autorelease];
    CFRelease(certificate);
    EXPECT_TRUE([[key keyType] isEqual:(NSString*)row.type]);
    EXPECT_EQ([key keySizeInBits], row.size);
    ASSERT_EQ([[key publicKeyData] length], row.publicKeyLength);
    EXPECT_EQ(static_cast<const unsigned char*>([[key publicKeyData] bytes])[0], row.firstByte);
    EXPECT_EQ([[key publicKeyHash] length], 20U);
    EXPECT_FALSE([key label]);
    EXPECT_FALSE([key constraints]);
    EXPECT_FALSE([key canSign] || [key canDecrypt] || [key canPerformKeyExchange] ||
                 [key isSuitableForLogin]);
  }
}

TEST(DoubleItems, CertificatesMayAlwaysBeReadAndNothingElse) {
  const ByteVector der = makeCertificate();
  const SecCertificateRef certificate = SecCertificateCreateWithData(nullptr, (CFDataRef)dataOf(der));
  TKTokenKeychainCertificate* const item =
      [[[TKTokenKeychainCertificate alloc] initWithCertificate:certificate objectID:@"id"] autorelease];
  CFRelease(certificate);
  EXPECT_TRUE([[item data] isEqual:dataOf(der)]);
  EXPECT_TRUE(([[item constraints] isEqual:@{@1 : @YES, @2 : @NO, @3 : @NO, @4 : @NO}]));
}

TEST(DoubleItems, ThereIsNoKeyOfAKindThatTheKeychainCannotName) {
  const KeyHolder key = makeKey("ED25519");
  const SecCertificateRef certificate = newCertificate({.key = key.get()});
  EXPECT_FALSE([[TKTokenKeychainKey alloc] initWithCertificate:certificate objectID:@"id"]);
  CFRelease(certificate);
}

TEST(DoubleSwitches, MakeBaseInitialisersAnswerNil) {
  const SecCertificateRef certificate = newCertificate();
  TKSmartCardToken* const token = makeToken();
  {
    ScopedSwitches switches;
    switches->refusesTokens = true;
    switches->refusesSessions = true;
    switches->refusesCertificateItems = true;
    switches->refusesKeyItems = true;
    switches->refusesPinOperations = true;
    EXPECT_FALSE(makeToken());
    EXPECT_FALSE([[TKSmartCardTokenSession alloc] initWithToken:token]);
    EXPECT_FALSE([[TKTokenKeychainCertificate alloc] initWithCertificate:certificate objectID:@"id"]);
    EXPECT_FALSE([[TKTokenKeychainKey alloc] initWithCertificate:certificate objectID:@"id"]);
    EXPECT_FALSE([[TKTokenSmartCardPINAuthOperation alloc] init]);
  }
  EXPECT_TRUE(makeToken());
  CFRelease(certificate);
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

TEST(DoubleAlgorithm, IsItsTargetAndSupportsWhatItPassedThrough) {
  TKTokenKeyAlgorithm* const algorithm =
      [TKTokenKeyAlgorithm algorithmWithTarget:kSecKeyAlgorithmRSASignatureRaw
                                 passedThrough:{kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA1}];
  EXPECT_TRUE([algorithm isAlgorithm:kSecKeyAlgorithmRSASignatureRaw]);
  EXPECT_FALSE([algorithm isAlgorithm:kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA1]);
  EXPECT_TRUE([algorithm supportsAlgorithm:kSecKeyAlgorithmRSASignatureRaw]);
  EXPECT_TRUE([algorithm supportsAlgorithm:kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA1]);
  EXPECT_FALSE([algorithm supportsAlgorithm:kSecKeyAlgorithmRSAEncryptionRaw]);
}

TEST(DoubleAlgorithm, ThereAreSeventySixDifferentOnes) {
  const std::vector<std::string> names = algorithmNames();
  EXPECT_EQ(std::set(names.begin(), names.end()).size(), 76U);
}

TEST(DoubleCertificates, OnlyWholeDerIsTakenWithWhateverFollowsIt) {
  const ByteVector good = makeCertificate();
  ByteVector longer = good;
  longer.push_back(0);
  const SecCertificateRef beginning = SecCertificateCreateWithData(nullptr, (CFDataRef)dataOf(longer));
  ASSERT_TRUE(beginning);
  CFRelease(beginning);
  const ByteVector shorter(good.begin(), good.end() - 1);
  for (const ByteVector& bytes : {shorter, ByteVector{}, ByteVector{0x30, 0x00}}) {
    SCOPED_TRACE(bytes.size());
    EXPECT_FALSE(SecCertificateCreateWithData(nullptr, (CFDataRef)dataOf(bytes)));
  }
  const SecCertificateRef certificate = SecCertificateCreateWithData(nullptr, (CFDataRef)dataOf(good));
  ASSERT_TRUE(certificate);
  EXPECT_EQ(CFGetTypeID(certificate), SecCertificateGetTypeID());
  const CFDataRef data = SecCertificateCopyData(certificate);
  EXPECT_TRUE(CFEqual(data, (CFDataRef)dataOf(good)));
  CFRelease(data);
  CFRelease(certificate);
}

/// The number that the values of such a certificate hold for its key usage; -1 when they hold none.
int keyUsageIn(const CertificateWish& wish) {
  const SecCertificateRef certificate = newCertificate(wish);
  const CFDictionaryRef values = SecCertificateCopyValues(certificate, nullptr, nullptr);
  CFRelease(certificate);
  int usage = -1;
  if (!values) return usage;
  const auto entry = static_cast<CFDictionaryRef>(CFDictionaryGetValue(values, kSecOIDKeyUsage));
  const auto value =
      entry ? static_cast<CFNumberRef>(CFDictionaryGetValue(entry, kSecPropertyKeyValue)) : nullptr;
  if (value && CFGetTypeID(value) == CFNumberGetTypeID())
    CFNumberGetValue(value, kCFNumberSInt32Type, &usage);
  CFRelease(values);
  return usage;
}

TEST(DoubleCertificates, TellTheKeyUsageInTheFormThatIsSwitchedOn) {
  // Contents of the extension: a BIT STRING, its number of unused bits, its bits.
  const CertificateWish signAndEncipher{.keyUsages = {{0x03, 0x02, 0x05, 0xA0}}};
  const CertificateWish decipherOnly{.keyUsages = {{0x03, 0x03, 0x07, 0x00, 0x80}}};
  EXPECT_EQ(keyUsageIn(signAndEncipher), 1 << 0 | 1 << 2);
  EXPECT_EQ(keyUsageIn(decipherOnly), 1 << 8);
  EXPECT_EQ(keyUsageIn({}), -1);

  ScopedSwitches switches;
  switches->keyUsageForm = KeyUsageForm::kHighBits;
  EXPECT_EQ(keyUsageIn(signAndEncipher), 0x8000 | 0x2000);
  EXPECT_EQ(keyUsageIn(decipherOnly), 0x0080);
  for (const KeyUsageForm form : {KeyUsageForm::kText, KeyUsageForm::kNoValue, KeyUsageForm::kError}) {
    SCOPED_TRACE(static_cast<int>(form));
    switches->keyUsageForm = form;
    EXPECT_EQ(keyUsageIn(signAndEncipher), -1);
  }
}

TEST(DoubleCertificates, HandOutAnErrorThatIsTheCallers) {
  ScopedSwitches switches;
  switches->keyUsageForm = KeyUsageForm::kError;
  const SecCertificateRef certificate = newCertificate();
  CFErrorRef error = nullptr;
  EXPECT_FALSE(SecCertificateCopyValues(certificate, nullptr, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(CFGetRetainCount(error), 1);
  CFRelease(error);
  CFRelease(certificate);
}

TEST(DoubleCertificatesDeathTest, ReferencesMustNotBeNull) {
  CFTypeRef volatile nothing = nullptr;
  EXPECT_DEATH(CFRelease((CFTypeRef)nothing), "CFRelease: NULL");
}

TEST(DoubleLog, HidesDynamicTextsThatAreNotPublic) {
  const struct {
    const char* name;
    void (*write)();
    const char* text;
    const char* shown;
  } rows[] = {
      {"no conversion", [] { os_log(OS_LOG_DEFAULT, "100%% of it"); }, "100% of it", "100% of it"},
      {"a number", [] { os_log(OS_LOG_DEFAULT, "[%d]", -5); }, "[-5]", "[-5]"},
      {"a long", [] { os_log(OS_LOG_DEFAULT, "%lu of %#lx", 66UL, 255UL); }, "66 of 0xff", "66 of 0xff"},
      {"a hidden number", [] { os_log(OS_LOG_DEFAULT, "%{private}d", 5); }, "5", "<private>"},
      {"a text", [] { os_log(OS_LOG_DEFAULT, "<%s>", "card"); }, "<card>", "<<private>>"},
      {"a public text", [] { os_log(OS_LOG_DEFAULT, "<%{public}s>", "card"); }, "<card>", "<card>"},
      {"no text", [] { os_log(OS_LOG_DEFAULT, "%{public}s", static_cast<const char*>(nullptr)); }, "(null)",
       "(null)"},
      {"a part of a text", [] { os_log(OS_LOG_DEFAULT, "%{public}.*s", 2, "card"); }, "ca", "ca"},
      {"an object", [] { os_log(OS_LOG_DEFAULT, "%@", @"card"); }, "card", "<private>"},
      {"a public object", [] { os_log(OS_LOG_DEFAULT, "%{public}@", @"card"); }, "card", "card"},
      {"no object", [] { os_log(OS_LOG_DEFAULT, "%{public}@", (NSString*)nil); }, "(null)", "(null)"},
      {"bytes", [] { os_log(OS_LOG_DEFAULT, "%{public}.*P", 2, static_cast<const void*>("AB")); }, "4142",
       "4142"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const LogRecorder recorder;
    row.write();
    EXPECT_THAT(recorder.lines(), ElementsAre(LogLine{LogChannel::kDefault, row.text, row.shown}));
  }
}

TEST(DoubleLog, KnowsTheChannelOfALine) {
  const LogRecorder recorder;
  os_log(OS_LOG_DEFAULT, "one");
  os_log_error(OS_LOG_DEFAULT, "two");
  os_log_with_type(os_log_create("subsystem", "category"), OS_LOG_TYPE_FAULT, "three");
  NSLog(@"[%s-%d] token = %@", "File", 15, (id)nil);
  EXPECT_THAT(recorder.texts(),
              ElementsAre("default: one", "error: two", "fault: three", "NSLog: [File-15] token = (null)"));
}

TEST(DoubleLog, EvaluatesNothingForALevelThatIsOff) {
  ScopedSwitches switches;
  switches->defaultLevelOff = true;
  const LogRecorder recorder;
  int evaluated = 0;
  os_log(OS_LOG_DEFAULT, "%d", ++evaluated);
  os_log_error(OS_LOG_DEFAULT, "%d", ++evaluated);
  EXPECT_THAT(recorder.texts(), ElementsAre("error: 1"));
}

TEST(DoubleLog, ForgetsItsLines) {
  LogRecorder recorder;
  os_log(OS_LOG_DEFAULT, "one");
  recorder.clear();
  EXPECT_THAT(recorder.texts(), IsEmpty());
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
