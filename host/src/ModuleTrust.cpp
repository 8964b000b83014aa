#include "ModuleTrust.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>

#include "platform/Log.h"

namespace mirel {
namespace {

namespace fs = std::filesystem;

constexpr int kMostLinks = 40;  // as many as the kernel follows

std::string nameOf(uid_t user) {
  const passwd* entry = getpwuid(user);
  return entry && entry->pw_name ? printableLine(entry->pw_name) : "user " + std::to_string(user);
}

std::string octal(mode_t mode) {
  std::array<char, 8> digits{};
  (void)std::snprintf(digits.data(), digits.size(), "%04o", static_cast<unsigned>(mode & 07777U));
  return digits.data();
}

bool isHarmlessGroup(gid_t id) {
  const group* entry = getgrgid(id);
  const passwd* user = getpwuid(geteuid());
  return entry && user && isHarmless(*entry, *user);
}

/// How somebody else may change what is there; nothing when nobody may.
std::optional<std::string> exposureOf(const fs::path& path, const struct stat& status) {
  const bool isFolder = S_ISDIR(status.st_mode);
  const bool isLink = S_ISLNK(status.st_mode);
  const bool ownedByOther = status.st_uid != geteuid() && status.st_uid != 0;
  const bool keepsOwners = isFolder && (status.st_mode & S_ISVTX) != 0;
  const bool writable = !isLink && !keepsOwners &&
                        ((status.st_mode & S_IWOTH) != 0 ||
                         ((status.st_mode & S_IWGRP) != 0 && !isHarmlessGroup(status.st_gid)));
  if (!ownedByOther && !writable) return std::nullopt;
  const std::string kind = isFolder ? "the folder " : isLink ? "the link " : "the file ";
  return "somebody else may change " + kind + printableLine(path.string()) + ", which belongs to " +
         nameOf(status.st_uid) + " and has mode " + octal(status.st_mode);
}

/// The way from the root folder to a file, step by step.
class Way {
 public:
  explicit Way(const fs::path& path) {
    append(path);
    start();
  }

  /// False when it leads nowhere.
  [[nodiscard]] bool follow() {
    while (found_ && !rest_.empty()) {
      const fs::path name = rest_.front();
      rest_.pop_front();
      step(name);
    }
    return found_;
  }

  [[nodiscard]] const fs::path& place() const { return place_; }
  [[nodiscard]] const std::optional<std::string>& exposure() const { return exposure_; }

 private:
  void append(const fs::path& path) {
    const fs::path relative = path.relative_path();
    rest_.insert(rest_.begin(), relative.begin(), relative.end());
  }

  void start() {
    place_ = "/";
    look(place_);
  }

  void step(const fs::path& name) {
    // As in "file/": what is no folder has nothing in it.
    if (!isFolder_) {
      found_ = false;
      return;
    }
    if (name.empty() || name == ".") return;
    if (name == "..") {
      place_ = place_.parent_path();
      return;
    }
    look(place_ / name);
    if (!found_ || !isLink_) {
      place_ /= name;
      return;
    }
    std::error_code error;
    const fs::path target = fs::read_symlink(place_ / name, error);
    if (error || ++links_ > kMostLinks) {
      found_ = false;
      return;
    }
    isFolder_ = true;  // the one that the link is in
    append(target);
    if (target.is_absolute()) start();
  }

  void look(const fs::path& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
      found_ = false;
      return;
    }
    isFolder_ = S_ISDIR(status.st_mode);
    isLink_ = S_ISLNK(status.st_mode);
    if (!exposure_) exposure_ = exposureOf(path, status);
  }

  std::deque<fs::path> rest_;
  fs::path place_;
  std::optional<std::string> exposure_;  // the first one
  bool found_ = true;
  bool isFolder_ = false;
  bool isLink_ = false;
  int links_ = 0;
};

}  // namespace

bool isHarmless(const group& entry, const passwd& user) noexcept {
  constexpr std::string_view kRoot = "root";
  constexpr std::string_view kAdministrators = "admin";
  constexpr gid_t kAdministratorsOfMacOS = 80;
  const std::string_view name{entry.gr_name};
  if (entry.gr_gid == kAdministratorsOfMacOS && name == kAdministrators) return true;
  const bool isOwn = entry.gr_gid == user.pw_gid && name == user.pw_name;
  if (entry.gr_gid != 0 && !isOwn) return false;
  for (char** member = entry.gr_mem; *member; ++member) {
    if (*member != kRoot && std::string_view{*member} != user.pw_name) return false;
  }
  return true;
}

std::optional<TracedFile> traceFile(const std::string& path) {
  std::error_code error;
  const fs::path absolute = fs::absolute(path, error);
  if (error || path.empty()) return std::nullopt;
  Way way{absolute};
  if (!way.follow()) return std::nullopt;
  return TracedFile{way.place().string(), way.exposure()};
}

}  // namespace mirel
