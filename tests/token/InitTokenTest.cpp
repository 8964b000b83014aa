#include <algorithm>

#include "token/TokenTest.h"

namespace mirel::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const TKError kEarlierError{Text{u"Somebody"}, 7, Text{u"else"}};
const TKError kObjectNotFound{Text{u"CryptoTokenKit"}, -6, Text{}};

constexpr const char* kStart = "default: CTK [MirelSCToken-31] +++Start+++";
constexpr const char* kEnd = "default: CTK [MirelSCToken-143] ---END---";
constexpr const char* kNoDescription =
    "error: [CryptTKitSProvider: 54] -[CryptTKitSProvider getSupportedTokenDescription:] _pCTKFramework "
    "EnumCards failed";
constexpr const char* kNoTokenId = "error: [MirelSCToken-48] Get token ID fail";

class InitToken : public TokenTest {
 protected:
  /// The line with the identifier of the card.
  [[nodiscard]] std::string instanceIdLine() const {
    const auto& all = log->processLines;
    const auto found = std::find_if(all.begin(), all.end(), [](const std::string& line) {
      return line.starts_with("[MirelSCToken-52] instanceID = TESTCARD");
    });
    return found == all.end() ? "no line with an identifier" : "process: " + *found;
  }
};

// ---- The good way ----

TEST_F(InitToken, ReturnsTheTokenItself) {
  const auto token = newToken();
  EXPECT_EQ(init(token), token);
  leavesOpen({kCardSession});
}

TEST_F(InitToken, HasNoProviderBefore) { EXPECT_FALSE(newToken()->sp()); }

TEST_F(InitToken, HasAProviderWhenTheBaseInitialiserRuns) {
  const auto token = newToken();
  bool ran = false;
  bool hadProvider = false;
  kit->script->whenTokenIsInitialised = [&] {
    ran = true;
    hadProvider = token->sp() != nullptr;
  };
  EXPECT_TRUE(init(token));
  EXPECT_TRUE(ran);
  EXPECT_TRUE(hadProvider);
  leavesOpen({kCardSession});
}

TEST_F(InitToken, OpensTheCardSessionAfterTheBaseInitialiser) {
  std::size_t sessionsBefore = 99;
  kit->script->whenTokenIsInitialised = [&] { sessionsBefore = script.countOf("C_OpenSession"); };
  EXPECT_TRUE(init(newToken()));
  EXPECT_EQ(sessionsBefore, 1U);  // closed again: it only served to read the token's information
  EXPECT_EQ(script.countOf("C_OpenSession"), 3U);
  leavesOpen({kCardSession});
}

TEST_F(InitToken, FillsTheContentsOnce) {
  addKeyAndCertificate(bytesOf("02"), bytesOf("Second"), {});
  EXPECT_TRUE(init(newToken()));
  ASSERT_EQ(baseOfNewToken()->contents->fills.size(), 1U);
  EXPECT_EQ(baseOfNewToken()->contents->fills.front().size(), 4U);
  leavesOpen({kCardSession});
}

TEST_F(InitToken, PublishesInTheOrderOfTheCardsCertificates) {
  addKeyAndCertificate(bytesOf("03"), bytesOf("Third"), {.keyUsage = 1U << 2U});
  addKeyAndCertificate(bytesOf("02"), bytesOf("Second"), {.keyUsage = 1U << 4U});
  EXPECT_TRUE(init(newToken()));
  EXPECT_THAT(itemTexts(*baseOfNewToken()),
              ElementsAre("certificate cert_MyKey_01, label 01",
                          "key 01, label 01, certificate cert_MyKey_01, can sign, for login, PIN always, "
                          "{2: PINAlways}",
                          "certificate cert_Third_03, label 03",
                          "key 03, label 03, certificate cert_Third_03, can decrypt, for login, PIN always, "
                          "{3: PINAlways}",
                          "certificate cert_Second_02, label 02",
                          "key 02, label 02, certificate cert_Second_02, can exchange keys, PIN always, "
                          "{4: PINAlways}"));
  EXPECT_THAT(log->allLines, Contains("default: CTK [MirelSCToken-66] certs count = 3"));
  leavesOpen({kCardSession});
}

TEST_F(InitToken, PublishesACertificateOnceForEachKeyWithItsId) {
  script.addObject(ecPublicKey(bytesOf("01"), bytesOf("Twin"), p256Params(), p256Point(9)));
  EXPECT_TRUE(init(newToken()));
  const auto texts = itemTexts(*baseOfNewToken());
  ASSERT_EQ(texts.size(), 4U);
  EXPECT_EQ(texts[0], texts[2]);
  EXPECT_EQ(texts[1], texts[3]);
  leavesOpen({kCardSession});
}

TEST_F(InitToken, LeavesOutACertificateWithoutAKey) {
  script.addObject(certificate(bytesOf("77"), bytesOf("Lonely"), testCertificate({})));
  addKeyAndCertificate(bytesOf("02"), bytesOf("Second"), {});
  EXPECT_TRUE(init(newToken()));
  EXPECT_THAT(itemTexts(*baseOfNewToken()),
              ElementsAre("certificate cert_MyKey_01, label 01", HasSubstr("key 01"),
                          "certificate cert_Second_02, label 02", HasSubstr("key 02")));
  EXPECT_THAT(log->systemErrorLines, IsEmpty());
  leavesOpen({kCardSession});
}

TEST_F(InitToken, FillsTheContentsWithNothingFromACardWithoutCertificates) {
  script.card().objects.clear();
  EXPECT_TRUE(init(newToken()));
  ASSERT_EQ(baseOfNewToken()->contents->fills.size(), 1U);
  EXPECT_THAT(baseOfNewToken()->contents->fills.front(), IsEmpty());
  EXPECT_THAT(log->allLines, Contains("default: CTK [MirelSCToken-66] certs count = 0"));
  leavesOpen({kCardSession});
}

TEST_F(InitToken, CarriesEveryByteOfIdAndLabel) {
  script.card().objects.clear();
  addKeyAndCertificate({0x00, 0x01}, {0xE4, 0x00, 0xFF}, {});
  addKeyAndCertificate({0x01}, {0x7F}, {});
  EXPECT_TRUE(init(newToken()));
  const auto items = baseOfNewToken()->contents->items();
  ASSERT_EQ(items.size(), 4U);
  using namespace std::string_view_literals;
  EXPECT_EQ(items[0]->objectID().units(), u"cert_\u00E4\0\u00FF_\0\u0001"sv);
  EXPECT_EQ(items[0]->label().units(), u"\0\u0001"sv);
  EXPECT_EQ(items[1]->objectID().units(), u"\0\u0001"sv);
  EXPECT_EQ(items[2]->objectID().units(), u"cert_\u007F_\u0001"sv);
  EXPECT_EQ(items[3]->objectID().units(), u"\u0001"sv);
  leavesOpen({kCardSession});
}

TEST_F(InitToken, PublishesFortyKeys) {
  script.card().objects.clear();
  const CertificateRequest request;
  const Value der = testCertificate(request);
  for (CK_BYTE i = 0; i < 40; ++i) {
    script.addObject(ecPublicKey({i}, bytesOf("Key"), p256Params(), p256Point(i)));
    script.addObject(certificate({i}, bytesOf("Key"), der));
  }
  EXPECT_TRUE(init(newToken()));
  EXPECT_EQ(baseOfNewToken()->contents->items().size(), 80U);
  leavesOpen({kCardSession});
}

TEST_F(InitToken, GoesOnWithoutContentsToFill) {
  kit->script->withoutContents = true;
  const auto token = newToken();
  EXPECT_EQ(init(token), token);
  EXPECT_FALSE(token->keychainContents());
  EXPECT_THAT(log->allLines, Contains(kEnd));
  leavesOpen({kCardSession});
}

TEST_F(InitToken, LeavesErrorsAloneWhenAllIsWell) {
  std::optional<TKError> none;
  EXPECT_TRUE(init(newToken(), &none));
  EXPECT_EQ(none, std::nullopt);
  std::optional<TKError> earlier = kEarlierError;
  EXPECT_TRUE(init(newToken(), &earlier));
  EXPECT_EQ(earlier, kEarlierError);
  leavesOpen({kCardSession, kCardSession + 3});
}

// ---- The provider cannot be made ----

TEST_F(InitToken, FailsWithoutAProvider) {
  takeModuleAway();
  const auto token = newToken();
  EXPECT_FALSE(init(token));
  EXPECT_FALSE(token->sp());
  EXPECT_THAT(baseOfNewToken()->initialisations, IsEmpty());
  EXPECT_THAT(log->allLines,
              ElementsAre(kStart, moduleLine(),
                          "error: [MirelSCToken-39] CryptTKitSProvider initWithMirelCTKFramwork fail!!!"));
}

TEST_F(InitToken, SetsNoErrorWithoutAProvider) {
  script.failCallOf("C_Initialize", 0, CKR_GENERAL_ERROR, Times::kFromThenOn);
  std::optional<TKError> none;
  EXPECT_FALSE(init(newToken(), &none));
  EXPECT_EQ(none, std::nullopt);
  std::optional<TKError> earlier = kEarlierError;
  EXPECT_FALSE(init(newToken(), &earlier));
  EXPECT_EQ(earlier, kEarlierError);
}

TEST_F(InitToken, TakesAModuleThatIsInitialisedAlready) {
  script.setInitialised(true);
  EXPECT_TRUE(init(newToken()));
  leavesOpen({kCardSession});
}

// ---- The card has no identifier ----

TEST_F(InitToken, ReportsACardThatDoesNotAnswer) {
  script.pullCard();
  std::optional<TKError> error;
  EXPECT_FALSE(init(newToken(), &error));
  EXPECT_EQ(error, kObjectNotFound);
  EXPECT_THAT(baseOfNewToken()->initialisations, IsEmpty());
  EXPECT_THAT(log->allLines, ElementsAre(kStart, moduleLine(), kNoDescription, kNoTokenId));
}

TEST_F(InitToken, ReplacesAnEarlierError) {
  script.pullCard();
  std::optional<TKError> error = kEarlierError;
  EXPECT_FALSE(init(newToken(), &error));
  EXPECT_EQ(error, kObjectNotFound);
  EXPECT_THAT(log->allLines, Contains(kNoTokenId));
}

TEST_F(InitToken, FailsInSilenceWithoutAnErrorPointer) {
  script.pullCard();
  EXPECT_FALSE(init(newToken(), nullptr));
  EXPECT_THAT(log->allLines, ElementsAre(kStart, moduleLine(), kNoDescription));
}

TEST_F(InitToken, ReportsAReaderThatThereIsNot) {
  std::optional<TKError> error;
  EXPECT_FALSE(init(newToken(), &error, Text{u"Reader Z"}));
  EXPECT_EQ(error, kObjectNotFound);
}

TEST_F(InitToken, ReportsAnEmptyIdentifier) {
  script.card().info.label[0] = 0;
  script.card().info.serialNumber[0] = 0;
  std::optional<TKError> error;
  EXPECT_FALSE(init(newToken(), &error));
  EXPECT_EQ(error, kObjectNotFound);
  EXPECT_THAT(log->allLines, ElementsAre(kStart, moduleLine(), kNoTokenId));
}

TEST_F(InitToken, KeepsTheProviderOfACardThatDoesNotAnswer) {
  script.pullCard();
  const auto token = newToken();
  EXPECT_FALSE(init(token));
  EXPECT_TRUE(token->sp());
}

// ---- The platform refuses the token ----

TEST_F(InitToken, FailsWhenThePlatformRefuses) {
  kit->script->refusesTokens = true;
  EXPECT_FALSE(init(newToken()));
  EXPECT_EQ(baseOfNewToken()->initialisations.size(), 1U);
  EXPECT_THAT(log->allLines, ElementsAre(kStart, moduleLine(), instanceIdLine(), kEnd));
}

TEST_F(InitToken, SetsNoErrorWhenThePlatformRefuses) {
  kit->script->refusesTokens = true;
  std::optional<TKError> none;
  EXPECT_FALSE(init(newToken(), &none));
  EXPECT_EQ(none, std::nullopt);
  std::optional<TKError> earlier = kEarlierError;
  EXPECT_FALSE(init(newToken(), &earlier));
  EXPECT_EQ(earlier, kEarlierError);
}

TEST_F(InitToken, LeavesTheCardAloneWhenThePlatformRefuses) {
  kit->script->refusesTokens = true;
  std::size_t callsBefore = 0;
  kit->script->whenTokenIsInitialised = [&] { callsBefore = script.calls().size(); };
  EXPECT_FALSE(init(newToken()));
  EXPECT_EQ(script.calls().size(), callsBefore);
  EXPECT_THAT(baseOfNewToken()->contents->fills, IsEmpty());
}

TEST_F(InitToken, LetsGoOfTheProviderWhenThePlatformRefuses) {
  kit->script->refusesTokens = true;
  const auto token = newToken();
  EXPECT_FALSE(init(token));
  EXPECT_FALSE(token->sp());
}

// ---- The certificates cannot be listed ----

TEST_F(InitToken, GivesATokenWithoutItemsWhenTheCardCannotBeListed) {
  script.failCallOf("C_FindObjectsInit", 0, CKR_DEVICE_ERROR);
  const auto token = newToken();
  std::optional<TKError> error;
  EXPECT_EQ(init(token, &error), token);
  EXPECT_EQ(error, std::nullopt);
  EXPECT_THAT(baseOfNewToken()->contents->fills, IsEmpty());
  EXPECT_THAT(log->allLines,
              ElementsAre(kStart, moduleLine(), instanceIdLine(),
                          "error: [MirelSCToken-64] CryptTKitSProvider getTokenCerts fail", kEnd));
  leavesOpen({kCardSession});
}

TEST_F(InitToken, GivesATokenWithoutItemsWhenNoSessionCanBeOpened) {
  script.failCallOf("C_OpenSession", 0, CKR_SESSION_COUNT, Times::kFromThenOn);
  const auto token = newToken();
  EXPECT_EQ(init(token), token);
  EXPECT_THAT(baseOfNewToken()->contents->fills, IsEmpty());
  EXPECT_THAT(log->systemErrorLines, ElementsAre("[MirelSCToken-64] CryptTKitSProvider getTokenCerts fail"));
}

TEST_F(InitToken, GivesATokenWithoutItemsForACertificateThatIsTooLong) {
  constexpr std::size_t kTooLong = 2001;  // bytes; one more than the card framework reads
  Object& object = script.object(kCertificate);
  object = object.with(CKA_VALUE, patternValue(kTooLong, 1));
  EXPECT_TRUE(init(newToken()));
  EXPECT_THAT(baseOfNewToken()->contents->fills, IsEmpty());
  EXPECT_THAT(log->systemErrorLines, ElementsAre("[MirelSCToken-64] CryptTKitSProvider getTokenCerts fail"));
  leavesOpen({kCardSession});
}

// ---- A provider from before ----

TEST_F(InitToken, ReplacesTheOldProvider) {
  const auto token = newToken();
  EXPECT_EQ(init(token), token);
  const std::weak_ptr<CryptTKitSProvider> old = token->sp();
  ASSERT_FALSE(old.expired());
  EXPECT_EQ(init(token), token);
  EXPECT_TRUE(old.expired());
  EXPECT_TRUE(token->sp());
  EXPECT_EQ(script.countOf("C_Finalize"), 0U);
  leavesOpen({kCardSession, kCardSession + 3});
}

TEST_F(InitToken, LogsTheReleaseOfTheOldProvider) {
  const auto token = newToken();
  EXPECT_EQ(init(token), token);
  log->allLines.clear();
  EXPECT_EQ(init(token), token);
  EXPECT_THAT(log->allLines,
              ElementsAre(kStart, "default: CTK [MirelSCToken-33] nil != sp",
                          "default: CTK [MirelSCToken-35] After releaseWithMirelCTKFramework", moduleLine(),
                          instanceIdLine(), "default: CTK [MirelSCToken-66] certs count = 1",
                          "default: CTK [MirelSCToken-15] +++START+++",
                          "default: CTK [MirelSCToken-21] ---END---", kEnd));
  leavesOpen({kCardSession, kCardSession + 3});
}

TEST_F(InitToken, HasNoProviderWhenTheOldOneCannotBeReplaced) {
  const auto token = newToken();
  EXPECT_EQ(init(token), token);
  script.failCallOf("C_Initialize", 0, CKR_DEVICE_ERROR);
  log->allLines.clear();
  EXPECT_FALSE(init(token));
  EXPECT_FALSE(token->sp());
  EXPECT_THAT(log->allLines,
              ElementsAre(kStart, "default: CTK [MirelSCToken-33] nil != sp",
                          "default: CTK [MirelSCToken-35] After releaseWithMirelCTKFramework", moduleLine(),
                          "error: [MirelSCToken-39] CryptTKitSProvider initWithMirelCTKFramwork fail!!!"));
  leavesOpen({kCardSession});
}

TEST_F(InitToken, DropsItsProviderWhenItEnds) {
  auto token = newToken();
  EXPECT_EQ(init(token), token);
  const std::weak_ptr<CryptTKitSProvider> provider = token->sp();
  token.reset();
  EXPECT_TRUE(provider.expired());
  leavesOpen({kCardSession});
}

}  // namespace
}  // namespace mirel::test
