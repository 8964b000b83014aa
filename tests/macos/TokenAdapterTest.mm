/// How the extension's objects come to be, and what they publish.

#import <objc/runtime.h>

#import "AdapterTest.h"
#include "ExtensionPropertyList.h"
#import "MirelCTKTokenKeychainKey.h"
#import "MirelSCToken.h"
#import "MirelSCTokenAuth.h"
#import "MirelSCTokenDriver.h"
#import "MirelSCTokenSession.h"
#import "double/Objects.h"

namespace mirel::test {
namespace {

using ::testing::Contains;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class TokenAdapter : public AdapterTest {
 protected:
  [[nodiscard]] ::MirelSCToken* token() { return static_cast<::MirelSCToken*>(system->token()); }
  [[nodiscard]] ::MirelSCTokenDriver* driver() {
    return static_cast<::MirelSCTokenDriver*>(system->driver());
  }
  [[nodiscard]] ::MirelSCTokenSession* session() {
    return static_cast<::MirelSCTokenSession*>(system->session(0));
  }
  /// Another token for the card.
  ::MirelSCToken* initialised(::MirelSCToken* allocated, ::TKSmartCard* card) {
    return [[allocated initWithSmartCard:card AID:nil MirelSCTokenDriver:driver() error:nil] autorelease];
  }
};

// ---- What is published ----

TEST_F(TokenAdapter, PublishesItsItemsOnceAndInOrder) {
  ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
  EXPECT_FALSE(livingObjects().empty());
  EXPECT_EQ(system->numFills(), 1U);
  const auto items = system->items();
  ASSERT_THAT(items, SizeIs(2));
  EXPECT_EQ(items[0].className, "TKTokenKeychainCertificate");
  EXPECT_EQ(items[1].className, "MirelCTKTokenKeychainKey");
}

TEST_F(TokenAdapter, ReadsTheKeyUsageHoweverThePlatformTellsIt) {
  for (const KeyUsageForm form : {KeyUsageForm::kBitNumbers, KeyUsageForm::kHighBits, KeyUsageForm::kText}) {
    switches->keyUsageForm = form;
    for (const unsigned usage : {0U, 2U, 4U, 8U}) {
      SCOPED_TRACE(usage);
      setKeyUsage(1U << usage);
      ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
      const PublishedItem key = system->items().back();
      EXPECT_EQ(key.canSign, usage == 0);
      EXPECT_EQ(key.canDecrypt, usage == 2);
      EXPECT_EQ(key.canPerformKeyExchange, usage == 4);
    }
  }
}

TEST_F(TokenAdapter, GivesAKeyNoUseWithoutAKeyUsage) {
  for (const KeyUsageForm form : {KeyUsageForm::kNoValue, KeyUsageForm::kError, KeyUsageForm::kBitNumbers}) {
    switches->keyUsageForm = form;
    if (form == KeyUsageForm::kBitNumbers)
      script.object(kCertificate).attributes[CKA_VALUE] = testCertificate({.key = TestKey::kRsa2048});
    ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
    const PublishedItem key = system->items().back();
    EXPECT_FALSE(key.canSign || key.canDecrypt || key.canPerformKeyExchange || key.suitableForLogin);
    EXPECT_EQ(key.constraints, (std::map<long, std::string>{}));
    EXPECT_EQ(key.alwaysAuthenticate, true);
  }
}

TEST_F(TokenAdapter, PublishesNothingOfACertificateWithoutAKey) {
  script.object(kCertificate).attributes[CKA_ID] = Value{'0', '9'};
  ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
  EXPECT_THAT(system->items(), IsEmpty());
  EXPECT_EQ(system->numFills(), 1U);
}

TEST_F(TokenAdapter, PublishesWhatThePlatformTakes) {
  for (bool Switches::*refuses : {&Switches::refusesKeyItems, &Switches::refusesCertificateItems}) {
    (*switches.operator->()).*refuses = true;
    ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
    EXPECT_THAT(system->items(), SizeIs(1));
    (*switches.operator->()).*refuses = false;
  }
  switches->withoutContents = true;
  EXPECT_TRUE(system->offerCard(kReaderName).succeeded);
}

// ---- How objects come to be ----

TEST_F(TokenAdapter, AnswersNoTokenAndItsErrorWithoutACard) {
  Outcome expected;
  expected.error = platformError(-6);
  EXPECT_EQ(system->offerCard("Reader B"), expected);
  EXPECT_EQ(system->offerCard("Reader B", ErrorPointer::kFilled), expected);
  EXPECT_EQ(system->offerCard("Reader B", ErrorPointer::kNone), Outcome{});
}

TEST_F(TokenAdapter, MakesNothingThatThePlatformRefuses) {
  switches->refusesTokens = true;
  EXPECT_EQ(system->offerCard(kReaderName), Outcome{});
  switches->refusesTokens = false;
  insertAndOpen();
  switches->refusesPinOperations = true;
  EXPECT_EQ(system->beginAuth(0, kSign, "01"), Outcome{});
  switches->refusesSessions = true;
  EXPECT_EQ(system->openSession(), Outcome{});
  user->moveTo("/nowhere");
  @autoreleasepool {
    EXPECT_TRUE(initialised([::MirelSCToken alloc], [token() smartCard]) == nil);
  }
}

TEST_F(TokenAdapter, AnswersWhileTheBaseInitialisersRun) {
  ::MirelSCToken* filled = nil;
  bool hadProvider = false;
  bool answered = false;
  long state = -1;
  switches->whenTokenIsInitialised = [&](void* object) {
    filled = (id)object;
    hadProvider = [filled sp] != nil;
  };
  switches->whenContentsAreFilled = [&] {
    answered = [filled token:filled createSessionWithError:nil] != nil;
  };
  switches->whenSessionIsInitialised = [&](void* object) {
    state = [static_cast<::MirelSCTokenSession*>((id)object) authState];
  };
  insertAndOpen();
  EXPECT_TRUE(hadProvider);
  EXPECT_TRUE(answered);
  EXPECT_EQ(state, 0);
}

TEST_F(TokenAdapter, WorksOnTheObjectThatTheBaseInitialiserGives) {
  switches->replacesObjects = true;
  insertAndOpen();
  EXPECT_TRUE([token() sp] != nil);
  EXPECT_TRUE([[token() delegate] isEqual:token()]);
  EXPECT_THAT(system->items(), SizeIs(2));
  EXPECT_EQ(system->items().back().certificateID, "cert_MyKey_01");
  ASSERT_TRUE(logIn().succeeded);
  EXPECT_EQ([session() authState], 1);
  EXPECT_TRUE(system->sign(0, ByteVector(256, 1), "01", "RSASignatureRaw").data);
}

TEST_F(TokenAdapter, ReleasesTheProviderThatATokenHoldsAlready) {
  @autoreleasepool {
    ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
    ::MirelSCToken* another = [::MirelSCToken alloc];
    [another setSp:[token() sp]];
    EXPECT_TRUE([[another sp] isEqual:[token() sp]]);
    recorder.clear();
    another = initialised(another, [token() smartCard]);
    ASSERT_TRUE(another != nil);
    EXPECT_FALSE([[another sp] isEqual:[token() sp]]);
    EXPECT_THAT(recorder.texts(), Contains("default: CTK [MirelSCToken-33] nil != sp"));
    EXPECT_THAT(recorder.texts(),
                Contains("default: CTK [MirelSCToken-35] After releaseWithMirelCTKFramework"));
  }
}

TEST_F(TokenAdapter, HandsItsProviderToItsSessions) {
  @autoreleasepool {
    insertAndOpen();
    EXPECT_TRUE([[token() sp] isEqual:[session() sp]]);
    [token() setSp:nil];
    EXPECT_TRUE([token() sp] == nil);
    EXPECT_TRUE([session() sp] != nil);
  }
}

TEST_F(TokenAdapter, IsMadeHoweverTheDriverWasInitialised) {
  @autoreleasepool {
    ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
    const IMP baseInit = class_getMethodImplementation([TKSmartCardTokenDriver class], @selector(init));
    const auto init = reinterpret_cast<id (*)(id, SEL)>(baseInit);
    ::MirelSCTokenDriver* other = [init([::MirelSCTokenDriver alloc], @selector(init)) autorelease];
    EXPECT_TRUE([other tokenDriver:driver() createTokenForSmartCard:[token() smartCard] AID:nil
                                      error:nil] != nil);
  }
}

TEST_F(TokenAdapter, HandsTheApplicationAndTheDriverToTheBase) {
  const ByteVector application{0xA0, 0x00, 0x00, 0x03, 0x08};
  ASSERT_TRUE(system->offerCard(kReaderName, ErrorPointer::kEmpty, application).succeeded);
  @autoreleasepool {
    NSData* wanted = [NSData dataWithBytes:application.data() length:application.size()];
    EXPECT_TRUE([[token() AID] isEqual:wanted]);
    TKSmartCardTokenDriver* other = [[[TKSmartCardTokenDriver alloc] init] autorelease];
    TKSmartCardToken* made = [driver() tokenDriver:other
                           createTokenForSmartCard:[token() smartCard]
                                               AID:nil
                                             error:nil];
    EXPECT_TRUE([made tokenDriver] == driver());
  }
}

TEST_F(TokenAdapter, PutsTheClassOfTheCardsCommandsIntoTheTemplate) {
  insertAndOpen();
  [[session() smartCard] setCla:0x84];
  ASSERT_TRUE(system->beginAuth(0, kSign, "01").succeeded);
  EXPECT_EQ(system->pinRequest()->apduTemplate->front(), 0x84);
}

TEST_F(TokenAdapter, WorksWhereThePlatformMakesObjectsTheirOwnDelegates) {
  switches->delegatesToItself = true;
  system.emplace(driverClassInPropertyList());
  insertAndOpen();
  EXPECT_TRUE(logIn().succeeded);
}

TEST_F(TokenAdapter, TakesTheFirstReaderWhereThePlatformNamesNoCard) {
  @autoreleasepool {
    ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
    ::MirelSCToken* other = initialised([::MirelSCToken alloc], nil);
    ASSERT_TRUE(other != nil);
    EXPECT_TRUE([[other instanceID] isEqual:[token() instanceID]]);
  }
}

TEST_F(TokenAdapter, MakesAPinOperationThatFailsWithoutASession) {
  @autoreleasepool {
    ::MirelSCTokenSession* none = nil;
    for (::MirelSCTokenAuth* operation : {[[[::MirelSCTokenAuth alloc] init] autorelease],
                                          [[[::MirelSCTokenAuth alloc] initWithSession:none] autorelease]}) {
      ASSERT_TRUE(operation != nil);
      [operation setPIN:@"123456"];
      NSError* error = nil;
      EXPECT_FALSE([operation finishWithError:&error]);
      EXPECT_EQ([error code], -5);
      EXPECT_TRUE([operation session] == nil);
    }
    EXPECT_EQ(script.countOf("C_Login"), 0U);
  }
}

TEST_F(TokenAdapter, KeepsTheVeryObjectThatNamesAKeysCertificate) {
  @autoreleasepool {
    const id name = [NSNumber numberWithInt:5];
    ::MirelCTKTokenKeychainKey* key =
        [[[::MirelCTKTokenKeychainKey alloc] initWithCertificate:nil
                                                        objectID:@"1"
                                                   certificateID:name
                                              alwaysAuthenticate:NO] autorelease];
    EXPECT_TRUE([key certificateID] == name);
    EXPECT_FALSE([key alwaysAuthenticate]);
    EXPECT_TRUE([[key objectID] isEqual:@"1"]);
  }
}

TEST_F(TokenAdapter, PrintsThePlatformsObjects) {
  insertAndOpen();
  @autoreleasepool {
    const std::string description = [[token() description] UTF8String];
    EXPECT_THAT(recorder.texts(), Contains("NSLog: [MirelSCTokenDriver-15] token = " + description));
    EXPECT_THAT(recorder.texts(), Contains("NSLog: [MirelSCToken-148] token = " + description));
    EXPECT_THAT(recorder.texts(), Contains("NSLog: [MirelSCToken-155] token session = " +
                                           std::string{[[session() description] UTF8String]}));
    TKSmartCardToken* other = [[[TKSmartCardToken alloc] initWithSmartCard:[token() smartCard]
                                                                       AID:nil
                                                                instanceID:@"other"
                                                               tokenDriver:driver()] autorelease];
    EXPECT_TRUE([token() token:other createSessionWithError:nil] != nil);
    EXPECT_THAT(recorder.texts(), Contains("NSLog: [MirelSCToken-148] token = " +
                                           std::string{[[other description] UTF8String]}));
    TKToken* none = nil;
    EXPECT_TRUE([token() token:none createSessionWithError:nil] != nil);
    EXPECT_THAT(recorder.texts(), Contains("NSLog: [MirelSCToken-148] token = (null)"));
  }
}

// ---- The system that plays the platform ----

TEST_F(TokenAdapter, HasADriverOfTheNameInThePropertyList) {
  EXPECT_TRUE(system->hasDriver());
  EXPECT_FALSE(TokenSystem{"NoSuchClass"}.hasDriver());
  EXPECT_FALSE(TokenSystem{"NSObject"}.hasDriver());
}

}  // namespace
}  // namespace mirel::test
