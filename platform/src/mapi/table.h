// The MAPI table family: the table data object that CreateTable makes (ITableData) and the views
// it hands out (IMAPITable). Private to the platform library.
//
// Rows are immutable, reference-counted blocks: the table data keeps one per key, a snapshot view
// shares the blocks it saw, and a change replaces a row's block instead of editing it. The table
// data orders its entries by a label (order maintenance: labels grow with the table order and are
// respread locally when two neighbours leave no room), so every view can order ties, and unsorted
// views whole, by comparing two integers.
#pragma once
#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "mapi/restriction.h"
#include "mapi/table_tree.h"
#include "mapicode.h"
#include "mapiutil.h"

namespace adp::mapi {

// Column sets past this many tags are refused as malformed.
constexpr ULONG kMaxColumns = 0xFFFF;

// ---------------------------------------------------------------------------------------------
// Rows.

class RowBlock {
 public:
  // Deep copy of the values into one allocation.
  static HRESULT Create(ULONG cValues, const SPropValue* lpProps, RowBlock** out);
  void AddRef() { m_refs.fetch_add(1, std::memory_order_relaxed); }
  void Release();
  ULONG Count() const { return m_cValues; }
  const SPropValue* Props() const { return m_props; }
  // The value with exactly this tag, or nullptr.
  const SPropValue* Find(ULONG ulPropTag) const;

 private:
  RowBlock() = default;
  std::atomic<uint32_t> m_refs{1};
  ULONG m_cValues = 0;
  SPropValue* m_props = nullptr;
};

class RowRef {
 public:
  RowRef() = default;
  explicit RowRef(RowBlock* adopt) : m_block(adopt) {}
  RowRef(const RowRef& o) : m_block(o.m_block) {
    if (m_block) m_block->AddRef();
  }
  RowRef(RowRef&& o) noexcept : m_block(o.m_block) { o.m_block = nullptr; }
  RowRef& operator=(RowRef o) noexcept {
    std::swap(m_block, o.m_block);
    return *this;
  }
  ~RowRef() {
    if (m_block) m_block->Release();
  }
  const RowBlock* operator->() const { return m_block; }
  const RowBlock& operator*() const { return *m_block; }
  explicit operator bool() const { return m_block != nullptr; }

 private:
  RowBlock* m_block = nullptr;
};

// The bytes that identify a row by its index column value. False for a value that cannot be
// an index (a type without identity, or a NULL pointer).
bool KeyOf(const SPropValue& value, std::string& key);
// Whether a tag's type can serve as the index column.
bool IsKeyType(ULONG ulPropTag);

// The row's values for a column set: a missing column becomes PT_ERROR / MAPI_E_NOT_FOUND (or
// the error the row itself holds for that property). The values point into the row.
void ProjectRow(const RowBlock& row, const std::vector<ULONG>& columns, std::vector<SPropValue>& out);

// Output in caller memory from the table's allocators.
struct Allocators {
  ALLOCATEBUFFER* allocateBuffer;
  ALLOCATEMORE* allocateMore;
  FREEBUFFER* freeBuffer;
};
// One SRow block with its values chained to it (ITableData::HrQueryRow, HrEnumRow).
HRESULT CopyOutRow(const Allocators& alloc, const RowBlock& row, LPSRow* lppRow);

// ---------------------------------------------------------------------------------------------
// Entries and view nodes.

// A row of the table data, linked into its table order.
struct Entry : TreeNode {
  std::string key;
  RowRef row;
  uint64_t label = 0;
};

// A row as a view holds it. Bookmarks that point here are counted so that only those nodes need
// a look at the bookmark list when they leave the view.
struct ViewNode : TreeNode {
  Entry* entry = nullptr;
  uint32_t pins = 0;
};

// ---------------------------------------------------------------------------------------------
// Notifications.

// An advise connection. Releasing the last holder releases the sink, which therefore never
// happens under a table lock; a connection that has gone receives nothing more.
struct SinkHolder {
  explicit SinkHolder(IMAPIAdviseSink* s) : sink(s) {}
  ~SinkHolder() { sink->Release(); }
  SinkHolder(const SinkHolder&) = delete;
  SinkHolder& operator=(const SinkHolder&) = delete;
  IMAPIAdviseSink* sink;
  std::atomic<bool> live{true};
};

// What one view has to say about one change. The notification itself is built at delivery, out
// of the lock, from these references.
struct TableEvent {
  ULONG type = TABLE_CHANGED;
  RowRef row;    // the row now (added, modified) or its last state (deleted)
  RowRef prior;  // the row before it in the view, if any
  std::shared_ptr<const std::vector<ULONG>> columns;
};

struct QueuedNotification {
  std::shared_ptr<SinkHolder> sink;
  std::shared_ptr<const TableEvent> event;
};

class TableView;

// Events of one data operation, in order. In bulk mode a view hears one TABLE_CHANGED instead of
// a notification per row.
class ChangeLog {
 public:
  explicit ChangeLog(bool bulk) : m_bulk(bulk) {}
  bool Bulk() const { return m_bulk; }
  void Add(TableView* view, std::shared_ptr<const TableEvent> event);
  void Touch(TableView* view);
  // Queues every event for its view's sinks (table lock held).
  void Flush(std::vector<QueuedNotification>& queue);

 private:
  bool m_bulk;
  std::vector<std::pair<TableView*, std::shared_ptr<const TableEvent>>> m_events;
  std::vector<TableView*> m_touched;
};

// ---------------------------------------------------------------------------------------------
// Sort orders.

struct SortKey {
  ULONG ulPropTag;
  ULONG ulOrder;  // as the caller gave it, for QuerySortOrder
  bool descending;
};

// Checks a sort order set; categories are refused with MAPI_E_TOO_COMPLEX.
HRESULT ParseSortOrder(const SSortOrderSet* lpSort, std::vector<SortKey>& keys);

// ---------------------------------------------------------------------------------------------
// The table data object.

class TableData final : public ITableData {
 public:
  TableData(const Allocators& alloc, ULONG ulTableType, ULONG ulIndexTag, const SPropTagArray& columns);

  // IUnknown
  STDMETHOD(QueryInterface)(REFIID riid, void** ppvObject) override;
  STDMETHOD_(ULONG, AddRef)() override;
  STDMETHOD_(ULONG, Release)() override;
  // ITableData
  MAPIMETHOD(HrGetView)(LPSSortOrderSet lpSSortOrderSet, CALLERRELEASE* lpfCallerRelease, ULONG_PTR ulCallerData,
                        LPMAPITABLE* lppMAPITable) override;
  MAPIMETHOD(HrModifyRow)(LPSRow lpSRow) override;
  MAPIMETHOD(HrDeleteRow)(LPSPropValue lpSPropValue) override;
  MAPIMETHOD(HrQueryRow)(LPSPropValue lpsPropValue, LPSRow* lppSRow, ULONG* lpuliRow) override;
  MAPIMETHOD(HrEnumRow)(ULONG ulRowNumber, LPSRow* lppSRow) override;
  MAPIMETHOD(HrNotify)(ULONG ulFlags, ULONG cValues, LPSPropValue lpSPropValue) override;
  MAPIMETHOD(HrInsertRow)(ULONG uliRow, LPSRow lpSRow) override;
  MAPIMETHOD(HrModifyRows)(ULONG ulFlags, LPSRowSet lpSRowSet) override;
  MAPIMETHOD(HrDeleteRows)(ULONG ulFlags, LPSRowSet lprowsetToDelete, ULONG* cRowsDeleted) override;

  // For the views, which all run under Mutex().
  std::mutex& Mutex() { return m_lock; }
  const Allocators& Alloc() const { return m_alloc; }
  ULONG TableType() const { return m_tableType; }
  ULONG IndexTag() const { return m_indexTag; }
  const OrderTree& Order() const { return m_order; }
  const std::vector<ULONG>& AllColumns() const { return m_columns; }
  void Unregister(TableView* view);

 private:
  ~TableData();
  struct Prepared {
    RowRef row;
    std::string key;
  };
  HRESULT Prepare(const SRow* lpSRow, Prepared& out) const;
  HRESULT PrepareKey(const SPropValue* lpProp, std::string& key) const;
  Entry* FindEntry(const std::string& key) const;
  void Upsert(Prepared&& p, ChangeLog& log);
  void InsertEntry(Prepared&& p, uint64_t label, ChangeLog& log);
  void ReplaceRow(Entry* e, RowRef&& row, ChangeLog& log);
  void RemoveEntry(Entry* e, ChangeLog& log);
  void RemoveAll(ChangeLog& log);
  void AddColumns(const RowBlock& row);
  uint64_t LabelBetween(Entry* prev, Entry* next);
  uint64_t Relabel(Entry* prev, Entry* next);
  bool Dynamic() const { return m_tableType == TBLTYPE_DYNAMIC; }
  void Publish(ChangeLog& log, std::unique_lock<std::mutex>& lock);
  void Deliver(std::unique_lock<std::mutex>& lock);

  std::atomic<ULONG> m_cRef{1};
  const Allocators m_alloc;
  const ULONG m_tableType;
  const ULONG m_indexTag;

  // Lock order: m_lock is the one lock of a table family; every view of this table data runs
  // under it and takes no other table lock. Sinks, caller-release callbacks and sink releases
  // are called with it released. TableView's error lock may be taken inside it, never around it.
  std::mutex m_lock;
  std::vector<ULONG> m_columns;
  std::unordered_set<ULONG> m_columnSet;
  std::unordered_map<std::string_view, Entry*> m_byKey;
  OrderTree m_order;
  std::vector<TableView*> m_views;
  std::vector<QueuedNotification> m_queue;
  bool m_delivering = false;
};

// ---------------------------------------------------------------------------------------------
// A view.

class TableView final : public IMAPITable {
 public:
  explicit TableView(TableData* data);
  // Set once the view is handed out: a view that never was is not reported.
  void SetCallerRelease(CALLERRELEASE* lpfCallerRelease, ULONG_PTR ulCallerData);

  // Fills the view (table lock held).
  void Populate(std::vector<SortKey> sort);

  // Hooks of the table data for a dynamic view, table lock held.
  struct Detached {
    ViewNode* node = nullptr;
    ViewNode* successor = nullptr;
  };
  void OnInsert(Entry* e, ChangeLog& log);
  Detached Detach(Entry* e);
  void Reattach(Entry* e, const Detached& d, ChangeLog& log);
  void OnDelete(Entry* e, ChangeLog& log);
  void OnDeleteAll(ChangeLog& log);
  void OnNotifyRow(Entry* e, ChangeLog& log);
  void Dispatch(const std::shared_ptr<const TableEvent>& event, std::vector<QueuedNotification>& queue) const;
  bool HasSinks() const { return !m_connections.empty(); }

  // IUnknown
  STDMETHOD(QueryInterface)(REFIID riid, void** ppvObject) override;
  STDMETHOD_(ULONG, AddRef)() override;
  STDMETHOD_(ULONG, Release)() override;
  // IMAPITable
  MAPI_IMAPITABLE_METHODS(override)

 private:
  struct Bookmark {
    ViewNode* node;
    bool moved;
  };
  ~TableView();
  static const Entry* EntryOf(const TreeNode* n) { return static_cast<const ViewNode*>(n)->entry; }
  bool Matches(const Entry* e) const;
  int Compare(const Entry* a, const Entry* b) const;
  ViewNode* Locate(const Entry* e) const;
  void Place(ViewNode* n);
  void PlaceNew(ViewNode* n);
  void Forget(ViewNode* n, ViewNode* successor);
  void Emit(ULONG type, const Entry* e, const ViewNode* at, ChangeLog& log);
  void Rebuild();
  void SortNodes(std::vector<TreeNode*>& nodes) const;
  void DeleteNodes();
  void DropBookmarks();
  size_t PositionOf(const ViewNode* n) const;
  ViewNode* NodeAt(size_t position) const;
  HRESULT ResolveOrigin(BOOKMARK bk, ViewNode** origin);
  HRESULT BuildRowSet(ViewNode* first, size_t count, LPSRowSet* lppRows) const;
  HRESULT Fail(HRESULT hr, const char* what);

  TableData* const m_data;  // one reference
  std::atomic<ULONG> m_cRef{1};
  CALLERRELEASE* m_release = nullptr;
  ULONG_PTR m_callerData = 0;
  const bool m_snapshot;

  // Guarded by the table data's lock.
  std::shared_ptr<const std::vector<ULONG>> m_columns;
  std::vector<SortKey> m_sort;
  std::unique_ptr<RestrictionCopy> m_restriction;
  OrderTree m_rows;
  ViewNode* m_cursor = nullptr;  // the row under the cursor; nullptr past the last row
  std::map<BOOKMARK, Bookmark> m_bookmarks;
  BOOKMARK m_nextBookmark = BOOKMARK_END + 1;
  std::map<ULONG, std::shared_ptr<SinkHolder>> m_connections;
  ULONG m_nextConnection = 1;
  std::vector<std::unique_ptr<Entry>> m_frozen;  // a snapshot view's own entries

  // Leaf lock: taken inside the table lock or alone, and nothing is called under it.
  std::mutex m_errorLock;
  HRESULT m_lastError = S_OK;
  const char* m_lastErrorText = nullptr;
};

// Runs f, turning an exception into the HRESULT a COM method must return instead.
template <class F> HRESULT Guarded(F f) noexcept {
  try {
    return f();
  } catch (const std::bad_alloc&) {
    return MAPI_E_NOT_ENOUGH_MEMORY;
  } catch (...) {
    return MAPI_E_CALL_FAILED;
  }
}

}  // namespace adp::mapi
