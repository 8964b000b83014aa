/// Which key may be used when, and what is answered when it may not.

#include "token/KeyOperations.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const Text kOnceKey{u"02"};
constexpr std::int64_t kTag = 0x82;

/// States of a session, with the keys that may be used in them.
struct State {
  std::int64_t state;
  bool marked;
  bool givesAlways = false;  ///< the key that asks for the PIN each time
  bool givesOnce = false;    ///< the key that does not
};

const State kStates[] = {
    {0, false},
    {0, true},
    {1, false},
    {1, true, true, true},
    {2, false},
    {2, true, false, true},
    // States that nobody knows.
    {3, false},
    {3, true, true, true},
    {-1, true, true, true},
    {0x100000000, true, true, true},
};

/// The token publishes a key that asks for the PIN each time, "01", and one that does not, "02".
class KeySearch : public ClientSessionTest {
 protected:
  using Search = std::function<bool(const Text& keyObjectID, TKErrorPointer outError)>;

  KeySearch() { publish({keyItem(kKey, true), keyItem(kOnceKey, false)}); }

  void isIn(const State& state) { ClientSessionTest::isIn(state.state, state.marked); }

  /// Searches for each key in each state: it is given, with the error left alone, or it needs the PIN, or is
  /// unknown. `isGeneral`: the search is part of a general authentication.
  void expectTable(const Search& search, bool isGeneral) {
    for (const State& row : kStates) {
      const struct {
        Text id;
        bool isGiven;
        TKError error;
        const char* line;
      } keys[] = {{kKey, row.givesAlways, tokenError(-9), row.givesAlways ? kAuthenticatedEnd : kNeeded},
                  {kOnceKey, row.givesOnce, tokenError(-9), row.givesOnce ? kAuthenticatedEnd : kNeeded},
                  {kNoKey, false, tokenError(-6), kKeyIsNil}};
      for (const auto& key : keys) {
        SCOPED_TRACE(key.id.toUtf8() + " in " + std::to_string(row.state) + (row.marked ? " marked" : ""));
        std::vector<std::string> lines{kAuthenticatedStart, key.line};
        if (isGeneral) {
          lines.insert(lines.begin(), kGeneralStart);
          const std::string failed = "process: [MirelSCTokenSession-187] keyObjectID = " + key.id.toUtf8();
          lines.push_back(key.isGiven ? kGeneralEnd : failed);
        }
        const auto find = [&](TKErrorPointer outError) {
          isIn(row);
          EXPECT_EQ(search(key.id, outError), key.isGiven);
          EXPECT_EQ(log->allLines, lines);
          EXPECT_EQ(client->core->authState(), row.state);
          EXPECT_EQ(client->platform.card.marked.load(), row.marked);
          EXPECT_THAT(script.callTexts(), IsEmpty());
        };
        for (const auto& before : kErrorsBefore) {
          std::optional<TKError> error = before;
          find(&error);
          EXPECT_EQ(error, key.isGiven ? before : key.error);
        }
        std::erase(lines, kNeeded);  // only logged where there is a place for the error
        find(nullptr);
      }
    }
  }

  [[nodiscard]] bool find(const Text& id, TKErrorPointer outError = nullptr) {
    return client->core->authenticatedKeyForObjectID(client->platform, id, outError);
  }
  [[nodiscard]] bool authenticate(const Text& id, TKErrorPointer outError = nullptr) {
    return client->core->generalAuthenticateWithData(client->platform, Bytes{Value{1, 2, 3}}, kTag, id,
                                                     outError);
  }
};

TEST_F(KeySearch, NeedsAStateAndAMarkAndNoUsedKeyThatAsksEachTime) {
  expectTable([this](const Text& id, TKErrorPointer outError) { return find(id, outError); }, false);
}

TEST_F(KeySearch, AsksForTheMarkOnlyWhenNothingElseSpeaksAgainstIt) {
  for (const State& row : {State{0, true}, State{2, true}}) {
    isIn(row);
    EXPECT_FALSE(find(kKey));
    EXPECT_THAT(calls, ElementsAre("session.keyForObjectID 01"));
  }
  isIn({1, true});
  EXPECT_TRUE(find(kKey));
  EXPECT_THAT(calls, ElementsAre("session.keyForObjectID 01", "session.smartCard", "card.hasContext"));
}

TEST_F(KeySearch, NeedsAConnectionToTheCardAndSetsNoErrorWhenTheTokenHasGone) {
  std::optional<TKError> given;
  isIn({1, true});
  client->platform.card.isConnected = false;
  EXPECT_FALSE(find(kKey, &given));
  EXPECT_EQ(given, tokenError(-9));
  isIn({1, true});
  given.reset();
  client->platform.contents = nullptr;
  EXPECT_FALSE(find(kKey, &given));
  EXPECT_EQ(given, std::nullopt);
  EXPECT_THAT(log->allLines, ElementsAre(kAuthenticatedStart, kKeyIsNil));
}

TEST_F(KeySearch, IsAllThatAGeneralAuthenticationDoes) {
  expectTable([this](const Text& id, TKErrorPointer outError) { return authenticate(id, outError); }, true);
}

TEST_F(KeySearch, IsLoggedWithWhateverIdentifierWasGivenAndDoesNotLookAtDataAndTag) {
  EXPECT_FALSE(authenticate(Text{}));
  EXPECT_EQ(log->allLines.back(), "process: [MirelSCTokenSession-187] keyObjectID = (null)");
  EXPECT_FALSE(authenticate(Text{u"%n%s%@"}));
  EXPECT_EQ(log->allLines.back(), "process: [MirelSCTokenSession-187] keyObjectID = %n%s%@");
  isIn({1, true});
  for (const Bytes& data : {Bytes{}, Bytes{Value(5000)}}) {
    EXPECT_TRUE(client->core->generalAuthenticateWithData(client->platform, data, 255, kKey, nullptr));
  }
}

// ---- Signing and decrypting, where it does not come to that ----

class RefusedUse : public KeySearch, public ::testing::WithParamInterface<KeyOperation> {
 protected:
  /// In that state there is no answer for that key, that error (nothing: none), and `lines` behind those for
  /// the beginning of the search. Nobody asks the card.
  void expectRefusal(const State& state, const Text& id, const std::optional<TKError>& expected,
                     std::vector<std::string> lines) {
    lines.insert(lines.begin(), {GetParam().start, kGeneralStart, kAuthenticatedStart});
    const FakeKeyAlgorithm algorithm{GetParam().algorithm};
    const auto use = [&](TKErrorPointer outError) {
      isIn(state);
      EXPECT_TRUE(useKey(*client, GetParam(), algorithm, outError, id).isNull());
      EXPECT_EQ(log->allLines, lines);
      EXPECT_THAT(script.callTexts(), IsEmpty());
    };
    for (const auto& before : kErrorsBefore) {
      std::optional<TKError> outError = before;
      use(&outError);
      EXPECT_EQ(outError, expected ? expected : before);
    }
    std::erase(lines, kNeeded);
    use(nullptr);
    EXPECT_THAT(algorithm.askedFor, IsEmpty());
  }
};

TEST_P(RefusedUse, HasTheErrorAndTheLinesOfStateAndKey) {
  const char* const kFailedOnce = "process: [MirelSCTokenSession-187] keyObjectID = 02";
  const char* const kNotFound = GetParam().keyNotFound;
  const struct {
    const char* what;
    State state;
    Text id;
    std::optional<TKError> error;
    std::vector<std::string> lines;
  } rows[] = {
      {"before the PIN", {0, false}, kKey, tokenError(-9), {kNeeded, kFailed}},
      {"before the PIN, on a marked card", {0, true}, kKey, tokenError(-9), {kNeeded, kFailed}},
      {"an unknown key before the PIN", {0, false}, kNoKey, tokenError(-6), {kKeyIsNil, kFailedNoKey}},
      {"an unknown key after it", {1, true}, kNoKey, tokenError(-7), {kKeyIsNil, kFailedNoKey, kNotFound}},
      {"a card that has lost its mark", {1, false}, kKey, tokenError(-7), {kNeeded, kFailed, kNotFound}},
      // In the used state, and in one that nobody knows.
      {"a key that asks each time", {2, true}, kKey, tokenError(-9), {kNeeded, kFailed}},
      {"the other key without a mark", {2, false}, kOnceKey, tokenError(-9), {kNeeded, kFailedOnce}},
      {"a key that may be used", {2, true}, kOnceKey, std::nullopt, {kAuthenticatedEnd, kGeneralEnd}},
      {"a key in an unknown state", {3, true}, kKey, std::nullopt, {kAuthenticatedEnd, kGeneralEnd}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    expectRefusal(row.state, row.id, row.error, row.lines);
  }
  client->platform.contents = nullptr;
  SCOPED_TRACE("a token that has gone");
  expectRefusal({1, true}, kKey, tokenError(-7), {kKeyIsNil, kFailed, kNotFound});
}

INSTANTIATE_TEST_SUITE_P(Key, RefusedUse, ::testing::ValuesIn(keyOperations()), nameOfParameter);

// ---- Key exchange ----

class KeyExchange : public ClientSessionTest {
 protected:
  /// There is no answer whatever the state, and that error (nothing: none).
  void expectNothing(const Text& id, const std::optional<TKError>& expected, const char* line) {
    for (const State& row : kStates) {
      const auto use = [&](TKErrorPointer outError) {
        isIn(row.state, row.marked);
        EXPECT_TRUE(client->core->performKeyExchangeWithPublicKey(client->platform, id, algorithm, outError)
                        .isNull());
        EXPECT_THAT(log->allLines, ElementsAre("default: CTK [MirelSCTokenSession-308] +++START+++", line));
        EXPECT_THAT(calls, ElementsAre("session.keyForObjectID " + id.toUtf8()));
        EXPECT_THAT(script.callTexts(), IsEmpty());
      };
      for (const auto& before : kErrorsBefore) {
        std::optional<TKError> error = before;
        use(&error);
        EXPECT_EQ(error, expected ? expected : before);
      }
      use(nullptr);
      EXPECT_EQ(client->core->authState(), row.state);
    }
    EXPECT_THAT(algorithm.askedFor, IsEmpty());
  }

  const FakeKeyAlgorithm algorithm{SecKeyAlgorithm::kSecKeyAlgorithmECDHKeyExchangeStandard};
};

constexpr const char* kExchange =
    "process: [MirelSCTokenSession-318] performKeyExchangeWithPublicKey 01 algorithm <an algorithm>";

TEST_F(KeyExchange, ReportsAnUnknownKeyAsAMissingToken) {
  expectNothing(kNoKey, tokenError(-7),
                "process: [MirelSCTokenSession-312] performKeyExchangeWithPublicKey objectID not found");
}

TEST_F(KeyExchange, AnswersNothingAndAfterALoginNeither) {
  expectNothing(kKey, std::nullopt, kExchange);
  EXPECT_TRUE(client->login());
  expectNothing(kKey, std::nullopt, kExchange);
  leavesOpen({kCardSession, kLoginSession});
}

}  // namespace
}  // namespace mirel::test
