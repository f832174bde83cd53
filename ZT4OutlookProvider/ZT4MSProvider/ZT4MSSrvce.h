// Profile time: the message service entry, the making of a new store's identity, and finding the
// provider's profile section without a logon.
#pragma once
#include <windows.h>
#include <mapidefs.h>
#include <mapispi.h>

class CMAPISupport;

extern "C" {
HRESULT STDAPICALLTYPE ServiceEntry(HINSTANCE hInstance, LPMALLOC lpMalloc, LPMAPISUP lpMAPISup,
                                    ULONG_PTR ulUIParam, ULONG ulFlags, ULONG ulContext, ULONG cValues,
                                    LPSPropValue lpProps, LPPROVIDERADMIN lpProviderAdmin,
                                    LPMAPIERROR* lppMapiError);
}

// Makes the store's path and UID, writes the seven identity properties into pProfile and creates
// the store file. 1 when nothing was done (a running client would hold the store open).
// pszPath has room for MAX_PATH characters; pProps is the six-value array, changed in place.
HRESULT InitializeStoreFile(HINSTANCE hInstance, ULONG_PTR ulUIParam, LPSTR pszPath, LPMAPIUID pUID,
                            LPSPropValue pProps, LPMAPISUP pSupObj, LPPROFSECT pProfile, BOOL fFirstCall);
// The wrapped store entry ID of the store with this UID; pEID->lpb is MAPI's memory.
HRESULT CreateStoreEntryID(const MAPIUID* pUID, SBinary* pEID);
// "%s\\%d.CST" of the temporary folder and the tick count; the folder keeps its trailing
// backslash, so a second one follows it. MAPI_E_CALL_FAILED when the text doesn't fit.
HRESULT BuildTempStorePath(LPSTR pszPath, ULONG cchPath);
// The profile section of the service's one provider.
HRESULT OpenProviderProfileSection(LPPROVIDERADMIN lpProviderAdmin, LPPROFSECT* ppProfile);
