#include "CommandLineLog.h"

namespace mirel::cli {
namespace {

class CommandLineLog final : public Log {
 public:
  CommandLineLog(std::shared_ptr<Log> next, bool verbose) : next_{std::move(next)}, verbose_{verbose} {}

  void systemDefault(std::string_view line) noexcept override {
    next_->systemDefault(line);
    process(line);
  }
  void systemError(std::string_view line) noexcept override {
    next_->systemError(line);
    process(line);
  }
  void process(std::string_view line) noexcept override {
    if (verbose_) next_->process(line);
  }

 private:
  std::shared_ptr<Log> next_;
  bool verbose_;
};

}  // namespace

std::shared_ptr<Log> commandLineLog(std::shared_ptr<Log> systemLog, bool verbose) {
  return std::make_shared<CommandLineLog>(std::move(systemLog), verbose);
}

}  // namespace mirel::cli
