#import "AdapterTest.h"

#import "MirelSCToken.h"
#import "MirelSCTokenAuth.h"
#import "MirelSCTokenSession.h"
#import "double/Utf8.h"

namespace mirel::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

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
};

TEST_F(SessionAdapter, AnswersToItsSelectors) {
  for (SEL selector : {
         @selector(initWithToken:), @selector(tokenSession:beginAuthForOperation:constraint:error:),
             @selector(tokenSession:supportsOperation:usingKey:algorithm:),
             @selector(tokenSession:signData:usingKey:algorithm:error:),
             @selector(tokenSession:decryptData:usingKey:algorithm:error:),
             @selector(tokenSession:performKeyExchangeWithPublicKey:usingKey:algorithm:parameters:error:),
             @selector(authenticatedKeyForObjectID:error:),
             @selector(generalAuthenticateWithData:dataTag:usingKey:error:), @selector(authState),
             @selector(setAuthState:), @selector(sp), @selector(setSp:)
       }) {
    EXPECT_TRUE([::MirelSCTokenSession instancesRespondToSelector:selector])
        << [NSStringFromSelector(selector) UTF8String];
  }
  for (SEL selector : { @selector(initWithSession:), @selector(finishWithError:), @selector(session) }) {
    EXPECT_TRUE([::MirelSCTokenAuth instancesRespondToSelector:selector]);
  }
  EXPECT_TRUE([::MirelSCTokenSession isSubclassOfClass:[TKSmartCardTokenSession class]]);
  EXPECT_TRUE([::MirelSCTokenAuth isSubclassOfClass:[TKTokenSmartCardPINAuthOperation class]]);
}

TEST_F(SessionAdapter, IsItsOwnDelegate) {
  // Whether the class has taken on the protocol is checked when this is compiled.
  const id<TKTokenSessionDelegate> delegate = session();
  EXPECT_TRUE([static_cast<TKTokenSession*>(system->session(0)) delegate] == delegate);
}

TEST_F(SessionAdapter, TellsWhatAKeySupports) {
  EXPECT_TRUE(system->supports(0, kSign, "01", "RSASignatureRaw"));
  EXPECT_TRUE(system->supports(0, kSign, "01", "RSASignatureDigestPKCS1v15Raw"));
  EXPECT_FALSE(system->supports(0, kSign, "01", "RSASignatureMessagePSSSHA256"));
  EXPECT_FALSE(system->supports(0, kDecrypt, "01", "RSAEncryptionPKCS1"));
  EXPECT_FALSE(system->supports(0, kSign, "02", "RSASignatureRaw"));
}

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

TEST_F(SessionAdapter, WantsThePinFirst) {
  Outcome expected;
  expected.error = platformError(-9);
  EXPECT_EQ(system->sign(0, kBlock, "01", "RSASignatureRaw"), expected);
  EXPECT_EQ(system->decrypt(0, kBlock, "01", "RSAEncryptionPKCS1"), expected);
  EXPECT_EQ(system->sign(0, kBlock, "01", "RSASignatureRaw", ErrorPointer::kNone), Outcome{});
}

TEST_F(SessionAdapter, DescribesThePinToThePlatform) {
  @autoreleasepool {
    ASSERT_TRUE(system->beginAuth(0, kSign, "01").succeeded);
    const auto request = system->pinRequest();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->className, "MirelSCTokenAuth");
    EXPECT_EQ(request->apduTemplate,
              (ByteVector{0x00, 0x20, 0x00, 0x80, 0x08, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(request->pinBitOffset, 40);
    EXPECT_EQ(request->minPinLength, 4);
    EXPECT_EQ(request->maxPinLength, 8);
    EXPECT_EQ(request->readerName, kReaderName);
    EXPECT_TRUE([static_cast<::MirelSCTokenAuth*>(system->authOperation()) session] == session());
  }
}

TEST_F(SessionAdapter, SignsAfterTheRightPin) {
  EXPECT_TRUE(logIn().succeeded);
  EXPECT_EQ([session() authState], 1);
  EXPECT_EQ(system->cardContext(0), true);
  EXPECT_TRUE(system->cardIsSensitive(0));
  const Outcome signature = system->sign(0, kBlock, "01", "RSASignatureRaw");
  EXPECT_TRUE(signature.succeeded);
  EXPECT_FALSE(signature.error);
  EXPECT_EQ(signature.data, resultOf(CKM_RSA_X_509, kBlock, 256));
}

TEST_F(SessionAdapter, HandsThePinOnInCharacters) {
  script.card().pin = "12\xC3\xA4";
  (void)logIn("12\xC3\xA4");
  // Three characters, so three bytes of the four.
  EXPECT_THAT(script.callTexts("C_Login"), ElementsAre(::testing::EndsWith(", 1, 3132C3)")));
}

TEST_F(SessionAdapter, TellsTheTriesLeftAfterAWrongPin) {
  script.deviations.triesLeftAsDeviceError = true;
  const Outcome outcome = logIn("000000");
  EXPECT_FALSE(outcome.succeeded);
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->domain, "CryptoTokenKit");
  EXPECT_EQ(outcome.error->code, -5);
  EXPECT_EQ(
      outcome.error->userInfo.at(kDescriptionKey),
      "The card did not accept the PIN (tries left: 2; 0 means that the card's software does not say).");
  EXPECT_EQ([session() authState], 0);
  EXPECT_FALSE(system->cardContext(0));
}

TEST_F(SessionAdapter, FailsALoginWithoutAPinAndWithoutAProvider) {
  EXPECT_EQ(logIn(std::nullopt).error->code, -5);
  [session() setSp:nil];
  EXPECT_EQ(logIn().error->code, -5);
  EXPECT_THAT(recorder.texts(), Contains("error: sp is nil"));
  EXPECT_EQ(logIn("123456", 0, ErrorPointer::kNone), Outcome{});
}

TEST_F(SessionAdapter, RefusesOtherConstraints) {
  for (const char* constraint : {"YES", "NO", "Biometry", ""}) {
    SCOPED_TRACE(constraint);
    const Outcome outcome = system->beginAuth(0, kSign, "01", constraint);
    EXPECT_FALSE(outcome.succeeded);
    ASSERT_TRUE(outcome.error);
    // Of a program without texts the key is the text.
    EXPECT_EQ(*outcome.error,
              (SystemError{"CryptoTokenKit", -8, {{kDescriptionKey, "Not suppport this constraint"}}}));
  }
  EXPECT_TRUE(system->beginAuth(0, kSign, "01", "PIN").succeeded);
}

TEST_F(SessionAdapter, BeginsNothingWhenThePlatformRefuses) {
  switches->refusesPinOperations = true;
  EXPECT_EQ(system->beginAuth(0, kSign, "01"), Outcome{});
}

TEST_F(SessionAdapter, OutlivesWhatThePlatformRaises) {
  switches->raises = true;
  switches->refusesPinOperations = true;
  EXPECT_EQ(system->beginAuth(0, kSign, "01"), Outcome{});
  switches->refusesSessions = true;
  EXPECT_EQ(system->openSession(), Outcome{});
  *switches.operator->() = {};
  EXPECT_TRUE(system->openSession().succeeded);
  EXPECT_TRUE(system->beginAuth(1, kSign, "01").succeeded);
}

TEST_F(SessionAdapter, FindsNoKeyWhoseIdentifierThePlatformRaisesOver) {
  ASSERT_TRUE(logIn().succeeded);
  switches->raises = true;
  switches->refusesIdentifiers = true;
  EXPECT_FALSE(system->sign(0, kBlock, "01", "RSASignatureRaw").data);
  *switches.operator->() = {};
  EXPECT_TRUE(system->sign(0, kBlock, "01", "RSASignatureRaw").data);
}

TEST_F(SessionAdapter, LosesItsKeysWithTheMarkOnTheCard) {
  ASSERT_TRUE(logIn().succeeded);
  system->resetCard();
  Outcome expected;
  expected.error = platformError(-7);
  EXPECT_EQ(system->sign(0, kBlock, "01", "RSASignatureRaw"), expected);
}

TEST_F(SessionAdapter, KnowsNoOtherKeys) {
  Outcome expected;
  expected.error = platformError(-6);
  EXPECT_EQ(system->sign(0, kBlock, "02", "RSASignatureRaw"), expected);
  ASSERT_TRUE(logIn().succeeded);
  expected.error = platformError(-7);
  EXPECT_EQ(system->sign(0, kBlock, "02", "RSASignatureRaw"), expected);
  EXPECT_EQ(system->decrypt(0, kBlock, "02", "RSAEncryptionPKCS1"), expected);
  EXPECT_EQ(system->exchange(0, kBlock, "02", "ECDHKeyExchangeStandard"), expected);
}

TEST_F(SessionAdapter, AnswersNothingToAKeyExchange) {
  EXPECT_EQ(system->exchange(0, kBlock, "01", "ECDHKeyExchangeStandard"), Outcome{});
}

TEST_F(SessionAdapter, AnswersAnEmptySignatureWhenTheCardRefuses) {
  ASSERT_TRUE(logIn().succeeded);
  script.pullCard();
  const Outcome signature = system->sign(0, kBlock, "01", "RSASignatureRaw");
  EXPECT_EQ(signature.data, ByteVector{});
  EXPECT_FALSE(signature.error);
}

TEST_F(SessionAdapter, DecryptsWithAKeyForThat) {
  setKeyUsage(1U << 2U);
  system->removeCard();
  insertAndOpen();
  const SessionNumber number = system->numSessions() - 1;
  ASSERT_TRUE(system->beginAuth(number, kDecrypt, "01").succeeded);
  system->enterPin("123456");
  ASSERT_TRUE(system->finishAuth().succeeded);
  const ByteVector plain{'h', 'i'};
  const Outcome outcome = system->decrypt(number, cipherOf(plain, 256), "01", "RSAEncryptionPKCS1");
  EXPECT_EQ(outcome.data, plain);
}

TEST_F(SessionAdapter, KeepsItsLoginToItself) {
  ASSERT_TRUE(system->openSession().succeeded);
  ASSERT_TRUE(logIn().succeeded);
  EXPECT_EQ([session(1) authState], 0);
  Outcome expected;
  expected.error = platformError(-9);
  EXPECT_EQ(system->sign(1, kBlock, "01", "RSASignatureRaw"), expected);
}

TEST_F(SessionAdapter, IsNotMadeWhenThePlatformRefusesIt) {
  switches->refusesSessions = true;
  EXPECT_EQ(system->openSession(), Outcome{});
}

TEST_F(SessionAdapter, LogsAnErrorThatThePlatformAlreadyHasInThePlatformsWords) {
  (void)system->openSession(ErrorPointer::kFilled);
  NSError* const earlier = [NSError errorWithDomain:@"earlier" code:1 userInfo:nil];
  EXPECT_THAT(recorder.texts(),
              Contains("NSLog: [MirelSCToken-152] Error: " + utf8Of([earlier description])));
}

TEST_F(SessionAdapter, GivesTheKeyThatMayBeUsed) {
  @autoreleasepool {
    NSError* error = nil;
    EXPECT_TRUE([session() authenticatedKeyForObjectID:@"01" error:&error] == nil);
    EXPECT_EQ([error code], -9);
    ASSERT_TRUE(logIn().succeeded);
    TKTokenKeychainKey* key = [[system->token() keychainContents] keyForObjectID:@"01" error:nil];
    EXPECT_TRUE([session() authenticatedKeyForObjectID:@"01" error:nil] == key);
    EXPECT_TRUE([session() generalAuthenticateWithData:nil dataTag:0x82 usingKey:@"01" error:nil] == key);
    [session() setAuthState:2];
    EXPECT_TRUE([session() authenticatedKeyForObjectID:@"01" error:nil] == nil);
  }
}

TEST_F(SessionAdapter, CanBeInitialisedByItsOwnInitialisers) {
  @autoreleasepool {
    ::MirelSCTokenSession* other =
        [[[::MirelSCTokenSession alloc] initWithToken:system->token()] autorelease];
    ASSERT_TRUE(other != nil);
    ::MirelSCTokenAuth* operation = [[[::MirelSCTokenAuth alloc] initWithSession:other] autorelease];
    ASSERT_TRUE(operation != nil);
    EXPECT_TRUE([operation session] == other);
    [operation setPIN:@"123456"];
    EXPECT_TRUE([operation finishWithError:nil]);
    EXPECT_EQ([other authState], 1);
    switches->refusesSessions = true;
    EXPECT_TRUE([[[::MirelSCTokenSession alloc] initWithToken:system->token()] autorelease] == nil);
    switches->refusesPinOperations = true;
    EXPECT_TRUE([[[::MirelSCTokenAuth alloc] initWithSession:other] autorelease] == nil);
  }
}

}  // namespace
}  // namespace mirel::test
