#include <algorithm>
#include <map>
#include <set>
#include <sstream>

#include "token/TokenTest.h"

namespace mirel::test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using enum SecKeyAlgorithm;
using enum TKTokenOperation;

// ---- Printed names ----

/// The algorithms that are looked for, in their order and without their common prefix: what the names of each
/// line begin with, and how they go on ("-": not at all).
constexpr const char* kLookedFor = R"(
RSAEncryptionRaw -
RSASignatureRaw -
RSASignatureDigestPKCS1v15SHA 1 224 256 384 512
RSASignatureMessagePKCS1v15SHA 1 224 256 384 512
RSASignatureDigestPSSSHA 1 224 256 384 512
RSASignatureMessagePSSSHA 1 224 256 384 512
ECDSASignatureRFC4754 -
ECDSASignatureDigestX962 - SHA1 SHA224 SHA256 SHA384 SHA512
ECDSASignatureMessageX962SHA 1 224 256 384 512
RSAEncryptionPKCS1 -
RSAEncryptionOAEPSHA 1 224 256 384 512 1AESGCM 224AESGCM 256AESGCM 384AESGCM 512AESGCM
ECIESEncryptionStandardX963SHA 1AESGCM 224AESGCM 256AESGCM 384AESGCM 512AESGCM
ECIESEncryptionCofactorX963SHA 1AESGCM 224AESGCM 256AESGCM 384AESGCM 512AESGCM
ECIESEncryptionStandardVariableIVX963SHA 256AESGCM 384AESGCM 512AESGCM
ECIESEncryptionCofactorVariableIVX963SHA 224AESGCM 256AESGCM 384AESGCM 512AESGCM
ECDHKeyExchangeStandard - X963SHA1 X963SHA224 X963SHA256 X963SHA384 X963SHA512
ECDHKeyExchangeCofactor - X963SHA1 X963SHA224 X963SHA256 X963SHA384 X963SHA512
)";
constexpr std::size_t kNumLookedFor = 74;

/// What is printed, instead of their own start, of names that begin so.
const std::pair<std::string, std::string> kOtherStarts[] = {
    {"RSASignatureDigestPKCS1v15SHA", "SC_ALGORITHM_RSA_PAD_PKCS1 | SC_ALGORITHM_RSA_HASH_SHA"},
    {"ECDSASignatureDigestX962SHA", "SC_ALGORITHM_ECDSA_HASH_SHA"},
    {"RSAEncryptionPKCS1", "SC_ALGORITHM_RSA_PAD_PKCS1"},
};

[[nodiscard]] std::string printedName(const std::string& name) {
  for (const auto& [start, printed] : kOtherStarts) {
    if (name.starts_with(start)) return printed + name.substr(start.size());
  }
  return "kSecKeyAlgorithm" + name;
}

[[nodiscard]] std::vector<std::string> namesLookedFor() {
  std::vector<std::string> names;
  std::istringstream list{kLookedFor};
  for (std::string line; std::getline(list, line);) {
    std::istringstream words{line};
    std::string stem;
    words >> stem;
    for (std::string end; words >> end;) names.push_back(end == "-" ? stem : stem + end);
  }
  return names;
}

[[nodiscard]] std::vector<std::string> printedOf(const TKTokenKeyAlgorithm& algorithm) {
  RecordingLog log;
  algorithmToPrint(algorithm, log);
  return log.allLines;
}

TEST(AlgorithmToPrint, LooksForEachAlgorithmInOrderAndWritesItsNameToTheProcessLog) {
  std::vector<std::string> lines;
  std::vector<std::string> names;
  for (const std::string& name : namesLookedFor()) {
    SCOPED_TRACE(name);
    lines.push_back("process: " + printedName(name));
    names.push_back("kSecKeyAlgorithm" + name);
    const auto algorithm = secKeyAlgorithmNamed(name);
    ASSERT_TRUE(algorithm);
    EXPECT_THAT(printedOf(FakeKeyAlgorithm{*algorithm}), ElementsAre(lines.back()));
  }
  ASSERT_EQ(names.size(), kNumLookedFor);
  for (const auto is : {FakeKeyAlgorithm::Is::kEvery, FakeKeyAlgorithm::Is::kNone}) {
    const FakeKeyAlgorithm algorithm{is};
    const std::vector<std::string> printed = printedOf(algorithm);
    EXPECT_EQ(printed, is == FakeKeyAlgorithm::Is::kEvery ? lines : std::vector<std::string>{});
    std::vector<std::string> asked;
    for (const SecKeyAlgorithm one : algorithm.askedFor) asked.emplace_back(nameOf(one));
    EXPECT_EQ(asked, names);
  }
}

TEST(AlgorithmToPrint, PrintsNothingForTwoAlgorithms) {
  std::set<SecKeyAlgorithm> silent;
  for (const auto& [algorithm, name] : kSecKeyAlgorithms) {
    if (printedOf(FakeKeyAlgorithm{algorithm}).empty()) silent.insert(algorithm);
  }
  EXPECT_THAT(silent, ElementsAre(kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw,
                                  kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA224AESGCM));
}

// ---- Supported operations ----

/// Every operation of the platform and one that it does not have.
constexpr TKTokenOperation kOperations[] = {kNone,        kReadData,           kSignData,
                                            kDecryptData, kPerformKeyExchange, TKTokenOperation{5}};

/// All that is supported; each list in the order in which it is searched.
const std::map<TKTokenOperation, std::vector<SecKeyAlgorithm>> kSupported{
    {kSignData,
     {kSecKeyAlgorithmRSASignatureRaw, kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw,
      kSecKeyAlgorithmECDSASignatureDigestX962SHA256, kSecKeyAlgorithmECDSASignatureDigestX962SHA384,
      kSecKeyAlgorithmECDSASignatureDigestX962SHA512}},
    {kDecryptData,
     {kSecKeyAlgorithmRSAEncryptionRaw, kSecKeyAlgorithmRSAEncryptionPKCS1,
      kSecKeyAlgorithmRSAEncryptionOAEPSHA256}},
    {kPerformKeyExchange, {kSecKeyAlgorithmECDHKeyExchangeStandard}},
};

[[nodiscard]] std::vector<SecKeyAlgorithm> supportedFor(TKTokenOperation operation) {
  const auto found = kSupported.find(operation);
  return found == kSupported.end() ? std::vector<SecKeyAlgorithm>{} : found->second;
}

/// The token publishes one key, which can do everything.
class SupportsOperation : public ClientSessionTest {
 protected:
  [[nodiscard]] bool supports(TKTokenOperation operation, const TKTokenKeyAlgorithm& algorithm,
                              const Text& keyObjectID = kKey) {
    return client->core->supportsOperation(client->platform, operation, keyObjectID, algorithm);
  }

  static constexpr const char* kKeyNotFound =
      "error: [MirelSCTokenSession-121] supportsOperation key not found";
};

TEST_F(SupportsOperation, NeedsTheCapabilityOfTheKeyAndAnAlgorithmOfTheTable) {
  const struct {
    const char* name;
    bool TKTokenKeychainKey::*missing;
    TKTokenOperation without;
  } rows[] = {
      {"a key that can do everything", nullptr, kNone},
      {"a key that cannot sign", &TKTokenKeychainKey::canSign, kSignData},
      {"a key that cannot decrypt", &TKTokenKeychainKey::canDecrypt, kDecryptData},
      {"a key that cannot exchange keys", &TKTokenKeychainKey::canPerformKeyExchange, kPerformKeyExchange},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    MirelCTKTokenKeychainKey key = keyItem(kKey, true);
    if (row.missing) key.*row.missing = false;
    publish({key});
    for (const TKTokenOperation operation : kOperations) {
      const auto listed = supportedFor(operation);
      for (const auto& [algorithm, name] : kSecKeyAlgorithms) {
        SCOPED_TRACE(std::to_string(static_cast<std::int64_t>(operation)) + " " + std::string{name});
        const bool isListed = std::count(listed.begin(), listed.end(), algorithm) == 1;
        EXPECT_EQ(supports(operation, FakeKeyAlgorithm{algorithm}), isListed && operation != row.without);
      }
    }
  }
}

TEST_F(SupportsOperation, SearchesItsListsInOrderAfterThePrintedNames) {
  for (const TKTokenOperation operation : kOperations) {
    SCOPED_TRACE(static_cast<std::int64_t>(operation));
    const FakeKeyAlgorithm none{FakeKeyAlgorithm::Is::kNone};
    EXPECT_FALSE(supports(operation, none));
    ASSERT_GE(none.askedFor.size(), kNumLookedFor);
    EXPECT_EQ((std::vector<SecKeyAlgorithm>{none.askedFor.begin() + kNumLookedFor, none.askedFor.end()}),
              supportedFor(operation));
  }
  const FakeKeyAlgorithm every{FakeKeyAlgorithm::Is::kEvery};
  EXPECT_TRUE(supports(kSignData, every));
  EXPECT_EQ(every.askedFor.size(), kNumLookedFor + 1) << "the first match ends the search";
  every.askedFor.clear();
  MirelCTKTokenKeychainKey key = keyItem(kKey, true);
  key.canSign = false;
  publish({key});
  EXPECT_FALSE(supports(kSignData, every));
  EXPECT_EQ(every.askedFor.size(), kNumLookedFor) << "a key that cannot sign needs no search";
}

TEST_F(SupportsOperation, KnowsNoKeyThatIsNotPublishedAndNoneWhenTheTokenHasGone) {
  const FakeKeyAlgorithm every{FakeKeyAlgorithm::Is::kEvery};
  EXPECT_FALSE(supports(kSignData, every, kNoKey));
  EXPECT_FALSE(supports(kSignData, every, Text{}));
  client->platform.contents = nullptr;
  EXPECT_FALSE(supports(kSignData, every));
  EXPECT_THAT(log->allLines, ElementsAre(kKeyNotFound, kKeyNotFound, kKeyNotFound));
  EXPECT_THAT(every.askedFor, IsEmpty());
}

TEST_F(SupportsOperation, LogsTheAlgorithmAndNeedsNeitherPinNorCard) {
  EXPECT_TRUE(supports(kSignData, FakeKeyAlgorithm{kSecKeyAlgorithmRSASignatureRaw}));
  EXPECT_TRUE(supports(kSignData, FakeKeyAlgorithm{kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw}));
  EXPECT_FALSE(supports(kNone, FakeKeyAlgorithm{kSecKeyAlgorithmRSAEncryptionPKCS1}));
  constexpr const char* kStart = "default: CTK [MirelSCTokenSession-125] ";
  EXPECT_THAT(log->allLines, ElementsAre(kStart, "process: kSecKeyAlgorithmRSASignatureRaw", kStart, kStart,
                                         "process: SC_ALGORITHM_RSA_PAD_PKCS1"));
  EXPECT_THAT(calls, Each("session.keyForObjectID 01"));
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

}  // namespace
}  // namespace mirel::test
