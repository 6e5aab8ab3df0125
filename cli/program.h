// The program: everything between the command line and the exit code.
#pragma once

namespace cli {

/// Runs the command line and returns the exit code (host/failure.h). Never throws. Called once, by
/// the main thread, before any other thread exists.
int RunProgram(int argc, char** argv) noexcept;

}  // namespace cli
