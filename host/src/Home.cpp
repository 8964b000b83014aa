#include "host/Home.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "platform/Log.h"

namespace mirel {
namespace {

namespace fs = std::filesystem;

constexpr const char* kModuleFolder = "Library/LunetLocalSignServer";
constexpr const char* kModuleName = "libTorvo_p11v1.dylib";

/// What a signal handler removes, in this order: the link, then the folders from the innermost out. Set
/// before the handler is.
std::array<std::string, 4> pathsToRemove;  // NOLINT(cert-err58-cpp)

extern "C" void removeAndEnd(int signal) {
  (void)unlink(pathsToRemove[0].c_str());
  for (std::size_t i = 1; i < pathsToRemove.size(); ++i) (void)rmdir(pathsToRemove[i].c_str());
  (void)std::signal(signal, SIG_DFL);
  (void)std::raise(signal);
}

class UserWithHome final : public UserDirectory {
 public:
  UserWithHome(std::shared_ptr<UserDirectory> user, std::string home)
      : user_{std::move(user)}, home_{std::move(home)} {}
  std::string loginName() noexcept override { return user_->loginName(); }
  std::string homeOf(const std::string&) noexcept override { return home_; }

 private:
  std::shared_ptr<UserDirectory> user_;
  std::string home_;
};

Failure notLoadable(const std::string& modulePath, const std::string& why) {
  return {FailureKind::kModuleNotLoadable,
          "the PKCS #11 module " + printableLine(modulePath) + " cannot be used", why,
          "check the path given with --module"};
}

}  // namespace

std::shared_ptr<UserDirectory> userWithHome(std::shared_ptr<UserDirectory> user, std::string home) {
  return std::make_shared<UserWithHome>(std::move(user), std::move(home));
}

std::string moduleInHome(const std::string& home) { return home + "/" + kModuleFolder + "/" + kModuleName; }

Outcome<std::unique_ptr<PrivateHome>> PrivateHome::create(const std::string& modulePath) {
  std::error_code error;
  const fs::path module = fs::canonical(modulePath, error);
  if (error) return notLoadable(modulePath, error.message());

  const fs::path temporary = fs::temp_directory_path(error);
  std::string folder = fs::absolute((error ? fs::path{"/tmp"} : temporary) / "mireltoken-XXXXXX", error);
  if (!mkdtemp(folder.data())) {
    return Failure{FailureKind::kInternal, "no temporary folder can be made as " + printableLine(folder),
                   std::strerror(errno), "check TMPDIR and the space left on the disk"};
  }
  std::unique_ptr<PrivateHome> home{new PrivateHome{folder}};
  const fs::path moduleFolder = fs::path{folder} / kModuleFolder;
  fs::create_directories(moduleFolder, error);
  if (!error) fs::create_symlink(module, moduleFolder / kModuleName, error);
  if (error) {
    return Failure{FailureKind::kInternal,
                   "the temporary folder " + printableLine(folder) + " cannot be filled", error.message(),
                   "check TMPDIR and the space left on the disk"};
  }
  return home;
}

void PrivateHome::removeOnSignals() const noexcept {
  const fs::path home{path_};
  const fs::path folder = home / kModuleFolder;
  pathsToRemove = {folder / kModuleName, folder, folder.parent_path(), home};
  for (const int signal : {SIGHUP, SIGINT, SIGTERM}) {
    struct sigaction action {};
    action.sa_handler = removeAndEnd;
    struct sigaction before {};
    // A signal that is ignored, as by nohup, stays so.
    if (sigaction(signal, nullptr, &before) == 0 && before.sa_handler != SIG_IGN) {
      (void)sigaction(signal, &action, nullptr);
    }
  }
}

PrivateHome::~PrivateHome() {
  std::error_code ignored;  // what is left behind is an empty folder and a link
  fs::remove_all(path_, ignored);
}

}  // namespace mirel
