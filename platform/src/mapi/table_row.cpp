// Rows of the table family: the immutable row block, index keys, column projection, copies out
// to callers, sort order checking and the change log that carries notifications to the queue.
#include <algorithm>
#include <cstring>

#include "mapi/table.h"

namespace adp::mapi {

namespace {

constexpr size_t kRowHeader = (sizeof(RowBlock) + 15) & ~size_t(15);
constexpr ULONG kMaxSortKeys = 64;

size_t Utf16Units(const char16_t* s) {
  size_t n = 0;
  while (s[n]) ++n;
  return n;
}

template <class T> void AppendRaw(std::string& key, const T& v) { key.append(reinterpret_cast<const char*>(&v), sizeof v); }

SPropValue NotFound(ULONG column) {
  SPropValue v{};
  v.ulPropTag = PROP_TAG(PT_ERROR, PROP_ID(column));
  v.Value.err = MAPI_E_NOT_FOUND;
  return v;
}

// Instances of a multi-valued column are not expanded into rows of their own: the column
// carries the whole property. PT_UNSPECIFIED takes whatever type the row holds.
SPropValue ColumnValue(const RowBlock& row, ULONG column) {
  ULONG wanted = column & ~ULONG(MV_INSTANCE);
  bool anyType = PROP_TYPE(wanted) == PT_UNSPECIFIED;
  const SPropValue* error = nullptr;
  for (ULONG i = 0; i < row.Count(); ++i) {
    const SPropValue& v = row.Props()[i];
    if (v.ulPropTag == wanted) return v;
    if (PROP_ID(v.ulPropTag) != PROP_ID(wanted)) continue;
    if (anyType) return v;
    if (PROP_TYPE(v.ulPropTag) == PT_ERROR && !error) error = &v;
  }
  return error ? *error : NotFound(column);
}

bool HasStrayInstanceBit(ULONG type) { return (type & MV_INSTANCE) && !(type & MV_FLAG); }

HRESULT CheckSortKey(const SSortOrder& key) {
  constexpr ULONG kKnownOrder = TABLE_SORT_DESCEND | TABLE_SORT_COMBINE | TABLE_SORT_CATEG_MAX | TABLE_SORT_CATEG_MIN;
  if (key.ulOrder & ~kKnownOrder) return MAPI_E_INVALID_PARAMETER;
  ULONG type = PROP_TYPE(key.ulPropTag);
  switch (type) {
    case PT_UNSPECIFIED:
    case PT_NULL:
    case PT_ERROR:
    case PT_OBJECT:
      return MAPI_E_INVALID_PARAMETER;
    default:
      break;
  }
  if (HasStrayInstanceBit(type)) return MAPI_E_INVALID_PARAMETER;
  // One row per value of a multi-valued column would be a categorisation of its own.
  if (type & MV_INSTANCE) return MAPI_E_TOO_COMPLEX;
  return S_OK;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// RowBlock

HRESULT RowBlock::Create(ULONG cValues, const SPropValue* lpProps, RowBlock** out) {
  *out = nullptr;
  ULONG cb = 0;
  SCODE sc = ScCountProps(int(cValues), const_cast<LPSPropValue>(lpProps), &cb);
  if (sc != S_OK) return sc;
  void* memory = ::operator new(kRowHeader + cb, std::nothrow);
  if (!memory) return MAPI_E_NOT_ENOUGH_MEMORY;
  auto* block = new (memory) RowBlock();
  if (cValues != 0) {
    void* area = static_cast<char*>(memory) + kRowHeader;
    ScCopyProps(int(cValues), const_cast<LPSPropValue>(lpProps), area, nullptr);
    block->m_props = static_cast<SPropValue*>(area);
    block->m_cValues = cValues;
  }
  *out = block;
  return S_OK;
}

void RowBlock::Release() {
  if (m_refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  this->~RowBlock();
  ::operator delete(static_cast<void*>(this));
}

const SPropValue* RowBlock::Find(ULONG ulPropTag) const {
  for (ULONG i = 0; i < m_cValues; ++i)
    if (m_props[i].ulPropTag == ulPropTag) return &m_props[i];
  return nullptr;
}

// ---------------------------------------------------------------------------------------------
// Keys, projection, copies out.

bool IsKeyType(ULONG ulPropTag) {
  switch (PROP_TYPE(ulPropTag)) {
    case PT_I2:
    case PT_LONG:
    case PT_R4:
    case PT_DOUBLE:
    case PT_CURRENCY:
    case PT_APPTIME:
    case PT_BOOLEAN:
    case PT_I8:
    case PT_SYSTIME:
    case PT_STRING8:
    case PT_UNICODE:
    case PT_CLSID:
    case PT_BINARY:
      return true;
    default:
      return false;
  }
}

bool KeyOf(const SPropValue& value, std::string& key) {
  key.clear();
  const __UPV& v = value.Value;
  switch (PROP_TYPE(value.ulPropTag)) {
    case PT_I2: AppendRaw(key, v.i); return true;
    case PT_BOOLEAN: AppendRaw(key, v.b); return true;
    case PT_LONG: AppendRaw(key, v.l); return true;
    case PT_R4: AppendRaw(key, v.flt); return true;
    case PT_DOUBLE:
    case PT_CURRENCY:
    case PT_APPTIME:
    case PT_I8:
    case PT_SYSTIME: AppendRaw(key, v.li.QuadPart); return true;
    case PT_STRING8:
      if (!v.lpszA) return false;
      key.assign(v.lpszA);
      return true;
    case PT_UNICODE:
      if (!v.lpszW) return false;
      key.assign(reinterpret_cast<const char*>(v.lpszW), Utf16Units(v.lpszW) * sizeof(char16_t));
      return true;
    case PT_CLSID:
      if (!v.lpguid) return false;
      AppendRaw(key, *v.lpguid);
      return true;
    case PT_BINARY:
      if (v.bin.cb == 0) return true;
      if (!v.bin.lpb) return false;
      key.assign(reinterpret_cast<const char*>(v.bin.lpb), v.bin.cb);
      return true;
    default:
      return false;
  }
}

void ProjectRow(const RowBlock& row, const std::vector<ULONG>& columns, std::vector<SPropValue>& out) {
  out.clear();
  out.reserve(columns.size());
  for (ULONG column : columns) out.push_back(ColumnValue(row, column));
}

HRESULT CopyOutRow(const Allocators& alloc, const RowBlock& row, LPSRow* lppRow) {
  *lppRow = nullptr;
  ULONG cb = 0;
  SCODE sc = ScCountProps(int(row.Count()), const_cast<LPSPropValue>(row.Props()), &cb);
  if (sc != S_OK) return sc;
  void* block = nullptr;
  if ((sc = alloc.allocateBuffer(sizeof(SRow), &block)) != S_OK) return sc;
  auto* out = static_cast<SRow*>(block);
  *out = SRow{0, row.Count(), nullptr};
  if (row.Count() != 0) {
    void* values = nullptr;
    if ((sc = alloc.allocateMore(cb, block, &values)) != S_OK) {
      alloc.freeBuffer(block);
      return sc;
    }
    ScCopyProps(int(row.Count()), const_cast<LPSPropValue>(row.Props()), values, nullptr);
    out->lpProps = static_cast<LPSPropValue>(values);
  }
  *lppRow = out;
  return S_OK;
}

// ---------------------------------------------------------------------------------------------
// Sort orders.

HRESULT ParseSortOrder(const SSortOrderSet* lpSort, std::vector<SortKey>& keys) {
  keys.clear();
  if (!lpSort) return MAPI_E_INVALID_PARAMETER;
  if (lpSort->cSorts > kMaxSortKeys) return MAPI_E_TOO_COMPLEX;
  if (lpSort->cCategories > lpSort->cSorts || lpSort->cExpanded > lpSort->cCategories) return MAPI_E_INVALID_PARAMETER;
  for (ULONG i = 0; i < lpSort->cSorts; ++i) {
    const SSortOrder& key = lpSort->aSort[i];
    if (HRESULT hr = CheckSortKey(key); hr != S_OK) return hr;
    // Without categories the category orderings have nothing to aggregate over; only the
    // direction counts.
    keys.push_back({key.ulPropTag, key.ulOrder, (key.ulOrder & TABLE_SORT_DESCEND) != 0});
  }
  // Views do not categorise: the provider builds its header rows itself over a flat sort.
  if (lpSort->cCategories != 0) {
    keys.clear();
    return MAPI_E_TOO_COMPLEX;
  }
  return S_OK;
}

// ---------------------------------------------------------------------------------------------
// ChangeLog

void ChangeLog::Add(TableView* view, std::shared_ptr<const TableEvent> event) {
  if (m_bulk) {
    Touch(view);
    return;
  }
  m_events.emplace_back(view, std::move(event));
}

void ChangeLog::Touch(TableView* view) {
  if (std::find(m_touched.begin(), m_touched.end(), view) == m_touched.end()) m_touched.push_back(view);
}

void ChangeLog::Flush(std::vector<QueuedNotification>& queue) {
  for (auto& [view, event] : m_events) view->Dispatch(event, queue);
  m_events.clear();
  for (TableView* view : m_touched) view->Dispatch(std::make_shared<TableEvent>(), queue);
  m_touched.clear();
}

}  // namespace adp::mapi
