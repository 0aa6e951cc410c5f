// The protocol layer: framed JSON messages over descriptors, and the loopback listener.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "protocol/channel.h"

using qel::protocol::Channel;
using qel::protocol::Handlers;
using qel::protocol::Json;

namespace {

struct Pipe {
  int fds[2];
  Pipe() { EXPECT_EQ(pipe(fds), 0); }
  ~Pipe() {
    closeWrite();
    ::close(fds[0]);
  }
  void send(const std::string& bytes) { ASSERT_EQ(::write(fds[1], bytes.data(), bytes.size()), (ssize_t)bytes.size()); }
  void closeWrite() {
    if (fds[1] >= 0) ::close(fds[1]);
    fds[1] = -1;
  }
};

std::string frame(const std::string& body, const char* header = "Content-Length") {
  return std::string(header) + ": " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

}  // namespace

TEST(Protocol, FramesInOneReadAndAcrossReads) {
  Pipe p;
  Channel in(p.fds[0], -1);
  // Two messages in one write, a header field in another case, an extra header line.
  p.send(frame("{\"a\":1}") + frame("[2,\"\xc3\xa9\"]", "content-length") + "Content-Type: x\r\n");
  Json m;
  ASSERT_TRUE(in.read(m));
  EXPECT_EQ(m["a"], 1);
  ASSERT_TRUE(in.read(m));
  EXPECT_EQ(m[1], "\xc3\xa9");
  // A frame in two pieces; a body that is not JSON reads as discarded.
  std::string third = frame("{\"c\":3}");
  p.send(third.substr(0, 20));
  p.send(third.substr(20));
  ASSERT_TRUE(in.read(m));
  EXPECT_EQ(m["c"], 3);
  p.send(frame("{not json"));
  ASSERT_TRUE(in.read(m));
  EXPECT_TRUE(m.is_discarded());
  p.closeWrite();
  EXPECT_FALSE(in.read(m));
  EXPECT_FALSE(in.read(m));
}

TEST(Protocol, BadHeadersEndTheChannel) {
  for (const char* bad : {"Content-Length: x\r\n\r\n", "Content-Length: 99999999999\r\n\r\n", "\r\n{}",
                          "Content-Length: 10\r\n\r\n{}"}) {
    Pipe p;
    Channel in(p.fds[0], -1);
    p.send(bad);
    p.closeWrite();
    Json m;
    EXPECT_FALSE(in.read(m)) << bad;
  }
}

TEST(Protocol, WritesFramedMessagesAndDispatches) {
  Pipe p;
  Channel out(-1, p.fds[1]);
  EXPECT_TRUE(out.write(Json{{"text", std::string("bad \xff byte")}}));
  p.closeWrite();
  char bytes[256];
  ssize_t n = ::read(p.fds[0], bytes, sizeof bytes);
  EXPECT_EQ(std::string(bytes, static_cast<size_t>(n)), frame("{\"text\":\"bad \xef\xbf\xbd byte\"}"));
  EXPECT_FALSE(out.write(Json::object()));  // the reading end is gone

  Handlers handlers;
  int seen = 0;
  handlers.on("count", [&](const Json& m) { seen += m.at("n").get<int>(); });
  std::string error;
  EXPECT_EQ(handlers.dispatch("count", Json{{"n", 2}}, error), Handlers::kHandled);
  EXPECT_EQ(handlers.dispatch("count", Json{{"n", "two"}}, error), Handlers::kMalformed);
  EXPECT_FALSE(error.empty());
  EXPECT_EQ(handlers.dispatch("other", Json{}, error), Handlers::kUnknown);
  EXPECT_EQ(seen, 2);
}

TEST(Protocol, LoopbackListenerAcceptsOneClient) {
  qel::protocol::LoopbackListener listener;
  ASSERT_TRUE(listener.listen(0));
  ASSERT_GT(listener.port(), 0);
  EXPECT_EQ(listener.accept(0), -1);  // nobody yet
  int client = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(listener.port()));
  ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  int server = listener.accept(2000);
  ASSERT_GE(server, 0);
  Channel toServer(-1, client), atServer(server, server);
  EXPECT_TRUE(toServer.write(Json{{"command", "initialize"}}));
  Json m;
  ASSERT_TRUE(atServer.read(m));
  EXPECT_EQ(m["command"], "initialize");
  ::close(client);
  ::close(server);
  listener.close();
  EXPECT_EQ(listener.port(), 0);
  EXPECT_FALSE(listener.listen(70000));
}
