#include "ZT4PropList.h"

#include <mapicode.h>
#include <mapix.h>

#include <bit>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "MemHeap.h"
#include "ZT4_TRACES.h"

// Node bytes are stored as they stand in memory; the stored integers are little-endian.
static_assert(std::endian::native == std::endian::little, "stored property lists are little-endian");

namespace {

// The stored form of a node's fixed part: dwSize, tag and the value union.
struct STORED_PROPNODE {
  DWORD dwSize;
  ULONG ulPropTag;
  BYTE abValue[16];
};
static_assert(sizeof(STORED_PROPNODE) == 24, "a stored node's fixed part is 24 bytes");
static_assert(offsetof(STORED_PROPNODE, ulPropTag) == 4 && offsetof(STORED_PROPNODE, abValue) == 8,
              "stored node layout");
static_assert(sizeof(PROPNODE) - offsetof(PROPNODE, dwSize) == sizeof(STORED_PROPNODE),
              "a node in memory holds its stored bytes from dwSize on");
static_assert(sizeof(SBinary) == 16 && offsetof(SBinary, lpb) == 8, "SBinary entries are 16 bytes");
static_assert(offsetof(SBinaryArray, lpbin) == 8 && offsetof(SLPSTRArray, lppszA) == 8,
              "multi-valued arrays keep their pointer at value offset 8");

const ULONG kStoredHeader = sizeof(STORED_PROPNODE);
const ULONG kNodeOverhead = sizeof(PROPNODE);  // what memory adds before the data area
// Largest data area: dwSize and the allocation both stay within 32 bits.
const ULONGLONG kMaxDataArea = 0xFFFFFFFFull - kNodeOverhead;
// Streams below this size go back into the list before a save: they fit one record node.
const ULONG kPullBackLimit = 2048;
const ULONG kPullBackBuffer = 2064;

// How a value type lies in a node.
enum class Layout { Unstorable, Scalar, String8, Unicode, Clsid, Binary, MVFixed, MVString8, MVUnicode, MVBinary };

struct TypeLayout {
  Layout layout;
  ULONG cb;  // Scalar: meaningful bytes of the value; MVFixed: bytes per element
};

TypeLayout DescribeType(ULONG ulType) {
  switch (ulType) {
    case PT_I2:
    case PT_BOOLEAN:
      return {Layout::Scalar, 2};
    case PT_LONG:
    case PT_R4:
      return {Layout::Scalar, 4};
    case PT_DOUBLE:
    case PT_CURRENCY:
    case PT_APPTIME:
    case PT_I8:
    case PT_SYSTIME:
    case PT_OBJECT:
    case PT_LARGE_STUB:
      return {Layout::Scalar, 8};
    case PT_STRING8:
      return {Layout::String8, 0};
    case PT_UNICODE:
      return {Layout::Unicode, 0};
    case PT_CLSID:
      return {Layout::Clsid, sizeof(GUID)};
    case PT_BINARY:
      return {Layout::Binary, 0};
    case PT_MV_I2:
      return {Layout::MVFixed, 2};
    case PT_MV_LONG:
    case PT_MV_R4:
      return {Layout::MVFixed, 4};
    case PT_MV_DOUBLE:
    case PT_MV_CURRENCY:
    case PT_MV_APPTIME:
    case PT_MV_I8:
    case PT_MV_SYSTIME:
      return {Layout::MVFixed, 8};
    case PT_MV_CLSID:
      return {Layout::MVFixed, sizeof(GUID)};
    case PT_MV_STRING8:
      return {Layout::MVString8, 0};
    case PT_MV_UNICODE:
      return {Layout::MVUnicode, 0};
    case PT_MV_BINARY:
      return {Layout::MVBinary, 0};
    default:
      return {Layout::Unstorable, 0};
  }
}

ULONGLONG WideLength(LPCWSTR psz) { return std::char_traits<WCHAR>::length(psz); }

// The pointer of a value sits at offset 0 for strings and GUIDs, at 8 for binary and arrays.
size_t ValuePointerOffset(Layout layout) {
  return (layout == Layout::String8 || layout == Layout::Unicode || layout == Layout::Clsid) ? 0 : 8;
}

void SetValuePointer(union _PV* pValue, Layout layout, LPVOID pv) {
  memcpy(reinterpret_cast<LPBYTE>(pValue) + ValuePointerOffset(layout), &pv, sizeof(pv));
}

// ---------------------------------------------------------------------------------------------
// Sizes of values.

HRESULT CheckedSize(ULONGLONG cb, ULONG* pcb) {
  if (cb > kMaxDataArea) return E_OUTOFMEMORY;
  *pcb = static_cast<ULONG>(cb);
  return S_OK;
}

HRESULT MultiStringSize(const SPropValue& v, bool fWide, ULONG* pcb) {
  ULONG cValues = v.Value.MVszA.cValues;
  if (cValues && !v.Value.MVszA.lppszA) return MAPI_E_INVALID_PARAMETER;
  ULONGLONG cb = ULONGLONG(cValues) * 8;
  for (ULONG i = 0; i < cValues && cb <= kMaxDataArea; ++i) {
    if (fWide) {
      if (v.Value.MVszW.lppszW[i]) cb += (WideLength(v.Value.MVszW.lppszW[i]) + 1) * 8;  // room for four times the text
    } else if (v.Value.MVszA.lppszA[i]) {
      cb += strlen(v.Value.MVszA.lppszA[i]) + 1;
    }
  }
  return CheckedSize(cb, pcb);
}

HRESULT MultiBinarySize(const SPropValue& v, ULONG* pcb) {
  ULONG cValues = v.Value.MVbin.cValues;
  if (cValues && !v.Value.MVbin.lpbin) return MAPI_E_INVALID_PARAMETER;
  ULONGLONG cb = ULONGLONG(cValues) * sizeof(SBinary);
  for (ULONG i = 0; i < cValues; ++i) {
    const SBinary& bin = v.Value.MVbin.lpbin[i];
    if (bin.cb && !bin.lpb) return MAPI_E_INVALID_PARAMETER;
    cb += bin.cb;
  }
  return CheckedSize(cb, pcb);
}

// The size of a value's data area. MAPI_W_ERRORS_RETURNED: a type the list doesn't store.
HRESULT DataAreaSize(const SPropValue& v, ULONG* pcb) {
  *pcb = 0;
  TypeLayout t = DescribeType(PROP_TYPE(v.ulPropTag));
  switch (t.layout) {
    case Layout::Unstorable:
      return MAPI_W_ERRORS_RETURNED;
    case Layout::Scalar:
      return S_OK;
    case Layout::String8:
      if (!v.Value.lpszA) return MAPI_E_INVALID_PARAMETER;
      return CheckedSize(ULONGLONG(strlen(v.Value.lpszA)) + 1, pcb);
    case Layout::Unicode:
      if (!v.Value.lpszW) return MAPI_E_INVALID_PARAMETER;
      return CheckedSize((WideLength(v.Value.lpszW) + 1) * sizeof(WCHAR), pcb);
    case Layout::Clsid:
      if (!v.Value.lpguid) return MAPI_E_INVALID_PARAMETER;
      *pcb = sizeof(GUID);
      return S_OK;
    case Layout::Binary:
      if (v.Value.bin.cb && !v.Value.bin.lpb) return MAPI_E_INVALID_PARAMETER;
      return CheckedSize(v.Value.bin.cb, pcb);
    case Layout::MVFixed:
      if (v.Value.MVl.cValues && !v.Value.MVl.lpl) return MAPI_E_INVALID_PARAMETER;
      return CheckedSize(ULONGLONG(v.Value.MVl.cValues) * t.cb, pcb);
    case Layout::MVString8:
      return MultiStringSize(v, false, pcb);
    case Layout::MVUnicode:
      return MultiStringSize(v, true, pcb);
    case Layout::MVBinary:
      return MultiBinarySize(v, pcb);
  }
  return MAPI_W_ERRORS_RETURNED;
}

// ---------------------------------------------------------------------------------------------
// Filling a node from a value.

void FillMultiString8(const SPropValue& v, LPPROPNODE pNode) {
  LPBYTE pData = PropNodeData(pNode);
  LPSTR* rgpsz = reinterpret_cast<LPSTR*>(pData);
  size_t pos = size_t(v.Value.MVszA.cValues) * 8;
  for (ULONG i = 0; i < v.Value.MVszA.cValues; ++i) {
    LPCSTR psz = v.Value.MVszA.lppszA[i];
    if (!psz) continue;  // a NULL string stays NULL
    size_t cb = strlen(psz) + 1;
    memcpy(pData + pos, psz, cb);
    rgpsz[i] = reinterpret_cast<LPSTR>(pData + pos);
    pos += cb;
  }
}

void FillMultiUnicode(const SPropValue& v, LPPROPNODE pNode) {
  LPBYTE pData = PropNodeData(pNode);
  LPWSTR* rgpsz = reinterpret_cast<LPWSTR*>(pData);
  size_t pos = size_t(v.Value.MVszW.cValues) * 8;
  for (ULONG i = 0; i < v.Value.MVszW.cValues; ++i) {
    LPCWSTR psz = v.Value.MVszW.lppszW[i];
    if (!psz) continue;
    size_t cb = (WideLength(psz) + 1) * sizeof(WCHAR);
    memcpy(pData + pos, psz, cb);
    rgpsz[i] = reinterpret_cast<LPWSTR>(pData + pos);
    pos += cb;
  }
}

void FillMultiBinary(const SPropValue& v, LPPROPNODE pNode) {
  LPBYTE pData = PropNodeData(pNode);
  SBinary* rgbin = reinterpret_cast<SBinary*>(pData);
  size_t pos = size_t(v.Value.MVbin.cValues) * sizeof(SBinary);
  for (ULONG i = 0; i < v.Value.MVbin.cValues; ++i) {
    const SBinary& bin = v.Value.MVbin.lpbin[i];
    if (bin.cb) memcpy(pData + pos, bin.lpb, bin.cb);
    rgbin[i].cb = bin.cb;
    rgbin[i].lpb = pData + pos;
    pos += bin.cb;
  }
}

// The node's value starts zeroed; only the bytes a type defines are taken over, so what is
// stored does not depend on the caller's unused union bytes.
void FillNode(const SPropValue& v, ULONG cbData, LPPROPNODE pNode) {
  TypeLayout t = DescribeType(PROP_TYPE(v.ulPropTag));
  LPBYTE pData = PropNodeData(pNode);
  switch (t.layout) {
    case Layout::Unstorable:
      break;
    case Layout::Scalar:
      memcpy(&pNode->Value, &v.Value, t.cb);
      break;
    case Layout::String8:
    case Layout::Unicode:
    case Layout::Clsid:
      memcpy(pData, t.layout == Layout::Clsid ? static_cast<const void*>(v.Value.lpguid)
                                               : static_cast<const void*>(v.Value.lpszA),
             cbData);
      break;
    case Layout::Binary:
      if (cbData) memcpy(pData, v.Value.bin.lpb, cbData);
      pNode->Value.bin.cb = cbData;
      break;
    case Layout::MVFixed:
      if (cbData) memcpy(pData, v.Value.MVl.lpl, cbData);
      pNode->Value.MVl.cValues = v.Value.MVl.cValues;
      break;
    case Layout::MVString8:
      FillMultiString8(v, pNode);
      pNode->Value.MVszA.cValues = v.Value.MVszA.cValues;
      break;
    case Layout::MVUnicode:
      FillMultiUnicode(v, pNode);
      pNode->Value.MVszW.cValues = v.Value.MVszW.cValues;
      break;
    case Layout::MVBinary:
      FillMultiBinary(v, pNode);
      pNode->Value.MVbin.cValues = v.Value.MVbin.cValues;
      break;
  }
  if (t.layout != Layout::Scalar && t.layout != Layout::Unstorable) SetValuePointer(&pNode->Value, t.layout, pData);
}

// ---------------------------------------------------------------------------------------------
// Mending a loaded node. Every count and length is checked against the node's data area, so a
// damaged stream can't make a pointer leave the node.

HRESULT MendMultiString(LPPROPNODE pNode, ULONG cbData, bool fWide) {
  LPBYTE pData = PropNodeData(pNode);
  ULONG cValues = pNode->Value.MVszA.cValues;
  if (ULONGLONG(cValues) * 8 > cbData) return MAPI_E_CORRUPT_DATA;
  size_t pos = size_t(cValues) * 8;
  LPBYTE* rgp = reinterpret_cast<LPBYTE*>(pData);
  for (ULONG i = 0; i < cValues; ++i) {
    if (!rgp[i]) continue;
    size_t end = pos;
    if (fWide) {
      while (end + 1 < cbData && (pData[end] | pData[end + 1])) end += 2;
      if (end + 1 >= cbData) return MAPI_E_CORRUPT_DATA;
      rgp[i] = pData + pos;
      pos = end + 2;
    } else {
      while (end < cbData && pData[end]) ++end;
      if (end >= cbData) return MAPI_E_CORRUPT_DATA;
      rgp[i] = pData + pos;
      pos = end + 1;
    }
  }
  return S_OK;
}

HRESULT MendMultiBinary(LPPROPNODE pNode, ULONG cbData) {
  LPBYTE pData = PropNodeData(pNode);
  ULONG cValues = pNode->Value.MVbin.cValues;
  if (ULONGLONG(cValues) * sizeof(SBinary) > cbData) return MAPI_E_CORRUPT_DATA;
  ULONGLONG pos = ULONGLONG(cValues) * sizeof(SBinary);
  SBinary* rgbin = reinterpret_cast<SBinary*>(pData);
  for (ULONG i = 0; i < cValues; ++i) {
    if (rgbin[i].cb > cbData - pos) return MAPI_E_CORRUPT_DATA;
    rgbin[i].lpb = pData + pos;
    pos += rgbin[i].cb;
  }
  return S_OK;
}

HRESULT MendPointers(LPPROPNODE pNode) {
  ULONG cbData = pNode->dwSize - kStoredHeader;
  LPBYTE pData = PropNodeData(pNode);
  TypeLayout t = DescribeType(PROP_TYPE(pNode->ulPropTag));
  HRESULT hResult = S_OK;
  switch (t.layout) {
    case Layout::Unstorable:
      return MAPI_E_CORRUPT_DATA;
    case Layout::Scalar:
      return S_OK;
    case Layout::String8:
      if (cbData < 1 || pData[cbData - 1] != 0) return MAPI_E_CORRUPT_DATA;
      break;
    case Layout::Unicode:
      if (cbData < 2 || (cbData & 1) || pData[cbData - 1] || pData[cbData - 2]) return MAPI_E_CORRUPT_DATA;
      break;
    case Layout::Clsid:
      if (cbData < sizeof(GUID)) return MAPI_E_CORRUPT_DATA;
      break;
    case Layout::Binary:
      if (pNode->Value.bin.cb > cbData) return MAPI_E_CORRUPT_DATA;
      break;
    case Layout::MVFixed:
      if (ULONGLONG(pNode->Value.MVl.cValues) * t.cb > cbData) return MAPI_E_CORRUPT_DATA;
      break;
    case Layout::MVString8:
      hResult = MendMultiString(pNode, cbData, false);
      break;
    case Layout::MVUnicode:
      hResult = MendMultiString(pNode, cbData, true);
      break;
    case Layout::MVBinary:
      hResult = MendMultiBinary(pNode, cbData);
      break;
  }
  if (SUCCEEDED(hResult)) SetValuePointer(&pNode->Value, t.layout, pData);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// Stored pointers. A stored pointer is written as its offset in the node's data area (0 for one
// that points elsewhere), so equal lists give equal bytes and no address leaves the process.
// Readers only test the array entries of multi-valued strings for zero, and those stay zero
// exactly for NULL strings.

void StorePointerAt(LPBYTE pStored, size_t offset, const PROPNODE* pNode, ULONG cbData) {
  LPBYTE p = NULL;
  memcpy(&p, pStored + offset, sizeof(p));
  LPBYTE pData = PropNodeData(pNode);
  ULONGLONG stored = (p >= pData && p <= pData + cbData) ? ULONGLONG(p - pData) : 0;
  memcpy(pStored + offset, &stored, sizeof(stored));
}

void ScrubPointers(const PROPNODE* pNode, LPBYTE pStored) {
  ULONG cbData = pNode->dwSize - kStoredHeader;
  TypeLayout t = DescribeType(PROP_TYPE(pNode->ulPropTag));
  if (t.layout == Layout::Scalar || t.layout == Layout::Unstorable) return;
  StorePointerAt(pStored, offsetof(STORED_PROPNODE, abValue) + ValuePointerOffset(t.layout), pNode, cbData);
  LPBYTE pArray = pStored + kStoredHeader;
  if (t.layout == Layout::MVString8 || t.layout == Layout::MVUnicode) {
    for (ULONG i = 0; i < pNode->Value.MVszA.cValues; ++i) StorePointerAt(pArray, size_t(i) * 8, pNode, cbData);
  } else if (t.layout == Layout::MVBinary) {
    for (ULONG i = 0; i < pNode->Value.MVbin.cValues; ++i)
      StorePointerAt(pArray, size_t(i) * sizeof(SBinary) + offsetof(SBinary, lpb), pNode, cbData);
  }
}

// ---------------------------------------------------------------------------------------------
// Stream helpers.

HRESULT ReadExact(LPSTREAM pStream, LPVOID pv, ULONG cb) {
  ULONG cbRead = 0;
  HRESULT hResult = pStream->Read(pv, cb, &cbRead);
  if (FAILED(hResult)) return hResult;
  return cbRead == cb ? S_OK : MAPI_E_CORRUPT_DATA;
}

HRESULT WriteExact(LPSTREAM pStream, const void* pv, ULONG cb) {
  ULONG cbWritten = 0;
  HRESULT hResult = pStream->Write(pv, cb, &cbWritten);
  if (FAILED(hResult)) return hResult;
  return cbWritten == cb ? S_OK : STG_E_MEDIUMFULL;
}

HRESULT SeekTo(LPSTREAM pStream, ULONGLONG pos, DWORD dwOrigin = STREAM_SEEK_SET, ULARGE_INTEGER* pNew = NULL) {
  LARGE_INTEGER li;
  li.QuadPart = static_cast<LONGLONG>(pos);
  return pStream->Seek(li, dwOrigin, pNew);
}

HRESULT GetPosition(LPSTREAM pStream, ULONGLONG* pPos) {
  ULARGE_INTEGER uli = {};
  HRESULT hResult = SeekTo(pStream, 0, STREAM_SEEK_CUR, &uli);
  *pPos = uli.QuadPart;
  return hResult;
}

HRESULT SetStreamSize(LPSTREAM pStream, ULONGLONG cb) {
  ULARGE_INTEGER uli;
  uli.QuadPart = cb;
  return pStream->SetSize(uli);
}

// Bytes between the stream's position and its end: the bound for every length read from it.
HRESULT BytesLeft(LPSTREAM pStream, ULONGLONG* pcbLeft) {
  *pcbLeft = 0;
  STATSTG stat = {};
  HRESULT hResult = pStream->Stat(&stat, STATFLAG_NONAME);
  if (FAILED(hResult)) return hResult;
  ULONGLONG pos = 0;
  hResult = GetPosition(pStream, &pos);
  if (FAILED(hResult)) return hResult;
  *pcbLeft = stat.cbSize.QuadPart > pos ? stat.cbSize.QuadPart - pos : 0;
  return S_OK;
}

// A count word at the stream's position. An empty remainder reads as 0: an empty list is
// stored as an empty stream.
HRESULT ReadCount(LPSTREAM pStream, ULONGLONG cbLeft, ULONG* pcCount) {
  *pcCount = 0;
  if (cbLeft == 0) return S_OK;
  DWORD dwCount = 0;
  HRESULT hResult = ReadExact(pStream, &dwCount, sizeof(dwCount));
  *pcCount = dwCount;
  return hResult;
}

// Frees a node being built unless it was handed on.
class CNodeHolder {
 public:
  CNodeHolder() = default;
  ~CNodeHolder() { CPropList::FreeNode(m_pNode); }
  CNodeHolder(const CNodeHolder&) = delete;
  CNodeHolder& operator=(const CNodeHolder&) = delete;
  LPPROPNODE* Out() { return &m_pNode; }
  LPPROPNODE Get() const { return m_pNode; }
  LPPROPNODE Detach() {
    LPPROPNODE p = m_pNode;
    m_pNode = NULL;
    return p;
  }

 private:
  LPPROPNODE m_pNode = NULL;
};

// Releases an interface at scope end.
template <class T> class CReleaser {
 public:
  CReleaser() = default;
  ~CReleaser() {
    if (m_p) m_p->Release();
  }
  CReleaser(const CReleaser&) = delete;
  CReleaser& operator=(const CReleaser&) = delete;
  T** Out() { return &m_p; }
  T* Get() const { return m_p; }

 private:
  T* m_p = NULL;
};

ULONG RefCountOf(LPUNKNOWN pUnk) {
  if (!pUnk) return 0;
  ULONG cRef = pUnk->AddRef();
  pUnk->Release();
  return cRef - 1;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Stubs.

void MakeLargeStub(ULONG ulPropTag, ULONG ulKind, DWORD dwRecordID, LPSPropValue pStub) {
  if (!pStub) return;
  memset(pStub, 0, sizeof(*pStub));
  pStub->ulPropTag = CHANGE_PROP_TYPE(ulPropTag, PT_LARGE_STUB);
  WORD wType = static_cast<WORD>(PROP_TYPE(ulPropTag));
  WORD wKind = static_cast<WORD>(ulKind & OPENPROP_KIND_MASK);
  LPBYTE pValue = reinterpret_cast<LPBYTE>(&pStub->Value);
  memcpy(pValue, &wType, 2);
  memcpy(pValue + 2, &wKind, 2);
  memcpy(pValue + 4, &dwRecordID, 4);
}

void GetLargeStubInfo(const SPropValue* pStub, ULONG* pulType, ULONG* pulKind, DWORD* pdwRecordID) {
  WORD wType = 0, wKind = 0;
  DWORD dwRecordID = 0;
  if (pStub) {
    const BYTE* pValue = reinterpret_cast<const BYTE*>(&pStub->Value);
    memcpy(&wType, pValue, 2);
    memcpy(&wKind, pValue + 2, 2);
    memcpy(&dwRecordID, pValue + 4, 4);
  }
  if (pulType) *pulType = wType;
  if (pulKind) *pulKind = wKind;
  if (pdwRecordID) *pdwRecordID = dwRecordID;
}

// ---------------------------------------------------------------------------------------------
// CPropList

CPropList::CPropList() : m_fModified(0), m_cValues(0), m_pTail(NULL), m_pHead(NULL), m_pWalk(NULL) {}

CPropList::~CPropList() { Clear(); }

void CPropList::FreeNode(LPPROPNODE pNode) {
  if (pNode) PrivFree(&pNode);
}

void CPropList::FreeChain(LPPROPNODE pHead) {
  while (pHead) {
    LPPROPNODE pNext = pHead->pNext;
    FreeNode(pHead);
    pHead = pNext;
  }
}

void CPropList::Clear() {
  FreeChain(m_pHead);
  m_pHead = m_pTail = m_pWalk = NULL;
  m_cValues = 0;
}

HRESULT CPropList::Flatten(LPSPropValue pProp, LPPROPNODE* ppNode) {
  if (!ppNode) return MAPI_E_INVALID_PARAMETER;
  *ppNode = NULL;
  if (!pProp) return MAPI_E_INVALID_PARAMETER;
  HRESULT hResult = S_OK;
  try {
    ULONG cbData = 0;
    hResult = DataAreaSize(*pProp, &cbData);
    if (hResult != S_OK) return hResult;  // MAPI_W_ERRORS_RETURNED: not storable
    LPVOID pv = NULL;
    hResult = PrivAllocate(kNodeOverhead + cbData, &pv, "Property Node");
    if (FAILED(hResult)) return E_OUTOFMEMORY;
    LPPROPNODE pNode = static_cast<LPPROPNODE>(pv);
    pNode->ulPropTag = pProp->ulPropTag;
    FillNode(*pProp, cbData, pNode);
    pNode->dwSize = kStoredHeader + cbData;
    *ppNode = pNode;
  } catch (...) {
    hResult = E_UNEXPECTED;
    ZT4_LOG(ZT4_LEVEL_ERROR, "Flatten: An exception occurred. Exception code: %#08x", hResult);
  }
  return hResult;
}

LPPROPNODE CPropList::FindNodeByID(ULONG ulPropTag) const {
  for (LPPROPNODE pNode = m_pHead; pNode; pNode = pNode->pNext)
    if (PROP_ID(pNode->ulPropTag) == PROP_ID(ulPropTag)) return pNode;
  return NULL;
}

// A value that fits the value union replaces the old one where it stands. PT_UNICODE counts as
// such a value, so the node then holds the caller's pointer, not a copy; the data area keeps the
// old text, which is what a save writes.
BOOL CPropList::UpdateInPlace(LPSPropValue pProp) {
  ULONG ulType = PROP_TYPE(pProp->ulPropTag);
  if ((ulType & MV_FLAG) || ulType == PT_STRING8 || ulType == PT_CLSID || ulType == PT_BINARY) return FALSE;
  TypeLayout t = DescribeType(ulType);
  if (t.layout != Layout::Scalar && t.layout != Layout::Unicode) return FALSE;
  for (LPPROPNODE pNode = m_pHead; pNode; pNode = pNode->pNext) {
    if (pNode->ulPropTag != pProp->ulPropTag) continue;
    memset(&pNode->Value, 0, 8);
    memcpy(&pNode->Value, &pProp->Value, t.layout == Layout::Unicode ? sizeof(LPWSTR) : t.cb);
    return TRUE;
  }
  return FALSE;
}

// Puts a new node in the place of the node with its property ID, or at the end.
void CPropList::LinkReplacing(LPPROPNODE pNew) {
  pNew->pNext = NULL;
  LPPROPNODE* ppLink = &m_pHead;
  for (LPPROPNODE pNode = m_pHead; pNode; ppLink = &pNode->pNext, pNode = pNode->pNext) {
    if (PROP_ID(pNode->ulPropTag) != PROP_ID(pNew->ulPropTag)) continue;
    pNew->pNext = pNode->pNext;
    *ppLink = pNew;
    if (m_pTail == pNode) m_pTail = pNew;
    if (m_pWalk == pNode) m_pWalk = pNew;
    FreeNode(pNode);
    return;
  }
  *ppLink = pNew;
  m_pTail = pNew;
  ++m_cValues;
}

HRESULT CPropList::Insert(LPSPropValue pProp) {
  if (!pProp) return MAPI_E_INVALID_PARAMETER;
  if (UpdateInPlace(pProp)) return S_OK;
  LPPROPNODE pNew = NULL;
  HRESULT hResult = Flatten(pProp, &pNew);
  if (hResult == MAPI_W_ERRORS_RETURNED) return S_OK;
  if (FAILED(hResult)) return hResult;
  LinkReplacing(pNew);
  return S_OK;
}

HRESULT CPropList::Find(ULONG ulPropTag, LPSPropValue pProp, BOOL fExactType, LPVOID pAllocBase) {
  if (!pProp) return MAPI_E_INVALID_PARAMETER;
  ULONG ulType = PROP_TYPE(ulPropTag);
  for (LPPROPNODE pNode = m_pHead; pNode; pNode = pNode->pNext) {
    if (PROP_ID(pNode->ulPropTag) != PROP_ID(ulPropTag)) continue;
    if (fExactType && ulType != PT_UNSPECIFIED && PROP_TYPE(pNode->ulPropTag) != ulType) continue;
    if (pAllocBase) return Copy(pNode, pProp, pAllocBase);
    pProp->ulPropTag = pNode->ulPropTag;
    memcpy(&pProp->Value, &pNode->Value, sizeof(pProp->Value));
    return S_OK;
  }
  pProp->ulPropTag = CHANGE_PROP_TYPE(ulPropTag, PT_ERROR);
  pProp->Value.err = MAPI_E_NOT_FOUND;
  return MAPI_E_NOT_FOUND;
}

HRESULT CPropList::Copy(const PROPNODE* pNode, LPSPropValue pProp, LPVOID pAllocBase) {
  if (!pNode || !pProp) return MAPI_E_INVALID_PARAMETER;
  SPropValue src;
  memset(&src, 0, sizeof(src));
  src.ulPropTag = pNode->ulPropTag;
  memcpy(&src.Value, &pNode->Value, sizeof(src.Value));
  // PropCopyMore doesn't know the stub type; its value holds only numbers.
  if (PROP_TYPE(pNode->ulPropTag) == PT_LARGE_STUB) {
    memcpy(pProp, &src, sizeof(src));
    return S_OK;
  }
  LPALLOCATEMORE pfnAllocateMore = GetMAPIAllocMore();
  if (!pfnAllocateMore) pfnAllocateMore = MAPIAllocateMore;
  SCODE sc = pAllocBase ? PropCopyMore(pProp, &src, pfnAllocateMore, pAllocBase) : MAPI_E_INVALID_PARAMETER;
  if (sc != S_OK) {
    ZT4_LOG(ZT4_LEVEL_ERROR, "CPropList::Copy: PropCopyMore failed");
    pProp->ulPropTag = CHANGE_PROP_TYPE(pNode->ulPropTag, PT_ERROR);
    pProp->Value.err = sc;
  }
  return sc;
}

HRESULT CPropList::Delete(ULONG ulPropTag, LPSPropValue pOut) {
  if (!m_pHead) return S_OK;
  LPPROPNODE pPrev = NULL;
  for (LPPROPNODE pNode = m_pHead; pNode; pPrev = pNode, pNode = pNode->pNext) {
    if (PROP_ID(pNode->ulPropTag) != PROP_ID(ulPropTag)) continue;
    if (pOut) {
      pOut->ulPropTag = pNode->ulPropTag;
      memcpy(&pOut->Value, &pNode->Value, sizeof(pOut->Value));
    }
    (pPrev ? pPrev->pNext : m_pHead) = pNode->pNext;
    if (m_pTail == pNode) m_pTail = pPrev;
    if (m_pWalk == pNode) m_pWalk = pNode->pNext;
    FreeNode(pNode);
    --m_cValues;
    return S_OK;
  }
  return MAPI_E_NOT_FOUND;
}

HRESULT CPropList::GetTags(LPSPropTagArray* ppTags) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  if (!ppTags) return MAPI_E_INVALID_PARAMETER;
  *ppTags = NULL;
  HRESULT hResult = S_OK;
  try {
    LPVOID pv = NULL;
    hResult = PrivMAPIAllocate(CbNewSPropTagArray(m_cValues), &pv);
    if (FAILED(hResult)) return hResult;
    LPSPropTagArray pTags = static_cast<LPSPropTagArray>(pv);
    pTags->cValues = 0;
    for (LPPROPNODE pNode = m_pHead; pNode && pTags->cValues < m_cValues; pNode = pNode->pNext)
      pTags->aulPropTag[pTags->cValues++] = pNode->ulPropTag;
    *ppTags = pTags;
  } catch (...) {
    hResult = E_UNEXPECTED;
    ZT4_LOG(ZT4_LEVEL_ERROR, "GetTags: An exception occurred. Exception code: %#08x", hResult);
  }
  return hResult;
}

HRESULT CPropList::GetAllProps(LPSPropValue* ppProps, ULONG* pcValues) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  if (!ppProps || !pcValues) return MAPI_E_INVALID_PARAMETER;
  *ppProps = NULL;
  *pcValues = 0;
  if (!m_cValues) return S_OK;
  LPVOID pv = NULL;
  HRESULT hResult = PrivMAPIAllocate(m_cValues * static_cast<ULONG>(sizeof(SPropValue)), &pv);
  if (FAILED(hResult)) return hResult;
  LPSPropValue pProps = static_cast<LPSPropValue>(pv);
  ULONG cValues = 0;
  for (LPPROPNODE pNode = m_pHead; pNode && cValues < m_cValues; pNode = pNode->pNext, ++cValues) {
    pProps[cValues].ulPropTag = pNode->ulPropTag;
    memcpy(&pProps[cValues].Value, &pNode->Value, sizeof(pNode->Value));
  }
  *ppProps = pProps;
  *pcValues = cValues;
  return S_OK;
}

HRESULT CPropList::CopyToStream(ULONG ulPropTag, LPSTREAM pStream) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  HRESULT hResult = S_OK;
  try {
    ZT4_CHECK_NULL(pStream, MAPI_E_INVALID_PARAMETER);
    LPPROPNODE pNode = FindNodeByID(ulPropTag);
    if (!pNode) return MAPI_E_NOT_FOUND;
    const void* pv = NULL;
    ULONGLONG cb = 0;
    TypeLayout t = DescribeType(PROP_TYPE(pNode->ulPropTag));
    switch (t.layout) {
      case Layout::String8:
        pv = pNode->Value.lpszA;
        cb = strlen(pNode->Value.lpszA);
        break;
      case Layout::Unicode:
        pv = pNode->Value.lpszW;
        cb = WideLength(pNode->Value.lpszW) * sizeof(WCHAR);
        break;
      case Layout::Binary:
        pv = pNode->Value.bin.lpb;
        cb = pNode->Value.bin.cb;
        break;
      case Layout::Clsid:
        pv = pNode->Value.lpguid;
        cb = sizeof(GUID);
        break;
      case Layout::Scalar:
        if (PROP_TYPE(pNode->ulPropTag) == PT_OBJECT || PROP_TYPE(pNode->ulPropTag) == PT_LARGE_STUB)
          throw static_cast<HRESULT>(MAPI_E_NO_SUPPORT);
        pv = &pNode->Value;
        cb = t.cb;
        break;
      default:
        throw static_cast<HRESULT>(MAPI_E_NO_SUPPORT);
    }
    if (cb) ZT4_CHECK(WriteExact(pStream, pv, static_cast<ULONG>(cb)));
    ZT4_CHECK(SeekTo(pStream, 0));
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CPropList::CopyToStream", hResult);
  return hResult;
}

HRESULT CPropList::SaveToStream(LPSTREAM pStream) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  if (!pStream) return MAPI_E_INVALID_PARAMETER;
  HRESULT hResult = SeekTo(pStream, 0);
  DWORD dwCount = m_cValues;
  if (SUCCEEDED(hResult)) hResult = WriteExact(pStream, &dwCount, sizeof(dwCount));
  // An empty list counts nothing, so its stream is cut to nothing.
  ULONGLONG cbWritten = m_cValues ? sizeof(dwCount) : 0;
  std::vector<BYTE> stored;
  for (LPPROPNODE pNode = m_pHead; pNode && m_cValues && SUCCEEDED(hResult); pNode = pNode->pNext) {
    stored.assign(reinterpret_cast<LPBYTE>(&pNode->dwSize), reinterpret_cast<LPBYTE>(&pNode->dwSize) + pNode->dwSize);
    ScrubPointers(pNode, stored.data());
    hResult = WriteExact(pStream, stored.data(), pNode->dwSize);
    cbWritten += pNode->dwSize;
  }
  if (SUCCEEDED(hResult)) hResult = SetStreamSize(pStream, cbWritten);
  if (FAILED(hResult)) {
    ZT4_LOG(ZT4_LEVEL_ERROR, "SaveToStream: I/O operation failed");
    return hResult;
  }
  m_fModified = 0;
  return S_OK;
}

// Reads up to cNodes nodes and links them at the tail. Each size is checked against what the
// stream still holds before anything is allocated for it.
HRESULT CPropList::ReadNodes(LPSTREAM pStream, ULONG cNodes, ULONGLONG cbLeft) {
  for (ULONG i = 0; i < cNodes; ++i) {
    DWORD dwSize = 0;
    if (cbLeft < sizeof(dwSize)) return MAPI_E_CORRUPT_DATA;
    HRESULT hResult = ReadExact(pStream, &dwSize, sizeof(dwSize));
    if (FAILED(hResult)) return hResult;
    cbLeft -= sizeof(dwSize);
    if (dwSize < kStoredHeader || ULONGLONG(dwSize) - sizeof(dwSize) > cbLeft ||
        ULONGLONG(dwSize) - kStoredHeader > kMaxDataArea)
      return MAPI_E_CORRUPT_DATA;
    CNodeHolder node;
    LPVOID pv = NULL;
    if (FAILED(PrivAllocate(kNodeOverhead + dwSize - kStoredHeader, &pv, "Property Node"))) return E_OUTOFMEMORY;
    *node.Out() = static_cast<LPPROPNODE>(pv);
    node.Get()->dwSize = dwSize;
    hResult = ReadExact(pStream, &node.Get()->ulPropTag, dwSize - sizeof(dwSize));
    if (FAILED(hResult)) return hResult;
    cbLeft -= dwSize - sizeof(dwSize);
    hResult = MendPointers(node.Get());
    if (FAILED(hResult)) return hResult;
    LPPROPNODE pNode = node.Detach();
    (m_pTail ? m_pTail->pNext : m_pHead) = pNode;
    m_pTail = pNode;
    ++m_cValues;
  }
  return S_OK;
}

HRESULT CPropList::LoadFromStream(LPSTREAM pStream) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  if (!pStream) return MAPI_E_INVALID_PARAMETER;
  LPPROPNODE pOldHead = m_pHead, pOldTail = m_pTail;
  ULONG cOldValues = m_cValues;
  m_pHead = m_pTail = m_pWalk = NULL;
  m_cValues = 0;

  ULONGLONG cbLeft = 0;
  ULONG cNodes = 0;
  HRESULT hResult = BytesLeft(pStream, &cbLeft);
  if (SUCCEEDED(hResult)) hResult = ReadCount(pStream, cbLeft, &cNodes);
  if (SUCCEEDED(hResult) && cNodes) hResult = ReadNodes(pStream, cNodes, cbLeft - sizeof(DWORD));
  if (FAILED(hResult)) {
    if (!m_cValues) {
      m_pHead = pOldHead;
      m_pTail = pOldTail;
      m_cValues = cOldValues;
      ZT4_LOG(ZT4_LEVEL_ERROR, "LoadFromStream: I/O operation failed");
      return hResult;
    }
    // What was read stands; the rest of the object's properties are gone.
    ZT4_LOG(ZT4_LEVEL_ERROR, "CPropList::LoadFromStream: Failed to load all property nodes");
  }
  FreeChain(pOldHead);
  m_fModified = 0;
  return S_OK;
}

HRESULT CPropList::CopyFrom(CPropList* pOther) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  if (!pOther || pOther == this || !pOther->m_pHead) return S_OK;
  Clear();
  for (LPPROPNODE pNode = pOther->m_pHead; pNode; pNode = pNode->pNext) {
    SPropValue v;
    memset(&v, 0, sizeof(v));
    v.ulPropTag = pNode->ulPropTag;
    memcpy(&v.Value, &pNode->Value, sizeof(v.Value));
    HRESULT hResult = Insert(&v);
    if (FAILED(hResult)) return hResult;
  }
  return S_OK;
}

HRESULT CPropList::PullInSmallStreams(COpenPropList* pOpenPropList) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  if (!pOpenPropList) return S_OK;
  alignas(8) BYTE abBuffer[kPullBackBuffer];
  LPOPENPROPNODE pNext = NULL;
  for (LPOPENPROPNODE pNode = pOpenPropList->GetHead(); pNode; pNode = pNext) {
    pNext = pNode->pNext;
    if (!(pNode->ulFlags & OPENPROP_STREAM) || (pNode->ulFlags & OPENPROP_DELETED) || !pNode->iface.pStream) continue;
    // Only values that are bytes come back; anything else keeps its record.
    ULONG ulType = PROP_TYPE(pNode->ulPropTag);
    if (ulType != PT_STRING8 && ulType != PT_UNICODE && ulType != PT_BINARY) continue;
    ULONG cb = 0;
    if (FAILED(pNode->iface.pStream->GetSize(&cb)) || cb == 0 || cb >= kPullBackLimit) continue;
    memset(abBuffer, 0, sizeof(abBuffer));
    if (FAILED(pNode->iface.pStream->SaveToBuffer(abBuffer, kPullBackLimit - 1, &cb))) continue;
    SPropValue v;
    memset(&v, 0, sizeof(v));
    v.ulPropTag = pNode->ulPropTag;
    if (ulType == PT_BINARY) {
      v.Value.bin.cb = cb;
      v.Value.bin.lpb = abBuffer;
    } else {
      v.Value.lpszA = reinterpret_cast<LPSTR>(abBuffer);  // the zeroed buffer terminates it
    }
    // The stub (or anything else of this ID) goes first, so no in-place update can keep a
    // pointer into this buffer.
    Delete(pNode->ulPropTag);
    HRESULT hResult = Insert(&v);
    if (FAILED(hResult)) return hResult;
    pOpenPropList->RemoveNode(pNode);
  }
  return S_OK;
}

const PROPNODE* CPropList::GetFirstNode() {
  m_pWalk = m_pHead;
  return GetNextNode();
}

const PROPNODE* CPropList::GetNextNode() {
  LPPROPNODE pNode = m_pWalk;
  if (pNode) m_pWalk = pNode->pNext;
  return pNode;
}

// ---------------------------------------------------------------------------------------------
// COpenPropList

COpenPropList::COpenPropList() : m_pHead(NULL) {}

COpenPropList::~COpenPropList() { Clear(TRUE); }

HRESULT COpenPropList::Add(LPUNKNOWN pObject, ULONG ulFlags, DWORD dwRecordID, ULONG ulPropTag) {
  LPVOID pv = NULL;
  if (FAILED(PrivAllocate(sizeof(OPENPROPNODE), &pv, "Open Property Node"))) return E_OUTOFMEMORY;
  LPOPENPROPNODE pNew = static_cast<LPOPENPROPNODE>(pv);
  pNew->ulPropTag = ulPropTag;
  pNew->ulFlags = ulFlags;
  pNew->dwRecordID = dwRecordID;
  pNew->iface.pUnk = pObject;
  LPOPENPROPNODE* ppLink = &m_pHead;
  while (*ppLink) ppLink = &(*ppLink)->pNext;
  *ppLink = pNew;
  return S_OK;
}

LPOPENPROPNODE COpenPropList::FindNode(ULONG ulPropTag) const {
  for (LPOPENPROPNODE pNode = m_pHead; pNode; pNode = pNode->pNext)
    if (!(pNode->ulFlags & OPENPROP_DELETED) && PROP_ID(pNode->ulPropTag) == PROP_ID(ulPropTag)) return pNode;
  return NULL;
}

HRESULT COpenPropList::Find(ULONG ulPropTag, LPSPropValue pProp, LPVOID pAllocBase, ULONG cbMax) {
  HRESULT hResult = S_OK;
  try {
    LPOPENPROPNODE pNode = FindNode(ulPropTag);
    if (!pNode) return MAPI_E_NOT_FOUND;
    ZT4_CHECK_NULL(pProp, MAPI_E_INVALID_PARAMETER);
    // A storage has no value in memory.
    if (!(pNode->ulFlags & OPENPROP_STREAM) || !pNode->iface.pStream) throw static_cast<HRESULT>(E_OUTOFMEMORY);
    ULONG cb = 0;
    ZT4_CHECK(pNode->iface.pStream->GetSize(&cb));
    if (cb > cbMax) throw static_cast<HRESULT>(E_OUTOFMEMORY);
    ULONG ulType = PROP_TYPE(pNode->ulPropTag);
    ULONG cbTerminator = ulType == PT_STRING8 ? 1 : ulType == PT_UNICODE ? 2 : 0;
    if (cb > 0xFFFFFFFF - cbTerminator) throw static_cast<HRESULT>(E_OUTOFMEMORY);
    LPVOID pv = NULL;
    ZT4_CHECK(PrivMAPIAllocate(cb + cbTerminator, &pv, pAllocBase));
    hResult = pNode->iface.pStream->SaveToBuffer(pv, cb, &cb);
    if (FAILED(hResult)) {
      if (!pAllocBase) PrivMAPIFree(&pv);
      throw static_cast<HRESULT>(hResult);
    }
    if (ulType == PT_STRING8) {
      pProp->Value.lpszA = static_cast<LPSTR>(pv);
    } else if (ulType == PT_UNICODE) {
      pProp->Value.lpszW = static_cast<LPWSTR>(pv);
    } else {
      pProp->Value.bin.cb = cb;
      pProp->Value.bin.lpb = static_cast<LPBYTE>(pv);
    }
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("COpenPropList::Find", hResult);
  return hResult;
}

void COpenPropList::Unlink(LPOPENPROPNODE pNode) {
  for (LPOPENPROPNODE* ppLink = &m_pHead; *ppLink; ppLink = &(*ppLink)->pNext) {
    if (*ppLink != pNode) continue;
    *ppLink = pNode->pNext;
    if (pNode->iface.pUnk) pNode->iface.pUnk->Release();
    PrivFree(&pNode);
    return;
  }
}

HRESULT COpenPropList::RemoveNode(LPOPENPROPNODE pNode) {
  if (!pNode) return MAPI_E_INVALID_PARAMETER;
  if (pNode->ulFlags & OPENPROP_NEW)
    Unlink(pNode);
  else
    pNode->ulFlags |= OPENPROP_DELETED;  // the save releases its record
  return S_OK;
}

HRESULT COpenPropList::Remove(ULONG ulPropTag) {
  LPOPENPROPNODE pNode = FindNode(ulPropTag);
  return pNode ? RemoveNode(pNode) : MAPI_E_NOT_FOUND;
}

void COpenPropList::Clear(BOOL fAll) {
  LPOPENPROPNODE pNext = NULL;
  for (LPOPENPROPNODE pNode = m_pHead; pNode; pNode = pNext) {
    pNext = pNode->pNext;
    // A client may still hold the object; the list's reference is the last but one then.
    if (fAll || (pNode->ulFlags & OPENPROP_DELETED) || RefCountOf(pNode->iface.pUnk) <= 1) Unlink(pNode);
  }
}

ULONG COpenPropList::GetCount() const {
  ULONG c = 0;
  for (LPOPENPROPNODE pNode = m_pHead; pNode; pNode = pNode->pNext) ++c;
  return c;
}

// ---------------------------------------------------------------------------------------------
// CIDList

CIDList::CIDList() : m_cIDs(0), m_pHead(NULL), m_pTail(NULL), m_pWalk(NULL) {}

CIDList::~CIDList() { Clear(); }

void CIDList::Clear() {
  while (m_pHead) {
    IDNODE* pNext = m_pHead->pNext;
    PrivFree(&m_pHead);
    m_pHead = pNext;
  }
  m_pTail = m_pWalk = NULL;
  m_cIDs = 0;
}

HRESULT CIDList::Insert(DWORD dwID) {
  LPVOID pv = NULL;
  if (FAILED(PrivAllocate(sizeof(IDNODE), &pv, "ID List Node"))) return E_OUTOFMEMORY;
  IDNODE* pNew = static_cast<IDNODE*>(pv);
  pNew->dwID = dwID;
  (m_pTail ? m_pTail->pNext : m_pHead) = pNew;
  m_pTail = pNew;
  ++m_cIDs;
  return S_OK;
}

HRESULT CIDList::Remove(DWORD dwID) {
  IDNODE* pPrev = NULL;
  for (IDNODE* pNode = m_pHead; pNode; pPrev = pNode, pNode = pNode->pNext) {
    if (pNode->dwID != dwID) continue;
    (pPrev ? pPrev->pNext : m_pHead) = pNode->pNext;
    if (m_pTail == pNode) m_pTail = pPrev;
    if (m_pWalk == pNode) m_pWalk = pNode->pNext;
    PrivFree(&pNode);
    --m_cIDs;
    return S_OK;
  }
  return MAPI_E_NOT_FOUND;
}

BOOL CIDList::Contains(DWORD dwID) const {
  for (IDNODE* pNode = m_pHead; pNode; pNode = pNode->pNext)
    if (pNode->dwID == dwID) return TRUE;
  return FALSE;
}

DWORD CIDList::GetFirst() {
  m_pWalk = m_pHead;
  return GetNext();
}

DWORD CIDList::GetNext() {
  if (!m_pWalk) return 0;
  DWORD dwID = m_pWalk->dwID;
  m_pWalk = m_pWalk->pNext;
  return dwID;
}

HRESULT CIDList::LoadFromStream(LPSTREAM pStream) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  if (!pStream) return S_OK;
  HRESULT hResult = S_OK;
  try {
    ULONGLONG cbLeft = 0;
    ULONG cIDs = 0;
    ZT4_CHECK(BytesLeft(pStream, &cbLeft));
    ZT4_CHECK(ReadCount(pStream, cbLeft, &cIDs));
    // A count the stream can't hold is damage, not a shorter list.
    if (cIDs && ULONGLONG(cIDs) * sizeof(DWORD) > cbLeft - sizeof(DWORD)) throw static_cast<HRESULT>(MAPI_E_CORRUPT_DATA);
    std::vector<DWORD> ids(cIDs);
    if (cIDs) ZT4_CHECK(ReadExact(pStream, ids.data(), cIDs * static_cast<ULONG>(sizeof(DWORD))));
    CIDList loaded;
    for (DWORD dwID : ids) ZT4_CHECK(loaded.Insert(dwID));
    Clear();
    std::swap(m_cIDs, loaded.m_cIDs);
    std::swap(m_pHead, loaded.m_pHead);
    std::swap(m_pTail, loaded.m_pTail);
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CIDList::LoadFromStream", hResult);
  return hResult;
}

HRESULT CIDList::SaveToStream(LPSTREAM pStream) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  HRESULT hResult = S_OK;
  bool fMissing = false;
  try {
    ZT4_CHECK_NULL(pStream, MAPI_E_INVALID_PARAMETER);
    std::vector<DWORD> image;
    image.reserve(size_t(m_cIDs) + 1);
    image.push_back(m_cIDs);
    for (IDNODE* pNode = m_pHead; pNode; pNode = pNode->pNext) image.push_back(pNode->dwID);
    ZT4_CHECK(SeekTo(pStream, 0));
    ULONG cWritten = m_cIDs;
    if (FAILED(WriteExact(pStream, image.data(), static_cast<ULONG>(image.size() * sizeof(DWORD))))) {
      // Slow path: ID by ID, so that one bad write costs one ID.
      ZT4_CHECK(SeekTo(pStream, 0));
      ZT4_CHECK(WriteExact(pStream, &image[0], sizeof(DWORD)));
      cWritten = 0;
      for (size_t i = 1; i < image.size(); ++i) {
        if (SUCCEEDED(WriteExact(pStream, &image[i], sizeof(DWORD)))) {
          ++cWritten;
        } else {
          ZT4_LOG(ZT4_LEVEL_ERROR, "CIDList::SaveToStream: Failed to write ID:%x", image[i]);
          ZT4_CHECK(SeekTo(pStream, (ULONGLONG(cWritten) + 1) * sizeof(DWORD)));
          fMissing = true;
        }
      }
    }
    if (cWritten != m_cIDs) {
      ZT4_CHECK(SeekTo(pStream, 0));
      ZT4_CHECK(WriteExact(pStream, &cWritten, sizeof(cWritten)));
    }
    ZT4_CHECK(SetStreamSize(pStream, (ULONGLONG(cWritten) + 1) * sizeof(DWORD)));
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CIDList::SaveToStream", hResult);
  // IDs that could not be written are gone from the stream: a warning, not a failure.
  return (SUCCEEDED(hResult) && fMissing) ? MAPI_W_ERRORS_RETURNED : hResult;
}

// ---------------------------------------------------------------------------------------------
// CPropStream

CPropStream::CPropStream(LPSTREAM pStream, ULONG ulFlags)
    : m_cRef(1), m_fModified(0), m_ulFlags(ulFlags), m_pStream(pStream) {
  InitializeCriticalSection(&m_cs);
  if (m_pStream) m_pStream->AddRef();
}

CPropStream::~CPropStream() {
  if (m_pStream) m_pStream->Release();
  m_pStream = NULL;
  DeleteCriticalSection(&m_cs);
}

HRESULT CPropStream::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_INVALIDARG;
  if (riid == IID_IStream || riid == IID_IUnknown) {
    *ppv = static_cast<IStream*>(this);
    AddRef();
    return S_OK;
  }
  *ppv = NULL;
  return E_NOINTERFACE;
}

ULONG CPropStream::AddRef() {
  // Lock order: an object lock may be held by the caller; this lock is innermost.
  EnterCriticalSection(&m_cs);
  ULONG cRef = ++m_cRef;
  LeaveCriticalSection(&m_cs);
  return cRef;
}

ULONG CPropStream::Release() {
  // Innermost lock, as in AddRef.
  EnterCriticalSection(&m_cs);
  ULONG cRef = --m_cRef;
  LeaveCriticalSection(&m_cs);
  if (cRef == 0) delete this;
  return cRef;
}

HRESULT CPropStream::Read(void* pv, ULONG cb, ULONG* pcbRead) {
  return m_pStream ? m_pStream->Read(pv, cb, pcbRead) : E_UNEXPECTED;
}

HRESULT CPropStream::Write(const void* pv, ULONG cb, ULONG* pcbWritten) {
  if (!m_pStream) return E_UNEXPECTED;
  HRESULT hResult = m_pStream->Write(pv, cb, pcbWritten);
  if (SUCCEEDED(hResult)) SetModified(TRUE);
  return hResult;
}

HRESULT CPropStream::Seek(LARGE_INTEGER dlibMove, DWORD dwOrigin, ULARGE_INTEGER* plibNewPosition) {
  return m_pStream ? m_pStream->Seek(dlibMove, dwOrigin, plibNewPosition) : E_UNEXPECTED;
}

// Cutting alone is no change as far as the object knows.
HRESULT CPropStream::SetSize(ULARGE_INTEGER libNewSize) {
  return m_pStream ? m_pStream->SetSize(libNewSize) : E_UNEXPECTED;
}

HRESULT CPropStream::CopyTo(IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead, ULARGE_INTEGER* pcbWritten) {
  return m_pStream ? m_pStream->CopyTo(pstm, cb, pcbRead, pcbWritten) : E_UNEXPECTED;
}

HRESULT CPropStream::Commit(DWORD grfCommitFlags) {
  return m_pStream ? m_pStream->Commit(grfCommitFlags) : E_UNEXPECTED;
}

HRESULT CPropStream::Revert() { return m_pStream ? m_pStream->Revert() : E_UNEXPECTED; }

HRESULT CPropStream::LockRegion(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb, DWORD dwLockType) {
  return m_pStream ? m_pStream->LockRegion(libOffset, cb, dwLockType) : E_UNEXPECTED;
}

HRESULT CPropStream::UnlockRegion(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb, DWORD dwLockType) {
  return m_pStream ? m_pStream->UnlockRegion(libOffset, cb, dwLockType) : E_UNEXPECTED;
}

HRESULT CPropStream::Stat(STATSTG* pstatstg, DWORD grfStatFlag) {
  return m_pStream ? m_pStream->Stat(pstatstg, grfStatFlag) : E_UNEXPECTED;
}

HRESULT CPropStream::Clone(IStream** ppstm) { return m_pStream ? m_pStream->Clone(ppstm) : E_UNEXPECTED; }

BOOL CPropStream::IsModified() {
  // Innermost lock.
  EnterCriticalSection(&m_cs);
  BOOL fModified = m_fModified != 0;
  LeaveCriticalSection(&m_cs);
  return fModified;
}

void CPropStream::SetModified(BOOL fModified) {
  // Innermost lock.
  EnterCriticalSection(&m_cs);
  m_fModified = fModified ? 1 : 0;
  LeaveCriticalSection(&m_cs);
}

HRESULT CPropStream::GetSize(ULONG* pcbSize) {
  HRESULT hResult = S_OK;
  try {
    ZT4_CHECK_NULL(pcbSize, MAPI_E_INVALID_PARAMETER);
    *pcbSize = 0;
    STATSTG stat = {};
    ZT4_CHECK(Stat(&stat, STATFLAG_NONAME));
    if (stat.cbSize.HighPart != 0) throw static_cast<HRESULT>(E_OUTOFMEMORY);
    *pcbSize = stat.cbSize.LowPart;
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CPropStream::GetSize", hResult);
  return hResult;
}

HRESULT CPropStream::SaveToBuffer(LPVOID pBuffer, ULONG cbBuffer, ULONG* pcbRead) {
  HRESULT hResult = S_OK;
  try {
    ZT4_CHECK_NULL(pBuffer, MAPI_E_INVALID_PARAMETER);
    ULONG cbSize = 0;
    ZT4_CHECK(GetSize(&cbSize));
    if (cbSize > cbBuffer) throw static_cast<HRESULT>(E_OUTOFMEMORY);
    ULONGLONG pos = 0;
    ZT4_CHECK(GetPosition(m_pStream, &pos));
    hResult = SeekTo(m_pStream, 0);
    if (SUCCEEDED(hResult)) hResult = ReadExact(m_pStream, pBuffer, cbSize);
    HRESULT hrBack = SeekTo(m_pStream, pos);  // the client's position, whatever the read gave
    if (SUCCEEDED(hResult)) hResult = hrBack;
    ZT4_CHECK(hResult);
    if (pcbRead) *pcbRead = cbSize;
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CPropStream::SaveToBuffer", hResult);
  return hResult;
}

HRESULT CPropStream::SaveToStream(LPSTREAM pDest) {
  HRESULT hResult = S_OK;
  try {
    ZT4_CHECK_NULL(pDest, MAPI_E_INVALID_PARAMETER);
    ZT4_CHECK_NULL(m_pStream, E_UNEXPECTED);
    STATSTG stat = {};
    ZT4_CHECK(m_pStream->Stat(&stat, STATFLAG_NONAME));
    ULONGLONG pos = 0;
    ZT4_CHECK(GetPosition(m_pStream, &pos));
    ULARGE_INTEGER cbRead = {}, cbWritten = {};
    hResult = SeekTo(m_pStream, 0);
    if (SUCCEEDED(hResult)) hResult = m_pStream->CopyTo(pDest, stat.cbSize, &cbRead, &cbWritten);
    if (SUCCEEDED(hResult) && cbWritten.QuadPart != stat.cbSize.QuadPart) hResult = STG_E_MEDIUMFULL;
    HRESULT hrBack = SeekTo(m_pStream, pos);
    if (SUCCEEDED(hResult)) hResult = hrBack;
    ZT4_CHECK(hResult);
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CPropStream::SaveToStream", hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// CStorage

CStorage::CStorage(LPSTORAGE pStorage, LPSTREAM pStream, ULONG ulFlags)
    : m_cRef(1), m_fModified(0), m_ulFlags(ulFlags), m_pStream(pStream), m_pStorage(pStorage) {
  InitializeCriticalSection(&m_cs);
  if (m_pStream) m_pStream->AddRef();
  if (m_pStorage) m_pStorage->AddRef();
}

CStorage::~CStorage() {
  // The storage first: its last release writes its image into the backing stream.
  if (m_pStorage) m_pStorage->Release();
  if (m_pStream) m_pStream->Release();
  m_pStorage = NULL;
  m_pStream = NULL;
  DeleteCriticalSection(&m_cs);
}

HRESULT CStorage::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_INVALIDARG;
  if (riid == IID_IStorage || riid == IID_IUnknown) {
    *ppv = static_cast<IStorage*>(this);
    AddRef();
    return S_OK;
  }
  *ppv = NULL;
  return E_NOINTERFACE;
}

ULONG CStorage::AddRef() {
  // Innermost lock.
  EnterCriticalSection(&m_cs);
  ULONG cRef = ++m_cRef;
  LeaveCriticalSection(&m_cs);
  return cRef;
}

ULONG CStorage::Release() {
  // Innermost lock.
  EnterCriticalSection(&m_cs);
  ULONG cRef = --m_cRef;
  LeaveCriticalSection(&m_cs);
  if (cRef == 0) delete this;
  return cRef;
}

void CStorage::MarkModifiedIf(HRESULT hResult) {
  if (SUCCEEDED(hResult)) SetModified(TRUE);
}

HRESULT CStorage::CreateStream(const OLECHAR* pwcsName, DWORD grfMode, DWORD reserved1, DWORD reserved2,
                               IStream** ppstm) {
  if (!m_pStorage) return E_UNEXPECTED;
  HRESULT hResult = m_pStorage->CreateStream(pwcsName, grfMode, reserved1, reserved2, ppstm);
  MarkModifiedIf(hResult);
  return hResult;
}

HRESULT CStorage::OpenStream(const OLECHAR* pwcsName, void* reserved1, DWORD grfMode, DWORD reserved2,
                             IStream** ppstm) {
  if (!m_pStorage) return E_UNEXPECTED;
  HRESULT hResult = m_pStorage->OpenStream(pwcsName, reserved1, grfMode, reserved2, ppstm);
  MarkModifiedIf(hResult);
  return hResult;
}

HRESULT CStorage::CreateStorage(const OLECHAR* pwcsName, DWORD grfMode, DWORD reserved1, DWORD reserved2,
                                IStorage** ppstg) {
  if (!m_pStorage) return E_UNEXPECTED;
  HRESULT hResult = m_pStorage->CreateStorage(pwcsName, grfMode, reserved1, reserved2, ppstg);
  MarkModifiedIf(hResult);
  return hResult;
}

HRESULT CStorage::OpenStorage(const OLECHAR* pwcsName, IStorage* pstgPriority, DWORD grfMode, SNB snbExclude,
                              DWORD reserved, IStorage** ppstg) {
  return m_pStorage ? m_pStorage->OpenStorage(pwcsName, pstgPriority, grfMode, snbExclude, reserved, ppstg)
                    : E_UNEXPECTED;
}

HRESULT CStorage::CopyTo(DWORD ciidExclude, const IID* rgiidExclude, SNB snbExclude, IStorage* pstgDest) {
  return m_pStorage ? m_pStorage->CopyTo(ciidExclude, rgiidExclude, snbExclude, pstgDest) : E_UNEXPECTED;
}

HRESULT CStorage::MoveElementTo(const OLECHAR* pwcsName, IStorage* pstgDest, const OLECHAR* pwcsNewName,
                                DWORD grfFlags) {
  return m_pStorage ? m_pStorage->MoveElementTo(pwcsName, pstgDest, pwcsNewName, grfFlags) : E_UNEXPECTED;
}

HRESULT CStorage::Commit(DWORD grfCommitFlags) {
  return m_pStorage ? m_pStorage->Commit(grfCommitFlags) : E_UNEXPECTED;
}

HRESULT CStorage::Revert() { return m_pStorage ? m_pStorage->Revert() : E_UNEXPECTED; }

HRESULT CStorage::EnumElements(DWORD reserved1, void* reserved2, DWORD reserved3, IEnumSTATSTG** ppenum) {
  return m_pStorage ? m_pStorage->EnumElements(reserved1, reserved2, reserved3, ppenum) : E_UNEXPECTED;
}

HRESULT CStorage::DestroyElement(const OLECHAR* pwcsName) {
  return m_pStorage ? m_pStorage->DestroyElement(pwcsName) : E_UNEXPECTED;
}

HRESULT CStorage::RenameElement(const OLECHAR* pwcsOldName, const OLECHAR* pwcsNewName) {
  return m_pStorage ? m_pStorage->RenameElement(pwcsOldName, pwcsNewName) : E_UNEXPECTED;
}

HRESULT CStorage::SetElementTimes(const OLECHAR* pwcsName, const FILETIME* pctime, const FILETIME* patime,
                                  const FILETIME* pmtime) {
  return m_pStorage ? m_pStorage->SetElementTimes(pwcsName, pctime, patime, pmtime) : E_UNEXPECTED;
}

HRESULT CStorage::SetClass(REFCLSID clsid) { return m_pStorage ? m_pStorage->SetClass(clsid) : E_UNEXPECTED; }

HRESULT CStorage::SetStateBits(DWORD grfStateBits, DWORD grfMask) {
  return m_pStorage ? m_pStorage->SetStateBits(grfStateBits, grfMask) : E_UNEXPECTED;
}

HRESULT CStorage::Stat(STATSTG* pstatstg, DWORD grfStatFlag) {
  return m_pStorage ? m_pStorage->Stat(pstatstg, grfStatFlag) : E_UNEXPECTED;
}

BOOL CStorage::IsModified() {
  // Innermost lock.
  EnterCriticalSection(&m_cs);
  BOOL fModified = m_fModified != 0;
  LeaveCriticalSection(&m_cs);
  return fModified;
}

void CStorage::SetModified(BOOL fModified) {
  // Innermost lock.
  EnterCriticalSection(&m_cs);
  m_fModified = fModified ? 1 : 0;
  LeaveCriticalSection(&m_cs);
}

HRESULT CStorage::SaveToStream(LPSTREAM pDest) {
  HRESULT hResult = S_OK;
  try {
    ZT4_CHECK_NULL(pDest, MAPI_E_INVALID_PARAMETER);
    ZT4_CHECK_NULL(m_pStream, E_UNEXPECTED);
    ZT4_CHECK_NULL(m_pStorage, E_UNEXPECTED);
    ZT4_CHECK(m_pStorage->Commit(STGC_DEFAULT));
    ULONGLONG pos = 0;
    ZT4_CHECK(GetPosition(m_pStream, &pos));
    ULARGE_INTEGER cbAll;
    cbAll.QuadPart = 0xFFFFFFFF;
    hResult = SeekTo(m_pStream, 0);
    if (SUCCEEDED(hResult)) hResult = m_pStream->CopyTo(pDest, cbAll, NULL, NULL);
    HRESULT hrBack = SeekTo(m_pStream, pos);
    if (SUCCEEDED(hResult)) hResult = hrBack;
    ZT4_CHECK(hResult);
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CStorage::SaveToStream", hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// Private storage and temporary files

namespace {

LPALLOCATEBUFFER StreamAllocateBuffer() { return GetMAPIAllocBuffer() ? GetMAPIAllocBuffer() : MAPIAllocateBuffer; }
LPFREEBUFFER StreamFreeBuffer() { return GetMAPIFreeBuffer() ? GetMAPIFreeBuffer() : MAPIFreeBuffer; }

const ULONG kTempFileMode = STGM_DELETEONRELEASE | STGM_CREATE | STGM_READWRITE;

}  // namespace

BOOL GetTempFullPathFileName(LPSTR pszPath) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  CHAR szTempPath[512] = {};
  DWORD cch = GetTempPathA(sizeof(szTempPath), szTempPath);
  if (!pszPath || cch == 0 || cch >= sizeof(szTempPath) || !GetTempFileNameA(szTempPath, "TMP", 0, pszPath)) {
    ZT4_LOG(ZT4_LEVEL_ERROR, "GetTempFullPathFileName: Failed to get temp path or file name:%x", GetLastError());
    return 0;
  }
  return 1;
}

HRESULT OpenTempFileStream(LPSTREAM* ppStream) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  HRESULT hResult = S_OK;
  try {
    ZT4_CHECK_NULL(ppStream, MAPI_E_INVALID_PARAMETER);
    *ppStream = NULL;
    CHAR szTempPath[512] = {};
    DWORD cch = GetTempPathA(sizeof(szTempPath), szTempPath);
    if (cch == 0 || cch >= sizeof(szTempPath)) throw static_cast<HRESULT>(E_FAIL);
    ZT4_CHECK(OpenStreamOnFile(StreamAllocateBuffer(), StreamFreeBuffer(), SOF_UNIQUEFILENAME | kTempFileMode,
                               szTempPath, NULL, ppStream));
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("OpenTempFileStream", hResult);
  return hResult;
}

HRESULT CreatePrivateIStorage(CStorage** ppStorage, ULONG ulFlags, LPSTREAM pStream) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  HRESULT hResult = S_OK;
  CReleaser<IStream> ownStream;
  CReleaser<IStorage> storage;
  CHAR szPath[MAX_PATH] = {};
  try {
    ZT4_CHECK_NULL(ppStorage, MAPI_E_INVALID_PARAMETER);
    *ppStorage = NULL;
    ULONG ulMode = STGSTRM_MODIFY;
    if (!pStream) {
      ulMode |= STGSTRM_CREATE;
      if (!GetTempFullPathFileName(szPath)) throw static_cast<HRESULT>(E_FAIL);
      hResult = OpenStreamOnFile(StreamAllocateBuffer(), StreamFreeBuffer(), kTempFileMode, szPath, NULL,
                                 ownStream.Out());
      if (FAILED(hResult)) {
        DeleteFileA(szPath);  // made by GetTempFileNameA, and no stream will take it away
        ZT4_CHECK(hResult);
      }
      pStream = ownStream.Get();
    } else {
      ulMode |= STGSTRM_CURRENT;
    }
    ZT4_CHECK(HrIStorageFromStream(pStream, NULL, ulMode, storage.Out()));
    CStorage* pPrivate = new (std::nothrow) CStorage(storage.Get(), pStream, ulFlags);
    if (!pPrivate) throw static_cast<HRESULT>(E_OUTOFMEMORY);
    *ppStorage = pPrivate;
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CreatePrivateIStorage", hResult);
  return hResult;
}
