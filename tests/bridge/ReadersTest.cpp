#include <algorithm>
#include <optional>
#include <vector>

#include "BridgeTest.h"

namespace mirel::test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr CK_RV kReread = 0x80000000;

using ReadFunction = CK_RV (P11Bridge::*)(CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_BYTE*, CK_ULONG*) noexcept;

/// One of the three readers of a single value, and an object for it to read.
struct Reader {
  const char* name;
  ReadFunction read;
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
    {"modulus", &P11Bridge::pkcs11_getRSAKeyModulus, CKA_MODULUS, 256, 639, 640, 3},
    {"EC point", &P11Bridge::pkcs11_getECPublicKey, CKA_EC_POINT, 67, 200, 521, 4},
    {"certificate", &P11Bridge::pkcs11_getCertificate, CKA_VALUE, 700, 1999, 2000, 3},
};

class ReadersUnloaded : public UnloadedBridgeTest {};

TEST_F(ReadersUnloaded, TestTheFunctionListFirst) {
  for (const Reader& reader : kReaders) {
    SCOPED_TRACE(reader.name);
    CK_BYTE out[8];
    CK_ULONG len = sizeof out;
    EXPECT_EQ((bridge.*reader.read)(0, 0, nullptr, nullptr), CK_RV{0x190});
    EXPECT_EQ((bridge.*reader.read)(5, 21, out, &len), CK_RV{0x190});
    EXPECT_EQ(len, 0U);
  }
}

class Readers : public SessionTest {
 protected:
  /// Makes the object that `reader` reads, with a value of that size.
  void makeObject(const Reader& reader, std::size_t size) {
    value = patternValue(size, 0x11);
    Object fresh = reader.type == CKA_EC_POINT
                       ? ecPublicKey(bytesOf("01"), bytesOf("EC"), p256Params(), value)
                       : certificate(bytesOf("01"), bytesOf("Any"), value);
    object = script.addObject(fresh.with(reader.type, value));
    forgetAll();
  }

  CK_RV read(const Reader& reader, CK_BYTE* out, CK_ULONG* len) {
    return (bridge.*reader.read)(session, object, out, len);
  }

  /// Runs `check` for each reader, each with a module as new and an object with a value of usual size.
  void forEachReader(const std::function<void(const Reader&)>& check) {
    for (const Reader& reader : kReaders) {
      SCOPED_TRACE(reader.name);
      script.reset();
      openAgain();
      makeObject(reader, reader.usual);
      check(reader);
      EXPECT_EQ(memory->outstanding(), 0U);
    }
  }

  CK_OBJECT_HANDLE object = 0;
  Value value;
};

TEST_F(Readers, RefuseHandlesOfNoneWithoutACallAndGiveLengthZero) {
  forEachReader([&](const Reader& reader) {
    const struct {
      const char* name;
      CK_SESSION_HANDLE session;
      CK_OBJECT_HANDLE object;
    } rows[] = {
        {"session 0", 0, object},
        {"session all-ones", kAllOnes, object},
        {"object 0", session, 0},
        {"object all-ones", session, kAllOnes},
    };
    for (const auto& row : rows) {
      SCOPED_TRACE(row.name);
      CK_BYTE out[8];
      CK_ULONG len = sizeof out;
      EXPECT_EQ((bridge.*reader.read)(row.session, row.object, out, &len), CK_RV{7});
      EXPECT_EQ(len, 0U);
      EXPECT_EQ((bridge.*reader.read)(row.session, row.object, out, nullptr), CK_RV{7});
    }
    EXPECT_THAT(script.calls(), IsEmpty());
  });
}

TEST_F(Readers, GiveTheLengthWithoutAnOutput) {
  forEachReader([&](const Reader& reader) {
    for (const CK_ULONG given : {CK_ULONG{0}, CK_ULONG{12345}, kAllOnes}) {
      CK_ULONG len = given;
      EXPECT_EQ(read(reader, nullptr, &len), CKR_OK);
      EXPECT_EQ(len, reader.usual);
    }
  });
}

TEST_F(Readers, CopyTheValueAndNothingMore) {
  forEachReader([&](const Reader& reader) {
    std::vector<CK_BYTE> out(reader.usual + 100, 0xAA);
    CK_ULONG len = out.size();
    EXPECT_EQ(read(reader, out.data(), &len), CKR_OK);
    EXPECT_EQ(len, reader.usual);
    EXPECT_TRUE(std::equal(value.begin(), value.end(), out.begin()));
    EXPECT_THAT(std::vector<CK_BYTE>(out.begin() + static_cast<std::ptrdiff_t>(reader.usual), out.end()),
                Each(CK_BYTE{0xAA}));
  });
}

TEST_F(Readers, FillAnOutputOfExactlyTheRightSize) {
  forEachReader([&](const Reader& reader) {
    std::vector<CK_BYTE> out(reader.usual);
    CK_ULONG len = out.size();
    EXPECT_EQ(read(reader, out.data(), &len), CKR_OK);
    EXPECT_EQ(out, value);
  });
}

TEST_F(Readers, RefuseAnOutputThatIsTooSmall) {
  forEachReader([&](const Reader& reader) {
    for (const std::size_t capacity : {reader.usual - 1, std::size_t{1}, std::size_t{0}}) {
      SCOPED_TRACE(capacity);
      std::vector<CK_BYTE> out(capacity + 1, 0xAA);
      CK_ULONG len = capacity;
      EXPECT_EQ(read(reader, out.data(), &len), CK_RV{0x150});
      EXPECT_EQ(len, 0U);
      EXPECT_THAT(out, Each(CK_BYTE{0xAA}));
    }
  });
}

TEST_F(Readers, RefuseANullLengthAfterReading) {
  forEachReader([&](const Reader& reader) {
    CK_BYTE out[8];
    EXPECT_EQ(read(reader, out, nullptr), CK_RV{7});
    EXPECT_EQ(read(reader, nullptr, nullptr), CK_RV{7});
    EXPECT_EQ(script.calls().size(), 2 * reader.calls);
  });
}

TEST_F(Readers, SurviveAFailureWithANullLength) {
  forEachReader([&](const Reader& reader) {
    object = 4711;
    CK_BYTE out[8];
    EXPECT_EQ(read(reader, out, nullptr), CK_RV{0x82});
    EXPECT_EQ(read(reader, nullptr, nullptr), CK_RV{0x82});
  });
}

TEST_F(Readers, FetchTheLongestValueThatIsAllowed) {
  forEachReader([&](const Reader& reader) {
    makeObject(reader, reader.longest);
    std::vector<CK_BYTE> out(3000);
    CK_ULONG len = out.size();
    EXPECT_EQ(read(reader, out.data(), &len), CKR_OK);
    EXPECT_EQ(len, reader.longest);
    EXPECT_TRUE(std::equal(value.begin(), value.end(), out.begin()));
    len = 0;
    EXPECT_EQ(read(reader, nullptr, &len), CKR_OK);
    EXPECT_EQ(len, reader.longest);
  });
}

TEST_F(Readers, FetchAValueOfOneByte) {
  forEachReader([&](const Reader& reader) {
    makeObject(reader, 1);
    CK_BYTE out[1] = {};
    CK_ULONG len = 1;
    EXPECT_EQ(read(reader, out, &len), CKR_OK);
    EXPECT_EQ(len, 1U);
    EXPECT_EQ(out[0], value[0]);
  });
}

TEST_F(Readers, ReportTheLengthOfAValueTooLongToBeFetched) {
  forEachReader([&](const Reader& reader) {
    for (const std::size_t size : {reader.bound, reader.bound + 1, std::size_t{5000}}) {
      SCOPED_TRACE(size);
      makeObject(reader, size);
      CK_ULONG len = 0;
      EXPECT_EQ(read(reader, nullptr, &len), CKR_OK);
      EXPECT_EQ(len, size);
    }
  });
}

TEST_F(Readers, RefuseToFetchAValueThatIsTooLongWhateverTheOutput) {
  forEachReader([&](const Reader& reader) {
    for (const std::size_t size : {reader.longest + 1, reader.bound, std::size_t{5000}}) {
      SCOPED_TRACE(size);
      makeObject(reader, size);
      std::vector<CK_BYTE> out(6000, 0xAA);
      CK_ULONG len = out.size();
      EXPECT_EQ(read(reader, out.data(), &len), CK_RV{0x150});
      EXPECT_EQ(len, 0U);
      EXPECT_THAT(out, Each(CK_BYTE{0xAA}));
      EXPECT_EQ(read(reader, out.data(), nullptr), size < reader.bound ? CK_RV{0x150} : CK_RV{7});
    }
  });
}

TEST_F(Readers, NeverAskForMoreMemoryThanTheirBound) {
  forEachReader([&](const Reader& reader) {
    for (const CK_ULONG claimed : {CK_ULONG{reader.bound}, CK_ULONG{1} << 32U, CK_ULONG{0x100000010},
                                   CK_ULONG{1} << 40U, CK_ULONG{1} << 62U, kAllOnes - 1}) {
      SCOPED_TRACE(claimed);
      script.deviations.claimedLengths[reader.type] = {claimed};
      memory->reset();
      std::vector<CK_BYTE> out(3000);
      CK_ULONG len = out.size();
      EXPECT_EQ(read(reader, out.data(), &len), CK_RV{0x150});
      EXPECT_EQ(len, 0U);
      len = 0;
      EXPECT_EQ(read(reader, nullptr, &len), CKR_OK);
      EXPECT_EQ(len, claimed);
      EXPECT_LT(memory->largestRequest(), reader.bound);
    }
  });
}

TEST_F(Readers, RefuseEmptyAndUnavailableValues) {
  forEachReader([&](const Reader& reader) {
    for (const CK_ULONG claimed : {CK_ULONG{0}, kAllOnes}) {
      for (const bool withOutput : {false, true}) {
        SCOPED_TRACE(claimed);
        SCOPED_TRACE(withOutput);
        script.deviations.claimedLengths[reader.type] = {claimed};
        std::vector<CK_BYTE> out(3000);
        CK_ULONG len = out.size();
        EXPECT_EQ(read(reader, withOutput ? out.data() : nullptr, &len), CK_RV{0x13});
        EXPECT_EQ(len, 0U);
      }
    }
  });
}

TEST_F(Readers, AnswerThatAnAttributeIsMissing) {
  forEachReader([&](const Reader& reader) {
    script.object(object).attributes.erase(reader.type);
    CK_ULONG len = 77;
    EXPECT_EQ(read(reader, nullptr, &len), CK_RV{0x12});
    EXPECT_EQ(len, 0U);
  });
}

TEST_F(Readers, ReadAnEmptyValueAsInvalid) {
  forEachReader([&](const Reader& reader) {
    script.object(object).attributes[reader.type] = {};
    CK_ULONG len = 77;
    EXPECT_EQ(read(reader, nullptr, &len), CK_RV{0x13});
    EXPECT_EQ(len, 0U);
  });
}

TEST_F(Readers, RefuseALengthThatGrowsBetweenTheReads) {
  forEachReader([&](const Reader& reader) {
    // The claims of the 1st, 2nd, ... read; the buffer has the size that the first one reported.
    const std::vector<std::vector<std::optional<CK_ULONG>>> claims = {{128, 600},
                                                                      {128, 129},
                                                                      {60, 199},
                                                                      {60, 60, 199},
                                                                      {60, 60, 61},
                                                                      {60, 5000},
                                                                      {60, 60, 5000},
                                                                      {60, 1UL << 40U},
                                                                      {60, 60, 1UL << 40U},
                                                                      {60, 0x10000003C},
                                                                      {60, 60, 0x10000003C},
                                                                      {60, kAllOnes - 1}};
    for (const auto& claim : claims) {
      SCOPED_TRACE(::testing::PrintToString(claim));
      script.forgetCalls();
      script.deviations.claimedLengths[reader.type] = claim;
      std::vector<CK_BYTE> out(640, 0xAA);
      CK_ULONG len = out.size();
      EXPECT_EQ(read(reader, out.data(), &len), CK_RV{0x150});
      EXPECT_EQ(len, 0U);
      EXPECT_THAT(out, Each(CK_BYTE{0xAA}));
      EXPECT_EQ(memory->outstanding(), 0U);
    }
  });
}

TEST_F(Readers, RefuseAValueThatReallyGrows) {
  forEachReader([&](const Reader& reader) {
    for (const std::size_t shortReads : {1U, 2U}) {
      SCOPED_TRACE(shortReads);
      script.forgetCalls();
      std::vector<Value> turns(shortReads, patternValue(60, 1));
      turns.push_back(patternValue(90, 2));
      script.deviations.valuesInTurn[reader.type] = turns;
      std::vector<CK_BYTE> out(640);
      CK_ULONG len = out.size();
      EXPECT_EQ(read(reader, out.data(), &len),
                shortReads == 1 ? CKR_BUFFER_TOO_SMALL : kReread | CKR_BUFFER_TOO_SMALL);
      EXPECT_EQ(len, 0U);
    }
  });
}

TEST_F(Readers, TakeTheLastLengthOfAValueThatShrinks) {
  forEachReader([&](const Reader& reader) {
    script.deviations.valuesInTurn[reader.type] = {patternValue(60, 1), patternValue(50, 2)};
    std::vector<CK_BYTE> out(640);
    CK_ULONG len = out.size();
    EXPECT_EQ(read(reader, out.data(), &len), CKR_OK);
    EXPECT_EQ(len, 50U);
    out.resize(50);
    EXPECT_EQ(out, patternValue(50, 2));
  });
}

TEST_F(Readers, RefuseAValueThatVanishesBetweenTheReads) {
  forEachReader([&](const Reader& reader) {
    for (const CK_ULONG claimed : {CK_ULONG{0}, kAllOnes}) {
      for (std::size_t honest = 1; honest < reader.calls; ++honest) {
        SCOPED_TRACE(claimed);
        SCOPED_TRACE(honest);
        script.forgetCalls();
        std::vector<std::optional<CK_ULONG>> claim(honest, std::nullopt);
        claim.emplace_back(claimed);
        script.deviations.claimedLengths[reader.type] = claim;
        std::vector<CK_BYTE> out(1000);
        CK_ULONG len = out.size();
        // Only the read that is the value's own second one marks its failure.
        const bool ownReread = honest + 1 == reader.calls;
        EXPECT_EQ(read(reader, out.data(), &len), ownReread ? CK_RV{0x80000013} : CK_RV{0x13});
        EXPECT_EQ(len, 0U);
        EXPECT_EQ(memory->outstanding(), 0U);
      }
    }
  });
}

TEST_F(Readers, RefuseWhatAModuleThatWritesNothingAnswers) {
  forEachReader([&](const Reader& reader) {
    script.deviations.silent = {"C_GetAttributeValue"};
    CK_ULONG len = 77;
    EXPECT_EQ(read(reader, nullptr, &len), CK_RV{0x13});
    EXPECT_EQ(len, 0U);
  });
}

TEST_F(Readers, SurviveEveryFailingCall) {
  for (const Reader& reader : kReaders) {
    for (const bool withOutput : {true, false}) {
      SCOPED_TRACE(reader.name);
      SCOPED_TRACE(withOutput);
      forEachFailingCall(script, kSomeFailure, [&](FailPoint& point) {
        openAgain();
        makeObject(reader, reader.usual);
        std::vector<CK_BYTE> out(1000, 0xAA);
        CK_ULONG len = out.size();
        point.arm();
        const CK_RV rv = read(reader, withOutput ? out.data() : nullptr, &len);
        EXPECT_EQ(memory->outstanding(), 0U);
        EXPECT_EQ(script.calls().size(), point.fired() ? point.n() + 1 : reader.calls);
        // The length query, the first read with buffers, the reads again.
        if (!point.fired()) {
          EXPECT_EQ(rv, CKR_OK);
        } else {
          EXPECT_EQ(rv, point.n() <= 1 ? kSomeFailure : kReread | kSomeFailure);
        }
        EXPECT_EQ(len, point.fired() ? 0U : reader.usual);
        if (point.fired()) {
          EXPECT_THAT(out, Each(CK_BYTE{0xAA}));
        }
      });
    }
  }
}

TEST_F(Readers, SurviveEveryFailingAllocation) {
  for (const Reader& reader : kReaders) {
    for (const bool withOutput : {true, false}) {
      SCOPED_TRACE(reader.name);
      SCOPED_TRACE(withOutput);
      std::size_t failures = 0;
      forEachFailingAllocation(script, *memory, [&](FailPoint& point) {
        openAgain();
        makeObject(reader, reader.usual);
        std::vector<CK_BYTE> out(1000, 0xAA);
        CK_ULONG len = out.size();
        point.arm();
        const CK_RV rv = read(reader, withOutput ? out.data() : nullptr, &len);
        EXPECT_EQ(rv, point.fired() ? CK_RV{2} : CKR_OK);
        EXPECT_EQ(len, point.fired() ? 0U : reader.usual);
        EXPECT_EQ(memory->outstanding(), 0U);
        if (point.fired()) ++failures;
      });
      // One buffer, for the EC point two; each failing in both ways.
      EXPECT_EQ(failures, reader.type == CKA_EC_POINT ? 4U : 2U);
    }
  }
}

TEST_F(Readers, SurviveAFailingAllocationWithANullLength) {
  forEachReader([&](const Reader& reader) {
    memory->failAllocation(0, Times::kFromThenOn);
    CK_BYTE out[8];
    EXPECT_EQ(read(reader, out, nullptr), CK_RV{2});
    memory->reset();
  });
}

// ---- What is particular to one reader ----

class RSAKeyModulus : public SessionTest {};

TEST_F(RSAKeyModulus, AsksForTheLengthThenReadsTwice) {
  CK_BYTE out[512];
  CK_ULONG len = sizeof out;
  EXPECT_EQ(bridge.pkcs11_getRSAKeyModulus(session, kPublicKey, out, &len), CKR_OK);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetAttributeValue(5, 21, [CKA_MODULUS null 0])",
                                              "C_GetAttributeValue(5, 21, [CKA_MODULUS room 256])",
                                              "C_GetAttributeValue(5, 21, [CKA_MODULUS room 256])"));
  EXPECT_EQ(len, 256U);
}

TEST_F(RSAKeyModulus, OfTwoHundredFiftySixBytesDoesNotFitIntoHalfOfThat) {
  CK_BYTE out[128];
  CK_ULONG len = sizeof out;
  EXPECT_EQ(bridge.pkcs11_getRSAKeyModulus(session, kPublicKey, out, &len), CK_RV{0x150});
  EXPECT_EQ(len, 0U);
}

class ECPublicKey : public SessionTest {
 protected:
  void SetUp() override {
    SessionTest::SetUp();
    key = script.addObject(ecPublicKey(bytesOf("02"), bytesOf("EC"), p256Params(), p256Point(9)));
  }

  CK_RV read() { return bridge.pkcs11_getECPublicKey(session, key, out.data(), &len); }

  CK_OBJECT_HANDLE key = 0;
  std::vector<CK_BYTE> out = std::vector<CK_BYTE>(640);
  CK_ULONG len = 640;
};

TEST_F(ECPublicKey, AsksForBothLengthsThenReadsThreeTimes) {
  EXPECT_EQ(read(), CKR_OK);
  constexpr const char* kFetch = "C_GetAttributeValue(5, 24, [CKA_EC_PARAMS room 10, CKA_EC_POINT room 67])";
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_GetAttributeValue(5, 24, [CKA_EC_PARAMS null 0, CKA_EC_POINT null 0])", kFetch,
                          kFetch, kFetch));
}

TEST_F(ECPublicKey, KeepsTheWrappingOfThePoint) {
  EXPECT_EQ(read(), CKR_OK);
  EXPECT_EQ(len, 67U);
  out.resize(67);
  EXPECT_EQ(out, p256Point(9));
  EXPECT_EQ(out[0], 0x04);  // OCTET STRING
  EXPECT_EQ(out[1], 0x41);
}

TEST_F(ECPublicKey, FailsWhenTheParametersAreMissing) {
  script.object(key).attributes.erase(CKA_EC_PARAMS);
  EXPECT_EQ(read(), CK_RV{0x12});
  EXPECT_EQ(len, 0U);
}

TEST_F(ECPublicKey, FailsWhenTheParametersAreEmpty) {
  script.object(key).attributes[CKA_EC_PARAMS] = {};
  EXPECT_EQ(read(), CK_RV{0x13});
  EXPECT_EQ(len, 0U);
}

TEST_F(ECPublicKey, DoesNotFetchLongParametersButReturnsThePoint) {
  for (const std::size_t size : {200U, 201U, 5000U}) {
    SCOPED_TRACE(size);
    script.object(key).attributes[CKA_EC_PARAMS] = patternValue(size, 2);
    len = 640;
    script.forgetCalls();
    memory->reset();
    EXPECT_EQ(read(), CKR_OK);
    EXPECT_EQ(len, 67U);
    EXPECT_EQ(script.calls().size(), 3U);
    EXPECT_THAT(memory->requests(), ElementsAre(67U));
  }
}

TEST_F(ECPublicKey, FetchesParametersOfUpTo199Bytes) {
  script.object(key).attributes[CKA_EC_PARAMS] = patternValue(199, 2);
  EXPECT_EQ(read(), CKR_OK);
  EXPECT_THAT(memory->requests(), ElementsAre(199U, 67U));
}

TEST_F(ECPublicKey, FailsOnAPointAboveTheLimitEvenWhenOnlyTheLengthIsWanted) {
  for (const std::size_t size : {201U, 520U}) {
    SCOPED_TRACE(size);
    script.object(key).attributes[CKA_EC_POINT] = patternValue(size, 2);
    len = 77;
    EXPECT_EQ(bridge.pkcs11_getECPublicKey(session, key, nullptr, &len), CK_RV{0x150});
    EXPECT_EQ(len, 0U);
  }
}

TEST_F(ECPublicKey, SurvivesParametersThatGrowOrVanish) {
  const struct {
    const char* name;
    std::vector<std::optional<CK_ULONG>> claims;
    CK_RV expected;
  } rows[] = {
      {"grow on the first read", {10, 199}, 0x150},
      {"grow on the second read", {10, 10, 199}, 0x150},
      {"vanish on the first read", {10, kAllOnes}, 0x13},
      {"vanish on the second read", {10, 10, kAllOnes}, 0x80000013},
      {"empty on the second read", {10, 10, 0}, 0x80000013},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    script.forgetCalls();
    script.deviations.claimedLengths[CKA_EC_PARAMS] = row.claims;
    len = 640;
    EXPECT_EQ(read(), row.expected);
    EXPECT_EQ(len, 0U);
    EXPECT_EQ(memory->outstanding(), 0U);
  }
}

class CertificateValue : public SessionTest {};

TEST_F(CertificateValue, AsksForTheLengthThenReadsTwice) {
  CK_BYTE out[2000];
  CK_ULONG len = sizeof out;
  EXPECT_EQ(bridge.pkcs11_getCertificate(session, kCertificate, out, &len), CKR_OK);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetAttributeValue(5, 23, [CKA_VALUE null 0])",
                                              "C_GetAttributeValue(5, 23, [CKA_VALUE room 700])",
                                              "C_GetAttributeValue(5, 23, [CKA_VALUE room 700])"));
}

TEST_F(CertificateValue, OfTwoThousandBytesIsNotFetched) {
  script.object(kCertificate).attributes[CKA_VALUE] = patternValue(2000, 3);
  CK_BYTE out[2000];
  CK_ULONG len = sizeof out;
  EXPECT_EQ(bridge.pkcs11_getCertificate(session, kCertificate, out, &len), CK_RV{0x150});
  EXPECT_EQ(len, 0U);
  EXPECT_THAT(script.callTexts(), ElementsAre("C_GetAttributeValue(5, 23, [CKA_VALUE null 0])"));
}

}  // namespace
}  // namespace mirel::test
