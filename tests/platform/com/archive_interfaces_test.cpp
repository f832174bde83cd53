// The data provider interfaces: identities, binary slot positions, and the wrappers that turn
// failures into _com_error.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "../../../archive/ZT4DataProvider.h"

namespace {

using ::testing::_;
using ::testing::DoAll;
using ::testing::Return;
using ::testing::SetArgPointee;

// Vtable index of a virtual member function (Itanium C++ ABI: the pointer holds 1 + byte offset).
template <class C, class F> size_t SlotOf(F C::*member) {
  struct Representation {
    uintptr_t ptr;
    ptrdiff_t adj;
  } r;
  static_assert(sizeof(member) == sizeof(r));
  std::memcpy(&r, &member, sizeof(r));
  EXPECT_EQ(r.ptr & 1, 1u) << "not virtual";
  return (r.ptr - 1) / sizeof(void*);
}

// Position p of a custom operation (counted from 1) follows IUnknown's 3 and IDispatch's 4 slots.
constexpr size_t Slot(size_t position) { return 6 + position; }

GUID FromText(const char* text) {
  UUID g = GUID_NULL;
  EXPECT_EQ(UuidFromStringA(reinterpret_cast<RPC_CSTR>(const_cast<char*>(text)), &g), RPC_S_OK);
  return g;
}

// IUnknown and IDispatch for the test objects; IDispatch offers no type information.
template <class I> class TestObject : public I {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    *ppv = nullptr;
    if (riid == IID_IUnknown || riid == IID_IDispatch || riid == __uuidof(I)) {
      *ppv = static_cast<I*>(this);
    } else if (riid == IID_ISupportErrorInfo && m_errorInfo) {
      *ppv = m_errorInfo;
    } else {
      return E_NOINTERFACE;
    }
    this->AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_refs; }
  ULONG STDMETHODCALLTYPE Release() override { return --m_refs; }
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* pctinfo) override {
    *pctinfo = 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
    return DISP_E_UNKNOWNNAME;
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override {
    return DISP_E_MEMBERNOTFOUND;
  }
  ULONG Refs() const { return m_refs; }

 protected:
  ISupportErrorInfo* m_errorInfo = nullptr;

 private:
  ULONG m_refs = 1;
};

class Config : public TestObject<IZT4ProviderConfig>, public ISupportErrorInfo {
 public:
  Config() { m_errorInfo = this; }
  // ISupportErrorInfo shares the object's identity and count.
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    return TestObject::QueryInterface(riid, ppv);
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return TestObject::AddRef(); }
  ULONG STDMETHODCALLTYPE Release() override { return TestObject::Release(); }
  HRESULT STDMETHODCALLTYPE InterfaceSupportsErrorInfo(REFIID riid) override {
    return riid == IID_IZT4ProviderConfig ? S_OK : S_FALSE;
  }

  HRESULT STDMETHODCALLTYPE raw_GetLogLevel(LONG* p) override { return Set(p, 3); }
  HRESULT STDMETHODCALLTYPE raw_GetLogFileName(BSTR* p) override { return SetText(p, u"provider.log"); }
  HRESULT STDMETHODCALLTYPE raw_MaxListCount(LONG* p) override { return Set(p, 500); }
  HRESULT STDMETHODCALLTYPE raw_MaxSearchCount(LONG*) override {
    auto* info = new comtestErrorInfo(u"search is off");
    SetErrorInfo(0, info);
    info->Release();
    return E_ACCESSDENIED;
  }
  HRESULT STDMETHODCALLTYPE raw_LogSize(LONG* p) override { return Set(p, 10); }
  HRESULT STDMETHODCALLTYPE raw_MaxFiles(LONG*) override { return E_OUTOFMEMORY; }
  HRESULT STDMETHODCALLTYPE raw_FolderHomePageUrl(BSTR* p) override { return SetText(p, u"https://archive/home"); }
  HRESULT STDMETHODCALLTYPE raw_SyncIntervalMinutes(LONG* p) override { return Set(p, 15); }
  HRESULT STDMETHODCALLTYPE raw_QueryUserDetails(BSTR legacyDN, BSTR* user, BSTR* display, BSTR* smtp,
                                                 VARIANT_BOOL* result) override {
    *result = VARIANT_FALSE;
    if (std::u16string(legacyDN) != u"/o=Org/cn=ann") return S_OK;
    SetText(user, u"ann");
    SetText(display, u"Ann Example");
    SetText(smtp, u"ann@example.org");
    *result = VARIANT_TRUE;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE raw_UseLocalizedFolderNames(LONG* p) override { return Set(p, 1); }

 private:
  // A minimal error object: only the description matters here.
  class comtestErrorInfo : public IErrorInfo {
   public:
    explicit comtestErrorInfo(const char16_t* text) : m_text(text) {}
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** ppv) override {
      *ppv = nullptr;
      return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++m_refs; }
    ULONG STDMETHODCALLTYPE Release() override {
      ULONG left = --m_refs;
      if (!left) delete this;
      return left;
    }
    HRESULT STDMETHODCALLTYPE GetGUID(GUID* g) override {
      *g = IID_IZT4ProviderConfig;
      return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetSource(BSTR* p) override { return SetText(p, u"config"); }
    HRESULT STDMETHODCALLTYPE GetDescription(BSTR* p) override { return SetText(p, m_text); }
    HRESULT STDMETHODCALLTYPE GetHelpFile(BSTR* p) override { return SetText(p, u""); }
    HRESULT STDMETHODCALLTYPE GetHelpContext(DWORD* p) override {
      *p = 0;
      return S_OK;
    }

   private:
    virtual ~comtestErrorInfo() = default;
    const char16_t* m_text;
    ULONG m_refs = 1;
  };

  static HRESULT Set(LONG* p, LONG v) {
    *p = v;
    return S_OK;
  }
  static HRESULT SetText(BSTR* p, const char16_t* s) {
    *p = SysAllocString(s);
    return S_OK;
  }
};

class Attachment : public TestObject<IZT4ArchiveAttachment> {
 public:
  HRESULT STDMETHODCALLTYPE raw_Text(BSTR* p) override { return Text(p, u"body text"); }
  HRESULT STDMETHODCALLTYPE raw_MimeFlagA(VARIANT_BOOL* p) override { return Bool(p, false); }
  HRESULT STDMETHODCALLTYPE raw_MimeFlagB(VARIANT_BOOL* p) override { return Bool(p, true); }
  HRESULT STDMETHODCALLTYPE raw_Data(SAFEARRAY** p) override {
    *p = SafeArrayCreateVector(VT_UI1, 0, 3);
    return *p ? S_OK : E_OUTOFMEMORY;
  }
  HRESULT STDMETHODCALLTYPE raw_RecordKey(BSTR* p) override { return Text(p, u"key"); }
  HRESULT STDMETHODCALLTYPE raw_FileName(BSTR* p) override { return Text(p, u"a.txt"); }
  HRESULT STDMETHODCALLTYPE raw_MimeTag(BSTR* p) override { return Text(p, u"text/plain"); }
  HRESULT STDMETHODCALLTYPE raw_Hidden(VARIANT_BOOL* p) override { return Bool(p, false); }
  HRESULT STDMETHODCALLTYPE raw_IsEmbeddedMessage(VARIANT_BOOL* p) override { return Bool(p, false); }
  HRESULT STDMETHODCALLTYPE raw_ContentId(BSTR*) override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE raw_IsBinary(VARIANT_BOOL* p) override { return Bool(p, true); }

 private:
  static HRESULT Text(BSTR* p, const char16_t* s) {
    *p = SysAllocString(s);
    return S_OK;
  }
  static HRESULT Bool(VARIANT_BOOL* p, bool v) {
    *p = v ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
  }
};

class MockFolder : public TestObject<IZT4ArchiveFolder> {
 public:
  MOCK_METHOD(HRESULT, raw_ReadMessages, (LONG, LONG, VARIANT_BOOL, VARIANT_BOOL, SAFEARRAY**), (override));
  MOCK_METHOD(HRESULT, raw_OpenMessage, (BSTR, IZT4ArchiveMessage**), (override));
  MOCK_METHOD(HRESULT, raw_SearchMessages,
              (LONG, LONG, BSTR, BSTR, IZT4SearchCondition*, VARIANT_BOOL, SAFEARRAY**), (override));
  MOCK_METHOD(HRESULT, raw_CountMessages, (BSTR, IZT4SearchCondition*, VARIANT_BOOL, LONG*), (override));
  MOCK_METHOD(HRESULT, raw_SetSortOrder, (LONG, BSTR), (override));
  MOCK_METHOD(HRESULT, raw_RemoveMessages, (SAFEARRAY*, LONG*), (override));
  MOCK_METHOD(HRESULT, raw_SetInitialSyncCompleted, (VARIANT_BOOL), (override));
  MOCK_METHOD(HRESULT, raw_LocateRow,
              (IZT4SearchCondition*, LONG, BSTR, IZT4SearchCondition*, VARIANT_BOOL, LONG*), (override));
  MOCK_METHOD(HRESULT, raw_ClearCache, (), (override));
};

class MockProvider : public TestObject<IZT4DataProvider> {
 public:
  MOCK_METHOD(HRESULT, raw_GetFolderNames, (BSTR, BSTR, SAFEARRAY**), (override));
  MOCK_METHOD(HRESULT, raw_GetServerFolder, (BSTR, BSTR, IZT4ArchiveFolder**), (override));
  MOCK_METHOD(HRESULT, raw_RegisterMailbox, (BSTR, BSTR, LONG*), (override));
  MOCK_METHOD(HRESULT, raw_CreateSearchCondition, (IZT4SearchCondition**), (override));
  MOCK_METHOD(HRESULT, raw_GetConfigurationParams, (IZT4ProviderConfig**), (override));
  MOCK_METHOD(HRESULT, raw_GetLastProviderError, (LONG*), (override));
  MOCK_METHOD(HRESULT, raw_IsCachedMode, (VARIANT_BOOL*), (override));
  MOCK_METHOD(HRESULT, raw_IsFirstSyncDue, (VARIANT_BOOL*), (override));
  MOCK_METHOD(HRESULT, raw_ShowConfigurationDialog, (), (override));
  MOCK_METHOD(HRESULT, raw_IsLoggedIn, (VARIANT_BOOL*), (override));
  MOCK_METHOD(HRESULT, raw_IsShuttingDown, (VARIANT_BOOL*), (override));
  MOCK_METHOD(HRESULT, raw_NotifySyncThreadStarted, (), (override));
  MOCK_METHOD(HRESULT, raw_NotifySyncRound, (), (override));
  MOCK_METHOD(HRESULT, raw_IsConversationViewEnabled, (VARIANT_BOOL*), (override));
  MOCK_METHOD(HRESULT, raw_IsConversationDataAvailable, (VARIANT_BOOL*), (override));
  MOCK_METHOD(HRESULT, raw_WaitForNetwork, (), (override));
  MOCK_METHOD(HRESULT, raw_PrepareInitialSync, (), (override));
  MOCK_METHOD(HRESULT, raw_SaveDefaultFolderNames, (SAFEARRAY*), (override));
  MOCK_METHOD(HRESULT, raw_LoadDefaultFolderNames, (SAFEARRAY**), (override));
  MOCK_METHOD(HRESULT, raw_IsSearchReady, (VARIANT_BOOL*), (override));
};

TEST(ArchiveInterfaces, IdentitiesMatchTheirTexts) {
  EXPECT_EQ(IID_IZT4DataProvider, FromText("D4660088-308E-49FB-AB1A-77224F3FF851"));
  EXPECT_EQ(IID_IZT4ProviderConfig, FromText("A42B7675-6DB4-4DB9-AF95-29000B7305DA"));
  EXPECT_EQ(IID_IZT4ArchiveFolder, FromText("E8B1C298-B2EB-455E-8E5D-AB401A7DACF4"));
  EXPECT_EQ(IID_IZT4ArchiveMessage, FromText("9446B00D-AC4A-4135-9D13-4591D9CD60C4"));
  EXPECT_EQ(IID_IZT4ArchiveAttachment, FromText("F38B0B39-EB6C-4198-8A1D-03C4D1FD19A6"));
  EXPECT_EQ(IID_IZT4SearchCondition, FromText("A0D5406B-B730-4C2A-B434-BC9928AF846D"));
  EXPECT_EQ(CLSID_ZT4DataProvider, FromText("7CE21132-D397-3D11-80BA-30FD94E65C9E"));
  EXPECT_EQ(__uuidof(IZT4DataProvider), IID_IZT4DataProvider);
  EXPECT_EQ(__uuidof(IZT4ProviderConfig), IID_IZT4ProviderConfig);
  EXPECT_EQ(__uuidof(IZT4ArchiveFolder), IID_IZT4ArchiveFolder);
  EXPECT_EQ(__uuidof(IZT4ArchiveMessage), IID_IZT4ArchiveMessage);
  EXPECT_EQ(__uuidof(IZT4ArchiveAttachment), IID_IZT4ArchiveAttachment);
  EXPECT_EQ(__uuidof(IZT4SearchCondition), IID_IZT4SearchCondition);
  EXPECT_EQ(IZT4ProviderConfigPtr::GetIID(), IID_IZT4ProviderConfig);
}

TEST(ArchiveInterfaces, SlotsFollowIDispatchInContractOrder) {
  EXPECT_EQ(SlotOf(&IDispatch::GetTypeInfoCount), 3u);
  EXPECT_EQ(SlotOf(&IDispatch::Invoke), 6u);

  EXPECT_EQ(SlotOf(&IZT4DataProvider::raw_GetFolderNames), Slot(1));
  EXPECT_EQ(SlotOf(&IZT4DataProvider::raw_GetConfigurationParams), Slot(5));
  EXPECT_EQ(SlotOf(&IZT4DataProvider::raw_ShowConfigurationDialog), Slot(9));
  EXPECT_EQ(SlotOf(&IZT4DataProvider::raw_WaitForNetwork), Slot(16));
  EXPECT_EQ(SlotOf(&IZT4DataProvider::raw_IsSearchReady), Slot(20));

  EXPECT_EQ(SlotOf(&IZT4ProviderConfig::raw_GetLogLevel), Slot(1));
  EXPECT_EQ(SlotOf(&IZT4ProviderConfig::raw_MaxFiles), Slot(6));
  EXPECT_EQ(SlotOf(&IZT4ProviderConfig::raw_FolderHomePageUrl), Slot(9));
  EXPECT_EQ(SlotOf(&IZT4ProviderConfig::raw_QueryUserDetails), Slot(11));
  EXPECT_EQ(SlotOf(&IZT4ProviderConfig::raw_UseLocalizedFolderNames), Slot(12));

  EXPECT_EQ(SlotOf(&IZT4ArchiveFolder::raw_ReadMessages), Slot(1));
  EXPECT_EQ(SlotOf(&IZT4ArchiveFolder::raw_LocateRow), Slot(8));
  EXPECT_EQ(SlotOf(&IZT4ArchiveFolder::raw_ClearCache), Slot(9));

  EXPECT_EQ(SlotOf(&IZT4ArchiveMessage::raw_UniqueId), Slot(1));
  EXPECT_EQ(SlotOf(&IZT4ArchiveMessage::raw_Keywords), Slot(16));
  EXPECT_EQ(SlotOf(&IZT4ArchiveMessage::raw_OpenAttachment), Slot(21));
  EXPECT_EQ(SlotOf(&IZT4ArchiveMessage::raw_ConversationCount), Slot(29));
  EXPECT_EQ(SlotOf(&IZT4ArchiveMessage::raw_IsCustomIcon), Slot(31));
  EXPECT_EQ(SlotOf(&IZT4ArchiveMessage::raw_MessageClass), Slot(35));

  EXPECT_EQ(SlotOf(&IZT4ArchiveAttachment::raw_Text), Slot(22));
  EXPECT_EQ(SlotOf(&IZT4ArchiveAttachment::raw_MimeFlagA), Slot(30));
  EXPECT_EQ(SlotOf(&IZT4ArchiveAttachment::raw_Data), Slot(32));
  EXPECT_EQ(SlotOf(&IZT4ArchiveAttachment::raw_RecordKey), Slot(36));
  EXPECT_EQ(SlotOf(&IZT4ArchiveAttachment::raw_FileName), Slot(37));
  EXPECT_EQ(SlotOf(&IZT4ArchiveAttachment::raw_MimeTag), Slot(39));
  EXPECT_EQ(SlotOf(&IZT4ArchiveAttachment::raw_IsBinary), Slot(43));

  EXPECT_EQ(SlotOf(&IZT4SearchCondition::raw_SetUniqueId), Slot(1));
  EXPECT_EQ(SlotOf(&IZT4SearchCondition::raw_SetOperator), Slot(8));
  EXPECT_EQ(SlotOf(&IZT4SearchCondition::raw_SetTime), Slot(10));
  EXPECT_EQ(SlotOf(&IZT4SearchCondition::raw_SetRecursive), Slot(18));
}

TEST(ArchiveInterfaces, ConfigurationCalledThroughBasePointersAndRawSlots) {
  Config config;
  IUnknown* unknown = static_cast<IZT4ProviderConfig*>(&config);
  IDispatch* dispatch = nullptr;
  ASSERT_EQ(unknown->QueryInterface(IID_IDispatch, reinterpret_cast<void**>(&dispatch)), S_OK);
  UINT count = 9;
  ASSERT_EQ(dispatch->GetTypeInfoCount(&count), S_OK);
  EXPECT_EQ(count, 0u);

  // Through the vtable by index, as a caller built against the binary contract does.
  void** vtable = *reinterpret_cast<void***>(dispatch);
  using LongSlot = HRESULT (*)(void*, LONG*);
  using BstrSlot = HRESULT (*)(void*, BSTR*);
  using NoArgSlot = HRESULT (*)(void*);
  LONG level = 0;
  ASSERT_EQ(reinterpret_cast<LongSlot>(vtable[Slot(1)])(dispatch, &level), S_OK);
  EXPECT_EQ(level, 3);
  LONG interval = 0;
  ASSERT_EQ(reinterpret_cast<LongSlot>(vtable[Slot(10)])(dispatch, &interval), S_OK);
  EXPECT_EQ(interval, 15);
  BSTR url = nullptr;
  ASSERT_EQ(reinterpret_cast<BstrSlot>(vtable[Slot(9)])(dispatch, &url), S_OK);
  EXPECT_EQ(std::u16string(url), u"https://archive/home");
  SysFreeString(url);
  EXPECT_EQ(reinterpret_cast<NoArgSlot>(vtable[Slot(7)])(dispatch), E_NOTIMPL);  // placeholder
  EXPECT_EQ(reinterpret_cast<NoArgSlot>(vtable[Slot(8)])(dispatch), E_NOTIMPL);

  IZT4ProviderConfigPtr ptr(dispatch);  // queried from the IDispatch pointer
  dispatch->Release();
  ASSERT_TRUE(ptr);
  EXPECT_EQ(ptr->GetLogLevel(), 3);
  EXPECT_EQ(ptr->MaxListCount(), 500);
  EXPECT_EQ(ptr->LogSize(), 10);
  EXPECT_EQ(ptr->UseLocalizedFolderNames(), 1);
  EXPECT_EQ(ptr->GetLogFileName(), _bstr_t("provider.log"));
  EXPECT_STREQ(static_cast<const char*>(ptr->FolderHomePageUrl()), "https://archive/home");

  BSTR user = nullptr, display = nullptr, smtp = nullptr;
  EXPECT_EQ(ptr->QueryUserDetails("/o=Org/cn=ann", &user, &display, &smtp), VARIANT_TRUE);
  EXPECT_EQ(std::u16string(smtp), u"ann@example.org");
  SysFreeString(user);
  SysFreeString(display);
  SysFreeString(smtp);
  EXPECT_EQ(ptr->QueryUserDetails("/o=Org/cn=bob", &user, &display, &smtp), VARIANT_FALSE);
  ptr = nullptr;
  EXPECT_EQ(config.Refs(), 1u);
}

TEST(ArchiveInterfaces, WrappersRaiseComErrorWithTheInterface) {
  Config config;
  IZT4ProviderConfigPtr ptr(static_cast<IZT4ProviderConfig*>(&config));
  try {
    ptr->MaxFiles();
    ADD_FAILURE() << "no _com_error";
  } catch (const _com_error& e) {
    EXPECT_EQ(e.Error(), E_OUTOFMEMORY);
    EXPECT_EQ(e.GUID(), IID_IZT4ProviderConfig);
    EXPECT_EQ(e.ErrorInfo(), nullptr);
  }
  // The thread's error object comes along when the object supports it for the interface.
  try {
    ptr->MaxSearchCount();
    ADD_FAILURE() << "no _com_error";
  } catch (const _com_error& e) {
    EXPECT_EQ(e.Error(), E_ACCESSDENIED);
    EXPECT_EQ(e.Description(), _bstr_t("search is off"));
    EXPECT_EQ(e.GUID(), IID_IZT4ProviderConfig);
  }
  IErrorInfo* left = nullptr;
  EXPECT_EQ(GetErrorInfo(0, &left), S_FALSE);  // taken by the exception

  Attachment attachment;
  IZT4ArchiveAttachment* a = &attachment;
  EXPECT_THROW(a->ContentId(), _com_error);
  EXPECT_EQ(a->Text(), _bstr_t("body text"));
  EXPECT_EQ(a->MimeFlagB(), VARIANT_TRUE);
  SAFEARRAY* data = a->Data();
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(SafeArrayDestroy(data), S_OK);
  void** vtable = *reinterpret_cast<void***>(a);
  using NoArgSlot = HRESULT (*)(void*);
  for (size_t position : {1, 21, 23, 29, 33, 35, 38}) {
    EXPECT_EQ(reinterpret_cast<NoArgSlot>(vtable[Slot(position)])(a), E_NOTIMPL) << position;
  }
}

TEST(ArchiveInterfaces, FolderAndProviderWrappersPassArgumentsAndResults) {
  MockFolder folder;
  IZT4ArchiveFolder* f = &folder;
  EXPECT_CALL(folder, raw_CountMessages(_, nullptr, VARIANT_TRUE, _))
      .WillOnce([](BSTR name, IZT4SearchCondition*, VARIANT_BOOL, LONG* count) {
        *count = std::u16string(name) == u"Inbox/2024" ? -500 : 0;
        return S_OK;
      });
  EXPECT_EQ(f->CountMessages("Inbox/2024", nullptr, VARIANT_TRUE), -500);

  EXPECT_CALL(folder, raw_LocateRow(nullptr, 4, _, nullptr, VARIANT_FALSE, _))
      .WillOnce(DoAll(SetArgPointee<5>(17), Return(S_OK)));
  EXPECT_EQ(f->LocateRow(nullptr, 4, "", nullptr, VARIANT_FALSE), 17);

  EXPECT_CALL(folder, raw_OpenMessage(_, _)).WillOnce(DoAll(SetArgPointee<1>(nullptr), Return(S_OK)));
  EXPECT_FALSE(f->OpenMessage("missing"));  // a null record is a normal answer

  EXPECT_CALL(folder, raw_SetSortOrder(6, _)).WillOnce(Return(HRESULT(0x80049001)));
  try {
    f->SetSortOrder(6, "Descending");
    ADD_FAILURE() << "no _com_error";
  } catch (const _com_error& e) {
    EXPECT_EQ(e.Error(), HRESULT(0x80049001));
    EXPECT_EQ(e.GUID(), IID_IZT4ArchiveFolder);
  }

  MockProvider provider;
  IZT4DataProvider* p = &provider;
  Config config;
  EXPECT_CALL(provider, raw_GetConfigurationParams(_)).WillOnce([&config](IZT4ProviderConfig** out) {
    config.AddRef();  // the callee hands out a reference
    *out = &config;
    return S_OK;
  });
  {
    IZT4ProviderConfigPtr got = p->GetConfigurationParams();
    ASSERT_TRUE(got);
    EXPECT_EQ(config.Refs(), 2u);  // adopted, not added to
  }
  EXPECT_EQ(config.Refs(), 1u);

  EXPECT_CALL(provider, raw_GetServerFolder(_, _, _)).WillOnce(DoAll(SetArgPointee<2>(&folder), Return(S_OK)));
  {
    IZT4ArchiveFolderPtr got = p->GetServerFolder("Inbox", "ann@example.org");
    EXPECT_EQ(got.GetInterfacePtr(), f);
    got.Detach();  // the mock handed out no reference of its own
  }
  EXPECT_CALL(provider, raw_IsCachedMode(_)).WillOnce(DoAll(SetArgPointee<0>(VARIANT_TRUE), Return(S_OK)));
  EXPECT_EQ(p->IsCachedMode(), VARIANT_TRUE);
  EXPECT_CALL(provider, raw_GetLastProviderError(_)).WillOnce(Return(E_FAIL));
  EXPECT_THROW(p->GetLastProviderError(), _com_error);
  EXPECT_CALL(provider, raw_ShowConfigurationDialog()).WillOnce(Return(S_FALSE));
  EXPECT_EQ(p->ShowConfigurationDialog(), S_FALSE);  // success codes pass through
}

}  // namespace
