// The one-parse snapshots: their entries and lookups agree with the line
// parsers and with a plain search, whatever the file holds, and a page taken
// without sorting everything equals the same page of the kept order.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "accounts/snapshot/account_db.h"
#include "accounts/snapshot/names.h"
#include "accounts/snapshot/snapshot.h"
#include "common/temp_root.h"
#include "tavo/group.h"
#include "tavo/one_shot.h"

namespace {

namespace ta = tavo::acct;

const char kAwkwardGroupFile[] =
    "# a comment:x:1:\n"
    "+nis\n"
    "staff:x:1500:alice,,bob\n"
    "Staff:x:1501:\n"
    "STAFF:x:notanumber:\n"
    "\n"
    "ärzte:x:1502:carol\r\n"
    "ÄRZTE:x:1503:\n"
    "İstanbul:x:1504:\n"
    "istanbul:x:1505:\n"
    "too:few:fields\n"
    "staff:x:1506:dave\n"
    "last:x:1507:eve";  // no final newline

// File order of every line that ParseGroupLine accepts.
std::vector<ta::GroupLine> ParsedByLines(const std::string& text) {
  std::vector<ta::GroupLine> out;
  for (const std::string& line : ta::SplitLines(text)) {
    ta::GroupLine g;
    if (ta::ParseGroupLine(line, &g)) out.push_back(g);
  }
  return out;
}

// The plain search a lookup must agree with: the first exact spelling, else
// the first name equal ignoring case.
int PlainFind(const std::vector<ta::GroupLine>& lines, const std::string& name) {
  for (size_t i = 0; i < lines.size(); ++i)
    if (lines[i].name == name) return static_cast<int>(i);
  for (size_t i = 0; i < lines.size(); ++i)
    if (ta::EqualIgnoringCase(lines[i].name, name)) return static_cast<int>(i);
  return -1;
}

TEST(SnapshotIndex, EntriesAndLookupsAgreeWithTheLineParser) {
  const ta::GroupDb db{std::string(kAwkwardGroupFile)};
  const std::vector<ta::GroupLine> lines = ParsedByLines(kAwkwardGroupFile);
  ASSERT_EQ(lines.size(), db.size());
  for (size_t i = 0; i < lines.size(); ++i) {
    const int k = static_cast<int>(i);
    const ta::GroupLine g = db.Line(k);
    EXPECT_EQ(lines[i].name, g.name);
    EXPECT_EQ(lines[i].gid, db.Gid(k));
    EXPECT_EQ(lines[i].members, db.Members(k));
    EXPECT_EQ(ta::FoldCase(lines[i].name), std::string(db.Folded(k)));
  }
  // The CR of a CRLF line is not part of the last member.
  EXPECT_EQ(std::vector<std::string>{"carol"}, db.Members(db.Find("ärzte")));
  for (const char* q : {"staff", "Staff", "STAFF", "sTaFf", "ärzte", "Ärzte", "ÄRZTE", "istanbul",
                        "İstanbul", "ıstanbul", "ISTANBUL", "last", "LAST", "nis", "too", "none"}) {
    SCOPED_TRACE(q);
    EXPECT_EQ(PlainFind(lines, q), db.Find(q));
    std::vector<int> variants, plain;
    db.ForEachVariant(ta::FoldCase(q), [&](int i) { variants.push_back(i); });
    for (size_t i = 0; i < lines.size(); ++i)
      if (ta::EqualIgnoringCase(lines[i].name, q)) plain.push_back(static_cast<int>(i));
    EXPECT_EQ(plain, variants);
  }
}

TEST(SnapshotIndex, DescriptionsTakeTheLastLineAndShadowTheFirst) {
  const ta::DescDb descs{std::string("a:first\n#a:comment\nb:x:y\r\na:second\n:nameless\nc\n")};
  EXPECT_EQ("second", descs.Find("a"));
  EXPECT_EQ("x:y", descs.Find("b"));
  EXPECT_EQ("", descs.Find("A"));  // exact names only
  EXPECT_EQ("", descs.Find("c"));
  const ta::ShadowDb shadow{
      std::string("u:$1$first:19000::::::\nu:$1$second:::::::\nv:!:1:::::5\n")};
  ta::ShadowView s;
  ASSERT_TRUE(shadow.Find("u", &s));
  EXPECT_EQ("$1$first", s.hash);
  EXPECT_EQ(-1, s.expire_days);
  ASSERT_TRUE(shadow.Find("v", &s));
  EXPECT_EQ(5, s.expire_days);
  EXPECT_FALSE(shadow.Find("U", &s));
}

TEST(SnapshotIndex, AOneOffPageEqualsTheSamePageOfTheKeptOrder) {
  // Names that share long prefixes and differ in case, some unreachable.
  std::mt19937 rng(7);
  std::string text;
  for (int i = 0; i < 3000; ++i) {
    std::string name = "grp" + std::to_string(rng() % 1000);
    if (rng() % 3 == 0) name[0] = 'G';
    if (rng() % 5 == 0) name += "Ä";
    text += name + ":x:" + std::to_string(rng() % 2 ? 1000 + i : 10 + i % 90) + ":\n";
  }
  ta::LoginDefs defs;
  for (size_t count : {0u, 1u, 50u, 400u}) {
    SCOPED_TRACE(count);
    const ta::GroupDb fresh{text}, kept{text};
    size_t total_fresh = 0, total_kept = 0;
    auto head = [count](const std::shared_ptr<const std::vector<int>>& v) {
      return std::vector<int>(v->begin(), v->begin() + std::min(count, v->size()));
    };
    const std::vector<int> once = head(fresh.Head(count, &defs, &total_fresh));
    kept.Head(0, &defs, &total_kept);  // the second call on `kept` uses the kept order
    const std::vector<int> again = head(kept.Head(count, &defs, &total_kept));
    const std::vector<int>& order = *kept.SortedReachable(defs);
    EXPECT_EQ(order.size(), total_fresh);
    EXPECT_EQ(order.size(), total_kept);
    EXPECT_EQ(head(kept.SortedReachable(defs)), once);
    EXPECT_EQ(once, again);
  }
}

// A writer keeps the snapshot of the bytes it wrote, carried over from the
// one before without parsing the file again (a change of members, and a
// creation that appends a line, the first to a file without a last newline),
// or parsed once by the writer (a rename):
// it must equal the file parsed afresh, kept orders included, and the file
// changed in place by another program right after must still be seen.
// Changes members, creates and renames groups, checking after each that the
// snapshot a reader gets is the file parsed afresh.
// `filler` system groups come first, in group and gshadow: enough of them
// make the files large enough for a one-off process to map them.
void CheckSnapshotsThroughChanges(int filler = 0) {
  tavo_test::TempRoot root;
  std::string group_lines, gshadow_lines;
  for (int i = 0; i < filler; ++i) {
    const std::string name = "filler" + std::to_string(i);
    group_lines += name + ":x:" + std::to_string(200 + i % 700) + ":admin,guest\n";
    gshadow_lines += name + ":!::admin,guest\n";
  }
  root.Append("/etc/group", group_lines);
  root.Append("/etc/gshadow", gshadow_lines);
  root.Append("/etc/group",
              "# comment\nÄrzte:x:1500:admin\r\nbroken line\nStaff:x:1501:\n"
              "staff:x:1502:admin\nİnfo:x:1503:\nlast:x:1504:guest");
  const auto defs = ta::Defs();
  ASSERT_TRUE(defs);
  ta::LocalGroups()->SortedReachable(*defs);  // orders are kept and carried over
  EXPECT_EQ(filler > 0 && tavo::IsOneShotProcess(), ta::LocalGroups()->Bytes().mapped());
  auto same_as_file = [&] {
    const auto kept = ta::LocalGroups();
    const ta::GroupDb fresh{root.Read("/etc/group")};
    ASSERT_EQ(fresh.size(), kept->size());
    EXPECT_EQ(fresh.Text(), kept->Text());
    for (size_t i = 0; i < fresh.size(); ++i) {
      const int k = static_cast<int>(i);
      EXPECT_EQ(fresh.Name(k), kept->Name(k));
      EXPECT_EQ(fresh.Folded(k), kept->Folded(k));
      EXPECT_EQ(fresh.Members(k), kept->Members(k));
      EXPECT_EQ(fresh.LineBegin(k), kept->LineBegin(k));
      EXPECT_EQ(fresh.Builtin(k), kept->Builtin(k));
      EXPECT_EQ(fresh.Find(std::string(fresh.Name(k))), kept->Find(std::string(kept->Name(k))));
      EXPECT_EQ(fresh.Find(std::string(fresh.Folded(k))), kept->Find(std::string(kept->Folded(k))));
    }
    EXPECT_EQ(fresh.Sorted(), kept->Sorted());
    EXPECT_EQ(*fresh.SortedReachable(*defs), *kept->SortedReachable(*defs));
    EXPECT_EQ(fresh.UnparsedNames().size(), kept->UnparsedNames().size());
  };
  for (const char* group : {"Ärzte", "staff", "last", "İnfo", "Staff"}) {
    SCOPED_TRACE(group);
    const std::vector<std::string> was = tavo_test::MembersOf(group);
    const bool had = std::find(was.begin(), was.end(), "guest") != was.end();
    ASSERT_TRUE(had ? tavo_test::ChangeMembers(group, {}, {"guest"})
                    : tavo_test::ChangeMembers(group, {"guest"}, {}));
    same_as_file();
  }
  // Created groups sort first, last, between case variants and among the
  // system groups; the name index grows past its first size.
  for (const char* group : {"aaa", "Zed", "ärger", "STAFFS", "İnfo2", "mid", "Aaa2", "users2"}) {
    SCOPED_TRACE(group);
    tavo_test::GroupPtr g(SDK::Group::CreateGroup(group));
    ASSERT_TRUE(g && g->AddMember("guest") && g->Save());
    same_as_file();
  }
  // Renames, to another place in the order and to another letter case.
  for (const auto& names :
       {std::pair<const char*, const char*>{"mid", "Zzz"}, {"Zed", "zed"}, {"aaa", "ärger2"}}) {
    SCOPED_TRACE(names.first);
    tavo_test::GroupPtr g(SDK::Group::LoadGroup(names.first));
    std::string to = names.second;
    ASSERT_TRUE(g && g->SetName(to) && g->Save());
    same_as_file();
  }
  // Rewritten in place with the same size, at once.
  const std::string now = root.Read("/etc/group");
  const size_t at = now.find("\nstaff:x:1502:admin");
  ASSERT_NE(std::string::npos, at);
  std::string other = now;
  other.replace(at + 14, 5, "nimda");
  root.Write("/etc/group", other);
  const std::vector<std::string> members = tavo_test::MembersOf("staff");
  ASSERT_FALSE(members.empty());
  EXPECT_EQ("nimda", members.front());
}

TEST(SnapshotIndex, TheSnapshotKeptAfterAChangeIsTheFileParsedAfresh) {
  CheckSnapshotsThroughChanges();
}

// A one-shot process keeps no snapshot of what it writes; what it reads
// after a write is still the file as written.
TEST(SnapshotIndex, AOneShotProcessReadsItsOwnWrites) {
  EXPECT_EXIT(
      {
        tavo::SetOneShotProcess();
        CheckSnapshotsThroughChanges();
        std::_Exit(::testing::Test::HasFailure() ? 1 : 0);
      },
      ::testing::ExitedWithCode(0), "");
}

// The same with files it maps (10,000 more groups: about 300 KiB): the
// same-size rewrite in place at the end changes the mapped bytes under the
// snapshot, which must be read again rather than trusted for "holding the
// same bytes".
TEST(SnapshotIndex, AOneShotProcessReadsItsOwnWritesToFilesItMaps) {
  EXPECT_EXIT(
      {
        tavo::SetOneShotProcess();
        CheckSnapshotsThroughChanges(10000);
        std::_Exit(::testing::Test::HasFailure() ? 1 : 0);
      },
      ::testing::ExitedWithCode(0), "");
}

// A one-off process maps large files. Rewritten in place with the same size,
// the mapped bytes change under the parse made of them, and a line's fields
// move: each read must parse the file as it is now. (Where the file clock is
// coarse, many rewrites fall within one tick and leave inode, size and times
// as they were; the snapshot must then not be kept for "holding the same
// bytes" as the file, which its own mapping always does.)
bool OneShotSeesSameSizeRewrites() {
  tavo::SetOneShotProcess();
  tavo_test::TempRoot root;
  std::string filler;
  for (int i = 0; i < 16000; ++i)  // about 290 KiB
    filler += "filler" + std::to_string(i) + ":x:" + std::to_string(200 + i % 700) + ":\n";
  root.Append("/etc/group", filler);
  const std::string base = root.Read("/etc/group");
  // The same size, but the name and the member list change length.
  const std::string one = base + "flip:x:1500:admin\n";
  const std::string two = base + "fl:x:1500:adminxx\n";
  for (int i = 0; i < 200; ++i) {
    root.Write("/etc/group", i % 2 ? two : one);
    const std::vector<std::string> want{i % 2 ? "adminxx" : "admin"};
    if (tavo_test::MembersOf(i % 2 ? "fl" : "flip") != want) return false;
  }
  return ta::LocalGroups()->Bytes().mapped();
}

TEST(SnapshotIndex, AOneShotProcessSeesSameSizeRewritesOfFilesItMaps) {
  EXPECT_EXIT(std::_Exit(OneShotSeesSameSizeRewrites() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

// A one-off process that still holds a mapped snapshot while it makes more
// changes: the file becomes the backup, then the spare, and the third change
// would write over the spare in place, under the snapshot, were it not
// mapped here.
bool MappedSnapshotsOutliveLaterChanges() {
  tavo::SetOneShotProcess();
  tavo_test::TempRoot root;
  std::string filler;
  for (int i = 0; i < 16000; ++i)
    filler += "filler" + std::to_string(i) + ":x:" + std::to_string(200 + i % 700) + ":\n";
  root.Append("/etc/group", filler);
  root.AddGroup("flip", 1500, {"admin"});
  const std::shared_ptr<const ta::GroupDb> held = ta::LocalGroups();
  const std::string was(held->Text());
  for (int i = 0; i < 4; ++i) {
    const bool ok = i % 2 ? tavo_test::ChangeMembers("flip", {}, {"guest"})
                          : tavo_test::ChangeMembers("flip", {"guest"}, {});
    if (!ok) return false;
  }
  return held->Bytes().mapped() && std::string(held->Text()) == was &&
         tavo_test::MembersOf("flip") == std::vector<std::string>{"admin"};
}

TEST(SnapshotIndex, AMappedSnapshotOutlivesLaterChangesOfItsFile) {
  EXPECT_EXIT(std::_Exit(MappedSnapshotsOutliveLaterChanges() ? 0 : 1),
              ::testing::ExitedWithCode(0), "");
}

// A mapped file cut short in place raises SIGBUS when the call reads past
// its new end: a one-off process says so and exits with status 1 rather
// than dying of the signal. (A process that handles SIGBUS itself keeps its
// handler: the sanitizers install one, so the test starts from the default.)
TEST(SnapshotIndex, AOneShotProcessStopsWithAMessageOnABusError) {
  EXPECT_EXIT(
      {
        signal(SIGBUS, SIG_DFL);
        tavo::SetOneShotProcess();
        raise(SIGBUS);
        std::_Exit(0);
      },
      ::testing::ExitedWithCode(1), "an account file was cut short while the call read it");
}

TEST(SnapshotIndex, WholeFilesAreReadByteForByteAtEverySize) {
  char dir[] = "/tmp/tavo-read-XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(dir));
  const std::string path = std::string(dir) + "/f";
  for (size_t size : {0u, 1u, 4095u, 4096u, 4097u, 65536u, 65537u, 300000u}) {
    SCOPED_TRACE(size);
    std::string want(size, '\0');
    for (size_t i = 0; i < size; ++i) want[i] = static_cast<char>('a' + i % 23);
    FILE* f = fopen(path.c_str(), "wb");
    ASSERT_NE(nullptr, f);
    ASSERT_EQ(size, fwrite(want.data(), 1, size, f));
    fclose(f);
    std::string got;
    ta::FileKey key;
    ASSERT_TRUE(ta::ReadWholeFile(path, &got, &key));
    EXPECT_TRUE(key.exists);
    EXPECT_EQ(size, key.size);
    EXPECT_TRUE(got == want);
  }
  unlink(path.c_str());
  rmdir(dir);
}

}  // namespace

namespace {

// Events on lock and journal files do not move the count that vouches for a
// snapshot; no file a snapshot is made of may have such a name, or a change
// to it would go unseen.
TEST(SnapshotIndex, OnlyLockAndJournalFilesAreQuiet) {
  using tavo::internal::IsLockOrJournalName;
  for (const char* name : {"group.lock", "gshadow.lock", "group.12345", ".group.tavolock.Ab12Cd",
                           ".tavo-change", ".tavo-change.x1Y2z3"})
    EXPECT_TRUE(IsLockOrJournalName(name)) << name;
  for (const char* name : {"group", "gshadow", "passwd", "shadow", "group_desc", "login.defs",
                           "tavo.conf", ".group.tavo.Ab12Cd", "group-", "group.", ".123", "a.b.7"})
    EXPECT_FALSE(IsLockOrJournalName(name)) << name;
}

}  // namespace
