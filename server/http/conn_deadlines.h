// ConnDeadlines: time limits on the phases of a connection that the HTTP
// library bounds only by inactivity (a client sending one byte a second is
// never inactive).
//
// Each open connection is registered with its descriptor and the client's
// address. Its owner sets the deadline of the phase it enters (receiving a
// request, sending an answer, waiting idle between requests) or none (while
// the answer is being computed). A sweeper thread wakes every `tick` and
// shuts down (shutdown(2), never close) the socket of every connection past
// its deadline; the library then sees the connection end and closes it as
// usual. Before shutting a socket down the sweeper checks that the
// descriptor still leads to the same client address and port, so a
// descriptor number reused by a newer connection is left alone.
//
// Ownership: Slot objects belong to the caller and must be removed before
// they are destroyed.
// Thread-safety: Set may be called from any thread without locking; Add and
// Remove lock briefly.
#ifndef TAVO_SERVER_CONN_DEADLINES_H_
#define TAVO_SERVER_CONN_DEADLINES_H_

#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <unordered_set>

namespace tavo_server {

class ConnDeadlines {
 public:
  struct Slot {
    int fd = -1;
    sockaddr_storage peer{};
    socklen_t peer_len = 0;
    std::atomic<int64_t> deadline_ms{0};  // steady-clock milliseconds; 0: none
    std::atomic<bool> cut{false};         // set once the sweeper shut it down
  };

  explicit ConnDeadlines(std::chrono::milliseconds tick = std::chrono::milliseconds(200));
  ~ConnDeadlines();
  ConnDeadlines(const ConnDeadlines&) = delete;
  ConnDeadlines& operator=(const ConnDeadlines&) = delete;

  // Registers `slot` (fd and peer filled in by the caller).
  void Add(Slot* slot);
  void Remove(Slot* slot);
  // Sets the deadline `after` from now; a zero or negative `after` means none.
  static void Set(Slot* slot, std::chrono::milliseconds after);
  // Steady-clock milliseconds now, the unit of deadline_ms.
  static int64_t NowMs();

 private:
  void Sweep();

  const std::chrono::milliseconds tick_;
  std::mutex mu_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::unordered_set<Slot*> slots_;
  std::thread sweeper_;
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_CONN_DEADLINES_H_
