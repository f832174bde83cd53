// What commands print: a small JSON document model with a well-formed writer (escapes, invalid
// UTF-8 replaced), property values rendered as text or JSON by tag name, and HRESULT names.
#pragma once
#include <cstdint>
#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

#include "mapidefs.h"

namespace adcli {

class Json {
 public:
  enum class Kind { Null, Bool, Number, String, Array, Object };

  Json() = default;
  static Json Str(const std::string& text);
  static Json Int(int64_t value);
  static Json Real(double value);
  static Json Boolean(bool value);
  static Json Array();
  static Json Object();

  Kind GetKind() const { return m_kind; }
  // Arrays: appends. Objects: sets a member (members keep their order).
  Json& Push(Json value);
  Json& Set(const std::string& key, Json value);

  // Pretty-printed with two-space indentation, ending in a newline.
  std::string Dump() const;

 private:
  void Write(std::string& out, int depth) const;

  Kind m_kind = Kind::Null;
  bool m_bool = false;
  std::string m_text;  // a string's text, or a number already formatted
  std::vector<Json> m_items;
  std::vector<std::pair<std::string, Json>> m_members;
};

// Text as a JSON string literal, with quotes.
std::string JsonQuote(const std::string& text);

// "MAPI_E_NOT_FOUND" and friends; nullptr when the code has no known name.
const char* HResultName(HRESULT hr);
// "0x8004010F MAPI_E_NOT_FOUND", or just the hex form.
std::string HResultText(HRESULT hr);

// The tag's standard name, else "0x%08X".
std::string TagName(ULONG ulPropTag);
// A property value for people and for scripts.
std::string ValueText(const SPropValue& value);
Json ValueJson(const SPropValue& value);

std::string HexBytes(const BYTE* data, size_t cb);

// A property array as a JSON object by tag name, and as aligned "NAME  value" lines.
Json PropsJson(const SPropValue* values, ULONG count);
void PrintProps(std::ostream& out, const SPropValue* values, ULONG count);

}  // namespace adcli
