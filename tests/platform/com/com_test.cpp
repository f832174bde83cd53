#include <gtest/gtest.h>

#include <string>
#include <thread>

#include <adplatform_com.h>
#include <comdef.h>
#include <objbase.h>
#include <windows.h>

#include "com_test_objects.h"
#include "test_home.h"
#include "testserver.h"

_COM_SMARTPTR_TYPEDEF(ITestCounter, __uuidof(ITestCounter));

namespace {

// Runs f on a new thread, which starts with COM uninitialised.
template <class F> void OnFreshThread(F f) { std::thread(f).join(); }

class ComActivation : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
    ASSERT_EQ(adp::RegisterInprocServer(CLSID_TestCounter, m_server.c_str()), S_OK);
  }
  void TearDown() override { CoUninitialize(); }

  LONG LiveObjects(ITestCounter* any) {
    LONG n = -1;
    EXPECT_EQ(any->LiveObjects(&n), S_OK);
    return n;
  }

  adtest::TempHome m_home;
  std::string m_server = adtest::BinPath("testserver_module.so");
};

TEST(ComInit, PerThreadCountsAndModelChanges) {
  OnFreshThread([] {
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
    EXPECT_EQ(CoInitialize(nullptr), S_FALSE);
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), RPC_E_CHANGED_MODE);
    CoUninitialize();
    CoUninitialize();
    // Fully uninitialised: the thread may now choose the other model.
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
    CoUninitialize();
    CoUninitialize();  // one too many: no effect
    EXPECT_EQ(CoInitializeEx(reinterpret_cast<void*>(1), COINIT_MULTITHREADED), E_INVALIDARG);
    EXPECT_EQ(CoInitializeEx(nullptr, 0x100), E_INVALIDARG);
  });
}

TEST(ComInit, CreationNeedsAnApartment) {
  adtest::TempHome home;
  ASSERT_EQ(adp::RegisterInprocServer(CLSID_TestCounter, adtest::BinPath("testserver_module.so").c_str()), S_OK);
  OnFreshThread([] {
    void* p = reinterpret_cast<void*>(1);
    EXPECT_EQ(CoCreateInstance(CLSID_TestCounter, nullptr, CLSCTX_INPROC_SERVER, IID_ITestCounter, &p),
              CO_E_NOTINITIALIZED);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(CoGetClassObject(CLSID_TestCounter, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory, &p),
              CO_E_NOTINITIALIZED);
  });

  // While one thread holds the multithreaded apartment, other threads use it implicitly.
  ASSERT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
  OnFreshThread([] {
    ITestCounter* counter = nullptr;
    EXPECT_EQ(CoCreateInstance(CLSID_TestCounter, nullptr, CLSCTX_INPROC_SERVER, IID_ITestCounter,
                               reinterpret_cast<void**>(&counter)),
              S_OK);
    if (counter) counter->Release();
  });
  CoUninitialize();
}

TEST_F(ComActivation, CreatesObjectsFromTheRegisteredModule) {
  ITestCounter* first = nullptr;
  ASSERT_EQ(CoCreateInstance(CLSID_TestCounter, nullptr, CLSCTX_INPROC_SERVER, IID_ITestCounter,
                             reinterpret_cast<void**>(&first)),
            S_OK);
  ASSERT_NE(first, nullptr);
  ASSERT_EQ(first->SetValue(41), S_OK);
  LONG value = 0;
  first->GetValue(&value);
  EXPECT_EQ(value, 41);
  EXPECT_EQ(LiveObjects(first), 1);

  // A second object comes from the same loaded module (one object count for both).
  IUnknown* second = nullptr;
  ASSERT_EQ(CoCreateInstance(CLSID_TestCounter, nullptr, CLSCTX_ALL, IID_IUnknown,
                             reinterpret_cast<void**>(&second)),
            S_OK);
  EXPECT_EQ(LiveObjects(first), 2);
  second->Release();
  EXPECT_EQ(LiveObjects(first), 1);
  first->Release();
  // The module stays loaded after its last object is gone.
  EXPECT_NE(GetModuleHandleA(m_server.c_str()), nullptr);

  IClassFactory* factory = nullptr;
  ASSERT_EQ(CoGetClassObject(CLSID_TestCounter, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory,
                             reinterpret_cast<void**>(&factory)),
            S_OK);
  ITestCounter* third = nullptr;
  ASSERT_EQ(factory->CreateInstance(nullptr, IID_ITestCounter, reinterpret_cast<void**>(&third)), S_OK);
  EXPECT_EQ(LiveObjects(third), 1);
  third->Release();
  factory->Release();
}

TEST_F(ComActivation, ErrorCodes) {
  void* p = reinterpret_cast<void*>(1);
  GUID unknown;
  ASSERT_EQ(CoCreateGuid(&unknown), S_OK);
  EXPECT_EQ(CoCreateInstance(unknown, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, &p), REGDB_E_CLASSNOTREG);
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(CoCreateInstance(CLSID_TestCounter, nullptr, CLSCTX_LOCAL_SERVER, IID_IUnknown, &p),
            REGDB_E_CLASSNOTREG);
  EXPECT_EQ(CoCreateInstance(CLSID_TestCounter, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, nullptr), E_POINTER);

  comtest::CountedUnknown outer;
  EXPECT_EQ(CoCreateInstance(CLSID_TestCounter, &outer, CLSCTX_INPROC_SERVER, IID_IUnknown, &p),
            CLASS_E_NOAGGREGATION);
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(CoCreateInstance(CLSID_TestCounter, nullptr, CLSCTX_INPROC_SERVER, IID_IStream, &p), E_NOINTERFACE);
  EXPECT_EQ(p, nullptr);

  // Registered, but the module serves other classes only.
  ASSERT_EQ(adp::RegisterInprocServer(CLSID_TestUnserved, m_server.c_str()), S_OK);
  EXPECT_EQ(CoCreateInstance(CLSID_TestUnserved, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, &p),
            CLASS_E_CLASSNOTAVAILABLE);

  GUID missing, noEntry;
  CoCreateGuid(&missing);
  CoCreateGuid(&noEntry);
  ASSERT_EQ(adp::RegisterInprocServer(missing, (m_home.Root() + "/no_such_module.so").c_str()), S_OK);
  EXPECT_EQ(CoCreateInstance(missing, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, &p), CO_E_DLLNOTFOUND);
  ASSERT_EQ(adp::RegisterInprocServer(noEntry, adtest::BinPath("noentry_module.so").c_str()), S_OK);
  EXPECT_EQ(CoCreateInstance(noEntry, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, &p), CO_E_ERRORINDLL);

  ASSERT_EQ(adp::UnregisterInprocServer(CLSID_TestCounter), S_OK);
  EXPECT_EQ(CoCreateInstance(CLSID_TestCounter, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, &p),
            REGDB_E_CLASSNOTREG);
  EXPECT_EQ(adp::RegisterInprocServer(CLSID_TestCounter, ""), E_INVALIDARG);
  EXPECT_EQ(adp::RegisterInprocServer(CLSID_TestCounter, nullptr), E_INVALIDARG);
}

TEST_F(ComActivation, ProgIds) {
  ASSERT_EQ(adp::RegisterProgID("Outlook.Application", CLSID_TestCounter), S_OK);
  CLSID clsid = GUID_NULL;
  ASSERT_EQ(CLSIDFromProgID(u"Outlook.Application", &clsid), S_OK);
  EXPECT_EQ(clsid, CLSID_TestCounter);
  ASSERT_EQ(CLSIDFromProgID(u"outlook.application", &clsid), S_OK);  // key names ignore case
  clsid = GUID_NULL;
  ASSERT_EQ(CLSIDFromString(u"Outlook.Application", &clsid), NOERROR);
  EXPECT_EQ(clsid, CLSID_TestCounter);

  LPOLESTR progId = nullptr;
  ASSERT_EQ(ProgIDFromCLSID(CLSID_TestCounter, &progId), S_OK);
  EXPECT_EQ(std::u16string(progId), u"Outlook.Application");
  CoTaskMemFree(progId);

  EXPECT_EQ(CLSIDFromProgID(u"No.Such.Program", &clsid), CO_E_CLASSSTRING);
  EXPECT_EQ(CLSIDFromString(u"No.Such.Program", &clsid), CO_E_CLASSSTRING);
  EXPECT_EQ(CLSIDFromProgID(u"", &clsid), CO_E_CLASSSTRING);
  EXPECT_EQ(CLSIDFromProgID(nullptr, &clsid), E_INVALIDARG);
  EXPECT_EQ(ProgIDFromCLSID(CLSID_TestUnserved, &progId), REGDB_E_CLASSNOTREG);

  // A ProgID whose CLSID text is malformed is no class either.
  HKEY key = nullptr;
  ASSERT_EQ(RegCreateKeyExA(HKEY_CLASSES_ROOT, "Broken.App\\CLSID", 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr),
            ERROR_SUCCESS);
  const char junk[] = "{not-a-guid}";
  RegSetValueExA(key, nullptr, 0, REG_SZ, reinterpret_cast<const BYTE*>(junk), sizeof(junk));
  RegCloseKey(key);
  EXPECT_EQ(CLSIDFromProgID(u"Broken.App", &clsid), CO_E_CLASSSTRING);

  ITestCounterPtr byProgId;
  EXPECT_EQ(byProgId.CreateInstance(u"Outlook.Application"), S_OK);
  EXPECT_TRUE(byProgId);
  ITestCounterPtr byNarrow;
  EXPECT_EQ(byNarrow.CreateInstance("{8A7E3C11-52D4-4F6A-B10E-932C571D4866}"), S_OK);
  EXPECT_TRUE(byNarrow);
}

TEST_F(ComActivation, SmartPointerCreationRaisesComError) {
  ITestCounterPtr counter(CLSID_TestCounter);
  ASSERT_TRUE(counter);
  EXPECT_EQ(counter->SetValue(7), S_OK);
  EXPECT_EQ(LiveObjects(counter), 1);

  GUID unknown;
  CoCreateGuid(&unknown);
  ITestCounterPtr none;
  EXPECT_EQ(none.CreateInstance(unknown), REGDB_E_CLASSNOTREG);
  EXPECT_FALSE(none);
  try {
    ITestCounterPtr failing(unknown);
    ADD_FAILURE() << "no _com_error";
  } catch (const _com_error& e) {
    EXPECT_EQ(e.Error(), REGDB_E_CLASSNOTREG);
    EXPECT_STREQ(e.ErrorMessage(), "Class not registered");
  }
  // A class that lacks the interface gives a null pointer, not an exception.
  IStreamPtr notAStream(CLSID_TestCounter);
  EXPECT_FALSE(notAStream);

  counter = nullptr;  // releases
  ITestCounterPtr probe(CLSID_TestCounter);
  EXPECT_EQ(LiveObjects(probe), 1);
}

TEST(ActiveObjects, OnlyRegisteredObjectsAreRunning) {
  comtest::CountedUnknown app;
  CLSID clsid;
  CoCreateGuid(&clsid);
  IUnknown* found = reinterpret_cast<IUnknown*>(1);
  EXPECT_EQ(GetActiveObject(clsid, nullptr, &found), MK_E_UNAVAILABLE);
  EXPECT_EQ(found, nullptr);

  DWORD cookie = 0;
  ASSERT_EQ(RegisterActiveObject(&app, clsid, ACTIVEOBJECT_STRONG, &cookie), S_OK);
  EXPECT_EQ(app.Refs(), 2u);
  ASSERT_EQ(GetActiveObject(clsid, nullptr, &found), S_OK);
  EXPECT_EQ(found, &app);
  EXPECT_EQ(app.Refs(), 3u);
  found->Release();
  ASSERT_EQ(RevokeActiveObject(cookie, nullptr), S_OK);
  EXPECT_EQ(app.Refs(), 1u);
  EXPECT_EQ(GetActiveObject(clsid, nullptr, &found), MK_E_UNAVAILABLE);
  EXPECT_EQ(RevokeActiveObject(cookie, nullptr), E_INVALIDARG);

  ASSERT_EQ(RegisterActiveObject(&app, clsid, ACTIVEOBJECT_WEAK, &cookie), S_OK);
  EXPECT_EQ(app.Refs(), 1u);  // weak: no reference kept
  ASSERT_EQ(RevokeActiveObject(cookie, nullptr), S_OK);
  EXPECT_EQ(app.Refs(), 1u);

  EXPECT_EQ(RegisterActiveObject(nullptr, clsid, 0, &cookie), E_INVALIDARG);
  EXPECT_EQ(RegisterActiveObject(&app, clsid, 0, nullptr), E_INVALIDARG);
  EXPECT_EQ(GetActiveObject(clsid, nullptr, nullptr), E_INVALIDARG);
}

TEST(ErrorInfo, ThreadErrorObjectIsTakenOnce) {
  auto* info = new comtest::TestErrorInfo(u"broken", IID_IStream);
  ASSERT_EQ(SetErrorInfo(0, info), S_OK);
  EXPECT_EQ(info->Refs(), 2u);
  OnFreshThread([] {
    IErrorInfo* other = nullptr;
    EXPECT_EQ(GetErrorInfo(0, &other), S_FALSE);  // per thread
  });
  IErrorInfo* taken = nullptr;
  ASSERT_EQ(GetErrorInfo(0, &taken), S_OK);
  EXPECT_EQ(taken, info);
  EXPECT_EQ(GetErrorInfo(0, &taken), S_FALSE);
  EXPECT_EQ(taken, nullptr);
  info->Release();
  info->Release();

  auto* replaced = new comtest::TestErrorInfo(u"first", GUID_NULL);
  SetErrorInfo(0, replaced);
  replaced->Release();
  SetErrorInfo(0, nullptr);  // releases the held object (leak-checked)
  EXPECT_EQ(GetErrorInfo(0, nullptr), E_INVALIDARG);
}

TEST(TaskMemory, AllocReallocFree) {
  auto* p = static_cast<char*>(CoTaskMemAlloc(4));
  ASSERT_NE(p, nullptr);
  std::memcpy(p, "abc", 4);
  p = static_cast<char*>(CoTaskMemRealloc(p, 4096));
  ASSERT_NE(p, nullptr);
  EXPECT_STREQ(p, "abc");
  CoTaskMemFree(p);
  CoTaskMemFree(nullptr);
  void* zero = CoTaskMemAlloc(0);
  EXPECT_NE(zero, nullptr);
  CoTaskMemFree(zero);
}

}  // namespace
