// change_client: what HTTP adds to a membership change, seen from a client
// that costs next to nothing itself. Not part of the product.
//   change_client PORT TOKEN GROUP USER N
// Over one kept-alive connection on 127.0.0.1:PORT it adds USER to GROUP and
// removes them again, N times each, one request at a time (the request bytes
// made once, the answer read by its Content-Length). The server says in
// Server-Timing how long its module ran; what each change took beyond that
// is what HTTP added to it, with no second root and no other process in the
// comparison. Prints the median and p90 of that, in microseconds. TOKEN "-"
// sends no Authorization header.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

std::string Request(const char* method, const std::string& token, const char* group,
                    const char* user) {
  const std::string body = std::string("{\"api\":\"TAVO.Core.Group.Member\",\"version\":1,") +
                           "\"method\":\"" + method + "\",\"params\":{\"group\":\"" + group +
                           "\",\"name\":\"" + user + "\"}}";
  std::string head = "POST /api HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\n";
  if (token != "-") head += "Authorization: Bearer " + token + "\r\n";
  return head + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// Sends one request and reads its answer; returns the microseconds it took
// beyond the module's own time, or a negative value on failure.
double Change(int fd, const std::string& request) {
  const auto start = std::chrono::steady_clock::now();
  if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) != (ssize_t)request.size()) return -1;
  std::string data;
  char buf[65536];
  for (;;) {
    const ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n <= 0) return -1;
    data.append(buf, (size_t)n);
    const size_t head = data.find("\r\n\r\n");
    if (head == std::string::npos) continue;
    const char* cl = strcasestr(data.c_str(), "\r\nContent-Length:");
    const size_t length = cl != nullptr ? strtoul(cl + 17, nullptr, 10) : 0;
    if (data.size() >= head + 4 + length) break;
  }
  const double took =
      std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
  const char* timing = strcasestr(data.c_str(), "module;dur=");
  if (timing == nullptr || data.find("\"success\":true") == std::string::npos) {
    fprintf(stderr, "change_client: %.300s\n", data.c_str());
    return -1;
  }
  return took - strtod(timing + 11, nullptr) * 1000;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) {
    fprintf(stderr, "usage: change_client PORT TOKEN GROUP USER N\n");
    return 2;
  }
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons((uint16_t)atoi(argv[1]));
  if (connect(fd, (sockaddr*)&addr, sizeof addr) != 0) {
    perror("change_client: connect");
    return 1;
  }
  const int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  const std::string add = Request("add", argv[2], argv[3], argv[4]);
  const std::string remove = Request("remove", argv[2], argv[3], argv[4]);
  const int n = atoi(argv[5]);
  std::vector<double> beyond;
  for (int k = 0; k < n; ++k) {
    for (const std::string* r : {&add, &remove}) {
      const double us = Change(fd, *r);
      if (us < 0) return 1;
      beyond.push_back(us);
    }
  }
  close(fd);
  std::sort(beyond.begin(), beyond.end());
  printf("HTTP adds %.1f us per change beyond the module's own time (median of %zu; p90 %.1f us)\n",
         beyond[beyond.size() / 2], beyond.size(), beyond[beyond.size() * 9 / 10]);
  return 0;
}
