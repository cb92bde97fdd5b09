#include "api/answer_cache.h"

#include "api/json_util.h"

namespace tavo_server {

std::string AnswerCache::Key(const ApiCall& call, std::string_view params_text,
                             const std::string& account) {
  // No part can hold a NUL: names are checked text, the parameters JSON.
  std::string key = account;
  key.push_back('\0');
  key += call.api;
  key.push_back('\0');
  key += std::to_string(call.version);
  key.push_back('\0');
  key += call.method;
  key.push_back('\0');
  key += params_text;
  return key;
}

bool AnswerCache::Find(const ApiCall& call, std::string_view params_text,
                       const std::string& account, CallResult* result) {
  if (max_entries_ == 0) return false;
  const std::string key = Key(call, params_text, account);
  Kept kept;
  {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = kept_.find(key);
    if (it == kept_.end()) return false;
    kept = it->second;
  }
  const tavo::ReadSet::Reuse reuse = kept.reads->Check();
  if (reuse == tavo::ReadSet::Reuse::kBusy) return false;  // made afresh: it waits for the lock
  if (reuse == tavo::ReadSet::Reuse::kStale) {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = kept_.find(key);
    if (it != kept_.end() && it->second.text == kept.text) {
      bytes_ -= it->first.size() + it->second.text->size();
      kept_.erase(it);
    }
    return false;
  }
  result->lookup = ModuleSet::Lookup::kFound;
  result->envelope = Json::Value();
  result->code = kept.code;
  result->text = kept.text;
  hits_.fetch_add(1, std::memory_order_relaxed);
  return true;
}

void AnswerCache::Store(const ApiCall& call, std::string_view params_text,
                        const std::string& account, CallResult* result,
                        std::shared_ptr<const tavo::ReadSet> reads) {
  if (max_entries_ == 0 || !reads || result->lookup != ModuleSet::Lookup::kFound) return;
  auto text = std::make_shared<const std::string>(ToCompactJson(result->envelope));
  result->text = text;
  if (text->size() > kMaxAnswerBytes) return;
  std::string key = Key(call, params_text, account);
  const size_t bytes = key.size() + text->size();
  std::lock_guard<std::mutex> lock(mu_);
  auto it = kept_.find(key);
  if (it != kept_.end()) {
    bytes_ -= it->first.size() + it->second.text->size();
    kept_.erase(it);
  }
  if (kept_.size() >= max_entries_ || bytes_ + bytes > kMaxBytes) {
    kept_.clear();
    bytes_ = 0;
  }
  kept_.emplace(std::move(key), Kept{result->code, std::move(text), std::move(reads)});
  bytes_ += bytes;
}

}  // namespace tavo_server
