#include "host/Pkcs11Uri.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Outcomes.h"
#include "ReferenceUri.h"

namespace mirel::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

/// All that was read, for comparing.
std::string contentOf(const Pkcs11Uri& uri) {
  std::string content;
  for (const auto* text :
       {&uri.id, &uri.object, &uri.token, &uri.serial, &uri.manufacturer, &uri.model, &uri.slotDescription})
    content += *text ? "[" + **text + "]" : "-";
  content += uri.type ? std::to_string(static_cast<int>(*uri.type)) : "-";
  return content + (uri.slotID ? std::to_string(*uri.slotID) : "-");
}

std::string read(const std::string& text) {
  const auto uri = parsePkcs11Uri(text);
  return uri ? contentOf(*uri) : "refused: " + uri.failure().why;
}

TEST(Pkcs11Uri, IsReadAsTheReferenceReadsIt) {
  for (const char* text : {
           "pkcs11:",
           "pkcs11:id=%01",
           "pkcs11:id=%00%17%fF;type=private",
           "pkcs11:id=abc",
           "pkcs11:object=Signature;type=cert",
           "pkcs11:object=Gr%C3%BCn%20%25;type=public",
           "pkcs11:type=secret-key",
           "pkcs11:type=data",
           "pkcs11:object=-._~:[]@!$'()*+,=&",
           "pkcs11:object=",
           "pkcs11:token=The%20Software%20Token;manufacturer=Snake%20Oil%2C%20Inc.;serial=0815;model=1.0",
           "pkcs11:model=M;token=T;id=%69%95%3E;object=my-certificate;type=cert",
           "pkcs11:slot-id=327",
           "pkcs11:slot-id=0;slot-description=Reader%2000",
       }) {
    SCOPED_TRACE(text);
    const auto reference = readByReference(text);
    ASSERT_TRUE(reference);
    EXPECT_EQ(read(text), contentOf(*reference));
  }
}

TEST(Pkcs11Uri, IsRefusedWhereTheReferenceRefusesIt) {
  for (const char* text : {
           "",
           "pkcs11",
           "pkcs12:id=%01",
           "pkcs11:id=%0",
           "pkcs11:id=%",
           "pkcs11:id=%0g",
           "pkcs11:id=%g0",
           "pkcs11:id",
           "pkcs11:object=a%2",
           "pkcs11:slot-id=x",
           "pkcs11:unknown=1",
           "pkcs11:x-vendor=1",
           "pkcs11:type=unknown",
       }) {
    SCOPED_TRACE(text);
    EXPECT_FALSE(readByReference(text));
    EXPECT_EQ(failureOf(parsePkcs11Uri(text)).kind, FailureKind::kBadInput);
  }
}

/// The grammar of RFC 7512, section 2.3, which many a reader does not insist on.
TEST(Pkcs11Uri, IsRefusedWhereItIsNotWrittenAsItHasToBe) {
  for (const char* text : {
           "pkcs11:object=two words", "pkcs11:object=Gr\xC3\xBCn",   "pkcs11:object=a/b",
           "pkcs11:object=a#b",       "pkcs11:object=a\"b",          "pkcs11:id=%01;",
           "pkcs11:;id=%01",          "pkcs11:id=%01;;type=private", "pkcs11:=%01",
           "pkcs11:id=%01;id=%02",    "pkcs11:type=cert;type=cert",  "pkcs11:slot-id=1;slot-id=1",
           "pkcs11:slot-id=",         "pkcs11:slot-id=-1",           "pkcs11:slot-id=99999999999999999999999",
           "pkcs11:slot-id=+1",       "pkcs11:slot-id=1%30",         "pkcs11:ID=%01",
           " pkcs11:id=%01",          "pkcs11:library-version=1.0",  "pkcs11:slot-manufacturer=x",
       }) {
    SCOPED_TRACE(text);
    EXPECT_EQ(failureOf(parsePkcs11Uri(text)).kind, FailureKind::kBadInput);
  }
}

TEST(Pkcs11Uri, HasASchemeOfAnyCase) {
  EXPECT_TRUE(isPkcs11Uri("PKCS11:id=%01"));
  EXPECT_FALSE(isPkcs11Uri("pkcs11"));
  EXPECT_FALSE(isPkcs11Uri("xpkcs11:"));
  EXPECT_EQ(read("Pkcs11:id=%41"), read("pkcs11:id=A"));
}

TEST(Pkcs11Uri, KeepsBytesThatAreNoText) {
  const auto uri = parsePkcs11Uri("pkcs11:id=%00%FF;object=%1B%80");
  ASSERT_TRUE(uri);
  EXPECT_EQ(uri->id, std::string("\0\xFF", 2));
  EXPECT_EQ(uri->object, "\x1B\x80");
}

TEST(Pkcs11Uri, NeverTakesNorShowsAPin) {
  for (const char* text :
       {"pkcs11:id=%01?pin-value=4711", "pkcs11:?pin-value=4711", "pkcs11:?module-path=/m&pin-value=4711",
        "pkcs11:pin-value=4711", "PKCS11:?pin-value=4711", "pkcs11:%zz=?pin-value=4711"}) {
    SCOPED_TRACE(text);
    const Failure failure = failureOf(parsePkcs11Uri(text));
    EXPECT_EQ(failure.kind, FailureKind::kBadInput);
    EXPECT_THAT(failure.why, HasSubstr("it has a PIN in it"));
    EXPECT_THAT(failure.what + failure.why, Not(HasSubstr("4711")));
  }
}

TEST(Pkcs11Uri, RefusesWhatIsSaidElsewhere) {
  for (const char* text : {"pkcs11:id=%01?module-path=/m", "pkcs11:id=%01?pin-source=file:/p", "pkcs11:?x=1",
                           "pkcs11:id=%01?"}) {
    const Failure failure = failureOf(parsePkcs11Uri(text));
    EXPECT_THAT(failure.why, HasSubstr("it has a query")) << text;
    EXPECT_EQ(failure.advice, UserStep::kNameModuleAndPinApart) << text;
  }
}

TEST(Pkcs11Uri, NamesTheAttributeThatItDoesNotKnowFitForATerminal) {
  EXPECT_THAT(failureOf(parsePkcs11Uri("pkcs11:\x1B[2J=1")).why, HasSubstr(R"("\x1B[2J")"));
}

}  // namespace
}  // namespace mirel::test
