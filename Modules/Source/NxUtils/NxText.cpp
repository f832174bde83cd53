#include "NxText.h"

#include <cstdarg>
#include <vector>

std::string NxWideToNarrow(LPCWSTR pwsz, int cch) {
  if (!pwsz || cch == 0) return std::string();
  int cb = WideCharToMultiByte(CP_ACP, 0, pwsz, cch, NULL, 0, NULL, NULL);
  if (cb <= 0) return std::string();
  std::string strText(static_cast<size_t>(cb), '\0');
  cb = WideCharToMultiByte(CP_ACP, 0, pwsz, cch, &strText[0], cb, NULL, NULL);
  if (cb <= 0) return std::string();
  strText.resize(static_cast<size_t>(cb));
  if (cch < 0 && !strText.empty() && strText.back() == '\0') strText.pop_back();
  return strText;
}

NxWString NxNarrowToWide(LPCSTR psz, int cch) {
  if (!psz || cch == 0) return NxWString();
  int cw = MultiByteToWideChar(CP_ACP, 0, psz, cch, NULL, 0);
  if (cw <= 0) return NxWString();
  NxWString wstrText(static_cast<size_t>(cw), WCHAR(0));
  cw = MultiByteToWideChar(CP_ACP, 0, psz, cch, &wstrText[0], cw);
  if (cw <= 0) return NxWString();
  wstrText.resize(static_cast<size_t>(cw));
  if (cch < 0 && !wstrText.empty() && wstrText.back() == 0) wstrText.pop_back();
  return wstrText;
}

// Microsoft printf rules, as the callers' formats are written for them.
std::string NxFormatV(LPCSTR pszFormat, va_list args) {
  if (!pszFormat) return std::string();
  va_list copy;
  va_copy(copy, args);
  int cch = _vscprintf(pszFormat, copy);
  va_end(copy);
  if (cch <= 0) return std::string();
  std::vector<char> text(static_cast<size_t>(cch) + 1);
  _vsnprintf(text.data(), text.size(), pszFormat, args);
  return std::string(text.data(), static_cast<size_t>(cch));
}

std::string NxFormat(LPCSTR pszFormat, ...) {
  va_list args;
  va_start(args, pszFormat);
  std::string strText = NxFormatV(pszFormat, args);
  va_end(args);
  return strText;
}
