// Options of one command: "--name VALUE", "--name=VALUE", flags, and positional arguments; "--"
// ends the options. Anything else is a UsageError that names the command.
#pragma once
#include <map>
#include <string>
#include <vector>

namespace adcli {

struct OptionDef {
  std::string name;  // without the dashes
  bool takesValue = false;
  bool repeatable = false;
};

class Args {
 public:
  Args(const std::string& command, const std::vector<std::string>& args, const std::vector<OptionDef>& defs,
       size_t maxPositionals);

  bool Has(const std::string& name) const { return m_values.count(name) != 0; }
  // The option's (last) value, or `fallback` when absent.
  std::string Value(const std::string& name, const std::string& fallback = std::string()) const;
  std::vector<std::string> Values(const std::string& name) const;
  const std::vector<std::string>& Positionals() const { return m_positionals; }
  std::string Positional(size_t i, const std::string& fallback = std::string()) const;

 private:
  std::map<std::string, std::vector<std::string>> m_values;
  std::vector<std::string> m_positionals;
};

}  // namespace adcli
