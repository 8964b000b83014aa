#include "recording/Recorder.h"

#include <chrono>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "CallNote.h"
#include "ModuleFront.h"
#include "platform/CardService.h"
#include "platform/CryptokiObserver.h"
#include "platform/DynamicLoader.h"
#include "platform/TimeAndChance.h"

namespace mirel::recording {
namespace {

constexpr const char* kEntryPoint = "C_GetFunctionList";

/// Set by the observer of a road before each of its calls.
thread_local Road roadOfThread = Road::kToken;

/// What the loader said of its last failure in this thread.
thread_local std::string loaderErrorOfThread;

/// Tells all sinks, one record at a time.
class Notes {
 public:
  explicit Notes(std::vector<std::shared_ptr<RecordSink>> sinks) : sinks_{std::move(sinks)} {}

  void add(const Record& record) noexcept {
    const std::lock_guard lock{mutex_};
    for (const auto& sink : sinks_) sink->note(record);
  }

  void starts(const RecordedCall& call) noexcept {
    const std::lock_guard lock{mutex_};
    for (const auto& sink : sinks_) sink->callStarts(call);
  }

  [[nodiscard]] std::uint32_t thread() {
    const std::lock_guard lock{mutex_};
    return threads_.try_emplace(std::this_thread::get_id(), threads_.size() + 1).first->second;
  }

 private:
  std::mutex mutex_;
  std::vector<std::shared_ptr<RecordSink>> sinks_;
  std::map<std::thread::id, std::uint32_t> threads_;
};

/// Knows which road the calls of a thread are on.
class RoadObserver final : public CryptokiObserver {
 public:
  RoadObserver(Road road, std::shared_ptr<CryptokiObserver> next) : road_{road}, next_{std::move(next)} {}

  void callStarts(const char* function) noexcept override {
    roadOfThread = road_;
    if (next_) next_->callStarts(function);
  }
  void callReturned(const char* function, std::uint64_t result) noexcept override {
    if (next_) next_->callReturned(function, result);
  }
  void operationReturned(BridgeOperation operation, std::uint64_t result) noexcept override {
    if (next_) next_->operationReturned(operation, result);
  }

 private:
  Road road_;
  std::shared_ptr<CryptokiObserver> next_;
};

class RecordingFront final : public ModuleFront {
 public:
  explicit RecordingFront(std::shared_ptr<Notes> notes)
      : ModuleFront{Place::kRecorder}, notes_{std::move(notes)} {}

  void setModule(CK_C_GetFunctionList function) noexcept { module_ = function; }

  CK_RV getFunctionList(CK_FUNCTION_LIST** outList) noexcept override {
    RecordedCall call;
    call.function = kEntryPoint;
    CK_FUNCTION_LIST* list = nullptr;
    measure(call, [&] { return module_(&list); });
    if (call.result == CKR_OK && list) {
      List missing;
      for (std::string& name : missingIn(*list)) missing.push_back({std::move(name)});
      const Fields version{{"major", {std::uint64_t{list->version.major}}},
                           {"minor", {std::uint64_t{list->version.minor}}}};
      call.out = {{"version", {version}}, {"missing", {std::move(missing)}}};
      *outList = frontOf(*list);
    } else {
      call.out = {{"version", {NullPointer{}}}};
    }
    notes_->add(call);
    return call.result;
  }

  CK_RV called(const char* function, std::span<const Word> words, const Forward& module) noexcept override {
    const CallNote note{rowOf(function), words};
    RecordedCall call;
    call.function = function;
    call.in = note.in();
    measure(call, module);
    call.out = note.out(call.result, certificates_.isAbout(call.function, call.in));
    certificates_.learn(call);
    notes_->add(call);
    return call.result;
  }

 private:
  template <typename Call>
  void measure(RecordedCall& call, const Call& run) {
    using Clock = std::chrono::steady_clock;
    call.road = roadOfThread;
    call.thread = notes_->thread();
    notes_->starts(call);
    const auto start = Clock::now();
    call.result = run();
    const auto time = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);
    call.microseconds = static_cast<std::uint64_t>(time.count());
  }

  std::shared_ptr<Notes> notes_;
  CK_C_GetFunctionList module_ = nullptr;
  FoundCertificates certificates_;  // calls come one at a time
};

class RecordingLoader final : public DynamicLoader {
 public:
  RecordingLoader(std::shared_ptr<DynamicLoader> next, std::shared_ptr<Notes> notes)
      : next_{std::move(next)}, notes_{std::move(notes)}, front_{notes_} {}

  void* open(const char* path) noexcept override {
    void* library = next_->open(path);
    note("library", library != nullptr);
    return library;
  }
  void* symbol(void* library, const char* name) noexcept override {
    void* address = next_->symbol(library, name);
    note(name, address != nullptr);
    if (!address || std::string_view{name} != kEntryPoint) return address;
    front_.setModule(reinterpret_cast<CK_C_GetFunctionList>(address));
    return reinterpret_cast<void*>(front_.entryPoint());
  }
  bool close(void* library) noexcept override { return next_->close(library); }
  std::string errorText() noexcept override { return std::exchange(loaderErrorOfThread, {}); }

 private:
  void note(const char* subject, bool succeeded) {
    RecordedLoading loading{subject, std::nullopt};
    if (!succeeded) {
      loaderErrorOfThread = next_->errorText();
      loading.error = loaderErrorOfThread;
    }
    notes_->add(loading);
  }

  std::shared_ptr<DynamicLoader> next_;
  std::shared_ptr<Notes> notes_;
  RecordingFront front_;
};

class RecordingChance final : public TimeAndChance {
 public:
  RecordingChance(std::shared_ptr<TimeAndChance> next, std::shared_ptr<Notes> notes)
      : next_{std::move(next)}, notes_{std::move(notes)} {}

  std::chrono::system_clock::time_point date() noexcept override {
    const auto time = std::chrono::floor<std::chrono::seconds>(next_->date());
    notes_->add(RecordedTime{RecordedTime::Clock::kDate, std::int64_t{time.time_since_epoch().count()}});
    return time;
  }
  std::chrono::steady_clock::time_point clock() noexcept override {
    const auto time = std::chrono::floor<std::chrono::microseconds>(next_->clock());
    notes_->add(RecordedTime{RecordedTime::Clock::kSteady, std::int64_t{time.time_since_epoch().count()}});
    return time;
  }
  bool drawSalt(std::span<std::uint8_t> out) noexcept override {
    if (!next_->drawSalt(out)) return false;
    notes_->add(RecordedSalt{{out.begin(), out.end()}});
    return true;
  }
  bool drawTrialText(std::span<std::uint8_t> out) noexcept override { return next_->drawTrialText(out); }

 private:
  std::shared_ptr<TimeAndChance> next_;
  std::shared_ptr<Notes> notes_;
};

class RecordingCardService final : public CardService {
 public:
  RecordingCardService(std::shared_ptr<CardService> next, std::shared_ptr<Notes> notes)
      : next_{std::move(next)}, notes_{std::move(notes)} {}

  CardServiceView look() noexcept override {
    RecordedView seen{next_->look()};
    notes_->add(seen);
    return std::move(seen.view);
  }
  // What is followed beside a run, for a card that leaves, is no part of it.
  std::unique_ptr<CardServiceWatch> watch() noexcept override { return next_->watch(); }

 private:
  std::shared_ptr<CardService> next_;
  std::shared_ptr<Notes> notes_;
};

}  // namespace

ModuleNotes recordInto(std::vector<std::shared_ptr<RecordSink>> sinks, PlatformServices& services) {
  const auto notes = std::make_shared<Notes>(std::move(sinks));
  services.loader = std::make_shared<RecordingLoader>(services.loader, notes);
  services.observer = std::make_shared<RoadObserver>(Road::kToken, services.observer);
  services.inspectionObserver = std::make_shared<RoadObserver>(Road::kHost, services.inspectionObserver);
  services.timeAndChance = std::make_shared<RecordingChance>(givenOrSystem(services.timeAndChance), notes);
  if (services.cardService)
    services.cardService = std::make_shared<RecordingCardService>(services.cardService, notes);
  return [notes](const RecordedModule& module) { notes->add(module); };
}

}  // namespace mirel::recording
