// The shared snapshot cache of each account file, looked up by platform path
// (one cache per file, for the whole process), and the writers' way to
// install the snapshot made from the bytes they wrote.
#include <sys/stat.h>

#include "accounts/snapshot/account_db.h"
#include "accounts/snapshot/snapshot.h"
#include "tavo/root.h"

namespace tavo {
namespace acct {

std::shared_ptr<GroupDb> BuildGroupDb(FileBytes content) {
  return std::make_shared<GroupDb>(std::move(content));
}

namespace {
SnapshotCache<GroupDb>& LocalGroupCache() {
  static SnapshotCache<GroupDb> cache(BuildGroupDb, false);
  return cache;
}
}  // namespace

std::shared_ptr<const GroupDb> LocalGroups() { return LocalGroupCache().GetAt(kGroupPath); }

std::shared_ptr<const GroupDb> LocalGroupsNow() {
  return LocalGroupCache().GetUnpinned(TavoRootPath(kGroupPath));
}

void InstallLocalGroups(std::shared_ptr<const GroupDb> db) {
  if (db) LocalGroupCache().Install(TavoRootPath(kGroupPath), std::move(db));
}

std::shared_ptr<const GroupDb> DomainGroups() {
  static SnapshotCache<GroupDb> cache(BuildGroupDb, true);
  return cache.GetAt(kDomainGroupPath);
}

std::shared_ptr<const GroupDb> LdapGroups() {
  static SnapshotCache<GroupDb> cache(BuildGroupDb, true);
  return cache.GetAt(kLdapGroupPath);
}

std::shared_ptr<const UserDb> Passwd() {
  static SnapshotCache<UserDb> cache(
      [](FileBytes c) { return std::make_shared<UserDb>(std::move(c)); }, false);
  return cache.GetAt(kPasswdPath);
}

std::shared_ptr<const ShadowDb> Shadow() {
  static SnapshotCache<ShadowDb> cache(
      [](FileBytes c) { return std::make_shared<ShadowDb>(std::move(c)); }, true);
  return cache.GetAt(kShadowPath);
}

std::shared_ptr<const LoginDefs> Defs() {
  static SnapshotCache<LoginDefs> cache(
      [](FileBytes c) {
        return std::make_shared<LoginDefs>(ParseLoginDefs(std::string(c.view())));
      },
      true);
  return cache.GetAt(kLoginDefsPath);
}

namespace {
SnapshotCache<DescDb>& DescCache() {
  static SnapshotCache<DescDb> cache(
      [](FileBytes c) { return std::make_shared<DescDb>(std::move(c)); }, true);
  return cache;
}
SnapshotCache<FileText>& GshadowCache() {
  static SnapshotCache<FileText> cache(
      [](FileBytes c) { return std::make_shared<FileText>(FileText{std::move(c)}); }, true);
  return cache;
}
}  // namespace

std::shared_ptr<const DescDb> Descriptions() { return DescCache().GetAt(kDescPath); }

std::shared_ptr<const DescDb> DescriptionsNow() {
  return DescCache().GetUnpinned(TavoRootPath(kDescPath));
}

std::shared_ptr<const FileText> GshadowNow(bool* exists) {
  const std::string path = TavoRootPath(kGshadowPath);
  std::shared_ptr<const FileText> text = GshadowCache().GetUnpinned(path);
  struct stat st;
  *exists = text && (!text->text.empty() || stat(path.c_str(), &st) == 0);
  return text;
}

void InstallGshadow(std::string text) {
  GshadowCache().Install(TavoRootPath(kGshadowPath),
                         std::make_shared<FileText>(FileText{FileBytes(std::move(text))}));
}

}  // namespace acct
}  // namespace tavo
