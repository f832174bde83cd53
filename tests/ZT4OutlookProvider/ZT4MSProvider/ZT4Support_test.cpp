#include "ZT4Support.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include <mapicode.h>

#include "trace_fixture.h"

namespace {

// A distinctive answer, so a forwarded call is told apart from the wrapper's own.
constexpr HRESULT kWrappedAnswer = MAPI_W_ERRORS_RETURNED;

#define ZT4TEST_RECORD override { m_calls.push_back(__func__); return kWrappedAnswer; }

// Records the methods that reach it and its reference count.
class CRecordingSupport : public IMAPISupport {
 public:
  STDMETHODIMP QueryInterface(REFIID, LPVOID* ppvObj) override {
    m_calls.push_back("QueryInterface");
    *ppvObj = this;
    return kWrappedAnswer;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++m_cRef; }
  STDMETHODIMP_(ULONG) Release() override { return --m_cRef; }
  MAPI_IMAPISUPPORT_METHODS(ZT4TEST_RECORD)

  std::vector<std::string> m_calls;
  ULONG m_cRef = 1;
};

using SupportCall = std::function<HRESULT(IMAPISupport*)>;

struct Slot {
  const char* pszName;
  bool fForwarded;
  SupportCall call;
};

std::vector<Slot> AllSlots() {
  return {
      {"QueryInterface", true, [](IMAPISupport* p) { LPVOID pv = nullptr; return p->QueryInterface(IID_IMAPISup, &pv); }},
      {"GetLastError", true, [](IMAPISupport* p) { return p->GetLastError(S_OK, 0, nullptr); }},
      {"GetMemAllocRoutines", true, [](IMAPISupport* p) { return p->GetMemAllocRoutines(nullptr, nullptr, nullptr); }},
      {"Subscribe", true, [](IMAPISupport* p) { return p->Subscribe(nullptr, 0, 0, nullptr, nullptr); }},
      {"Unsubscribe", true, [](IMAPISupport* p) { return p->Unsubscribe(0); }},
      {"Notify", true, [](IMAPISupport* p) { return p->Notify(nullptr, 0, nullptr, nullptr); }},
      {"ModifyStatusRow", true, [](IMAPISupport* p) { return p->ModifyStatusRow(0, nullptr, 0); }},
      {"OpenProfileSection", true, [](IMAPISupport* p) { return p->OpenProfileSection(nullptr, 0, nullptr); }},
      {"RegisterPreprocessor", false,
       [](IMAPISupport* p) { return p->RegisterPreprocessor(nullptr, nullptr, nullptr, nullptr, nullptr, 0); }},
      {"NewUID", true, [](IMAPISupport* p) { return p->NewUID(nullptr); }},
      {"MakeInvalid", false, [](IMAPISupport* p) { return p->MakeInvalid(0, nullptr, 0, 0); }},
      {"SpoolerYield", false, [](IMAPISupport* p) { return p->SpoolerYield(0); }},
      {"SpoolerNotify", false, [](IMAPISupport* p) { return p->SpoolerNotify(0, nullptr); }},
      {"CreateOneOff", false,
       [](IMAPISupport* p) { return p->CreateOneOff(nullptr, nullptr, nullptr, 0, nullptr, nullptr); }},
      {"SetProviderUID", true, [](IMAPISupport* p) { return p->SetProviderUID(nullptr, 0); }},
      {"CompareEntryIDs", false,
       [](IMAPISupport* p) { return p->CompareEntryIDs(0, nullptr, 0, nullptr, 0, nullptr); }},
      {"OpenTemplateID", false,
       [](IMAPISupport* p) { return p->OpenTemplateID(0, nullptr, 0, nullptr, nullptr, nullptr, nullptr); }},
      {"OpenEntry", false, [](IMAPISupport* p) { return p->OpenEntry(0, nullptr, nullptr, 0, nullptr, nullptr); }},
      {"GetOneOffTable", false, [](IMAPISupport* p) { return p->GetOneOffTable(0, nullptr); }},
      {"Address", false, [](IMAPISupport* p) { return p->Address(nullptr, nullptr, nullptr); }},
      {"Details", false,
       [](IMAPISupport* p) {
         return p->Details(nullptr, nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr, 0);
       }},
      {"NewEntry", false,
       [](IMAPISupport* p) { return p->NewEntry(0, 0, 0, nullptr, 0, nullptr, nullptr, nullptr); }},
      {"DoConfigPropsheet", true,
       [](IMAPISupport* p) { return p->DoConfigPropsheet(0, 0, nullptr, nullptr, nullptr, 0); }},
      {"CopyMessages", true,
       [](IMAPISupport* p) { return p->CopyMessages(nullptr, nullptr, nullptr, nullptr, nullptr, 0, nullptr, 0); }},
      {"CopyFolder", true,
       [](IMAPISupport* p) {
         return p->CopyFolder(nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr, 0, nullptr, 0);
       }},
      {"DoCopyTo", true,
       [](IMAPISupport* p) {
         return p->DoCopyTo(nullptr, nullptr, 0, nullptr, nullptr, 0, nullptr, nullptr, nullptr, 0, nullptr);
       }},
      {"DoCopyProps", true,
       [](IMAPISupport* p) {
         return p->DoCopyProps(nullptr, nullptr, nullptr, 0, nullptr, nullptr, nullptr, 0, nullptr);
       }},
      {"DoProgressDialog", true, [](IMAPISupport* p) { return p->DoProgressDialog(0, 0, nullptr); }},
      {"ReadReceipt", true, [](IMAPISupport* p) { return p->ReadReceipt(0, nullptr, nullptr); }},
      {"PrepareSubmit", true, [](IMAPISupport* p) { return p->PrepareSubmit(nullptr, nullptr); }},
      {"ExpandRecips", true, [](IMAPISupport* p) { return p->ExpandRecips(nullptr, nullptr); }},
      {"UpdatePAB", false, [](IMAPISupport* p) { return p->UpdatePAB(0, nullptr); }},
      {"DoSentMail", true, [](IMAPISupport* p) { return p->DoSentMail(0, nullptr); }},
      {"OpenAddressBook", true, [](IMAPISupport* p) { return p->OpenAddressBook(nullptr, 0, nullptr); }},
      {"Preprocess", true, [](IMAPISupport* p) { return p->Preprocess(0, 0, nullptr); }},
      {"CompleteMsg", true, [](IMAPISupport* p) { return p->CompleteMsg(0, 0, nullptr); }},
      {"StoreLogoffTransports", true, [](IMAPISupport* p) { return p->StoreLogoffTransports(nullptr); }},
      {"StatusRecips", false, [](IMAPISupport* p) { return p->StatusRecips(nullptr, nullptr); }},
      {"WrapStoreEntryID", true,
       [](IMAPISupport* p) { return p->WrapStoreEntryID(0, nullptr, nullptr, nullptr); }},
      {"ModifyProfile", true, [](IMAPISupport* p) { return p->ModifyProfile(0); }},
      {"IStorageFromStream", true,
       [](IMAPISupport* p) { return p->IStorageFromStream(nullptr, nullptr, 0, nullptr); }},
      {"GetSvcConfigSupportObj", false, [](IMAPISupport* p) { return p->GetSvcConfigSupportObj(0, nullptr); }},
  };
}

}  // namespace

TEST(ZT4SupportTest, ForwardsTheStoreCallsAndRefusesTheRestWithAnAssertion) {
  zt4test::TraceLog log(5);
  CRecordingSupport wrapped;
  CMAPISupport* pSupport = new CMAPISupport(&wrapped);
  EXPECT_EQ(wrapped.m_cRef, 2u);
  EXPECT_EQ(pSupport->AddRef(), 1u);  // the count starts at 0: the first holder makes it 1

  std::vector<Slot> slots = AllSlots();
  int cForwarded = 0, cRefused = 0;
  for (const Slot& slot : slots) {
    wrapped.m_calls.clear();
    const std::string before = log.Text();
    HRESULT hr = slot.call(pSupport);
    if (slot.fForwarded) {
      ++cForwarded;
      EXPECT_EQ(hr, kWrappedAnswer) << slot.pszName;
      EXPECT_EQ(wrapped.m_calls, std::vector<std::string>{slot.pszName}) << slot.pszName;
    } else {
      ++cRefused;
      EXPECT_EQ(hr, MAPI_E_NO_SUPPORT) << slot.pszName;
      EXPECT_TRUE(wrapped.m_calls.empty()) << slot.pszName;
      EXPECT_NE(log.Text().find("Assertion failed in File: ", before.size()), std::string::npos) << slot.pszName;
    }
  }
  // With AddRef and Release on the wrapper's own count: 29 forwarded, 15 refused.
  EXPECT_EQ(cForwarded + 2, 29);
  EXPECT_EQ(cRefused, 15);

  // The wrapper's count is its own; the last Release gives back its reference on the wrapped object.
  EXPECT_EQ(pSupport->AddRef(), 2u);
  EXPECT_EQ(wrapped.m_cRef, 2u);
  EXPECT_EQ(pSupport->Release(), 1u);
  EXPECT_EQ(pSupport->Release(), 0u);
  EXPECT_EQ(wrapped.m_cRef, 1u);
}
