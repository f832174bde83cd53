// Comparison of property values: LPropCompareProp orders two values of one type,
// FPropCompareProp applies a relational operator, FPropContainsProp matches text and bytes at a
// fuzzy level. Text compares as code points without regard to case, as MAPI sorts it; binary
// values compare by length first, then byte by byte; multi-valued values element by element, a
// shorter list first when one is a prefix of the other.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "mapi/propcopy.h"
#include "mapi/propregex.h"
#include "mapi/proptext.h"
#include "mapiutil.h"

using adp::mapi::BaseType;
using adp::mapi::CodePointsOf;
using adp::mapi::IsMultiValued;

namespace {

template <class T> LONG Order(const T& a, const T& b) { return a < b ? -1 : (b < a ? 1 : 0); }

// Absent pointers sort before present ones.
LONG OrderPresence(const void* a, const void* b) { return Order(a != nullptr, b != nullptr); }

// Case-insensitive order of code points, read in place: sorts compare text many times.
template <class C> LONG CompareText(const C* a, const C* b) {
  if (!a || !b) return OrderPresence(a, b);
  adp::mapi::CodePointReader x(a), y(b);
  for (;;) {
    char32_t cx = 0, cy = 0;
    bool hasX = x.Next(cx), hasY = y.Next(cy);
    if (!hasX || !hasY) return Order(hasX, hasY);
    LONG r = Order(adp::mapi::FoldCase(cx), adp::mapi::FoldCase(cy));
    if (r != 0) return r;
  }
}

LONG CompareBinary(const SBinary& a, const SBinary& b) {
  if (a.cb != b.cb) return Order(a.cb, b.cb);
  if (a.cb == 0) return 0;
  if (!a.lpb || !b.lpb) return OrderPresence(a.lpb, b.lpb);
  int r = std::memcmp(a.lpb, b.lpb, a.cb);
  return r < 0 ? -1 : (r > 0 ? 1 : 0);
}

LONG CompareGuid(const GUID* a, const GUID* b) {
  if (!a || !b) return OrderPresence(a, b);
  int r = std::memcmp(a, b, sizeof(GUID));
  return r < 0 ? -1 : (r > 0 ? 1 : 0);
}

uint64_t Ticks(const FILETIME& ft) { return (uint64_t(ft.dwHighDateTime) << 32) | ft.dwLowDateTime; }

// Values without an order of their own (PT_NULL, PT_OBJECT, unknown types) compare by their
// raw first eight bytes: consistent, and zero only when equal.
LONG CompareRaw(const __UPV& a, const __UPV& b) { return Order(uint64_t(a.li.QuadPart), uint64_t(b.li.QuadPart)); }

LONG CompareSingle(ULONG type, const __UPV& a, const __UPV& b) {
  switch (type) {
    case PT_I2:
      return Order(a.i, b.i);
    case PT_LONG:
      return Order(a.l, b.l);
    case PT_R4:
      return Order(a.flt, b.flt);
    case PT_DOUBLE:
      return Order(a.dbl, b.dbl);
    case PT_APPTIME:
      return Order(a.at, b.at);
    case PT_CURRENCY:
      return Order(a.cur.int64, b.cur.int64);
    case PT_I8:
      return Order(a.li.QuadPart, b.li.QuadPart);
    case PT_SYSTIME:
      return Order(Ticks(a.ft), Ticks(b.ft));
    case PT_BOOLEAN:
      return Order(a.b != 0, b.b != 0);
    case PT_ERROR:
      return Order(ULONG(a.err), ULONG(b.err));
    case PT_STRING8:
      return CompareText(a.lpszA, b.lpszA);
    case PT_UNICODE:
      return CompareText(a.lpszW, b.lpszW);
    case PT_BINARY:
      return CompareBinary(a.bin, b.bin);
    case PT_CLSID:
      return CompareGuid(a.lpguid, b.lpguid);
    default:
      return CompareRaw(a, b);
  }
}

// Element-wise over two arrays; a missing array counts as empty.
template <class T, class Cmp>
LONG CompareArrays(const T* a, ULONG na, const T* b, ULONG nb, Cmp cmp) {
  if (!a) na = 0;
  if (!b) nb = 0;
  for (ULONG i = 0; i < na && i < nb; ++i)
    if (LONG r = cmp(a[i], b[i])) return r;
  return Order(na, nb);
}

template <class T> LONG CompareScalars(const T* a, ULONG na, const T* b, ULONG nb) {
  return CompareArrays(a, na, b, nb, [](const T& x, const T& y) { return Order(x, y); });
}

LONG CompareMulti(ULONG type, const __UPV& a, const __UPV& b) {
  switch (type) {
    case PT_I2:
      return CompareScalars(a.MVi.lpi, a.MVi.cValues, b.MVi.lpi, b.MVi.cValues);
    case PT_LONG:
      return CompareScalars(a.MVl.lpl, a.MVl.cValues, b.MVl.lpl, b.MVl.cValues);
    case PT_R4:
      return CompareScalars(a.MVflt.lpflt, a.MVflt.cValues, b.MVflt.lpflt, b.MVflt.cValues);
    case PT_DOUBLE:
      return CompareScalars(a.MVdbl.lpdbl, a.MVdbl.cValues, b.MVdbl.lpdbl, b.MVdbl.cValues);
    case PT_APPTIME:
      return CompareScalars(a.MVat.lpat, a.MVat.cValues, b.MVat.lpat, b.MVat.cValues);
    case PT_CURRENCY:
      return CompareArrays(a.MVcur.lpcur, a.MVcur.cValues, b.MVcur.lpcur, b.MVcur.cValues,
                           [](const CURRENCY& x, const CURRENCY& y) { return Order(x.int64, y.int64); });
    case PT_I8:
      return CompareArrays(a.MVli.lpli, a.MVli.cValues, b.MVli.lpli, b.MVli.cValues,
                           [](const LARGE_INTEGER& x, const LARGE_INTEGER& y) { return Order(x.QuadPart, y.QuadPart); });
    case PT_SYSTIME:
      return CompareArrays(a.MVft.lpft, a.MVft.cValues, b.MVft.lpft, b.MVft.cValues,
                           [](const FILETIME& x, const FILETIME& y) { return Order(Ticks(x), Ticks(y)); });
    case PT_CLSID:
      return CompareArrays(a.MVguid.lpguid, a.MVguid.cValues, b.MVguid.lpguid, b.MVguid.cValues,
                           [](const GUID& x, const GUID& y) { return CompareGuid(&x, &y); });
    case PT_STRING8:
      return CompareArrays(a.MVszA.lppszA, a.MVszA.cValues, b.MVszA.lppszA, b.MVszA.cValues,
                           [](const LPSTR& x, const LPSTR& y) { return CompareText(x, y); });
    case PT_UNICODE:
      return CompareArrays(a.MVszW.lppszW, a.MVszW.cValues, b.MVszW.lppszW, b.MVszW.cValues,
                           [](const LPWSTR& x, const LPWSTR& y) { return CompareText(x, y); });
    case PT_BINARY:
      return CompareArrays(a.MVbin.lpbin, a.MVbin.cValues, b.MVbin.lpbin, b.MVbin.cValues, CompareBinary);
    default:
      return Order(a.MVl.cValues, b.MVl.cValues);
  }
}

template <class C> bool Matches(std::basic_string_view<C> hay, std::basic_string_view<C> needle, ULONG level) {
  switch (level) {
    case FL_FULLSTRING:
      return hay == needle;
    case FL_PREFIX:
      return hay.substr(0, needle.size()) == needle;
    case FL_SUBSTRING:
      return hay.find(needle) != std::basic_string_view<C>::npos;
    default:
      return false;
  }
}

template <class C> bool ContainsText(const C* hay, const C* needle, ULONG fuzzy) {
  if (!hay || !needle) return false;
  bool ignoreCase = (fuzzy & (FL_IGNORECASE | FL_LOOSE)) != 0;
  bool ignoreNonSpace = (fuzzy & (FL_IGNORENONSPACE | FL_LOOSE)) != 0;
  std::u32string h = adp::mapi::NormalizeText(CodePointsOf(hay), ignoreCase, ignoreNonSpace);
  std::u32string n = adp::mapi::NormalizeText(CodePointsOf(needle), ignoreCase, ignoreNonSpace);
  return Matches<char32_t>(h, n, fuzzy & 0xFFFF);
}

bool ContainsBytes(const SBinary& hay, const SBinary& needle, ULONG fuzzy) {
  if ((hay.cb && !hay.lpb) || (needle.cb && !needle.lpb)) return false;
  const BYTE* h = hay.lpb;
  const BYTE* n = needle.lpb;
  switch (fuzzy & 0xFFFF) {
    case FL_FULLSTRING:
      return hay.cb == needle.cb && (needle.cb == 0 || std::memcmp(h, n, needle.cb) == 0);
    case FL_PREFIX:
      return hay.cb >= needle.cb && (needle.cb == 0 || std::memcmp(h, n, needle.cb) == 0);
    case FL_SUBSTRING:
      return needle.cb == 0 || (hay.cb >= needle.cb && std::search(h, h + hay.cb, n, n + needle.cb) != h + hay.cb);
    default:
      return false;
  }
}

bool ContainsSingle(ULONG type, const __UPV& hay, const __UPV& needle, ULONG fuzzy) {
  switch (type) {
    case PT_STRING8:
      return ContainsText(hay.lpszA, needle.lpszA, fuzzy);
    case PT_UNICODE:
      return ContainsText(hay.lpszW, needle.lpszW, fuzzy);
    case PT_BINARY:
      return ContainsBytes(hay.bin, needle.bin, fuzzy);
    default:
      return false;
  }
}

// A multi-valued property contains the pattern when any of its values does.
bool ContainsInAny(ULONG type, const __UPV& hay, const __UPV& needle, ULONG fuzzy) {
  switch (type) {
    case PT_STRING8:
      for (ULONG i = 0; hay.MVszA.lppszA && i < hay.MVszA.cValues; ++i)
        if (ContainsText(hay.MVszA.lppszA[i], needle.lpszA, fuzzy)) return true;
      return false;
    case PT_UNICODE:
      for (ULONG i = 0; hay.MVszW.lppszW && i < hay.MVszW.cValues; ++i)
        if (ContainsText(hay.MVszW.lppszW[i], needle.lpszW, fuzzy)) return true;
      return false;
    case PT_BINARY:
      for (ULONG i = 0; hay.MVbin.lpbin && i < hay.MVbin.cValues; ++i)
        if (ContainsBytes(hay.MVbin.lpbin[i], needle.bin, fuzzy)) return true;
      return false;
    default:
      return false;
  }
}

}  // namespace

// Values of different types order by type, so the result stays consistent for any pair.
extern "C" LONG STDAPICALLTYPE LPropCompareProp(LPSPropValue lpSPropValueA, LPSPropValue lpSPropValueB) {
  if (!lpSPropValueA || !lpSPropValueB) return OrderPresence(lpSPropValueA, lpSPropValueB);
  ULONG typeA = PROP_TYPE(lpSPropValueA->ulPropTag);
  ULONG typeB = PROP_TYPE(lpSPropValueB->ulPropTag);
  if (typeA != typeB) return Order(typeA, typeB);
  ULONG base = BaseType(lpSPropValueA->ulPropTag);
  return IsMultiValued(typeA) ? CompareMulti(base, lpSPropValueA->Value, lpSPropValueB->Value)
                              : CompareSingle(base, lpSPropValueA->Value, lpSPropValueB->Value);
}

extern "C" BOOL STDAPICALLTYPE FPropCompareProp(LPSPropValue lpSPropValue1, ULONG ulRelOp,
                                                LPSPropValue lpSPropValue2) {
  if (!lpSPropValue1 || !lpSPropValue2) return FALSE;
  if (PROP_TYPE(lpSPropValue1->ulPropTag) != PROP_TYPE(lpSPropValue2->ulPropTag)) return FALSE;
  if (ulRelOp == RELOP_RE) return adp::mapi::MatchesPattern(*lpSPropValue1, *lpSPropValue2) ? TRUE : FALSE;
  LONG r = LPropCompareProp(lpSPropValue1, lpSPropValue2);
  switch (ulRelOp) {
    case RELOP_LT:
      return r < 0;
    case RELOP_LE:
      return r <= 0;
    case RELOP_GT:
      return r > 0;
    case RELOP_GE:
      return r >= 0;
    case RELOP_EQ:
      return r == 0;
    case RELOP_NE:
      return r != 0;
    default:
      return FALSE;
  }
}

// lpSPropValueDst is searched for lpSPropValueSrc.
extern "C" BOOL STDAPICALLTYPE FPropContainsProp(LPSPropValue lpSPropValueDst, LPSPropValue lpSPropValueSrc,
                                                 ULONG ulFuzzyLevel) {
  if (!lpSPropValueDst || !lpSPropValueSrc) return FALSE;
  if (IsMultiValued(lpSPropValueSrc->ulPropTag)) return FALSE;
  ULONG base = BaseType(lpSPropValueSrc->ulPropTag);
  if (BaseType(lpSPropValueDst->ulPropTag) != base) return FALSE;
  if (IsMultiValued(lpSPropValueDst->ulPropTag))
    return ContainsInAny(base, lpSPropValueDst->Value, lpSPropValueSrc->Value, ulFuzzyLevel);
  return ContainsSingle(base, lpSPropValueDst->Value, lpSPropValueSrc->Value, ulFuzzyLevel);
}
