#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <comdef.h>

#include "com_test_objects.h"
#include "testserver.h"

_COM_SMARTPTR_TYPEDEF(ITestCounter, __uuidof(ITestCounter));

namespace {

// A local ITestCounter whose QueryInterface can be told to fail with any code.
class LocalCounter : public ITestCounter {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    *ppv = nullptr;
    if (m_queryFailure != S_OK && riid != IID_IUnknown) return m_queryFailure;
    if (riid != IID_IUnknown && riid != IID_ITestCounter) return E_NOINTERFACE;
    *ppv = static_cast<ITestCounter*>(this);
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_refs; }
  ULONG STDMETHODCALLTYPE Release() override { return --m_refs; }
  HRESULT STDMETHODCALLTYPE SetValue(LONG) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE GetValue(LONG* p) override {
    *p = 5;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE LiveObjects(LONG* p) override {
    *p = 1;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Fail(HRESULT hr) override { return hr; }

  ULONG Refs() const { return m_refs; }
  HRESULT m_queryFailure = S_OK;

 private:
  ULONG m_refs = 1;
};

std::u16string Wide(const _bstr_t& b) {
  const WCHAR* w = b;
  return w ? std::u16string(w, b.length()) : std::u16string();
}

TEST(BstrHolder, ConvertsBetweenUtf8AndUtf16) {
  _bstr_t text("Grüße €");
  EXPECT_EQ(text.length(), 7u);
  EXPECT_EQ(Wide(text), u"Grüße €");
  EXPECT_STREQ(static_cast<const char*>(text), "Grüße €");
  // The narrow form is converted once and kept.
  EXPECT_EQ(static_cast<const char*>(text), static_cast<const char*>(text));

  _bstr_t wide(u"wide");
  EXPECT_STREQ(static_cast<const char*>(wide), "wide");
  EXPECT_EQ(SysStringLen(static_cast<WCHAR*>(wide)), 4u);

  const char16_t raw[] = {u'a', 0, u'b'};
  _bstr_t embedded(SysAllocStringLen(raw, 3), false);
  EXPECT_EQ(embedded.length(), 3u);
  EXPECT_EQ(std::memcmp(static_cast<const char*>(embedded), "a\0b", 3), 0);
}

TEST(BstrHolder, CopiesShareOneStringAndOwnershipTransfers) {
  _bstr_t a("shared");
  _bstr_t b = a;
  EXPECT_EQ(static_cast<const WCHAR*>(a), static_cast<const WCHAR*>(b));
  b = "other";
  EXPECT_EQ(Wide(a), u"shared");
  EXPECT_EQ(Wide(b), u"other");

  BSTR copy = a.copy();
  EXPECT_NE(copy, static_cast<const WCHAR*>(a));
  EXPECT_EQ(std::u16string(copy), u"shared");
  SysFreeString(copy);
  EXPECT_EQ(a.copy(false), static_cast<const WCHAR*>(a));

  // Detach gives the string away; a shared one is copied so the other holder keeps its own.
  _bstr_t c = a;
  BSTR detached = c.Detach();
  EXPECT_TRUE(!c);
  EXPECT_EQ(std::u16string(detached), u"shared");
  EXPECT_EQ(Wide(a), u"shared");
  SysFreeString(detached);
  BSTR sole = b.Detach();
  EXPECT_EQ(std::u16string(sole), u"other");
  b.Attach(sole);  // owned again
  EXPECT_EQ(Wide(b), u"other");

  BSTR* slot = b.GetAddress();  // frees "other"
  EXPECT_EQ(*slot, nullptr);
  *slot = SysAllocString(u"filled");
  EXPECT_EQ(Wide(b), u"filled");
  EXPECT_STREQ(static_cast<const char*>(b), "filled");

  _bstr_t assigned;
  assigned.Assign(static_cast<BSTR>(a));
  EXPECT_NE(static_cast<const WCHAR*>(assigned), static_cast<const WCHAR*>(a));
  EXPECT_EQ(assigned, a);
  _bstr_t viaRef;
  viaRef.GetBSTR() = SysAllocString(u"ref");
  EXPECT_EQ(Wide(viaRef), u"ref");
}

TEST(BstrHolder, ConcatenationAndComparison) {
  _bstr_t a("abc");
  _bstr_t joined = a + "def";
  EXPECT_EQ(Wide(joined), u"abcdef");
  joined += _bstr_t(u"!");
  EXPECT_EQ(Wide(joined), u"abcdef!");
  EXPECT_EQ(Wide("<" + a), u"<abc");
  EXPECT_EQ(Wide(u"<" + a), u"<abc");

  EXPECT_TRUE(a == "abc");
  EXPECT_TRUE(a != "abd");
  EXPECT_TRUE(a == _bstr_t(u"abc"));
  EXPECT_TRUE(a < _bstr_t("abd"));
  EXPECT_TRUE(a < _bstr_t("abca"));
  EXPECT_TRUE(_bstr_t("b") > a);
  EXPECT_TRUE(a <= a && a >= a);

  _bstr_t null;
  _bstr_t empty("");
  EXPECT_TRUE(!null);
  EXPECT_FALSE(!empty);
  EXPECT_TRUE(null == empty);  // a NULL string equals the empty one
  EXPECT_EQ(null.length(), 0u);
  EXPECT_EQ(static_cast<const char*>(null), nullptr);
  EXPECT_EQ(Wide(null + a), u"abc");
}

TEST(BstrHolder, NarrowFormFromManyThreads) {
  _bstr_t shared("concurrent text");
  std::vector<std::thread> threads;
  std::vector<const char*> seen(4, nullptr);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&shared, &seen, i] {
      _bstr_t mine = shared;  // copies share the cache
      seen[i] = mine;
    });
  }
  for (auto& t : threads) t.join();
  for (const char* s : seen) {
    EXPECT_EQ(s, seen[0]);
    EXPECT_STREQ(s, "concurrent text");
  }
}

TEST(ComError, CodesTextsAndErrorObjects) {
  _com_error fail(E_FAIL);
  EXPECT_EQ(fail.Error(), E_FAIL);
  EXPECT_STREQ(fail.ErrorMessage(), "Unspecified error");
  EXPECT_EQ(fail.ErrorInfo(), nullptr);
  EXPECT_EQ(fail.GUID(), GUID_NULL);
  EXPECT_EQ(fail.Description().length(), 0u);
  EXPECT_STREQ(_com_error(HRESULT(0x800A1234)).ErrorMessage(), "Unknown error 0x800A1234");
  EXPECT_STREQ(_com_error(E_INVALIDARG).ErrorMessage(), "The parameter is incorrect.");

  _com_error dispatch(_com_error::WCodeToHRESULT(7));
  EXPECT_EQ(dispatch.WCode(), 7);
  EXPECT_STREQ(dispatch.ErrorMessage(), "IDispatch error #7");

  auto* info = new comtest::TestErrorInfo(u"the details", IID_IStream);
  {
    _com_error withInfo(E_ACCESSDENIED, info, true);
    EXPECT_EQ(info->Refs(), 2u);
    _com_error copy = withInfo;
    EXPECT_EQ(info->Refs(), 3u);
    EXPECT_EQ(copy.Description(), _bstr_t("the details"));
    EXPECT_EQ(copy.Source(), _bstr_t("TestSource"));
    EXPECT_EQ(copy.HelpContext(), 77u);
    EXPECT_EQ(copy.GUID(), IID_IStream);
    IErrorInfo* given = copy.ErrorInfo();
    EXPECT_EQ(given, info);
    given->Release();
    copy = _com_error(E_FAIL);
    EXPECT_EQ(info->Refs(), 2u);
  }
  EXPECT_EQ(info->Refs(), 1u);
  info->Release();

  try {
    _com_issue_error(E_OUTOFMEMORY);
  } catch (const _com_error& e) {
    EXPECT_EQ(e.Error(), E_OUTOFMEMORY);
  }
}

TEST(ComPtr, ReferenceCountingAndOwnership) {
  LocalCounter object;
  {
    ITestCounterPtr p(&object);
    EXPECT_EQ(object.Refs(), 2u);
    ITestCounterPtr copy = p;
    EXPECT_EQ(object.Refs(), 3u);
    ITestCounterPtr moved = std::move(copy);
    EXPECT_EQ(object.Refs(), 3u);
    EXPECT_TRUE(copy == nullptr);
    EXPECT_TRUE(moved == p);
    EXPECT_EQ(p.GetInterfacePtr(), &object);
    ITestCounter* detached = moved.Detach();
    EXPECT_EQ(object.Refs(), 3u);
    moved.Attach(detached);  // takes the reference over
    EXPECT_EQ(object.Refs(), 3u);
    ITestCounter** slot = &moved;  // releases
    EXPECT_EQ(object.Refs(), 2u);
    EXPECT_EQ(*slot, nullptr);
    LONG v = 0;
    p->GetValue(&v);
    EXPECT_EQ(v, 5);
  }
  EXPECT_EQ(object.Refs(), 1u);
}

TEST(ComPtr, QueryingAndComparingThroughOtherInterfaces) {
  LocalCounter object;
  {
    IUnknownPtr unknown(static_cast<IUnknown*>(&object));
    ITestCounterPtr counter(unknown);  // queries
    ASSERT_TRUE(counter);
    EXPECT_TRUE(counter == unknown);  // same identity
    EXPECT_FALSE(counter != unknown);
    IStreamPtr stream(unknown);  // not supported: null, no exception
    EXPECT_FALSE(stream);
    IStreamPtr fromRaw(static_cast<ITestCounter*>(&object));
    EXPECT_FALSE(fromRaw);
  }
  EXPECT_EQ(object.Refs(), 1u);

  object.m_queryFailure = E_UNEXPECTED;
  IUnknownPtr unknown(static_cast<IUnknown*>(&object));
  EXPECT_THROW(ITestCounterPtr failing(unknown), _com_error);
  try {
    ITestCounterPtr failing(unknown);
  } catch (const _com_error& e) {
    EXPECT_EQ(e.Error(), E_UNEXPECTED);
  }
  unknown = nullptr;
  EXPECT_EQ(object.Refs(), 1u);
}

TEST(ComPtr, NullUseRaisesComError) {
  ITestCounterPtr none;
  EXPECT_TRUE(none == nullptr);
  EXPECT_TRUE(nullptr == none);
  EXPECT_FALSE(none);
  try {
    none->SetValue(1);
    ADD_FAILURE() << "no _com_error";
  } catch (const _com_error& e) {
    EXPECT_EQ(e.Error(), E_POINTER);
  }
  EXPECT_THROW(none.Release(), _com_error);
  EXPECT_THROW(none.AddRef(), _com_error);
  EXPECT_THROW(*none, _com_error);
  EXPECT_THROW(ITestCounterPtr bad(1), _com_error);
  EXPECT_EQ(none.CreateInstance(static_cast<LPCWSTR>(nullptr)), E_INVALIDARG);
}

TEST(VariantHolder, OwnsItsContents) {
  comtest::CountedUnknown object;
  {
    _variant_t number(LONG(42));
    EXPECT_EQ(number.vt, VT_I4);
    EXPECT_EQ(number.lVal, 42);
    _variant_t flag(true);
    EXPECT_EQ(flag.boolVal, VARIANT_TRUE);
    _variant_t text("héllo");
    ASSERT_EQ(text.vt, VT_BSTR);
    EXPECT_EQ(std::u16string(text.bstrVal), u"héllo");
    _variant_t copy = text;
    EXPECT_NE(copy.bstrVal, text.bstrVal);

    _variant_t unknown(static_cast<IUnknown*>(&object));
    EXPECT_EQ(object.Refs(), 2u);
    _variant_t second = unknown;
    EXPECT_EQ(object.Refs(), 3u);
    VARIANT raw = second.Detach();
    EXPECT_EQ(second.vt, VT_EMPTY);
    _variant_t adopted(raw, false);
    EXPECT_EQ(object.Refs(), 3u);
    EXPECT_THROW(_variant_t(LONG(1), VT_BSTR), _com_error);
  }
  EXPECT_EQ(object.Refs(), 1u);
}

}  // namespace
