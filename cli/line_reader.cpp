#include "line_reader.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host.h"

namespace qelcli {

namespace {

// Lines as the terminal's line discipline delivers them: its own erase and kill keys,
// no history.
class PlainReader : public LineReader {
 public:
  Outcome read(bool continuation, std::string& line) override {
    fputs(continuation ? "...> " : "qel> ", stdout);
    fflush(stdout);
    line.clear();
    for (;;) {
      unsigned char b;
      int got = readTerminalByte(b);
      if (got < 0) return takeInterrupt() ? kInterrupted : kEnd;
      if (got == 0) return line.empty() ? kEnd : kLine;  // a last line without its end
      line += static_cast<char>(b);
      if (b == '\n') return kLine;
    }
  }
};

// QEL_NO_LINE_EDITING=1 asks for plain lines, for terminals (or programs driving one)
// that do not get on with an editor.
bool editingWanted() {
  const char* no = getenv("QEL_NO_LINE_EDITING");
  return !no || !*no || strcmp(no, "0") == 0;
}

}  // namespace

// A Ctrl-C that comes just before the read would not interrupt a blocking read (the
// terminal discards the line it had collected), so the reader waits in short polls and
// looks at the flag between them.
int readTerminalByte(unsigned char& b) {
  for (;;) {
    if (interruptPending()) return -1;
    pollfd input{STDIN_FILENO, POLLIN, 0};
    int ready = ::poll(&input, 1, 100);
    if (ready == 0 || (ready < 0 && errno == EINTR)) continue;
    ssize_t n = ::read(STDIN_FILENO, &b, 1);
    if (n == 1) return 1;
    if (n == 0) return 0;
    if (errno != EINTR || interruptPending()) return -1;
  }
}

std::unique_ptr<LineReader> makeLineReader() {
#ifdef QEL_HAVE_LIBEDIT
  if (editingWanted()) return makeLineEditor();
#else
  (void)editingWanted;
#endif
  return std::unique_ptr<LineReader>(new PlainReader());
}

const char* lineEditing() {
#ifdef QEL_HAVE_LIBEDIT
  return "libedit";
#else
  return "none (built without libedit)";
#endif
}

}  // namespace qelcli
