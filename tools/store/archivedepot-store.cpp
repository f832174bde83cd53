// archivedepot-store: looks at a store file (.CST) as it stands on disk, for support engineers.
//   dump FILE [--json]   everything the file holds, decoded
//   check FILE [--json]  inconsistencies, told apart into those the format makes on purpose and
//                        damage; exit 0 when there is no damage, 1 when there is, 2 when the file
//                        can't be read or is no store file
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "StoreModel.h"
#include "StoreReport.h"

namespace {

constexpr int EXIT_DAMAGED = 1;
constexpr int EXIT_USAGE = 2;

const char kUsage[] =
    "usage: archivedepot-store dump FILE [--json]\n"
    "       archivedepot-store check FILE [--json]\n"
    "\n"
    "  dump   prints the store file as it stands on disk: header, free-node header, free pool,\n"
    "         index, every record's field chains and their decoded contents\n"
    "  check  reports inconsistencies; those the format produces on purpose are marked\n"
    "         'expected'. Exit status: 0 no damage, 1 damage found, 2 usage error or a file\n"
    "         that can't be read or is no store file\n";

int Usage(const std::string& message) {
  if (!message.empty()) std::cerr << "archivedepot-store: " << message << "\n";
  std::cerr << kUsage;
  return EXIT_USAGE;
}

int Run(const std::vector<std::string>& args) {
  if (args.size() == 1 && (args[0] == "--help" || args[0] == "-h")) {
    std::cout << kUsage;
    return 0;
  }
  if (args.empty()) return Usage("");
  const std::string& command = args[0];
  if (command != "dump" && command != "check") return Usage("unknown command '" + command + "'");
  std::string path;
  bool fJson = false;
  for (size_t i = 1; i < args.size(); ++i) {
    if (args[i] == "--json")
      fJson = true;
    else if (!args[i].empty() && args[i][0] == '-' && args[i] != "-")
      return Usage("unknown option '" + args[i] + "'");
    else if (path.empty())
      path = args[i];
    else
      return Usage("more than one file given");
  }
  if (path.empty()) return Usage("no file given");

  storetool::StoreModel model;
  std::string error;
  if (!storetool::AnalyzeStore(path, &model, &error)) {
    std::cerr << "archivedepot-store: " << error << "\n";
    return EXIT_USAGE;
  }
  if (command == "dump") {
    storetool::Doc doc = storetool::BuildDump(model);
    std::cout << (fJson ? doc.ToJson() : doc.ToText());
    return 0;
  }
  std::cout << (fJson ? storetool::BuildCheck(model).ToJson() : storetool::CheckText(model));
  return model.Count(storetool::Severity::Damage) ? EXIT_DAMAGED : 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const std::bad_alloc&) {
    std::cerr << "archivedepot-store: out of memory\n";
  } catch (const std::exception& e) {
    std::cerr << "archivedepot-store: " << e.what() << "\n";
  }
  return EXIT_USAGE;
}
