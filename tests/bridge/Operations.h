#pragma once

/// The operations of the bridge, each with the calls of the module that it makes and what the failure of each
/// call means. Tests of what all operations have in common go through this table.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "BridgeTest.h"

namespace mirel::test {

/// What a failing call means for the operation.
enum class Failing {
  kAnswered,  ///< it ends with the call's code
  kMarked,    ///< the same, with kRereadFailed set
  kReplaced,  ///< it ends with a code of its own
  kIgnored,   ///< nothing
};

struct CallRow {
  std::string text;
  Failing failing = Failing::kAnswered;
  CK_RV replacement = CKR_OK;
  /// A call that is made although this one has failed.
  std::string cleanUp{};
  /// A later call that is not made when this one has failed.
  std::string undoes{};
};

/// What an operation is run with.
struct Bench {
  P11Bridge& bridge;
  Script& script;
  std::shared_ptr<PKCS11_SERVICE_INFO> record{};
  ResultBuffer output{600};
  CK_ULONG length = 600;
};

struct Operation {
  /// In the test's name.
  const char* name;
  /// As the observer is told.
  const char* operation;
  /// Runs it in session 5 with arguments that succeed.
  std::function<CK_RV(Bench&)> run;
  std::vector<CallRow> calls;
  /// How many blocks of memory it takes.
  std::size_t numAllocations = 0;
  /// Runs it with nothing but null and none.
  std::function<CK_RV(P11Bridge&)> runBare;
  /// What that answers without a function list.
  CK_RV withoutList = CKR_CRYPTOKI_NOT_INITIALIZED;
};

[[nodiscard]] std::vector<Operation> allOperations();

}  // namespace mirel::test
