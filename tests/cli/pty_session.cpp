// Drives a program through a pseudo-terminal, as a person at a terminal would.
//
//   pty_session SCRIPT PROGRAM [ARG...]
//
// SCRIPT holds one step a line ("#" lines are comments):
//   send TEXT      types TEXT once the program reads its terminal key by key, as a line
//                  editor does (escapes: \n \t \\ and \xHH, so \x04 is Ctrl-D)
//   press TEXT     types TEXT at once, whatever the terminal's mode (Ctrl-C, \x03, for a
//                  program that is running rather than reading)
//   expect TEXT    waits (10 s at most) until the output since the last match holds TEXT
//   refuse TEXT    the output since the last match must not hold TEXT
//   status N       waits for the program to end with exit status N
// On the first step that fails, the step and the output so far go to standard error and
// the exit status is 1.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

std::string unescape(const std::string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] != '\\' || i + 1 >= s.size()) {
      out += s[i];
      continue;
    }
    char c = s[++i];
    if (c == 'n') {
      out += '\n';
    } else if (c == 't') {
      out += '\t';
    } else if (c == 'x' && i + 2 < s.size()) {
      out += static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += c;
    }
  }
  return out;
}

class Session {
 public:
  Session(int fd, pid_t pid) : fd_(fd), pid_(pid) {
    // The terminal's own side, to see the mode the program set on it.
    const char* name = ptsname(fd);
    terminal_ = name ? open(name, O_RDWR | O_NOCTTY) : -1;
  }

  // Waits (10 s at most) until the program reads the terminal key by key: text typed
  // while the line discipline still collects whole lines would be echoed twice, and an
  // end of input typed then could be lost when the editor switches modes.
  bool awaitKeyByKey() {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
      termios mode{};
      if (terminal_ < 0 || tcgetattr(terminal_, &mode) != 0) return true;  // cannot tell: go on
      if (!(mode.c_lflag & ICANON)) return true;
      if (std::chrono::steady_clock::now() > deadline || !pump(20)) return false;
    }
  }

  // Reads what the program wrote within `ms`; false once it closed its terminal.
  bool pump(int ms) {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, ms) <= 0) return true;
    char buf[4096];
    ssize_t n = read(fd_, buf, sizeof buf);
    if (n <= 0) return false;
    seen_.append(buf, static_cast<size_t>(n));
    all_.append(buf, static_cast<size_t>(n));
    return true;
  }

  bool expect(const std::string& text) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
      size_t at = seen_.find(text);
      if (at != std::string::npos) {
        seen_.erase(0, at + text.size());
        return true;
      }
      if (std::chrono::steady_clock::now() > deadline || !pump(50)) return false;
    }
  }

  bool refuse(const std::string& text) {
    for (int i = 0; i < 4; ++i) pump(50);
    return seen_.find(text) == std::string::npos;
  }

  bool send(const std::string& text) { return write(fd_, text.data(), text.size()) == static_cast<ssize_t>(text.size()); }

  bool status(int expected) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
      int st = 0;
      pid_t done = waitpid(pid_, &st, WNOHANG);
      if (done == pid_) return WIFEXITED(st) && WEXITSTATUS(st) == expected;
      if (std::chrono::steady_clock::now() > deadline) return false;
      if (!pump(50)) usleep(10000);
    }
  }

  const std::string& transcript() const { return all_; }

 private:
  int fd_;
  int terminal_;
  pid_t pid_;
  std::string seen_;  // output not yet matched
  std::string all_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    fputs("usage: pty_session SCRIPT PROGRAM [ARG...]\n", stderr);
    return 2;
  }
  std::ifstream script(argv[1]);
  if (!script) {
    fprintf(stderr, "pty_session: cannot read %s\n", argv[1]);
    return 2;
  }
  winsize size{24, 100, 0, 0};
  int fd = -1;
  pid_t pid = forkpty(&fd, nullptr, nullptr, &size);
  if (pid < 0) {
    perror("pty_session: forkpty");
    return 2;
  }
  if (pid == 0) {
    setenv("TERM", "dumb", 1);
    execvp(argv[2], argv + 2);
    perror("pty_session: exec");
    _exit(127);
  }
  Session session(fd, pid);
  std::string line;
  int number = 0;
  while (std::getline(script, line)) {
    ++number;
    if (line.empty() || line[0] == '#') continue;
    size_t space = line.find(' ');
    std::string verb = line.substr(0, space);
    std::string arg = space == std::string::npos ? "" : unescape(line.substr(space + 1));
    bool ok = verb == "send"     ? session.awaitKeyByKey() && session.send(arg)
              : verb == "press"  ? session.send(arg)
              : verb == "expect" ? session.expect(arg)
              : verb == "refuse" ? session.refuse(arg)
              : verb == "status" ? session.status(std::atoi(arg.c_str()))
                                 : false;
    if (!ok) {
      fprintf(stderr, "pty_session: step %d failed: %s\n--- output ---\n%s\n--- end ---\n", number, line.c_str(),
              session.transcript().c_str());
      kill(pid, SIGKILL);
      return 1;
    }
  }
  return 0;
}
