#import "LogRecorder.h"

#import <os/log.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string_view>

#import "RaisingCall.h"
#import "Utf8.h"

struct os_log_s {
  int unused;
};
os_log_s _os_log_default;

namespace mirel::test {
namespace {

std::mutex recordMutex;
bool isRecording = false;
std::vector<std::string>& record() {
  static std::vector<std::string> lines;
  return lines;
}

void addLine(std::string line) {
  const std::lock_guard lock{recordMutex};
  if (isRecording) record().push_back(std::move(line));
}

/// NSLog's message has the date, the process and a line end around the text.
void recordNSLog(NSString* message) {
  std::string text = utf8Of(message);
  if (const auto end = text.find("] "); end != std::string::npos) text.erase(0, end + 2);
  if (text.ends_with('\n')) text.pop_back();
  addLine("NSLog: " + text);
}

/// What a reader of the stored log sees: texts that are not marked public are hidden. The double knows no
/// other conversion than "%s".
std::string shownOf(std::string_view format, va_list arguments) {
  constexpr std::string_view kPublic = "%{public}s";
  constexpr std::string_view kHidden = "%s";
  std::string shown;
  while (!format.empty()) {
    const auto plain = std::min(format.find('%'), format.size());
    shown += format.substr(0, plain);
    format.remove_prefix(plain);
    if (format.empty()) break;
    const bool isPublic = format.starts_with(kPublic);
    if (!isPublic && !format.starts_with(kHidden)) {
      (void)std::fprintf(stderr, "os_log: the recorder cannot read \"%.*s\"\n",
                         static_cast<int>(format.size()), format.data());
      std::abort();
    }
    format.remove_prefix((isPublic ? kPublic : kHidden).size());
    const char* const text = va_arg(arguments, const char*);
    shown += isPublic ? (text ? text : "(null)") : "<private>";
  }
  return shown;
}

}  // namespace

LogRecorder::LogRecorder() {
  const std::lock_guard lock{recordMutex};
  if (isRecording) std::abort();
  isRecording = true;
  record().clear();
  _NSLog_printf_handler = recordNSLog;
}

LogRecorder::~LogRecorder() {
  const std::lock_guard lock{recordMutex};
  isRecording = false;
  _NSLog_printf_handler = nullptr;
  record() = {};
}

std::vector<std::string> LogRecorder::texts() const {
  const std::lock_guard lock{recordMutex};
  return record();
}

void LogRecorder::clear() {
  const std::lock_guard lock{recordMutex};
  record().clear();
}

}  // namespace mirel::test

using namespace mirel::test;

void NSLog(NSString* format, ...) {
  raiseIn("NSLog");
  va_list arguments;
  va_start(arguments, format);
  NSLogv(format, arguments);
  va_end(arguments);
}

NSString* NSUserName() {
  raiseIn("NSUserName");
  return @"alice";
}

void _os_log_double(os_log_t, os_log_type_t type, const char* format, ...) {
  raiseIn("os_log");
  va_list arguments;
  va_start(arguments, format);
  addLine((type == OS_LOG_TYPE_ERROR ? "error: " : "default: ") + shownOf(format, arguments));
  va_end(arguments);
}
