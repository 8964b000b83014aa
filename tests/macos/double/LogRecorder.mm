#import "LogRecorder.h"

#import <os/log.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string_view>

#import "Switches.h"
#import "Utf8.h"

struct os_log_s {
  int unused;
};
os_log_s _os_log_default;

namespace mirel::test {
namespace {

std::mutex recordMutex;
bool isRecording = false;
std::vector<LogLine>& record() {
  static std::vector<LogLine> lines;
  return lines;
}

void addLine(LogLine line) {
  const std::lock_guard lock{recordMutex};
  if (isRecording) record().push_back(std::move(line));
}

/// NSLog's message has the date, the process and a line end around the text.
void recordNSLog(NSString* message) {
  std::string text = utf8Of(message);
  if (const auto end = text.find("] "); end != std::string::npos) text.erase(0, end + 2);
  if (text.ends_with('\n')) text.pop_back();
  addLine({LogChannel::kNSLog, text, text});
}

LogChannel channelOf(os_log_type_t type) {
  switch (type) {
    case OS_LOG_TYPE_INFO: return LogChannel::kInfo;
    case OS_LOG_TYPE_DEBUG: return LogChannel::kDebug;
    case OS_LOG_TYPE_ERROR: return LogChannel::kError;
    case OS_LOG_TYPE_FAULT: return LogChannel::kFault;
    default: return LogChannel::kDefault;
  }
}

const char* nameOf(LogChannel channel) {
  switch (channel) {
    case LogChannel::kDefault: return "default: ";
    case LogChannel::kInfo: return "info: ";
    case LogChannel::kDebug: return "debug: ";
    case LogChannel::kError: return "error: ";
    case LogChannel::kFault: return "fault: ";
    case LogChannel::kNSLog: break;
  }
  return "NSLog: ";
}

/// The part of `format` up to the first character that is not one of `characters`, which is taken off.
std::string take(std::string_view& format, std::string_view characters) {
  const auto length = std::min(format.find_first_not_of(characters), format.size());
  const std::string taken{format.substr(0, length)};
  format.remove_prefix(length);
  return taken;
}

template <typename Value>
std::string printed(const std::string& conversion, Value value) {
  const int size = std::snprintf(nullptr, 0, conversion.c_str(), value);
  std::string text(static_cast<std::size_t>(std::max(size, 0)) + 1, '\0');
  (void)std::snprintf(text.data(), text.size(), conversion.c_str(), value);
  text.pop_back();
  return text;
}

std::string hex(const unsigned char* bytes, int size) {
  std::string text;
  for (int i = 0; i < size; ++i) text += printed("%02X", static_cast<unsigned>(bytes[i]));
  return text;
}

/// One conversion of an os_log format, taken off its front.
struct Conversion {
  explicit Conversion(std::string_view& format) {
    if (format.starts_with('{')) {
      privacy = format.substr(0, format.find('}') + 1);
      format.remove_prefix(privacy.size());
    }
    layout = "%" + take(format, "-+ #0123456789.*");
    length = take(format, "hljztqL");
    kind = format.empty() ? '\0' : format.front();
    if (!format.empty()) format.remove_prefix(1);
  }

  [[nodiscard]] bool isText() const { return kind == 's' || kind == '@' || kind == 'P'; }
  [[nodiscard]] bool isHidden() const {
    if (privacy.find("private") != std::string_view::npos) return true;
    if (privacy.find("sensitive") != std::string_view::npos) return true;
    return isText() && privacy.find("public") == std::string_view::npos;
  }

  /// Fills in a width or precision that is an argument.
  int fillStar(int value) {
    layout.replace(layout.find('*'), 1, std::to_string(value));
    return value;
  }

  std::string_view privacy;
  std::string layout;
  std::string length;
  char kind;
};

[[noreturn]] void refuse(const char* format) {
  (void)std::fprintf(stderr, "os_log: the recorder cannot read the format \"%s\"\n", format);
  std::abort();
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

std::vector<LogLine> LogRecorder::lines() const {
  const std::lock_guard lock{recordMutex};
  return record();
}

std::vector<std::string> LogRecorder::texts() const {
  std::vector<std::string> texts;
  for (const LogLine& line : lines()) texts.push_back(nameOf(line.channel) + line.text);
  return texts;
}

void LogRecorder::clear() {
  const std::lock_guard lock{recordMutex};
  record().clear();
}

}  // namespace mirel::test

using namespace mirel::test;

os_log_t os_log_create(const char*, const char*) {
  static os_log_s log;
  return &log;
}

bool os_log_type_enabled(os_log_t, os_log_type_t type) {
  return type != OS_LOG_TYPE_DEFAULT || !switches().defaultLevelOff;
}

void _os_log_double(os_log_t, os_log_type_t type, const char* format, ...) {
  LogLine line{channelOf(type), {}, {}};
  va_list arguments;
  va_start(arguments, format);
  for (std::string_view rest{format}; !rest.empty();) {
    std::string text{rest.substr(0, rest.find('%'))};
    rest.remove_prefix(text.size());
    bool isHidden = false;
    if (text.empty() && rest.starts_with("%%")) {
      text = "%";
      rest.remove_prefix(2);
    } else if (text.empty()) {
      rest.remove_prefix(1);
      Conversion conversion{rest};
      isHidden = conversion.isHidden();
      int star = 0;
      while (conversion.layout.find('*') != std::string::npos)
        star = conversion.fillStar(va_arg(arguments, int));
      const bool isLong = conversion.length.find_first_of("ljztq") != std::string::npos;
      const std::string number = conversion.layout + conversion.length + conversion.kind;
      switch (conversion.kind) {
        case 'd':
        case 'i':
        case 'u':
        case 'x':
        case 'X':
        case 'o':
          text = isLong ? printed(number, va_arg(arguments, long)) : printed(number, va_arg(arguments, int));
          break;
        case 'c': text = printed(number, va_arg(arguments, int)); break;
        case 'f':
        case 'g':
        case 'e': text = printed(number, va_arg(arguments, double)); break;
        case 'p': text = printed(number, va_arg(arguments, void*)); break;
        case 's': {
          const char* const chars = va_arg(arguments, const char*);
          text = printed(number, chars ? chars : "(null)");
          break;
        }
        case 'P': text = hex(va_arg(arguments, const unsigned char*), star); break;
        case '@': {
          @autoreleasepool {
            const id object = va_arg(arguments, id);
            text = object ? utf8Of(object) : "(null)";
          }
          break;
        }
        default: refuse(format);
      }
    }
    line.text += text;
    line.shown += isHidden ? "<private>" : text;
  }
  va_end(arguments);
  addLine(std::move(line));
}
