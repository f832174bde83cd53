// COM runtime: initialisation, activation of in-process servers, GUID text and memory streams.
#pragma once
#include "objidl.h"
#include "unknwn.h"
#include "winbase_global.h"
#include "wtypes.h"

typedef enum tagCOINIT {
  COINIT_MULTITHREADED = 0x0,
  COINIT_APARTMENTTHREADED = 0x2,
  COINIT_DISABLE_OLE1DDE = 0x4,
  COINIT_SPEED_OVER_MEMORY = 0x8
} COINIT;

typedef struct _COSERVERINFO {
  DWORD dwReserved1;
  LPWSTR pwszName;
  void* pAuthInfo;
  DWORD dwReserved2;
} COSERVERINFO;

// The export every in-process server provides.
typedef HRESULT(STDAPICALLTYPE* LPFNGETCLASSOBJECT)(REFCLSID, REFIID, LPVOID*);
typedef HRESULT(STDAPICALLTYPE* LPFNCANUNLOADNOW)();

// A thread that never called CoInitialize(Ex) may still use COM while another thread of the
// process holds the multithreaded apartment open, as in the published model.
extern "C" HRESULT CoInitializeEx(LPVOID pvReserved, DWORD dwCoInit);
extern "C" void CoUninitialize();

// In-process servers are found under HKEY_CLASSES_ROOT\CLSID\{...}\InprocServer32. A library
// is loaded once and stays loaded for the life of the process.
extern "C" HRESULT CoCreateInstance(REFCLSID rclsid, LPUNKNOWN pUnkOuter, DWORD dwClsContext, REFIID riid,
                                    LPVOID* ppv);
extern "C" HRESULT CoGetClassObject(REFCLSID rclsid, DWORD dwClsContext, LPVOID pvReserved, REFIID riid,
                                    LPVOID* ppv);

extern "C" HRESULT CoCreateGuid(GUID* pguid);
// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}": 39 characters with the NUL; 0 when cchMax is short.
extern "C" int StringFromGUID2(REFGUID rguid, LPOLESTR lpsz, int cchMax);
extern "C" HRESULT StringFromCLSID(REFCLSID rclsid, LPOLESTR* lplpsz);
extern "C" HRESULT StringFromIID(REFIID rclsid, LPOLESTR* lplpsz);
extern "C" HRESULT CLSIDFromString(LPCOLESTR lpsz, LPCLSID pclsid);
extern "C" HRESULT IIDFromString(LPCOLESTR lpsz, LPIID lpiid);
// HKEY_CLASSES_ROOT\<ProgID>\CLSID and HKEY_CLASSES_ROOT\CLSID\{...}\ProgID.
extern "C" HRESULT CLSIDFromProgID(LPCOLESTR lpszProgID, LPCLSID lpclsid);
extern "C" HRESULT ProgIDFromCLSID(REFCLSID clsid, LPOLESTR* lplpszProgID);

extern "C" HRESULT CreateStreamOnHGlobal(HGLOBAL hGlobal, BOOL fDeleteOnRelease, LPSTREAM* ppstm);
extern "C" HRESULT GetHGlobalFromStream(LPSTREAM pstm, HGLOBAL* phglobal);
