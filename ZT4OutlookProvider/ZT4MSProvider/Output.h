// The debug output channel (OutputDebugStringA) and the failure check that writes to it.
#pragma once
#include <windows.h>

void DebugOutput(LPCSTR pszText);

// TRUE for 0. Any other code writes "Error: <text>", the code, the function (pszExtra), the file
// and the line to the debug output and gives FALSE.
bool CheckHResult(HRESULT hResult, LPCSTR pszText, LPCSTR pszExtra, LPCSTR pszFile, int nLine);
#define CHECK_HRESULT(hr, text) CheckHResult((hr), (text), __FUNCTION__, __FILE__, __LINE__)
