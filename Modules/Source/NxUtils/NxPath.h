// Paths as the logger and the provider build them: Windows style, backslash separated. The file
// layer accepts '/' as well, so every helper here treats both as separators.
#pragma once
#include <windows.h>
#include <string>

// The last component of a path ("C:\a\b.cpp" and "/a/b.cpp" give "b.cpp").
std::string NxFileNameOf(LPCSTR pszPath);
// The folder with exactly one trailing backslash ("" stays "").
std::string NxWithTrailingBackslash(const std::string& strFolder);
// Creates each folder of the path in turn, skipping a drive or UNC root. TRUE when the folder
// exists at the end.
BOOL NxCreateFolders(LPCSTR pszFolder);
// The current folder, with a trailing backslash.
std::string NxGetCurrentFolder();
// Full path of the running program, and its file name alone.
std::string NxGetProcessFilePath();
std::string NxGetProcessName();
