// Initialization (INI) files. The file is kept as its lines: a call changes only the lines it
// must, so comments, order, spelling and line ends of the rest survive. Writes go through
// LockedRewrite (flock on the file + atomic replace), so concurrent writers in several processes
// serialize and readers always see a whole file.
#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "adplatform.h"
#include "win32/fsutil.h"

namespace adp {
namespace {

std::string Trim(const std::string& s) {
  size_t begin = s.find_first_not_of(" \t");
  if (begin == std::string::npos) return std::string();
  size_t end = s.find_last_not_of(" \t");
  return s.substr(begin, end - begin + 1);
}

bool HeaderName(const std::string& line, std::string& name) {
  std::string t = Trim(line);
  if (t.empty() || t[0] != '[') return false;
  size_t close = t.find(']');
  name = Trim(t.substr(1, close == std::string::npos ? std::string::npos : close - 1));
  return true;
}

bool Entry(const std::string& line, std::string& key, std::string& value) {
  std::string t = Trim(line);
  if (t.empty() || t[0] == ';' || t[0] == '[') return false;
  size_t eq = t.find('=');
  if (eq == std::string::npos) return false;
  key = Trim(t.substr(0, eq));
  value = Trim(t.substr(eq + 1));
  return !key.empty();
}

// One pair of matching quotes around a value is not part of it.
std::string Unquote(const std::string& value) {
  if (value.size() >= 2 && (value[0] == '"' || value[0] == '\'') && value.back() == value[0])
    return value.substr(1, value.size() - 2);
  return value;
}

class IniText {
 public:
  explicit IniText(const std::string& text) {
    std::string body = text;
    if (body.compare(0, 3, "\xEF\xBB\xBF") == 0) {
      m_bom = true;
      body.erase(0, 3);
    }
    size_t firstNewline = body.find('\n');
    if (firstNewline != std::string::npos && (firstNewline == 0 || body[firstNewline - 1] != '\r')) m_crlf = false;
    size_t start = 0;
    while (start < body.size()) {
      size_t end = body.find('\n', start);
      std::string line = body.substr(start, end == std::string::npos ? std::string::npos : end - start);
      if (!line.empty() && line.back() == '\r') line.pop_back();
      m_lines.push_back(line);
      if (end == std::string::npos) break;
      start = end + 1;
    }
  }

  std::string Text() const {
    std::string out = m_bom ? "\xEF\xBB\xBF" : "";
    for (const auto& line : m_lines) {
      out += line;
      if (m_crlf) out += '\r';
      out += '\n';
    }
    return out;
  }

  // Index of the section's header line, or -1.
  int Section(const std::string& section) const {
    std::string name;
    for (size_t i = 0; i < m_lines.size(); ++i) {
      if (HeaderName(m_lines[i], name) && EqualsNoCase(name, section)) return static_cast<int>(i);
    }
    return -1;
  }

  // One past the last line of the section that starts at `header`.
  size_t SectionEnd(int header) const {
    std::string name;
    size_t i = static_cast<size_t>(header) + 1;
    while (i < m_lines.size() && !HeaderName(m_lines[i], name)) ++i;
    return i;
  }

  // Index of the key's first line in the section, or -1.
  int Key(int header, const std::string& key) const {
    std::string k, v;
    for (size_t i = static_cast<size_t>(header) + 1; i < SectionEnd(header); ++i) {
      if (Entry(m_lines[i], k, v) && EqualsNoCase(k, key)) return static_cast<int>(i);
    }
    return -1;
  }

  bool Value(const std::string& section, const std::string& key, std::string& value) const {
    int header = Section(section);
    int line = header < 0 ? -1 : Key(header, key);
    std::string k;
    if (line < 0 || !Entry(m_lines[static_cast<size_t>(line)], k, value)) return false;
    value = Unquote(value);
    return true;
  }

  std::vector<std::string> SectionNames() const {
    std::vector<std::string> names;
    std::string name;
    for (const auto& line : m_lines) {
      if (HeaderName(line, name)) names.push_back(name);
    }
    return names;
  }

  // "key" or "key=value" for each entry of the section.
  std::vector<std::string> Entries(const std::string& section, bool withValues) const {
    std::vector<std::string> out;
    int header = Section(section);
    if (header < 0) return out;
    std::string k, v;
    for (size_t i = static_cast<size_t>(header) + 1; i < SectionEnd(header); ++i) {
      if (Entry(m_lines[i], k, v)) out.push_back(withValues ? k + "=" + v : k);
    }
    return out;
  }

  void Set(const std::string& section, const std::string& key, const std::string& value) {
    int header = Section(section);
    if (header < 0) {
      m_lines.push_back("[" + section + "]");
      m_lines.push_back(key + "=" + value);
      return;
    }
    int line = Key(header, key);
    std::string k, v;
    if (line >= 0 && Entry(m_lines[static_cast<size_t>(line)], k, v)) {
      m_lines[static_cast<size_t>(line)] = k + "=" + value;  // the key keeps its spelling
      return;
    }
    m_lines.insert(m_lines.begin() + static_cast<long>(AfterLastContent(header)), key + "=" + value);
  }

  bool DeleteKey(const std::string& section, const std::string& key) {
    int header = Section(section);
    int line = header < 0 ? -1 : Key(header, key);
    if (line < 0) return false;
    m_lines.erase(m_lines.begin() + line);
    return true;
  }

  bool DeleteSection(const std::string& section) {
    int header = Section(section);
    if (header < 0) return false;
    m_lines.erase(m_lines.begin() + header, m_lines.begin() + static_cast<long>(SectionEnd(header)));
    return true;
  }

  // Everything under the header becomes `lines`; blank lines before the next section stay.
  void ReplaceSection(const std::string& section, const std::vector<std::string>& lines) {
    int header = Section(section);
    if (header < 0) {
      m_lines.push_back("[" + section + "]");
      m_lines.insert(m_lines.end(), lines.begin(), lines.end());
      return;
    }
    auto first = m_lines.begin() + header + 1;
    auto last = m_lines.begin() + static_cast<long>(AfterLastContent(header));
    m_lines.insert(m_lines.erase(first, last), lines.begin(), lines.end());
  }

 private:
  // Where a new line of the section goes: after its last non-blank line.
  size_t AfterLastContent(int header) const {
    size_t at = static_cast<size_t>(header) + 1;
    for (size_t i = at; i < SectionEnd(header); ++i) {
      if (!Trim(m_lines[i]).empty()) at = i + 1;
    }
    return at;
  }

  std::vector<std::string> m_lines;
  bool m_crlf = true;  // new files get the Windows line end
  bool m_bom = false;
};

// A bare file name lives in the Windows folder; anything with a folder in it is used as is.
std::string ProfilePath(const char* fileName) {
  std::string native = NativePath(fileName);
  if (native.find('/') != std::string::npos) return native;
  return WindowsDirectory() + "/" + native;
}

// Reads the file; a missing file reads as empty and sets ERROR_FILE_NOT_FOUND.
IniText ReadProfile(const char* fileName, bool& found) {
  std::string text;
  found = ReadWholeFile(ProfilePath(fileName), text) == ERROR_SUCCESS;
  return IniText(found ? text : std::string());
}

DWORD CopyString(const std::string& s, LPSTR buffer, DWORD size) {
  size_t n = std::min<size_t>(s.size(), size - 1);
  std::memcpy(buffer, s.data(), n);
  buffer[n] = '\0';
  return static_cast<DWORD>(n);
}

// A double-NUL-terminated list; a list that does not fit is cut and closed by two NULs, and the
// result is then size - 2, as published.
DWORD CopyList(const std::vector<std::string>& items, LPSTR buffer, DWORD size) {
  std::string joined;
  for (const auto& item : items) joined += item + '\0';
  if (joined.size() + 1 <= size) {
    std::memcpy(buffer, joined.data(), joined.size());
    buffer[joined.size()] = '\0';
    if (joined.empty() && size >= 2) buffer[1] = '\0';
    return static_cast<DWORD>(joined.size());
  }
  if (size < 2) {
    buffer[0] = '\0';
    return 0;
  }
  std::memcpy(buffer, joined.data(), size - 2);
  buffer[size - 2] = '\0';
  buffer[size - 1] = '\0';
  return size - 2;
}

// Applies `edit` to the file under its lock and writes it back when it changed.
BOOL EditProfile(const char* fileName, bool create, const std::function<bool(IniText&)>& edit) {
  std::string path = ProfilePath(fileName);  // the Windows folder is created when asked for
  LockedRewrite file;
  DWORD err = file.Open(path, create);
  if (!create && (err == ERROR_FILE_NOT_FOUND || err == ERROR_PATH_NOT_FOUND)) return TRUE;  // nothing to delete
  if (err == ERROR_SUCCESS) {
    IniText ini(file.Text());
    if (edit(ini)) err = file.Replace(ini.Text(), false);
  }
  if (err == ERROR_SUCCESS) return TRUE;
  ::SetLastError(err);
  return FALSE;
}

// GetPrivateProfileIntA's reading: optional sign, then decimal or 0x hexadecimal digits; what
// follows the digits is ignored.
INT ParseProfileInt(const std::string& text) {
  const char* p = text.c_str();
  bool negative = *p == '-';
  if (*p == '-' || *p == '+') ++p;
  int base = 10;
  if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
    base = 16;
    p += 2;
  }
  uint32_t value = 0;
  for (;; ++p) {
    int digit = *p >= '0' && *p <= '9'                ? *p - '0'
                : base == 16 && *p >= 'a' && *p <= 'f' ? *p - 'a' + 10
                : base == 16 && *p >= 'A' && *p <= 'F' ? *p - 'A' + 10
                                                       : -1;
    if (digit < 0) break;
    value = value * static_cast<uint32_t>(base) + static_cast<uint32_t>(digit);
  }
  return static_cast<INT>(negative ? 0u - value : value);
}

}  // namespace
}  // namespace adp

extern "C" {

DWORD GetPrivateProfileStringA(LPCSTR lpAppName, LPCSTR lpKeyName, LPCSTR lpDefault, LPSTR lpReturnedString,
                               DWORD nSize, LPCSTR lpFileName) {
  if (lpFileName == nullptr || lpReturnedString == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  if (nSize == 0) return 0;
  bool found = false;
  adp::IniText ini = adp::ReadProfile(lpFileName, found);
  SetLastError(found ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND);
  if (lpAppName == nullptr) return adp::CopyList(ini.SectionNames(), lpReturnedString, nSize);
  if (lpKeyName == nullptr) return adp::CopyList(ini.Entries(lpAppName, false), lpReturnedString, nSize);
  std::string value;
  if (ini.Value(lpAppName, lpKeyName, value)) return adp::CopyString(value, lpReturnedString, nSize);
  SetLastError(ERROR_FILE_NOT_FOUND);
  std::string fallback = lpDefault ? lpDefault : "";
  fallback.erase(fallback.find_last_not_of(' ') + 1);  // a default loses its trailing blanks
  return adp::CopyString(fallback, lpReturnedString, nSize);
}

BOOL WritePrivateProfileStringA(LPCSTR lpAppName, LPCSTR lpKeyName, LPCSTR lpString, LPCSTR lpFileName) {
  if (!lpAppName && !lpKeyName && !lpString) {
    SetLastError(ERROR_SUCCESS);  // the flush call: every write is already in the file
    return FALSE;
  }
  if (lpFileName == nullptr || lpAppName == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  std::string section = lpAppName;
  if (lpKeyName == nullptr)
    return adp::EditProfile(lpFileName, false, [&](adp::IniText& ini) { return ini.DeleteSection(section); });
  std::string key = lpKeyName;
  if (lpString == nullptr)
    return adp::EditProfile(lpFileName, false, [&](adp::IniText& ini) { return ini.DeleteKey(section, key); });
  std::string value = lpString;
  return adp::EditProfile(lpFileName, true, [&](adp::IniText& ini) {
    ini.Set(section, key, value);
    return true;
  });
}

UINT GetPrivateProfileIntA(LPCSTR lpAppName, LPCSTR lpKeyName, INT nDefault, LPCSTR lpFileName) {
  if (lpFileName == nullptr || lpAppName == nullptr || lpKeyName == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return static_cast<UINT>(nDefault);
  }
  bool found = false;
  adp::IniText ini = adp::ReadProfile(lpFileName, found);
  std::string value;
  if (!ini.Value(lpAppName, lpKeyName, value)) {
    SetLastError(ERROR_FILE_NOT_FOUND);
    return static_cast<UINT>(nDefault);
  }
  SetLastError(ERROR_SUCCESS);
  return static_cast<UINT>(adp::ParseProfileInt(value));
}

DWORD GetPrivateProfileSectionA(LPCSTR lpAppName, LPSTR lpReturnedString, DWORD nSize, LPCSTR lpFileName) {
  if (lpAppName == nullptr || lpFileName == nullptr || lpReturnedString == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  if (nSize == 0) return 0;
  bool found = false;
  adp::IniText ini = adp::ReadProfile(lpFileName, found);
  SetLastError(found ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND);
  return adp::CopyList(ini.Entries(lpAppName, true), lpReturnedString, nSize);
}

DWORD GetPrivateProfileSectionNamesA(LPSTR lpszReturnBuffer, DWORD nSize, LPCSTR lpFileName) {
  return GetPrivateProfileStringA(nullptr, nullptr, nullptr, lpszReturnBuffer, nSize, lpFileName);
}

BOOL WritePrivateProfileSectionA(LPCSTR lpAppName, LPCSTR lpString, LPCSTR lpFileName) {
  if (lpAppName == nullptr || lpFileName == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  std::string section = lpAppName;
  if (lpString == nullptr)
    return adp::EditProfile(lpFileName, false, [&](adp::IniText& ini) { return ini.DeleteSection(section); });
  std::vector<std::string> lines;
  for (const char* p = lpString; *p; p += std::strlen(p) + 1) lines.emplace_back(p);
  return adp::EditProfile(lpFileName, true, [&](adp::IniText& ini) {
    ini.ReplaceSection(section, lines);
    return true;
  });
}

}  // extern "C"
