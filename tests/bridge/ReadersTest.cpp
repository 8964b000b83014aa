/// The three readers of a single value: modulus, point and certificate.

#include <optional>
#include <ostream>

#include "BridgeTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Claims = std::vector<std::optional<CK_ULONG>>;

/// One of the readers, and what it reads.
struct Reader {
  const char* name;
  CK_RV (P11Bridge::*read)(CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_BYTE*, CK_ULONG*) noexcept;
  CK_ATTRIBUTE_TYPE type;
  /// The size of a usual value, and of the longest that is fetched.
  std::size_t usual;
  std::size_t longest;
  /// From this length on no value is fetched.
  std::size_t bound;
  /// The calls of the module made to fetch a value; the last one is the value's own second read.
  std::size_t calls;
};

const Reader kReaders[] = {
    {"Modulus", &P11Bridge::pkcs11_getRSAKeyModulus, CKA_MODULUS, 256, 639, 640, 3},
    {"Point", &P11Bridge::pkcs11_getECPublicKey, CKA_EC_POINT, 67, 200, 521, 4},
    {"Certificate", &P11Bridge::pkcs11_getCertificate, CKA_VALUE, 700, 1999, 2000, 3},
};

void PrintTo(const Reader& reader, std::ostream* out) { *out << reader.name; }

class Readers : public SessionTest, public ::testing::WithParamInterface<Reader> {
 protected:
  void SetUp() override {
    SessionTest::SetUp();
    makeObject(GetParam().usual);
  }

  /// Makes the object that is read, with a value of that size.
  void makeObject(std::size_t size) {
    value = patternValue(size, 0x11);
    const Object fresh = GetParam().type == CKA_EC_POINT
                             ? ecPublicKey(bytesOf("01"), bytesOf("EC"), p256Params(), value)
                             : certificate(bytesOf("01"), bytesOf("Any"), value);
    object = script.addObject(fresh.with(GetParam().type, value));
    forgetAll();
  }
  void moduleClaims(Claims claims) {
    script.forgetCalls();
    script.deviations.claimedLengths[GetParam().type] = std::move(claims);
  }

  CK_RV read(CK_BYTE* out, CK_ULONG* len) { return (bridge.*GetParam().read)(session, object, out, len); }

  void expectRead(ResultBuffer& out, const Value& expected) {
    CK_ULONG len = out.capacity();
    EXPECT_EQ(read(out.data(), &len), CKR_OK);
    EXPECT_EQ(len, expected.size());
    EXPECT_EQ(out.first(expected.size()), expected);
    EXPECT_TRUE(out.untouchedFrom(expected.size()));
  }
  /// The length alone is read, whatever it holds on entry.
  void expectLength(CK_ULONG expected) {
    for (const CK_ULONG given : {CK_ULONG{0}, CK_ULONG{12345}, kAllOnes}) {
      CK_ULONG len = given;
      EXPECT_EQ(read(nullptr, &len), CKR_OK);
      EXPECT_EQ(len, expected);
    }
  }
  void expectRefused(CK_RV code, std::size_t capacity = 6000) {
    ResultBuffer out{capacity};
    CK_ULONG len = capacity;
    EXPECT_EQ(read(out.data(), &len), code);
    EXPECT_EQ(len, 0U);
    EXPECT_TRUE(out.untouched());
    EXPECT_EQ(memory->outstanding(), 0U);
  }
  void expectLengthRefused(CK_RV code) {
    CK_ULONG len = 77;
    EXPECT_EQ(read(nullptr, &len), code);
    EXPECT_EQ(len, 0U);
  }

  CK_OBJECT_HANDLE object = 0;
  Value value;
};

INSTANTIATE_TEST_SUITE_P(All, Readers, ::testing::ValuesIn(kReaders),
                         [](const auto& row) { return row.param.name; });

TEST_P(Readers, RefuseHandlesOfNoneWithoutACallAndAMissingFunctionListWithLengthZero) {
  const CK_OBJECT_HANDLE readable = object;
  for (const CK_ULONG none : kNoHandles) {
    SCOPED_TRACE(none);
    object = none;
    expectRefused(CKR_ARGUMENTS_BAD);
    EXPECT_EQ(read(nullptr, nullptr), CKR_ARGUMENTS_BAD);
    object = readable;
    session = none;
    expectRefused(CKR_ARGUMENTS_BAD);
    session = kFirstSession;
  }
  EXPECT_THAT(script.calls(), IsEmpty());
  bridge.setCkFunc(nullptr);
  expectRefused(CKR_CRYPTOKI_NOT_INITIALIZED);
}

TEST_P(Readers, GiveValuesAndLengthsUpToTheLongest) {
  for (const std::size_t size : {std::size_t{1}, GetParam().usual, GetParam().longest}) {
    for (const std::size_t capacity : {size, size + 100}) {
      SCOPED_TRACE(::testing::Message() << size << " bytes into " << capacity);
      makeObject(size);
      ResultBuffer out{capacity};
      expectRead(out, value);
      expectLength(size);
    }
  }
}

TEST_P(Readers, RefuseAnOutputThatIsTooSmallAndAValueBetweenTheLongestAndTheirBound) {
  for (const std::size_t capacity : {GetParam().usual - 1, std::size_t{1}, std::size_t{0}}) {
    SCOPED_TRACE(capacity);
    expectRefused(CKR_BUFFER_TOO_SMALL, capacity);
  }
  makeObject(GetParam().longest + 1);
  expectRefused(CKR_BUFFER_TOO_SMALL);
}

TEST_P(Readers, RefuseANullLengthAfterReading) {
  CK_BYTE out[8];
  EXPECT_EQ(read(out, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(read(nullptr, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(script.calls().size(), 2 * GetParam().calls);
  // What fails before is answered first.
  memory->failAllocation(0);
  EXPECT_EQ(read(out, nullptr), CKR_HOST_MEMORY);
  object = 4711;
  EXPECT_EQ(read(out, nullptr), CKR_OBJECT_HANDLE_INVALID);
}

TEST_P(Readers, FetchNoValueFromTheirBoundOnButReportItsLength) {
  for (const std::size_t size : {GetParam().bound, GetParam().bound + 1, std::size_t{5000}}) {
    SCOPED_TRACE(size);
    makeObject(size);
    expectLength(size);
    expectRefused(CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(read(nullptr, nullptr), CKR_ARGUMENTS_BAD);
  }
}

TEST_P(Readers, NeverAskForMoreMemoryThanTheirBound) {
  for (const CK_ULONG claimed :
       {CK_ULONG{GetParam().bound}, 1UL << 32U, 0x100000010UL, 1UL << 40U, 1UL << 62U, kAllOnes - 1}) {
    SCOPED_TRACE(claimed);
    moduleClaims({claimed});
    memory->reset();
    expectRefused(CKR_BUFFER_TOO_SMALL);
    expectLength(claimed);
    EXPECT_LT(memory->largestRequest(), GetParam().bound);
  }
}

TEST_P(Readers, RefuseMissingEmptyAndUnavailableValues) {
  for (const CK_ULONG claimed : {CK_ULONG{0}, kAllOnes}) {
    moduleClaims({claimed});
    expectRefused(CKR_ATTRIBUTE_VALUE_INVALID);
    expectLengthRefused(CKR_ATTRIBUTE_VALUE_INVALID);
  }
  script.deviations = {};
  script.object(object).attributes[GetParam().type] = {};
  expectLengthRefused(CKR_ATTRIBUTE_VALUE_INVALID);
  script.object(object).attributes.erase(GetParam().type);
  expectLengthRefused(CKR_ATTRIBUTE_TYPE_INVALID);
  script.deviations.silent = {"C_GetAttributeValue"};
  expectLengthRefused(CKR_ATTRIBUTE_VALUE_INVALID);
}

TEST_P(Readers, RefuseALengthThatGrowsBetweenTheReads) {
  // The claims of the 1st, 2nd, ... read; the buffer has the size that the first one reported.
  for (const Claims& claims :
       {Claims{128, 600}, Claims{128, 129}, Claims{60, 60, 199}, Claims{60, 60, 61}, Claims{60, 60, 5000},
        Claims{60, 1UL << 40U}, Claims{60, 60, 1UL << 40U}, Claims{60, 0x10000003C},
        Claims{60, 60, 0x10000003C}, Claims{60, kAllOnes - 1}}) {
    SCOPED_TRACE(::testing::PrintToString(claims));
    moduleClaims(claims);
    expectRefused(CKR_BUFFER_TOO_SMALL);
  }
}

TEST_P(Readers, TakeTheLastLengthOfAValueThatShrinksAndRefuseOneThatVanishesBetweenTheReads) {
  script.deviations.valuesInTurn[GetParam().type] = {patternValue(60, 1), patternValue(50, 2)};
  ResultBuffer out{50};
  expectRead(out, patternValue(50, 2));
  script.deviations = {};
  for (const CK_ULONG claimed : {CK_ULONG{0}, kAllOnes}) {
    for (std::size_t honest = 1; honest < GetParam().calls; ++honest) {
      SCOPED_TRACE(::testing::Message() << claimed << " after " << honest << " honest reads");
      Claims claims(honest, std::nullopt);
      claims.emplace_back(claimed);
      moduleClaims(claims);
      // Only the read that is the value's own second one marks its failure.
      const bool marked = honest + 1 == GetParam().calls;
      expectRefused((marked ? kRereadFailed : CKR_OK) | CKR_ATTRIBUTE_VALUE_INVALID);
    }
  }
}

// ---- The parameters beside a point ----

class PointParameters : public SessionTest {
 protected:
  CK_RV read() {
    length = 640;
    return bridge.pkcs11_getECPublicKey(session, kEcPublicKey, out.data(), &length);
  }

  ResultBuffer out{640};
  CK_ULONG length = 640;
};

TEST_F(PointParameters, MustBeReadable) {
  auto& attributes = script.object(kEcPublicKey).attributes;
  attributes[CKA_EC_PARAMS] = {};
  EXPECT_EQ(read(), CKR_ATTRIBUTE_VALUE_INVALID);
  EXPECT_EQ(length, 0U);
  attributes.erase(CKA_EC_PARAMS);
  EXPECT_EQ(read(), CKR_ATTRIBUTE_TYPE_INVALID);
  EXPECT_EQ(length, 0U);
}

TEST_F(PointParameters, AreFetchedUpTo199BytesAndLeaveThePointItsWrapping) {
  const struct {
    std::size_t size;
    std::vector<std::size_t> requests;
  } rows[] = {{199, {199, 67}}, {200, {67}}, {201, {67}}, {5000, {67}}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.size);
    script.object(kEcPublicKey).attributes[CKA_EC_PARAMS] = patternValue(row.size, 2);
    forgetAll();
    EXPECT_EQ(read(), CKR_OK);
    EXPECT_EQ(out.first(length), p256Point(3)) << "an OCTET STRING";
    EXPECT_EQ(memory->requests(), row.requests);
    EXPECT_EQ(script.calls().size(), row.requests.size() + 2);
  }
}

TEST_F(PointParameters, DoNotMakeAPointOfMoreThan200BytesReadableForItsLength) {
  for (const std::size_t size : {201U, 520U}) {
    SCOPED_TRACE(size);
    script.object(kEcPublicKey).attributes[CKA_EC_POINT] = patternValue(size, 2);
    length = 77;
    EXPECT_EQ(bridge.pkcs11_getECPublicKey(session, kEcPublicKey, nullptr, &length), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 0U);
  }
}

}  // namespace
}  // namespace mirel::test
