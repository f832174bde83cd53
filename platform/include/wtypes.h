// Automation base types shared by COM, OLE automation and MAPI.
#pragma once
#include "winnt.h"
#include "guiddef.h"

typedef OLECHAR* BSTR;
typedef BSTR* LPBSTR;
typedef short VARIANT_BOOL;
#define VARIANT_TRUE ((VARIANT_BOOL)-1)
#define VARIANT_FALSE ((VARIANT_BOOL)0)
typedef VARIANT_BOOL _VARIANT_BOOL;
typedef LONG DISPID;
typedef DISPID MEMBERID;
typedef double DATE;
typedef WORD CLIPFORMAT;
typedef OLECHAR** SNB;
typedef union tagCY {
  struct {
    ULONG Lo;
    LONG Hi;
  };
  LONGLONG int64;
} CY, CURRENCY;
typedef unsigned short VARTYPE;

enum VARENUM {
  VT_EMPTY = 0, VT_NULL = 1, VT_I2 = 2, VT_I4 = 3, VT_R4 = 4, VT_R8 = 5, VT_CY = 6, VT_DATE = 7,
  VT_BSTR = 8, VT_DISPATCH = 9, VT_ERROR = 10, VT_BOOL = 11, VT_VARIANT = 12, VT_UNKNOWN = 13,
  VT_DECIMAL = 14, VT_I1 = 16, VT_UI1 = 17, VT_UI2 = 18, VT_UI4 = 19, VT_I8 = 20, VT_UI8 = 21,
  VT_INT = 22, VT_UINT = 23, VT_VOID = 24, VT_HRESULT = 25, VT_PTR = 26, VT_SAFEARRAY = 27,
  VT_CARRAY = 28, VT_USERDEFINED = 29, VT_LPSTR = 30, VT_LPWSTR = 31, VT_RECORD = 36,
  VT_FILETIME = 64, VT_BLOB = 65, VT_STREAM = 66, VT_STORAGE = 67, VT_CLSID = 72,
  VT_VECTOR = 0x1000, VT_ARRAY = 0x2000, VT_BYREF = 0x4000
};
