// The watchdog's probe of the event threads: answered while the server runs,
// also when client connections fill the per-address limit, and refused once
// it has stopped.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <vector>

#include "http_server.h"
#include "module_loader.h"
#include "options.h"
#include "privsep/account_ops.h"
#include "temp_root.h"

namespace tavo_server {
namespace {

int Connect(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

TEST(EventProbeTest, AnsweredWhileServingEvenWithClientsAtTheirLimitAndNotAfterStop) {
  tavo_test::TempRoot root;
  ModuleSet modules;
  LocalAccountOps ops(modules);
  ServeOptions options;
  options.root = root.dir();
  options.port = 0;
  options.per_address = 4;
  options.web_dir = root.dir();
  HttpServer server(options, ops);
  int port = 0;
  ASSERT_TRUE(server.Bind(&port).ok());
  EXPECT_FALSE(server.ProbeEventLoop(100));  // not serving yet
  std::thread run([&server] { server.Run(); });
  bool alive = false;
  for (int i = 0; i < 200 && !alive; ++i) {
    alive = server.ProbeEventLoop(200);
    if (!alive) std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  EXPECT_TRUE(alive);

  // Stalled clients up to the per-address limit do not keep the probe out.
  std::vector<int> held;
  for (int i = 0; i < options.per_address; ++i) {
    int fd = Connect(port);
    ASSERT_GE(fd, 0);
    held.push_back(fd);
  }
  EXPECT_TRUE(server.ProbeEventLoop(5000));
  for (int fd : held) close(fd);

  server.Stop();
  run.join();
  EXPECT_FALSE(server.ProbeEventLoop(100));
}

}  // namespace
}  // namespace tavo_server
