#pragma once

#include "bridge/P11Bridge.h"
#include "conformance/Rules.h"
#include "host/Host.h"

namespace mirel {

/// The rules that a session without a login sees in the objects of a card: lengths, numbers, buffers.
void testObjects(const P11Bridge& bridge, CK_SLOT_ID slotID, RuleResults& results);

/// What can be told of a report of the card.
struct ReportRules {
  const CardReport& report;
  bool published = false;              ///< the card has items in the keychain
  std::string missed{};                ///< why the insertion may have missed something; empty: it has not
  std::vector<std::string> signers{};  ///< the keys that may sign, as findings name them
  bool loggedIn = false;               ///< the report was made after a login
  std::string otherUnread{};           ///< why the name of another card is not known; empty: all are
};

/// The rules that the report of a card decides.
void testReport(const ReportRules& rules, RuleResults& results);

/// The rules about single attributes of keys that show only after a login.
void testKeyObjects(const P11Bridge& bridge, const InsertedCard& card, RuleResults& results);

}  // namespace mirel
