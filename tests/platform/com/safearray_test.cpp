#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include <oleauto.h>

#include "com_test_objects.h"

namespace {

std::u16string Text(BSTR b) { return b ? std::u16string(b, SysStringLen(b)) : std::u16string(); }

// A real BSTR for the duration of one call.
struct TempBstr {
  explicit TempBstr(const char16_t* s) : b(SysAllocString(s)) {}
  ~TempBstr() { SysFreeString(b); }
  BSTR b;
};

TEST(SafeArray, PublishedLayout) {
  EXPECT_EQ(sizeof(SAFEARRAYBOUND), 8u);
  EXPECT_EQ(offsetof(SAFEARRAY, cDims), 0u);
  EXPECT_EQ(offsetof(SAFEARRAY, fFeatures), 2u);
  EXPECT_EQ(offsetof(SAFEARRAY, cbElements), 4u);
  EXPECT_EQ(offsetof(SAFEARRAY, cLocks), 8u);
  EXPECT_EQ(offsetof(SAFEARRAY, pvData), 16u);
  EXPECT_EQ(offsetof(SAFEARRAY, rgsabound), 24u);
  EXPECT_EQ(sizeof(VARIANT), 24u);
  EXPECT_EQ(offsetof(VARIANT, vt), 0u);
  EXPECT_EQ(offsetof(VARIANT, lVal), 8u);
  EXPECT_EQ(offsetof(VARIANT, pRecInfo), 16u);
}

TEST(SafeArray, BoundsWithNonZeroLowerBound) {
  SAFEARRAY* psa = SafeArrayCreateVector(VT_I4, -2, 5);
  ASSERT_NE(psa, nullptr);
  EXPECT_EQ(SafeArrayGetDim(psa), 1u);
  EXPECT_EQ(SafeArrayGetElemsize(psa), 4u);
  LONG lo = 0, hi = 0;
  ASSERT_EQ(SafeArrayGetLBound(psa, 1, &lo), S_OK);
  ASSERT_EQ(SafeArrayGetUBound(psa, 1, &hi), S_OK);
  EXPECT_EQ(lo, -2);
  EXPECT_EQ(hi, 2);
  VARTYPE vt = VT_EMPTY;
  ASSERT_EQ(SafeArrayGetVartype(psa, &vt), S_OK);
  EXPECT_EQ(vt, VT_I4);
  EXPECT_EQ(SafeArrayGetLBound(psa, 0, &lo), DISP_E_BADINDEX);
  EXPECT_EQ(SafeArrayGetUBound(psa, 2, &hi), DISP_E_BADINDEX);

  for (LONG i = -2; i <= 2; ++i) {
    LONG value = i * 10;
    ASSERT_EQ(SafeArrayPutElement(psa, &i, &value), S_OK);
  }
  LONG* data = nullptr;
  ASSERT_EQ(SafeArrayAccessData(psa, reinterpret_cast<void**>(&data)), S_OK);
  EXPECT_EQ(data[0], -20);  // element -2 is the first in memory
  EXPECT_EQ(data[4], 20);
  ASSERT_EQ(SafeArrayUnaccessData(psa), S_OK);

  LONG index = 1, got = 0;
  ASSERT_EQ(SafeArrayGetElement(psa, &index, &got), S_OK);
  EXPECT_EQ(got, 10);
  for (LONG bad : {-3, 3, -2147483647 - 1, 2147483647}) {
    EXPECT_EQ(SafeArrayGetElement(psa, &bad, &got), DISP_E_BADINDEX) << bad;
    EXPECT_EQ(SafeArrayPutElement(psa, &bad, &got), DISP_E_BADINDEX) << bad;
  }
  EXPECT_EQ(SafeArrayDestroy(psa), S_OK);

  // An empty array's upper bound is one below its lower bound.
  SAFEARRAY* empty = SafeArrayCreateVector(VT_BSTR, 0, 0);
  ASSERT_NE(empty, nullptr);
  ASSERT_EQ(SafeArrayGetUBound(empty, 1, &hi), S_OK);
  EXPECT_EQ(hi, -1);
  LONG zero = 0;
  BSTR none = nullptr;
  EXPECT_EQ(SafeArrayGetElement(empty, &zero, &none), DISP_E_BADINDEX);
  EXPECT_EQ(SafeArrayDestroy(empty), S_OK);
}

TEST(SafeArray, BstrElementsAreCopiedInAndOut) {
  SAFEARRAY* psa = SafeArrayCreateVector(VT_BSTR, 1, 2);
  ASSERT_NE(psa, nullptr);
  const char16_t withNul[] = {u'x', 0, u'y'};
  BSTR source = SysAllocStringLen(withNul, 3);
  LONG i = 1;
  ASSERT_EQ(SafeArrayPutElement(psa, &i, source), S_OK);
  SysFreeString(source);  // the array holds its own copy

  BSTR out = nullptr;
  ASSERT_EQ(SafeArrayGetElement(psa, &i, &out), S_OK);
  EXPECT_EQ(Text(out), std::u16string(withNul, 3));
  BSTR* stored = nullptr;
  ASSERT_EQ(SafeArrayPtrOfIndex(psa, &i, reinterpret_cast<void**>(&stored)), S_OK);
  EXPECT_NE(*stored, out);  // a copy, not the element
  SysFreeString(out);

  // Replacing frees the old string; storing NULL is allowed.
  ASSERT_EQ(SafeArrayPutElement(psa, &i, TempBstr(u"second").b), S_OK);
  LONG j = 2;
  ASSERT_EQ(SafeArrayPutElement(psa, &j, nullptr), S_OK);
  ASSERT_EQ(SafeArrayGetElement(psa, &i, &out), S_OK);
  EXPECT_EQ(Text(out), u"second");
  SysFreeString(out);
  ASSERT_EQ(SafeArrayGetElement(psa, &j, &out), S_OK);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(SafeArrayDestroy(psa), S_OK);  // frees the remaining strings (leak-checked)
}

TEST(SafeArray, InterfaceElementsHoldReferencesUntilDestroyed) {
  comtest::CountedUnknown a, b;
  SAFEARRAY* psa = SafeArrayCreateVector(VT_UNKNOWN, 0, 3);
  ASSERT_NE(psa, nullptr);
  LONG i0 = 0, i1 = 1;
  ASSERT_EQ(SafeArrayPutElement(psa, &i0, &a), S_OK);
  ASSERT_EQ(SafeArrayPutElement(psa, &i1, &a), S_OK);
  EXPECT_EQ(a.Refs(), 3u);

  IUnknown* out = nullptr;
  ASSERT_EQ(SafeArrayGetElement(psa, &i0, &out), S_OK);
  EXPECT_EQ(out, &a);
  EXPECT_EQ(a.Refs(), 4u);
  out->Release();

  ASSERT_EQ(SafeArrayPutElement(psa, &i1, &b), S_OK);  // replaces: a released, b added
  EXPECT_EQ(a.Refs(), 2u);
  EXPECT_EQ(b.Refs(), 2u);
  ASSERT_EQ(SafeArrayPutElement(psa, &i1, &b), S_OK);  // storing over itself keeps one reference
  EXPECT_EQ(b.Refs(), 2u);

  // A locked array refuses destruction and keeps every reference.
  ASSERT_EQ(SafeArrayLock(psa), S_OK);
  EXPECT_EQ(SafeArrayDestroy(psa), DISP_E_ARRAYISLOCKED);
  EXPECT_EQ(a.Refs(), 2u);
  ASSERT_EQ(SafeArrayUnlock(psa), S_OK);
  EXPECT_EQ(SafeArrayUnlock(psa), E_UNEXPECTED);

  EXPECT_EQ(SafeArrayDestroy(psa), S_OK);
  EXPECT_EQ(a.Refs(), 1u);
  EXPECT_EQ(b.Refs(), 1u);
}

TEST(SafeArray, VariantElementsAreDeepCopies) {
  comtest::CountedUnknown object;
  SAFEARRAY* psa = SafeArrayCreateVector(VT_VARIANT, 0, 2);
  ASSERT_NE(psa, nullptr);
  VARIANT v;
  VariantInit(&v);
  v.vt = VT_BSTR;
  v.bstrVal = SysAllocString(u"text");
  LONG i0 = 0, i1 = 1;
  ASSERT_EQ(SafeArrayPutElement(psa, &i0, &v), S_OK);
  VariantClear(&v);
  v.vt = VT_UNKNOWN;
  v.punkVal = &object;
  ASSERT_EQ(SafeArrayPutElement(psa, &i1, &v), S_OK);  // v itself holds no reference here
  EXPECT_EQ(object.Refs(), 2u);

  VARIANT out;
  VariantInit(&out);
  ASSERT_EQ(SafeArrayGetElement(psa, &i0, &out), S_OK);
  ASSERT_EQ(out.vt, VT_BSTR);
  EXPECT_EQ(Text(out.bstrVal), u"text");
  VariantClear(&out);
  EXPECT_EQ(SafeArrayDestroy(psa), S_OK);
  EXPECT_EQ(object.Refs(), 1u);
}

TEST(SafeArray, RedimKeepsContentsAndReleasesWhatIsCut) {
  comtest::CountedUnknown object;
  SAFEARRAY* psa = SafeArrayCreateVector(VT_UNKNOWN, 0, 4);
  ASSERT_NE(psa, nullptr);
  for (LONG i = 0; i < 4; ++i) ASSERT_EQ(SafeArrayPutElement(psa, &i, &object), S_OK);
  EXPECT_EQ(object.Refs(), 5u);

  SAFEARRAYBOUND smaller = {2, 0};
  ASSERT_EQ(SafeArrayRedim(psa, &smaller), S_OK);
  EXPECT_EQ(object.Refs(), 3u);

  SAFEARRAYBOUND larger = {6, 10};
  ASSERT_EQ(SafeArrayRedim(psa, &larger), S_OK);
  LONG lo, hi;
  SafeArrayGetLBound(psa, 1, &lo);
  SafeArrayGetUBound(psa, 1, &hi);
  EXPECT_EQ(lo, 10);
  EXPECT_EQ(hi, 15);
  IUnknown* out = nullptr;
  LONG kept = 11, added = 15;
  ASSERT_EQ(SafeArrayGetElement(psa, &kept, &out), S_OK);
  EXPECT_EQ(out, &object);
  out->Release();
  ASSERT_EQ(SafeArrayGetElement(psa, &added, &out), S_OK);
  EXPECT_EQ(out, nullptr);

  ASSERT_EQ(SafeArrayLock(psa), S_OK);
  EXPECT_EQ(SafeArrayRedim(psa, &smaller), DISP_E_ARRAYISLOCKED);
  ASSERT_EQ(SafeArrayUnlock(psa), S_OK);
  EXPECT_EQ(SafeArrayDestroy(psa), S_OK);
  EXPECT_EQ(object.Refs(), 1u);
}

TEST(SafeArray, CopyIsIndependent) {
  comtest::CountedUnknown object;
  SAFEARRAY* names = SafeArrayCreateVector(VT_BSTR, 5, 2);
  LONG i = 5;
  ASSERT_EQ(SafeArrayPutElement(names, &i, TempBstr(u"first").b), S_OK);
  SAFEARRAY* copy = nullptr;
  ASSERT_EQ(SafeArrayCopy(names, &copy), S_OK);
  ASSERT_NE(copy, nullptr);
  ASSERT_EQ(SafeArrayPutElement(names, &i, TempBstr(u"changed").b), S_OK);
  BSTR out = nullptr;
  ASSERT_EQ(SafeArrayGetElement(copy, &i, &out), S_OK);
  EXPECT_EQ(Text(out), u"first");
  SysFreeString(out);
  LONG lo;
  SafeArrayGetLBound(copy, 1, &lo);
  EXPECT_EQ(lo, 5);
  SafeArrayDestroy(names);
  SafeArrayDestroy(copy);

  SAFEARRAY* objects = SafeArrayCreateVector(VT_DISPATCH, 0, 1);
  LONG zero = 0;
  ASSERT_EQ(SafeArrayPutElement(objects, &zero, &object), S_OK);
  ASSERT_EQ(SafeArrayCopy(objects, &copy), S_OK);
  EXPECT_EQ(object.Refs(), 3u);
  SafeArrayDestroy(objects);
  SafeArrayDestroy(copy);
  EXPECT_EQ(object.Refs(), 1u);

  ASSERT_EQ(SafeArrayCopy(nullptr, &copy), S_OK);
  EXPECT_EQ(copy, nullptr);
  EXPECT_EQ(SafeArrayCopy(nullptr, nullptr), E_INVALIDARG);
}

TEST(SafeArray, BadInputIsRefused) {
  SAFEARRAYBOUND bounds[2] = {{2, 0}, {2, 0}};
  EXPECT_EQ(SafeArrayCreate(VT_I4, 2, bounds), nullptr);  // one dimension only
  EXPECT_EQ(SafeArrayCreate(VT_I4, 0, bounds), nullptr);
  EXPECT_EQ(SafeArrayCreate(VT_I4, 1, nullptr), nullptr);
  EXPECT_EQ(SafeArrayCreateVector(VT_EMPTY, 0, 1), nullptr);
  EXPECT_EQ(SafeArrayCreateVector(VT_RECORD, 0, 1), nullptr);
  EXPECT_EQ(SafeArrayCreateVector(VT_BSTR | VT_BYREF, 0, 1), nullptr);

  LONG index = 0, value = 0;
  void* data = nullptr;
  LONG bound;
  VARTYPE vt;
  EXPECT_EQ(SafeArrayDestroy(nullptr), S_OK);
  EXPECT_EQ(SafeArrayGetDim(nullptr), 0u);
  EXPECT_EQ(SafeArrayGetElemsize(nullptr), 0u);
  EXPECT_EQ(SafeArrayGetLBound(nullptr, 1, &bound), E_INVALIDARG);
  EXPECT_EQ(SafeArrayGetUBound(nullptr, 1, &bound), E_INVALIDARG);
  EXPECT_EQ(SafeArrayGetVartype(nullptr, &vt), E_INVALIDARG);
  EXPECT_EQ(SafeArrayLock(nullptr), E_INVALIDARG);
  EXPECT_EQ(SafeArrayUnlock(nullptr), E_INVALIDARG);
  EXPECT_EQ(SafeArrayAccessData(nullptr, &data), E_INVALIDARG);
  EXPECT_EQ(SafeArrayGetElement(nullptr, &index, &value), E_INVALIDARG);
  EXPECT_EQ(SafeArrayPutElement(nullptr, &index, &value), E_INVALIDARG);
  EXPECT_EQ(SafeArrayRedim(nullptr, nullptr), E_INVALIDARG);

  SAFEARRAY* psa = SafeArrayCreateVector(VT_I4, 0, 1);
  EXPECT_EQ(SafeArrayGetElement(psa, &index, nullptr), E_INVALIDARG);
  EXPECT_EQ(SafeArrayPutElement(psa, &index, nullptr), E_INVALIDARG);
  EXPECT_EQ(SafeArrayGetElement(psa, nullptr, &value), E_INVALIDARG);
  EXPECT_EQ(SafeArrayGetLBound(psa, 1, nullptr), E_INVALIDARG);
  EXPECT_EQ(SafeArrayRedim(psa, nullptr), E_INVALIDARG);
  EXPECT_EQ(SafeArrayDestroy(psa), S_OK);
}

}  // namespace
