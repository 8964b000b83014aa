#pragma once

/// The few calls of PC/SC that tell what is in the readers, written once for
/// the two forms in which systems have them.

#include <dlfcn.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "platform/CardService.h"
#include "platform/Hex.h"

namespace mirel::pcsc {

inline constexpr std::size_t kLongestAtr = 33;            // bytes
inline constexpr std::size_t kLargestReaderList = 65536;  // bytes
inline constexpr std::size_t kMostReaders = 64;

/// PC/SC as pcsc-lite has it on Linux.
struct LiteForm {
  using Number = unsigned long;
  using Result = long;
  using Context = long;
  struct ReaderState {
    const char* reader;
    void* userData;
    Number currentState;
    Number eventState;
    Number atrLength;
    unsigned char atr[kLongestAtr];
  };
};

/// PC/SC as the framework of macOS has it.
struct AppleForm {
  using Number = std::uint32_t;
  using Result = std::int32_t;
  using Context = std::int32_t;
#pragma pack(push, 1)
  struct ReaderState {
    const char* reader;
    void* userData;
    Number currentState;
    Number eventState;
    Number atrLength;
    unsigned char atr[kLongestAtr];
  };
#pragma pack(pop)
};
static_assert(sizeof(AppleForm::ReaderState) == 2 * sizeof(void*) + 3 * sizeof(std::uint32_t) + kLongestAtr);

// Codes, the same in their lower 32 bits everywhere.
inline constexpr std::uint32_t kSuccess = 0;
inline constexpr std::uint32_t kTimeout = 0x8010000A;
inline constexpr std::uint32_t kInsufficientBuffer = 0x80100008;
inline constexpr std::uint32_t kUnknownReader = 0x80100009;
inline constexpr std::uint32_t kReaderUnavailable = 0x80100017;
inline constexpr std::uint32_t kNoReaders = 0x8010002E;

// Bits of a reader's state.
inline constexpr std::uint32_t kStateEmpty = 0x10;
inline constexpr std::uint32_t kStatePresent = 0x20;
inline constexpr std::uint32_t kStateExclusive = 0x80;
inline constexpr std::uint32_t kStateInUse = 0x100;
inline constexpr std::uint32_t kStateMute = 0x200;
inline constexpr std::uint32_t kStateChanged = 0x2;
inline constexpr std::uint32_t kStateUnknown = 0x4;
inline constexpr unsigned kChangesShift = 16;  // above it stands how often cards came and went

[[nodiscard]] inline std::string answerOf(const char* function, std::uint32_t code) {
  struct Name {
    std::uint32_t code;
    const char* name;
  };
  constexpr Name kNames[] = {
      {0x80100001, "SCARD_F_INTERNAL_ERROR"},
      {0x80100006, "SCARD_E_NO_MEMORY"},
      {kInsufficientBuffer, "SCARD_E_INSUFFICIENT_BUFFER"},
      {0x80100013, "SCARD_F_COMM_ERROR"},
      {0x8010001D, "SCARD_E_NO_SERVICE"},
      {0x8010001E, "SCARD_E_SERVICE_STOPPED"},
      {0x80100027, "SCARD_E_NO_ACCESS"},
      {0x8010006A, "SCARD_W_SECURITY_VIOLATION"},
  };
  std::string text = std::string{function} + " answered ";
  const auto* found =
      std::find_if(std::begin(kNames), std::end(kNames), [&](const Name& row) { return row.code == code; });
  const std::string number = "0x" + hexOfNumber(code, HexDigits::kUpper);
  return found == std::end(kNames) ? text + number : text + found->name + " (" + number + ")";
}

/// The names in a list of `size` bytes, each with a zero behind it; what is not ended by one is left out.
[[nodiscard]] inline std::vector<std::string> namesIn(const char* list, std::size_t size) {
  std::vector<std::string> names;
  const char* end = list + size;
  while (list < end && names.size() < kMostReaders) {
    const auto* zero = static_cast<const char*>(std::memchr(list, 0, static_cast<std::size_t>(end - list)));
    if (!zero || zero == list) break;
    names.emplace_back(list, zero);
    list = zero + 1;
  }
  return names;
}

template <typename Form>
class View {
 public:
  using Number = typename Form::Number;
  using Context = typename Form::Context;
  using ReaderState = typename Form::ReaderState;

  /// One look, with a connection of its own.
  [[nodiscard]] static CardServiceView of(const std::string& library) {
    View view;
    Context context{};
    if (CardServiceView failed; !view.open(library, failed) || !view.connect(context, failed)) return failed;
    CardServiceView seen = view.readersIn(context, nullptr);
    view.disconnect(context);
    return seen;
  }

  /// Opens the library and leaves it open: it may have threads of its own. `outFailed`: what is told where
  /// there is no whole one.
  [[nodiscard]] bool open(const std::string& library, CardServiceView& outFailed) {
    using enum CardServiceView::State;
    void* opened = dlopen(library.c_str(), RTLD_NOW);
    if (!opened) {
      const char* text = dlerror();
      outFailed = {kNotThere, text ? text : library + " cannot be opened", {}};
      return false;
    }
    const bool whole = find(opened, "SCardEstablishContext", establish_) &&
                       find(opened, "SCardReleaseContext", release_) &&
                       find(opened, "SCardListReaders", list_) &&
                       find(opened, "SCardGetStatusChange", status_) && find(opened, "SCardCancel", cancel_);
    if (!whole) outFailed = {kNotThere, library + " is no whole PC/SC library", {}};
    return whole;
  }

  // After `open`.

  [[nodiscard]] bool connect(Context& outContext, CardServiceView& outFailed) const {
    constexpr Number kScopeSystem = 2;
    const auto code = codeOf(establish_(kScopeSystem, nullptr, nullptr, &outContext));
    if (code != kSuccess)
      outFailed = {CardServiceView::State::kSilent, answerOf("SCardEstablishContext", code), {}};
    return code == kSuccess;
  }
  void disconnect(Context context) const { (void)release_(context); }

  /// `outStates`: the state of each reader as the service has given it; may be null.
  [[nodiscard]] CardServiceView readersIn(Context context, std::vector<Number>* outStates) const {
    using enum CardServiceView::State;
    std::vector<char> list;
    // A reader that is plugged in between the two calls makes the list longer.
    for (int i = 0; i < 3; ++i) {
      Number length = 0;
      auto code = codeOf(list_(context, nullptr, nullptr, &length));
      if (code == kSuccess && length > kLargestReaderList)
        return {kSilent, "SCardListReaders names " + std::to_string(length) + " bytes of readers", {}};
      if (code == kSuccess) {
        list.assign(length, '\0');
        code = length == 0 ? kNoReaders : codeOf(list_(context, nullptr, list.data(), &length));
        if (code == kSuccess) list.resize(std::min<std::size_t>(length, list.size()));
      }
      if (code == kNoReaders) return {kAnswers, {}, {}};
      if (code == kSuccess)
        return {kAnswers, {}, statesOf(context, namesIn(list.data(), list.size()), outStates)};
      if (code != kInsufficientBuffer) return {kSilent, answerOf("SCardListReaders", code), {}};
    }
    return {kSilent, answerOf("SCardListReaders", kInsufficientBuffer), {}};
  }

  /// Waits until a reader is in another state than is given for it, and returns the code.
  [[nodiscard]] std::uint32_t wait(Context context, Number milliseconds,
                                   std::vector<ReaderState>& ioStates) const {
    return codeOf(status_(context, milliseconds, ioStates.data(), static_cast<Number>(ioStates.size())));
  }
  /// Ends that in another thread.
  void cancel(Context context) const { (void)cancel_(context); }

 private:
  using Result = typename Form::Result;
  using Establish = Result (*)(Number scope, const void*, const void*, Context* outContext);
  using Release = Result (*)(Context context);
  using List = Result (*)(Context context, const char* groups, char* outReaders, Number* ioLength);
  using Status = Result (*)(Context context, Number timeout, ReaderState* ioStates, Number count);
  using Cancel = Result (*)(Context context);

  template <typename Function>
  [[nodiscard]] static bool find(void* library, const char* name, Function& outFunction) {
    outFunction = reinterpret_cast<Function>(dlsym(library, name));
    return outFunction != nullptr;
  }

  [[nodiscard]] static std::uint32_t codeOf(Result result) noexcept {
    return static_cast<std::uint32_t>(result);
  }

  [[nodiscard]] std::vector<ServiceReader> statesOf(Context context, const std::vector<std::string>& names,
                                                    std::vector<Number>* outStates) const {
    std::vector<ServiceReader> readers;
    // One by one: a reader that has gone would spoil the answer for all.
    for (const std::string& name : names) {
      ReaderState state{};
      state.reader = name.c_str();
      const auto code = codeOf(status_(context, 0, &state, 1));
      if (outStates) outStates->push_back(state.eventState);
      readers.push_back(code == kSuccess || code == kTimeout ? readerOf(name, state) : ServiceReader{name});
    }
    return readers;
  }

  [[nodiscard]] static ServiceReader readerOf(const std::string& name, const ReaderState& state) {
    const auto has = [&](std::uint32_t bit) { return (state.eventState & bit) != 0; };
    ServiceReader reader{name};
    using enum ServiceReader::Card;
    reader.card = has(kStateMute)      ? kMute
                  : has(kStatePresent) ? kPresent
                  : has(kStateEmpty)   ? kNone
                                       : kUnknown;
    reader.exclusive = has(kStateExclusive);
    reader.inUse = has(kStateInUse);
    reader.changes = static_cast<std::uint32_t>(state.eventState) >> kChangesShift;
    const std::size_t length = state.atrLength;
    if (reader.card == kPresent && length <= kLongestAtr)
      reader.atr = hexOfBytes({state.atr, length}, HexDigits::kUpper);
    return reader;
  }

  Establish establish_ = nullptr;
  Release release_ = nullptr;
  List list_ = nullptr;
  Status status_ = nullptr;
  Cancel cancel_ = nullptr;
};

}  // namespace mirel::pcsc
