#include <functional>

#include "framework/MirelCTKFramework.h"
#include "provider/CryptTKitSProvider.h"
#include "token/MirelSCTokenDriver.h"
#include "token/TokenTest.h"

namespace mirel::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr const char* kStart = "default: CTK [MirelSCToken-31] +++Start+++";
constexpr const char* kOldProvider = "default: CTK [MirelSCToken-33] nil != sp";
constexpr const char* kReleased = "default: CTK [MirelSCToken-35] After releaseWithMirelCTKFramework";
constexpr const char* kNoProvider =
    "error: [MirelSCToken-39] CryptTKitSProvider initWithMirelCTKFramwork fail!!!";
constexpr const char* kNoDescription =
    "error: [CryptTKitSProvider: 54] -[CryptTKitSProvider getSupportedTokenDescription:] _pCTKFramework "
    "EnumCards failed";
constexpr const char* kNoTokenId = "error: [MirelSCToken-48] Get token ID fail";
constexpr const char* kNoCertificates = "error: [MirelSCToken-64] CryptTKitSProvider getTokenCerts fail";
constexpr const char* kOneCertificate = "default: CTK [MirelSCToken-66] certs count = 1";
constexpr const char* kEnd = "default: CTK [MirelSCToken-143] ---END---";

/// What the default card is called: the 96 bytes from label to serial number with the first two bytes of
/// the flags (0x40D), then the serial number and the same two bytes again.
const Text kInstanceID{
    u"TESTCARD                        "
    u"Scripted cards                  "
    u"Script 1        "
    u"1234567890ABCDEF"
    u"\x0D\x04"
    u"1234567890ABCDEF"
    u"\x0D\x04"};
const std::string kInstanceIdLine = "process: [MirelSCToken-52] instanceID = " + kInstanceID.toUtf8();

class InitToken : public TokenTest {
 protected:
  InitToken() {
    token.emplace(services(), &calls);
    leavesOpen({kCardSession});
  }

  std::optional<FakeToken> token;
};

// ---- The good way ----

TEST_F(InitToken, AsksThePlatformInOrderLogsItsWayAndLeavesErrorsAlone) {
  for (const auto& before : kErrorsBefore) {
    resetCard();
    log->allLines.clear();
    calls.clear();
    std::optional<TKError> error = before;
    EXPECT_TRUE(FakeToken(services(), &calls).init(&error));
    EXPECT_EQ(error, before);
    EXPECT_THAT(calls, ElementsAre("card.name", "super", std::string{"append "} + kCertificateItem,
                                   std::string{"initKey "} + kNewKeyItem, std::string{"append "} + kKeyItem,
                                   "fillWithItems"));
    EXPECT_THAT(log->allLines, ElementsAre(kStart, moduleLine(), kInstanceIdLine, kOneCertificate, kKeyStart,
                                           kKeyEnd, kEnd));
  }
}

TEST_F(InitToken, RegistersTheTokenByItsIdentifierOnceAndBeforeTheCardSession) {
  std::size_t numCalls = 0;
  token->whenRegistered = [&] {
    EXPECT_THAT(log->allLines, ElementsAre(kStart, moduleLine(), kInstanceIdLine));
    EXPECT_TRUE(token->core.sp());
    // Closed again: it only served to read the token's information.
    EXPECT_EQ(script.countOf("C_OpenSession"), 1U);
    numCalls = script.calls().size();
  };
  token->isRefused = true;
  EXPECT_FALSE(token->core.sp());
  EXPECT_FALSE(token->init());
  EXPECT_EQ(script.calls().size(), numCalls) << "a platform that refuses leaves the card alone";
  token->isRefused = false;
  resetCard();
  log->allLines.clear();
  EXPECT_TRUE(token->init());
  EXPECT_THAT(token->instanceIDs, ElementsAre(kInstanceID, kInstanceID));
  EXPECT_EQ(script.countOf("C_OpenSession"), 3U);
}

TEST_F(InitToken, HasAProviderOfItsOwnWhichItDropsWhenItEnds) {
  FakeToken other{services()};
  EXPECT_TRUE(token->init());
  EXPECT_TRUE(other.init());
  EXPECT_NE(token->core.sp(), other.core.sp());
  EXPECT_EQ(itemTexts(token->contents.items()), itemTexts(other.contents.items()));
  const std::weak_ptr<CryptTKitSProvider> provider = token->core.sp();
  token.reset();
  EXPECT_TRUE(provider.expired());
  leavesOpen({kCardSession, kCardSession + 3});
}

/// The name of no reader is what every name begins with.
TEST_F(InitToken, UsesTheCardInTheNamedReaderAndTheFirstForAConnectionToNone) {
  const CK_SLOT_ID other = script.addSlot("Reader B 01", emptyCard("OTHER", "42"));
  script.addObject(ecPublicKey(bytesOf("B2"), bytesOf("Theirs"), p256Params(), p256Point(3)), other);
  script.addObject(certificate(bytesOf("B2"), bytesOf("Theirs"), testCertificate({})), other);
  token->card.readerName = Text{u"Reader B"};
  EXPECT_TRUE(token->init());
  EXPECT_EQ(token->instanceIDs.at(0).units().substr(0, 6), u"OTHER ");
  EXPECT_THAT(itemTexts(token->contents.items()),
              ElementsAre("certificate cert_Theirs_B2, label B2",
                          "key B2, label B2, certificate cert_Theirs_B2, PIN always, {}"));
  FakeToken first{services()};
  first.card.isConnected = false;
  EXPECT_TRUE(first.init());
  EXPECT_THAT(first.instanceIDs, ElementsAre(kInstanceID));
  leavesOpen({kCardSession, kCardSession + 3});
}

TEST_F(InitToken, PublishesInTheOrderOfTheCardsCertificatesAndAllAtOnce) {
  addKeyAndCertificate(bytesOf("03"), bytesOf("Third"), {.keyUsage = kKeyEncipherment});
  addKeyAndCertificate(bytesOf("02"), bytesOf("Second"), {.keyUsage = kKeyAgreement});
  EXPECT_TRUE(token->init());
  ASSERT_THAT(token->contents.fills, SizeIs(1));
  EXPECT_THAT(itemTexts(token->contents.items()),
              ElementsAre(kCertificateItem, kKeyItem, "certificate cert_Third_03, label 03",
                          "key 03, label 03, certificate cert_Third_03, can decrypt, for login, PIN always, "
                          "{3: PINAlways}",
                          "certificate cert_Second_02, label 02",
                          "key 02, label 02, certificate cert_Second_02, can exchange keys, PIN always, "
                          "{4: PINAlways}"));
  EXPECT_THAT(log->allLines, Contains("default: CTK [MirelSCToken-66] certs count = 3"));
}

TEST_F(InitToken, FillsTheContentsWithNothingFromACardWithoutCertificates) {
  script.card().objects.clear();
  EXPECT_TRUE(token->init());
  ASSERT_THAT(token->contents.fills, SizeIs(1));
  EXPECT_THAT(token->contents.items(), IsEmpty());
  EXPECT_THAT(log->allLines, Contains("default: CTK [MirelSCToken-66] certs count = 0"));
}

// ---- What can go wrong ----

TEST_F(InitToken, FailsOrStaysEmptyWithTheErrorAndTheLinesOfThatFailure) {
  const struct {
    const char* name;
    std::function<void()> arrange;
    std::vector<std::string> lines;  ///< behind those for the start and the module
    PortCalls calls = {"card.name"};
    bool keepsProvider = true;
    bool isMade = false;  ///< and has opened its session
  } rows[] = {
      {"the module cannot be initialised",
       [&] { script.failCallOf("C_Initialize", 0, CKR_GENERAL_ERROR); },
       {kNoProvider},
       {},
       false},
      {"the card does not answer", [&] { script.pullCard(); }, {kNoDescription, kNoTokenId}},
      {"there is no such reader",
       [&] { token->card.readerName = Text{u"Reader Z"}; },
       {kNoDescription, kNoTokenId}},
      {"the identifier is empty",
       [&] { script.card().info.label[0] = script.card().info.serialNumber[0] = 0; },
       {kNoTokenId}},
      {"the platform refuses the token",
       [&] { token->isRefused = true; },
       {kInstanceIdLine, kEnd},
       {"card.name", "super"},
       false},
      {"the certificates cannot be listed",
       [&] { script.failCallOf("C_FindObjectsInit", 0, CKR_DEVICE_ERROR); },
       {kInstanceIdLine, kNoCertificates, kEnd},
       {"card.name", "super"},
       true,
       true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto init = [&](TKErrorPointer outError) {
      resetCard();
      log->allLines.clear();
      calls.clear();
      token.emplace(services(), &calls);
      row.arrange();
      EXPECT_EQ(token->init(outError), row.isMade);
      EXPECT_THAT(calls, ElementsAreArray(row.calls));
      EXPECT_EQ(token->core.sp() != nullptr, row.keepsProvider);
      EXPECT_EQ(script.openSessions().size(), row.isMade ? 1U : 0U);
      std::vector<std::string> expected = row.lines;
      // Without an error pointer there is no line for the error either.
      if (!outError) std::erase(expected, kNoTokenId);
      expected.insert(expected.begin(), {kStart, moduleLine()});
      EXPECT_EQ(log->allLines, expected);
    };
    init(nullptr);
    for (const auto& before : kErrorsBefore) {
      std::optional<TKError> error = before;
      init(&error);
      // The line for an identifier that is not there stands for the one error there is.
      EXPECT_EQ(error, row.lines.back() == kNoTokenId ? tokenError(-6) : before);
    }
  }
}

// ---- A provider from before ----

TEST_F(InitToken, ReplacesTheOldProviderIfItCan) {
  EXPECT_TRUE(token->init());
  const std::weak_ptr<CryptTKitSProvider> old = token->core.sp();
  ASSERT_FALSE(old.expired());
  log->allLines.clear();
  EXPECT_TRUE(token->init());
  EXPECT_TRUE(old.expired());
  EXPECT_TRUE(token->core.sp());
  EXPECT_EQ(script.countOf("C_Finalize"), 0U);
  EXPECT_THAT(log->allLines, ElementsAre(kStart, kOldProvider, kReleased, moduleLine(), kInstanceIdLine,
                                         kOneCertificate, kKeyStart, kKeyEnd, kEnd));
  script.failCallOf("C_Initialize", 0, CKR_DEVICE_ERROR);
  log->allLines.clear();
  EXPECT_FALSE(token->init());
  EXPECT_FALSE(token->core.sp());
  EXPECT_THAT(log->allLines, ElementsAre(kStart, kOldProvider, kReleased, moduleLine(), kNoProvider));
  leavesOpen({kCardSession, kCardSession + 3});
}

TEST_F(InitToken, ReleasesTheOldProvider) {
  const auto old = std::make_shared<CryptTKitSProvider>(services());
  // One that can be closed: its service was never opened.
  old->setPCTKFramework(std::make_shared<MirelCTKFramework>(services()));
  token->core.setSp(old);
  EXPECT_TRUE(token->init());
  EXPECT_FALSE(old->pCTKFramework());
}

// ---- The driver ----

TEST_F(InitToken, IsMadeByTheDriverBetweenItsLines) {
  MirelSCTokenDriver driver{services()};
  for (const Text& shown : {Text{u"<MirelSCToken: 0x1>"}, Text{u"(null)"}, Text{}}) {
    log->allLines.clear();
    int numMade = 0;
    driver.createTokenForSmartCard([&] {
      ++numMade;
      log->process("the token");
      return shown;
    });
    EXPECT_EQ(numMade, 1);
    EXPECT_THAT(log->allLines,
                ElementsAre("default: CTK [MirelSCTokenDriver-13] +++Start+++", "process: the token",
                            "process: [MirelSCTokenDriver-15] token = " + shown.orNullMark().toUtf8(),
                            "default: CTK [MirelSCTokenDriver-16] ---END---"));
  }
  leavesOpen({});
}

}  // namespace
}  // namespace mirel::test
