#include "args.h"

#include "commands.h"

namespace adcli {
namespace {

const OptionDef* FindDef(const std::vector<OptionDef>& defs, const std::string& name) {
  for (const auto& s : defs) {
    if (s.name == name) return &s;
  }
  return nullptr;
}

}  // namespace

Args::Args(const std::string& command, const std::vector<std::string>& args, const std::vector<OptionDef>& defs,
           size_t maxPositionals) {
  bool optionsEnded = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (optionsEnded || a.size() < 2 || a.compare(0, 2, "--") != 0) {
      if (m_positionals.size() >= maxPositionals) {
        throw UsageError("'" + command + "' does not take the argument '" + a + "'");
      }
      m_positionals.push_back(a);
      continue;
    }
    if (a == "--") {
      optionsEnded = true;
      continue;
    }
    std::string name = a.substr(2), value;
    size_t eq = name.find('=');
    bool inlineValue = eq != std::string::npos;
    if (inlineValue) {
      value = name.substr(eq + 1);
      name.resize(eq);
    }
    const OptionDef* def = FindDef(defs, name);
    if (!def) throw UsageError("'" + command + "' has no option --" + name);
    if (def->takesValue && !inlineValue) {
      if (i + 1 >= args.size()) throw UsageError("--" + name + " needs a value");
      value = args[++i];
    } else if (!def->takesValue && inlineValue) {
      throw UsageError("--" + name + " takes no value");
    }
    auto& slot = m_values[name];
    if (!slot.empty() && !def->repeatable) throw UsageError("--" + name + " is given more than once");
    slot.push_back(value);
  }
}

std::string Args::Value(const std::string& name, const std::string& fallback) const {
  auto it = m_values.find(name);
  return it == m_values.end() || it->second.empty() ? fallback : it->second.back();
}

std::vector<std::string> Args::Values(const std::string& name) const {
  auto it = m_values.find(name);
  return it == m_values.end() ? std::vector<std::string>() : it->second;
}

std::string Args::Positional(size_t i, const std::string& fallback) const {
  return i < m_positionals.size() ? m_positionals[i] : fallback;
}

}  // namespace adcli
