// Reading the prompt's lines from the terminal: with libedit's editing and history when
// the qel command was built with it, else a plain reader on the terminal's own line
// discipline. Both give up a line on Ctrl-C.
#pragma once

#include <memory>
#include <string>

namespace qelcli {

class LineReader {
 public:
  enum Outcome { kLine, kInterrupted, kEnd };

  virtual ~LineReader() = default;
  // Shows the prompt ("qel> ", or "...> " when the entry goes on) and reads one line,
  // its line end included.
  virtual Outcome read(bool continuation, std::string& line) = 0;
  // Keeps a finished entry in the history, where there is one.
  virtual void remember(const std::string& entry) { (void)entry; }
};

// The reader for this terminal: libedit's unless the qel command was built without it
// or the environment sets QEL_NO_LINE_EDITING=1.
std::unique_ptr<LineReader> makeLineReader();

// What the prompt edits lines with, for `qel --version`.
const char* lineEditing();

// One byte of the terminal's input: 1, 0 at its end, -1 on an error or a Ctrl-C.
int readTerminalByte(unsigned char& b);

#ifdef QEL_HAVE_LIBEDIT
std::unique_ptr<LineReader> makeLineEditor();
#endif

}  // namespace qelcli
