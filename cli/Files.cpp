#include "Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <vector>

#include "Output.h"
#include "Worker.h"

namespace mirel::cli {
namespace {

constexpr const char* kStandardStream = "-";

bool isStandardStream(const std::optional<std::string>& name) { return !name || *name == kStandardStream; }

Failure readFailure(const std::string& name, int error) {
  return {FailureKind::kFileFailure, name + " cannot be read", std::strerror(error),
          "check the name given with --in"};
}

Failure writeFailure(const std::string& name, int error) {
  return {FailureKind::kFileFailure, name + " cannot be written", std::strerror(error),
          "check where it goes and the space left there"};
}

/// Whether the file that is there may be replaced; so it is when there is none. Its mode counts for root as
/// well, who would not be kept from writing: it says what its owner wants.
Result<void> checkReplacing(const std::string& name, const std::string& target) {
  struct stat there {};
  const bool isThere = stat(target.c_str(), &there) == 0;
  if (!isThere && errno == ELOOP) return writeFailure(name, errno);
  // One that was not followed.
  if (std::error_code error; std::filesystem::is_symlink(target, error)) return writeFailure(name, EACCES);
  if (!isThere) return {};
  const bool ownersModeCounts = geteuid() == 0 || there.st_uid == geteuid();
  if (ownersModeCounts && (there.st_mode & S_IWUSR) == 0) {
    return Failure{FailureKind::kFileFailure, name + " cannot be written",
                   "its mode does not let it be written", "run: chmod u+w on it, or name another file"};
  }
  if (access(target.c_str(), W_OK) != 0) return writeFailure(name, errno);
  return {};
}

/// Closes, keeping errno when something went wrong before.
bool finish(int descriptor, bool good) {
  const int error = errno;
  const bool closed = close(descriptor) == 0;
  if (!good) errno = error;
  return good && closed;
}

std::filesystem::path folderOf(const std::string& name) {
  const auto folder = std::filesystem::path{name}.parent_path();
  return folder.empty() ? std::filesystem::path{"."} : folder;
}

/// Whether the system would follow the link to open it. In a folder where everybody may make links but only
/// their owners remove them, those of others lead where these want.
bool isTrustedLink(const std::filesystem::path& link) {
  constexpr mode_t kShared = S_ISVTX | S_IWOTH;
  struct stat itself {};
  struct stat folder {};
  if (lstat(link.c_str(), &itself) != 0 || stat(folderOf(link.string()).c_str(), &folder) != 0) return false;
  return (folder.st_mode & kShared) != kShared || itself.st_uid == geteuid() ||
         itself.st_uid == folder.st_uid;
}

/// The file behind a link, which need not be there; the name itself when it is no link, or one that is not to
/// be followed.
std::filesystem::path targetOf(std::filesystem::path name) {
  constexpr int kMostLinks = 40;  // as many as the kernel follows
  std::error_code error;
  for (int i = 0; i < kMostLinks && std::filesystem::is_symlink(name, error); ++i) {
    const auto folder = std::filesystem::canonical(folderOf(name.string()), error);
    // Links to open files lead to names that only tell what the file is.
    if (error || folder.string().starts_with("/proc/") || !isTrustedLink(name)) break;
    name = folder / std::filesystem::read_symlink(name, error);
  }
  return name;
}

/// The descriptor that a name such as /dev/stdout or /dev/fd/3 stands for.
std::optional<int> openFileBehind(const std::string& name) {
  std::error_code error;
  const std::filesystem::path target = targetOf(name);
  const auto folder = std::filesystem::canonical(folderOf(target.string()), error);
  // Linux has links there; elsewhere the folder is itself.
  if (error || (folder != "/proc/" + std::to_string(getpid()) + "/fd" && folder != "/dev/fd"))
    return std::nullopt;
  const std::string digits = target.filename().string();
  int descriptor = 0;
  const auto [rest, problem] = std::from_chars(digits.data(), digits.data() + digits.size(), descriptor);
  if (problem != std::errc{} || rest != digits.data() + digits.size()) return std::nullopt;
  return descriptor;
}

Result<void> writeInPlace(const std::string& name, std::span<const std::uint8_t> data) {
  // To open it again would begin at its start and forget that it is to be appended to.
  if (const auto descriptor = openFileBehind(name)) {
    return writeAll(*descriptor, data) ? Result<void>{} : writeFailure(name, errno);
  }
  const int descriptor = open(name.c_str(), O_WRONLY | O_CLOEXEC);
  if (descriptor < 0) return writeFailure(name, errno);
  if (!finish(descriptor, writeAll(descriptor, data))) return writeFailure(name, errno);
  return {};
}

/// Asked for once, early: while it is looked at, it is 0 for all threads.
mode_t processMask() {
  static const mode_t kMask = [] {
    const mode_t mask = umask(0);
    umask(mask);
    return mask;
  }();
  return kMask;
}

/// Puts off the signals that end the process, so that none leaves a temporary file behind.
class UndisturbedBySignals {
 public:
  UndisturbedBySignals() {
    sigset_t ending;
    sigemptyset(&ending);
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGALRM, SIGXCPU}) sigaddset(&ending, signal);
    (void)pthread_sigmask(SIG_BLOCK, &ending, &before_);
  }
  UndisturbedBySignals(const UndisturbedBySignals&) = delete;
  UndisturbedBySignals& operator=(const UndisturbedBySignals&) = delete;
  ~UndisturbedBySignals() { (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_{};
};

/// The mode of a file that takes the place of the one at `target`, or of none.
mode_t modeFor(const std::string& target, int newFile, mode_t mode) {
  struct stat there {};
  if (stat(target.c_str(), &there) != 0) return mode & ~processMask();
  // Somebody else's file may have been put there for its mode, which gives nothing that is not given anyway.
  if (there.st_uid != geteuid()) return mode & ~processMask() & there.st_mode;
  const mode_t withExecution = mode | ((mode & (S_IRUSR | S_IRGRP | S_IROTH)) >> 2U);
  mode_t kept = there.st_mode & withExecution;
  // What the group may do is meant for that group.
  struct stat made {};
  const bool sameGroup = fstat(newFile, &made) == 0 && made.st_gid == there.st_gid;
  if (!sameGroup && fchown(newFile, static_cast<uid_t>(-1), there.st_gid) != 0) kept &= ~mode_t{S_IRWXG};
  return kept;
}

Result<void> replaceFile(const std::string& name, std::span<const std::uint8_t> data, mode_t mode) {
  const UndisturbedBySignals undisturbed;
  const std::string target = targetOf(name).string();
  if (auto replaceable = checkReplacing(name, target); !replaceable) return replaceable;
  // What is there already must not be lost to a crash before the new content has reached the disk.
  const bool replaces = access(target.c_str(), F_OK) == 0;
  const std::string pattern =
      (folderOf(target) / std::string{kTemporaryFilePrefix}.append("XXXXXX")).string();
  std::vector<char> temporary{pattern.begin(), pattern.end()};
  temporary.push_back('\0');
  const int descriptor = mkostemp(temporary.data(), O_CLOEXEC);
  if (descriptor < 0) return writeFailure(name, errno);
  const NotedFile noted{temporary.data()};
  const bool whole = fchmod(descriptor, modeFor(target, descriptor, mode)) == 0 &&
                     writeAll(descriptor, data) && (!replaces || fsync(descriptor) == 0);
  if (finish(descriptor, whole) && std::rename(temporary.data(), target.c_str()) == 0) return {};
  const int error = errno;
  (void)unlink(temporary.data());
  return writeFailure(name, error);
}

}  // namespace

FileInput::FileInput(int descriptor, std::string name, bool showsProgress)
    : descriptor_{descriptor},
      name_{std::move(name)},
      showsProgress_{showsProgress && isatty(descriptor) == 0} {
  struct stat status {};
  const off_t start = lseek(descriptor, 0, SEEK_CUR);
  if (start >= 0 && fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > start)
    size_ = static_cast<std::uint64_t>(status.st_size - start);
}

Result<std::unique_ptr<FileInput>> FileInput::open(const std::optional<std::string>& name,
                                                   bool showsProgress) {
  if (isStandardStream(name))
    return std::unique_ptr<FileInput>{new FileInput{STDIN_FILENO, "standard input", showsProgress}};
  const int descriptor = ::open(name->c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return readFailure(*name, errno);
  return std::unique_ptr<FileInput>{new FileInput{descriptor, *name, showsProgress}};
}

FileInput::~FileInput() {
  if (descriptor_ != STDIN_FILENO) (void)close(descriptor_);
}

Result<std::size_t> FileInput::read(std::span<std::uint8_t> room) {
  if (!progress_) progress_.emplace("reading the input", showsProgress_);
  while (true) {
    const ssize_t count = ::read(descriptor_, room.data(), room.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return readFailure(name_, errno);
    numRead_ += static_cast<std::uint64_t>(count);
    if (count > 0) {
      progress_->doneBytes(numRead_, size_);
    } else {
      progress_->clear();  // the PIN is asked for now
    }
    return static_cast<std::size_t>(count);
  }
}

bool goesToTerminal(const std::optional<std::string>& name) {
  return isStandardStream(name) && isatty(STDOUT_FILENO) != 0;
}

bool isSpecialFile(const std::string& name) {
  struct stat status {};
  if (stat(name.c_str(), &status) != 0 || S_ISDIR(status.st_mode)) return false;
  return !S_ISREG(status.st_mode) || openFileBehind(name).has_value();
}

Result<void> writeFile(const std::optional<std::string>& name, std::span<const std::uint8_t> data,
                       mode_t mode) {
  if (isStandardStream(name)) {
    if (writeAll(STDOUT_FILENO, data)) return {};
    return outputFailure(errno);
  }
  return isSpecialFile(*name) ? writeInPlace(*name, data) : replaceFile(*name, data, mode);
}

Result<void> writeText(const std::optional<std::string>& name, const std::string& text) {
  constexpr mode_t kMode = 0666;
  return writeFile(name, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, kMode);
}

Result<void> checkOpenFile(const std::optional<std::string>& name, FileUse use) {
  const auto descriptor = isStandardStream(name) ? std::nullopt : openFileBehind(*name);
  if (!descriptor || fcntl(*descriptor, F_GETFD) != -1) return {};
  Failure failure = use == FileUse::kReading ? readFailure(*name, errno) : writeFailure(*name, errno);
  failure.advice = "name one that is open, or a file";
  return failure;
}

Result<void> checkWriting(const std::optional<std::string>& name) {
  (void)processMask();
  if (isStandardStream(name)) return {};
  if (std::error_code error; std::filesystem::is_directory(*name, error)) return writeFailure(*name, EISDIR);
  if (!isSpecialFile(*name)) {
    if (auto replaceable = checkReplacing(*name, targetOf(*name).string()); !replaceable) return replaceable;
  }
  const std::string needed = isSpecialFile(*name) ? *name : (folderOf(targetOf(*name)) / ".").string();
  if (access(needed.c_str(), W_OK) == 0) return {};
  return writeFailure(*name, errno);
}

}  // namespace mirel::cli
