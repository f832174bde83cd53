// CGenericProp over a real back end: reading, opening, deleting, naming and saving properties.
#include "ZT4GenProp_test_util.h"

#include <string>

using namespace gptest;

namespace {

class ZT4GenPropProps : public GenPropTest {
 protected:
  // Opens ulPropTag as a stream; the caller releases it.
  IUnknown* Open(ULONG ulPropTag, ULONG ulFlags, HRESULT hExpected = S_OK, LPCIID pIID = &IID_IStream) {
    IUnknown* pUnk = NULL;
    EXPECT_EQ(m_pObj->OpenProperty(ulPropTag, pIID, ulFlags, &pUnk), hExpected) << std::hex << ulPropTag;
    return pUnk;
  }
  static void Write(IUnknown* pUnk, const betest::Bytes& bytes) {
    IStream* pStream = NULL;
    ASSERT_EQ(pUnk->QueryInterface(IID_IStream, reinterpret_cast<void**>(&pStream)), S_OK);
    EXPECT_EQ(betest::WriteAll(pStream, bytes), S_OK);
    pStream->Release();
  }
  // Saves a body of cb bytes written through a new stream.
  void SaveBody(size_t cb) {
    IUnknown* pUnk = Open(PR_BODY_A, MAPI_CREATE | MAPI_MODIFY);
    ASSERT_NE(pUnk, nullptr);
    Write(pUnk, betest::Pattern(cb));
    pUnk->Release();
    ASSERT_EQ(m_pObj->SaveChanges(KEEP_OPEN_READWRITE, NULL), S_OK);
  }
};

}  // namespace

TEST_F(ZT4GenPropProps, NullTagListWithoutListGivesExactlyTheObjectTags) {
  m_pObj = NewObject();
  ULONG cValues = 99;
  LPSPropValue pValues = NULL;
  ASSERT_EQ(m_pObj->GetProps(NULL, &cValues, &pValues, ObjectTags()), S_OK);
  ASSERT_EQ(cValues, 2u);
  EXPECT_EQ(pValues[0].ulPropTag, PR_OBJECT_TYPE);
  EXPECT_EQ(pValues[1].ulPropTag, PR_ENTRYID);
  MAPIFreeBuffer(pValues);
  EXPECT_EQ(m_pObj->GetProps(NULL, NULL, &pValues, ObjectTags()), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(m_pObj->GetProps(NULL, &cValues, NULL, ObjectTags()), MAPI_E_INVALID_PARAMETER);
}

TEST_F(ZT4GenPropProps, UnspecifiedTypeTakesTheStoredTypeOtherTypesStay) {
  m_pObj = NewObject();
  SPropValue subject = Str8(PR_SUBJECT_A, "Hello");
  ASSERT_EQ(m_pObj->AddPropToList(&subject, FALSE), S_OK);
  SizedSPropTagArray(3, tags) = {
      3, {CHANGE_PROP_TYPE(PR_SUBJECT_A, PT_UNSPECIFIED), PR_SUBJECT_W, CHANGE_PROP_TYPE(PR_BODY_A, PT_UNSPECIFIED)}};
  ULONG cValues = 0;
  LPSPropValue pValues = NULL;
  ASSERT_EQ(m_pObj->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), &cValues, &pValues, ObjectTags()), S_OK);
  ASSERT_EQ(cValues, 3u);
  EXPECT_EQ(pValues[0].ulPropTag, PR_SUBJECT_A);
  EXPECT_EQ(pValues[1].ulPropTag, PR_SUBJECT_W);
  EXPECT_EQ(pValues[2].ulPropTag, CHANGE_PROP_TYPE(PR_BODY_A, PT_UNSPECIFIED));
  // Filling: the stored value, and not found for what isn't there.
  EXPECT_EQ(m_pObj->GetProps(&pValues[0], pValues), S_OK);
  EXPECT_STREQ(pValues[0].Value.lpszA, "Hello");
  EXPECT_EQ(m_pObj->GetProps(&pValues[2], pValues), MAPI_E_NOT_FOUND);
  EXPECT_EQ(pValues[2].ulPropTag, CHANGE_PROP_TYPE(PR_BODY_A, PT_ERROR));
  EXPECT_EQ(pValues[2].Value.err, MAPI_E_NOT_FOUND);
  MAPIFreeBuffer(pValues);
}

TEST_F(ZT4GenPropProps, ComputedValuesAreCopiedOrGivenAsErrors) {
  SPropValue v = {};
  LPVOID pBlock = NULL;
  ASSERT_EQ(MAPIAllocateBuffer(8, &pBlock), S_OK);
  v.ulPropTag = PR_DISPLAY_NAME_A;
  char szName[] = "Inbox";
  ASSERT_EQ(CGenericProp::GetProps(S_OK, 0, szName, &v, pBlock), S_OK);
  szName[0] = 'X';
  EXPECT_STREQ(v.Value.lpszA, "Inbox");
  BYTE ab[3] = {1, 2, 3};
  v.ulPropTag = PR_RECORD_KEY;
  ASSERT_EQ(CGenericProp::GetProps(S_OK, 3, ab, &v, pBlock), S_OK);
  ASSERT_EQ(v.Value.bin.cb, 3u);
  EXPECT_EQ(v.Value.bin.lpb[2], 3);
  LONG lType = MAPI_FOLDER;
  v.ulPropTag = PR_OBJECT_TYPE;
  ASSERT_EQ(CGenericProp::GetProps(S_OK, sizeof(lType), &lType, &v, pBlock), S_OK);
  EXPECT_EQ(v.Value.l, MAPI_FOLDER);
  v.ulPropTag = PR_RECORD_KEY;
  EXPECT_EQ(CGenericProp::GetProps(MAPI_E_CORRUPT_DATA, 3, ab, &v, pBlock), MAPI_E_CORRUPT_DATA);
  EXPECT_EQ(v.ulPropTag, CHANGE_PROP_TYPE(PR_RECORD_KEY, PT_ERROR));
  EXPECT_EQ(v.Value.err, MAPI_E_CORRUPT_DATA);
  MAPIFreeBuffer(pBlock);
  EXPECT_EQ(CGenericProp::GetProps(S_OK, 0, szName, NULL, NULL), MAPI_E_INVALID_PARAMETER);
}

TEST_F(ZT4GenPropProps, AddPropToListRefusesComputedTagsUnlessForced) {
  m_pObj = NewObject();
  EXPECT_EQ(m_pObj->GetPropListObject(), nullptr);
  SPropValue type = Long(PR_OBJECT_TYPE, MAPI_FOLDER);
  EXPECT_EQ(m_pObj->AddPropToList(&type, FALSE), MAPI_E_COMPUTED);
  ASSERT_NE(m_pObj->GetPropListObject(), nullptr);
  EXPECT_EQ(m_pObj->GetPropListObject()->GetCount(), 0u);
  EXPECT_EQ(m_pObj->AddPropToList(&type, TRUE), S_OK);
  EXPECT_EQ(betest::LongValue(*m_pObj->GetPropListObject(), PR_OBJECT_TYPE), MAPI_FOLDER);
  EXPECT_EQ(m_pObj->AddPropToList(NULL, TRUE), MAPI_E_INVALID_PARAMETER);
}

TEST_F(ZT4GenPropProps, LargeStreamIsNoInlineValueButOpens) {
  m_pObj = NewObject();
  SaveBody(20000);
  // Still held open by nobody: the value comes from its record.
  LPVOID pBlock = NULL;
  SPropValue* pValue = Read(m_pObj, PR_BODY_A, &pBlock);
  ASSERT_NE(pValue, nullptr);
  EXPECT_EQ(pValue->ulPropTag, CHANGE_PROP_TYPE(PR_BODY_A, PT_ERROR));
  EXPECT_EQ(pValue->Value.err, MAPI_E_NOT_ENOUGH_MEMORY);
  MAPIFreeBuffer(pBlock);

  IUnknown* pUnk = Open(PR_BODY_A, 0);
  ASSERT_NE(pUnk, nullptr);
  betest::Bytes expected = betest::Pattern(20000);
  EXPECT_EQ(StreamText(pUnk), std::string(expected.begin(), expected.end()));
  pUnk->Release();

  // The tag list shows the true type of the placeholder.
  LPSPropTagArray pTags = NULL;
  ASSERT_EQ(m_pObj->GetPropList(ObjectTags(), &pTags), S_OK);
  bool fBody = false;
  for (ULONG i = 0; i < pTags->cValues; ++i) fBody = fBody || pTags->aulPropTag[i] == PR_BODY_A;
  EXPECT_TRUE(fBody);
  MAPIFreeBuffer(pTags);

  // A fresh object over the saved record reads the same.
  CTestObject* pAgain = Reload();
  IUnknown* pReopened = NULL;
  ASSERT_EQ(pAgain->OpenProperty(PR_BODY_A, &IID_IStream, 0, &pReopened), S_OK);
  EXPECT_EQ(StreamText(pReopened).size(), 20000u);
  pReopened->Release();
  EXPECT_EQ(pAgain->GenericRelease(), 0u);
}

TEST_F(ZT4GenPropProps, SmallStreamComesBackAsAPlainValue) {
  m_pObj = NewObject();
  IUnknown* pUnk = Open(PR_BODY_A, MAPI_CREATE | MAPI_MODIFY);
  ASSERT_NE(pUnk, nullptr);
  Write(pUnk, betest::Bytes{'h', 'i'});
  EXPECT_NE(m_pObj->m_ulObjFlags & OBJFLAG_MODIFIED, 0u);
  // Before the save the open stream answers, changes included.
  LPVOID pBlock = NULL;
  SPropValue* pValue = Read(m_pObj, PR_BODY_A, &pBlock);
  ASSERT_NE(pValue, nullptr);
  EXPECT_EQ(pValue->ulPropTag, PR_BODY_A);
  EXPECT_STREQ(pValue->Value.lpszA, "hi");
  MAPIFreeBuffer(pBlock);
  pUnk->Release();
  ASSERT_EQ(m_pObj->SaveChanges(KEEP_OPEN_READWRITE, NULL), S_OK);
  EXPECT_EQ(m_pObj->m_ulObjFlags & OBJFLAG_MODIFIED, 0u);

  std::unique_ptr<CPropList> pStored = Load(m_eid.dwObjID);
  SPropValue v = {};
  ASSERT_EQ(pStored->Find(PR_BODY_A, &v, TRUE), S_OK);
  EXPECT_STREQ(v.Value.lpszA, "hi");
  EXPECT_EQ(pStored->Find(PR_LAST_MODIFICATION_TIME, &v, TRUE), S_OK);
}

TEST_F(ZT4GenPropProps, PlainValueOpensAsAStreamAndForWriteBecomesAPlaceholder) {
  m_pObj = NewObject();
  SPropValue subject = Str8(PR_SUBJECT_A, "Plain text");
  ASSERT_EQ(m_pObj->AddPropToList(&subject, FALSE), S_OK);
  IUnknown* pRead = Open(PR_SUBJECT_A, 0);
  ASSERT_NE(pRead, nullptr);
  EXPECT_EQ(StreamText(pRead), "Plain text");
  pRead->Release();
  SPropValue v = {};
  ASSERT_EQ(m_pObj->GetPropListObject()->Find(PR_SUBJECT_A, &v, TRUE), S_OK);  // reading changed nothing

  IUnknown* pWrite = Open(PR_SUBJECT_A, MAPI_MODIFY);
  ASSERT_NE(pWrite, nullptr);
  EXPECT_EQ(StreamText(pWrite), "Plain text");
  SPropValue stub = betest::StubOf(*m_pObj->GetPropListObject(), PR_SUBJECT_A);
  EXPECT_EQ(PROP_TYPE(stub.ulPropTag), PT_LARGE_STUB);
  pWrite->Release();
  EXPECT_EQ(Open(PR_SUBJECT_A, 0, E_NOINTERFACE, &IID_IStorage), nullptr);  // a stream's data isn't a storage
}

TEST_F(ZT4GenPropProps, SecondOpenOfAHeldStreamIsRefused) {
  m_pObj = NewObject();
  IUnknown* pFirst = Open(PR_BODY_A, MAPI_CREATE | MAPI_MODIFY);
  ASSERT_NE(pFirst, nullptr);
  Write(pFirst, betest::Bytes{'a', 'b', 'c'});
  EXPECT_EQ(Open(PR_BODY_A, MAPI_MODIFY, MAPI_E_NO_ACCESS), nullptr);
  pFirst->Release();
  // Nobody holds it now: the same object is handed out again, at its start.
  IUnknown* pAgain = Open(PR_BODY_A, MAPI_MODIFY);
  ASSERT_EQ(pAgain, pFirst);
  EXPECT_EQ(StreamText(pAgain), "abc");
  pAgain->Release();
}

TEST_F(ZT4GenPropProps, BadInterfaceAndFlagCombinationsAreRefused) {
  m_pObj = NewObject();
  SPropValue subject = Str8(PR_SUBJECT_A, "x");
  ASSERT_EQ(m_pObj->AddPropToList(&subject, FALSE), S_OK);
  IUnknown* pUnk = NULL;
  EXPECT_EQ(m_pObj->OpenProperty(PR_SUBJECT_A, &IID_IStream, 0, NULL), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(m_pObj->OpenProperty(PR_BODY_A, &IID_IStream, MAPI_CREATE, &pUnk), E_INVALIDARG);
  EXPECT_TRUE(Logged("CGenericProp::OpenProperty: MAPI_CREATE without MAPI_MODIFY is not allowed"));
  EXPECT_EQ(m_pObj->OpenProperty(PR_SUBJECT_A, NULL, 0, &pUnk), E_INVALIDARG);
  EXPECT_TRUE(Logged("CGenericProp::OpenProperty: Invalid interface"));
  EXPECT_EQ(m_pObj->OpenProperty(PR_SUBJECT_A, &IID_IMessage, 0, &pUnk), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(m_pObj->OpenProperty(PR_SUBJECT_A, &IID_IStreamDocfile, 0, &pUnk), E_NOINTERFACE);
  EXPECT_TRUE(Logged("CGenericProp::OpenProperty: Unsupported interface requested"));
  EXPECT_EQ(m_pObj->OpenProperty(PR_SUBJECT_A, &IID_IStorage, 0, &pUnk), E_INVALIDARG);
  EXPECT_EQ(m_pObj->OpenProperty(PR_BODY_A, &IID_IStream, 0, &pUnk), MAPI_E_NOT_FOUND);
  EXPECT_EQ(pUnk, nullptr);
  // MAPI_BEST_ACCESS on a writable object is write access, so creating works.
  ASSERT_EQ(m_pObj->OpenProperty(PR_BODY_A, &IID_IStream, MAPI_CREATE | MAPI_BEST_ACCESS, &pUnk), S_OK);
  pUnk->Release();
  // A placeholder asked with another type isn't there.
  EXPECT_EQ(m_pObj->OpenProperty(PR_BODY_W, &IID_IStream, 0, &pUnk), MAPI_E_NOT_FOUND);

  CTestObject* pReadOnly = NewObject(MAPI_ACCESS_READ);
  EXPECT_EQ(pReadOnly->OpenProperty(PR_BODY_A, &IID_IStream, MAPI_MODIFY, &pUnk), MAPI_E_NO_ACCESS);
  EXPECT_EQ(pReadOnly->OpenProperty(PR_BODY_A, &IID_IStream, MAPI_CREATE | MAPI_MODIFY, &pUnk), MAPI_E_NO_ACCESS);
  EXPECT_TRUE(Logged("CGenericProp::OpenProperty: Cannot open properties with WRITE access in a READ only object"));
  EXPECT_TRUE(Logged("CGenericProp::OpenProperty:80070005"));
  EXPECT_EQ(pReadOnly->GenericRelease(), 0u);
}

TEST_F(ZT4GenPropProps, StorageIsOpenedSavedAndNeverInline) {
  m_pObj = NewObject();
  IUnknown* pUnk = Open(PR_ATTACH_DATA_OBJ, MAPI_CREATE | MAPI_MODIFY, S_OK, &IID_IStorage);
  ASSERT_NE(pUnk, nullptr);
  IStorage* pStorage = NULL;
  ASSERT_EQ(pUnk->QueryInterface(IID_IStorage, reinterpret_cast<void**>(&pStorage)), S_OK);
  IStream* pInner = NULL;
  ASSERT_EQ(pStorage->CreateStream(u"Contents", STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, 0, &pInner),
            S_OK);
  EXPECT_EQ(betest::WriteAll(pInner, betest::Bytes{'x', 'y'}), S_OK);
  pInner->Release();
  pStorage->Release();
  pUnk->Release();
  ASSERT_EQ(m_pObj->SaveChanges(KEEP_OPEN_READWRITE, NULL), S_OK);

  LPVOID pBlock = NULL;
  SPropValue* pValue = Read(m_pObj, PR_ATTACH_DATA_OBJ, &pBlock);
  ASSERT_NE(pValue, nullptr);
  EXPECT_EQ(pValue->ulPropTag, CHANGE_PROP_TYPE(PR_ATTACH_DATA_OBJ, PT_ERROR));
  EXPECT_EQ(pValue->Value.err, MAPI_E_NOT_ENOUGH_MEMORY);
  MAPIFreeBuffer(pBlock);

  CTestObject* pAgain = Reload();
  IUnknown* pReopened = NULL;
  ASSERT_EQ(pAgain->OpenProperty(PR_ATTACH_DATA_OBJ, &IID_IStorage, 0, &pReopened), S_OK);
  ASSERT_EQ(pReopened->QueryInterface(IID_IStorage, reinterpret_cast<void**>(&pStorage)), S_OK);
  ASSERT_EQ(pStorage->OpenStream(u"Contents", NULL, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &pInner), S_OK);
  EXPECT_EQ(betest::ReadAll(pInner), (betest::Bytes{'x', 'y'}));
  pInner->Release();
  pStorage->Release();
  IUnknown* pWrongKind = NULL;
  EXPECT_EQ(pAgain->OpenProperty(PR_ATTACH_DATA_OBJ, &IID_IStream, 0, &pWrongKind), E_NOINTERFACE);
  EXPECT_EQ(pWrongKind, nullptr);
  pReopened->Release();
  EXPECT_EQ(pAgain->GenericRelease(), 0u);
}

TEST_F(ZT4GenPropProps, SaveChangesMovesAccessAndZeroClosesTheObject) {
  m_pObj = NewObject();
  SPropValue subject = Str8(PR_SUBJECT_A, "s");
  ASSERT_EQ(m_pObj->AddPropToList(&subject, FALSE), S_OK);
  ASSERT_EQ(m_pObj->SaveChanges(KEEP_OPEN_READWRITE, NULL), S_OK);
  EXPECT_TRUE(m_pObj->IsWritable());
  SPropValue v = {};
  EXPECT_EQ(m_pObj->GetPropListObject()->Find(PR_LAST_MODIFICATION_TIME, &v, TRUE), S_OK);
  EXPECT_NE(v.Value.ft.dwHighDateTime, 0u);

  ASSERT_EQ(m_pObj->SaveChanges(KEEP_OPEN_READONLY, NULL), S_OK);
  EXPECT_EQ(m_pObj->m_lAccess, static_cast<ULONG>(MAPI_ACCESS_READ));
  EXPECT_EQ(m_pObj->SaveChanges(0, NULL), MAPI_E_NO_ACCESS);
  m_pObj->m_lAccess = MAPI_ACCESS_MODIFY | MAPI_ACCESS_READ;
  ASSERT_EQ(m_pObj->SaveChanges(0, NULL), S_OK);
  EXPECT_EQ(m_pObj->m_lAccess, 0u);

  SizedSPropTagArray(1, tags) = {1, {PR_SUBJECT_A}};
  LPSPropProblemArray pProblems = NULL;
  EXPECT_EQ(m_pObj->DeleteProps(reinterpret_cast<LPSPropTagArray>(&tags), &pProblems), MAPI_E_NO_ACCESS);
  EXPECT_EQ(pProblems, nullptr);
  EXPECT_EQ(m_pObj->GetLastErrorCode(), MAPI_E_NO_ACCESS);
  EXPECT_TRUE(Logged("CGenericProp::DeleteProps: Cannot delete properties in a READ only object"));
  IUnknown* pUnk = NULL;
  EXPECT_EQ(m_pObj->OpenProperty(PR_SUBJECT_A, &IID_IStream, MAPI_BEST_ACCESS, &pUnk), S_OK);  // reading stays
  if (pUnk) pUnk->Release();
}

TEST_F(ZT4GenPropProps, DeletePropsReportsProblemsAndSucceeds) {
  m_pObj = NewObject();
  SPropValue subject = Str8(PR_SUBJECT_A, "s");
  ASSERT_EQ(m_pObj->AddPropToList(&subject, FALSE), S_OK);
  // Not found counts as a problem while the list has values.
  SizedSPropTagArray(4, tags) = {4, {PR_NULL, PR_ENTRYID, PR_BODY_A, PR_SUBJECT_A}};
  LPSPropProblemArray pProblems = NULL;
  ASSERT_EQ(m_pObj->DeleteProps(reinterpret_cast<LPSPropTagArray>(&tags), &pProblems), S_OK);
  ASSERT_NE(pProblems, nullptr);
  ASSERT_EQ(pProblems->cProblem, 2u);
  EXPECT_EQ(pProblems->aProblem[0].ulIndex, 1u);
  EXPECT_EQ(pProblems->aProblem[0].ulPropTag, PR_ENTRYID);
  EXPECT_EQ(pProblems->aProblem[0].scode, MAPI_E_COMPUTED);
  EXPECT_EQ(pProblems->aProblem[1].ulIndex, 2u);
  EXPECT_EQ(pProblems->aProblem[1].ulPropTag, PR_BODY_A);
  EXPECT_EQ(pProblems->aProblem[1].scode, MAPI_E_NOT_FOUND);
  MAPIFreeBuffer(pProblems);
  EXPECT_EQ(m_pObj->GetPropListObject()->GetCount(), 0u);
  EXPECT_TRUE(Logged("Properties to delete..."));
  EXPECT_EQ(m_pObj->DeleteProps(reinterpret_cast<LPSPropTagArray>(&tags), NULL), S_OK);
  EXPECT_EQ(m_pObj->DeleteProps(NULL, NULL), MAPI_E_INVALID_PARAMETER);
}

TEST_F(ZT4GenPropProps, DeletingASavedLargeValueReleasesItsRecord) {
  m_pObj = NewObject();
  SaveBody(5000);
  DWORD dwRecord = betest::StubRecord(betest::StubOf(*m_pObj->GetPropListObject(), PR_BODY_A));
  ASSERT_NE(dwRecord, 0u);
  ASSERT_TRUE(FieldExists(dwRecord, RECFLD_PROPERTIES));
  SizedSPropTagArray(1, tags) = {1, {PR_BODY_A}};
  ASSERT_EQ(m_pObj->DeleteProps(reinterpret_cast<LPSPropTagArray>(&tags), NULL), S_OK);
  ASSERT_EQ(m_pObj->SaveChanges(KEEP_OPEN_READWRITE, NULL), S_OK);
  EXPECT_FALSE(FieldExists(dwRecord, RECFLD_PROPERTIES));
  IUnknown* pUnk = NULL;
  EXPECT_EQ(m_pObj->OpenProperty(PR_BODY_A, &IID_IStream, 0, &pUnk), MAPI_E_NOT_FOUND);
}

TEST_F(ZT4GenPropProps, NamesAndIDsGoThroughTheStoreMap) {
  CNamePropMgr map(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  IStream* pMapStream = NULL;
  ASSERT_EQ(CreateStreamOnHGlobal(NULL, TRUE, &pMapStream), S_OK);
  ASSERT_EQ(map.LoadMappingFromStream(pMapStream), S_OK);
  m_pObj = NewObject();
  m_pObj->m_pNPList = &map;

  LPSPropTagArray pTags = NULL;
  ASSERT_EQ(m_pObj->GetIDsFromNames(0, NULL, 0, &pTags, NULL, NULL), S_OK);
  ASSERT_NE(pTags, nullptr);
  EXPECT_EQ(pTags->cValues, 0u);
  MAPIFreeBuffer(pTags);

  GUID guidSet = {0x12345678, 0x1234, 0x1234, {1, 2, 3, 4, 5, 6, 7, 8}};
  MAPINAMEID named = {&guidSet, MNID_STRING, {}};
  named.Kind.lpwstrName = const_cast<LPWSTR>(u"Keywords");
  MAPINAMEID badMapi = {const_cast<LPGUID>(&PS_MAPI), MNID_STRING, {}};
  badMapi.Kind.lpwstrName = const_cast<LPWSTR>(u"Subject");
  MAPINAMEID badPublic = {const_cast<LPGUID>(&PS_PUBLIC_STRINGS), MNID_ID, {}};
  badPublic.Kind.lID = 5;
  LPMAPINAMEID apNames[] = {&named, &badMapi, &badPublic, NULL};
  ASSERT_EQ(m_pObj->GetIDsFromNames(4, apNames, MAPI_CREATE, &pTags, NULL, pMapStream), MAPI_W_ERRORS_RETURNED);
  ASSERT_EQ(pTags->cValues, 4u);
  ULONG ulNamed = pTags->aulPropTag[0];
  EXPECT_GE(PROP_ID(ulNamed), 0x8000u);
  EXPECT_EQ(PROP_TYPE(ulNamed), static_cast<ULONG>(PT_UNSPECIFIED));
  EXPECT_EQ(pTags->aulPropTag[1], static_cast<ULONG>(PT_ERROR));
  EXPECT_EQ(pTags->aulPropTag[2], static_cast<ULONG>(PT_ERROR));
  EXPECT_EQ(pTags->aulPropTag[3], static_cast<ULONG>(PT_ERROR));
  MAPIFreeBuffer(pTags);
  EXPECT_FALSE(map.IsDirty());  // written to the stream given
  STATSTG stat = {};
  ASSERT_EQ(pMapStream->Stat(&stat, STATFLAG_NONAME), S_OK);
  EXPECT_GT(stat.cbSize.LowPart, 8u);

  // And back from the ID to the name.
  SizedSPropTagArray(2, ids) = {2, {PROP_TAG(PT_LONG, PROP_ID(ulNamed)), PROP_TAG(PT_LONG, 0x9999)}};
  LPSPropTagArray pAsked = reinterpret_cast<LPSPropTagArray>(&ids);
  ULONG cNames = 0;
  LPMAPINAMEID* ppNames = NULL;
  ASSERT_EQ(m_pObj->GetNamesFromIDs(&pAsked, NULL, 0, &cNames, &ppNames, NULL), MAPI_W_ERRORS_RETURNED);
  ASSERT_EQ(cNames, 2u);
  ASSERT_NE(ppNames[0], nullptr);
  EXPECT_EQ(ppNames[0]->ulKind, static_cast<ULONG>(MNID_STRING));
  EXPECT_EQ(std::u16string(ppNames[0]->Kind.lpwstrName), u"Keywords");
  EXPECT_EQ(ppNames[1], nullptr);
  MAPIFreeBuffer(ppNames);

  // A read-only object may look names up but not create them.
  CTestObject* pReadOnly = NewObject(MAPI_ACCESS_READ);
  pReadOnly->m_pNPList = &map;
  pTags = reinterpret_cast<LPSPropTagArray>(this);
  EXPECT_EQ(pReadOnly->GetIDsFromNames(1, apNames, MAPI_CREATE, &pTags, NULL, NULL), MAPI_E_NO_ACCESS);
  EXPECT_EQ(pTags, nullptr);
  ASSERT_EQ(pReadOnly->GetIDsFromNames(1, apNames, 0, &pTags, NULL, NULL), S_OK);
  EXPECT_EQ(pTags->aulPropTag[0], ulNamed);
  MAPIFreeBuffer(pTags);
  EXPECT_EQ(pReadOnly->GetIDsFromNames(1, NULL, 0, &pTags, NULL, NULL), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(pReadOnly->GenericRelease(), 0u);
  m_pObj->m_pNPList = NULL;
  pMapStream->Release();
}
