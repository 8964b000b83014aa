#import "AdapterTest.h"

#import "MirelCTKTokenKeychainKey.h"
#import "MirelSCToken.h"
#import "MirelSCTokenDriver.h"
#import "double/Objects.h"

namespace mirel::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class TokenAdapter : public AdapterTest {
 protected:
  static void expectNoUse(const PublishedItem& key) {
    ASSERT_TRUE(key.isKey);
    EXPECT_FALSE(key.canSign || key.canDecrypt || key.canPerformKeyExchange || key.suitableForLogin);
    EXPECT_EQ(key.constraints, (std::map<long, std::string>{}));
    EXPECT_EQ(key.alwaysAuthenticate, true);
  }
};

TEST_F(TokenAdapter, IsMadeByTheNameOfTheDriversClass) {
  EXPECT_TRUE(system->hasDriver());
  EXPECT_TRUE([system->driver() isKindOfClass:[TKSmartCardTokenDriver class]]);
  // Whether a class has taken on a protocol is checked when this is compiled.
  const id<TKSmartCardTokenDriverDelegate> delegate = static_cast<::MirelSCTokenDriver*>(system->driver());
  EXPECT_TRUE([system->driver() delegate] == delegate);
}

TEST_F(TokenAdapter, AnswersToItsSelectors) {
  const struct {
    Class object;
    std::vector<SEL> selectors;
  } rows[] = {
      {[::MirelSCTokenDriver class], { @selector(tokenDriver:createTokenForSmartCard:AID:error:) }},
      {[::MirelSCToken class],
       {
         @selector(initWithSmartCard:AID:MirelSCTokenDriver:error:), @selector(token:createSessionWithError:),
             @selector(sp), @selector(setSp:)
       }},
      {[::MirelCTKTokenKeychainKey class],
       {
         @selector(initWithCertificate:objectID:certificateID:alwaysAuthenticate:), @selector(certificateID),
             @selector(alwaysAuthenticate)
       }},
  };
  for (const auto& row : rows) {
    for (SEL selector : row.selectors) {
      EXPECT_TRUE([row.object instancesRespondToSelector:selector])
          << [NSStringFromClass(row.object) UTF8String] << " " << [NSStringFromSelector(selector) UTF8String];
    }
  }
  EXPECT_TRUE([::MirelSCToken isSubclassOfClass:[TKSmartCardToken class]]);
  EXPECT_TRUE([::MirelCTKTokenKeychainKey isSubclassOfClass:[TKTokenKeychainKey class]]);
  EXPECT_FALSE([::MirelCTKTokenKeychainKey instancesRespondToSelector:@selector(setCertificateID:)]);
  EXPECT_FALSE([::MirelCTKTokenKeychainKey instancesRespondToSelector:@selector(setAlwaysAuthenticate:)]);
}

TEST_F(TokenAdapter, PublishesTheItemsOfTheCardOnceAndInOrder) {
  const Outcome outcome = system->offerCard(kReaderName);
  ASSERT_TRUE(outcome.succeeded);
  EXPECT_FALSE(outcome.error);
  EXPECT_EQ(system->numFills(), 1U);
  PublishedItem certificate;
  certificate.className = "TKTokenKeychainCertificate";
  certificate.objectID = "cert_MyKey_01";
  certificate.label = "01";
  PublishedItem key;
  key.className = "MirelCTKTokenKeychainKey";
  key.isKey = true;
  key.objectID = "01";
  key.label = "01";
  key.constraints = {{kSign, "PINAlways"}};
  key.canSign = true;
  key.suitableForLogin = true;
  key.certificateID = "cert_MyKey_01";
  key.alwaysAuthenticate = true;
  auto items = system->items();
  ASSERT_THAT(items, SizeIs(2));
  items[0].constraints.reset();  // the platform presets those of certificates
  EXPECT_EQ(items[0], certificate);
  EXPECT_EQ(items[1], key);
}

TEST_F(TokenAdapter, LetsAKeyDoWhatItsCertificateAllows) {
  const struct {
    unsigned usage;
    bool signs, decrypts, exchanges, logsIn;
  } rows[] = {
      {1U << 0U, true, false, false, true},  {1U << 2U, false, true, false, true},
      {1U << 4U, false, false, true, false}, {1U << 1U, false, false, false, false},
      {0x15, true, false, false, true},      {1U << 8U, false, false, false, false},
  };
  // Whatever the platform makes of it.
  for (const KeyUsageForm form : {KeyUsageForm::kBitNumbers, KeyUsageForm::kHighBits, KeyUsageForm::kText}) {
    SCOPED_TRACE(static_cast<int>(form));
    switches->keyUsageForm = form;
    for (const auto& row : rows) {
      SCOPED_TRACE(row.usage);
      setKeyUsage(row.usage);
      ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
      const PublishedItem key = system->items().back();
      EXPECT_EQ(key.canSign, row.signs);
      EXPECT_EQ(key.canDecrypt, row.decrypts);
      EXPECT_EQ(key.canPerformKeyExchange, row.exchanges);
      EXPECT_EQ(key.suitableForLogin, row.logsIn);
      system->removeCard();
    }
  }
}

TEST_F(TokenAdapter, GivesAKeyNoUseWhenThePlatformDoesNotTellTheKeyUsage) {
  for (const KeyUsageForm form : {KeyUsageForm::kNoValue, KeyUsageForm::kError}) {
    switches->keyUsageForm = form;
    ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
    expectNoUse(system->items().back());
    system->removeCard();
  }
}

TEST_F(TokenAdapter, GivesAKeyNoUseWithoutAKeyUsage) {
  script.object(kCertificate).attributes[CKA_VALUE] = testCertificate({.key = TestKey::kRsa2048});
  ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
  ASSERT_THAT(system->items(), SizeIs(2));
  expectNoUse(system->items().back());
}

TEST_F(TokenAdapter, PublishesNothingOfACertificateWithoutAKey) {
  script.object(kCertificate).attributes[CKA_ID] = Value{'0', '9'};
  ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
  EXPECT_THAT(system->items(), IsEmpty());
  EXPECT_EQ(system->numFills(), 1U);
}

TEST_F(TokenAdapter, IsItsOwnDelegate) {
  ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
  const id<TKTokenDelegate> delegate = static_cast<::MirelSCToken*>(system->token());
  EXPECT_TRUE([static_cast<TKToken*>(system->token()) delegate] == delegate);
}

TEST_F(TokenAdapter, IsNamedAfterTheCard) {
  ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
  EXPECT_THAT(system->instanceID(), ::testing::StartsWith("TESTCARD"));
  EXPECT_THAT(system->instanceID(), HasSubstr("1234567890ABCDEF"));
}

TEST_F(TokenAdapter, LogsWhereThePlatformsReadersLook) {
  ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
  const auto texts = recorder.texts();
  EXPECT_EQ(texts.front(), "default: CTK [MirelSCTokenDriver-13] +++Start+++");
  EXPECT_EQ(texts[1], "default: CTK [MirelSCToken-31] +++Start+++");
  EXPECT_THAT(texts, Contains(HasSubstr("NSLog: [MirelSCToken-52] instanceID = TESTCARD")));
  EXPECT_EQ(texts.back(), "default: CTK [MirelSCTokenDriver-16] ---END---");
  for (const LogLine& line : recorder.lines()) EXPECT_EQ(line.shown, line.text);
}

TEST_F(TokenAdapter, AnswersNoTokenAndNoErrorWithoutAModule) {
  user->moveTo("/nowhere");
  EXPECT_EQ(system->offerCard(kReaderName), Outcome{});
  EXPECT_THAT(recorder.texts(),
              Contains("error: [MirelSCToken-39] CryptTKitSProvider initWithMirelCTKFramwork fail!!!"));
}

TEST_F(TokenAdapter, AnswersNoTokenAndItsErrorWithoutACard) {
  Outcome expected;
  expected.error = platformError(-6);
  EXPECT_EQ(system->offerCard("Reader B"), expected);
  EXPECT_EQ(system->offerCard("Reader B", ErrorPointer::kFilled), expected);
  EXPECT_EQ(system->offerCard("Reader B", ErrorPointer::kNone), Outcome{});
}

TEST_F(TokenAdapter, MakesTheProviderBeforeTheBaseInitialiserRuns) {
  std::size_t callsBefore = 0;
  switches->whenTokenIsInitialised = [&](void*) { callsBefore = script.countOf("C_Initialize"); };
  ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
  EXPECT_EQ(callsBefore, 1U);
}

TEST_F(TokenAdapter, AnswersNoTokenWhenThePlatformRefusesIt) {
  switches->refusesTokens = true;
  EXPECT_EQ(system->offerCard(kReaderName), Outcome{});
}

TEST_F(TokenAdapter, PublishesWhatThePlatformTakes) {
  switches->refusesKeyItems = true;
  ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
  EXPECT_THAT(system->items(), SizeIs(1));
  system->removeCard();
  switches->refusesKeyItems = false;
  switches->refusesCertificateItems = true;
  ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
  EXPECT_THAT(system->items(), SizeIs(1));
}

TEST_F(TokenAdapter, OutlivesWhatThePlatformRaisesOverItsItems) {
  switches->raises = true;
  switches->refusesItems = true;
  ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
  EXPECT_THAT(system->items(), IsEmpty());
  EXPECT_THAT(recorder.texts(),
              Contains("error: [Guard-15] the card's items are not published: the system raised "
                       "NSInvalidArgumentException: no such \u201Cobject\u201D; see \"mireltoken items\""));
  switches->refusesItems = false;
  system->removeCard();
  ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
  EXPECT_THAT(system->items(), SizeIs(2));
}

TEST_F(TokenAdapter, LeavesOutTheItemsOverWhichThePlatformRaises) {
  switches->raises = true;
  for (bool Switches::*refuses : {&Switches::refusesKeyItems, &Switches::refusesCertificateItems}) {
    (*switches.operator->()).*refuses = true;
    ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
    EXPECT_THAT(system->items(), SizeIs(1));
    (*switches.operator->()).*refuses = false;
    system->removeCard();
  }
}

TEST_F(TokenAdapter, PublishesItemsWithoutWhatThePlatformRaisesOver) {
  switches->raises = true;
  switches->refusesLabels = true;
  ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
  ASSERT_THAT(system->items(), SizeIs(2));
  for (const auto& item : system->items()) EXPECT_EQ(item.label, std::nullopt);
  EXPECT_THAT(recorder.texts(), Contains(HasSubstr("a certificate has no label: the system raised")));
  EXPECT_THAT(recorder.texts(), Contains(HasSubstr("a key has no label: the system raised")));
  system->removeCard();
  switches->refusesLabels = false;
  switches->refusesConstraints = true;
  ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
  EXPECT_THAT(system->items(), SizeIs(2));
  EXPECT_THAT(recorder.texts(), Contains(HasSubstr("a key has no constraints: the system raised")));
}

TEST_F(TokenAdapter, IsNotMadeWhenThePlatformRaises) {
  switches->raises = true;
  switches->refusesTokens = true;
  EXPECT_EQ(system->offerCard(kReaderName), Outcome{});
  EXPECT_THAT(recorder.texts(),
              Contains(HasSubstr("error: [Guard-15] the object is not made: the system raised")));
  switches->refusesTokens = false;
  EXPECT_TRUE(system->offerCard(kReaderName).succeeded);
}

TEST_F(TokenAdapter, WorksWithoutKeychainContents) {
  switches->withoutContents = true;
  EXPECT_TRUE(system->offerCard(kReaderName).succeeded);
}

TEST_F(TokenAdapter, CanBeInitialisedByItsOwnInitialiser) {
  @autoreleasepool {
    NSError* error = nil;
    TKSmartCardTokenDriver* driver = system->driver();
    ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
    TKSmartCard* card = [static_cast<::MirelSCToken*>(system->token()) smartCard];
    ::MirelSCToken* token =
        [[[::MirelSCToken alloc] initWithSmartCard:card
                                               AID:nil
                                MirelSCTokenDriver:static_cast<::MirelSCTokenDriver*>(driver)
                                             error:&error] autorelease];
    ASSERT_TRUE(token != nil);
    EXPECT_TRUE(error == nil);
    EXPECT_EQ([[[token keychainContents] items] count], 2U);
    EXPECT_TRUE([token sp] != nil);
  }
}

TEST_F(TokenAdapter, IsNilWhenItsOwnInitialiserFails) {
  @autoreleasepool {
    ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
    ::MirelSCTokenDriver* driver = static_cast<::MirelSCTokenDriver*>(system->driver());
    TKSmartCard* card = [static_cast<::MirelSCToken*>(system->token()) smartCard];
    switches->refusesTokens = true;
    EXPECT_TRUE([[[::MirelSCToken alloc] initWithSmartCard:card AID:nil MirelSCTokenDriver:driver
                                                     error:nil] autorelease] == nil);
    switches->refusesTokens = false;
    user->moveTo("/nowhere");
    EXPECT_TRUE([[[::MirelSCToken alloc] initWithSmartCard:card AID:nil MirelSCTokenDriver:driver
                                                     error:nil] autorelease] == nil);
  }
}

TEST_F(TokenAdapter, HandsItsProviderToItsSessions) {
  @autoreleasepool {
    insertAndOpen();
    EXPECT_TRUE([[system->token() sp] isEqual:[system->session(0) sp]]);
    [system->token() setSp:nil];
    EXPECT_TRUE([system->token() sp] == nil);
    EXPECT_TRUE([system->session(0) sp] != nil);
  }
}

TEST_F(TokenAdapter, MayPublishTheSameKeysAgain) {
  ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
  publishKeysAgain();
  publishKeysAgain();
  EXPECT_THAT(system->items(), SizeIs(1));
}

TEST_F(TokenAdapter, CarriesTextsOfTheCardByteForByte) {
  const Value id{0x00, 0xFF, 'x'};
  for (const CK_OBJECT_HANDLE object : {kPublicKey, kPrivateKey, kCertificate}) {
    script.object(object).attributes[CKA_ID] = id;
  }
  ASSERT_TRUE(system->offerCard(kReaderName).succeeded);
  EXPECT_EQ(system->items().back().objectID, (std::string{"\0\xC3\xBFx", 4}));
  EXPECT_EQ(system->items().back().certificateID, (std::string{"cert_MyKey_\0\xC3\xBFx", 15}));
}

}  // namespace
}  // namespace mirel::test
