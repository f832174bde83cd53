// Helpers shared by the administration objects.
#include "adminutil.h"

#include <cstring>

#include "adplatform.h"
#include "mapicode.h"
#include "mapiguid.h"
#include "mapitags.h"
#include "mapiutil.h"
#include "propfile.h"

namespace adm {
namespace {

HRESULT MoreText(const std::string& text, bool wide, LPVOID root, void** out) {
  if (wide) {
    std::u16string w = adp::Utf8ToUtf16(text.c_str());
    size_t cb = (w.size() + 1) * sizeof(char16_t);
    if (FAILED(MAPIAllocateMore(static_cast<ULONG>(cb), root, out))) return MAPI_E_NOT_ENOUGH_MEMORY;
    std::memcpy(*out, w.c_str(), cb);
  } else {
    if (FAILED(MAPIAllocateMore(static_cast<ULONG>(text.size() + 1), root, out))) return MAPI_E_NOT_ENOUGH_MEMORY;
    std::memcpy(*out, text.c_str(), text.size() + 1);
  }
  return S_OK;
}

std::string ItemText(ULONG type, const SPropValue& v, ULONG i) {
  if (type == PT_STRING8) return v.Value.MVszA.lppszA[i] ? v.Value.MVszA.lppszA[i] : "";
  return v.Value.MVszW.lppszW[i] ? adp::Utf16ToUtf8(v.Value.MVszW.lppszW[i]) : "";
}

}  // namespace

HRESULT BuildMapiError(ULONG ulFlags, const std::string& text, const std::string& component, LPMAPIERROR* lppMAPIError) {
  if (!lppMAPIError) return MAPI_E_INVALID_PARAMETER;
  *lppMAPIError = nullptr;
  if (ulFlags & ~MAPI_UNICODE) return MAPI_E_UNKNOWN_FLAGS;
  bool wide = (ulFlags & MAPI_UNICODE) != 0;
  LPMAPIERROR err = nullptr;
  if (FAILED(MAPIAllocateBuffer(sizeof(MAPIERROR), reinterpret_cast<void**>(&err)))) return MAPI_E_NOT_ENOUGH_MEMORY;
  std::memset(err, 0, sizeof *err);
  err->ulVersion = MAPI_ERROR_VERSION;
  void* t = nullptr;
  void* c = nullptr;
  if (FAILED(MoreText(text, wide, err, &t)) || FAILED(MoreText(component, wide, err, &c))) {
    MAPIFreeBuffer(err);
    return MAPI_E_NOT_ENOUGH_MEMORY;
  }
  err->lpszError = static_cast<LPTSTR>(t);
  err->lpszComponent = static_cast<LPTSTR>(c);
  *lppMAPIError = err;
  return S_OK;
}

HRESULT CopyPropConverted(const SPropValue& value, ULONG targetType, LPVOID root, SPropValue* dst) {
  ULONG type = PROP_TYPE(value.ulPropTag);
  bool single = (type == PT_STRING8 || type == PT_UNICODE) && (targetType == PT_STRING8 || targetType == PT_UNICODE);
  bool multi = (type == PT_MV_STRING8 || type == PT_MV_UNICODE) &&
               (targetType == PT_MV_STRING8 || targetType == PT_MV_UNICODE);
  if ((!single && !multi) || type == targetType) {
    return FAILED(PropCopyMore(dst, const_cast<SPropValue*>(&value), MAPIAllocateMore, root)) ? MAPI_E_NOT_ENOUGH_MEMORY
                                                                                              : S_OK;
  }
  dst->ulPropTag = CHANGE_PROP_TYPE(value.ulPropTag, targetType);
  dst->dwAlignPad = 0;
  if (single) {
    void* text = nullptr;
    HRESULT hr = MoreText(PropText(&value), targetType == PT_UNICODE, root, &text);
    if (FAILED(hr)) return hr;
    dst->Value.lpszA = static_cast<LPSTR>(text);  // same slot as lpszW
    return S_OK;
  }
  ULONG count = value.Value.MVszA.cValues;
  void* items = nullptr;
  if (FAILED(MAPIAllocateMore(static_cast<ULONG>(sizeof(void*) * (count ? count : 1)), root, &items))) {
    return MAPI_E_NOT_ENOUGH_MEMORY;
  }
  for (ULONG i = 0; i < count; ++i) {
    void* text = nullptr;
    HRESULT hr = MoreText(ItemText(type & ~MV_FLAG, value, i), targetType == PT_MV_UNICODE, root, &text);
    if (FAILED(hr)) return hr;
    static_cast<void**>(items)[i] = text;
  }
  dst->Value.MVszA.cValues = count;
  dst->Value.MVszA.lppszA = static_cast<LPSTR*>(items);
  return S_OK;
}

void RowBuilder::Text(ULONG ulPropTag, const std::string& text) {
  SPropValue v{};
  if (m_unicode) {
    m_wide.push_back(adp::Utf8ToUtf16(text.c_str()));
    v.ulPropTag = CHANGE_PROP_TYPE(ulPropTag, PT_UNICODE);
    v.Value.lpszW = m_wide.back().data();
  } else {
    m_bytes.push_back(text);
    v.ulPropTag = CHANGE_PROP_TYPE(ulPropTag, PT_STRING8);
    v.Value.lpszA = m_bytes.back().data();
  }
  m_values.push_back(v);
}

void RowBuilder::Long(ULONG ulPropTag, ULONG value) { m_values.push_back(LongProp(ulPropTag, value)); }

void RowBuilder::Bool(ULONG ulPropTag, bool value) {
  SPropValue v{};
  v.ulPropTag = ulPropTag;
  v.Value.b = value ? 1 : 0;
  m_values.push_back(v);
}

void RowBuilder::Binary(ULONG ulPropTag, const void* data, ULONG cb) {
  m_bytes.emplace_back(static_cast<const char*>(data), cb);
  m_values.push_back(BinaryProp(ulPropTag, m_bytes.back().data(), cb));
}

std::vector<ULONG> TableColumns(std::vector<ULONG> columns, bool unicode) {
  for (ULONG& tag : columns) {
    if (PROP_TYPE(tag) == PT_STRING8 || PROP_TYPE(tag) == PT_UNICODE) {
      tag = CHANGE_PROP_TYPE(tag, unicode ? PT_UNICODE : PT_STRING8);
    }
  }
  return columns;
}

HRESULT BuildTable(const std::vector<ULONG>& columns, std::vector<RowBuilder>& rows, LPMAPITABLE* lppTable) {
  if (!lppTable) return MAPI_E_INVALID_PARAMETER;
  *lppTable = nullptr;
  std::vector<BYTE> tagBytes(CbNewSPropTagArray(columns.size()));
  LPSPropTagArray tags = reinterpret_cast<LPSPropTagArray>(tagBytes.data());
  tags->cValues = static_cast<ULONG>(columns.size());
  for (size_t i = 0; i < columns.size(); ++i) tags->aulPropTag[i] = columns[i];
  LPTABLEDATA data = nullptr;
  SCODE sc = CreateTable(&IID_IMAPITableData, MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer, nullptr,
                         TBLTYPE_SNAPSHOT, PR_INSTANCE_KEY, tags, &data);
  if (FAILED(sc)) return sc;
  HRESULT hr = S_OK;
  for (auto& row : rows) {
    SRow srow{};
    srow.cValues = static_cast<ULONG>(row.Values().size());
    srow.lpProps = row.Values().data();
    hr = data->HrModifyRow(&srow);
    if (FAILED(hr)) break;
  }
  if (SUCCEEDED(hr)) hr = data->HrGetView(nullptr, nullptr, 0, lppTable);
  data->Release();  // the view keeps the data alive
  return hr;
}

}  // namespace adm
