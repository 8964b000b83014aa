/// A PC/SC library that answers what the environment says; without MIREL_PCSC_READERS as where no service
/// runs. In the form of pcsc-lite, or with MIREL_PCSC_APPLE in that of macOS.
///
///   MIREL_PCSC_READERS    "Reader A=22:3B6500;Reader B=10": the readers, ";" between them, each with the
///   bits
///                         of its state and the ATR of its card, in hexadecimal digits. Empty: there are
///                         none.
///   MIREL_PCSC_FILE       a file with such a text, read anew each time; a call that finds none ends all
///                         connections, as a service that was stopped.
///   MIREL_PCSC_NO_COMING  set: the name that stands for readers that come and go is not known.
///   MIREL_PCSC_LENGTH     the length that SCardListReaders reports, decimal, whatever it wrote.
///   MIREL_PCSC_ATR        the length that is reported of every ATR, decimal, whatever was written.
///   MIREL_PCSC_HANGS      a function that does not come back.
///   MIREL_PCSC_GONE       set: readers have gone when they are asked for.
///   MIREL_PCSC_GONE_CODE  what is answered for a reader that has gone, hexadecimal; else that it is unknown.

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

#ifdef MIREL_PCSC_APPLE
using Number = std::uint32_t;
using Result = std::int32_t;
#pragma pack(push, 1)
#else
using Number = unsigned long;
using Result = long;
#endif
struct ReaderState {
  const char* reader;
  void* userData;
  Number currentState;
  Number eventState;
  Number atrLength;
  unsigned char atr[33];
};
#ifdef MIREL_PCSC_APPLE
#pragma pack(pop)
#endif
using Context = Result;

constexpr Context kContext = 77;
constexpr const char* kComingReaders = "\\\\?PnP?\\Notification";
constexpr std::uint32_t kStateChanged = 2;
constexpr std::uint32_t kCancelled = 0x80100002;
constexpr std::uint32_t kTimeout = 0x8010000A;
constexpr std::uint32_t kServiceStopped = 0x8010001E;
constexpr std::uint32_t kNoService = 0x8010001D;
constexpr std::uint32_t kInvalidHandle = 0x80100003;
constexpr std::uint32_t kInsufficientBuffer = 0x80100008;
constexpr std::uint32_t kUnknownReader = 0x80100009;
constexpr std::uint32_t kNoReaders = 0x8010002E;

Result answer(std::uint32_t code) { return static_cast<Result>(code); }

struct Reader {
  std::string name;
  unsigned long state = 0;
  std::string atr;
};

bool connected = false;
std::atomic<bool> cancelled{false};

/// What there is to be told; nothing where the service does not run.
std::optional<std::string> told() {
  const char* name = std::getenv("MIREL_PCSC_FILE");
  const char* variable = std::getenv("MIREL_PCSC_READERS");
  if (!name) return variable ? std::optional<std::string>{variable} : std::nullopt;
  std::ifstream file{name};
  if (!file) return std::nullopt;
  return std::string{std::istreambuf_iterator<char>{file}, {}};
}

/// Whether a call with that context gets no further, for that code.
std::optional<std::uint32_t> refused(Context context) {
  connected = connected && told();
  if (context != kContext) return kInvalidHandle;
  return connected ? std::nullopt : std::optional{kServiceStopped};
}

std::vector<Reader> readers() {
  std::vector<Reader> all;
  std::istringstream rows{told().value_or("")};
  for (std::string row; std::getline(rows, row, ';');) {
    const std::size_t equals = row.find('=');
    const std::size_t colon = row.find(':');
    Reader reader{row.substr(0, equals), std::stoul(row.substr(equals + 1), nullptr, 16), {}};
    for (std::size_t at = colon; at != std::string::npos && at + 2 < row.size(); at += 2)
      reader.atr.push_back(static_cast<char>(std::stoul(row.substr(at + 1, 2), nullptr, 16)));
    all.push_back(reader);
  }
  return all;
}

/// The state of the reader behind that name, and its ATR.
std::optional<Reader> readerNamed(const char* name) {
  if (std::getenv("MIREL_PCSC_GONE")) return std::nullopt;
  const std::vector<Reader> all = readers();
  if (std::strcmp(name, kComingReaders) == 0 && !std::getenv("MIREL_PCSC_NO_COMING"))
    return Reader{name, static_cast<unsigned long>(all.size()) << 16U, {}};
  for (const Reader& reader : all) {
    if (reader.name == name) return reader;
  }
  return std::nullopt;
}

void mayHang(const char* function) {
  const char* hanging = std::getenv("MIREL_PCSC_HANGS");
  while (hanging && std::string{hanging} == function) (void)pause();
}

}  // namespace

#define MIREL_EXPORT extern "C" __attribute__((visibility("default")))

MIREL_EXPORT Result SCardEstablishContext(Number scope, const void*, const void*, Context* out) {
  mayHang("SCardEstablishContext");
  if (scope != 2 || !told()) return answer(kNoService);
  connected = true;
  *out = kContext;
  return 0;
}

MIREL_EXPORT Result SCardReleaseContext(Context context) {
  return context == kContext ? 0 : answer(kInvalidHandle);
}

MIREL_EXPORT Result SCardListReaders(Context context, const char*, char* out, Number* ioLength) {
  mayHang("SCardListReaders");
  if (const auto code = refused(context)) return answer(*code);
  std::string list;
  for (const Reader& reader : readers()) list.append(reader.name).push_back('\0');
  if (list.empty()) return answer(kNoReaders);
  list.push_back('\0');
  const Number room = *ioLength;
  const char* claimed = std::getenv("MIREL_PCSC_LENGTH");
  *ioLength = static_cast<Number>(claimed ? std::stoul(claimed) : list.size());
  if (!out) return 0;
  if (room < list.size()) {
    std::memcpy(out, list.data(), room);
    return claimed ? 0 : answer(kInsufficientBuffer);
  }
  std::memcpy(out, list.data(), list.size());
  return 0;
}

MIREL_EXPORT Result SCardGetStatusChange(Context context, Number timeout, ReaderState* ioStates,
                                         Number count) {
  mayHang("SCardGetStatusChange");
  // A look is at one reader, of which nothing is known.
  if (timeout == 0 && (count != 1 || ioStates->currentState != 0)) return answer(kInsufficientBuffer);
  cancelled = false;
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds{timeout};
  while (true) {
    if (const auto code = refused(context)) return answer(*code);
    bool changed = false;
    for (Number i = 0; i < count; ++i) {
      const auto reader = readerNamed(ioStates[i].reader);
      const char* code = std::getenv("MIREL_PCSC_GONE_CODE");
      if (!reader)
        return answer(code ? static_cast<std::uint32_t>(std::stoul(code, nullptr, 16)) : kUnknownReader);
      ioStates[i].eventState = static_cast<Number>(reader->state);
      if (reader->state != ioStates[i].currentState) {
        ioStates[i].eventState |= kStateChanged;
        changed = true;
      }
      std::memcpy(ioStates[i].atr, reader->atr.data(), reader->atr.size());
      const char* claimed = std::getenv("MIREL_PCSC_ATR");
      ioStates[i].atrLength = static_cast<Number>(claimed ? std::stoul(claimed) : reader->atr.size());
    }
    if (changed) return 0;
    if (cancelled) return answer(kCancelled);
    if (std::chrono::steady_clock::now() >= end) return answer(kTimeout);
    std::this_thread::sleep_for(std::chrono::milliseconds{2});
  }
}

MIREL_EXPORT Result SCardCancel(Context context) {
  mayHang("SCardCancel");
  if (context != kContext) return answer(kInvalidHandle);
  cancelled = true;
  return 0;
}
