#include "Recordings.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <span>
#include <utility>

#include "Files.h"
#include "Output.h"
#include "RecorderPage.h"
#include "ReplacedList.h"
#include "Version.h"
#include "WorkerPage.h"
#include "platform/Log.h"
#include "platform/PlatformServices.h"
#include "platform/UserDirectory.h"
#include "recording/AnonymousRecording.h"
#include "recording/CallText.h"
#include "recording/Recorder.h"
#include "recording/RecordingFile.h"

namespace mirel::cli {
namespace {

using recording::ReadRecording;
using recording::Record;
using recording::RecordedCall;
using recording::RecordedEnd;
using recording::RecordedModule;
using recording::Recording;

constexpr mode_t kOwnerOnly = 0600;

Failure fileFailure(const std::string& name, const char* what, int error) {
  return {FailureKind::kFileFailure, printableLine(name) + " cannot be " + what, std::strerror(error),
          "check the path, its rights and the space left there"};
}

recording::Header headerOf(const Options& options) {
  recording::Header header;
  header.program = programVersion();
  header.command = options.words;
  header.started =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
          .count();
  if (options.modulePath) header.module = std::filesystem::path{*options.modulePath}.filename().string();
  return header;
}

/// A line for each call, on standard error.
class CallLines final : public recording::RecordSink {
 public:
  void note(const Record& record) noexcept override {
    const auto* call = std::get_if<RecordedCall>(&record);
    if (!call) return;
    const std::string subject = subjectText(*call);
    std::array<char, 32> time{};
    (void)std::snprintf(time.data(), time.size(), "%.3f ms", static_cast<double>(call->microseconds) / 1000);
    writeMessage(call->function + (subject.empty() ? "" : " (" + subject + ")") + ": " +
                 recording::resultText(call->result) + ", " + time.data());
  }
};

RecordedModule recordedOf(const std::optional<ModuleFacts>& facts) {
  if (!facts) return {};
  const auto otherTarget = facts->otherTarget ? std::optional{facts->otherTarget->why} : std::nullopt;
  return {facts->name, facts->path, facts->error, facts->noFile, facts->exposure, facts->target, otherTarget};
}

std::vector<std::string> namesOfUser() {
  std::vector<std::string> names;
  for (const auto& directory : {systemServices().user, systemUserDirectory()}) {
    names.push_back(directory->loginName());
    names.push_back(std::filesystem::path{directory->homeOf(names.back())}.filename().string());
  }
  std::erase(names, std::string{});
  return names;
}

/// What is stored of a recording.
Recording forStorage(Recording recorded, const Options& options) {
  if (!options.anonymous) return recorded;
  recording::AnonymousRecording anonymous = recording::anonymousRecording(recorded, namesOfUser());
  tellReplaced(*options.recordTo, anonymous.pseudonyms);
  return std::move(anonymous.recording);
}

Failure withoutOption(Failure failure) {
  failure.advice = "check the name of the recording";
  return failure;
}

Result<std::string> contentOf(const std::string& file) {
  auto input = FileInput::open(file, false);
  if (!input) return withoutOption(input.failure());
  std::string content;
  std::vector<std::uint8_t> piece(std::size_t{1} << 16U);
  while (true) {
    const auto count = (*input)->read(piece);
    if (!count) return withoutOption(count.failure());
    if (*count == 0) return content;
    content.append(piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(*count));
    if (content.size() > recording::kLargestRecording)
      return Failure{FailureKind::kBadInput, printableLine(file) + " is no recording", "it is too large",
                     "give a file that mireltoken has written with --trace or record"};
  }
}

/// The file of a recording that is under way: it has no name, so that nothing is left of it whatever happens.
/// `target`: where it goes at the end; its folder has the space for it, unless it is a special file.
int openNameless(const std::string& target) {
  std::error_code error;
  const std::filesystem::path folder = isSpecialFile(target) ? std::filesystem::temp_directory_path(error)
                                                             : std::filesystem::path{target}.parent_path();
  std::string name = (folder / (std::string{kTemporaryFilePrefix} + "XXXXXX")).string();
  const int descriptor = mkstemp(name.data());
  if (descriptor < 0) return -1;
  (void)fcntl(descriptor, F_SETFD, FD_CLOEXEC);
  (void)unlink(name.c_str());
  return descriptor;
}

}  // namespace

/// Gets lines, for as long as they can be written.
class RunRecorder::LineFile final : public recording::RecordSink {
 public:
  /// `page`: what both processes know of the file.
  LineFile(int descriptor, std::string name, RecorderPage::File file, std::shared_ptr<RecorderPage> page)
      : descriptor_{descriptor}, name_{std::move(name)}, file_{file}, page_{std::move(page)} {}
  ~LineFile() override { (void)close(descriptor_); }

  void note(const Record& record) noexcept override { write(lineOf(record)); }

  /// Nothing behind a line that could not be written, or not whole, in either process.
  void write(std::string_view line) noexcept {
    if (page_->isWriting(file_)) return;
    page_->setWriting(file_, true);
    while (!line.empty()) {
      const ssize_t count = ::write(descriptor_, line.data(), line.size());
      if (count > 0) line.remove_prefix(static_cast<std::size_t>(count));
      if (count < 0 && errno != EINTR) return page_->setError(file_, errno);
    }
    page_->setWriting(file_, false);
  }

  [[nodiscard]] Result<void> checkWritten() const {
    if (const int error = page_->error(file_); error != 0) return fileFailure(name_, "written", error);
    return {};
  }

  [[nodiscard]] const std::string& name() const noexcept { return name_; }

  [[nodiscard]] std::string content() const {
    std::string text;
    std::vector<char> piece(std::size_t{1} << 16U);
    while (text.size() <= recording::kLargestRecording) {
      const ssize_t count = pread(descriptor_, piece.data(), piece.size(), static_cast<off_t>(text.size()));
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) break;
      text.append(piece.data(), static_cast<std::size_t>(count));
    }
    return text;
  }

 private:
  int descriptor_;
  std::string name_;
  RecorderPage::File file_;
  std::shared_ptr<RecorderPage> page_;
};

Result<LoadedRecording> loadRecording(const std::string& file) {
  const auto content = contentOf(file);
  if (!content) return content.failure();
  ReadRecording read = recording::readRecording(*content);
  if (!read.recording) {
    return Failure{FailureKind::kBadInput, printableLine(file) + " is no recording",
                   printableLine(read.refusal),
                   "give a file that mireltoken has written with --trace or record"};
  }
  return LoadedRecording{std::move(*read.recording), read.isCutOff};
}

RunRecorder::RunRecorder(const Options& options) : options_{options} {}

RunRecorder::~RunRecorder() = default;

Result<std::unique_ptr<RunRecorder>> RunRecorder::open(const Options& options) {
  std::unique_ptr<RunRecorder> recorder{new RunRecorder{options}};
  if (options.trace || options.recordTo) recorder->page_ = std::make_shared<RecorderPage>();
  const std::string header = lineOf(headerOf(options));
  if (options.trace) {
    const int descriptor = ::open(options.trace->c_str(),
                                  O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC | O_NOCTTY, kOwnerOnly);
    if (descriptor < 0) return fileFailure(*options.trace, "written", errno);
    recorder->trace_ =
        std::make_shared<LineFile>(descriptor, *options.trace, RecorderPage::File::kTrace, recorder->page_);
    struct stat status {};
    // A file that was there may have been for others, too.
    if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) && fchmod(descriptor, kOwnerOnly) != 0)
      return fileFailure(*options.trace, "kept from others", errno);
    recorder->trace_->write(header);
  }
  if (options.recordTo) {
    if (const auto writable = checkWriting(options.recordTo); !writable) return writable.failure();
    const int descriptor = openNameless(*options.recordTo);
    if (descriptor < 0) return fileFailure(*options.recordTo, "written", errno);
    recorder->recording_ = std::make_shared<LineFile>(descriptor, *options.recordTo,
                                                      RecorderPage::File::kRecording, recorder->page_);
    recorder->recording_->write(header);
  }
  return recorder;
}

void RunRecorder::record(PlatformServices& services, ModuleChoice& choice) {
  std::vector<std::shared_ptr<recording::RecordSink>> sinks;
  if (page_) sinks.push_back(page_);
  if (trace_) sinks.push_back(trace_);
  if (recording_) sinks.push_back(recording_);
  if (options_.verbose > 1) sinks.push_back(std::make_shared<CallLines>());
  if (sinks.empty()) return;
  choice.onFacts = [note = recording::recordInto(std::move(sinks), services),
                    before = choice.onFacts](std::optional<ModuleFacts> found) {
    if (before) found = before(std::move(found));
    note(recordedOf(found));
    return found;
  };
}

Result<void> RunRecorder::checkWritten() const { return trace_ ? trace_->checkWritten() : Result<void>{}; }

void RunRecorder::workerEnded(const WorkerEnd& end) {
  if (!page_) return;
  noteEnd(end);
  if (end.how.kind != recording::BadEnd::Kind::kInterrupted) return;
  if (const auto stored = store(); !stored) {
    (void)report(stored.failure());
    return;
  }
  std::string names;
  for (const auto& file : {trace_, recording_}) {
    if (file && file->checkWritten()) names += (names.empty() ? "" : " and ") + file->name();
  }
  if (names.empty()) return;
  writeMessage("mireltoken: interrupted by " + end.how.signal + "; what was recorded until then is in " +
               names);
}

void RunRecorder::noteEnd(const WorkerEnd& end) {
  end_ = RecordedEnd{end.how, end.call == kLoading, std::nullopt};
  // Its name is noted a little before the call is made, and stays until a little after it has come back.
  const bool hung = end.how.kind == recording::BadEnd::Kind::kHung;
  if (end.call.starts_with("C_") && (page_->isCallUnderWay() || hung)) {
    end_->call = page_->callUnderWay(end.call);
    if (!end_->call) end_->call = RecordedCall{.function = end.call};
  }
  if (hung && !end_->call && !end_->whileLoading) end_.reset();  // the name was overwritten
  if (!trace_ || !end_) return;
  trace_->note(*end_);
  if (const auto written = trace_->checkWritten(); !written) (void)report(written.failure());
}

Result<void> RunRecorder::store() const {
  if (!recording_) return {};
  if (auto written = recording_->checkWritten(); !written) return written;
  // The worker may have been overrun by a module that writes anywhere.
  ReadRecording read = recording::readRecording(recording_->content());
  if (!read.recording) {
    return Failure{FailureKind::kFileFailure, printableLine(*options_.recordTo) + " was not written",
                   "what was recorded is damaged: " + printableLine(read.refusal),
                   "run with --trace, which keeps what there is"};
  }
  if (end_) read.recording->records.emplace_back(*end_);
  const std::string text = textOf(forStorage(std::move(*read.recording), options_));
  return writeFile(options_.recordTo, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()},
                   kOwnerOnly);
}

}  // namespace mirel::cli
