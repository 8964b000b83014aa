// A card is inserted, with all that a user can be told of it before a login: readers, driver, token, items,
// and the second look that explains what is not published. Every answer of the module may come from the
// input.

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "CardChecks.h"
#include "Check.h"
#include "EditedModule.h"
#include "Input.h"
#include "Presentable.h"
#include "Surroundings.h"
#include "bridge/CardRules.h"
#include "host/Display.h"
#include "host/DistinctItems.h"
#include "host/Host.h"
#include "host/KeyAbility.h"
#include "host/KeyChoice.h"

namespace mirel::fuzz {
namespace {

// ---- The second look ----

Text textOf(const test::Value& value) { return Text::fromBytes(value); }

/// How often the card has a certificate of each name that can be read without a login, from what the script
/// holds: neither the token nor the second look is asked. A value that is so long that nobody reads it is in
/// no name.
std::map<std::u16string, std::size_t> certificatesOf(const test::Card& card) {
  std::map<std::u16string, std::size_t> names;
  for (const auto& [handle, object] : card.objects) {
    const auto valueOf = [&content = object](CK_ATTRIBUTE_TYPE type) {
      const auto found = content.attributes.find(type);
      const bool canBeRead = found != content.attributes.end() && !content.sensitive.contains(type) &&
                             found->second.size() <= ruleOf(CKO_CERTIFICATE, CKA_LABEL).refusedAbove;
      return canBeRead ? found->second : test::Value{};
    };
    const bool isCertificate = valueOf(CKA_CLASS) == test::ulongValue(CKO_CERTIFICATE);
    const test::Value id = valueOf(CKA_ID);
    const test::Value label = valueOf(CKA_LABEL);
    if (!isCertificate || id.empty() || label.empty() || (card.privateObjectsNeedLogin && object.isPrivate()))
      continue;
    ++names[std::u16string{certificateNameOf(textOf(label), textOf(id)).units()}];
  }
  return names;
}

/// The second look says of no published certificate that it is not, whatever call failed; and where none did,
/// it leaves out no certificate of the card. Of a module that lied nothing can be said.
void checkSecondLook(const InsertedCard& card, const CardReport& report, EditedModule& module) {
  if (module.hasLied()) return;
  const test::Card& inReader = module.script().card(card.reader.slotID);
  const auto onCard = certificatesOf(inReader);
  std::set<std::u16string> published;
  for (const PublishedItem& item : card.items) {
    if (const auto* certificate = std::get_if<PublishedCertificate>(&item))
      published.emplace(certificate->objectID.units());
  }
  std::set<std::u16string> unpublished;
  for (const UnpublishedObject& object : report.unpublished) {
    if (object.kind != "certificate" || object.id.isNull()) continue;
    const std::u16string name{certificateNameOf(object.label, object.id).units()};
    unpublished.insert(name);
    const auto found = onCard.find(name);
    const bool isTheOnlyOne = found != onCard.end() && found->second == 1;
    check(object.unread || !isTheOnlyOne || !published.contains(name),
          "what is published is not said to be missing");
  }
  const bool allSeen =
      !module.hasFailed() && report.failedRead.empty() && inReader.objects.size() <= kMaxListedObjects;
  if (!allSeen) return;
  for (const auto& [name, count] : onCard)
    check(published.contains(name) || unpublished.contains(name),
          "every certificate is published or explained");
}

// ---- One run ----

/// The names that a key may be given by: some that fit the good card, and one of the input.
void chooseKeys(Input& input, const InsertedCard& card) {
  const auto given = input.bytes(64);
  const std::string names[] = {"01", "Signer", "#9", "pkcs11:object=Signer;type=private",
                               std::string{given.begin(), given.end()}};
  for (const std::string& name : names) {
    const auto chosen = chooseKey(card, name);
    if (!chosen) checkFailure(chosen.failure());
  }
  for (const PublishedKey& key : keysOf(card)) {
    for (const auto operation : {KeyOperation::kSign, KeyOperation::kDecrypt, KeyOperation::kExchangeKeys}) {
      const auto never = reasonNeverTo(operation, key);
      if (never) checkFailure(refusalBecauseOf(*never, operation));
    }
  }
}

Text readerNameFrom(Input& input) {
  switch (input.below(8)) {
    case 1: return Text{u"Reader A 00"};
    case 2: return Text{u"Reader"};
    case 3: return Text{u""};
    case 4: {
      const auto name = input.bytes(64);
      return Text::fromUtf8({reinterpret_cast<const char*>(name.data()), name.size()});
    }
    default: return {};
  }
}

}  // namespace

void runTarget(Input& input) {
  const Text readerName = readerNameFrom(input);
  const std::uint8_t how = input.byte();
  Surroundings surroundings{input, {std::string{kGoodPin}}};
  EditedModule module{input, kSigner};
  const bool isGood = !module.wasChanged() && input.atEnd() && readerName.isNull();
  {
    Host host{surroundings.services(module)};
    const auto card = host.insert(readerName);
    if (card) {
      checkItems(*card);
      for (const auto& [item, count] : distinctItems(card->items))
        check(count > 0, "an item is there at least once");
      const CardReport report = host.examine(*card, (how & 2U) != 0);
      checkReport(report);
      if (!surroundings.ranOutOfMemory()) checkSecondLook(*card, report, module);
      if ((how & 1U) != 0) chooseKeys(input, *card);
    } else {
      checkFailure(card.failure());
      lookAtReaders(host);
    }
    check(!isGood || surroundings.ranOutOfMemory() || (card && card->items.size() >= 2),
          "the good card is published");
  }
  const bool mayLeaveSearches = module.hasLied() || module.hasFailed();
  check(mayLeaveSearches || module.script().openSearches().empty(), "every search is ended");
}

}  // namespace mirel::fuzz
