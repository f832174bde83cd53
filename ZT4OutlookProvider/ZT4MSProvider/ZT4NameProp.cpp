#include "ZT4NameProp.h"

#include <mapicode.h>
#include <mapiguid.h>

#include <cstring>
#include <vector>

#include "MemHeap.h"
#include "ZT4_TRACES.h"

namespace {

const SizedSPropTagArray(NP_COLUMNS, sptNPProps) = {
    NP_COLUMNS,
    {PR_NAMED_PROP_GUID, PR_NAMED_PROP_ID, PR_NAMED_PROP_KIND, PR_NAMED_PROP_NAME, PR_NAMED_PROP_LID}};

// Rows read from the view per QueryRows.
const LONG kRowBatch = 25;
// The largest name whose byte size (terminator included) still fits the stored LONG.
const int kMaxNameChars = 0x3FFFFFFE;

class CLock {
 public:
  explicit CLock(CRITICAL_SECTION* pcs) : m_pcs(pcs) { EnterCriticalSection(m_pcs); }
  ~CLock() { LeaveCriticalSection(m_pcs); }
  CLock(const CLock&) = delete;
  CLock& operator=(const CLock&) = delete;

 private:
  CRITICAL_SECTION* m_pcs;
};

// A row set from a view of the map's table, freed with the table's allocator.
class CRowSetHolder {
 public:
  explicit CRowSetHolder(LPFREEBUFFER pfnFree) : m_pfnFree(pfnFree) {}
  ~CRowSetHolder() { Free(); }
  CRowSetHolder(const CRowSetHolder&) = delete;
  CRowSetHolder& operator=(const CRowSetHolder&) = delete;
  LPSRowSet* operator&() {
    Free();
    return &m_pRows;
  }
  LPSRowSet operator->() const { return m_pRows; }
  ULONG Count() const { return m_pRows ? m_pRows->cRows : 0; }
  void Free() {
    if (!m_pRows) return;
    for (ULONG i = 0; i < m_pRows->cRows; ++i) m_pfnFree(m_pRows->aRow[i].lpProps);
    m_pfnFree(m_pRows);
    m_pRows = NULL;
  }

 private:
  LPFREEBUFFER m_pfnFree;
  LPSRowSet m_pRows = NULL;
};

// A MAPI allocation on its way to a caller: freed unless Detach hands it over.
class CMAPIBlock {
 public:
  explicit CMAPIBlock(LPFREEBUFFER pfnFree) : m_pfnFree(pfnFree) {}
  ~CMAPIBlock() {
    if (m_pv) m_pfnFree(m_pv);
  }
  CMAPIBlock(const CMAPIBlock&) = delete;
  CMAPIBlock& operator=(const CMAPIBlock&) = delete;
  LPVOID* operator&() { return &m_pv; }
  LPVOID Get() const { return m_pv; }
  LPVOID Detach() {
    LPVOID pv = m_pv;
    m_pv = NULL;
    return pv;
  }

 private:
  LPFREEBUFFER m_pfnFree;
  LPVOID m_pv = NULL;
};

// The reused name buffer of a load, on the private heap.
class CNameBuffer {
 public:
  CNameBuffer() = default;
  ~CNameBuffer() { PrivFree(&m_pv); }
  CNameBuffer(const CNameBuffer&) = delete;
  CNameBuffer& operator=(const CNameBuffer&) = delete;
  // Grows by cbNeeded when it is too small for it.
  HRESULT Reserve(ULONG cbNeeded) {
    if (cbNeeded <= m_cb) return S_OK;
    ULONG cbNew = m_cb + cbNeeded;
    PrivFree(&m_pv);
    m_cb = 0;
    HRESULT hResult = PrivAllocate(cbNew, &m_pv, "Named property name");
    if (SUCCEEDED(hResult)) m_cb = cbNew;
    return hResult;
  }
  LPWSTR Get() const { return static_cast<LPWSTR>(m_pv); }

 private:
  LPVOID m_pv = NULL;
  ULONG m_cb = 0;
};

// A stream that holds less than asked for is damaged.
void RequireFormat(bool fGood, LPCSTR pszWhat) {
  if (fGood) return;
  ZT4_LOG(ZT4_LEVEL_ERROR, "Named property map is damaged: %s", pszWhat);
  throw static_cast<HRESULT>(MAPI_E_CORRUPT_DATA);
}

HRESULT SeekToStart(LPSTREAM pStream) {
  LARGE_INTEGER liZero = {};
  return pStream->Seek(liZero, STREAM_SEEK_SET, NULL);
}

// The stream's size, capped at what a ULONG can hold: a map never comes near that.
HRESULT GetStreamSize(LPSTREAM pStream, ULONG* pcb) {
  STATSTG statstg = {};
  HRESULT hResult = pStream->Stat(&statstg, STATFLAG_NONAME);
  if (FAILED(hResult)) return hResult;
  *pcb = statstg.cbSize.QuadPart > 0xFFFFFFFFull ? 0xFFFFFFFF : static_cast<ULONG>(statstg.cbSize.QuadPart);
  return S_OK;
}

HRESULT WriteAll(LPSTREAM pStream, const void* pv, ULONG cb) {
  ULONG cbWritten = 0;
  HRESULT hResult = pStream->Write(pv, cb, &cbWritten);
  if (SUCCEEDED(hResult) && cbWritten != cb) hResult = STG_E_MEDIUMFULL;
  return hResult;
}

bool SameName(LPCWSTR pszA, LPCWSTR pszB) {
  while (*pszA && *pszA == *pszB) ++pszA, ++pszB;
  return *pszA == *pszB;
}

bool IsKnownKind(ULONG ulKind) { return ulKind == MNID_ID || ulKind == MNID_STRING; }

// The parts of a view row; FALSE when the row lacks one of them.
struct NamedRow {
  const GUID* pGuid = NULL;
  ULONG ulPropID = 0;
  ULONG ulKind = 0;
  LPCWSTR pszName = NULL;
  LONG lID = 0;
};

BOOL ReadRow(const SRow& row, NamedRow& out) {
  const SPropValue* pProps = row.lpProps;
  BOOL fOrdered = row.cValues >= NP_COLUMNS && pProps[NP_GUID].ulPropTag == PR_NAMED_PROP_GUID &&
                  pProps[NP_ID].ulPropTag == PR_NAMED_PROP_ID && pProps[NP_KIND].ulPropTag == PR_NAMED_PROP_KIND;
  ZT4_ASSERT(fOrdered);
  if (!fOrdered || !pProps[NP_GUID].Value.lpguid) return FALSE;
  out.pGuid = pProps[NP_GUID].Value.lpguid;
  out.ulPropID = pProps[NP_ID].Value.ul;
  out.ulKind = pProps[NP_KIND].Value.ul;
  if (out.ulKind == MNID_STRING) {
    if (pProps[NP_NAME].ulPropTag != PR_NAMED_PROP_NAME || !pProps[NP_NAME].Value.lpszW) return FALSE;
    out.pszName = pProps[NP_NAME].Value.lpszW;
    return TRUE;
  }
  if (out.ulKind != MNID_ID || pProps[NP_LID].ulPropTag != PR_NAMED_PROP_LID) return FALSE;
  out.lID = pProps[NP_LID].Value.l;
  return TRUE;
}

}  // namespace

CNamePropMgr::CNamePropMgr(LPALLOCATEBUFFER pfnAllocateBuffer, LPALLOCATEMORE pfnAllocateMore,
                           LPFREEBUFFER pfnFreeBuffer)
    : m_pfnAllocateBuffer(pfnAllocateBuffer),
      m_pfnAllocateMore(pfnAllocateMore),
      m_pfnFreeBuffer(pfnFreeBuffer),
      m_fDirty(FALSE),
      m_ulNextID(NAMED_PROP_FIRST_ID),
      m_pNameTable(NULL),
      m_pMapData(NULL) {
  InitializeCriticalSection(&m_csLock);
}

CNamePropMgr::~CNamePropMgr() {
  ReleaseTable();
  DeleteCriticalSection(&m_csLock);
}

void CNamePropMgr::ReleaseTable() {
  if (m_pNameTable) m_pNameTable->Release();
  if (m_pMapData) m_pMapData->Release();
  m_pNameTable = NULL;
  m_pMapData = NULL;
}

HRESULT CNamePropMgr::MakeTable() {
  SCODE sc = CreateTable(&IID_IMAPITableData, m_pfnAllocateBuffer, m_pfnAllocateMore, m_pfnFreeBuffer, NULL,
                         TBLTYPE_DYNAMIC, PR_NAMED_PROP_ID, (LPSPropTagArray)&sptNPProps, &m_pMapData);
  if (FAILED(sc)) m_pMapData = NULL;
  return sc;
}

HRESULT CNamePropMgr::GetTableView() {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  if (m_pNameTable) return S_OK;
  if (!m_pMapData) {
    ZT4_LOG(ZT4_LEVEL_ERROR, "CNamePropMgr::GetTableView: The mapping has not been loaded yet");
    return MAPI_E_NOT_INITIALIZED;
  }
  HRESULT hResult = S_OK;
  LPMAPITABLE pView = NULL;
  try {
    ZT4_CHECK(m_pMapData->HrGetView(NULL, NULL, 0, &pView));
    ZT4_CHECK(pView->SetColumns((LPSPropTagArray)&sptNPProps, 0));
    m_pNameTable = pView;
    pView = NULL;
  }
  ZT4_CATCH(hResult)
  if (pView) pView->Release();
  ZT4_LOG_FAILURE("CNamePropMgr::GetTableView", hResult);
  return hResult;
}

HRESULT CNamePropMgr::AddRow(const GUID* pGuid, ULONG ulPropID, ULONG ulKind, LPWSTR pszName, LONG lID) {
  SPropValue rgProps[4] = {};
  rgProps[0].ulPropTag = PR_NAMED_PROP_GUID;
  rgProps[0].Value.lpguid = const_cast<LPGUID>(pGuid);
  rgProps[1].ulPropTag = PR_NAMED_PROP_ID;
  rgProps[1].Value.ul = ulPropID;
  rgProps[2].ulPropTag = PR_NAMED_PROP_KIND;
  rgProps[2].Value.ul = ulKind;
  if (ulKind == MNID_STRING) {
    rgProps[3].ulPropTag = PR_NAMED_PROP_NAME;
    rgProps[3].Value.lpszW = pszName;
  } else {
    rgProps[3].ulPropTag = PR_NAMED_PROP_LID;
    rgProps[3].Value.l = lID;
  }
  SRow srRow = {0, 4, rgProps};
  return m_pMapData->HrModifyRow(&srRow);
}

HRESULT CNamePropMgr::LoadMappingFromStream(LPSTREAM pStream) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (!pStream) AssertStatementWithMsg("Where is the stream I asked for?", __FILE__, __LINE__);
  HRESULT hResult = S_OK;
  // Lock order: the caller's object lock, then this map's lock; the table's and the stream's
  // own locks only inside it.
  CLock lock(&m_csLock);
  try {
    ZT4_CHECK_NULL(pStream, E_INVALIDARG);
    ReleaseTable();
    ZT4_CHECK(SeekToStart(pStream));
    ULONG cbStream = 0;
    ZT4_CHECK(GetStreamSize(pStream, &cbStream));
    ULONG cbRead = 0;
    ZT4_CHECK(pStream->Read(&m_ulNextID, sizeof(ULONG), &cbRead));
    ZT4_CHECK(MakeTable());
    if (cbRead != sizeof(ULONG)) {
      // Too short to hold a map: a new stream, even if it holds a byte or three.
      m_ulNextID = NAMED_PROP_FIRST_ID;
      m_fDirty = TRUE;
    } else {
      m_fDirty = FALSE;
      ZT4_CHECK(LoadEntries(pStream, cbStream));
    }
  }
  ZT4_CATCH(hResult)
  if (FAILED(hResult)) {
    ReleaseTable();
    m_ulNextID = NAMED_PROP_FIRST_ID;
    m_fDirty = FALSE;
  }
  ZT4_LOG_FAILURE("CNamePropMgr::LoadMappingFromStream", hResult);
  return hResult;
}

// Reads the count and the entries behind the next-ID word. Anything that a save can't have
// written is MAPI_E_CORRUPT_DATA: IDs are unique and below the next ID, so the count can't pass
// the size of the used range, and a name can't be longer than what is left of the stream.
HRESULT CNamePropMgr::LoadEntries(LPSTREAM pStream, ULONG cbStream) {
  HRESULT hResult = S_OK;
  try {
    RequireFormat(m_ulNextID >= NAMED_PROP_FIRST_ID && m_ulNextID <= NAMED_PROP_ID_LIMIT, "next ID out of range");
    ULONG ulMapCount = 0;
    ULONG cbRead = 0;
    ZT4_CHECK(pStream->Read(&ulMapCount, sizeof(ULONG), &cbRead));
    // A map saved without rows holds no count.
    if (cbRead == 0) return S_OK;
    RequireFormat(cbRead == sizeof(ULONG), "truncated count");
    ULONG ulRange = m_ulNextID - NAMED_PROP_FIRST_ID;
    RequireFormat(ulMapCount <= ulRange, "count larger than the ID range");
    std::vector<bool> rgfUsed(ulRange, false);
    ULONG cbLeft = cbStream > NAMED_PROP_STREAM_HEADER_SIZE ? cbStream - ULONG(NAMED_PROP_STREAM_HEADER_SIZE) : 0;
    CNameBuffer name;
    for (ULONG i = 0; i < ulMapCount; ++i) {
      STORED_NAMED_PROP snpEntry = {};
      ZT4_CHECK(pStream->Read(&snpEntry, sizeof(snpEntry), &cbRead));
      RequireFormat(cbRead == sizeof(snpEntry) && cbLeft >= sizeof(snpEntry), "truncated entry");
      cbLeft -= sizeof(snpEntry);
      RequireFormat(snpEntry.ulPropID >= NAMED_PROP_FIRST_ID && snpEntry.ulPropID < m_ulNextID, "ID out of range");
      RequireFormat(!rgfUsed[snpEntry.ulPropID - NAMED_PROP_FIRST_ID], "ID mapped twice");
      rgfUsed[snpEntry.ulPropID - NAMED_PROP_FIRST_ID] = true;
      RequireFormat(IsKnownKind(snpEntry.ulKind), "unknown kind");
      LPWSTR pszName = NULL;
      if (snpEntry.ulKind == MNID_STRING) {
        LONG cbName = snpEntry.lIDNameOrSize;
        RequireFormat(cbName >= LONG(sizeof(WCHAR)) && cbName % sizeof(WCHAR) == 0 && ULONG(cbName) <= cbLeft,
                      "bad name size");
        ZT4_CHECK(name.Reserve(ULONG(cbName)));
        ZT4_CHECK(pStream->Read(name.Get(), ULONG(cbName), &cbRead));
        RequireFormat(cbRead == ULONG(cbName), "truncated name");
        cbLeft -= ULONG(cbName);
        pszName = name.Get();
        // Exactly one terminator, at the end: otherwise a save would write another size.
        ULONG cchName = ULONG(cbName) / sizeof(WCHAR) - 1;
        RequireFormat(pszName[cchName] == 0 && wcslen(pszName) == cchName, "name not terminated at its size");
      }
      ZT4_CHECK(AddRow(&snpEntry.guidSet, snpEntry.ulPropID, snpEntry.ulKind, pszName, snpEntry.lIDNameOrSize));
    }
  }
  ZT4_CATCH(hResult)
  return hResult;
}

// The row of a name, by a restriction on the set and the name or numeric ID. Text restrictions
// match whole code points, so a string hit is confirmed unit by unit before it counts.
HRESULT CNamePropMgr::FindID(LPGUID pGuid, LPWSTR pszName, LONG lID, ULONG ulKind, ULONG* pulID) {
  HRESULT hResult = S_OK;
  try {
    SPropValue spvGuid = {};
    spvGuid.ulPropTag = PR_NAMED_PROP_GUID;
    spvGuid.Value.lpguid = pGuid;
    SPropValue spvKey = {};
    SRestriction rgResAnd[2] = {};
    rgResAnd[0].rt = RES_PROPERTY;
    rgResAnd[0].res.resProperty.relop = RELOP_EQ;
    rgResAnd[0].res.resProperty.ulPropTag = PR_NAMED_PROP_GUID;
    rgResAnd[0].res.resProperty.lpProp = &spvGuid;
    if (ulKind == MNID_STRING) {
      spvKey.ulPropTag = PR_NAMED_PROP_NAME;
      spvKey.Value.lpszW = pszName;
      rgResAnd[1].rt = RES_CONTENT;
      rgResAnd[1].res.resContent.ulFuzzyLevel = FL_FULLSTRING;
      rgResAnd[1].res.resContent.ulPropTag = PR_NAMED_PROP_NAME;
      rgResAnd[1].res.resContent.lpProp = &spvKey;
    } else {
      spvKey.ulPropTag = PR_NAMED_PROP_LID;
      spvKey.Value.l = lID;
      rgResAnd[1].rt = RES_PROPERTY;
      rgResAnd[1].res.resProperty.relop = RELOP_EQ;
      rgResAnd[1].res.resProperty.ulPropTag = PR_NAMED_PROP_LID;
      rgResAnd[1].res.resProperty.lpProp = &spvKey;
    }
    SRestriction SResSearch = {};
    SResSearch.rt = RES_AND;
    SResSearch.res.resAnd.cRes = 2;
    SResSearch.res.resAnd.lpRes = rgResAnd;

    CRowSetHolder pRows(m_pfnFreeBuffer);
    BOOKMARK bkOrigin = BOOKMARK_BEGINNING;
    for (;;) {
      hResult = m_pNameTable->FindRow(&SResSearch, bkOrigin, 0);
      if (hResult == MAPI_E_NOT_FOUND) return hResult;
      ZT4_CHECK(hResult);
      // Reading the row moves past it, where a further search goes on.
      ZT4_CHECK(m_pNameTable->QueryRows(1, 0, &pRows));
      if (pRows.Count() == 0) return MAPI_E_NOT_FOUND;
      NamedRow row;
      RequireFormat(ReadRow(pRows->aRow[0], row) != FALSE, "row without its columns");
      if (ulKind != MNID_STRING || SameName(row.pszName, pszName)) {
        *pulID = row.ulPropID;
        return S_OK;
      }
      bkOrigin = BOOKMARK_CURRENT;
    }
  }
  ZT4_CATCH(hResult)
  return hResult;
}

HRESULT CNamePropMgr::GetIDForName(LPGUID pGuid, LPWSTR pszName, LONG lID, ULONG ulKind, ULONG* pulID,
                                   BOOL fCreate) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  // Lock order: the caller's object lock, then this map's lock; the table's own lock inside.
  CLock lock(&m_csLock);
  try {
    ZT4_CHECK_NULL(pulID, E_INVALIDARG);
    *pulID = 0;
    ZT4_CHECK_NULL(pGuid, E_INVALIDARG);
    if (!IsKnownKind(ulKind)) throw static_cast<HRESULT>(MAPI_E_INVALID_PARAMETER);
    if (ulKind == MNID_STRING) {
      ZT4_CHECK_NULL(pszName, E_INVALIDARG);
      if (lstrlenW(pszName) > kMaxNameChars) throw static_cast<HRESULT>(MAPI_E_INVALID_PARAMETER);
    }
    ZT4_CHECK(GetTableView());
    hResult = FindID(pGuid, pszName, lID, ulKind, pulID);
    if (hResult == MAPI_E_NOT_FOUND && fCreate) {
      if (m_ulNextID >= NAMED_PROP_ID_LIMIT) throw static_cast<HRESULT>(MAPI_E_NOT_ENOUGH_RESOURCES);
      ZT4_CHECK(AddRow(pGuid, m_ulNextID, ulKind, pszName, lID));
      *pulID = m_ulNextID++;
      m_fDirty = TRUE;
    } else if (FAILED(hResult)) {
      throw static_cast<HRESULT>(hResult);
    }
  }
  ZT4_CATCH(hResult)
  if (hResult != MAPI_E_NOT_FOUND) ZT4_LOG_FAILURE("CNamePropMgr::GetIDForName", hResult);
  return hResult;
}

HRESULT CNamePropMgr::SaveMappingToStream(LPSTREAM pStream) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (!pStream) AssertStatementWithMsg("Where is the stream I asked for?", __FILE__, __LINE__);
  HRESULT hResult = S_OK;
  // Lock order: the caller's object lock, then this map's lock; the table's and the stream's
  // own locks only inside it.
  CLock lock(&m_csLock);
  try {
    ZT4_CHECK_NULL(pStream, E_INVALIDARG);
    ZT4_CHECK(GetTableView());
    ZT4_CHECK(m_pNameTable->SeekRow(BOOKMARK_BEGINNING, 0, NULL));
    // The map is rewritten whole; a caller may hand back the stream it loaded from.
    ZT4_CHECK(SeekToStart(pStream));
    ZT4_CHECK(WriteAll(pStream, &m_ulNextID, sizeof(ULONG)));
    ULONG ulRows = 0;
    ZT4_CHECK(m_pNameTable->GetRowCount(0, &ulRows));
    if (ulRows) {
      ZT4_CHECK(WriteAll(pStream, &ulRows, sizeof(ULONG)));
      ZT4_CHECK(WriteEntries(pStream));
    }
    ZT4_CHECK(pStream->Commit(0));
    m_fDirty = FALSE;
  }
  ZT4_CATCH(hResult)
  ZT4_LOG_FAILURE("CNamePropMgr::SaveMappingToStream", hResult);
  return hResult;
}

HRESULT CNamePropMgr::WriteEntries(LPSTREAM pStream) {
  HRESULT hResult = S_OK;
  try {
    CRowSetHolder pRows(m_pfnFreeBuffer);
    for (;;) {
      ZT4_CHECK(m_pNameTable->QueryRows(kRowBatch, 0, &pRows));
      if (pRows.Count() == 0) break;
      for (ULONG i = 0; i < pRows.Count(); ++i) {
        NamedRow row;
        RequireFormat(ReadRow(pRows->aRow[i], row) != FALSE, "row without its columns");
        STORED_NAMED_PROP snpEntry = {};
        snpEntry.guidSet = *row.pGuid;
        snpEntry.ulPropID = row.ulPropID;
        snpEntry.ulKind = row.ulKind;
        snpEntry.lIDNameOrSize = row.ulKind == MNID_STRING ? LONG((wcslen(row.pszName) + 1) * sizeof(WCHAR)) : row.lID;
        ZT4_CHECK(WriteAll(pStream, &snpEntry, sizeof(STORED_NAMED_PROP)));
        if (row.ulKind == MNID_STRING) ZT4_CHECK(WriteAll(pStream, row.pszName, ULONG(snpEntry.lIDNameOrSize)));
      }
    }
  }
  ZT4_CATCH(hResult)
  return hResult;
}

HRESULT CNamePropMgr::AllocName(const GUID* pGuid, ULONG ulKind, LPCWSTR pszName, LONG lID, LPVOID pMemBlock,
                                LPMAPINAMEID* ppName) {
  HRESULT hResult = S_OK;
  CMAPIBlock pRoot(m_pfnFreeBuffer);
  try {
    LPVOID pv = NULL;
    if (pMemBlock) {
      ZT4_CHECK(m_pfnAllocateMore(sizeof(MAPINAMEID), pMemBlock, &pv));
    } else {
      ZT4_CHECK(m_pfnAllocateBuffer(sizeof(MAPINAMEID), &pRoot));
      pv = pRoot.Get();
      pMemBlock = pv;
    }
    LPMAPINAMEID pName = static_cast<LPMAPINAMEID>(pv);
    memset(pName, 0, sizeof(MAPINAMEID));
    ZT4_CHECK(m_pfnAllocateMore(sizeof(GUID), pMemBlock, &pv));
    pName->lpguid = static_cast<LPGUID>(pv);
    *pName->lpguid = *pGuid;
    pName->ulKind = ulKind;
    if (ulKind == MNID_STRING) {
      ULONG cbName = ULONG((wcslen(pszName) + 1) * sizeof(WCHAR));
      ZT4_CHECK(m_pfnAllocateMore(cbName, pMemBlock, &pv));
      memcpy(pv, pszName, cbName);
      pName->Kind.lpwstrName = static_cast<LPWSTR>(pv);
    } else {
      pName->Kind.lID = lID;
    }
    pRoot.Detach();
    *ppName = pName;
  }
  ZT4_CATCH(hResult)
  return hResult;
}

HRESULT CNamePropMgr::GetNameFromID(ULONG ulPropTag, LPVOID pMemBlock, LPMAPINAMEID* ppName) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  LPSRow pRow = NULL;
  // Lock order: the caller's object lock, then this map's lock; the table's own lock inside.
  CLock lock(&m_csLock);
  try {
    ZT4_CHECK_NULL(ppName, E_INVALIDARG);
    *ppName = NULL;
    ULONG ulID = PROP_ID(ulPropTag);
    if (ulID < NAMED_PROP_FIRST_ID) {
      ZT4_CHECK(AllocName(&PS_MAPI, MNID_ID, NULL, LONG(ulID), pMemBlock, ppName));
    } else {
      ZT4_CHECK(GetTableView());
      SPropValue spvID = {};
      spvID.ulPropTag = PR_NAMED_PROP_ID;
      spvID.Value.ul = ulID;
      hResult = m_pMapData->HrQueryRow(&spvID, &pRow, NULL);
      if (hResult == MAPI_E_NOT_FOUND) throw static_cast<HRESULT>(hResult);
      ZT4_CHECK(hResult);
      SPropValue* pGuid = PpropFindProp(pRow->lpProps, pRow->cValues, PR_NAMED_PROP_GUID);
      SPropValue* pKind = PpropFindProp(pRow->lpProps, pRow->cValues, PR_NAMED_PROP_KIND);
      SPropValue* pName = PpropFindProp(pRow->lpProps, pRow->cValues, PR_NAMED_PROP_NAME);
      SPropValue* pLID = PpropFindProp(pRow->lpProps, pRow->cValues, PR_NAMED_PROP_LID);
      BOOL fComplete = pGuid && pGuid->Value.lpguid && pKind &&
                       (pKind->Value.ul == MNID_STRING ? pName != NULL : (pKind->Value.ul == MNID_ID && pLID));
      ZT4_ASSERT(fComplete);
      if (!fComplete) throw static_cast<HRESULT>(MAPI_E_CORRUPT_DATA);
      ZT4_CHECK(AllocName(pGuid->Value.lpguid, pKind->Value.ul, pName ? pName->Value.lpszW : NULL,
                          pLID ? pLID->Value.l : 0, pMemBlock, ppName));
    }
  }
  ZT4_CATCH(hResult)
  if (pRow) m_pfnFreeBuffer(pRow);
  if (hResult != MAPI_E_NOT_FOUND) ZT4_LOG_FAILURE("CNamePropMgr::GetNameFromID", hResult);
  return hResult;
}

HRESULT CNamePropMgr::GetMAPINamedPropsAndTags(LPSPropTagArray pTags, LPSPropTagArray* ppPropTags,
                                               LPMAPINAMEID** pppPropNames, ULONG* pcPropNames) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  CMAPIBlock pTagBlock(m_pfnFreeBuffer);
  CMAPIBlock pNameBlock(m_pfnFreeBuffer);
  // Lock order: the caller's object lock, then this map's lock.
  CLock lock(&m_csLock);
  try {
    ZT4_CHECK_NULL(ppPropTags, E_INVALIDARG);
    ZT4_CHECK_NULL(pppPropNames, E_INVALIDARG);
    ZT4_CHECK_NULL(pcPropNames, E_INVALIDARG);
    *ppPropTags = NULL;
    *pppPropNames = NULL;
    *pcPropNames = 0;
    ULONG cTags = pTags ? pTags->cValues : 0;
    ULONG cNames = 0;
    for (ULONG i = 0; i < cTags; ++i)
      if (PROP_ID(pTags->aulPropTag[i]) < NAMED_PROP_FIRST_ID) ++cNames;
    ZT4_CHECK(m_pfnAllocateBuffer(ULONG(CbNewSPropTagArray(cNames)), &pTagBlock));
    ZT4_CHECK(m_pfnAllocateBuffer(ULONG(sizeof(LPMAPINAMEID) * (cNames ? cNames : 1)), &pNameBlock));
    LPSPropTagArray pOutTags = static_cast<LPSPropTagArray>(pTagBlock.Get());
    LPMAPINAMEID* ppNames = static_cast<LPMAPINAMEID*>(pNameBlock.Get());
    pOutTags->cValues = 0;
    for (ULONG i = 0; i < cTags; ++i) {
      ULONG ulTag = pTags->aulPropTag[i];
      if (PROP_ID(ulTag) >= NAMED_PROP_FIRST_ID) continue;
      ZT4_CHECK(AllocName(&PS_MAPI, MNID_ID, NULL, LONG(PROP_ID(ulTag)), pNameBlock.Get(), &ppNames[pOutTags->cValues]));
      pOutTags->aulPropTag[pOutTags->cValues++] = ulTag;
    }
    *ppPropTags = static_cast<LPSPropTagArray>(pTagBlock.Detach());
    *pppPropNames = static_cast<LPMAPINAMEID*>(pNameBlock.Detach());
    *pcPropNames = cNames;
  }
  ZT4_CATCH(hResult)
  ZT4_LOG_FAILURE("CNamePropMgr::GetMAPINamedPropsAndTags", hResult);
  return hResult;
}

HRESULT CNamePropMgr::GetAllNamesAndTags(LPSPropTagArray* ppPropTags, LPMAPINAMEID** pppPropNames, ULONG ulFlags,
                                         ULONG* pcPropNames) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  CMAPIBlock pTagBlock(m_pfnFreeBuffer);
  CMAPIBlock pNameBlock(m_pfnFreeBuffer);
  // Lock order: the caller's object lock, then this map's lock; the table's own lock inside.
  CLock lock(&m_csLock);
  try {
    ZT4_CHECK_NULL(ppPropTags, E_INVALIDARG);
    ZT4_CHECK_NULL(pppPropNames, E_INVALIDARG);
    ZT4_CHECK_NULL(pcPropNames, E_INVALIDARG);
    *ppPropTags = NULL;
    *pppPropNames = NULL;
    *pcPropNames = 0;
    ZT4_CHECK(GetTableView());
    ZT4_CHECK(m_pNameTable->SeekRow(BOOKMARK_BEGINNING, 0, NULL));
    ULONG ulRows = 0;
    ZT4_CHECK(m_pNameTable->GetRowCount(0, &ulRows));
    ZT4_CHECK(m_pfnAllocateBuffer(ULONG(CbNewSPropTagArray(ulRows)), &pTagBlock));
    ZT4_CHECK(m_pfnAllocateBuffer(ULONG(sizeof(LPMAPINAMEID) * (ulRows ? ulRows : 1)), &pNameBlock));
    LPSPropTagArray pOutTags = static_cast<LPSPropTagArray>(pTagBlock.Get());
    LPMAPINAMEID* ppNames = static_cast<LPMAPINAMEID*>(pNameBlock.Get());
    pOutTags->cValues = 0;
    CRowSetHolder pRows(m_pfnFreeBuffer);
    for (;;) {
      ZT4_CHECK(m_pNameTable->QueryRows(kRowBatch, 0, &pRows));
      if (pRows.Count() == 0) break;
      for (ULONG i = 0; i < pRows.Count() && pOutTags->cValues < ulRows; ++i) {
        NamedRow row;
        RequireFormat(ReadRow(pRows->aRow[i], row) != FALSE, "row without its columns");
        if ((ulFlags & MAPI_NO_IDS) && row.ulKind == MNID_ID) continue;
        if ((ulFlags & MAPI_NO_STRINGS) && row.ulKind == MNID_STRING) continue;
        ZT4_CHECK(AllocName(row.pGuid, row.ulKind, row.pszName, row.lID, pNameBlock.Get(), &ppNames[pOutTags->cValues]));
        pOutTags->aulPropTag[pOutTags->cValues++] = PROP_TAG(PT_UNSPECIFIED, row.ulPropID);
      }
    }
    *pcPropNames = pOutTags->cValues;
    *ppPropTags = static_cast<LPSPropTagArray>(pTagBlock.Detach());
    *pppPropNames = static_cast<LPMAPINAMEID*>(pNameBlock.Detach());
  }
  ZT4_CATCH(hResult)
  ZT4_LOG_FAILURE("CNamePropMgr::GetAllNamesAndTags", hResult);
  return hResult;
}

BOOL CNamePropMgr::IsDirty() {
  CLock lock(&m_csLock);
  return m_fDirty;
}

ULONG CNamePropMgr::GetNextID() {
  CLock lock(&m_csLock);
  return m_ulNextID;
}
