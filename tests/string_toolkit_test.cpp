#include "StringToolkit.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "PerformanceSite.h"

namespace {

// The cases are written once in ASCII and run for both character types.
template <class C>
std::basic_string<C> S(const char* text) {
  std::basic_string<C> out;
  for (const char* p = text; *p; ++p) out.push_back(static_cast<C>(static_cast<unsigned char>(*p)));
  return out;
}

// A text, a pattern (or list), flags and the expected result.
struct TextCase {
  const char* text;
  const char* pattern;
  uint32_t flags;
  int32_t expected;
};

template <class C>
class StringToolkitTest : public ::testing::Test {};
using CharTypes = ::testing::Types<char, char16_t>;
TYPED_TEST_SUITE(StringToolkitTest, CharTypes);

TYPED_TEST(StringToolkitTest, MatchingString) {
  using C = TypeParam;
  const TextCase cases[] = {
      {"a.txt", "*.TXT", STR_IGNORE_CASE, 1},
      {"a.txt", "*.TXT", 0, 0},
      {"ab", "a?", 0, 1},
      {"abc", "a?", 0, 0},
      {"a", "a?", 0, 0},
      {"ab12", "ab##", 0, 1},
      {"ab12", "ab##", STR_HASH_LITERAL, 0},
      {"ab##", "ab##", STR_HASH_LITERAL, 1},
      {"ab#1", "ab##", 0, 1},
      {"abcabc", "*bc", 0, 1},
      {"abcabd", "*bc*d", 0, 1},
      {"aXbXc", "a*X*c", 0, 1},
      {"aXbc", "a*b*bc", 0, 0},
      {"a/b", "a\\b", STR_ANY_SLASH, 1},
      {"a/b", "a\\b", 0, 0},
      {"abc", "abc", 0, 1},
      {"abcd", "abc", 0, 0},
      {"", "", 0, 1},
      {"a", "", 0, 0},
      {"", "*", 0, 1},
      {"anything", "**", 0, 1},
      {"ab", "abc*", 0, 0},
  };
  for (const TextCase& c : cases) {
    EXPECT_EQ(MatchingString(S<C>(c.text).c_str(), S<C>(c.pattern).c_str(), c.flags, -1, nullptr,
                             nullptr),
              c.expected)
        << c.text << " ~ " << c.pattern;
  }
  const C empty[1] = {0};
  EXPECT_EQ(MatchingString<C>(nullptr, nullptr, 0, -1, nullptr, nullptr), 1);
  EXPECT_EQ(MatchingString<C>(empty, nullptr, 0, -1, nullptr, nullptr), 0);
  EXPECT_EQ(MatchingString<C>(nullptr, empty, 0, -1, nullptr, nullptr), 0);
  // An explicit length shorter than the text.
  EXPECT_EQ(MatchingString(S<C>("abcdef").c_str(), S<C>("a*c").c_str(), 0, 3, nullptr, nullptr), 1);
}

TYPED_TEST(StringToolkitTest, MatchingStringSpans) {
  using C = TypeParam;
  MatchSpan spans[8];
  int32_t count = -1;
  ASSERT_EQ(MatchingString(S<C>("xaYbZ12").c_str(), S<C>("x?Y*Z#?").c_str(), 0, -1, spans, &count), 1);
  // "?" at 1, "*" from 3 ("b"), then the anchored tail "Z#?": "#" at 5, "?" at 6.
  const std::vector<std::pair<int32_t, int32_t>> expected = {{1, 1}, {3, 1}, {5, 1}, {6, 1}};
  ASSERT_EQ(count, 4);
  for (int i = 0; i < count; ++i) {
    EXPECT_EQ(spans[i].start, expected[i].first) << i;
    EXPECT_EQ(spans[i].length, expected[i].second) << i;
  }
  ASSERT_EQ(MatchingString(S<C>("abXcdXe").c_str(), S<C>("ab*X*").c_str(), 0, -1, spans, &count), 1);
  ASSERT_EQ(count, 2);
  EXPECT_EQ(spans[0].start, 2);  // the middle segment: span up to its find
  EXPECT_EQ(spans[0].length, 0);
  EXPECT_EQ(spans[1].start, 3);  // the trailing "*" takes the rest
  EXPECT_EQ(spans[1].length, 4);
  count = 9;
  EXPECT_EQ(MatchingString(S<C>("a").c_str(), S<C>("b").c_str(), 0, -1, spans, &count), 0);
  EXPECT_EQ(count, 0);
}

TYPED_TEST(StringToolkitTest, FindingString) {
  using C = TypeParam;
  const TextCase cases[] = {
      {"concat cat", "cat", STR_WHOLE_WORD, 7},
      {"concat", "cat", STR_WHOLE_WORD, -1},
      {"concat", "cat", 0, 3},
      {"a-b a-b", "a-b", STR_WHOLE_WORD, 0},  // not a word: plain search
      {"abc", "", 0, 0},
      {"", "", 0, -1},
      {"ab", "abc", 0, -1},
      {"xABCx", "abc", STR_IGNORE_CASE, 1},
      {"xABCx", "abc", 0, -1},
      {"abcabc", "bc", STR_FROM_END, 4},
      {"aaa", "aa", STR_FROM_END, 1},
      {"v12 v3x", "v#x", STR_WILDCARDS, 4},
      {"v12 v3x", "v?x", 0, -1},
      {"v12 v3x", "v?x", STR_WILDCARDS, 4},
      {"aabaabaaa", "aabaaa", 0, 3},
      {"c:/dir", "\\dir", STR_ANY_SLASH, 2},
  };
  for (const TextCase& c : cases) {
    EXPECT_EQ(FindingString(S<C>(c.text).c_str(), S<C>(c.pattern).c_str(), -1, -1, c.flags, nullptr,
                            nullptr),
              c.expected)
        << c.text << " / " << c.pattern << " flags " << c.flags;
  }
  int32_t lines = -1;
  EXPECT_EQ(FindingString(S<C>("a\nb\nxyz\nxyz").c_str(), S<C>("xyz").c_str(), -1, -1, 0, &lines, nullptr), 4);
  EXPECT_EQ(lines, 2);
  EXPECT_EQ(FindingString(S<C>("a\nb\nxyz\nxyz").c_str(), S<C>("xyz").c_str(), -1, -1, STR_FROM_END,
                          &lines, nullptr),
            8);
  EXPECT_EQ(lines, 3);
  EXPECT_EQ(FindingString(S<C>("abc").c_str(), S<C>("q").c_str(), -1, -1, 0, &lines, nullptr), -1);
  EXPECT_EQ(lines, 0);
  EXPECT_EQ(FindingString(S<C>("abc").c_str(), S<C>("b").c_str(), -2, -1, 0, nullptr, nullptr), -1);
  // A vector given by the caller is used as it is.
  const std::basic_string<C> pattern = S<C>("abab");
  int32_t vector[4];
  CalcKMPTraitVector(vector, pattern.c_str(), 4, 0);
  EXPECT_EQ(std::vector<int32_t>(vector, vector + 4), (std::vector<int32_t>{-1, 0, 0, 1}));
  EXPECT_EQ(FindingString(S<C>("aababab").c_str(), pattern.c_str(), -1, 4, 0, nullptr, vector), 1);
}

TYPED_TEST(StringToolkitTest, LongPatternUsesTheHeap) {
  using C = TypeParam;
  std::basic_string<C> pattern(1500, C('a'));
  pattern.back() = C('b');
  std::basic_string<C> text(3000, C('a'));
  text += pattern;
  EXPECT_EQ(FindingString(text.c_str(), pattern.c_str(), -1, -1, 0, nullptr, nullptr), 3000);
}

TYPED_TEST(StringToolkitTest, MultiMatching) {
  using C = TypeParam;
  struct Case {
    const char* text;
    const char* list;
    int32_t matchAll;
    int32_t expected;
  } cases[] = {
      {"a.txt", "*.doc;*.txt", 0, 1},
      {"a.txt", "*.doc,*.pdf", 0, 0},
      {"a.txt", "a*,*.txt", 1, 1},
      {"a.txt", "a*,*.doc", 1, 0},
      {"a.txt", "a*;", 1, 0},  // an empty item fails unless the text is empty
      {"a.txt", "a*;", 0, 1},
      {"", "", 0, 1},
      {"x", "", 0, 0},
      {"x", ";;,", 0, 0},
      {"", ";;", 1, 1},
      {"a\\b", "a/b", 0, 0},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(MultiMatching(S<C>(c.text).c_str(), S<C>(c.list).c_str(), c.matchAll, 0, -1), c.expected)
        << c.text << " in " << c.list << " all " << c.matchAll;
  }
  EXPECT_EQ(MultiMatching<C>(nullptr, nullptr, 0, 0, -1), 1);
}

TYPED_TEST(StringToolkitTest, MultiMatchingFileName) {
  using C = TypeParam;
  const char* hosts = "vb6.exe;vb7.exe;vb8.exe;iexplore.exe;pythonw.exe";
  const TextCase cases[] = {
      {"pythonw.EXE", hosts, 0, 1},
      {"IExplore.exe", hosts, STR_FROM_END, 1},
      {"python.exe", hosts, 0, 0},
      {"a\\b", "a/b", 0, 1},
      {"readme", "*.", 0, 1},
      {"readme.txt", "*.", 0, 0},
      {"a.b\\readme", "*.", 0, 1},
      {"a.b/readme", "*.", 0, 1},
      {"", "*.", 0, 0},
      {"readme.txt", "*.doc;*.", 0, 0},
      {"readme.txt", "*.doc;*.TXT", 0, 1},
      {"", "", 0, 1},
  };
  for (const TextCase& c : cases) {
    EXPECT_EQ(MultiMatchingFileName(S<C>(c.text).c_str(), S<C>(c.pattern).c_str(), 0, c.flags, -1),
              c.expected)
        << c.text << " in " << c.pattern;
  }
}

TYPED_TEST(StringToolkitTest, FindCharAndLastOf) {
  using C = TypeParam;
  const std::basic_string<C> text = S<C>("a/b\\c.d");
  EXPECT_EQ(StrFindChar(text.c_str(), C('/'), -1, 0), text.c_str() + 1);
  EXPECT_EQ(StrFindChar(text.c_str(), C('d'), 6, 0), nullptr);  // beyond the length
  EXPECT_EQ(StrFindChar<C>(nullptr, C('a'), -1, 0), nullptr);
  const std::basic_string<C> set = S<C>("/\\");
  const C* last = text.c_str() + text.size() - 1;
  EXPECT_EQ(StrFindLastOf(text.c_str(), last, set.c_str()), text.c_str() + 3);
  EXPECT_EQ(StrFindLastOf(text.c_str(), text.c_str(), set.c_str()), nullptr);
  EXPECT_EQ(StrFindLastOf(text.c_str() + 1, text.c_str() + 1, set.c_str()), text.c_str() + 1);
}

TEST(StringToolkitDoubleByte, LeadBytesAreSkipped) {
  // 0x81 0x2F is one character whose second byte is '/'.
  const char text[] = "\x81/a/";
  EXPECT_EQ(StrFindChar(text, '/', -1, 0), text + 1);
  EXPECT_EQ(StrFindChar(text, '/', -1, 1), text + 3);
}

TEST(StringToolkitSites, EachTypeIsItsOwnSite) {
  MatchingString("a", "a", 0, -1, nullptr, nullptr);
  MatchingString(u"a", u"a", 0, -1, nullptr, nullptr);
  MultiMatchingFileName(u"x", u"*", 0, 0, -1);
  FindingString("ab", "b", -1, -1, 0, nullptr, nullptr);
  int32_t v[1];
  CalcKMPTraitVector(v, "a", 1, 0);
  for (const char* name : {"MatchingString(char)", "MatchingString(wchar)", "FindingString(char)",
                           "MultiMatchingFileName(wchar)", "CalcKMPTraitVector(char)"}) {
    PerformanceSite* site = FindPerformanceSite(name, "codelib");
    ASSERT_NE(site, nullptr) << name;
    EXPECT_GT(site->calls.load(), 0u) << name;
  }
}

}  // namespace
