// Recovery and consistency check of the account store.
//
// RecoverAccountFiles completes a change of the group files that a crash cut
// off between its file replacements (see "Crashes and
// recovery" in docs/root-layout.md), and removes temporary files that writers left behind. Every
// writer does this itself when it takes the account locks; `tavo serve` does
// it at start. A completed change is reported in the event log.
//
// CheckAccountStore looks for a pending change, leftover temporary files and
// disagreements between etc/group and etc/gshadow (a group without a gshadow
// line, a gshadow line without a group, different member lists). With
// `repair` it first recovers, then makes etc/gshadow agree with etc/group
// (etc/group is what the system resolves memberships from): missing lines are
// added as "NAME:!::MEMBERS", lines of groups that are gone are removed, member
// lists are copied from etc/group; passwords and administrators are kept. The
// repair is reported in the event log.
//
// Thread-safety: both take the account locks; any thread.
// Errors: false with the error state set (TAVO_ERR_LOCK, TAVO_ERR_IO) when the
// files cannot be locked, read or written.
#ifndef TAVO_STORE_CHECK_H_
#define TAVO_STORE_CHECK_H_

#include <string>
#include <vector>

namespace tavo {

struct StoreCheckResult {
  std::vector<std::string> findings;  // one line of text per problem found
  std::vector<std::string> repairs;   // one line of text per thing repaired
};

// `who` names the recovering party in the event log ("tavo serve", ...).
bool RecoverAccountFiles(const char* who, StoreCheckResult* out);
bool CheckAccountStore(bool repair, const char* who, StoreCheckResult* out);

}  // namespace tavo

#endif  // TAVO_STORE_CHECK_H_
