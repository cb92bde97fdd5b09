// GrantBook: the grants of the side that checks passwords, and the key they
// are made with.
//
// A grant is "SID.ISSUED.MAC": a random session id, the time of issue (Unix
// seconds) and an HMAC-SHA256, under a key that only this book holds, over
// the account's name, its password stamp, the session id and the time. The
// book also keeps each grant it issued, so a grant is valid only while it is
// still in the book: it ends at Revoke (a logout), `lifetime` after its issue
// however busy, at Rekey, and when `max_live` newer grants have pushed it out.
// A grant the book never issued is refused even when its MAC is right.
//
// The key is drawn on first use, or by Rekey; Wipe overwrites it. A process
// that splits off a less trusted one calls Rekey after the fork and the
// child calls Wipe, so the child never holds a key that works.
//
// Thread-safety: all methods may be called from any thread at once.
#ifndef TAVO_SERVER_PRIVSEP_GRANT_BOOK_H_
#define TAVO_SERVER_PRIVSEP_GRANT_BOOK_H_

#include <chrono>
#include <map>
#include <mutex>
#include <string>

#include "auth/login.h"

namespace tavo_server {

class GrantBook {
 public:
  using Clock = std::chrono::steady_clock;

  GrantBook(std::chrono::seconds lifetime, size_t max_live)
      : lifetime_(lifetime), max_live_(max_live < 1 ? 1 : max_live) {}
  ~GrantBook() { Wipe(); }
  GrantBook(const GrantBook&) = delete;
  GrantBook& operator=(const GrantBook&) = delete;

  // A new grant for `who` (name and stamp set), or "" when no random
  // session id or key could be drawn.
  std::string Issue(const LoginIdentity& who, Clock::time_point now = Clock::now());
  // Whether who.grant is a live grant of this book for who.name and who.stamp.
  bool Valid(const LoginIdentity& who, Clock::time_point now = Clock::now());
  // Ends who's grant when it is valid; anything else is ignored.
  void Revoke(const LoginIdentity& who);
  // Draws a fresh key and forgets every grant; the old key is overwritten.
  void Rekey();
  // Overwrites the key and forgets every grant; a later Issue draws anew.
  void Wipe();
  // The MAC of a grant over these fields under `key` (hex; "" for no key).
  static std::string Mac(const std::string& key, const LoginIdentity& who, const std::string& sid,
                         const std::string& issued);
  // The key, for tests that play a front which copied it.
  std::string KeyForTesting();

 private:
  struct Live {
    std::string name;
    Clock::time_point issued;
  };
  void DrawKeyLocked();  // mu_ held
  void WipeLocked();     // mu_ held

  const std::chrono::seconds lifetime_;
  const size_t max_live_;
  std::mutex mu_;
  std::string key_;                   // hex; guarded by mu_
  std::map<std::string, Live> live_;  // by session id; guarded by mu_
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_PRIVSEP_GRANT_BOOK_H_
