// http_floor: the least any HTTP server can add to a membership change on
// this machine. Not part of the product.
//   http_floor ROOT MODULES_DIR PORT
// One thread, blocking sockets, no pool and no event loop: it accepts one
// connection on 127.0.0.1:PORT, reads each request by its Content-Length,
// makes the change in the same thread through the same module dispatch as
// `tavo serve` and call_in_process, and writes the answer in one send(), with
// the module's time in Server-Timing. No login, no limits, no parser worth
// the name: whatever it adds to a change beyond the module's own time is what
// the sockets and the wake-ups of a sleeping client and server cost, which
// every server pays. bench/http_bench.sh runs the same paired client against
// it and against `tavo serve`.
#include <json/json.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "api/dispatch.h"
#include "bench/bench_modules.h"
#include "tavo/read_scope.h"

namespace {

// Reads one request into *body; false when the client has gone.
bool ReadRequest(int fd, std::string* pending, std::string* body) {
  for (;;) {
    const size_t head = pending->find("\r\n\r\n");
    if (head != std::string::npos) {
      size_t length = 0;
      const char* cl = strcasestr(pending->c_str(), "\r\nContent-Length:");
      if (cl != nullptr && cl < pending->c_str() + head) length = strtoul(cl + 17, nullptr, 10);
      if (pending->size() >= head + 4 + length) {
        *body = pending->substr(head + 4, length);
        pending->erase(0, head + 4 + length);
        return true;
      }
    }
    char buf[65536];
    const ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n <= 0) return false;
    pending->append(buf, static_cast<size_t>(n));
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: http_floor ROOT MODULES_DIR PORT\n");
    return 2;
  }
  tavo_server::ModuleSet modules;
  if (!OpenWithModules(argv[1], argv[2], &modules)) return 1;
  const int lfd = socket(AF_INET, SOCK_STREAM, 0);
  const int one = 1;
  setsockopt(lfd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(atoi(argv[3])));
  if (bind(lfd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(lfd, 8) != 0) {
    perror("http_floor: bind");
    return 1;
  }
  printf("listening\n");
  fflush(stdout);
  Json::CharReaderBuilder reader;
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  for (;;) {
    const int fd = accept(lfd, nullptr, nullptr);
    if (fd < 0) continue;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    std::string pending, text;
    while (ReadRequest(fd, &pending, &text)) {
      Json::Value body;
      std::string error;
      std::unique_ptr<Json::CharReader> parse(reader.newCharReader());
      tavo_server::ApiCall call;
      tavo_server::CallResult r;
      if (parse->parse(text.data(), text.data() + text.size(), &body, &error) &&
          tavo_server::CallFromJson(body, &call, &error)) {
        tavo::ReadScope scope;
        r = tavo_server::Dispatch(modules, call, "admin");
      }
      const std::string answer = Json::writeString(writer, r.envelope) + "\n";
      char head[256];
      const int n = snprintf(head, sizeof head,
                             "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n"
                             "Server-Timing: module;dur=%.3f\r\nContent-Length: %zu\r\n\r\n",
                             r.module_us / 1000, answer.size());
      const std::string out = std::string(head, static_cast<size_t>(n)) + answer;
      if (send(fd, out.data(), out.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(out.size())) break;
    }
    close(fd);
  }
}
