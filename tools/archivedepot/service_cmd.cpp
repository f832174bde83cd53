// service install: with no name, sets up our own store service as its installer does (the
// provider's MergeWithMAPISVC, and the data provider on a fixture); with a name, registers any
// store service and its provider in MAPISVC.INF, found as installers find it (beside the library
// that FGetComponentPath names), so that a provider library can be registered by hand.
#include <ostream>

#include "adplatform.h"
#include "args.h"
#include "commands.h"
#include "mapiclient.h"
#include "mapicode.h"
#include "mapisvc.h"
#include "output.h"
#include "provider_setup.h"
#include "windows.h"

namespace adcli {
namespace {

void CheckServiceName(const std::string& name) {
  if (name.empty()) throw UsageError("'service install' needs a service name");
  for (char c : name) {
    bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
              c == '.';
    if (!ok) throw UsageError("a service name takes letters, digits, '_', '-' and '.', not '" + name + "'");
  }
}

void CheckValue(const std::string& option, const std::string& value) {
  if (value.empty()) throw UsageError(option + " cannot be empty");
  if (value.find_first_of("\r\n") != std::string::npos) throw UsageError(option + " cannot span lines");
  if (value.front() == ' ' || value.back() == ' ') throw UsageError(option + " cannot start or end with a space");
}

std::string MapisvcFile() {
  char dll[1024] = {0};
  if (!FGetComponentPath("{FF1D3B0B-A5EC-4D92-B0A3-6C2A8DBF0E5D}", nullptr, dll, sizeof dll, TRUE)) {
    throw MapiFailure(MAPI_E_NOT_FOUND, "FGetComponentPath found no MAPI subsystem");
  }
  std::string path = adp::NativePath(dll);
  size_t slash = path.find_last_of('/');
  return (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) + "MAPISVC.INF";
}

class InfWriter {
 public:
  explicit InfWriter(std::string path) : m_path(std::move(path)) {}
  void Put(const std::string& section, const char* key, const std::string& value) {
    if (!WritePrivateProfileStringA(section.c_str(), key, value.c_str(), m_path.c_str())) Fail();
  }
  void DropSection(const std::string& section) {
    if (!WritePrivateProfileStringA(section.c_str(), nullptr, nullptr, m_path.c_str())) Fail();
  }

 private:
  [[noreturn]] void Fail() {
    throw MapiFailure(MAPI_E_DISK_ERROR, "cannot write " + m_path + " (error " + std::to_string(GetLastError()) + ")");
  }
  std::string m_path;
};

int InstallOurs(Context& ctx, const Args& args) {
  for (const char* option : {"dll", "display", "entry"}) {
    if (args.Has(option)) throw UsageError(std::string("--") + option + " needs a service NAME");
  }
  if (args.Has("fixture")) CheckValue("--fixture", args.Value("fixture"));
  MapiInit mapi;
  ServiceSetup setup = InstallProviderService(ctx.programPath, args.Value("fixture"));
  std::string path = MapisvcFile();
  if (ctx.json) {
    Json doc = Json::Object();
    doc.Set("service", Json::Str(kDefaultServiceName));
    doc.Set("dll", Json::Str(kProviderLibrary));
    doc.Set("changed", Json::Boolean(setup.changed));
    doc.Set("mapisvc", Json::Str(path));
    doc.Set("data_provider", Json::Str(setup.data.module));
    doc.Set("fixture", Json::Str(setup.data.fixture));
    *ctx.out << doc.Dump();
  } else {
    *ctx.out << "Installed service " << kDefaultServiceName << " (" << kProviderLibrary << ") in " << path << "\n"
             << "Data provider " << setup.data.module << " on " << setup.data.fixture << "\n";
  }
  return kExitOk;
}

int Install(Context& ctx, const std::vector<std::string>& argv) {
  Args args("service install", argv, {{"dll", true}, {"display", true}, {"entry", true}, {"fixture", true}}, 1);
  if (args.Positionals().empty()) return InstallOurs(ctx, args);
  if (args.Has("fixture")) throw UsageError("--fixture goes with our own service, installed without a NAME");
  std::string name = args.Positional(0);
  CheckServiceName(name);
  if (!args.Has("dll")) throw UsageError("'service install' needs --dll DLL");
  std::string dll = args.Value("dll"), display = args.Value("display", name), entry = args.Value("entry", "ServiceEntry");
  CheckValue("--dll", dll);
  CheckValue("--display", display);
  CheckValue("--entry", entry);
  std::string provider = name + "_MS";

  MapiInit mapi;
  std::string path = MapisvcFile();
  InfWriter inf(path);
  // A reinstall replaces the sections whole, so no key of an older registration lingers.
  inf.DropSection(name);
  inf.DropSection(provider);
  inf.Put("Services", name.c_str(), display);
  inf.Put(name, "PR_DISPLAY_NAME", display);
  inf.Put(name, "PR_SERVICE_DLL_NAME", dll);
  inf.Put(name, "PR_SERVICE_ENTRY_NAME", entry);
  inf.Put(name, "PR_RESOURCE_FLAGS", "SERVICE_SINGLE_COPY|SERVICE_NO_PRIMARY_IDENTITY");
  inf.Put(name, "Providers", provider);
  inf.Put(provider, "PR_RESOURCE_TYPE", "MAPI_STORE_PROVIDER");
  inf.Put(provider, "PR_PROVIDER_DLL_NAME", dll);
  inf.Put(provider, "PR_PROVIDER_DISPLAY", display);
  inf.Put(provider, "PR_DISPLAY_NAME", display);
  inf.Put(provider, "PR_RESOURCE_FLAGS", "STATUS_DEFAULT_STORE");

  if (ctx.json) {
    Json doc = Json::Object();
    doc.Set("service", Json::Str(name));
    doc.Set("provider", Json::Str(provider));
    doc.Set("dll", Json::Str(dll));
    doc.Set("display_name", Json::Str(display));
    doc.Set("mapisvc", Json::Str(path));
    *ctx.out << doc.Dump();
  } else {
    *ctx.out << "Installed service " << name << " (store provider " << provider << ", " << dll << ") in " << path
             << "\n";
  }
  return kExitOk;
}

const CommandRegistration kInstall({"service install",
                                    "[--fixture FILE] | NAME --dll DLL [--display TEXT] [--entry FUNCTION]",
                                    "register a store service and its provider in MAPISVC.INF",
                                    std::string("Without NAME, installs our service ") + kDefaultServiceName +
                                        ": loads " + kProviderLibrary + " beside the client and calls\n"
                                        "its MergeWithMAPISVC, then registers the data provider " +
                                        kArchiveModule + "\non a fixture (default: the bundled sample, " +
                                        kSampleFixture + " beside the client).\n"
                                    "  --fixture FILE    the archive fixture the data provider reads\n"
                                    "  --dll DLL         the provider library (a bare name is looked for in\n"
                                    "                    $ARCHIVEDEPOT_PROVIDER_PATH and beside the programs)\n"
                                    "  --display TEXT    the service's display name (default NAME)\n"
                                    "  --entry FUNCTION  the service's entry point (default ServiceEntry)\n",
                                    Install});

}  // namespace
}  // namespace adcli
