#pragma once

#include <chrono>

#include "CardContents.h"
#include "host/Host.h"

namespace mirel {

/// What one look at a card has found, before it is put in order.
class CardFindings {
 public:
  /// `contents`: explained (see CardInspector.h); outlives this.
  explicit CardFindings(const CardContents& contents) : contents_{contents} {}

  /// A finding about all objects with that ID; null: about none.
  void add(Finding finding, const Text& id = Text{});

  // About the objects. What is missing is only told where nothing failed.
  void addUnpublished(const std::vector<UnpublishedObject>& objects);
  void addSharedIDs();
  void addCertificatesOfOtherKeys();
  void addValidity(std::chrono::system_clock::time_point now);
  /// `reader`: as findings name it.
  void addWhatIsNotRead(const std::string& reader);
  void addLonelyPrivateKeys();
  /// Of a key that is not on the card any more as it was published. Before anything else about keys is
  /// missed.
  void addChangedKey(const PublishedKey& key, std::string evidence);
  /// Of a card without items in the keychain, where nothing that was added before says why.
  void addNothingPublished();

  /// About the published keys, and what they work for.
  void addKeys(const std::vector<PublishedKey>& keys, CardReport& report);

  /// Puts the findings into the report and those of each key to it.
  void finish(CardReport& report);

 private:
  struct Located {
    Finding finding;
    Text id;
    bool sparesTheFirst = false;  ///< of several keys with that ID it is about the others
  };

  /// Whether the first key with that ID has it.
  [[nodiscard]] bool has(FindingID finding, const Text& id) const;
  [[nodiscard]] bool hasAny(FindingID finding) const;
  void addKey(const PublishedKey& key, bool isRepeated, KeyReport& report);
  [[nodiscard]] bool hasSeveralKeys(const Text& id) const;
  [[nodiscard]] bool areOfOneKey(const Text& id) const;
  [[nodiscard]] std::string phraseFor(const PublishedKey& key, bool isShadowed) const;

  const CardContents& contents_;
  std::vector<Located> located_;
};

}  // namespace mirel
