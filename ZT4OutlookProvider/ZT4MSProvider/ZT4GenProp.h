// What every MAPI object of the store shares: the reference count, lock and last error
// (CGeneric), the property behaviour over a back-end record (CGenericProp), and the list by
// which a store finds its open objects again (COpenObjectList).
#pragma once
#include <windows.h>
#include <mapidefs.h>
#include <mapispi.h>

#include "ZT4FileStg.h"
#include "ZT4NameProp.h"
#include "ZT4PropList.h"

// The largest value GetProps hands back inline; larger ones are opened as streams.
constexpr ULONG MAX_GETPROP_SIZE = 16384;

// The context recorded with every last error.
constexpr ULONG ZT4_ERROR_CONTEXT = 3;

// Object flags of CGenericProp.
constexpr ULONG OBJFLAG_DEFERRED_ERRORS = 0x100;   // deferred errors asked for at creation
constexpr ULONG OBJFLAG_MODIFIED = 0x8000;         // an open property changed the object
constexpr ULONG OBJFLAG_SPOOLER = 0x10000;         // the object lives in the spooler context
constexpr ULONG OBJFLAG_DELETED = 0x20000;         // the stored object was deleted while open

// The store's display name, the component text of every MAPIERROR.
#define PROVIDER_DISPLAY_NAME_STRING "ArchiveDepot"

// ---------------------------------------------------------------------------------------------
class CGeneric {
 public:
  CGeneric();
  virtual ~CGeneric();
  CGeneric(const CGeneric&) = delete;
  CGeneric& operator=(const CGeneric&) = delete;

  // Count changes are interlocked rather than taken under the object lock: COpenObjectList::Walk
  // adds a reference while holding its list lock, which may itself be taken inside another
  // object's lock. Release at zero deletes the object.
  ULONG GenericAddRef();
  ULONG GenericRelease();

  // The MAPIERROR of hError: the text of the error table (or its fallbacks), always wide; the
  // component is pszComponent. hInstance isn't used. The block comes from the MAPI allocator.
  HRESULT GetLastError(HRESULT hError, LPMAPIERROR* ppMAPIError, HINSTANCE hInstance, LPCSTR pszComponent);

  // Records a failing code: a code other than 0 becomes the last error, with context 3.
  void SetLastError(HRESULT hResult);
  HRESULT GetLastErrorCode() const { return m_hLastError; }
  ULONG GetErrorContext() const { return m_ulErrorContext; }

  void Lock() { EnterCriticalSection(&m_csObj); }
  void Unlock() { LeaveCriticalSection(&m_csObj); }

 protected:
  ULONG m_cRef;                // starts at 1
  CRITICAL_SECTION m_csObj;    // the object lock: the count and all state of the object
  HRESULT m_hLastError;
  ULONG m_ulErrorContext;

 private:
  friend class CLiveObjects;
  // The registry of live objects behind StorePointer: a handle never reused in the process and
  // the links of the registry's list (guarded by the registry's lock).
  ULONG_PTR m_ulHandle;
  CGeneric* m_pPrevLive;
  CGeneric* m_pNextLive;
};

// A handle of a live object for callbacks that carry a ULONG_PTR (view releases of tables):
// every CGeneric is known from construction to destruction, and a handle of a dead object turns
// back into NULL.
ULONG_PTR StorePointer(CGeneric* pObject);
CGeneric* ObjectFromPointer(ULONG_PTR ulCallerData);

// The string ID of an error code's text: 8000 plus its index in the error table, 8100 for a
// code the table lacks.
UINT GetErrorStringID(HRESULT hError);

// ---------------------------------------------------------------------------------------------
class CGenericProp : public CGeneric {
 public:
  // Takes a reference on pBEobj (required) and copies the entry IDs (zeros where NULL). pList
  // becomes the object's.
  CGenericProp(CBackEnd* pBEobj, const PRIVATE_EID* pParentEID, const PRIVATE_EID* pObjectEID, CPropList* pList,
               BOOL fDeferredErrors, ULONG lAccess);
  ~CGenericProp() override;

  HRESULT AddPropToList(LPSPropValue pProp, BOOL fForce);
  static HRESULT AddTagToProbArray(ULONG cNumberOfTags, LPSPropProblemArray* ppProbArray, ULONG ulIndex,
                                   ULONG ulPropTag, HRESULT hTagError);
  // Union of the two arrays, object tags first; fUseMAPIAlloc picks the MAPI allocator over
  // the private heap.
  static HRESULT CombineTags(LPSPropTagArray pObjectTags, LPSPropTagArray pListTags, LPSPropTagArray* ppAllTags,
                             BOOL fUseMAPIAlloc);
  HRESULT DeleteProps(LPSPropTagArray pPropTags, LPSPropProblemArray* ppProblems);
  HRESULT GetIDsFromNames(ULONG cPropNames, LPMAPINAMEID* ppPropNames, ULONG ulFlags, LPSPropTagArray* ppPropTags,
                          LPSPropTagArray pTags, LPSTREAM pStream);
  HRESULT GetNamesFromIDs(LPSPropTagArray* ppPropTags, LPGUID pPropSetGuid, ULONG ulFlags, ULONG* pcPropNames,
                          LPMAPINAMEID** pppPropNames, LPSPropTagArray pTags);
  // 0, MAPI_E_COMPUTED or E_INVALIDARG (object-valued tags).
  static HRESULT GetPropAccess(ULONG ulPropTag);
  HRESULT GetPropList(LPSPropTagArray pObjectTags, LPSPropTagArray* ppAllTags);
  // (1) sets the value array up with tags; (2) fills one value from the stored properties;
  // (3) fills one value from a computed source.
  HRESULT GetProps(LPSPropTagArray pPropTagArray, ULONG* pcValues, LPSPropValue* ppPropArray,
                   LPSPropTagArray pObjectTags);
  HRESULT GetProps(LPSPropValue pProp, LPVOID pMemBlock);
  static HRESULT GetProps(HRESULT hRes, ULONG cbSize, LPCVOID pSrc, LPSPropValue pProp, LPVOID pMemBlock);
  HRESULT OpenProperty(ULONG ulPropTag, LPCIID pInterface, ULONG ulFlags, LPUNKNOWN* ppUnk);
  HRESULT SaveChanges(ULONG ulFlags, LPTABLEDATA pTable);

  BOOL IsWritable() const { return (m_lAccess & MAPI_ACCESS_MODIFY) != 0; }
  BOOL IsSpooler() const { return (m_ulObjFlags & OBJFLAG_SPOOLER) != 0; }
  BOOL IsDeferredErrors() const { return (m_ulObjFlags & OBJFLAG_DEFERRED_ERRORS) != 0; }
  const PRIVATE_EID& GetObjectEID() const { return m_ObjectEID; }
  const PRIVATE_EID& GetParentEID() const { return m_ParentEID; }
  CBackEnd* GetBackEnd() const { return m_pBEobj; }
  CPropList* GetPropListObject() const { return m_pList; }

  ULONG m_ulObjFlags;
  ULONG m_lAccess;
  CBackEnd* m_pBEobj;
  CPropList* m_pList;
  COpenPropList* m_pOpenPropList;
  CNamePropMgr* m_pNPList;  // the store's map, shared by its objects; not owned here
  PRIVATE_EID m_ObjectEID;
  PRIVATE_EID m_ParentEID;
};

// ---------------------------------------------------------------------------------------------
// Folders and messages open under a store. Holds no references; a node names the object's entry
// ID by pointer, so the object must be deleted from the list before its memory goes.
struct OPEN_OBJECTS {
  OPEN_OBJECTS* pNext;
  const PRIVATE_EID* pEID;
  CGenericProp* pObject;
};

class COpenObjectList {
 public:
  COpenObjectList();
  ~COpenObjectList();
  COpenObjectList(const COpenObjectList&) = delete;
  COpenObjectList& operator=(const COpenObjectList&) = delete;

  HRESULT Insert(CGenericProp* pObject, const PRIVATE_EID* pEID);
  HRESULT Delete(CGenericProp* pObject, const PRIVATE_EID* pEID);
  // The next object with the entry ID's type and dwObjID, with one more reference (the caller
  // drops it with GenericRelease), or NULL. Walk type 0 starts at the
  // head (pPrevObject NULL); 1 goes on behind pPrevObject.
  CGenericProp* Walk(const PRIVATE_EID* pEID, ULONG ulWalkType, CGenericProp* pPrevObject);
  CGenericProp* Walk(BYTE bObjType, DWORD dwObjID, ULONG ulWalkType, CGenericProp* pPrevObject);
  BOOL IsEmpty() const { return m_pHead == NULL; }

 private:
  CRITICAL_SECTION m_cs;  // held only for walking; may be taken inside an object lock
  OPEN_OBJECTS* m_pHead;
};
