#include <gtest/gtest.h>

#include <string>

#include <oleauto.h>

#include "com_test_objects.h"

namespace {

TEST(Variant, ClearReleasesWhatTheVariantOwns) {
  comtest::CountedUnknown object;
  VARIANT v;
  VariantInit(&v);
  EXPECT_EQ(v.vt, VT_EMPTY);

  object.AddRef();
  v.vt = VT_UNKNOWN;
  v.punkVal = &object;
  ASSERT_EQ(VariantClear(&v), S_OK);
  EXPECT_EQ(v.vt, VT_EMPTY);
  EXPECT_EQ(object.Refs(), 1u);

  v.vt = VT_BSTR;
  v.bstrVal = SysAllocString(u"owned");
  ASSERT_EQ(VariantClear(&v), S_OK);  // freed (leak-checked)

  v.vt = VT_ARRAY | VT_UNKNOWN;
  v.parray = SafeArrayCreateVector(VT_UNKNOWN, 0, 1);
  LONG zero = 0;
  ASSERT_EQ(SafeArrayPutElement(v.parray, &zero, &object), S_OK);
  EXPECT_EQ(object.Refs(), 2u);
  ASSERT_EQ(VariantClear(&v), S_OK);
  EXPECT_EQ(object.Refs(), 1u);

  // By reference nothing is owned.
  LONG target = 5;
  v.vt = VT_BYREF | VT_I4;
  v.plVal = &target;
  ASSERT_EQ(VariantClear(&v), S_OK);
  EXPECT_EQ(target, 5);
}

TEST(Variant, CopyIsDeepAndClearsTheDestinationFirst) {
  comtest::CountedUnknown object;
  VARIANT src, dst;
  VariantInit(&src);
  VariantInit(&dst);
  dst.vt = VT_BSTR;
  dst.bstrVal = SysAllocString(u"old");  // must be freed by the copy

  const char16_t text[] = {u'a', 0, u'b'};
  src.vt = VT_BSTR;
  src.bstrVal = SysAllocStringLen(text, 3);
  ASSERT_EQ(VariantCopy(&dst, &src), S_OK);
  ASSERT_EQ(dst.vt, VT_BSTR);
  EXPECT_NE(dst.bstrVal, src.bstrVal);
  EXPECT_EQ(std::u16string(dst.bstrVal, SysStringLen(dst.bstrVal)), std::u16string(text, 3));
  VariantClear(&src);

  object.AddRef();
  src.vt = VT_DISPATCH;
  src.punkVal = &object;
  ASSERT_EQ(VariantCopy(&dst, &src), S_OK);
  EXPECT_EQ(object.Refs(), 3u);
  ASSERT_EQ(VariantCopy(&dst, &dst), S_OK);  // onto itself: unchanged
  EXPECT_EQ(object.Refs(), 3u);
  VariantClear(&dst);
  VariantClear(&src);
  EXPECT_EQ(object.Refs(), 1u);

  src.vt = VT_ARRAY | VT_BSTR;
  src.parray = SafeArrayCreateVector(VT_BSTR, 0, 1);
  ASSERT_EQ(VariantCopy(&dst, &src), S_OK);
  EXPECT_NE(dst.parray, src.parray);
  VariantClear(&src);
  VariantClear(&dst);
}

TEST(Variant, BadTypesAreRefusedAndLeaveTheDestinationAlone) {
  VARIANT bad, dst;
  VariantInit(&bad);
  VariantInit(&dst);
  bad.vt = 0x7F;
  EXPECT_EQ(VariantClear(&bad), DISP_E_BADVARTYPE);
  dst.vt = VT_I4;
  dst.lVal = 9;
  EXPECT_EQ(VariantCopy(&dst, &bad), DISP_E_BADVARTYPE);
  EXPECT_EQ(dst.vt, VT_I4);
  EXPECT_EQ(dst.lVal, 9);
  bad.vt = VT_VARIANT;  // only valid by reference or in an array
  EXPECT_EQ(VariantClear(&bad), DISP_E_BADVARTYPE);
  EXPECT_EQ(VariantClear(nullptr), E_INVALIDARG);
  EXPECT_EQ(VariantCopy(nullptr, &dst), E_INVALIDARG);
  EXPECT_EQ(VariantCopy(&dst, nullptr), E_INVALIDARG);
}

}  // namespace
