// Running the archivedepot programs as child processes with their output captured, and a small
// strict JSON reader to check what they print for scripts.
#pragma once
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "test_home.h"

namespace clienttest {

struct Result {
  int code = -1;
  std::string out, err;
};

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// Runs `program` (a name in the build's bin folder) with `args`, standard output and error
// captured through files in `scratch` (a shell does the redirection).
inline Result RunProgram(const std::string& program, const std::vector<std::string>& args, const std::string& scratch) {
  std::string out = scratch + "/stdout", err = scratch + "/stderr";
  std::vector<std::string> shellArgs = {"-c", "out=$1; err=$2; shift 2; exec \"$@\" </dev/null >\"$out\" 2>\"$err\"",
                                        "sh", out, err, adtest::BinPath(program)};
  shellArgs.insert(shellArgs.end(), args.begin(), args.end());
  Result r;
  r.code = adtest::RunChild("/bin/sh", shellArgs, 60000);
  if (r.code < 0) ADD_FAILURE() << program << " did not finish";
  r.out = ReadFile(out);
  r.err = ReadFile(err);
  return r;
}

// A state directory of its own, the test store service installed, and the test provider's call
// log; Run() runs archivedepot in it.
class ClientHome {
 public:
  ClientHome() {
    setenv("ARCHIVEDEPOT_PROVIDER_PATH", AD_TEST_BIN_DIR, 1);
    setenv("ADTEST_SERVICE_LOG", ServiceLog().c_str(), 1);
  }
  ~ClientHome() {
    unsetenv("ARCHIVEDEPOT_PROVIDER_PATH");
    unsetenv("ADTEST_SERVICE_LOG");
  }
  ClientHome(const ClientHome&) = delete;
  ClientHome& operator=(const ClientHome&) = delete;

  Result Run(const std::vector<std::string>& args) const { return RunProgram("archivedepot", args, m_home.Root()); }
  // The test provider as service ADTESTSVC, the client's default service.
  void InstallTestService() const {
    Result r = Run({"service", "install", "ADTESTSVC", "--dll", "msgprovider_module.so", "--display", "Test Store"});
    ASSERT_EQ(r.code, 0) << r.err;
  }
  // A fixture file of the test's own in its state directory; returns its path.
  std::string WriteFixture(const std::string& name, const std::string& text) const {
    std::string path = m_home.Root() + "/" + name;
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    return path;
  }
  std::string ServiceLog() const { return m_home.Root() + "/service.log"; }
  std::string ServiceCalls() const { return ReadFile(ServiceLog()); }
  const adtest::TempHome& Home() const { return m_home; }

 private:
  adtest::TempHome m_home;
};

// Our provider's module; tests that log on to it end to end skip while it is not built.
inline bool ProviderModuleBuilt() {
  std::ifstream module(adtest::BinPath("ZT4MSProvider.so"));
  return module.good();
}
#define SKIP_WITHOUT_PROVIDER_MODULE()                                                   \
  do {                                                                                   \
    if (!clienttest::ProviderModuleBuilt()) GTEST_SKIP() << "ZT4MSProvider.so is not built"; \
  } while (0)

// A parsed JSON value. Parse() fails the test on anything that is not one well-formed document.
struct JsonValue {
  enum Kind { Null, Bool, Number, String, Array, Object } kind = Null;
  bool b = false;
  double number = 0;
  std::string text;
  std::vector<JsonValue> items;
  std::vector<std::pair<std::string, JsonValue>> members;

  const JsonValue* Find(const std::string& key) const {
    for (const auto& [k, v] : members) {
      if (k == key) return &v;
    }
    return nullptr;
  }
  // Member access that fails the test when it is missing.
  const JsonValue& operator[](const std::string& key) const {
    static const JsonValue missing;
    const JsonValue* v = Find(key);
    if (!v) ADD_FAILURE() << "no member " << key;
    return v ? *v : missing;
  }
};

class JsonReader {
 public:
  explicit JsonReader(const std::string& text) : m_s(text) {}

  bool Parse(JsonValue* out) {
    if (!Value(out)) return false;
    Space();
    return m_i == m_s.size();
  }

 private:
  void Space() {
    while (m_i < m_s.size() && (m_s[m_i] == ' ' || m_s[m_i] == '\n' || m_s[m_i] == '\t' || m_s[m_i] == '\r')) ++m_i;
  }
  bool Literal(const char* word) {
    std::string w = word;
    if (m_s.compare(m_i, w.size(), w) != 0) return false;
    m_i += w.size();
    return true;
  }
  bool Value(JsonValue* v) {
    Space();
    if (m_i >= m_s.size()) return false;
    char c = m_s[m_i];
    if (c == '{') return ObjectValue(v);
    if (c == '[') return ArrayValue(v);
    if (c == '"') return v->kind = JsonValue::String, StringValue(&v->text);
    if (Literal("true")) return v->kind = JsonValue::Bool, v->b = true, true;
    if (Literal("false")) return v->kind = JsonValue::Bool, v->b = false, true;
    if (Literal("null")) return v->kind = JsonValue::Null, true;
    return NumberValue(v);
  }
  bool NumberValue(JsonValue* v) {
    size_t start = m_i;
    if (m_i < m_s.size() && m_s[m_i] == '-') ++m_i;
    while (m_i < m_s.size() && std::string("0123456789.eE+-").find(m_s[m_i]) != std::string::npos) ++m_i;
    if (m_i == start) return false;
    v->kind = JsonValue::Number;
    char* end = nullptr;
    std::string digits = m_s.substr(start, m_i - start);
    v->number = std::strtod(digits.c_str(), &end);
    return end && *end == '\0';
  }
  bool StringValue(std::string* out) {
    ++m_i;
    while (m_i < m_s.size()) {
      unsigned char c = static_cast<unsigned char>(m_s[m_i++]);
      if (c == '"') return true;
      if (c < 0x20) return false;  // control characters must be escaped
      if (c != '\\') {
        out->push_back(static_cast<char>(c));
        continue;
      }
      if (m_i >= m_s.size()) return false;
      char e = m_s[m_i++];
      const std::string simple = "\"\\/bfnrt", meaning = "\"\\/\b\f\n\r\t";
      size_t k = simple.find(e);
      if (k != std::string::npos) {
        out->push_back(meaning[k]);
      } else if (e == 'u' && m_i + 4 <= m_s.size()) {
        unsigned code = std::stoul(m_s.substr(m_i, 4), nullptr, 16);
        m_i += 4;
        if (code < 0x80) {
          out->push_back(static_cast<char>(code));
        } else {
          out->append("\\u" + std::to_string(code));  // enough to compare in tests
        }
      } else {
        return false;
      }
    }
    return false;
  }
  bool ArrayValue(JsonValue* v) {
    v->kind = JsonValue::Array;
    ++m_i;
    Space();
    if (m_i < m_s.size() && m_s[m_i] == ']') return ++m_i, true;
    for (;;) {
      JsonValue item;
      if (!Value(&item)) return false;
      v->items.push_back(std::move(item));
      Space();
      if (m_i >= m_s.size()) return false;
      if (m_s[m_i] == ']') return ++m_i, true;
      if (m_s[m_i++] != ',') return false;
    }
  }
  bool ObjectValue(JsonValue* v) {
    v->kind = JsonValue::Object;
    ++m_i;
    Space();
    if (m_i < m_s.size() && m_s[m_i] == '}') return ++m_i, true;
    for (;;) {
      Space();
      std::string key;
      if (m_i >= m_s.size() || m_s[m_i] != '"' || !StringValue(&key)) return false;
      Space();
      if (m_i >= m_s.size() || m_s[m_i++] != ':') return false;
      JsonValue item;
      if (!Value(&item)) return false;
      v->members.emplace_back(std::move(key), std::move(item));
      Space();
      if (m_i >= m_s.size()) return false;
      if (m_s[m_i] == '}') return ++m_i, true;
      if (m_s[m_i++] != ',') return false;
    }
  }

  const std::string& m_s;
  size_t m_i = 0;
};

inline JsonValue ParseJson(const std::string& text) {
  JsonValue v;
  EXPECT_TRUE(JsonReader(text).Parse(&v)) << "not one well-formed JSON document:\n" << text;
  return v;
}

inline bool Contains(const std::string& haystack, const std::string& needle) {
  return haystack.find(needle) != std::string::npos;
}

}  // namespace clienttest
