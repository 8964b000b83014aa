#pragma once

/// Stories of a card and its user, told once and played twice: on the token layer as the host drives it, and
/// on the extension's classes as the platform drives them. What happens is written down as lines of text,
/// which must be the same.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "double/TokenSystem.h"
#include "module/Script.h"

namespace mirel::test {

/// Plays the system for one of the two implementations. Texts are UTF-8; operations have the platform's
/// numbers, algorithms the names of its constants.
class ScenarioDriver {
 public:
  ScenarioDriver() = default;
  ScenarioDriver(const ScenarioDriver&) = delete;
  ScenarioDriver& operator=(const ScenarioDriver&) = delete;
  virtual ~ScenarioDriver() = default;

  virtual Outcome insert(const std::string& readerName) = 0;
  virtual void remove() = 0;
  /// There is a token.
  [[nodiscard]] virtual std::string instanceID() = 0;
  [[nodiscard]] virtual std::vector<PublishedItem> items() = 0;
  /// Sessions are numbered from 0 on.
  virtual Outcome openSession() = 0;
  [[nodiscard]] virtual bool supports(std::size_t session, std::int64_t operation, const std::string& key,
                                      const std::string& algorithm) = 0;
  /// Without a `constraint` the one that the key has; "YES" and "NO" are booleans.
  virtual Outcome beginAuth(std::size_t session, std::int64_t operation, const std::string& key,
                            const std::optional<std::string>& constraint) = 0;
  /// Of the authentication that has begun.
  [[nodiscard]] virtual PinRequest pinRequest() = 0;
  virtual void enterPin(const std::optional<std::string>& pin) = 0;
  virtual Outcome finishAuth() = 0;
  virtual Outcome sign(std::size_t session, const std::vector<std::uint8_t>& data, const std::string& key,
                       const std::string& algorithm) = 0;
  virtual Outcome decrypt(std::size_t session, const std::vector<std::uint8_t>& data, const std::string& key,
                          const std::string& algorithm) = 0;
  virtual Outcome exchange(std::size_t session, const std::vector<std::uint8_t>& publicKey,
                           const std::string& key, const std::string& algorithm) = 0;
  /// The log lines since the last call, each with its channel: "default: ", "error: ", "process: ".
  [[nodiscard]] virtual std::vector<std::string> takeLogLines() = 0;
};

/// Gives a driver one step after the other and writes down what comes of it.
class Play {
 public:
  explicit Play(ScenarioDriver& driver) : driver_{driver} {}

  /// When there is a token: also its name and items.
  void insert(const std::string& readerName = "Reader A 00");
  void remove();
  void openSession();
  /// One line for all operations and algorithms there are.
  void supportOfEverything(std::size_t session, const std::string& key);
  void supports(std::size_t session, std::int64_t operation, const std::string& key,
                const std::string& algorithm);
  /// Also what the user would be asked for.
  void beginAuth(std::size_t session, std::int64_t operation, const std::string& key,
                 const std::optional<std::string>& constraint = std::nullopt);
  /// Begins, enters the PIN and finishes.
  void logIn(std::size_t session, const std::optional<std::string>& pin = "123456",
             std::int64_t operation = 2, const std::string& key = "01");
  void sign(std::size_t session, const std::vector<std::uint8_t>& data,
            const std::string& algorithm = "RSASignatureRaw", const std::string& key = "01");
  void decrypt(std::size_t session, const std::vector<std::uint8_t>& data,
               const std::string& algorithm = "RSAEncryptionPKCS1", const std::string& key = "01");
  void exchange(std::size_t session, const std::string& key);

  [[nodiscard]] const std::vector<std::string>& lines() const { return lines_; }

 private:
  void note(const std::string& step, const Outcome& result);
  void noteLog();

  ScenarioDriver& driver_;
  std::vector<std::string> lines_;
};

struct Scenario {
  /// Letters only.
  std::string name;
  std::function<void(Play&, Script&)> run;
  /// Lines that must come, among others and in this order: so that the two do not agree on nothing.
  std::vector<std::string> mustSay;
  /// Changes the card, whose key signs; null: not at all.
  std::function<void(Script&)> prepare = nullptr;
  bool hasModule = true;
};

[[nodiscard]] const std::vector<Scenario>& scenarios();
/// Makes the card of the scenario.
void prepare(const Scenario& scenario, Script& script);

/// The only place that levels out what may differ: an object stands in a log line with its address, which is
/// left out.
[[nodiscard]] std::string withoutAddresses(std::string line);

}  // namespace mirel::test
