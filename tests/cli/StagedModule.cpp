/// A module that hands every call on to another one, named by the environment's MIREL_STAGED_MODULE, except
/// for what a test stages:
///
///   MIREL_STAGED_ANSWERS      "C_Login=A0,A4 C_Sign=30": the first calls of a function (one of those in
///                             kStaged) answer these codes, hexadecimal, and do nothing else; the later ones
///                             are handed on.
///   MIREL_STAGED_LENGTHS      "C_Sign=64": calls of C_Sign and C_Decrypt that answer CKR_OK report this
///                             length, hexadecimal, whatever they wrote.
///   MIREL_STAGED_TOKEN_FLAGS  hexadecimal: set in the flags of every token.
///   MIREL_STAGED_LAST_TRY     a file: once it is there, the flags of every token say that one try is left.
///   MIREL_STAGED_LAST_TRY_INFO  decimal: from so many calls of C_GetTokenInfo on, counted from 1, the same.
///                             A locked PIN is not locked any more then.
///   MIREL_STAGED_LOST_INFO    decimal: the call of C_GetTokenInfo with that number, counted from 1, fails.
///   MIREL_STAGED_MIN_PIN      decimal: the length of the shortest PIN of every token.
///   MIREL_STAGED_INITIALIZE   hexadecimal: what C_Initialize answers.
///   MIREL_STAGED_NO_SLOTS     set: no slot is listed.
///   MIREL_STAGED_TOKEN_INFOS  how many calls of C_GetTokenInfo are handed on; later ones answer 30.
///   MIREL_STAGED_EXIT         a function in kStaged, or C_GetTokenInfo: its call ends the process by
///                             exit(0); "end": so does the end of this library; "child": a child that it
///                             makes ends so, and the library is not loaded unless the child's code is 0.
///   MIREL_STAGED_CRASH        a function in kStaged, or "entry", the entry point: its call ends in SIGSEGV.
///   MIREL_STAGED_EXIT_FILE    once there is that file, a thread ends the process by exit(0).
///   MIREL_STAGED_TRACEABLE    set: other processes of the user may look into the memory of this one again.
///   MIREL_STAGED_PLAIN        a file: what C_Decrypt decrypts every cipher text to, without a copy of it, as
///                             a module does that hides a wrong padding.
///   MIREL_STAGED_PAUSE        a function in kStaged: its call waits for the end of the process; "entry": so
///                             does the entry point; "exit": the process waits when it has done its work.
///   MIREL_STAGED_PAUSE_AFTER  a function in kStaged: once it was called, C_GetTokenInfo waits for the end of
///   the
///                             process.
///   MIREL_STAGED_HANGS        the label of a token on which no session can be opened: that call waits for
///                             the end of the process, and makes the file MIREL_STAGED_HANGING.
///   MIREL_STAGED_SWAP         a function in kStaged: from its first call on every token has another serial
///                             number.
///   MIREL_STAGED_SWAP_INFO    decimal: from so many calls of C_GetTokenInfo on, counted from 1, the same.
///   MIREL_STAGED_SWAP_FILE    the same once there is that file.
///   MIREL_STAGED_FOLDER       a folder: the entry point makes it the working folder of the process.
///   MIREL_STAGED_CALLS        a file that gets the name of every call of the first kNumNoted functions in
///                             kStaged, in a line of its own; those of C_GetTokenInfo too. C_Login adds
///                             "dumpable" and what prctl answers.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <type_traits>
#include <vector>

#include "bridge/cryptoki.h"

namespace {

CK_FUNCTION_LIST* real = nullptr;
CK_FUNCTION_LIST ours{};
CK_FLAGS moreFlags = 0;
int callsFile = -1;
bool swapped = false;
bool pauses = false;

struct Stage {
  std::vector<CK_RV> answers;
  std::size_t calls = 0;
  std::optional<CK_ULONG> length;
};

std::map<std::string, Stage>& stages() {
  static std::map<std::string, Stage> all;
  return all;
}

std::string variable(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

/// Takes the numbers of that variable, function by function.
template <typename Take>
void readNumbers(const char* name, const Take& take) {
  std::istringstream words{variable(name)};
  for (std::string word; words >> word;) {
    const std::size_t equals = word.find('=');
    std::istringstream numbers{word.substr(equals + 1)};
    for (std::string number; std::getline(numbers, number, ',');)
      take(stages()[word.substr(0, equals)], std::stoul(number, nullptr, 16));
  }
}

void note(const std::string& function) {
  if (callsFile < 0) return;
  const std::string line = function + "\n";
  if (write(callsFile, line.data(), line.size()) != static_cast<ssize_t>(line.size())) std::abort();
}

void noteAndPause(const std::string& function) {
  note(function);
  while (true) (void)pause();
}

/// The entry for a function of that name.
template <auto Entry, std::size_t Name>
struct Staged;

constexpr std::array kStaged{"C_Login",   "C_SignInit",  "C_Sign",       "C_DecryptInit",
                             "C_Decrypt", "C_DeriveKey", "C_Initialize", "C_GetSlotList"};
constexpr std::size_t kNumNoted = 6;  // the first of them

template <typename... Args, CK_RV (*CK_FUNCTION_LIST::*Entry)(Args...), std::size_t Name>
struct Staged<Entry, Name> {
  static CK_RV call(Args... args) {
    if (Name < kNumNoted) note(kStaged[Name]);
    if (kStaged[Name] == std::string_view{"C_Login"})
      note("dumpable " + std::to_string(prctl(PR_GET_DUMPABLE, 0, 0, 0, 0)));
    if (variable("MIREL_STAGED_EXIT") == kStaged[Name]) std::exit(0);
    if (variable("MIREL_STAGED_CRASH") == kStaged[Name]) (void)raise(SIGSEGV);
    if (variable("MIREL_STAGED_PAUSE") == kStaged[Name]) {
      while (true) (void)pause();
    }
    if (variable("MIREL_STAGED_SWAP") == kStaged[Name]) swapped = true;
    if (variable("MIREL_STAGED_PAUSE_AFTER") == kStaged[Name]) pauses = true;
    Stage& stage = stages()[kStaged[Name]];
    const CK_RV rv =
        stage.calls < stage.answers.size() ? stage.answers[stage.calls++] : (real->*Entry)(args...);
    using Last = std::tuple_element_t<sizeof...(Args) - 1, std::tuple<Args...>>;
    if constexpr (std::is_same_v<Last, CK_ULONG_PTR>) {
      if (rv == CKR_OK && stage.length) *std::get<sizeof...(Args) - 1>(std::tuple{args...}) = *stage.length;
    }
    return rv;
  }
};

CK_RV plainFromFile(CK_BYTE_PTR out, CK_ULONG_PTR outLen) {
  const int file = open(variable("MIREL_STAGED_PLAIN").c_str(), O_RDONLY | O_CLOEXEC);
  const ssize_t count = read(file, out, *outLen);
  (void)close(file);
  if (count < 0) return CKR_FUNCTION_FAILED;
  *outLen = static_cast<CK_ULONG>(count);
  return CKR_OK;
}

CK_RV decrypt(CK_SESSION_HANDLE session, CK_BYTE_PTR cipher, CK_ULONG cipherLen, CK_BYTE_PTR out,
              CK_ULONG_PTR outLen) {
  if (variable("MIREL_STAGED_PLAIN").empty())
    return Staged<&CK_FUNCTION_LIST::C_Decrypt, 4>::call(session, cipher, cipherLen, out, outLen);
  note(kStaged[4]);
  return plainFromFile(out, outLen);
}

/// The last thing of this library that lives.
struct End {
  End() = default;
  End(const End&) = delete;
  End& operator=(const End&) = delete;
  ~End() {
    if (variable("MIREL_STAGED_EXIT") == "end") std::exit(0);
    if (variable("MIREL_STAGED_PAUSE") == "exit") noteAndPause("exit");
  }
} end;

CK_RV tokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO_PTR info) {
  static unsigned long calls = 0;
  note("C_GetTokenInfo");
  while (pauses) (void)pause();
  if (variable("MIREL_STAGED_EXIT") == "C_GetTokenInfo") std::exit(0);
  if (const std::string most = variable("MIREL_STAGED_TOKEN_INFOS"); !most.empty()) {
    if (calls++ >= std::stoul(most)) return CKR_DEVICE_ERROR;
  }
  static unsigned long infos = 0;
  ++infos;
  const auto hasCome = [](const char* name) {
    const std::string first = variable(name);
    return !first.empty() && infos >= std::stoul(first);
  };
  swapped = swapped || hasCome("MIREL_STAGED_SWAP_INFO");
  if (const std::string lost = variable("MIREL_STAGED_LOST_INFO"); !lost.empty() && infos == std::stoul(lost))
    return CKR_DEVICE_ERROR;
  const CK_RV rv = real->C_GetTokenInfo(slot, info);
  if (rv == CKR_OK) info->flags |= moreFlags;
  const std::string lastTry = variable("MIREL_STAGED_LAST_TRY");
  const bool isLastTry =
      hasCome("MIREL_STAGED_LAST_TRY_INFO") || (!lastTry.empty() && access(lastTry.c_str(), F_OK) == 0);
  if (rv == CKR_OK && isLastTry)
    info->flags = (info->flags & ~CK_FLAGS{CKF_USER_PIN_LOCKED}) | CKF_USER_PIN_FINAL_TRY;
  if (const std::string shortest = variable("MIREL_STAGED_MIN_PIN"); rv == CKR_OK && !shortest.empty())
    info->ulMinPinLen = std::stoul(shortest);
  if (const std::string file = variable("MIREL_STAGED_SWAP_FILE"); !file.empty())
    swapped = swapped || access(file.c_str(), F_OK) == 0;
  if (rv == CKR_OK && swapped) std::fill_n(info->serialNumber, sizeof info->serialNumber, CK_UTF8CHAR{'9'});
  return rv;
}

CK_RV openSession(CK_SLOT_ID slot, CK_FLAGS flags, CK_VOID_PTR application, CK_NOTIFY notify,
                  CK_SESSION_HANDLE_PTR session) {
  CK_TOKEN_INFO info{};
  const std::string label = variable("MIREL_STAGED_HANGS");
  const bool hangs = !label.empty() && real->C_GetTokenInfo(slot, &info) == CKR_OK &&
                     std::equal(label.begin(), label.end(), std::begin(info.label));
  if (hangs)
    (void)close(open(variable("MIREL_STAGED_HANGING").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  while (hangs) (void)pause();
  return real->C_OpenSession(slot, flags, application, notify, session);
}

CK_RV initialize(CK_VOID_PTR arguments) {
  const std::string answer = variable("MIREL_STAGED_INITIALIZE");
  if (!answer.empty()) return std::stoul(answer, nullptr, 16);
  return Staged<&CK_FUNCTION_LIST::C_Initialize, 6>::call(arguments);
}

CK_RV slotList(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR list, CK_ULONG_PTR count) {
  if (variable("MIREL_STAGED_NO_SLOTS").empty())
    return Staged<&CK_FUNCTION_LIST::C_GetSlotList, 7>::call(tokenPresent, list, count);
  *count = 0;
  return CKR_OK;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  void* library = dlopen(variable("MIREL_STAGED_MODULE").c_str(), RTLD_NOW);
  if (!library) return CKR_LIBRARY_LOAD_FAILED;
  const auto entry = reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
  CK_FUNCTION_LIST* found = nullptr;
  if (!entry || entry(&found) != CKR_OK) return CKR_LIBRARY_LOAD_FAILED;
  *list = &ours;
  if (real) return CKR_OK;
  if (variable("MIREL_STAGED_EXIT") == "child") {
    const pid_t child = fork();
    if (child == 0) std::exit(0);
    int status = -1;
    if (waitpid(child, &status, 0) != child || status != 0) return CKR_FUNCTION_FAILED;
  }
  real = found;
  readNumbers("MIREL_STAGED_ANSWERS", [](Stage& stage, CK_RV answer) { stage.answers.push_back(answer); });
  readNumbers("MIREL_STAGED_LENGTHS", [](Stage& stage, CK_ULONG length) { stage.length = length; });
  if (!variable("MIREL_STAGED_TRACEABLE").empty()) (void)prctl(PR_SET_DUMPABLE, 1, 0, 0, 0);
  if (const std::string file = variable("MIREL_STAGED_EXIT_FILE"); !file.empty()) {
    std::thread{[file] {
      while (access(file.c_str(), F_OK) != 0) (void)usleep(10000);
      std::exit(0);
    }}.detach();
  }
  if (const std::string flags = variable("MIREL_STAGED_TOKEN_FLAGS"); !flags.empty())
    moreFlags = std::stoul(flags, nullptr, 16);
  if (const std::string path = variable("MIREL_STAGED_CALLS"); !path.empty()) {
    callsFile = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (callsFile < 0) return CKR_FUNCTION_FAILED;
  }
  if (const std::string folder = variable("MIREL_STAGED_FOLDER"); !folder.empty()) {
    if (chdir(folder.c_str()) != 0) return CKR_FUNCTION_FAILED;
  }
  if (variable("MIREL_STAGED_PAUSE") == "entry") noteAndPause("entry");
  if (variable("MIREL_STAGED_CRASH") == "entry") (void)raise(SIGSEGV);
  ours = *real;
  ours.C_GetFunctionList = &C_GetFunctionList;
  ours.C_Initialize = &initialize;
  ours.C_GetSlotList = &slotList;
  ours.C_OpenSession = &openSession;
  ours.C_GetTokenInfo = &tokenInfo;
  ours.C_Login = &Staged<&CK_FUNCTION_LIST::C_Login, 0>::call;
  ours.C_SignInit = &Staged<&CK_FUNCTION_LIST::C_SignInit, 1>::call;
  ours.C_Sign = &Staged<&CK_FUNCTION_LIST::C_Sign, 2>::call;
  ours.C_DecryptInit = &Staged<&CK_FUNCTION_LIST::C_DecryptInit, 3>::call;
  ours.C_Decrypt = &decrypt;
  ours.C_DeriveKey = &Staged<&CK_FUNCTION_LIST::C_DeriveKey, 5>::call;
  return CKR_OK;
}
