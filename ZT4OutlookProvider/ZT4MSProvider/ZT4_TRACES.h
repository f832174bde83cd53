// What the provider sees of logging: InitTraces, the log and scope-trace macros, assertions and
// the property-tag dump. One process-wide CNxLogger sits behind them.
#pragma once
#include <windows.h>
#include <comdef.h>

#include "NxLogger.h"

// InitTraces flag bits. Logon passes 18, ServiceEntry 2, MergeWithMAPISVC 4.
#define ZT4_TRACE_CONSOLE 0x01    // trace to a console of the process, no file log
#define ZT4_TRACE_FILE 0x02       // log to the file the data provider's configuration names
#define ZT4_TRACE_INSTALLER 0x04  // alone: the installer's log
#define ZT4_TRACE_LOGON 0x10      // set by a store logon; kept in the trace flags

// Log levels.
#define ZT4_LEVEL_ALWAYS NX_LEVEL_ALWAYS
#define ZT4_LEVEL_ERROR 1
#define ZT4_LEVEL_MAIN 2
#define ZT4_LEVEL_INFO 3
#define ZT4_LEVEL_TAGS 4
#define ZT4_LEVEL_DETAIL 5

// Sets the process's logging up. Only the first call of a process does anything.
void InitTraces(ULONG ulFlags);
// The flags the first InitTraces kept (0 when it kept none).
ULONG GetTraceFlags();
// The process-wide logger.
CNxLogger& GetTraceLogger();

// The log call behind ZT4_LOG.
void ZT4Log(int nLevel, LPCSTR pszFunction, UINT nLine, LPCSTR pszFile, LPCSTR pszFormat, ...);

// Logs "Function entry point" when made and "Function exit point" when it goes, at its level.
class CScopeTrace {
 public:
  CScopeTrace(LPCSTR pszFunction, UINT nLine, LPCSTR pszFile, int nLevel);
  ~CScopeTrace();
  CScopeTrace(const CScopeTrace&) = delete;
  CScopeTrace& operator=(const CScopeTrace&) = delete;

 private:
  LPCSTR m_pszFunction;
  UINT m_nLine;
  LPCSTR m_pszFile;
  int m_nLevel;
};

#define ZT4_LOG(nLevel, ...) ZT4Log((nLevel), __FUNCTION__, __LINE__, __FILE__, __VA_ARGS__)
#define ZT4_SCOPE_TRACE(nLevel) CScopeTrace zt4ScopeTrace_(__FUNCTION__, __LINE__, __FILE__, (nLevel))

// A failed consistency test: logged at level 5, and the operation goes on.
void AssertStatement(LPCSTR pszFile, int nLine);
void AssertStatementWithMsg(LPCSTR pszMessage, LPCSTR pszFile, int nLine);
#define ZT4_ASSERT(expr) \
  do {                   \
    if (!(expr)) AssertStatement(__FILE__, __LINE__); \
  } while (0)

// Debug switch of the assertions: when set, each one also asks whether to break into the
// debugger (a message box). Off by default; a provider in a mail client must not stop.
void SetAssertBreak(BOOL bBreak);

// The standard "PR_..." name of the tag's property identifier, or NULL.
LPCSTR GetPropTagName(ULONG ulPropTag);
// Logs that name at level 4 (the tag in hexadecimal when it has none).
void DumpPropTag(ULONG ulPropTag);

// Failure checks. A function keeps its result in a local `hResult`; a failing check logs the
// text of the expression at level 1 and throws the code as a plain HRESULT, which the function
// catches at its end with ZT4_CATCH. A thrown 0 stands for E_FAIL. MAPI_W_ERRORS_RETURNED is a
// success code and passes.
#define ZT4_CHECK(expr)                                    \
  do {                                                     \
    hResult = (expr);                                      \
    if (FAILED(hResult)) {                                 \
      ZT4_LOG(ZT4_LEVEL_ERROR, "%s failed", #expr);        \
      throw static_cast<HRESULT>(hResult);                 \
    }                                                      \
  } while (0)

// Logs "<expr> is NULL" and throws hrFail when the pointer is null.
#define ZT4_CHECK_NULL(ptr, hrFail)                        \
  do {                                                     \
    if ((ptr) == NULL) {                                   \
      ZT4_LOG(ZT4_LEVEL_ERROR, "%s is NULL", #ptr);        \
      throw static_cast<HRESULT>(hrFail);                  \
    }                                                      \
  } while (0)

// The code a caught HRESULT stands for.
inline HRESULT ZT4ThrownResult(HRESULT hrThrown) { return hrThrown == 0 ? E_FAIL : hrThrown; }

// Ends a try block: a thrown HRESULT or a _com_error from across the provider boundary
// becomes the function's result.
#define ZT4_CATCH(hResult)                                                 \
  catch (HRESULT zt4Thrown_) { (hResult) = ZT4ThrownResult(zt4Thrown_); } \
  catch (const _com_error& zt4ComError_) { (hResult) = ZT4ThrownResult(zt4ComError_.Error()); }

// The closing log of a method: "Class::Method:%x" at level 1 for a failure.
#define ZT4_LOG_FAILURE(pszWhere, hResult)                                  \
  do {                                                                      \
    if (FAILED(hResult)) ZT4_LOG(ZT4_LEVEL_ERROR, pszWhere ":%x", (hResult)); \
  } while (0)
