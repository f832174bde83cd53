// Fixture format of the scriptable archive (UTF-8 text, one setting a line):
//
//   # comment (a line whose first non-blank character is '#'); blank lines are ignored
//   [provider]            switches and answers of IZT4DataProvider
//   [config]              values of IZT4ProviderConfig
//   [failures]            Operation = HRESULT (0x... or decimal) that the operation returns
//   [user <LegacyDN>]     UserName, DisplayName, SmtpAddress for QueryUserDetails
//   [folder <a/b/c>]      a folder by path (parents are created); ConversationLimit, RemoveResult
//   [message]             a record of the last [folder]: every IZT4ArchiveMessage property by name
//   [attachment]          an attachment of the last [message]
//
// Settings are "Key = Value". Values are trimmed; \n \r \t \\ are escapes. Lists (Keywords,
// DefaultFolderNames) separate items with '|'. Booleans are true/false/yes/no/1/0. Attachment
// Data is hex; Size alone generates that many deterministic bytes. Any error names the line.
#include "ScriptFixture.h"

#include <charconv>
#include <fstream>
#include <set>
#include <sstream>

namespace scriptarchive {
namespace {

const std::set<std::string> kProviderSwitches = {
    "IsLoggedIn",   "IsCachedMode",  "IsFirstSyncDue",          "IsShuttingDown",        "IsConversationViewEnabled",
    "IsSearchReady", "ConfigurationAvailable", "IsConversationDataAvailable"};
const std::set<std::string> kProviderValues = {"LastProviderError", "RegisterMailboxResult"};
const std::set<std::string> kConfigValues = {"LogLevel", "MaxListCount",        "MaxSearchCount",
                                             "LogSize",  "MaxFiles",            "SyncIntervalMinutes",
                                             "UseLocalizedFolderNames"};
const std::set<std::string> kConfigTexts = {"LogFileName", "FolderHomePageUrl"};
const std::set<std::string> kMessageTexts = {
    "UniqueId",  "SenderName",        "DisplayTo",   "DisplayCc",    "DisplayBcc",     "ToList",
    "CcList",    "BccList",           "Subject",     "NormalizedSubject", "SenderEmail", "Size",
    "Priority",  "Importance",        "Sensitivity", "ReceivedTime", "Body",           "MetaData",
    "OrigPathInfo", "StubInfo",       "ConversationTopic", "ConversationIndex", "TransportHeaders",
    "MessageClass"};
const std::set<std::string> kDecimalTexts = {"Size", "Priority", "Importance", "Sensitivity", "ReceivedTime"};
const std::set<std::string> kAttachmentTexts = {"FileName", "Text", "MimeTag", "ContentId", "RecordKey"};
constexpr size_t kMaxUniqueId = 104;

struct ParseError {
  std::string reason;
};

std::string Trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r");
  if (b == std::string::npos) return {};
  size_t e = s.find_last_not_of(" \t\r");
  return s.substr(b, e - b + 1);
}

std::string Unescape(const std::string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] != '\\' || i + 1 == s.size()) {
      out += s[i];
      continue;
    }
    char c = s[++i];
    switch (c) {
      case 'n': out += '\n'; break;
      case 'r': out += '\r'; break;
      case 't': out += '\t'; break;
      case '\\': out += '\\'; break;
      default: throw ParseError{std::string("unknown escape \\") + c};
    }
  }
  return out;
}

bool ParseBool(const std::string& v) {
  if (v == "true" || v == "yes" || v == "1") return true;
  if (v == "false" || v == "no" || v == "0") return false;
  throw ParseError{"not a boolean: '" + v + "'"};
}

long ParseLong(const std::string& v) {
  bool hex = v.size() > 2 && v[0] == '0' && (v[1] == 'x' || v[1] == 'X');
  if (hex) {
    uint32_t u = 0;
    auto [p, ec] = std::from_chars(v.data() + 2, v.data() + v.size(), u, 16);
    if (ec != std::errc() || p != v.data() + v.size()) throw ParseError{"not a number: '" + v + "'"};
    return static_cast<long>(static_cast<int32_t>(u));
  }
  long n = 0;
  auto [p, ec] = std::from_chars(v.data(), v.data() + v.size(), n, 10);
  if (v.empty() || ec != std::errc() || p != v.data() + v.size()) throw ParseError{"not a number: '" + v + "'"};
  return n;
}

std::vector<std::string> SplitList(const std::string& v) {
  std::vector<std::string> items;
  std::string item;
  std::istringstream in(v);
  while (std::getline(in, item, '|')) items.push_back(Trim(item));
  return items;
}

std::vector<uint8_t> ParseHex(const std::string& v) {
  if (v.size() % 2) throw ParseError{"hex data has an odd number of digits"};
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i < v.size(); i += 2) {
    uint8_t b = 0;
    auto [p, ec] = std::from_chars(v.data() + i, v.data() + i + 2, b, 16);
    if (ec != std::errc() || p != v.data() + i + 2) throw ParseError{"not hex data: '" + v + "'"};
    bytes.push_back(b);
  }
  return bytes;
}

// Deterministic filler so a size-only attachment has stable, checkable content.
std::vector<uint8_t> GeneratedBytes(long size) {
  if (size < 0 || size > (64 << 20)) throw ParseError{"attachment Size out of range"};
  std::vector<uint8_t> bytes(static_cast<size_t>(size));
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>((i * 31 + 7) & 0xFF);
  return bytes;
}

class Parser {
 public:
  explicit Parser(Fixture& f) : m_f(f) {}

  void Line(const std::string& raw, int number) {
    m_line = number;
    std::string line = Trim(raw);
    if (line.empty() || line[0] == '#') return;
    if (line[0] == '[') return Section(line);
    size_t eq = line.find('=');
    if (eq == std::string::npos) throw ParseError{"expected 'Key = Value' or '[section]'"};
    std::string key = Trim(line.substr(0, eq));
    if (key.empty()) throw ParseError{"empty key"};
    Setting(key, Unescape(Trim(line.substr(eq + 1))));
  }

  void Finish() { CloseMessage(); }

 private:
  enum class Kind { None, Provider, Config, Failures, User, Folder, Message, Attachment };

  void Section(const std::string& line) {
    if (line.back() != ']') throw ParseError{"section header without ']'"};
    std::string inner = Trim(line.substr(1, line.size() - 2));
    size_t space = inner.find(' ');
    std::string name = inner.substr(0, space);
    std::string arg = space == std::string::npos ? std::string() : Unescape(Trim(inner.substr(space + 1)));
    if (name != "attachment") CloseMessage();
    if (name == "provider" || name == "config" || name == "failures") {
      m_kind = name == "provider" ? Kind::Provider : name == "config" ? Kind::Config : Kind::Failures;
    } else if (name == "user") {
      if (arg.empty()) throw ParseError{"[user] needs a LegacyDN"};
      m_user = &m_f.users[arg];
      m_kind = Kind::User;
    } else if (name == "folder") {
      OpenFolder(arg);
    } else if (name == "message") {
      if (!m_folder) throw ParseError{"[message] before any [folder]"};
      m_message = std::make_shared<MessageRecord>();
      m_messageLine = m_line;
      m_kind = Kind::Message;
    } else if (name == "attachment") {
      if (!m_message) throw ParseError{"[attachment] outside a [message]"};
      m_attachment = std::make_shared<AttachmentRecord>();
      m_message->attachments.push_back(m_attachment);
      m_kind = Kind::Attachment;
    } else {
      throw ParseError{"unknown section '" + name + "'"};
    }
  }

  void OpenFolder(const std::string& path) {
    auto parts = SplitPath(path);
    if (parts.empty()) throw ParseError{"[folder] needs a path"};
    FolderRecord* folder = &m_f.root;
    for (const auto& part : parts) {
      FolderRecord* child = folder->Child(part);
      if (!child) {
        folder->children.push_back(std::make_unique<FolderRecord>());
        child = folder->children.back().get();
        child->name = part;
      }
      folder = child;
    }
    m_folder = folder;
    m_kind = Kind::Folder;
  }

  void CloseMessage() {
    if (!m_message) return;
    const std::string id = m_message->Text("UniqueId");
    const std::string where = " (message of line " + std::to_string(m_messageLine) + ")";
    if (id.empty()) throw ParseError{"[message] without UniqueId" + where};
    for (const auto& other : m_folder->messages)
      if (other->Text("UniqueId") == id) throw ParseError{"duplicate UniqueId '" + id + "' in folder" + where};
    m_folder->messages.push_back(m_message);
    m_message.reset();
    m_attachment.reset();
  }

  void Setting(const std::string& key, const std::string& value) {
    switch (m_kind) {
      case Kind::None: throw ParseError{"setting before any section"};
      case Kind::Provider: return ProviderSetting(key, value);
      case Kind::Config: return ConfigSetting(key, value);
      case Kind::Failures: m_f.failures[key] = ParseLong(value); return;
      case Kind::User: return UserSetting(key, value);
      case Kind::Folder: return FolderSetting(key, value);
      case Kind::Message: return MessageSetting(key, value);
      case Kind::Attachment: return AttachmentSetting(key, value);
    }
  }

  void ProviderSetting(const std::string& key, const std::string& value) {
    if (kProviderSwitches.count(key)) m_f.switches[key] = ParseBool(value);
    else if (kProviderValues.count(key)) m_f.values[key] = ParseLong(value);
    else if (key == "DefaultFolderNames") m_f.defaultFolderNames = SplitList(value);
    else throw ParseError{"unknown [provider] key '" + key + "'"};
  }

  void ConfigSetting(const std::string& key, const std::string& value) {
    if (kConfigValues.count(key)) m_f.values[key] = ParseLong(value);
    else if (kConfigTexts.count(key)) m_f.texts[key] = value;
    else throw ParseError{"unknown [config] key '" + key + "'"};
  }

  void UserSetting(const std::string& key, const std::string& value) {
    if (key == "UserName") m_user->userName = value;
    else if (key == "DisplayName") m_user->displayName = value;
    else if (key == "SmtpAddress") m_user->smtp = value;
    else throw ParseError{"unknown [user] key '" + key + "'"};
  }

  void FolderSetting(const std::string& key, const std::string& value) {
    if (key == "ConversationLimit") m_folder->conversationLimit = ParseLong(value);
    else if (key == "RemoveResult") m_folder->removeResult = ParseLong(value);
    else throw ParseError{"unknown [folder] key '" + key + "'"};
  }

  void MessageSetting(const std::string& key, const std::string& value) {
    MessageRecord& m = *m_message;
    if (kMessageTexts.count(key)) {
      if (kDecimalTexts.count(key) && !value.empty()) ParseLong(value);
      if (key == "UniqueId" && value.size() > kMaxUniqueId) throw ParseError{"UniqueId longer than 104 bytes"};
      m.text[key] = value;
    } else if (key == "Keywords") m.keywords = value.empty() ? std::vector<std::string>{} : SplitList(value);
    else if (key == "RtfBody") m.rtfBody.assign(value.begin(), value.end());
    else if (key == "HasAttachments") m.hasAttachments = ParseBool(value);
    else if (key == "AttachmentsVisible") m.attachmentsVisible = ParseBool(value);
    else if (key == "IsCustomIcon") m.customIcon = ParseBool(value);
    else if (key == "IsRtfBody") m.rtf = ParseBool(value);
    else if (key == "RowKind") m.rowKind = ParseLong(value);
    else if (key == "ConversationCount") m.conversationCount = ParseLong(value);
    else throw ParseError{"unknown [message] key '" + key + "'"};
  }

  void AttachmentSetting(const std::string& key, const std::string& value) {
    AttachmentRecord& a = *m_attachment;
    if (kAttachmentTexts.count(key)) a.text[key] = value;
    else if (key == "Data") a.data = ParseHex(value), a.binary = true;
    else if (key == "Size") a.data = GeneratedBytes(ParseLong(value)), a.binary = true;
    else if (key == "MimeFlagA") a.mimeFlagA = ParseBool(value);
    else if (key == "MimeFlagB") a.mimeFlagB = ParseBool(value);
    else if (key == "Hidden") a.hidden = ParseBool(value);
    else if (key == "IsEmbeddedMessage") a.embedded = ParseBool(value);
    else if (key == "IsBinary") a.binary = ParseBool(value);
    else throw ParseError{"unknown [attachment] key '" + key + "'"};
  }

  Fixture& m_f;
  int m_line = 0, m_messageLine = 0;
  Kind m_kind = Kind::None;
  UserRecord* m_user = nullptr;
  FolderRecord* m_folder = nullptr;
  std::shared_ptr<MessageRecord> m_message;
  std::shared_ptr<AttachmentRecord> m_attachment;
};

}  // namespace

std::string MessageRecord::Text(const std::string& name) const {
  auto it = text.find(name);
  return it == text.end() ? std::string() : it->second;
}

FolderRecord* FolderRecord::Child(const std::string& childName) const {
  for (const auto& c : children)
    if (c->name == childName) return c.get();
  return nullptr;
}

bool Fixture::Switch(const std::string& name) const {
  auto it = switches.find(name);
  return it != switches.end() && it->second;
}

long Fixture::Value(const std::string& name) const {
  auto it = values.find(name);
  return it == values.end() ? 0 : it->second;
}

FolderRecord* Fixture::Find(const std::string& path) {
  FolderRecord* folder = &root;
  for (const auto& part : SplitPath(path)) {
    folder = folder->Child(part);
    if (!folder) return nullptr;
  }
  return folder;
}

std::vector<std::string> SplitPath(const std::string& path) {
  std::vector<std::string> parts;
  std::string part;
  for (char c : path) {
    if (c == '/' || c == '\\') {
      if (!part.empty()) parts.push_back(part);
      part.clear();
    } else {
      part += c;
    }
  }
  if (!part.empty()) parts.push_back(part);
  return parts;
}

std::unique_ptr<Fixture> DefaultFixture() {
  auto f = std::make_unique<Fixture>();
  f->switches = {{"IsLoggedIn", true},    {"IsCachedMode", false},  {"IsFirstSyncDue", false},
                 {"IsShuttingDown", false}, {"IsConversationViewEnabled", true},
                 {"IsConversationDataAvailable", true}, {"IsSearchReady", true},
                 {"ConfigurationAvailable", true}};
  f->values = {{"LogLevel", 3}, {"MaxListCount", 0}, {"MaxSearchCount", 500}, {"LogSize", 5},
               {"MaxFiles", 5}, {"SyncIntervalMinutes", 30}, {"UseLocalizedFolderNames", 1}};
  f->defaultFolderNames = {"Deleted Items", "Inbox", "Outbox", "Sent Items"};
  return f;
}

ParseResult ParseFixture(const std::string& text, const std::string& source) {
  ParseResult result;
  auto fixture = DefaultFixture();
  Parser parser(*fixture);
  std::istringstream in(text);
  std::string line;
  int number = 0;
  try {
    while (std::getline(in, line)) {
      ++number;
      parser.Line(line, number);
    }
    ++number;
    parser.Finish();
  } catch (const ParseError& e) {
    result.error = source + ":" + std::to_string(number) + ": " + e.reason;
    return result;
  }
  result.fixture = std::move(fixture);
  return result;
}

ParseResult LoadFixtureFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return ParseResult{nullptr, path + ": cannot be read"};
  std::ostringstream text;
  text << in.rdbuf();
  return ParseFixture(text.str(), path);
}

}  // namespace scriptarchive
