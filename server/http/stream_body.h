// StreamBody: the body of an answer that is written as it comes, for as long
// as the connection stays open (a text/event-stream), instead of all at once.
//
// The event thread that owns the connection calls Read whenever the socket
// can take more. When Read has nothing (returns 0), the core suspends the
// connection, so that it costs no event-thread time while it waits, and
// hands Park a function that resumes it. The body calls that function (from
// any thread, once) when there is something to read or the body has ended.
// Park returns false when something arrived since the Read that found
// nothing; the core then resumes the connection at once.
//
// A suspended connection does not notice that its client went away; the
// body should have something to send now and then (a comment line), so that
// a closed connection is found and freed.
//
// Ownership: shared by the handler's answer (HttpResponse::stream) and the
// core; the core drops its share when the connection is done with the answer.
// Thread-safety: Read and Park are called on the connection's event thread,
// one at a time; implementations lock what other threads touch.
#ifndef TAVO_SERVER_STREAM_BODY_H_
#define TAVO_SERVER_STREAM_BODY_H_

#include <cstddef>
#include <functional>

namespace tavo_server {

class StreamBody {
 public:
  virtual ~StreamBody() = default;
  // Copies at most `max` bytes into `buf` and returns their count; 0 when
  // nothing is ready now; -1 once the body has ended.
  virtual long Read(char* buf, size_t max) = 0;
  // Keeps `resume` to call when there is something to read; false (and
  // `resume` dropped) when there already is.
  virtual bool Park(std::function<void()> resume) = 0;
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_STREAM_BODY_H_
