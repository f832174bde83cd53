// MAPI utility library: table data objects, property-value helpers, row and address-list
// helpers, advise sinks, streams on files and structured storage inside a stream.
#pragma once
#include "mapix.h"

// ---------------------------------------------------------------------------------------------
// Table data objects (CreateTable) and their views.

struct ITableData;
typedef ITableData* LPTABLEDATA;

// Called when a view made by HrGetView loses its last reference.
typedef void(STDAPICALLTYPE CALLERRELEASE)(ULONG_PTR ulCallerData, LPTABLEDATA lpTblData, LPMAPITABLE lpVue);

// ITableData::HrDeleteRows.
#define TAD_ALL_ROWS 1

struct ITableData : public IUnknown {
  MAPIMETHOD(HrGetView)(LPSSortOrderSet lpSSortOrderSet, CALLERRELEASE* lpfCallerRelease, ULONG_PTR ulCallerData,
                        LPMAPITABLE* lppMAPITable) = 0;
  MAPIMETHOD(HrModifyRow)(LPSRow lpSRow) = 0;
  MAPIMETHOD(HrDeleteRow)(LPSPropValue lpSPropValue) = 0;
  MAPIMETHOD(HrQueryRow)(LPSPropValue lpsPropValue, LPSRow* lppSRow, ULONG* lpuliRow) = 0;
  MAPIMETHOD(HrEnumRow)(ULONG ulRowNumber, LPSRow* lppSRow) = 0;
  MAPIMETHOD(HrNotify)(ULONG ulFlags, ULONG cValues, LPSPropValue lpSPropValue) = 0;
  MAPIMETHOD(HrInsertRow)(ULONG uliRow, LPSRow lpSRow) = 0;
  MAPIMETHOD(HrModifyRows)(ULONG ulFlags, LPSRowSet lpSRowSet) = 0;
  MAPIMETHOD(HrDeleteRows)(ULONG ulFlags, LPSRowSet lprowsetToDelete, ULONG* cRowsDeleted) = 0;
};

// OpenStreamOnFile.
#define SOF_UNIQUEFILENAME ((ULONG)0x80000000)

// HrIStorageFromStream.
#define STGSTRM_RESET 0x00000000
#define STGSTRM_CURRENT 0x10000000
#define STGSTRM_MODIFY 0x00000002
#define STGSTRM_CREATE 0x00001000

extern "C" {

SCODE STDAPICALLTYPE CreateTable(LPCIID lpInterface, ALLOCATEBUFFER* lpAllocateBuffer,
                                 ALLOCATEMORE* lpAllocateMore, FREEBUFFER* lpFreeBuffer, LPVOID lpvReserved,
                                 ULONG ulTableType, ULONG ulPropTagIndexColumn,
                                 LPSPropTagArray lpSPropTagArrayColumns, LPTABLEDATA* lppTableData);

HRESULT STDAPICALLTYPE OpenStreamOnFile(LPALLOCATEBUFFER lpAllocateBuffer, LPFREEBUFFER lpFreeBuffer,
                                        ULONG ulFlags, LPTSTR lpszFileName, LPTSTR lpszPrefix,
                                        LPSTREAM* lppStream);
HRESULT STDAPICALLTYPE HrIStorageFromStream(LPUNKNOWN lpUnkIn, LPCIID lpInterface, ULONG ulFlags,
                                            LPSTORAGE* lppStorageOut);

// ---------------------------------------------------------------------------------------------
// Property values. The Sc* copies lay a value array and everything it points to out in one
// block; PropCopyMore chains a single value's data to a MAPI allocation.

SCODE STDAPICALLTYPE PropCopyMore(LPSPropValue lpSPropValueDest, LPSPropValue lpSPropValueSrc,
                                  ALLOCATEMORE* lpfAllocMore, LPVOID lpvObject);
ULONG STDAPICALLTYPE UlPropSize(LPSPropValue lpSPropValue);
SCODE STDAPICALLTYPE ScCountProps(int cValues, LPSPropValue lpPropArray, ULONG* lpcb);
SCODE STDAPICALLTYPE ScCopyProps(int cValues, LPSPropValue lpPropArray, LPVOID lpvDst, ULONG* lpcb);
SCODE STDAPICALLTYPE ScDupPropset(int cValues, LPSPropValue lpPropArray, LPALLOCATEBUFFER lpAllocateBuffer,
                                  LPSPropValue* lppPropArray);
LPSPropValue STDAPICALLTYPE PpropFindProp(LPSPropValue lpPropArray, ULONG cValues, ULONG ulPropTag);
LPSPropValue STDAPICALLTYPE LpValFindProp(ULONG ulPropTag, ULONG cValues, LPSPropValue lpPropArray);
BOOL STDAPICALLTYPE FPropCompareProp(LPSPropValue lpSPropValue1, ULONG ulRelOp, LPSPropValue lpSPropValue2);
LONG STDAPICALLTYPE LPropCompareProp(LPSPropValue lpSPropValueA, LPSPropValue lpSPropValueB);
BOOL STDAPICALLTYPE FPropContainsProp(LPSPropValue lpSPropValueDst, LPSPropValue lpSPropValueSrc,
                                      ULONG ulFuzzyLevel);
BOOL STDAPICALLTYPE FEqualNames(LPMAPINAMEID lpName1, LPMAPINAMEID lpName2);

// Notifications laid out in one block, as ScCopyProps does for values.
SCODE STDAPICALLTYPE ScCountNotifications(int cNotifications, LPNOTIFICATION lpNotifications, ULONG* lpcb);
SCODE STDAPICALLTYPE ScCopyNotifications(int cNotification, LPNOTIFICATION lpNotifications, LPVOID lpvDst,
                                         ULONG* lpcb);

// ---------------------------------------------------------------------------------------------
// Objects, rows and tables.

HRESULT STDAPICALLTYPE HrGetOneProp(LPMAPIPROP lpMapiProp, ULONG ulPropTag, LPSPropValue* lppProp);
HRESULT STDAPICALLTYPE HrSetOneProp(LPMAPIPROP lpMapiProp, LPSPropValue lpProp);
BOOL STDAPICALLTYPE FPropExists(LPMAPIPROP lpMapiProp, ULONG ulPropTag);
void STDAPICALLTYPE FreeProws(LPSRowSet lpRows);
void STDAPICALLTYPE FreePadrlist(LPADRLIST lpAdrlist);
HRESULT STDAPICALLTYPE HrQueryAllRows(LPMAPITABLE lpTable, LPSPropTagArray lpPropTags, LPSRestriction lpRestriction,
                                      LPSSortOrderSet lpSortOrderSet, LONG crowsMax, LPSRowSet* lppRows);
HRESULT STDAPICALLTYPE HrAddColumns(LPMAPITABLE lptbl, LPSPropTagArray lpproptagColumnsNew,
                                    LPALLOCATEBUFFER lpAllocateBuffer, LPFREEBUFFER lpFreeBuffer);
HRESULT STDAPICALLTYPE HrAddColumnsEx(LPMAPITABLE lptbl, LPSPropTagArray lpproptagColumnsNew,
                                      LPALLOCATEBUFFER lpAllocateBuffer, LPFREEBUFFER lpFreeBuffer,
                                      void (*lpfnFilterColumns)(LPSPropTagArray ptaga));
HRESULT STDAPICALLTYPE HrAllocAdviseSink(LPNOTIFCALLBACK lpfnCallback, LPVOID lpvContext,
                                         LPMAPIADVISESINK* lppAdviseSink);
ULONG STDAPICALLTYPE UlAddRef(LPVOID lpunk);
ULONG STDAPICALLTYPE UlRelease(LPVOID lpunk);

SCODE STDAPICALLTYPE ScInitMapiUtil(ULONG ulFlags);
void STDAPICALLTYPE DeinitMapiUtil(void);

}  // extern "C"
