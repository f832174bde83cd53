// Setting up our own store service as its installer does: the provider library merges its rows
// into MAPISVC.INF, and the data provider (the scriptable archive with a fixture) is registered
// in the state directory's registry. Also the identity a profile on a fixture's mailbox gets.
#pragma once
#include <string>

namespace adcli {

// The provider library as MAPISVC.INF names it; found beside the client.
inline constexpr const char* kProviderLibrary = "ZT4MSProvider.DLL";
// The data provider module and the bundled sample, relative to the client's folder.
inline constexpr const char* kArchiveModule = "ZT4ScriptArchive.so";
inline constexpr const char* kSampleFixture = "sample/mailbox.fixture";

// The folder of a program path ("" gives ".").
std::string ProgramFolder(const std::string& programPath);
std::string SampleFixturePath(const std::string& programPath);

// LoadLibraryA of the provider and its MergeWithMAPISVC(NULL, &fChanged, 0). Returns fChanged;
// MapiFailure when the library or the export is missing or the merge fails. MAPI must be
// initialised (the export finds MAPISVC.INF through the subsystem's stub).
bool MergeProviderService();

// Registers the archive module beside the client as the data provider, reading `fixture`
// (made absolute). MapiFailure when the module or the fixture is missing.
struct DataProviderSetup {
  std::string module, fixture;
};
DataProviderSetup RegisterDataProvider(const std::string& programPath, const std::string& fixture);

// Our service as an installer sets it up: MergeProviderService, then the data provider on
// `fixture` ("" for the bundled sample). Needs MAPI initialised.
struct ServiceSetup {
  bool changed = false;  // MergeWithMAPISVC's fChanged
  DataProviderSetup data;
};
ServiceSetup InstallProviderService(const std::string& programPath, const std::string& fixture);

// The fixture the registered data provider reads; "" when none is registered.
std::string RegisteredFixture();

// The mailbox owner of a fixture: its first [user] section, else kSampleUser.
struct MailboxUser {
  std::string user, display, smtp;
};
inline const MailboxUser kSampleUser = {"sample.user", "Sample User", "sample.user@example.com"};
MailboxUser FixtureUser(const std::string& fixturePath);

}  // namespace adcli
