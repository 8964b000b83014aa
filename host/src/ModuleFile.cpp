#include "host/ModuleFile.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <utility>
#include <vector>

#include "LibraryHeader.h"
#include "ModuleFacts.h"
#include "ModuleTrust.h"
#include "host/Home.h"
#include "platform/DynamicLoader.h"
#include "platform/Log.h"
#include "platform/UserDirectory.h"

namespace mirel {
namespace {

/// Stands for the home of a user who has none, in the log alone.
constexpr const char* kNoHome = "/nonexistent";

/// Opens `file` where `place` is asked for.
class LoaderWithModule final : public DynamicLoader {
 public:
  LoaderWithModule(std::shared_ptr<DynamicLoader> next, std::string place, std::string file, std::string name)
      : next_{std::move(next)}, place_{std::move(place)}, file_{std::move(file)}, name_{std::move(name)} {}

  void* open(const char* path) noexcept override {
    return next_->open(path == place_ ? file_.c_str() : path);
  }
  void* symbol(void* library, const char* name) noexcept override { return next_->symbol(library, name); }
  bool close(void* library) noexcept override { return next_->close(library); }

  /// The loader's text with the module's path as the user knows it.
  std::string errorText() noexcept override {
    std::string text = next_->errorText();
    for (std::size_t at = text.find(file_); at != std::string::npos; at = text.find(file_, at + name_.size()))
      text.replace(at, file_.size(), name_);
    return text;
  }

 private:
  std::shared_ptr<DynamicLoader> next_;
  std::string place_;
  std::string file_;
  std::string name_;
};

/// Opens nothing where `place` is asked for: a file that appears there later was not looked at.
class LoaderWithoutModule final : public DynamicLoader {
 public:
  LoaderWithoutModule(std::shared_ptr<DynamicLoader> next, std::string place, std::string why)
      : next_{std::move(next)}, place_{std::move(place)}, why_{std::move(why)} {}

  void* open(const char* path) noexcept override {
    refused_ = path == place_;
    return refused_ ? nullptr : next_->open(path);
  }
  void* symbol(void* library, const char* name) noexcept override { return next_->symbol(library, name); }
  bool close(void* library) noexcept override { return next_->close(library); }
  std::string errorText() noexcept override { return refused_ ? why_ : next_->errorText(); }

 private:
  std::shared_ptr<DynamicLoader> next_;
  std::string place_;
  std::string why_;
  bool refused_ = false;
};

/// What the file is, where it is no regular one.
const char* kindOf(mode_t mode) noexcept {
  if (S_ISDIR(mode)) return "it is a folder";
  if (S_ISFIFO(mode)) return "it is a pipe";
  if (S_ISSOCK(mode)) return "it is a socket";
  return "it is a device";
}

/// As many bytes as can be had from the start of the file, at most what is looked at. `outError`: an errno
/// where the file cannot be opened; else untouched.
std::vector<std::uint8_t> startOf(const std::string& file, int& outError) {
  std::vector<std::uint8_t> start(kLibraryHeaderSize);
  errno = 0;
  std::ifstream in{file, std::ios::binary};
  if (!in.is_open()) outError = errno != 0 ? errno : EIO;
  in.read(reinterpret_cast<char*>(start.data()), static_cast<std::streamsize>(start.size()));
  start.resize(static_cast<std::size_t>(in.gcount()));
  return start;
}

/// Nothing where the file is whole, as far as it tells.
std::string lackOf(const std::string& file, std::span<const std::uint8_t> start, off_t size) {
  const auto read = [&](std::uint64_t at, std::span<std::uint8_t> room) {
    std::ifstream in{file, std::ios::binary};
    in.seekg(static_cast<std::streamoff>(at));
    in.read(reinterpret_cast<char*>(room.data()), static_cast<std::streamsize>(room.size()));
    return in.good();
  };
  if (!isCutOff(start, static_cast<std::uint64_t>(size), read)) return {};
  return "it is cut off: only " + std::to_string(size) + " bytes of it are there";
}

Failure refusal(const std::string& name, const std::string& why, const Advice& advice) {
  return {FailureKind::kModuleNotLoadable, "the PKCS #11 module " + printableLine(name) + " is not loaded",
          why, advice};
}

std::optional<ModuleFacts> foundFacts(const PlatformServices& services, const ModuleChoice& choice) {
  std::string home = services.user->homeOf(services.user->loginName());
  if (home.empty() && choice.path) home = kNoHome;
  if (home.empty()) return std::nullopt;
  ModuleFacts facts{moduleInHome(home), choice.path.value_or(moduleInHome(home))};
  const auto traced = traceFile(facts.name);
  struct stat status {};
  if (!traced) {
    facts.error = stat(facts.name.c_str(), &status) == 0 ? ENOENT : errno;
    return facts;
  }
  facts.path = traced->path;
  facts.exposure = traced->exposure;
  // Not opened for that: to open a pipe can wait for ever.
  const bool hasStatus = stat(facts.path.c_str(), &status) == 0;
  if (hasStatus && !S_ISREG(status.st_mode)) {
    facts.noFile = kindOf(status.st_mode);
    return facts;
  }
  const std::vector<std::uint8_t> start = startOf(facts.path, facts.error);
  if (facts.error != 0) return facts;
  facts.target = namesOf(targetsOf(start));
  if (facts.target.empty()) facts.noFile = start.empty() ? "it is empty" : "it is no library";
  if (const auto fits = checkTarget(start, ownImageStart()); !fits) facts.otherTarget = fits.failure();
  if (hasStatus && !facts.target.empty() && !facts.otherTarget)
    facts.noFile = lackOf(facts.path, start, status.st_size);
  return facts;
}

}  // namespace

std::optional<ModuleFacts> factsOfModule(const PlatformServices& services, const ModuleChoice& choice) {
  auto facts = foundFacts(services, choice);
  return choice.onFacts ? choice.onFacts(std::move(facts)) : facts;
}

Result<void> chooseModule(PlatformServices& services, const ModuleChoice& choice) {
  if (choice.path && services.user->homeOf(services.user->loginName()).empty())
    services.user = userWithHome(services.user, kNoHome);
  const auto facts = factsOfModule(services, choice);
  if (!facts) return {};  // The host tells.
  const std::string& name = facts->name;
  if (facts->path.empty()) {
    services.loader = std::make_shared<LoaderWithoutModule>(
        services.loader, facts->place,
        name + ": cannot open shared object file: " + std::strerror(facts->error));
    return {};
  }
  if (!facts->noFile.empty() && !facts->target.empty())
    return refusal(name, facts->noFile, "copy or install it again");
  if (!facts->noFile.empty())
    return refusal(name, facts->noFile,
                   choice.path ? UserStep::kCheckModulePath : UserStep::kInstallOrNameModule);
  if (facts->error != 0)
    return refusal(name, std::string{"it cannot be read: "} + std::strerror(facts->error),
                   "get the right to read the file from whoever installed it");
  if (facts->exposure && !choice.trusted)
    return refusal(name, *facts->exposure, UserStep::kRestrictOrTrustModule);
  if (facts->otherTarget) return refusal(name, facts->otherTarget->why, facts->otherTarget->advice);
  services.loader = std::make_shared<LoaderWithModule>(services.loader, facts->place, facts->path, name);
  return {};
}

}  // namespace mirel
