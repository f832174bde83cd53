#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "adplatform_mapi.h"
#include "table_test_support.h"

using namespace tabletest;
using Keys_ = std::vector<LONG>;

namespace {

// Releases a COM object at the end of a scope.
template <class T> struct Ref {
  T* p = nullptr;
  explicit Ref(T* q = nullptr) : p(q) {}
  ~Ref() {
    if (p) p->Release();
  }
  Ref(const Ref&) = delete;
  Ref& operator=(const Ref&) = delete;
  T* operator->() const { return p; }
  operator T*() const { return p; }
};

ITableData* Filled(std::initializer_list<LONG> keys) {
  ITableData* data = MakeTable();
  for (LONG k : keys) EXPECT_EQ(Put(data, Item(k, "n" + std::to_string(k), k)), S_OK);
  return data;
}

struct KeyColumns {
  ULONG cValues = 1;
  ULONG aulPropTag[1] = {kKey};
  LPSPropTagArray Get() { return reinterpret_cast<LPSPropTagArray>(this); }
};

}  // namespace

TEST(CreateTable, RefusesBadArguments) {
  Columns columns;
  LPTABLEDATA data = reinterpret_cast<LPTABLEDATA>(1);
  auto create = [&](LPCIID iid, ULONG type, ULONG index, LPSPropTagArray cols, LPVOID reserved = nullptr) {
    data = reinterpret_cast<LPTABLEDATA>(1);
    return CreateTable(iid, MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer, reserved, type, index, cols, &data);
  };
  EXPECT_EQ(create(&IID_IMAPITableData, TBLTYPE_KEYSET, kKey, columns.Get()), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(create(&IID_IMAPITableData, 7, kKey, columns.Get()), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(create(&IID_IMAPITableData, TBLTYPE_DYNAMIC, PROP_TAG(PT_MV_LONG, 0x6601), columns.Get()),
            MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(create(&IID_IMAPITableData, TBLTYPE_DYNAMIC, PROP_TAG(PT_ERROR, 0x6601), columns.Get()),
            MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(create(&IID_IMAPITableData, TBLTYPE_DYNAMIC, kKey, nullptr), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(create(nullptr, TBLTYPE_DYNAMIC, kKey, columns.Get()), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(create(&IID_IMAPITable, TBLTYPE_DYNAMIC, kKey, columns.Get()), MAPI_E_INTERFACE_NOT_SUPPORTED);
  int reserved = 0;
  EXPECT_EQ(create(&IID_IMAPITableData, TBLTYPE_DYNAMIC, kKey, columns.Get(), &reserved), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(CreateTable(&IID_IMAPITableData, nullptr, MAPIAllocateMore, MAPIFreeBuffer, nullptr, TBLTYPE_DYNAMIC, kKey,
                        columns.Get(), &data),
            MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(CreateTable(&IID_IMAPITableData, MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer, nullptr,
                        TBLTYPE_DYNAMIC, kKey, columns.Get(), nullptr),
            MAPI_E_INVALID_PARAMETER);

  ASSERT_EQ(create(&IID_IMAPITableData, TBLTYPE_SNAPSHOT, kKey, columns.Get()), S_OK);
  Ref<ITableData> table(data);
  IUnknown* unknown = nullptr;
  ASSERT_EQ(table->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&unknown)), S_OK);
  unknown->Release();
  void* other = reinterpret_cast<void*>(1);
  EXPECT_EQ(table->QueryInterface(IID_IMAPITable, &other), E_NOINTERFACE);
  EXPECT_EQ(other, nullptr);
}

TEST(TableData, RowsByKeyWithQueryEnumAndDelete) {
  const size_t blocks = adp::MapiLiveBlockCount();
  {
    Ref<ITableData> data(Filled({10, 20, 30}));
    // Replacing a key keeps its place; a new key goes to the end.
    ASSERT_EQ(Put(data, Item(20, "twenty", 2)), S_OK);
    ASSERT_EQ(Put(data, Item(5, "five", 5)), S_OK);

    SPropValue key = KeyValue(20);
    LPSRow row = nullptr;
    ULONG index = 99;
    ASSERT_EQ(data->HrQueryRow(&key, &row, &index), S_OK);
    EXPECT_EQ(index, 1u);
    ASSERT_EQ(row->cValues, 3u);
    EXPECT_STREQ(Find(*row, kName)->Value.lpszA, "twenty");
    MAPIFreeBuffer(row);  // values are chained to the row

    std::vector<LONG> order;
    for (ULONG i = 0;; ++i) {
      LPSRow r = nullptr;
      ASSERT_EQ(data->HrEnumRow(i, &r), S_OK);
      if (!r) break;
      order.push_back(Find(*r, kKey)->Value.l);
      MAPIFreeBuffer(r);
    }
    EXPECT_EQ(order, (Keys_{10, 20, 30, 5}));

    // A row is deep-copied: the caller's storage may go right after the call.
    {
      Row scratch = Item(40, "forty", 4);
      ASSERT_EQ(Put(data, scratch), S_OK);
    }
    key = KeyValue(40);
    ASSERT_EQ(data->HrQueryRow(&key, &row, nullptr), S_OK);
    EXPECT_STREQ(Find(*row, kName)->Value.lpszA, "forty");
    MAPIFreeBuffer(row);

    ASSERT_EQ(data->HrDeleteRow(&key), S_OK);
    EXPECT_EQ(data->HrDeleteRow(&key), MAPI_E_NOT_FOUND);
    EXPECT_EQ(data->HrQueryRow(&key, &row, &index), MAPI_E_NOT_FOUND);
    EXPECT_EQ(row, nullptr);

    // Bad input: rows without the index column, a key of another tag, NULL pointers.
    Row keyless;
    keyless.Text(kName, "no key");
    SRow r = keyless.Get();
    EXPECT_EQ(data->HrModifyRow(&r), MAPI_E_INVALID_PARAMETER);
    EXPECT_EQ(data->HrModifyRow(nullptr), MAPI_E_INVALID_PARAMETER);
    SRow dangling{0, 3, nullptr};
    EXPECT_EQ(data->HrModifyRow(&dangling), MAPI_E_INVALID_PARAMETER);
    SPropValue wrong{};
    wrong.ulPropTag = kSize;
    EXPECT_EQ(data->HrDeleteRow(&wrong), MAPI_E_INVALID_PARAMETER);
    EXPECT_EQ(data->HrDeleteRow(nullptr), MAPI_E_INVALID_PARAMETER);
    EXPECT_EQ(data->HrQueryRow(&key, nullptr, nullptr), MAPI_E_INVALID_PARAMETER);
    EXPECT_EQ(data->HrEnumRow(0, nullptr), MAPI_E_INVALID_PARAMETER);
    EXPECT_EQ(data->HrNotify(0, 1, &wrong), MAPI_E_INVALID_PARAMETER);
  }
  EXPECT_EQ(adp::MapiLiveBlockCount(), blocks);
}

TEST(TableData, InsertRowTakesThePositionGiven) {
  Ref<ITableData> data(Filled({1, 2, 3}));
  Ref<IMAPITable> view(MakeView(data));
  auto insert = [&](ULONG at, LONG key) {
    Row r = Item(key, "x", 0);
    SRow s = r.Get();
    return data->HrInsertRow(at, &s);
  };
  ASSERT_EQ(insert(0, 10), S_OK);  // top
  ASSERT_EQ(insert(2, 11), S_OK);  // after the row at 1
  ASSERT_EQ(insert(5, 12), S_OK);  // count: the end
  EXPECT_EQ(Keys(view), (Keys_{10, 1, 11, 2, 3, 12}));
  EXPECT_EQ(insert(7, 13), MAPI_E_INVALID_PARAMETER);  // past the end
  EXPECT_EQ(insert(0, 2), MAPI_E_INVALID_PARAMETER);   // the key exists
  EXPECT_EQ(data->HrInsertRow(0, nullptr), MAPI_E_INVALID_PARAMETER);

  // Many rows squeezed into one gap still come out in the order given, and a later
  // HrModifyRow of a new key still lands at the end.
  for (LONG k = 100; k < 400; ++k) ASSERT_EQ(insert(2, k), S_OK);
  for (LONG k = 400; k < 500; ++k) ASSERT_EQ(insert(0, k), S_OK);
  ASSERT_EQ(Put(data, Item(999, "last", 0)), S_OK);
  Keys_ expected;
  for (LONG k = 499; k >= 400; --k) expected.push_back(k);
  expected.push_back(10);
  expected.push_back(1);
  for (LONG k = 399; k >= 100; --k) expected.push_back(k);
  for (LONG k : {11, 2, 3, 12, 999}) expected.push_back(k);
  EXPECT_EQ(Keys(view), expected);
  std::vector<LONG> enumerated;
  for (ULONG i = 0;; ++i) {
    LPSRow r = nullptr;
    ASSERT_EQ(data->HrEnumRow(i, &r), S_OK);
    if (!r) break;
    enumerated.push_back(Find(*r, kKey)->Value.l);
    MAPIFreeBuffer(r);
  }
  EXPECT_EQ(enumerated, expected);
}

TEST(TableData, ModifyRowsAndDeleteRowsInBulk) {
  Ref<ITableData> data(Filled({1, 2, 3}));
  Ref<IMAPITable> view(MakeView(data));
  Row rows[3] = {Item(4, "a", 0), Item(2, "b", 0), Row()};
  rows[2].Text(kName, "no key");
  SizedSRowSet(3, set);
  set.cRows = 3;
  for (int i = 0; i < 3; ++i) set.aRow[i] = rows[i].Get();
  // One bad row: nothing changes.
  EXPECT_EQ(data->HrModifyRows(0, reinterpret_cast<LPSRowSet>(&set)), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(Keys(view), (Keys_{1, 2, 3}));
  set.cRows = 2;
  EXPECT_EQ(data->HrModifyRows(1, reinterpret_cast<LPSRowSet>(&set)), MAPI_E_UNKNOWN_FLAGS);
  ASSERT_EQ(data->HrModifyRows(0, reinterpret_cast<LPSRowSet>(&set)), S_OK);
  EXPECT_EQ(Keys(view), (Keys_{1, 2, 3, 4}));

  // Rows not found are skipped without an error, and counted out.
  Row gone[3] = {Item(1, "", 0), Item(77, "", 0), Item(3, "", 0)};
  SizedSRowSet(3, del);
  del.cRows = 3;
  for (int i = 0; i < 3; ++i) del.aRow[i] = gone[i].Get();
  ULONG deleted = 0;
  ASSERT_EQ(data->HrDeleteRows(0, reinterpret_cast<LPSRowSet>(&del), &deleted), S_OK);
  EXPECT_EQ(deleted, 2u);
  EXPECT_EQ(Keys(view), (Keys_{2, 4}));
  EXPECT_EQ(data->HrDeleteRows(0, nullptr, &deleted), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(data->HrDeleteRows(4, nullptr, &deleted), MAPI_E_UNKNOWN_FLAGS);
  ASSERT_EQ(data->HrDeleteRows(TAD_ALL_ROWS, nullptr, &deleted), S_OK);
  EXPECT_EQ(deleted, 2u);
  EXPECT_EQ(Keys(view), Keys_{});
  ULONG count = 9;
  ASSERT_EQ(view->GetRowCount(0, &count), S_OK);
  EXPECT_EQ(count, 0u);
}

// Two live views, one sorted by size descending and restricted to size >= 10, one plain: each
// shows and tells exactly its own part of every change.
TEST(TableView, LiveViewsNotifyUnderTheirOwnSortAndRestriction) {
  RecordingSink bigSink, plainSink;  // outlive the views that hold them
  Ref<ITableData> data(MakeTable());
  ASSERT_EQ(Put(data, Item(1, "one", 15)), S_OK);
  ASSERT_EQ(Put(data, Item(2, "two", 5)), S_OK);
  ASSERT_EQ(Put(data, Item(3, "three", 30)), S_OK);

  Sort bySize;
  bySize.By(kSize, TABLE_SORT_DESCEND);
  Ref<IMAPITable> big(MakeView(data, bySize.Get()));
  SPropValue ten{};
  ten.ulPropTag = kSize;
  ten.Value.l = 10;
  SRestriction atLeastTen = PropertyRes(RELOP_GE, &ten);
  ASSERT_EQ(big->Restrict(&atLeastTen, 0), S_OK);
  Ref<IMAPITable> plain(MakeView(data));
  KeyColumns keyOnly;
  ASSERT_EQ(plain->SetColumns(keyOnly.Get(), 0), S_OK);

  ULONG c1 = 0, c2 = 0;
  ASSERT_EQ(big->Advise(fnevTableModified, &bigSink, &c1), S_OK);
  ASSERT_EQ(plain->Advise(fnevTableModified, &plainSink, &c2), S_OK);
  EXPECT_EQ(Keys(big), (Keys_{3, 1}));
  EXPECT_EQ(Keys(plain), (Keys_{1, 2, 3}));

  // A row that lands between two others of the sorted view.
  ASSERT_EQ(Put(data, Item(4, "four", 20)), S_OK);
  std::vector<Heard> heard = bigSink.Take();
  ASSERT_EQ(heard.size(), 1u);
  EXPECT_EQ(heard[0].event, ULONG(TABLE_ROW_ADDED));
  EXPECT_EQ(heard[0].index, 4);
  EXPECT_EQ(heard[0].prior, 3);
  EXPECT_EQ(heard[0].tags, (std::vector<ULONG>{kKey, kName, kSize}));
  EXPECT_EQ(heard[0].longs, (std::vector<LONG>{4, 20}));
  EXPECT_EQ(heard[0].name, "four");
  heard = plainSink.Take();
  ASSERT_EQ(heard.size(), 1u);
  EXPECT_EQ(heard[0].event, ULONG(TABLE_ROW_ADDED));
  EXPECT_EQ(heard[0].prior, 3);
  EXPECT_EQ(heard[0].tags, (std::vector<ULONG>{kKey}));  // the view's own columns
  EXPECT_EQ(Keys(big), (Keys_{3, 4, 1}));

  // A row outside the restriction: the sorted view says nothing.
  ASSERT_EQ(Put(data, Item(5, "five", 1)), S_OK);
  EXPECT_TRUE(bigSink.Take().empty());
  EXPECT_EQ(plainSink.Take().size(), 1u);

  // A change that moves a row to the top: prior is PR_NULL.
  ASSERT_EQ(Put(data, Item(1, "one", 99)), S_OK);
  heard = bigSink.Take();
  ASSERT_EQ(heard.size(), 1u);
  EXPECT_EQ(heard[0].event, ULONG(TABLE_ROW_MODIFIED));
  EXPECT_EQ(heard[0].index, 1);
  EXPECT_EQ(heard[0].prior, -1);
  EXPECT_EQ(heard[0].longs, (std::vector<LONG>{1, 99}));
  EXPECT_EQ(Keys(big), (Keys_{1, 3, 4}));
  heard = plainSink.Take();
  ASSERT_EQ(heard.size(), 1u);
  EXPECT_EQ(heard[0].event, ULONG(TABLE_ROW_MODIFIED));
  EXPECT_EQ(heard[0].prior, -1);  // row 1 is still first in table order

  // Entering and leaving the restriction are an addition and a deletion for that view.
  ASSERT_EQ(Put(data, Item(2, "two", 25)), S_OK);
  heard = bigSink.Take();
  ASSERT_EQ(heard.size(), 1u);
  EXPECT_EQ(heard[0].event, ULONG(TABLE_ROW_ADDED));
  EXPECT_EQ(heard[0].index, 2);
  EXPECT_EQ(heard[0].prior, 3);
  ASSERT_EQ(Put(data, Item(3, "three", 2)), S_OK);
  heard = bigSink.Take();
  ASSERT_EQ(heard.size(), 1u);
  EXPECT_EQ(heard[0].event, ULONG(TABLE_ROW_DELETED));
  EXPECT_EQ(heard[0].index, 3);
  EXPECT_EQ(heard[0].prior, -1);
  EXPECT_TRUE(heard[0].tags.empty());
  EXPECT_EQ(Keys(big), (Keys_{1, 2, 4}));
  EXPECT_EQ(plainSink.Take().size(), 2u);

  // Deletion; HrNotify re-announces a row unchanged.
  SPropValue four = KeyValue(4);
  ASSERT_EQ(data->HrDeleteRow(&four), S_OK);
  heard = bigSink.Take();
  ASSERT_EQ(heard.size(), 1u);
  EXPECT_EQ(heard[0].event, ULONG(TABLE_ROW_DELETED));
  EXPECT_EQ(heard[0].index, 4);
  SPropValue two = KeyValue(2);
  ASSERT_EQ(data->HrNotify(0, 1, &two), S_OK);
  heard = bigSink.Take();
  ASSERT_EQ(heard.size(), 1u);
  EXPECT_EQ(heard[0].event, ULONG(TABLE_ROW_MODIFIED));
  EXPECT_EQ(heard[0].index, 2);
  EXPECT_EQ(heard[0].prior, 1);
  EXPECT_EQ(data->HrNotify(0, 1, &four), MAPI_E_NOT_FOUND);
  EXPECT_EQ(data->HrNotify(1, 1, &two), MAPI_E_UNKNOWN_FLAGS);
  plainSink.Take();

  // Bulk changes: up to eight rows one by one, more as one TABLE_CHANGED; all rows: TABLE_RELOAD.
  std::vector<Row> many;
  for (LONG k = 100; k < 109; ++k) many.push_back(Item(k, "bulk", 50));
  SizedSRowSet(9, set);
  set.cRows = 3;
  for (size_t i = 0; i < many.size(); ++i) set.aRow[i] = many[i].Get();
  ASSERT_EQ(data->HrModifyRows(0, reinterpret_cast<LPSRowSet>(&set)), S_OK);
  heard = bigSink.Take();
  ASSERT_EQ(heard.size(), 3u);
  EXPECT_EQ(heard[0].event, ULONG(TABLE_ROW_ADDED));
  EXPECT_EQ(heard[2].index, 102);
  plainSink.Take();
  set.cRows = 9;
  ASSERT_EQ(data->HrModifyRows(0, reinterpret_cast<LPSRowSet>(&set)), S_OK);
  heard = bigSink.Take();
  ASSERT_EQ(heard.size(), 1u);
  EXPECT_EQ(heard[0].event, ULONG(TABLE_CHANGED));
  EXPECT_EQ(heard[0].index, -1);
  EXPECT_EQ(plainSink.Take().size(), 1u);
  ULONG deleted = 0;
  ASSERT_EQ(data->HrDeleteRows(TAD_ALL_ROWS, nullptr, &deleted), S_OK);
  heard = bigSink.Take();
  ASSERT_EQ(heard.size(), 1u);
  EXPECT_EQ(heard[0].event, ULONG(TABLE_RELOAD));
  heard = plainSink.Take();
  ASSERT_EQ(heard.size(), 1u);
  EXPECT_EQ(heard[0].event, ULONG(TABLE_RELOAD));

  // After Unadvise the sink hears nothing and is released.
  ASSERT_EQ(big->Unadvise(c1), S_OK);
  EXPECT_EQ(bigSink.Refs(), 1u);
  EXPECT_EQ(big->Unadvise(c1), MAPI_E_NOT_FOUND);
  ASSERT_EQ(Put(data, Item(7, "seven", 70)), S_OK);
  EXPECT_TRUE(bigSink.Take().empty());
  EXPECT_EQ(plainSink.Take().size(), 1u);
  EXPECT_EQ(big->Advise(fnevTableModified, nullptr, &c1), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(big->Advise(fnevObjectCreated, &bigSink, &c1), MAPI_E_INVALID_PARAMETER);
}

TEST(TableView, CallerReleaseRunsOnceWithItsDataAtTheLastReference) {
  struct Seen {
    int calls = 0;
    ULONG_PTR data = 0;
    LPTABLEDATA table = nullptr;
    LPMAPITABLE view = nullptr;
  };
  static Seen seen;
  seen = Seen{};
  auto callback = [](ULONG_PTR ulCallerData, LPTABLEDATA lpTblData, LPMAPITABLE lpVue) {
    ++seen.calls;
    seen.data = ulCallerData;
    seen.table = lpTblData;
    seen.view = lpVue;
  };
  Ref<ITableData> data(Filled({1}));
  LPMAPITABLE view = nullptr;
  ASSERT_EQ(data->HrGetView(nullptr, callback, 0xC0FFEE, &view), S_OK);
  view->AddRef();
  EXPECT_EQ(view->Release(), 1u);
  EXPECT_EQ(seen.calls, 0);
  EXPECT_EQ(view->Release(), 0u);
  EXPECT_EQ(seen.calls, 1);
  EXPECT_EQ(seen.data, ULONG_PTR(0xC0FFEE));
  EXPECT_EQ(seen.table, data.p);
  EXPECT_EQ(seen.view, view);

  // A view that is refused is never reported.
  Sort categorised;
  categorised.By(kName).By(kSize);
  categorised.cCategories = 1;
  EXPECT_EQ(data->HrGetView(categorised.Get(), callback, 1, &view), MAPI_E_TOO_COMPLEX);
  EXPECT_EQ(view, nullptr);
  EXPECT_EQ(data->HrGetView(nullptr, callback, 1, nullptr), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(seen.calls, 1);
}

TEST(TableView, SortsOnSeveralKeysStablyAndRefusesCategories) {
  Ref<ITableData> data(MakeTable());
  ASSERT_EQ(Put(data, Item(1, "beta", 2)), S_OK);
  ASSERT_EQ(Put(data, Item(2, "Alpha", 1)), S_OK);
  ASSERT_EQ(Put(data, Item(3, "alpha", 2)), S_OK);
  ASSERT_EQ(Put(data, Item(4, "beta", 1)), S_OK);
  Row nameless;
  nameless.Long(kKey, 5).Long(kSize, 3);
  ASSERT_EQ(Put(data, nameless), S_OK);
  ASSERT_EQ(Put(data, Item(6, "ALPHA", 1)), S_OK);
  Ref<IMAPITable> view(MakeView(data));

  // Text compares without case; equal keys keep table order; a missing value sorts first.
  Sort byName;
  byName.By(kName);
  ASSERT_EQ(view->SortTable(byName.Get(), 0), S_OK);
  EXPECT_EQ(Keys(view), (Keys_{5, 2, 3, 6, 1, 4}));
  Sort nameThenSizeDown;
  nameThenSizeDown.By(kName, TABLE_SORT_DESCEND).By(kSize, TABLE_SORT_DESCEND);
  ASSERT_EQ(view->SortTable(nameThenSizeDown.Get(), TBL_BATCH), S_OK);
  EXPECT_EQ(Keys(view), (Keys_{1, 4, 3, 2, 6, 5}));

  // The sort holds for rows that arrive later.
  ASSERT_EQ(Put(data, Item(7, "alpha", 9)), S_OK);
  ASSERT_EQ(Put(data, Item(4, "zeta", 0)), S_OK);
  EXPECT_EQ(Keys(view), (Keys_{4, 1, 7, 3, 2, 6, 5}));

  LPSSortOrderSet asked = nullptr;
  ASSERT_EQ(view->QuerySortOrder(&asked), S_OK);
  ASSERT_EQ(asked->cSorts, 2u);
  EXPECT_EQ(asked->cCategories, 0u);
  EXPECT_EQ(asked->aSort[0].ulPropTag, kName);
  EXPECT_EQ(asked->aSort[1].ulOrder, TABLE_SORT_DESCEND);
  MAPIFreeBuffer(asked);

  // A categorised sort is the provider's business: refused, and the old sort stays.
  Sort categorised;
  categorised.By(kName).By(kSize);
  categorised.cCategories = 1;
  categorised.cExpanded = 1;
  EXPECT_EQ(view->SortTable(categorised.Get(), TBL_BATCH), MAPI_E_TOO_COMPLEX);
  EXPECT_EQ(Keys(view), (Keys_{4, 1, 7, 3, 2, 6, 5}));
  LPMAPIERROR error = nullptr;
  ASSERT_EQ(view->GetLastError(MAPI_E_TOO_COMPLEX, 0, &error), S_OK);
  ASSERT_NE(error, nullptr);
  EXPECT_NE(std::strstr(error->lpszError, "categor"), nullptr);
  MAPIFreeBuffer(error);

  categorised.cCategories = 3;  // more categories than keys
  EXPECT_EQ(view->SortTable(categorised.Get(), 0), MAPI_E_INVALID_PARAMETER);
  Sort badOrder;
  badOrder.By(kName, 0x40);
  EXPECT_EQ(view->SortTable(badOrder.Get(), 0), MAPI_E_INVALID_PARAMETER);
  Sort instances;
  instances.By(PROP_TAG(PT_MV_STRING8 | MV_INSTANCE, 0x6606));
  EXPECT_EQ(view->SortTable(instances.Get(), 0), MAPI_E_TOO_COMPLEX);
  EXPECT_EQ(view->SortTable(nullptr, 0), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(view->SortTable(byName.Get(), 0x80), MAPI_E_UNKNOWN_FLAGS);

  // An empty sort order goes back to table order.
  Sort none;
  ASSERT_EQ(view->SortTable(none.Get(), 0), S_OK);
  EXPECT_EQ(Keys(view), (Keys_{1, 2, 3, 4, 5, 6, 7}));
}

TEST(TableView, ColumnsMissingFromARowComeBackAsErrors) {
  Ref<ITableData> data(Filled({1}));
  Row wide = Item(2, "two", 2);
  wide.Long(kExtra, 42);
  SPropValue stored{};
  stored.ulPropTag = PROP_TAG(PT_ERROR, PROP_ID(kFlags));
  stored.Value.err = MAPI_E_NOT_ENOUGH_MEMORY;
  wide.Value(stored);
  ASSERT_EQ(Put(data, wide), S_OK);
  Ref<IMAPITable> view(MakeView(data));

  struct {
    ULONG cValues = 4;
    ULONG aulPropTag[4] = {kExtra, kKey, kFlags, PROP_TAG(PT_UNSPECIFIED, PROP_ID(kName))};
  } columns;
  ASSERT_EQ(view->SetColumns(reinterpret_cast<LPSPropTagArray>(&columns), 0), S_OK);
  LPSRowSet rows = nullptr;
  ASSERT_EQ(view->QueryRows(10, 0, &rows), S_OK);
  ASSERT_EQ(rows->cRows, 2u);
  const SRow& first = rows->aRow[0];
  ASSERT_EQ(first.cValues, 4u);
  EXPECT_EQ(first.lpProps[0].ulPropTag, PROP_TAG(PT_ERROR, PROP_ID(kExtra)));
  EXPECT_EQ(first.lpProps[0].Value.err, MAPI_E_NOT_FOUND);
  EXPECT_EQ(first.lpProps[1].Value.l, 1);
  EXPECT_EQ(first.lpProps[2].Value.err, MAPI_E_NOT_FOUND);
  EXPECT_EQ(first.lpProps[3].ulPropTag, kName);  // PT_UNSPECIFIED takes the type the row has
  const SRow& second = rows->aRow[1];
  EXPECT_EQ(second.lpProps[0].ulPropTag, kExtra);
  EXPECT_EQ(second.lpProps[0].Value.l, 42);
  EXPECT_EQ(second.lpProps[2].Value.err, MAPI_E_NOT_ENOUGH_MEMORY);  // the row's own error
  FreeProws(rows);

  LPSPropTagArray tags = nullptr;
  ASSERT_EQ(view->QueryColumns(0, &tags), S_OK);
  ASSERT_EQ(tags->cValues, 4u);
  EXPECT_EQ(tags->aulPropTag[0], kExtra);
  MAPIFreeBuffer(tags);
  // All columns: the table's own, then those rows brought in; error values add none.
  ASSERT_EQ(view->QueryColumns(TBL_ALL_COLUMNS, &tags), S_OK);
  EXPECT_EQ(std::vector<ULONG>(tags->aulPropTag, tags->aulPropTag + tags->cValues),
            (std::vector<ULONG>{kKey, kName, kSize, kExtra}));
  MAPIFreeBuffer(tags);
  // A view made now starts with all of them.
  Ref<IMAPITable> later(MakeView(data));
  ASSERT_EQ(later->QueryColumns(0, &tags), S_OK);
  EXPECT_EQ(tags->cValues, 4u);
  MAPIFreeBuffer(tags);

  EXPECT_EQ(view->SetColumns(nullptr, 0), MAPI_E_INVALID_PARAMETER);
  columns.cValues = 0;
  EXPECT_EQ(view->SetColumns(reinterpret_cast<LPSPropTagArray>(&columns), 0), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(view->QueryColumns(2, &tags), MAPI_E_UNKNOWN_FLAGS);
  EXPECT_EQ(view->QueryColumns(0, nullptr), MAPI_E_INVALID_PARAMETER);
}

TEST(TableView, QueryRowsBothWaysAndWithoutAdvancing) {
  Ref<ITableData> data(Filled({1, 2, 3, 4, 5, 6}));
  Ref<IMAPITable> view(MakeView(data));
  EXPECT_EQ(Read(view, 2), (Keys_{1, 2}));
  EXPECT_EQ(Position(view), 2u);
  EXPECT_EQ(Read(view, 3, TBL_NOADVANCE), (Keys_{3, 4, 5}));
  EXPECT_EQ(Position(view), 2u);
  EXPECT_EQ(Read(view, 10), (Keys_{3, 4, 5, 6}));
  EXPECT_EQ(Position(view), 6u);
  EXPECT_EQ(Read(view, 1), Keys_{});  // at the end

  // Backwards: the rows before the cursor, in table order; the cursor lands on the first.
  EXPECT_EQ(Read(view, -2), (Keys_{5, 6}));
  EXPECT_EQ(Position(view), 4u);
  EXPECT_EQ(Read(view, -2, TBL_NOADVANCE), (Keys_{3, 4}));
  EXPECT_EQ(Position(view), 4u);
  EXPECT_EQ(Read(view, -100), (Keys_{1, 2, 3, 4}));
  EXPECT_EQ(Position(view), 0u);
  EXPECT_EQ(Read(view, -1), Keys_{});
  EXPECT_EQ(Read(view, LONG(0x80000000)), Keys_{});
  EXPECT_EQ(Read(view, 0x7FFFFFFF), (Keys_{1, 2, 3, 4, 5, 6}));

  LPSRowSet rows = reinterpret_cast<LPSRowSet>(1);
  EXPECT_EQ(view->QueryRows(0, 0, &rows), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(rows, nullptr);
  EXPECT_EQ(view->QueryRows(1, 4, &rows), MAPI_E_UNKNOWN_FLAGS);
  EXPECT_EQ(view->QueryRows(1, 0, nullptr), MAPI_E_INVALID_PARAMETER);
}

TEST(TableView, SeekRowClampsAndReportsTheRowsSought) {
  Ref<ITableData> data(Filled({1, 2, 3, 4, 5}));
  Ref<IMAPITable> view(MakeView(data));
  LONG sought = 0;
  ASSERT_EQ(view->SeekRow(BOOKMARK_BEGINNING, 3, &sought), S_OK);
  EXPECT_EQ(sought, 3);
  ASSERT_EQ(view->SeekRow(BOOKMARK_CURRENT, -1, &sought), S_OK);
  EXPECT_EQ(sought, -1);
  EXPECT_EQ(Read(view, 1, TBL_NOADVANCE), Keys_{3});
  ASSERT_EQ(view->SeekRow(BOOKMARK_CURRENT, 100, &sought), S_OK);
  EXPECT_EQ(sought, 3);
  EXPECT_EQ(Position(view), 5u);
  ASSERT_EQ(view->SeekRow(BOOKMARK_END, -2, &sought), S_OK);
  EXPECT_EQ(sought, -2);
  EXPECT_EQ(Read(view, 5), (Keys_{4, 5}));
  ASSERT_EQ(view->SeekRow(BOOKMARK_BEGINNING, -7, &sought), S_OK);
  EXPECT_EQ(sought, 0);
  ASSERT_EQ(view->SeekRow(BOOKMARK_END, 0x7FFFFFFF, nullptr), S_OK);
  EXPECT_EQ(Position(view), 5u);
  EXPECT_EQ(view->SeekRow(BOOKMARK(12345), 0, &sought), MAPI_E_INVALID_BOOKMARK);

  ASSERT_EQ(view->SeekRowApprox(2, 5), S_OK);
  EXPECT_EQ(Position(view), 2u);
  ASSERT_EQ(view->SeekRowApprox(1, 1), S_OK);
  EXPECT_EQ(Position(view), 5u);
  EXPECT_EQ(view->SeekRowApprox(1, 0), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(view->SeekRowApprox(3, 2), MAPI_E_INVALID_PARAMETER);
  ULONG row = 0, num = 0, den = 0;
  ASSERT_EQ(view->QueryPosition(&row, &num, &den), S_OK);
  EXPECT_EQ(num, 5u);
  EXPECT_EQ(den, 5u);
  EXPECT_EQ(view->QueryPosition(&row, nullptr, &den), MAPI_E_INVALID_PARAMETER);

  // An empty view: position 0 of 1, and the first row to arrive is under the cursor.
  Ref<ITableData> empty(MakeTable());
  Ref<IMAPITable> fresh(MakeView(empty));
  ASSERT_EQ(fresh->QueryPosition(&row, &num, &den), S_OK);
  EXPECT_EQ(row, 0u);
  EXPECT_EQ(den, 1u);
  ASSERT_EQ(Put(empty, Item(8, "eight", 8)), S_OK);
  EXPECT_EQ(Read(fresh, 5), Keys_{8});
}

TEST(TableView, CursorStaysOnItsRowAcrossChanges) {
  Ref<ITableData> data(Filled({1, 2, 3, 4}));
  Ref<IMAPITable> view(MakeView(data));
  ASSERT_EQ(view->SeekRow(BOOKMARK_BEGINNING, 2, nullptr), S_OK);  // on row 3
  Row r = Item(9, "nine", 9);
  SRow s = r.Get();
  ASSERT_EQ(data->HrInsertRow(0, &s), S_OK);
  EXPECT_EQ(Position(view), 3u);
  EXPECT_EQ(Read(view, 1, TBL_NOADVANCE), Keys_{3});
  // The row under the cursor goes: the cursor moves to the next one.
  SPropValue three = KeyValue(3);
  ASSERT_EQ(data->HrDeleteRow(&three), S_OK);
  EXPECT_EQ(Read(view, 1, TBL_NOADVANCE), Keys_{4});
  SPropValue four = KeyValue(4);
  ASSERT_EQ(data->HrDeleteRow(&four), S_OK);
  EXPECT_EQ(Position(view), 3u);  // at the end
  EXPECT_EQ(Read(view, 1), Keys_{});

  // In a sorted view the cursor follows its row when a change moves it, and moves on when
  // the change takes the row out of the view's restriction.
  Sort bySize;
  bySize.By(kSize);
  Ref<IMAPITable> sorted(MakeView(data, bySize.Get()));
  SPropValue small{};
  small.ulPropTag = kSize;
  small.Value.l = 50;
  SRestriction below = PropertyRes(RELOP_LT, &small);
  ASSERT_EQ(sorted->Restrict(&below, 0), S_OK);
  EXPECT_EQ(Keys(sorted), (Keys_{1, 2, 9}));
  ASSERT_EQ(sorted->SeekRow(BOOKMARK_BEGINNING, 0, nullptr), S_OK);  // on row 1
  ASSERT_EQ(Put(data, Item(1, "one", 20)), S_OK);
  EXPECT_EQ(Position(sorted), 2u);
  EXPECT_EQ(Read(sorted, 1, TBL_NOADVANCE), Keys_{1});
  ASSERT_EQ(Put(data, Item(1, "one", 60)), S_OK);
  EXPECT_EQ(Position(sorted), 2u);  // the end, where the row that followed it was
  EXPECT_EQ(Keys(sorted), (Keys_{2, 9}));
}

TEST(TableView, BookmarksFollowTheirRowAndReportWhenItWent) {
  Ref<ITableData> data(Filled({1, 2, 3, 4, 5}));
  Ref<IMAPITable> view(MakeView(data));
  ASSERT_EQ(view->SeekRow(BOOKMARK_BEGINNING, 1, nullptr), S_OK);
  BOOKMARK onTwo = 0, onFour = 0, atEnd = 0;
  ASSERT_EQ(view->CreateBookmark(&onTwo), S_OK);
  ASSERT_EQ(view->SeekRow(BOOKMARK_CURRENT, 2, nullptr), S_OK);
  ASSERT_EQ(view->CreateBookmark(&onFour), S_OK);
  ASSERT_EQ(view->SeekRow(BOOKMARK_END, 0, nullptr), S_OK);
  ASSERT_EQ(view->CreateBookmark(&atEnd), S_OK);
  EXPECT_GT(onTwo, BOOKMARK_END);
  EXPECT_NE(onTwo, onFour);

  // Rows added before it don't move a bookmark off its row.
  Row r = Item(0, "zero", 0);
  SRow s = r.Get();
  ASSERT_EQ(data->HrInsertRow(0, &s), S_OK);
  LONG sought = 0;
  ASSERT_EQ(view->SeekRow(onTwo, 0, &sought), S_OK);
  EXPECT_EQ(Read(view, 1, TBL_NOADVANCE), Keys_{2});
  ASSERT_EQ(view->SeekRow(onTwo, 1, &sought), S_OK);
  EXPECT_EQ(Read(view, 1, TBL_NOADVANCE), Keys_{3});

  // Its row deleted: the bookmark moves to the next row and says so once.
  SPropValue four = KeyValue(4);
  ASSERT_EQ(data->HrDeleteRow(&four), S_OK);
  EXPECT_EQ(view->SeekRow(onFour, 0, nullptr), MAPI_W_POSITION_CHANGED);
  EXPECT_EQ(Read(view, 1, TBL_NOADVANCE), Keys_{5});
  EXPECT_EQ(view->SeekRow(onFour, 0, nullptr), S_OK);
  EXPECT_EQ(view->SeekRow(atEnd, -1, &sought), S_OK);
  EXPECT_EQ(Read(view, 1), Keys_{5});

  // Free, then unknown; the predefined ones free harmlessly.
  ASSERT_EQ(view->FreeBookmark(onFour), S_OK);
  EXPECT_EQ(view->FreeBookmark(onFour), MAPI_E_INVALID_BOOKMARK);
  EXPECT_EQ(view->SeekRow(onFour, 0, nullptr), MAPI_E_INVALID_BOOKMARK);
  EXPECT_EQ(view->FreeBookmark(BOOKMARK_CURRENT), S_OK);
  EXPECT_EQ(view->CreateBookmark(nullptr), MAPI_E_INVALID_PARAMETER);
  // Restrict discards the view's bookmarks and puts the cursor at the top.
  ASSERT_EQ(view->Restrict(nullptr, 0), S_OK);
  EXPECT_EQ(view->SeekRow(onTwo, 0, nullptr), MAPI_E_INVALID_BOOKMARK);
  EXPECT_EQ(Position(view), 0u);
}

TEST(TableView, FindRowForwardAndBackwardFromABookmark) {
  Ref<ITableData> data(MakeTable());
  for (LONG k = 1; k <= 8; ++k) ASSERT_EQ(Put(data, Item(k, k % 2 ? "odd" : "even", k)), S_OK);
  Ref<IMAPITable> view(MakeView(data));
  SPropValue even{};
  even.ulPropTag = kName;
  even.Value.lpszA = const_cast<char*>("even");
  SRestriction isEven = PropertyRes(RELOP_EQ, &even);

  ASSERT_EQ(view->FindRow(&isEven, BOOKMARK_BEGINNING, 0), S_OK);
  EXPECT_EQ(Read(view, 1, TBL_NOADVANCE), Keys_{2});
  // Forward from the current row includes it.
  ASSERT_EQ(view->FindRow(&isEven, BOOKMARK_CURRENT, 0), S_OK);
  EXPECT_EQ(Position(view), 1u);

  ASSERT_EQ(view->SeekRow(BOOKMARK_BEGINNING, 5, nullptr), S_OK);  // on row 6
  BOOKMARK onSix = 0;
  ASSERT_EQ(view->CreateBookmark(&onSix), S_OK);
  ASSERT_EQ(view->SeekRow(BOOKMARK_BEGINNING, 0, nullptr), S_OK);
  // Backward starts at the row before the bookmark.
  ASSERT_EQ(view->FindRow(&isEven, onSix, DIR_BACKWARD), S_OK);
  EXPECT_EQ(Read(view, 1, TBL_NOADVANCE), Keys_{4});
  ASSERT_EQ(view->FindRow(&isEven, BOOKMARK_CURRENT, DIR_BACKWARD), S_OK);
  EXPECT_EQ(Read(view, 1, TBL_NOADVANCE), Keys_{2});
  EXPECT_EQ(view->FindRow(&isEven, BOOKMARK_CURRENT, DIR_BACKWARD), MAPI_E_NOT_FOUND);
  EXPECT_EQ(Position(view), 1u);  // a failed search leaves the cursor
  ASSERT_EQ(view->FindRow(&isEven, BOOKMARK_END, DIR_BACKWARD), S_OK);
  EXPECT_EQ(Read(view, 1, TBL_NOADVANCE), Keys_{8});
  EXPECT_EQ(view->FindRow(&isEven, BOOKMARK_END, 0), MAPI_E_NOT_FOUND);
  EXPECT_EQ(view->FindRow(&isEven, BOOKMARK_BEGINNING, DIR_BACKWARD), MAPI_E_NOT_FOUND);

  // The bookmark's row goes: the search runs from where it moved and warns.
  SPropValue six = KeyValue(6);
  ASSERT_EQ(data->HrDeleteRow(&six), S_OK);
  ASSERT_EQ(view->FindRow(&isEven, onSix, DIR_BACKWARD), MAPI_W_POSITION_CHANGED);
  EXPECT_EQ(Read(view, 1, TBL_NOADVANCE), Keys_{4});  // backward from row 7

  // FindRow looks at the whole row, not only the view's columns.
  KeyColumns keyOnly;
  ASSERT_EQ(view->SetColumns(keyOnly.Get(), 0), S_OK);
  SPropValue five{};
  five.ulPropTag = kSize;
  five.Value.l = 5;
  SRestriction sizeFive = PropertyRes(RELOP_EQ, &five);
  ASSERT_EQ(view->FindRow(&sizeFive, BOOKMARK_BEGINNING, 0), S_OK);
  EXPECT_EQ(Read(view, 1, TBL_NOADVANCE), Keys_{5});

  EXPECT_EQ(view->FindRow(nullptr, BOOKMARK_BEGINNING, 0), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(view->FindRow(&isEven, BOOKMARK(999), 0), MAPI_E_INVALID_BOOKMARK);
  EXPECT_EQ(view->FindRow(&isEven, BOOKMARK_BEGINNING, 8), MAPI_E_UNKNOWN_FLAGS);
}

TEST(TableView, SnapshotViewsKeepTheRowsTheySaw) {
  Ref<ITableData> data(MakeTable(TBLTYPE_SNAPSHOT));
  for (LONG k : {3, 1, 2}) ASSERT_EQ(Put(data, Item(k, "n", k)), S_OK);
  Ref<IMAPITable> view(MakeView(data));
  ASSERT_EQ(Put(data, Item(4, "new", 4)), S_OK);
  ASSERT_EQ(Put(data, Item(1, "changed", 100)), S_OK);
  SPropValue three = KeyValue(3);
  ASSERT_EQ(data->HrDeleteRow(&three), S_OK);
  EXPECT_EQ(Keys(view), (Keys_{3, 1, 2}));
  Sort bySize;
  bySize.By(kSize);
  ASSERT_EQ(view->SortTable(bySize.Get(), 0), S_OK);
  EXPECT_EQ(Keys(view), (Keys_{1, 2, 3}));  // the old size of row 1
  ASSERT_EQ(view->SeekRow(BOOKMARK_BEGINNING, 0, nullptr), S_OK);
  LPSRowSet rows = nullptr;
  ASSERT_EQ(view->QueryRows(1, 0, &rows), S_OK);
  EXPECT_STREQ(Find(rows->aRow[0], kName)->Value.lpszA, "n");
  FreeProws(rows);

  ULONG status = 9, type = 9;
  ASSERT_EQ(view->GetStatus(&status, &type), S_OK);
  EXPECT_EQ(status, TBLSTAT_COMPLETE);
  EXPECT_EQ(type, TBLTYPE_SNAPSHOT);
  RecordingSink sink;
  ULONG connection = 0;
  EXPECT_EQ(view->Advise(fnevTableModified, &sink, &connection), MAPI_E_NO_SUPPORT);
  // A snapshot taken now sees the table as it is now.
  Ref<IMAPITable> later(MakeView(data));
  EXPECT_EQ(Keys(later), (Keys_{1, 2, 4}));
}

TEST(TableView, FixedAnswersOfATableWithoutCategoriesOrAsynchrony) {
  Ref<ITableData> data(Filled({1}));
  Ref<IMAPITable> view(MakeView(data));
  ULONG status = 9, type = 9;
  ASSERT_EQ(view->GetStatus(&status, &type), S_OK);
  EXPECT_EQ(type, TBLTYPE_DYNAMIC);
  EXPECT_EQ(view->GetStatus(nullptr, &type), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(view->WaitForCompletion(0, 1000, &status), S_OK);
  EXPECT_EQ(status, TBLSTAT_COMPLETE);
  EXPECT_EQ(view->Abort(), S_OK);
  BYTE key[4] = {};
  LPSRowSet rows = nullptr;
  ULONG more = 0;
  EXPECT_EQ(view->ExpandRow(4, key, 1, 0, &rows, &more), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(view->CollapseRow(4, key, 0, &more), MAPI_E_NO_SUPPORT);
  LPBYTE state = nullptr;
  EXPECT_EQ(view->GetCollapseState(0, 4, key, &more, &state), MAPI_E_NO_SUPPORT);
  BOOKMARK bk = 0;
  EXPECT_EQ(view->SetCollapseState(0, 4, key, &bk), MAPI_E_NO_SUPPORT);
  ULONG count = 0;
  EXPECT_EQ(view->GetRowCount(1, &count), MAPI_E_UNKNOWN_FLAGS);

  // GetLastError knows the last failure, in either width, and nothing else.
  LPMAPIERROR error = nullptr;
  ASSERT_EQ(view->GetLastError(MAPI_E_UNKNOWN_FLAGS, MAPI_UNICODE, &error), S_OK);
  ASSERT_NE(error, nullptr);
  auto* wide = reinterpret_cast<const char16_t*>(error->lpszError);
  EXPECT_EQ(wide[0], u'G');
  MAPIFreeBuffer(error);
  ASSERT_EQ(view->GetLastError(MAPI_E_NOT_FOUND, 0, &error), S_OK);
  EXPECT_EQ(error, nullptr);
  IMAPITable* again = nullptr;
  ASSERT_EQ(view->QueryInterface(IID_IMAPITable, reinterpret_cast<void**>(&again)), S_OK);
  again->Release();
}

TEST(HrQueryAllRows, AppliesColumnsRestrictionAndSortAndHonoursTheLimit) {
  const size_t blocks = adp::MapiLiveBlockCount();
  {
    Ref<ITableData> data(MakeTable());
    for (LONG k = 1; k <= 2000; ++k) ASSERT_EQ(Put(data, Item(k, "n", k % 7)), S_OK);
    Ref<IMAPITable> view(MakeView(data));
    KeyColumns keyOnly;
    SPropValue three{};
    three.ulPropTag = kSize;
    three.Value.l = 3;
    SRestriction sizeThree = PropertyRes(RELOP_EQ, &three);
    Sort down;
    down.By(kKey, TABLE_SORT_DESCEND);
    LPSRowSet rows = nullptr;
    ASSERT_EQ(view->SeekRow(BOOKMARK_END, 0, nullptr), S_OK);  // it starts from the top anyway
    ASSERT_EQ(HrQueryAllRows(view, keyOnly.Get(), &sizeThree, down.Get(), 0, &rows), S_OK);
    ASSERT_EQ(rows->cRows, 286u);
    EXPECT_EQ(rows->aRow[0].cValues, 1u);
    EXPECT_EQ(rows->aRow[0].lpProps[0].Value.l, 1998);
    EXPECT_EQ(rows->aRow[285].lpProps[0].Value.l, 3);
    FreeProws(rows);

    // The view keeps what HrQueryAllRows set on it.
    ULONG count = 0;
    ASSERT_EQ(view->GetRowCount(0, &count), S_OK);
    EXPECT_EQ(count, 286u);
    ASSERT_EQ(HrQueryAllRows(view, nullptr, nullptr, nullptr, 286, &rows), S_OK);
    EXPECT_EQ(rows->cRows, 286u);
    FreeProws(rows);
    rows = reinterpret_cast<LPSRowSet>(1);
    EXPECT_EQ(HrQueryAllRows(view, nullptr, nullptr, nullptr, 285, &rows), MAPI_E_TABLE_TOO_BIG);
    EXPECT_EQ(rows, nullptr);
    EXPECT_EQ(HrQueryAllRows(nullptr, nullptr, nullptr, nullptr, 0, &rows), MAPI_E_INVALID_PARAMETER);
    EXPECT_EQ(HrQueryAllRows(view, nullptr, nullptr, nullptr, -1, &rows), MAPI_E_INVALID_PARAMETER);
    EXPECT_EQ(HrQueryAllRows(view, nullptr, nullptr, nullptr, 0, nullptr), MAPI_E_INVALID_PARAMETER);
    // A step that fails is the answer.
    Sort categorised;
    categorised.By(kSize).By(kKey);
    categorised.cCategories = 1;
    EXPECT_EQ(HrQueryAllRows(view, nullptr, nullptr, categorised.Get(), 0, &rows), MAPI_E_TOO_COMPLEX);

    ASSERT_EQ(data->HrDeleteRows(TAD_ALL_ROWS, nullptr, nullptr), S_OK);
    ASSERT_EQ(HrQueryAllRows(view, nullptr, nullptr, nullptr, 0, &rows), S_OK);
    EXPECT_EQ(rows->cRows, 0u);
    FreeProws(rows);
  }
  EXPECT_EQ(adp::MapiLiveBlockCount(), blocks);
}
