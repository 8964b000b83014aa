/// What signing and decrypting ask for before they do anything.

#include <functional>
#include <ostream>

#include "framework/CardOperationsTest.h"

namespace mirel::test {
namespace {

using ::testing::IsEmpty;

/// An operation on a key, run with honest arguments apart from those given.
struct Operation {
  const char* name;
  std::function<bool(MirelCTKFramework&, const char* readerName,
                     const std::shared_ptr<PKCS11_ASYMKEY_INFO>& key, ResultBuffer&, CK_ULONG& outLen)>
      run;
  /// How many lines stand in the log when a guard has refused, and when no private key was found.
  std::size_t linesWhenRefused;
  std::size_t linesWithoutKey;
};

const Value kData = cipherOf(bytesOf("plain"));

const Operation kOperations[] = {
    {"SignHash",
     [](auto& framework, auto* readerName, const auto& key, auto& output, auto& length) {
       return framework.PerformSignHash(readerName, key, Text{u"any"}, 0, kData.data(), kData.size(),
                                        std::span{output.data(), output.capacity()}, &length);
     },
     1, 2},
    {"OAEPDecrypt",
     [](auto& framework, auto* readerName, const auto& key, auto& output, auto& length) {
       return framework.PerformOAEPDecrypt(readerName, key, CKM_SHA256, kData.data(), kData.size(),
                                           output.data(), &length, output.capacity());
     },
     0, 1},
    {"PKCS1Decrypt",
     [](auto& framework, auto* readerName, const auto& key, auto& output, auto& length) {
       return framework.PerformPKCS1Decrypt(readerName, key, kData.data(), kData.size(), output.data(),
                                            &length, output.capacity());
     },
     0, 0},
};

void PrintTo(const Operation& operation, std::ostream* out) { *out << operation.name; }

class CardOperationGuards : public CardOperationsTest, public ::testing::WithParamInterface<Operation> {
 protected:
  bool run(const char* readerName = "Reader A 00") {
    length = 256;
    return GetParam().run(*framework, readerName, key, output, length);
  }

  /// Expects that nothing was done and nothing written.
  void expectRefused(const char* readerName = "Reader A 00") {
    script.forgetCalls();
    log->allLines.clear();
    EXPECT_FALSE(run(readerName));
    EXPECT_THAT(script.calls(), IsEmpty());
    EXPECT_EQ(log->allLines.size(), GetParam().linesWhenRefused);
    EXPECT_EQ(length, 256U);
    EXPECT_TRUE(output.untouched());
  }

  void setStoredDescription(std::string_view description) {
    CK_SLOT_INFO info = record().slotInfo();
    setField(info.slotDescription, description);
    record().setSlotInfo(info);
  }

  ResultBuffer output{256};
  CK_ULONG length = 256;
};

INSTANTIATE_TEST_SUITE_P(Operations, CardOperationGuards, ::testing::ValuesIn(kOperations),
                         [](const auto& operation) { return operation.param.name; });

TEST_P(CardOperationGuards, LetAnHonestCallPass) { EXPECT_TRUE(run()); }

TEST_P(CardOperationGuards, CompareTheNameWithTheStartOfTheStoredDescription) {
  const std::string full = "Reader A " + std::string(55, 'x');
  ASSERT_EQ(full.size(), 64U);
  const struct {
    const char* what;
    std::string description;
    std::string name;
    bool passes;
  } rows[] = {
      {"the same name", "Reader A 00", "Reader A 00", true},
      {"with padding", "Reader A 00", "Reader A 00  ", true},
      {"a prefix", "Reader A 00", "R", true},
      {"an empty name", "Reader A 00", "", true},
      {"all 64 characters", full, full, true},
      {"the last of 64 differs", full, full.substr(0, 63) + "y", false},
      {"longer than the field", full, full + "x", false},
      {"longer, on into the manufacturer", full, full + "Scripted readers", false},
      {"another name", "Reader A 00", "Reader B 00", false},
      {"the first character differs", "Reader A 00", "Xeader A 00", false},
      {"another case", "Reader A 00", "reader A 00", false},
      {"one character too many", "Reader A 00", "Reader A 001", false},
      {"not at the start", "Reader A 00", "A 00", false},
      {"no ASCII in both", "Reader \xC3\xA4", "Reader \xC3\xA4", false},
      {"80 in both", "Reader \x80", "Reader \x80", false},
      {"FF in both", "\xFF", "\xFF", false},
      {"7F in both", "Reader \x7F", "Reader \x7F", true},
      {"no ASCII behind the name", "Reader \xC3\xA4", "Reader ", true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    setStoredDescription(row.description);
    if (row.passes) {
      EXPECT_TRUE(run(row.name.c_str()));
    } else {
      script.forgetCalls();
      EXPECT_FALSE(run(row.name.c_str()));
      EXPECT_THAT(script.calls(), IsEmpty());
    }
  }
}

TEST_P(CardOperationGuards, RefuseAnotherReaderBeforeAnyCall) { expectRefused("Reader B 00"); }

TEST_P(CardOperationGuards, TakeANullNameForAnEmptyOne) { EXPECT_TRUE(run(nullptr)); }

TEST_P(CardOperationGuards, CompareWithTheRecordNotWithTheModule) {
  setField(script.slot().info.slotDescription, "Reader B 00");
  EXPECT_TRUE(run("Reader A 00"));
  script.forgetCalls();
  EXPECT_FALSE(run("Reader B 00"));
  EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_P(CardOperationGuards, NeedASession) {
  for (const CK_SESSION_HANDLE none : {CK_SESSION_HANDLE{0}, kNoHandle}) {
    SCOPED_TRACE(none);
    record().setHSession(none);
    expectRefused();
    expectRefused("");
  }
}

TEST_P(CardOperationGuards, NeedARecord) {
  framework->setP11ServiceInfo(nullptr);
  expectRefused();
}

TEST_P(CardOperationGuards, NeedABridge) {
  framework->setP11Bridge(nullptr);
  expectRefused();
}

TEST_P(CardOperationGuards, NeedNothingButABridgeThatMayBeEmpty) {
  framework->setP11Bridge(std::make_shared<P11Bridge>(services()));
  EXPECT_FALSE(run());
  EXPECT_TRUE(output.untouched());
}

TEST_P(CardOperationGuards, NeedAPrivateKey) {
  script.card().objects.erase(kPrivateKey);
  script.forgetCalls();
  EXPECT_FALSE(run());
  EXPECT_EQ(script.callTexts("C_FindObjectsInit"), std::vector<std::string>{lookUpCalls()[2]});
  EXPECT_EQ(script.calls().size(), kNumLookUpCalls - 1);  // there is no second object to ask for
  EXPECT_EQ(log->allLines.size(), GetParam().linesWithoutKey);
  EXPECT_EQ(length, 256U);
  EXPECT_TRUE(output.untouched());
}

TEST_P(CardOperationGuards, TakeANullKeyForOneWithoutAHandle) {
  key = nullptr;
  EXPECT_FALSE(run());
  EXPECT_EQ(script.callTexts(), std::vector<std::string>{"C_GetAttributeValue(5, 0, [CKA_ID room 255])"});
  EXPECT_TRUE(output.untouched());
}

TEST_P(CardOperationGuards, DoNotLookAtThePrivateHandleOfTheRecord) {
  key->setHPriKey(99);
  EXPECT_TRUE(run());
}

TEST_P(CardOperationGuards, FailOnceTheCardIsGone) {
  script.pullCard(kSlot, CKR_DEVICE_REMOVED);
  EXPECT_FALSE(run());
  EXPECT_TRUE(output.untouched());
  leavesOpen({});
}

TEST_P(CardOperationGuards, UseTheSessionOfTheStoredRecord) {
  record().setHSession(script.openSession(kSlot, CKF_SERIAL_SESSION));
  EXPECT_TRUE(run());
  EXPECT_EQ(script.callTexts().front(), "C_GetAttributeValue(6, 21, [CKA_ID room 255])");
  leavesOpen({kFirstSession, kFirstSession + 1});
}

}  // namespace
}  // namespace mirel::test
