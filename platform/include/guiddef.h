// GUID, IID, CLSID and the DEFINE_GUID scheme. A GUID defined with DEFINE_GUID is an inline
// constant here, so one header can both declare and define it without INITGUID games.
#pragma once
#include <cstring>
#include "winnt.h"

typedef struct _GUID {
  uint32_t Data1;
  uint16_t Data2;
  uint16_t Data3;
  uint8_t Data4[8];
} GUID;
typedef GUID IID;
typedef GUID CLSID;
typedef GUID FMTID;
typedef GUID* LPGUID;
typedef const GUID* LPCGUID;
typedef IID* LPIID;
typedef CLSID* LPCLSID;
typedef const GUID& REFGUID;
typedef const IID& REFIID;
typedef const CLSID& REFCLSID;
typedef const FMTID& REFFMTID;

#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) \
  inline constexpr GUID name = {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}}
#define DEFINE_OLEGUID(name, l, w1, w2) DEFINE_GUID(name, l, w1, w2, 0xC0, 0, 0, 0, 0, 0, 0, 0x46)

inline bool IsEqualGUID(REFGUID a, REFGUID b) { return std::memcmp(&a, &b, sizeof(GUID)) == 0; }
#define IsEqualIID(a, b) IsEqualGUID(a, b)
#define IsEqualCLSID(a, b) IsEqualGUID(a, b)
inline bool operator==(REFGUID a, REFGUID b) { return IsEqualGUID(a, b); }
inline bool operator!=(REFGUID a, REFGUID b) { return !IsEqualGUID(a, b); }

DEFINE_GUID(GUID_NULL, 0x00000000, 0x0000, 0x0000, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00);
#define IID_NULL GUID_NULL
#define CLSID_NULL GUID_NULL

// __uuidof stand-in for interface types: AD_DECLARE_UUID(I, ...) makes __uuidof(I) answer.
template <typename T> struct AdUuidOf;
#define AD_DECLARE_UUID(type, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8)               \
  struct type;                                                                        \
  template <> struct AdUuidOf<type> {                                                 \
    static constexpr GUID value = {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}};      \
  }
#define __uuidof(type) (AdUuidOf<type>::value)
