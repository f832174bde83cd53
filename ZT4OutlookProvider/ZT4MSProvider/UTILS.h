// The installer's side of MAPISVC.INF: finding the files, registering the service in them,
// removing it, and reading the store's display name back.
#pragma once
#include <windows.h>
#include <mapidefs.h>

#include <string>
#include <vector>

// One row of MAPISVC.INF changes. A NULL value deletes the key; a NULL key with a NULL value
// deletes the section. The numeric key is kept for the row's shape and not written.
struct MAPISVCROW {
  LPCSTR pszSection;
  LPCSTR pszKey;
  ULONG ulKey;
  LPCSTR pszValue;
};
using MAPISVCROWS = std::vector<MAPISVCROW>;

// The MAPISVC.INF paths to work on: the system folder's, then the one beside the MAPI library that
// FGetComponentPath names; with ulAllFolders 1 also those of that library's sibling folders.
// Each path is logged. The list is empty only when the system folder can't be had.
void GetMAPISVCPath(std::vector<std::string>& paths, ULONG ulAllFolders);

// Writes the rows into every MAPISVC.INF path. E_INVALIDARG with no rows; E_FAIL with no paths.
// Single writes that fail are logged and skipped.
HRESULT HrSetProfileParameters(const MAPISVCROWS& rows, ULONG ulAllFolders);

// The installer's exports.
STDAPI MergeWithMAPISVC(LPCWSTR pwszDisplayName, LPBOOL pfChanged, ULONG ulAllFolders);
STDAPI RemoveFromMAPISVC();
STDAPI GetStoreDisplayName(LPSTR pszName, ULONG cbName, ULONG ulAllFolders);
