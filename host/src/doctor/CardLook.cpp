#include "doctor/CardLook.h"

#include "host/Display.h"
#include "host/KeyChoice.h"

namespace mirel {
namespace {

CardLook lookOf(const std::vector<UnpublishedObject>& objects) {
  CardLook look;
  look.numUnpublished = objects.size();
  for (const UnpublishedObject& object : objects) {
    const FindingID id = object.blocksCard ? FindingID::kObjectHidesCard
                         : object.unread   ? FindingID::kObjectUnread
                                           : FindingID::kObjectLeftOut;
    look.findings.push_back({id, object.blocksCard ? Severity::kFailure : Severity::kWarning,
                             object.kind + " " + displayed(object.id), object.reason});
  }
  return look;
}

}  // namespace

CardLook lookAtCard(Host& host, const InsertedCard& card, bool) {
  CardLook look = lookOf(host.unpublishedObjects(card).objects);
  for (const PublishedKey& key : keysOf(card))
    look.keys.push_back({key.objectID, "", key.keySizeInBits > 2048});
  return look;
}

CardLook lookAtCard(Host& host, const Reader& reader) { return lookOf(host.unpublishedObjects(reader)); }

}  // namespace mirel
