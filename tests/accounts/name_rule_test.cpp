// The name rule's pieces: composed form, invisible characters, and
// confusable skeletons, whose table for ASCII names must give what ICU gives.
#include "accounts/snapshot/name_rule.h"

#include <gtest/gtest.h>

#include <string>

namespace tavo {
namespace acct {
namespace {

TEST(NameRuleTest, ComposesAndFindsInvisibleCharacters) {
  EXPECT_EQ(NfcName("cafe\u0301"), "caf\u00e9");
  EXPECT_EQ(NfcName("caf\u00e9"), "caf\u00e9");
  EXPECT_EQ(NfcName("bad\xff"), "bad\xff");  // not UTF-8: as it was
  for (const char* hidden : {"a\u200bb", "a\u00adb", "\u2066ab\u2069", "ab\u200d", "a\ufe0fb",
                             "a\u2060b", "ab\u180e", "a\U000e0041", "a\ue000b", "a\xff"})
    EXPECT_TRUE(HasInvisible(hidden)) << hidden;
  for (const char* shown : {"staff", "caf\u00e9", "\u0440\u043e\u043e\u0442", "\u65e5\u672c"})
    EXPECT_FALSE(HasInvisible(shown)) << shown;
}

// Letters of other scripts go through ICU; their ASCII look-alikes through
// the table: both must meet.
TEST(NameRuleTest, AsciiSkeletonsMeetTheirLookAlikes) {
  const struct {
    const char *ascii, *other;
  } pairs[] = {
      {"root", "r\u043e\u043et"}, {"administrators", "administrat\u03bfrs"},
      {"alpha", "\u0430lpha"},    {"sudo", "\u0455udo"},
      {"users", "u\u0455ers"},    {"ops", "\u03bf\u0440s"},
      {"abc123", "\u0430bc123"},
  };
  for (const auto& p : pairs) {
    EXPECT_EQ(Skeleton(p.ascii), Skeleton(p.other)) << p.ascii;
    EXPECT_EQ(NameSkeleton(p.ascii), NameSkeleton(p.other)) << p.ascii;
    EXPECT_FALSE(Skeleton(p.ascii).empty());
  }
  EXPECT_EQ(Skeleton("aIpha"), Skeleton("alpha"));  // capital I, lower-case l
  EXPECT_EQ(Skeleton("m"), Skeleton("rn"));
  EXPECT_NE(NameSkeleton("aIpha"), NameSkeleton("alpha"));  // folded: "aipha"
  EXPECT_NE(Skeleton("alpha"), Skeleton("beta"));
  // Every printable ASCII character in the middle of a Cyrillic name: the
  // table's prototype for it is the one ICU uses.
  for (char c = 0x21; c < 0x7f; ++c) {
    const std::string ascii = std::string("x") + c + "y";
    const std::string mixed = std::string("\u0445") + c + "\u0443";  // Cyrillic x and y
    EXPECT_EQ(Skeleton(ascii), Skeleton(mixed)) << c;
  }
}

// The comparison that stops at the first difference says what comparing the
// whole skeletons says: prefixes, multi-letter prototypes, case and text
// that is not ASCII included.
TEST(NameRuleTest, SkeletonIsAgreesWithTheWholeSkeleton) {
  const char* names[] = {"alpha", "aIpha", "ALPHA", "alph",           "alphas",     "m",     "rn",
                         "rnx",   "mx",    "root",  "r\u043e\u043et", "\u0430lpha", "users", ""};
  for (const char* a : names) {
    for (const char* b : names) {
      for (bool folded : {false, true}) {
        const std::string want = folded ? NameSkeleton(b) : Skeleton(b);
        const std::string have = folded ? NameSkeleton(a) : Skeleton(a);
        EXPECT_EQ(have == want, SkeletonIs(a, want, folded)) << a << " / " << b << " " << folded;
      }
    }
  }
}

}  // namespace
}  // namespace acct
}  // namespace tavo
