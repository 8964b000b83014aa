#pragma once

#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "host/Doctor.h"
#include "platform/Log.h"
#include "platform/PlatformServices.h"

namespace mirel::cli {

/// Keeps the log lines, and hands them on.
class KeptLog final : public Log {
 public:
  explicit KeptLog(std::shared_ptr<Log> next) : next_{std::move(next)} {}

  void systemDefault(std::string_view line) noexcept override;
  void systemError(std::string_view line) noexcept override;
  void process(std::string_view line) noexcept override;

  /// No line is kept from now on: those of a use of a key show what was signed.
  void stop() noexcept;

  [[nodiscard]] std::vector<std::string> lines() const;
  [[nodiscard]] bool wasStopped() const;

 private:
  void keep(std::string_view line);

  std::shared_ptr<Log> next_;
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  bool wasStopped_ = false;
};

/// What a bundle tells.
struct BundleParts {
  std::string versions;  ///< as --version prints them
  std::string date;      ///< UTC
  const Diagnosis& diagnosis;
  const std::vector<nlohmann::ordered_json>& cards;  ///< what `items --json` prints of each
  const std::vector<std::string>& log;               ///< its lines
  bool logWasStopped;                                ///< at a login
  bool isOfRecording = false;  ///< a recording answered: the module is not on this system
};

/// All that support needs, as one text for people. It holds no PIN and no data of a key's use. `anonymous`:
/// with pseudonyms for names and numbers of people, cards and folders; `services` tell the user's.
[[nodiscard]] std::string bundleOf(const BundleParts& parts, const PlatformServices& services,
                                   bool anonymous);

}  // namespace mirel::cli
