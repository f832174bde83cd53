// The scriptable archive's data: a mailbox and the answers of the provider, read from a fixture
// text file (the format is described at the top of ScriptFixture.cpp and in README.md).
#pragma once
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace scriptarchive {

struct AttachmentRecord {
  std::map<std::string, std::string> text;  // FileName, Text, MimeTag, ContentId, RecordKey
  std::vector<uint8_t> data;
  bool mimeFlagA = false, mimeFlagB = false, hidden = false, embedded = false, binary = false;
};

struct MessageRecord {
  std::map<std::string, std::string> text;  // every text property, by its interface name
  std::vector<std::string> keywords;
  std::vector<uint8_t> rtfBody;
  std::optional<bool> hasAttachments;
  bool attachmentsVisible = true, customIcon = false, rtf = false;
  long rowKind = 0, conversationCount = 0;
  std::vector<std::shared_ptr<const AttachmentRecord>> attachments;

  std::string Text(const std::string& name) const;
};

struct FolderRecord {
  std::string name;  // without path
  std::vector<std::unique_ptr<FolderRecord>> children;
  std::vector<std::shared_ptr<const MessageRecord>> messages;
  long conversationLimit = 0;  // 0: no limit
  long removeResult = 0;

  FolderRecord* Child(const std::string& childName) const;
};

struct UserRecord {
  std::string userName, displayName, smtp;
};

struct Fixture {
  std::map<std::string, bool> switches;      // IsLoggedIn, IsCachedMode, ...
  std::map<std::string, long> values;        // LastProviderError, RegisterMailboxResult, config numbers
  std::map<std::string, std::string> texts;  // LogFileName, FolderHomePageUrl
  std::map<std::string, long> failures;      // operation name -> HRESULT it returns
  std::vector<std::string> defaultFolderNames;
  std::map<std::string, UserRecord> users;   // by LegacyDN
  FolderRecord root;

  bool Switch(const std::string& name) const;
  long Value(const std::string& name) const;
  // The folder at a path whose parts are separated by '/' or '\'; root for an empty path.
  FolderRecord* Find(const std::string& path);
};

struct ParseResult {
  std::unique_ptr<Fixture> fixture;  // null on error
  std::string error;                 // "<source>:<line>: <reason>"
};

ParseResult ParseFixture(const std::string& text, const std::string& source);
ParseResult LoadFixtureFile(const std::string& path);
// A fixture with the default answers and an empty mailbox.
std::unique_ptr<Fixture> DefaultFixture();

// Splits a folder path on '/' and '\', dropping empty parts.
std::vector<std::string> SplitPath(const std::string& path);

}  // namespace scriptarchive
