/// The table of what is taken of a card: what the layers do by it and what the second look tells of it.

#include "bridge/CardRules.h"

#include <algorithm>
#include <optional>

#include "host/HostTest.h"

namespace mirel::test {
namespace {

bool isPublicValue(const AttributeRule& rule) {
  return rule.type == CKA_MODULUS || rule.type == CKA_EC_POINT;
}

class CardRules : public InsertedCardTest {
 protected:
  /// A card of one key with its certificate, of which the attribute of the rule has that length; nothing: it
  /// is missing.
  void makeCard(const AttributeRule& rule, std::optional<std::size_t> length) {
    script.reset();
    setCertificate({});
    Object& object = script.object(rule.objectClass == CKO_CERTIFICATE ? kCertificate : kPublicKey);
    if (rule.type == CKA_EC_POINT)
      object = ecPublicKey(bytesOf("01"), bytesOf("MyKey"), p256Params(), p256Point(1));
    object = length ? object.with(rule.type, Value(*length, 0x7F)) : object.without(rule.type);
  }

  /// What the second look says of the object with the attribute of the rule; empty: it says nothing.
  [[nodiscard]] UnpublishedObject told(const AttributeRule& rule) {
    const char* kind = rule.objectClass == CKO_CERTIFICATE ? "certificate" : "public key";
    for (const UnpublishedObject& object : host.examine(readers().front()).unpublished) {
      if (object.kind == kind) return object;
    }
    return {};
  }

  void expectTaken(const AttributeRule& rule) {
    const InsertedCard card = inserted();
    if (isPublicValue(rule)) {
      EXPECT_FALSE(card.items.empty());
    }
    EXPECT_THAT(told(rule).reason, Not(HasSubstr("bytes, more than")));
    EXPECT_FALSE(told(rule).blocksCard);
  }

  void expectLeftOut(const AttributeRule& rule, const std::string& reason) {
    EXPECT_THAT(inserted().items, IsEmpty());
    EXPECT_THAT(told(rule).reason, HasSubstr(reason));
    EXPECT_FALSE(told(rule).blocksCard);
  }

  void expectRefused(const AttributeRule& rule, const std::string& reason) {
    EXPECT_THAT(failureOf(host.insert(Text{})).why, HasSubstr(reason));
    EXPECT_THAT(told(rule).reason, HasSubstr(reason));
    EXPECT_TRUE(told(rule).blocksCard);
  }

  /// Runs the check for each rule.
  template <typename Check>
  void forEachRule(const Check& check) {
    for (const AttributeRule& rule : kAttributeRules) {
      SCOPED_TRACE(::testing::Message() << "class " << rule.objectClass << ", attribute " << rule.type);
      check(rule);
    }
  }
};

TEST_F(CardRules, TakeAValueUpToItsLimit) {
  forEachRule([&](const AttributeRule& rule) {
    makeCard(rule, rule.largest);
    expectTaken(rule);
  });
}

TEST_F(CardRules, LeaveAnObjectOutWhoseValueIsLonger) {
  forEachRule([&](const AttributeRule& rule) {
    if (rule.largest == rule.refusedAbove) return;
    for (const CK_ULONG length : {rule.largest + 1, rule.refusedAbove}) {
      makeCard(rule, length);
      expectLeftOut(rule, std::to_string(length) + " bytes, more than " + std::to_string(rule.largest));
    }
  });
}

TEST_F(CardRules, RefuseTheCardAboveTheSecondLimit) {
  forEachRule([&](const AttributeRule& rule) {
    const CK_ULONG length = rule.refusedAbove + 1;
    makeCard(rule, length);
    expectRefused(rule, std::to_string(length) + " bytes, more than " + std::to_string(rule.refusedAbove));
  });
}

TEST_F(CardRules, SayWhatBecomesOfAnObjectWithoutTheValue) {
  forEachRule([&](const AttributeRule& rule) {
    makeCard(rule, std::nullopt);
    if (rule.whenUnreadable == WhenUnreadable::kCardRefused) {
      expectRefused(rule, "cannot be read");
    } else {
      expectLeftOut(rule, "cannot be read");
    }
    makeCard(rule, 0);
    if (rule.whenUnreadable == WhenUnreadable::kCardRefused) {
      expectRefused(rule, "is empty");
    } else {
      expectLeftOut(rule, "is empty");
    }
  });
}

TEST_F(CardRules, CountTheObjectsThatAreListed) {
  for (const CK_ULONG numBefore : {kMaxListedObjects - 1, kMaxListedObjects}) {
    SCOPED_TRACE(numBefore);
    script.reset();
    setCertificate({});
    const Object key = script.object(kPublicKey);
    const Object itsCertificate = script.object(kCertificate);
    script.card().objects.clear();
    for (CK_ULONG i = 0; i < numBefore; ++i)
      script.addObject(ecPublicKey(ulongValue(i), bytesOf("Before"), p256Params(), p256Point(1)));
    script.addObject(key);
    script.addObject(itsCertificate);
    const bool listed = numBefore < kMaxListedObjects;
    EXPECT_EQ(inserted().items.empty(), !listed);
    const auto objects = host.examine(readers().front()).unpublished;
    const bool told = std::any_of(objects.begin(), objects.end(), [](const UnpublishedObject& object) {
      return object.kind == "certificate";
    });
    EXPECT_EQ(told, !listed);
  }
}

}  // namespace
}  // namespace mirel::test
