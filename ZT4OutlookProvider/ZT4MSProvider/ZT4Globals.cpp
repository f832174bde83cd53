#include "ZT4Globals.h"

#include <objbase.h>

#include <mapicode.h>

#include <atomic>
#include <cstring>

#include "ZT4AccountHelper.h"
#include "ZT4FileStg.h"
#include "ZT4_TRACES.h"

namespace {

// Written without a lock: two racing first callers each create an instance and the later one
// stays, which the data provider allows.
std::atomic<IZT4DataProvider*> g_pDataProvider{NULL};

}  // namespace

IZT4DataProvider* GetDataProvider() {
  IZT4DataProvider* pProvider = g_pDataProvider.load();
  if (pProvider) return pProvider;
  ZT4_LOG(ZT4_LEVEL_INFO, "Provider object is NULL, need to create it");
  HRESULT hResult = CoCreateInstance(CLSID_ZT4DataProvider, NULL, CLSCTX_INPROC_SERVER, IID_IZT4DataProvider,
                                     reinterpret_cast<LPVOID*>(&pProvider));
  if (FAILED(hResult) || !pProvider) {
    ZT4_LOG(ZT4_LEVEL_ERROR, "CoCreateInstance Failed:{0}");
    ZT4_LOG(ZT4_LEVEL_ERROR, "GetDataProvider:%x", hResult);
    return NULL;
  }
  g_pDataProvider.store(pProvider);
  return pProvider;
}

void ResetDataProvider() {
  IZT4DataProvider* pProvider = g_pDataProvider.exchange(NULL);
  if (pProvider) pProvider->Release();
}

IZT4ArchiveFolder* GetFolderObject(CBackEnd* pBEobj, const PRIVATE_EID& FolderEID) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  IZT4DataProvider* spProvider = GetDataProvider();
  ZT4_CHECK_NULL(spProvider, E_INVALIDARG);
  IZT4DataProviderPtr holder(spProvider);  // kept across the calls below
  BSTR bstrPath = NULL;
  ZT4_CHECK(GetCompleteFolderName(pBEobj, FolderEID, &bstrPath));
  _bstr_t bstrFolder(bstrPath, false);
  // The root and the folders above the IPM subtree have no server folder.
  if (bstrFolder.length() == 0) return NULL;
  LPCSTR pszSMTP = GetCurrentUserSMTPAddress();
  _bstr_t bstrSMTP(pszSMTP ? pszSMTP : "");
  IZT4ArchiveFolder* pFolder = NULL;
  ZT4_CHECK(spProvider->raw_GetServerFolder(bstrFolder, bstrSMTP, &pFolder));
  return pFolder;
}

IZT4ArchiveMessage* GetMessageObject(CBackEnd* pBEobj, const PRIVATE_EID& MessageEID, const PRIVATE_EID& FolderEID) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  IZT4ArchiveFolderPtr spFolder(GetFolderObject(pBEobj, FolderEID), false);
  if (!spFolder) return NULL;
  // A unique ID of the full 104 bytes has no terminator of its own.
  CHAR szUniqueId[CB_UNIQUE_ID + 1];
  memcpy(szUniqueId, MessageEID.szUniqueId, CB_UNIQUE_ID);
  szUniqueId[CB_UNIQUE_ID] = 0;
  _bstr_t bstrID(szUniqueId);
  IZT4ArchiveMessage* pMessage = NULL;
  ZT4_CHECK(spFolder->raw_OpenMessage(bstrID, &pMessage));
  return pMessage;
}

HRESULT MapProviderError(LONG lProviderError) {
  switch (lProviderError) {
    case 1:
      return MAPI_E_NETWORK_ERROR;
    case 2:
      return MAPI_E_LOGON_FAILED;
    case 3:
      return MAPI_E_NOT_ENOUGH_RESOURCES;
    default:
      return E_FAIL;
  }
}
