// Process-wide objects of the provider: the data provider, and the way from an entry ID to the
// server's folder and record.
#pragma once
#include <windows.h>

#include "archive/ZT4DataProvider.h"

// The one data provider object of the process, created on first use; NULL while it can't be
// created (the next call tries again). No reference is added: a caller that keeps the pointer
// across a call takes its own.
IZT4DataProvider* GetDataProvider();
// Gives the process's data provider object back, so the next GetDataProvider makes a new one.
// For tests.
void ResetDataProvider();

struct PRIVATE_EID;
class CBackEnd;

// The server folder of a folder entry ID, or NULL (root, folders above the IPM subtree, or a
// folder the server lacks). With no data provider: "spProvider is NULL" and E_INVALIDARG, thrown.
// The result carries a reference for the caller.
IZT4ArchiveFolder* GetFolderObject(CBackEnd* pBEobj, const PRIVATE_EID& FolderEID);
// The server record of a message entry ID in its folder, or NULL; a counted reference.
IZT4ArchiveMessage* GetMessageObject(CBackEnd* pBEobj, const PRIVATE_EID& MessageEID, const PRIVATE_EID& FolderEID);
// The HRESULT of the data provider's GetLastProviderError kinds.
HRESULT MapProviderError(LONG lProviderError);
