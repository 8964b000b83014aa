#include "Progress.h"

#include <algorithm>
#include <utility>

#include "TextWidth.h"
#include "platform/Log.h"

namespace mirel::cli {
namespace {

constexpr std::chrono::seconds kPatience{2};
constexpr std::chrono::milliseconds kPause{200};  // between two lines
constexpr std::size_t kMostColumns = 79;          // of a line, which must not go on in the next one

void write(int descriptor, const std::string& text) {
  (void)!::write(descriptor, text.data(), text.size());  // there is nowhere else to tell it
}

}  // namespace

Progress::Progress(std::string_view what, bool wanted, int descriptor, std::function<Clock::time_point()> now)
    : what_{what},
      wanted_{wanted && isatty(descriptor) != 0},
      descriptor_{descriptor},
      now_{std::move(now)},
      next_{now_() + kPatience} {}

Progress::~Progress() { clear(); }

void Progress::doneBytes(std::uint64_t done, std::optional<std::uint64_t> all) {
  if (!isDue()) return;
  constexpr std::uint64_t kMegabyte = 1'000'000;
  if (all && *all > 0) {
    const auto percent = static_cast<int>(100.0 * static_cast<double>(done) / static_cast<double>(*all));
    show(std::to_string(std::min(percent, 100)) + " %");
  } else {
    show(std::to_string(done / kMegabyte) + " MB");
  }
}

void Progress::doneSteps(std::size_t done, std::string_view next) {
  if (!isDue()) return;
  show(std::to_string(done) + " done, next " + std::string{next});
}

void Progress::clear() {
  if (width_ == 0) return;
  write(descriptor_, std::string{"\r"}.append(width_, ' ').append("\r"));
  width_ = 0;
}

bool Progress::isDue() {
  if (!wanted_) return false;
  const auto now = now_();
  if (now < next_) return false;
  next_ = now + kPause;
  return true;
}

void Progress::show(const std::string& state) {
  std::string line{firstColumns(printableLine(what_ + ": " + state), kMostColumns)};
  const std::size_t width = columnsOf(line);
  if (width < width_) line.append(width_ - width, ' ');  // over the rest of the last one
  write(descriptor_, "\r" + line);
  width_ = width;
}

}  // namespace mirel::cli
