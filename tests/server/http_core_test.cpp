// The HTTP core's small pieces: content negotiation, the bounded worker queue
// and the access log line.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <set>
#include <thread>

#include "http/access_log.h"
#include "http/compress.h"
#include "http/worker_pool.h"

namespace tavo_server {
namespace {

TEST(CompressTest, GzipOnlyWhenAcceptedWithNonZeroQuality) {
  EXPECT_TRUE(AcceptsGzip("gzip, deflate, br"));
  EXPECT_TRUE(AcceptsGzip("br;q=1.0, GZIP;q=0.5"));
  EXPECT_TRUE(AcceptsGzip("*"));
  EXPECT_FALSE(AcceptsGzip(""));
  EXPECT_FALSE(AcceptsGzip("deflate, br"));
  EXPECT_FALSE(AcceptsGzip("gzip;q=0, *"));  // an explicit refusal wins over "*"
  EXPECT_FALSE(AcceptsGzip("*;q=0"));
  EXPECT_FALSE(AcceptsGzip("gzipx"));

  std::string text;
  for (int i = 0; i < 500; ++i) text += "{\"name\":\"group" + std::to_string(i) + "\"},";
  std::string packed;
  ASSERT_TRUE(Gzip(text, &packed));
  EXPECT_LT(packed.size(), text.size() / 3);
  EXPECT_EQ(packed.substr(0, 2), "\x1f\x8b");  // gzip magic
}

TEST(WorkerPoolTest, RefusesWhenTheQueueIsFullAndRunsEverythingAccepted) {
  std::mutex mu;
  std::condition_variable cv;
  bool open = false;
  std::atomic<int> ran{0};
  auto job = [&] {
    std::unique_lock<std::mutex> lock(mu);
    cv.wait(lock, [&] { return open; });
    ++ran;
  };
  int accepted = 0;
  {
    WorkerPool pool(2, 3);
    // Two jobs may be running (or still queued) and three wait: whatever the
    // timing, no more than five are taken while the workers are blocked.
    for (int i = 0; i < 10; ++i) accepted += pool.TrySubmit(job) ? 1 : 0;
    EXPECT_GE(accepted, 3);
    EXPECT_LE(accepted, 5);
    {
      std::lock_guard<std::mutex> lock(mu);
      open = true;
    }
    cv.notify_all();
  }  // the destructor finishes the queue
  EXPECT_EQ(ran.load(), accepted);
}

// Jobs one at a time, each after the last one's thread went idle again:
// every one runs on that same thread (its caches warm), not on the thread
// idle longest, in turn.
TEST(WorkerPoolTest, AJobGoesToTheThreadIdleLast) {
  WorkerPool pool(4, 8);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // every thread idle
  std::set<std::thread::id> threads;
  for (int i = 0; i < 12; ++i) {
    std::promise<std::thread::id> ran;
    std::future<std::thread::id> done = ran.get_future();
    ASSERT_TRUE(pool.TrySubmit([&ran] { ran.set_value(std::this_thread::get_id()); }));
    threads.insert(done.get());
    std::this_thread::sleep_for(std::chrono::milliseconds(10));  // the thread goes idle
  }
  EXPECT_EQ(threads.size(), 1u);
}

TEST(AccessLogTest, OneLinePerRequestWithHostileTextKeptToOneWord) {
  LogFields f;
  f.account = "ad min";
  f.api = "TAVO.Core.Group";
  f.version = 1;
  f.method = "list";
  f.code = 3200;
  EXPECT_EQ(AccessLog::Format(0, "127.0.0.1", "POST", "/api\n\"x", 200, f, 1.84),
            "1970-01-01T00:00:00Z 127.0.0.1 ad?min \"POST /api??x\" 200 TAVO.Core.Group 1 list "
            "3200 1.8ms\n");
  f.account =
      "\xc2\x9b"
      "31m\xe2\x80\xae";  // C1 CSI, right-to-left override
  EXPECT_EQ(AccessLog::Format(0, "127.0.0.1", "GET", "/", 200, f, 0),
            "1970-01-01T00:00:00Z 127.0.0.1 \\u009B31m\\u202E \"GET /\" 200 TAVO.Core.Group 1 list "
            "3200 0.0ms\n");
  EXPECT_EQ(AccessLog::Format(0, "", "GET", "/", 404, LogFields(), 0),
            "1970-01-01T00:00:00Z - - \"GET /\" 404 - - - - 0.0ms\n");
}

}  // namespace
}  // namespace tavo_server
