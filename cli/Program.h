#pragma once

namespace mirel::cli {

/// The whole program but for its entry point, with the arguments of one. Changes how the process takes
/// signals and what its libraries do at exit, and fills the places of standard streams that are closed.
/// Returns the exit code; what there was to say was said.
[[nodiscard]] int runProgram(int argc, char** argv) noexcept;

}  // namespace mirel::cli
