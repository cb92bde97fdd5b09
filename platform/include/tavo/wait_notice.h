// WaitNotice: tells a thread that serves many clients when a platform call it
// makes may be about to wait.
//
// A server thread may make a call itself, rather than hand it to a worker,
// while the call only reads account files already in memory: that costs no
// hand-over between threads. While a WaitNotice lives on a thread, the
// platform calls its function on that thread, once, before the first step of
// a call that may take long:
//  - a wait for a lock that another holds, and any exclusive lock or the
//    account locks (a write and its sync follow);
//  - reading an account file from disk (a changed file is read and parsed
//    again);
//  - anything no snapshot tracks: the configuration, the event log, a
//    service reload, a pid or runtime file;
//  - a long call made from memory: past kLongWork items of work (a group
//    handed to an enumeration's callback, a user or a membership looked at).
// A short read of snapshots already in memory never calls it. The function may hand
// the thread's other work to another thread; the call then goes on, on this
// thread, as it would have.
//
// Ownership: the notice holds only the function and its argument.
// Thread-safety: a notice belongs to the thread that made it, and the
// function runs on that thread, inside a platform call: it must not call the
// platform, nor wait for anything that such a call may hold. Notices nest: the
// innermost one is told, and the one outside it is in force again after it.
// Errors: none.
#ifndef TAVO_WAIT_NOTICE_H_
#define TAVO_WAIT_NOTICE_H_

namespace tavo {

class WaitNotice {
 public:
  // Items of work after which a call made from memory counts as long: a
  // few milliseconds of it.
  static constexpr unsigned kLongWork = 2048;
  using Fn = void (*)(void* arg);
  WaitNotice(Fn fn, void* arg);
  ~WaitNotice();
  WaitNotice(const WaitNotice&) = delete;
  WaitNotice& operator=(const WaitNotice&) = delete;

 private:
  friend void NoticeWait();
  friend void NoticeWork(unsigned items);
  Fn fn_;
  void* arg_;
  bool told_ = false;
  unsigned work_ = 0;
  WaitNotice* outer_;
};

// What the platform calls before a step that may wait: tells the innermost
// notice of this thread, if it has not been told yet. A module or a test may
// call it too, before a wait of its own.
void NoticeWait();
// Counts `items` of work of the call under way on this thread; past
// WaitNotice::kLongWork of them the notice is told, as before a wait.
void NoticeWork(unsigned items = 1);

}  // namespace tavo

#endif  // TAVO_WAIT_NOTICE_H_
