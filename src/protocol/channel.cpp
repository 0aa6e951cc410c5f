#include "protocol/channel.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qel {
namespace protocol {

namespace {

const char kLengthField[] = "content-length:";

// Whether `line` starts with `field`, ignoring case (header names are case-insensitive).
bool startsWithField(const std::string& line, const char* field) {
  size_t n = strlen(field);
  if (line.size() < n) return false;
  for (size_t i = 0; i < n; ++i) {
    char c = line[i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != field[i]) return false;
  }
  return true;
}

bool writeAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

bool Channel::fill() {
  if (start_ > 0 && start_ == buffer_.size()) {
    buffer_.clear();
    start_ = 0;
  }
  char chunk[16384];
  for (;;) {
    ssize_t n = ::read(in_, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    buffer_.append(chunk, static_cast<size_t>(n));
    return true;
  }
}

// Header lines up to the blank line; answers the body's length.
bool Channel::readHeader(size_t& length) {
  bool haveLength = false;
  for (;;) {
    size_t end = buffer_.find("\r\n", start_);
    while (end == std::string::npos) {
      if (buffer_.size() - start_ > 8192 || !fill()) return false;  // no header is that long
      end = buffer_.find("\r\n", start_);
    }
    std::string line = buffer_.substr(start_, end - start_);
    start_ = end + 2;
    if (line.empty()) return haveLength;
    if (startsWithField(line, kLengthField)) {
      const char* digits = line.c_str() + strlen(kLengthField);
      while (*digits == ' ') ++digits;
      char* stop = nullptr;
      errno = 0;
      unsigned long long n = strtoull(digits, &stop, 10);
      if (stop == digits || *stop || errno == ERANGE || n > kMaxBody) return false;
      length = static_cast<size_t>(n);
      haveLength = true;
    }
  }
}

bool Channel::read(Json& message) {
  if (done_) return false;
  size_t length = 0;
  if (!readHeader(length)) {
    done_ = true;
    return false;
  }
  while (buffer_.size() - start_ < length) {
    if (!fill()) {
      done_ = true;
      return false;
    }
  }
  message = Json::parse(buffer_.begin() + static_cast<std::ptrdiff_t>(start_),
                        buffer_.begin() + static_cast<std::ptrdiff_t>(start_ + length), nullptr, false);
  start_ += length;
  return true;
}

bool Channel::write(const Json& message) {
  // Invalid UTF-8 in a text (a script's string) is replaced, never a reason to fail.
  std::string body = message.dump(-1, ' ', false, Json::error_handler_t::replace);
  std::string frame = "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  std::lock_guard<std::mutex> hold(writeLock_);
  return writeAll(out_, frame.data(), frame.size());
}

Handlers::Outcome Handlers::dispatch(const std::string& name, const Json& message, std::string& error) const {
  auto it = handlers_.find(name);
  if (it == handlers_.end()) return kUnknown;
  try {
    it->second(message);
  } catch (const Json::exception& e) {
    error = e.what();
    return kMalformed;
  }
  return kHandled;
}

LoopbackListener::~LoopbackListener() { close(); }

bool LoopbackListener::listen(int port) {
  close();
  if (port < 0 || port > 65535) return false;
  fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) return false;
  int yes = 1;
  setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  socklen_t size = sizeof address;
  if (bind(fd_, reinterpret_cast<sockaddr*>(&address), size) != 0 || ::listen(fd_, 1) != 0 ||
      getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    close();
    return false;
  }
  port_ = ntohs(address.sin_port);
  return true;
}

int LoopbackListener::accept(int timeoutMs) {
  if (fd_ < 0) return -1;
  pollfd waiting{fd_, POLLIN, 0};
  int ready;
  do {
    ready = poll(&waiting, 1, timeoutMs);
  } while (ready < 0 && errno == EINTR);
  if (ready <= 0) return -1;
  return ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
}

void LoopbackListener::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  port_ = 0;
}

}  // namespace protocol
}  // namespace qel
