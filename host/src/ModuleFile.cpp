#include "host/ModuleFile.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <utility>
#include <vector>

#include "LibraryHeader.h"
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

/// As many bytes as can be had from the start of the file, at most what is looked at.
std::vector<std::uint8_t> startOf(const std::string& file) {
  std::vector<std::uint8_t> start(kLibraryHeaderSize);
  std::ifstream in{file, std::ios::binary};
  in.read(reinterpret_cast<char*>(start.data()), static_cast<std::streamsize>(start.size()));
  start.resize(static_cast<std::size_t>(in.gcount()));
  return start;
}

Failure refusal(const std::string& name, const std::string& why, const Advice& advice) {
  return {FailureKind::kModuleNotLoadable, "the PKCS #11 module " + printableLine(name) + " is not loaded",
          why, advice};
}

}  // namespace

Result<void> chooseModule(PlatformServices& services, const ModuleChoice& choice) {
  if (choice.path && services.user->homeOf(services.user->loginName()).empty())
    services.user = userWithHome(services.user, kNoHome);
  const std::string home = services.user->homeOf(services.user->loginName());
  if (home.empty()) return {};  // The host tells.
  const std::string place = moduleInHome(home);
  const std::string name = choice.path.value_or(place);
  const auto traced = traceFile(name);
  struct stat status {};
  if (!traced) {
    const int error = stat(name.c_str(), &status) == 0 ? ENOENT : errno;
    services.loader = std::make_shared<LoaderWithoutModule>(
        services.loader, place, name + ": cannot open shared object file: " + std::strerror(error));
    return {};
  }
  const std::string& file = traced->path;

  // Not opened for that: to open a pipe can wait for ever.
  if (stat(file.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
    return refusal(name, kindOf(status.st_mode),
                   choice.path ? UserStep::kCheckModulePath : UserStep::kInstallOrNameModule);
  if (traced->exposure && !choice.trusted)
    return refusal(name, *traced->exposure, UserStep::kRestrictOrTrustModule);
  if (const auto fits = checkTarget(startOf(file), ownImageStart()); !fits)
    return refusal(name, fits.failure().why, fits.failure().advice);
  services.loader = std::make_shared<LoaderWithModule>(services.loader, place, file, name);
  return {};
}

}  // namespace mirel
