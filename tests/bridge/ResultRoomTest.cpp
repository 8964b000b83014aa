/// The room that is announced to the module for a result, and the caller's buffer, which may be smaller.

#include <functional>
#include <ostream>

#include "PrivateKeyTest.h"

namespace mirel::test {
namespace {

using ::testing::Contains;
using ::testing::EndsWith;
using ::testing::Not;

constexpr CK_ULONG kLargestRoom = 65536;

/// An operation that has the module write a result.
struct Producer {
  const char* name;
  const char* function;  ///< that writes the result
  CK_RV tooLong;
  /// Makes the operation announce that room, and runs it.
  std::function<CK_RV(P11Bridge&, Script&, CK_ULONG room, ResultBuffer&, CK_ULONG& outLen)> run;
};

/// The operations that announce the length of the modulus.
void claimModulus(Script& script, CK_ULONG room) { script.deviations.claimedLengths[CKA_MODULUS] = {room}; }

const CK_BYTE kHash[32] = {1, 2, 3};

const Producer kProducers[] = {
    {"RawSignature", "C_Sign", 0xC0,
     [](P11Bridge& bridge, Script&, CK_ULONG room, ResultBuffer& output, CK_ULONG& length) {
       length = room;
       return bridge.pkcs11_genSignaturePKCS1(kFirstSession, kPrivateKey, kHash, sizeof kHash, output.data(),
                                              &length, output.capacity());
     }},
    {"PssSignature", "C_Sign", 0xC1,
     [](P11Bridge& bridge, Script& script, CK_ULONG room, ResultBuffer& output, CK_ULONG& length) {
       claimModulus(script, room);
       return bridge.pkcs11_genSignaturePSS(kFirstSession, kPublicKey, CKM_SHA256, kHash, sizeof kHash,
                                            output.data(), &length, output.capacity());
     }},
    {"EcdsaSignature", "C_Sign", 0xC1,
     [](P11Bridge& bridge, Script&, CK_ULONG room, ResultBuffer& output, CK_ULONG& length) {
       length = room;
       return bridge.pkcs11_genECDSA(kFirstSession, kEcPublicKey, 256, kHash, sizeof kHash, output.data(),
                                     &length, output.capacity());
     }},
    {"PKCS1Decryption", "C_Decrypt", 0x41,
     [](P11Bridge& bridge, Script& script, CK_ULONG room, ResultBuffer& output, CK_ULONG& length) {
       claimModulus(script, room);
       return bridge.pkcs11_genDecryptPKCS1(kFirstSession, kPublicKey, kHash, sizeof kHash, output.data(),
                                            &length, output.capacity());
     }},
    {"OAEPDecryption", "C_Decrypt", 0x41,
     [](P11Bridge& bridge, Script& script, CK_ULONG room, ResultBuffer& output, CK_ULONG& length) {
       claimModulus(script, room);
       return bridge.pkcs11_genDecryptOAEP(kFirstSession, kPublicKey, kHash, sizeof kHash, CKM_SHA256,
                                           output.data(), &length, output.capacity());
     }},
};

void PrintTo(const Producer& producer, std::ostream* out) { *out << producer.name; }

class ResultRoom : public PrivateKeyTest, public ::testing::WithParamInterface<Producer> {
 protected:
  void SetUp() override {
    PrivateKeyTest::SetUp();
    script.deviations.plainText = patternValue(200, 0x60);
  }

  CK_RV run(CK_ULONG room, ResultBuffer& output) {
    return GetParam().run(bridge, script, room, output, length);
  }
  /// The module writes that many bytes, if the room goes that far, and says it were `claim`.
  void claim(CK_ULONG claimed, std::optional<CK_ULONG> written = std::nullopt) {
    script.deviations.claimedResults[GetParam().function] = {claimed, written};
  }
  /// What the module writes when it is left alone.
  [[nodiscard]] Value result() const {
    const std::string_view name = GetParam().name;
    const Value hash{std::begin(kHash), std::end(kHash)};
    if (name == "RawSignature") return resultOf(3, hash, 256);
    if (name == "PssSignature") return resultOf(13, hash, 256);
    if (name == "EcdsaSignature") return resultOf(0x1041, hash, 64);
    return patternValue(200, 0x60);
  }
  /// The first `size` bytes of what the module writes when it claims more.
  [[nodiscard]] Value resultAndFiller(std::size_t size) const {
    Value bytes = result();
    bytes.resize(size, 0xEE);
    return bytes;
  }
};

INSTANTIATE_TEST_SUITE_P(Operations, ResultRoom, ::testing::ValuesIn(kProducers),
                         [](const auto& producer) { return producer.param.name; });

TEST_P(ResultRoom, IsTheCallersBufferAsLongAsItIsLargeEnough) {
  for (const CK_ULONG room : {CK_ULONG{256}, CK_ULONG{511}, CK_ULONG{512}}) {
    SCOPED_TRACE(room);
    memory->reset();
    ResultBuffer output{512};
    EXPECT_EQ(run(room, output), CKR_OK);
    EXPECT_EQ(output.first(length), result());
    EXPECT_THAT(script.callTexts().back(), EndsWith(", room " + std::to_string(room) + ")"));
  }
}

TEST_P(ResultRoom, MayBeLargerThanTheCallersBuffer) {
  ResultBuffer output{256};
  EXPECT_EQ(run(700, output), CKR_OK);
  EXPECT_EQ(length, result().size());
  EXPECT_EQ(output.first(length), result());
  EXPECT_TRUE(output.untouchedFrom(length));
  EXPECT_EQ(memory->requests().back(), 700U);
  EXPECT_THAT(script.callTexts().back(), EndsWith(", room 700)"));
}

TEST_P(ResultRoom, TakesAResultThatOverflowsTheCallersBuffer) {
  const struct {
    const char* name;
    CK_ULONG room;
    std::size_t capacity;
  } rows[] = {
      {"512 bytes over 256", 512, 256},        {"1024 bytes over 512", 1024, 512},
      {"5000 bytes over 2000", 5000, 2000},    {"one byte over", 2001, 2000},
      {"the largest room", kLargestRoom, 256}, {"the smallest buffer", 512, 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    memory->reset();
    ResultBuffer output{row.capacity};
    claim(row.room);
    EXPECT_EQ(run(row.room, output), GetParam().tooLong);
    EXPECT_EQ(length, row.room);
    EXPECT_EQ(output.all(), resultAndFiller(row.capacity));
    EXPECT_EQ(memory->requests().back(), row.room);
    EXPECT_EQ(memory->outstanding(), 0U);
  }
}

TEST_P(ResultRoom, DoesNotBelieveALengthBeyondTheRoom) {
  for (const CK_ULONG claimed :
       {CK_ULONG{513}, CK_ULONG{600}, CK_ULONG{1} << 32U, CK_ULONG{1} << 40U, kAllOnes - 1, kAllOnes}) {
    SCOPED_TRACE(claimed);
    claim(claimed);
    ResultBuffer large{512};
    EXPECT_EQ(run(512, large), GetParam().tooLong);
    EXPECT_EQ(length, claimed);
    EXPECT_EQ(large.all(), resultAndFiller(512));
    // The same from memory of the bridge, of which only what was announced may be copied.
    ResultBuffer small{300};
    EXPECT_EQ(run(512, small), GetParam().tooLong);
    EXPECT_EQ(length, claimed);
    EXPECT_EQ(small.all(), resultAndFiller(300));
  }
}

TEST_P(ResultRoom, JudgesTheLengthByTheCapacity) {
  const struct {
    CK_ULONG claimed;
    bool fits;
  } rows[] = {{0, true}, {1, true}, {299, true}, {300, true}, {301, false}};
  for (const auto& row : rows) {
    for (const CK_ULONG room : {CK_ULONG{300}, CK_ULONG{400}}) {
      SCOPED_TRACE(row.claimed);
      SCOPED_TRACE(room);
      claim(row.claimed);
      ResultBuffer output{300};
      EXPECT_EQ(run(room, output), row.fits ? CKR_OK : GetParam().tooLong);
      EXPECT_EQ(length, row.claimed);
      const std::size_t copied = std::min<std::size_t>(row.claimed, 300);
      EXPECT_EQ(output.first(copied), resultAndFiller(copied));
      EXPECT_TRUE(output.untouchedFrom(copied));
    }
  }
}

TEST_P(ResultRoom, HoldsZerosWhereTheModuleWroteNothing) {
  // Never what lay in the memory before.
  claim(300, 10);
  ResultBuffer output{256};
  EXPECT_EQ(run(400, output), GetParam().tooLong);
  Value expected = resultAndFiller(10);
  expected.resize(256, 0);
  EXPECT_EQ(output.all(), expected);
}

TEST_P(ResultRoom, IsRefusedBeforeAnyMemoryIsTakenWhenItIsAbsurd) {
  for (const CK_ULONG room : {kLargestRoom + 1, CK_ULONG{1} << 32U, CK_ULONG{1} << 40U, kAllOnes - 1}) {
    SCOPED_TRACE(room);
    memory->reset();
    script.forgetCalls();
    ResultBuffer output{512};
    EXPECT_EQ(run(room, output), CK_RV{2});
    EXPECT_LE(memory->largestRequest(), 700U);
    EXPECT_EQ(script.countOf("C_SignInit") + script.countOf("C_DecryptInit"), 0U);
    EXPECT_TRUE(output.untouched());
  }
}

TEST_P(ResultRoom, CannotAlwaysBeHad) {
  // The last request is the one for the room.
  ResultBuffer output{256};
  EXPECT_EQ(run(700, output), CKR_OK);
  const std::size_t last = memory->requests().size() - 1;
  memory->failAllocation(last);
  script.forgetCalls();
  ResultBuffer other{256};
  EXPECT_EQ(run(700, other), CK_RV{2});
  EXPECT_TRUE(memory->fired());
  EXPECT_EQ(script.countOf("C_SignInit") + script.countOf("C_DecryptInit"), 0U);
  EXPECT_TRUE(other.untouched());
}

TEST_P(ResultRoom, IsWipedBeforeItIsGivenBack) {
  ResultBuffer output{256};
  EXPECT_EQ(run(700, output), CKR_OK);
  claim(700);
  EXPECT_EQ(run(700, output), GetParam().tooLong);
  EXPECT_THAT(memory->releasedUnwiped(), Not(Contains(700U)));
  EXPECT_THAT(memory->requests(), Contains(700U));
}

TEST_P(ResultRoom, IsWipedAndNotCopiedWhenTheModuleFails) {
  const auto fail = [](auto real, CK_SESSION_HANDLE of, CK_BYTE* bytes, CK_ULONG numBytes, CK_BYTE* output,
                       CK_ULONG* len) -> CK_RV {
    (void)real(of, bytes, numBytes, output, len);
    std::fill_n(output, 300, CK_BYTE{0x99});
    *len = 1024;
    return kSomeFailure;
  };
  script.hook<&CK_FUNCTION_LIST::C_Sign>(fail);
  script.hook<&CK_FUNCTION_LIST::C_Decrypt>(fail);
  ResultBuffer output{256};
  EXPECT_EQ(run(700, output), kSomeFailure);
  EXPECT_EQ(length, 1024U);
  EXPECT_TRUE(output.untouched());
  EXPECT_THAT(memory->releasedUnwiped(), Not(Contains(700U)));
}

}  // namespace
}  // namespace mirel::test
