// Test ground for the store and folder objects, without a profile or a second process.
//
//   zt4test::FakeSupport   an IMAPISupport that records what the provider asks of it:
//       Subscribe/Unsubscribe/Notify  subscriptions by key; Notify records each call and hands the
//                                     notifications at once, on the caller's thread, to every sink
//                                     subscribed under the same key bytes whose mask has the event.
//                                     SetDeliver(false) only records.
//       NewUID                        0x10, 0x11, ... in the first byte of a fixed pattern.
//       WrapStoreEntryID              "WRAP" followed by the original bytes (UnwrapStoreEntryID).
//       OpenProfileSection            one in-memory FakeProfSect per support object; counts opens.
//       ModifyStatusRow, StoreLogoffTransports, SetProviderUID, ModifyProfile  record their calls.
//       DoSentMail                    records the message and releases it.
//     Failures can be injected per call kind (hrSubscribe, hrNotify, hrOpenProfileSection).
//   zt4test::FakeProfSect  an IProfSect over a map of tags; counts SetProps and SaveChanges.
//   zt4test::SinkRecorder  an IMAPIAdviseSink that keeps the event types it was told.
//   zt4test::StoreTest     a gtest fixture: heaps, MAPI allocators, a trace log in an isolated home,
//                          a new store file with a CFileBackEnd on it, a CMSProvider, and
//                          MakeStore() for a CMsgStore around a CMAPISupport around the fake
//                          (with, on request, its inter-context subscription as Logon makes it).
//
// Test programs using it link admessaging.
#pragma once
#include <gtest/gtest.h>

#include <mapicode.h>
#include <mapitags.h>
#include <mapiutil.h>
#include <mapix.h>

#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "MemHeap.h"
#include "ZT4DBFile.h"
#include "ZT4FileStg.h"
#include "ZT4MSProvider.h"
#include "ZT4MsgStore.h"
#include "ZT4Support.h"
#include "supportbase.h"
#include "trace_fixture.h"

namespace zt4test {

typedef std::vector<BYTE> Bytes;

inline Bytes KeyBytes(const NOTIFKEY* pKey) { return Bytes(pKey->ab, pKey->ab + pKey->cb); }

// ---------------------------------------------------------------------------------------------
class SinkRecorder : public adm::ComObject<IMAPIAdviseSink, IID_IMAPIAdviseSink> {
 public:
  STDMETHODIMP_(ULONG) OnNotify(ULONG cNotif, LPNOTIFICATION lpNotifications) override {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: leaf
    for (ULONG i = 0; i < cNotif; ++i) {
      m_events.push_back(lpNotifications[i].ulEventType);
      if (lpNotifications[i].ulEventType == fnevObjectModified || lpNotifications[i].ulEventType == fnevObjectCreated)
        m_objTypes.push_back(lpNotifications[i].info.obj.ulObjType);
    }
    return 0;
  }
  std::vector<ULONG> Events() {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: leaf
    return m_events;
  }
  std::vector<ULONG> ObjTypes() {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: leaf
    return m_objTypes;
  }

 private:
  std::mutex m_lock;
  std::vector<ULONG> m_events;
  std::vector<ULONG> m_objTypes;
};

// ---------------------------------------------------------------------------------------------
class FakeProfSect : public adm::ComObject<IProfSect, IID_IProfSect> {
 public:
  ~FakeProfSect() override {
    for (auto& kv : m_values) MAPIFreeBuffer(kv.second);
  }
  MAPIMETHOD(GetLastError)(HRESULT, ULONG, LPMAPIERROR* lppMAPIError) override {
    if (lppMAPIError) *lppMAPIError = NULL;
    return MAPI_E_NO_SUPPORT;
  }
  MAPIMETHOD(SaveChanges)(ULONG) override {
    ++cSaveChanges;
    return S_OK;
  }
  // Values in the order asked; missing ones as PT_ERROR with MAPI_W_ERRORS_RETURNED.
  MAPIMETHOD(GetProps)(LPSPropTagArray lpTags, ULONG, ULONG* lpcValues, LPSPropValue* lppProps) override {
    if (!lpTags || !lpcValues || !lppProps) return MAPI_E_INVALID_PARAMETER;
    LPSPropValue pOut = NULL;
    MAPIAllocateBuffer(sizeof(SPropValue) * lpTags->cValues, reinterpret_cast<LPVOID*>(&pOut));
    HRESULT hr = S_OK;
    for (ULONG i = 0; i < lpTags->cValues; ++i) {
      auto it = m_values.find(PROP_ID(lpTags->aulPropTag[i]));
      if (it == m_values.end()) {
        pOut[i].ulPropTag = CHANGE_PROP_TYPE(lpTags->aulPropTag[i], PT_ERROR);
        pOut[i].Value.err = MAPI_E_NOT_FOUND;
        hr = MAPI_W_ERRORS_RETURNED;
      } else {
        PropCopyMore(&pOut[i], it->second, MAPIAllocateMore, pOut);
      }
    }
    *lpcValues = lpTags->cValues;
    *lppProps = pOut;
    return hr;
  }
  MAPIMETHOD(GetPropList)(ULONG, LPSPropTagArray* lppTags) override {
    if (lppTags) *lppTags = NULL;
    return MAPI_E_NO_SUPPORT;
  }
  MAPIMETHOD(OpenProperty)(ULONG, LPCIID, ULONG, ULONG, LPUNKNOWN* lppUnk) override {
    if (lppUnk) *lppUnk = NULL;
    return MAPI_E_NO_SUPPORT;
  }
  MAPIMETHOD(SetProps)(ULONG cValues, LPSPropValue lpProps, LPSPropProblemArray* lppProblems) override {
    if (lppProblems) *lppProblems = NULL;
    ++cSetProps;
    for (ULONG i = 0; i < cValues; ++i) {
      LPSPropValue pCopy = NULL;
      MAPIAllocateBuffer(sizeof(SPropValue), reinterpret_cast<LPVOID*>(&pCopy));
      PropCopyMore(pCopy, &lpProps[i], MAPIAllocateMore, pCopy);
      ULONG ulID = PROP_ID(lpProps[i].ulPropTag);
      if (m_values.count(ulID)) MAPIFreeBuffer(m_values[ulID]);
      m_values[ulID] = pCopy;
      setTags.push_back(lpProps[i].ulPropTag);
    }
    return S_OK;
  }
  MAPIMETHOD(DeleteProps)(LPSPropTagArray, LPSPropProblemArray*) override { return MAPI_E_NO_SUPPORT; }
  MAPIMETHOD(CopyTo)(ULONG, LPCIID, LPSPropTagArray, ULONG_PTR, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG,
                     LPSPropProblemArray*) override {
    return MAPI_E_NO_SUPPORT;
  }
  MAPIMETHOD(CopyProps)(LPSPropTagArray, ULONG_PTR, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG,
                        LPSPropProblemArray*) override {
    return MAPI_E_NO_SUPPORT;
  }
  MAPIMETHOD(GetNamesFromIDs)(LPSPropTagArray*, LPGUID, ULONG, ULONG*, LPMAPINAMEID**) override {
    return MAPI_E_NO_SUPPORT;
  }
  MAPIMETHOD(GetIDsFromNames)(ULONG, LPMAPINAMEID*, ULONG, LPSPropTagArray*) override { return MAPI_E_NO_SUPPORT; }

  // The stored value of a property ID, or NULL.
  LPSPropValue Find(ULONG ulPropTag) {
    auto it = m_values.find(PROP_ID(ulPropTag));
    return it == m_values.end() ? NULL : it->second;
  }

  int cSetProps = 0;
  int cSaveChanges = 0;
  std::vector<ULONG> setTags;  // every tag written, in order

 private:
  std::map<ULONG, LPSPropValue> m_values;  // by property ID; each its own MAPI block
};

// ---------------------------------------------------------------------------------------------
class FakeSupport : public adm::CSupportBase {
 public:
  struct Subscription {
    Bytes key;
    ULONG ulEventMask;
    LPMAPIADVISESINK pSink;
    ULONG ulConnection;
  };
  struct NotifyCall {
    Bytes key;
    std::vector<ULONG> events;
    std::vector<ULONG> extEvents;  // ulEvent of each fnevExtended
  };

  FakeSupport() : CSupportBase("FakeSupport", " is not offered by the test support object") {}
  ~FakeSupport() override {
    for (auto& s : m_subs) s.pSink->Release();
    if (m_pSection) m_pSection->Release();
  }

  MAPIMETHOD(Subscribe)(LPNOTIFKEY lpKey, ULONG ulEventMask, ULONG, LPMAPIADVISESINK lpAdviseSink,
                        ULONG* lpulConnection) override {
    if (lpulConnection) *lpulConnection = 0;
    if (!lpKey || !lpAdviseSink || !lpulConnection) return MAPI_E_INVALID_PARAMETER;
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: support lock (leaf)
    if (FAILED(hrSubscribe)) return hrSubscribe;
    lpAdviseSink->AddRef();
    m_subs.push_back({KeyBytes(lpKey), ulEventMask, lpAdviseSink, ++m_ulNextConnection});
    *lpulConnection = m_ulNextConnection;
    return S_OK;
  }
  MAPIMETHOD(Unsubscribe)(ULONG ulConnection) override {
    LPMAPIADVISESINK pSink = NULL;
    {
      std::lock_guard<std::mutex> guard(m_lock);  // lock order: support lock (leaf)
      ++cUnsubscribe;
      for (auto it = m_subs.begin(); it != m_subs.end(); ++it) {
        if (it->ulConnection == ulConnection) {
          pSink = it->pSink;
          m_subs.erase(it);
          break;
        }
      }
    }
    if (!pSink) return MAPI_E_NOT_FOUND;
    pSink->Release();
    return S_OK;
  }
  // Records the call, then tells each matching sink outside the support lock, so a sink may
  // call back into the support object.
  MAPIMETHOD(Notify)(LPNOTIFKEY lpKey, ULONG cNotification, LPNOTIFICATION lpNotifications,
                     ULONG* lpulFlags) override {
    if (lpulFlags) *lpulFlags = 0;
    if (!lpKey || !lpNotifications) return MAPI_E_INVALID_PARAMETER;
    std::vector<LPMAPIADVISESINK> targets;
    {
      std::lock_guard<std::mutex> guard(m_lock);  // lock order: support lock (leaf)
      if (FAILED(hrNotify)) return hrNotify;
      NotifyCall call{KeyBytes(lpKey), {}, {}};
      ULONG ulAllEvents = 0;
      for (ULONG i = 0; i < cNotification; ++i) {
        call.events.push_back(lpNotifications[i].ulEventType);
        if (lpNotifications[i].ulEventType == fnevExtended) call.extEvents.push_back(lpNotifications[i].info.ext.ulEvent);
        ulAllEvents |= lpNotifications[i].ulEventType;
      }
      for (auto& s : m_subs) {
        if (m_fDeliver && s.key == call.key && (s.ulEventMask & ulAllEvents)) {
          s.pSink->AddRef();
          targets.push_back(s.pSink);
        }
      }
      m_notifies.push_back(std::move(call));
    }
    for (LPMAPIADVISESINK pSink : targets) {
      pSink->OnNotify(cNotification, lpNotifications);
      pSink->Release();
    }
    return S_OK;
  }
  MAPIMETHOD(NewUID)(LPMAPIUID lpMuid) override {
    if (!lpMuid) return MAPI_E_INVALID_PARAMETER;
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: support lock (leaf)
    for (int i = 0; i < 16; ++i) lpMuid->ab[i] = static_cast<BYTE>(0xA0 + i);
    lpMuid->ab[0] = static_cast<BYTE>(0x10 + m_cUIDs++);
    return S_OK;
  }
  MAPIMETHOD(WrapStoreEntryID)(ULONG cbOrigEntry, LPENTRYID lpOrigEntry, ULONG* lpcbWrappedEntry,
                               LPENTRYID* lppWrappedEntry) override {
    if (!lpOrigEntry || !lpcbWrappedEntry || !lppWrappedEntry) return MAPI_E_INVALID_PARAMETER;
    LPBYTE pb = NULL;
    HRESULT hr = MAPIAllocateBuffer(cbOrigEntry + 4, reinterpret_cast<LPVOID*>(&pb));
    if (FAILED(hr)) return hr;
    memcpy(pb, "WRAP", 4);
    memcpy(pb + 4, lpOrigEntry, cbOrigEntry);
    *lpcbWrappedEntry = cbOrigEntry + 4;
    *lppWrappedEntry = reinterpret_cast<LPENTRYID>(pb);
    return S_OK;
  }
  MAPIMETHOD(OpenProfileSection)(LPMAPIUID, ULONG ulFlags, LPPROFSECT* lppProfileObj) override {
    if (lppProfileObj) *lppProfileObj = NULL;
    if (!lppProfileObj) return MAPI_E_INVALID_PARAMETER;
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: support lock (leaf)
    ++cOpenProfileSection;
    ulLastProfileFlags = ulFlags;
    if (FAILED(hrOpenProfileSection)) return hrOpenProfileSection;
    if (!m_pSection) m_pSection = new FakeProfSect;
    m_pSection->AddRef();
    *lppProfileObj = m_pSection;
    return S_OK;
  }
  MAPIMETHOD(ModifyStatusRow)(ULONG cValues, LPSPropValue lpColumnVals, ULONG ulFlags) override {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: support lock (leaf)
    std::vector<ULONG> tags;
    for (ULONG i = 0; i < cValues && lpColumnVals; ++i) tags.push_back(lpColumnVals[i].ulPropTag);
    statusRows.push_back(tags);
    ulLastStatusFlags = ulFlags;
    return S_OK;
  }
  MAPIMETHOD(StoreLogoffTransports)(ULONG* lpulFlags) override {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: support lock (leaf)
    logoffFlags.push_back(lpulFlags ? *lpulFlags : 0xFFFFFFFF);
    return S_OK;
  }
  MAPIMETHOD(SetProviderUID)(LPMAPIUID lpProviderID, ULONG) override {
    if (!lpProviderID) return MAPI_E_INVALID_PARAMETER;
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: support lock (leaf)
    providerUIDs.push_back(*lpProviderID);
    return S_OK;
  }
  MAPIMETHOD(ModifyProfile)(ULONG) override {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: support lock (leaf)
    ++cModifyProfile;
    return S_OK;
  }
  MAPIMETHOD(DoSentMail)(ULONG, LPMESSAGE lpMessage) override {
    {
      std::lock_guard<std::mutex> guard(m_lock);  // lock order: support lock (leaf)
      ++cDoSentMail;
    }
    if (lpMessage) lpMessage->Release();
    return S_OK;
  }

  // What was recorded. Read between calls of the code under test.
  void SetDeliver(bool fDeliver) { m_fDeliver = fDeliver; }
  std::vector<NotifyCall> Notifies() {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: support lock (leaf)
    return m_notifies;
  }
  void ClearNotifies() {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: support lock (leaf)
    m_notifies.clear();
  }
  // Notify calls under these key bytes.
  size_t NotifiesFor(const Bytes& key) {
    size_t n = 0;
    for (auto& c : Notifies()) n += c.key == key;
    return n;
  }
  std::vector<Subscription> Subscriptions() {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: support lock (leaf)
    return m_subs;
  }
  FakeProfSect* Section() { return m_pSection; }
  static Bytes UnwrapStoreEntryID(ULONG cb, LPBYTE pb) {
    return cb < 4 || memcmp(pb, "WRAP", 4) ? Bytes() : Bytes(pb + 4, pb + cb);
  }

  HRESULT hrSubscribe = S_OK;
  HRESULT hrNotify = S_OK;
  HRESULT hrOpenProfileSection = S_OK;
  int cOpenProfileSection = 0;
  ULONG ulLastProfileFlags = 0;
  int cUnsubscribe = 0;
  int cModifyProfile = 0;
  int cDoSentMail = 0;
  ULONG ulLastStatusFlags = 0;
  std::vector<std::vector<ULONG>> statusRows;
  std::vector<ULONG> logoffFlags;
  std::vector<MAPIUID> providerUIDs;

 private:
  std::vector<Subscription> m_subs;
  std::vector<NotifyCall> m_notifies;
  ULONG m_ulNextConnection = 0;
  int m_cUIDs = 0;
  bool m_fDeliver = true;
  FakeProfSect* m_pSection = NULL;
};

// ---------------------------------------------------------------------------------------------
inline MAPIUID TestStoreUID() {
  MAPIUID uid;
  for (int i = 0; i < 16; ++i) uid.ab[i] = static_cast<BYTE>(0x50 + i);
  return uid;
}

inline PRIVATE_EID TestEid(BYTE bObjType, DWORD dwObjID, const MAPIUID& uid = TestStoreUID()) {
  PRIVATE_EID eid;
  memset(&eid, 0, sizeof(eid));
  eid.guidStore = uid;
  eid.bVersion = PRIVATE_EID_VERSION;
  eid.bObjType = bObjType;
  eid.dwObjID = dwObjID;
  return eid;
}

inline LPENTRYID AsEntryID(const PRIVATE_EID& eid) {
  return reinterpret_cast<LPENTRYID>(const_cast<PRIVATE_EID*>(&eid));
}

// Heaps, allocators, a trace log (level 5) in an isolated home, a new store file with its back
// end, and the provider. MakeStore gives stores that the fixture releases at the end.
class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(ZT4ProcessAttach(reinterpret_cast<HINSTANCE>(this)));
    SetMAPIAllocRoutines(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
    m_log = std::make_unique<TraceLog>(5);
    m_path = m_log->Home().Root() + "\\1.CST";
    m_pFake = new FakeSupport;
    MAPIUID uid = TestStoreUID();
    char szName[DB_NAME_SIZE] = "ArchiveDepot", szComment[DB_NAME_SIZE] = "Orvanta Store";
    ASSERT_EQ(CommonOpenFile(m_path.c_str(), szName, szComment, &uid, &m_pDB, TRUE), S_OK);
    m_pBE = new CFileBackEnd(m_pDB, &uid, m_pFake);
    m_pProvider = new CMSProvider(reinterpret_cast<HINSTANCE>(this));
  }
  void TearDown() override {
    for (CMsgStore* pStore : m_stores) pStore->Release();
    m_stores.clear();
    if (m_pProvider) m_pProvider->Release();
    if (m_pBE) m_pBE->Release();
    // Every opened record stream keeps a reference on the database for good: give them all back.
    if (m_pDB) {
      ULONG cRefs = m_pDB->AddRef();
      for (ULONG i = 0; i < cRefs; ++i) m_pDB->Release();
    }
    if (m_pFake) m_pFake->Release();
    m_log.reset();
    SetMAPIAllocRoutines(NULL, NULL, NULL);
    ZT4ProcessDetach();
  }

  // A store as Logon makes it: access 63, the wrapped store entry ID, the support wrapper with
  // the store's reference. With fSubscribe also the inter-context subscription (fnevExtended, and
  // fnevNewMail in the client context) on the IPC key.
  CMsgStore* MakeStore(BOOL fSpooler = FALSE, bool fSubscribe = true, ULONG lAccess = ZT4_STORE_ACCESS) {
    CMAPISupport* pPrivSup = new CMAPISupport(m_pFake);
    pPrivSup->AddRef();
    MAPIUID uid = TestStoreUID();
    BYTE abRaw[8] = {'S', 'T', 'O', 'R', 'E', 'E', 'I', 'D'};
    SBinary eidStore = {0, NULL};
    EXPECT_EQ(m_pFake->WrapStoreEntryID(sizeof(abRaw), reinterpret_cast<LPENTRYID>(abRaw), &eidStore.cb,
                                        reinterpret_cast<LPENTRYID*>(&eidStore.lpb)),
              S_OK);
    CMsgStore* pStore = NULL;
    try {
      pStore = new CMsgStore(m_pProvider, pPrivSup, m_path.c_str(), "ArchiveDepot", "Orvanta Store", eidStore, m_pBE,
                             FALSE, lAccess, uid, fSpooler);
    } catch (const CMsgStoreError& e) {
      ADD_FAILURE() << "CMsgStore threw " << std::hex << e.hResult;
      return NULL;
    }
    if (fSubscribe) Subscribe(pStore, fSpooler);
    m_stores.push_back(pStore);
    return pStore;
  }

  void Subscribe(CMsgStore* pStore, BOOL fSpooler) {
    BYTE abKey[CB_IPC_NOTIF_KEY];
    BuildIPCNotifKey(pStore->m_StoreUID, abKey);
    LPNOTIFKEY pKey = NULL;
    ASSERT_EQ(AllocateNotifKey(CB_IPC_NOTIF_KEY, abKey, &pKey), S_OK);
    LPMAPIADVISESINK pSink = NULL;
    ASSERT_EQ(HrAllocAdviseSink(ContextNotify, pStore, &pSink), S_OK);
    ULONG ulConnection = 0;
    ULONG ulMask = fSpooler ? fnevExtended : (fnevExtended | fnevNewMail);
    EXPECT_EQ(m_pFake->Subscribe(pKey, ulMask, 0, pSink, &ulConnection), S_OK);
    pSink->Release();
    PrivFree(&pKey);
    pStore->SetIPCSubscription(ulConnection, abKey);
  }

  static Bytes IPCKey(CMsgStore* pStore) { return Bytes(pStore->m_szIPCNotifKey, pStore->m_szIPCNotifKey + CB_IPC_NOTIF_KEY); }
  static Bytes StoreKey() {
    MAPIUID uid = TestStoreUID();
    return Bytes(uid.ab, uid.ab + 16);
  }
  static Bytes EidKey(const PRIVATE_EID& eid) {
    const BYTE* pb = reinterpret_cast<const BYTE*>(&eid);
    return Bytes(pb, pb + CB_PRIVATE_EID);
  }

  bool Logged(const std::string& text) const { return m_log->Has(text); }
  size_t LogCount(const std::string& text) const {
    std::string all = m_log->Text();
    size_t n = 0;
    for (size_t pos = all.find(text); pos != std::string::npos; pos = all.find(text, pos + 1)) ++n;
    return n;
  }

  std::unique_ptr<TraceLog> m_log;
  std::string m_path;
  FakeSupport* m_pFake = NULL;
  CDataBase* m_pDB = NULL;
  CFileBackEnd* m_pBE = NULL;
  CMSProvider* m_pProvider = NULL;
  std::vector<CMsgStore*> m_stores;
};

}  // namespace zt4test
