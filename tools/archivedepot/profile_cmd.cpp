// profile create | configure | delete | list: profiles and their message services through
// MAPIAdminProfiles, IProfAdmin and IMsgServiceAdmin. A profile on our own service is made as the
// product's installer makes it: the service set up first if needed, the mailbox owner as the
// profile's identity, and the service added while "TQUpdatingProfile" exists, so that its
// ServiceEntry silently gives the store its path and identity.
#include <cstring>
#include <ostream>
#include <set>

#include "args.h"
#include "commands.h"
#include "mapiclient.h"
#include "mapicode.h"
#include "mapisvc.h"
#include "mapitags.h"
#include "mapiutil.h"
#include "mapix.h"
#include "output.h"
#include "provider_setup.h"
#include "session.h"
#include "windows.h"

namespace adcli {
namespace {

LPTSTR T(const std::string& text) { return reinterpret_cast<LPTSTR>(const_cast<char*>(text.c_str())); }

void CheckProfileName(const std::string& name) {
  if (name.empty()) throw UsageError("a profile name cannot be empty");
  if (name.size() > cchProfileNameMax) {
    throw UsageError("a profile name has at most " + std::to_string(cchProfileNameMax) + " characters");
  }
}

std::string UidText(const SRow& row) {
  const SPropValue* v = FindProp(row, PR_SERVICE_UID);
  return v ? HexBytes(v->Value.bin.lpb, v->Value.bin.cb) : std::string();
}

MAPIUID RowUid(const SRow& row) {
  MAPIUID uid{};
  const SPropValue* v = FindProp(row, PR_SERVICE_UID);
  if (v && v->Value.bin.cb == sizeof uid) std::memcpy(&uid, v->Value.bin.lpb, sizeof uid);
  return uid;
}

Ref<IProfAdmin> OpenProfAdmin() {
  Ref<IProfAdmin> admin;
  Check(MAPIAdminProfiles(0, admin.Out()), "MAPIAdminProfiles failed");
  return admin;
}

Ref<IMsgServiceAdmin> OpenServices(IProfAdmin* admin, const std::string& profile) {
  Ref<IMsgServiceAdmin> services;
  HRESULT hr = admin->AdminServices(T(profile), nullptr, 0, 0, services.Out());
  if (hr == MAPI_E_NOT_FOUND) throw MapiFailure(hr, "there is no profile named '" + profile + "'");
  Check(hr, admin, "cannot open the services of profile '" + profile + "'");
  return services;
}

// The identity options given, merged over what the profile holds.
struct IdentityArgs {
  bool given = false;
  std::string user, display, smtp;
};

IdentityArgs ReadIdentity(const Args& args) {
  IdentityArgs id;
  id.given = args.Has("user") || args.Has("display") || args.Has("smtp");
  id.user = args.Value("user");
  id.display = args.Value("display");
  id.smtp = args.Value("smtp");
  if (args.Has("smtp") && id.smtp.find('@') == std::string::npos) {
    throw UsageError("--smtp needs an address such as user@example.com, not '" + id.smtp + "'");
  }
  return id;
}

void ApplyIdentity(const std::string& profile, const Args& args, const IdentityArgs& id) {
  adm::ProfileIdentity current;
  Check(adm::GetProfileIdentity(profile.c_str(), &current), "cannot read the identity of profile '" + profile + "'");
  if (args.Has("user")) current.user = id.user;
  if (args.Has("display")) current.display = id.display;
  if (args.Has("smtp")) current.smtp = id.smtp;
  Check(adm::SetProfileIdentity(profile.c_str(), current.user.c_str(), current.display.c_str(), current.smtp.c_str()),
        "cannot set the identity of profile '" + profile + "'");
}

// Our service: the mailbox owner of the data provider's fixture, with the options given over it.
void ApplyMailboxIdentity(const std::string& profile, const Args& args, const IdentityArgs& id) {
  MailboxUser owner = FixtureUser(RegisteredFixture());
  if (args.Has("user")) owner.user = id.user;
  if (args.Has("display")) owner.display = id.display;
  if (args.Has("smtp")) owner.smtp = id.smtp;
  Check(adm::SetProfileIdentity(profile.c_str(), owner.user.c_str(), owner.display.c_str(), owner.smtp.c_str()),
        "cannot set the identity of profile '" + profile + "'");
}

bool IsOurService(const std::string& service) { return lstrcmpiA(service.c_str(), kDefaultServiceName) == 0; }

// The named mutex by which the product tells a service that a profile is being set up; owned
// from construction to destruction.
class UpdatingProfile {
 public:
  UpdatingProfile() : m_mutex(CreateMutexA(nullptr, TRUE, "TQUpdatingProfile")) {
    if (!m_mutex) throw MapiFailure(HRESULT_FROM_WIN32(GetLastError()), "cannot create the mutex TQUpdatingProfile");
  }
  ~UpdatingProfile() {
    ReleaseMutex(m_mutex);
    CloseHandle(m_mutex);
  }
  UpdatingProfile(const UpdatingProfile&) = delete;
  UpdatingProfile& operator=(const UpdatingProfile&) = delete;

 private:
  HANDLE m_mutex;
};

// PR_ZT4_STORE_PATH of the service's provider section: where its ServiceEntry put the store
// file; "" when it put none.
std::string StorePath(IMsgServiceAdmin* services, MAPIUID uid) {
  constexpr ULONG kStorePathTag = PROP_TAG(PT_STRING8, 0x6601);
  Ref<IProviderAdmin> providers;
  if (FAILED(services->AdminProviders(&uid, 0, providers.Out()))) return std::string();
  Ref<IMAPITable> table;
  if (FAILED(providers->GetProviderTable(0, table.Out()))) return std::string();
  Rows rows = QueryAll(table.Get(), {PR_PROVIDER_UID});
  const SPropValue* provider = rows.Count() ? FindProp(rows[0], PR_PROVIDER_UID) : nullptr;
  if (!provider || provider->Value.bin.cb != sizeof(MAPIUID)) return std::string();
  Ref<IProfSect> section;
  auto* providerUid = reinterpret_cast<LPMAPIUID>(provider->Value.bin.lpb);
  if (FAILED(providers->OpenProfileSection(providerUid, nullptr, 0, section.Out()))) return std::string();
  MapiBuffer<SPropValue> path;
  if (FAILED(HrGetOneProp(section.Get(), kStorePathTag, path.Out())) || !path->Value.lpszA) return std::string();
  return path->Value.lpszA;
}

PropArgs ReadSets(const Args& args) {
  PropArgs props;
  for (const auto& s : args.Values("set")) props.Add(s);
  return props;
}

Json PropsJson(const PropArgs& props) {
  Json out = Json::Object();
  for (const auto& v : props.All()) out.Set(TagName(v.ulPropTag), ValueJson(v));
  return out;
}

// Deletes a profile that a failed create left behind.
class CreatedProfile {
 public:
  CreatedProfile(IProfAdmin* admin, std::string name) : m_admin(admin), m_name(std::move(name)) {}
  ~CreatedProfile() {
    if (m_admin) m_admin->DeleteProfile(T(m_name), 0);
  }
  CreatedProfile(const CreatedProfile&) = delete;
  CreatedProfile& operator=(const CreatedProfile&) = delete;
  void Keep() { m_admin = nullptr; }

 private:
  IProfAdmin* m_admin;
  std::string m_name;
};

// CreateMsgService names no UID: the new service is the row that was not there before.
MAPIUID AddService(IMsgServiceAdmin* services, const std::string& service) {
  std::set<std::string> before;
  {
    Rows rows = ServiceRows(services);
    for (ULONG i = 0; i < rows.Count(); ++i) before.insert(UidText(rows[i]));
  }
  HRESULT hr = services->CreateMsgService(T(service), nullptr, 0, 0);
  if (hr == MAPI_E_NOT_FOUND) {
    throw MapiFailure(hr, "MAPISVC.INF has no service '" + service + "' (add one with 'archivedepot service install')");
  }
  Check(hr, services, "cannot add the service '" + service + "'");
  Rows rows = ServiceRows(services);
  for (ULONG i = 0; i < rows.Count(); ++i) {
    if (!before.count(UidText(rows[i]))) return RowUid(rows[i]);
  }
  throw MapiFailure(MAPI_E_NOT_FOUND, "the new service '" + service + "' is missing from the service table");
}

int Create(Context& ctx, const std::vector<std::string>& argv) {
  Args args("profile create", argv,
            {{"service", true},
             {"user", true},
             {"display", true},
             {"smtp", true},
             {"set", true, true},
             {"default"},
             {"fixture", true}},
            1);
  std::string name = args.Positional(0, kDefaultProfileName);
  CheckProfileName(name);
  bool makeDefault = args.Has("default") || args.Positionals().empty();
  std::string service = args.Value("service", kDefaultServiceName);
  if (service.empty()) throw UsageError("--service needs a service name");
  bool ours = IsOurService(service);
  if (args.Has("fixture") && !ours) {
    throw UsageError("--fixture goes with the service " + std::string(kDefaultServiceName));
  }
  if (args.Has("fixture") && args.Value("fixture").empty()) throw UsageError("--fixture needs a file");
  IdentityArgs id = ReadIdentity(args);
  PropArgs props = ReadSets(args);

  MapiInit mapi;
  if (ours && (args.Has("fixture") || !adm::InfListsService(service) || RegisteredFixture().empty())) {
    InstallProviderService(ctx.programPath, args.Value("fixture"));
  }
  Ref<IProfAdmin> admin = OpenProfAdmin();
  HRESULT hr = admin->CreateProfile(T(name), nullptr, 0, 0);
  if (hr == MAPI_E_NO_ACCESS) throw MapiFailure(hr, "a profile named '" + name + "' already exists");
  Check(hr, admin.Get(), "cannot create profile '" + name + "'");
  CreatedProfile created(admin.Get(), name);
  if (ours) ApplyMailboxIdentity(name, args, id);
  MAPIUID uid{};
  std::string storePath;
  {
    Ref<IMsgServiceAdmin> services = OpenServices(admin.Get(), name);
    {
      UpdatingProfile updating;
      uid = AddService(services.Get(), service);
      Check(services->ConfigureMsgService(&uid, 0, 0, props.Count(), props.Values()), services.Get(),
            "cannot configure the service '" + service + "'");
    }
    if (ours) storePath = StorePath(services.Get(), uid);
  }
  if (!ours && id.given) ApplyIdentity(name, args, id);
  if (makeDefault) Check(admin->SetDefaultProfile(T(name), 0), admin.Get(), "cannot make '" + name + "' the default");
  created.Keep();

  if (ctx.json) {
    Json doc = Json::Object();
    doc.Set("profile", Json::Str(name));
    doc.Set("default", Json::Boolean(makeDefault));
    Json svc = Json::Object();
    svc.Set("name", Json::Str(service));
    svc.Set("uid", Json::Str(HexBytes(uid.ab, sizeof uid.ab)));
    svc.Set("configured", PropsJson(props));
    if (ours) svc.Set("store_path", storePath.empty() ? Json() : Json::Str(storePath));
    doc.Set("service", std::move(svc));
    *ctx.out << doc.Dump();
  } else {
    *ctx.out << "Created profile '" << name << "'" << (makeDefault ? " (default)" : "") << " with service " << service
             << " {" << HexBytes(uid.ab, sizeof uid.ab) << "}\n";
    if (!storePath.empty()) *ctx.out << "  store file " << storePath << "\n";
    for (const auto& v : props.All()) *ctx.out << "  " << TagName(v.ulPropTag) << " = " << ValueText(v) << "\n";
  }
  return kExitOk;
}

// The services that `configure` changes: those named --service, else the profile's only one.
std::vector<MAPIUID> ChooseServices(const Rows& rows, const std::string& profile, const std::string& service) {
  std::vector<MAPIUID> chosen;
  for (ULONG i = 0; i < rows.Count(); ++i) {
    if (service.empty() || RowText(rows[i], PR_SERVICE_NAME_A) == service) chosen.push_back(RowUid(rows[i]));
  }
  if (!service.empty() && chosen.empty()) {
    throw MapiFailure(MAPI_E_NOT_FOUND, "profile '" + profile + "' has no service '" + service + "'");
  }
  if (service.empty() && chosen.size() > 1) {
    throw UsageError("profile '" + profile + "' has " + std::to_string(chosen.size()) +
                     " services: name one with --service");
  }
  return chosen;
}

int Configure(Context& ctx, const std::vector<std::string>& argv) {
  Args args("profile configure", argv,
            {{"service", true}, {"user", true}, {"display", true}, {"smtp", true}, {"set", true, true}}, 1);
  if (args.Positionals().empty()) throw UsageError("'profile configure' needs a profile name");
  std::string name = args.Positional(0);
  CheckProfileName(name);
  IdentityArgs id = ReadIdentity(args);
  PropArgs props = ReadSets(args);
  if (!props.Count() && !id.given) throw UsageError("'profile configure' needs --set TAG=VALUE or an identity option");

  MapiInit mapi;
  Ref<IProfAdmin> admin = OpenProfAdmin();
  Ref<IMsgServiceAdmin> services = OpenServices(admin.Get(), name);
  std::vector<MAPIUID> chosen;
  if (props.Count()) {
    chosen = ChooseServices(ServiceRows(services.Get()), name, args.Value("service"));
    for (auto& uid : chosen) {
      Check(services->ConfigureMsgService(&uid, 0, 0, props.Count(), props.Values()), services.Get(),
            "cannot configure a service of profile '" + name + "'");
    }
  }
  if (id.given) ApplyIdentity(name, args, id);

  if (ctx.json) {
    Json doc = Json::Object();
    doc.Set("profile", Json::Str(name));
    Json uids = Json::Array();
    for (const auto& uid : chosen) uids.Push(Json::Str(HexBytes(uid.ab, sizeof uid.ab)));
    doc.Set("services", std::move(uids));
    doc.Set("configured", PropsJson(props));
    *ctx.out << doc.Dump();
  } else {
    *ctx.out << "Configured profile '" << name << "'\n";
    for (const auto& v : props.All()) *ctx.out << "  " << TagName(v.ulPropTag) << " = " << ValueText(v) << "\n";
  }
  return kExitOk;
}

int Delete(Context& ctx, const std::vector<std::string>& argv) {
  Args args("profile delete", argv, {}, 1);
  if (args.Positionals().empty()) throw UsageError("'profile delete' needs a profile name");
  std::string name = args.Positional(0);
  CheckProfileName(name);
  MapiInit mapi;
  Ref<IProfAdmin> admin = OpenProfAdmin();
  HRESULT hr = admin->DeleteProfile(T(name), 0);
  if (hr == MAPI_E_NOT_FOUND) throw MapiFailure(hr, "there is no profile named '" + name + "'");
  Check(hr, admin.Get(), "cannot delete profile '" + name + "'");
  if (ctx.json) {
    Json doc = Json::Object();
    doc.Set("deleted", Json::Str(name));
    *ctx.out << doc.Dump();
  } else {
    *ctx.out << "Deleted profile '" << name << "'\n";
  }
  return kExitOk;
}

Json ServicesJson(const Rows& rows) {
  Json list = Json::Array();
  for (ULONG i = 0; i < rows.Count(); ++i) {
    Json s = Json::Object();
    s.Set("name", Json::Str(RowText(rows[i], PR_SERVICE_NAME_A)));
    s.Set("display_name", Json::Str(RowText(rows[i], PR_DISPLAY_NAME_A)));
    s.Set("uid", Json::Str(UidText(rows[i])));
    list.Push(std::move(s));
  }
  return list;
}

void PrintServices(std::ostream& out, const Rows& rows) {
  if (!rows.Count()) out << "    (no services)\n";
  for (ULONG i = 0; i < rows.Count(); ++i) {
    out << "    " << RowText(rows[i], PR_SERVICE_NAME_A) << "  \"" << RowText(rows[i], PR_DISPLAY_NAME_A) << "\"  {"
        << UidText(rows[i]) << "}\n";
  }
}

int List(Context& ctx, const std::vector<std::string>& argv) {
  Args args("profile list", argv, {}, 0);
  MapiInit mapi;
  Ref<IProfAdmin> admin = OpenProfAdmin();
  Ref<IMAPITable> table;
  Check(admin->GetProfileTable(0, table.Out()), admin.Get(), "GetProfileTable failed");
  Rows profiles = QueryAll(table.Get(), {PR_DISPLAY_NAME_A, PR_DEFAULT_PROFILE});
  Json list = Json::Array();
  if (!ctx.json && !profiles.Count()) *ctx.out << "No profiles. Create one with 'archivedepot profile create'.\n";
  for (ULONG i = 0; i < profiles.Count(); ++i) {
    std::string name = RowText(profiles[i], PR_DISPLAY_NAME_A);
    bool isDefault = RowBool(profiles[i], PR_DEFAULT_PROFILE);
    Ref<IMsgServiceAdmin> services = OpenServices(admin.Get(), name);
    Rows rows = ServiceRows(services.Get());
    if (ctx.json) {
      Json p = Json::Object();
      p.Set("name", Json::Str(name));
      p.Set("default", Json::Boolean(isDefault));
      p.Set("services", ServicesJson(rows));
      list.Push(std::move(p));
    } else {
      *ctx.out << (isDefault ? "* " : "  ") << name << (isDefault ? "  (default)" : "") << "\n";
      PrintServices(*ctx.out, rows);
    }
  }
  if (ctx.json) {
    Json doc = Json::Object();
    doc.Set("profiles", std::move(list));
    *ctx.out << doc.Dump();
  }
  return kExitOk;
}

const char kSetHelp[] =
    "  --set TAG=VALUE   a property for the service's ConfigureMsgService (repeatable). TAG is a\n"
    "                    property name (PR_DISPLAY_NAME, PR_COMMENT, PR_DISPLAY_NAME_W, ...) or a\n"
    "                    tag in hex (0x6601001E); VALUE is text, a number, true/false or hex bytes\n"
    "                    as the tag's type wants\n"
    "  --user U          the user name of the profile's identity (PR_EMAIL_ADDRESS)\n"
    "  --display D       the user's display name (PR_DISPLAY_NAME)\n"
    "  --smtp S          the user's SMTP address (PR_SMTP_ADDRESS)\n";

const CommandRegistration kCreate({"profile create",
                                   "[NAME] [--service SERVICE] [--fixture FILE] [--user U --display D --smtp S] "
                                   "[--set TAG=VALUE ...] [--default]",
                                   "create a profile holding one message service",
                                   std::string("Without NAME the default profile '") + kDefaultProfileName +
                                       "' is made and becomes the default.\n"
                                       "With our service " + kDefaultServiceName +
                                       " (the default) the service and its data provider are\n"
                                       "installed first when missing ('service install'), the profile's identity is\n"
                                       "the fixture's first [user] section (else " + kSampleUser.display + " <" +
                                       kSampleUser.smtp + ">),\n"
                                       "and the store file is made in the temporary folder ($TMPDIR).\n"
                                       "  --service SERVICE a MAPISVC.INF service (default " +
                                       kDefaultServiceName +
                                       ")\n"
                                       "  --fixture FILE    (our service) register the data provider on this fixture\n"
                                       "  --default         make the profile the default one\n" +
                                       kSetHelp,
                                   Create});
const CommandRegistration kConfigure({"profile configure", "NAME [--service SERVICE] [--set TAG=VALUE ...]",
                                      "configure a profile's service and identity",
                                      std::string("  --service SERVICE the service to configure (needed when the "
                                                  "profile has several)\n") +
                                          kSetHelp,
                                      Configure});
const CommandRegistration kDelete({"profile delete", "NAME", "delete a profile and its services", "", Delete});
const CommandRegistration kList({"profile list", "", "list the profiles, the default marked, with their services", "",
                                 List});

}  // namespace
}  // namespace adcli
