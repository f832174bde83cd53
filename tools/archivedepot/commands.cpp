#include "commands.h"

#include <algorithm>
#include <sstream>

namespace adcli {
namespace {

std::vector<std::string> Words(const std::string& name) {
  std::vector<std::string> words;
  std::istringstream in(name);
  for (std::string w; in >> w;) words.push_back(w);
  return words;
}

const char kGlobalOptions[] =
    "Global options (anywhere on the line):\n"
    "  --json        machine-readable output on standard output\n"
    "  --home DIR    state directory for this run (sets ARCHIVEDEPOT_HOME)\n"
    "  --help        this help, or a command's help after its name\n"
    "\n"
    "Exit status: 0 success, 1 a MAPI call failed, 2 usage error.\n";

}  // namespace

CommandRegistry& CommandRegistry::Instance() {
  static CommandRegistry registry;
  return registry;
}

void CommandRegistry::Add(Command command) {
  m_commands.push_back(std::move(command));
  std::sort(m_commands.begin(), m_commands.end(),
            [](const Command& a, const Command& b) { return a.name < b.name; });
}

const Command* CommandRegistry::Find(const std::vector<std::string>& words, size_t* consumed) const {
  const Command* best = nullptr;
  size_t bestLen = 0;
  for (const auto& c : m_commands) {
    std::vector<std::string> name = Words(c.name);
    if (name.size() > words.size() || name.size() <= bestLen) continue;
    if (std::equal(name.begin(), name.end(), words.begin())) {
      best = &c;
      bestLen = name.size();
    }
  }
  if (consumed) *consumed = bestLen;
  return best;
}

std::vector<const Command*> CommandRegistry::Under(const std::string& group) const {
  std::vector<const Command*> out;
  for (const auto& c : m_commands) {
    if (group.empty() || c.name == group || c.name.rfind(group + " ", 0) == 0) out.push_back(&c);
  }
  return out;
}

std::string CommandHelp(const Command& command) {
  std::string text = "usage: archivedepot " + command.name;
  if (!command.synopsis.empty()) text += " " + command.synopsis;
  text += "\n\n" + command.summary + "\n";
  if (!command.details.empty()) text += "\n" + command.details;
  return text + "\n" + kGlobalOptions;
}

std::string GroupHelp(const std::string& group) {
  std::ostringstream text;
  text << "usage: archivedepot [--json] [--home DIR] " << (group.empty() ? "COMMAND" : group + " SUBCOMMAND")
       << " [ARGS...]\n\n";
  if (group.empty()) text << "A MAPI client for ArchiveDepot profiles and stores.\n\n";
  text << "Commands:\n";
  for (const Command* c : CommandRegistry::Instance().Under(group)) {
    std::string name = c->name;
    text << "  " << name << std::string(name.size() < 20 ? 20 - name.size() : 1, ' ') << c->summary << "\n";
  }
  text << "\nRun 'archivedepot COMMAND --help' for a command's options.\n\n" << kGlobalOptions;
  return text.str();
}

}  // namespace adcli
