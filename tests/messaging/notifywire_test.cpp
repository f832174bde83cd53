#include "notifywire.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "mapicode.h"
#include "mapitags.h"

using adm::CNotifyBatch;
using adm::DecodeNotifications;
using adm::EncodeNotifications;

namespace {

// Storage that outlives the NOTIFICATION structures pointing into it.
struct Fixture {
  std::deque<std::vector<BYTE>> bytes;
  std::deque<std::string> texts;
  std::deque<std::u16string> wide;

  // Never NULL, even for zero bytes: a present empty value differs from an absent one.
  LPENTRYID Id(size_t cb, BYTE seed) {
    bytes.emplace_back(cb + 1);
    for (size_t i = 0; i < cb; ++i) bytes.back()[i] = BYTE(seed + i);
    return reinterpret_cast<LPENTRYID>(bytes.back().data());
  }
  LPBYTE Bytes(size_t cb, BYTE seed) { return reinterpret_cast<LPBYTE>(Id(cb, seed)); }
  char* Text(const std::string& s) {
    texts.push_back(s);
    return texts.back().data();
  }
  char16_t* Wide(const std::u16string& s) {
    wide.push_back(s);
    return wide.back().data();
  }
};

struct Key {
  explicit Key(const std::string& text) : storage(sizeof(ULONG) + text.size()) {
    Get().cb = ULONG(text.size());
    std::memcpy(Get().ab, text.data(), text.size());
  }
  NOTIFKEY& Get() { return *reinterpret_cast<NOTIFKEY*>(storage.data()); }
  std::vector<BYTE> storage;
};

GUID g_guid1 = {0x01020304, 0x0506, 0x0708, {9, 10, 11, 12, 13, 14, 15, 16}};
GUID g_guid2 = {0xA1A2A3A4, 0xB1B2, 0xC1C2, {0xD1, 0xD2, 0xD3, 0xD4, 0xD5, 0xD6, 0xD7, 0xD8}};
short g_shorts[] = {-1, 0, 32767};
LONG g_longs[] = {-5, 7};
float g_floats[] = {1.5f, -0.25f};
double g_doubles[] = {3.25, -1e300};
CURRENCY g_cys[] = {{{1, 2}}};
FILETIME g_times[] = {{0x11111111, 0x22222222}, {0, 0x7FFFFFFF}};
LARGE_INTEGER g_i8s[] = {{{0xFFFFFFFF, -1}}, {{5, 6}}};
GUID g_guids[] = {g_guid1, g_guid2};

SPropValue Prop(ULONG type, ULONG id) {
  SPropValue p{};
  p.ulPropTag = PROP_TAG(type, id);
  return p;
}

// One value of every property type, single- and multi-valued.
std::vector<SPropValue> EveryType(Fixture& f) {
  std::vector<SPropValue> v;
  SPropValue p = Prop(PT_I2, 0x6001); p.Value.i = -1234; v.push_back(p);
  p = Prop(PT_LONG, 0x6002); p.Value.l = -123456789; v.push_back(p);
  p = Prop(PT_R4, 0x6003); p.Value.flt = 3.5f; v.push_back(p);
  p = Prop(PT_DOUBLE, 0x6004); p.Value.dbl = -2.75e-10; v.push_back(p);
  p = Prop(PT_CURRENCY, 0x6005); p.Value.cur.int64 = -99999999999LL; v.push_back(p);
  p = Prop(PT_APPTIME, 0x6006); p.Value.at = 45000.5; v.push_back(p);
  p = Prop(PT_ERROR, 0x6007); p.Value.err = MAPI_E_NOT_FOUND; v.push_back(p);
  p = Prop(PT_BOOLEAN, 0x6008); p.Value.b = 1; v.push_back(p);
  p = Prop(PT_OBJECT, 0x6009); p.Value.x = 0; v.push_back(p);
  p = Prop(PT_I8, 0x600A); p.Value.li.QuadPart = 0x123456789ABCDEF0LL; v.push_back(p);
  p = Prop(PT_STRING8, 0x600B); p.Value.lpszA = f.Text("IPM.Note \xC3\xA9"); v.push_back(p);
  p = Prop(PT_UNICODE, 0x600C); p.Value.lpszW = f.Wide(u"Gr\u00FC\u00DFe \u6F22"); v.push_back(p);
  p = Prop(PT_SYSTIME, 0x600D); p.Value.ft = {0x89ABCDEF, 0x01D00000}; v.push_back(p);
  p = Prop(PT_CLSID, 0x600E); p.Value.lpguid = &g_guid1; v.push_back(p);
  p = Prop(PT_BINARY, 0x600F); p.Value.bin = {104, f.Bytes(104, 3)}; v.push_back(p);
  p = Prop(PT_BINARY, 0x6010); p.Value.bin = {0, f.Bytes(0, 0)}; v.push_back(p);
  p = Prop(PT_NULL, 0x6011); p.Value.x = 0; v.push_back(p);
  p = Prop(PT_MV_I2, 0x6020); p.Value.MVi = {3, g_shorts}; v.push_back(p);
  p = Prop(PT_MV_LONG, 0x6021); p.Value.MVl = {2, g_longs}; v.push_back(p);
  p = Prop(PT_MV_R4, 0x6022); p.Value.MVflt = {2, g_floats}; v.push_back(p);
  p = Prop(PT_MV_DOUBLE, 0x6023); p.Value.MVdbl = {2, g_doubles}; v.push_back(p);
  p = Prop(PT_MV_CURRENCY, 0x6024); p.Value.MVcur = {1, g_cys}; v.push_back(p);
  p = Prop(PT_MV_APPTIME, 0x6025); p.Value.MVat = {2, g_doubles}; v.push_back(p);
  p = Prop(PT_MV_SYSTIME, 0x6026); p.Value.MVft = {2, g_times}; v.push_back(p);
  p = Prop(PT_MV_I8, 0x6027); p.Value.MVli = {2, g_i8s}; v.push_back(p);
  p = Prop(PT_MV_CLSID, 0x6028); p.Value.MVguid = {2, g_guids}; v.push_back(p);
  static char* s_strings[2];
  s_strings[0] = f.Text("one");
  s_strings[1] = f.Text("");
  p = Prop(PT_MV_STRING8, 0x6029); p.Value.MVszA = {2, s_strings}; v.push_back(p);
  static char16_t* s_wides[2];
  s_wides[0] = f.Wide(u"eins");
  s_wides[1] = f.Wide(u"zwei");
  p = Prop(PT_MV_UNICODE, 0x602A); p.Value.MVszW = {2, s_wides}; v.push_back(p);
  static SBinary s_bins[2];
  s_bins[0] = {3, f.Bytes(3, 40)};
  s_bins[1] = {0, f.Bytes(0, 0)};
  p = Prop(PT_MV_BINARY, 0x602B); p.Value.MVbin = {2, s_bins}; v.push_back(p);
  p = Prop(PT_MV_LONG, 0x602C); p.Value.MVl = {0, nullptr}; v.push_back(p);
  return v;
}

template <class T> bool SameArray(ULONG ca, const T* a, ULONG cb, const T* b) {
  return ca == cb && (ca == 0 || std::memcmp(a, b, sizeof(T) * ca) == 0);
}

bool SameBin(const SBinary& a, const SBinary& b) {
  return a.cb == b.cb && (a.cb == 0 || std::memcmp(a.lpb, b.lpb, a.cb) == 0);
}

// Field by field, as a sink would read the value.
bool SameValue(const SPropValue& a, const SPropValue& b) {
  if (a.ulPropTag != b.ulPropTag) return false;
  const __UPV &x = a.Value, &y = b.Value;
  switch (PROP_TYPE(a.ulPropTag)) {
    case PT_I2: return x.i == y.i;
    case PT_BOOLEAN: return x.b == y.b;
    case PT_LONG: case PT_ERROR: case PT_NULL: case PT_OBJECT: return x.l == y.l;
    case PT_R4: return x.flt == y.flt;
    case PT_DOUBLE: return x.dbl == y.dbl;
    case PT_APPTIME: return x.at == y.at;
    case PT_CURRENCY: return x.cur.int64 == y.cur.int64;
    case PT_I8: return x.li.QuadPart == y.li.QuadPart;
    case PT_SYSTIME: return x.ft.dwLowDateTime == y.ft.dwLowDateTime && x.ft.dwHighDateTime == y.ft.dwHighDateTime;
    case PT_CLSID: return std::memcmp(x.lpguid, y.lpguid, sizeof(GUID)) == 0;
    case PT_STRING8: return std::string(x.lpszA) == y.lpszA;
    case PT_UNICODE: return std::u16string(x.lpszW) == y.lpszW;
    case PT_BINARY: return SameBin(x.bin, y.bin) && y.bin.lpb != nullptr;
    case PT_MV_I2: return SameArray(x.MVi.cValues, x.MVi.lpi, y.MVi.cValues, y.MVi.lpi);
    case PT_MV_LONG: return SameArray(x.MVl.cValues, x.MVl.lpl, y.MVl.cValues, y.MVl.lpl);
    case PT_MV_R4: return SameArray(x.MVflt.cValues, x.MVflt.lpflt, y.MVflt.cValues, y.MVflt.lpflt);
    case PT_MV_DOUBLE: return SameArray(x.MVdbl.cValues, x.MVdbl.lpdbl, y.MVdbl.cValues, y.MVdbl.lpdbl);
    case PT_MV_APPTIME: return SameArray(x.MVat.cValues, x.MVat.lpat, y.MVat.cValues, y.MVat.lpat);
    case PT_MV_CURRENCY: return SameArray(x.MVcur.cValues, x.MVcur.lpcur, y.MVcur.cValues, y.MVcur.lpcur);
    case PT_MV_SYSTIME: return SameArray(x.MVft.cValues, x.MVft.lpft, y.MVft.cValues, y.MVft.lpft);
    case PT_MV_I8: return SameArray(x.MVli.cValues, x.MVli.lpli, y.MVli.cValues, y.MVli.lpli);
    case PT_MV_CLSID: return SameArray(x.MVguid.cValues, x.MVguid.lpguid, y.MVguid.cValues, y.MVguid.lpguid);
    case PT_MV_STRING8:
      if (x.MVszA.cValues != y.MVszA.cValues) return false;
      for (ULONG i = 0; i < x.MVszA.cValues; ++i)
        if (std::string(x.MVszA.lppszA[i]) != y.MVszA.lppszA[i]) return false;
      return true;
    case PT_MV_UNICODE:
      if (x.MVszW.cValues != y.MVszW.cValues) return false;
      for (ULONG i = 0; i < x.MVszW.cValues; ++i)
        if (std::u16string(x.MVszW.lppszW[i]) != y.MVszW.lppszW[i]) return false;
      return true;
    case PT_MV_BINARY:
      if (x.MVbin.cValues != y.MVbin.cValues) return false;
      for (ULONG i = 0; i < x.MVbin.cValues; ++i)
        if (!SameBin(x.MVbin.lpbin[i], y.MVbin.lpbin[i])) return false;
      return true;
    default: return false;
  }
}

bool SameId(ULONG ca, const void* a, ULONG cb, const void* b) {
  if ((a == nullptr) != (b == nullptr) || ca != cb) return false;
  return ca == 0 || std::memcmp(a, b, ca) == 0;
}

// One notification of every form the system sends, with wide texts where MAPI_UNICODE allows them.
std::vector<NOTIFICATION> EveryForm(Fixture& f, std::vector<SPropValue>& row, MAPIERROR& error) {
  std::vector<NOTIFICATION> all;
  NOTIFICATION n{};
  n.ulEventType = fnevCriticalError;
  error = {MAPI_ERROR_VERSION, reinterpret_cast<LPTSTR>(f.Wide(u"Disk full")), nullptr, 112, 7};
  n.info.err = {16, f.Id(16, 1), MAPI_E_NOT_ENOUGH_MEMORY, MAPI_UNICODE, &error};
  all.push_back(n);
  n = {};
  n.ulEventType = fnevNewMail;
  n.info.newmail = {132, f.Id(132, 2), 132, f.Id(132, 3), 0, f.Text("IPM.Note"), 0x21};
  all.push_back(n);
  n = {};
  n.ulEventType = fnevNewMail;
  n.info.newmail = {132, f.Id(132, 4), 132, f.Id(132, 5), MAPI_UNICODE,
                    reinterpret_cast<LPTSTR>(f.Wide(u"IPM.Note.\u00E9")), 0};
  all.push_back(n);
  static SizedSPropTagArray(3, s_tags) = {3, {PR_ENTRYID, PR_INSTANCE_KEY, PR_DISPLAY_NAME_W}};
  for (ULONG type : {fnevObjectCreated, fnevObjectDeleted, fnevObjectModified, fnevObjectMoved, fnevObjectCopied,
                     fnevSearchComplete}) {
    n = {};
    n.ulEventType = type;
    n.info.obj = {132, f.Id(132, 6), MAPI_MESSAGE, 132, f.Id(132, 7), 0, nullptr, 132, f.Id(132, 8),
                  type == fnevObjectModified ? reinterpret_cast<LPSPropTagArray>(&s_tags) : nullptr};
    all.push_back(n);
  }
  row = EveryType(f);
  n = {};
  n.ulEventType = fnevTableModified;
  n.info.tab.ulTableEvent = TABLE_ROW_MODIFIED;
  n.info.tab.hResult = 0;
  n.info.tab.propIndex = Prop(PT_BINARY, 0x0FF6);
  n.info.tab.propIndex.Value.bin = {104, f.Bytes(104, 9)};
  n.info.tab.propPrior = Prop(PT_NULL, 0);
  n.info.tab.row = {0, ULONG(row.size()), row.data()};
  all.push_back(n);
  n = {};
  n.ulEventType = fnevTableModified;
  n.info.tab.ulTableEvent = TABLE_CHANGED;
  n.info.tab.propIndex = Prop(PT_NULL, 0);
  n.info.tab.propPrior = Prop(PT_NULL, 0);
  all.push_back(n);
  n = {};
  n.ulEventType = fnevStatusObjectModified;
  n.info.statobj = {20, f.Id(20, 10), 2, row.data()};
  all.push_back(n);
  n = {};
  n.ulEventType = fnevExtended;
  n.info.ext = {3, 408, f.Bytes(408, 11)};
  all.push_back(n);
  n = {};
  n.ulEventType = fnevExtended;
  n.info.ext = {9, 0, nullptr};
  all.push_back(n);
  return all;
}

std::vector<BYTE> EncodeAll(Fixture& f, std::vector<NOTIFICATION>* out = nullptr) {
  static std::vector<SPropValue> s_row;
  static MAPIERROR s_error;
  std::vector<NOTIFICATION> all = EveryForm(f, s_row, s_error);
  Key key("store-uid-0123456789");
  std::vector<BYTE> wire;
  EXPECT_EQ(EncodeNotifications(key.Get(), MAPI_UNICODE, ULONG(all.size()), all.data(), wire), S_OK);
  if (out) *out = all;
  return wire;
}

}  // namespace

TEST(NotifyWire, EveryNotificationFormSurvivesTheTrip) {
  Fixture f;
  std::vector<NOTIFICATION> sent;
  std::vector<BYTE> wire = EncodeAll(f, &sent);
  CNotifyBatch batch;
  ASSERT_EQ(DecodeNotifications(wire.data(), wire.size(), batch), S_OK);
  EXPECT_EQ(std::string(batch.Key().begin(), batch.Key().end()), "store-uid-0123456789");
  EXPECT_EQ(batch.Flags(), MAPI_UNICODE);
  ASSERT_EQ(batch.Count(), sent.size());
  const NOTIFICATION* got = batch.Notifications();
  for (size_t i = 0; i < sent.size(); ++i) {
    const NOTIFICATION &a = sent[i], &b = got[i];
    SCOPED_TRACE(i);
    ASSERT_EQ(a.ulEventType, b.ulEventType);
    switch (a.ulEventType) {
      case fnevCriticalError: {
        EXPECT_TRUE(SameId(a.info.err.cbEntryID, a.info.err.lpEntryID, b.info.err.cbEntryID, b.info.err.lpEntryID));
        EXPECT_EQ(b.info.err.scode, MAPI_E_NOT_ENOUGH_MEMORY);
        EXPECT_EQ(b.info.err.ulFlags, MAPI_UNICODE);
        ASSERT_NE(b.info.err.lpMAPIError, nullptr);
        EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(b.info.err.lpMAPIError->lpszError)), u"Disk full");
        EXPECT_EQ(b.info.err.lpMAPIError->lpszComponent, nullptr);
        EXPECT_EQ(b.info.err.lpMAPIError->ulLowLevelError, 112u);
        EXPECT_EQ(b.info.err.lpMAPIError->ulContext, 7u);
        break;
      }
      case fnevNewMail: {
        const NEWMAIL_NOTIFICATION &x = a.info.newmail, &y = b.info.newmail;
        EXPECT_TRUE(SameId(x.cbEntryID, x.lpEntryID, y.cbEntryID, y.lpEntryID));
        EXPECT_TRUE(SameId(x.cbParentID, x.lpParentID, y.cbParentID, y.lpParentID));
        EXPECT_EQ(x.ulFlags, y.ulFlags);
        EXPECT_EQ(x.ulMessageFlags, y.ulMessageFlags);
        if (x.ulFlags & MAPI_UNICODE) {
          EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(y.lpszMessageClass)), u"IPM.Note.\u00E9");
        } else {
          EXPECT_STREQ(y.lpszMessageClass, "IPM.Note");
        }
        break;
      }
      case fnevTableModified: {
        const TABLE_NOTIFICATION &x = a.info.tab, &y = b.info.tab;
        EXPECT_EQ(x.ulTableEvent, y.ulTableEvent);
        EXPECT_TRUE(SameValue(x.propIndex, y.propIndex));
        EXPECT_TRUE(SameValue(x.propPrior, y.propPrior));
        ASSERT_EQ(x.row.cValues, y.row.cValues);
        EXPECT_EQ(x.row.lpProps == nullptr, y.row.lpProps == nullptr);
        for (ULONG v = 0; v < x.row.cValues; ++v) EXPECT_TRUE(SameValue(x.row.lpProps[v], y.row.lpProps[v])) << v;
        break;
      }
      case fnevStatusObjectModified: {
        const STATUS_OBJECT_NOTIFICATION &x = a.info.statobj, &y = b.info.statobj;
        EXPECT_TRUE(SameId(x.cbEntryID, x.lpEntryID, y.cbEntryID, y.lpEntryID));
        ASSERT_EQ(y.cValues, 2u);
        EXPECT_TRUE(SameValue(x.lpPropVals[0], y.lpPropVals[0]));
        EXPECT_TRUE(SameValue(x.lpPropVals[1], y.lpPropVals[1]));
        break;
      }
      case fnevExtended:
        EXPECT_EQ(a.info.ext.ulEvent, b.info.ext.ulEvent);
        EXPECT_TRUE(SameId(a.info.ext.cb, a.info.ext.pbEventParameters, b.info.ext.cb, b.info.ext.pbEventParameters));
        break;
      default: {
        const OBJECT_NOTIFICATION &x = a.info.obj, &y = b.info.obj;
        EXPECT_TRUE(SameId(x.cbEntryID, x.lpEntryID, y.cbEntryID, y.lpEntryID));
        EXPECT_TRUE(SameId(x.cbParentID, x.lpParentID, y.cbParentID, y.lpParentID));
        EXPECT_TRUE(SameId(x.cbOldID, x.lpOldID, y.cbOldID, y.lpOldID));
        EXPECT_TRUE(SameId(x.cbOldParentID, x.lpOldParentID, y.cbOldParentID, y.lpOldParentID));
        EXPECT_EQ(x.ulObjType, y.ulObjType);
        ASSERT_EQ(x.lpPropTagArray == nullptr, y.lpPropTagArray == nullptr);
        if (x.lpPropTagArray) {
          EXPECT_TRUE(SameArray(x.lpPropTagArray->cValues, x.lpPropTagArray->aulPropTag, y.lpPropTagArray->cValues,
                                y.lpPropTagArray->aulPropTag));
        }
      }
    }
  }
  // What was decoded encodes to the same bytes: nothing is lost either way.
  std::vector<BYTE> again;
  Key key("store-uid-0123456789");
  ASSERT_EQ(EncodeNotifications(key.Get(), batch.Flags(), batch.Count(), batch.Notifications(), again), S_OK);
  EXPECT_EQ(again, wire);
}

TEST(NotifyWire, EncodingRefusesWhatCannotBeSent) {
  Fixture f;
  Key key("k");
  std::vector<BYTE> wire{1, 2, 3};
  NOTIFICATION n{};
  n.ulEventType = 0x400;  // no such event
  EXPECT_EQ(EncodeNotifications(key.Get(), 0, 1, &n, wire), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(EncodeNotifications(key.Get(), 0, 1, nullptr, wire), MAPI_E_INVALID_PARAMETER);
  n.ulEventType = fnevExtended;
  n.info.ext = {1, 10, nullptr};  // bytes promised, none given
  EXPECT_EQ(EncodeNotifications(key.Get(), 0, 1, &n, wire), MAPI_E_INVALID_PARAMETER);
  SPropValue bad[2] = {Prop(PT_UNSPECIFIED, 1), Prop(PT_STRING8, 2)};
  n = {};
  n.ulEventType = fnevTableModified;
  n.info.tab.propIndex = Prop(PT_LONG, 1);
  n.info.tab.propPrior = Prop(PT_LONG, 2);
  n.info.tab.row = {0, 1, bad};
  EXPECT_EQ(EncodeNotifications(key.Get(), 0, 1, &n, wire), MAPI_E_INVALID_TYPE);
  n.info.tab.row = {0, 1, bad + 1};  // a string value with no string
  EXPECT_EQ(EncodeNotifications(key.Get(), 0, 1, &n, wire), MAPI_E_INVALID_PARAMETER);
  n.info.tab.row = {0, 3, nullptr};
  EXPECT_EQ(EncodeNotifications(key.Get(), 0, 1, &n, wire), MAPI_E_INVALID_PARAMETER);
  // A failed encoding leaves what the buffer held before.
  EXPECT_EQ(wire, (std::vector<BYTE>{1, 2, 3}));
}

TEST(NotifyWire, DamagedMessagesAreRefusedWithoutHarm) {
  Fixture f;
  std::vector<BYTE> wire = EncodeAll(f);
  CNotifyBatch batch;
  // Every truncation.
  for (size_t cut = 0; cut < wire.size(); ++cut)
    ASSERT_EQ(DecodeNotifications(wire.data(), cut, batch), MAPI_E_CORRUPT_DATA) << cut;
  EXPECT_EQ(batch.Count(), 0u);
  EXPECT_EQ(DecodeNotifications(nullptr, 0, batch), MAPI_E_CORRUPT_DATA);
  EXPECT_EQ(DecodeNotifications(nullptr, 5, batch), MAPI_E_INVALID_PARAMETER);
  std::vector<BYTE> longer = wire;
  longer.push_back(0);
  EXPECT_EQ(DecodeNotifications(longer.data(), longer.size(), batch), MAPI_E_CORRUPT_DATA);
  std::vector<BYTE> other = wire;
  other[4] = 2;  // a later version
  EXPECT_EQ(DecodeNotifications(other.data(), other.size(), batch), MAPI_E_VERSION);
  other = wire;
  other[0] ^= 1;
  EXPECT_EQ(DecodeNotifications(other.data(), other.size(), batch), MAPI_E_CORRUPT_DATA);

  // Every byte and every 32-bit field overwritten with hostile values: refused, or read into
  // structures that are whole enough to be encoded again.
  const uint32_t hostile[] = {0xFFFFFFFF, 0x7FFFFFFF, 0x00FFFFFF};
  size_t accepted = 0;
  auto check = [&](const std::vector<BYTE>& bytes) {
    CNotifyBatch b;
    if (DecodeNotifications(bytes.data(), bytes.size(), b) != S_OK) return;
    ++accepted;
    std::vector<BYTE> again;
    Key key(std::string(b.Key().begin(), b.Key().end()));
    HRESULT hr = EncodeNotifications(key.Get(), b.Flags(), b.Count(), b.Notifications(), again);
    EXPECT_TRUE(hr == S_OK || hr == MAPI_E_INVALID_TYPE);
    if (hr == S_OK) {
      EXPECT_EQ(again, bytes);
    }
  };
  for (size_t at = 0; at < wire.size(); ++at) {
    std::vector<BYTE> bytes = wire;
    bytes[at] ^= 0xFF;
    check(bytes);
    if (at + 4 > wire.size()) continue;
    for (uint32_t v : hostile) {
      bytes = wire;
      for (int k = 0; k < 4; ++k) bytes[at + k] = BYTE(v >> (8 * k));
      check(bytes);
    }
  }
  EXPECT_GT(accepted, 0u);  // payload bytes are free to change, so some variants are still messages
}

TEST(NotifyWire, HugeCountsAreRefusedBeforeAnythingIsAllocated) {
  // magic, version, reserved, flags, key "k", then a count of notifications far past the bytes.
  std::vector<BYTE> wire = {'A', 'D', 'N', 'F', 1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 'k', 0xF0, 0xFF, 0xFF, 0xFF};
  CNotifyBatch batch;
  EXPECT_EQ(DecodeNotifications(wire.data(), wire.size(), batch), MAPI_E_CORRUPT_DATA);
  // One extended notification whose payload claims 4 GiB - 2.
  wire[17] = 1, wire[18] = 0, wire[19] = 0, wire[20] = 0;
  for (BYTE b : {0x00, 0x00, 0x00, 0x80, 1, 0, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF}) wire.push_back(b);
  EXPECT_EQ(DecodeNotifications(wire.data(), wire.size(), batch), MAPI_E_CORRUPT_DATA);
  // A table row claiming a billion values.
  std::vector<BYTE> table = {'A', 'D', 'N', 'F', 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0,
                             0, 1, 0, 0,  1, 0, 0, 0, 0, 0, 0, 0,  // fnevTableModified, event, hResult
                             1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0,  // two PT_NULL values
                             0, 0xCA, 0x9A, 0x3B};
  EXPECT_EQ(DecodeNotifications(table.data(), table.size(), batch), MAPI_E_CORRUPT_DATA);
  std::fill(table.end() - 4, table.end(), BYTE(0));
  EXPECT_EQ(DecodeNotifications(table.data(), table.size(), batch), S_OK);
  EXPECT_EQ(batch.Count(), 1u);
}
