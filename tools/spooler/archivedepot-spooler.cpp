// archivedepot-spooler: the spooler process of one profile. It logs on to the profile's default
// store in the spooler context (the provider's SpoolerLogon, through the same loader as a
// client), keeps the store's outgoing queue open for the submission flow, says it is ready in the
// profile's runtime folder and runs until the profile's stop event is set (or its ready file is
// removed); then it logs off and exits 0. Started and stopped by 'archivedepot spooler start|stop'.
//
//   archivedepot-spooler [--profile NAME]
// Exit status: 0 stopped on request, 1 a MAPI failure or another spooler of the profile runs,
// 2 usage error.
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "mapiclient.h"
#include "mapicode.h"
#include "mapitags.h"
#include "output.h"
#include "profile.h"
#include "session.h"
#include "spoolerctl.h"
#include "windows.h"

namespace {

using namespace adcli;

const char kUsage[] =
    "usage: archivedepot-spooler [--profile NAME]\n"
    "\n"
    "Logs on to the profile's default store as the spooler and serves it until\n"
    "'archivedepot spooler stop' asks it to stop.\n";

constexpr DWORD kRecheckMs = 1000;

// The stop event, made by this process alone: its existence tells others the spooler runs.
class StopEvent {
 public:
  explicit StopEvent(const std::string& profile) {
    m_event = CreateEventA(nullptr, TRUE, FALSE, SpoolerStopEventName(profile).c_str());
    if (!m_event) throw MapiFailure(MAPI_E_CALL_FAILED, "cannot create the stop event");
    if (GetLastError() == ERROR_ALREADY_EXISTS) {
      CloseHandle(m_event);
      m_event = nullptr;
      throw MapiFailure(MAPI_E_BUSY, "a spooler of profile '" + profile + "' is already running");
    }
  }
  ~StopEvent() {
    if (m_event) CloseHandle(m_event);
  }
  StopEvent(const StopEvent&) = delete;
  StopEvent& operator=(const StopEvent&) = delete;

  // Until the event is set, or `stillWanted` says the spooler has lost its reason to run.
  template <class Check>
  void Wait(const Check& stillWanted) const {
    for (;;) {
      DWORD rc = WaitForSingleObject(m_event, kRecheckMs);
      if (rc == WAIT_OBJECT_0) return;
      if (rc != WAIT_TIMEOUT) throw MapiFailure(MAPI_E_CALL_FAILED, "waiting for the stop event failed");
      if (!stillWanted()) return;
    }
  }

 private:
  HANDLE m_event = nullptr;
};

// The ready file, removed again when the spooler ends.
class ReadyFile {
 public:
  ReadyFile(const std::string& profile, DWORD pid) : m_path(SpoolerReadyPath(profile)) {
    if (m_path.empty() || !WriteSpoolerReady(m_path, pid, profile)) {
      throw MapiFailure(MAPI_E_DISK_ERROR, "cannot write the ready file of profile '" + profile + "'");
    }
  }
  ~ReadyFile() {
    std::error_code ec;
    std::filesystem::remove(m_path, ec);
  }
  ReadyFile(const ReadyFile&) = delete;
  ReadyFile& operator=(const ReadyFile&) = delete;
  bool Exists() const {
    std::error_code ec;
    return std::filesystem::exists(m_path, ec);
  }

 private:
  std::string m_path;
};

// The store's outgoing queue, where submitted messages wait for the spooler. A store that keeps
// none is served all the same: there is nothing to send from it.
class OutgoingQueue {
 public:
  explicit OutgoingQueue(IMsgStore* store) {
    HRESULT hr = store->GetOutgoingQueue(0, m_queue.Out());
    if (FAILED(hr)) {
      std::cout << "archivedepot-spooler: the store keeps no outgoing queue (" << HResultText(hr) << ")\n";
      return;
    }
    ULONG count = 0;
    if (SUCCEEDED(m_queue->GetRowCount(0, &count))) {
      std::cout << "archivedepot-spooler: " << count << " message(s) in the outgoing queue\n";
    }
  }

 private:
  Ref<IMAPITable> m_queue;
};

std::string ProfileToServe(const std::vector<std::string>& argv) {
  Args args("archivedepot-spooler", argv, {{"profile", true}}, 0);
  std::string profile = args.Has("profile") ? args.Value("profile") : adm::DefaultProfileName();
  if (profile.empty()) {
    throw UsageError(args.Has("profile") ? "--profile needs a profile name" : "there is no default profile");
  }
  return profile;
}

int Serve(const std::string& profile) {
  MapiInit mapi;
  adm::SetSpoolerProcess(true);
  StopEvent stop(profile);
  Session session(profile);
  std::string storeName;
  Ref<IMsgStore> store = OpenDefaultStore(session.Get(), &storeName);
  OutgoingQueue queue(store.Get());
  DWORD pid = GetCurrentProcessId();
  {
    ReadyFile ready(profile, pid);
    std::cout << "archivedepot-spooler: serving store '" << storeName << "' of profile '" << profile << "' (pid "
              << pid << ")" << std::endl;
    // A ready file removed under it (the profile or the whole state directory deleted) ends the
    // spooler too, so none is left serving a profile that is gone.
    stop.Wait([&ready] { return ready.Exists(); });
    std::cout << "archivedepot-spooler: " << (ready.Exists() ? "stop requested" : "ready file removed, stopping")
              << std::endl;
  }
  return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() == 1 && (args[0] == "--help" || args[0] == "-h")) {
    std::cout << kUsage;
    return kExitOk;
  }
  try {
    return Serve(ProfileToServe(args));
  } catch (const UsageError& e) {
    std::cerr << "archivedepot-spooler: " << e.what() << "\n" << kUsage;
    return kExitUsage;
  } catch (const MapiFailure& e) {
    std::cerr << "archivedepot-spooler: " << e.what() << " (" << HResultText(e.Code()) << ")\n";
    return kExitMapi;
  } catch (const std::exception& e) {
    std::cerr << "archivedepot-spooler: " << e.what() << "\n";
    return kExitMapi;
  }
}
