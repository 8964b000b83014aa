/// Decrypting, under both of its names.

#include "framework/CardOperationsTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAreArray;
using ::testing::EndsWith;
using ::testing::IsEmpty;

enum class Kind { kPKCS1, kOAEP };

class PerformDecrypt : public CardOperationsTest, public ::testing::WithParamInterface<Kind> {
 protected:
  bool decrypt(ResultBuffer& output) { return decryptTo(output.data(), &length, output.capacity()); }
  bool decryptTo(CK_BYTE* output, CK_ULONG* outLen, CK_ULONG capacity) {
    if (GetParam() == Kind::kPKCS1) {
      return framework->PerformPKCS1Decrypt("Reader A 00", key, cipher.data(), cipher.size(), output, outLen,
                                            capacity);
    }
    return framework->PerformOAEPDecrypt("Reader A 00", key, hash, cipher.data(), cipher.size(), output,
                                         outLen, capacity);
  }
  [[nodiscard]] std::vector<std::string> expectedLines(std::size_t numLines) const {
    std::vector<std::string> lines;
    if (GetParam() == Kind::kPKCS1) {
      lines = {"process: [MirelCTKFramework-607] -[MirelCTKFramework PerformPKCS1Decrypt:::::::]"};
    } else {
      lines = {"process: [MirelCTKFramework-552] -[MirelCTKFramework PerformOAEPDecrypt::::::::]",
               "process: [MirelCTKFramework-562] -[MirelCTKFramework PerformOAEPDecrypt::::::::]",
               "process: [MirelCTKFramework-570] -[MirelCTKFramework PerformOAEPDecrypt::::::::]"};
    }
    lines.resize(numLines);
    return lines;
  }
  [[nodiscard]] static std::string hexText(const Value& value) {
    std::string text;
    for (const CK_BYTE byte : value) {
      for (const unsigned digit : {byte / 16U, byte % 16U}) text += "0123456789ABCDEF"[digit];
    }
    return text;
  }

  CK_MECHANISM_TYPE hash = CKM_SHA256;
  const Value plain = bytesOf("the plain text");
  Value cipher = cipherOf(plain);
  CK_ULONG length = 77;
};

INSTANTIATE_TEST_SUITE_P(Kinds, PerformDecrypt, ::testing::Values(Kind::kPKCS1, Kind::kOAEP),
                         [](const auto& kind) { return kind.param == Kind::kPKCS1 ? "PKCS1" : "OAEP"; });

TEST_P(PerformDecrypt, MakesExactlyTheseCalls) {
  ResultBuffer output{2000};
  EXPECT_TRUE(decrypt(output));
  // The key is looked for twice: as a test, then to be used. Both names mean CKM_RSA_PKCS.
  EXPECT_THAT(script.callTexts(),
              ElementsAreArray(inOrder({lookUpCalls(),
                                        lookUpCalls(),
                                        modulusCalls(kPrivateKey),
                                        {"C_DecryptInit(5, CKM 1 null 0, 22)",
                                         "C_Decrypt(5, " + hexText(cipher) + ", room 256)"}})));
}

TEST_P(PerformDecrypt, WritesThePlainTextAndItsLength) {
  ResultBuffer output{2000};
  EXPECT_TRUE(decrypt(output));
  EXPECT_EQ(length, plain.size());
  EXPECT_EQ(output.first(length), plain);
  EXPECT_TRUE(output.untouchedFrom(length));
}

TEST_P(PerformDecrypt, DecryptsWithKeysOfEveryLength) {
  for (const std::size_t size : {128U, 256U, 384U, 512U, 1024U}) {
    SCOPED_TRACE(size);
    setModulusLen(size);
    cipher = cipherOf(plain, size);
    ResultBuffer output{2000};
    EXPECT_TRUE(decrypt(output));
    EXPECT_EQ(output.first(length), plain);
  }
}

TEST_P(PerformDecrypt, DoesNotLookAtTheNameOfTheKey) {
  for (const Text& name : {Text{u"1234_(null)01_MyKey"}, Text{u"EC"}, Text{}}) {
    key->setKeyName(name);
    ResultBuffer output{2000};
    EXPECT_TRUE(decrypt(output));
    EXPECT_EQ(output.first(length), plain);
  }
}

TEST_P(PerformDecrypt, LeavesTheLengthAloneOnEntry) {
  for (const CK_ULONG entry : {CK_ULONG{0}, CK_ULONG{1} << 40U, ~CK_ULONG{0}}) {
    SCOPED_TRACE(entry);
    length = entry;
    ResultBuffer output{14};
    EXPECT_TRUE(decrypt(output));
    EXPECT_EQ(length, 14U);
    EXPECT_EQ(output.all(), plain);
  }
}

TEST_P(PerformDecrypt, FailsForAPlainTextLongerThanTheCapacity) {
  const struct {
    const char* name;
    std::size_t size;
    std::size_t capacity;
    bool succeeds;
  } rows[] = {
      {"exactly 2000 bytes", 2000, 2000, true}, {"2001 bytes", 2001, 2000, false},
      {"5000 bytes", 5000, 2000, false},        {"one byte over", 14, 13, false},
      {"the smallest buffer", 14, 1, false},    {"empty", 0, 1, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    script.deviations.plainText = patternValue(row.size, 0x61);
    script.deviations.claimedLengths[CKA_MODULUS] = {5000};
    ResultBuffer output{row.capacity};
    EXPECT_EQ(decrypt(output), row.succeeds);
    EXPECT_EQ(length, row.size);
    Value expected = patternValue(row.size, 0x61);
    expected.resize(std::min(row.size, row.capacity));
    EXPECT_EQ(output.first(expected.size()), expected);
  }
}

TEST_P(PerformDecrypt, FailsForLengthsThatCannotBeTrue) {
  for (const CK_ULONG claimed : {CK_ULONG{2001}, CK_ULONG{1} << 40U, ~CK_ULONG{0}}) {
    SCOPED_TRACE(claimed);
    script.deviations.claimedResults["C_Decrypt"] = {claimed, std::nullopt};
    ResultBuffer output{2000};
    EXPECT_FALSE(decrypt(output));
    EXPECT_EQ(length, claimed);
  }
}

TEST_P(PerformDecrypt, FailsForAnAbsurdModulus) {
  for (const CK_ULONG claim : {CK_ULONG{65537}, CK_ULONG{1} << 40U, ~CK_ULONG{0} - 1}) {
    SCOPED_TRACE(claim);
    script.deviations.claimedLengths[CKA_MODULUS] = {claim};
    ResultBuffer output{2000};
    EXPECT_FALSE(decrypt(output));
    EXPECT_EQ(script.countOf("C_DecryptInit"), 0U);
    EXPECT_TRUE(output.untouched());
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
  EXPECT_EQ(length, plain.size());
  EXPECT_THAT(script.callTexts().back(), EndsWith(", null 256)"));
}

TEST_P(PerformDecrypt, FailsForAnEcKey) {
  const CK_OBJECT_HANDLE publicKey =
      script.addObject(ecPublicKey(bytesOf("02"), bytesOf("Curve"), p256Params(), p256Point(3)));
  script.addObject(ecPrivateKey(bytesOf("02"), bytesOf("Curve"), p256Params()));
  key->setHPubKey(publicKey);
  ResultBuffer output{256};
  EXPECT_FALSE(decrypt(output));
  EXPECT_EQ(script.countOf("C_DecryptInit"), 0U);
}

TEST_P(PerformDecrypt, FailsBeforeTheLogin) {
  script.card().loggedIn = false;
  script.card().privateObjectsNeedLogin = false;
  ResultBuffer output{256};
  EXPECT_FALSE(decrypt(output));
  EXPECT_EQ(script.countOf("C_Decrypt"), 0U);
}

// ---- The log ----

TEST_P(PerformDecrypt, LogsItsWay) {
  ResultBuffer output{256};
  EXPECT_TRUE(decrypt(output));
  EXPECT_EQ(log->allLines, expectedLines(GetParam() == Kind::kPKCS1 ? 1 : 3));
}

TEST_P(PerformDecrypt, LogsOnlyHowFarItGot) {
  const bool oaep = GetParam() == Kind::kOAEP;
  ResultBuffer output{256};
  script.failCallOf("C_Decrypt", 0, CKR_DEVICE_ERROR);
  EXPECT_FALSE(decrypt(output));
  EXPECT_EQ(log->allLines, expectedLines(oaep ? 2 : 0));
  log->allLines.clear();
  script.card().objects.erase(kPrivateKey);
  EXPECT_FALSE(decrypt(output));
  EXPECT_EQ(log->allLines, expectedLines(oaep ? 1 : 0));
}

// ---- Failures ----

TEST_P(PerformDecrypt, FailsWithAnyCall) {
  constexpr std::size_t kNumCalls = 2 * kNumLookUpCalls + kNumModulusCalls + 2;
  failEachCall(CKR_DEVICE_ERROR, kNumCalls, [&](FailPoint& point) {
    prepareAgain();
    ResultBuffer output{256};
    point.arm();
    const bool succeeded = decrypt(output);
    // A search that the module would not end stands in the way of the next one only.
    const bool endOfLastSearchAlone = point.n() == 11 && point.times() == Times::kOnce;
    EXPECT_EQ(succeeded, !point.fired() || endOfLastSearchAlone);
    EXPECT_EQ(output.untouched(), !succeeded);
    EXPECT_THAT(script.openOperations(), IsEmpty());
    EXPECT_EQ(memory->outstanding(), 0U);
  });
}

TEST_P(PerformDecrypt, FailsWithoutMemory) {
  // For the modulus, and for the room that is larger than the buffer.
  failEachAllocation(2, [&](FailPoint& point) {
    prepareAgain();
    ResultBuffer output{14};
    point.arm();
    const bool succeeded = decrypt(output);
    EXPECT_EQ(succeeded, !point.fired());
    EXPECT_EQ(output.untouched(), point.fired());
    EXPECT_EQ(script.countOf("C_DecryptInit"), point.fired() ? 0U : 1U);
  });
}

// ---- What only OAEP looks at ----

using PerformOAEPDecrypt = PerformDecrypt;
INSTANTIATE_TEST_SUITE_P(Kinds, PerformOAEPDecrypt, ::testing::Values(Kind::kOAEP));

TEST_P(PerformOAEPDecrypt, AcceptsFiveHashes) {
  const struct {
    CK_MECHANISM_TYPE hash;
    bool succeeds;
  } rows[] = {{0x220, true},  {0x255, true},  {0x250, true},         {0x260, true}, {0x270, true},
              {0x210, false}, {0x221, false}, {~CK_ULONG{0}, false}, {0, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.hash);
    hash = row.hash;
    log->allLines.clear();
    ResultBuffer output{256};
    EXPECT_EQ(decrypt(output), row.succeeds);
    EXPECT_EQ(log->allLines, expectedLines(row.succeeds ? 3 : 2));
  }
}

}  // namespace
}  // namespace mirel::test
