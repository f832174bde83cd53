// The archivedepot command registry. Each command lives in a file of its own and registers itself
// with a static CommandRegistration, so a new command is a new source file and nothing else.
// Commands are named by one or more words ("logon", "profile create"); the first words of the
// command line choose the longest registered name.
#pragma once
#include <iosfwd>
#include <stdexcept>
#include <string>
#include <vector>

#include "mapidefs.h"

namespace adcli {

inline constexpr int kExitOk = 0;
inline constexpr int kExitMapi = 1;
inline constexpr int kExitUsage = 2;

// The profile that commands use when none is named, and the message service they add to it: our
// own store service, as its MAPISVC.INF rows name it.
inline constexpr const char* kDefaultProfileName = "ArchiveDepot";
inline constexpr const char* kDefaultServiceName = "ZT4MSPROVIDER";

struct Context {
  bool json = false;
  std::ostream* out = nullptr;
  std::ostream* err = nullptr;
  std::string programPath;  // the running archivedepot binary, to find its sibling programs
};

// A bad command line: exit 2 with the message and a hint at --help.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A MAPI call that failed: exit 1 with the message, the code and its name.
class MapiFailure : public std::runtime_error {
 public:
  MapiFailure(HRESULT hr, const std::string& message) : std::runtime_error(message), m_hr(hr) {}
  HRESULT Code() const { return m_hr; }

 private:
  HRESULT m_hr;
};

using CommandFn = int (*)(Context& ctx, const std::vector<std::string>& args);

struct Command {
  std::string name;      // words separated by one space: "profile create"
  std::string synopsis;  // one line: arguments and options
  std::string summary;   // one line: what it does
  std::string details;   // the rest of its --help text
  CommandFn run = nullptr;
};

class CommandRegistry {
 public:
  static CommandRegistry& Instance();
  void Add(Command command);
  // The command named by the longest prefix of `words`; *consumed receives its word count.
  const Command* Find(const std::vector<std::string>& words, size_t* consumed) const;
  // Commands whose name starts with `group` ("" for all), by name.
  std::vector<const Command*> Under(const std::string& group) const;

 private:
  std::vector<Command> m_commands;
};

struct CommandRegistration {
  explicit CommandRegistration(Command command) { CommandRegistry::Instance().Add(std::move(command)); }
};

// Help texts.
std::string CommandHelp(const Command& command);
std::string GroupHelp(const std::string& group);  // "" gives the overall help

}  // namespace adcli
