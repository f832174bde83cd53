// logon: MAPILogonEx on a profile, open its default store, and show the store's properties, its
// row of the session's status table and the session's identity.
#include <ostream>

#include "args.h"
#include "commands.h"
#include "mapiclient.h"
#include "mapicode.h"
#include "mapitags.h"
#include "mapiutil.h"
#include "mapix.h"
#include "output.h"

namespace adcli {
namespace {

struct PropList {
  ULONG count = 0;
  MapiBuffer<SPropValue> values;
};

// Every property of an object, by GetPropList then GetProps.
void ReadAllProps(IMAPIProp* object, PropList* out) {
  MapiBuffer<SPropTagArray> tags;
  Check(object->GetPropList(0, tags.Out()), object, "GetPropList failed");
  if (!tags->cValues) return;
  HRESULT hr = object->GetProps(tags.Get(), 0, &out->count, out->values.Out());
  Check(hr, object, "GetProps failed");
}

// The status table's rows of store providers.
Rows StoreStatusRows(IMAPISession* session) {
  Ref<IMAPITable> table;
  Check(session->GetStatusTable(0, table.Out()), session, "GetStatusTable failed");
  SRestriction isStore{};
  SPropValue type{};
  type.ulPropTag = PR_RESOURCE_TYPE;
  type.Value.l = MAPI_STORE_PROVIDER;
  isStore.rt = RES_PROPERTY;
  isStore.res.resProperty.relop = RELOP_EQ;
  isStore.res.resProperty.ulPropTag = PR_RESOURCE_TYPE;
  isStore.res.resProperty.lpProp = &type;
  Rows rows;
  Check(HrQueryAllRows(table.Get(), nullptr, &isStore, nullptr, 0, rows.Out()), table.Get(),
        "reading the status table failed");
  return rows;
}

// The session's identity; nothing when the profile configures none.
bool ReadIdentity(IMAPISession* session, PropList* out) {
  ULONG cb = 0;
  MapiBuffer<ENTRYID> eid;
  if (FAILED(session->QueryIdentity(&cb, eid.Out())) || !eid.Get()) return false;
  ULONG type = 0;
  Ref<IMAPIProp> user;
  if (FAILED(session->OpenEntry(cb, eid.Get(), nullptr, 0, &type, reinterpret_cast<LPUNKNOWN*>(user.Out())))) {
    return false;
  }
  SizedSPropTagArray(3, tags) = {3, {PR_DISPLAY_NAME_W, PR_EMAIL_ADDRESS_A, PR_SMTP_ADDRESS_A}};
  HRESULT hr = user->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), 0, &out->count, out->values.Out());
  return SUCCEEDED(hr);
}

int Logon(Context& ctx, const std::vector<std::string>& argv) {
  Args args("logon", argv, {{"profile", true}}, 0);
  if (args.Has("profile") && args.Value("profile").empty()) throw UsageError("--profile needs a profile name");
  MapiInit mapi;
  Session session(args.Value("profile"));
  std::string profile = session.ProfileName(), storeName;
  Ref<IMsgStore> store = OpenDefaultStore(session.Get(), &storeName);
  PropList props;
  ReadAllProps(store.Get(), &props);
  Rows status = StoreStatusRows(session.Get());
  PropList identity;
  bool haveIdentity = ReadIdentity(session.Get(), &identity);

  if (ctx.json) {
    Json doc = Json::Object();
    doc.Set("profile", Json::Str(profile));
    Json st = Json::Object();
    st.Set("display_name", Json::Str(storeName));
    st.Set("properties", PropsJson(props.values.Get(), props.count));
    doc.Set("store", std::move(st));
    Json rows = Json::Array();
    for (ULONG i = 0; i < status.Count(); ++i) rows.Push(PropsJson(status[i].lpProps, status[i].cValues));
    doc.Set("status", std::move(rows));
    doc.Set("identity", haveIdentity ? PropsJson(identity.values.Get(), identity.count) : Json());
    *ctx.out << doc.Dump();
    return kExitOk;
  }
  *ctx.out << "Logged on to profile '" << profile << "'\n\nStore '" << storeName << "' properties:\n";
  PrintProps(*ctx.out, props.values.Get(), props.count);
  for (ULONG i = 0; i < status.Count(); ++i) {
    *ctx.out << "\nStatus row:\n";
    PrintProps(*ctx.out, status[i].lpProps, status[i].cValues);
  }
  if (!status.Count()) *ctx.out << "\nStatus row: none published by the store\n";
  if (haveIdentity) {
    *ctx.out << "\nIdentity:\n";
    PrintProps(*ctx.out, identity.values.Get(), identity.count);
  }
  return kExitOk;
}

const CommandRegistration kLogon({"logon", "[--profile NAME]",
                                  "log on, open the default store and show its properties and status row",
                                  "  --profile NAME    the profile to log on to (default: the default profile)\n",
                                  Logon});

}  // namespace
}  // namespace adcli
