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
  std::atomic<bool> isWriting{false};
  std::atomic<std::uint32_t> size{0};
  std::array<char, kMost> text;  // as the system gives it, so it costs nothing until it is used
};

RecorderPage::RecorderPage() : page_{nullptr} {
  if (void* memory = sharedMemory(sizeof(Page))) page_ = new (memory) Page;
}

void RecorderPage::callStarts(const RecordedCall& call) noexcept {
  if (!page_) return;
  const std::string text = lineOf(recording::Record{call});
  page_->size = 0;
  if (text.size() > Page::kMost) return;
  std::copy(text.begin(), text.end(), page_->text.begin());
  page_->size = static_cast<std::uint32_t>(text.size());
}

void RecorderPage::setWriting(bool now) noexcept {
  if (page_) page_->isWriting = now;
}

bool RecorderPage::isWriting() const noexcept { return page_ && page_->isWriting; }

std::optional<RecordedCall> RecorderPage::lastCallOf(std::string_view function) const {
  const std::uint32_t size = page_ ? page_->size.load() : 0;
  if (size == 0 || size > Page::kMost) return std::nullopt;
  const auto read =
      recording::readRecording(lineOf(recording::Header{}) + std::string{page_->text.data(), size});
  if (!read.recording || read.recording->records.size() != 1) return std::nullopt;
  const auto* call = std::get_if<RecordedCall>(&read.recording->records.front());
  if (!call || call->function != function) return std::nullopt;
  return *call;
}

}  // namespace mirel::cli
