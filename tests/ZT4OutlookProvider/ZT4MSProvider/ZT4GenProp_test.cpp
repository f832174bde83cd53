// CGeneric (count, last error, MAPIERROR texts, live-object handles), the static helpers of
// CGenericProp, and COpenObjectList.
#include "ZT4GenProp_test_util.h"

#include <string>

using namespace gptest;

namespace {

std::u16string Wide(LPTSTR psz) { return psz ? std::u16string(reinterpret_cast<const char16_t*>(psz)) : u""; }

}  // namespace

class ZT4GenPropTest : public GenPropTest {};

TEST(ZT4GenPropErrors, StringIDsFollowTheTableOrder) {
  EXPECT_EQ(GetErrorStringID(S_OK), 8000u);
  EXPECT_EQ(GetErrorStringID(E_FAIL), 8001u);
  EXPECT_EQ(GetErrorStringID(MAPI_E_NO_ACCESS), 8005u);
  EXPECT_EQ(GetErrorStringID(MAPI_E_COMPUTED), 8017u);
  EXPECT_EQ(GetErrorStringID(static_cast<HRESULT>(0x80040600)), 8021u);
  EXPECT_EQ(GetErrorStringID(MAPI_E_NOT_ENOUGH_RESOURCES), 8035u);
  EXPECT_EQ(GetErrorStringID(MAPI_W_ERRORS_RETURNED), 8037u);
  EXPECT_EQ(GetErrorStringID(static_cast<HRESULT>(0x800704D0)), 8038u);
  EXPECT_EQ(GetErrorStringID(static_cast<HRESULT>(0x800700B7)), 8048u);
  EXPECT_EQ(GetErrorStringID(static_cast<HRESULT>(0x80049003)), 8051u);
  EXPECT_EQ(GetErrorStringID(static_cast<HRESULT>(0x12345678)), 8100u);
  EXPECT_EQ(GetErrorStringID(static_cast<HRESULT>(0x80040603)), 8100u);  // a gap in the private range
}

// The string tables are found through the program's own module, as the provider's are.
class ZT4GenPropLastError : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(ZT4ProcessAttach(NULL));
    SetMAPIAllocRoutines(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
    m_pObj = new CGeneric();
  }
  void TearDown() override {
    EXPECT_EQ(m_pObj->GenericRelease(), 0u);
    SetMAPIAllocRoutines(NULL, NULL, NULL);
    ZT4ProcessDetach();
  }
  std::u16string Text(HRESULT hError) {
    LPMAPIERROR pError = NULL;
    EXPECT_EQ(m_pObj->GetLastError(hError, &pError, NULL, PROVIDER_DISPLAY_NAME_STRING), S_OK);
    if (!pError) return u"";
    std::u16string text = Wide(pError->lpszError);
    MAPIFreeBuffer(pError);
    return text;
  }
  zt4test::TraceLog m_log;
  CGeneric* m_pObj = NULL;
};

TEST_F(ZT4GenPropLastError, TextsComeFromTheTableOrItsFallbacks) {
  LPMAPIERROR pError = NULL;
  ASSERT_EQ(m_pObj->GetLastError(MAPI_W_ERRORS_RETURNED, &pError, NULL, PROVIDER_DISPLAY_NAME_STRING), S_OK);
  ASSERT_NE(pError, nullptr);
  EXPECT_EQ(pError->ulVersion, 0u);
  EXPECT_EQ(pError->ulLowLevelError, 0u);
  EXPECT_EQ(pError->ulContext, 0u);
  EXPECT_EQ(Wide(pError->lpszError), u"No description is available for this error.");
  EXPECT_EQ(Wide(pError->lpszComponent), u"ArchiveDepot");
  MAPIFreeBuffer(pError);

  EXPECT_EQ(Text(static_cast<HRESULT>(0x12345678)), u"An unknown error has occured.");
  EXPECT_EQ(Text(E_FAIL), u"An unexpected error occured. Reasons for the failure are unknown.");
  EXPECT_EQ(Text(S_OK), u"The method succeeded.");
  EXPECT_EQ(Text(static_cast<HRESULT>(0x80040602)), u"No suppress????");
  EXPECT_EQ(Text(static_cast<HRESULT>(0x800704D0)), u"No description is available for this error.");
  EXPECT_EQ(Text(static_cast<HRESULT>(0x80049002)),
            u"Soft deletion is not supported for emails in the ArchiveDepot Email Viewer. To permanently delete "
            u"an email from the ArchiveDepot, press Shift + Delete.");

  ASSERT_EQ(m_pObj->GetLastError(E_FAIL, &pError, NULL, NULL), S_OK);
  EXPECT_EQ(pError->lpszComponent, nullptr);
  MAPIFreeBuffer(pError);
  EXPECT_EQ(m_pObj->GetLastError(E_FAIL, NULL, NULL, "ArchiveDepot"), MAPI_E_INVALID_PARAMETER);
}

TEST_F(ZT4GenPropTest, LastErrorKeepsFailingCodesWithContextThree) {
  m_pObj = NewObject();
  EXPECT_EQ(m_pObj->GetLastErrorCode(), 0);
  EXPECT_EQ(m_pObj->GetErrorContext(), 0u);
  m_pObj->SetLastError(0);
  EXPECT_EQ(m_pObj->GetErrorContext(), 0u);
  m_pObj->SetLastError(MAPI_E_NOT_FOUND);
  EXPECT_EQ(m_pObj->GetLastErrorCode(), MAPI_E_NOT_FOUND);
  EXPECT_EQ(m_pObj->GetErrorContext(), 3u);
  m_pObj->SetLastError(0);  // a success leaves the last failure in place
  EXPECT_EQ(m_pObj->GetLastErrorCode(), MAPI_E_NOT_FOUND);
}

TEST_F(ZT4GenPropTest, CountStartsAtOneAndReleaseAtZeroDeletes) {
  int cBefore = CTestObject::s_cDestroyed;
  CTestObject* pObj = NewObject();
  EXPECT_EQ(pObj->GenericAddRef(), 2u);
  EXPECT_EQ(pObj->GenericRelease(), 1u);
  EXPECT_EQ(CTestObject::s_cDestroyed, cBefore);
  EXPECT_EQ(pObj->GenericRelease(), 0u);
  EXPECT_EQ(CTestObject::s_cDestroyed, cBefore + 1);
}

TEST_F(ZT4GenPropTest, ConstructorCopiesEntryIDsAndReferencesTheBackEnd) {
  ULONG cBackEnd = m_pBE->AddRef();
  m_pBE->Release();
  m_pObj = NewObject();
  EXPECT_EQ(m_pBE->AddRef(), cBackEnd + 1);
  m_pBE->Release();
  EXPECT_EQ(memcmp(&m_pObj->GetObjectEID(), &m_eid, sizeof(m_eid)), 0);
  EXPECT_EQ(memcmp(&m_pObj->GetParentEID(), &m_parent, sizeof(m_parent)), 0);
  EXPECT_TRUE(m_pObj->IsWritable());
  EXPECT_FALSE(m_pObj->IsDeferredErrors());

  CGenericProp* pBare = new CGenericProp(m_pBE, NULL, NULL, NULL, TRUE, MAPI_ACCESS_READ);
  PRIVATE_EID zero = {};
  EXPECT_EQ(memcmp(&pBare->GetObjectEID(), &zero, sizeof(zero)), 0);
  EXPECT_EQ(memcmp(&pBare->GetParentEID(), &zero, sizeof(zero)), 0);
  EXPECT_TRUE(pBare->IsDeferredErrors());
  EXPECT_FALSE(pBare->IsWritable());
  EXPECT_EQ(pBare->GenericRelease(), 0u);
  EXPECT_EQ(m_pBE->AddRef(), cBackEnd + 1);  // the bare object gave its reference back
  m_pBE->Release();
}

TEST_F(ZT4GenPropTest, HandlesOfDeadObjectsTurnIntoNull) {
  CTestObject* pFirst = NewObject();
  ULONG_PTR hFirst = StorePointer(pFirst);
  EXPECT_NE(hFirst, 0u);
  EXPECT_EQ(ObjectFromPointer(hFirst), pFirst);
  EXPECT_EQ(pFirst->GenericRelease(), 0u);
  EXPECT_EQ(ObjectFromPointer(hFirst), nullptr);

  // A new object, even at the same address, has a handle of its own.
  CTestObject* pSecond = NewObject();
  ULONG_PTR hSecond = StorePointer(pSecond);
  EXPECT_NE(hSecond, hFirst);
  EXPECT_EQ(ObjectFromPointer(hFirst), nullptr);
  EXPECT_EQ(ObjectFromPointer(hSecond), pSecond);
  EXPECT_EQ(pSecond->GenericRelease(), 0u);

  EXPECT_EQ(StorePointer(NULL), 0u);
  EXPECT_EQ(ObjectFromPointer(0), nullptr);
  EXPECT_EQ(ObjectFromPointer(reinterpret_cast<ULONG_PTR>(this)), nullptr);
}

TEST_F(ZT4GenPropTest, CombineTagsPutsObjectTagsFirstAndDropsWholeTagDuplicates) {
  SizedSPropTagArray(3, list) = {3, {PR_SUBJECT_A, PR_ENTRYID, PR_OBJECT_TYPE}};
  SizedSPropTagArray(2, objectTags) = {2, {PR_OBJECT_TYPE, CHANGE_PROP_TYPE(PR_ENTRYID, PT_LONG)}};
  LPSPropTagArray pAll = NULL;
  ASSERT_EQ(CGenericProp::CombineTags(reinterpret_cast<LPSPropTagArray>(&objectTags),
                                      reinterpret_cast<LPSPropTagArray>(&list), &pAll, TRUE),
            S_OK);
  ASSERT_EQ(pAll->cValues, 4u);
  EXPECT_EQ(pAll->aulPropTag[0], PR_OBJECT_TYPE);
  EXPECT_EQ(pAll->aulPropTag[1], CHANGE_PROP_TYPE(PR_ENTRYID, PT_LONG));
  EXPECT_EQ(pAll->aulPropTag[2], PR_SUBJECT_A);
  EXPECT_EQ(pAll->aulPropTag[3], PR_ENTRYID);  // same ID, other type: both stay
  MAPIFreeBuffer(pAll);

  ASSERT_EQ(CGenericProp::CombineTags(reinterpret_cast<LPSPropTagArray>(&objectTags), NULL, &pAll, FALSE), S_OK);
  EXPECT_EQ(pAll->cValues, 2u);
  PrivFree(&pAll);
  EXPECT_EQ(CGenericProp::CombineTags(NULL, NULL, NULL, TRUE), MAPI_E_INVALID_PARAMETER);
}

TEST_F(ZT4GenPropTest, GetPropAccessRefusesComputedAndObjectTagsWithWarnings) {
  EXPECT_EQ(CGenericProp::GetPropAccess(PR_ENTRYID), MAPI_E_COMPUTED);
  EXPECT_EQ(CGenericProp::GetPropAccess(static_cast<ULONG>(0x0E190014)), MAPI_E_COMPUTED);
  EXPECT_EQ(CGenericProp::GetPropAccess(PR_LAST_MODIFICATION_TIME), MAPI_E_COMPUTED);
  EXPECT_EQ(CGenericProp::GetPropAccess(PR_MDB_PROVIDER), MAPI_E_COMPUTED);
  EXPECT_EQ(CGenericProp::GetPropAccess(PR_MESSAGE_RECIPIENTS), E_INVALIDARG);
  EXPECT_EQ(CGenericProp::GetPropAccess(PR_FOLDER_ASSOCIATED_CONTENTS), E_INVALIDARG);
  EXPECT_EQ(CGenericProp::GetPropAccess(PR_SUBJECT_A), S_OK);
  // The whole tag counts: another type of a computed ID is writable.
  EXPECT_EQ(CGenericProp::GetPropAccess(CHANGE_PROP_TYPE(PR_ENTRYID, PT_LONG)), S_OK);
  EXPECT_TRUE(Logged("WARNING: Trying to set a computed property: PR_ENTRYID"));
  EXPECT_TRUE(Logged("WARNING: Trying to set PT_OBJECT property. PR_MESSAGE_RECIPIENTS"));
}

TEST_F(ZT4GenPropTest, AddTagToProbArrayAllocatesOnTheFirstProblem) {
  EXPECT_EQ(CGenericProp::AddTagToProbArray(2, NULL, 0, PR_SUBJECT_A, MAPI_E_COMPUTED), E_INVALIDARG);
  LPSPropProblemArray pProblems = NULL;
  ASSERT_EQ(CGenericProp::AddTagToProbArray(2, &pProblems, 1, PR_ENTRYID, MAPI_E_COMPUTED), S_OK);
  ASSERT_EQ(CGenericProp::AddTagToProbArray(2, &pProblems, 0, PR_SUBJECT_A, MAPI_E_NOT_FOUND), S_OK);
  ASSERT_NE(pProblems, nullptr);
  ASSERT_EQ(pProblems->cProblem, 2u);
  EXPECT_EQ(pProblems->aProblem[0].ulIndex, 1u);
  EXPECT_EQ(pProblems->aProblem[0].ulPropTag, PR_ENTRYID);
  EXPECT_EQ(pProblems->aProblem[0].scode, MAPI_E_COMPUTED);
  EXPECT_EQ(pProblems->aProblem[1].scode, MAPI_E_NOT_FOUND);
  // No room past the number of tags.
  EXPECT_EQ(CGenericProp::AddTagToProbArray(2, &pProblems, 2, PR_BODY_A, MAPI_E_NOT_FOUND), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(pProblems->cProblem, 2u);
  MAPIFreeBuffer(pProblems);
}

TEST_F(ZT4GenPropTest, OpenObjectListWalksByTypeAndObjectIDIgnoringTheUID) {
  COpenObjectList list;
  EXPECT_TRUE(list.IsEmpty());
  PRIVATE_EID eidA = betest::Eid(MAPI_MESSAGE, 7);
  PRIVATE_EID eidB = betest::Eid(MAPI_MESSAGE, 7);
  strcpy(eidB.szUniqueId, "server-id-1");
  eidB.guidStore.ab[0] ^= 0xFF;
  PRIVATE_EID eidFolder = betest::Eid(MAPI_FOLDER, 7);
  CTestObject* pA = NewObject();
  CTestObject* pB = NewObject();
  CTestObject* pFolder = NewObject();
  ASSERT_EQ(list.Insert(pA, &eidA), S_OK);
  ASSERT_EQ(list.Insert(pFolder, &eidFolder), S_OK);
  ASSERT_EQ(list.Insert(pB, &eidB), S_OK);
  EXPECT_EQ(list.Insert(NULL, &eidA), MAPI_E_INVALID_PARAMETER);

  PRIVATE_EID asked = betest::Eid(MAPI_MESSAGE, 7);
  strcpy(asked.szUniqueId, "something else");
  CGenericProp* pFound = list.Walk(&asked, 0, NULL);
  ASSERT_EQ(pFound, pA);
  EXPECT_EQ(pA->GenericAddRef(), 3u);  // the walk added one
  pA->GenericRelease();
  CGenericProp* pNext = list.Walk(&asked, 1, pFound);
  EXPECT_EQ(pNext, pB);  // the folder of the same ID is passed over
  pFound->GenericRelease();
  EXPECT_EQ(list.Walk(&asked, 1, pNext), nullptr);
  pNext->GenericRelease();

  EXPECT_EQ(list.Walk(MAPI_FOLDER, 7, 0, NULL), pFolder);
  pFolder->GenericRelease();
  EXPECT_EQ(list.Walk(MAPI_FOLDER, 8, 0, NULL), nullptr);
  EXPECT_EQ(list.Walk(&asked, 1, NULL), nullptr);
  EXPECT_EQ(list.Walk(&asked, 5, NULL), nullptr);

  EXPECT_EQ(list.Delete(pA, &eidB), MAPI_E_NOT_FOUND);  // both pointers must match
  EXPECT_EQ(list.Delete(pA, &eidA), S_OK);
  EXPECT_EQ(list.Walk(&asked, 0, NULL), pB);
  pB->GenericRelease();
  EXPECT_EQ(list.Delete(pB, &eidB), S_OK);
  EXPECT_EQ(list.Delete(pFolder, &eidFolder), S_OK);
  EXPECT_TRUE(list.IsEmpty());
  for (CTestObject* p : {pA, pB, pFolder}) EXPECT_EQ(p->GenericRelease(), 0u);
}
