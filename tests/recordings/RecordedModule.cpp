/// A PKCS #11 module that answers as another one did, whose calls were recorded.
///
/// It takes the recording from the file that MIREL_RECORDING names, or from one beside it called
/// recording.jsonl, each time that it is asked for its function list. It answers those calls that were made
/// for the token, in their order, and passes over what nobody asks for again. A call that was not recorded is
/// told on standard error, and in the file that MIREL_RECORDING_MISSED names.

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <vector>

#include "ReplayingFront.h"
#include "recording/RecordingFile.h"

namespace mirel::recording {
namespace {

std::filesystem::path fileOfRecording() {
  if (const char* named = std::getenv("MIREL_RECORDING")) return named;
  Dl_info own{};
  if (dladdr(reinterpret_cast<void*>(&fileOfRecording), &own) == 0) return {};
  return std::filesystem::path{own.dli_fname}.parent_path() / "recording.jsonl";
}

void tellMissing(const std::string& what) {
  (void)std::fprintf(stderr, "%s\n", what.c_str());
  if (const char* file = std::getenv("MIREL_RECORDING_MISSED"))
    std::ofstream{file, std::ios::app} << what << "\n";
}

std::vector<RecordedCall> recordedCalls() {
  std::ostringstream text;
  text << std::ifstream{fileOfRecording(), std::ios::binary}.rdbuf();
  ReadRecording read = readRecording(text.str());
  if (!read.recording) {
    tellMissing(fileOfRecording().string() + ": " + read.refusal);
    return {};
  }
  std::vector<RecordedCall> calls;
  for (Record& record : read.recording->records) {
    if (auto* call = std::get_if<RecordedCall>(&record)) calls.push_back(std::move(*call));
  }
  return calls;
}

}  // namespace
}  // namespace mirel::recording

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  using mirel::recording::ReplayingFront;
  // Lists that were handed out stay where they are.
  static std::vector<std::unique_ptr<ReplayingFront>> fronts;
  fronts.push_back(std::make_unique<ReplayingFront>(
      mirel::recording::recordedCalls(), ReplayingFront::Order::kPassOver, mirel::recording::tellMissing));
  return fronts.back()->entryPoint()(list);
}
