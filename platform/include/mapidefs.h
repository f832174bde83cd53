// MAPI base definitions: property types, the value and array structures, restrictions, sort orders,
// notifications, flags, and the core object interfaces. Layouts and method order are the binary
// contract shared with every provider and client, so nothing here may be reordered.
#pragma once
#include <cstddef>
#include <cstring>
#include "winnt.h"
#include "winerror.h"
#include "guiddef.h"
#include "wtypes.h"
#include "unknwn.h"
#include "objidl.h"
#include "mapiguid.h"

// ---------------------------------------------------------------------------------------------
// Method declaration helpers, as provider code spells its interface implementations.

#define MAPIMETHOD(method) virtual HRESULT STDMETHODCALLTYPE method
#define MAPIMETHOD_(type, method) virtual type STDMETHODCALLTYPE method
#define MAPIMETHODIMP HRESULT STDMETHODCALLTYPE
#define MAPIMETHODIMP_(type) type STDMETHODCALLTYPE
#ifndef IMPL
#define IMPL
#endif
#ifndef STDMAPIINITCALLTYPE
#define STDMAPIINITCALLTYPE
#endif
#define MAPI_DIM 1

typedef const IID* LPCIID;
typedef ULONG_PTR BOOKMARK;

// ---------------------------------------------------------------------------------------------
// Identifiers.

typedef struct _MAPIUID {
  BYTE ab[16];
} MAPIUID, *LPMAPIUID;
#define IsEqualMAPIUID(lpuid1, lpuid2) (!std::memcmp((lpuid1), (lpuid2), sizeof(MAPIUID)))

// The one-off entry ID provider UID.
#define MAPI_ONE_OFF_UID \
  { 0x81, 0x2b, 0x1f, 0xa4, 0xbe, 0xa3, 0x10, 0x19, 0x9d, 0x6e, 0x00, 0xdd, 0x01, 0x0f, 0x54, 0x02 }
#define MAPI_ONE_OFF_UNICODE 0x8000
#define MAPI_ONE_OFF_NO_RICH_INFO 0x0001

typedef struct {
  BYTE abFlags[4];
  BYTE ab[MAPI_DIM];
} ENTRYID, *LPENTRYID;
#define CbNewENTRYID(_cb) (offsetof(ENTRYID, ab) + (_cb))
#define CbENTRYID(_cb) (offsetof(ENTRYID, ab) + (_cb))
#define SizedENTRYID(_cb, _name) \
  struct _ENTRYID_##_name {      \
    BYTE abFlags[4];             \
    BYTE ab[_cb];                \
  } _name

// abFlags[0] bits.
#define MAPI_SHORTTERM 0x80
#define MAPI_NOTRECIP 0x40
#define MAPI_THISSESSION 0x20
#define MAPI_NOW 0x10
#define MAPI_NOTRESERVED 0x08
// abFlags[1] bits.
#define MAPI_COMPOUND 0x80

// Object types (PR_OBJECT_TYPE, OpenEntry's lpulObjType).
#define MAPI_STORE ((ULONG)0x00000001)
#define MAPI_ADDRBOOK ((ULONG)0x00000002)
#define MAPI_FOLDER ((ULONG)0x00000003)
#define MAPI_ABCONT ((ULONG)0x00000004)
#define MAPI_MESSAGE ((ULONG)0x00000005)
#define MAPI_MAILUSER ((ULONG)0x00000006)
#define MAPI_ATTACH ((ULONG)0x00000007)
#define MAPI_DISTLIST ((ULONG)0x00000008)
#define MAPI_PROFSECT ((ULONG)0x00000009)
#define MAPI_STATUS ((ULONG)0x0000000A)
#define MAPI_SESSION ((ULONG)0x0000000B)
#define MAPI_FORMINFO ((ULONG)0x0000000C)

// ---------------------------------------------------------------------------------------------
// Common flags.

#define MAPI_MODIFY ((ULONG)0x00000001)
#define MAPI_ACCESS_MODIFY ((ULONG)0x00000001)
#define MAPI_ACCESS_READ ((ULONG)0x00000002)
#define MAPI_ACCESS_DELETE ((ULONG)0x00000004)
#define MAPI_ACCESS_CREATE_HIERARCHY ((ULONG)0x00000008)
#define MAPI_ACCESS_CREATE_CONTENTS ((ULONG)0x00000010)
#define MAPI_ACCESS_CREATE_ASSOCIATED ((ULONG)0x00000020)
#define MAPI_UNICODE ((ULONG)0x80000000)
#define MAPI_DEFERRED_ERRORS ((ULONG)0x00000008)
#define MAPI_BEST_ACCESS ((ULONG)0x00000010)
#define MAPI_CACHE_ONLY ((ULONG)0x00004000)
#define MAPI_NO_CACHE ((ULONG)0x00000200)
#define MAPI_CREATE ((ULONG)0x00000002)
#define MAPI_ASSOCIATED ((ULONG)0x00000040)
#define MAPI_DIALOG ((ULONG)0x00000008)
#define MAPI_USE_DEFAULT 0x00000040
#define MAPI_MOVE ((ULONG)0x00000001)
#define MAPI_NOREPLACE ((ULONG)0x00000002)
#define MAPI_DECLINE_OK ((ULONG)0x00000004)
#define MAPI_NO_STRINGS ((ULONG)0x00000001)
#define MAPI_NO_IDS ((ULONG)0x00000002)
#define MAPI_TOP_LEVEL ((ULONG)0x00000001)
#define MAPI_ERROR_VERSION 0x00000000L

// IMAPIProp::SaveChanges.
#define KEEP_OPEN_READONLY ((ULONG)0x00000001)
#define KEEP_OPEN_READWRITE ((ULONG)0x00000002)
#define FORCE_SAVE ((ULONG)0x00000004)
#define SPAMFILTER_ONSAVE ((ULONG)0x00000080)
#define ITEMPROC_FORCE ((ULONG)0x00000800)
#define NON_EMS_XP_SAVE ((ULONG)0x00001000)

// IMAPIProp::OpenProperty.
#define STREAM_APPEND ((ULONG)0x00000004)

// Property attributes (GetPropAttr-style arrays).
#define PROPATTR_MANDATORY ((ULONG)0x00000001)
#define PROPATTR_READABLE ((ULONG)0x00000002)
#define PROPATTR_WRITEABLE ((ULONG)0x00000004)
#define PROPATTR_NOT_PRESENT ((ULONG)0x00000008)

// ---------------------------------------------------------------------------------------------
// Property types and tags.

#define PT_UNSPECIFIED ((ULONG)0)
#define PT_NULL ((ULONG)1)
#define PT_I2 ((ULONG)2)
#define PT_LONG ((ULONG)3)
#define PT_R4 ((ULONG)4)
#define PT_DOUBLE ((ULONG)5)
#define PT_CURRENCY ((ULONG)6)
#define PT_APPTIME ((ULONG)7)
#define PT_ERROR ((ULONG)10)
#define PT_BOOLEAN ((ULONG)11)
#define PT_OBJECT ((ULONG)13)
#define PT_I8 ((ULONG)20)
#define PT_STRING8 ((ULONG)30)
#define PT_UNICODE ((ULONG)31)
#define PT_SYSTIME ((ULONG)64)
#define PT_CLSID ((ULONG)72)
#define PT_BINARY ((ULONG)258)

#define PT_SHORT PT_I2
#define PT_I4 PT_LONG
#define PT_FLOAT PT_R4
#define PT_R8 PT_DOUBLE
#define PT_LONGLONG PT_I8

#define MV_FLAG 0x1000
#define MV_INSTANCE 0x2000
#define MVI_FLAG (MV_FLAG | MV_INSTANCE)
#define MVI_PROP(tag) ((tag) | MVI_FLAG)

#define PT_MV_I2 (MV_FLAG | PT_I2)
#define PT_MV_LONG (MV_FLAG | PT_LONG)
#define PT_MV_R4 (MV_FLAG | PT_R4)
#define PT_MV_DOUBLE (MV_FLAG | PT_DOUBLE)
#define PT_MV_CURRENCY (MV_FLAG | PT_CURRENCY)
#define PT_MV_APPTIME (MV_FLAG | PT_APPTIME)
#define PT_MV_SYSTIME (MV_FLAG | PT_SYSTIME)
#define PT_MV_STRING8 (MV_FLAG | PT_STRING8)
#define PT_MV_BINARY (MV_FLAG | PT_BINARY)
#define PT_MV_UNICODE (MV_FLAG | PT_UNICODE)
#define PT_MV_CLSID (MV_FLAG | PT_CLSID)
#define PT_MV_I8 (MV_FLAG | PT_I8)
#define PT_MV_SHORT PT_MV_I2
#define PT_MV_I4 PT_MV_LONG
#define PT_MV_FLOAT PT_MV_R4
#define PT_MV_R8 PT_MV_DOUBLE
#define PT_MV_LONGLONG PT_MV_I8

// This build is narrow: PT_TSTRING is PT_STRING8 and the T members are the A members.
#define PT_TSTRING PT_STRING8
#define PT_MV_TSTRING (MV_FLAG | PT_STRING8)
#define LPSZ lpszA
#define LPPSZ lppszA
#define MVSZ MVszA

#define PROP_TYPE_MASK ((ULONG)0x0000FFFF)
#define PROP_TYPE(ulPropTag) (((ULONG)(ulPropTag)) & PROP_TYPE_MASK)
#define PROP_ID(ulPropTag) (((ULONG)(ulPropTag)) >> 16)
#define PROP_TAG(ulPropType, ulPropID) ((((ULONG)(ulPropID)) << 16) | ((ULONG)(ulPropType)))
#define PROP_ID_NULL 0
#define PROP_ID_INVALID 0xFFFF
#define CHANGE_PROP_TYPE(ulPropTag, ulPropType) (((ULONG)0xFFFF0000 & (ulPropTag)) | (ulPropType))
#define PROP_ID_SECURE_MIN 0x67F0
#define PROP_ID_SECURE_MAX 0x67FF

// ---------------------------------------------------------------------------------------------
// Property values.

typedef struct _SPropTagArray {
  ULONG cValues;
  ULONG aulPropTag[MAPI_DIM];
} SPropTagArray, *LPSPropTagArray;
#define CbNewSPropTagArray(_ctag) (offsetof(SPropTagArray, aulPropTag) + (_ctag) * sizeof(ULONG))
#define CbSPropTagArray(_lparray) \
  (offsetof(SPropTagArray, aulPropTag) + (UINT)((_lparray)->cValues) * sizeof(ULONG))
#define SizedSPropTagArray(_ctag, _name) \
  struct _SPropTagArray_##_name {        \
    ULONG cValues;                       \
    ULONG aulPropTag[_ctag];             \
  } _name

typedef struct _SBinary {
  ULONG cb;
  LPBYTE lpb;
} SBinary, *LPSBinary;

typedef struct _SShortArray {
  ULONG cValues;
  short int* lpi;
} SShortArray;

typedef struct _SGuidArray {
  ULONG cValues;
  GUID* lpguid;
} SGuidArray;

typedef struct _SRealArray {
  ULONG cValues;
  float* lpflt;
} SRealArray;

typedef struct _SLongArray {
  ULONG cValues;
  LONG* lpl;
} SLongArray;

typedef struct _SLargeIntegerArray {
  ULONG cValues;
  LARGE_INTEGER* lpli;
} SLargeIntegerArray;

typedef struct _SDateTimeArray {
  ULONG cValues;
  FILETIME* lpft;
} SDateTimeArray;

typedef struct _SAppTimeArray {
  ULONG cValues;
  double* lpat;
} SAppTimeArray;

typedef struct _SCurrencyArray {
  ULONG cValues;
  CURRENCY* lpcur;
} SCurrencyArray;

typedef struct _SBinaryArray {
  ULONG cValues;
  SBinary* lpbin;
} SBinaryArray;

typedef struct _SDoubleArray {
  ULONG cValues;
  double* lpdbl;
} SDoubleArray;

typedef struct _SWStringArray {
  ULONG cValues;
  LPWSTR* lppszW;
} SWStringArray;

typedef struct _SLPSTRArray {
  ULONG cValues;
  LPSTR* lppszA;
} SLPSTRArray;

typedef union _PV {
  short int i;
  LONG l;
  ULONG ul;
  float flt;
  double dbl;
  unsigned short int b;
  CURRENCY cur;
  double at;
  FILETIME ft;
  LPSTR lpszA;
  SBinary bin;
  LPWSTR lpszW;
  LPGUID lpguid;
  LARGE_INTEGER li;
  SShortArray MVi;
  SLongArray MVl;
  SRealArray MVflt;
  SDoubleArray MVdbl;
  SCurrencyArray MVcur;
  SAppTimeArray MVat;
  SDateTimeArray MVft;
  SBinaryArray MVbin;
  SLPSTRArray MVszA;
  SWStringArray MVszW;
  SGuidArray MVguid;
  SLargeIntegerArray MVli;
  SCODE err;
  LONG x;
} __UPV;

typedef struct _SPropValue {
  ULONG ulPropTag;
  ULONG dwAlignPad;
  union _PV Value;
} SPropValue, *LPSPropValue;

typedef struct _SPropProblem {
  ULONG ulIndex;
  ULONG ulPropTag;
  SCODE scode;
} SPropProblem, *LPSPropProblem;

typedef struct _SPropProblemArray {
  ULONG cProblem;
  SPropProblem aProblem[MAPI_DIM];
} SPropProblemArray, *LPSPropProblemArray;
#define CbNewSPropProblemArray(_cprob) \
  (offsetof(SPropProblemArray, aProblem) + (_cprob) * sizeof(SPropProblem))
#define CbSPropProblemArray(_lparray) \
  (offsetof(SPropProblemArray, aProblem) + (UINT)((_lparray)->cProblem) * sizeof(SPropProblem))
#define SizedSPropProblemArray(_cprob, _name) \
  struct _SPropProblemArray_##_name {         \
    ULONG cProblem;                           \
    SPropProblem aProblem[_cprob];            \
  } _name

typedef struct _SPropAttrArray {
  ULONG cValues;
  ULONG aPropAttr[MAPI_DIM];
} SPropAttrArray, *LPSPropAttrArray;
#define CbNewSPropAttrArray(_cattr) (offsetof(SPropAttrArray, aPropAttr) + (_cattr) * sizeof(ULONG))
#define CbSPropAttrArray(_lparray) \
  (offsetof(SPropAttrArray, aPropAttr) + (UINT)((_lparray)->cValues) * sizeof(ULONG))
#define SizedSPropAttrArray(_cattr, _name) \
  struct _SPropAttrArray_##_name {         \
    ULONG cValues;                         \
    ULONG aPropAttr[_cattr];               \
  } _name

// Entry lists share SBinaryArray's layout.
typedef SBinaryArray ENTRYLIST, *LPENTRYLIST;

// Flag lists (address resolution).
typedef struct {
  ULONG cFlags;
  ULONG ulFlag[MAPI_DIM];
} FlagList, *LPFlagList;
#define CbNewFlagList(_cflags) (offsetof(FlagList, ulFlag) + (_cflags) * sizeof(ULONG))
#define MAPI_UNRESOLVED ((ULONG)0x00000000)
#define MAPI_AMBIGUOUS ((ULONG)0x00000001)
#define MAPI_RESOLVED ((ULONG)0x00000002)

// ---------------------------------------------------------------------------------------------
// Rows, address lists, sort orders.

typedef struct _ADRENTRY {
  ULONG ulReserved1;
  ULONG cValues;
  LPSPropValue rgPropVals;
} ADRENTRY, *LPADRENTRY;

typedef struct _ADRLIST {
  ULONG cEntries;
  ADRENTRY aEntries[MAPI_DIM];
} ADRLIST, *LPADRLIST;
#define CbNewADRLIST(_centries) (offsetof(ADRLIST, aEntries) + (_centries) * sizeof(ADRENTRY))
#define CbADRLIST(_lpadrlist) \
  (offsetof(ADRLIST, aEntries) + (UINT)(_lpadrlist)->cEntries * sizeof(ADRENTRY))
#define SizedADRLIST(_centries, _name) \
  struct _ADRLIST_##_name {            \
    ULONG cEntries;                    \
    ADRENTRY aEntries[_centries];      \
  } _name

typedef struct _SRow {
  ULONG ulAdrEntryPad;
  ULONG cValues;
  LPSPropValue lpProps;
} SRow, *LPSRow;

typedef struct _SRowSet {
  ULONG cRows;
  SRow aRow[MAPI_DIM];
} SRowSet, *LPSRowSet;
#define CbNewSRowSet(_crow) (offsetof(SRowSet, aRow) + (_crow) * sizeof(SRow))
#define CbSRowSet(_lprowset) (offsetof(SRowSet, aRow) + (UINT)((_lprowset)->cRows) * sizeof(SRow))
#define SizedSRowSet(_crow, _name) \
  struct _SRowSet_##_name {        \
    ULONG cRows;                   \
    SRow aRow[_crow];              \
  } _name

typedef struct _SSortOrder {
  ULONG ulPropTag;
  ULONG ulOrder;
} SSortOrder, *LPSSortOrder;

typedef struct _SSortOrderSet {
  ULONG cSorts;
  ULONG cCategories;
  ULONG cExpanded;
  SSortOrder aSort[MAPI_DIM];
} SSortOrderSet, *LPSSortOrderSet;
#define CbNewSSortOrderSet(_csort) (offsetof(SSortOrderSet, aSort) + (_csort) * sizeof(SSortOrder))
#define CbSSortOrderSet(_lpset) \
  (offsetof(SSortOrderSet, aSort) + (UINT)((_lpset)->cSorts) * sizeof(SSortOrder))
#define SizedSSortOrderSet(_csort, _name) \
  struct _SSortOrderSet_##_name {         \
    ULONG cSorts;                         \
    ULONG cCategories;                    \
    ULONG cExpanded;                      \
    SSortOrder aSort[_csort];             \
  } _name

#define TABLE_SORT_ASCEND ((ULONG)0x00000000)
#define TABLE_SORT_DESCEND ((ULONG)0x00000001)
#define TABLE_SORT_COMBINE ((ULONG)0x00000002)
#define TABLE_SORT_CATEG_MAX ((ULONG)0x00000004)
#define TABLE_SORT_CATEG_MIN ((ULONG)0x00000008)

// ---------------------------------------------------------------------------------------------
// Restrictions.

typedef struct _SRestriction* LPSRestriction;

#define RES_AND ((ULONG)0x00000000)
#define RES_OR ((ULONG)0x00000001)
#define RES_NOT ((ULONG)0x00000002)
#define RES_CONTENT ((ULONG)0x00000003)
#define RES_PROPERTY ((ULONG)0x00000004)
#define RES_COMPAREPROPS ((ULONG)0x00000005)
#define RES_BITMASK ((ULONG)0x00000006)
#define RES_SIZE ((ULONG)0x00000007)
#define RES_EXIST ((ULONG)0x00000008)
#define RES_SUBRESTRICTION ((ULONG)0x00000009)
#define RES_COMMENT ((ULONG)0x0000000A)
#define RES_COUNT ((ULONG)0x0000000B)
#define RES_ANNOTATION ((ULONG)0x0000000C)

// Fuzzy levels of content restrictions: the low word picks the match, the high word loosens it.
#define FL_FULLSTRING ((ULONG)0x00000000)
#define FL_SUBSTRING ((ULONG)0x00000001)
#define FL_PREFIX ((ULONG)0x00000002)
#define FL_IGNORECASE ((ULONG)0x00010000)
#define FL_IGNORENONSPACE ((ULONG)0x00020000)
#define FL_LOOSE ((ULONG)0x00040000)

#define RELOP_LT ((ULONG)0)
#define RELOP_LE ((ULONG)1)
#define RELOP_GT ((ULONG)2)
#define RELOP_GE ((ULONG)3)
#define RELOP_EQ ((ULONG)4)
#define RELOP_NE ((ULONG)5)
#define RELOP_RE ((ULONG)6)

#define BMR_EQZ ((ULONG)0)
#define BMR_NEZ ((ULONG)1)

typedef struct _SAndRestriction {
  ULONG cRes;
  LPSRestriction lpRes;
} SAndRestriction;

typedef struct _SOrRestriction {
  ULONG cRes;
  LPSRestriction lpRes;
} SOrRestriction;

typedef struct _SNotRestriction {
  ULONG ulReserved;
  LPSRestriction lpRes;
} SNotRestriction;

typedef struct _SContentRestriction {
  ULONG ulFuzzyLevel;
  ULONG ulPropTag;
  LPSPropValue lpProp;
} SContentRestriction;

typedef struct _SBitMaskRestriction {
  ULONG relBMR;
  ULONG ulPropTag;
  ULONG ulMask;
} SBitMaskRestriction;

typedef struct _SPropertyRestriction {
  ULONG relop;
  ULONG ulPropTag;
  LPSPropValue lpProp;
} SPropertyRestriction;

typedef struct _SComparePropsRestriction {
  ULONG relop;
  ULONG ulPropTag1;
  ULONG ulPropTag2;
} SComparePropsRestriction;

typedef struct _SSizeRestriction {
  ULONG relop;
  ULONG ulPropTag;
  ULONG cb;
} SSizeRestriction;

typedef struct _SExistRestriction {
  ULONG ulReserved1;
  ULONG ulPropTag;
  ULONG ulReserved2;
} SExistRestriction;

typedef struct _SSubRestriction {
  ULONG ulSubObject;
  LPSRestriction lpRes;
} SSubRestriction;

typedef struct _SCommentRestriction {
  ULONG cValues;
  LPSRestriction lpRes;
  LPSPropValue lpProp;
} SCommentRestriction;

typedef struct _SAnnotationRestriction {
  ULONG cValues;
  LPSRestriction lpRes;
  LPSPropValue lpProp;
} SAnnotationRestriction;

typedef struct _SCountRestriction {
  ULONG ulCount;
  LPSRestriction lpRes;
} SCountRestriction;

typedef struct _SRestriction {
  ULONG rt;
  union {
    SComparePropsRestriction resCompareProps;
    SAndRestriction resAnd;
    SOrRestriction resOr;
    SNotRestriction resNot;
    SContentRestriction resContent;
    SPropertyRestriction resProperty;
    SBitMaskRestriction resBitMask;
    SSizeRestriction resSize;
    SExistRestriction resExist;
    SSubRestriction resSub;
    SCommentRestriction resComment;
    SAnnotationRestriction resAnnotation;
    SCountRestriction resCount;
  } res;
} SRestriction;

// ---------------------------------------------------------------------------------------------
// Errors and named properties.

typedef struct _MAPIERROR {
  ULONG ulVersion;
  LPTSTR lpszError;
  LPTSTR lpszComponent;
  ULONG ulLowLevelError;
  ULONG ulContext;
} MAPIERROR, *LPMAPIERROR;

#define MNID_ID 0
#define MNID_STRING 1

typedef struct _MAPINAMEID {
  LPGUID lpguid;
  ULONG ulKind;
  union {
    LONG lID;
    LPWSTR lpwstrName;
  } Kind;
} MAPINAMEID, *LPMAPINAMEID;

// ---------------------------------------------------------------------------------------------
// Notifications.

#define fnevCriticalError ((ULONG)0x00000001)
#define fnevNewMail ((ULONG)0x00000002)
#define fnevObjectCreated ((ULONG)0x00000004)
#define fnevObjectDeleted ((ULONG)0x00000008)
#define fnevObjectModified ((ULONG)0x00000010)
#define fnevObjectMoved ((ULONG)0x00000020)
#define fnevObjectCopied ((ULONG)0x00000040)
#define fnevSearchComplete ((ULONG)0x00000080)
#define fnevTableModified ((ULONG)0x00000100)
#define fnevStatusObjectModified ((ULONG)0x00000200)
#define fnevReservedForMapi ((ULONG)0x40000000)
#define fnevExtended ((ULONG)0x80000000)

// TABLE_NOTIFICATION::ulTableEvent.
#define TABLE_CHANGED 1
#define TABLE_ERROR 2
#define TABLE_ROW_ADDED 3
#define TABLE_ROW_DELETED 4
#define TABLE_ROW_MODIFIED 5
#define TABLE_SORT_DONE 6
#define TABLE_RESTRICT_DONE 7
#define TABLE_SETCOL_DONE 8
#define TABLE_RELOAD 9

typedef struct _ERROR_NOTIFICATION {
  ULONG cbEntryID;
  LPENTRYID lpEntryID;
  SCODE scode;
  ULONG ulFlags;
  LPMAPIERROR lpMAPIError;
} ERROR_NOTIFICATION;

typedef struct _NEWMAIL_NOTIFICATION {
  ULONG cbEntryID;
  LPENTRYID lpEntryID;
  ULONG cbParentID;
  LPENTRYID lpParentID;
  ULONG ulFlags;
  LPTSTR lpszMessageClass;
  ULONG ulMessageFlags;
} NEWMAIL_NOTIFICATION;

typedef struct _OBJECT_NOTIFICATION {
  ULONG cbEntryID;
  LPENTRYID lpEntryID;
  ULONG ulObjType;
  ULONG cbParentID;
  LPENTRYID lpParentID;
  ULONG cbOldID;
  LPENTRYID lpOldID;
  ULONG cbOldParentID;
  LPENTRYID lpOldParentID;
  LPSPropTagArray lpPropTagArray;
} OBJECT_NOTIFICATION;

typedef struct _TABLE_NOTIFICATION {
  ULONG ulTableEvent;
  HRESULT hResult;
  SPropValue propIndex;
  SPropValue propPrior;
  SRow row;
  ULONG ulPad;
} TABLE_NOTIFICATION;

typedef struct _EXTENDED_NOTIFICATION {
  ULONG ulEvent;
  ULONG cb;
  LPBYTE pbEventParameters;
} EXTENDED_NOTIFICATION;

typedef struct {
  ULONG cbEntryID;
  LPENTRYID lpEntryID;
  ULONG cValues;
  LPSPropValue lpPropVals;
} STATUS_OBJECT_NOTIFICATION;

typedef struct _NOTIFICATION {
  ULONG ulEventType;
  ULONG ulAlignPad;
  union {
    ERROR_NOTIFICATION err;
    NEWMAIL_NOTIFICATION newmail;
    OBJECT_NOTIFICATION obj;
    TABLE_NOTIFICATION tab;
    EXTENDED_NOTIFICATION ext;
    STATUS_OBJECT_NOTIFICATION statobj;
  } info;
} NOTIFICATION, *LPNOTIFICATION;

typedef LONG(STDAPICALLTYPE NOTIFCALLBACK)(LPVOID lpvContext, ULONG cNotification,
                                           LPNOTIFICATION lpNotifications);
typedef NOTIFCALLBACK* LPNOTIFCALLBACK;

// A callback's return value that asks to stop further delivery.
#define CALLBACK_DISCONTINUE ((ULONG)0x80000000)

// ---------------------------------------------------------------------------------------------
// Memory allocation entry points as handed to providers.

typedef SCODE(STDMETHODCALLTYPE ALLOCATEBUFFER)(ULONG cbSize, LPVOID* lppBuffer);
typedef SCODE(STDMETHODCALLTYPE ALLOCATEMORE)(ULONG cbSize, LPVOID lpObject, LPVOID* lppBuffer);
typedef ULONG(STDAPICALLTYPE FREEBUFFER)(LPVOID lpBuffer);
typedef ALLOCATEBUFFER* LPALLOCATEBUFFER;
typedef ALLOCATEMORE* LPALLOCATEMORE;
typedef FREEBUFFER* LPFREEBUFFER;

// ---------------------------------------------------------------------------------------------
// Tables.

#define TBLSTAT_COMPLETE ((ULONG)0)
#define TBLSTAT_QCHANGED ((ULONG)7)
#define TBLSTAT_SORTING ((ULONG)9)
#define TBLSTAT_SORT_ERROR ((ULONG)10)
#define TBLSTAT_SETTING_COLS ((ULONG)11)
#define TBLSTAT_SETCOL_ERROR ((ULONG)13)
#define TBLSTAT_RESTRICTING ((ULONG)14)
#define TBLSTAT_RESTRICT_ERROR ((ULONG)15)

#define TBLTYPE_SNAPSHOT ((ULONG)0)
#define TBLTYPE_KEYSET ((ULONG)1)
#define TBLTYPE_DYNAMIC ((ULONG)2)

// Row types (PR_ROW_TYPE).
#define TBL_LEAF_ROW ((ULONG)1)
#define TBL_EMPTY_CATEGORY ((ULONG)2)
#define TBL_EXPANDED_CATEGORY ((ULONG)3)
#define TBL_COLLAPSED_CATEGORY ((ULONG)4)

#define TBL_ALL_COLUMNS ((ULONG)0x00000001)
#define TBL_NOWAIT ((ULONG)0x00000001)
#define TBL_ASYNC ((ULONG)0x00000001)
#define TBL_BATCH ((ULONG)0x00000002)
#define TBL_NOADVANCE ((ULONG)0x00000001)
#define DIR_BACKWARD ((ULONG)0x00000001)

#define BOOKMARK_BEGINNING ((BOOKMARK)0)
#define BOOKMARK_CURRENT ((BOOKMARK)1)
#define BOOKMARK_END ((BOOKMARK)2)

// ---------------------------------------------------------------------------------------------
// Message store, folders, messages.

// PR_STORE_SUPPORT_MASK bits.
#define STORE_ENTRYID_UNIQUE ((ULONG)0x00000001)
#define STORE_READONLY ((ULONG)0x00000002)
#define STORE_SEARCH_OK ((ULONG)0x00000004)
#define STORE_MODIFY_OK ((ULONG)0x00000008)
#define STORE_CREATE_OK ((ULONG)0x00000010)
#define STORE_ATTACH_OK ((ULONG)0x00000020)
#define STORE_OLE_OK ((ULONG)0x00000040)
#define STORE_SUBMIT_OK ((ULONG)0x00000080)
#define STORE_NOTIFY_OK ((ULONG)0x00000100)
#define STORE_MV_PROPS_OK ((ULONG)0x00000200)
#define STORE_CATEGORIZE_OK ((ULONG)0x00000400)
#define STORE_RTF_OK ((ULONG)0x00000800)
#define STORE_RESTRICTION_OK ((ULONG)0x00001000)
#define STORE_SORT_OK ((ULONG)0x00002000)
#define STORE_PUBLIC_FOLDERS ((ULONG)0x00004000)
#define STORE_UNCOMPRESSED_RTF ((ULONG)0x00008000)
#define STORE_HTML_OK ((ULONG)0x00010000)
#define STORE_ANSI_OK ((ULONG)0x00020000)
#define STORE_UNICODE_OK ((ULONG)0x00040000)
#define STORE_LOCALSTORE ((ULONG)0x00080000)
#define STORE_ITEMPROC ((ULONG)0x00200000)
#define STORE_PUSHER_OK ((ULONG)0x00800000)
#define STORE_HAS_SEARCHES ((ULONG)0x01000000)
#define STORE_FULLTEXT_QUERY_OK ((ULONG)0x02000000)
#define STORE_FILTER_SEARCH_OK ((ULONG)0x04000000)
#define STORE_RULES_OK ((ULONG)0x10000000)

// PR_VALID_FOLDER_MASK bits.
#define FOLDER_IPM_SUBTREE_VALID ((ULONG)0x00000001)
#define FOLDER_IPM_INBOX_VALID ((ULONG)0x00000002)
#define FOLDER_IPM_OUTBOX_VALID ((ULONG)0x00000004)
#define FOLDER_IPM_WASTEBASKET_VALID ((ULONG)0x00000008)
#define FOLDER_IPM_SENTMAIL_VALID ((ULONG)0x00000010)
#define FOLDER_VIEWS_VALID ((ULONG)0x00000020)
#define FOLDER_COMMON_VIEWS_VALID ((ULONG)0x00000040)
#define FOLDER_FINDER_VALID ((ULONG)0x00000080)

// IMsgStore::StoreLogoff and IMSLogon::Logoff.
#define LOGOFF_NO_WAIT ((ULONG)0x00000001)
#define LOGOFF_ORDERLY ((ULONG)0x00000002)
#define LOGOFF_PURGE ((ULONG)0x00000004)
#define LOGOFF_ABORT ((ULONG)0x00000008)
#define LOGOFF_QUIET ((ULONG)0x00000010)
#define LOGOFF_COMPLETE ((ULONG)0x00010000)
#define LOGOFF_INBOUND ((ULONG)0x00020000)
#define LOGOFF_OUTBOUND ((ULONG)0x00040000)
#define LOGOFF_OUTBOUND_QUEUE ((ULONG)0x00080000)

// Message store logon (IMSProvider::Logon, IMAPISession::OpenMsgStore).
#define MDB_NO_DIALOG ((ULONG)0x00000001)
#define MDB_WRITE ((ULONG)0x00000004)
#define MDB_TEMPORARY ((ULONG)0x00000020)
#define MDB_NO_MAIL ((ULONG)0x00000080)

// IMsgStore::SetLockState.
#define MSG_LOCKED ((ULONG)0x00000001)
#define MSG_UNLOCKED ((ULONG)0x00000000)

// Folder types (PR_FOLDER_TYPE, CreateFolder).
#define FOLDER_ROOT ((ULONG)0x00000000)
#define FOLDER_GENERIC ((ULONG)0x00000001)
#define FOLDER_SEARCH ((ULONG)0x00000002)

// IMAPIFolder flags.
#define MESSAGE_MOVE ((ULONG)0x00000001)
#define MESSAGE_DIALOG ((ULONG)0x00000002)
#define OPEN_IF_EXISTS ((ULONG)0x00000001)
#define DEL_MESSAGES ((ULONG)0x00000008)
#define FOLDER_MOVE ((ULONG)0x00000001)
#define FOLDER_DIALOG ((ULONG)0x00000002)
#define COPY_SUBFOLDERS ((ULONG)0x00000010)
#define DEL_FOLDERS ((ULONG)0x00000004)
#define DEL_ASSOCIATED ((ULONG)0x00000008)
#define SUPPRESS_RECEIPT ((ULONG)0x00000001)
#define CLEAR_READ_FLAG ((ULONG)0x00000004)
#define GENERATE_RECEIPT_ONLY ((ULONG)0x00000010)
#define CLEAR_RN_PENDING ((ULONG)0x00000020)
#define CLEAR_NRN_PENDING ((ULONG)0x00000040)

// Search criteria: SetSearchCriteria flags and GetSearchCriteria state.
#define STOP_SEARCH ((ULONG)0x00000001)
#define RESTART_SEARCH ((ULONG)0x00000002)
#define RECURSIVE_SEARCH ((ULONG)0x00000004)
#define SHALLOW_SEARCH ((ULONG)0x00000008)
#define FOREGROUND_SEARCH ((ULONG)0x00000010)
#define BACKGROUND_SEARCH ((ULONG)0x00000020)
#define SEARCH_RUNNING ((ULONG)0x00000001)
#define SEARCH_REBUILD ((ULONG)0x00000002)
#define SEARCH_RECURSIVE ((ULONG)0x00000004)
#define SEARCH_FOREGROUND ((ULONG)0x00000008)

// PR_MESSAGE_FLAGS.
#define MSGFLAG_READ ((ULONG)0x00000001)
#define MSGFLAG_UNMODIFIED ((ULONG)0x00000002)
#define MSGFLAG_SUBMIT ((ULONG)0x00000004)
#define MSGFLAG_UNSENT ((ULONG)0x00000008)
#define MSGFLAG_HASATTACH ((ULONG)0x00000010)
#define MSGFLAG_FROMME ((ULONG)0x00000020)
#define MSGFLAG_ASSOCIATED ((ULONG)0x00000040)
#define MSGFLAG_RESEND ((ULONG)0x00000080)
#define MSGFLAG_RN_PENDING ((ULONG)0x00000100)
#define MSGFLAG_NRN_PENDING ((ULONG)0x00000200)
#define MSGFLAG_NOTIFYREAD MSGFLAG_RN_PENDING
#define MSGFLAG_NOTIFYUNREAD MSGFLAG_NRN_PENDING
#define MSGFLAG_EVERREAD ((ULONG)0x00000400)
#define MSGFLAG_ORIGIN_X400 ((ULONG)0x00001000)
#define MSGFLAG_ORIGIN_INTERNET ((ULONG)0x00002000)
#define MSGFLAG_ORIGIN_MISC_EXT ((ULONG)0x00008000)

// PR_MSG_STATUS.
#define MSGSTATUS_HIGHLIGHTED ((ULONG)0x00000001)
#define MSGSTATUS_TAGGED ((ULONG)0x00000002)
#define MSGSTATUS_HIDDEN ((ULONG)0x00000004)
#define MSGSTATUS_DELMARKED ((ULONG)0x00000008)
#define MSGSTATUS_DRAFT ((ULONG)0x00000100)
#define MSGSTATUS_ANSWERED ((ULONG)0x00000200)
#define MSGSTATUS_REMOTE_DOWNLOAD ((ULONG)0x00001000)
#define MSGSTATUS_REMOTE_DELETE ((ULONG)0x00002000)

// PR_SUBMIT_FLAGS.
#define SUBMITFLAG_LOCKED ((ULONG)0x00000001)
#define SUBMITFLAG_PREPROCESS ((ULONG)0x00000002)

// IMessage::ModifyRecipients.
#define MODRECIP_ADD ((ULONG)0x00000002)
#define MODRECIP_MODIFY ((ULONG)0x00000004)
#define MODRECIP_REMOVE ((ULONG)0x00000008)

// Recipient types (PR_RECIPIENT_TYPE).
#define MAPI_ORIG 0
#define MAPI_TO 1
#define MAPI_CC 2
#define MAPI_BCC 3
#define MAPI_P1 0x10000000
#define MAPI_SUBMITTED 0x80000000

// IMessage::SubmitMessage.
#define FORCE_SUBMIT ((ULONG)0x00000001)

// PR_ATTACH_METHOD.
#define NO_ATTACHMENT ((ULONG)0x00000000)
#define ATTACH_BY_VALUE ((ULONG)0x00000001)
#define ATTACH_BY_REFERENCE ((ULONG)0x00000002)
#define ATTACH_BY_REF_RESOLVE ((ULONG)0x00000003)
#define ATTACH_BY_REF_ONLY ((ULONG)0x00000004)
#define ATTACH_EMBEDDED_MSG ((ULONG)0x00000005)
#define ATTACH_OLE ((ULONG)0x00000006)

// ---------------------------------------------------------------------------------------------
// Status objects.

// PR_RESOURCE_METHODS.
#define STATUS_VALIDATE_STATE ((ULONG)0x00000001)
#define STATUS_SETTINGS_DIALOG ((ULONG)0x00000002)
#define STATUS_CHANGE_PASSWORD ((ULONG)0x00000004)
#define STATUS_FLUSH_QUEUES ((ULONG)0x00000008)

// PR_RESOURCE_FLAGS.
#define STATUS_DEFAULT_OUTBOUND ((ULONG)0x00000001)
#define STATUS_DEFAULT_STORE ((ULONG)0x00000002)
#define STATUS_PRIMARY_IDENTITY ((ULONG)0x00000004)
#define STATUS_SIMPLE_STORE ((ULONG)0x00000008)
#define STATUS_XP_PREFER_LAST ((ULONG)0x00000010)
#define STATUS_NO_PRIMARY_IDENTITY ((ULONG)0x00000020)
#define STATUS_NO_DEFAULT_STORE ((ULONG)0x00000040)
#define STATUS_TEMP_SECTION ((ULONG)0x00000080)
#define STATUS_OWN_STORE ((ULONG)0x00000100)
#define HOOK_INBOUND ((ULONG)0x00000200)
#define HOOK_OUTBOUND ((ULONG)0x00000400)
#define STATUS_NEED_IPM_TREE ((ULONG)0x00000800)
#define STATUS_PRIMARY_STORE ((ULONG)0x00001000)
#define STATUS_SECONDARY_STORE ((ULONG)0x00002000)

// PR_STATUS_CODE.
#define STATUS_AVAILABLE ((ULONG)0x00000001)
#define STATUS_OFFLINE ((ULONG)0x00000002)
#define STATUS_FAILURE ((ULONG)0x00000004)
#define STATUS_INBOUND_ENABLED ((ULONG)0x00010000)
#define STATUS_INBOUND_ACTIVE ((ULONG)0x00020000)
#define STATUS_INBOUND_FLUSH ((ULONG)0x00040000)
#define STATUS_OUTBOUND_ENABLED ((ULONG)0x00100000)
#define STATUS_OUTBOUND_ACTIVE ((ULONG)0x00200000)
#define STATUS_OUTBOUND_FLUSH ((ULONG)0x00400000)
#define STATUS_REMOTE_ACCESS ((ULONG)0x00800000)

// PR_RESOURCE_TYPE.
#define MAPI_STORE_PROVIDER ((ULONG)33)
#define MAPI_AB ((ULONG)34)
#define MAPI_AB_PROVIDER ((ULONG)35)
#define MAPI_TRANSPORT_PROVIDER ((ULONG)36)
#define MAPI_SPOOLER ((ULONG)37)
#define MAPI_PROFILE_PROVIDER ((ULONG)38)
#define MAPI_SUBSYSTEM ((ULONG)39)
#define MAPI_HOOK_PROVIDER ((ULONG)40)

// IMAPIStatus::ValidateState, SettingsDialog, FlushQueues.
#define SUPPRESS_UI ((ULONG)0x00000001)
#define REFRESH_XP_HEADER_CACHE ((ULONG)0x00010000)
#define PROCESS_XP_HEADER_CACHE ((ULONG)0x00020000)
#define FORCE_XP_CONNECT ((ULONG)0x00040000)
#define FORCE_XP_DISCONNECT ((ULONG)0x00080000)
#define CONFIG_CHANGED ((ULONG)0x00100000)
#define ABORT_XP_HEADER_OPERATION ((ULONG)0x00200000)
#define SHOW_XP_SESSION_UI ((ULONG)0x00400000)
#define UI_READONLY ((ULONG)0x00000001)
#define FLUSH_UPLOAD ((ULONG)0x00000002)
#define FLUSH_DOWNLOAD ((ULONG)0x00000004)
#define FLUSH_FORCE ((ULONG)0x00000008)
#define FLUSH_NO_UI ((ULONG)0x00000010)
#define FLUSH_ASYNC_OK ((ULONG)0x00000020)

// IMAPIControl state.
#define MAPI_ENABLED ((ULONG)0x00000000)
#define MAPI_DISABLED ((ULONG)0x00000001)

// Address book: IAddrBook / IABContainer flags.
#define MAPI_SEND_NO_RICH_INFO ((ULONG)0x00010000)
#define CREATE_CHECK_DUP_STRICT ((ULONG)0x00000001)
#define CREATE_CHECK_DUP_LOOSE ((ULONG)0x00000002)
#define CREATE_REPLACE ((ULONG)0x00000004)
#define MAPI_AB_NOMODIFY ((ULONG)0x00000400)

// ---------------------------------------------------------------------------------------------
// Interfaces. Each is an abstract struct whose virtual functions are its vtable in published order.

struct IMAPIAdviseSink;
struct IMAPIProgress;
struct IMAPIProp;
struct IMAPIContainer;
struct IMAPIFolder;
struct IMsgStore;
struct IMessage;
struct IAttach;
struct IMAPITable;
struct IMAPIStatus;
struct IABContainer;
struct IDistList;
struct IMailUser;
struct IProfSect;
struct IMAPIControl;
typedef IMAPIAdviseSink* LPMAPIADVISESINK;
typedef IMAPIProgress* LPMAPIPROGRESS;
typedef IMAPIProp* LPMAPIPROP;
typedef IMAPIContainer* LPMAPICONTAINER;
typedef IMAPIFolder* LPMAPIFOLDER;
typedef IMsgStore* LPMDB;
typedef IMessage* LPMESSAGE;
typedef IAttach* LPATTACH;
typedef IMAPITable* LPMAPITABLE;
typedef IMAPIStatus* LPMAPISTATUS;
typedef IABContainer* LPABCONT;
typedef IDistList* LPDISTLIST;
typedef IMailUser* LPMAILUSER;
typedef IProfSect* LPPROFSECT;
typedef IMAPIControl* LPMAPICONTROL;

#define MAPI_IUNKNOWN_METHODS(IPURE)                                     \
  MAPIMETHOD(QueryInterface)(THIS_ REFIID riid, LPVOID * ppvObj) IPURE; \
  MAPIMETHOD_(ULONG, AddRef)(THIS) IPURE;                               \
  MAPIMETHOD_(ULONG, Release)(THIS) IPURE;

#define MAPI_GETLASTERROR_METHOD(IPURE) \
  MAPIMETHOD(GetLastError)(THIS_ HRESULT hResult, ULONG ulFlags, LPMAPIERROR * lppMAPIError) IPURE;

// IMAPIAdviseSink
#define MAPI_IMAPIADVISESINK_METHODS(IPURE) \
  MAPIMETHOD_(ULONG, OnNotify)(THIS_ ULONG cNotif, LPNOTIFICATION lpNotifications) IPURE;
struct IMAPIAdviseSink : public IUnknown {
  MAPI_IMAPIADVISESINK_METHODS(PURE)
};

// IMAPIProgress
#define MAPI_IMAPIPROGRESS_METHODS(IPURE)                                              \
  MAPIMETHOD(Progress)(THIS_ ULONG ulValue, ULONG ulCount, ULONG ulTotal) IPURE;       \
  MAPIMETHOD(GetFlags)(THIS_ ULONG * lpulFlags) IPURE;                                 \
  MAPIMETHOD(GetMax)(THIS_ ULONG * lpulMax) IPURE;                                     \
  MAPIMETHOD(GetMin)(THIS_ ULONG * lpulMin) IPURE;                                     \
  MAPIMETHOD(SetLimits)(THIS_ LPULONG lpulMin, LPULONG lpulMax, LPULONG lpulFlags) IPURE;
struct IMAPIProgress : public IUnknown {
  MAPI_IMAPIPROGRESS_METHODS(PURE)
};

// IMAPIProp
#define MAPI_IMAPIPROP_METHODS(IPURE)                                                                  \
  MAPIMETHOD(GetLastError)(THIS_ HRESULT hResult, ULONG ulFlags, LPMAPIERROR * lppMAPIError) IPURE;    \
  MAPIMETHOD(SaveChanges)(THIS_ ULONG ulFlags) IPURE;                                                  \
  MAPIMETHOD(GetProps)(THIS_ LPSPropTagArray lpPropTagArray, ULONG ulFlags, ULONG * lpcValues,         \
                       LPSPropValue * lppPropArray) IPURE;                                             \
  MAPIMETHOD(GetPropList)(THIS_ ULONG ulFlags, LPSPropTagArray * lppPropTagArray) IPURE;               \
  MAPIMETHOD(OpenProperty)(THIS_ ULONG ulPropTag, LPCIID lpiid, ULONG ulInterfaceOptions, ULONG ulFlags, \
                           LPUNKNOWN * lppUnk) IPURE;                                                  \
  MAPIMETHOD(SetProps)(THIS_ ULONG cValues, LPSPropValue lpPropArray, LPSPropProblemArray * lppProblems) \
      IPURE;                                                                                           \
  MAPIMETHOD(DeleteProps)(THIS_ LPSPropTagArray lpPropTagArray, LPSPropProblemArray * lppProblems) IPURE; \
  MAPIMETHOD(CopyTo)(THIS_ ULONG ciidExclude, LPCIID rgiidExclude, LPSPropTagArray lpExcludeProps,     \
                     ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress, LPCIID lpInterface, LPVOID lpDestObj, \
                     ULONG ulFlags, LPSPropProblemArray * lppProblems) IPURE;                          \
  MAPIMETHOD(CopyProps)(THIS_ LPSPropTagArray lpIncludeProps, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress, \
                        LPCIID lpInterface, LPVOID lpDestObj, ULONG ulFlags,                           \
                        LPSPropProblemArray * lppProblems) IPURE;                                      \
  MAPIMETHOD(GetNamesFromIDs)(THIS_ LPSPropTagArray * lppPropTags, LPGUID lpPropSetGuid, ULONG ulFlags, \
                              ULONG * lpcPropNames, LPMAPINAMEID * *lpppPropNames) IPURE;              \
  MAPIMETHOD(GetIDsFromNames)(THIS_ ULONG cPropNames, LPMAPINAMEID * lppPropNames, ULONG ulFlags,      \
                              LPSPropTagArray * lppPropTags) IPURE;
struct IMAPIProp : public IUnknown {
  MAPI_IMAPIPROP_METHODS(PURE)
};

// IMAPIContainer
#define MAPI_IMAPICONTAINER_METHODS(IPURE)                                                             \
  MAPIMETHOD(GetContentsTable)(THIS_ ULONG ulFlags, LPMAPITABLE * lppTable) IPURE;                     \
  MAPIMETHOD(GetHierarchyTable)(THIS_ ULONG ulFlags, LPMAPITABLE * lppTable) IPURE;                    \
  MAPIMETHOD(OpenEntry)(THIS_ ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG ulFlags,  \
                        ULONG * lpulObjType, LPUNKNOWN * lppUnk) IPURE;                                \
  MAPIMETHOD(SetSearchCriteria)(THIS_ LPSRestriction lpRestriction, LPENTRYLIST lpContainerList,       \
                                ULONG ulSearchFlags) IPURE;                                            \
  MAPIMETHOD(GetSearchCriteria)(THIS_ ULONG ulFlags, LPSRestriction * lppRestriction,                  \
                                LPENTRYLIST * lppContainerList, ULONG * lpulSearchState) IPURE;
struct IMAPIContainer : public IMAPIProp {
  MAPI_IMAPICONTAINER_METHODS(PURE)
};

// IMAPIFolder
#define MAPI_IMAPIFOLDER_METHODS(IPURE)                                                                \
  MAPIMETHOD(CreateMessage)(THIS_ LPCIID lpInterface, ULONG ulFlags, LPMESSAGE * lppMessage) IPURE;    \
  MAPIMETHOD(CopyMessages)(THIS_ LPENTRYLIST lpMsgList, LPCIID lpInterface, LPVOID lpDestFolder,       \
                           ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress, ULONG ulFlags) IPURE;       \
  MAPIMETHOD(DeleteMessages)(THIS_ LPENTRYLIST lpMsgList, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress, \
                             ULONG ulFlags) IPURE;                                                     \
  MAPIMETHOD(CreateFolder)(THIS_ ULONG ulFolderType, LPTSTR lpszFolderName, LPTSTR lpszFolderComment,  \
                           LPCIID lpInterface, ULONG ulFlags, LPMAPIFOLDER * lppFolder) IPURE;         \
  MAPIMETHOD(CopyFolder)(THIS_ ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, LPVOID lpDestFolder, \
                         LPTSTR lpszNewFolderName, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress,     \
                         ULONG ulFlags) IPURE;                                                         \
  MAPIMETHOD(DeleteFolder)(THIS_ ULONG cbEntryID, LPENTRYID lpEntryID, ULONG_PTR ulUIParam,            \
                           LPMAPIPROGRESS lpProgress, ULONG ulFlags) IPURE;                            \
  MAPIMETHOD(SetReadFlags)(THIS_ LPENTRYLIST lpMsgList, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress, \
                           ULONG ulFlags) IPURE;                                                       \
  MAPIMETHOD(GetMessageStatus)(THIS_ ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulFlags,              \
                               ULONG * lpulMessageStatus) IPURE;                                       \
  MAPIMETHOD(SetMessageStatus)(THIS_ ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulNewStatus,          \
                               ULONG ulNewStatusMask, ULONG * lpulOldStatus) IPURE;                    \
  MAPIMETHOD(SaveContentsSort)(THIS_ LPSSortOrderSet lpSortCriteria, ULONG ulFlags) IPURE;             \
  MAPIMETHOD(EmptyFolder)(THIS_ ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress, ULONG ulFlags) IPURE;
struct IMAPIFolder : public IMAPIContainer {
  MAPI_IMAPIFOLDER_METHODS(PURE)
};

// IMsgStore
#define MAPI_IMSGSTORE_METHODS(IPURE)                                                                  \
  MAPIMETHOD(Advise)(THIS_ ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulEventMask,                    \
                     LPMAPIADVISESINK lpAdviseSink, ULONG * lpulConnection) IPURE;                     \
  MAPIMETHOD(Unadvise)(THIS_ ULONG ulConnection) IPURE;                                                \
  MAPIMETHOD(CompareEntryIDs)(THIS_ ULONG cbEntryID1, LPENTRYID lpEntryID1, ULONG cbEntryID2,          \
                              LPENTRYID lpEntryID2, ULONG ulFlags, ULONG * lpulResult) IPURE;          \
  MAPIMETHOD(OpenEntry)(THIS_ ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG ulFlags,  \
                        ULONG * lpulObjType, LPUNKNOWN * lppUnk) IPURE;                                \
  MAPIMETHOD(SetReceiveFolder)(THIS_ LPTSTR lpszMessageClass, ULONG ulFlags, ULONG cbEntryID,          \
                               LPENTRYID lpEntryID) IPURE;                                             \
  MAPIMETHOD(GetReceiveFolder)(THIS_ LPTSTR lpszMessageClass, ULONG ulFlags, ULONG * lpcbEntryID,      \
                               LPENTRYID * lppEntryID, LPTSTR * lppszExplicitClass) IPURE;             \
  MAPIMETHOD(GetReceiveFolderTable)(THIS_ ULONG ulFlags, LPMAPITABLE * lppTable) IPURE;                \
  MAPIMETHOD(StoreLogoff)(THIS_ ULONG * lpulFlags) IPURE;                                              \
  MAPIMETHOD(AbortSubmit)(THIS_ ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulFlags) IPURE;            \
  MAPIMETHOD(GetOutgoingQueue)(THIS_ ULONG ulFlags, LPMAPITABLE * lppTable) IPURE;                     \
  MAPIMETHOD(SetLockState)(THIS_ LPMESSAGE lpMessage, ULONG ulLockState) IPURE;                        \
  MAPIMETHOD(FinishedMsg)(THIS_ ULONG ulFlags, ULONG cbEntryID, LPENTRYID lpEntryID) IPURE;            \
  MAPIMETHOD(NotifyNewMail)(THIS_ LPNOTIFICATION lpNotification) IPURE;
struct IMsgStore : public IMAPIProp {
  MAPI_IMSGSTORE_METHODS(PURE)
};

// IMessage
#define MAPI_IMESSAGE_METHODS(IPURE)                                                                   \
  MAPIMETHOD(GetAttachmentTable)(THIS_ ULONG ulFlags, LPMAPITABLE * lppTable) IPURE;                   \
  MAPIMETHOD(OpenAttach)(THIS_ ULONG ulAttachmentNum, LPCIID lpInterface, ULONG ulFlags,               \
                         LPATTACH * lppAttach) IPURE;                                                  \
  MAPIMETHOD(CreateAttach)(THIS_ LPCIID lpInterface, ULONG ulFlags, ULONG * lpulAttachmentNum,         \
                           LPATTACH * lppAttach) IPURE;                                                \
  MAPIMETHOD(DeleteAttach)(THIS_ ULONG ulAttachmentNum, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress, \
                           ULONG ulFlags) IPURE;                                                       \
  MAPIMETHOD(GetRecipientTable)(THIS_ ULONG ulFlags, LPMAPITABLE * lppTable) IPURE;                    \
  MAPIMETHOD(ModifyRecipients)(THIS_ ULONG ulFlags, LPADRLIST lpMods) IPURE;                           \
  MAPIMETHOD(SubmitMessage)(THIS_ ULONG ulFlags) IPURE;                                                \
  MAPIMETHOD(SetReadFlag)(THIS_ ULONG ulFlags) IPURE;
struct IMessage : public IMAPIProp {
  MAPI_IMESSAGE_METHODS(PURE)
};

// IAttach adds nothing to IMAPIProp.
#define MAPI_IATTACH_METHODS(IPURE)
struct IAttach : public IMAPIProp {
  MAPI_IATTACH_METHODS(PURE)
};

// IMAPITable
#define MAPI_IMAPITABLE_METHODS(IPURE)                                                                 \
  MAPIMETHOD(GetLastError)(THIS_ HRESULT hResult, ULONG ulFlags, LPMAPIERROR * lppMAPIError) IPURE;    \
  MAPIMETHOD(Advise)(THIS_ ULONG ulEventMask, LPMAPIADVISESINK lpAdviseSink, ULONG * lpulConnection) IPURE; \
  MAPIMETHOD(Unadvise)(THIS_ ULONG ulConnection) IPURE;                                                \
  MAPIMETHOD(GetStatus)(THIS_ ULONG * lpulTableStatus, ULONG * lpulTableType) IPURE;                   \
  MAPIMETHOD(SetColumns)(THIS_ LPSPropTagArray lpPropTagArray, ULONG ulFlags) IPURE;                   \
  MAPIMETHOD(QueryColumns)(THIS_ ULONG ulFlags, LPSPropTagArray * lpPropTagArray) IPURE;               \
  MAPIMETHOD(GetRowCount)(THIS_ ULONG ulFlags, ULONG * lpulCount) IPURE;                               \
  MAPIMETHOD(SeekRow)(THIS_ BOOKMARK bkOrigin, LONG lRowCount, LONG * lplRowsSought) IPURE;            \
  MAPIMETHOD(SeekRowApprox)(THIS_ ULONG ulNumerator, ULONG ulDenominator) IPURE;                       \
  MAPIMETHOD(QueryPosition)(THIS_ ULONG * lpulRow, ULONG * lpulNumerator, ULONG * lpulDenominator) IPURE; \
  MAPIMETHOD(FindRow)(THIS_ LPSRestriction lpRestriction, BOOKMARK bkOrigin, ULONG ulFlags) IPURE;     \
  MAPIMETHOD(Restrict)(THIS_ LPSRestriction lpRestriction, ULONG ulFlags) IPURE;                       \
  MAPIMETHOD(CreateBookmark)(THIS_ BOOKMARK * lpbkPosition) IPURE;                                     \
  MAPIMETHOD(FreeBookmark)(THIS_ BOOKMARK bkPosition) IPURE;                                           \
  MAPIMETHOD(SortTable)(THIS_ LPSSortOrderSet lpSortCriteria, ULONG ulFlags) IPURE;                    \
  MAPIMETHOD(QuerySortOrder)(THIS_ LPSSortOrderSet * lppSortCriteria) IPURE;                           \
  MAPIMETHOD(QueryRows)(THIS_ LONG lRowCount, ULONG ulFlags, LPSRowSet * lppRows) IPURE;               \
  MAPIMETHOD(Abort)(THIS) IPURE;                                                                       \
  MAPIMETHOD(ExpandRow)(THIS_ ULONG cbInstanceKey, LPBYTE pbInstanceKey, ULONG ulRowCount, ULONG ulFlags, \
                        LPSRowSet * lppRows, ULONG * lpulMoreRows) IPURE;                              \
  MAPIMETHOD(CollapseRow)(THIS_ ULONG cbInstanceKey, LPBYTE pbInstanceKey, ULONG ulFlags,              \
                          ULONG * lpulRowCount) IPURE;                                                 \
  MAPIMETHOD(WaitForCompletion)(THIS_ ULONG ulFlags, ULONG ulTimeout, ULONG * lpulTableStatus) IPURE;  \
  MAPIMETHOD(GetCollapseState)(THIS_ ULONG ulFlags, ULONG cbInstanceKey, LPBYTE lpbInstanceKey,        \
                               ULONG * lpcbCollapseState, LPBYTE * lppbCollapseState) IPURE;           \
  MAPIMETHOD(SetCollapseState)(THIS_ ULONG ulFlags, ULONG cbCollapseState, LPBYTE pbCollapseState,     \
                               BOOKMARK * lpbkLocation) IPURE;
struct IMAPITable : public IUnknown {
  MAPI_IMAPITABLE_METHODS(PURE)
};

// IMAPIStatus
#define MAPI_IMAPISTATUS_METHODS(IPURE)                                                                \
  MAPIMETHOD(ValidateState)(THIS_ ULONG_PTR ulUIParam, ULONG ulFlags) IPURE;                           \
  MAPIMETHOD(SettingsDialog)(THIS_ ULONG_PTR ulUIParam, ULONG ulFlags) IPURE;                          \
  MAPIMETHOD(ChangePassword)(THIS_ LPTSTR lpOldPass, LPTSTR lpNewPass, ULONG ulFlags) IPURE;           \
  MAPIMETHOD(FlushQueues)(THIS_ ULONG_PTR ulUIParam, ULONG cbTargetTransport, LPENTRYID lpTargetTransport, \
                          ULONG ulFlags) IPURE;
struct IMAPIStatus : public IMAPIProp {
  MAPI_IMAPISTATUS_METHODS(PURE)
};

// IABContainer and IDistList share the entry-management methods.
#define MAPI_IABCONTAINER_METHODS(IPURE)                                                               \
  MAPIMETHOD(CreateEntry)(THIS_ ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulCreateFlags,             \
                          LPMAPIPROP * lppMAPIPropEntry) IPURE;                                         \
  MAPIMETHOD(CopyEntries)(THIS_ LPENTRYLIST lpEntries, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress,  \
                          ULONG ulFlags) IPURE;                                                        \
  MAPIMETHOD(DeleteEntries)(THIS_ LPENTRYLIST lpEntries, ULONG ulFlags) IPURE;                         \
  MAPIMETHOD(ResolveNames)(THIS_ LPSPropTagArray lpPropTagArray, ULONG ulFlags, LPADRLIST lpAdrList,   \
                           LPFlagList lpFlagList) IPURE;
#define MAPI_IDISTLIST_METHODS(IPURE) MAPI_IABCONTAINER_METHODS(IPURE)
struct IABContainer : public IMAPIContainer {
  MAPI_IABCONTAINER_METHODS(PURE)
};
struct IDistList : public IMAPIContainer {
  MAPI_IDISTLIST_METHODS(PURE)
};

// IMailUser and IProfSect add nothing to IMAPIProp.
#define MAPI_IMAILUSER_METHODS(IPURE)
struct IMailUser : public IMAPIProp {
  MAPI_IMAILUSER_METHODS(PURE)
};
#define MAPI_IPROFSECT_METHODS(IPURE)
struct IProfSect : public IMAPIProp {
  MAPI_IPROFSECT_METHODS(PURE)
};

// IMAPIControl (status-object buttons).
#define MAPI_IMAPICONTROL_METHODS(IPURE)                                                               \
  MAPIMETHOD(GetLastError)(THIS_ HRESULT hResult, ULONG ulFlags, LPMAPIERROR * lppMAPIError) IPURE;    \
  MAPIMETHOD(Activate)(THIS_ ULONG ulFlags, ULONG_PTR ulUIParam) IPURE;                                \
  MAPIMETHOD(GetState)(THIS_ ULONG ulFlags, ULONG * lpulState) IPURE;
struct IMAPIControl : public IUnknown {
  MAPI_IMAPICONTROL_METHODS(PURE)
};

// ---------------------------------------------------------------------------------------------
// Address book dialogs and callbacks.

typedef BOOL(STDMETHODCALLTYPE ACCELERATEABSDI)(ULONG_PTR ulUIParam, LPVOID lpvmsg);
typedef ACCELERATEABSDI* LPFNABSDI;
typedef void(STDMETHODCALLTYPE DISMISSMODELESS)(ULONG_PTR ulUIParam, LPVOID lpvContext);
typedef DISMISSMODELESS* LPFNDISMISS;
typedef SCODE(STDMETHODCALLTYPE* LPFNBUTTON)(ULONG_PTR ulUIParam, LPVOID lpvContext, ULONG cbEntryID,
                                             LPENTRYID lpSelection, ULONG ulFlags);

typedef struct _ADRPARM {
  ULONG cbABContEntryID;
  LPENTRYID lpABContEntryID;
  ULONG ulFlags;
  LPVOID lpReserved;
  ULONG ulHelpContext;
  LPTSTR lpszHelpFileName;
  LPFNABSDI lpfnABSDI;
  LPFNDISMISS lpfnDismiss;
  LPVOID lpvDismissContext;
  LPTSTR lpszCaption;
  LPTSTR lpszNewEntryTitle;
  LPTSTR lpszDestWellsTitle;
  ULONG cDestFields;
  ULONG nDestFieldFocus;
  LPTSTR* lppszDestTitles;
  ULONG* lpulDestComps;
  LPSRestriction lpContRestriction;
  LPSRestriction lpHierRestriction;
} ADRPARM, *LPADRPARM;

#define DIALOG_MODAL ((ULONG)0x00000001)
#define DIALOG_SDI ((ULONG)0x00000002)
#define DIALOG_OPTIONS ((ULONG)0x00000004)
#define ADDRESS_ONE ((ULONG)0x00000008)
#define AB_SELECTONLY ((ULONG)0x00000010)
#define AB_RESOLVE ((ULONG)0x00000020)

// ---------------------------------------------------------------------------------------------
// Binary layout checks for the 64-bit targets this stand-in runs on.

static_assert(sizeof(SPropValue) == 24, "SPropValue must keep its published 24-byte layout");
static_assert(sizeof(MAPIUID) == 16, "MAPIUID is 16 bytes");
static_assert(sizeof(SBinary) == 16 && offsetof(SBinary, lpb) == 8, "SBinary layout");
static_assert(offsetof(SPropValue, Value) == 8, "SPropValue::Value follows the pad");
