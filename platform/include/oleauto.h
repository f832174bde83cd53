// OLE automation functions: BSTR, SAFEARRAY, VARIANT, the active-object table and per-thread
// error information.
#pragma once
#include "oaidl.h"

// BSTR: a 4-byte byte count sits before the characters, and a NUL follows them.
extern "C" BSTR SysAllocString(const OLECHAR* psz);
extern "C" BSTR SysAllocStringLen(const OLECHAR* strIn, UINT ui);
extern "C" BSTR SysAllocStringByteLen(LPCSTR psz, UINT len);
extern "C" INT SysReAllocString(BSTR* pbstr, const OLECHAR* psz);
extern "C" INT SysReAllocStringLen(BSTR* pbstr, const OLECHAR* psz, UINT len);
extern "C" UINT SysStringLen(BSTR pbstr);
extern "C" UINT SysStringByteLen(BSTR bstr);
extern "C" void SysFreeString(BSTR bstrString);

// SAFEARRAY of one dimension; element types VT_UI1, VT_I1, VT_I2, VT_UI2, VT_I4, VT_UI4, VT_INT,
// VT_UINT, VT_I8, VT_UI8, VT_R4, VT_R8, VT_CY, VT_DATE, VT_BOOL, VT_ERROR, VT_BSTR, VT_UNKNOWN,
// VT_DISPATCH, VT_VARIANT.
extern "C" SAFEARRAY* SafeArrayCreate(VARTYPE vt, UINT cDims, SAFEARRAYBOUND* rgsabound);
extern "C" SAFEARRAY* SafeArrayCreateVector(VARTYPE vt, LONG lLbound, ULONG cElements);
extern "C" HRESULT SafeArrayDestroy(SAFEARRAY* psa);
extern "C" UINT SafeArrayGetDim(SAFEARRAY* psa);
extern "C" UINT SafeArrayGetElemsize(SAFEARRAY* psa);
extern "C" HRESULT SafeArrayGetLBound(SAFEARRAY* psa, UINT nDim, LONG* plLbound);
extern "C" HRESULT SafeArrayGetUBound(SAFEARRAY* psa, UINT nDim, LONG* plUbound);
extern "C" HRESULT SafeArrayGetVartype(SAFEARRAY* psa, VARTYPE* pvt);
extern "C" HRESULT SafeArrayLock(SAFEARRAY* psa);
extern "C" HRESULT SafeArrayUnlock(SAFEARRAY* psa);
extern "C" HRESULT SafeArrayAccessData(SAFEARRAY* psa, void** ppvData);
extern "C" HRESULT SafeArrayUnaccessData(SAFEARRAY* psa);
extern "C" HRESULT SafeArrayPtrOfIndex(SAFEARRAY* psa, LONG* rgIndices, void** ppvData);
extern "C" HRESULT SafeArrayGetElement(SAFEARRAY* psa, LONG* rgIndices, void* pv);
extern "C" HRESULT SafeArrayPutElement(SAFEARRAY* psa, LONG* rgIndices, void* pv);
extern "C" HRESULT SafeArrayRedim(SAFEARRAY* psa, SAFEARRAYBOUND* psaboundNew);
extern "C" HRESULT SafeArrayCopy(SAFEARRAY* psa, SAFEARRAY** ppsaOut);

// VARIANT.
extern "C" void VariantInit(VARIANTARG* pvarg);
extern "C" HRESULT VariantClear(VARIANTARG* pvarg);
extern "C" HRESULT VariantCopy(VARIANTARG* pvargDest, const VARIANTARG* pvargSrc);

// Active objects of this process (the running object table is per process here).
#define ACTIVEOBJECT_STRONG 0x0
#define ACTIVEOBJECT_WEAK 0x1
extern "C" HRESULT GetActiveObject(REFCLSID rclsid, void* pvReserved, IUnknown** ppunk);
extern "C" HRESULT RegisterActiveObject(IUnknown* punk, REFCLSID rclsid, DWORD dwFlags, DWORD* pdwRegister);
extern "C" HRESULT RevokeActiveObject(DWORD dwRegister, void* pvReserved);

// The calling thread's error object.
extern "C" HRESULT SetErrorInfo(ULONG dwReserved, IErrorInfo* perrinfo);
extern "C" HRESULT GetErrorInfo(ULONG dwReserved, IErrorInfo** pperrinfo);
