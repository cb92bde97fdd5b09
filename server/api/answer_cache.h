// AnswerCache: answers of module calls that were made from the account files
// alone, kept with the files they were made from and given again while those
// files are unchanged.
//
// A module says that an answer may be kept by calling TavoAnswerReusable()
// (tavo/read_scope.h) while it makes it; the call's ReadScope then names the
// files it looked at, as the snapshots it saw. The same call (API, version,
// method and parameters, the latter as their compact JSON text) by the same account is answered
// from the cache for as long as every one of those files is still that snapshot: a change by this
// server, by another process, or a rewrite within one clock tick makes a new snapshot, and the next
// call runs the module again. The check costs a look at each file's folder (its change count) and
// no parse. It is made under the handler locks that the call took, shared, as the call itself would
// take them: while another holds one exclusively, the call is not answered from the cache but made
// afresh, so it waits for the lock and is refused on time-out exactly as any call.
//
// Limits: at most `max_entries` answers and kMaxBytes of answer text; an answer
// longer than kMaxAnswerBytes is not kept. When a limit would be passed, the
// whole cache is emptied (answers are cheap to make again; the point is the
// same page asked for again and again).
//
// Thread-safety: any thread; one mutex guards the map, and the files are
// checked outside it.
#ifndef TAVO_SERVER_API_ANSWER_CACHE_H_
#define TAVO_SERVER_API_ANSWER_CACHE_H_

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "api/dispatch.h"
#include "tavo/read_scope.h"

namespace tavo_server {

class AnswerCache {
 public:
  static constexpr size_t kDefaultEntries = 512;
  static constexpr size_t kMaxBytes = 4u << 20;
  static constexpr size_t kMaxAnswerBytes = 512u << 10;

  // `max_entries` 0 keeps nothing.
  explicit AnswerCache(size_t max_entries = kDefaultEntries) : max_entries_(max_entries) {}

  bool enabled() const { return max_entries_ != 0; }
  // The kept answer to `call` with the parameters `params_text` (call.params
  // is not read) by `account` (code and text set, envelope null), when its
  // files are still current, as the caller's ReadScope sees them under the
  // call's handler locks; false otherwise (a stale answer is dropped; one
  // whose lock is held elsewhere is kept).
  bool Find(const ApiCall& call, std::string_view params_text, const std::string& account,
            CallResult* result);
  // Keeps `result` (a found call's answer) with `reads`; sets result->text to
  // the answer's compact JSON, which the caller may send rather than
  // serialise the envelope again. `params_text` is as for Find.
  void Store(const ApiCall& call, std::string_view params_text, const std::string& account,
             CallResult* result, std::shared_ptr<const tavo::ReadSet> reads);

  unsigned long long hits() const { return hits_.load(std::memory_order_relaxed); }

 private:
  struct Kept {
    int code;
    std::shared_ptr<const std::string> text;
    std::shared_ptr<const tavo::ReadSet> reads;
  };
  static std::string Key(const ApiCall& call, std::string_view params_text,
                         const std::string& account);

  const size_t max_entries_;
  std::mutex mu_;
  std::unordered_map<std::string, Kept> kept_;  // guarded by mu_
  size_t bytes_ = 0;                            // guarded by mu_
  std::atomic<unsigned long long> hits_{0};
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_API_ANSWER_CACHE_H_
