#include <array>
#include <cstring>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "ArgumentTable.h"
#include "CallNote.h"
#include "RecordedBridge.h"
#include "bridge/CardRules.h"
#include "recording/CallText.h"
#include "recording/RecordingFile.h"

namespace mirel::test {
namespace {

using namespace recording;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

std::string sourceOf(const std::filesystem::path& file) {
  std::ostringstream text;
  text << std::ifstream{file}.rdbuf();
  return text.str();
}

TEST(ArgumentTable, HasEveryFunctionThatTheBridgeCalls) {
  const std::regex call{"&CK_FUNCTION_LIST::(C_[A-Za-z]+)"};
  std::set<std::string> called;
  for (const auto& file : std::filesystem::directory_iterator{MIREL_SOURCE_FOLDER "/bridge/src"}) {
    const std::string source = sourceOf(file.path());
    for (std::sregex_iterator one{source.begin(), source.end(), call}, end; one != end; ++one)
      called.insert((*one)[1]);
  }
  std::set<std::string> known;
  for (const FunctionRow& row : functionTable()) known.emplace(row.function);
  EXPECT_EQ(known, called);
}

/// Those that a certificate, a public key and a private key have, and that may be known.
TEST(ArgumentTable, LetsNoSecretOfAKeyBeKnown) {
  // CKA_VALUE of other objects, CKA_PRIVATE_EXPONENT, the primes, exponents and the coefficient of RSA, and
  // whatever is not known.
  for (const CK_ATTRIBUTE_TYPE type : {0x123UL, 0x124UL, 0x125UL, 0x126UL, 0x127UL, 0x128UL, 0x80000001UL})
    EXPECT_EQ(attributeForm(type), AttributeForm::kHidden) << type;
  EXPECT_EQ(attributeForm(CKA_VALUE), AttributeForm::kCertificate);
}

class RecorderTest : public RecordedBridgeTest {
 protected:
  /// Shows the bridge an object of that class, whose value is read.
  RecordedCall readingOf(CK_OBJECT_CLASS searched, CK_OBJECT_HANDLE object) {
    EXPECT_TRUE(bridge->pkcs11_Load(Text{}));
    EXPECT_EQ(bridge->pkcs11_Initial(nullptr), CKR_OK);
    std::shared_ptr<PKCS11_SERVICE_INFO> record;
    EXPECT_EQ(bridge->pkcs11_OpenReadOnlySession(kSlot, &record), CKR_OK);
    leavesOpen({record->hSession()});
    CK_ATTRIBUTE filter{CKA_CLASS, &searched, sizeof searched};
    CK_OBJECT_HANDLE found[4] = {};
    CK_ULONG count = 0;
    EXPECT_EQ(bridge->pkcs11_FindObjects(record->hSession(), &filter, 1, found, &count, 4), CKR_OK);
    Value value(2000);
    CK_ULONG length = value.size();
    (void)bridge->pkcs11_getCertificate(record->hSession(), object, value.data(), &length);
    return kept->calls().back();
  }

  static std::string fileOf(const KeptRecords& kept) {
    Recording all;
    all.records = kept.records;
    return textOf(all);
  }
};

TEST_F(RecorderTest, HandsOnWhatIsAskedAndAnswered) {
  const std::string recorded = useEverything(*bridge);
  leavesOpen(script.openSessions());
  prepareCard();
  P11Bridge alone{services()};
  EXPECT_EQ(useEverything(alone), recorded);
  EXPECT_THAT(recorded, HasSubstr("login 0\nsign 0\n"));
  leavesOpen(script.openSessions());
}

TEST_F(RecorderTest, NotesEachCallWithItsRoad) {
  ASSERT_TRUE(bridge->pkcs11_Load(Text{}));
  ASSERT_EQ(bridge->pkcs11_Initial(nullptr), CKR_OK);
  std::vector<CK_SLOT_ID> slots;
  ASSERT_EQ(bridge->inspectSlots(true, slots), CKR_OK);
  std::vector<std::string> lines;
  for (const RecordedCall& call : kept->calls())
    lines.push_back((call.road == Road::kToken ? "token " : "host ") + call.function + " " +
                    resultText(call.result));
  EXPECT_THAT(lines, ElementsAre("token C_GetFunctionList CKR_OK", "token C_Initialize CKR_OK",
                                 "host C_GetSlotList CKR_OK", "host C_GetSlotList CKR_OK"));
}

TEST_F(RecorderTest, TellsOfEachCallBeforeItIsMade) {
  (void)useEverything(*bridge);
  leavesOpen(script.openSessions());
  std::vector<RecordedCall> calls = kept->calls();
  ASSERT_EQ(kept->started.size(), calls.size());
  for (std::size_t i = 0; i < calls.size(); ++i) {
    SCOPED_TRACE(calls[i].function);
    calls[i].out.clear();
    calls[i].result = calls[i].microseconds = 0;
    EXPECT_EQ(kept->started[i], (std::pair{i, calls[i]}));
  }
}

TEST_F(RecorderTest, LeavesTheListAsTheModuleHasIt) {
  script.removeEntry("C_Sign");
  ASSERT_TRUE(bridge->pkcs11_Load(Text{}));
  EXPECT_THAT(bridge->missingEntries(), ElementsAre(::testing::StrEq("C_Sign")));
  EXPECT_EQ(bridge->listVersion().major, scriptedFunctions()->version.major);
  EXPECT_EQ(bridge->listVersion().minor, scriptedFunctions()->version.minor);
}

TEST_F(RecorderTest, TellsTheValueOfACertificateAlone) {
  const Value der = sequenceOf(300);
  setValue(kCertificate, der);
  const RecordedCall read = readingOf(CKO_CERTIFICATE, kCertificate);
  EXPECT_THAT(lineOf(Record{read}), HasSubstr("{\"hex\":\"" + hexText(der) + "\"}"));
}

TEST_F(RecorderTest, HidesWhatOnlyCallsItselfACertificate) {
  setValue(kCertificate, patternValue(300, 0x30));
  EXPECT_THAT(lineOf(Record{readingOf(CKO_CERTIFICATE, kCertificate)}),
              HasSubstr("\"value\":{\"hidden\":300}"));
}

TEST_F(RecorderTest, HidesAPrivateKeyThatIsCalledACertificate) {
  Value key = sequenceOf(300);
  key[4] = 0x02;  // a version, an INTEGER
  setValue(kCertificate, key);
  EXPECT_THAT(lineOf(Record{readingOf(CKO_CERTIFICATE, kCertificate)}),
              HasSubstr("\"value\":{\"hidden\":304}"));
}

TEST(FoundCertificates, AreNoneWhenTheirHandleIsThatOfADerivedKey) {
  const auto number = [](std::uint64_t value) { return recording::Value{value}; };
  const Fields inSession{{"session", number(1)}};
  const List search{
      recording::Value{Fields{{"type", {std::string{"CKA_CLASS"}}}, {"value", number(CKO_CERTIFICATE)}}}};
  const Fields found{{"count", number(1)}, {"value", {List{number(9)}}}};
  FoundCertificates certificates;
  certificates.learn({.function = "C_OpenSession", .in = {{"slot", number(4)}}, .out = inSession});
  certificates.learn(
      {.function = "C_FindObjectsInit", .in = {{"session", number(1)}, {"attributes", {search}}}});
  certificates.learn({.function = "C_FindObjects", .in = inSession, .out = {{"objects", {found}}}});
  const Fields read{{"session", number(1)}, {"object", number(9)}};
  EXPECT_TRUE(certificates.isAbout("C_GetAttributeValue", read));
  certificates.learn({.function = "C_DeriveKey", .in = inSession, .out = {{"key", number(9)}}});
  EXPECT_FALSE(certificates.isAbout("C_GetAttributeValue", read));
}

TEST_F(RecorderTest, TellsTheSlotsOfAListThatCountsTooMany) {
  ASSERT_TRUE(bridge->pkcs11_Load(Text{}));
  ASSERT_EQ(bridge->pkcs11_Initial(nullptr), CKR_OK);
  script.deviations.slotCountOnList = kAnnouncedSlots + 2;
  CK_SLOT_ID slots[kAnnouncedSlots] = {};
  CK_ULONG count = 0;
  ASSERT_EQ(bridge->pkcs11_C_GetSlotList(CK_TRUE, slots, &count), CKR_OK);
  EXPECT_EQ(slots[0], kSlot);
  EXPECT_THAT(lineOf(Record{kept->calls().back()}), HasSubstr(R"("slots":{"count":12,"value":[1,0,)"));
}

TEST_F(RecorderTest, HidesTheValueOfWhatWasFoundOtherwise) {
  setValue(kPublicKey, sequenceOf(300));
  EXPECT_THAT(lineOf(Record{readingOf(CKO_PUBLIC_KEY, kPublicKey)}), HasSubstr("\"value\":{\"hidden\":304}"));
}

TEST_F(RecorderTest, KeepsNoSecret) {
  (void)useEverything(*bridge);
  leavesOpen(script.openSessions());
  const std::string file = fileOf(*kept);
  const Value secret = script.card().objects.rbegin()->second.attributes.at(CKA_VALUE);
  for (const Value& hidden : {bytesOf(kPin), bytesOf("654321"), bytesOf(kPlainText), kData, secret}) {
    EXPECT_EQ(file.find(hexText(hidden)), std::string::npos) << hexText(hidden);
    EXPECT_EQ(file.find(std::string{hidden.begin(), hidden.end()}), std::string::npos) << hexText(hidden);
  }
  EXPECT_THAT(file, HasSubstr(R"("function":"C_Login")"));
  EXPECT_THAT(file, HasSubstr(R"("plainText":{"count":22,"value":{"hidden":22}})"));
}

TEST_F(RecorderTest, KeepsTheValuesThatCameBesideOneThatDidNot) {
  const std::pair<CK_RV, bool> rows[] = {{CKR_OK, true},
                                         {CKR_ATTRIBUTE_SENSITIVE, true},
                                         {CKR_ATTRIBUTE_TYPE_INVALID, true},
                                         {CKR_BUFFER_TOO_SMALL, true},
                                         {CKR_DEVICE_ERROR, false}};
  ASSERT_TRUE(bridge->pkcs11_Load(Text{}));
  CK_RV answer = CKR_OK;
  script.hook<&CK_FUNCTION_LIST::C_GetAttributeValue>([&](auto, auto, auto, CK_ATTRIBUTE* attributes, auto) {
    std::memcpy(attributes[0].pValue, "MyKey", 5);
    attributes[0].ulValueLen = 5;
    return answer;
  });
  for (const auto& [result, isKept] : rows) {
    answer = result;
    std::array<CK_BYTE, 8> label{};
    CK_ATTRIBUTE entry{CKA_LABEL, label.data(), label.size()};
    EXPECT_EQ(bridge->inspectAttributes(1, kPublicKey, {&entry, 1}), result);
    EXPECT_EQ(lineOf(Record{kept->calls().back()}).find(R"("value":"MyKey")") != std::string::npos, isKept)
        << resultText(result);
  }
}

TEST_F(RecorderTest, FollowsNoPointerAndNoLengthOfTheModule) {
  script.deviations.claimedLengths[CKA_VALUE] = {std::nullopt, 100000};
  const RecordedCall read = readingOf(CKO_CERTIFICATE, kCertificate);
  EXPECT_THAT(lineOf(Record{read}), Not(HasSubstr("\"value\"")));
}

}  // namespace
}  // namespace mirel::test
