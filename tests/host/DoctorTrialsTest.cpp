#include <algorithm>
#include <set>
#include <utility>

#include "host/DoctorTrialsTest.h"

namespace mirel::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using enum FindingID;

TEST_F(DoctorTrials, TryEachKeyOnceWithOnePin) {
  padInTheModule();
  const Diagnosis found = diagnosis();
  EXPECT_EQ(
      checkIn(found, "signatures").evidence,
      "key 3031 \"Signer\" signs RSA-PSS and PKCS #1 v1.5; key 3033 \"Curve\" never signs here, not tried");
  EXPECT_EQ(checkIn(found, "login").evidence, "the card accepts the PIN");
  EXPECT_EQ(checkIn(found, "decryption").evidence, "key 3032 \"Vault\" decrypts PKCS #1 v1.5");
  EXPECT_EQ(pins.timesAsked(), 1U);
  EXPECT_EQ(script.countOf("C_Decrypt"), 1U);
  ASSERT_GE(begun.size(), 2U);
  EXPECT_THAT((std::vector<std::string>{begun.end() - 2, begun.end()}),
              ElementsAre("signatures", "decryption"));
}

TEST_F(DoctorTrials, FindAModuleThatDoesNotPad) {
  const Diagnosis found = diagnosis();
  EXPECT_EQ(
      checkIn(found, "signatures").evidence,
      "key 3031 \"Signer\" signs RSA-PSS, not PKCS #1 v1.5; key 3033 \"Curve\" never signs here, not tried");
  const Finding finding = findingIn(found, kNoPkcs1Signatures);
  EXPECT_EQ(finding.severity, Severity::kWarning);
  EXPECT_EQ(finding.subject, "key 3031 \"Signer\"");
  EXPECT_THAT(finding.evidence, HasSubstr("does not pad"));
  EXPECT_THAT(codesOfCheck(found, "decryption"), IsEmpty());
}

TEST_F(DoctorTrials, FindKeysThatDoNotWork) {
  script.failCallOf("C_Sign", 0, CKR_FUNCTION_FAILED, Times::kFromThenOn);
  script.failCallOf("C_Decrypt", 0, CKR_FUNCTION_FAILED, Times::kFromThenOn);
  const Diagnosis found = diagnosis();
  EXPECT_THAT(codesOfCheck(found, "signatures"), ElementsAre("MT-K08"));
  EXPECT_THAT(codesOfCheck(found, "decryption"), ElementsAre("MT-K09"));
  EXPECT_THAT(findingIn(found, kSignatureFails).evidence, HasSubstr("C_Sign answered CKR_FUNCTION_FAILED"));
  EXPECT_EQ(found.verdict(), Severity::kFailure);
}

TEST_F(DoctorTrials, BlameNoKeyWhereTheCardGoes) {
  const struct {
    const char* function;
    std::size_t call;
    const char* check;
  } rows[] = {{"C_Sign", 0, "signatures"},
              {"C_Sign", 1, "signatures"},
              {"C_Decrypt", 0, "decryption"},
              {"C_Login", 0, "login"}};
  for (const auto& [function, call, check] : rows) {
    SCOPED_TRACE(std::string{function} + " " + std::to_string(call));
    script.reset();
    startAnew();
    GivenPins given{{u"123456"}};
    script.failCallOf(function, call, CKR_DEVICE_REMOVED, Times::kFromThenOn);
    const Diagnosis found = diagnosisWith(given);
    EXPECT_THAT(codesOfCheck(found, check), Contains("MT-T04"));
    EXPECT_THAT(codesOf(found), ::testing::AllOf(Not(Contains("MT-K08")), Not(Contains("MT-K09"))));
    if (std::string{check} != "decryption") {
      EXPECT_EQ(checkIn(found, "decryption").severity, Severity::kSkipped);
    }
    EXPECT_EQ(found.verdict(), Severity::kFailure);
  }
}

TEST_F(DoctorTrials, AskForNoPinWhereTheCardHasGoneBefore) {
  GivenPins counted{{u"123456"}};
  script.failCallOf("C_Login", 0, CKR_PIN_INCORRECT);
  counted.again = false;
  (void)diagnosisWith(counted);
  const std::size_t searches = script.countOf("C_FindObjectsInit");
  startAnew();
  script.failCallOf("C_FindObjectsInit", searches - 2, CKR_DEVICE_REMOVED, Times::kFromThenOn);
  const Diagnosis found = diagnosis();
  EXPECT_EQ(pins.timesAsked(), 0U);
  EXPECT_EQ(checkIn(found, "objects").severity, Severity::kUnknown);
  EXPECT_EQ(checkIn(found, "login").evidence, "the card went away");
  const auto codes = codesOf(found);
  EXPECT_EQ(std::count(codes.begin(), codes.end(), "MT-T04"), 1);
}

TEST_F(DoctorTrials, BlameTheModuleForNothingThatHasAnotherCause) {
  const struct {
    const char* name;
    const char* function;
    std::size_t call;
    CK_RV answer;
    const char* check;
    const char* code;
  } rows[] = {
      {"device", "C_Sign", 0, CKR_DEVICE_ERROR, "signatures", "MT-T05"},
      {"device, the second time", "C_Sign", 1, CKR_DEVICE_ERROR, "signatures", "MT-T05"},
      {"use", "C_SignInit", 0, CKR_KEY_FUNCTION_NOT_PERMITTED, "signatures", "MT-K11"},
      {"type", "C_SignInit", 0, CKR_KEY_TYPE_INCONSISTENT, "signatures", "MT-K11"},
      {"device", "C_Decrypt", 0, CKR_HOST_MEMORY, "decryption", "MT-T05"},
      {"use", "C_DecryptInit", 0, CKR_KEY_FUNCTION_NOT_PERMITTED, "decryption", "MT-K11"},
      {"module", "C_SignInit", 0, CKR_GENERAL_ERROR, "signatures", "MT-K08"},
      {"module", "C_DecryptInit", 0, CKR_GENERAL_ERROR, "decryption", "MT-K09"},
  };
  for (const auto& [name, function, call, answer, check, code] : rows) {
    SCOPED_TRACE(std::string{function} + " " + name);
    script.reset();
    startAnew();
    GivenPins given{{u"123456"}};
    script.failCallOf(function, call, answer);
    const Diagnosis found = diagnosisWith(given);
    EXPECT_THAT(codesOfCheck(found, check), ElementsAre(code));
    EXPECT_EQ(checkIn(found, check).severity, Severity::kFailure);
  }
}

/// The last of the calls by which a key is looked for, and the card.
TEST_F(DoctorTrials, BlameNoKeyForACallThatAsksNothingOfOne) {
  for (const char* function :
       {"C_FindObjectsInit", "C_FindObjects", "C_GetAttributeValue", "C_GetTokenInfo"}) {
    SCOPED_TRACE(function);
    for (const auto& [use, check] :
         {std::pair{"C_SignInit", "signatures"}, {"C_DecryptInit", "decryption"}}) {
      SCOPED_TRACE(check);
      std::size_t before = 0;
      for (const bool fails : {false, true}) {
        script.reset();
        startAnew();
        GivenPins given{{u"123456"}};
        if (fails) script.failCallOf(function, before - 1, CKR_GENERAL_ERROR);
        const Diagnosis found = diagnosisWith(given);
        const auto& calls = script.calls();
        const auto firstUse = std::find_if(
            calls.begin(), calls.end(), [wanted = use](const Call& call) { return call.function == wanted; });
        before = static_cast<std::size_t>(std::count_if(
            calls.begin(), firstUse, [function](const Call& call) { return call.function == function; }));
        if (fails) {
          EXPECT_THAT(codesOfCheck(found, check), Contains("MT-T05"));
          EXPECT_THAT(codesOf(found), ::testing::AllOf(Not(Contains("MT-K08")), Not(Contains("MT-K09"))));
        }
      }
    }
  }
}

TEST_F(DoctorTrials, BlameThePrivateKeyThatTheCardLayerDoesNotFind) {
  for (auto& [handle, object] : script.card().objects) {
    if (object.attributes[CKA_CLASS] == ulongValue(CKO_PRIVATE_KEY))
      object = object.with(CKA_TOKEN, boolValue(false));
  }
  const Diagnosis found = diagnosis();
  EXPECT_THAT(codesOfCheck(found, "signatures"), ElementsAre("MT-C10"));
  EXPECT_THAT(codesOfCheck(found, "decryption"), ElementsAre("MT-C10"));
}

TEST_F(DoctorTrials, BlameNoKeyWhereTheCardCannotBeReadAfterTheLogin) {
  const std::pair<const char*, CK_RV> rows[] = {{"C_FindObjectsInit", CKR_GENERAL_ERROR},
                                                {"C_GetAttributeValue", CKR_DEVICE_ERROR},
                                                {"C_GetTokenInfo", CKR_GENERAL_ERROR},
                                                {"C_GetTokenInfo", CKR_TOKEN_NOT_PRESENT}};
  for (const auto& [function, answer] : rows) {
    SCOPED_TRACE(std::string{function} + " " + std::to_string(answer));
    script.reset();
    startAnew();
    GivenPins counted{{u"123456"}};
    (void)diagnosisWith(counted);
    const auto& calls = script.calls();
    const auto login =
        std::find_if(calls.begin(), calls.end(), [](const Call& call) { return call.function == "C_Login"; });
    const auto before = std::count_if(
        calls.begin(), login, [wanted = function](const Call& call) { return call.function == wanted; });
    script.reset();
    startAnew();
    GivenPins given{{u"123456"}};
    script.failCallOf(function, static_cast<std::size_t>(before), answer, Times::kFromThenOn);
    const Diagnosis found = diagnosisWith(given);
    EXPECT_EQ(found.verdict(), Severity::kFailure);
    const auto codes = codesOf(found);
    EXPECT_THAT(codes,
                ::testing::AllOf(Not(Contains("MT-K08")), Not(Contains("MT-K09")), Not(Contains("MT-K10"))));
    EXPECT_THAT(codes, ::testing::AnyOf(Contains("MT-T05"), Contains("MT-T04")));
    EXPECT_LE(std::count(codes.begin(), codes.end(), "MT-T04"), 1);
    EXPECT_LE(std::count(codes.begin(), codes.end(), "MT-C03"), 1);
  }
}

TEST_F(DoctorTrials, BlameNeitherTheCardNorAKeyWhereTheModuleIsEnded) {
  bool isLate = false;  // at the end of the last run the card was listed already
  for (std::size_t n = 0;; n += 3) {
    SCOPED_TRACE(n);
    script.reset();
    startAnew();
    GivenPins given{{u"123456"}};
    script.failCall(n, CKR_CRYPTOKI_NOT_INITIALIZED, Times::kFromThenOn);
    const Diagnosis found = diagnosisWith(given);
    if (!script.fired()) break;
    const auto codes = codesOf(found);
    for (const char* code : {"MT-T04", "MT-K08", "MT-K09", "MT-K10"}) EXPECT_THAT(codes, Not(Contains(code)));
    EXPECT_EQ(found.verdict(), Severity::kFailure);
    for (const Check& check : found.checks) {
      EXPECT_THAT(check.evidence, ::testing::AllOf(Not(HasSubstr("went away")), Not(HasSubstr("any more"))));
    }
    isLate = script.countOf("C_Login") > 0;
    if (isLate) {
      EXPECT_THAT(codes, Contains("MT-T06"));
    }
  }
  EXPECT_TRUE(isLate);
}

TEST_F(DoctorTrials, SayNothingOfTheModuleWhereTwoPrivateKeysHaveOneID) {
  const Value other = SoftwareKey::rsa(kBits, "other").modulus();
  for (const char* id : {"01", "02"}) script.addObject(rsaPrivateKey(bytesOf(id), bytesOf("Other"), other));
  script.failCallOf("C_Sign", 0, CKR_FUNCTION_FAILED);
  script.deviations.plainText = Value(32, 0x55);
  const Diagnosis found = diagnosis();
  EXPECT_THAT(codesOfCheck(found, "signatures"), ElementsAre("MT-C12"));
  EXPECT_THAT(codesOfCheck(found, "decryption"), ElementsAre("MT-C12"));
  const auto all = codesOf(found);
  EXPECT_EQ(std::count(all.begin(), all.end(), "MT-C12"), 2);  // one for each ID
  EXPECT_THAT(all, ::testing::AllOf(Not(Contains("MT-K08")), Not(Contains("MT-K09"))));
  EXPECT_EQ(findingIn(found, kIDShared).severity, Severity::kFailure);
}

TEST_F(DoctorTrials, TakeWhatFitsAShortKey) {
  const SoftwareKey& shortKey = SoftwareKey::rsa(512);
  script.card().objects.clear();
  const auto add = [&](const char* id, unsigned usage) {
    script.addObject(rsaPublicKey(bytesOf(id), bytesOf(id), shortKey.modulus()));
    script.addObject(rsaPrivateKey(bytesOf(id), bytesOf(id), shortKey.modulus()));
    script.addObject(certificate(bytesOf(id), bytesOf(id), shortKey.certificate(usage)));
  };
  add("01", kForSigning);
  add("02", kForDecrypting);
  padInTheModule(shortKey);
  decryptInTheModule(shortKey);
  const Diagnosis found = diagnosis();
  EXPECT_EQ(checkIn(found, "signatures").evidence, "key 3031 \"01\" signs RSA-PSS and PKCS #1 v1.5");
  EXPECT_EQ(checkIn(found, "decryption").evidence, "key 3032 \"02\" decrypts PKCS #1 v1.5");
}

TEST_F(DoctorTrials, TryNoKeyThatIsKnownToDecryptNothing) {
  for (auto& [handle, object] : script.card().objects) {
    if (object.attributes[CKA_CLASS] == ulongValue(CKO_PRIVATE_KEY))
      object = object.with(CKA_DECRYPT, boolValue(false));
  }
  const Diagnosis found = diagnosis();
  EXPECT_THAT(codesOf(found), ::testing::AllOf(Contains("MT-K11"), Not(Contains("MT-K09"))));
  EXPECT_EQ(checkIn(found, "decryption").evidence, "key 3032 \"Vault\" never decrypts here, not tried");
  EXPECT_EQ(checkIn(found, "decryption").severity, Severity::kSkipped);
}

TEST_F(DoctorTrials, TryAKeyOnceThatHasTwoCertificates) {
  script.addObject(certificate(bytesOf("01"), bytesOf("Old"), key.certificate(kForSigning)));
  const Check trial = checkIn(diagnosis(), "signatures");
  EXPECT_THAT(trial.evidence,
              ::testing::StartsWith("key 3031 \"Signer\" signs RSA-PSS, not PKCS #1 v1.5; key"));
  EXPECT_EQ(script.countOf("C_Sign"), 2U);
}

TEST_F(DoctorTrials, BlameThePinForEachUseAndNotTheModule) {
  for (auto& [handle, object] : script.card().objects) {
    if (object.attributes[CKA_CLASS] == ulongValue(CKO_PRIVATE_KEY))
      object = object.with(CKA_ALWAYS_AUTHENTICATE, boolValue(true));
  }
  const struct {
    CK_RV answer;
    const char* signatures;
    const char* decryption;
  } rows[] = {{CKR_USER_NOT_LOGGED_IN, "MT-K04", "MT-K04"}, {CKR_FUNCTION_FAILED, "MT-K08", "MT-K09"}};
  for (const auto& [answer, signatures, decryption] : rows) {
    SCOPED_TRACE(answer);
    script.card().loggedIn = false;
    GivenPins given{{u"123456"}};
    script.failCallOf("C_Sign", 0, answer);
    script.failCallOf("C_Decrypt", 0, answer);
    const Diagnosis found = diagnosisWith(given);
    EXPECT_THAT(codesOfCheck(found, "signatures"), ElementsAre(signatures));
    EXPECT_THAT(codesOfCheck(found, "decryption"), ElementsAre(decryption));
    const auto codes = codesOf(found);
    EXPECT_EQ(std::count(codes.begin(), codes.end(), "MT-K04"), 4);  // one for each key
  }
}

TEST_F(DoctorTrials, DoNotSayOfAKeyThatWantsThePinForEachUseThatItFailsWhereAnotherWasUsedBefore) {
  for (const char* id : {"01", "02"}) {
    SCOPED_TRACE(id);
    script.reset();
    startAnew();
    for (auto& [handle, object] : script.card().objects) {
      const bool isTheKey = object.attributes[CKA_ID] == bytesOf(id);
      if (isTheKey && object.attributes[CKA_CLASS] == ulongValue(CKO_PRIVATE_KEY))
        object = object.with(CKA_ALWAYS_AUTHENTICATE, boolValue(true));
    }
    const bool isSigner = std::string_view{id} == "01";
    script.failCallOf(isSigner ? "C_Sign" : "C_Decrypt", 0, CKR_USER_NOT_LOGGED_IN, Times::kFromThenOn);
    GivenPins given{{u"123456"}};
    const Diagnosis found = diagnosisWith(given);
    EXPECT_THAT(checkIn(found, isSigner ? "signatures" : "decryption").evidence,
                HasSubstr("wants the PIN right before its use, and another use came before"));
    const auto codes = codesOf(found);
    EXPECT_EQ(std::count(codes.begin(), codes.end(), "MT-K04"), 1);
    EXPECT_EQ(findingIn(found, kPinForEachUse).severity, Severity::kWarning);
    EXPECT_EQ(found.verdict(), Severity::kWarning);
  }
}

TEST_F(DoctorTrials, FindAKeyThatSignsOnceForEachPinAndDoesNotSaySo) {
  script.failCallOf("C_Sign", 1, CKR_USER_NOT_LOGGED_IN, Times::kFromThenOn);
  const Diagnosis found = diagnosis();
  EXPECT_THAT(codesOfCheck(found, "signatures"), ElementsAre("MT-K04"));
  EXPECT_THAT(findingIn(found, kPinForEachUse).evidence, HasSubstr("CKR_USER_NOT_LOGGED_IN"));
  EXPECT_THAT(checkIn(found, "signatures").evidence,
              HasSubstr("key 3031 \"Signer\" signs RSA-PSS, and could not be tried further"));
}

TEST_F(DoctorTrials, LeaveOpenWhoWantsThePinAgainBeforeTheFirstUseWhereTheCardDoesNotTell) {
  const struct {
    std::optional<bool> told;
    const char* signatures;
    const char* decryption;
    const char* outcome;
  } rows[] = {{std::nullopt, "MT-T05", "MT-T05", "could not be tried"},
              {false, "MT-K08", "MT-K09", "does not"},
              {true, "MT-K04", "MT-K04", "does not"}};
  for (const auto& [told, signatures, decryption, outcome] : rows) {
    SCOPED_TRACE(signatures);
    script.reset();
    startAnew();
    for (auto& [handle, object] : script.card().objects) {
      if (told && object.attributes[CKA_CLASS] == ulongValue(CKO_PRIVATE_KEY))
        object = object.with(CKA_ALWAYS_AUTHENTICATE, boolValue(*told));
    }
    GivenPins given{{u"123456"}};
    script.failCallOf("C_Sign", 0, CKR_USER_NOT_LOGGED_IN);
    script.failCallOf("C_Decrypt", 0, CKR_USER_NOT_LOGGED_IN);
    const Diagnosis found = diagnosisWith(given);
    EXPECT_THAT(codesOfCheck(found, "signatures"), ElementsAre(signatures));
    EXPECT_THAT(codesOfCheck(found, "decryption"), ElementsAre(decryption));
    for (const char* check : {"signatures", "decryption"})
      EXPECT_THAT(checkIn(found, check).evidence, HasSubstr(outcome));
    EXPECT_EQ(found.verdict(), Severity::kFailure);
    if (!told) {
      EXPECT_THAT(findingIn(found, kTrialDisturbed).evidence,
                  AllOf(HasSubstr("C_Sign answered CKR_USER_NOT_LOGGED_IN (0x101)"),
                        HasSubstr("; it was given before: the key may want it for each use")));
    }
  }
}

TEST_F(DoctorTrials, TakeBackThePinForEachUseOfAKeyThatSignsTwiceWithOne) {
  for (auto& [handle, object] : script.card().objects) {
    const bool isSigner = object.attributes[CKA_ID] == bytesOf("01");
    if (isSigner && object.attributes[CKA_CLASS] == ulongValue(CKO_PRIVATE_KEY))
      object = object.with(CKA_ALWAYS_AUTHENTICATE, boolValue(true));
  }
  for (const bool seenBefore : {false, true}) {
    SCOPED_TRACE(seenBefore);
    script.card().loggedIn = false;
    script.card().privateObjectsNeedLogin = !seenBefore;
    GivenPins given{{u"123456"}};
    const Diagnosis found = diagnosisWith(given);
    EXPECT_THAT(codesOf(found), Not(Contains("MT-K04")));
    EXPECT_EQ(checkIn(found, "private keys").evidence, "looked at once more after the login");
    EXPECT_THAT(checkIn(found, "keys").evidence, Not(HasSubstr("once after each login")));
  }
  script.card().loggedIn = false;
  script.failCallOf("C_Sign", 1, CKR_USER_NOT_LOGGED_IN);
  GivenPins given{{u"123456"}};
  const auto codes = codesOf(diagnosisWith(given));
  EXPECT_EQ(std::count(codes.begin(), codes.end(), "MT-K04"), 1);
}

TEST_F(DoctorTrials, ComeWithACountOfTheObjectsThatHideTheCard) {
  script.addObject(certificate(bytesOf("08"), {}, key.certificate(kForSigning)));
  EXPECT_EQ(checkIn(diagnosis(), "objects").evidence, "nothing is published, 1 object hides the whole card");
  script.addObject(certificate({}, bytesOf("Root"), authorityCertificate(kForCertificates)));
  EXPECT_EQ(checkIn(diagnosis(), "objects").evidence, "nothing is published, 2 objects hide the whole card");
}

TEST_F(DoctorTrials, ComeWithACountOfTheCertificatesOfIssuersThatNeedNothing) {
  script.addObject(certificate(bytesOf("09"), bytesOf("Root"), authorityCertificate(kForCertificates)));
  const Check objects = checkIn(diagnosis(), "objects");
  EXPECT_THAT(objects.evidence, HasSubstr("1 object not, 1 of them of an issuer, which needs no key"));
  EXPECT_THAT(codesOf(Diagnosis{{objects}}), ::testing::Not(::testing::Contains("MT-C06")));
}

TEST_F(DoctorTrials, FindAPlainTextThatIsAnotherOne) {
  script.deviations.plainText = Value(32, 0x55);
  EXPECT_THAT(findingIn(diagnosis(), kDecryptionFails).evidence, HasSubstr("another one than was encrypted"));
}

TEST_F(DoctorTrials, FindAPlainTextThatIsAnotherOneAlsoWhereACallFailedBefore) {
  script.failCallOf("C_Sign", 0, CKR_DEVICE_ERROR);
  script.deviations.plainText = Value(32, 0x55);
  const Diagnosis found = diagnosis();
  EXPECT_THAT(codesOfCheck(found, "signatures"), ElementsAre("MT-T05"));
  EXPECT_THAT(codesOfCheck(found, "decryption"), ElementsAre("MT-K09"));
}

TEST_F(DoctorTrials, FindASignatureThatIsWrongAlsoWhereNotAllWasRead) {
  script.hook<&CK_FUNCTION_LIST::C_Sign>(
      [](auto real, auto session, auto* data, auto size, auto* out, auto* room) {
        const CK_RV rv = real(session, data, size, out, room);
        if (rv == CKR_OK && out) out[5] ^= 1U;
        return rv;
      });
  script.hook<&CK_FUNCTION_LIST::C_GetAttributeValue>(
      [this](auto real, auto session, auto object, auto* entries, auto count) {
        const bool fails = script.card().loggedIn && entries->type == CKA_ALWAYS_AUTHENTICATE;
        return fails ? CK_RV{CKR_GENERAL_ERROR} : real(session, object, entries, count);
      });
  const Diagnosis found = diagnosis();
  EXPECT_THAT(codesOfCheck(found, "signatures"), ElementsAre("MT-K08"));
  EXPECT_THAT(findingIn(found, kSignatureFails).evidence, HasSubstr("are the reason cannot be told now"));
}

TEST_F(DoctorTrials, BlameNoKeyForWhichTheCardWasNotAskedAfterAFailure) {
  script.addObject(rsaPublicKey(bytesOf("05"), bytesOf("Second"), key.modulus()));
  script.addObject(rsaPrivateKey(bytesOf("05"), bytesOf("Second"), key.modulus()));
  script.addObject(certificate(bytesOf("05"), bytesOf("Second"), key.certificate(kForSigning)));
  bool hasFailed = false;
  script.hook<&CK_FUNCTION_LIST::C_FindObjectsInit>(
      [&](auto real, auto session, auto* filter, CK_ULONG count) {
        const bool fails = script.card().loggedIn && count > 1 && !std::exchange(hasFailed, true);
        return fails ? CK_RV{CKR_GENERAL_ERROR} : real(session, filter, count);
      });
  const Diagnosis found = diagnosis();
  EXPECT_THAT(codesOfCheck(found, "signatures"), ElementsAre("MT-T05", "MT-T05"));
  EXPECT_THAT(codesOfCheck(found, "decryption"), ElementsAre("MT-T05"));
}

TEST_F(DoctorTrials, TellOfSignaturesBeforeTheModuleDecrypts) {
  std::vector<std::string> before;
  script.hook<&CK_FUNCTION_LIST::C_DecryptInit>([&](auto real, auto... arguments) {
    before = told;  // all that is left of it where the module crashes now
    return real(arguments...);
  });
  (void)diagnosis();
  EXPECT_THAT(before, Contains("signatures"));
}

}  // namespace
}  // namespace mirel::test
