// IMAPITable views over a table data object. A view keeps the rows inside its restriction in an
// order-statistic tree under its sort (ties, and unsorted views, in table order), a cursor and
// bookmarks that point at rows, and its advise sinks. Every call runs under the table data's
// lock; the table data drives the view through the OnInsert/Detach/Reattach/OnDelete hooks.
#include <algorithm>
#include <numeric>
#include <string>
#include <utility>

#include "mapi/table.h"

namespace adp::mapi {

namespace {

constexpr size_t kMaxBookmarks = 65536;
constexpr ULONG kTimingFlags = TBL_ASYNC | TBL_BATCH;
constexpr const char kComponent[] = "MAPI table";

ViewNode* AsNode(TreeNode* n) { return static_cast<ViewNode*>(n); }

// Rows without the property sort before rows with it.
int CompareValues(const SPropValue* a, const SPropValue* b) {
  if (!a || !b) return int(a != nullptr) - int(b != nullptr);
  LONG r = LPropCompareProp(const_cast<LPSPropValue>(a), const_cast<LPSPropValue>(b));
  return r < 0 ? -1 : (r > 0 ? 1 : 0);
}

// Frees a half-built row set unless it is handed out.
class RowSetBuilder {
 public:
  explicit RowSetBuilder(const Allocators& alloc) : m_alloc(alloc) {}
  ~RowSetBuilder() {
    if (!m_set) return;
    for (ULONG i = 0; i < m_set->cRows; ++i) m_alloc.freeBuffer(m_set->aRow[i].lpProps);
    m_alloc.freeBuffer(m_set);
  }
  RowSetBuilder(const RowSetBuilder&) = delete;
  RowSetBuilder& operator=(const RowSetBuilder&) = delete;

  HRESULT Start(size_t count) {
    void* block = nullptr;
    if (SCODE sc = m_alloc.allocateBuffer(ULONG(CbNewSRowSet(count)), &block); sc != S_OK) return sc;
    m_set = static_cast<SRowSet*>(block);
    m_set->cRows = 0;
    return S_OK;
  }
  HRESULT Add(std::vector<SPropValue>& values) {
    ULONG cb = 0;
    if (SCODE sc = ScCountProps(int(values.size()), values.data(), &cb); sc != S_OK) return sc;
    void* props = nullptr;
    if (SCODE sc = m_alloc.allocateBuffer(cb, &props); sc != S_OK) return sc;
    ScCopyProps(int(values.size()), values.data(), props, nullptr);
    m_set->aRow[m_set->cRows++] = SRow{0, ULONG(values.size()), static_cast<LPSPropValue>(props)};
    return S_OK;
  }
  SRowSet* Release() { return std::exchange(m_set, nullptr); }

 private:
  const Allocators& m_alloc;
  SRowSet* m_set = nullptr;
};

// Text in caller memory chained to a block, narrow or UTF-16 as MAPI_UNICODE asks.
HRESULT CopyText(const Allocators& alloc, const char* text, bool unicode, void* parent, LPTSTR* out) {
  size_t n = std::char_traits<char>::length(text) + 1;
  void* room = nullptr;
  if (SCODE sc = alloc.allocateMore(ULONG(n * (unicode ? sizeof(char16_t) : 1)), parent, &room); sc != S_OK) return sc;
  if (unicode) {
    auto* wide = static_cast<char16_t*>(room);
    for (size_t i = 0; i < n; ++i) wide[i] = static_cast<unsigned char>(text[i]);
  } else {
    std::char_traits<char>::copy(static_cast<char*>(room), text, n);
  }
  *out = static_cast<LPTSTR>(room);
  return S_OK;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Life.

TableView::TableView(TableData* data) : m_data(data), m_snapshot(data->TableType() == TBLTYPE_SNAPSHOT) {
  m_data->AddRef();
}

TableView::~TableView() = default;

void TableView::SetCallerRelease(CALLERRELEASE* lpfCallerRelease, ULONG_PTR ulCallerData) {
  m_release = lpfCallerRelease;
  m_callerData = ulCallerData;
}

void TableView::Populate(std::vector<SortKey> sort) {
  m_columns = std::make_shared<const std::vector<ULONG>>(m_data->AllColumns());
  m_sort = std::move(sort);
  if (m_snapshot) {
    // A snapshot keeps the rows of this moment, in this order; it shares their blocks.
    uint64_t ordinal = 0;
    m_frozen.reserve(m_data->Order().Size());
    m_data->Order().ForEach([&](const TreeNode* n) {
      auto e = std::make_unique<Entry>();
      e->row = static_cast<const Entry*>(n)->row;
      e->label = ++ordinal;
      m_frozen.push_back(std::move(e));
    });
  }
  Rebuild();
}

STDMETHODIMP TableView::QueryInterface(REFIID riid, void** ppvObject) {
  if (!ppvObject) return MAPI_E_INVALID_PARAMETER;
  *ppvObject = nullptr;
  if (riid != IID_IUnknown && riid != IID_IMAPITable) return E_NOINTERFACE;
  AddRef();
  *ppvObject = static_cast<IMAPITable*>(this);
  return S_OK;
}

STDMETHODIMP_(ULONG) TableView::AddRef() { return m_cRef.fetch_add(1, std::memory_order_relaxed) + 1; }

STDMETHODIMP_(ULONG) TableView::Release() {
  ULONG left = m_cRef.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (left != 0) return left;
  if (m_release) m_release(m_callerData, m_data, this);
  std::map<ULONG, std::shared_ptr<SinkHolder>> connections;
  {
    std::lock_guard<std::mutex> lock(m_data->Mutex());
    m_data->Unregister(this);
    DropBookmarks();
    DeleteNodes();
    connections.swap(m_connections);
    for (auto& [id, holder] : connections) holder->live.store(false, std::memory_order_release);
  }
  connections.clear();  // the sinks are released out of the lock
  TableData* data = m_data;
  delete this;
  data->Release();
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Order and membership.

bool TableView::Matches(const Entry* e) const {
  return !m_restriction || EvaluateRestriction(m_restriction->Get(), e->row->Count(), e->row->Props());
}

int TableView::Compare(const Entry* a, const Entry* b) const {
  for (const SortKey& key : m_sort) {
    int c = CompareValues(a->row->Find(key.ulPropTag), b->row->Find(key.ulPropTag));
    if (c != 0) return key.descending ? -c : c;
  }
  // Equal keys keep table order, which makes every sort stable.
  return a->label < b->label ? -1 : (a->label > b->label ? 1 : 0);
}

ViewNode* TableView::Locate(const Entry* e) const {
  TreeNode* n = m_rows.LowerBound([&](const TreeNode* x) { return Compare(EntryOf(x), e) < 0; });
  if (n && EntryOf(n) == e) return AsNode(n);
  // Only a comparison that contradicts itself (a NaN key) gets here.
  for (TreeNode* t = m_rows.First(); t; t = OrderTree::Next(t))
    if (EntryOf(t) == e) return AsNode(t);
  return nullptr;
}

void TableView::Place(ViewNode* n) {
  m_rows.Insert(n, [&](const TreeNode* x) { return Compare(EntryOf(x), n->entry) < 0; });
}

// An empty view's cursor is at its beginning and its end at once; the first row to arrive
// lands under it, so a reader that has not moved sees the rows from the top.
void TableView::PlaceNew(ViewNode* n) {
  bool wasEmpty = m_rows.Empty();
  Place(n);
  if (wasEmpty && !m_cursor) m_cursor = n;
}

// The row left the view: the cursor and bookmarks on it move to the row that followed it.
void TableView::Forget(ViewNode* n, ViewNode* successor) {
  if (m_cursor == n) m_cursor = successor;
  if (n->pins != 0) {
    for (auto& [id, bookmark] : m_bookmarks) {
      if (bookmark.node != n) continue;
      bookmark.node = successor;
      bookmark.moved = true;
      if (successor) ++successor->pins;
    }
  }
  delete n;
}

void TableView::SortNodes(std::vector<TreeNode*>& nodes) const {
  auto byLabel = [](const TreeNode* a, const TreeNode* b) { return EntryOf(a)->label < EntryOf(b)->label; };
  if (m_sort.empty()) {
    if (!std::is_sorted(nodes.begin(), nodes.end(), byLabel)) std::sort(nodes.begin(), nodes.end(), byLabel);
    return;
  }
  // Each row's key values are looked up once, not at every comparison.
  const size_t k = m_sort.size();
  std::vector<const SPropValue*> keys(nodes.size() * k);
  for (size_t i = 0; i < nodes.size(); ++i)
    for (size_t j = 0; j < k; ++j) keys[i * k + j] = EntryOf(nodes[i])->row->Find(m_sort[j].ulPropTag);
  std::vector<uint32_t> order(nodes.size());
  std::iota(order.begin(), order.end(), 0u);
  std::sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
    for (size_t j = 0; j < k; ++j) {
      int c = CompareValues(keys[a * k + j], keys[b * k + j]);
      if (c != 0) return m_sort[j].descending ? c > 0 : c < 0;
    }
    return EntryOf(nodes[a])->label < EntryOf(nodes[b])->label;
  });
  std::vector<TreeNode*> sorted(nodes.size());
  for (size_t i = 0; i < order.size(); ++i) sorted[i] = nodes[order[i]];
  nodes.swap(sorted);
}

void TableView::DeleteNodes() {
  std::vector<TreeNode*> nodes;
  nodes.reserve(m_rows.Size());
  m_rows.ForEach([&](TreeNode* n) { nodes.push_back(n); });
  m_rows.Clear();
  m_cursor = nullptr;
  for (TreeNode* n : nodes) delete AsNode(n);
}

void TableView::DropBookmarks() {
  for (auto& [id, bookmark] : m_bookmarks)
    if (bookmark.node) --bookmark.node->pins;
  m_bookmarks.clear();
}

// The rows of the source that pass the restriction, sorted; cursor to the top, bookmarks gone.
void TableView::Rebuild() {
  DropBookmarks();
  DeleteNodes();
  std::vector<TreeNode*> nodes;
  auto take = [&](Entry* e) {
    if (!Matches(e)) return;
    auto node = std::make_unique<ViewNode>();
    node->entry = e;
    nodes.push_back(node.get());
    node.release();
  };
  try {
    if (m_snapshot) {
      nodes.reserve(m_frozen.size());
      for (auto& e : m_frozen) take(e.get());
    } else {
      nodes.reserve(m_data->Order().Size());
      m_data->Order().ForEach([&](TreeNode* n) { take(static_cast<Entry*>(n)); });
    }
    SortNodes(nodes);
  } catch (...) {
    for (TreeNode* n : nodes) delete AsNode(n);
    throw;
  }
  m_rows.Build(nodes);
  m_cursor = AsNode(m_rows.First());
}

size_t TableView::PositionOf(const ViewNode* n) const { return n ? OrderTree::IndexOf(n) : m_rows.Size(); }

ViewNode* TableView::NodeAt(size_t position) const { return AsNode(m_rows.At(position)); }

// ---------------------------------------------------------------------------------------------
// Hooks of the table data (its lock held).

void TableView::Emit(ULONG type, const Entry* e, const ViewNode* at, ChangeLog& log) {
  if (m_connections.empty()) return;
  if (log.Bulk()) return log.Touch(this);
  auto event = std::make_shared<TableEvent>();
  event->type = type;
  if (e) event->row = e->row;
  if (at) {
    event->columns = m_columns;
    if (TreeNode* prior = OrderTree::Prev(at)) event->prior = EntryOf(prior)->row;
  }
  log.Add(this, std::move(event));
}

void TableView::OnInsert(Entry* e, ChangeLog& log) {
  if (!Matches(e)) return;
  auto* n = new ViewNode;
  n->entry = e;
  PlaceNew(n);
  Emit(TABLE_ROW_ADDED, e, n, log);
}

TableView::Detached TableView::Detach(Entry* e) {
  Detached d;
  if (!Matches(e) || !(d.node = Locate(e))) return d;
  d.successor = AsNode(OrderTree::Next(d.node));
  m_rows.Erase(d.node);
  return d;
}

void TableView::Reattach(Entry* e, const Detached& d, ChangeLog& log) {
  bool inside = Matches(e);
  if (d.node && inside) {
    Place(d.node);  // the cursor and bookmarks on the row move with it
    Emit(TABLE_ROW_MODIFIED, e, d.node, log);
  } else if (d.node) {
    Emit(TABLE_ROW_DELETED, e, nullptr, log);
    Forget(d.node, d.successor);
  } else if (inside) {
    OnInsert(e, log);
  }
}

void TableView::OnDelete(Entry* e, ChangeLog& log) {
  if (!Matches(e)) return;
  ViewNode* n = Locate(e);
  if (!n) return;
  ViewNode* successor = AsNode(OrderTree::Next(n));
  Emit(TABLE_ROW_DELETED, e, nullptr, log);
  m_rows.Erase(n);
  Forget(n, successor);
}

void TableView::OnDeleteAll(ChangeLog& log) {
  for (auto& [id, bookmark] : m_bookmarks) {
    if (!bookmark.node) continue;
    bookmark.node = nullptr;
    bookmark.moved = true;
  }
  DeleteNodes();
  if (m_connections.empty()) return;
  auto event = std::make_shared<TableEvent>();
  event->type = TABLE_RELOAD;
  log.Add(this, std::move(event));
}

void TableView::OnNotifyRow(Entry* e, ChangeLog& log) {
  if (!Matches(e)) return;
  if (ViewNode* n = Locate(e)) Emit(TABLE_ROW_MODIFIED, e, n, log);
}

void TableView::Dispatch(const std::shared_ptr<const TableEvent>& event, std::vector<QueuedNotification>& queue) const {
  for (const auto& [id, holder] : m_connections) queue.push_back({holder, event});
}

// ---------------------------------------------------------------------------------------------
// IMAPITable

HRESULT TableView::Fail(HRESULT hr, const char* what) {
  std::lock_guard<std::mutex> lock(m_errorLock);
  m_lastError = hr;
  m_lastErrorText = what;
  return hr;
}

STDMETHODIMP TableView::GetLastError(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) {
  if (ulFlags & ~MAPI_UNICODE) return MAPI_E_UNKNOWN_FLAGS;
  if (!lppMAPIError) return MAPI_E_INVALID_PARAMETER;
  *lppMAPIError = nullptr;
  const char* text = nullptr;
  {
    std::lock_guard<std::mutex> lock(m_errorLock);
    if (hResult == m_lastError) text = m_lastErrorText;
  }
  if (!text) return S_OK;  // nothing known about that error
  const Allocators& alloc = m_data->Alloc();
  void* block = nullptr;
  if (SCODE sc = alloc.allocateBuffer(sizeof(MAPIERROR), &block); sc != S_OK) return sc;
  auto* error = static_cast<MAPIERROR*>(block);
  *error = MAPIERROR{MAPI_ERROR_VERSION, nullptr, nullptr, 0, 0};
  bool unicode = (ulFlags & MAPI_UNICODE) != 0;
  HRESULT hr = CopyText(alloc, text, unicode, block, &error->lpszError);
  if (hr == S_OK) hr = CopyText(alloc, kComponent, unicode, block, &error->lpszComponent);
  if (hr != S_OK) {
    alloc.freeBuffer(block);
    return hr;
  }
  *lppMAPIError = error;
  return S_OK;
}

STDMETHODIMP TableView::Advise(ULONG ulEventMask, LPMAPIADVISESINK lpAdviseSink, ULONG* lpulConnection) {
  if (!lpAdviseSink || !lpulConnection || !(ulEventMask & fnevTableModified))
    return Fail(MAPI_E_INVALID_PARAMETER, "Advise needs a sink, a connection pointer and fnevTableModified");
  if (m_snapshot) return Fail(MAPI_E_NO_SUPPORT, "A snapshot table does not change, so it sends no notifications");
  return Guarded([&]() -> HRESULT {
    lpAdviseSink->AddRef();
    std::shared_ptr<SinkHolder> holder;
    try {
      holder = std::make_shared<SinkHolder>(lpAdviseSink);
    } catch (...) {
      lpAdviseSink->Release();
      throw;
    }
    std::lock_guard<std::mutex> lock(m_data->Mutex());
    ULONG id = m_nextConnection++;
    m_connections.emplace(id, std::move(holder));
    *lpulConnection = id;
    return S_OK;
  });
}

STDMETHODIMP TableView::Unadvise(ULONG ulConnection) {
  std::shared_ptr<SinkHolder> holder;
  {
    std::lock_guard<std::mutex> lock(m_data->Mutex());
    auto it = m_connections.find(ulConnection);
    if (it == m_connections.end()) return Fail(MAPI_E_NOT_FOUND, "No advise connection has that number");
    holder = std::move(it->second);
    m_connections.erase(it);
    holder->live.store(false, std::memory_order_release);
  }
  return S_OK;  // the holder releases the sink here, out of the lock
}

STDMETHODIMP TableView::GetStatus(ULONG* lpulTableStatus, ULONG* lpulTableType) {
  if (!lpulTableStatus || !lpulTableType) return Fail(MAPI_E_INVALID_PARAMETER, "GetStatus needs both pointers");
  *lpulTableStatus = TBLSTAT_COMPLETE;
  *lpulTableType = m_data->TableType();
  return S_OK;
}

STDMETHODIMP TableView::SetColumns(LPSPropTagArray lpPropTagArray, ULONG ulFlags) {
  if (ulFlags & ~kTimingFlags) return Fail(MAPI_E_UNKNOWN_FLAGS, "SetColumns takes TBL_ASYNC and TBL_BATCH only");
  if (!lpPropTagArray || lpPropTagArray->cValues == 0 || lpPropTagArray->cValues > kMaxColumns)
    return Fail(MAPI_E_INVALID_PARAMETER, "SetColumns needs between 1 and 65535 columns");
  return Guarded([&] {
    auto columns = std::make_shared<const std::vector<ULONG>>(lpPropTagArray->aulPropTag,
                                                              lpPropTagArray->aulPropTag + lpPropTagArray->cValues);
    std::lock_guard<std::mutex> lock(m_data->Mutex());
    m_columns.swap(columns);
    return S_OK;
  });
}

STDMETHODIMP TableView::QueryColumns(ULONG ulFlags, LPSPropTagArray* lpPropTagArray) {
  if (ulFlags & ~TBL_ALL_COLUMNS) return Fail(MAPI_E_UNKNOWN_FLAGS, "QueryColumns takes TBL_ALL_COLUMNS only");
  if (!lpPropTagArray) return Fail(MAPI_E_INVALID_PARAMETER, "QueryColumns needs a result pointer");
  *lpPropTagArray = nullptr;
  return Guarded([&]() -> HRESULT {
    std::vector<ULONG> columns;
    {
      std::lock_guard<std::mutex> lock(m_data->Mutex());
      columns = (ulFlags & TBL_ALL_COLUMNS) ? m_data->AllColumns() : *m_columns;
    }
    void* block = nullptr;
    if (SCODE sc = m_data->Alloc().allocateBuffer(ULONG(CbNewSPropTagArray(columns.size())), &block); sc != S_OK)
      return sc;
    auto* tags = static_cast<SPropTagArray*>(block);
    tags->cValues = ULONG(columns.size());
    std::copy(columns.begin(), columns.end(), tags->aulPropTag);
    *lpPropTagArray = tags;
    return S_OK;
  });
}

STDMETHODIMP TableView::GetRowCount(ULONG ulFlags, ULONG* lpulCount) {
  if (ulFlags != 0) return Fail(MAPI_E_UNKNOWN_FLAGS, "GetRowCount takes no flags");
  if (!lpulCount) return Fail(MAPI_E_INVALID_PARAMETER, "GetRowCount needs a result pointer");
  std::lock_guard<std::mutex> lock(m_data->Mutex());
  *lpulCount = ULONG(m_rows.Size());
  return S_OK;
}

// A bookmark whose row has gone since it was last used answers MAPI_W_POSITION_CHANGED once.
HRESULT TableView::ResolveOrigin(BOOKMARK bk, ViewNode** origin) {
  switch (bk) {
    case BOOKMARK_BEGINNING:
      *origin = AsNode(m_rows.First());
      return S_OK;
    case BOOKMARK_CURRENT:
      *origin = m_cursor;
      return S_OK;
    case BOOKMARK_END:
      *origin = nullptr;
      return S_OK;
    default:
      break;
  }
  auto it = m_bookmarks.find(bk);
  if (it == m_bookmarks.end()) return MAPI_E_INVALID_BOOKMARK;
  *origin = it->second.node;
  return std::exchange(it->second.moved, false) ? MAPI_W_POSITION_CHANGED : S_OK;
}

STDMETHODIMP TableView::SeekRow(BOOKMARK bkOrigin, LONG lRowCount, LONG* lplRowsSought) {
  std::lock_guard<std::mutex> lock(m_data->Mutex());
  ViewNode* origin = nullptr;
  HRESULT status = ResolveOrigin(bkOrigin, &origin);
  if (FAILED(status)) return Fail(status, "SeekRow was given a bookmark this view does not know");
  int64_t start = int64_t(PositionOf(origin));
  int64_t target = std::clamp<int64_t>(start + lRowCount, 0, int64_t(m_rows.Size()));
  m_cursor = NodeAt(size_t(target));
  if (lplRowsSought) *lplRowsSought = LONG(target - start);
  return status;
}

STDMETHODIMP TableView::SeekRowApprox(ULONG ulNumerator, ULONG ulDenominator) {
  if (ulDenominator == 0 || ulNumerator > ulDenominator)
    return Fail(MAPI_E_INVALID_PARAMETER, "SeekRowApprox needs a fraction between 0 and 1");
  std::lock_guard<std::mutex> lock(m_data->Mutex());
  m_cursor = NodeAt(size_t(uint64_t(m_rows.Size()) * ulNumerator / ulDenominator));
  return S_OK;
}

STDMETHODIMP TableView::QueryPosition(ULONG* lpulRow, ULONG* lpulNumerator, ULONG* lpulDenominator) {
  if (!lpulRow || !lpulNumerator || !lpulDenominator)
    return Fail(MAPI_E_INVALID_PARAMETER, "QueryPosition needs all three pointers");
  std::lock_guard<std::mutex> lock(m_data->Mutex());
  ULONG position = ULONG(PositionOf(m_cursor));
  ULONG count = ULONG(m_rows.Size());
  *lpulRow = position;
  *lpulNumerator = position;
  *lpulDenominator = count ? count : 1;
  return S_OK;
}

// Forward searches start at the origin's row, backward ones at the row before it.
STDMETHODIMP TableView::FindRow(LPSRestriction lpRestriction, BOOKMARK bkOrigin, ULONG ulFlags) {
  if (ulFlags & ~DIR_BACKWARD) return Fail(MAPI_E_UNKNOWN_FLAGS, "FindRow takes DIR_BACKWARD only");
  if (HRESULT hr = ValidateRestriction(lpRestriction); hr != S_OK)
    return Fail(hr, "FindRow was given a restriction it cannot evaluate");
  std::lock_guard<std::mutex> lock(m_data->Mutex());
  ViewNode* origin = nullptr;
  HRESULT status = ResolveOrigin(bkOrigin, &origin);
  if (FAILED(status)) return Fail(status, "FindRow was given a bookmark this view does not know");
  bool backward = (ulFlags & DIR_BACKWARD) != 0;
  TreeNode* n = backward ? (origin ? OrderTree::Prev(origin) : m_rows.Last()) : origin;
  for (; n; n = backward ? OrderTree::Prev(n) : OrderTree::Next(n)) {
    const RowBlock& row = *EntryOf(n)->row;
    if (!EvaluateRestriction(lpRestriction, row.Count(), row.Props())) continue;
    m_cursor = AsNode(n);
    return status;
  }
  return Fail(MAPI_E_NOT_FOUND, "No row from the origin on matches the restriction");
}

STDMETHODIMP TableView::Restrict(LPSRestriction lpRestriction, ULONG ulFlags) {
  if (ulFlags & ~kTimingFlags) return Fail(MAPI_E_UNKNOWN_FLAGS, "Restrict takes TBL_ASYNC and TBL_BATCH only");
  return Guarded([&]() -> HRESULT {
    std::unique_ptr<RestrictionCopy> restriction;  // after the swap: the old one, freed out of the lock
    if (lpRestriction) {
      restriction = std::make_unique<RestrictionCopy>();
      if (HRESULT hr = restriction->Assign(lpRestriction); hr != S_OK)
        return Fail(hr, "Restrict was given a restriction it cannot evaluate");
    }
    std::lock_guard<std::mutex> lock(m_data->Mutex());
    m_restriction.swap(restriction);
    Rebuild();
    return S_OK;
  });
}

STDMETHODIMP TableView::CreateBookmark(BOOKMARK* lpbkPosition) {
  if (!lpbkPosition) return Fail(MAPI_E_INVALID_PARAMETER, "CreateBookmark needs a result pointer");
  return Guarded([&]() -> HRESULT {
    std::lock_guard<std::mutex> lock(m_data->Mutex());
    if (m_bookmarks.size() >= kMaxBookmarks) return Fail(MAPI_E_UNABLE_TO_COMPLETE, "Too many bookmarks on this view");
    BOOKMARK id = m_nextBookmark++;
    m_bookmarks.emplace(id, Bookmark{m_cursor, false});
    if (m_cursor) ++m_cursor->pins;
    *lpbkPosition = id;
    return S_OK;
  });
}

STDMETHODIMP TableView::FreeBookmark(BOOKMARK bkPosition) {
  if (bkPosition <= BOOKMARK_END) return S_OK;  // the predefined ones are never allocated
  std::lock_guard<std::mutex> lock(m_data->Mutex());
  auto it = m_bookmarks.find(bkPosition);
  if (it == m_bookmarks.end()) return Fail(MAPI_E_INVALID_BOOKMARK, "FreeBookmark was given an unknown bookmark");
  if (it->second.node) --it->second.node->pins;
  m_bookmarks.erase(it);
  return S_OK;
}

STDMETHODIMP TableView::SortTable(LPSSortOrderSet lpSortCriteria, ULONG ulFlags) {
  if (ulFlags & ~kTimingFlags) return Fail(MAPI_E_UNKNOWN_FLAGS, "SortTable takes TBL_ASYNC and TBL_BATCH only");
  return Guarded([&]() -> HRESULT {
    std::vector<SortKey> keys;
    if (HRESULT hr = ParseSortOrder(lpSortCriteria, keys); hr != S_OK)
      return Fail(hr, hr == MAPI_E_TOO_COMPLEX ? "This table does not categorise; sort without categories"
                                               : "SortTable was given a malformed sort order");
    std::lock_guard<std::mutex> lock(m_data->Mutex());
    m_sort.swap(keys);
    Rebuild();
    return S_OK;
  });
}

STDMETHODIMP TableView::QuerySortOrder(LPSSortOrderSet* lppSortCriteria) {
  if (!lppSortCriteria) return Fail(MAPI_E_INVALID_PARAMETER, "QuerySortOrder needs a result pointer");
  *lppSortCriteria = nullptr;
  return Guarded([&]() -> HRESULT {
    std::vector<SortKey> keys;
    {
      std::lock_guard<std::mutex> lock(m_data->Mutex());
      keys = m_sort;
    }
    void* block = nullptr;
    if (SCODE sc = m_data->Alloc().allocateBuffer(ULONG(CbNewSSortOrderSet(keys.size())), &block); sc != S_OK)
      return sc;
    auto* set = static_cast<SSortOrderSet*>(block);
    set->cSorts = ULONG(keys.size());
    set->cCategories = 0;
    set->cExpanded = 0;
    for (size_t i = 0; i < keys.size(); ++i) set->aSort[i] = SSortOrder{keys[i].ulPropTag, keys[i].ulOrder};
    *lppSortCriteria = set;
    return S_OK;
  });
}

HRESULT TableView::BuildRowSet(ViewNode* first, size_t count, LPSRowSet* lppRows) const {
  RowSetBuilder builder(m_data->Alloc());
  if (HRESULT hr = builder.Start(count); hr != S_OK) return hr;
  std::vector<SPropValue> values;
  TreeNode* n = first;
  for (size_t i = 0; i < count; ++i, n = OrderTree::Next(n)) {
    ProjectRow(*EntryOf(n)->row, *m_columns, values);
    if (HRESULT hr = builder.Add(values); hr != S_OK) return hr;
  }
  *lppRows = builder.Release();
  return S_OK;
}

// A negative count reads the rows before the cursor, in table order, and leaves the cursor on
// the first of them; TBL_NOADVANCE leaves it where it was in either direction.
STDMETHODIMP TableView::QueryRows(LONG lRowCount, ULONG ulFlags, LPSRowSet* lppRows) {
  if (!lppRows) return Fail(MAPI_E_INVALID_PARAMETER, "QueryRows needs a result pointer");
  *lppRows = nullptr;
  if (lRowCount == 0) return Fail(MAPI_E_INVALID_PARAMETER, "QueryRows needs a row count other than zero");
  if (ulFlags & ~TBL_NOADVANCE) return Fail(MAPI_E_UNKNOWN_FLAGS, "QueryRows takes TBL_NOADVANCE only");
  return Guarded([&]() -> HRESULT {
    std::lock_guard<std::mutex> lock(m_data->Mutex());
    int64_t position = int64_t(PositionOf(m_cursor));
    int64_t size = int64_t(m_rows.Size());
    int64_t start = position;
    int64_t count = 0;
    if (lRowCount > 0) {
      count = std::min<int64_t>(lRowCount, size - position);
    } else {
      count = std::min<int64_t>(-int64_t(lRowCount), position);
      start = position - count;
    }
    ViewNode* first = NodeAt(size_t(start));
    if (HRESULT hr = BuildRowSet(first, size_t(count), lppRows); hr != S_OK)
      return Fail(hr, "QueryRows could not allocate its rows");
    if (!(ulFlags & TBL_NOADVANCE)) m_cursor = lRowCount > 0 ? NodeAt(size_t(start + count)) : first;
    return S_OK;
  });
}

// Every operation completes before its call returns, so there is never anything to stop.
STDMETHODIMP TableView::Abort() { return S_OK; }

STDMETHODIMP TableView::ExpandRow(ULONG cbInstanceKey, LPBYTE pbInstanceKey, ULONG ulRowCount, ULONG ulFlags,
                                  LPSRowSet* lppRows, ULONG* lpulMoreRows) {
  return Fail(MAPI_E_NO_SUPPORT, "This table has no categories to expand");
}

STDMETHODIMP TableView::CollapseRow(ULONG cbInstanceKey, LPBYTE pbInstanceKey, ULONG ulFlags, ULONG* lpulRowCount) {
  return Fail(MAPI_E_NO_SUPPORT, "This table has no categories to collapse");
}

STDMETHODIMP TableView::WaitForCompletion(ULONG ulFlags, ULONG ulTimeout, ULONG* lpulTableStatus) {
  if (lpulTableStatus) *lpulTableStatus = TBLSTAT_COMPLETE;
  return S_OK;
}

STDMETHODIMP TableView::GetCollapseState(ULONG ulFlags, ULONG cbInstanceKey, LPBYTE lpbInstanceKey,
                                         ULONG* lpcbCollapseState, LPBYTE* lppbCollapseState) {
  return Fail(MAPI_E_NO_SUPPORT, "This table has no categories, so no collapse state");
}

STDMETHODIMP TableView::SetCollapseState(ULONG ulFlags, ULONG cbCollapseState, LPBYTE pbCollapseState,
                                         BOOKMARK* lpbkLocation) {
  return Fail(MAPI_E_NO_SUPPORT, "This table has no categories, so no collapse state");
}

}  // namespace adp::mapi
