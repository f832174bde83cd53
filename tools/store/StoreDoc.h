// A small document tree that the inspection tool fills once and prints either as indented text
// for people or as JSON for scripts.
#pragma once
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace storetool {

class Doc {
 public:
  enum Type { Null, Bool, Int, UInt, Real, String, Array, Object };

  Doc() = default;
  static Doc MakeObject() { return Doc(Object); }
  static Doc MakeArray() { return Doc(Array); }
  static Doc Str(std::string s) {
    Doc d(String);
    d.m_str = std::move(s);
    return d;
  }
  static Doc Num(int64_t v) {
    Doc d(Int);
    d.m_int = v;
    return d;
  }
  static Doc UNum(uint64_t v) {
    Doc d(UInt);
    d.m_uint = v;
    return d;
  }
  static Doc Dbl(double v) {
    Doc d(Real);
    d.m_real = v;
    return d;
  }
  static Doc Boolean(bool v) {
    Doc d(Bool);
    d.m_bool = v;
    return d;
  }
  // An unsigned number shown as 0x%08X in text and as a number in JSON.
  static Doc Hex(uint32_t v) {
    Doc d = UNum(v);
    d.m_hex = true;
    return d;
  }

  // Object members keep their order; Set appends.
  Doc& Set(const std::string& key, Doc value);
  Doc& Push(Doc value);
  Type GetType() const { return m_type; }
  const std::vector<std::pair<std::string, Doc>>& Members() const { return m_members; }
  const std::vector<Doc>& Items() const { return m_items; }
  size_t Size() const { return m_type == Array ? m_items.size() : m_members.size(); }

  std::string ToJson() const;
  std::string ToText() const;

 private:
  explicit Doc(Type t) : m_type(t) {}
  void JsonTo(std::string& out) const;
  void TextTo(std::string& out, int indent) const;
  std::string ScalarText() const;
  bool IsScalar() const { return m_type != Array && m_type != Object; }

  Type m_type = Null;
  bool m_bool = false;
  bool m_hex = false;
  int64_t m_int = 0;
  uint64_t m_uint = 0;
  double m_real = 0;
  std::string m_str;
  std::vector<Doc> m_items;
  std::vector<std::pair<std::string, Doc>> m_members;
};

// JSON string literal of UTF-8 text; bytes that are not UTF-8 are taken as Latin-1.
std::string JsonQuote(const std::string& s);
// UTF-16LE bytes as UTF-8; unpaired surrogates become U+FFFD.
std::string Utf16ToUtf8(const uint8_t* p, size_t cb);
// Lower-case hex of the bytes.
std::string HexBytes(const uint8_t* p, size_t cb);

}  // namespace storetool
