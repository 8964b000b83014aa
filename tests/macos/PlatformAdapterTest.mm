/// What the session makes of a platform that behaves otherwise than one hopes.

#import "AdapterTest.h"
#import "MirelSCToken.h"
#import "MirelSCTokenSession.h"
#import "double/Objects.h"

namespace mirel::test {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

const ByteVector kBlock(256, 0x11);

class PlatformAdapter : public AdapterTest {
 protected:
  void SetUp() override {
    AdapterTest::SetUp();
    insertAndOpen();
    recorder.clear();
  }

  [[nodiscard]] ::MirelSCTokenSession* session() {
    return static_cast<::MirelSCTokenSession*>(system->session(0));
  }
};

TEST_F(PlatformAdapter, WorksWithKeysThatAreNotTheObjectsThatItPublished) {
  switches->copiesKeys = true;
  EXPECT_TRUE(system->supports(0, kSign, "01", "RSASignatureRaw"));
  EXPECT_FALSE(system->supports(0, kDecrypt, "01", "RSAEncryptionPKCS1"));
  Outcome needsThePin;
  needsThePin.error = platformError(-9);
  EXPECT_EQ(system->sign(0, kBlock, "01", "RSASignatureRaw"), needsThePin);
  ASSERT_TRUE(logIn().succeeded);
  EXPECT_EQ(system->sign(0, kBlock, "01", "RSASignatureRaw").data, resultOf(CKM_RSA_X_509, kBlock, 256));
  @autoreleasepool {
    TKTokenKeychainKey* key = [session() authenticatedKeyForObjectID:@"01" error:nil];
    EXPECT_TRUE([[key objectID] isEqual:@"01"]);
  }
}

TEST_F(PlatformAdapter, HandsOnTheErrorThatThePlatformReports) {
  switches->explainsMissingKeys = true;
  Outcome expected;
  expected.error = SystemError{"CryptoTokenKit", -6, {{"Searched", "02"}}};
  EXPECT_EQ(system->sign(0, kBlock, "02", "RSASignatureRaw"), expected);
}

TEST_F(PlatformAdapter, DoesNotLookAtWhatACallerLeavesInAnErrorPointer) {
  @autoreleasepool {
    NSError* error = (NSError*)(void*)0x11;
    EXPECT_TRUE([session() authenticatedKeyForObjectID:@"01" error:&error] == nil);
    EXPECT_EQ([error code], -9);
    error = (NSError*)(void*)0x11;
    EXPECT_TRUE([session() generalAuthenticateWithData:nil dataTag:0x82 usingKey:@"01" error:&error] == nil);
    EXPECT_EQ([error code], -9);
  }
}

TEST_F(PlatformAdapter, FailsTheLoginWhenThePlatformSendsThePinItself) {
  switches->sendsPinsItself = true;
  Outcome outcome = logIn();
  EXPECT_FALSE(outcome.succeeded);
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, -5);
}

TEST_F(PlatformAdapter, SupportsNothingWithoutAnAlgorithm) {
  @autoreleasepool {
    TKTokenKeyAlgorithm* none = nil;
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

TEST_F(PlatformAdapter, KnowsNoKeyByAnythingButAText) {
  @autoreleasepool {
    NSError* error = nil;
    const id number = [NSNumber numberWithInt:1];
    EXPECT_TRUE([session() authenticatedKeyForObjectID:number error:&error] == nil);
    EXPECT_EQ([error code], -6);
  }
}

TEST_F(PlatformAdapter, TellsNoErrorWhereNobodyAsks) {
  EXPECT_EQ(system->decrypt(0, kBlock, "01", "RSAEncryptionPKCS1", ErrorPointer::kNone), Outcome{});
  EXPECT_EQ(system->exchange(0, kBlock, "02", "ECDHKeyExchangeStandard", ErrorPointer::kNone), Outcome{});
  EXPECT_EQ(system->beginAuth(0, kSign, "01", "Biometry", ErrorPointer::kNone), Outcome{});
}

TEST_F(PlatformAdapter, SaysWhenNobodyAsksForTheErrorOfASession) {
  ASSERT_TRUE(system->openSession(ErrorPointer::kNone).succeeded);
  EXPECT_THAT(recorder.texts(), Contains("NSLog: [MirelSCToken-150] token createSessionWithError NO ERROR!"));
}

TEST_F(PlatformAdapter, MakesASessionOfATokenWithoutAProvider) {
  [static_cast<::MirelSCToken*>(system->token()) setSp:nil];
  ASSERT_TRUE(system->openSession().succeeded);
  EXPECT_THAT(recorder.texts(), Contains("NSLog: [MirelSCTokenSession-78] ERROR"));
  EXPECT_EQ(logIn("123456", 1).error->code, -5);
}

TEST_F(PlatformAdapter, SignsNothingWithoutAConnectionThatKeepsTheMark) {
  switches->withoutCard = true;
  ASSERT_TRUE(system->openSession().succeeded);
  EXPECT_TRUE(logIn("123456", 1).succeeded);
  Outcome expected;
  expected.error = platformError(-7);
  EXPECT_EQ(system->sign(1, kBlock, "01", "RSASignatureRaw"), expected);
}

TEST_F(PlatformAdapter, TakesASecondPin) {
  ASSERT_TRUE(logIn().succeeded);
  system->resetCard();
  ASSERT_TRUE(logIn().succeeded);
  EXPECT_EQ([session() authState], 1);
  EXPECT_EQ(system->cardContext(0), true);
  EXPECT_TRUE(system->sign(0, kBlock, "01", "RSASignatureRaw").data);
}

TEST_F(PlatformAdapter, DropsThePinOnceItWasUsed) {
  @autoreleasepool {
    for (const char* pin : {"123456", "000000"}) {
      ASSERT_TRUE(system->beginAuth(0, kSign, "01").succeeded);
      system->enterPin(pin);
      TKTokenSmartCardPINAuthOperation* operation = system->authOperation();
      (void)[operation finishWithError:nil];
      EXPECT_TRUE([operation PIN] == nil) << pin;
    }
  }
}

TEST_F(PlatformAdapter, HandsEveryAlgorithmForDecryptingOnByItsName) {
  ASSERT_TRUE(logIn().succeeded);
  for (const char* name : {"RSAEncryptionRaw", "RSAEncryptionPKCS1", "RSAEncryptionOAEPSHA256",
                           "RSAEncryptionOAEPSHA384", "RSAEncryptionOAEPSHA256AESGCM"}) {
    SCOPED_TRACE(name);
    recorder.clear();
    EXPECT_TRUE(system->decrypt(0, kBlock, "01", name).data);
    EXPECT_THAT(recorder.texts(),
                Contains(::testing::EndsWith(std::string{" algName kSecKeyAlgorithm"} + name)));
  }
  EXPECT_EQ(system->decrypt(0, kBlock, "01", "RSAEncryptionOAEPSHA512"), Outcome{});
}

TEST_F(PlatformAdapter, AnswersWithoutItsCard) {
  @autoreleasepool {
    ::MirelSCTokenSession* kept = [session() retain];
    ASSERT_TRUE(logIn().succeeded);
    system->removeCard();
    // The session keeps the platform's token, and its connection keeps the mark.
    EXPECT_TRUE([kept authenticatedKeyForObjectID:@"01" error:nil] != nil);
    NSData* data = [NSData dataWithBytes:kBlock.data() length:kBlock.size()];
    script.pullCard();
    TKTokenKeyAlgorithm* algorithm = [TKTokenKeyAlgorithm algorithmWithTarget:kSecKeyAlgorithmRSASignatureRaw
                                                                passedThrough:{}];
    NSData* signature = [kept tokenSession:kept signData:data usingKey:@"01" algorithm:algorithm error:nil];
    EXPECT_EQ([signature length], 0U);
    [kept release];
  }
}

}  // namespace
}  // namespace mirel::test
