/// Listing keys and certificates with modules that fail, lie or are clumsy.

#include <optional>

#include "framework/FrameworkTest.h"
#include "framework/LargestAllocation.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using Claims = std::vector<std::optional<CK_ULONG>>;

/// What becomes of a listing in which something went wrong.
enum class Outcome {
  kFails,
  kKeyLeftOut,  ///< and with it the certificate that belongs to it
  kSucceeds,
};

class EnumCardKeysFailures : public FrameworkTest {
 protected:
  /// Lists once more over the lists of `retained` and expects what must become of it.
  void expectOutcome(Outcome expected, const RetainedRecord& retained) {
    forgetAllocations();
    EXPECT_EQ(framework->EnumCardKeys(reader()), expected != Outcome::kFails);
    EXPECT_LT(largestAllocation(), std::size_t{1} << 20U);
    EXPECT_LT(memory->largestRequest(), 2048U);
    EXPECT_EQ(memory->outstanding(), 0U);
    if (expected == Outcome::kFails) {
      EXPECT_FALSE(framework->p11ServiceInfo());
      expectEmptied(retained);
      return;
    }
    const int numListed = expected == Outcome::kSucceeds ? 1 : 0;
    EXPECT_THAT(keys(), SizeIs(numListed));
    EXPECT_THAT(certificates(), SizeIs(numListed));
    expectCounts(numListed, numListed);
  }
};

// ---- Every call fails once, then from then on ----

/// Consecutive calls with the same consequences.
struct CallGroup {
  const char* what;
  std::size_t numCalls;
  Outcome once = Outcome::kFails;
  Outcome fromThenOn = Outcome::kFails;
};

TEST_F(EnumCardKeysFailures, HaveTheirConsequencesForEachCall) {
  const Object rsa = rsaPublicKey(bytesOf("01"), bytesOf("MyKey"), patternValue(256, 0xC5));
  const struct {
    const char* what;
    Object key;
    /// For the length of the public value, and again for the value.
    std::size_t numValueCalls;
  } kinds[] = {
      {"RSA", rsa, 3},
      {"EC", ecPublicKey(bytesOf("01"), bytesOf("MyKey"), p256Params(), p256Point(1)), 4},
      {"another type", rsa.with(CKA_KEY_TYPE, ulongValue(CKK_DSA)), 0},
  };
  for (const auto& kind : kinds) {
    SCOPED_TRACE(kind.what);
    const CallGroup groups[] = {
        // A search that was not ended stands in the way of the next one.
        {"the search for keys", 4},
        {"the search for certificates", 3},
        {"ending it", 1, Outcome::kSucceeds},
        {"lengths, type, label and ID of the key", 1 + 3 * 2},
        {"length of the public value", kind.numValueCalls, Outcome::kKeyLeftOut},
        {"public value", kind.numValueCalls},
        {"lengths, label, ID and value of the certificate", 1 + 3 * 2},
        {"none of the calls", 1, Outcome::kSucceeds, Outcome::kSucceeds},
    };
    failEachCall(22 + 2 * kind.numValueCalls, [&](FailPoint& point) {
      newFramework();
      script.object(kPublicKey) = kind.key;
      const RetainedRecord retained = openAndList();
      const auto* group = groups;
      for (std::size_t n = point.n(); n >= group->numCalls; ++group) n -= group->numCalls;
      SCOPED_TRACE(group->what);
      point.arm();
      expectOutcome(point.once() ? group->once : group->fromThenOn, retained);
      // The lists are emptied when the keys have been searched for; until then the keys in them are
      // whole, and it is the release that takes their values.
      if (point.n() < 3) expectReleased(retained);
      // The session is the record's, and no other was opened.
      EXPECT_THAT(script.openSessions(), ElementsAre(kFirstSession));
      EXPECT_EQ(script.countOf("C_OpenSession"), 0U);
    });
  }
}

TEST_F(EnumCardKeysFailures, OfMemoryForPublicValues) {
  failEachAllocation(2, [&](FailPoint& point) {
    newFramework();
    const RetainedRecord retained = openAndList();
    point.arm();
    // The first block is for learning the length of the modulus, the second for reading it.
    const Outcome once[] = {Outcome::kKeyLeftOut, Outcome::kFails, Outcome::kSucceeds};
    expectOutcome(once[point.n()], retained);
  });
}

TEST_F(EnumCardKeysFailures, AtTheLastOfManyObjectsAreTotal) {
  const RetainedRecord retained = openAndList();
  for (int i = 0; i < 30; ++i) {
    script.addObject(rsaPublicKey(bytesOf("02"), bytesOf("More"), patternValue(128, 1)));
  }
  script.addObject(certificate(bytesOf("02"), bytesOf("More"), patternValue(2001, 1)));
  expectOutcome(Outcome::kFails, retained);
  // Nor can keys be listed until a session is opened; the one before stays with the module.
  EXPECT_FALSE(framework->EnumCardKeys(reader()));
  ASSERT_TRUE(framework->OpenCardSession(reader(), nullptr));
  leavesOpen({kFirstSession, kFirstSession + 1});
}

// ---- Without a session ----

TEST_F(EnumCardKeysFailures, FollowForARecordWhoseSessionWasClosed) {
  // The bridge opens a session for such a record, but the record cannot hold it.
  failEachCall(5, [&](FailPoint& point) {
    newFramework();
    const RetainedRecord retained = openAndList();
    ASSERT_TRUE(framework->CloseCardSession(reader(), nullptr));
    script.forgetCalls();
    point.arm();
    EXPECT_FALSE(framework->EnumCardKeys(reader()));
    EXPECT_FALSE(framework->p11ServiceInfo());
    expectReleased(retained);
    if (!point.fired()) {
      EXPECT_THAT(script.callTexts(),
                  ElementsAre("C_GetSlotInfo(1)", "C_OpenSession(1, 4, null, null)", "C_GetSessionInfo(6)",
                              "C_GetTokenInfo(1)", "C_CloseSession(6)"));
    }
    const bool left = point.fired() && (point.n() == 4 || (point.n() >= 2 && !point.once()));
    EXPECT_EQ(script.openSessions().size(), left ? 1U : 0U);
  });
}

TEST_F(EnumCardKeysFailures, FollowBeforeASessionWasOpened) {
  openService();
  EXPECT_FALSE(framework->EnumCardKeys(reader()));
  EXPECT_THAT(script.callTexts(), IsEmpty()) << "there is no slot to open a session on";
  EXPECT_FALSE(framework->p11ServiceInfo());
  ASSERT_TRUE(framework->EnumCards(reader()));
  script.forgetCalls();
  EXPECT_FALSE(framework->EnumCardKeys(reader()));
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_FindObjectsInit(0, [CKA_TOKEN=01, CKA_CLASS=0200000000000000])"));
  EXPECT_FALSE(framework->p11ServiceInfo());
}

// ---- Lengths that are lies ----

/// None of these can be the length of what the default card holds, and none is within a limit.
constexpr CK_ULONG kLies[] = {0,          kAllOnes,    2001,        3UL << 30U,
                              0xFFFFFFFF, 0x100000000, 0x100000002, 1UL << 62U};

TEST_F(EnumCardKeysFailures, OfLengthsNeitherCrashNorTakeMemory) {
  // An attribute's reads are counted over both objects.
  constexpr struct {
    const char* what;
    CK_ATTRIBUTE_TYPE type;
    std::size_t numReads;
  } attributes[] = {
      {"CKA_KEY_TYPE", CKA_KEY_TYPE, 3},  // lengths, value, value again
      {"CKA_LABEL", CKA_LABEL, 6},        // the key's three, the certificate's three
      {"CKA_ID", CKA_ID, 6},
      {"CKA_MODULUS", CKA_MODULUS, 6},  // three for its length, three for its value
      {"CKA_VALUE", CKA_VALUE, 3},
  };
  for (const auto& attribute : attributes) {
    for (std::size_t n = 0; n < attribute.numReads; ++n) {
      for (const CK_ULONG lie : kLies) {
        SCOPED_TRACE(::testing::Message() << attribute.what << ", read " << n << ", length " << lie);
        const RetainedRecord retained = startAnew();
        Claims claims(n);
        claims.emplace_back(lie);
        claims.emplace_back(std::nullopt);
        script.deviations.claimedLengths[attribute.type] = claims;
        // A modulus may have no readable length. One that is merely too long has one.
        const bool unreadable = n > 0 || lie == 0 || lie == kAllOnes;
        const bool leftOut = attribute.type == CKA_MODULUS && n < 3 && unreadable;
        expectOutcome(leftOut ? Outcome::kKeyLeftOut : Outcome::kFails, retained);
      }
    }
  }
  expectUsableAgain();
}

TEST_F(EnumCardKeysFailures, AreNotValuesShorterThanAnnounced) {
  const RetainedRecord retained = openAndList();
  script.deviations.claimedLengths[CKA_LABEL] = {100, {}, 3, 100, {}, {}};
  script.deviations.claimedLengths[CKA_ID] = {100, {}, {}, 100, {}};
  script.deviations.claimedLengths[CKA_MODULUS] = {2000, {}, {}, 100};
  script.deviations.claimedLengths[CKA_VALUE] = {2000, {}, 50};
  expectOutcome(Outcome::kSucceeds, retained);
  EXPECT_EQ(keys().at(0)->keyName(), Text{u"1234567890ABCDEF_RSA_01_MyK"});
  Value modulus = patternValue(256, 0xC5);
  modulus.resize(100);
  EXPECT_EQ(keys().at(0)->pKeyValue(), bytesLike(modulus));
  EXPECT_EQ(certificates().at(0)->strLabel(), Text{u"MyKey"});
  EXPECT_EQ(certificates().at(0)->pbCertData(), bytesLike(patternValue(50, 0x30)));
}

// ---- Searches that are lies ----

TEST_F(EnumCardKeysFailures, AreNotSearchesThatNeverEnd) {
  (void)openAndList();
  script.deviations.endlessSearches = true;
  EXPECT_TRUE(framework->EnumCardKeys(reader()));
  EXPECT_THAT(keys(), SizeIs(160));
  // Each of the 160 certificates belongs to each of the 160 keys: they are the same one over and over.
  expectCounts(160, 160 * 160);
  EXPECT_EQ(script.countOf("C_FindObjects"), 2U * 161U);
  script.card().objects.clear();
  EXPECT_FALSE(framework->EnumCardKeys(reader())) << "the handles are made up";
}

TEST_F(EnumCardKeysFailures, OfFunctionsThatDoNothing) {
  const struct {
    const char* function;
    Outcome outcome = Outcome::kFails;
  } rows[] = {
      {"C_FindObjectsInit"},  // so there is no search to fetch from
      {"C_FindObjects", Outcome::kKeyLeftOut},
      {"C_FindObjectsFinal"},  // so the second search cannot begin
      {"C_GetAttributeValue"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.function);
    const RetainedRecord retained = startAnew();
    script.deviations.silent = {row.function};
    expectOutcome(row.outcome, retained);
    expectUsableAgain();
  }
}

TEST_F(EnumCardKeysFailures, AreNotHandlesThatNeedAllTheirBits) {
  // The same card under handles above 2^32, one of them 0 in its lower half.
  const RetainedRecord retained = openAndList();
  auto& objects = script.card().objects;
  const Object key = objects.at(kPublicKey);
  const Object cert = objects.at(kCertificate);
  constexpr CK_OBJECT_HANDLE kLargeKey = CK_OBJECT_HANDLE{7} << 32U;
  constexpr CK_OBJECT_HANDLE kLargeCertificate = ~CK_OBJECT_HANDLE{0} - 1;
  objects = {{kLargeKey, key}, {kLargeCertificate, cert}};
  expectOutcome(Outcome::kSucceeds, retained);
  EXPECT_EQ(keys().at(0)->hPubKey(), kLargeKey);
  EXPECT_EQ(certificates().at(0)->hCert(), kLargeCertificate);
}

}  // namespace
}  // namespace mirel::test
