/// Decrypting: what only it has. What all key operations have in common is in CardOperationsTest.cpp.

#include "framework/FrameworkTest.h"

namespace mirel::test {
namespace {

using ::testing::EndsWith;

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
