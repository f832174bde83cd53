// The MAPI headers are a binary contract: structure layouts, vtable slot order and identifiers
// must match what providers and clients built elsewhere expect.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "acctmgmt.h"
#include "mapicode.h"
#include "mapidefs.h"
#include "mapiguid.h"
#include "mapispi.h"
#include "mapitags.h"
#include "mapiutil.h"
#include "mapix.h"

// ---------------------------------------------------------------------------------------------
// Layouts on x86-64.

static_assert(sizeof(SPropValue) == 24);
static_assert(offsetof(SPropValue, Value) == 8);
static_assert(sizeof(MAPIUID) == 16);
static_assert(sizeof(SBinary) == 16);
static_assert(sizeof(union _PV) == 16);
static_assert(offsetof(ENTRYID, ab) == 4);
static_assert(CbNewENTRYID(16) == 20);
static_assert(offsetof(SPropTagArray, aulPropTag) == 4);
static_assert(CbNewSPropTagArray(3) == 16);
static_assert(sizeof(SRow) == 16 && offsetof(SRow, cValues) == 4 && offsetof(SRow, lpProps) == 8);
static_assert(offsetof(SRowSet, aRow) == 8);
static_assert(CbNewSRowSet(2) == 40);
static_assert(sizeof(ADRENTRY) == 16 && offsetof(ADRLIST, aEntries) == 8);
static_assert(CbNewADRLIST(3) == 56);
static_assert(offsetof(SSortOrderSet, aSort) == 12);
static_assert(CbNewSSortOrderSet(2) == 28);
static_assert(offsetof(SPropProblemArray, aProblem) == 4 && sizeof(SPropProblem) == 12);
static_assert(sizeof(ENTRYLIST) == 16);
static_assert(offsetof(NOTIFKEY, ab) == 4 && CbNewNOTIFKEY(8) == 12);
static_assert(sizeof(SRestriction) == 32 && offsetof(SRestriction, res) == 8);
static_assert(offsetof(SRestriction, res.resContent.lpProp) == 16);
static_assert(offsetof(SRestriction, res.resComment.lpProp) == 24);
static_assert(sizeof(MAPIERROR) == 32 && offsetof(MAPIERROR, ulLowLevelError) == 24);
static_assert(sizeof(MAPINAMEID) == 24 && offsetof(MAPINAMEID, Kind) == 16);
static_assert(offsetof(NOTIFICATION, info) == 8);
static_assert(sizeof(TABLE_NOTIFICATION) == 80);
static_assert(offsetof(TABLE_NOTIFICATION, propIndex) == 8 && offsetof(TABLE_NOTIFICATION, row) == 56);
static_assert(sizeof(NOTIFICATION) == 88);
static_assert(offsetof(OBJECT_NOTIFICATION, lpPropTagArray) == 64);
static_assert(offsetof(NEWMAIL_NOTIFICATION, ulMessageFlags) == 48);
static_assert(offsetof(EXTENDED_NOTIFICATION, pbEventParameters) == 8);
static_assert(sizeof(MAPIINIT_0) == 8);
static_assert(sizeof(ACCT_VARIANT) == 24 && offsetof(ACCT_VARIANT, Val) == 8);
static_assert(sizeof(BOOKMARK) == sizeof(void*));

// The sized-array macros produce the same layout as the open-ended structures.
static_assert([] {
  SizedSPropTagArray(5, five) = {5, {1, 2, 3, 4, 5}};
  return sizeof(five) == CbNewSPropTagArray(5);
}());
static_assert([] {
  SizedSSortOrderSet(3, sort) = {};
  return sizeof(sort) == CbNewSSortOrderSet(3);
}());
static_assert([] {
  SizedSRowSet(4, rows) = {};
  SizedADRLIST(2, adr) = {};
  return sizeof(rows) == CbNewSRowSet(4) && sizeof(adr) == CbNewADRLIST(2);
}());

// Tag arithmetic used everywhere property tags are built or taken apart.
static_assert(PROP_TAG(PT_LONG, 0x3E03) == 0x3E030003);
static_assert(PROP_ID(0x39FE001E) == 0x39FE && PROP_TYPE(0x39FE001E) == PT_STRING8);
static_assert(CHANGE_PROP_TYPE(0x3001001E, PT_UNICODE) == 0x3001001F);
static_assert(PT_MV_BINARY == 0x1102 && PT_MV_UNICODE == 0x101F && PT_TSTRING == PT_STRING8);
static_assert(PROP_ACCT_STAMP == 0x000D001F && PROP_MAPI_IDENTITY_ENTRYID == 0x20020102);
static_assert((MAPI_LOGON_UI | MAPI_EXTENDED) == 33);
static_assert(SERVICE_UI_ALWAYS == 2 && SERVICE_UI_ALLOWED == 16);

// ---------------------------------------------------------------------------------------------
// Vtable slots. Under the Itanium C++ ABI a pointer to a virtual member holds 1 + the byte offset
// of the slot, which gives the slot index without calling anything.

namespace {

template <class F> size_t SlotOf(F pmf) {
  struct Rep {
    uintptr_t ptr;
    ptrdiff_t adj;
  };
  static_assert(sizeof(F) == sizeof(Rep));
  Rep rep;
  std::memcpy(&rep, &pmf, sizeof rep);
  return (rep.ptr - 1) / sizeof(void*);
}

template <class... F> std::vector<size_t> SlotsOf(F... pmfs) { return {SlotOf(pmfs)...}; }

std::vector<size_t> Consecutive(size_t first, size_t count) {
  std::vector<size_t> out;
  for (size_t i = 0; i < count; ++i) out.push_back(first + i);
  return out;
}

}  // namespace

TEST(MapiHeaders, SupportObjectHas44SlotsInPublishedOrder) {
  using S = IMAPISupport;
  EXPECT_EQ(SlotOf(&S::AddRef), 1u);
  EXPECT_EQ(SlotOf(&S::Release), 2u);
  EXPECT_EQ(SlotsOf(&S::GetLastError, &S::GetMemAllocRoutines, &S::Subscribe, &S::Unsubscribe, &S::Notify,
                    &S::ModifyStatusRow, &S::OpenProfileSection, &S::RegisterPreprocessor, &S::NewUID,
                    &S::MakeInvalid, &S::SpoolerYield, &S::SpoolerNotify, &S::CreateOneOff, &S::SetProviderUID,
                    &S::CompareEntryIDs, &S::OpenTemplateID, &S::OpenEntry, &S::GetOneOffTable, &S::Address,
                    &S::Details, &S::NewEntry, &S::DoConfigPropsheet, &S::CopyMessages, &S::CopyFolder,
                    &S::DoCopyTo, &S::DoCopyProps, &S::DoProgressDialog, &S::ReadReceipt, &S::PrepareSubmit,
                    &S::ExpandRecips, &S::UpdatePAB, &S::DoSentMail, &S::OpenAddressBook, &S::Preprocess,
                    &S::CompleteMsg, &S::StoreLogoffTransports, &S::StatusRecips, &S::WrapStoreEntryID,
                    &S::ModifyProfile, &S::IStorageFromStream, &S::GetSvcConfigSupportObj),
            Consecutive(3, 41));
}

TEST(MapiHeaders, TableInterfacesKeepPublishedOrder) {
  using T = IMAPITable;
  EXPECT_EQ(SlotsOf(&T::GetLastError, &T::Advise, &T::Unadvise, &T::GetStatus, &T::SetColumns, &T::QueryColumns,
                    &T::GetRowCount, &T::SeekRow, &T::SeekRowApprox, &T::QueryPosition, &T::FindRow, &T::Restrict,
                    &T::CreateBookmark, &T::FreeBookmark, &T::SortTable, &T::QuerySortOrder, &T::QueryRows,
                    &T::Abort, &T::ExpandRow, &T::CollapseRow, &T::WaitForCompletion, &T::GetCollapseState,
                    &T::SetCollapseState),
            Consecutive(3, 23));
  using D = ITableData;
  EXPECT_EQ(SlotsOf(&D::HrGetView, &D::HrModifyRow, &D::HrDeleteRow, &D::HrQueryRow, &D::HrEnumRow,
                    &D::HrNotify, &D::HrInsertRow, &D::HrModifyRows, &D::HrDeleteRows),
            Consecutive(3, 9));
}

TEST(MapiHeaders, PropertyObjectHierarchyKeepsPublishedOrder) {
  using P = IMAPIProp;
  EXPECT_EQ(SlotsOf(&P::GetLastError, &P::SaveChanges, &P::GetProps, &P::GetPropList, &P::OpenProperty,
                    &P::SetProps, &P::DeleteProps, &P::CopyTo, &P::CopyProps, &P::GetNamesFromIDs,
                    &P::GetIDsFromNames),
            Consecutive(3, 11));
  using M = IMsgStore;
  EXPECT_EQ(SlotsOf(&M::Advise, &M::Unadvise, &M::CompareEntryIDs, &M::OpenEntry, &M::SetReceiveFolder,
                    &M::GetReceiveFolder, &M::GetReceiveFolderTable, &M::StoreLogoff, &M::AbortSubmit,
                    &M::GetOutgoingQueue, &M::SetLockState, &M::FinishedMsg, &M::NotifyNewMail),
            Consecutive(14, 13));
  using C = IMAPIContainer;
  EXPECT_EQ(SlotsOf(&C::GetContentsTable, &C::GetHierarchyTable, &C::OpenEntry, &C::SetSearchCriteria,
                    &C::GetSearchCriteria),
            Consecutive(14, 5));
  using F = IMAPIFolder;
  EXPECT_EQ(SlotsOf(&F::CreateMessage, &F::CopyMessages, &F::DeleteMessages, &F::CreateFolder, &F::CopyFolder,
                    &F::DeleteFolder, &F::SetReadFlags, &F::GetMessageStatus, &F::SetMessageStatus,
                    &F::SaveContentsSort, &F::EmptyFolder),
            Consecutive(19, 11));
  using G = IMessage;
  EXPECT_EQ(SlotsOf(&G::GetAttachmentTable, &G::OpenAttach, &G::CreateAttach, &G::DeleteAttach,
                    &G::GetRecipientTable, &G::ModifyRecipients, &G::SubmitMessage, &G::SetReadFlag),
            Consecutive(14, 8));
  EXPECT_EQ(SlotsOf(&IMAPIStatus::ValidateState, &IMAPIStatus::SettingsDialog, &IMAPIStatus::ChangePassword,
                    &IMAPIStatus::FlushQueues),
            Consecutive(14, 4));
  EXPECT_EQ(SlotsOf(&IABContainer::CreateEntry, &IABContainer::CopyEntries, &IABContainer::DeleteEntries,
                    &IABContainer::ResolveNames),
            Consecutive(19, 4));
  EXPECT_EQ(SlotOf(&IAttach::GetIDsFromNames), 13u);
}

TEST(MapiHeaders, ProviderAndSessionInterfacesKeepPublishedOrder) {
  using P = IMSProvider;
  EXPECT_EQ(SlotsOf(&P::Shutdown, &P::Logon, &P::SpoolerLogon, &P::CompareStoreIDs), Consecutive(3, 4));
  using L = IMSLogon;
  EXPECT_EQ(SlotsOf(&L::GetLastError, &L::Logoff, &L::OpenEntry, &L::CompareEntryIDs, &L::Advise, &L::Unadvise,
                    &L::OpenStatusEntry),
            Consecutive(3, 7));
  using S = IMAPISession;
  EXPECT_EQ(SlotsOf(&S::GetLastError, &S::GetMsgStoresTable, &S::OpenMsgStore, &S::OpenAddressBook,
                    &S::OpenProfileSection, &S::GetStatusTable, &S::OpenEntry, &S::CompareEntryIDs, &S::Advise,
                    &S::Unadvise, &S::MessageOptions, &S::QueryDefaultMessageOpt, &S::EnumAdrTypes,
                    &S::QueryIdentity, &S::Logoff, &S::SetDefaultStore, &S::AdminServices, &S::ShowForm,
                    &S::PrepareForm),
            Consecutive(3, 19));
  using A = IAddrBook;
  EXPECT_EQ(SlotsOf(&A::OpenEntry, &A::CompareEntryIDs, &A::Advise, &A::Unadvise, &A::CreateOneOff, &A::NewEntry,
                    &A::ResolveName, &A::Address, &A::Details, &A::RecipOptions, &A::QueryDefaultRecipOpt,
                    &A::GetPAB, &A::SetPAB, &A::GetDefaultDir, &A::SetDefaultDir, &A::GetSearchPath,
                    &A::SetSearchPath, &A::PrepareRecips),
            Consecutive(14, 18));
  using PA = IProfAdmin;
  EXPECT_EQ(SlotsOf(&PA::GetLastError, &PA::GetProfileTable, &PA::CreateProfile, &PA::DeleteProfile,
                    &PA::ChangeProfilePassword, &PA::CopyProfile, &PA::RenameProfile, &PA::SetDefaultProfile,
                    &PA::AdminServices),
            Consecutive(3, 9));
  using SA = IMsgServiceAdmin;
  EXPECT_EQ(SlotsOf(&SA::GetLastError, &SA::GetMsgServiceTable, &SA::CreateMsgService, &SA::DeleteMsgService,
                    &SA::CopyMsgService, &SA::RenameMsgService, &SA::ConfigureMsgService, &SA::OpenProfileSection,
                    &SA::MsgServiceTransportOrder, &SA::AdminProviders, &SA::SetPrimaryIdentity,
                    &SA::GetProviderTable),
            Consecutive(3, 12));
  using PR = IProviderAdmin;
  EXPECT_EQ(SlotsOf(&PR::GetLastError, &PR::GetProviderTable, &PR::CreateProvider, &PR::DeleteProvider,
                    &PR::OpenProfileSection),
            Consecutive(3, 5));
  EXPECT_EQ(SlotsOf(&IMAPIProgress::Progress, &IMAPIProgress::GetFlags, &IMAPIProgress::GetMax,
                    &IMAPIProgress::GetMin, &IMAPIProgress::SetLimits),
            Consecutive(3, 5));
  EXPECT_EQ(SlotOf(&IMAPIAdviseSink::OnNotify), 3u);
  EXPECT_EQ(SlotsOf(&IMAPIControl::GetLastError, &IMAPIControl::Activate, &IMAPIControl::GetState),
            Consecutive(3, 3));
}

TEST(MapiHeaders, AccountManagerKeepsPlaceholderSlots) {
  using M = IOlkAccountManager;
  EXPECT_EQ(SlotOf(&M::GetLastError), 3u);
  EXPECT_EQ(SlotsOf(&M::Init, &M::DisplayAccountList), Consecutive(4, 2));
  EXPECT_EQ(SlotOf(&M::FindAccount), 11u);
  EXPECT_EQ(SlotOf(&M::DeleteAccount), 15u);
  EXPECT_EQ(SlotsOf(&M::SaveChanges, &M::GetOrder, &M::SetOrder, &M::EnumerateAccounts), Consecutive(17, 4));
  EXPECT_EQ(SlotsOf(&M::FreeMemory, &M::Advise, &M::Unadvise), Consecutive(23, 3));
  using A = IOlkAccount;
  EXPECT_EQ(SlotsOf(&A::GetAccountInfo, &A::GetProp, &A::SetProp), Consecutive(10, 3));
  EXPECT_EQ(SlotOf(&A::FreeMemory), 16u);
  EXPECT_EQ(SlotOf(&A::SaveChanges), 18u);
  EXPECT_EQ(SlotsOf(&IOlkEnum::GetCount, &IOlkEnum::Reset, &IOlkEnum::GetNext, &IOlkEnum::Skip),
            Consecutive(3, 4));
  EXPECT_EQ(SlotsOf(&IOlkAccountHelper::PlaceHolder1, &IOlkAccountHelper::GetIdentity,
                    &IOlkAccountHelper::GetMapiSession, &IOlkAccountHelper::HandsOffSession),
            Consecutive(3, 4));
  EXPECT_EQ(SlotOf(&IOlkAccountNotify::Notify), 4u);
}

// ---------------------------------------------------------------------------------------------
// Every interface can be implemented by overriding exactly its published methods: a missing or
// extra pure method, or a signature that differs, fails to compile here.

namespace {

#define NI \
  { return E_NOTIMPL; }

template <class I> struct Unknown : I {
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (riid == __uuidof(I) || riid == IID_IUnknown) {
      *ppv = static_cast<I*>(this);
      return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }
};

template <class I> struct Prop : Unknown<I> {
  HRESULT STDMETHODCALLTYPE GetLastError(HRESULT, ULONG, LPMAPIERROR*) override NI;
  HRESULT STDMETHODCALLTYPE SaveChanges(ULONG) override NI;
  HRESULT STDMETHODCALLTYPE GetProps(LPSPropTagArray, ULONG, ULONG*, LPSPropValue*) override NI;
  HRESULT STDMETHODCALLTYPE GetPropList(ULONG, LPSPropTagArray*) override NI;
  HRESULT STDMETHODCALLTYPE OpenProperty(ULONG, LPCIID, ULONG, ULONG, LPUNKNOWN*) override NI;
  HRESULT STDMETHODCALLTYPE SetProps(ULONG, LPSPropValue, LPSPropProblemArray*) override NI;
  HRESULT STDMETHODCALLTYPE DeleteProps(LPSPropTagArray, LPSPropProblemArray*) override NI;
  HRESULT STDMETHODCALLTYPE CopyTo(ULONG, LPCIID, LPSPropTagArray, ULONG_PTR, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG,
                                   LPSPropProblemArray*) override NI;
  HRESULT STDMETHODCALLTYPE CopyProps(LPSPropTagArray, ULONG_PTR, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG,
                                      LPSPropProblemArray*) override NI;
  HRESULT STDMETHODCALLTYPE GetNamesFromIDs(LPSPropTagArray*, LPGUID, ULONG, ULONG*, LPMAPINAMEID**) override NI;
  HRESULT STDMETHODCALLTYPE GetIDsFromNames(ULONG, LPMAPINAMEID*, ULONG, LPSPropTagArray*) override NI;
};

template <class I> struct Container : Prop<I> {
  HRESULT STDMETHODCALLTYPE GetContentsTable(ULONG, LPMAPITABLE*) override NI;
  HRESULT STDMETHODCALLTYPE GetHierarchyTable(ULONG, LPMAPITABLE*) override NI;
  HRESULT STDMETHODCALLTYPE OpenEntry(ULONG, LPENTRYID, LPCIID, ULONG, ULONG*, LPUNKNOWN*) override NI;
  HRESULT STDMETHODCALLTYPE SetSearchCriteria(LPSRestriction, LPENTRYLIST, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE GetSearchCriteria(ULONG, LPSRestriction*, LPENTRYLIST*, ULONG*) override NI;
};

template <class I> struct AbEntries : Container<I> {
  HRESULT STDMETHODCALLTYPE CreateEntry(ULONG, LPENTRYID, ULONG, LPMAPIPROP*) override NI;
  HRESULT STDMETHODCALLTYPE CopyEntries(LPENTRYLIST, ULONG_PTR, LPMAPIPROGRESS, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE DeleteEntries(LPENTRYLIST, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE ResolveNames(LPSPropTagArray, ULONG, LPADRLIST, LPFlagList) override NI;
};

struct AdviseSinkImpl final : Unknown<IMAPIAdviseSink> {
  ULONG STDMETHODCALLTYPE OnNotify(ULONG cNotif, LPNOTIFICATION) override { return cNotif; }
};

struct ProgressImpl final : Unknown<IMAPIProgress> {
  HRESULT STDMETHODCALLTYPE Progress(ULONG, ULONG, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE GetFlags(ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE GetMax(ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE GetMin(ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE SetLimits(LPULONG, LPULONG, LPULONG) override NI;
};

struct FolderImpl final : Container<IMAPIFolder> {
  HRESULT STDMETHODCALLTYPE CreateMessage(LPCIID, ULONG, LPMESSAGE*) override NI;
  HRESULT STDMETHODCALLTYPE CopyMessages(LPENTRYLIST, LPCIID, LPVOID, ULONG_PTR, LPMAPIPROGRESS, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE DeleteMessages(LPENTRYLIST, ULONG_PTR, LPMAPIPROGRESS, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE CreateFolder(ULONG, LPTSTR, LPTSTR, LPCIID, ULONG, LPMAPIFOLDER*) override NI;
  HRESULT STDMETHODCALLTYPE CopyFolder(ULONG, LPENTRYID, LPCIID, LPVOID, LPTSTR, ULONG_PTR, LPMAPIPROGRESS,
                                       ULONG) override NI;
  HRESULT STDMETHODCALLTYPE DeleteFolder(ULONG, LPENTRYID, ULONG_PTR, LPMAPIPROGRESS, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE SetReadFlags(LPENTRYLIST, ULONG_PTR, LPMAPIPROGRESS, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE GetMessageStatus(ULONG, LPENTRYID, ULONG, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE SetMessageStatus(ULONG, LPENTRYID, ULONG, ULONG, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE SaveContentsSort(LPSSortOrderSet, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE EmptyFolder(ULONG_PTR, LPMAPIPROGRESS, ULONG) override NI;
};

struct MsgStoreImpl final : Prop<IMsgStore> {
  HRESULT STDMETHODCALLTYPE Advise(ULONG, LPENTRYID, ULONG, LPMAPIADVISESINK, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE Unadvise(ULONG) override NI;
  HRESULT STDMETHODCALLTYPE CompareEntryIDs(ULONG, LPENTRYID, ULONG, LPENTRYID, ULONG, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE OpenEntry(ULONG, LPENTRYID, LPCIID, ULONG, ULONG*, LPUNKNOWN*) override NI;
  HRESULT STDMETHODCALLTYPE SetReceiveFolder(LPTSTR, ULONG, ULONG, LPENTRYID) override NI;
  HRESULT STDMETHODCALLTYPE GetReceiveFolder(LPTSTR, ULONG, ULONG*, LPENTRYID*, LPTSTR*) override NI;
  HRESULT STDMETHODCALLTYPE GetReceiveFolderTable(ULONG, LPMAPITABLE*) override NI;
  HRESULT STDMETHODCALLTYPE StoreLogoff(ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE AbortSubmit(ULONG, LPENTRYID, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE GetOutgoingQueue(ULONG, LPMAPITABLE*) override NI;
  HRESULT STDMETHODCALLTYPE SetLockState(LPMESSAGE, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE FinishedMsg(ULONG, ULONG, LPENTRYID) override NI;
  HRESULT STDMETHODCALLTYPE NotifyNewMail(LPNOTIFICATION) override NI;
};

struct MessageImpl final : Prop<IMessage> {
  HRESULT STDMETHODCALLTYPE GetAttachmentTable(ULONG, LPMAPITABLE*) override NI;
  HRESULT STDMETHODCALLTYPE OpenAttach(ULONG, LPCIID, ULONG, LPATTACH*) override NI;
  HRESULT STDMETHODCALLTYPE CreateAttach(LPCIID, ULONG, ULONG*, LPATTACH*) override NI;
  HRESULT STDMETHODCALLTYPE DeleteAttach(ULONG, ULONG_PTR, LPMAPIPROGRESS, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE GetRecipientTable(ULONG, LPMAPITABLE*) override NI;
  HRESULT STDMETHODCALLTYPE ModifyRecipients(ULONG, LPADRLIST) override NI;
  HRESULT STDMETHODCALLTYPE SubmitMessage(ULONG) override NI;
  HRESULT STDMETHODCALLTYPE SetReadFlag(ULONG) override NI;
};

struct AttachImpl final : Prop<IAttach> {};
struct MailUserImpl final : Prop<IMailUser> {};
struct ProfSectImpl final : Prop<IProfSect> {};
struct AbContainerImpl final : AbEntries<IABContainer> {};
struct DistListImpl final : AbEntries<IDistList> {};

struct StatusImpl final : Prop<IMAPIStatus> {
  HRESULT STDMETHODCALLTYPE ValidateState(ULONG_PTR, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE SettingsDialog(ULONG_PTR, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE ChangePassword(LPTSTR, LPTSTR, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE FlushQueues(ULONG_PTR, ULONG, LPENTRYID, ULONG) override NI;
};

struct ControlImpl final : Unknown<IMAPIControl> {
  HRESULT STDMETHODCALLTYPE GetLastError(HRESULT, ULONG, LPMAPIERROR*) override NI;
  HRESULT STDMETHODCALLTYPE Activate(ULONG, ULONG_PTR) override NI;
  HRESULT STDMETHODCALLTYPE GetState(ULONG, ULONG*) override NI;
};

struct TableImpl final : Unknown<IMAPITable> {
  HRESULT STDMETHODCALLTYPE GetLastError(HRESULT, ULONG, LPMAPIERROR*) override NI;
  HRESULT STDMETHODCALLTYPE Advise(ULONG, LPMAPIADVISESINK, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE Unadvise(ULONG) override NI;
  HRESULT STDMETHODCALLTYPE GetStatus(ULONG*, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE SetColumns(LPSPropTagArray, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE QueryColumns(ULONG, LPSPropTagArray*) override NI;
  HRESULT STDMETHODCALLTYPE GetRowCount(ULONG, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE SeekRow(BOOKMARK, LONG, LONG*) override NI;
  HRESULT STDMETHODCALLTYPE SeekRowApprox(ULONG, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE QueryPosition(ULONG*, ULONG*, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE FindRow(LPSRestriction, BOOKMARK, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE Restrict(LPSRestriction, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE CreateBookmark(BOOKMARK*) override NI;
  HRESULT STDMETHODCALLTYPE FreeBookmark(BOOKMARK) override NI;
  HRESULT STDMETHODCALLTYPE SortTable(LPSSortOrderSet, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE QuerySortOrder(LPSSortOrderSet*) override NI;
  HRESULT STDMETHODCALLTYPE QueryRows(LONG, ULONG, LPSRowSet*) override NI;
  HRESULT STDMETHODCALLTYPE Abort() override NI;
  HRESULT STDMETHODCALLTYPE ExpandRow(ULONG, LPBYTE, ULONG, ULONG, LPSRowSet*, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE CollapseRow(ULONG, LPBYTE, ULONG, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE WaitForCompletion(ULONG, ULONG, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE GetCollapseState(ULONG, ULONG, LPBYTE, ULONG*, LPBYTE*) override NI;
  HRESULT STDMETHODCALLTYPE SetCollapseState(ULONG, ULONG, LPBYTE, BOOKMARK*) override NI;
};

struct TableDataImpl final : Unknown<ITableData> {
  HRESULT STDMETHODCALLTYPE HrGetView(LPSSortOrderSet, CALLERRELEASE*, ULONG_PTR, LPMAPITABLE*) override NI;
  HRESULT STDMETHODCALLTYPE HrModifyRow(LPSRow) override NI;
  HRESULT STDMETHODCALLTYPE HrDeleteRow(LPSPropValue) override NI;
  HRESULT STDMETHODCALLTYPE HrQueryRow(LPSPropValue, LPSRow*, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE HrEnumRow(ULONG, LPSRow*) override NI;
  HRESULT STDMETHODCALLTYPE HrNotify(ULONG, ULONG, LPSPropValue) override NI;
  HRESULT STDMETHODCALLTYPE HrInsertRow(ULONG, LPSRow) override NI;
  HRESULT STDMETHODCALLTYPE HrModifyRows(ULONG, LPSRowSet) override NI;
  HRESULT STDMETHODCALLTYPE HrDeleteRows(ULONG, LPSRowSet, ULONG*) override NI;
};

struct SupportImpl final : Unknown<IMAPISupport> {
  HRESULT STDMETHODCALLTYPE GetLastError(HRESULT, ULONG, LPMAPIERROR*) override NI;
  HRESULT STDMETHODCALLTYPE GetMemAllocRoutines(LPALLOCATEBUFFER*, LPALLOCATEMORE*, LPFREEBUFFER*) override NI;
  HRESULT STDMETHODCALLTYPE Subscribe(LPNOTIFKEY, ULONG, ULONG, LPMAPIADVISESINK, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE Unsubscribe(ULONG) override NI;
  HRESULT STDMETHODCALLTYPE Notify(LPNOTIFKEY, ULONG, LPNOTIFICATION, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE ModifyStatusRow(ULONG, LPSPropValue, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE OpenProfileSection(LPMAPIUID, ULONG, LPPROFSECT*) override NI;
  HRESULT STDMETHODCALLTYPE RegisterPreprocessor(LPMAPIUID, LPTSTR, LPTSTR, LPSTR, LPSTR, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE NewUID(LPMAPIUID) override NI;
  HRESULT STDMETHODCALLTYPE MakeInvalid(ULONG, LPVOID, ULONG, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE SpoolerYield(ULONG) override NI;
  HRESULT STDMETHODCALLTYPE SpoolerNotify(ULONG, LPVOID) override NI;
  HRESULT STDMETHODCALLTYPE CreateOneOff(LPTSTR, LPTSTR, LPTSTR, ULONG, ULONG*, LPENTRYID*) override NI;
  HRESULT STDMETHODCALLTYPE SetProviderUID(LPMAPIUID, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE CompareEntryIDs(ULONG, LPENTRYID, ULONG, LPENTRYID, ULONG, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE OpenTemplateID(ULONG, LPENTRYID, ULONG, LPMAPIPROP, LPCIID, LPMAPIPROP*,
                                           LPMAPIPROP) override NI;
  HRESULT STDMETHODCALLTYPE OpenEntry(ULONG, LPENTRYID, LPCIID, ULONG, ULONG*, LPUNKNOWN*) override NI;
  HRESULT STDMETHODCALLTYPE GetOneOffTable(ULONG, LPMAPITABLE*) override NI;
  HRESULT STDMETHODCALLTYPE Address(ULONG_PTR*, LPADRPARM, LPADRLIST*) override NI;
  HRESULT STDMETHODCALLTYPE Details(ULONG_PTR*, LPFNDISMISS, LPVOID, ULONG, LPENTRYID, LPFNBUTTON, LPVOID, LPTSTR,
                                    ULONG) override NI;
  HRESULT STDMETHODCALLTYPE NewEntry(ULONG_PTR, ULONG, ULONG, LPENTRYID, ULONG, LPENTRYID, ULONG*,
                                     LPENTRYID*) override NI;
  HRESULT STDMETHODCALLTYPE DoConfigPropsheet(ULONG_PTR, ULONG, LPTSTR, LPMAPITABLE, LPMAPIPROP, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE CopyMessages(LPCIID, LPVOID, LPENTRYLIST, LPCIID, LPVOID, ULONG_PTR, LPMAPIPROGRESS,
                                         ULONG) override NI;
  HRESULT STDMETHODCALLTYPE CopyFolder(LPCIID, LPVOID, ULONG, LPENTRYID, LPCIID, LPVOID, LPTSTR, ULONG_PTR,
                                       LPMAPIPROGRESS, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE DoCopyTo(LPCIID, LPVOID, ULONG, LPCIID, LPSPropTagArray, ULONG_PTR, LPMAPIPROGRESS,
                                     LPCIID, LPVOID, ULONG, LPSPropProblemArray*) override NI;
  HRESULT STDMETHODCALLTYPE DoCopyProps(LPCIID, LPVOID, LPSPropTagArray, ULONG_PTR, LPMAPIPROGRESS, LPCIID, LPVOID,
                                        ULONG, LPSPropProblemArray*) override NI;
  HRESULT STDMETHODCALLTYPE DoProgressDialog(ULONG_PTR, ULONG, LPMAPIPROGRESS*) override NI;
  HRESULT STDMETHODCALLTYPE ReadReceipt(ULONG, LPMESSAGE, LPMESSAGE*) override NI;
  HRESULT STDMETHODCALLTYPE PrepareSubmit(LPMESSAGE, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE ExpandRecips(LPMESSAGE, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE UpdatePAB(ULONG, LPMESSAGE) override NI;
  HRESULT STDMETHODCALLTYPE DoSentMail(ULONG, LPMESSAGE) override NI;
  HRESULT STDMETHODCALLTYPE OpenAddressBook(LPCIID, ULONG, LPADRBOOK*) override NI;
  HRESULT STDMETHODCALLTYPE Preprocess(ULONG, ULONG, LPENTRYID) override NI;
  HRESULT STDMETHODCALLTYPE CompleteMsg(ULONG, ULONG, LPENTRYID) override NI;
  HRESULT STDMETHODCALLTYPE StoreLogoffTransports(ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE StatusRecips(LPMESSAGE, LPADRLIST) override NI;
  HRESULT STDMETHODCALLTYPE WrapStoreEntryID(ULONG, LPENTRYID, ULONG*, LPENTRYID*) override NI;
  HRESULT STDMETHODCALLTYPE ModifyProfile(ULONG) override NI;
  HRESULT STDMETHODCALLTYPE IStorageFromStream(LPUNKNOWN, LPCIID, ULONG, LPSTORAGE*) override NI;
  HRESULT STDMETHODCALLTYPE GetSvcConfigSupportObj(ULONG, LPMAPISUP*) override NI;
};

struct MsProviderImpl final : Unknown<IMSProvider> {
  HRESULT STDMETHODCALLTYPE Shutdown(ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE Logon(LPMAPISUP, ULONG_PTR, LPTSTR, ULONG, LPENTRYID, ULONG, LPCIID, ULONG*, LPBYTE*,
                                  LPMAPIERROR*, LPMSLOGON*, LPMDB*) override NI;
  HRESULT STDMETHODCALLTYPE SpoolerLogon(LPMAPISUP, ULONG_PTR, LPTSTR, ULONG, LPENTRYID, ULONG, LPCIID, ULONG,
                                         LPBYTE, LPMAPIERROR*, LPMSLOGON*, LPMDB*) override NI;
  HRESULT STDMETHODCALLTYPE CompareStoreIDs(ULONG, LPENTRYID, ULONG, LPENTRYID, ULONG, ULONG*) override NI;
};

struct MsLogonImpl final : Unknown<IMSLogon> {
  HRESULT STDMETHODCALLTYPE GetLastError(HRESULT, ULONG, LPMAPIERROR*) override NI;
  HRESULT STDMETHODCALLTYPE Logoff(ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE OpenEntry(ULONG, LPENTRYID, LPCIID, ULONG, ULONG*, LPUNKNOWN*) override NI;
  HRESULT STDMETHODCALLTYPE CompareEntryIDs(ULONG, LPENTRYID, ULONG, LPENTRYID, ULONG, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE Advise(ULONG, LPENTRYID, ULONG, LPMAPIADVISESINK, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE Unadvise(ULONG) override NI;
  HRESULT STDMETHODCALLTYPE OpenStatusEntry(LPCIID, ULONG, ULONG*, LPVOID*) override NI;
};

struct SessionImpl final : Unknown<IMAPISession> {
  HRESULT STDMETHODCALLTYPE GetLastError(HRESULT, ULONG, LPMAPIERROR*) override NI;
  HRESULT STDMETHODCALLTYPE GetMsgStoresTable(ULONG, LPMAPITABLE*) override NI;
  HRESULT STDMETHODCALLTYPE OpenMsgStore(ULONG_PTR, ULONG, LPENTRYID, LPCIID, ULONG, LPMDB*) override NI;
  HRESULT STDMETHODCALLTYPE OpenAddressBook(ULONG_PTR, LPCIID, ULONG, LPADRBOOK*) override NI;
  HRESULT STDMETHODCALLTYPE OpenProfileSection(LPMAPIUID, LPCIID, ULONG, LPPROFSECT*) override NI;
  HRESULT STDMETHODCALLTYPE GetStatusTable(ULONG, LPMAPITABLE*) override NI;
  HRESULT STDMETHODCALLTYPE OpenEntry(ULONG, LPENTRYID, LPCIID, ULONG, ULONG*, LPUNKNOWN*) override NI;
  HRESULT STDMETHODCALLTYPE CompareEntryIDs(ULONG, LPENTRYID, ULONG, LPENTRYID, ULONG, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE Advise(ULONG, LPENTRYID, ULONG, LPMAPIADVISESINK, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE Unadvise(ULONG) override NI;
  HRESULT STDMETHODCALLTYPE MessageOptions(ULONG_PTR, ULONG, LPTSTR, LPMESSAGE) override NI;
  HRESULT STDMETHODCALLTYPE QueryDefaultMessageOpt(LPTSTR, ULONG, ULONG*, LPSPropValue*) override NI;
  HRESULT STDMETHODCALLTYPE EnumAdrTypes(ULONG, ULONG*, LPTSTR**) override NI;
  HRESULT STDMETHODCALLTYPE QueryIdentity(ULONG*, LPENTRYID*) override NI;
  HRESULT STDMETHODCALLTYPE Logoff(ULONG_PTR, ULONG, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE SetDefaultStore(ULONG, ULONG, LPENTRYID) override NI;
  HRESULT STDMETHODCALLTYPE AdminServices(ULONG, LPSERVICEADMIN*) override NI;
  HRESULT STDMETHODCALLTYPE ShowForm(ULONG_PTR, LPMDB, LPMAPIFOLDER, LPCIID, ULONG, LPMESSAGE, ULONG, ULONG, ULONG,
                                     ULONG, LPSTR) override NI;
  HRESULT STDMETHODCALLTYPE PrepareForm(LPCIID, LPMESSAGE, ULONG*) override NI;
};

struct AddrBookImpl final : Prop<IAddrBook> {
  HRESULT STDMETHODCALLTYPE OpenEntry(ULONG, LPENTRYID, LPCIID, ULONG, ULONG*, LPUNKNOWN*) override NI;
  HRESULT STDMETHODCALLTYPE CompareEntryIDs(ULONG, LPENTRYID, ULONG, LPENTRYID, ULONG, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE Advise(ULONG, LPENTRYID, ULONG, LPMAPIADVISESINK, ULONG*) override NI;
  HRESULT STDMETHODCALLTYPE Unadvise(ULONG) override NI;
  HRESULT STDMETHODCALLTYPE CreateOneOff(LPTSTR, LPTSTR, LPTSTR, ULONG, ULONG*, LPENTRYID*) override NI;
  HRESULT STDMETHODCALLTYPE NewEntry(ULONG_PTR, ULONG, ULONG, LPENTRYID, ULONG, LPENTRYID, ULONG*,
                                     LPENTRYID*) override NI;
  HRESULT STDMETHODCALLTYPE ResolveName(ULONG_PTR, ULONG, LPTSTR, LPADRLIST) override NI;
  HRESULT STDMETHODCALLTYPE Address(ULONG_PTR*, LPADRPARM, LPADRLIST*) override NI;
  HRESULT STDMETHODCALLTYPE Details(ULONG_PTR*, LPFNDISMISS, LPVOID, ULONG, LPENTRYID, LPFNBUTTON, LPVOID, LPTSTR,
                                    ULONG) override NI;
  HRESULT STDMETHODCALLTYPE RecipOptions(ULONG_PTR, ULONG, LPADRENTRY) override NI;
  HRESULT STDMETHODCALLTYPE QueryDefaultRecipOpt(LPTSTR, ULONG, ULONG*, LPSPropValue*) override NI;
  HRESULT STDMETHODCALLTYPE GetPAB(ULONG*, LPENTRYID*) override NI;
  HRESULT STDMETHODCALLTYPE SetPAB(ULONG, LPENTRYID) override NI;
  HRESULT STDMETHODCALLTYPE GetDefaultDir(ULONG*, LPENTRYID*) override NI;
  HRESULT STDMETHODCALLTYPE SetDefaultDir(ULONG, LPENTRYID) override NI;
  HRESULT STDMETHODCALLTYPE GetSearchPath(ULONG, LPSRowSet*) override NI;
  HRESULT STDMETHODCALLTYPE SetSearchPath(ULONG, LPSRowSet) override NI;
  HRESULT STDMETHODCALLTYPE PrepareRecips(ULONG, LPSPropTagArray, LPADRLIST) override NI;
};

struct ProfAdminImpl final : Unknown<IProfAdmin> {
  HRESULT STDMETHODCALLTYPE GetLastError(HRESULT, ULONG, LPMAPIERROR*) override NI;
  HRESULT STDMETHODCALLTYPE GetProfileTable(ULONG, LPMAPITABLE*) override NI;
  HRESULT STDMETHODCALLTYPE CreateProfile(LPTSTR, LPTSTR, ULONG_PTR, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE DeleteProfile(LPTSTR, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE ChangeProfilePassword(LPTSTR, LPTSTR, LPTSTR, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE CopyProfile(LPTSTR, LPTSTR, LPTSTR, ULONG_PTR, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE RenameProfile(LPTSTR, LPTSTR, LPTSTR, ULONG_PTR, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE SetDefaultProfile(LPTSTR, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE AdminServices(LPTSTR, LPTSTR, ULONG_PTR, ULONG, LPSERVICEADMIN*) override NI;
};

struct ServiceAdminImpl final : Unknown<IMsgServiceAdmin> {
  HRESULT STDMETHODCALLTYPE GetLastError(HRESULT, ULONG, LPMAPIERROR*) override NI;
  HRESULT STDMETHODCALLTYPE GetMsgServiceTable(ULONG, LPMAPITABLE*) override NI;
  HRESULT STDMETHODCALLTYPE CreateMsgService(LPTSTR, LPTSTR, ULONG_PTR, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE DeleteMsgService(LPMAPIUID) override NI;
  HRESULT STDMETHODCALLTYPE CopyMsgService(LPMAPIUID, LPTSTR, LPCIID, LPCIID, LPVOID, ULONG_PTR, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE RenameMsgService(LPMAPIUID, ULONG, LPTSTR) override NI;
  HRESULT STDMETHODCALLTYPE ConfigureMsgService(LPMAPIUID, ULONG_PTR, ULONG, ULONG, LPSPropValue) override NI;
  HRESULT STDMETHODCALLTYPE OpenProfileSection(LPMAPIUID, LPCIID, ULONG, LPPROFSECT*) override NI;
  HRESULT STDMETHODCALLTYPE MsgServiceTransportOrder(ULONG, LPMAPIUID, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE AdminProviders(LPMAPIUID, ULONG, LPPROVIDERADMIN*) override NI;
  HRESULT STDMETHODCALLTYPE SetPrimaryIdentity(LPMAPIUID, ULONG) override NI;
  HRESULT STDMETHODCALLTYPE GetProviderTable(ULONG, LPMAPITABLE*) override NI;
};

struct ProviderAdminImpl final : Unknown<IProviderAdmin> {
  HRESULT STDMETHODCALLTYPE GetLastError(HRESULT, ULONG, LPMAPIERROR*) override NI;
  HRESULT STDMETHODCALLTYPE GetProviderTable(ULONG, LPMAPITABLE*) override NI;
  HRESULT STDMETHODCALLTYPE CreateProvider(LPTSTR, ULONG, LPSPropValue, ULONG_PTR, ULONG, MAPIUID*) override NI;
  HRESULT STDMETHODCALLTYPE DeleteProvider(LPMAPIUID) override NI;
  HRESULT STDMETHODCALLTYPE OpenProfileSection(LPMAPIUID, LPCIID, ULONG, LPPROFSECT*) override NI;
};

template <class I> struct OlkError : Unknown<I> {
  HRESULT STDMETHODCALLTYPE GetLastError(HRESULT, LPWSTR*) override NI;
};

struct OlkEnumImpl final : Unknown<IOlkEnum> {
  HRESULT STDMETHODCALLTYPE GetCount(DWORD*) override NI;
  HRESULT STDMETHODCALLTYPE Reset() override NI;
  HRESULT STDMETHODCALLTYPE GetNext(LPUNKNOWN*) override NI;
  HRESULT STDMETHODCALLTYPE Skip(DWORD) override NI;
};

struct OlkNotifyImpl final : OlkError<IOlkAccountNotify> {
  HRESULT STDMETHODCALLTYPE Notify(DWORD, DWORD, DWORD) override NI;
};

struct OlkHelperImpl final : Unknown<IOlkAccountHelper> {
  HRESULT STDMETHODCALLTYPE PlaceHolder1(LPVOID) override NI;
  HRESULT STDMETHODCALLTYPE GetIdentity(LPWSTR, DWORD*) override NI;
  HRESULT STDMETHODCALLTYPE GetMapiSession(LPUNKNOWN*) override NI;
  HRESULT STDMETHODCALLTYPE HandsOffSession() override NI;
};

struct OlkAccountImpl final : OlkError<IOlkAccount> {
  HRESULT STDMETHODCALLTYPE PlaceHolder1() override NI;
  HRESULT STDMETHODCALLTYPE PlaceHolder2() override NI;
  HRESULT STDMETHODCALLTYPE PlaceHolder3() override NI;
  HRESULT STDMETHODCALLTYPE PlaceHolder4() override NI;
  HRESULT STDMETHODCALLTYPE PlaceHolder5() override NI;
  HRESULT STDMETHODCALLTYPE PlaceHolder6() override NI;
  HRESULT STDMETHODCALLTYPE GetAccountInfo(CLSID*, DWORD*, CLSID**) override NI;
  HRESULT STDMETHODCALLTYPE GetProp(DWORD, ACCT_VARIANT*) override NI;
  HRESULT STDMETHODCALLTYPE SetProp(DWORD, ACCT_VARIANT*) override NI;
  HRESULT STDMETHODCALLTYPE PlaceHolder7() override NI;
  HRESULT STDMETHODCALLTYPE PlaceHolder8() override NI;
  HRESULT STDMETHODCALLTYPE PlaceHolder9() override NI;
  HRESULT STDMETHODCALLTYPE FreeMemory(BYTE*) override NI;
  HRESULT STDMETHODCALLTYPE PlaceHolder10() override NI;
  HRESULT STDMETHODCALLTYPE SaveChanges(DWORD) override NI;
};

struct OlkManagerImpl final : OlkError<IOlkAccountManager> {
  HRESULT STDMETHODCALLTYPE Init(IOlkAccountHelper*, DWORD) override NI;
  HRESULT STDMETHODCALLTYPE DisplayAccountList(HWND, DWORD, LPCWSTR, DWORD, const CLSID*, const CLSID*) override NI;
  HRESULT STDMETHODCALLTYPE PlaceHolder1() override NI;
  HRESULT STDMETHODCALLTYPE PlaceHolder2() override NI;
  HRESULT STDMETHODCALLTYPE PlaceHolder3() override NI;
  HRESULT STDMETHODCALLTYPE PlaceHolder4() override NI;
  HRESULT STDMETHODCALLTYPE PlaceHolder5() override NI;
  HRESULT STDMETHODCALLTYPE FindAccount(DWORD, ACCT_VARIANT*, IOlkAccount**) override NI;
  HRESULT STDMETHODCALLTYPE PlaceHolder6() override NI;
  HRESULT STDMETHODCALLTYPE PlaceHolder7() override NI;
  HRESULT STDMETHODCALLTYPE PlaceHolder8() override NI;
  HRESULT STDMETHODCALLTYPE DeleteAccount(DWORD) override NI;
  HRESULT STDMETHODCALLTYPE PlaceHolder9() override NI;
  HRESULT STDMETHODCALLTYPE SaveChanges(DWORD, DWORD) override NI;
  HRESULT STDMETHODCALLTYPE GetOrder(const CLSID*, DWORD*, DWORD*[]) override NI;
  HRESULT STDMETHODCALLTYPE SetOrder(const CLSID*, DWORD*, DWORD*[]) override NI;
  HRESULT STDMETHODCALLTYPE EnumerateAccounts(const CLSID*, const CLSID*, DWORD, IOlkEnum**) override NI;
  HRESULT STDMETHODCALLTYPE PlaceHolder10() override NI;
  HRESULT STDMETHODCALLTYPE PlaceHolder11() override NI;
  HRESULT STDMETHODCALLTYPE FreeMemory(BYTE*) override NI;
  HRESULT STDMETHODCALLTYPE Advise(IOlkAccountNotify*, DWORD*) override NI;
  HRESULT STDMETHODCALLTYPE Unadvise(DWORD*) override NI;
};

#undef NI

// QueryInterface through the interface's own IID answers with the same object.
template <class I, class Impl> void ExpectAnswersOwnIid(const GUID& iid) {
  Impl impl;
  I* itf = &impl;
  void* out = nullptr;
  EXPECT_EQ(itf->QueryInterface(iid, &out), S_OK);
  EXPECT_EQ(out, static_cast<void*>(itf));
  EXPECT_TRUE(__uuidof(I) == iid);
}

}  // namespace

TEST(MapiHeaders, EveryInterfaceIsImplementableAndBoundToItsIid) {
  ExpectAnswersOwnIid<IMAPIAdviseSink, AdviseSinkImpl>(IID_IMAPIAdviseSink);
  ExpectAnswersOwnIid<IMAPIProgress, ProgressImpl>(IID_IMAPIProgress);
  ExpectAnswersOwnIid<IMAPIFolder, FolderImpl>(IID_IMAPIFolder);
  ExpectAnswersOwnIid<IMsgStore, MsgStoreImpl>(IID_IMsgStore);
  ExpectAnswersOwnIid<IMessage, MessageImpl>(IID_IMessage);
  ExpectAnswersOwnIid<IAttach, AttachImpl>(IID_IAttachment);
  ExpectAnswersOwnIid<IMailUser, MailUserImpl>(IID_IMailUser);
  ExpectAnswersOwnIid<IProfSect, ProfSectImpl>(IID_IProfSect);
  ExpectAnswersOwnIid<IABContainer, AbContainerImpl>(IID_IABContainer);
  ExpectAnswersOwnIid<IDistList, DistListImpl>(IID_IDistList);
  ExpectAnswersOwnIid<IMAPIStatus, StatusImpl>(IID_IMAPIStatus);
  ExpectAnswersOwnIid<IMAPIControl, ControlImpl>(IID_IMAPIControl);
  ExpectAnswersOwnIid<IMAPITable, TableImpl>(IID_IMAPITable);
  ExpectAnswersOwnIid<ITableData, TableDataImpl>(IID_IMAPITableData);
  ExpectAnswersOwnIid<IMAPISupport, SupportImpl>(IID_IMAPISup);
  ExpectAnswersOwnIid<IMSProvider, MsProviderImpl>(IID_IMSProvider);
  ExpectAnswersOwnIid<IMSLogon, MsLogonImpl>(IID_IMSLogon);
  ExpectAnswersOwnIid<IMAPISession, SessionImpl>(IID_IMAPISession);
  ExpectAnswersOwnIid<IAddrBook, AddrBookImpl>(IID_IAddrBook);
  ExpectAnswersOwnIid<IProfAdmin, ProfAdminImpl>(IID_IProfAdmin);
  ExpectAnswersOwnIid<IMsgServiceAdmin, ServiceAdminImpl>(IID_IMsgServiceAdmin);
  ExpectAnswersOwnIid<IProviderAdmin, ProviderAdminImpl>(IID_IProviderAdmin);
  ExpectAnswersOwnIid<IOlkEnum, OlkEnumImpl>(IID_IOlkEnum);
  ExpectAnswersOwnIid<IOlkAccountNotify, OlkNotifyImpl>(IID_IOlkAccountNotify);
  ExpectAnswersOwnIid<IOlkAccountHelper, OlkHelperImpl>(IID_IOlkAccountHelper);
  ExpectAnswersOwnIid<IOlkAccount, OlkAccountImpl>(IID_IOlkAccount);
  ExpectAnswersOwnIid<IOlkAccountManager, OlkManagerImpl>(IID_IOlkAccountManager);

  // A call through the base interface reaches the implementation's slot.
  TableImpl table;
  IMAPITable* view = &table;
  EXPECT_EQ(view->SetCollapseState(0, 0, nullptr, nullptr), E_NOTIMPL);
  AdviseSinkImpl sink;
  EXPECT_EQ(static_cast<IMAPIAdviseSink*>(&sink)->OnNotify(7, nullptr), 7u);
}

TEST(MapiHeaders, IdentifiersHavePublishedValues) {
  // The MAPI OLE GUID family {000203xx-0000-0000-C000-000000000046}.
  const GUID ole = {0, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
  auto isOle = [&](const GUID& g, uint32_t data1) {
    GUID want = ole;
    want.Data1 = data1;
    return g == want;
  };
  EXPECT_TRUE(isOle(IID_IMAPITable, 0x00020301));
  EXPECT_TRUE(isOle(IID_IMAPISup, 0x0002030F));
  EXPECT_TRUE(isOle(IID_IMAPITableData, 0x00020316));
  EXPECT_TRUE(isOle(IID_IStreamDocfile, 0x0002032C));
  EXPECT_TRUE(isOle(PS_MAPI, 0x00020328));
  EXPECT_TRUE(isOle(PS_PUBLIC_STRINGS, 0x00020329));
  EXPECT_TRUE(isOle(PSETID_Common, 0x00062008));
  EXPECT_TRUE(isOle(PS_INTERNET_HEADERS, 0x00020386));
  // Distinct interfaces never share an identifier.
  const GUID* all[] = {&IID_IMAPISession, &IID_IMAPITable, &IID_IMAPIAdviseSink, &IID_IMAPIProp,
                       &IID_IProfSect,    &IID_IMAPIStatus, &IID_IMsgStore,       &IID_IMessage,
                       &IID_IAttachment,  &IID_IAddrBook,   &IID_IMailUser,       &IID_IMAPIContainer,
                       &IID_IMAPIFolder,  &IID_IABContainer, &IID_IDistList,      &IID_IMAPISup,
                       &IID_IMSProvider,  &IID_IMSLogon,    &IID_IMAPITableData,  &IID_IMAPIControl,
                       &IID_IProfAdmin,   &IID_IMsgServiceAdmin, &IID_IMAPIProgress, &IID_IProviderAdmin,
                       &IID_IOlkAccountManager, &IID_IOlkAccountHelper, &IID_IOlkAccount, &IID_IOlkEnum,
                       &IID_IOlkAccountNotify, &IID_IOlkErrorUnknown, &CLSID_OlkAccountManager, &CLSID_OlkMail};
  for (size_t i = 0; i < std::size(all); ++i)
    for (size_t j = i + 1; j < std::size(all); ++j) EXPECT_FALSE(*all[i] == *all[j]) << i << " vs " << j;
  EXPECT_EQ(CLSID_OlkAccountManager.Data1, 0xed475410u);
  EXPECT_EQ(IID_IOlkAccountManager.Data1, 0x9240a6cdu);
}
