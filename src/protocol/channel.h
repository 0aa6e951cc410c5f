// The protocol layer that the debug adapter and the language server share.
//
// Both protocols carry JSON messages framed by a header, "Content-Length: N" and a blank
// line, then N bytes of UTF-8 JSON. A Channel reads and writes such messages over a pair
// of file descriptors (standard input and output, or a loopback TCP connection); writes
// are serialised, since events may be sent from the script's thread while the reader
// waits for the next request. Handlers maps message names to the code that answers
// them. LoopbackListener waits for a client on 127.0.0.1.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>

#include <nlohmann/json.hpp>

namespace qel {
namespace protocol {

using Json = nlohmann::json;

class Channel {
 public:
  // The descriptors are not owned: the caller closes them after the channel is done.
  Channel(int in, int out) : in_(in), out_(out) {}
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  // The next message. False at the end of the input, after a read error, or after a
  // frame that cannot be read (a header without a length, a length past kMaxBody);
  // the channel is done then. A body that is not JSON reads as a discarded value.
  bool read(Json& message);
  // Writes one message; safe from any thread. False once the output is closed.
  bool write(const Json& message);

  // The largest body read: a client that announces more is not followed.
  static const size_t kMaxBody = size_t(64) << 20;

 private:
  bool fill();  // reads more input into buffer_; false at the end
  bool readHeader(size_t& length);

  int in_;
  int out_;
  std::string buffer_;
  size_t start_ = 0;  // the first byte of buffer_ not yet used
  bool done_ = false;
  std::mutex writeLock_;
};

// Message name -> handler. A message whose name has no handler, and one whose fields
// have the wrong types (a handler reading them throws the JSON library's exception),
// are the caller's to answer.
class Handlers {
 public:
  using Handler = std::function<void(const Json& message)>;
  enum Outcome { kHandled, kUnknown, kMalformed };

  void on(const std::string& name, Handler handler) { handlers_[name] = std::move(handler); }
  // Runs the handler of `name`; for kMalformed, `error` says what was wrong.
  Outcome dispatch(const std::string& name, const Json& message, std::string& error) const;

 private:
  std::map<std::string, Handler> handlers_;
};

// A listening TCP socket on the loopback address only.
class LoopbackListener {
 public:
  LoopbackListener() = default;
  ~LoopbackListener();
  LoopbackListener(const LoopbackListener&) = delete;
  LoopbackListener& operator=(const LoopbackListener&) = delete;

  // Listens on `port` (0: a free port the system picks); false when it cannot.
  bool listen(int port);
  // The port listened on, or 0.
  int port() const { return port_; }
  // The next client's connected descriptor (the caller closes it), waiting at most
  // `timeoutMs` milliseconds (-1: no limit); -1 when none came or the listener is closed.
  int accept(int timeoutMs);
  void close();

 private:
  int fd_ = -1;
  int port_ = 0;
};

}  // namespace protocol
}  // namespace qel
