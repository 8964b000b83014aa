/// The session on the platform's objects, and what it makes of a platform that behaves otherwise than one
/// hopes. What a session answers is told by the scenarios.

#import "AdapterTest.h"

#import "MirelSCToken.h"
#import "MirelSCTokenAuth.h"
#import "MirelSCTokenSession.h"
#import "double/Objects.h"
#import "double/Utf8.h"

namespace mirel::test {
namespace {

using ::testing::Contains;

const ByteVector kBlock(256, 0x11);

class SessionAdapter : public AdapterTest {
 protected:
  void SetUp() override {
    AdapterTest::SetUp();
    insertAndOpen();
    recorder.clear();
  }

  [[nodiscard]] ::MirelSCTokenSession* session(SessionNumber number = 0) {
    return static_cast<::MirelSCTokenSession*>(system->session(number));
  }
  [[nodiscard]] Outcome signature(SessionNumber number = 0) {
    return system->sign(number, kBlock, "01", "RSASignatureRaw");
  }
  [[nodiscard]] static Outcome failure(long code) {
    Outcome outcome;
    outcome.error = platformError(code);
    return outcome;
  }
};

TEST_F(SessionAdapter, TellsEveryAlgorithmApart) {
  // Each is printed by its name, except for the two that have none.
  std::size_t printed = 0;
  for (const std::string& name : algorithmNames()) {
    recorder.clear();
    (void)system->supports(0, kSign, "01", name);
    printed += recorder.texts().size() - 1;
  }
  EXPECT_EQ(algorithmNames().size(), 76U);
  EXPECT_EQ(printed, 74U);
}

TEST_F(SessionAdapter, IsTheSessionOfItsPinOperations) {
  ASSERT_TRUE(system->beginAuth(0, kSign, "01").succeeded);
  EXPECT_EQ(system->pinRequest()->className, "MirelSCTokenAuth");
  EXPECT_TRUE([static_cast<::MirelSCTokenAuth*>(system->authOperation()) session] == session());
}

TEST_F(SessionAdapter, MarksItsCardAfterTheRightPin) {
  ASSERT_TRUE(logIn().succeeded);
  EXPECT_EQ([session() authState], 1);
  EXPECT_EQ(system->cardContext(0), true);
  EXPECT_TRUE(system->cardIsSensitive(0));
  EXPECT_EQ(signature().data, resultOf(CKM_RSA_X_509, kBlock, 256));
}

TEST_F(SessionAdapter, LosesItsKeysWithTheMarkUntilTheNextPin) {
  ASSERT_TRUE(logIn().succeeded);
  system->resetCard();
  EXPECT_EQ(signature(), failure(-7));
  ASSERT_TRUE(logIn().succeeded);
  EXPECT_TRUE(signature().data);
}

TEST_F(SessionAdapter, LogsAnErrorThatThePlatformAlreadyHasInThePlatformsWords) {
  (void)system->openSession(ErrorPointer::kFilled);
  NSError* const earlier = [NSError errorWithDomain:@"earlier" code:1 userInfo:nil];
  EXPECT_THAT(recorder.texts(),
              Contains("NSLog: [MirelSCToken-152] Error: " + utf8Of([earlier description])));
  ASSERT_TRUE(system->openSession(ErrorPointer::kNone).succeeded);
  EXPECT_THAT(recorder.texts(), Contains("NSLog: [MirelSCToken-150] token createSessionWithError NO ERROR!"));
}

TEST_F(SessionAdapter, GivesTheKeyThatMayBeUsed) {
  @autoreleasepool {
    ASSERT_TRUE(logIn().succeeded);
    ::TKTokenKeychainKey* key = [[system->token() keychainContents] keyForObjectID:@"01" error:nil];
    EXPECT_TRUE([session() authenticatedKeyForObjectID:@"01" error:nil] == key);
    EXPECT_TRUE([session() generalAuthenticateWithData:nil dataTag:0x82 usingKey:@"01" error:nil] == key);
    [session() setAuthState:2];
    EXPECT_TRUE([session() authenticatedKeyForObjectID:@"01" error:nil] == nil);
  }
}

/// Such keys do not remember that every use needs the PIN.
TEST_F(SessionAdapter, WorksWithKeysThatAreNotTheObjectsThatItPublished) {
  switches->copiesKeys = true;
  EXPECT_TRUE(system->supports(0, kSign, "01", "RSASignatureRaw"));
  EXPECT_FALSE(system->supports(0, kDecrypt, "01", "RSAEncryptionPKCS1"));
  EXPECT_EQ(signature(), failure(-9));
  ASSERT_TRUE(logIn().succeeded);
  EXPECT_EQ(signature().data, resultOf(CKM_RSA_X_509, kBlock, 256));
  @autoreleasepool {
    [session() setAuthState:2];
    ::TKTokenKeychainKey* key = [session() authenticatedKeyForObjectID:@"01" error:nil];
    EXPECT_TRUE([[key objectID] isEqual:@"01"]);
  }
}

TEST_F(SessionAdapter, HandsOnTheErrorThatThePlatformReports) {
  switches->explainsMissingKeys = true;
  Outcome expected;
  expected.error = SystemError{"CryptoTokenKit", -6, {{"Searched", "02"}}};
  EXPECT_EQ(system->sign(0, kBlock, "02", "RSASignatureRaw"), expected);
}

TEST_F(SessionAdapter, DoesNotLookAtWhatACallerLeavesInAnErrorPointer) {
  @autoreleasepool {
    NSError* error = (NSError*)(void*)0x11;
    EXPECT_TRUE([session() authenticatedKeyForObjectID:@"01" error:&error] == nil);
    EXPECT_EQ([error code], -9);
    error = (NSError*)(void*)0x11;
    EXPECT_TRUE([session() generalAuthenticateWithData:nil dataTag:0x82 usingKey:@"01" error:&error] == nil);
    EXPECT_EQ([error code], -9);
  }
}

TEST_F(SessionAdapter, TellsNoErrorWhereNobodyAsks) {
  constexpr auto kNone = ErrorPointer::kNone;
  EXPECT_EQ(system->sign(0, kBlock, "01", "RSASignatureRaw", kNone), Outcome{});
  EXPECT_EQ(system->decrypt(0, kBlock, "01", "RSAEncryptionPKCS1", kNone), Outcome{});
  EXPECT_EQ(system->exchange(0, kBlock, "02", "ECDHKeyExchangeStandard", kNone), Outcome{});
  EXPECT_EQ(system->beginAuth(0, kSign, "01", "Biometry", kNone), Outcome{});
  EXPECT_EQ(logIn("000000", 0, kNone), Outcome{});
}

TEST_F(SessionAdapter, FailsTheLoginWhenThePlatformSendsThePinItself) {
  switches->sendsPinsItself = true;
  EXPECT_EQ(logIn().error->code, -5);
}

TEST_F(SessionAdapter, UsesNothingWithoutAnAlgorithm) {
  @autoreleasepool {
    ::TKTokenKeyAlgorithm* none = nil;
    ::MirelSCTokenSession* asked = session();
    EXPECT_FALSE([asked tokenSession:asked
                   supportsOperation:TKTokenOperationSignData
                            usingKey:@"01"
                           algorithm:none]);
    ASSERT_TRUE(logIn().succeeded);
    NSError* error = nil;
    NSData* data = [NSData dataWithBytes:kBlock.data() length:kBlock.size()];
    EXPECT_TRUE([asked tokenSession:asked signData:data usingKey:@"01" algorithm:none error:&error] == nil);
    EXPECT_TRUE([asked tokenSession:asked decryptData:data usingKey:@"01" algorithm:none
                              error:&error] == nil);
    EXPECT_TRUE(error == nil);
    algorithmToPrint(none);
    EXPECT_TRUE([asked tokenSession:asked
                    performKeyExchangeWithPublicKey:data
                                           usingKey:@"01"
                                          algorithm:none
                                         parameters:(TKTokenKeyExchangeParameters*)(id)none
                                              error:nil] == nil);
    EXPECT_THAT(recorder.texts(),
                Contains("NSLog: [MirelSCTokenSession-318] performKeyExchangeWithPublicKey 01 "
                         "algorithm (null)"));
  }
}

TEST_F(SessionAdapter, KnowsNoKeyByAnythingButAText) {
  @autoreleasepool {
    NSError* error = nil;
    EXPECT_TRUE([session() authenticatedKeyForObjectID:[NSNumber numberWithInt:1] error:&error] == nil);
    EXPECT_EQ([error code], -6);
  }
}

TEST_F(SessionAdapter, IsMadeOnATokenWithoutAProvider) {
  [static_cast<::MirelSCToken*>(system->token()) setSp:nil];
  ASSERT_TRUE(system->openSession().succeeded);
  EXPECT_THAT(recorder.texts(), Contains("NSLog: [MirelSCTokenSession-78] ERROR"));
  EXPECT_EQ(logIn("123456", 1).error->code, -5);
}

TEST_F(SessionAdapter, SignsNothingWithoutAConnectionThatKeepsTheMark) {
  switches->withoutCard = true;
  ASSERT_TRUE(system->openSession().succeeded);
  EXPECT_TRUE(logIn("123456", 1).succeeded);
  EXPECT_EQ(signature(1), failure(-7));
}

TEST_F(SessionAdapter, AnswersWithoutItsCard) {
  @autoreleasepool {
    ::MirelSCTokenSession* kept = [session() retain];
    ASSERT_TRUE(logIn().succeeded);
    system->removeCard();
    // The session keeps the platform's token, and its connection keeps the mark.
    EXPECT_TRUE([kept authenticatedKeyForObjectID:@"01" error:nil] != nil);
    NSData* data = [NSData dataWithBytes:kBlock.data() length:kBlock.size()];
    script.pullCard();
    ::TKTokenKeyAlgorithm* algorithm =
        [::TKTokenKeyAlgorithm algorithmWithTarget:kSecKeyAlgorithmRSASignatureRaw];
    NSData* answer = [kept tokenSession:kept signData:data usingKey:@"01" algorithm:algorithm error:nil];
    EXPECT_EQ([answer length], 0U);
    [kept release];
  }
}

}  // namespace
}  // namespace mirel::test
