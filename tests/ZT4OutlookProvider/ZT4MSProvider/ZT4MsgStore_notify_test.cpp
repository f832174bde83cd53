// The store's subscriptions, its notifications to clients, the events between its two contexts,
// the receive folders and the outgoing queue.
#include <cstring>

#include "provider_test_support.h"

namespace {

using zt4test::AsEntryID;
using zt4test::Bytes;
using zt4test::SinkRecorder;
using zt4test::TestEid;

class StoreNotifyTest : public zt4test::StoreTest {
 protected:
  static NOTIFICATION Extended(ULONG ulEvent, ULONG cb, LPBYTE pb) {
    NOTIFICATION n;
    memset(&n, 0, sizeof(n));
    n.ulEventType = fnevExtended;
    n.info.ext.ulEvent = ulEvent;
    n.info.ext.cb = cb;
    n.info.ext.pbEventParameters = pb;
    return n;
  }
  static NOTIFICATION Modified(PRIVATE_EID* pEID) {
    NOTIFICATION n;
    memset(&n, 0, sizeof(n));
    n.ulEventType = fnevObjectModified;
    n.info.obj.cbEntryID = CB_PRIVATE_EID;
    n.info.obj.lpEntryID = AsEntryID(*pEID);
    n.info.obj.ulObjType = MAPI_FOLDER;
    return n;
  }
  static ULONG RowCount(LPMAPITABLE pTable) {
    ULONG c = 0;
    EXPECT_EQ(pTable->GetRowCount(0, &c), S_OK);
    return c;
  }
};

TEST_F(StoreNotifyTest, AdviseKinds) {
  CMsgStore* pStore = MakeStore();
  ASSERT_NE(pStore, nullptr);
  SinkRecorder* pSink = new SinkRecorder;
  ULONG ulStoreWide1 = 0, ulStoreWide2 = 0, ulFolder = 0, ulBad = 77;

  ASSERT_EQ(pStore->Advise(0, NULL, fnevObjectModified, pSink, &ulStoreWide1), S_OK);
  ASSERT_EQ(pStore->Advise(pStore->m_StoreEID.cb, reinterpret_cast<LPENTRYID>(pStore->m_StoreEID.lpb),
                           fnevObjectModified, pSink, &ulStoreWide2),
            S_OK);
  PRIVATE_EID eidFolder = TestEid(MAPI_FOLDER, 12);
  ASSERT_EQ(pStore->Advise(CB_PRIVATE_EID, AsEntryID(eidFolder), fnevObjectModified, pSink, &ulFolder), S_OK);
  EXPECT_NE(ulStoreWide1, 0u);
  EXPECT_NE(ulStoreWide2, ulStoreWide1);
  EXPECT_NE(ulFolder, 0u);

  size_t cStoreKeys = 0, cFolderKeys = 0;
  for (auto& s : m_pFake->Subscriptions()) {
    cStoreKeys += s.key == StoreKey();
    cFolderKeys += s.key == EidKey(eidFolder);
  }
  EXPECT_EQ(cStoreKeys, 2u);
  EXPECT_EQ(cFolderKeys, 1u);

  // A 132-byte ID of another store, and an ID that is neither.
  MAPIUID other = zt4test::TestStoreUID();
  other.ab[15] ^= 1;
  PRIVATE_EID eidOther = TestEid(MAPI_FOLDER, 12, other);
  EXPECT_EQ(pStore->Advise(CB_PRIVATE_EID, AsEntryID(eidOther), fnevObjectModified, pSink, &ulBad),
            MAPI_E_INVALID_ENTRYID);
  EXPECT_EQ(ulBad, 0u);
  BYTE abJunk[10] = {};
  ulBad = 77;
  EXPECT_EQ(pStore->Advise(sizeof(abJunk), reinterpret_cast<LPENTRYID>(abJunk), fnevObjectModified, pSink, &ulBad),
            MAPI_E_INVALID_ENTRYID);
  EXPECT_EQ(ulBad, 0u);
  EXPECT_EQ(pStore->Advise(0, NULL, fnevObjectModified, NULL, &ulBad), E_INVALIDARG);

  // A failing subscription leaves no connection and no node.
  m_pFake->hrSubscribe = MAPI_E_NOT_ENOUGH_MEMORY;
  ulBad = 77;
  PRIVATE_EID eidFolder2 = TestEid(MAPI_FOLDER, 13);
  EXPECT_EQ(pStore->Advise(CB_PRIVATE_EID, AsEntryID(eidFolder2), fnevObjectModified, pSink, &ulBad),
            MAPI_E_NOT_ENOUGH_MEMORY);
  EXPECT_EQ(ulBad, 0u);
  EXPECT_TRUE(Logged("CMsgStore::Advise: Failed to set internal advise link:8007000e"));
  {
    pStore->Lock();
    EXPECT_TRUE(pStore->IsObjectInNotifList(&eidFolder));
    EXPECT_FALSE(pStore->IsObjectInNotifList(&eidFolder2));
    pStore->Unlock();
  }
  m_pFake->hrSubscribe = S_OK;

  EXPECT_EQ(pStore->Unadvise(ulFolder), S_OK);
  {
    pStore->Lock();
    EXPECT_FALSE(pStore->IsObjectInNotifList(&eidFolder));
    pStore->Unlock();
  }
  EXPECT_EQ(pStore->Unadvise(ulStoreWide1), S_OK);
  EXPECT_EQ(pStore->Unadvise(ulStoreWide2), S_OK);
  EXPECT_EQ(pStore->Unadvise(ulStoreWide2), MAPI_E_NOT_FOUND);
  pSink->Release();
}

TEST_F(StoreNotifyTest, NotifyClientsSendsOncePerKindOfSubscriber) {
  CMsgStore* pStore = MakeStore();
  ASSERT_NE(pStore, nullptr);
  PRIVATE_EID eidFolder = TestEid(MAPI_FOLDER, 12);
  NOTIFICATION n = Modified(&eidFolder);

  // Nobody listens: nothing is sent.
  EXPECT_EQ(pStore->NotifyClients(&eidFolder, 1, &n), S_OK);
  EXPECT_TRUE(m_pFake->Notifies().empty());

  SinkRecorder* pStoreSink = new SinkRecorder;
  SinkRecorder* pFolderSink = new SinkRecorder;
  ULONG ulStore = 0, ulFolder = 0;
  ASSERT_EQ(pStore->Advise(0, NULL, fnevObjectModified, pStoreSink, &ulStore), S_OK);
  ASSERT_EQ(pStore->Advise(CB_PRIVATE_EID, AsEntryID(eidFolder), fnevObjectModified, pFolderSink, &ulFolder), S_OK);

  EXPECT_EQ(pStore->NotifyClients(&eidFolder, 1, &n), S_OK);
  EXPECT_EQ(m_pFake->NotifiesFor(StoreKey()), 1u);
  EXPECT_EQ(m_pFake->NotifiesFor(EidKey(eidFolder)), 1u);
  EXPECT_EQ(pStoreSink->Events().size(), 1u);
  EXPECT_EQ(pFolderSink->Events().size(), 1u);

  // Another object: only the store-wide subscriber.
  PRIVATE_EID eidOther = TestEid(MAPI_FOLDER, 14);
  EXPECT_EQ(pStore->NotifyClients(&eidOther, 1, &n), S_OK);
  EXPECT_EQ(pStoreSink->Events().size(), 2u);
  EXPECT_EQ(pFolderSink->Events().size(), 1u);

  // A store-wide Unadvise leaves the count: Notify is still called for the store key.
  EXPECT_EQ(pStore->Unadvise(ulStore), S_OK);
  m_pFake->ClearNotifies();
  EXPECT_EQ(pStore->NotifyClients(NULL, 1, &n), S_OK);
  EXPECT_EQ(m_pFake->NotifiesFor(StoreKey()), 1u);
  EXPECT_EQ(pStoreSink->Events().size(), 2u);

  // A failed send is reported to the caller and logged.
  m_pFake->hrNotify = MAPI_E_CALL_FAILED;
  EXPECT_EQ(pStore->NotifyClients(&eidFolder, 1, &n), MAPI_E_CALL_FAILED);
  EXPECT_TRUE(Logged("CMsgStore::NotifyClients: Failed to send notifications:80004005"));
  m_pFake->hrNotify = S_OK;

  EXPECT_EQ(pStore->Unadvise(ulFolder), S_OK);
  pStoreSink->Release();
  pFolderSink->Release();
}

TEST_F(StoreNotifyTest, ContextEventsAreFilteredByContext) {
  CMsgStore* pClient = MakeStore(FALSE);
  CMsgStore* pSpooler = MakeStore(TRUE);
  ASSERT_NE(pClient, nullptr);
  ASSERT_NE(pSpooler, nullptr);
  BYTE abPayload[CB_CONTEXT_MSG_EVENT] = {};
  PRIVATE_EID eidMessage = TestEid(MAPI_MESSAGE, 40);
  memcpy(abPayload, &eidMessage, CB_PRIVATE_EID);

  NOTIFICATION n1 = Extended(CONTEXT_EVENT_SUBMITTED, CB_CONTEXT_MSG_EVENT, abPayload);
  EXPECT_EQ(ContextNotify(pClient, 1, &n1), 0);
  EXPECT_TRUE(Logged("ContextNotify: Notification received: fnevExtended"));
  EXPECT_TRUE(Logged("ContextNotify: Ignorig notification intended for the SPOOLER context"));

  NOTIFICATION n2 = Extended(CONTEXT_EVENT_FINISHED, CB_CONTEXT_MSG_EVENT, abPayload);
  EXPECT_EQ(ContextNotify(pSpooler, 1, &n2), 0);
  EXPECT_TRUE(Logged("ContextNotify: Ignorig notification intended for the CLIENT context"));

  NOTIFICATION n9 = Extended(9, 0, NULL);
  EXPECT_EQ(ContextNotify(pClient, 1, &n9), 0);
  EXPECT_TRUE(Logged("ContextNotify: Unknown extended event notification received"));

  NOTIFICATION nOther;
  memset(&nOther, 0, sizeof(nOther));
  nOther.ulEventType = fnevObjectDeleted;
  EXPECT_EQ(ContextNotify(pClient, 1, &nOther), 0);
  EXPECT_TRUE(Logged("ContextNotify: Unwanted notification received"));

  EXPECT_EQ(ContextNotify(NULL, 1, &nOther), 0);
  EXPECT_TRUE(Logged("Where is the message store object!?!?!?"));
  // A short payload is an assertion, not a read past its end.
  NOTIFICATION nShort = Extended(CONTEXT_EVENT_SUBMITTED, 8, abPayload);
  EXPECT_EQ(ContextNotify(pSpooler, 1, &nShort), 0);
  EXPECT_EQ(ContextNotify(pSpooler, 0, NULL), 0);
}

TEST_F(StoreNotifyTest, SubmittedMessagesReachTheSpoolerQueueOnlyOnceItExists) {
  CMsgStore* pClient = MakeStore(FALSE);
  CMsgStore* pSpooler = MakeStore(TRUE);
  ASSERT_NE(pClient, nullptr);
  ASSERT_NE(pSpooler, nullptr);
  PRIVATE_EID eidMessage = TestEid(MAPI_MESSAGE, 40);
  FILETIME ft = {0x11223344, 0x01D90000};

  // Before the spooler asks for its queue the event adds nothing.
  EXPECT_EQ(pClient->SubmitToSpoolerContextStore(ft, eidMessage), S_OK);
  ASSERT_EQ(m_pFake->NotifiesFor(IPCKey(pClient)), 1u);
  EXPECT_EQ(m_pFake->Notifies()[0].extEvents, std::vector<ULONG>{CONTEXT_EVENT_SUBMITTED});
  EXPECT_TRUE(Logged("ContextNotify: Ignorig notification intended for the SPOOLER context"));

  LPMAPITABLE pQueue = NULL;
  ASSERT_EQ(pSpooler->GetOutgoingQueue(0, &pQueue), S_OK);
  ASSERT_NE(pQueue, nullptr);
  EXPECT_EQ(RowCount(pQueue), 0u);
  EXPECT_EQ(pSpooler->GetOutgoingQueueViewCount(), 1u);

  EXPECT_EQ(pClient->SubmitToSpoolerContextStore(ft, eidMessage), S_OK);
  ASSERT_EQ(RowCount(pQueue), 1u);
  LPSRowSet pRows = NULL;
  ASSERT_EQ(pQueue->QueryRows(1, 0, &pRows), S_OK);
  ASSERT_EQ(pRows->cRows, 1u);
  const SRow& row = pRows->aRow[0];
  ASSERT_EQ(row.cValues, 5u);
  EXPECT_EQ(row.lpProps[0].ulPropTag, static_cast<ULONG>(PR_INSTANCE_KEY));
  ASSERT_EQ(row.lpProps[0].Value.bin.cb, 4u);
  DWORD dwKey = 0;
  memcpy(&dwKey, row.lpProps[0].Value.bin.lpb, 4);
  EXPECT_EQ(dwKey, 40u);
  EXPECT_EQ(row.lpProps[1].Value.bin.cb, CB_PRIVATE_EID);
  EXPECT_EQ(memcmp(row.lpProps[1].Value.bin.lpb, &eidMessage, CB_PRIVATE_EID), 0);
  EXPECT_EQ(row.lpProps[4].ulPropTag, static_cast<ULONG>(PR_CLIENT_SUBMIT_TIME));
  EXPECT_EQ(row.lpProps[4].Value.ft.dwLowDateTime, ft.dwLowDateTime);
  EXPECT_EQ(row.lpProps[4].Value.ft.dwHighDateTime, ft.dwHighDateTime);
  FreeProws(pRows);

  // The view holds the store; releasing it gives the view count back.
  pQueue->Release();
  EXPECT_EQ(pSpooler->GetOutgoingQueueViewCount(), 0u);

  // A send failure stays inside.
  m_pFake->hrNotify = MAPI_E_CALL_FAILED;
  EXPECT_EQ(pClient->SubmitToSpoolerContextStore(ft, eidMessage), S_OK);
  EXPECT_TRUE(Logged("CMsgStore::SubmitToSpoolerContextStore"));
  m_pFake->hrNotify = S_OK;
}

TEST_F(StoreNotifyTest, FinishedMsgAndLockStateBelongToTheSpooler) {
  CMsgStore* pClient = MakeStore(FALSE);
  CMsgStore* pSpooler = MakeStore(TRUE);
  ASSERT_NE(pClient, nullptr);
  ASSERT_NE(pSpooler, nullptr);
  PRIVATE_EID eidMessage = TestEid(MAPI_MESSAGE, 40);
  EXPECT_EQ(pClient->FinishedMsg(0, CB_PRIVATE_EID, AsEntryID(eidMessage)), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pSpooler->FinishedMsg(0, CB_PRIVATE_EID, AsEntryID(eidMessage)), MAPI_E_NOT_IN_QUEUE);
  PRIVATE_EID eidFolder = TestEid(MAPI_FOLDER, 40);
  EXPECT_EQ(pSpooler->FinishedMsg(0, CB_PRIVATE_EID, AsEntryID(eidFolder)), MAPI_E_INVALID_ENTRYID);
  EXPECT_EQ(pSpooler->FinishedMsg(0, 12, AsEntryID(eidMessage)), MAPI_E_INVALID_ENTRYID);
  EXPECT_EQ(pSpooler->FinishedMsg(0, CB_PRIVATE_EID, NULL), MAPI_E_INVALID_ENTRYID);
  EXPECT_EQ(pSpooler->GetLastErrorCode(), MAPI_E_INVALID_ENTRYID);

  EXPECT_EQ(pClient->SetLockState(NULL, MSG_LOCKED), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pSpooler->SetLockState(NULL, MSG_LOCKED), E_INVALIDARG);
}

TEST_F(StoreNotifyTest, NewMailGoesFromTheSpoolerToClientStoreSubscribers) {
  CMsgStore* pClient = MakeStore(FALSE);
  CMsgStore* pSpooler = MakeStore(TRUE);
  ASSERT_NE(pClient, nullptr);
  ASSERT_NE(pSpooler, nullptr);
  PRIVATE_EID eidMessage = TestEid(MAPI_MESSAGE, 50), eidFolder = TestEid(MAPI_FOLDER, 3);
  NOTIFICATION n;
  memset(&n, 0, sizeof(n));
  n.ulEventType = fnevNewMail;
  n.info.newmail.cbEntryID = CB_PRIVATE_EID;
  n.info.newmail.lpEntryID = AsEntryID(eidMessage);
  n.info.newmail.cbParentID = CB_PRIVATE_EID;
  n.info.newmail.lpParentID = AsEntryID(eidFolder);

  EXPECT_EQ(pClient->NotifyNewMail(&n), MAPI_E_NO_SUPPORT);
  EXPECT_TRUE(m_pFake->Notifies().empty());

  SinkRecorder* pSink = new SinkRecorder;
  ULONG ulConnection = 0;
  ASSERT_EQ(pClient->Advise(0, NULL, fnevNewMail, pSink, &ulConnection), S_OK);
  EXPECT_EQ(pSpooler->NotifyNewMail(&n), S_OK);
  EXPECT_EQ(m_pFake->NotifiesFor(IPCKey(pSpooler)), 1u);
  EXPECT_TRUE(Logged("ContextNotify: Notification received: fnevNewMail"));
  // The client store passed it on under the store key; the spooler's own subscription has no
  // fnevNewMail in its mask.
  EXPECT_EQ(m_pFake->NotifiesFor(StoreKey()), 1u);
  EXPECT_EQ(pSink->Events(), std::vector<ULONG>{fnevNewMail});
  EXPECT_EQ(pClient->Unadvise(ulConnection), S_OK);
  pSink->Release();
}

TEST_F(StoreNotifyTest, ReceiveFolderRoundTrip) {
  CMsgStore* pStore = MakeStore();
  ASSERT_NE(pStore, nullptr);
  PRIVATE_EID eidInbox = TestEid(MAPI_FOLDER, 3);
  ASSERT_EQ(pStore->SetReceiveFolder(const_cast<LPSTR>("IPM"), 0, CB_PRIVATE_EID, AsEntryID(eidInbox)), S_OK);
  // Event 3 went out and came back to this very store.
  ASSERT_EQ(m_pFake->NotifiesFor(IPCKey(pStore)), 1u);
  EXPECT_EQ(m_pFake->Notifies()[0].extEvents, std::vector<ULONG>{CONTEXT_EVENT_RECEIVE_FOLDER});

  ULONG cb = 0;
  LPENTRYID pEntryID = NULL;
  LPSTR pszExplicit = NULL;
  ASSERT_EQ(pStore->GetReceiveFolder(const_cast<LPSTR>("ipm"), 0, &cb, &pEntryID, &pszExplicit), S_OK);
  ASSERT_EQ(cb, CB_PRIVATE_EID);
  EXPECT_EQ(reinterpret_cast<PRIVATE_EID*>(pEntryID)->dwObjID, 3u);
  EXPECT_EQ(reinterpret_cast<PRIVATE_EID*>(pEntryID)->bObjType, MAPI_FOLDER);
  EXPECT_STREQ(pszExplicit, "ipm");
  MAPIFreeBuffer(pEntryID);
  MAPIFreeBuffer(pszExplicit);
  EXPECT_EQ(pStore->GetReceiveFolder(const_cast<LPSTR>("IPM.Unknown"), 0, &cb, &pEntryID, NULL), MAPI_E_NOT_FOUND);
  EXPECT_EQ(pEntryID, nullptr);

  LPMAPITABLE pTable = NULL;
  HRESULT hr = pStore->GetReceiveFolderTable(0, &pTable);
  ASSERT_EQ(hr, S_OK) << std::hex << hr;
  ULONG cRows = RowCount(pTable);
  EXPECT_GE(cRows, 2u);  // the default row and "IPM"
  EXPECT_EQ(pStore->GetReceiveFolderViewCount(), 1u);

  // With the table at hand the look-up goes through it.
  ASSERT_EQ(pStore->GetReceiveFolder(const_cast<LPSTR>("IPM"), 0, &cb, &pEntryID, NULL), S_OK);
  EXPECT_EQ(reinterpret_cast<PRIVATE_EID*>(pEntryID)->dwObjID, 3u);
  MAPIFreeBuffer(pEntryID);

  // An event 3 from the other context adds a row keyed by the count plus one; our own doesn't.
  BYTE abPayload[CB_CONTEXT_RFS_EVENT] = {};
  strcpy(reinterpret_cast<char*>(abPayload), "IPM.Other");
  PRIVATE_EID eidOther = TestEid(MAPI_FOLDER, 7);
  memcpy(abPayload + 256, &eidOther, CB_PRIVATE_EID);
  NOTIFICATION n = Extended(CONTEXT_EVENT_RECEIVE_FOLDER, CB_CONTEXT_RFS_EVENT, abPayload);
  EXPECT_EQ(ContextNotify(pStore, 1, &n), 0);
  EXPECT_EQ(RowCount(pTable), cRows + 1);
  ASSERT_EQ(pStore->GetReceiveFolder(const_cast<LPSTR>("ipm.other"), 0, &cb, &pEntryID, NULL), S_OK);
  EXPECT_EQ(reinterpret_cast<PRIVATE_EID*>(pEntryID)->dwObjID, 7u);
  MAPIFreeBuffer(pEntryID);

  pTable->Release();
  EXPECT_EQ(pStore->GetReceiveFolderViewCount(), 0u);
}

TEST_F(StoreNotifyTest, SetReceiveFolderRejectsBadInput) {
  CMsgStore* pStore = MakeStore();
  ASSERT_NE(pStore, nullptr);
  PRIVATE_EID eidInbox = TestEid(MAPI_FOLDER, 3);
  std::string longClass(256, 'A');
  EXPECT_EQ(pStore->SetReceiveFolder(&longClass[0], 0, CB_PRIVATE_EID, AsEntryID(eidInbox)), E_INVALIDARG);
  EXPECT_EQ(pStore->SetReceiveFolder(const_cast<LPSTR>("IPM..Note"), 0, CB_PRIVATE_EID, AsEntryID(eidInbox)),
            E_INVALIDARG);
  EXPECT_EQ(pStore->SetReceiveFolder(const_cast<LPSTR>("IPM"), 0, 131, AsEntryID(eidInbox)), E_INVALIDARG);
  EXPECT_EQ(pStore->SetReceiveFolder(const_cast<LPSTR>("IPM"), 0, CB_PRIVATE_EID, NULL), E_INVALIDARG);
  MAPIUID other = zt4test::TestStoreUID();
  other.ab[3] ^= 1;
  PRIVATE_EID eidOther = TestEid(MAPI_FOLDER, 3, other);
  EXPECT_EQ(pStore->SetReceiveFolder(const_cast<LPSTR>("IPM"), 0, CB_PRIVATE_EID, AsEntryID(eidOther)),
            E_INVALIDARG);
  EXPECT_TRUE(Logged("CMsgStore::SetReceiveFolder:80070057"));
  // The empty class changes nothing and sends nothing.
  EXPECT_EQ(pStore->SetReceiveFolder(NULL, 0, CB_PRIVATE_EID, AsEntryID(eidInbox)), S_OK);
  EXPECT_TRUE(m_pFake->Notifies().empty());

  ULONG cb = 0;
  LPENTRYID pEntryID = NULL;
  EXPECT_EQ(pStore->GetReceiveFolder(const_cast<LPSTR>("IPM"), 0, NULL, &pEntryID, NULL), E_INVALIDARG);
  EXPECT_EQ(pStore->GetReceiveFolderTable(0, NULL), E_INVALIDARG);
  EXPECT_EQ(pStore->GetOutgoingQueue(0, NULL), E_INVALIDARG);
  (void)cb;
}

}  // namespace
