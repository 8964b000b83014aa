#include "WorkerPage.h"

#include <sys/mman.h>

#include <algorithm>
#include <cctype>
#include <new>
#include <string_view>
#include <utility>

#include "Wording.h"
#include "Worker.h"
#include "platform/Log.h"

namespace mirel::cli {
namespace {

using recording::BadEnd;

constexpr const char* kNothing = nullptr;  // of the calls

WorkerPage* page = nullptr;

/// What the work has come to: one of two texts, of which the other one is written. The texts stay as the
/// system gives them, so they cost nothing until they are used.
struct Results {
  static constexpr std::size_t kMost = std::size_t{512} * 1024;  // bytes
  std::atomic<std::uint32_t> last{0};                            // which of them
  std::array<std::atomic<std::uint32_t>, 2> sizes{};
  std::array<std::array<char, kMost>, 2> texts;
};

Results* results = nullptr;

/// As much of the name as there is room for.
template <std::size_t room>
void put(std::string_view name, std::array<std::atomic<char>, room>& out) noexcept {
  const std::size_t length = std::min(name.size(), room - 1);
  for (std::size_t i = 0; i < length; ++i) out[i] = name[i];
  out[length] = '\0';
}

/// Empty where it has no end or another character than `isPart` allows.
template <std::size_t room, typename IsPart>
std::string nameIn(const std::array<std::atomic<char>, room>& places, const IsPart& isPart) {
  std::string name;
  for (const std::atomic<char>& place : places) {
    const char letter = place;
    if (letter == '\0') return name;
    if (!isPart(letter)) break;
    name += letter;
  }
  return {};
}

bool isLetterOrDigit(char letter) { return std::isalnum(static_cast<unsigned char>(letter)) != 0; }

void noteCall(const char* name) noexcept {
  if (!page) return;
  put(name ? name : "", page->call);
  ++page->calls;
}

class CallNotes final : public CryptokiObserver {
 public:
  void callStarts(const char* function) noexcept override { noteCall(function); }
  void callReturned(const char*, std::uint64_t) noexcept override { noteCall(kNothing); }
  void operationReturned(BridgeOperation, std::uint64_t) noexcept override {}
};

class LoaderNotes final : public DynamicLoader {
 public:
  explicit LoaderNotes(std::shared_ptr<DynamicLoader> next) : next_{std::move(next)} {}

  void* open(const char* path) noexcept override {
    noteCall(kLoading);
    void* library = next_->open(path);
    noteCall(kNothing);
    return library;
  }
  void* symbol(void* library, const char* name) noexcept override { return next_->symbol(library, name); }
  bool close(void* library) noexcept override { return next_->close(library); }
  std::string errorText() noexcept override { return next_->errorText(); }

 private:
  std::shared_ptr<DynamicLoader> next_;
};

}  // namespace

std::string WorkerPage::callUnderWay() const {
  return nameIn(call, [](char letter) { return isLetterOrDigit(letter) || letter == '_'; });
}

void WorkerPage::noteReplayedEnd(const BadEnd& end) noexcept {
  put(end.signal, endSignal);
  endSeconds = end.seconds;
  endKind = static_cast<int>(end.kind);
}

std::optional<BadEnd> WorkerPage::replayedEnd() const {
  const auto kind = static_cast<BadEnd::Kind>(endKind.load());
  if (kind != BadEnd::Kind::kCrashed && kind != BadEnd::Kind::kExited && kind != BadEnd::Kind::kHung)
    return std::nullopt;
  return BadEnd{kind, nameIn(endSignal, [](char letter) { return isLetterOrDigit(letter) || letter == ' '; }),
                endSeconds};
}

std::optional<Failure> WorkerPage::notedFailure() const {
  const int kind = failureKind;
  if (kind < 0 || kind > static_cast<int>(FailureKind::kNotRecorded)) return std::nullopt;
  const auto textIn = [](const auto& places) {
    return printableLine(nameIn(places, [](char) { return true; }));
  };
  static std::string advice;  // an advice holds no text of its own
  advice = textIn(failureAdvice);
  return Failure{static_cast<FailureKind>(kind), textIn(failureWhat), textIn(failureWhy), advice.c_str()};
}

void* sharedMemory(std::size_t size) noexcept {
  void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? nullptr : memory;
}

bool makeWorkerPage(bool withResults) {
  void* memory = sharedMemory(sizeof(WorkerPage));
  if (!memory) return false;
  page = new (memory) WorkerPage;
  if (void* room = withResults ? sharedMemory(sizeof(Results)) : nullptr) results = new (room) Results;
  return true;
}

WorkerPage* workerPage() noexcept { return page; }

std::string notedResult() {
  if (!results) return {};
  const std::uint32_t last = results->last;
  if (last > 1) return {};
  const std::uint32_t size = results->sizes[last];
  return size > Results::kMost ? std::string{} : std::string{results->texts[last].data(), size};
}

// ---- For the worker ----

std::shared_ptr<CryptokiObserver> notingObserver() { return std::make_shared<CallNotes>(); }

std::shared_ptr<DynamicLoader> notingLoader(std::shared_ptr<DynamicLoader> next) {
  return std::make_shared<LoaderNotes>(std::move(next));
}

bool noteResult(std::string_view text) noexcept {
  if (!results || text.size() > Results::kMost) return false;
  const std::uint32_t next = results->last == 0 ? 1 : 0;
  std::copy(text.begin(), text.end(), results->texts[next].begin());
  results->sizes[next] = static_cast<std::uint32_t>(text.size());
  results->last = next;
  return true;
}

void noteFailure(const Failure& failure) noexcept {
  if (!page) return;
  page->failureKind = WorkerPage::kNoFailure;
  put(failure.what, page->failureWhat);
  put(failure.why, page->failureWhy);
  put(wordsOf(failure.advice), page->failureAdvice);
  page->failureKind = static_cast<int>(failure.kind);
}

void noteTerminal(const termios& settings) noexcept {
  if (!page) return;
  page->terminal = settings;
  page->terminalIsChanged = true;
}

void forgetTerminal() noexcept {
  if (page) page->terminalIsChanged = false;
}

NotedFile::NotedFile(const std::string& name) noexcept {
  if (!page || name.size() >= page->file.size()) return;
  std::copy_n(name.c_str(), name.size() + 1, page->file.begin());
  page->fileIsThere = true;
}

NotedFile::~NotedFile() {
  if (page) page->fileIsThere = false;
}

}  // namespace mirel::cli
