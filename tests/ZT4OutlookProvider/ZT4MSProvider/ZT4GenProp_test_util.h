// Shared pieces of the generic property object tests: a concrete object over a real back end on a
// temporary store, with two computed tags as a concrete class would have.
#pragma once
#include <gtest/gtest.h>

#include <mapicode.h>
#include <mapiguid.h>
#include <mapitags.h>

#include <string>

#include "ZT4FileStg_test_util.h"
#include "ZT4GenProp.h"

namespace gptest {

// A plain concrete object: counts its destructions so the tests see Release at zero.
class CTestObject : public CGenericProp {
 public:
  CTestObject(CBackEnd* pBE, const PRIVATE_EID* pParent, const PRIVATE_EID* pEID, CPropList* pList, ULONG lAccess)
      : CGenericProp(pBE, pParent, pEID, pList, FALSE, lAccess) {}
  ~CTestObject() override { ++s_cDestroyed; }
  static int s_cDestroyed;
};
inline int CTestObject::s_cDestroyed = 0;

inline const SizedSPropTagArray(2, g_ObjectTags) = {2, {PR_OBJECT_TYPE, PR_ENTRYID}};
inline LPSPropTagArray ObjectTags() { return const_cast<LPSPropTagArray>(reinterpret_cast<const SPropTagArray*>(&g_ObjectTags)); }

inline SPropValue Str8(ULONG ulPropTag, const char* psz) {
  SPropValue v = {};
  v.ulPropTag = ulPropTag;
  v.Value.lpszA = const_cast<LPSTR>(psz);
  return v;
}

inline SPropValue Long(ULONG ulPropTag, LONG l) {
  SPropValue v = {};
  v.ulPropTag = ulPropTag;
  v.Value.l = l;
  return v;
}

class GenPropTest : public betest::BackEndTest {
 protected:
  void SetUp() override {
    betest::BackEndTest::SetUp();
    m_parent = betest::Eid(MAPI_FOLDER, 100);
    m_eid = betest::Eid(MAPI_FOLDER, 101);
  }
  void TearDown() override {
    if (m_pObj) {
      EXPECT_EQ(m_pObj->GenericRelease(), 0u);
    }
    m_pObj = NULL;
    // No path here breaks a consistency rule of the lists or the back end.
    EXPECT_FALSE(Logged("Assertion failed"));
    betest::BackEndTest::TearDown();
  }

  CTestObject* NewObject(ULONG lAccess = MAPI_ACCESS_MODIFY | MAPI_ACCESS_READ, CPropList* pList = NULL) {
    return new CTestObject(m_pBE, &m_parent, &m_eid, pList, lAccess);
  }
  // The object again, with the list the store file holds for it now.
  CTestObject* Reload() {
    std::unique_ptr<CPropList> pList = Load(m_eid.dwObjID);
    return NewObject(MAPI_ACCESS_MODIFY | MAPI_ACCESS_READ, pList.release());
  }

  // One value through GetProps as a concrete class reads it.
  SPropValue* Read(CGenericProp* pObj, ULONG ulPropTag, LPVOID* ppBlock) {
    SizedSPropTagArray(1, tags) = {1, {ulPropTag}};
    ULONG cValues = 0;
    LPSPropValue pValues = NULL;
    EXPECT_EQ(pObj->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), &cValues, &pValues, ObjectTags()), S_OK);
    if (!pValues) return NULL;
    pObj->GetProps(&pValues[0], pValues);
    *ppBlock = pValues;
    return pValues;
  }

  static std::string StreamText(IUnknown* pUnk) {
    IStream* pStream = NULL;
    EXPECT_EQ(pUnk->QueryInterface(IID_IStream, reinterpret_cast<void**>(&pStream)), S_OK);
    if (!pStream) return std::string();
    betest::Rewind(pStream);
    betest::Bytes b = betest::ReadAll(pStream);
    pStream->Release();
    return std::string(b.begin(), b.end());
  }

  PRIVATE_EID m_parent;
  PRIVATE_EID m_eid;
  CTestObject* m_pObj = NULL;
};

}  // namespace gptest
