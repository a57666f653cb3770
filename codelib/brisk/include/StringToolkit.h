// The wildcard string family: searching and matching on character arrays with
// explicit lengths, for `char` and for 16-bit characters (`char16_t`) from one
// text. Each function and character type is a performance site of its own,
// named as "FindingString(char)" or "FindingString(wchar)".
//
// A length of -1 means up to the terminating zero. Null or impossible
// arguments give the result for "no match" (0, -1 or null); nothing is
// reported. Lists of patterns are separated by ',' or ';'.
//
// Wildcards of a pattern: '*' takes any run of characters, '?' exactly one,
// '#' one digit or a '#'.
#pragma once

#include <cstdint>
#include <type_traits>

// Search flags, shared by the whole family.
constexpr uint32_t STR_IGNORE_CASE = 0x01;    // a-z equal A-Z (ASCII only)
constexpr uint32_t STR_WILDCARDS = 0x02;      // '?' and '#' in the pattern are honoured
constexpr uint32_t STR_HASH_LITERAL = 0x04;   // '#' is an ordinary character
constexpr uint32_t STR_ANY_SLASH = 0x08;      // '\\' and '/' compare equal
constexpr uint32_t STR_WHOLE_WORD = 0x10;     // no letter, digit or '_' beside a find
constexpr uint32_t STR_FROM_END = 0x40;       // FindingString: the last occurrence

// Which part of the text a wildcard of MatchingString took.
struct MatchSpan {
  int32_t start;
  int32_t length;
};

// The Knuth-Morris-Pratt failure function of `pattern`, with the character
// compare of `flags`: `vector` gets one entry per character, vector[0] = -1.
template <class C>
void CalcKMPTraitVector(int32_t* vector, const C* pattern, int32_t patternLen, uint32_t flags);

// Index of the first occurrence of `pattern` in `text` (of the last with
// STR_FROM_END), or -1. An empty pattern is found at 0 in a text that is not
// empty. `outLineCount`, when given, gets the number of line feeds in front of
// the occurrence (0 when there is none). `vector` is the failure function of
// the pattern for the same flags, or null to have it computed here. With
// STR_WHOLE_WORD a pattern that is not itself a word is searched plainly.
template <class C>
int32_t FindingString(const C* text, const C* pattern, int32_t textLen, int32_t patternLen,
                      uint32_t flags, int32_t* outLineCount, const int32_t* vector);

// 1 if all of `text` matches all of the zero-terminated `pattern`. A '*'
// takes the first place its following segment occurs (no backtracking); a
// segment at the end of the pattern is anchored at the end of the text.
// `outSpans`, when given, receives what each wildcard took, in text order
// (room for one span per wildcard of the pattern); `outSpanCount` their count.
// '?' and '#' are always wildcards here ('#' unless STR_HASH_LITERAL).
template <class C>
int32_t MatchingString(const C* text, const C* pattern, uint32_t flags, int32_t textLen,
                       MatchSpan* outSpans, int32_t* outSpanCount);

// Matches `text` against each pattern of `list`: 1 if any matches (empty
// items skipped), or with `matchAll` set, 1 if every item does (an empty item
// matches only an empty text). An empty list matches only an empty text.
template <class C>
int32_t MultiMatching(const C* text, const C* list, int32_t matchAll, uint32_t flags,
                      int32_t textLen);

// MultiMatching for file names: case and the kind of slash never matter,
// whatever `flags` say. The item "*." (exactly) matches a name without an
// extension: not empty, and no '.' behind its last slash.
template <class C>
int32_t MultiMatchingFileName(const C* text, const C* list, int32_t matchAll, uint32_t flags,
                              int32_t textLen);

// The first `c` in `text`, or null. With `doubleByte` set (char only) a byte
// with the top bit set is taken with its follower as one character and
// skipped.
template <class C>
const C* StrFindChar(const C* text, std::type_identity_t<C> c, int32_t length, int32_t doubleByte);

// The last character from `last` back to `first` that is in the
// zero-terminated `set`, or null.
template <class C>
const C* StrFindLastOf(const C* first, const C* last, const C* set);
