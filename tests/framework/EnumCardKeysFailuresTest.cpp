/// Listing keys and certificates with modules that fail, lie or are clumsy.

#include <algorithm>
#include <optional>

#include "framework/FrameworkTest.h"
#include "framework/LargestAllocation.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using List = CK_FUNCTION_LIST;

/// What becomes of an enumeration in which something went wrong.
enum class Outcome {
  kFails,
  kKeyLeftOut,  ///< and with it the certificate that belongs to it
  kSucceeds,
};

class EnumCardKeysFailures : public FrameworkTest {
 protected:
  /// Runs an enumeration over the lists of `retained` and expects what must become of it.
  void expectOutcome(Outcome expected, const RetainedRecord& retained) {
    EXPECT_EQ(framework->EnumCardKeys(reader()), expected != Outcome::kFails);
    switch (expected) {
      case Outcome::kFails:
        EXPECT_FALSE(framework->p11ServiceInfo());
        expectEmptied(retained);
        break;
      case Outcome::kKeyLeftOut:
        EXPECT_THAT(keys(), IsEmpty());
        EXPECT_EQ(record().m_keyIndex(), 0);
        EXPECT_THAT(certificates(), IsEmpty());
        EXPECT_EQ(record().m_certIndex(), 0);
        break;
      case Outcome::kSucceeds:
        EXPECT_THAT(keys(), SizeIs(1));
        EXPECT_EQ(record().m_keyIndex(), 1);
        EXPECT_THAT(certificates(), SizeIs(1));
        EXPECT_EQ(record().m_certIndex(), 1);
        break;
    }
  }

  /// A new framework on the default card, its lists filled once, its calls forgotten.
  RetainedRecord freshEnumeration() {
    script.reset();
    newFramework();
    openSessionAndEnumerate();
    return RetainedRecord{framework->p11ServiceInfo()};
  }
};

// ---- Every call fails once, then from then on ----

/// Consecutive calls of an enumeration with the same consequences.
struct CallGroup {
  const char* what;
  std::size_t numCalls;
  Outcome once;
  Outcome fromThenOn;
};

struct KindOfKey {
  const char* what;
  Object key;
  std::vector<CallGroup> calls;
};

std::vector<KindOfKey> kindsOfKeys() {
  const auto fails = Outcome::kFails;
  const auto leftOut = Outcome::kKeyLeftOut;
  const CallGroup keySearch{"starting the search for keys and fetching them", 3, fails, fails};
  // The search then stays open, so the next one cannot begin.
  const CallGroup endOfKeySearch{"ending the search for keys", 1, fails, fails};
  const CallGroup certificateSearch{"starting the search for certificates and fetching them", 3, fails,
                                    fails};
  const CallGroup endOfCertificateSearch{"ending the search for certificates", 1, Outcome::kSucceeds, fails};
  const CallGroup texts{"lengths, type, label and ID of the key", 1 + 3 * 2, fails, fails};
  const CallGroup certificateValues{"lengths, label, ID and value of the certificate", 1 + 3 * 2, fails,
                                    fails};
  const Object rsa = rsaPublicKey(bytesOf("01"), bytesOf("MyKey"), patternValue(256, 0xC5));
  return {
      {"RSA",
       rsa,
       {keySearch,
        endOfKeySearch,
        certificateSearch,
        endOfCertificateSearch,
        texts,
        {"length of the modulus", 3, leftOut, fails},
        {"modulus", 3, fails, fails},
        certificateValues}},
      {"EC",
       ecPublicKey(bytesOf("01"), bytesOf("MyKey"), p256Params(), p256Point(1)),
       {keySearch,
        endOfKeySearch,
        certificateSearch,
        endOfCertificateSearch,
        texts,
        {"length of the point", 4, leftOut, fails},
        {"point", 4, fails, fails},
        certificateValues}},
      {"another type",
       rsa.with(CKA_KEY_TYPE, ulongValue(CKK_DSA)),
       {keySearch, endOfKeySearch, certificateSearch, endOfCertificateSearch, texts, certificateValues}},
  };
}

std::size_t numCallsOf(const std::vector<CallGroup>& groups) {
  std::size_t numCalls = 0;
  for (const CallGroup& group : groups) numCalls += group.numCalls;
  return numCalls;
}

/// Null for a call that is not made any more.
const CallGroup* groupOfCall(const std::vector<CallGroup>& groups, std::size_t n) {
  for (const CallGroup& group : groups) {
    if (n < group.numCalls) return &group;
    n -= group.numCalls;
  }
  return nullptr;
}

TEST_F(EnumCardKeysFailures, HaveTheirConsequencesForEachCall) {
  for (const KindOfKey& kind : kindsOfKeys()) {
    SCOPED_TRACE(kind.what);
    failEachCall(CKR_DEVICE_ERROR, numCallsOf(kind.calls), [&](FailPoint& point) {
      newFramework();
      script.object(kPublicKey) = kind.key;
      openSessionAndEnumerate();
      const RetainedRecord retained{framework->p11ServiceInfo()};
      const CallGroup* const group = groupOfCall(kind.calls, point.n());
      SCOPED_TRACE(group ? group->what : "none of the calls");
      const bool once = point.times() == Times::kOnce;
      point.arm();
      expectOutcome(!group ? Outcome::kSucceeds : once ? group->once : group->fromThenOn, retained);

      // The lists are emptied when the keys have been searched for; until then the keys in them are
      // whole, and it is the release that takes their values.
      if (point.n() < 3) expectMembersReleased(retained);
      // The session is the record's, and no other was opened.
      EXPECT_EQ(script.openSessions(), only(kFirstSession));
      EXPECT_EQ(script.countOf("C_OpenSession"), 0U);
      // Every search that could be started was ended, as far as the module let it be.
      const auto started = std::count_if(script.calls().begin(), script.calls().end(), [](const Call& call) {
        return call.function == "C_FindObjectsInit" && call.result == CKR_OK;
      });
      EXPECT_EQ(script.countOf("C_FindObjectsFinal"), static_cast<std::size_t>(started));
      const bool couldNotEnd = std::any_of(
          script.calls().begin(), script.calls().end(),
          [](const Call& call) { return call.function == "C_FindObjectsFinal" && call.result != CKR_OK; });
      EXPECT_EQ(script.openSearches().empty(), !couldNotEnd);
      EXPECT_EQ(memory->outstanding(), 0U);
    });
  }
}

TEST_F(EnumCardKeysFailures, OfAnyCodeCount) {
  for (const CK_RV code :
       {CKR_CANCEL, CKR_HOST_MEMORY, CKR_DEVICE_REMOVED, CKR_SESSION_HANDLE_INVALID, CKR_BUFFER_TOO_SMALL,
        CKR_ATTRIBUTE_SENSITIVE, CKR_ATTRIBUTE_TYPE_INVALID, CKR_OBJECT_HANDLE_INVALID, CKR_VENDOR_DEFINED,
        CK_RV{0x80000000}, CK_RV{1} << 32U}) {
    SCOPED_TRACE(code);
    for (const char* const function : {"C_FindObjectsInit", "C_FindObjects", "C_GetAttributeValue"}) {
      SCOPED_TRACE(function);
      const RetainedRecord retained = freshEnumeration();
      script.failCallOf(function, 0, code);
      expectOutcome(Outcome::kFails, retained);
    }
  }
}

TEST_F(EnumCardKeysFailures, OfMemoryForPublicValues) {
  failEachAllocation(2, [&](FailPoint& point) {
    newFramework();
    openSessionAndEnumerate();
    const RetainedRecord retained{framework->p11ServiceInfo()};
    point.arm();
    // The first block is for learning the length of the modulus, the second for reading it.
    constexpr Outcome kOutcomes[] = {Outcome::kKeyLeftOut, Outcome::kFails, Outcome::kSucceeds};
    expectOutcome(kOutcomes[point.n()], retained);
  });
}

TEST_F(EnumCardKeysFailures, InTheMiddleOfTheKeySearchTakeTheKeysFoundWithThem) {
  const RetainedRecord retained = freshEnumeration();
  for (int i = 0; i < 5; ++i) {
    script.addObject(rsaPublicKey(bytesOf("02"), bytesOf("More"), patternValue(128, 1)));
  }
  script.failCallOf("C_FindObjects", 3, CKR_DEVICE_ERROR);
  expectOutcome(Outcome::kFails, retained);
  EXPECT_EQ(script.countOf("C_GetAttributeValue"), 0U);
}

TEST_F(EnumCardKeysFailures, AtTheLastOfManyObjectsAreTotal) {
  const RetainedRecord retained = freshEnumeration();
  for (int i = 0; i < 30; ++i) {
    script.addObject(rsaPublicKey(bytesOf("02"), bytesOf("More"), patternValue(128, 1)));
  }
  script.addObject(certificate(bytesOf("02"), bytesOf("More"), patternValue(2001, 1)));
  expectOutcome(Outcome::kFails, retained);
}

TEST_F(EnumCardKeysFailures, LeaveTheNextEnumerationToANewSession) {
  const RetainedRecord retained = freshEnumeration();
  script.failCallOf("C_FindObjects", 0, CKR_DEVICE_ERROR);
  expectOutcome(Outcome::kFails, retained);
  EXPECT_FALSE(framework->EnumCardKeys(reader())) << "there is no record";
  ASSERT_TRUE(framework->OpenCardSession(reader(), nullptr));
  EXPECT_TRUE(framework->EnumCardKeys(reader()));
  EXPECT_THAT(keys(), SizeIs(1));
  // The session of the record that was released stays with the module.
  leavesOpen({kFirstSession, kFirstSession + 1});
}

TEST_F(EnumCardKeysFailures, OfAFunctionThatTheModuleLacks) {
  for (const char* const function :
       {"C_FindObjectsInit", "C_FindObjects", "C_FindObjectsFinal", "C_GetAttributeValue"}) {
    SCOPED_TRACE(function);
    const RetainedRecord retained = freshEnumeration();
    script.removeEntry(function);
    expectOutcome(Outcome::kFails, retained);
    expectUsable();
  }
}

// ---- Lengths that are lies ----

/// One attribute of the default card's objects; its reads are counted over both objects.
struct LyingAttribute {
  const char* what;
  CK_ATTRIBUTE_TYPE type;
  std::size_t numReads;
};
constexpr LyingAttribute kLyingAttributes[] = {
    {"CKA_KEY_TYPE", CKA_KEY_TYPE, 3},  // lengths, value, value again
    {"CKA_LABEL", CKA_LABEL, 6},        // the key's three, the certificate's three
    {"CKA_ID", CKA_ID, 6},
    {"CKA_MODULUS", CKA_MODULUS, 6},  // three for its length, three for its value
    {"CKA_VALUE", CKA_VALUE, 3},
};

constexpr CK_ULONG kGiB = CK_ULONG{1} << 30U;

/// None of these can be the length of what the default card holds, and none is within a limit.
constexpr CK_ULONG kLies[] = {
    0,
    CK_UNAVAILABLE_INFORMATION,
    2001,
    5000,
    3 * kGiB,
    0x80000000,
    0xFFFFFFFF,
    0x100000000,  // 0 in 32 bits
    0x100000002,  // 2 in 32 bits
    0x100000010,
    CK_ULONG{1} << 40U,
    CK_ULONG{1} << 62U,
    CK_ULONG{1} << 63U,
    CK_UNAVAILABLE_INFORMATION - 1,
};

TEST_F(EnumCardKeysFailures, OfLengthsNeitherCrashNorTakeMemory) {
  for (const LyingAttribute& attribute : kLyingAttributes) {
    for (std::size_t n = 0; n < attribute.numReads; ++n) {
      for (const CK_ULONG lie : kLies) {
        SCOPED_TRACE(::testing::Message() << attribute.what << ", read " << n << ", length " << lie);
        const RetainedRecord retained = freshEnumeration();
        std::vector<std::optional<CK_ULONG>> claims(n);
        claims.emplace_back(lie);
        claims.emplace_back(std::nullopt);
        script.deviations.claimedLengths[attribute.type] = claims;
        memory->reset();
        forgetAllocations();

        // A modulus may have no readable length. One that is merely too long has one.
        const bool unreadable = n > 0 || lie == 0 || lie == CK_UNAVAILABLE_INFORMATION;
        const bool leftOut = attribute.type == CKA_MODULUS && n < 3 && unreadable;
        expectOutcome(leftOut ? Outcome::kKeyLeftOut : Outcome::kFails, retained);
        EXPECT_LT(largestAllocation(), std::size_t{1} << 20U);
        EXPECT_LT(memory->largestRequest(), 2048U);
        EXPECT_EQ(memory->outstanding(), 0U);
      }
    }
  }
  expectUsable();
}

TEST_F(EnumCardKeysFailures, OfAllLengthsAtOnceNeitherCrashNorTakeMemory) {
  for (const CK_ULONG lie : kLies) {
    SCOPED_TRACE(lie);
    const RetainedRecord retained = freshEnumeration();
    for (const LyingAttribute& attribute : kLyingAttributes) {
      script.deviations.claimedLengths[attribute.type] = {lie};
    }
    forgetAllocations();
    expectOutcome(Outcome::kFails, retained);
    EXPECT_LT(largestAllocation(), std::size_t{1} << 20U);
  }
}

TEST_F(EnumCardKeysFailures, OfTwentyHugeCertificatesTakeNoMemory) {
  const RetainedRecord retained = freshEnumeration();
  for (int i = 0; i < 20; ++i) {
    script.addObject(certificate(bytesOf("01"), bytesOf("Huge"), patternValue(100, 1)));
  }
  script.deviations.claimedLengths[CKA_VALUE] = {3 * kGiB};
  forgetAllocations();
  expectOutcome(Outcome::kFails, retained);
  EXPECT_LT(largestAllocation(), std::size_t{1} << 20U);
}

TEST_F(EnumCardKeysFailures, OfALabelThatGrowsAfterItsLengthWasAsked) {
  // The certificate's label is read from the fourth time on: 4 bytes announced, 2000 given with success.
  const RetainedRecord retained = freshEnumeration();
  script.deviations.claimedLengths[CKA_LABEL] = {{}, {}, {}, 4, 2000, 2000};
  expectOutcome(Outcome::kFails, retained);
}

TEST_F(EnumCardKeysFailures, OfAValueThatGrowsHonestly) {
  constexpr struct {
    CK_ATTRIBUTE_TYPE type;
    std::size_t readBefore;
    Outcome outcome;
  } kRows[] = {
      {CKA_LABEL, 1, Outcome::kFails},        {CKA_LABEL, 2, Outcome::kFails},
      {CKA_LABEL, 4, Outcome::kFails},        {CKA_LABEL, 5, Outcome::kFails},
      {CKA_ID, 1, Outcome::kFails},           {CKA_ID, 5, Outcome::kFails},
      {CKA_KEY_TYPE, 1, Outcome::kFails},     {CKA_VALUE, 1, Outcome::kFails},
      {CKA_VALUE, 2, Outcome::kFails},        {CKA_MODULUS, 1, Outcome::kKeyLeftOut},
      {CKA_MODULUS, 2, Outcome::kKeyLeftOut}, {CKA_MODULUS, 3, Outcome::kFails},
      {CKA_MODULUS, 4, Outcome::kFails},      {CKA_MODULUS, 5, Outcome::kFails},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(::testing::Message() << "attribute " << row.type << ", grown after read " << row.readBefore);
    const RetainedRecord retained = freshEnumeration();
    std::vector<Value> turns(row.readBefore, patternValue(2, '0'));
    turns.push_back(patternValue(600, '0'));
    script.deviations.valuesInTurn[row.type] = turns;
    expectOutcome(row.outcome, retained);
  }
}

TEST_F(EnumCardKeysFailures, AreNotShorterValuesThanAnnounced) {
  // Asked for its length, each attribute says 100; read, it is what it is.
  const RetainedRecord retained = freshEnumeration();
  script.deviations.claimedLengths[CKA_LABEL] = {100, {}, {}, 100, {}};
  script.deviations.claimedLengths[CKA_ID] = {100, {}, {}, 100, {}};
  script.deviations.claimedLengths[CKA_VALUE] = {2000, {}};
  expectOutcome(Outcome::kSucceeds, retained);
  EXPECT_EQ(keys().at(0)->keyName(), Text{u"1234567890ABCDEF_RSA_01_MyKey"});
  EXPECT_EQ(certificates().at(0)->strLabel(), Text{u"MyKey"});
  EXPECT_EQ(certificates().at(0)->pbCertData(), bytesLike(patternValue(700, 0x30)));
}

TEST_F(EnumCardKeysFailures, AreNotValuesThatShrinkWhenReadAgain) {
  const RetainedRecord retained = freshEnumeration();
  script.deviations.claimedLengths[CKA_LABEL] = {{}, {}, 3, {}};
  script.deviations.claimedLengths[CKA_MODULUS] = {{}, {}, {}, {}, {}, 100};
  script.deviations.claimedLengths[CKA_VALUE] = {{}, {}, 50};
  expectOutcome(Outcome::kSucceeds, retained);
  EXPECT_EQ(keys().at(0)->keyName(), Text{u"1234567890ABCDEF_RSA_01_MyK"});
  Value modulus = patternValue(256, 0xC5);
  modulus.resize(100);
  EXPECT_EQ(keys().at(0)->pKeyValue(), bytesLike(modulus));
  EXPECT_EQ(certificates().at(0)->pbCertData(), bytesLike(patternValue(50, 0x30)));
}

TEST_F(EnumCardKeysFailures, AreNotAModulusThatWasAnnouncedTooLong) {
  const RetainedRecord retained = freshEnumeration();
  script.deviations.claimedLengths[CKA_MODULUS] = {2000, {}};
  expectOutcome(Outcome::kSucceeds, retained);
  EXPECT_EQ(keys().at(0)->pKeyValue(), bytesLike(patternValue(256, 0xC5)));
}

/// What becomes of a lie about the domain parameters or the point in the n-th read. Reads 0 to 3 are for
/// the point's length, 4 to 7 for the point: all lengths, then the values once and once more for each
/// buffer.
Outcome outcomeOfPointLie(CK_ATTRIBUTE_TYPE type, std::size_t n, CK_ULONG lie) {
  const Outcome failure = n < 4 ? Outcome::kKeyLeftOut : Outcome::kFails;
  const bool unreadable = lie == 0 || lie == CK_UNAVAILABLE_INFORMATION;
  switch (n % 4) {
    case 0:
      if (unreadable) return failure;
      // What is announced too long is not fetched, but its length is heard again. Only the point is
      // wanted, and only in the end.
      return type == CKA_EC_POINT && n == 4 ? Outcome::kFails : Outcome::kSucceeds;
    case 1:
      // The entries are looked at in turn, and for the first one all are read again. That read offers the
      // point no room at all when its length has just become 0.
      return type == CKA_EC_POINT && lie != 0 ? Outcome::kSucceeds : failure;
    case 3:
      // This read is for the point; that the parameters have become empty is not looked at.
      return type == CKA_EC_PARAMS && lie == 0 ? Outcome::kSucceeds : failure;
    default: return failure;
  }
}

TEST_F(EnumCardKeysFailures, OfAPointsLengthsNeitherCrashNorTakeMemory) {
  for (std::size_t n = 0; n < 8; ++n) {
    for (const CK_ULONG lie : kLies) {
      for (const CK_ATTRIBUTE_TYPE type : {CKA_EC_PARAMS, CKA_EC_POINT}) {
        SCOPED_TRACE(::testing::Message() << "attribute " << type << ", read " << n << ", length " << lie);
        const RetainedRecord retained = freshEnumeration();
        script.object(kPublicKey) = ecPublicKey(bytesOf("01"), bytesOf("MyKey"), p256Params(), p256Point(1));
        std::vector<std::optional<CK_ULONG>> claims(n);
        claims.emplace_back(lie);
        claims.emplace_back(std::nullopt);
        script.deviations.claimedLengths[type] = claims;
        memory->reset();
        forgetAllocations();
        const Outcome expected = outcomeOfPointLie(type, n, lie);
        expectOutcome(expected, retained);
        if (expected == Outcome::kSucceeds) {
          EXPECT_EQ(keys().at(0)->pKeyValue(), bytesLike(p256Point(1)));
        }
        EXPECT_LT(largestAllocation(), std::size_t{1} << 20U);
        EXPECT_LT(memory->largestRequest(), 2048U);
        EXPECT_EQ(memory->outstanding(), 0U);
      }
    }
  }
}

// ---- Searches that are lies ----

TEST_F(EnumCardKeysFailures, AreNotSearchesThatReportMoreThanOneAtATime) {
  for (const CK_ULONG reported : {CK_ULONG{2}, CK_ULONG{5}, CK_ULONG{161}, CK_ULONG{1} << 32U,
                                  (CK_ULONG{1} << 32U) + 1, ~CK_ULONG{0}}) {
    SCOPED_TRACE(reported);
    const RetainedRecord retained = freshEnumeration();
    script.deviations.foundPerCall = reported;
    EXPECT_TRUE(framework->EnumCardKeys(reader()));
    EXPECT_EQ(record().m_keyIndex(), 0);
    EXPECT_EQ(record().m_certIndex(), 0);
    EXPECT_THAT(script.openSearches(), IsEmpty());
  }
}

TEST_F(EnumCardKeysFailures, AreNotSearchesThatNeverEnd) {
  const RetainedRecord retained = freshEnumeration();
  script.deviations.endlessSearches = true;
  EXPECT_TRUE(framework->EnumCardKeys(reader()));
  EXPECT_EQ(record().m_keyIndex(), 160);
  EXPECT_THAT(keys(), SizeIs(160));
  // Each of the 160 certificates belongs to each of the 160 keys: they are the same one over and over.
  EXPECT_EQ(record().m_certIndex(), 160 * 160);
  EXPECT_THAT(certificates(), SizeIs(160 * 160));
  EXPECT_EQ(script.countOf("C_FindObjects"), 2U * 161U);
}

TEST_F(EnumCardKeysFailures, OfHandlesThatWereMadeUp) {
  freshEnumeration();
  emptyTheCard();
  script.deviations.endlessSearches = true;
  EXPECT_FALSE(framework->EnumCardKeys(reader()));
  EXPECT_FALSE(framework->p11ServiceInfo());
}

TEST_F(EnumCardKeysFailures, OfFunctionsThatDoNothing) {
  const struct {
    const char* function;
    Outcome outcome;
  } kRows[] = {
      {"C_FindObjectsInit", Outcome::kFails},  // so there is no search to fetch from
      {"C_FindObjects", Outcome::kKeyLeftOut},
      {"C_FindObjectsFinal", Outcome::kFails},  // so the second search cannot begin
      {"C_GetAttributeValue", Outcome::kFails},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.function);
    const RetainedRecord retained = freshEnumeration();
    script.deviations.silent = {row.function};
    expectOutcome(row.outcome, retained);
    expectUsable();
  }
}

TEST_F(EnumCardKeysFailures, OfAModuleThatExchangesPointersAndTypesDoNoHarm) {
  const RetainedRecord retained = freshEnumeration();
  static CK_BYTE elsewhere[16] = {};
  script.hook<&List::C_GetAttributeValue>([](auto real, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                             CK_ATTRIBUTE* attributes, CK_ULONG count) {
    const CK_RV rv = real(session, object, attributes, count);
    for (CK_ULONG i = 0; i < count; ++i) {
      attributes[i].pValue = elsewhere;
      attributes[i].type = CKA_PRIVATE_EXPONENT;
    }
    return rv;
  });
  expectOutcome(Outcome::kSucceeds, retained);
  EXPECT_EQ(keys().at(0)->keyName(), Text{u"1234567890ABCDEF_RSA_01_MyKey"});
}

TEST_F(EnumCardKeysFailures, AreNotHandlesThatNeedAllTheirBits) {
  // The same card under handles above 2^32, one of them 0 in its lower half.
  freshEnumeration();
  auto& objects = script.card().objects;
  const Object key = objects.at(kPublicKey);
  const Object cert = objects.at(kCertificate);
  constexpr CK_OBJECT_HANDLE kLargeKey = CK_OBJECT_HANDLE{7} << 32U;
  constexpr CK_OBJECT_HANDLE kLargeCertificate = ~CK_OBJECT_HANDLE{0} - 1;
  objects.clear();
  objects.emplace(kLargeKey, key);
  objects.emplace(kLargeCertificate, cert);
  ASSERT_TRUE(framework->EnumCardKeys(reader()));
  ASSERT_THAT(keys(), SizeIs(1));
  EXPECT_EQ(keys().at(0)->hPubKey(), kLargeKey);
  ASSERT_THAT(certificates(), SizeIs(1));
  EXPECT_EQ(certificates().at(0)->hCert(), kLargeCertificate);
}

}  // namespace
}  // namespace mirel::test
