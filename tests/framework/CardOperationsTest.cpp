/// Signing and decrypting with a listed key: one table for all that the operations have in common, then what
/// only decrypting has. What only signing has is in SignHashTest.cpp.

#include <limits>
#include <ostream>

#include "framework/FrameworkTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;

const Value kData = patternValue(32, 0x41);
const Value kPlain = bytesOf("the plain text");
const Value kCipher = cipherOf(kPlain);

constexpr const char* kSignLine = "process: [-[MirelCTKFramework PerformSignHash::::::::]-";
constexpr const char* kOaepTail = "] -[MirelCTKFramework PerformOAEPDecrypt::::::::]";

/// Arguments apart from the key.
struct Arguments {
  const char* readerName = "Reader A 00";
  ResultBuffer output{256};
  CK_ULONG length = 256;
};

struct CardOperation {
  const char* name;
  Text keyName;
  bool (*run)(MirelCTKFramework&, const std::shared_ptr<PKCS11_ASYMKEY_INFO>&, Arguments&);
  std::vector<std::string> calls;
  /// The call that ends the last search, and nothing else depends on.
  std::size_t endOfLastSearch;
  std::size_t numAllocations;
  /// The lines of a success, and how many of them stand there after a guard has refused and when no private
  /// key was found.
  std::vector<std::string> lines;
  std::size_t linesWhenRefused = 0;
  std::size_t linesWithoutKey = 0;
  /// From this call on a failure is answered with success and zeros.
  std::size_t firstForgiven = std::numeric_limits<std::size_t>::max();
  Value result{};
};

bool signHash(MirelCTKFramework& framework, const std::shared_ptr<PKCS11_ASYMKEY_INFO>& key, Arguments& a) {
  return framework.PerformSignHash(a.readerName, key, Text{u"algorithm"}, 0, kData.data(), kData.size(),
                                   std::span{a.output.data(), a.output.capacity()}, &a.length);
}
bool oaepDecrypt(MirelCTKFramework& framework, const std::shared_ptr<PKCS11_ASYMKEY_INFO>& key,
                 Arguments& a) {
  return framework.PerformOAEPDecrypt(a.readerName, key, CKM_SHA256, kCipher.data(), kCipher.size(),
                                      a.output.data(), &a.length, a.output.capacity());
}
bool pkcs1Decrypt(MirelCTKFramework& framework, const std::shared_ptr<PKCS11_ASYMKEY_INFO>& key,
                  Arguments& a) {
  return framework.PerformPKCS1Decrypt(a.readerName, key, kCipher.data(), kCipher.size(), a.output.data(),
                                       &a.length, a.output.capacity());
}

std::vector<std::string> signLines(const std::string& keyName) {
  return {std::string{kSignLine} + "437] pccAlgName = algorithm",
          std::string{kSignLine} + "462] key ID = 01, public key = 15",
          std::string{kSignLine} + "480] keyName = " + keyName};
}

// Both ways to decrypt look for the key twice, as a test and then to use it, and mean CKM_RSA_PKCS.
const std::vector<std::string> kDecryptCalls =
    inOrder({lookUpCalls(kPublicKey),
             lookUpCalls(kPublicKey),
             modulusCalls(kPrivateKey),
             {"C_DecryptInit(5, CKM 1 null 0, 22)", "C_Decrypt(5, " + hexText(kCipher) + ", room 256)"}});

const CardOperation kOperations[] = {
    {.name = "RawSignature",
     .keyName = Text{u"1234_RSA_01_MyKey"},
     .run = &signHash,
     .calls = inOrder({lookUpCalls(kPublicKey),
                       modulusCalls(kPublicKey),
                       {"C_SignInit(5, CKM 3 null 0, 22)", "C_Sign(5, " + hexText(kData) + ", room 512)"}}),
     .endOfLastSearch = 5,
     .numAllocations = 1,
     .lines = signLines("1234_RSA_01_MyKey"),
     .linesWhenRefused = 1,
     .linesWithoutKey = 2,
     .firstForgiven = 9,
     .result = resultOf(CKM_RSA_X_509, kData, 256)},
    {.name = "PssSignature",
     .keyName = Text{u"1234_RSA_01_PSS"},
     .run = &signHash,
     .calls = inOrder(
         {lookUpCalls(kPublicKey),
          modulusCalls(kPublicKey),
          lookUpCalls(kPrivateKey),
          modulusCalls(kPrivateKey),
          {"C_SignInit(5, CKM 13 [592, 2, 32] 24, 22)", "C_Sign(5, " + hexText(kData) + ", room 256)"}}),
     .endOfLastSearch = 14,
     .numAllocations = 2,
     .lines = signLines("1234_RSA_01_PSS"),
     .linesWhenRefused = 1,
     .linesWithoutKey = 2},
    {.name = "OAEPDecryption",
     .keyName = Text{},
     .run = &oaepDecrypt,
     .calls = kDecryptCalls,
     .endOfLastSearch = 11,
     .numAllocations = 1,
     .lines = {std::string{"process: [MirelCTKFramework-552"} + kOaepTail,
               std::string{"process: [MirelCTKFramework-562"} + kOaepTail,
               std::string{"process: [MirelCTKFramework-570"} + kOaepTail},
     .linesWithoutKey = 1,
     .result = kPlain},
    {.name = "PKCS1Decryption",
     .keyName = Text{},
     .run = &pkcs1Decrypt,
     .calls = kDecryptCalls,
     .endOfLastSearch = 11,
     .numAllocations = 1,
     .lines = {"process: [MirelCTKFramework-607] -[MirelCTKFramework PerformPKCS1Decrypt:::::::]"},
     .result = kPlain},
};

void PrintTo(const CardOperation& operation, std::ostream* out) { *out << operation.name; }

class CardOperations : public FrameworkTest, public ::testing::WithParamInterface<CardOperation> {
 protected:
  CardOperations() { prepare(); }

  void prepare() {
    (void)startAnew();
    script.card().loggedIn = true;
    key = keys().front();
    key->setKeyName(GetParam().keyName);
  }

  bool run(Arguments& with) { return GetParam().run(*framework, key, with); }

  /// Expects that nothing was done and nothing written.
  void expectRefused(const char* readerName = "Reader A 00") {
    forgetAll();
    Arguments with{.readerName = readerName};
    EXPECT_FALSE(run(with));
    EXPECT_THAT(script.calls(), IsEmpty());
    expectLines(GetParam().linesWhenRefused);
    EXPECT_EQ(with.length, 256U);
    EXPECT_TRUE(with.output.untouched());
  }
  void expectLines(std::size_t numLines) {
    auto expected = GetParam().lines;
    expected.resize(numLines);
    EXPECT_EQ(log->allLines, expected);
  }

  std::shared_ptr<PKCS11_ASYMKEY_INFO> key;
};

INSTANTIATE_TEST_SUITE_P(All, CardOperations, ::testing::ValuesIn(kOperations),
                         [](const auto& row) { return row.param.name; });

TEST_P(CardOperations, MakeExactlyTheseCallsAndLogTheirWay) {
  key->setHPriKey(99);  // is not looked at
  Arguments with;
  EXPECT_TRUE(run(with));
  EXPECT_EQ(script.callTexts(), GetParam().calls);
  expectLines(GetParam().lines.size());
  EXPECT_EQ(with.output.first(GetParam().result.size()), GetParam().result);
  EXPECT_TRUE(with.output.untouchedFrom(GetParam().result.size()));
  EXPECT_EQ(with.length, GetParam().result.empty() ? 256U : GetParam().result.size());
}

TEST_P(CardOperations, EndAsTheFailingCallHasIt) {
  failEachCall(GetParam().calls.size(), [&](FailPoint& point) {
    prepare();
    Arguments with;
    point.arm();
    const bool succeeded = run(with);
    // A search that the module would not end stands in the way of the next one only.
    const bool harmless = !point.fired() || (point.n() == GetParam().endOfLastSearch && point.once());
    const bool forgiven = !harmless && point.n() >= GetParam().firstForgiven;
    EXPECT_EQ(succeeded, harmless || forgiven);
    const Value written = harmless ? GetParam().result : forgiven ? Value(256, 0) : Value{};
    EXPECT_EQ(with.output.first(written.size()), written);
    EXPECT_TRUE(with.output.untouchedFrom(written.size()));
    EXPECT_THAT(script.openOperations(), IsEmpty());
  });
}

TEST_P(CardOperations, FailWithoutMemory) {
  failEachAllocation(GetParam().numAllocations, [&](FailPoint& point) {
    prepare();
    Arguments with;
    point.arm();
    const bool succeeded = run(with);
    EXPECT_EQ(succeeded, !point.fired());
    EXPECT_EQ(script.countOf("C_SignInit") + script.countOf("C_DecryptInit"), point.fired() ? 0U : 1U);
  });
}

TEST_P(CardOperations, NeedThatReaderASessionARecordAndABridge) {
  expectRefused("Reader B 00");
  for (const CK_SESSION_HANDLE none : kNoHandles) {
    SCOPED_TRACE(none);
    record().setHSession(none);
    expectRefused();
    expectRefused("");
  }
  record().setHSession(kFirstSession);
  framework->setP11Bridge(nullptr);
  expectRefused();
  framework->setP11Bridge(std::make_shared<P11Bridge>(services()));
  Arguments with;
  EXPECT_FALSE(run(with)) << "a bridge without a module";
  EXPECT_TRUE(with.output.untouched());
  framework->setP11ServiceInfo(nullptr);
  expectRefused();
}

TEST_P(CardOperations, NeedAPrivateKeyAndLogHowFarTheyGotAndTakeANullKeyForOneWithoutAHandle) {
  script.card().objects.erase(kPrivateKey);
  Arguments with;
  EXPECT_FALSE(run(with));
  EXPECT_EQ(script.calls().size(), 5U) << "there is no second object to ask for";
  expectLines(GetParam().linesWithoutKey);
  EXPECT_EQ(with.length, 256U);
  key = nullptr;
  script.forgetCalls();
  EXPECT_FALSE(run(with));
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetAttributeValue(5, 0, [CKA_ID room 255])"));
  EXPECT_TRUE(with.output.untouched());
}

TEST_P(CardOperations, UseTheSessionOfTheStoredRecord) {
  record().setHSession(script.openSession(kSlot, CKF_SERIAL_SESSION));
  Arguments with;
  EXPECT_TRUE(run(with));
  EXPECT_EQ(script.callTexts().front(), "C_GetAttributeValue(6, 21, [CKA_ID room 255])");
  leavesOpen({kFirstSession, kFirstSession + 1});
}

TEST_P(CardOperations, FailForAnEcKeyWhichHasNoModulus) {
  key->setHPubKey(script.addObject(ecPublicKey(bytesOf("02"), bytesOf("Curve"), p256Params(), p256Point(3))));
  script.addObject(ecPrivateKey(bytesOf("02"), bytesOf("Curve"), p256Params()));
  Arguments with;
  EXPECT_FALSE(run(with));
  EXPECT_EQ(script.countOf("C_SignInit") + script.countOf("C_DecryptInit"), 0U);
  EXPECT_TRUE(with.output.untouched());
  // The name of the key is not logged any more, nor is the end of the way.
  EXPECT_LT(log->allLines.size(), 3U);
}

// ---- Decrypting alone ----

class PerformDecrypt : public FrameworkTest, public ::testing::WithParamInterface<bool> {
 protected:
  PerformDecrypt() {
    (void)openAndList();
    script.card().loggedIn = true;
  }

  bool decrypt(ResultBuffer& output) { return decryptTo(output.data(), &length, output.capacity()); }
  bool decryptTo(CK_BYTE* output, CK_ULONG* outLen, CK_ULONG capacity) {
    const auto& key = keys().front();
    return GetParam() ? framework->PerformOAEPDecrypt("Reader A 00", key, hash, cipher.data(), cipher.size(),
                                                      output, outLen, capacity)
                      : framework->PerformPKCS1Decrypt("Reader A 00", key, cipher.data(), cipher.size(),
                                                       output, outLen, capacity);
  }

  CK_MECHANISM_TYPE hash = CKM_SHA256;
  Value cipher = cipherOf(bytesOf("the plain text"));
  CK_ULONG length = 77;
};

INSTANTIATE_TEST_SUITE_P(Kinds, PerformDecrypt, ::testing::Bool(),
                         [](const auto& oaep) { return oaep.param ? "OAEP" : "PKCS1"; });

TEST_P(PerformDecrypt, HandsCapacityAndLengthOnAndBack) {
  const struct {
    const char* what;
    std::size_t size;
    std::size_t capacity;
    bool succeeds;
  } rows[] = {
      {"exactly 2000 bytes", 2000, 2000, true},
      {"2001 bytes", 2001, 2000, false},
      {"one byte over", 14, 13, false},
      {"empty", 0, 1, true},
  };
  script.deviations.claimedLengths[CKA_MODULUS] = {5000};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    length = ~length;  // on entry of no account
    script.deviations.plainText = patternValue(row.size, 0x61);
    ResultBuffer output{row.capacity};
    EXPECT_EQ(decrypt(output), row.succeeds);
    EXPECT_EQ(length, row.size);
    if (row.succeeds) {
      EXPECT_EQ(output.first(row.size), patternValue(row.size, 0x61));
    }
  }
}

TEST_P(PerformDecrypt, FailsWithoutCipherTextLengthOrCapacity) {
  ResultBuffer output{256};
  EXPECT_FALSE(decryptTo(output.data(), nullptr, 256));
  EXPECT_FALSE(decryptTo(output.data(), &length, 0));
  cipher.clear();
  EXPECT_FALSE(decrypt(output));
  EXPECT_EQ(script.countOf("C_DecryptInit"), 0U);
  EXPECT_TRUE(output.untouched());
  EXPECT_EQ(length, 77U);
}

TEST_P(PerformDecrypt, HandsANullBufferOn) {
  EXPECT_TRUE(decryptTo(nullptr, &length, 2000));
  EXPECT_EQ(length, 14U);
  EXPECT_THAT(script.callTexts().back(), EndsWith(", null 256)"));
}

TEST_P(PerformDecrypt, LooksAtTheHashForOAEPAloneAndLogsHowFarItGot) {
  for (const CK_MECHANISM_TYPE given : {CKM_SHA_1, CKM_SHA512, CK_MECHANISM_TYPE{0x210}, ~CK_ULONG{0}}) {
    SCOPED_TRACE(given);
    hash = given;
    const bool succeeds = !GetParam() || given == CKM_SHA_1 || given == CKM_SHA512;
    log->allLines.clear();
    ResultBuffer output{256};
    EXPECT_EQ(decrypt(output), succeeds);
    EXPECT_EQ(log->allLines.size(), !GetParam() ? 1U : succeeds ? 3U : 2U);
  }
}

}  // namespace
}  // namespace mirel::test
