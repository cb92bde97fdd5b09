// NoticeHub: the open change streams of the admin page, and the notices sent
// down them.
//
// Each stream belongs to one session (its token). It starts with an
// "event: ready" and then carries, as Server-Sent Events text:
//   event: change   data: {"groups":BOOL,"events":BOOL,"at":MS}   (Publish)
//   : keepalive     a comment every `heartbeat`, so that an idle stream is
//                   neither timed out by the HTTP core nor kept after its
//                   client went away
//   event: end      data: {"reason":"session"|"stopping"}, then the body ends
// A stream that reads slowly gets only the newest notice, never a queue: a
// notice means "look again", and one is as good as many.
//
// Sessions: every `check` the hub asks `alive(token)` for each session that
// has streams; the streams of a session that ended (logout, idle, lifetime,
// refused account) end within that time, or at once through EndSession. At
// most `per_session` streams are open per session (a page has one; a few
// tabs share a session), so one session cannot hold every connection.
//
// Cost: a stream is a small object plus its suspended connection; no thread
// waits for it. Publish and the periodic tick touch each stream once.
//
// Ownership: streams are shared with the HTTP core (StreamBody) and must be
// gone before the hub is destroyed (the server ends them with EndAll and
// drains its connections first).
// Thread-safety: every method may be called from any thread; `alive` is
// called on the hub's own thread, without the hub's lock held.
#ifndef TAVO_SERVER_LIVE_NOTICE_HUB_H_
#define TAVO_SERVER_LIVE_NOTICE_HUB_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "http/stream_body.h"

namespace tavo_server {

class NoticeHub {
 public:
  struct Limits {
    int per_session = 8;
    std::chrono::milliseconds heartbeat{15000};
    std::chrono::milliseconds check{1000};
  };
  using Alive = std::function<bool(const std::string& token)>;

  NoticeHub(Alive alive, Limits limits);
  ~NoticeHub();
  NoticeHub(const NoticeHub&) = delete;
  NoticeHub& operator=(const NoticeHub&) = delete;

  // A new stream for the session of `token`; null when that session has
  // `per_session` streams already or the hub is ending (EndAll).
  std::shared_ptr<StreamBody> Open(const std::string& token);
  // Sends "event: change" with these flags to every stream.
  void Publish(bool groups, bool events);
  // Ends the streams of one session (a logout).
  void EndSession(const std::string& token);
  // Ends every stream and refuses new ones (the server is stopping).
  void EndAll();
  // Streams open now.
  size_t Size();

 private:
  class Stream;
  friend class Stream;

  // Ends `s` with an "end" event; hub lock held. Returns its resume
  // function, if it was parked, for the caller to run unlocked.
  std::function<void()> EndLocked(Stream* s, const char* reason);
  // The parked streams that have something to read now; hub lock held.
  std::vector<std::function<void()>> TakeWakeable();
  void Tick();

  const Alive alive_;
  const Limits limits_;
  std::mutex mu_;
  std::condition_variable wake_;
  bool stopping_ = false;  // the hub's thread ends
  bool closed_ = false;    // EndAll: no new streams
  uint64_t seq_ = 0;       // of the latest notice
  std::string latest_;     // its text
  std::unordered_set<Stream*> streams_;
  std::thread ticker_;
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_LIVE_NOTICE_HUB_H_
