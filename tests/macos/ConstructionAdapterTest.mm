/// How the extension's objects come to be, and what they are while they do.

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

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::SizeIs;

class ConstructionAdapter : public AdapterTest {
 protected:
  [[nodiscard]] ::MirelSCToken* token() { return static_cast<::MirelSCToken*>(system->token()); }
  [[nodiscard]] ::MirelSCTokenDriver* driver() {
    return static_cast<::MirelSCTokenDriver*>(system->driver());
  }
  [[nodiscard]] ::MirelSCTokenSession* session() {
    return static_cast<::MirelSCTokenSession*>(system->session(0));
  }
};

TEST_F(ConstructionAdapter, GivesTheTokenItsProviderBeforeTheBaseInitialiserRuns) {
  bool hadProvider = false;
  switches->whenTokenIsInitialised = [&](void* object) {
    hadProvider = [static_cast<::MirelSCToken*>((id)object) sp] != nil;
  };
  ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
  EXPECT_TRUE(hadProvider);
}

TEST_F(ConstructionAdapter, LetsATokenAnswerWhileItIsBeingFilled) {
  ::MirelSCToken* filled = nil;
  bool answered = false;
  switches->whenTokenIsInitialised = [&](void* object) { filled = (id)object; };
  switches->whenContentsAreFilled = [&] {
    @autoreleasepool {
      answered = [filled token:filled createSessionWithError:nil] != nil;
    }
  };
  ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
  EXPECT_TRUE(answered);
}

TEST_F(ConstructionAdapter, LetsASessionAnswerWhileTheBaseInitialiserRuns) {
  ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
  long state = -1;
  switches->whenSessionIsInitialised = [&](void* object) {
    state = [static_cast<::MirelSCTokenSession*>((id)object) authState];
  };
  ASSERT_TRUE(system->openSession().succeeded);
  EXPECT_EQ(state, 0);
}

TEST_F(ConstructionAdapter, WorksOnTheObjectThatTheBaseInitialiserGives) {
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

TEST_F(ConstructionAdapter, ReleasesTheProviderThatATokenHoldsAlready) {
  @autoreleasepool {
    ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
    ::MirelSCToken* another = [::MirelSCToken alloc];
    [another setSp:[token() sp]];
    EXPECT_TRUE([[another sp] isEqual:[token() sp]]);
    recorder.clear();
    another = [[another initWithSmartCard:[token() smartCard] AID:nil MirelSCTokenDriver:driver()
                                    error:nil] autorelease];
    ASSERT_TRUE(another != nil);
    EXPECT_FALSE([[another sp] isEqual:[token() sp]]);
    EXPECT_THAT(recorder.texts(), Contains("default: CTK [MirelSCToken-33] nil != sp"));
    EXPECT_THAT(recorder.texts(),
                Contains("default: CTK [MirelSCToken-35] After releaseWithMirelCTKFramework"));
  }
}

TEST_F(ConstructionAdapter, MakesTokensHoweverTheDriverWasInitialised) {
  @autoreleasepool {
    ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
    const IMP baseInit = class_getMethodImplementation([TKSmartCardTokenDriver class], @selector(init));
    const auto init = reinterpret_cast<id (*)(id, SEL)>(baseInit);
    ::MirelSCTokenDriver* other = [init([::MirelSCTokenDriver alloc], @selector(init)) autorelease];
    EXPECT_TRUE([other tokenDriver:driver() createTokenForSmartCard:[token() smartCard] AID:nil
                                      error:nil] != nil);
  }
}

TEST_F(ConstructionAdapter, HandsTheApplicationOfTheCardToTheBase) {
  const ByteVector application{0xA0, 0x00, 0x00, 0x03, 0x08};
  ASSERT_TRUE(system->offerCard(kReaderName, ErrorPointer::kEmpty, application).succeeded);
  @autoreleasepool {
    NSData* wanted = [NSData dataWithBytes:application.data() length:application.size()];
    EXPECT_TRUE([[token() AID] isEqual:wanted]);
  }
}

TEST_F(ConstructionAdapter, PutsTheClassOfTheCardsCommandsIntoTheTemplate) {
  insertAndOpen();
  [[session() smartCard] setCla:0x84];
  ASSERT_TRUE(system->beginAuth(0, kSign, "01").succeeded);
  EXPECT_EQ(system->pinRequest()->apduTemplate->front(), 0x84);
}

TEST_F(ConstructionAdapter, WorksWhereThePlatformMakesObjectsTheirOwnDelegates) {
  switches->delegatesToItself = true;
  system.emplace(driverClassInPropertyList());
  insertAndOpen();
  EXPECT_TRUE(logIn().succeeded);
}

TEST_F(ConstructionAdapter, TakesTheFirstReaderWhereThePlatformNamesNoCard) {
  @autoreleasepool {
    ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
    TKSmartCard* none = nil;
    ::MirelSCToken* other = [[[::MirelSCToken alloc] initWithSmartCard:none
                                                                   AID:nil
                                                    MirelSCTokenDriver:driver()
                                                                 error:nil] autorelease];
    ASSERT_TRUE(other != nil);
    EXPECT_TRUE([[other instanceID] isEqual:[token() instanceID]]);
  }
}

TEST_F(ConstructionAdapter, MakesAPinOperationThatFailsWithoutASession) {
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

TEST_F(ConstructionAdapter, KeepsTheVeryObjectThatNamesAKeysCertificate) {
  @autoreleasepool {
    const Value der = testCertificate({.key = TestKey::kRsa2048});
    NSData* data = [NSData dataWithBytes:der.data() length:der.size()];
    const SecCertificateRef certificate = SecCertificateCreateWithData(nullptr, (CFDataRef)data);
    const id name = [NSNumber numberWithInt:5];
    ::MirelCTKTokenKeychainKey* key =
        [[[::MirelCTKTokenKeychainKey alloc] initWithCertificate:certificate
                                                        objectID:@"1"
                                                   certificateID:name
                                              alwaysAuthenticate:NO] autorelease];
    EXPECT_TRUE([key certificateID] == name);
    EXPECT_FALSE([key alwaysAuthenticate]);
    EXPECT_TRUE([[key objectID] isEqual:@"1"]);
    CFRelease(certificate);
  }
}

TEST_F(ConstructionAdapter, PrintsATokenThatIsNotItsOwn) {
  insertAndOpen();
  @autoreleasepool {
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

TEST_F(ConstructionAdapter, HandsItselfOnAsTheDriver) {
  @autoreleasepool {
    ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
    TKSmartCardTokenDriver* other = [[[TKSmartCardTokenDriver alloc] init] autorelease];
    TKSmartCardToken* made = [driver() tokenDriver:other
                           createTokenForSmartCard:[token() smartCard]
                                               AID:nil
                                             error:nil];
    EXPECT_TRUE([made tokenDriver] == driver());
  }
}

TEST_F(ConstructionAdapter, PrintsThePlatformsObjects) {
  insertAndOpen();
  @autoreleasepool {
    const std::string description = [[token() description] UTF8String];
    EXPECT_THAT(recorder.texts(), Contains("NSLog: [MirelSCTokenDriver-15] token = " + description));
    EXPECT_THAT(recorder.texts(), Contains("NSLog: [MirelSCToken-148] token = " + description));
    EXPECT_THAT(recorder.texts(), Contains("NSLog: [MirelSCToken-155] token session = " +
                                           std::string{[[session() description] UTF8String]}));
  }
}

}  // namespace
}  // namespace mirel::test
