// The store's named property map: (property set, name or numeric ID) to a property ID from
// 0x8000 upward. Held in an in-memory table, saved to one stream of the store file.
#pragma once
#include <windows.h>
#include <mapidefs.h>
#include <mapiutil.h>

#include <bit>
#include <cstddef>

// Private columns of the map's table.
#define PR_NAMED_PROP_GUID PROP_TAG(PT_CLSID, 0x1A2C)
#define PR_NAMED_PROP_ID PROP_TAG(PT_LONG, 0x1A2D)
#define PR_NAMED_PROP_KIND PROP_TAG(PT_LONG, 0x1A2E)
#define PR_NAMED_PROP_NAME PROP_TAG(PT_UNICODE, 0x1A2F)
#define PR_NAMED_PROP_LID PROP_TAG(PT_LONG, 0x1A30)

// Column positions of a row as the map's view returns it.
enum { NP_GUID = 0, NP_ID, NP_KIND, NP_NAME, NP_LID, NP_COLUMNS };

// The first ID of the named range, and the value of the next-ID counter once the range is used.
#define NAMED_PROP_FIRST_ID ((ULONG)0x8000)
#define NAMED_PROP_ID_LIMIT ((ULONG)65535)

// One entry of the named-property stream; an MNID_STRING entry is followed by its name,
// lIDNameOrSize bytes of UTF-16LE with the terminator.
struct STORED_NAMED_PROP {
  GUID guidSet;
  ULONG ulPropID;
  ULONG ulKind;
  LONG lIDNameOrSize;
};
static_assert(sizeof(GUID) == 16);
static_assert(sizeof(STORED_NAMED_PROP) == 28);
static_assert(offsetof(STORED_NAMED_PROP, guidSet) == 0);
static_assert(offsetof(STORED_NAMED_PROP, ulPropID) == 16);
static_assert(offsetof(STORED_NAMED_PROP, ulKind) == 20);
static_assert(offsetof(STORED_NAMED_PROP, lIDNameOrSize) == 24);
// The stream is written from these structures as they lie in memory.
static_assert(std::endian::native == std::endian::little, "stored formats are little-endian");

// The stream's header: next free ID, then the entry count (absent when the map is empty).
#define NAMED_PROP_STREAM_HEADER_SIZE (2 * sizeof(ULONG))

class CNamePropMgr {
 public:
  CNamePropMgr(LPALLOCATEBUFFER pfnAllocateBuffer, LPALLOCATEMORE pfnAllocateMore, LPFREEBUFFER pfnFreeBuffer);
  ~CNamePropMgr();
  CNamePropMgr(const CNamePropMgr&) = delete;
  CNamePropMgr& operator=(const CNamePropMgr&) = delete;

  // Builds the table from the stream (read from its start). A stream shorter than one ULONG is
  // a new map. On failure no map is left loaded.
  HRESULT LoadMappingFromStream(LPSTREAM pStream);
  // Writes the whole map over the stream from its start and commits it.
  HRESULT SaveMappingToStream(LPSTREAM pStream);

  // The ID of a name: pszName for MNID_STRING, lID for MNID_ID. Unknown names get the next free
  // ID when fCreate is set, MAPI_E_NOT_FOUND (unlogged) otherwise.
  HRESULT GetIDForName(LPGUID pGuid, LPWSTR pszName, LONG lID, ULONG ulKind, ULONG* pulID, BOOL fCreate);
  // The name of one tag's ID: a mapped name for 0x8000 and above, the PS_MAPI name below.
  // The name is allocated more on pMemBlock (a new MAPI block when NULL).
  HRESULT GetNameFromID(ULONG ulPropTag, LPVOID pMemBlock, LPMAPINAMEID* ppName);
  // PS_MAPI names of the tags below 0x8000 in pTags, with those tags.
  HRESULT GetMAPINamedPropsAndTags(LPSPropTagArray pTags, LPSPropTagArray* ppPropTags,
                                   LPMAPINAMEID** pppPropNames, ULONG* pcPropNames);
  // Every mapped name with its tag (type PT_UNSPECIFIED); MAPI_NO_IDS and MAPI_NO_STRINGS leave
  // out numeric or string names.
  HRESULT GetAllNamesAndTags(LPSPropTagArray* ppPropTags, LPMAPINAMEID** pppPropNames, ULONG ulFlags,
                             ULONG* pcPropNames);

  // Whether the map has changed since it was loaded or last saved.
  BOOL IsDirty();
  ULONG GetNextID();

 private:
  HRESULT GetTableView();
  HRESULT MakeTable();
  void ReleaseTable();
  HRESULT LoadEntries(LPSTREAM pStream, ULONG cbStream);
  HRESULT AddRow(const GUID* pGuid, ULONG ulPropID, ULONG ulKind, LPWSTR pszName, LONG lID);
  HRESULT FindID(LPGUID pGuid, LPWSTR pszName, LONG lID, ULONG ulKind, ULONG* pulID);
  HRESULT WriteEntries(LPSTREAM pStream);
  HRESULT AllocName(const GUID* pGuid, ULONG ulKind, LPCWSTR pszName, LONG lID, LPVOID pMemBlock,
                    LPMAPINAMEID* ppName);

  LPALLOCATEBUFFER m_pfnAllocateBuffer;
  LPALLOCATEMORE m_pfnAllocateMore;
  LPFREEBUFFER m_pfnFreeBuffer;
  CRITICAL_SECTION m_csLock;
  BOOL m_fDirty;
  ULONG m_ulNextID;
  LPMAPITABLE m_pNameTable;
  LPTABLEDATA m_pMapData;
};
