// Shared pieces of the fuzz targets: a machine whose built-ins cannot reach outside the
// process, a printer that keeps output bounded, the conversion of fuzz input to engine
// text, scratch files, and running "main" under an instruction budget.
//
// Every target defines LLVMFuzzerTestOneInput. The same sources build the libFuzzer
// binaries (QEL_FUZZ=ON, clang) and the replay drivers of the normal test suite, which
// feed stored inputs to the same entry point through replay.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "qel.h"

namespace qelfuzz {

// Instructions one fuzzed run of a procedure may execute before it fails.
constexpr uint64_t kInstructionBudget = 100000;
// Bytes of script-visible heap objects a fuzzed run may hold: a script that doubles a
// string in a loop fails with "out of memory" long before the process runs out.
constexpr size_t kMemoryBudget = size_t(64) << 20;

// Keeps at most the last kKeep characters printed: fuzzed scripts print a lot, and the
// text itself is never looked at, but it is still formatted as a real printer would.
class BoundedPrinter : public IQelPrinter {
 public:
  static const unsigned int kKeep = 1 << 16;
  int operator()(const QelChar* fmt, ...) override;

 private:
  // Appending is amortized constant time: a loop of prints stays linear.
  std::u16string text_;
};

// The input as engine text: UTF-8 converted to UTF-16 (invalid bytes become U+FFFD,
// a NUL ends the text).
std::u16string toText(const uint8_t* data, size_t size);

// Takes the machine's way out of the process away: the standard streams become
// /dev/null streams that cannot be closed, "fopen" and "loadmodule" use one scratch
// file whatever name they are given, "compile" refuses the /dev/null streams, and the
// machine withholds native code, the environment, and source and module files outside
// the scratch directory. Call right after constructing the machine.
void sandbox(QelVirtualMachine& vm);

// Closes the streams scripts opened through the sandboxed "fopen" and left open.
void closeScriptStreams();

// Writes the bytes to this process's scratch file `which` (a small number) and answers
// its path.
const std::string& writeScratch(int which, const uint8_t* data, size_t size);

// Runs "main" with no arguments under the instruction budget; false when it fails.
bool runMain(QelVirtualMachine& vm, IQelPrinter& printer);

// The instruction and memory budgets on a machine (what runMain sets).
void limitInstructions(QelVirtualMachine& vm);

}  // namespace qelfuzz
