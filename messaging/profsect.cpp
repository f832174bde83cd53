// IProfSect: an IMAPIProp over one section of the profile store.
#include "profsect.h"

#include <atomic>
#include <cstring>
#include <mutex>
#include <set>

#include "adminutil.h"
#include "mapicode.h"
#include "mapiguid.h"
#include "mapiutil.h"
#include "comobject.h"

namespace adm {
namespace {

constexpr const char* kComponent = "Profile section";

class ProfSect final : public ComObject<IProfSect, IID_IMAPIProp, IID_IProfSect> {
 public:
  ProfSect(std::shared_ptr<Profile> profile, const MAPIUID& uid, bool writable, PropSet contents)
      : m_profile(std::move(profile)), m_uid(uid), m_writable(writable), m_props(std::move(contents)) {}

  MAPIMETHOD(GetLastError)(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) override;
  MAPIMETHOD(SaveChanges)(ULONG ulFlags) override;
  MAPIMETHOD(GetProps)(LPSPropTagArray lpPropTagArray, ULONG ulFlags, ULONG* lpcValues,
                       LPSPropValue* lppPropArray) override;
  MAPIMETHOD(GetPropList)(ULONG ulFlags, LPSPropTagArray* lppPropTagArray) override;
  MAPIMETHOD(OpenProperty)(ULONG, LPCIID, ULONG, ULONG, LPUNKNOWN* lppUnk) override {
    if (lppUnk) *lppUnk = nullptr;
    return MAPI_E_NO_SUPPORT;
  }
  MAPIMETHOD(SetProps)(ULONG cValues, LPSPropValue lpPropArray, LPSPropProblemArray* lppProblems) override;
  MAPIMETHOD(DeleteProps)(LPSPropTagArray lpPropTagArray, LPSPropProblemArray* lppProblems) override;
  MAPIMETHOD(CopyTo)(ULONG, LPCIID, LPSPropTagArray, ULONG_PTR, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG,
                     LPSPropProblemArray* lppProblems) override {
    if (lppProblems) *lppProblems = nullptr;
    return MAPI_E_NO_SUPPORT;
  }
  MAPIMETHOD(CopyProps)(LPSPropTagArray, ULONG_PTR, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG,
                        LPSPropProblemArray* lppProblems) override {
    if (lppProblems) *lppProblems = nullptr;
    return MAPI_E_NO_SUPPORT;
  }
  MAPIMETHOD(GetNamesFromIDs)(LPSPropTagArray*, LPGUID, ULONG, ULONG* lpcPropNames, LPMAPINAMEID**) override {
    if (lpcPropNames) *lpcPropNames = 0;
    return MAPI_E_NO_SUPPORT;
  }
  MAPIMETHOD(GetIDsFromNames)(ULONG, LPMAPINAMEID*, ULONG, LPSPropTagArray* lppPropTags) override {
    if (lppPropTags) *lppPropTags = nullptr;
    return MAPI_E_NO_SUPPORT;
  }

 private:
  // Profile sections aren't transacted: what a writer set and never saved reaches the profile
  // when the last reference goes, so nothing set through a section is lost.
  ~ProfSect() override {
    if (m_writable && !m_changed.empty()) SaveChanges(0);
  }
  HRESULT Fail(HRESULT hr, const char* text) {
    m_lastText = text;
    return hr;
  }
  HRESULT ProblemsOut(const std::vector<SPropProblem>& problems, LPSPropProblemArray* lppProblems);

  const std::shared_ptr<Profile> m_profile;
  const MAPIUID m_uid;
  std::mutex m_lock;  // guards what follows; taken before the store lock
  bool m_writable;
  PropSet m_props;
  std::set<ULONG> m_changed;  // property IDs set or deleted since the last save
  std::string m_lastText;
};

MAPIMETHODIMP ProfSect::GetLastError(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) {
  std::lock_guard<std::mutex> guard(m_lock);  // lock order: object lock only
  std::string text = m_lastText.empty() ? "The profile section call failed" : m_lastText;
  if (hResult == S_OK) text = "No error";
  return BuildMapiError(ulFlags, text, kComponent, lppMAPIError);
}

MAPIMETHODIMP ProfSect::GetProps(LPSPropTagArray lpPropTagArray, ULONG ulFlags, ULONG* lpcValues,
                                 LPSPropValue* lppPropArray) {
  if (!lpcValues || !lppPropArray) return MAPI_E_INVALID_PARAMETER;
  *lpcValues = 0;
  *lppPropArray = nullptr;
  if (ulFlags & ~MAPI_UNICODE) return MAPI_E_UNKNOWN_FLAGS;
  bool unicode = (ulFlags & MAPI_UNICODE) != 0;
  std::lock_guard<std::mutex> guard(m_lock);  // lock order: object lock only
  std::vector<ULONG> wanted;
  if (lpPropTagArray) {
    wanted.assign(lpPropTagArray->aulPropTag, lpPropTagArray->aulPropTag + lpPropTagArray->cValues);
  } else {
    for (ULONG tag : m_props.Tags()) wanted.push_back(CHANGE_PROP_TYPE(tag, PT_UNSPECIFIED));
  }
  LPSPropValue out = nullptr;
  if (FAILED(MAPIAllocateBuffer(static_cast<ULONG>(sizeof(SPropValue) * (wanted.empty() ? 1 : wanted.size())),
                                reinterpret_cast<void**>(&out)))) {
    return MAPI_E_NOT_ENOUGH_MEMORY;
  }
  bool missing = false;
  for (size_t i = 0; i < wanted.size(); ++i) {
    ULONG tag = wanted[i];
    const SPropValue* have = m_props.Find(CHANGE_PROP_TYPE(tag, PT_UNSPECIFIED));
    ULONG stored = have ? PROP_TYPE(have->ulPropTag) : 0;
    ULONG asked = PROP_TYPE(tag);
    if (asked == PT_UNSPECIFIED && have) {
      asked = stored;
      if (stored == PT_STRING8 || stored == PT_UNICODE) asked = unicode ? PT_UNICODE : PT_STRING8;
      if (stored == PT_MV_STRING8 || stored == PT_MV_UNICODE) asked = unicode ? PT_MV_UNICODE : PT_MV_STRING8;
    }
    auto isText = [](ULONG t) { return t == PT_STRING8 || t == PT_UNICODE; };
    auto isMvText = [](ULONG t) { return t == PT_MV_STRING8 || t == PT_MV_UNICODE; };
    bool fits = have && (asked == stored || (isText(asked) && isText(stored)) || (isMvText(asked) && isMvText(stored)));
    if (!fits) {
      out[i].ulPropTag = CHANGE_PROP_TYPE(tag, PT_ERROR);
      out[i].dwAlignPad = 0;
      out[i].Value.err = MAPI_E_NOT_FOUND;
      missing = true;
      continue;
    }
    if (FAILED(CopyPropConverted(*have, asked, out, &out[i]))) {
      MAPIFreeBuffer(out);
      return MAPI_E_NOT_ENOUGH_MEMORY;
    }
  }
  *lpcValues = static_cast<ULONG>(wanted.size());
  *lppPropArray = out;
  return missing ? MAPI_W_ERRORS_RETURNED : S_OK;
}

MAPIMETHODIMP ProfSect::GetPropList(ULONG ulFlags, LPSPropTagArray* lppPropTagArray) {
  if (!lppPropTagArray) return MAPI_E_INVALID_PARAMETER;
  *lppPropTagArray = nullptr;
  if (ulFlags & ~MAPI_UNICODE) return MAPI_E_UNKNOWN_FLAGS;
  std::lock_guard<std::mutex> guard(m_lock);  // lock order: object lock only
  std::vector<ULONG> tags = m_props.Tags();
  LPSPropTagArray out = nullptr;
  if (FAILED(MAPIAllocateBuffer(static_cast<ULONG>(CbNewSPropTagArray(tags.size())), reinterpret_cast<void**>(&out)))) {
    return MAPI_E_NOT_ENOUGH_MEMORY;
  }
  out->cValues = static_cast<ULONG>(tags.size());
  bool unicode = (ulFlags & MAPI_UNICODE) != 0;
  for (size_t i = 0; i < tags.size(); ++i) {
    ULONG tag = tags[i];
    ULONG type = PROP_TYPE(tag);
    if (type == PT_STRING8 || type == PT_UNICODE) tag = CHANGE_PROP_TYPE(tag, unicode ? PT_UNICODE : PT_STRING8);
    if (type == PT_MV_STRING8 || type == PT_MV_UNICODE) tag = CHANGE_PROP_TYPE(tag, unicode ? PT_MV_UNICODE : PT_MV_STRING8);
    out->aulPropTag[i] = tag;
  }
  *lppPropTagArray = out;
  return S_OK;
}

HRESULT ProfSect::ProblemsOut(const std::vector<SPropProblem>& problems, LPSPropProblemArray* lppProblems) {
  if (!lppProblems) return S_OK;
  *lppProblems = nullptr;
  if (problems.empty()) return S_OK;
  LPSPropProblemArray out = nullptr;
  if (FAILED(MAPIAllocateBuffer(static_cast<ULONG>(CbNewSPropProblemArray(problems.size())),
                                reinterpret_cast<void**>(&out)))) {
    return MAPI_E_NOT_ENOUGH_MEMORY;
  }
  out->cProblem = static_cast<ULONG>(problems.size());
  std::memcpy(out->aProblem, problems.data(), problems.size() * sizeof(SPropProblem));
  *lppProblems = out;
  return S_OK;
}

MAPIMETHODIMP ProfSect::SetProps(ULONG cValues, LPSPropValue lpPropArray, LPSPropProblemArray* lppProblems) {
  if (lppProblems) *lppProblems = nullptr;
  if (!lpPropArray && cValues) return MAPI_E_INVALID_PARAMETER;
  std::lock_guard<std::mutex> guard(m_lock);  // lock order: object lock only
  if (!m_writable) return Fail(MAPI_E_NO_ACCESS, "The profile section is open read-only");
  std::vector<SPropProblem> problems;
  for (ULONG i = 0; i < cValues; ++i) {
    const SPropValue& v = lpPropArray[i];
    if (PROP_TYPE(v.ulPropTag) == PT_ERROR) continue;  // error values are not properties
    HRESULT hr = m_props.Set(v);
    if (hr == MAPI_E_NOT_ENOUGH_MEMORY) return hr;
    if (FAILED(hr)) {
      problems.push_back(SPropProblem{i, v.ulPropTag, hr});
      continue;
    }
    m_changed.insert(PROP_ID(v.ulPropTag));
  }
  return ProblemsOut(problems, lppProblems);
}

MAPIMETHODIMP ProfSect::DeleteProps(LPSPropTagArray lpPropTagArray, LPSPropProblemArray* lppProblems) {
  if (lppProblems) *lppProblems = nullptr;
  if (!lpPropTagArray) return MAPI_E_INVALID_PARAMETER;
  std::lock_guard<std::mutex> guard(m_lock);  // lock order: object lock only
  if (!m_writable) return Fail(MAPI_E_NO_ACCESS, "The profile section is open read-only");
  std::vector<SPropProblem> problems;
  for (ULONG i = 0; i < lpPropTagArray->cValues; ++i) {
    ULONG tag = lpPropTagArray->aulPropTag[i];
    if (!m_props.Erase(tag)) {
      problems.push_back(SPropProblem{i, tag, MAPI_E_NOT_FOUND});
      continue;
    }
    m_changed.insert(PROP_ID(tag));
  }
  return ProblemsOut(problems, lppProblems);
}

MAPIMETHODIMP ProfSect::SaveChanges(ULONG ulFlags) {
  if (ulFlags & ~(KEEP_OPEN_READONLY | KEEP_OPEN_READWRITE | FORCE_SAVE | MAPI_DEFERRED_ERRORS)) {
    return MAPI_E_UNKNOWN_FLAGS;
  }
  std::lock_guard<std::mutex> guard(m_lock);  // lock order: object lock, then the store lock
  if (!m_writable) return Fail(MAPI_E_NO_ACCESS, "The profile section is open read-only");
  PropSet merged;
  HRESULT hr = m_profile->UpdateSection(m_uid, true, [this, &merged](PropSet& disk) -> HRESULT {
    for (ULONG id : m_changed) {
      const SPropValue* mine = m_props.Find(PROP_TAG(PT_UNSPECIFIED, id));
      disk.Erase(PROP_TAG(PT_UNSPECIFIED, id));
      if (mine) {
        HRESULT hrSet = disk.Set(*mine);
        if (FAILED(hrSet)) return hrSet;
      }
    }
    for (ULONG tag : disk.Tags()) merged.Set(*disk.Find(tag));
    return S_OK;
  });
  if (FAILED(hr)) {
    return Fail(hr, hr == MAPI_E_CORRUPT_DATA ? "The profile section on disk is corrupt"
                                              : "The profile section could not be saved");
  }
  m_props = std::move(merged);  // now also what other writers saved
  m_changed.clear();
  if (ulFlags & KEEP_OPEN_READONLY) m_writable = false;
  return S_OK;
}

}  // namespace

HRESULT CreateProfSect(std::shared_ptr<Profile> profile, const MAPIUID& uid, bool writable, PropSet contents,
                       LPPROFSECT* lppProfSect) {
  if (!lppProfSect) return MAPI_E_INVALID_PARAMETER;
  *lppProfSect = new ProfSect(std::move(profile), uid, writable, std::move(contents));
  return S_OK;
}

}  // namespace adm
