#include "host/DistinctItems.h"

#include <string>
#include <unordered_map>

namespace mirel {
namespace {

using Identity = std::u16string;

/// With the length before it, so that no two lists of texts give the same.
void append(Identity& identity, const Text& text) {
  identity += text.isNull() ? u'-' : u'+';
  for (std::size_t rest = text.length(); rest != 0; rest >>= 15U)
    identity += static_cast<char16_t>(0x8000U | (rest & 0x7FFFU));
  identity += u'.';
  identity += text.units();
}

void append(Identity& identity, std::uint64_t number) {
  for (unsigned shift = 0; shift < 64; shift += 16) identity += static_cast<char16_t>(number >> shift);
}

Identity identityOf(const PublishedCertificate& item) {
  // All else is read from the data.
  Identity identity{u'c'};
  append(identity, item.objectID);
  append(identity, item.label);
  append(identity, Text::fromBytes(item.data.view()));
  return identity;
}

Identity identityOf(const PublishedKey& item) {
  Identity identity{u'k'};
  for (const Text* text : {&item.objectID, &item.label, &item.certificateID}) append(identity, *text);
  append(identity, static_cast<std::uint64_t>(item.keyType));
  append(identity, static_cast<std::uint64_t>(item.keySizeInBits));
  for (const bool flag : {item.canSign, item.canDecrypt, item.canPerformKeyExchange, item.suitableForLogin,
                          item.alwaysAuthenticate}) {
    identity += flag ? u'1' : u'0';
  }
  for (const auto& [operation, constraint] : item.constraints) {
    append(identity, static_cast<std::uint64_t>(operation));
    append(identity, constraint);
  }
  return identity;
}

}  // namespace

std::vector<DistinctItem> distinctItems(const std::vector<PublishedItem>& items) {
  std::vector<DistinctItem> distinct;
  std::unordered_map<Identity, std::size_t> positions;
  for (const PublishedItem& item : items) {
    const auto identity = std::visit([](const auto& published) { return identityOf(published); }, item);
    const auto [position, isNew] = positions.try_emplace(identity, distinct.size());
    if (isNew) distinct.push_back({&item, 0});
    ++distinct[position->second].count;
  }
  return distinct;
}

}  // namespace mirel
