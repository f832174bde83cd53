// tree: log on, open the profile's store and print its folders below the IPM subtree, depth
// first, each with the counts its hierarchy row gives.
#include <ostream>
#include <set>

#include "args.h"
#include "commands.h"
#include "folders.h"
#include "mapiclient.h"
#include "mapicode.h"
#include "output.h"

namespace adcli {
namespace {

// Deeper than any real mailbox; stops a hierarchy that loops back on itself.
constexpr size_t kMaxDepth = 64;

struct TreeNode {
  FolderRow row;
  std::vector<TreeNode> children;
};

class TreeWalker {
 public:
  explicit TreeWalker(IMsgStore* store) : m_store(store) {}

  std::vector<TreeNode> Children(IMAPIFolder* folder, size_t depth) {
    std::vector<TreeNode> nodes;
    for (FolderRow& row : ChildFolders(folder)) {
      TreeNode node;
      node.row = std::move(row);
      // A folder met twice (a cycle, or one entry ID in two places) is listed but not entered again.
      if (depth + 1 < kMaxDepth && m_seen.insert(node.row.entryId).second) {
        Ref<IMAPIFolder> child = OpenFolder(m_store, node.row.entryId);
        node.children = Children(child.Get(), depth + 1);
      }
      nodes.push_back(std::move(node));
    }
    return nodes;
  }

 private:
  IMsgStore* m_store;
  std::set<std::string> m_seen;
};

std::string CountsText(const FolderRow& row) {
  std::string count = row.contentCount < 0 ? "?" : std::to_string(row.contentCount);
  std::string unread = row.unreadCount < 0 ? "?" : std::to_string(row.unreadCount);
  return "(" + count + " messages, " + unread + " unread)";
}

void PrintTree(std::ostream& out, const std::vector<TreeNode>& nodes, size_t depth) {
  for (const auto& n : nodes) {
    out << std::string(depth * 2, ' ') << n.row.name << "  " << CountsText(n.row) << "\n";
    PrintTree(out, n.children, depth + 1);
  }
}

Json CountJson(LONG value) { return value < 0 ? Json() : Json::Int(value); }

Json TreeJson(const std::vector<TreeNode>& nodes) {
  Json list = Json::Array();
  for (const auto& n : nodes) {
    Json folder = Json::Object();
    folder.Set("name", Json::Str(n.row.name));
    folder.Set("content_count", CountJson(n.row.contentCount));
    folder.Set("content_unread", CountJson(n.row.unreadCount));
    folder.Set("folders", TreeJson(n.children));
    list.Push(std::move(folder));
  }
  return list;
}

int Tree(Context& ctx, const std::vector<std::string>& argv) {
  Args args("tree", argv, {{"profile", true}}, 0);
  if (args.Has("profile") && args.Value("profile").empty()) throw UsageError("--profile needs a profile name");
  MapiInit mapi;
  Session session(args.Value("profile"));
  std::string profile = session.ProfileName(), storeName;
  Ref<IMsgStore> store = OpenDefaultStore(session.Get(), &storeName);
  Ref<IMAPIFolder> subtree = OpenIpmSubtree(store.Get());
  std::vector<TreeNode> tree = TreeWalker(store.Get()).Children(subtree.Get(), 0);

  if (ctx.json) {
    Json doc = Json::Object();
    doc.Set("profile", Json::Str(profile));
    doc.Set("store", Json::Str(storeName));
    doc.Set("folders", TreeJson(tree));
    *ctx.out << doc.Dump();
    return kExitOk;
  }
  *ctx.out << "Store '" << storeName << "' of profile '" << profile << "'\n";
  if (tree.empty()) *ctx.out << "  (no folders)\n";
  PrintTree(*ctx.out, tree, 1);
  return kExitOk;
}

const CommandRegistration kTree({"tree", "[--profile NAME]",
                                 "print the store's folder tree with message and unread counts",
                                 "Logs on, opens the profile's default store and walks the hierarchy tables\n"
                                 "below the IPM subtree depth first. Folders of one parent are ordered by name\n"
                                 "(ASCII letters without regard to case, then by bytes); the counts are\n"
                                 "PR_CONTENT_COUNT and PR_CONTENT_UNREAD of each folder's hierarchy row.\n"
                                 "  --profile NAME    the profile to log on to (default: the default profile)\n",
                                 Tree});

}  // namespace
}  // namespace adcli
