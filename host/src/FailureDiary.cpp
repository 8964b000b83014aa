#include "FailureDiary.h"

#include <algorithm>
#include <array>

#include "CodeMeaning.h"
#include "bridge/BridgeOperation.h"
#include "bridge/CardRules.h"
#include "bridge/cryptoki.h"

namespace mirel {
namespace {

constexpr CryptokiFunction kReadsAttribute{"C_GetAttributeValue"};
constexpr std::array<CryptokiFunction, 3> kReads{kReadsAttribute, CryptokiFunction{"C_FindObjectsInit"},
                                                 CryptokiFunction{"C_FindObjects"}};

class LoaderWithDiary final : public DynamicLoader {
 public:
  LoaderWithDiary(std::shared_ptr<DynamicLoader> next, std::shared_ptr<FailureDiary> diary)
      : next_{std::move(next)}, diary_{std::move(diary)} {}

  void* open(const char* path) noexcept override {
    void* library = next_->open(path);
    if (!library) note(path);
    return library;
  }
  void* symbol(void* library, const char* name) noexcept override {
    void* address = next_->symbol(library, name);
    if (!address) note(name);
    return address;
  }
  bool close(void* library) noexcept override { return next_->close(library); }
  std::string errorText() noexcept override { return next_->errorText(); }

 private:
  void note(const char* subject) {
    const std::string text = next_->errorText();
    diary_->loaderFailed(text.empty() ? std::string{subject} + ": not found" : text);
  }

  std::shared_ptr<DynamicLoader> next_;
  std::shared_ptr<FailureDiary> diary_;
};

}  // namespace

bool isFailedRead(std::string_view function, std::uint64_t result) noexcept {
  const bool reads =
      std::any_of(kReads.begin(), kReads.end(), [&](CryptokiFunction one) { return one.name() == function; });
  const bool saysNo = result == CKR_ATTRIBUTE_TYPE_INVALID || result == CKR_ATTRIBUTE_SENSITIVE;
  const bool answers = result == CKR_OK || (saysNo && function == kReadsAttribute.name());
  return reads && !answers;
}

FailureDiary::Page& FailureDiary::page() const noexcept {
  const std::lock_guard lock{mutex_};
  return pages_[std::this_thread::get_id()];
}

void FailureDiary::callStarts(const char* function) noexcept {
  if (next_) next_->callStarts(function);
}

void FailureDiary::callReturned(const char* function, std::uint64_t result) noexcept {
  Page& mine = page();
  mine.lastAnswers[function] = result;
  if (result != CKR_OK) mine.failingCalls.push_back({function, result});
  if (!mine.failedRead && isFailedRead(function, result)) mine.failedRead = Entry{function, result};
  if (next_) next_->callReturned(function, result);
}

void FailureDiary::operationReturned(BridgeOperation operation, std::uint64_t result) noexcept {
  Page& mine = page();
  mine.lastResults[operation] = result;
  // Without memory no call is made that could fail.
  if (result == CKR_HOST_MEMORY && mine.failingCalls.empty() && !mine.failedRead)
    mine.failedRead = Entry{operationName(operation), result};
  // A module that another host of it has initialised is as good as one that we have.
  if (result == CKR_OK || result == CKR_CRYPTOKI_ALREADY_INITIALIZED) {
    mine.operation.reset();
    mine.call.reset();
  } else if (!mine.operation) {
    mine.operation = Entry{operationName(operation), result};
    // A slot that cannot be read is passed over in the search, which then finds none.
    const bool passedOver = result == CKR_SLOT_ID_INVALID && operation == BridgeOperation::pkcs11_FindSlot;
    // The first call with that code: what fails after it, in cleaning up, is no cause.
    const auto cause =
        std::find_if(mine.failingCalls.begin(), mine.failingCalls.end(), [&](const Entry& failed) {
          return passedOver || result == failed.result || result == (failed.result | kRereadFailed);
        });
    if (cause != mine.failingCalls.end()) mine.call = *cause;
  }
  mine.failingCalls.clear();
  if (next_) next_->operationReturned(operation, result);
}

void FailureDiary::clear() noexcept { page() = Page{}; }

std::optional<std::uint64_t> FailureDiary::lastResultOf(CryptokiFunction function) const {
  const Page& mine = page();
  const auto found = mine.lastAnswers.find(function.name());
  return found == mine.lastAnswers.end() ? std::nullopt : std::optional{found->second};
}

std::optional<std::uint64_t> FailureDiary::lastResultOf(BridgeOperation operation) const {
  const Page& mine = page();
  const auto found = mine.lastResults.find(operation);
  return found == mine.lastResults.end() ? std::nullopt : std::optional{found->second};
}

std::optional<FailureDiary::Entry> FailureDiary::cause() const {
  const Page& mine = page();
  if (mine.call) return mine.call;
  if (!mine.operation && !mine.failingCalls.empty()) return mine.failingCalls.front();
  return mine.operation;
}

std::optional<std::string> FailureDiary::reason() const {
  const auto blamed = cause();
  return blamed ? std::optional{answerText(*blamed)} : page().loaderText;
}

std::shared_ptr<DynamicLoader> loaderWithDiary(std::shared_ptr<DynamicLoader> next,
                                               std::shared_ptr<FailureDiary> diary) {
  return std::make_shared<LoaderWithDiary>(std::move(next), std::move(diary));
}

}  // namespace mirel
