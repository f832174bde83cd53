// Receive-folder settings of the back end: the stored stream byte for byte, the walk that leaves
// the format after the first entry, the table rows, and damaged records.
#include <gtest/gtest.h>

#include <map>

#include "ZT4FileStg_test_util.h"

using namespace betest;

namespace {

const ULONG kClassA = PROP_TAG(PT_STRING8, 0x001A);

struct RFSRow {
  PRIVATE_EID eid;
  PRIVATE_EID recordKey;
  std::string cls;
};

class RFSTest : public BackEndTest {
 protected:
  void SetUp() override {
    BackEndTest::SetUp();
    SizedSPropTagArray(4, sptCols) = {4, {PR_INSTANCE_KEY, PR_ENTRYID, PR_RECORD_KEY, kClassA}};
    ASSERT_EQ(CreateTable(&IID_IMAPITableData, MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer, NULL,
                          TBLTYPE_DYNAMIC, PR_INSTANCE_KEY, reinterpret_cast<LPSPropTagArray>(&sptCols), &m_pTable),
              S_OK);
  }
  void TearDown() override {
    if (m_pTable) m_pTable->Release();
    m_pTable = NULL;
    BackEndTest::TearDown();
  }

  Bytes Settings() { return Field(RECEIVE_FOLDER_SETTINGS, RECFLD_PROPERTIES); }

  // The table's rows by instance key.
  std::map<DWORD, RFSRow> Rows() {
    std::map<DWORD, RFSRow> rows;
    for (ULONG i = 0;; ++i) {
      LPSRow pRow = NULL;
      EXPECT_EQ(m_pTable->HrEnumRow(i, &pRow), S_OK);
      if (!pRow) break;
      EXPECT_EQ(pRow->cValues, 4u);
      DWORD dwKey = 0;
      RFSRow row;
      EXPECT_EQ(pRow->lpProps[0].Value.bin.cb, 4u);
      memcpy(&dwKey, pRow->lpProps[0].Value.bin.lpb, 4);
      EXPECT_EQ(pRow->lpProps[1].Value.bin.cb, CB_PRIVATE_EID);
      memcpy(&row.eid, pRow->lpProps[1].Value.bin.lpb, CB_PRIVATE_EID);
      memcpy(&row.recordKey, pRow->lpProps[2].Value.bin.lpb, CB_PRIVATE_EID);
      row.cls = pRow->lpProps[3].Value.lpszA;
      rows[dwKey] = row;
      MAPIFreeBuffer(pRow);
    }
    return rows;
  }

  void PutRow(DWORD dwKey, const PRIVATE_EID& eid, const char* pszClass) {
    SPropValue props[4];
    memset(props, 0, sizeof(props));
    props[0].ulPropTag = PR_INSTANCE_KEY;
    props[0].Value.bin.cb = 4;
    props[0].Value.bin.lpb = reinterpret_cast<LPBYTE>(&dwKey);
    props[1].ulPropTag = PR_ENTRYID;
    props[1].Value.bin.cb = CB_PRIVATE_EID;
    props[1].Value.bin.lpb = reinterpret_cast<LPBYTE>(const_cast<PRIVATE_EID*>(&eid));
    props[2] = props[1];
    props[2].ulPropTag = PR_RECORD_KEY;
    props[3].ulPropTag = kClassA;
    props[3].Value.lpszA = const_cast<LPSTR>(pszClass);
    SRow row = {0, 4, props};
    ASSERT_EQ(m_pTable->HrModifyRow(&row), S_OK);
  }

  LPTABLEDATA m_pTable = NULL;
};

}  // namespace

TEST_F(RFSTest, FirstEntryIsWrittenFoundAndRewritten) {
  ASSERT_EQ(m_pBE->SetRFSEntryID("IPM", Eid(MAPI_FOLDER, 3), NULL), S_OK);
  EXPECT_EQ(Settings(), LE().u32(1).u32(3).str("IPM").u32(3).get());

  // Setting it again rewrites the folder ID in place.
  ASSERT_EQ(m_pBE->SetRFSEntryID("ipm", Eid(MAPI_FOLDER, 7), NULL), S_OK);
  const Bytes stored = LE().u32(1).u32(3).str("IPM").u32(7).get();
  EXPECT_EQ(Settings(), stored);

  // Only a folder of this store can receive.
  EXPECT_EQ(m_pBE->SetRFSEntryID("IPM.Note", Eid(MAPI_MESSAGE, 9), NULL), MAPI_E_INVALID_ENTRYID);
  EXPECT_TRUE(Logged("CFileBackEnd::SetRFSEntryID: Invalid entry ID for receive folder"));
  PRIVATE_EID foreign = Eid(MAPI_FOLDER, 9);
  foreign.guidStore.ab[0] ^= 0xFF;
  EXPECT_EQ(m_pBE->SetRFSEntryID("IPM.Note", foreign, NULL), MAPI_E_INVALID_ENTRYID);
  EXPECT_EQ(Settings(), stored);
  // A name a reader could not take back is refused.
  std::string longClass(256, 'C');
  EXPECT_EQ(m_pBE->SetRFSEntryID(longClass.c_str(), Eid(MAPI_FOLDER, 9), NULL), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(Settings(), stored);

  // Found whatever the case; the caller's other bytes are kept.
  PRIVATE_EID eid;
  memset(&eid, 0xAB, sizeof(eid));
  ASSERT_EQ(m_pBE->GetRFSEntryID("ipm", &eid), S_OK);
  MAPIUID uid = StoreGuid();
  EXPECT_EQ(memcmp(&eid.guidStore, &uid, sizeof(uid)), 0);
  EXPECT_EQ(eid.bVersion, 1);
  EXPECT_EQ(eid.bObjType, MAPI_FOLDER);
  EXPECT_EQ(eid.dwObjID, 7u);
  EXPECT_EQ(BYTE(eid.szUniqueId[0]), 0xAB);
  EXPECT_EQ(eid.abFlags[0], 0xAB);

  // No prefix search here: an unknown class is not found, and that is no failure.
  EXPECT_EQ(m_pBE->GetRFSEntryID("IPM.Note", &eid), MAPI_E_NOT_FOUND);
  EXPECT_FALSE(Logged("CFileBackEnd::GetRFSEntryID:"));

  Reopen();
  EXPECT_EQ(Settings(), stored);
  ASSERT_EQ(m_pBE->GetRFSEntryID("IPM", &eid), S_OK);
  EXPECT_EQ(eid.dwObjID, 7u);
}

TEST_F(RFSTest, NoSettingsYet) {
  PRIVATE_EID eid = Eid(MAPI_FOLDER, 1);
  EXPECT_EQ(m_pBE->GetRFSEntryID("IPM", &eid), MAPI_E_NOT_FOUND);
  EXPECT_FALSE(FieldExists(RECEIVE_FOLDER_SETTINGS, RECFLD_PROPERTIES));
  ASSERT_EQ(m_pBE->GetRFSTableData(m_pTable), S_OK);
  std::map<DWORD, RFSRow> rows = Rows();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].cls, "");
  EXPECT_EQ(rows[0].eid.dwObjID, IPM_ROOT_RECORD);
  EXPECT_EQ(rows[0].eid.bObjType, MAPI_FOLDER);
  EXPECT_EQ(memcmp(&rows[0].eid, &rows[0].recordKey, CB_PRIVATE_EID), 0);
}

// A missed entry's folder ID is read as the next class length, so a second class lands on the
// first one's folder ID. The layout and what the readers make of it are kept.
TEST_F(RFSTest, SecondClassRunsOffTheFormat) {
  ASSERT_EQ(m_pBE->SetRFSEntryID("IPM", Eid(MAPI_FOLDER, 3), NULL), S_OK);
  ASSERT_EQ(m_pBE->SetRFSEntryID("IPM.Note", Eid(MAPI_FOLDER, 9), NULL), S_OK);
  EXPECT_EQ(Settings(), LE().u32(2).u32(3).str("IPM").u32(8).str("IPM.Note").u32(9).get());

  // "IPM" now names the folder whose ID is the second class's length.
  PRIVATE_EID eid = Eid(MAPI_FOLDER, 1);
  ASSERT_EQ(m_pBE->GetRFSEntryID("IPM", &eid), S_OK);
  EXPECT_EQ(eid.dwObjID, 8u);
  // The second entry reads "IPM." as a length: the walk stops, it doesn't overrun.
  EXPECT_EQ(m_pBE->GetRFSEntryID("IPM.Note", &eid), MAPI_E_CORRUPT_DATA);
  EXPECT_TRUE(Logged("Assertion failed in File:"));
  EXPECT_TRUE(Logged("CFileBackEnd::GetRFSEntryID:8004011b"));

  // Setting the second class again finds it, by the same slip, and rewrites its ID.
  ASSERT_EQ(m_pBE->SetRFSEntryID("IPM.Note", Eid(MAPI_FOLDER, 12), NULL), S_OK);
  EXPECT_EQ(Settings(), LE().u32(2).u32(3).str("IPM").u32(8).str("IPM.Note").u32(12).get());

  // A third goes behind the second name, over its folder ID.
  ASSERT_EQ(m_pBE->SetRFSEntryID("Report", Eid(MAPI_FOLDER, 4), NULL), S_OK);
  EXPECT_EQ(Settings(), LE().u32(3).u32(3).str("IPM").u32(8).str("IPM.Note").u32(6).str("Report").u32(4).get());

  // The table keeps the rows read before the walk left the format.
  EXPECT_EQ(m_pBE->GetRFSTableData(m_pTable), MAPI_E_CORRUPT_DATA);
  std::map<DWORD, RFSRow> rows = Rows();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].eid.dwObjID, IPM_ROOT_RECORD);
  EXPECT_EQ(rows[3].cls, "IPM");
  EXPECT_EQ(rows[3].eid.dwObjID, 8u);
}

TEST_F(RFSTest, TableRows) {
  ASSERT_EQ(m_pBE->SetRFSEntryID("IPM", Eid(MAPI_FOLDER, 3), NULL), S_OK);
  ASSERT_EQ(m_pBE->GetRFSTableData(m_pTable), S_OK);
  std::map<DWORD, RFSRow> rows = Rows();
  ASSERT_EQ(rows.size(), 2u);  // the default row and one per entry
  EXPECT_EQ(rows[0].cls, "");
  EXPECT_EQ(rows[1].cls, "IPM");
  EXPECT_EQ(rows[1].eid.dwObjID, 3u);
  EXPECT_EQ(rows[1].eid.bObjType, MAPI_FOLDER);
  EXPECT_EQ(memcmp(&rows[1].eid, &rows[1].recordKey, CB_PRIVATE_EID), 0);

  // A match looks its row up by the walk's counter, two past the entry's place: here key 3,
  // which the table doesn't have, so no row changes.
  ASSERT_EQ(m_pBE->SetRFSEntryID("IPM", Eid(MAPI_FOLDER, 7), m_pTable), S_OK);
  rows = Rows();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[1].eid.dwObjID, 3u);

  // With a row of that key, its entry ID follows; its record key stays.
  PutRow(3, Eid(MAPI_FOLDER, 50), "IPM");
  ASSERT_EQ(m_pBE->SetRFSEntryID("IPM", Eid(MAPI_FOLDER, 8), m_pTable), S_OK);
  rows = Rows();
  EXPECT_EQ(rows[3].eid.dwObjID, 8u);
  EXPECT_EQ(rows[3].recordKey.dwObjID, 50u);
  EXPECT_EQ(rows[1].eid.dwObjID, 3u);

  // A new class gets a row keyed by the new count.
  ASSERT_EQ(m_pBE->SetRFSEntryID("IPC", Eid(MAPI_FOLDER, 4), m_pTable), S_OK);
  rows = Rows();
  ASSERT_EQ(rows.size(), 4u);
  EXPECT_EQ(rows[2].cls, "IPC");
  EXPECT_EQ(rows[2].eid.dwObjID, 4u);
  EXPECT_EQ(rows[2].recordKey.dwObjID, 4u);
}

TEST_F(RFSTest, DamagedRecords) {
  PRIVATE_EID eid = Eid(MAPI_FOLDER, 1);
  // A count beyond the entries.
  Bytes damaged = LE().u32(5).u32(3).str("IPM").u32(3).get();
  PutField(RECEIVE_FOLDER_SETTINGS, RECFLD_PROPERTIES, damaged);
  EXPECT_EQ(m_pBE->GetRFSEntryID("Other", &eid), MAPI_E_CORRUPT_DATA);
  EXPECT_EQ(m_pBE->GetRFSTableData(m_pTable), MAPI_E_CORRUPT_DATA);
  EXPECT_EQ(m_pBE->SetRFSEntryID("Other", Eid(MAPI_FOLDER, 4), NULL), MAPI_E_CORRUPT_DATA);
  EXPECT_EQ(Settings(), damaged);
  // The first entry is still found.
  ASSERT_EQ(m_pBE->GetRFSEntryID("IPM", &eid), S_OK);
  EXPECT_EQ(eid.dwObjID, 3u);

  // A length that can't be a class name, below and above the assertion's limit.
  PutField(RECEIVE_FOLDER_SETTINGS, RECFLD_PROPERTIES, LE().u32(1).u32(300).str(std::string(300, 'x').c_str()).u32(3).get());
  EXPECT_FALSE(Logged("Assertion failed in File:"));
  EXPECT_EQ(m_pBE->GetRFSEntryID("IPM", &eid), MAPI_E_CORRUPT_DATA);
  EXPECT_FALSE(Logged("Assertion failed in File:"));
  PutField(RECEIVE_FOLDER_SETTINGS, RECFLD_PROPERTIES, LE().u32(1).u32(0x10000).str("IPM").get());
  EXPECT_EQ(m_pBE->GetRFSEntryID("IPM", &eid), MAPI_E_CORRUPT_DATA);
  EXPECT_TRUE(Logged("Assertion failed in File:"));

  // A hostile count over a short stream ends at the stream's end.
  PutField(RECEIVE_FOLDER_SETTINGS, RECFLD_PROPERTIES, LE().u32(0xFFFFFFFF).u32(1).str("A").u32(2).get());
  EXPECT_EQ(m_pBE->GetRFSEntryID("B", &eid), MAPI_E_CORRUPT_DATA);
  // A stream without even a count.
  PutField(RECEIVE_FOLDER_SETTINGS, RECFLD_PROPERTIES, Bytes(2, 0));
  EXPECT_EQ(m_pBE->GetRFSEntryID("B", &eid), MAPI_E_CORRUPT_DATA);
  EXPECT_EQ(m_pBE->SetRFSEntryID("B", Eid(MAPI_FOLDER, 4), NULL), MAPI_E_CORRUPT_DATA);
  EXPECT_TRUE(Logged("CFileBackEnd::SetRFSEntryID:8004011b"));
  EXPECT_EQ(Settings(), Bytes(2, 0));
}
