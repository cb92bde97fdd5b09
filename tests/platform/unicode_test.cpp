// Unicode case comparison and upper-casing of UTF-8 names.
#include <gtest/gtest.h>

#include <string>

#include "tavo/error.h"
#include "tavo/testing.h"
#include "tavo/util.h"

namespace {

int Sign(int v) { return (v > 0) - (v < 0); }

TEST(UnicodeCaseCmpTest, LettersBeyondAsciiMatchIgnoringCase) {
  EXPECT_EQ(TLIBCUnicodeUTF8StrCaseCmp("ärzte", "ÄRZTE"), 0);
  EXPECT_EQ(TLIBCUnicodeUTF8StrCaseCmp("Straße", "STRAßE"), 0);
  EXPECT_EQ(TLIBCUnicodeUTF8StrCaseCmp("σοφία", "ΣΟΦΊΑ"), 0);
  // Final and medial sigma are spellings of one letter.
  EXPECT_EQ(TLIBCUnicodeUTF8StrCaseCmp("λόγος", "ΛΌΓΟΣ"), 0);
  EXPECT_EQ(TLIBCUnicodeUTF8StrCaseCmp("Привет", "пРИВЕТ"), 0);
  EXPECT_NE(TLIBCUnicodeUTF8StrCaseCmp("ärzte", "arzte"), 0);
  // The Turkish dotless and dotted I are other letters, never a spelling of "i".
  EXPECT_NE(TLIBCUnicodeUTF8StrCaseCmp("admın", "admin"), 0);
  EXPECT_NE(TLIBCUnicodeUTF8StrCaseCmp("İnfo", "info"), 0);
  // The name store's keys follow the same rule.
  EXPECT_EQ(tavo::CaseFoldKey("Straße"), tavo::CaseFoldKey("STRAẞE"));
  EXPECT_EQ(tavo::CaseFoldKey("λόγος"), tavo::CaseFoldKey("ΛΌΓΟΣ"));
  EXPECT_NE(tavo::CaseFoldKey("admın"), tavo::CaseFoldKey("ADMIN"));
}

TEST(UnicodeCaseCmpTest, OrdersLikeStrcmpOfFoldedNames) {
  EXPECT_LT(TLIBCUnicodeUTF8StrCaseCmp("apple", "Banana"), 0);
  EXPECT_GT(TLIBCUnicodeUTF8StrCaseCmp("banana", "APPLE"), 0);
  EXPECT_LT(TLIBCUnicodeUTF8StrCaseCmp("staff", "STAFFS"), 0);
  EXPECT_GT(TLIBCUnicodeUTF8StrCaseCmp("STAFFS", "staff"), 0);
  EXPECT_LT(TLIBCUnicodeUTF8StrCaseCmp("zebra", "Ärzte"), 0);  // U+00E4 after 'z'
  EXPECT_LT(TLIBCUnicodeUTF8StrCaseCmp(nullptr, ""), 0);
  EXPECT_GT(TLIBCUnicodeUTF8StrCaseCmp("", nullptr), 0);
  EXPECT_EQ(TLIBCUnicodeUTF8StrCaseCmp(nullptr, nullptr), 0);
  // Antisymmetric across a mix of cases.
  const char* names[] = {"users", "Users", "ärzte", "Ä", "\xff", "a\xe4", "", "Σ"};
  for (const char* a : names) {
    for (const char* b : names) {
      EXPECT_EQ(Sign(TLIBCUnicodeUTF8StrCaseCmp(a, b)), -Sign(TLIBCUnicodeUTF8StrCaseCmp(b, a)))
          << a << " / " << b;
    }
  }
}

TEST(UnicodeCaseCmpTest, InvalidBytesCompareAsThemselves) {
  EXPECT_EQ(TLIBCUnicodeUTF8StrCaseCmp("a\xff", "A\xff"), 0);
  EXPECT_NE(TLIBCUnicodeUTF8StrCaseCmp("a\xff", "a\xfe"), 0);
  // A stray Latin-1 byte is not the letter it would be in Latin-1.
  EXPECT_NE(TLIBCUnicodeUTF8StrCaseCmp("\xe4", "ä"), 0);
  EXPECT_NE(TLIBCUnicodeUTF8StrCaseCmp("\xc3", "\xc3\x84"), 0);  // truncated sequence
  EXPECT_NE(TLIBCUnicodeUTF8StrCaseCmp("\xc0\xc1", "A"), 0);     // overlong "A"
}

TEST(UnicodeUpperTest, UpperCasesIntoTheBuffer) {
  char out[492];
  EXPECT_EQ(TLIBCUnicodeUTF8StrUpper("ärzte", out, sizeof(out)), 6);
  EXPECT_STREQ(out, "ÄRZTE");
  EXPECT_GT(TLIBCUnicodeUTF8StrUpper("λόγος-ς", out, sizeof(out)), 0);
  EXPECT_STREQ(out, "ΛΌΓΟΣ-Σ");
  EXPECT_EQ(TLIBCUnicodeUTF8StrUpper("", out, sizeof(out)), 0);
  EXPECT_STREQ(out, "");
  // Simple mapping: one code point each, so "ß" stays and the dotless ı
  // shrinks to a one-byte "I".
  EXPECT_EQ(TLIBCUnicodeUTF8StrUpper("ßı", out, sizeof(out)), 3);
  EXPECT_STREQ(out, "ßI");
}

TEST(UnicodeUpperTest, RefusesWhatDoesNotFitOrIsNotUtf8) {
  char out[8];
  EXPECT_EQ(TLIBCUnicodeUTF8StrUpper("ärzte", out, 7), 6);  // exactly fits with the NUL
  EXPECT_EQ(TLIBCUnicodeUTF8StrUpper("ärzte", out, 6), -1);
  EXPECT_EQ(TLIBCErrGet(), TAVO_ERR_LIMIT);
  EXPECT_STREQ(out, "");
  EXPECT_EQ(TLIBCUnicodeUTF8StrUpper("x", out, 0), -1);
  EXPECT_EQ(TLIBCErrGet(), TAVO_ERR_LIMIT);
  EXPECT_EQ(TLIBCUnicodeUTF8StrUpper("ab\xff", out, sizeof(out)), -1);
  EXPECT_EQ(TLIBCErrGet(), TAVO_ERR_BAD_VALUE);
  EXPECT_EQ(TLIBCUnicodeUTF8StrUpper("\xed\xa0\x80", out, sizeof(out)), -1);  // a surrogate
  EXPECT_EQ(TLIBCErrGet(), TAVO_ERR_BAD_VALUE);
  EXPECT_EQ(TLIBCUnicodeUTF8StrUpper(nullptr, out, sizeof(out)), -1);
  EXPECT_EQ(TLIBCErrGet(), TAVO_ERR_ARGUMENT);
}

TEST(UnicodeUpperTest, FaultPointFailsTheNextCalls) {
  char out[16];
  tavo::testing::FailNext("user.upper", TAVO_ERR_NOMEM, 2);
  EXPECT_EQ(TLIBCUnicodeUTF8StrUpper("a", out, sizeof(out)), -1);
  EXPECT_EQ(TLIBCErrGet(), TAVO_ERR_NOMEM);
  EXPECT_EQ(TLIBCUnicodeUTF8StrUpper("a", out, sizeof(out)), -1);
  EXPECT_EQ(TLIBCUnicodeUTF8StrUpper("a", out, sizeof(out)), 1);
  tavo::testing::ClearFaults();
}

}  // namespace
