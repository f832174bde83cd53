#include "mapi/proptext.h"

namespace adp::mapi {

namespace {

bool IsContinuation(unsigned char b) { return (b & 0xC0) == 0x80; }

// Decodes one UTF-8 sequence at s; returns the number of bytes used (0 when it does not decode).
size_t DecodeUtf8(const unsigned char* s, char32_t& cp) {
  unsigned char b0 = s[0];
  if (b0 < 0x80) {
    cp = b0;
    return 1;
  }
  size_t len = b0 >= 0xF0 ? 4 : b0 >= 0xE0 ? 3 : b0 >= 0xC0 ? 2 : 0;
  if (len == 0 || b0 > 0xF4) return 0;
  char32_t value = b0 & (0x7F >> len);
  for (size_t i = 1; i < len; ++i) {
    if (!IsContinuation(s[i])) return 0;
    value = (value << 6) | (s[i] & 0x3F);
  }
  static const char32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
  if (value < kMin[len] || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return 0;
  cp = value;
  return len;
}

// Folding of the Latin Extended-A block (U+0100..U+017F), where upper and lower case alternate.
char32_t FoldLatinExtendedA(char32_t c) {
  if (c == 0x0130) return U'i';
  if (c == 0x0178) return 0x00FF;
  if (c == 0x017F) return U's';
  bool evenUpper = (c <= 0x012F) || (c >= 0x0132 && c <= 0x0137) || (c >= 0x014A && c <= 0x0177);
  bool oddUpper = (c >= 0x0139 && c <= 0x0148) || (c >= 0x0179 && c <= 0x017E);
  if (evenUpper && (c % 2) == 0) return c + 1;
  if (oddUpper && (c % 2) == 1) return c + 1;
  return c;
}

char32_t FoldGreek(char32_t c) {
  if (c >= 0x0391 && c <= 0x03A9 && c != 0x03A2) return c + 0x20;
  if (c == 0x0386) return 0x03AC;
  if (c >= 0x0388 && c <= 0x038A) return c + 0x25;
  if (c == 0x038C) return 0x03CC;
  if (c == 0x038E || c == 0x038F) return c + 0x3F;
  if (c == 0x03C2) return 0x03C3;  // final sigma
  return c;
}

char32_t FoldCyrillic(char32_t c) {
  if (c >= 0x0410 && c <= 0x042F) return c + 0x20;
  if (c >= 0x0400 && c <= 0x040F) return c + 0x50;
  if (((c >= 0x0460 && c <= 0x0481) || (c >= 0x048A && c <= 0x04BF)) && (c % 2) == 0) return c + 1;
  return c;
}

// Base letters of U+00C0..U+00FF; '*' keeps the letter (Æ, Ð, ×, Þ, ß, ...).
constexpr char kLatin1Base[] = "AAAAAA*CEEEEIIII*NOOOOO*OUUUUY**aaaaaa*ceeeeiiii*nooooo*ouuuuy*y";
// Base letters of U+0100..U+017F.
constexpr char kLatinABase[] =
    "AaAaAaCcCcCcCcDdDdEeEeEeEeEeGgGgGgGgHhHhIiIiIiIiIi**JjKk*LlLlLlLlLlNnNnNnn**OoOoOo**RrRrRr"
    "SsSsSsSsTtTtTtUuUuUuUuUuUuWwYyYZzZzZzs";
static_assert(sizeof(kLatin1Base) == 0x40 + 1 && sizeof(kLatinABase) == 0x80 + 1);

}  // namespace

bool CodePointReader::Next(char32_t& cp) {
  if (m_narrow) {
    if (*m_narrow == 0) return false;
    size_t used = DecodeUtf8(m_narrow, cp);
    if (used == 0) {
      cp = 0xDC00 + *m_narrow;
      used = 1;
    }
    m_narrow += used;
    return true;
  }
  if (!m_wide || *m_wide == 0) return false;
  char16_t u = m_wide[0];
  if (u >= 0xD800 && u <= 0xDBFF && m_wide[1] >= 0xDC00 && m_wide[1] <= 0xDFFF) {
    cp = 0x10000 + ((char32_t(u) - 0xD800) << 10) + (char32_t(m_wide[1]) - 0xDC00);
    m_wide += 2;
  } else {
    cp = u;
    ++m_wide;
  }
  return true;
}

namespace {

template <class C> std::u32string CollectCodePoints(const C* text) {
  std::u32string out;
  if (!text) return out;
  CodePointReader reader(text);
  for (char32_t cp = 0; reader.Next(cp);) out.push_back(cp);
  return out;
}

}  // namespace

std::u32string CodePointsOf(const char* text) { return CollectCodePoints(text); }
std::u32string CodePointsOf(const char16_t* text) { return CollectCodePoints(text); }

char32_t FoldCase(char32_t c) {
  if (c < 0x80) return (c >= U'A' && c <= U'Z') ? c + 0x20 : c;
  if (c >= 0x00C0 && c <= 0x00DE && c != 0x00D7) return c + 0x20;
  if (c >= 0x0100 && c <= 0x017F) return FoldLatinExtendedA(c);
  if (c >= 0x0370 && c <= 0x03FF) return FoldGreek(c);
  if (c >= 0x0400 && c <= 0x04FF) return FoldCyrillic(c);
  if (c >= 0xFF21 && c <= 0xFF3A) return c + 0x20;  // fullwidth Latin
  return c;
}

char32_t BaseLetter(char32_t c) {
  char base = '*';
  if (c >= 0x00C0 && c <= 0x00FF) base = kLatin1Base[c - 0x00C0];
  if (c >= 0x0100 && c <= 0x017F) base = kLatinABase[c - 0x0100];
  return base == '*' ? c : char32_t(base);
}

bool IsNonSpacing(char32_t c) {
  return (c >= 0x0300 && c <= 0x036F) || (c >= 0x1AB0 && c <= 0x1AFF) || (c >= 0x1DC0 && c <= 0x1DFF) ||
         (c >= 0x20D0 && c <= 0x20FF) || (c >= 0xFE20 && c <= 0xFE2F);
}

std::u32string NormalizeText(std::u32string text, bool ignoreCase, bool ignoreNonSpace) {
  std::u32string out;
  out.reserve(text.size());
  for (char32_t c : text) {
    if (ignoreNonSpace) {
      if (IsNonSpacing(c)) continue;
      c = BaseLetter(c);
    }
    out.push_back(ignoreCase ? FoldCase(c) : c);
  }
  return out;
}

}  // namespace adp::mapi
