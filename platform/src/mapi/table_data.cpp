// CreateTable and the table data object: rows by key, the table order, and the fan-out of each
// change to the views, whose notifications go out after the lock is released.
#include <algorithm>
#include <cmath>

#include "mapi/table.h"
#include "mapitags.h"

namespace adp::mapi {

namespace {

// Labels live in [1, kLabelLimit); a row added at either end lands kLabelGap beyond its
// neighbour, so appends and prepends never respread anything.
constexpr uint64_t kLabelLimit = uint64_t(1) << 62;
constexpr uint64_t kLabelGap = uint64_t(1) << 20;
// A block of 2^i labels may hold at most 1.5^i rows before it is respread.
constexpr double kDensityBase = 1.5;
// More rows than this in one HrModifyRows or HrDeleteRows: one TABLE_CHANGED per view.
constexpr ULONG kBulkRows = 8;

Entry* AsEntry(TreeNode* n) { return static_cast<Entry*>(n); }

SPropValue IndexValue(const RowRef& row, ULONG indexTag) {
  if (row)
    if (const SPropValue* v = row->Find(indexTag)) return *v;
  SPropValue none{};
  none.ulPropTag = PR_NULL;
  return none;
}

// A notification laid out in one block, as its sinks receive it.
struct Payload {
  NOTIFICATION notification{};
  std::unique_ptr<std::byte[]> block;
};

std::unique_ptr<Payload> BuildPayload(const TableEvent& event, ULONG indexTag) {
  std::vector<SPropValue> values{IndexValue(event.row, indexTag), IndexValue(event.prior, indexTag)};
  std::vector<SPropValue> columns;
  if (event.columns && event.row) ProjectRow(*event.row, *event.columns, columns);
  values.insert(values.end(), columns.begin(), columns.end());
  ULONG cb = 0;
  if (ScCountProps(int(values.size()), values.data(), &cb) != S_OK) return nullptr;
  auto payload = std::make_unique<Payload>();
  payload->block = std::make_unique<std::byte[]>(cb);
  ScCopyProps(int(values.size()), values.data(), payload->block.get(), nullptr);
  auto* copied = reinterpret_cast<SPropValue*>(payload->block.get());
  NOTIFICATION& n = payload->notification;
  n.ulEventType = fnevTableModified;
  n.info.tab.ulTableEvent = event.type;
  n.info.tab.hResult = S_OK;
  n.info.tab.propIndex = copied[0];
  n.info.tab.propPrior = copied[1];
  n.info.tab.row.cValues = ULONG(columns.size());
  n.info.tab.row.lpProps = columns.empty() ? nullptr : copied + 2;
  return payload;
}

std::unique_ptr<Payload> TryBuildPayload(const TableEvent& event, ULONG indexTag) noexcept {
  try {
    return BuildPayload(event, indexTag);
  } catch (...) {
    return nullptr;  // a notification that cannot be built is dropped, the table goes on
  }
}

// Called with no table lock held. A sink that went away after its notification was queued
// hears nothing.
void DeliverBatch(const std::vector<QueuedNotification>& batch, ULONG indexTag) {
  const TableEvent* built = nullptr;
  std::unique_ptr<Payload> payload;
  for (const QueuedNotification& q : batch) {
    if (!q.sink->live.load(std::memory_order_acquire)) continue;
    if (q.event.get() != built) {
      payload = TryBuildPayload(*q.event, indexTag);
      built = q.event.get();
    }
    if (!payload) continue;
    NOTIFICATION n = payload->notification;  // each sink may scribble on its own copy
    q.sink->sink->OnNotify(1, &n);
  }
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Construction and IUnknown.

TableData::TableData(const Allocators& alloc, ULONG ulTableType, ULONG ulIndexTag, const SPropTagArray& columns)
    : m_alloc(alloc), m_tableType(ulTableType), m_indexTag(ulIndexTag) {
  for (ULONG i = 0; i < columns.cValues; ++i)
    if (m_columnSet.insert(columns.aulPropTag[i]).second) m_columns.push_back(columns.aulPropTag[i]);
}

TableData::~TableData() {
  std::vector<Entry*> entries;
  entries.reserve(m_order.Size());
  m_order.ForEach([&](TreeNode* n) { entries.push_back(AsEntry(n)); });
  m_order.Clear();
  for (Entry* e : entries) delete e;
}

STDMETHODIMP TableData::QueryInterface(REFIID riid, void** ppvObject) {
  if (!ppvObject) return MAPI_E_INVALID_PARAMETER;
  *ppvObject = nullptr;
  if (riid != IID_IUnknown && riid != IID_IMAPITableData) return E_NOINTERFACE;
  AddRef();
  *ppvObject = static_cast<ITableData*>(this);
  return S_OK;
}

STDMETHODIMP_(ULONG) TableData::AddRef() { return m_cRef.fetch_add(1, std::memory_order_relaxed) + 1; }

STDMETHODIMP_(ULONG) TableData::Release() {
  ULONG left = m_cRef.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (left == 0) delete this;
  return left;
}

void TableData::Unregister(TableView* view) { std::erase(m_views, view); }

// ---------------------------------------------------------------------------------------------
// Rows in, keys, labels.

HRESULT TableData::PrepareKey(const SPropValue* lpProp, std::string& key) const {
  if (!lpProp || lpProp->ulPropTag != m_indexTag) return MAPI_E_INVALID_PARAMETER;
  return KeyOf(*lpProp, key) ? S_OK : MAPI_E_INVALID_PARAMETER;
}

HRESULT TableData::Prepare(const SRow* lpSRow, Prepared& out) const {
  if (!lpSRow || (lpSRow->cValues != 0 && !lpSRow->lpProps)) return MAPI_E_INVALID_PARAMETER;
  const SPropValue* index = PpropFindProp(lpSRow->lpProps, lpSRow->cValues, m_indexTag);
  if (HRESULT hr = PrepareKey(index, out.key); hr != S_OK) return hr;
  RowBlock* block = nullptr;
  if (HRESULT hr = RowBlock::Create(lpSRow->cValues, lpSRow->lpProps, &block); hr != S_OK) return hr;
  out.row = RowRef(block);
  return S_OK;
}

Entry* TableData::FindEntry(const std::string& key) const {
  auto it = m_byKey.find(std::string_view(key));
  return it == m_byKey.end() ? nullptr : it->second;
}

void TableData::AddColumns(const RowBlock& row) {
  // Columns only ever grow: later views see every property a row has carried.
  for (ULONG i = 0; i < row.Count(); ++i) {
    ULONG tag = row.Props()[i].ulPropTag;
    if (PROP_TYPE(tag) != PT_ERROR && m_columnSet.insert(tag).second) m_columns.push_back(tag);
  }
}

uint64_t TableData::LabelBetween(Entry* prev, Entry* next) {
  if (!prev && !next) return kLabelLimit / 2;
  if (!next) {
    if (kLabelLimit - prev->label > kLabelGap) return prev->label + kLabelGap;
  } else if (!prev) {
    if (next->label > kLabelGap) return next->label - kLabelGap;
  } else if (next->label - prev->label >= 2) {
    return prev->label + (next->label - prev->label) / 2;
  }
  return Relabel(prev, next);
}

// No room between the neighbours: find the smallest aligned block of labels around them that is
// sparse enough, and spread its rows and the new one evenly over it. Amortised O(log n).
uint64_t TableData::Relabel(Entry* prev, Entry* next) {
  Entry* anchor = prev ? prev : next;
  Entry* lo = anchor;
  Entry* hi = anchor;
  uint64_t count = 1;
  for (int bits = 2; bits <= 62; ++bits) {
    uint64_t size = uint64_t(1) << bits;
    uint64_t base = anchor->label & ~(size - 1);
    // Widen [lo, hi] to every row whose label falls in the block.
    for (TreeNode* p = OrderTree::Prev(lo); p && AsEntry(p)->label >= base; p = OrderTree::Prev(lo)) {
      lo = AsEntry(p);
      ++count;
    }
    for (TreeNode* n = OrderTree::Next(hi); n && AsEntry(n)->label < base + size; n = OrderTree::Next(hi)) {
      hi = AsEntry(n);
      ++count;
    }
    if (bits < 62 && (double(count + 2) > std::pow(kDensityBase, bits) || 2 * (count + 2) > size)) continue;
    uint64_t spacing = size / (count + 2);
    uint64_t label = std::max<uint64_t>(base, 1);
    uint64_t fresh = 0;
    auto step = [&] { return label += spacing; };
    if (!prev) fresh = step();  // a new first row
    for (TreeNode* t = lo;; t = OrderTree::Next(t)) {
      AsEntry(t)->label = step();
      if (t == prev) fresh = step();
      if (t == hi) break;
    }
    return fresh;
  }
  return 0;  // unreachable: the whole label space holds more rows than a ULONG counts
}

void TableData::InsertEntry(Prepared&& p, uint64_t label, ChangeLog& log) {
  auto owned = std::make_unique<Entry>();
  Entry* e = owned.get();
  e->key = std::move(p.key);
  e->row = std::move(p.row);
  e->label = label;
  m_byKey.emplace(std::string_view(e->key), e);
  m_order.Insert(e, [label](const TreeNode* x) { return static_cast<const Entry*>(x)->label < label; });
  owned.release();
  AddColumns(*e->row);
  if (Dynamic())
    for (TableView* view : m_views) view->OnInsert(e, log);
}

void TableData::ReplaceRow(Entry* e, RowRef&& row, ChangeLog& log) {
  std::vector<TableView::Detached> detached;
  if (Dynamic()) {
    detached.reserve(m_views.size());
    for (TableView* view : m_views) detached.push_back(view->Detach(e));
  }
  e->row = std::move(row);
  AddColumns(*e->row);
  for (size_t i = 0; i < detached.size(); ++i) m_views[i]->Reattach(e, detached[i], log);
}

// A new key goes to the end of the table order: that is where it shows in unsorted views.
void TableData::Upsert(Prepared&& p, ChangeLog& log) {
  if (Entry* e = FindEntry(p.key)) return ReplaceRow(e, std::move(p.row), log);
  Entry* last = AsEntry(m_order.Last());
  InsertEntry(std::move(p), LabelBetween(last, nullptr), log);
}

void TableData::RemoveEntry(Entry* e, ChangeLog& log) {
  if (Dynamic())
    for (TableView* view : m_views) view->OnDelete(e, log);
  m_byKey.erase(std::string_view(e->key));
  m_order.Erase(e);
  delete e;
}

void TableData::RemoveAll(ChangeLog& log) {
  if (Dynamic())
    for (TableView* view : m_views) view->OnDeleteAll(log);
  std::vector<Entry*> entries;
  entries.reserve(m_order.Size());
  m_order.ForEach([&](TreeNode* n) { entries.push_back(AsEntry(n)); });
  m_order.Clear();
  m_byKey.clear();
  for (Entry* e : entries) delete e;
}

// ---------------------------------------------------------------------------------------------
// Notification delivery.

void TableData::Publish(ChangeLog& log, std::unique_lock<std::mutex>& lock) {
  log.Flush(m_queue);
  Deliver(lock);
}

// One thread at a time delivers, in queue order, so each sink hears a table's changes in the
// order they happened. A change made while another thread delivers (a sink calling back into
// the table included) is delivered by that thread's loop.
void TableData::Deliver(std::unique_lock<std::mutex>& lock) {
  if (m_delivering) return;
  m_delivering = true;
  while (!m_queue.empty()) {
    std::vector<QueuedNotification> batch;
    batch.swap(m_queue);
    lock.unlock();
    DeliverBatch(batch, m_indexTag);
    batch.clear();  // sink releases, out of the lock
    lock.lock();
  }
  m_delivering = false;
}

// ---------------------------------------------------------------------------------------------
// ITableData

STDMETHODIMP TableData::HrGetView(LPSSortOrderSet lpSSortOrderSet, CALLERRELEASE* lpfCallerRelease,
                                  ULONG_PTR ulCallerData, LPMAPITABLE* lppMAPITable) {
  if (!lppMAPITable) return MAPI_E_INVALID_PARAMETER;
  *lppMAPITable = nullptr;
  return Guarded([&]() -> HRESULT {
    std::vector<SortKey> keys;
    if (lpSSortOrderSet)
      if (HRESULT hr = ParseSortOrder(lpSSortOrderSet, keys); hr != S_OK) return hr;
    auto* view = new TableView(this);
    HRESULT hr = Guarded([&] {
      std::lock_guard<std::mutex> lock(m_lock);
      m_views.reserve(m_views.size() + 1);
      view->Populate(std::move(keys));
      m_views.push_back(view);
      return S_OK;
    });
    if (hr != S_OK) {
      view->Release();
      return hr;
    }
    view->SetCallerRelease(lpfCallerRelease, ulCallerData);
    *lppMAPITable = view;
    return S_OK;
  });
}

STDMETHODIMP TableData::HrModifyRow(LPSRow lpSRow) {
  return Guarded([&]() -> HRESULT {
    Prepared p;
    if (HRESULT hr = Prepare(lpSRow, p); hr != S_OK) return hr;
    std::unique_lock<std::mutex> lock(m_lock);
    ChangeLog log(false);
    Upsert(std::move(p), log);
    Publish(log, lock);
    return S_OK;
  });
}

STDMETHODIMP TableData::HrModifyRows(ULONG ulFlags, LPSRowSet lpSRowSet) {
  if (ulFlags != 0) return MAPI_E_UNKNOWN_FLAGS;
  if (!lpSRowSet) return MAPI_E_INVALID_PARAMETER;
  return Guarded([&]() -> HRESULT {
    // Every row is checked and copied before the first one lands: a bad row changes nothing.
    std::vector<Prepared> rows(lpSRowSet->cRows);
    for (ULONG i = 0; i < lpSRowSet->cRows; ++i)
      if (HRESULT hr = Prepare(&lpSRowSet->aRow[i], rows[i]); hr != S_OK) return hr;
    std::unique_lock<std::mutex> lock(m_lock);
    ChangeLog log(lpSRowSet->cRows > kBulkRows);
    for (Prepared& p : rows) Upsert(std::move(p), log);
    Publish(log, lock);
    return S_OK;
  });
}

STDMETHODIMP TableData::HrInsertRow(ULONG uliRow, LPSRow lpSRow) {
  return Guarded([&]() -> HRESULT {
    Prepared p;
    if (HRESULT hr = Prepare(lpSRow, p); hr != S_OK) return hr;
    std::unique_lock<std::mutex> lock(m_lock);
    if (FindEntry(p.key) || uliRow > m_order.Size()) return MAPI_E_INVALID_PARAMETER;
    // The new row takes position uliRow: it follows the row that held uliRow - 1.
    Entry* prev = uliRow == 0 ? nullptr : AsEntry(m_order.At(uliRow - 1));
    Entry* next = AsEntry(m_order.At(uliRow));
    ChangeLog log(false);
    InsertEntry(std::move(p), LabelBetween(prev, next), log);
    Publish(log, lock);
    return S_OK;
  });
}

STDMETHODIMP TableData::HrDeleteRow(LPSPropValue lpSPropValue) {
  return Guarded([&]() -> HRESULT {
    std::string key;
    if (HRESULT hr = PrepareKey(lpSPropValue, key); hr != S_OK) return hr;
    std::unique_lock<std::mutex> lock(m_lock);
    Entry* e = FindEntry(key);
    if (!e) return MAPI_E_NOT_FOUND;
    ChangeLog log(false);
    RemoveEntry(e, log);
    Publish(log, lock);
    return S_OK;
  });
}

STDMETHODIMP TableData::HrDeleteRows(ULONG ulFlags, LPSRowSet lprowsetToDelete, ULONG* cRowsDeleted) {
  if (ulFlags & ~ULONG(TAD_ALL_ROWS)) return MAPI_E_UNKNOWN_FLAGS;
  if (cRowsDeleted) *cRowsDeleted = 0;
  if (!(ulFlags & TAD_ALL_ROWS) && !lprowsetToDelete) return MAPI_E_INVALID_PARAMETER;
  return Guarded([&]() -> HRESULT {
    std::vector<std::string> keys;
    if (!(ulFlags & TAD_ALL_ROWS)) {
      keys.resize(lprowsetToDelete->cRows);
      for (ULONG i = 0; i < lprowsetToDelete->cRows; ++i) {
        const SRow& row = lprowsetToDelete->aRow[i];
        if (row.cValues != 0 && !row.lpProps) return MAPI_E_INVALID_PARAMETER;
        const SPropValue* index = PpropFindProp(row.lpProps, row.cValues, m_indexTag);
        if (HRESULT hr = PrepareKey(index, keys[i]); hr != S_OK) return hr;
      }
    }
    std::unique_lock<std::mutex> lock(m_lock);
    ULONG deleted = 0;
    if (ulFlags & TAD_ALL_ROWS) {
      // One TABLE_RELOAD per view instead of a notification per row.
      ChangeLog log(false);
      deleted = ULONG(m_order.Size());
      RemoveAll(log);
      Publish(log, lock);
    } else {
      ChangeLog log(keys.size() > kBulkRows);
      for (const std::string& key : keys) {
        if (Entry* e = FindEntry(key)) {
          RemoveEntry(e, log);
          ++deleted;
        }
      }
      Publish(log, lock);
    }
    if (cRowsDeleted) *cRowsDeleted = deleted;
    return S_OK;
  });
}

STDMETHODIMP TableData::HrQueryRow(LPSPropValue lpsPropValue, LPSRow* lppSRow, ULONG* lpuliRow) {
  if (!lppSRow) return MAPI_E_INVALID_PARAMETER;
  *lppSRow = nullptr;
  return Guarded([&]() -> HRESULT {
    std::string key;
    if (HRESULT hr = PrepareKey(lpsPropValue, key); hr != S_OK) return hr;
    RowRef row;
    ULONG index = 0;
    {
      std::lock_guard<std::mutex> lock(m_lock);
      Entry* e = FindEntry(key);
      if (!e) return MAPI_E_NOT_FOUND;
      row = e->row;
      index = ULONG(OrderTree::IndexOf(e));
    }
    if (HRESULT hr = CopyOutRow(m_alloc, *row, lppSRow); hr != S_OK) return hr;
    if (lpuliRow) *lpuliRow = index;
    return S_OK;
  });
}

STDMETHODIMP TableData::HrEnumRow(ULONG ulRowNumber, LPSRow* lppSRow) {
  if (!lppSRow) return MAPI_E_INVALID_PARAMETER;
  *lppSRow = nullptr;
  return Guarded([&]() -> HRESULT {
    RowRef row;
    {
      std::lock_guard<std::mutex> lock(m_lock);
      TreeNode* n = m_order.At(ulRowNumber);
      if (!n) return S_OK;  // past the end: no row, and no error
      row = AsEntry(n)->row;
    }
    return CopyOutRow(m_alloc, *row, lppSRow);
  });
}

STDMETHODIMP TableData::HrNotify(ULONG ulFlags, ULONG cValues, LPSPropValue lpSPropValue) {
  if (ulFlags != 0) return MAPI_E_UNKNOWN_FLAGS;
  if (cValues != 0 && !lpSPropValue) return MAPI_E_INVALID_PARAMETER;
  return Guarded([&]() -> HRESULT {
    std::string key;
    if (HRESULT hr = PrepareKey(PpropFindProp(lpSPropValue, cValues, m_indexTag), key); hr != S_OK) return hr;
    std::unique_lock<std::mutex> lock(m_lock);
    Entry* e = FindEntry(key);
    if (!e) return MAPI_E_NOT_FOUND;
    ChangeLog log(false);
    if (Dynamic())
      for (TableView* view : m_views) view->OnNotifyRow(e, log);
    Publish(log, lock);
    return S_OK;
  });
}

}  // namespace adp::mapi

using adp::mapi::Allocators;
using adp::mapi::TableData;

extern "C" SCODE STDAPICALLTYPE CreateTable(LPCIID lpInterface, ALLOCATEBUFFER* lpAllocateBuffer,
                                            ALLOCATEMORE* lpAllocateMore, FREEBUFFER* lpFreeBuffer,
                                            LPVOID lpvReserved, ULONG ulTableType, ULONG ulPropTagIndexColumn,
                                            LPSPropTagArray lpSPropTagArrayColumns, LPTABLEDATA* lppTableData) {
  if (!lppTableData) return MAPI_E_INVALID_PARAMETER;
  *lppTableData = nullptr;
  if (!lpInterface || !lpAllocateBuffer || !lpAllocateMore || !lpFreeBuffer || lpvReserved || !lpSPropTagArrayColumns)
    return MAPI_E_INVALID_PARAMETER;
  if (*lpInterface != IID_IMAPITableData) return MAPI_E_INTERFACE_NOT_SUPPORTED;
  if (ulTableType != TBLTYPE_DYNAMIC && ulTableType != TBLTYPE_SNAPSHOT) return MAPI_E_INVALID_PARAMETER;
  if (!adp::mapi::IsKeyType(ulPropTagIndexColumn) || lpSPropTagArrayColumns->cValues > adp::mapi::kMaxColumns)
    return MAPI_E_INVALID_PARAMETER;
  return adp::mapi::Guarded([&] {
    Allocators alloc{lpAllocateBuffer, lpAllocateMore, lpFreeBuffer};
    *lppTableData = new TableData(alloc, ulTableType, ulPropTagIndexColumn, *lpSPropTagArrayColumns);
    return S_OK;
  });
}
