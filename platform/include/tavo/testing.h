// Test seam: make chosen platform operations fail on purpose.
//
// A test arms a fault point with a platform error code; the next `count` calls
// that reach that point fail with that code (recorded as raised at the point),
// without touching any file. Points:
//   "group.save"       SDK::Group::Save
//   "group.get"        TAVOGroupGet / TAVOGroupGetByGID
//   "group.desc"       TAVOGroupDescGet
//   "group.delete"     TAVOGroupDelete
//   "group.enum"       TLIBGroupInfoEnumBySubstr
//   "group.total"      TAVOGroupTotalNum
//   "admin.count"      TAVOGroupTotalValidLocalAdmin
//   "user.enum"        TLIBUserEnum / TLIBUserEnumBySubstr
//   "user.infoenum"    TLIBUserInfoEnum / TLIBUserInfoEnumBySubstr
//   "user.upper"       TLIBCUnicodeUTF8StrUpper
//   "szlist.alloc"     TLIBCSzListAlloc
//   "lock.handler"     ServerFormHandler::ShLock / ExLock
//   "lock.file"        ServerFormHandler::LockFile
//   "file.rename"      the rename step of an account-file write (file left intact)
//   "file.write"       the write step of an account-file write (as a full disk, ENOSPC)
//
// Thread-safety: arming and firing are safe from any thread; the points are
// process-wide.
#ifndef TAVO_TESTING_H_
#define TAVO_TESTING_H_

namespace tavo {
namespace testing {

// Arms `point` so that the next `count` calls fail with `code`.
void FailNext(const char* point, int code, int count = 1);
// Disarms every point.
void ClearFaults();
// Used by the platform: true (and the error state set) when `point` fires.
bool FaultFires(const char* point, const char* file, int line);

}  // namespace testing
}  // namespace tavo

#define TAVO_FAULT(point) ::tavo::testing::FaultFires((point), __FILE__, __LINE__)

#endif  // TAVO_TESTING_H_
