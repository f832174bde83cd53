// Language and names: the string look-up of the provider's own texts, the language that picks
// its table, and the names of the four default folders as the user's mail client shows them.
#pragma once
#include <windows.h>
#include <mapidefs.h>
#include <oaidl.h>

// Strings of the provider's resources.
enum : UINT {
  IDS_CONFIG_TITLE = 7000,        // "Message Store Configuration", shown by nothing
  IDS_SETTINGS_FROM_CLIENT = 7001,
  IDS_CONVERSATION_DISABLED = 7003,
  IDS_NO_DESCRIPTION = 7004,
  IDS_CONVERSATION_NO_DATA = 7005,
  IDS_ERROR_BASE = 8000,          // 8000 plus the error table's index
  IDS_UNKNOWN_ERROR = 8100,
  IDS_SYSTEM_ERROR = 8101,
};

constexpr ULONG ZT4_STRING_BUFFER = 1024;

// The language of the provider's texts: "LCID" under HKEY_CURRENT_USER "Software\TQProfile",
// 0 when absent; 0x7C04 (zh-Hant) is read as 1028.
LCID GetLCID();
// Loads string uID in the language of GetLCID and formats it into pszOut (ZT4_STRING_BUFFER
// characters), "%s" standing for the store's display name. FALSE, logged, when there is none.
BOOL ZT4LoadString(UINT uID, LPWSTR pszOut);
// Shows string uID in a message box captioned with the store's display name.
void ShowErrorBox(UINT uID);

// The four default folders, in this order.
enum { DEFAULT_DELETED_ITEMS = 0, DEFAULT_INBOX, DEFAULT_OUTBOX, DEFAULT_SENT_ITEMS, NUM_DEFAULT_FOLDERS };

// The names of the default folders: the localized ones the mail client uses, read once per
// process through the default store of the profile (or the data provider's cache of them), or the
// English ones.
class CDefaultFolder {
 public:
  static CDefaultFolder& Instance();

  // Runs FillDefaultFolderNames on the first call of the process.
  LPCWSTR GetName(ULONG ulIndex);
  LPCWSTR GetComment(ULONG ulIndex) const;
  BOOL IsEnglish() const { return m_fEnglish; }

  HRESULT FillDefaultFolderNames();
  // Forgets what was read, so the next GetName reads again. For tests.
  void Reset();

 private:
  CDefaultFolder();
  ~CDefaultFolder();

  // The names of the default store of the profile, kept and handed to the data provider's cache.
  HRESULT ReadNamesFromClient();
  HRESULT StoreClientName(LPMDB lpMDB, LONG lIndex, SAFEARRAY* psaNames);
  void SaveNames(SAFEARRAY* psaNames);
  // The names the data provider kept from an earlier run; four or none.
  HRESULT ReadNamesFromCache();

  BOOL m_fEnglish;
  BOOL m_fFilled;
  LPWSTR m_apszLocalized[NUM_DEFAULT_FOLDERS];
  CRITICAL_SECTION m_cs;
};

// The cache file name kept for the data provider's module.
#define DEFAULT_FOLDER_CACHE_NAME "DefaultFolderCache.bin"
