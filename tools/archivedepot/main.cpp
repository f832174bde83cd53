// archivedepot: the command-line MAPI client of ArchiveDepot. It manages profiles and message
// services and logs on to stores through the published MAPI calls, as a mail client does.
#include <exception>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "commands.h"
#include "output.h"
#include "windows.h"

namespace {

using adcli::Context;

struct CommandLine {
  bool json = false;
  bool help = false;
  std::vector<std::string> words;  // everything but the global options
};

CommandLine ParseGlobals(int argc, char** argv) {
  CommandLine line;
  bool optionsEnded = false;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (optionsEnded) {
      line.words.push_back(a);
    } else if (a == "--") {
      optionsEnded = true;
      line.words.push_back(a);
    } else if (a == "--json") {
      line.json = true;
    } else if (a == "--help" || a == "-h") {
      line.help = true;
    } else if (a == "--home" || a.rfind("--home=", 0) == 0) {
      std::string dir = a == "--home" ? (i + 1 < argc ? argv[++i] : "") : a.substr(7);
      if (dir.empty()) throw adcli::UsageError("--home needs a directory");
      std::string absolute = std::filesystem::absolute(dir).lexically_normal().string();
      SetEnvironmentVariableA("ARCHIVEDEPOT_HOME", absolute.c_str());
    } else {
      line.words.push_back(a);
    }
  }
  return line;
}

std::string ProgramPath(const char* argv0) {
  char path[4096] = {0};
  DWORD n = GetModuleFileNameA(nullptr, path, sizeof path);
  return n > 0 && n < sizeof path ? std::string(path, n) : std::string(argv0 ? argv0 : "archivedepot");
}

void ReportError(const Context& ctx, const std::string& message, HRESULT hr) {
  std::string text = message;
  if (hr) text += " (" + adcli::HResultText(hr) + ")";
  *ctx.err << "archivedepot: " << text << "\n";
  if (!ctx.json) return;
  adcli::Json error = adcli::Json::Object();
  error.Set("message", adcli::Json::Str(message));
  if (hr) {
    char code[16];
    std::snprintf(code, sizeof code, "0x%08X", static_cast<unsigned>(hr));
    error.Set("code", adcli::Json::Str(code));
    const char* name = adcli::HResultName(hr);
    error.Set("name", name ? adcli::Json::Str(name) : adcli::Json());
  }
  adcli::Json doc = adcli::Json::Object();
  doc.Set("error", std::move(error));
  *ctx.out << doc.Dump();
}

// Help for the words given: a command's, a group's, or the overall one.
int Help(const Context& ctx, const std::vector<std::string>& words, bool asked) {
  auto& registry = adcli::CommandRegistry::Instance();
  size_t used = 0;
  const adcli::Command* command = registry.Find(words, &used);
  std::ostream& os = asked ? *ctx.out : *ctx.err;
  if (command) {
    os << adcli::CommandHelp(*command);
  } else if (!words.empty() && !registry.Under(words[0]).empty()) {
    if (!asked) *ctx.err << "archivedepot: '" << words[0] << "' needs a subcommand\n";
    os << adcli::GroupHelp(words[0]);
  } else {
    os << adcli::GroupHelp("");
  }
  return asked ? adcli::kExitOk : adcli::kExitUsage;
}

int Dispatch(Context& ctx, const CommandLine& line) {
  auto& registry = adcli::CommandRegistry::Instance();
  if (line.help) return Help(ctx, line.words, true);
  if (line.words.empty()) return Help(ctx, line.words, false);
  if (line.words[0] == "help") return Help(ctx, {line.words.begin() + 1, line.words.end()}, true);
  size_t used = 0;
  const adcli::Command* command = registry.Find(line.words, &used);
  if (!command) {
    if (!registry.Under(line.words[0]).empty() && line.words.size() == 1) return Help(ctx, line.words, false);
    std::string name = line.words[0];
    if (!registry.Under(name).empty()) name += " " + line.words[1];
    throw adcli::UsageError("unknown command '" + name + "'");
  }
  return command->run(ctx, {line.words.begin() + static_cast<std::ptrdiff_t>(used), line.words.end()});
}

}  // namespace

int main(int argc, char** argv) {
  Context ctx;
  ctx.out = &std::cout;
  ctx.err = &std::cerr;
  ctx.programPath = ProgramPath(argc > 0 ? argv[0] : nullptr);
  try {
    CommandLine line = ParseGlobals(argc, argv);
    ctx.json = line.json;
    return Dispatch(ctx, line);
  } catch (const adcli::UsageError& e) {
    ReportError(ctx, e.what(), 0);
    *ctx.err << "Run 'archivedepot --help' for usage.\n";
    return adcli::kExitUsage;
  } catch (const adcli::MapiFailure& e) {
    ReportError(ctx, e.what(), e.Code());
    return adcli::kExitMapi;
  } catch (const std::exception& e) {
    ReportError(ctx, e.what(), E_FAIL);
    return adcli::kExitMapi;
  }
}
