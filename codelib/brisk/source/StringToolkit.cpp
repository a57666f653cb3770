#include "StringToolkit.h"

#include <cstdlib>
#include <cstring>

#include "PerformanceSite.h"

namespace {

// The site names of each character type.
template <class C>
struct Sites;
template <>
struct Sites<char> {
  static constexpr const char* kVector = "CalcKMPTraitVector(char)";
  static constexpr const char* kFinding = "FindingString(char)";
  static constexpr const char* kMatching = "MatchingString(char)";
  static constexpr const char* kMulti = "MultiMatching(char)";
  static constexpr const char* kMultiFile = "MultiMatchingFileName(char)";
  static constexpr const char* kFindChar = "StrFindChar(char)";
  static constexpr const char* kFindLastOf = "StrFindLastOf(char)";
};
template <>
struct Sites<char16_t> {
  static constexpr const char* kVector = "CalcKMPTraitVector(wchar)";
  static constexpr const char* kFinding = "FindingString(wchar)";
  static constexpr const char* kMatching = "MatchingString(wchar)";
  static constexpr const char* kMulti = "MultiMatching(wchar)";
  static constexpr const char* kMultiFile = "MultiMatchingFileName(wchar)";
  static constexpr const char* kFindChar = "StrFindChar(wchar)";
  static constexpr const char* kFindLastOf = "StrFindLastOf(wchar)";
};

template <class C>
int32_t Length(const C* text) {
  int32_t n = 0;
  while (text[n] != 0) ++n;
  return n;
}

template <class C>
bool IsDigit(C c) {
  return c >= '0' && c <= '9';
}
template <class C>
bool IsSlash(C c) {
  return c == '/' || c == '\\';
}
template <class C>
bool IsWordChar(C c) {
  return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
template <class C>
C Fold(C c) {
  return (c >= 'a' && c <= 'z') ? static_cast<C>(c - 'a' + 'A') : c;
}
template <class C>
bool IsSeparator(C c) {
  return c == ',' || c == ';';
}

// Two characters taken as equal under `flags`, without wildcards.
template <class C>
bool LiteralEqual(C a, C b, uint32_t flags) {
  if (a == b) return true;
  if ((flags & STR_IGNORE_CASE) && Fold(a) == Fold(b)) return true;
  return (flags & STR_ANY_SLASH) && IsSlash(a) && IsSlash(b);
}

// Whether `p` is a '#' wildcard under `flags`.
template <class C>
bool IsHashWildcard(C p, uint32_t flags) {
  return p == '#' && !(flags & STR_HASH_LITERAL);
}

// A pattern character against a text character; '?' and '#' are wildcards
// only with STR_WILDCARDS.
template <class C>
bool PatternMatches(C p, C t, uint32_t flags) {
  if (flags & STR_WILDCARDS) {
    if (p == '?') return true;
    if (IsHashWildcard(p, flags)) return t == '#' || IsDigit(t);
  }
  return LiteralEqual(p, t, flags);
}

// Two pattern characters, i and j, for the failure function.
template <class C>
bool VectorMatches(C atI, C atJ, uint32_t flags) {
  if (LiteralEqual(atI, atJ, flags)) return true;
  if (!(flags & STR_WILDCARDS)) return false;
  if (atI == '?' || atJ == '?') return true;
  return IsHashWildcard(atJ, flags) && (atI == '#' || IsDigit(atI));
}

// A text read forward or from its end.
template <class C>
struct View {
  const C* s;
  int32_t n;
  bool reversed;
  C operator[](int32_t k) const { return reversed ? s[n - 1 - k] : s[k]; }
};

template <class C>
void KmpVector(const View<C>& pattern, uint32_t flags, int32_t* vector) {
  if (pattern.n <= 0) return;
  vector[0] = -1;
  int32_t i = 0;
  int32_t j = -1;
  while (i < pattern.n - 1) {
    if (j == -1 || VectorMatches(pattern[i], pattern[j], flags)) {
      ++i;
      ++j;
      vector[i] = j;
    } else {
      j = vector[j];
    }
  }
}

// The scan of FindingString over views; the start of the occurrence in view
// coordinates, or -1.
template <class C>
int32_t KmpScan(const View<C>& text, const View<C>& pattern, uint32_t flags,
                const int32_t* vector) {
  const bool wholeWord = (flags & STR_WHOLE_WORD) != 0;
  int32_t i = 0;
  int32_t j = 0;
  while (i < text.n) {
    if (j == -1 || PatternMatches(pattern[j], text[i], flags)) {
      ++i;
      ++j;
      if (j < pattern.n) continue;
      const int32_t start = i - pattern.n;
      const bool boxedIn = wholeWord && ((start > 0 && IsWordChar(text[start - 1])) ||
                                         (i < text.n && IsWordChar(text[i])));
      if (!boxedIn) return start;
      i = start + 1;
      j = 0;
    } else {
      j = vector[j];
    }
  }
  return -1;
}

// A buffer of `n` ints on the stack up to 1024, else on the heap.
struct IndexBuffer {
  int32_t local[1024];
  int32_t* heap = nullptr;
  int32_t* Get(int32_t n) {
    if (n <= 1024) return local;
    heap = static_cast<int32_t*>(malloc(static_cast<size_t>(n) * sizeof(int32_t)));
    return heap;
  }
  ~IndexBuffer() { free(heap); }
};

template <class C>
int32_t MultiMatchingImpl(const C* text, const C* list, int32_t matchAll, uint32_t flags,
                          int32_t textLen, bool fileName) {
  if (textLen == -1) textLen = text != nullptr ? Length(text) : 0;
  if (list == nullptr || list[0] == 0) return textLen == 0 || text == nullptr || text[0] == 0;
  const int32_t listLen = Length(list);
  C* item = static_cast<C*>(malloc(static_cast<size_t>(listLen + 1) * sizeof(C)));
  if (item == nullptr) return 0;
  flags = (flags & ~STR_FROM_END) | STR_WILDCARDS;
  if (fileName) flags |= STR_IGNORE_CASE | STR_ANY_SLASH;

  int32_t result = matchAll ? 1 : 0;
  for (int32_t begin = 0; begin <= listLen;) {
    int32_t end = begin;
    while (end < listLen && !IsSeparator(list[end])) ++end;
    const int32_t length = end - begin;
    begin = end + 1;
    if (length == 0 && !matchAll) continue;
    memcpy(item, list + end - length, static_cast<size_t>(length) * sizeof(C));
    item[length] = 0;
    int32_t matched;
    if (fileName && length == 2 && item[0] == '*' && item[1] == '.') {
      // A name without an extension: no '.' behind its last slash.
      matched = 0;
      if (text != nullptr && textLen > 0) {
        int32_t from = textLen;
        while (from > 0 && !IsSlash(text[from - 1])) --from;
        matched = 1;
        for (int32_t k = from; k < textLen; ++k)
          if (text[k] == '.') matched = 0;
      }
    } else {
      matched = MatchingString(text, item, flags, textLen, nullptr, nullptr);
    }
    if (matched && !matchAll) {
      result = 1;
      break;
    }
    if (!matched && matchAll) {
      result = 0;
      break;
    }
  }
  free(item);
  return result;
}

}  // namespace

template <class C>
void CalcKMPTraitVector(int32_t* vector, const C* pattern, int32_t patternLen, uint32_t flags) {
  PERFORMANCE_SITE(Sites<C>::kVector);
  if (vector == nullptr || pattern == nullptr) return;
  if (patternLen == -1) patternLen = Length(pattern);
  KmpVector(View<C>{pattern, patternLen, false}, flags, vector);
}

template <class C>
int32_t FindingString(const C* text, const C* pattern, int32_t textLen, int32_t patternLen,
                      uint32_t flags, int32_t* outLineCount, const int32_t* vector) {
  PERFORMANCE_SITE(Sites<C>::kFinding);
  if (outLineCount) *outLineCount = 0;
  if (text == nullptr || pattern == nullptr) return -1;
  if (textLen == -1) textLen = Length(text);
  if (patternLen == -1) patternLen = Length(pattern);
  if (textLen < 0 || patternLen < 0) return -1;
  if (textLen == 0 || textLen < patternLen) return -1;
  if (patternLen == 0) return 0;

  if (flags & STR_WHOLE_WORD) {
    for (int32_t k = 0; k < patternLen; ++k)
      if (!IsWordChar(pattern[k])) {
        flags &= ~STR_WHOLE_WORD;
        break;
      }
  }
  const bool reversed = (flags & STR_FROM_END) != 0;
  const View<C> textView{text, textLen, reversed};
  const View<C> patternView{pattern, patternLen, reversed};
  IndexBuffer buffer;
  if (vector == nullptr || reversed) {  // a caller's vector is of the forward pattern
    int32_t* computed = buffer.Get(patternLen);
    if (computed == nullptr) return -1;
    KmpVector(patternView, flags, computed);
    vector = computed;
  }
  int32_t found = KmpScan(textView, patternView, flags, vector);
  if (found < 0) return -1;
  if (reversed) found = textLen - found - patternLen;
  if (outLineCount) {
    for (int32_t k = 0; k < found; ++k)
      if (text[k] == '\n') ++*outLineCount;
  }
  return found;
}

namespace {

// One run of MatchingString: the pattern walked left to right over the text,
// noting what each wildcard takes.
template <class C>
struct WildcardMatch {
  const C* text;
  int32_t textLen;
  const C* pattern;
  int32_t patternLen;
  uint32_t flags;
  MatchSpan* outSpans;
  int32_t spans = 0;
  int32_t p = 0;  // in the pattern
  int32_t t = 0;  // in the text

  int32_t Run() {
    while (p < patternLen) {
      if (pattern[p] == '*') {
        const int32_t decided = Star();
        if (decided >= 0) return decided;
      } else if (!One()) {
        return 0;
      }
    }
    return 1;
  }

 private:
  void Span(int32_t start, int32_t length) {
    if (outSpans) outSpans[spans] = MatchSpan{start, length};
    ++spans;
  }
  // Segments between stars compare with '?' and '#' as wildcards.
  uint32_t SegmentFlags() const { return (flags & ~STR_FROM_END) | STR_WILDCARDS; }

  // A run of '*' and the segment after it, taken at its first occurrence.
  // 1 or 0 when that decides the match, -1 to go on after the segment.
  int32_t Star() {
    while (p < patternLen && pattern[p] == '*') ++p;
    if (p == patternLen) {
      Span(t, textLen - t);
      return 1;
    }
    int32_t segmentEnd = p;
    while (segmentEnd < patternLen && pattern[segmentEnd] != '*') ++segmentEnd;
    const int32_t segmentLen = segmentEnd - p;
    if (segmentLen > textLen - t) return 0;
    if (segmentEnd == patternLen) return AnchoredTail(segmentLen);
    const int32_t found =
        FindingString(text + t, pattern + p, textLen - t, segmentLen, SegmentFlags(), nullptr, nullptr);
    if (found < 0) return 0;
    Span(t, found);
    t += found + segmentLen;
    p = segmentEnd;
    return -1;
  }

  // The pattern's last segment, after a star: it must end the text.
  int32_t AnchoredTail(int32_t segmentLen) {
    const int32_t tail = textLen - segmentLen;
    for (int32_t k = segmentLen - 1; k >= 0; --k)
      if (!PatternMatches(pattern[p + k], text[tail + k], SegmentFlags())) return 0;
    Span(t, tail - t);
    for (int32_t k = 0; k < segmentLen; ++k)
      if (pattern[p + k] == '?' || IsHashWildcard(pattern[p + k], flags)) Span(tail + k, 1);
    return 1;
  }

  // One pattern character outside a star's segment; the last one must also
  // end the text.
  bool One() {
    const C c = pattern[p];
    const C at = t < textLen ? text[t] : C(0);
    bool wildcard = false;
    if (c == '?') {
      if (t >= textLen) return false;
      wildcard = true;
    } else if (IsHashWildcard(c, flags)) {
      if (at != '#' && !IsDigit(at)) return false;
      wildcard = true;
    } else if (!LiteralEqual(c, at, flags)) {
      return false;
    }
    if (p == patternLen - 1 && textLen - t > 1) return false;
    if (wildcard) Span(t, 1);
    ++p;
    ++t;
    return true;
  }
};

}  // namespace

template <class C>
int32_t MatchingString(const C* text, const C* pattern, uint32_t flags, int32_t textLen,
                       MatchSpan* outSpans, int32_t* outSpanCount) {
  PERFORMANCE_SITE(Sites<C>::kMatching);
  if (outSpanCount) *outSpanCount = 0;
  if (pattern == nullptr) return text == nullptr;
  if (text == nullptr) return 0;
  if (textLen == -1) textLen = Length(text);
  if (textLen < 0) return 0;
  const int32_t patternLen = Length(pattern);
  if (patternLen == 0) return textLen == 0;
  WildcardMatch<C> match{text, textLen, pattern, patternLen, flags, outSpans};
  const int32_t result = match.Run();
  if (outSpanCount) *outSpanCount = match.spans;
  return result;
}

template <class C>
int32_t MultiMatching(const C* text, const C* list, int32_t matchAll, uint32_t flags,
                      int32_t textLen) {
  PERFORMANCE_SITE(Sites<C>::kMulti);
  return MultiMatchingImpl(text, list, matchAll, flags, textLen, false);
}

template <class C>
int32_t MultiMatchingFileName(const C* text, const C* list, int32_t matchAll, uint32_t flags,
                              int32_t textLen) {
  PERFORMANCE_SITE(Sites<C>::kMultiFile);
  return MultiMatchingImpl(text, list, matchAll, flags, textLen, true);
}

template <class C>
const C* StrFindChar(const C* text, std::type_identity_t<C> c, int32_t length, int32_t doubleByte) {
  PERFORMANCE_SITE(Sites<C>::kFindChar);
  if (text == nullptr) return nullptr;
  if (length == -1) length = Length(text);
  for (int32_t i = 0; i < length; ++i) {
    if (sizeof(C) == 1 && doubleByte && (static_cast<uint32_t>(text[i]) & 0x80)) {
      ++i;  // the lead byte and its follower are one character
      continue;
    }
    if (text[i] == c) return text + i;
  }
  return nullptr;
}

template <class C>
const C* StrFindLastOf(const C* first, const C* last, const C* set) {
  PERFORMANCE_SITE(Sites<C>::kFindLastOf);
  if (first == nullptr || last == nullptr || set == nullptr) return nullptr;
  for (const C* at = last; at >= first; --at) {
    for (const C* s = set; *s != 0; ++s)
      if (*at == *s) return at;
    if (at == first) break;
  }
  return nullptr;
}

#define STRING_TOOLKIT_INSTANCES(C)                                                          \
  template void CalcKMPTraitVector<C>(int32_t*, const C*, int32_t, uint32_t);               \
  template int32_t FindingString<C>(const C*, const C*, int32_t, int32_t, uint32_t, int32_t*, \
                                    const int32_t*);                                         \
  template int32_t MatchingString<C>(const C*, const C*, uint32_t, int32_t, MatchSpan*,      \
                                     int32_t*);                                              \
  template int32_t MultiMatching<C>(const C*, const C*, int32_t, uint32_t, int32_t);         \
  template int32_t MultiMatchingFileName<C>(const C*, const C*, int32_t, uint32_t, int32_t); \
  template const C* StrFindChar<C>(const C*, C, int32_t, int32_t);                           \
  template const C* StrFindLastOf<C>(const C*, const C*, const C*);

STRING_TOOLKIT_INSTANCES(char)
STRING_TOOLKIT_INSTANCES(char16_t)
