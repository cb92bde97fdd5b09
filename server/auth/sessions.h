// SessionStore: the logged-in sessions of the HTTP server.
//
// A session has two secrets of 256 bits each: the id, kept by the browser in
// an HttpOnly cookie, and the token, which the page keeps in memory and sends
// back in the X-Tavo-Token header (scripts: Authorization: Bearer TOKEN). API
// calls are authorised by the token alone; the cookie only lets a reloaded
// page ask for its token again. A session ends at logout, after `idle`
// without use, or `lifetime` after it began, however busy; the caller also
// ends it when the account's password hash changes (the session keeps the
// stamp of the hash it was opened with). At most `max_sessions` live at once; beyond that the least
// recently used one is dropped. Sessions that end without Remove (idle,
// lifetime, dropped for room) are kept for TakeEnded, at most max_sessions of
// them, so that the caller can end their grants too.
//
// Secrets are looked up by their first 16 hex digits and then compared in
// full in constant time, so the time an answer takes tells nothing about how
// much of a guessed secret was right beyond that public prefix.
//
// Thread-safety: all methods may be called from any thread.
#ifndef TAVO_SERVER_SESSIONS_H_
#define TAVO_SERVER_SESSIONS_H_

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace tavo_server {

class SessionStore {
 public:
  using Clock = std::chrono::steady_clock;

  struct Session {
    std::string id;
    std::string token;
    std::string account;
    std::string stamp;  // of the account's password hash at login
    std::string grant;  // the login's proof for the account process
    Clock::time_point created;
    Clock::time_point last_used;
  };

  SessionStore(std::chrono::seconds idle, std::chrono::seconds lifetime, size_t max_sessions)
      : idle_(idle), lifetime_(lifetime), max_sessions_(max_sessions) {}

  // Starts a session for `account`; false when no random id could be made.
  bool Create(const std::string& account, const std::string& stamp, Session* out,
              const std::string& grant = "");
  // The live session whose token is `token`; refreshes its idle timer.
  bool FindByToken(const std::string& token, Session* out);
  // Whether the session of `token` is still alive, without counting this as
  // a use (its idle timer goes on): for the open change streams, which must
  // not keep an unattended page's session alive.
  bool Alive(const std::string& token);
  // The live session whose id is `id`; refreshes its idle timer.
  bool FindById(const std::string& id, Session* out);
  // Ends the session with this id or token (whichever matches); false when
  // there was none. The ended session is copied to `removed` when given,
  // and kept for TakeEnded when `report` is true.
  bool Remove(const std::string& id_or_token, Session* removed = nullptr, bool report = false);
  size_t Size();
  // The sessions that ended since the last call, other than by Remove
  // without `report`.
  std::vector<Session> TakeEnded();
  // Whether TakeEnded has any.
  bool HasEnded();

 private:
  bool Alive(const Session& s, Clock::time_point now) const {
    return now - s.last_used <= idle_ && now - s.created <= lifetime_;
  }
  void DropExpired(Clock::time_point now);  // mutex_ held

  // The session whose id is `id`, or by_id_.end(); mutex_ held.
  std::map<std::string, Session>::iterator LookupId(const std::string& id);
  // The session whose token is `token`, or by_id_.end(); mutex_ held.
  std::map<std::string, Session>::iterator LookupToken(const std::string& token);
  // Ends a session; `report`: keep it for TakeEnded. mutex_ held.
  void Erase(std::map<std::string, Session>::iterator it, bool report = true);
  // Refreshes and copies out a live session, drops an expired one; false for
  // end() or expired. mutex_ held.
  bool Use(std::map<std::string, Session>::iterator it, Session* out);

  const std::chrono::seconds idle_;
  const std::chrono::seconds lifetime_;
  const size_t max_sessions_;
  std::mutex mutex_;
  std::map<std::string, Session> by_id_;            // key: the id's prefix
  std::map<std::string, std::string> id_by_token_;  // token's prefix -> id's prefix
  std::vector<Session> ended_;                      // for TakeEnded
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_SESSIONS_H_
