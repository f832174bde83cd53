// Helpers shared by the table tests: rows built from a few typed values, a sink that records what
// it hears, and readers that turn a view into the list of keys it shows.
#pragma once
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "mapicode.h"
#include "mapitags.h"
#include "mapiutil.h"

namespace tabletest {

constexpr ULONG kKey = PROP_TAG(PT_LONG, 0x6601);
constexpr ULONG kName = PROP_TAG(PT_STRING8, 0x6602);
constexpr ULONG kSize = PROP_TAG(PT_LONG, 0x6603);
constexpr ULONG kFlags = PROP_TAG(PT_LONG, 0x6604);
constexpr ULONG kExtra = PROP_TAG(PT_LONG, 0x6605);

// A row whose values own their storage.
class Row {
 public:
  Row& Long(ULONG tag, LONG v) {
    SPropValue p{};
    p.ulPropTag = tag;
    p.Value.l = v;
    m_values.push_back(p);
    return *this;
  }
  Row& Text(ULONG tag, const std::string& s) {
    m_texts.push_back(s);
    SPropValue p{};
    p.ulPropTag = tag;
    m_values.push_back(p);
    m_textSlots.push_back(m_values.size() - 1);
    return *this;
  }
  Row& Value(const SPropValue& v) {
    m_values.push_back(v);
    return *this;
  }
  __UPV& LastValue() { return m_values.back().Value; }
  SRow Get() {
    for (size_t i = 0; i < m_textSlots.size(); ++i) m_values[m_textSlots[i]].Value.lpszA = m_texts[i].data();
    return SRow{0, ULONG(m_values.size()), m_values.data()};
  }

 private:
  std::vector<SPropValue> m_values;
  std::deque<std::string> m_texts;
  std::vector<size_t> m_textSlots;
};

inline Row Item(LONG key, const std::string& name, LONG size) {
  Row r;
  r.Long(kKey, key).Text(kName, name).Long(kSize, size);
  return r;
}

inline SPropValue KeyValue(LONG key) {
  SPropValue v{};
  v.ulPropTag = kKey;
  v.Value.l = key;
  return v;
}

inline HRESULT Put(ITableData* data, Row row) {
  SRow r = row.Get();
  return data->HrModifyRow(&r);
}

// Columns of the test tables, in order.
struct Columns {
  ULONG cValues = 3;
  ULONG aulPropTag[3] = {kKey, kName, kSize};
  LPSPropTagArray Get() { return reinterpret_cast<LPSPropTagArray>(this); }
};

inline ITableData* MakeTable(ULONG type = TBLTYPE_DYNAMIC) {
  Columns columns;
  LPTABLEDATA data = nullptr;
  EXPECT_EQ(CreateTable(&IID_IMAPITableData, MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer, nullptr, type,
                        kKey, columns.Get(), &data),
            S_OK);
  return data;
}

inline LPMAPITABLE MakeView(ITableData* data, LPSSortOrderSet sort = nullptr) {
  LPMAPITABLE view = nullptr;
  EXPECT_EQ(data->HrGetView(sort, nullptr, 0, &view), S_OK);
  return view;
}

// The value of a column in a row, or nullptr.
inline const SPropValue* Find(const SRow& row, ULONG tag) {
  for (ULONG i = 0; i < row.cValues; ++i)
    if (row.lpProps[i].ulPropTag == tag) return &row.lpProps[i];
  return nullptr;
}

// Keys of a row set, in order (-1 for a row without the key).
inline std::vector<LONG> KeysOf(const SRowSet* rows) {
  std::vector<LONG> keys;
  for (ULONG i = 0; rows && i < rows->cRows; ++i) {
    const SPropValue* v = Find(rows->aRow[i], kKey);
    keys.push_back(v ? v->Value.l : -1);
  }
  return keys;
}

// Keys of every row of a view, from the top; the cursor ends at the bottom. Needs kKey in the
// view's columns.
inline std::vector<LONG> Keys(LPMAPITABLE view) {
  std::vector<LONG> keys;
  if (view->SeekRow(BOOKMARK_BEGINNING, 0, nullptr) != S_OK) return {-99};
  for (;;) {
    LPSRowSet rows = nullptr;
    if (view->QueryRows(7, 0, &rows) != S_OK) return {-98};
    std::vector<LONG> part = KeysOf(rows);
    bool done = rows->cRows == 0;
    FreeProws(rows);
    if (done) return keys;
    keys.insert(keys.end(), part.begin(), part.end());
  }
}

// Reads rows from the cursor and gives their keys.
inline std::vector<LONG> Read(LPMAPITABLE view, LONG count, ULONG flags = 0) {
  LPSRowSet rows = nullptr;
  HRESULT hr = view->QueryRows(count, flags, &rows);
  EXPECT_EQ(hr, S_OK);
  if (hr != S_OK) return {};
  std::vector<LONG> keys = KeysOf(rows);
  FreeProws(rows);
  return keys;
}

inline ULONG Position(LPMAPITABLE view) {
  ULONG row = 0, num = 0, den = 0;
  EXPECT_EQ(view->QueryPosition(&row, &num, &den), S_OK);
  return row;
}

// One notification as recorded: its event, the keys it carries (-1 for PR_NULL) and the row.
struct Heard {
  ULONG event = 0;
  LONG index = -1;
  LONG prior = -1;
  std::vector<ULONG> tags;
  std::vector<LONG> longs;  // the PT_LONG values of the row, in column order
  std::string name;         // kName of the row, if present
};

inline LONG KeyOrNone(const SPropValue& v) { return v.ulPropTag == kKey ? v.Value.l : -1; }

class RecordingSink : public IMAPIAdviseSink {
 public:
  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override {
    if (!ppv) return E_INVALIDARG;
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  STDMETHOD_(ULONG, AddRef)() override { return ++m_refs; }
  STDMETHOD_(ULONG, Release)() override { return --m_refs; }  // lives on the test's stack
  STDMETHOD_(ULONG, OnNotify)(ULONG cNotif, LPNOTIFICATION lpNotifications) override {
    for (ULONG i = 0; i < cNotif; ++i) Record(lpNotifications[i]);
    if (m_onNotify) m_onNotify();
    return 0;
  }

  std::vector<Heard> Take() {
    std::lock_guard<std::mutex> lock(m_lock);
    return std::exchange(m_heard, {});
  }
  ULONG Refs() const { return m_refs; }
  void OnEach(std::function<void()> f) { m_onNotify = std::move(f); }

 private:
  void Record(const NOTIFICATION& n) {
    Heard h;
    EXPECT_EQ(n.ulEventType, fnevTableModified);
    const TABLE_NOTIFICATION& t = n.info.tab;
    h.event = t.ulTableEvent;
    h.index = KeyOrNone(t.propIndex);
    h.prior = KeyOrNone(t.propPrior);
    EXPECT_TRUE(t.propIndex.ulPropTag == kKey || t.propIndex.ulPropTag == PR_NULL);
    EXPECT_TRUE(t.propPrior.ulPropTag == kKey || t.propPrior.ulPropTag == PR_NULL);
    for (ULONG i = 0; i < t.row.cValues; ++i) {
      const SPropValue& v = t.row.lpProps[i];
      h.tags.push_back(v.ulPropTag);
      if (PROP_TYPE(v.ulPropTag) == PT_LONG) h.longs.push_back(v.Value.l);
      if (v.ulPropTag == kName) h.name = v.Value.lpszA;
    }
    std::lock_guard<std::mutex> lock(m_lock);
    m_heard.push_back(std::move(h));
  }

  std::atomic<ULONG> m_refs{1};
  std::mutex m_lock;
  std::vector<Heard> m_heard;
  std::function<void()> m_onNotify;
};

// A sort order set of up to four keys.
struct Sort {
  ULONG cSorts = 0;
  ULONG cCategories = 0;
  ULONG cExpanded = 0;
  SSortOrder aSort[4] = {};
  Sort& By(ULONG tag, ULONG order = TABLE_SORT_ASCEND) {
    aSort[cSorts++] = SSortOrder{tag, order};
    return *this;
  }
  LPSSortOrderSet Get() { return reinterpret_cast<LPSSortOrderSet>(this); }
};

inline SRestriction PropertyRes(ULONG relop, SPropValue* value) {
  SRestriction r{};
  r.rt = RES_PROPERTY;
  r.res.resProperty.relop = relop;
  r.res.resProperty.ulPropTag = value->ulPropTag;
  r.res.resProperty.lpProp = value;
  return r;
}

}  // namespace tabletest
