#include "StoreDoc.h"

#include <adplatform.h>

#include <cinttypes>
#include <cmath>
#include <cstdio>

namespace storetool {

Doc& Doc::Set(const std::string& key, Doc value) {
  m_members.emplace_back(key, std::move(value));
  return m_members.back().second;
}

Doc& Doc::Push(Doc value) {
  m_items.push_back(std::move(value));
  return m_items.back();
}

namespace {

// Length of a well-formed UTF-8 sequence at s[i], 0 when it is not one.
size_t Utf8SequenceLength(const std::string& s, size_t i) {
  unsigned char c = static_cast<unsigned char>(s[i]);
  size_t n = c >= 0xF0 && c <= 0xF4 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 && c < 0xE0 ? 2 : 0;
  if (n == 0 || i + n > s.size()) return 0;
  uint32_t cp = c & (n == 2 ? 0x1F : n == 3 ? 0x0F : 0x07);
  for (size_t k = 1; k < n; ++k) {
    unsigned char cc = static_cast<unsigned char>(s[i + k]);
    if ((cc & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (cc & 0x3F);
  }
  bool overlong = (n == 3 && cp < 0x800) || (n == 4 && cp < 0x10000);
  if (overlong || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return n;
}

}  // namespace

std::string JsonQuote(const std::string& s) {
  std::string out = "\"";
  for (size_t i = 0; i < s.size();) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (c >= 0x80) {
      size_t n = Utf8SequenceLength(s, i);
      if (n) {
        out.append(s, i, n);
        i += n;
      } else {
        // Latin-1: two UTF-8 bytes.
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
        ++i;
      }
      continue;
    }
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20 || c == 0x7F) {
          char buf[8];
          snprintf(buf, sizeof(buf), "\\u%04x", c);
          out += buf;
        } else {
          out += static_cast<char>(c);
        }
    }
    ++i;
  }
  out += '"';
  return out;
}

std::string Utf16ToUtf8(const uint8_t* p, size_t cb) {
  // Little-endian units, read bytewise: the field need not be aligned.
  std::u16string units(cb / 2, u'\0');
  for (size_t i = 0; i < units.size(); ++i) units[i] = static_cast<char16_t>(p[2 * i] | (p[2 * i + 1] << 8));
  return adp::Utf16ToUtf8(units.data(), units.size());
}

std::string HexBytes(const uint8_t* p, size_t cb) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(cb * 2);
  for (size_t i = 0; i < cb; ++i) {
    out += kDigits[p[i] >> 4];
    out += kDigits[p[i] & 15];
  }
  return out;
}

std::string Doc::ScalarText() const {
  char buf[64];
  switch (m_type) {
    case Null: return "null";
    case Bool: return m_bool ? "true" : "false";
    case Int: snprintf(buf, sizeof(buf), "%" PRId64, m_int); return buf;
    case UInt:
      snprintf(buf, sizeof(buf), m_hex ? "0x%08" PRIX64 : "%" PRIu64, m_uint);
      return buf;
    case Real:
      if (!std::isfinite(m_real)) return "null";  // JSON has no NaN or infinity
      snprintf(buf, sizeof(buf), "%.17g", m_real);
      return buf;
    case String: return JsonQuote(m_str);
    default: return "";
  }
}

void Doc::JsonTo(std::string& out) const {
  if (m_type == Array) {
    out += '[';
    for (size_t i = 0; i < m_items.size(); ++i) {
      if (i) out += ',';
      m_items[i].JsonTo(out);
    }
    out += ']';
  } else if (m_type == Object) {
    out += '{';
    for (size_t i = 0; i < m_members.size(); ++i) {
      if (i) out += ',';
      out += JsonQuote(m_members[i].first);
      out += ':';
      m_members[i].second.JsonTo(out);
    }
    out += '}';
  } else if (m_type == UInt && m_hex) {
    out += std::to_string(m_uint);
  } else {
    out += ScalarText();
  }
}

std::string Doc::ToJson() const {
  std::string out;
  JsonTo(out);
  out += '\n';
  return out;
}

void Doc::TextTo(std::string& out, int indent) const {
  std::string pad(static_cast<size_t>(indent), ' ');
  if (m_type == Object) {
    for (const auto& [key, value] : m_members) {
      out += pad + key + ":";
      if (value.IsScalar()) {
        out += " " + value.ScalarText() + "\n";
      } else if (value.Size() == 0) {
        out += value.m_type == Array ? " []\n" : " {}\n";
      } else {
        out += "\n";
        value.TextTo(out, indent + 2);
      }
    }
  } else if (m_type == Array) {
    for (const Doc& item : m_items) {
      if (item.IsScalar()) {
        out += pad + "- " + item.ScalarText() + "\n";
      } else {
        out += pad + "-\n";
        item.TextTo(out, indent + 2);
      }
    }
  } else {
    out += pad + ScalarText() + "\n";
  }
}

std::string Doc::ToText() const {
  std::string out;
  TextTo(out, 0);
  return out;
}

}  // namespace storetool
