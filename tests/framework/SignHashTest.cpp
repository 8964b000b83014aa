/// Signing a hash: which mechanism, which calls, what the caller gets.

#include "framework/CardOperationsTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::EndsWith;
using ::testing::IsEmpty;

class PerformSignHash : public CardOperationsTest {
 protected:
  bool sign(ResultBuffer& output) {
    length = output.capacity();
    return signTo(output.data());
  }
  bool signTo(CK_BYTE* output) {
    return framework->PerformSignHash("Reader A 00", key, algorithm, 0, data.data(), data.size(),
                                      std::span{output, output ? length : 0}, &length);
  }

  /// 32 bytes, as PSS with SHA-256 wants them.
  const Value data = Value(32, 0xAB);
  const std::string dataText = [] {
    std::string text;
    for (int i = 0; i < 32; ++i) text += "AB";
    return text;
  }();
  Text algorithm{u"algorithm"};
  CK_ULONG length = 0;
};

// ---- Raw RSA ----

TEST_F(PerformSignHash, TakesTheRoomOfTheBufferForItsCapacityWhereThatIsLess) {
  const struct {
    std::size_t room;
    CK_ULONG length;
    bool fits;
  } rows[] = {
      {256, 300, true}, {256, ~CK_ULONG{0}, true}, {300, 256, true}, {255, 300, false}, {300, 255, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.room) + ", " + std::to_string(row.length));
    ResultBuffer output{row.room};
    length = row.length;
    EXPECT_EQ(framework->PerformSignHash("Reader A 00", key, algorithm, 0, data.data(), data.size(),
                                         std::span{output.data(), row.room}, &length),
              row.fits);
    EXPECT_EQ(length, 256U);
    EXPECT_TRUE(row.fits ? output.first(256) == resultOf(3, data, 256) : output.untouched());
  }
}

TEST_F(PerformSignHash, MakesExactlyTheseCallsForRawRsa) {
  ResultBuffer output{256};
  EXPECT_TRUE(sign(output));
  EXPECT_THAT(script.callTexts(), ElementsAreArray(inOrder({lookUpCalls(),
                                                            modulusCalls(kPublicKey),
                                                            {"C_SignInit(5, CKM 3 null 0, 22)",
                                                             "C_Sign(5, " + dataText + ", room 512)"}})));
}

TEST_F(PerformSignHash, WritesTheRawSignatureAndItsLength) {
  for (const std::size_t capacity : {256U, 300U, 512U, 2000U}) {
    SCOPED_TRACE(capacity);
    ResultBuffer output{capacity};
    EXPECT_TRUE(sign(output));
    EXPECT_EQ(length, 256U);
    EXPECT_EQ(output.first(256), resultOf(3, data, 256));
    EXPECT_TRUE(output.untouchedFrom(256));
  }
}

TEST_F(PerformSignHash, AnswersTheLengthWithoutABuffer) {
  for (const CK_ULONG entry : {CK_ULONG{0}, CK_ULONG{1}, CK_ULONG{512}, ~CK_ULONG{0}}) {
    SCOPED_TRACE(entry);
    script.forgetCalls();
    length = entry;
    EXPECT_TRUE(signTo(nullptr));
    EXPECT_EQ(length, 256U);
    // By signing for real.
    EXPECT_THAT(script.callTexts().back(), EndsWith("room 512)"));
  }
}

TEST_F(PerformSignHash, AnswersTheLengthOfTheSignatureNotOfTheModulus) {
  script.deviations.claimedResults["C_Sign"] = {200, std::nullopt};
  ResultBuffer output{256};
  EXPECT_TRUE(sign(output));
  EXPECT_EQ(length, 200U);
  EXPECT_EQ(output.first(200), resultOf(3, data, 200));
  EXPECT_TRUE(output.untouchedFrom(200));
}

TEST_F(PerformSignHash, WritesNothingOfAnEmptySignature) {
  script.deviations.claimedResults["C_Sign"] = {0, std::nullopt};
  ResultBuffer output{256};
  EXPECT_TRUE(sign(output));
  EXPECT_EQ(length, 0U);
  EXPECT_TRUE(output.untouched());
}

TEST_F(PerformSignHash, SignsWithKeysThatFitTheBuffer) {
  const struct {
    std::size_t modulusLen;
    std::size_t capacity;
  } rows[] = {{128, 128}, {128, 256}, {256, 256}, {384, 384}, {512, 512}, {512, 600}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.modulusLen);
    SCOPED_TRACE(row.capacity);
    setModulusLen(row.modulusLen);
    ResultBuffer output{row.capacity};
    EXPECT_TRUE(sign(output));
    EXPECT_EQ(length, row.modulusLen);
    EXPECT_EQ(output.first(row.modulusLen), resultOf(3, data, row.modulusLen));
    EXPECT_TRUE(output.untouchedFrom(row.modulusLen));
  }
}

TEST_F(PerformSignHash, FailsForASignatureLongerThanTheBuffer) {
  const struct {
    const char* name;
    std::size_t modulusLen;
    std::size_t capacity;
  } rows[] = {
      {"4096 bits over 256 bytes", 512, 256},
      {"3072 bits over 256 bytes", 384, 256},
      {"one byte over", 512, 511},
      {"2048 bits over one byte", 256, 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    setModulusLen(row.modulusLen);
    ResultBuffer output{row.capacity};
    EXPECT_FALSE(sign(output));
    EXPECT_EQ(length, row.modulusLen);
    EXPECT_TRUE(output.untouched());
  }
}

TEST_F(PerformSignHash, FailsForABufferWithoutRoom) {
  ResultBuffer output{1};
  length = 0;
  EXPECT_FALSE(signTo(output.data()));
  EXPECT_EQ(length, 256U);
  EXPECT_TRUE(output.untouched());
}

// ---- PSS ----

TEST_F(PerformSignHash, MakesExactlyTheseCallsForPss) {
  key->setKeyName(Text{u"RSA PSS"});
  ResultBuffer output{256};
  EXPECT_TRUE(sign(output));
  EXPECT_THAT(script.callTexts(), ElementsAreArray(inOrder({lookUpCalls(),
                                                            modulusCalls(kPublicKey),
                                                            lookUpCalls(kPrivateKey),
                                                            modulusCalls(kPrivateKey),
                                                            {"C_SignInit(5, CKM 13 [592, 2, 32] 24, 22)",
                                                             "C_Sign(5, " + dataText + ", room 256)"}})));
}

TEST_F(PerformSignHash, KeepsThePssSignatureToItself) {
  key->setKeyName(Text{u"RSA PSS"});
  for (const std::size_t capacity : {1U, 256U, 512U}) {
    SCOPED_TRACE(capacity);
    ResultBuffer output{capacity};
    EXPECT_TRUE(sign(output));
    EXPECT_EQ(length, 256U);
    EXPECT_TRUE(output.untouched());
  }
  length = 3;
  EXPECT_TRUE(signTo(nullptr));
  EXPECT_EQ(length, 256U);
}

TEST_F(PerformSignHash, AnswersTheLengthOfThePublicModulusForPss) {
  key->setKeyName(Text{u"RSA PSS"});
  script.object(kPublicKey).attributes[CKA_MODULUS] = patternValue(384, 1);
  ResultBuffer output{512};
  EXPECT_TRUE(sign(output));
  EXPECT_EQ(length, 384U);
  EXPECT_THAT(script.callTexts().back(), EndsWith("room 256)"));  // the private one's
}

// ---- The choice ----

enum class Mechanism { kNone, kRaw, kPss };

TEST_F(PerformSignHash, FollowsTheNameOfTheKey) {
  const struct {
    const char* what;
    Text name;
    Mechanism expected;
  } rows[] = {
      {"as listed", Text{u"1234_RSA_01_MyKey"}, Mechanism::kRaw},
      {"small letters", Text{u"1234_rsa_01_MyKey"}, Mechanism::kRaw},
      {"mixed letters", Text{u"rSa"}, Mechanism::kRaw},
      {"within a word", Text{u"adversary"}, Mechanism::kRaw},
      {"in the label alone", Text{u"1234_(null)01_my rsa key"}, Mechanism::kRaw},
      {"both", Text{u"1234_RSA_01_PSS"}, Mechanism::kPss},
      {"both, small", Text{u"rsa pss"}, Mechanism::kPss},
      {"both, mixed", Text{u"RsA pSs"}, Mechanism::kPss},
      {"both, the other way round", Text{u"PSS_RSA"}, Mechanism::kPss},
      {"both, within words", Text{u"adversary upsset"}, Mechanism::kPss},
      {"both, one behind the other", Text{u"RSAPSS"}, Mechanism::kPss},
      {"both, next to other scripts", Text{u"\u00E4RSA\u4E2DPSS\U0001F511"}, Mechanism::kPss},
      {"PSS interrupted", Text{u"RSA_P_SS"}, Mechanism::kRaw},
      {"no prefix", Text{u"1234_(null)01_MyKey"}, Mechanism::kNone},
      {"EC", Text{u"1234_EC_01_MyKey"}, Mechanism::kNone},
      {"PSS alone", Text{u"1234_EC_01_PSS"}, Mechanism::kNone},
      {"RSA interrupted", Text{u"R_SA"}, Mechanism::kNone},
      {"RSA cut off", Text{u"RS"}, Mechanism::kNone},
      {"empty", Text{u""}, Mechanism::kNone},
      {"null", Text{}, Mechanism::kNone},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    key->setKeyName(row.name);
    script.forgetCalls();
    ResultBuffer output{256};
    EXPECT_TRUE(sign(output));
    EXPECT_EQ(length, 256U);
    std::vector<std::string> expected;
    if (row.expected == Mechanism::kRaw) expected = {"C_SignInit(5, CKM 3 null 0, 22)"};
    if (row.expected == Mechanism::kPss) expected = {"C_SignInit(5, CKM 13 [592, 2, 32] 24, 22)"};
    EXPECT_EQ(script.callTexts("C_SignInit"), expected);
    EXPECT_EQ(script.countOf("C_Sign"), expected.size());
    EXPECT_EQ(output.untouched(), row.expected != Mechanism::kRaw);
  }
}

TEST_F(PerformSignHash, DoesNothingForAKeyWithoutTheLettersButLookForIt) {
  key->setKeyName(Text{u"1234_(null)01_MyKey"});
  ResultBuffer output{256};
  EXPECT_TRUE(sign(output));
  EXPECT_THAT(script.callTexts(), ElementsAreArray(inOrder({lookUpCalls(), modulusCalls(kPublicKey)})));
  EXPECT_EQ(length, 256U);
  EXPECT_TRUE(output.untouched());
}

TEST_F(PerformSignHash, DoesNotLookAtTheAlgorithm) {
  for (const Text& name : {Text{u"algid:sign:RSA:digest-PSS:SHA256"}, Text{u"PSS"}, Text{u""}, Text{}}) {
    algorithm = name;
    script.forgetCalls();
    ResultBuffer output{256};
    EXPECT_TRUE(sign(output));
    EXPECT_THAT(script.callTexts("C_SignInit"), ElementsAre("C_SignInit(5, CKM 3 null 0, 22)"));
  }
}

TEST_F(PerformSignHash, DoesNotLookAtTheFlags) {
  for (const CK_ULONG flag : {CK_ULONG{1}, CK_ULONG{0x80000000}, ~CK_ULONG{0}}) {
    SCOPED_TRACE(flag);
    ResultBuffer output{256};
    length = 256;
    EXPECT_TRUE(framework->PerformSignHash("Reader A 00", key, algorithm, flag, data.data(), data.size(),
                                           std::span{output.data(), output.capacity()}, &length));
    EXPECT_EQ(output.all(), resultOf(3, data, 256));
  }
}

TEST_F(PerformSignHash, SignsOnAndOn) {
  ResultBuffer output{256};
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(sign(output));
  EXPECT_EQ(script.countOf("C_Sign"), 20U);
  EXPECT_THAT(script.openOperations(), IsEmpty());
  EXPECT_EQ(memory->outstanding(), 0U);
}

// ---- The log ----

TEST_F(PerformSignHash, LogsTheAlgorithmTheKeyAndItsName) {
  ResultBuffer output{256};
  EXPECT_TRUE(sign(output));
  EXPECT_THAT(
      log->allLines,
      ElementsAre("process: [-[MirelCTKFramework PerformSignHash::::::::]-437] pccAlgName = algorithm",
                  "process: [-[MirelCTKFramework PerformSignHash::::::::]-462] key ID = 01, public key = 15",
                  "process: [-[MirelCTKFramework PerformSignHash::::::::]-480] keyName = "
                  "1234567890ABCDEF_RSA_01_MyKey"));
}

TEST_F(PerformSignHash, LogsTheAlgorithmBeforeItRefuses) {
  framework->setP11ServiceInfo(nullptr);
  ResultBuffer output{256};
  EXPECT_FALSE(sign(output));
  EXPECT_THAT(log->allLines,
              ElementsAre("process: [-[MirelCTKFramework PerformSignHash::::::::]-437] pccAlgName = "
                          "algorithm"));
}

TEST_F(PerformSignHash, LogsNullsAsSuch) {
  algorithm = Text{};
  key->setKeyID(Text{});
  key->setKeyName(Text{});
  ResultBuffer output{256};
  EXPECT_TRUE(sign(output));
  EXPECT_THAT(log->processLines, ElementsAre(EndsWith("-437] pccAlgName = (null)"),
                                             EndsWith("-462] key ID = (null), public key = 15"),
                                             EndsWith("-480] keyName = (null)")));
}

TEST_F(PerformSignHash, LogsHandlesInHexadecimalDigits) {
  const struct {
    CK_OBJECT_HANDLE handle;
    const char* digits;
  } rows[] = {{0, "0"}, {0x15, "15"}, {0xABCDEF0123, "ABCDEF0123"}, {~CK_ULONG{0}, "FFFFFFFFFFFFFFFF"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.digits);
    log->processLines.clear();
    key->setHPubKey(row.handle);
    ResultBuffer output{256};
    EXPECT_EQ(sign(output), row.handle == kPublicKey);
    ASSERT_GE(log->processLines.size(), 2U);
    EXPECT_THAT(log->processLines[1], EndsWith(std::string{", public key = "} + row.digits));
  }
}

TEST_F(PerformSignHash, LogsTextOfTheCardAsTextOnly) {
  algorithm = Text{u"%s%n%@"};
  key->setKeyID(Text{u"%lX %d"});
  key->setKeyName(Text{u"RSA %n%s%@"});
  ResultBuffer output{256};
  EXPECT_TRUE(sign(output));
  EXPECT_THAT(log->processLines,
              ElementsAre(EndsWith("] pccAlgName = %s%n%@"), EndsWith("] key ID = %lX %d, public key = 15"),
                          EndsWith("] keyName = RSA %n%s%@")));
}

}  // namespace
}  // namespace mirel::test
