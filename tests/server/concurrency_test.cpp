// The server's shared state under many threads at once: the session store and
// the login throttle. Also run under ThreadSanitizer (build-tsan).
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "auth/login_throttle.h"
#include "auth/sessions.h"

namespace tavo_server {
namespace {

TEST(ConcurrencyTest, SessionsMadeAndEndedFromManyThreads) {
  SessionStore store(std::chrono::seconds(600), std::chrono::seconds(3600), 10000);
  std::atomic<int> lost{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        SessionStore::Session s, found;
        if (!store.Create("user" + std::to_string(t), "stamp", &s)) {
          ++lost;
          continue;
        }
        if (!store.FindByToken(s.token, &found) || found.id != s.id) ++lost;
        if (!store.FindById(s.id, &found) || found.token != s.token) ++lost;
        if (i % 2 == 0) {
          store.Remove(s.token);
          if (store.FindByToken(s.token, &found)) ++lost;
        }
      }
    });
  }
  for (std::thread& th : threads) th.join();
  EXPECT_EQ(0, lost.load());
  EXPECT_EQ(100u, store.Size());
}

TEST(ConcurrencyTest, GuessesSentAtOnceDoNotOvershootTheLimit) {
  ThrottleLimits limits;
  limits.pending_wait = std::chrono::milliseconds(2000);
  LoginThrottle throttle(limits);
  const auto now = LoginThrottle::Clock::now();
  std::atomic<int> checked{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 4; ++i) {
        LoginThrottle::Ticket k = throttle.Begin("admin", "10.0.0.1", "", now);
        if (k.retry_after == 0) ++checked;
        throttle.Finish(k, false);
      }
    });
  }
  for (std::thread& th : threads) th.join();
  EXPECT_EQ(limits.per_pair, checked.load());
}

}  // namespace
}  // namespace tavo_server
