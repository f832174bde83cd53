// Walking a store's folders as a mail client does: from PR_IPM_SUBTREE_ENTRYID down through each
// folder's hierarchy table, and folder paths given as names separated by '/'.
#pragma once
#include <string>
#include <vector>

#include "mapiclient.h"
#include "mapidefs.h"

namespace adcli {

// One row of a hierarchy table. Counts are -1 when the row has none.
struct FolderRow {
  std::string name;
  std::string entryId;  // the bytes of PR_ENTRYID
  LONG contentCount = -1;
  LONG unreadCount = -1;
};

// "Inbox/Projects" -> {"Inbox", "Projects"}; one leading and one trailing '/' are dropped, so
// "/" is the IPM subtree itself. UsageError for an empty name inside ("a//b").
std::vector<std::string> SplitFolderPath(const std::string& path);

// Orders names for people: case-insensitively for ASCII letters, then by bytes.
bool FolderNameLess(const std::string& a, const std::string& b);

// The subtree's folder, opened through the store.
Ref<IMAPIFolder> OpenIpmSubtree(IMsgStore* store);
Ref<IMAPIFolder> OpenFolder(IMsgStore* store, const std::string& entryId);

// A folder's child folders from its hierarchy table, ordered by FolderNameLess.
std::vector<FolderRow> ChildFolders(IMAPIFolder* folder);

// The folder at `names` below the IPM subtree: an exact name first, else one that differs only in
// the case of ASCII letters. MapiFailure MAPI_E_NOT_FOUND naming the missing part.
Ref<IMAPIFolder> OpenFolderByPath(IMsgStore* store, const std::vector<std::string>& names);

}  // namespace adcli
