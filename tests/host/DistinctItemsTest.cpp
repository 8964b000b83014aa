#include "host/DistinctItems.h"

#include <gtest/gtest.h>

namespace mirel {
namespace {

TEST(DistinctItems, DifferInAnythingThatIsPublished) {
  const auto with = [](auto change) {
    PublishedKey key;
    change(key);
    return PublishedItem{key};
  };
  const std::vector<PublishedItem> items{
      with([](PublishedKey&) {}),
      with([](PublishedKey& key) { key.objectID = Text{u"01"}; }),
      with([](PublishedKey& key) { key.label = Text{u"01"}; }),
      with([](PublishedKey& key) { key.certificateID = Text{u"01"}; }),
      with([](PublishedKey& key) { key.keyType = CertificateKeyType::kRSA; }),
      with([](PublishedKey& key) { key.keySizeInBits = 1; }),
      with([](PublishedKey& key) { key.canSign = true; }),
      with([](PublishedKey& key) { key.canDecrypt = true; }),
      with([](PublishedKey& key) { key.canPerformKeyExchange = true; }),
      with([](PublishedKey& key) { key.suitableForLogin = true; }),
      with([](PublishedKey& key) { key.alwaysAuthenticate = true; }),
      with([](PublishedKey& key) { key.constraints[KeyOperation::kSign] = Text{u"PIN"}; }),
      with([](PublishedKey& key) { key.constraints[KeyOperation::kDecrypt] = Text{u"PIN"}; }),
      PublishedCertificate{}};
  EXPECT_EQ(distinctItems(items).size(), items.size());
  const std::vector<PublishedItem> twice{items.front(), items.back(), items.front()};
  const auto distinct = distinctItems(twice);
  ASSERT_EQ(distinct.size(), 2U);
  EXPECT_EQ(distinct.front().item, &twice.front());
  EXPECT_EQ(distinct.front().count, 2U);
}

}  // namespace
}  // namespace mirel
