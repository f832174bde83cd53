#include "folders.h"

#include <algorithm>

#include "mapicode.h"
#include "mapitags.h"
#include "mapiutil.h"
#include "output.h"

namespace adcli {
namespace {

char Lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool SameIgnoringCase(const std::string& a, const std::string& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return Lower(x) == Lower(y);
         });
}

LONG RowLong(const SRow& row, ULONG ulPropTag) {
  const SPropValue* v = FindProp(row, ulPropTag);
  return v ? v->Value.l : -1;
}

std::string JoinPath(const std::vector<std::string>& names, size_t count) {
  std::string path;
  for (size_t i = 0; i < count; ++i) path += (i ? "/" : "") + names[i];
  return path;
}

}  // namespace

std::vector<std::string> SplitFolderPath(const std::string& path) {
  std::string p = path;
  if (!p.empty() && p.front() == '/') p.erase(0, 1);
  if (!p.empty() && p.back() == '/') p.pop_back();
  std::vector<std::string> names;
  if (p.empty() && path.size() > 1) throw UsageError("the folder path '" + path + "' has an empty folder name");
  if (p.empty()) return names;
  size_t start = 0;
  for (;;) {
    size_t slash = p.find('/', start);
    std::string name = p.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
    if (name.empty()) throw UsageError("the folder path '" + path + "' has an empty folder name");
    names.push_back(name);
    if (slash == std::string::npos) return names;
    start = slash + 1;
  }
}

bool FolderNameLess(const std::string& a, const std::string& b) {
  size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; ++i) {
    unsigned char x = static_cast<unsigned char>(Lower(a[i])), y = static_cast<unsigned char>(Lower(b[i]));
    if (x != y) return x < y;
  }
  if (a.size() != b.size()) return a.size() < b.size();
  return a < b;  // names that differ only in case keep one order
}

Ref<IMAPIFolder> OpenFolder(IMsgStore* store, const std::string& entryId) {
  ULONG type = 0;
  Ref<IMAPIFolder> folder;
  auto* eid = reinterpret_cast<LPENTRYID>(const_cast<char*>(entryId.data()));
  Check(store->OpenEntry(static_cast<ULONG>(entryId.size()), eid, nullptr, MAPI_BEST_ACCESS, &type,
                         reinterpret_cast<LPUNKNOWN*>(folder.Out())),
        store, "OpenEntry of a folder failed");
  if (type != MAPI_FOLDER) throw MapiFailure(MAPI_E_INVALID_OBJECT, "the entry ID does not name a folder");
  return folder;
}

// The root's child named as every store names its IPM subtree.
Ref<IMAPIFolder> FindIpmSubtreeBelowRoot(IMsgStore* store) {
  ULONG type = 0;
  Ref<IMAPIFolder> root;
  Check(store->OpenEntry(0, nullptr, nullptr, MAPI_BEST_ACCESS, &type, reinterpret_cast<LPUNKNOWN*>(root.Out())),
        store, "OpenEntry of the store's root failed");
  for (const FolderRow& row : ChildFolders(root.Get())) {
    if (row.name == "IPM Subtree") return OpenFolder(store, row.entryId);
  }
  throw MapiFailure(MAPI_E_NOT_FOUND, "the store has no IPM subtree");
}

Ref<IMAPIFolder> OpenIpmSubtree(IMsgStore* store) {
  MapiBuffer<SPropValue> eid;
  Check(HrGetOneProp(store, PR_IPM_SUBTREE_ENTRYID, eid.Out()), store, "the store has no PR_IPM_SUBTREE_ENTRYID");
  const SBinary& bin = eid->Value.bin;
  try {
    return OpenFolder(store, std::string(reinterpret_cast<const char*>(bin.lpb), bin.cb));
  } catch (const MapiFailure& e) {
    // Our store computes PR_IPM_SUBTREE_ENTRYID with a fixed object number that its record file
    // doesn't give the subtree; a client then finds the subtree below the root, by its name.
    if (e.Code() != MAPI_E_NOT_FOUND) throw;
  }
  return FindIpmSubtreeBelowRoot(store);
}

std::vector<FolderRow> ChildFolders(IMAPIFolder* folder) {
  Ref<IMAPITable> table;
  Check(folder->GetHierarchyTable(0, table.Out()), folder, "GetHierarchyTable failed");
  Rows rows = QueryAll(table.Get(), {PR_ENTRYID, PR_DISPLAY_NAME_W, PR_CONTENT_COUNT, PR_CONTENT_UNREAD});
  std::vector<FolderRow> children;
  for (ULONG i = 0; i < rows.Count(); ++i) {
    const SPropValue* eid = FindProp(rows[i], PR_ENTRYID);
    if (!eid) continue;  // a row no one could open
    FolderRow row;
    row.name = RowText(rows[i], PR_DISPLAY_NAME_W);
    row.entryId.assign(reinterpret_cast<const char*>(eid->Value.bin.lpb), eid->Value.bin.cb);
    row.contentCount = RowLong(rows[i], PR_CONTENT_COUNT);
    row.unreadCount = RowLong(rows[i], PR_CONTENT_UNREAD);
    children.push_back(std::move(row));
  }
  std::stable_sort(children.begin(), children.end(),
                   [](const FolderRow& a, const FolderRow& b) { return FolderNameLess(a.name, b.name); });
  return children;
}

Ref<IMAPIFolder> OpenFolderByPath(IMsgStore* store, const std::vector<std::string>& names) {
  Ref<IMAPIFolder> folder = OpenIpmSubtree(store);
  for (size_t depth = 0; depth < names.size(); ++depth) {
    std::vector<FolderRow> children = ChildFolders(folder.Get());
    const FolderRow* match = nullptr;
    for (const auto& c : children) {
      if (c.name == names[depth]) match = &c;
    }
    for (const auto& c : children) {
      if (!match && SameIgnoringCase(c.name, names[depth])) match = &c;
    }
    if (!match) {
      std::string where = depth ? "'" + JoinPath(names, depth) + "'" : "the top of the store";
      throw MapiFailure(MAPI_E_NOT_FOUND, "there is no folder '" + names[depth] + "' in " + where);
    }
    folder = OpenFolder(store, match->entryId);
  }
  return folder;
}

}  // namespace adcli
