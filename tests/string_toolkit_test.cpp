// The wildcard family is not run by the players: one contract test over both
// character types, one table row per rule.
#include "StringToolkit.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

template <class C>
std::basic_string<C> S(const char* text) {
  std::basic_string<C> out;
  for (const char* p = text; *p; ++p) out.push_back(static_cast<C>(static_cast<unsigned char>(*p)));
  return out;
}

// m MatchingString, f FindingString, a/A MultiMatching any/all, n MultiMatchingFileName.
constexpr uint32_t I = STR_IGNORE_CASE, W = STR_WILDCARDS, H = STR_HASH_LITERAL, SL = STR_ANY_SLASH,
                   WW = STR_WHOLE_WORD, E = STR_FROM_END;
const char* const kHosts = "vb6.exe;iexplore.exe;pythonw.exe";

const struct Case {
  char function;
  const char *text, *pattern;
  uint32_t flags;
  int32_t expected;
} kCases[] = {
    {'m', "a.txt", "*.TXT", I, 1}, {'m', "a.txt", "*.TXT", 0, 0}, {'m', "ab", "a?", 0, 1}, {'m', "a", "a?", 0, 0},
    {'m', "ab12", "ab##", 0, 1}, {'m', "ab12", "ab##", H, 0}, {'m', "ab##", "ab##", H, 1},
    {'m', "abcabd", "*bc*d", 0, 1}, {'m', "aXbXc", "a*X*c", 0, 1}, {'m', "aXbc", "a*b*bc", 0, 0},
    {'m', "a/b", "a\\b", SL, 1}, {'m', "a/b", "a\\b", 0, 0}, {'m', "abcd", "abc", 0, 0}, {'m', "", "", 0, 1},
    {'m', "a", "", 0, 0}, {'m', "", "*", 0, 1}, {'m', "ab", "abc*", 0, 0}, {'m', "ab", "*abc", 0, 0},
    {'f', "concat cat", "cat", WW, 7}, {'f', "concat", "cat", WW, -1}, {'f', "a-b a-b", "a-b", WW, 0},
    {'f', "abc", "", 0, 0}, {'f', "", "", 0, -1}, {'f', "ab", "abc", 0, -1}, {'f', "xABCx", "abc", I, 1},
    {'f', "abcabc", "bc", E, 4}, {'f', "aaa", "aa", E, 1}, {'f', "v12 v3x", "v#x", W, 4},
    {'f', "v12 v3x", "v?x", 0, -1}, {'f', "aabaabaaa", "aabaaa", 0, 3}, {'f', "c:/dir", "\\dir", SL, 2},
    {'a', "a.txt", "*.doc;*.txt", 0, 1}, {'a', "a.txt", "*.doc,*.pdf", 0, 0}, {'A', "a.txt", "a*,*.txt", 0, 1},
    {'A', "a.txt", "a*,*.doc", 0, 0}, {'A', "a.txt", "a*;", 0, 0}, {'a', "a.txt", "a*;", 0, 1}, {'a', "", "", 0, 1},
    {'a', "x", "", 0, 0}, {'A', "", ";;", 0, 1}, {'a', "a\\b", "a/b", 0, 0}, {'n', "pythonw.EXE", kHosts, 0, 1},
    {'n', "IExplore.exe", kHosts, E, 1}, {'n', "python.exe", kHosts, 0, 0}, {'n', "a\\b", "a/b", 0, 1},
    {'n', "readme", "*.", 0, 1}, {'n', "readme.txt", "*.doc;*.", 0, 0}, {'n', "a.b\\readme", "*.", 0, 1},
    {'n', "", "*.", 0, 0},
};

template <class C>
int32_t Run(const Case& c) {
  const std::basic_string<C> text = S<C>(c.text), pattern = S<C>(c.pattern);
  switch (c.function) {
    case 'm': return MatchingString(text.c_str(), pattern.c_str(), c.flags, -1, nullptr, nullptr);
    case 'f': return FindingString(text.c_str(), pattern.c_str(), -1, -1, c.flags, nullptr, nullptr);
    case 'a': return MultiMatching(text.c_str(), pattern.c_str(), 0, c.flags, -1);
    case 'A': return MultiMatching(text.c_str(), pattern.c_str(), 1, c.flags, -1);
    case 'n': return MultiMatchingFileName(text.c_str(), pattern.c_str(), 0, c.flags, -1);
  }
  return -2;
}

template <class C>
class StringToolkitTest : public ::testing::Test {};
using CharTypes = ::testing::Types<char, char16_t>;
TYPED_TEST_SUITE(StringToolkitTest, CharTypes);

TYPED_TEST(StringToolkitTest, Contract) {
  using C = TypeParam;
  for (const Case& c : kCases)
    EXPECT_EQ(Run<C>(c), c.expected) << c.function << ": " << c.text << " / " << c.pattern << " " << c.flags;
  const C empty[1] = {0};
  EXPECT_EQ(MatchingString<C>(nullptr, nullptr, 0, -1, nullptr, nullptr), 1);
  EXPECT_EQ(MatchingString<C>(empty, nullptr, 0, -1, nullptr, nullptr), 0);
  EXPECT_EQ(MultiMatching<C>(nullptr, nullptr, 0, 0, -1), 1);
  EXPECT_EQ(MatchingString(S<C>("abcdef").c_str(), S<C>("a*c").c_str(), 0, 3, nullptr, nullptr), 1);

  // What each wildcard took: a middle "*" up to its segment's find, a
  // trailing one the rest; the spans are counted even when none is given.
  MatchSpan spans[8];
  int32_t count = -1;
  auto Spans = [&](const char* text, const char* pattern) {
    std::vector<std::pair<int32_t, int32_t>> got;
    if (MatchingString(S<C>(text).c_str(), S<C>(pattern).c_str(), 0, -1, spans, &count) != 1) return got;
    for (int i = 0; i < count; ++i) got.emplace_back(spans[i].start, spans[i].length);
    return got;
  };
  using P = std::vector<std::pair<int32_t, int32_t>>;
  EXPECT_EQ(Spans("xaYbZ12", "x?Y*Z#?"), (P{{1, 1}, {3, 1}, {5, 1}, {6, 1}}));
  EXPECT_EQ(Spans("abXcdXe", "ab*X*"), (P{{2, 0}, {3, 4}}));
  EXPECT_EQ(Spans("a", "b"), P{});

  // The lines before a find; a caller's vector (forward only).
  int32_t lines = -1;
  const std::basic_string<C> text = S<C>("a\nb\nxyz\nxyz"), xyz = S<C>("xyz");
  EXPECT_EQ(FindingString(text.c_str(), xyz.c_str(), -1, -1, E, &lines, nullptr), 8);
  EXPECT_EQ(lines, 3);
  EXPECT_EQ(FindingString(text.c_str(), xyz.c_str(), -1, -1, 0, &lines, nullptr), 4);
  EXPECT_EQ(lines, 2);
  const std::basic_string<C> abab = S<C>("abab");
  int32_t vector[4];
  CalcKMPTraitVector(vector, abab.c_str(), 4, 0);
  EXPECT_EQ(FindingString(S<C>("aababab").c_str(), abab.c_str(), -1, 4, 0, nullptr, vector), 1);

  const std::basic_string<C> path = S<C>("a/b\\c.d"), slashes = S<C>("/\\");
  EXPECT_EQ(StrFindChar(path.c_str(), C('/'), -1, 0), path.c_str() + 1);
  EXPECT_EQ(StrFindChar(path.c_str(), C('d'), 6, 0), nullptr);  // beyond the length
  EXPECT_EQ(StrFindLastOf(path.c_str(), path.c_str() + 6, slashes.c_str()), path.c_str() + 3);
  EXPECT_EQ(StrFindLastOf(path.c_str(), path.c_str(), slashes.c_str()), nullptr);
  const char doubleByte[] = "\x81/a/";  // 0x81 0x2F is one character
  EXPECT_EQ(StrFindChar(doubleByte, '/', -1, 0), doubleByte + 1);
  EXPECT_EQ(StrFindChar(doubleByte, '/', -1, 1), doubleByte + 3);
}

}  // namespace
