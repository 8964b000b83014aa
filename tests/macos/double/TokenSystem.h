#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace mirel::test {

using ByteVector = std::vector<std::uint8_t>;

/// What the system gives where a callee can report an error.
enum class ErrorPointer {
  kEmpty,   ///< a pointer to no error
  kFilled,  ///< a pointer to an error that there already is: domain "earlier", code 1
  kNone,    ///< no pointer
};

/// The key of an error's text for the user, whatever the running Foundation calls it.
inline constexpr const char* kDescriptionKey = "NSLocalizedDescription";

struct SystemError {
  std::string domain;
  long code = 0;
  /// Values that are no texts stand as their descriptions.
  std::map<std::string, std::string> userInfo{};

  [[nodiscard]] bool operator==(const SystemError&) const = default;
};

/// What came of a request. `error` is what the callee left behind the pointer, whatever it answered.
struct Outcome {
  bool succeeded = false;
  /// The data that were answered; nothing when there are none.
  std::optional<ByteVector> data{};
  std::optional<SystemError> error{};

  [[nodiscard]] bool operator==(const Outcome&) const = default;
};

/// An item that a token published.
struct PublishedItem {
  std::string className;
  bool isKey = false;
  std::string objectID;
  std::optional<std::string> label{};
  /// By operation; the booleans as "YES" and "NO". Nothing when there is no dictionary.
  std::optional<std::map<long, std::string>> constraints{};

  // ---- Of keys alone ----
  bool canSign = false;
  bool canDecrypt = false;
  bool canPerformKeyExchange = false;
  bool suitableForLogin = false;
  /// What the key's own class adds; nothing when the class has no such property.
  std::optional<std::string> certificateID{};
  std::optional<bool> alwaysAuthenticate{};

  [[nodiscard]] bool operator==(const PublishedItem&) const = default;
};

/// An authentication that is under way.
struct PinRequest {
  std::string className;
  /// Nothing when the operation asks for no PIN.
  std::optional<ByteVector> apduTemplate{};
  long pinBitOffset = 0;
  long minPinLength = 0;
  long maxPinLength = 0;
  std::optional<std::string> readerName{};
};

using SessionNumber = std::size_t;

/// Plays CryptoTokenKit for one driver and one card at a time: calls the delegates as the system does, keeps
/// what they answer, and lets it go again. Without a delegate all fails without an error; a method that it
/// does not implement raises. Texts are UTF-8.
///
/// A key is named by its object identifier; an algorithm by the name of its constant, with or without the
/// prefix "kSecKeyAlgorithm". An unknown name, or a number of no session, ends the program.
class TokenSystem {
 public:
  /// Makes the driver, as the extension's property list names it.
  explicit TokenSystem(const std::string& driverClass);
  TokenSystem(const TokenSystem&) = delete;
  TokenSystem& operator=(const TokenSystem&) = delete;
  /// Drops everything.
  ~TokenSystem();

  /// False when there is no such class, or when it is no driver.
  [[nodiscard]] bool hasDriver() const;

  /// A card is put into that reader. Succeeded: there is a token.
  Outcome offerCard(const std::string& readerName, ErrorPointer pointer = ErrorPointer::kEmpty,
                    const std::optional<ByteVector>& aid = std::nullopt);
  /// The card is taken out: sessions and token are let go.
  void removeCard();

  [[nodiscard]] std::string instanceID() const;
  /// How often the token's contents were filled.
  [[nodiscard]] std::size_t numFills() const;
  [[nodiscard]] std::vector<PublishedItem> items() const;

  /// A new client. Succeeded: the session has the next number; the first has 0.
  Outcome openSession(ErrorPointer pointer = ErrorPointer::kEmpty);

  [[nodiscard]] bool supports(SessionNumber session, long operation, const std::string& key,
                              const std::string& algorithm);

  /// Succeeded: there is an operation; the next two calls are about it. Without a `constraint` the one that
  /// the key has for the operation is taken. "YES" and "NO" stand for the booleans.
  Outcome beginAuth(SessionNumber session, long operation, const std::string& key,
                    const std::optional<std::string>& constraint = std::nullopt,
                    ErrorPointer pointer = ErrorPointer::kEmpty);
  [[nodiscard]] std::optional<PinRequest> pinRequest() const;
  /// The user has entered that. Nothing: the operation has no PIN.
  void enterPin(const std::optional<std::string>& pin);
  /// Ends the operation and lets it go.
  Outcome finishAuth(ErrorPointer pointer = ErrorPointer::kEmpty);

  Outcome sign(SessionNumber session, const ByteVector& data, const std::string& key,
               const std::string& algorithm, ErrorPointer pointer = ErrorPointer::kEmpty);
  Outcome decrypt(SessionNumber session, const ByteVector& data, const std::string& key,
                  const std::string& algorithm, ErrorPointer pointer = ErrorPointer::kEmpty);
  Outcome exchange(SessionNumber session, const ByteVector& publicKey, const std::string& key,
                   const std::string& algorithm, ErrorPointer pointer = ErrorPointer::kEmpty);

  /// The marks on the session's connection to the card: true, false, or nothing.
  [[nodiscard]] std::optional<bool> cardContext(SessionNumber session) const;
  [[nodiscard]] bool cardIsSensitive(SessionNumber session) const;
  /// The card is reset, so its connections lose their marks.
  void resetCard();

#ifdef __OBJC__
  /// The objects themselves; nil when there is none. The system keeps them.
  [[nodiscard]] id driver() const;
  [[nodiscard]] id token() const;
  [[nodiscard]] id session(SessionNumber number) const;
  [[nodiscard]] id authOperation() const;
#endif

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// What failing tests show.
void PrintTo(const Outcome& outcome, std::ostream* out);
void PrintTo(const PublishedItem& item, std::ostream* out);

/// The names of all algorithms, without their prefix.
[[nodiscard]] std::vector<std::string> algorithmNames();

}  // namespace mirel::test
