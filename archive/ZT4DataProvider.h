// The data provider's six dual interfaces, the contract between the store and an archive module.
// Each derives from IDispatch; the custom operations follow in binary slot order, unused
// positions keep a placeholder slot (answering E_NOTIMPL unless a module overrides it).
//
// raw_X is the vtable slot. X is an inline wrapper that raises _com_error (carrying the
// interface's IID) on failure and returns the out value: BSTR as _bstr_t (owned), interfaces as
// smart pointers, SAFEARRAY* as a new array the caller destroys.
#pragma once
#include <objbase.h>
#include <oaidl.h>
#include <comdef.h>

AD_DECLARE_UUID(IZT4DataProvider, 0xD4660088, 0x308E, 0x49FB, 0xAB, 0x1A, 0x77, 0x22, 0x4F, 0x3F, 0xF8, 0x51);
AD_DECLARE_UUID(IZT4ProviderConfig, 0xA42B7675, 0x6DB4, 0x4DB9, 0xAF, 0x95, 0x29, 0x00, 0x0B, 0x73, 0x05, 0xDA);
AD_DECLARE_UUID(IZT4ArchiveFolder, 0xE8B1C298, 0xB2EB, 0x455E, 0x8E, 0x5D, 0xAB, 0x40, 0x1A, 0x7D, 0xAC, 0xF4);
AD_DECLARE_UUID(IZT4ArchiveMessage, 0x9446B00D, 0xAC4A, 0x4135, 0x9D, 0x13, 0x45, 0x91, 0xD9, 0xCD, 0x60, 0xC4);
AD_DECLARE_UUID(IZT4ArchiveAttachment, 0xF38B0B39, 0xEB6C, 0x4198, 0x8A, 0x1D, 0x03, 0xC4, 0xD1, 0xFD, 0x19, 0xA6);
AD_DECLARE_UUID(IZT4SearchCondition, 0xA0D5406B, 0xB730, 0x4C2A, 0xB4, 0x34, 0xBC, 0x99, 0x28, 0xAF, 0x84, 0x6D);

DEFINE_GUID(IID_IZT4DataProvider, 0xD4660088, 0x308E, 0x49FB, 0xAB, 0x1A, 0x77, 0x22, 0x4F, 0x3F, 0xF8, 0x51);
DEFINE_GUID(IID_IZT4ProviderConfig, 0xA42B7675, 0x6DB4, 0x4DB9, 0xAF, 0x95, 0x29, 0x00, 0x0B, 0x73, 0x05, 0xDA);
DEFINE_GUID(IID_IZT4ArchiveFolder, 0xE8B1C298, 0xB2EB, 0x455E, 0x8E, 0x5D, 0xAB, 0x40, 0x1A, 0x7D, 0xAC, 0xF4);
DEFINE_GUID(IID_IZT4ArchiveMessage, 0x9446B00D, 0xAC4A, 0x4135, 0x9D, 0x13, 0x45, 0x91, 0xD9, 0xCD, 0x60, 0xC4);
DEFINE_GUID(IID_IZT4ArchiveAttachment, 0xF38B0B39, 0xEB6C, 0x4198, 0x8A, 0x1D, 0x03, 0xC4, 0xD1, 0xFD, 0x19, 0xA6);
DEFINE_GUID(IID_IZT4SearchCondition, 0xA0D5406B, 0xB730, 0x4C2A, 0xB4, 0x34, 0xBC, 0x99, 0x28, 0xAF, 0x84, 0x6D);

// The one data provider object, created in process by GetDataProvider.
DEFINE_GUID(CLSID_ZT4DataProvider, 0x7CE21132, 0xD397, 0x3D11, 0x80, 0xBA, 0x30, 0xFD, 0x94, 0xE6, 0x5C, 0x9E);

_COM_SMARTPTR_TYPEDEF(IZT4DataProvider, __uuidof(IZT4DataProvider));
_COM_SMARTPTR_TYPEDEF(IZT4ProviderConfig, __uuidof(IZT4ProviderConfig));
_COM_SMARTPTR_TYPEDEF(IZT4ArchiveFolder, __uuidof(IZT4ArchiveFolder));
_COM_SMARTPTR_TYPEDEF(IZT4ArchiveMessage, __uuidof(IZT4ArchiveMessage));
_COM_SMARTPTR_TYPEDEF(IZT4ArchiveAttachment, __uuidof(IZT4ArchiveAttachment));
_COM_SMARTPTR_TYPEDEF(IZT4SearchCondition, __uuidof(IZT4SearchCondition));

namespace ZT4Detail {

template <class I> inline void Check(HRESULT hr, I* self) {
  if (FAILED(hr)) _com_issue_errorex(hr, self, __uuidof(I));
}

// Calls a slot whose only argument is its out value.
template <class I, class T> inline T Get(I* self, HRESULT (STDMETHODCALLTYPE I::*slot)(T*)) {
  T value{};
  Check(((self->*slot)(&value)), self);
  return value;
}

}  // namespace ZT4Detail

// Placeholder for a position of the contract that is never called.
#define ZT4_UNUSED_SLOT(n) \
  virtual HRESULT STDMETHODCALLTYPE raw_Unused##n() { return E_NOTIMPL; }

struct IZT4DataProvider : public IDispatch {
  // 1..20
  virtual HRESULT STDMETHODCALLTYPE raw_GetFolderNames(BSTR folder, BSTR smtp, SAFEARRAY** ppNames) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_GetServerFolder(BSTR folder, BSTR smtp, IZT4ArchiveFolder** ppFolder) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_RegisterMailbox(BSTR storeName, BSTR smtp, LONG* pResult) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_CreateSearchCondition(IZT4SearchCondition** ppCondition) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_GetConfigurationParams(IZT4ProviderConfig** ppConfig) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_GetLastProviderError(LONG* pError) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_IsCachedMode(VARIANT_BOOL* pResult) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_IsFirstSyncDue(VARIANT_BOOL* pResult) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_ShowConfigurationDialog() = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_IsLoggedIn(VARIANT_BOOL* pResult) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_IsShuttingDown(VARIANT_BOOL* pResult) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_NotifySyncThreadStarted() = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_NotifySyncRound() = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_IsConversationViewEnabled(VARIANT_BOOL* pResult) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_IsConversationDataAvailable(VARIANT_BOOL* pResult) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_WaitForNetwork() = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_PrepareInitialSync() = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SaveDefaultFolderNames(SAFEARRAY* names) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_LoadDefaultFolderNames(SAFEARRAY** ppNames) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_IsSearchReady(VARIANT_BOOL* pResult) = 0;

  SAFEARRAY* GetFolderNames(_bstr_t folder, _bstr_t smtp);
  IZT4ArchiveFolderPtr GetServerFolder(_bstr_t folder, _bstr_t smtp);
  LONG RegisterMailbox(_bstr_t storeName, _bstr_t smtp);
  IZT4SearchConditionPtr CreateSearchCondition();
  IZT4ProviderConfigPtr GetConfigurationParams();
  LONG GetLastProviderError() { return ZT4Detail::Get(this, &IZT4DataProvider::raw_GetLastProviderError); }
  VARIANT_BOOL IsCachedMode() { return ZT4Detail::Get(this, &IZT4DataProvider::raw_IsCachedMode); }
  VARIANT_BOOL IsFirstSyncDue() { return ZT4Detail::Get(this, &IZT4DataProvider::raw_IsFirstSyncDue); }
  HRESULT ShowConfigurationDialog();
  VARIANT_BOOL IsLoggedIn() { return ZT4Detail::Get(this, &IZT4DataProvider::raw_IsLoggedIn); }
  VARIANT_BOOL IsShuttingDown() { return ZT4Detail::Get(this, &IZT4DataProvider::raw_IsShuttingDown); }
  HRESULT NotifySyncThreadStarted();
  HRESULT NotifySyncRound();
  VARIANT_BOOL IsConversationViewEnabled() {
    return ZT4Detail::Get(this, &IZT4DataProvider::raw_IsConversationViewEnabled);
  }
  VARIANT_BOOL IsConversationDataAvailable() {
    return ZT4Detail::Get(this, &IZT4DataProvider::raw_IsConversationDataAvailable);
  }
  HRESULT WaitForNetwork();
  HRESULT PrepareInitialSync();
  HRESULT SaveDefaultFolderNames(SAFEARRAY* names);
  SAFEARRAY* LoadDefaultFolderNames() { return ZT4Detail::Get(this, &IZT4DataProvider::raw_LoadDefaultFolderNames); }
  VARIANT_BOOL IsSearchReady() { return ZT4Detail::Get(this, &IZT4DataProvider::raw_IsSearchReady); }
};

struct IZT4ProviderConfig : public IDispatch {
  // 1..12
  virtual HRESULT STDMETHODCALLTYPE raw_GetLogLevel(LONG* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_GetLogFileName(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_MaxListCount(LONG* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_MaxSearchCount(LONG* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_LogSize(LONG* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_MaxFiles(LONG* pValue) = 0;
  ZT4_UNUSED_SLOT(7)
  ZT4_UNUSED_SLOT(8)
  virtual HRESULT STDMETHODCALLTYPE raw_FolderHomePageUrl(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SyncIntervalMinutes(LONG* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_QueryUserDetails(BSTR legacyDN, BSTR* pUserName, BSTR* pDisplayName,
                                                         BSTR* pSmtpAddress, VARIANT_BOOL* pResult) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_UseLocalizedFolderNames(LONG* pValue) = 0;

  LONG GetLogLevel() { return ZT4Detail::Get(this, &IZT4ProviderConfig::raw_GetLogLevel); }
  _bstr_t GetLogFileName() { return _bstr_t(ZT4Detail::Get(this, &IZT4ProviderConfig::raw_GetLogFileName), false); }
  LONG MaxListCount() { return ZT4Detail::Get(this, &IZT4ProviderConfig::raw_MaxListCount); }
  LONG MaxSearchCount() { return ZT4Detail::Get(this, &IZT4ProviderConfig::raw_MaxSearchCount); }
  LONG LogSize() { return ZT4Detail::Get(this, &IZT4ProviderConfig::raw_LogSize); }
  LONG MaxFiles() { return ZT4Detail::Get(this, &IZT4ProviderConfig::raw_MaxFiles); }
  _bstr_t FolderHomePageUrl() {
    return _bstr_t(ZT4Detail::Get(this, &IZT4ProviderConfig::raw_FolderHomePageUrl), false);
  }
  LONG SyncIntervalMinutes() { return ZT4Detail::Get(this, &IZT4ProviderConfig::raw_SyncIntervalMinutes); }
  // The three texts are new BSTRs the caller frees.
  VARIANT_BOOL QueryUserDetails(_bstr_t legacyDN, BSTR* pUserName, BSTR* pDisplayName, BSTR* pSmtpAddress);
  LONG UseLocalizedFolderNames() { return ZT4Detail::Get(this, &IZT4ProviderConfig::raw_UseLocalizedFolderNames); }
};

struct IZT4ArchiveFolder : public IDispatch {
  // 1..9
  virtual HRESULT STDMETHODCALLTYPE raw_ReadMessages(LONG start, LONG count, VARIANT_BOOL bAllowOldItems,
                                                     VARIANT_BOOL bConversationView, SAFEARRAY** ppMessages) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_OpenMessage(BSTR uniqueId, IZT4ArchiveMessage** ppMessage) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SearchMessages(LONG start, LONG count, BSTR folder, BSTR smtp,
                                                       IZT4SearchCondition* condition, VARIANT_BOOL bConversationView,
                                                       SAFEARRAY** ppMessages) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_CountMessages(BSTR folder, IZT4SearchCondition* condition,
                                                      VARIANT_BOOL bConversationView, LONG* pCount) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SetSortOrder(LONG column, BSTR direction) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_RemoveMessages(SAFEARRAY* uniqueIds, LONG* pResult) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SetInitialSyncCompleted(VARIANT_BOOL bCompleted) = 0;
  // value: the condition built from the table restriction, whose row is looked for.
  virtual HRESULT STDMETHODCALLTYPE raw_LocateRow(IZT4SearchCondition* value, LONG comparator, BSTR folder,
                                                  IZT4SearchCondition* condition, VARIANT_BOOL bConversationView,
                                                  LONG* pRow) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_ClearCache() = 0;

  SAFEARRAY* ReadMessages(LONG start, LONG count, VARIANT_BOOL bAllowOldItems, VARIANT_BOOL bConversationView);
  IZT4ArchiveMessagePtr OpenMessage(_bstr_t uniqueId);
  SAFEARRAY* SearchMessages(LONG start, LONG count, _bstr_t folder, _bstr_t smtp, IZT4SearchCondition* condition,
                            VARIANT_BOOL bConversationView);
  LONG CountMessages(_bstr_t folder, IZT4SearchCondition* condition, VARIANT_BOOL bConversationView);
  HRESULT SetSortOrder(LONG column, _bstr_t direction);
  LONG RemoveMessages(SAFEARRAY* uniqueIds);
  HRESULT SetInitialSyncCompleted(VARIANT_BOOL bCompleted);
  LONG LocateRow(IZT4SearchCondition* value, LONG comparator, _bstr_t folder, IZT4SearchCondition* condition,
                 VARIANT_BOOL bConversationView);
  HRESULT ClearCache();
};

// Read properties of a record; an empty text means not present.
#define ZT4_MESSAGE_TEXT(name)                                          \
  _bstr_t name() { return _bstr_t(ZT4Detail::Get(this, &IZT4ArchiveMessage::raw_##name), false); }
#define ZT4_MESSAGE_VALUE(type, name) \
  type name() { return ZT4Detail::Get(this, &IZT4ArchiveMessage::raw_##name); }

struct IZT4ArchiveMessage : public IDispatch {
  // 1..35
  virtual HRESULT STDMETHODCALLTYPE raw_UniqueId(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SenderName(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_DisplayTo(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_DisplayCc(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_DisplayBcc(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_ToList(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_CcList(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_BccList(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_Subject(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_NormalizedSubject(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SenderEmail(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_Size(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_Priority(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_Importance(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_Sensitivity(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_Keywords(SAFEARRAY** pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_ReceivedTime(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_HasAttachments(VARIANT_BOOL* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_AttachmentsVisible(VARIANT_BOOL* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_Attachments(SAFEARRAY** pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_OpenAttachment(BSTR key, IZT4ArchiveAttachment** ppAttachment) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_Body(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_MetaData(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_OrigPathInfo(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_StubInfo(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_ConversationTopic(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_ConversationIndex(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_RowKind(LONG* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_ConversationCount(LONG* pValue) = 0;
  ZT4_UNUSED_SLOT(30)
  virtual HRESULT STDMETHODCALLTYPE raw_IsCustomIcon(VARIANT_BOOL* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_RtfBody(SAFEARRAY** pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_IsRtfBody(VARIANT_BOOL* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_TransportHeaders(BSTR* pValue) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_MessageClass(BSTR* pValue) = 0;

  ZT4_MESSAGE_TEXT(UniqueId)
  ZT4_MESSAGE_TEXT(SenderName)
  ZT4_MESSAGE_TEXT(DisplayTo)
  ZT4_MESSAGE_TEXT(DisplayCc)
  ZT4_MESSAGE_TEXT(DisplayBcc)
  ZT4_MESSAGE_TEXT(ToList)
  ZT4_MESSAGE_TEXT(CcList)
  ZT4_MESSAGE_TEXT(BccList)
  ZT4_MESSAGE_TEXT(Subject)
  ZT4_MESSAGE_TEXT(NormalizedSubject)
  ZT4_MESSAGE_TEXT(SenderEmail)
  ZT4_MESSAGE_TEXT(Size)
  ZT4_MESSAGE_TEXT(Priority)
  ZT4_MESSAGE_TEXT(Importance)
  ZT4_MESSAGE_TEXT(Sensitivity)
  ZT4_MESSAGE_VALUE(SAFEARRAY*, Keywords)
  ZT4_MESSAGE_TEXT(ReceivedTime)
  ZT4_MESSAGE_VALUE(VARIANT_BOOL, HasAttachments)
  ZT4_MESSAGE_VALUE(VARIANT_BOOL, AttachmentsVisible)
  ZT4_MESSAGE_VALUE(SAFEARRAY*, Attachments)
  IZT4ArchiveAttachmentPtr OpenAttachment(_bstr_t key);
  ZT4_MESSAGE_TEXT(Body)
  ZT4_MESSAGE_TEXT(MetaData)
  ZT4_MESSAGE_TEXT(OrigPathInfo)
  ZT4_MESSAGE_TEXT(StubInfo)
  ZT4_MESSAGE_TEXT(ConversationTopic)
  ZT4_MESSAGE_TEXT(ConversationIndex)
  ZT4_MESSAGE_VALUE(LONG, RowKind)
  ZT4_MESSAGE_VALUE(LONG, ConversationCount)
  ZT4_MESSAGE_VALUE(VARIANT_BOOL, IsCustomIcon)
  ZT4_MESSAGE_VALUE(SAFEARRAY*, RtfBody)
  ZT4_MESSAGE_VALUE(VARIANT_BOOL, IsRtfBody)
  ZT4_MESSAGE_TEXT(TransportHeaders)
  ZT4_MESSAGE_TEXT(MessageClass)
};

#undef ZT4_MESSAGE_TEXT
#undef ZT4_MESSAGE_VALUE

// Only the named positions are called; the others keep their places.
struct IZT4ArchiveAttachment : public IDispatch {
  // 1..43
  ZT4_UNUSED_SLOT(1)
  ZT4_UNUSED_SLOT(2)
  ZT4_UNUSED_SLOT(3)
  ZT4_UNUSED_SLOT(4)
  ZT4_UNUSED_SLOT(5)
  ZT4_UNUSED_SLOT(6)
  ZT4_UNUSED_SLOT(7)
  ZT4_UNUSED_SLOT(8)
  ZT4_UNUSED_SLOT(9)
  ZT4_UNUSED_SLOT(10)
  ZT4_UNUSED_SLOT(11)
  ZT4_UNUSED_SLOT(12)
  ZT4_UNUSED_SLOT(13)
  ZT4_UNUSED_SLOT(14)
  ZT4_UNUSED_SLOT(15)
  ZT4_UNUSED_SLOT(16)
  ZT4_UNUSED_SLOT(17)
  ZT4_UNUSED_SLOT(18)
  ZT4_UNUSED_SLOT(19)
  ZT4_UNUSED_SLOT(20)
  ZT4_UNUSED_SLOT(21)
  virtual HRESULT STDMETHODCALLTYPE raw_Text(BSTR* pValue) = 0;  // 22
  ZT4_UNUSED_SLOT(23)
  ZT4_UNUSED_SLOT(24)
  ZT4_UNUSED_SLOT(25)
  ZT4_UNUSED_SLOT(26)
  ZT4_UNUSED_SLOT(27)
  ZT4_UNUSED_SLOT(28)
  ZT4_UNUSED_SLOT(29)
  virtual HRESULT STDMETHODCALLTYPE raw_MimeFlagA(VARIANT_BOOL* pValue) = 0;  // 30
  virtual HRESULT STDMETHODCALLTYPE raw_MimeFlagB(VARIANT_BOOL* pValue) = 0;  // 31
  virtual HRESULT STDMETHODCALLTYPE raw_Data(SAFEARRAY** pValue) = 0;         // 32
  ZT4_UNUSED_SLOT(33)
  ZT4_UNUSED_SLOT(34)
  ZT4_UNUSED_SLOT(35)
  virtual HRESULT STDMETHODCALLTYPE raw_RecordKey(BSTR* pValue) = 0;  // 36
  virtual HRESULT STDMETHODCALLTYPE raw_FileName(BSTR* pValue) = 0;   // 37
  ZT4_UNUSED_SLOT(38)
  virtual HRESULT STDMETHODCALLTYPE raw_MimeTag(BSTR* pValue) = 0;                   // 39
  virtual HRESULT STDMETHODCALLTYPE raw_Hidden(VARIANT_BOOL* pValue) = 0;            // 40
  virtual HRESULT STDMETHODCALLTYPE raw_IsEmbeddedMessage(VARIANT_BOOL* pValue) = 0; // 41
  virtual HRESULT STDMETHODCALLTYPE raw_ContentId(BSTR* pValue) = 0;                 // 42
  virtual HRESULT STDMETHODCALLTYPE raw_IsBinary(VARIANT_BOOL* pValue) = 0;          // 43

  _bstr_t Text() { return _bstr_t(ZT4Detail::Get(this, &IZT4ArchiveAttachment::raw_Text), false); }
  VARIANT_BOOL MimeFlagA() { return ZT4Detail::Get(this, &IZT4ArchiveAttachment::raw_MimeFlagA); }
  VARIANT_BOOL MimeFlagB() { return ZT4Detail::Get(this, &IZT4ArchiveAttachment::raw_MimeFlagB); }
  SAFEARRAY* Data() { return ZT4Detail::Get(this, &IZT4ArchiveAttachment::raw_Data); }
  _bstr_t RecordKey() { return _bstr_t(ZT4Detail::Get(this, &IZT4ArchiveAttachment::raw_RecordKey), false); }
  _bstr_t FileName() { return _bstr_t(ZT4Detail::Get(this, &IZT4ArchiveAttachment::raw_FileName), false); }
  _bstr_t MimeTag() { return _bstr_t(ZT4Detail::Get(this, &IZT4ArchiveAttachment::raw_MimeTag), false); }
  VARIANT_BOOL Hidden() { return ZT4Detail::Get(this, &IZT4ArchiveAttachment::raw_Hidden); }
  VARIANT_BOOL IsEmbeddedMessage() { return ZT4Detail::Get(this, &IZT4ArchiveAttachment::raw_IsEmbeddedMessage); }
  _bstr_t ContentId() { return _bstr_t(ZT4Detail::Get(this, &IZT4ArchiveAttachment::raw_ContentId), false); }
  VARIANT_BOOL IsBinary() { return ZT4Detail::Get(this, &IZT4ArchiveAttachment::raw_IsBinary); }
};

// A node of a search expression. Only setters; each takes its value by value.
struct IZT4SearchCondition : public IDispatch {
  // 1..18
  virtual HRESULT STDMETHODCALLTYPE raw_SetUniqueId(BSTR value) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_AddChild(IZT4SearchCondition* child) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SetSubject(BSTR value) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SetSender(BSTR value) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SetCc(BSTR value) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SetBcc(BSTR value) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SetTo(BSTR value) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SetOperator(BSTR value) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SetContent(BSTR value) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SetTime(LONG unixSeconds, LONG relop) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SetSize(LONG size, LONG relop) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SetHasAttachments(VARIANT_BOOL value) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SetSensitivity(LONG value) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SetImportance(LONG value) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SetPriority(LONG value) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SetKeywords(BSTR value) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SetFolder(BSTR value) = 0;
  virtual HRESULT STDMETHODCALLTYPE raw_SetRecursive(VARIANT_BOOL value) = 0;

  HRESULT SetUniqueId(_bstr_t value) { return _Done(raw_SetUniqueId(value)); }
  HRESULT AddChild(IZT4SearchCondition* child) { return _Done(raw_AddChild(child)); }
  HRESULT SetSubject(_bstr_t value) { return _Done(raw_SetSubject(value)); }
  HRESULT SetSender(_bstr_t value) { return _Done(raw_SetSender(value)); }
  HRESULT SetCc(_bstr_t value) { return _Done(raw_SetCc(value)); }
  HRESULT SetBcc(_bstr_t value) { return _Done(raw_SetBcc(value)); }
  HRESULT SetTo(_bstr_t value) { return _Done(raw_SetTo(value)); }
  HRESULT SetOperator(_bstr_t value) { return _Done(raw_SetOperator(value)); }
  HRESULT SetContent(_bstr_t value) { return _Done(raw_SetContent(value)); }
  HRESULT SetTime(LONG unixSeconds, LONG relop) { return _Done(raw_SetTime(unixSeconds, relop)); }
  HRESULT SetSize(LONG size, LONG relop) { return _Done(raw_SetSize(size, relop)); }
  HRESULT SetHasAttachments(VARIANT_BOOL value) { return _Done(raw_SetHasAttachments(value)); }
  HRESULT SetSensitivity(LONG value) { return _Done(raw_SetSensitivity(value)); }
  HRESULT SetImportance(LONG value) { return _Done(raw_SetImportance(value)); }
  HRESULT SetPriority(LONG value) { return _Done(raw_SetPriority(value)); }
  HRESULT SetKeywords(_bstr_t value) { return _Done(raw_SetKeywords(value)); }
  HRESULT SetFolder(_bstr_t value) { return _Done(raw_SetFolder(value)); }
  HRESULT SetRecursive(VARIANT_BOOL value) { return _Done(raw_SetRecursive(value)); }

 private:
  HRESULT _Done(HRESULT hr) {
    ZT4Detail::Check(hr, this);
    return hr;
  }
};

#undef ZT4_UNUSED_SLOT

// ---- Wrappers that need the interfaces complete ------------------------------------------------

inline SAFEARRAY* IZT4DataProvider::GetFolderNames(_bstr_t folder, _bstr_t smtp) {
  SAFEARRAY* names = nullptr;
  ZT4Detail::Check(raw_GetFolderNames(folder, smtp, &names), this);
  return names;
}

inline IZT4ArchiveFolderPtr IZT4DataProvider::GetServerFolder(_bstr_t folder, _bstr_t smtp) {
  IZT4ArchiveFolder* result = nullptr;
  ZT4Detail::Check(raw_GetServerFolder(folder, smtp, &result), this);
  return IZT4ArchiveFolderPtr(result, false);
}

inline LONG IZT4DataProvider::RegisterMailbox(_bstr_t storeName, _bstr_t smtp) {
  LONG result = 0;
  ZT4Detail::Check(raw_RegisterMailbox(storeName, smtp, &result), this);
  return result;
}

inline IZT4SearchConditionPtr IZT4DataProvider::CreateSearchCondition() {
  return IZT4SearchConditionPtr(ZT4Detail::Get(this, &IZT4DataProvider::raw_CreateSearchCondition), false);
}

inline IZT4ProviderConfigPtr IZT4DataProvider::GetConfigurationParams() {
  return IZT4ProviderConfigPtr(ZT4Detail::Get(this, &IZT4DataProvider::raw_GetConfigurationParams), false);
}

inline HRESULT IZT4DataProvider::ShowConfigurationDialog() {
  HRESULT hr = raw_ShowConfigurationDialog();
  ZT4Detail::Check(hr, this);
  return hr;
}

inline HRESULT IZT4DataProvider::NotifySyncThreadStarted() {
  HRESULT hr = raw_NotifySyncThreadStarted();
  ZT4Detail::Check(hr, this);
  return hr;
}

inline HRESULT IZT4DataProvider::NotifySyncRound() {
  HRESULT hr = raw_NotifySyncRound();
  ZT4Detail::Check(hr, this);
  return hr;
}

inline HRESULT IZT4DataProvider::WaitForNetwork() {
  HRESULT hr = raw_WaitForNetwork();
  ZT4Detail::Check(hr, this);
  return hr;
}

inline HRESULT IZT4DataProvider::PrepareInitialSync() {
  HRESULT hr = raw_PrepareInitialSync();
  ZT4Detail::Check(hr, this);
  return hr;
}

inline HRESULT IZT4DataProvider::SaveDefaultFolderNames(SAFEARRAY* names) {
  HRESULT hr = raw_SaveDefaultFolderNames(names);
  ZT4Detail::Check(hr, this);
  return hr;
}

inline VARIANT_BOOL IZT4ProviderConfig::QueryUserDetails(_bstr_t legacyDN, BSTR* pUserName, BSTR* pDisplayName,
                                                         BSTR* pSmtpAddress) {
  VARIANT_BOOL result = VARIANT_FALSE;
  ZT4Detail::Check(raw_QueryUserDetails(legacyDN, pUserName, pDisplayName, pSmtpAddress, &result), this);
  return result;
}

inline SAFEARRAY* IZT4ArchiveFolder::ReadMessages(LONG start, LONG count, VARIANT_BOOL bAllowOldItems,
                                                  VARIANT_BOOL bConversationView) {
  SAFEARRAY* messages = nullptr;
  ZT4Detail::Check(raw_ReadMessages(start, count, bAllowOldItems, bConversationView, &messages), this);
  return messages;
}

inline IZT4ArchiveMessagePtr IZT4ArchiveFolder::OpenMessage(_bstr_t uniqueId) {
  IZT4ArchiveMessage* message = nullptr;
  ZT4Detail::Check(raw_OpenMessage(uniqueId, &message), this);
  return IZT4ArchiveMessagePtr(message, false);
}

inline SAFEARRAY* IZT4ArchiveFolder::SearchMessages(LONG start, LONG count, _bstr_t folder, _bstr_t smtp,
                                                    IZT4SearchCondition* condition, VARIANT_BOOL bConversationView) {
  SAFEARRAY* messages = nullptr;
  ZT4Detail::Check(raw_SearchMessages(start, count, folder, smtp, condition, bConversationView, &messages), this);
  return messages;
}

inline LONG IZT4ArchiveFolder::CountMessages(_bstr_t folder, IZT4SearchCondition* condition,
                                             VARIANT_BOOL bConversationView) {
  LONG count = 0;
  ZT4Detail::Check(raw_CountMessages(folder, condition, bConversationView, &count), this);
  return count;
}

inline HRESULT IZT4ArchiveFolder::SetSortOrder(LONG column, _bstr_t direction) {
  HRESULT hr = raw_SetSortOrder(column, direction);
  ZT4Detail::Check(hr, this);
  return hr;
}

inline LONG IZT4ArchiveFolder::RemoveMessages(SAFEARRAY* uniqueIds) {
  LONG result = 0;
  ZT4Detail::Check(raw_RemoveMessages(uniqueIds, &result), this);
  return result;
}

inline HRESULT IZT4ArchiveFolder::SetInitialSyncCompleted(VARIANT_BOOL bCompleted) {
  HRESULT hr = raw_SetInitialSyncCompleted(bCompleted);
  ZT4Detail::Check(hr, this);
  return hr;
}

inline LONG IZT4ArchiveFolder::LocateRow(IZT4SearchCondition* value, LONG comparator, _bstr_t folder,
                                         IZT4SearchCondition* condition, VARIANT_BOOL bConversationView) {
  LONG row = 0;
  ZT4Detail::Check(raw_LocateRow(value, comparator, folder, condition, bConversationView, &row), this);
  return row;
}

inline HRESULT IZT4ArchiveFolder::ClearCache() {
  HRESULT hr = raw_ClearCache();
  ZT4Detail::Check(hr, this);
  return hr;
}

inline IZT4ArchiveAttachmentPtr IZT4ArchiveMessage::OpenAttachment(_bstr_t key) {
  IZT4ArchiveAttachment* attachment = nullptr;
  ZT4Detail::Check(raw_OpenAttachment(key, &attachment), this);
  return IZT4ArchiveAttachmentPtr(attachment, false);
}
