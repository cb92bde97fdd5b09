// The account on whose behalf the current thread works, recorded with each
// event-log entry. The server sets it around each request.
//
// Thread-safety: the value is per thread.
#ifndef TAVO_ACCOUNT_H_
#define TAVO_ACCOUNT_H_

#include <string>

namespace tavo {

void SetRequestAccount(const std::string& account);
std::string GetRequestAccount();

// Sets the account for the lifetime of the object and restores the old one.
class ScopedRequestAccount {
 public:
  explicit ScopedRequestAccount(const std::string& account) : saved_(GetRequestAccount()) {
    SetRequestAccount(account);
  }
  ~ScopedRequestAccount() { SetRequestAccount(saved_); }
  ScopedRequestAccount(const ScopedRequestAccount&) = delete;
  ScopedRequestAccount& operator=(const ScopedRequestAccount&) = delete;

 private:
  std::string saved_;
};

}  // namespace tavo

#endif  // TAVO_ACCOUNT_H_
