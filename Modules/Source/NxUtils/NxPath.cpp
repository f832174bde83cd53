#include "NxPath.h"

#include <direct.h>

namespace {

bool IsSeparator(char c) { return c == '\\' || c == '/'; }

// Length of the part of the path that must not be created: "C:", "\\server\share" or nothing.
size_t RootLength(const std::string& strPath) {
  if (strPath.size() >= 2 && strPath[1] == ':') return 2;
  if (strPath.size() >= 2 && IsSeparator(strPath[0]) && IsSeparator(strPath[1])) {
    size_t server = strPath.find_first_of("\\/", 2);
    if (server == std::string::npos) return strPath.size();
    size_t share = strPath.find_first_of("\\/", server + 1);
    return share == std::string::npos ? strPath.size() : share;
  }
  return 0;
}

BOOL IsFolder(const std::string& strPath) {
  DWORD dwAttributes = GetFileAttributesA(strPath.c_str());
  return dwAttributes != INVALID_FILE_ATTRIBUTES && (dwAttributes & FILE_ATTRIBUTE_DIRECTORY);
}

}  // namespace

std::string NxFileNameOf(LPCSTR pszPath) {
  if (!pszPath) return std::string();
  std::string strPath(pszPath);
  size_t pos = strPath.find_last_of("\\/");
  return pos == std::string::npos ? strPath : strPath.substr(pos + 1);
}

std::string NxWithTrailingBackslash(const std::string& strFolder) {
  if (strFolder.empty()) return strFolder;
  size_t end = strFolder.size();
  while (end > 1 && IsSeparator(strFolder[end - 1])) --end;
  if (end == 1 && IsSeparator(strFolder[0])) return strFolder.substr(0, 1);
  return strFolder.substr(0, end) + "\\";
}

BOOL NxCreateFolders(LPCSTR pszFolder) {
  if (!pszFolder || !*pszFolder) return FALSE;
  std::string strPath(pszFolder);
  size_t root = RootLength(strPath);
  // Each prefix that ends before a separator, then the whole path; existing folders just fail.
  for (size_t i = root + 1; i <= strPath.size(); ++i) {
    if (i < strPath.size() && !IsSeparator(strPath[i])) continue;
    if (IsSeparator(strPath[i - 1])) continue;
    _mkdir(strPath.substr(0, i).c_str());
  }
  return IsFolder(strPath);
}

std::string NxGetCurrentFolder() {
  char szFolder[MAX_PATH + 1] = {0};
  DWORD cch = GetCurrentDirectoryA(sizeof(szFolder), szFolder);
  if (cch == 0 || cch >= sizeof(szFolder)) return std::string(".\\");
  return NxWithTrailingBackslash(szFolder);
}

std::string NxGetProcessFilePath() {
  char szPath[MAX_PATH + 1] = {0};
  DWORD cch = GetModuleFileNameA(NULL, szPath, MAX_PATH);
  if (cch == 0 || cch >= MAX_PATH) return std::string();
  return std::string(szPath, cch);
}

std::string NxGetProcessName() { return NxFileNameOf(NxGetProcessFilePath().c_str()); }
