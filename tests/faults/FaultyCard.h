#pragma once

/// The scripted module with a card that does real cryptography, and with one fault.

#include <array>
#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "faults/Fault.h"
#include "host/SoftwareKey.h"

namespace mirel::test {

inline constexpr const char* kCardPin = "7kQ#x2Zp";

/// A number that a call has reported: its length, count or handle.
struct SeenNumber {
  CK_ULONG real = 0;
  CK_ULONG room = 0;                 ///< what the caller had announced; 0: nothing
  std::array<CK_ULONG, 2> limits{};  ///< what the command accepts at most; 0: there is no such limit
};

inline constexpr std::size_t kMostNumbers = 14;

struct SeenCall {
  std::size_t function = 0;  ///< its position in kCryptokiFunctionNames
  std::size_t numNumbers = 0;
  std::array<SeenNumber, kMostNumbers> numbers{};
};

inline constexpr std::size_t kMostCalls = 4096;

/// What the module has seen of one run, in memory that the command's processes and ours share.
struct Record {
  std::size_t numCalls = 0;
  bool fired = false;     ///< the fault has happened
  bool loggedIn = false;  ///< the right PIN came
  std::array<SeenCall, kMostCalls> calls{};
};

/// The card: key "01" signs, "02" decrypts (the same RSA key), "03" agrees on keys (P-256); each with its
/// certificate. Once for each process.
class FaultyCard {
 public:
  FaultyCard();
  FaultyCard(const FaultyCard&) = delete;
  FaultyCard& operator=(const FaultyCard&) = delete;

  /// Card and module as at the start, but with that fault; an empty record.
  void play(const Fault& fault);

  [[nodiscard]] const Record& record() const { return record_; }
  [[nodiscard]] const SoftwareKey& key() const { return key_; }

  /// The names of the texts that can be replaced.
  [[nodiscard]] static std::span<const char* const> textPlaces();

 private:
  void makeCard(const std::string& subject);
  void replaceText(std::size_t place, const std::string& text);

  const SoftwareKey& key_;
  Record& record_;
};

}  // namespace mirel::test
