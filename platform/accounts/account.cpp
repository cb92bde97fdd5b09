// The per-thread request account.
#include "tavo/account.h"

namespace tavo {
namespace {
thread_local std::string g_account;
}  // namespace

void SetRequestAccount(const std::string& account) { g_account = account; }
std::string GetRequestAccount() { return g_account; }

}  // namespace tavo
