// Generic copying between MAPI objects, behind IMAPISupport::DoCopyTo, DoCopyProps, CopyMessages
// and CopyFolder (a provider forwards its CopyTo, CopyProps, CopyMessages and CopyFolder here).
//
// Properties: read with GetProps; a value the source cannot return inline (PT_ERROR
// MAPI_E_NOT_ENOUGH_MEMORY) is copied through OpenProperty(IID_IStream). Named properties
// (IDs from 0x8000) are mapped through the names (GetNamesFromIDs, GetIDsFromNames with
// MAPI_CREATE). Identity properties of the source (PR_ENTRYID, PR_RECORD_KEY, PR_INSTANCE_KEY,
// parent and store IDs, PR_OBJECT_TYPE, access and size values ...) are never copied.
// Subobjects: a message's PR_MESSAGE_RECIPIENTS (the recipient table, ModifyRecipients) and
// PR_MESSAGE_ATTACHMENTS (each attachment with CreateAttach and a recursive copy; an embedded
// message through PR_ATTACH_DATA_OBJ), a folder's PR_CONTAINER_CONTENTS and
// PR_CONTAINER_HIERARCHY. Excluding IID_IMessage leaves embedded messages out; excluding
// IID_IMAPIFolder leaves subfolders out.
// Flags: MAPI_NOREPLACE keeps the destination's existing values; MAPI_MOVE deletes what was copied
// from the source (DeleteProps, or the messages and folders); MAPI_DECLINE_OK is accepted (a
// helper never declines); MAPI_DIALOG reports to lpProgress. Values the destination refuses go
// into the problem array (which may be NULL on success: nothing refused).
#pragma once
#include "mapidefs.h"

namespace adm {

struct CopyOptions {
  ULONG ciidExclude = 0;
  LPCIID rgiidExclude = nullptr;
  LPMAPIPROGRESS lpProgress = nullptr;
  ULONG ulFlags = 0;
};

// IMAPIProp::CopyTo: everything but `lpExcludeProps`.
HRESULT CopyObjectTo(LPMAPIPROP lpSrc, const SPropTagArray* lpExcludeProps, const CopyOptions& options,
                     LPMAPIPROP lpDest, LPSPropProblemArray* lppProblems);
// IMAPIProp::CopyProps: exactly `lpIncludeProps`.
HRESULT CopyObjectProps(LPMAPIPROP lpSrc, const SPropTagArray* lpIncludeProps, const CopyOptions& options,
                        LPMAPIPROP lpDest, LPSPropProblemArray* lppProblems);
// IMAPIFolder::CopyMessages: each message is opened in the source, created in the destination,
// copied and saved; with MAPI_MOVE the copied ones are then deleted from the source. A message
// that fails leaves the others going: MAPI_W_PARTIAL_COMPLETION.
HRESULT CopyMessageList(LPMAPIFOLDER lpSrcFolder, const ENTRYLIST* lpMsgList, LPMAPIFOLDER lpDestFolder,
                        LPMAPIPROGRESS lpProgress, ULONG ulFlags);
// IMAPIFolder::CopyFolder: the folder made (or found, OPEN_IF_EXISTS) under lpDestFolder with its
// name or `newName` (UTF-8, may be NULL), its properties and messages, and with COPY_SUBFOLDERS
// its subfolders; FOLDER_MOVE deletes the source folder afterwards.
HRESULT CopyFolderTree(LPMAPIFOLDER lpSrcFolder, ULONG cbEntryID, LPENTRYID lpEntryID, LPMAPIFOLDER lpDestFolder,
                       const char* newName, LPMAPIPROGRESS lpProgress, ULONG ulFlags);

}  // namespace adm
