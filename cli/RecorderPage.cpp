#include "RecorderPage.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <new>
#include <string>
#include <utility>
#include <variant>

#include "WorkerPage.h"
#include "recording/RecordingFile.h"

namespace mirel::cli {

using recording::RecordedCall;

struct RecorderPage::Page {
  static constexpr std::size_t kMost = std::size_t{1024} * 1024;  // bytes, as of a line
  struct FileState {
    std::atomic<bool> isWriting{false};
    std::atomic<int> error{0};
  };
  std::array<FileState, 2> files;
  std::atomic<bool> isUnderWay{false};
  std::atomic<std::uint32_t> size{0};  // 0: the call is too long
  std::array<char, kMost> text;        // as the system gives it, so it costs nothing until it is used
};

RecorderPage::RecorderPage() {
  void* const memory = sharedMemory(sizeof(Page));
  if (!memory) throw std::bad_alloc{};
  page_ = new (memory) Page;
}

void RecorderPage::callStarts(const RecordedCall& call) noexcept {
  const std::string text = lineOf(recording::Record{call});
  page_->size = 0;
  page_->isUnderWay = true;
  if (text.size() > Page::kMost) return;
  std::copy(text.begin(), text.end(), page_->text.begin());
  page_->size = static_cast<std::uint32_t>(text.size());
}

void RecorderPage::note(const recording::Record& record) noexcept {
  if (std::holds_alternative<RecordedCall>(record)) page_->isUnderWay = false;
}

void RecorderPage::setWriting(File file, bool now) noexcept {
  page_->files[static_cast<std::size_t>(file)].isWriting = now;
}

bool RecorderPage::isWriting(File file) const noexcept {
  return page_->files[static_cast<std::size_t>(file)].isWriting;
}

void RecorderPage::setError(File file, int error) noexcept {
  page_->files[static_cast<std::size_t>(file)].error = error;
}

int RecorderPage::error(File file) const noexcept {
  return page_->files[static_cast<std::size_t>(file)].error;
}

bool RecorderPage::isCallUnderWay() const noexcept { return page_->isUnderWay; }

std::optional<RecordedCall> RecorderPage::callUnderWay(std::string_view function) const {
  const std::uint32_t size = isCallUnderWay() ? page_->size.load() : 0;
  if (size == 0 || size > Page::kMost) return std::nullopt;
  const auto read =
      recording::readRecording(lineOf(recording::Header{}) + std::string{page_->text.data(), size});
  if (!read.recording || read.recording->records.size() != 1) return std::nullopt;
  const auto* call = std::get_if<RecordedCall>(&read.recording->records.front());
  if (!call || call->function != function) return std::nullopt;
  return *call;
}

}  // namespace mirel::cli
