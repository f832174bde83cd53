// spooler start | stop | status: the spooler program of a profile, started detached, told apart
// by its stop event (alive while the spooler holds it) and its ready file.
#include <chrono>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <thread>

#include "adplatform_process.h"
#include "args.h"
#include "commands.h"
#include "mapiclient.h"
#include "mapicode.h"
#include "mapitags.h"
#include "mapix.h"
#include "output.h"
#include "spoolerctl.h"
#include "windows.h"

namespace adcli {
namespace {

constexpr auto kStartTimeout = std::chrono::seconds(30);
constexpr auto kStopTimeout = std::chrono::seconds(30);
constexpr auto kPollInterval = std::chrono::milliseconds(20);

class Handle {
 public:
  explicit Handle(HANDLE h) : m_h(h) {}
  ~Handle() {
    if (m_h) CloseHandle(m_h);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  HANDLE Get() const { return m_h; }

 private:
  HANDLE m_h;
};

// The profile's stored name: the one asked for (any case), or the default profile.
std::string ResolveProfile(const Args& args) {
  bool named = args.Has("profile");
  std::string wanted = args.Value("profile");
  if (named && wanted.empty()) throw UsageError("--profile needs a profile name");
  Ref<IProfAdmin> admin;
  Check(MAPIAdminProfiles(0, admin.Out()), "MAPIAdminProfiles failed");
  Ref<IMAPITable> table;
  Check(admin->GetProfileTable(0, table.Out()), admin.Get(), "GetProfileTable failed");
  Rows rows = QueryAll(table.Get(), {PR_DISPLAY_NAME_A, PR_DEFAULT_PROFILE});
  for (ULONG i = 0; i < rows.Count(); ++i) {
    std::string name = RowText(rows[i], PR_DISPLAY_NAME_A);
    if (named ? lstrcmpiA(name.c_str(), wanted.c_str()) == 0 : RowBool(rows[i], PR_DEFAULT_PROFILE)) return name;
  }
  if (named) throw MapiFailure(MAPI_E_NOT_FOUND, "there is no profile named '" + wanted + "'");
  throw MapiFailure(MAPI_E_NOT_FOUND, "there is no default profile: name one with --profile");
}

bool StopEventExists(const std::string& profile) {
  Handle event(OpenEventA(SYNCHRONIZE, FALSE, SpoolerStopEventName(profile).c_str()));
  return event.Get() != nullptr;
}

struct SpoolerState {
  bool running = false;
  DWORD pid = 0;  // 0 while it is still starting
};

SpoolerState QueryState(const std::string& profile) {
  SpoolerState state;
  state.running = StopEventExists(profile);
  if (state.running) {
    DWORD pid = ReadSpoolerPid(SpoolerReadyPath(profile));
    if (adp::ProcessRunning(pid)) state.pid = pid;
  }
  return state;
}

void Report(Context& ctx, const std::string& profile, const SpoolerState& state, const std::string& text) {
  if (ctx.json) {
    Json doc = Json::Object();
    doc.Set("profile", Json::Str(profile));
    doc.Set("running", Json::Boolean(state.running));
    doc.Set("pid", state.pid ? Json::Int(state.pid) : Json());
    *ctx.out << doc.Dump();
  } else {
    *ctx.out << text << "\n";
  }
}

std::string PidText(DWORD pid) { return pid ? " (pid " + std::to_string(pid) + ")" : std::string(); }

std::string LastLine(const std::string& path) {
  std::ifstream in(path);
  std::string line, last;
  while (std::getline(in, line)) {
    if (!line.empty()) last = line;
  }
  return last;
}

std::string SpoolerPath(const Context& ctx) {
  std::filesystem::path path = std::filesystem::path(ctx.programPath).parent_path() / kSpoolerProgram;
  if (!std::filesystem::exists(path)) {
    throw MapiFailure(MAPI_E_NOT_FOUND, "the spooler program is missing: " + path.string());
  }
  return path.string();
}

// Waits for the ready file that names `pid`; MapiFailure when the spooler ends first or is late.
void WaitUntilReady(const std::string& profile, DWORD pid) {
  std::string ready = SpoolerReadyPath(profile), log = SpoolerLogPath(profile);
  auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
  while (ReadSpoolerPid(ready) != pid) {
    if (!adp::ProcessRunning(pid)) {
      std::string why = LastLine(log);
      throw MapiFailure(MAPI_E_CALL_FAILED, "the spooler of profile '" + profile + "' stopped before it was ready" +
                                                (why.empty() ? std::string() : ": " + why) + " (log: " + log + ")");
    }
    if (std::chrono::steady_clock::now() > deadline) {
      throw MapiFailure(MAPI_E_TIMEOUT, "the spooler of profile '" + profile + "' was not ready in time (log: " + log + ")");
    }
    std::this_thread::sleep_for(kPollInterval);
  }
}

int Start(Context& ctx, const std::vector<std::string>& argv) {
  Args args("spooler start", argv, {{"profile", true}}, 0);
  MapiInit mapi;
  std::string profile = ResolveProfile(args);
  SpoolerState state = QueryState(profile);
  if (state.running) {
    Report(ctx, profile, state, "The spooler of profile '" + profile + "' is already running" + PidText(state.pid));
    return kExitOk;
  }
  std::string ready = SpoolerReadyPath(profile);
  std::error_code ec;
  std::filesystem::remove(ready, ec);  // left by a spooler that was killed
  std::string error;
  DWORD pid = adp::StartDetachedProcess(SpoolerPath(ctx), {"--profile", profile}, SpoolerLogPath(profile), &error);
  if (!pid) throw MapiFailure(MAPI_E_CALL_FAILED, error);
  WaitUntilReady(profile, pid);
  state.running = true;
  state.pid = pid;
  Report(ctx, profile, state, "Started the spooler of profile '" + profile + "'" + PidText(pid));
  return kExitOk;
}

int Stop(Context& ctx, const std::vector<std::string>& argv) {
  Args args("spooler stop", argv, {{"profile", true}}, 0);
  MapiInit mapi;
  std::string profile = ResolveProfile(args);
  DWORD pid = 0;
  {
    Handle event(OpenEventA(EVENT_MODIFY_STATE | SYNCHRONIZE, FALSE, SpoolerStopEventName(profile).c_str()));
    if (!event.Get()) {
      Report(ctx, profile, SpoolerState{}, "The spooler of profile '" + profile + "' is not running");
      return kExitOk;
    }
    pid = ReadSpoolerPid(SpoolerReadyPath(profile));
    if (!SetEvent(event.Get())) {
      throw MapiFailure(MAPI_E_CALL_FAILED, "cannot signal the spooler of profile '" + profile + "'");
    }
  }
  auto deadline = std::chrono::steady_clock::now() + kStopTimeout;
  while (StopEventExists(profile) || adp::ProcessRunning(pid)) {
    if (std::chrono::steady_clock::now() > deadline) {
      throw MapiFailure(MAPI_E_TIMEOUT, "the spooler of profile '" + profile + "' did not stop in time" + PidText(pid));
    }
    std::this_thread::sleep_for(kPollInterval);
  }
  Report(ctx, profile, SpoolerState{}, "Stopped the spooler of profile '" + profile + "'" + PidText(pid));
  return kExitOk;
}

int Status(Context& ctx, const std::vector<std::string>& argv) {
  Args args("spooler status", argv, {{"profile", true}}, 0);
  MapiInit mapi;
  std::string profile = ResolveProfile(args);
  SpoolerState state = QueryState(profile);
  Report(ctx, profile, state,
         "The spooler of profile '" + profile + "' is " + (state.running ? "running" + PidText(state.pid) : "not running"));
  return kExitOk;
}

const char kProfileHelp[] = "  --profile NAME    the profile (default: the default profile)\n";

const CommandRegistration kStart({"spooler start", "[--profile NAME]",
                                  "start the profile's spooler and wait until it has logged on",
                                  std::string(kProfileHelp) + "The spooler's output goes to spooler.log in the "
                                                              "profile's runtime folder.\n",
                                  Start});
const CommandRegistration kStop({"spooler stop", "[--profile NAME]", "ask the profile's spooler to stop and wait for it",
                                 kProfileHelp, Stop});
const CommandRegistration kStatus({"spooler status", "[--profile NAME]", "tell whether the profile's spooler runs",
                                   kProfileHelp, Status});

}  // namespace
}  // namespace adcli
