// props: every property of the store, or of a folder named by its path below the IPM subtree, as
// GetProps with no tag list gives them.
#include <ostream>

#include "args.h"
#include "commands.h"
#include "folders.h"
#include "mapiclient.h"
#include "mapicode.h"
#include "output.h"

namespace adcli {
namespace {

struct AllProps {
  ULONG count = 0;
  MapiBuffer<SPropValue> values;
};

template <class T>
void ReadProps(T* object, AllProps* out) {
  HRESULT hr = object->GetProps(nullptr, 0, &out->count, out->values.Out());
  Check(hr, object, "GetProps failed");  // MAPI_W_ERRORS_RETURNED is a success: the errors are values
}

int Props(Context& ctx, const std::vector<std::string>& argv) {
  Args args("props", argv, {{"profile", true}}, 1);
  if (args.Has("profile") && args.Value("profile").empty()) throw UsageError("--profile needs a profile name");
  bool ofStore = args.Positionals().empty();
  if (!ofStore && args.Positional(0).empty()) {
    throw UsageError("a folder path cannot be empty (the IPM subtree is '/')");
  }
  std::string path = args.Positional(0);
  std::vector<std::string> names = SplitFolderPath(path);

  MapiInit mapi;
  Session session(args.Value("profile"));
  std::string profile = session.ProfileName(), storeName;
  Ref<IMsgStore> store = OpenDefaultStore(session.Get(), &storeName);
  AllProps props;
  if (ofStore) {
    ReadProps(store.Get(), &props);
  } else {
    Ref<IMAPIFolder> folder = OpenFolderByPath(store.Get(), names);
    ReadProps(folder.Get(), &props);
  }

  std::string shownPath;
  for (const auto& n : names) {
    shownPath.push_back('/');
    shownPath += n;
  }
  if (shownPath.empty()) shownPath.push_back('/');
  if (ctx.json) {
    Json doc = Json::Object();
    doc.Set("profile", Json::Str(profile));
    doc.Set("store", Json::Str(storeName));
    doc.Set("object", Json::Str(ofStore ? "store" : "folder"));
    doc.Set("path", ofStore ? Json() : Json::Str(shownPath));
    doc.Set("properties", PropsJson(props.values.Get(), props.count));
    *ctx.out << doc.Dump();
    return kExitOk;
  }
  if (ofStore) {
    *ctx.out << "Store '" << storeName << "' properties:\n";
  } else {
    *ctx.out << "Folder '" << shownPath << "' properties:\n";
  }
  PrintProps(*ctx.out, props.values.Get(), props.count);
  return kExitOk;
}

const CommandRegistration kProps({"props", "[PATH] [--profile NAME]",
                                  "show every property of the store, or of the folder at PATH",
                                  "PATH names a folder below the IPM subtree by its folder names separated by\n"
                                  "'/' (Inbox/Projects); '/' is the IPM subtree itself. A name matches exactly,\n"
                                  "else without regard to the case of ASCII letters. Binary values print as\n"
                                  "hex, times in ISO 8601 (UTC), errors with their MAPI_E_ name.\n"
                                  "  --profile NAME    the profile to log on to (default: the default profile)\n",
                                  Props});

}  // namespace
}  // namespace adcli
