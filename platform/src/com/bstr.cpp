// BSTR: [DWORD byte count][characters][NUL WCHAR]. The count excludes the terminator, so a BSTR
// may hold embedded NULs and an odd number of bytes (SysAllocStringByteLen).
#include <climits>
#include <cstring>

#include "oleauto.h"

namespace {

constexpr size_t kPrefix = sizeof(DWORD);
// Largest byte count whose block (prefix + data + terminator) still fits a DWORD.
constexpr size_t kMaxBytes = 0xFFFFFFFFu - kPrefix - sizeof(OLECHAR) - 1;

DWORD* PrefixOf(BSTR bstr) { return reinterpret_cast<DWORD*>(reinterpret_cast<BYTE*>(bstr) - kPrefix); }

// A block for cb bytes of data; the data and two terminating zero bytes are zeroed, so an odd
// count still ends in a NUL WCHAR.
BSTR AllocateBytes(size_t cb) {
  if (cb > kMaxBytes) return nullptr;
  size_t total = kPrefix + cb + sizeof(OLECHAR) + 1;  // +1: odd counts keep a whole NUL WCHAR
  auto* block = static_cast<BYTE*>(CoTaskMemAlloc(total));
  if (!block) return nullptr;
  std::memset(block, 0, total);
  *reinterpret_cast<DWORD*>(block) = static_cast<DWORD>(cb);
  return reinterpret_cast<BSTR>(block + kPrefix);
}

size_t WideLength(const OLECHAR* psz) {
  size_t n = 0;
  while (psz[n]) ++n;
  return n;
}

BSTR CopyChars(const OLECHAR* src, size_t cch) {
  if (cch > kMaxBytes / sizeof(OLECHAR)) return nullptr;
  BSTR b = AllocateBytes(cch * sizeof(OLECHAR));
  if (b && src && cch) std::memcpy(b, src, cch * sizeof(OLECHAR));
  return b;
}

}  // namespace

extern "C" BSTR SysAllocString(const OLECHAR* psz) {
  if (!psz) return nullptr;
  return CopyChars(psz, WideLength(psz));
}

extern "C" BSTR SysAllocStringLen(const OLECHAR* strIn, UINT ui) { return CopyChars(strIn, ui); }

extern "C" BSTR SysAllocStringByteLen(LPCSTR psz, UINT len) {
  BSTR b = AllocateBytes(len);
  if (b && psz && len) std::memcpy(b, psz, len);
  return b;
}

extern "C" INT SysReAllocStringLen(BSTR* pbstr, const OLECHAR* psz, UINT len) {
  if (!pbstr) return FALSE;
  // psz may point into *pbstr, so copy before freeing.
  BSTR fresh = CopyChars(psz, len);
  if (!fresh) return FALSE;
  SysFreeString(*pbstr);
  *pbstr = fresh;
  return TRUE;
}

extern "C" INT SysReAllocString(BSTR* pbstr, const OLECHAR* psz) {
  if (!pbstr) return FALSE;
  if (!psz) {
    SysFreeString(*pbstr);
    *pbstr = nullptr;
    return TRUE;
  }
  return SysReAllocStringLen(pbstr, psz, static_cast<UINT>(WideLength(psz)));
}

extern "C" UINT SysStringByteLen(BSTR bstr) { return bstr ? *PrefixOf(bstr) : 0; }

extern "C" UINT SysStringLen(BSTR pbstr) { return SysStringByteLen(pbstr) / sizeof(OLECHAR); }

extern "C" void SysFreeString(BSTR bstrString) {
  if (bstrString) CoTaskMemFree(PrefixOf(bstrString));
}
