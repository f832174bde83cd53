#include "Output.h"

#include "NxText.h"

void DebugOutput(LPCSTR pszText) {
  if (pszText) OutputDebugStringA(pszText);
}

bool CheckHResult(HRESULT hResult, LPCSTR pszText, LPCSTR pszExtra, LPCSTR pszFile, int nLine) {
  if (hResult == 0) return true;
  DebugOutput(NxFormat("Error: %s\r\nCode: 0x%08X\r\nFunction %s\r\nFile %s\r\nLine %d\n", pszText ? pszText : "",
                       static_cast<DWORD>(hResult), pszExtra ? pszExtra : "", pszFile ? pszFile : "", nLine)
                  .c_str());
  return false;
}
