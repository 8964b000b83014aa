#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/Bytes.h"
#include "platform/CardService.h"

namespace mirel::recording {

// What a recording consists of: the calls of a PKCS #11 module with their arguments and answers, and whatever
// else of its surroundings a run depends on. Plain data, which can be rewritten before it is stored.
//
// No PIN, no plain text, no key and no random byte of the module is ever part of it, see src/ArgumentTable.h.

struct Value;
struct NamedValue;

/// A pointer that was null.
struct NullPointer {
  friend bool operator==(const NullPointer&, const NullPointer&) = default;
};

/// Bytes of which nothing but their number is known.
struct HiddenBytes {
  std::uint64_t size = 0;
  friend bool operator==(const HiddenBytes&, const HiddenBytes&) = default;
};

/// Values of one kind, such as attributes or handles.
using List = std::vector<Value>;

/// A structure, or the arguments of a call: each name once, in the standard's order.
using Fields = std::vector<NamedValue>;

/// One value. A text is the module's bytes as they are, in any encoding, padding included: a label or a field
/// of a structure. Bytes are what is no text: an ID, a modulus, a certificate, a signature.
struct Value {
  std::variant<NullPointer, std::uint64_t, std::string, ByteVector, HiddenBytes, List, Fields> held;

  friend bool operator==(const Value&, const Value&);
};

struct NamedValue {
  std::string name;
  Value value;

  friend bool operator==(const NamedValue&, const NamedValue&);
};

/// The value of that name; null when there is none.
[[nodiscard]] inline const Value* valueNamed(const Fields& fields, std::string_view name) noexcept {
  for (const NamedValue& field : fields) {
    if (field.name == name) return &field.value;
  }
  return nullptr;
}

/// Whom a call was made for.
enum class Road : std::uint8_t {
  kToken,  ///< the token, as the system would have it made
  kHost    ///< the host, which looks at readers and cards for the user
};

/// A call of the module. One that has not come back has no answer.
///
/// An attribute, in a search, a query or an answer, is a structure with "type" (a text such as "CKA_LABEL", a
/// number where the standard has no name for it), and
/// - in a search: "value";
/// - in a query: "room", the bytes that the value may have, or a null pointer where only its length is asked;
/// - in an answer: "length" as the module wrote it, and "value" where it wrote one.
/// A value is a number where the standard has a number or a boolean, a text for CKA_LABEL, bytes for the
/// other attributes that may be known, and hidden bytes for all others.
struct RecordedCall {
  std::string function;  ///< "C_Login"
  Road road = Road::kToken;
  Fields in{};   ///< the arguments that the module is given
  Fields out{};  ///< what it wrote
  std::uint64_t result = 0;
  std::uint64_t microseconds = 0;
  std::uint32_t thread = 0;  ///< 1 for the first thread that made a call, and so on

  friend bool operator==(const RecordedCall&, const RecordedCall&) = default;
};

/// An answer of the system's loader about the module.
struct RecordedLoading {
  std::string subject;               ///< "library", or the name of a symbol
  std::optional<std::string> error;  ///< what the loader said, where it failed

  friend bool operator==(const RecordedLoading&, const RecordedLoading&) = default;
};

/// What was found in place of the module before it was loaded; see host/ModuleFile.h.
struct RecordedModule {
  std::string name;
  std::string path;
  int error = 0;
  std::string noFile;
  std::optional<std::string> exposure;
  std::string target;
  std::optional<std::string> otherTarget;

  friend bool operator==(const RecordedModule&, const RecordedModule&) = default;
};

/// The salt of a signature, which the host drew at random. It is part of the signature and no secret.
struct RecordedSalt {
  ByteVector bytes;
  friend bool operator==(const RecordedSalt&, const RecordedSalt&) = default;
};

/// A time that the host has asked for.
struct RecordedTime {
  enum class Clock : std::uint8_t {
    kDate,   ///< seconds since 1970-01-01T00:00:00Z
    kSteady  ///< microseconds since some moment
  };
  Clock clock = Clock::kDate;
  std::int64_t time = 0;
  friend bool operator==(const RecordedTime&, const RecordedTime&) = default;
};

/// What the card service told when it was asked.
struct RecordedView {
  CardServiceView view;
};

/// How a process came to an end that was not its own.
struct BadEnd {
  enum class Kind : std::uint8_t {
    kCrashed,     ///< a signal that the user did not send
    kExited,      ///< the module called exit
    kHung,        ///< a call that did not return in time
    kInterrupted  ///< a signal by which users end programs
  };
  Kind kind = Kind::kCrashed;
  std::string signal{};       ///< its name, "SIGSEGV"; empty: none
  std::uint64_t seconds = 0;  ///< how long was waited where it hung

  friend bool operator==(const BadEnd&, const BadEnd&) = default;
};

/// The bad end of the process that was recorded. No record follows it.
struct RecordedEnd {
  BadEnd how;
  bool whileLoading = false;           ///< the loader had not returned with the module
  std::optional<RecordedCall> call{};  ///< the one that did not return, without an answer; nothing: none

  friend bool operator==(const RecordedEnd&, const RecordedEnd&) = default;
};

using Record = std::variant<RecordedCall, RecordedLoading, RecordedModule, RecordedSalt, RecordedTime,
                            RecordedView, RecordedEnd>;

/// What stands at the top of a recording.
struct Header {
  std::string program;                  ///< the version of this program, "0.1.0"
  std::vector<std::string> command;     ///< the words of the command line, without the names of files
  std::int64_t started = 0;             ///< seconds since 1970-01-01T00:00:00Z
  std::string module;                   ///< the name of the module's file, without a folder; empty: not named
  std::vector<std::string> replaced{};  ///< what was replaced by pseudonyms, one kind a text; empty: nothing
};

struct Recording {
  Header header;
  std::vector<Record> records;  ///< in the order in which they happened
};

}  // namespace mirel::recording
