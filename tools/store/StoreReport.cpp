#include "StoreReport.h"

#include <cstring>

#include "StoreDecode.h"

namespace storetool {

namespace {

std::string FixedString(const CHAR* psz, size_t cb) { return std::string(psz, strnlen(psz, cb)); }

Doc HeaderDoc(const StoreModel& m) {
  Doc h = Doc::MakeObject();
  h.Set("version", Doc::UNum(m.header.dwVersion));
  h.Set("reserved", Doc::Hex(m.header.dwReserved));
  h.Set("guid", Doc::Str(GuidText(m.header.guidStore.ab)));
  h.Set("name", Doc::Str(FixedString(m.header.szName, DB_NAME_SIZE)));
  h.Set("comment", Doc::Str(FixedString(m.header.szComment, DB_NAME_SIZE)));
  return h;
}

Doc FreeNodesDoc(const StoreModel& m) {
  if (!m.fHasFnh) return Doc();
  Doc f = Doc::MakeObject();
  f.Set("nextRecordId", Doc::Hex(m.fnh.dwNextRecordID));
  f.Set("nextNodeOffset", Doc::Hex(m.fnh.dwNextNodeOffSet));
  f.Set("firstFreeNode", Doc::Hex(m.fnh.dwFirstFreeNode));
  return f;
}

Doc NodeTypesDoc(const StoreModel& m) {
  static const char* const kNames[] = {"untouched", "index", "freePool", "data", "released"};
  Doc t = Doc::MakeObject();
  for (const auto& [wType, cNodes] : m.nodeTypes)
    t.Set(wType <= NODE_TYPE_RELEASED ? kNames[wType] : "type" + std::to_string(wType), Doc::UNum(cNodes));
  return t;
}

Doc PoolDoc(const StoreModel& m) {
  Doc pool = Doc::MakeArray();
  for (const PoolNodeModel& p : m.poolNodes) {
    Doc n = Doc::MakeObject();
    n.Set("offset", Doc::Hex(p.dwOffSet));
    n.Set("count", Doc::UNum(p.cSlots));
    n.Set("next", Doc::Hex(p.dwNext));
    n.Set("last", Doc::Boolean(p.fLast));
    Doc slots = Doc::MakeArray();
    for (DWORD s : p.slots) slots.Push(Doc::Hex(s));
    n.Set("stack", std::move(slots));
    pool.Push(std::move(n));
  }
  return pool;
}

Doc IndexDoc(const StoreModel& m) {
  Doc index = Doc::MakeArray();
  for (const IndexNodeModel& n : m.indexNodes) {
    Doc d = Doc::MakeObject();
    d.Set("offset", Doc::Hex(n.dwOffSet));
    d.Set("entries", Doc::UNum(n.cEntries));
    d.Set("next", Doc::Hex(n.dwNext));
    d.Set("stale", Doc::Boolean(n.fStale));
    index.Push(std::move(d));
  }
  return index;
}

void SetDecoded(Doc& field, const char* key, Decoded decoded) {
  field.Set(key, std::move(decoded.doc));
  if (!decoded.error.empty()) field.Set("decodeError", Doc::Str(decoded.error));
  if (!decoded.note.empty()) field.Set("note", Doc::Str(decoded.note));
}

Doc FieldDoc(const StoreModel& m, const RecordModel& r, ULONG rf) {
  const FieldModel& f = r.fields[rf];
  Doc d = Doc::MakeObject();
  d.Set("field", Doc::Str(FieldName(rf)));
  d.Set("start", Doc::Hex(f.dwStart));
  d.Set("size", Doc::UNum(f.dwSize));
  if (f.dwStart == 0) return d;
  d.Set("nodes", Doc::UNum(f.chain.nodes.size()));
  d.Set("chainBytes", Doc::UNum(f.chain.cbData));
  Doc chain = Doc::MakeArray();
  for (DWORD off : f.chain.nodes) chain.Push(Doc::Hex(off));
  d.Set("chain", std::move(chain));
  if (!f.chain.problem.empty()) d.Set("problem", Doc::Str(f.chain.problem));
  if (!f.fHaveData) return d;
  switch (KindOfField(r, rf, m.largeRecords)) {
    case FieldKind::PropList: {
      Decoded decoded = DecodePropList(f.data);
      if (!decoded.error.empty()) d.Set("raw", RawPreview(f.data));
      SetDecoded(d, "properties", std::move(decoded));
      break;
    }
    case FieldKind::IDList: SetDecoded(d, "ids", DecodeIDList(f.data)); break;
    case FieldKind::Names: SetDecoded(d, "subfolders", DecodeSubfolderNames(f.data)); break;
    case FieldKind::NamedProps: SetDecoded(d, "namedProperties", DecodeNamedProps(f.data)); break;
    case FieldKind::ReceiveFolders: SetDecoded(d, "receiveFolders", DecodeReceiveFolders(f.data)); break;
    case FieldKind::RawLarge: d.Set("largeProperty", RawPreview(f.data)); break;
  }
  return d;
}

Doc RecordsDoc(const StoreModel& m) {
  Doc records = Doc::MakeArray();
  for (const RecordModel& r : m.records) {
    Doc d = Doc::MakeObject();
    d.Set("id", Doc::Hex(r.dwID));
    d.Set("indexNode", Doc::Hex(r.dwIndexNode));
    d.Set("slot", Doc::UNum(r.iSlot));
    d.Set("stale", Doc::Boolean(r.fStale));
    Doc fields = Doc::MakeArray();
    for (ULONG rf = 0; rf < RECFLD_COUNT; ++rf) fields.Push(FieldDoc(m, r, rf));
    d.Set("fields", std::move(fields));
    records.Push(std::move(d));
  }
  return records;
}

Doc OrphansDoc(const StoreModel& m) {
  Doc orphans = Doc::MakeArray();
  for (const OrphanChain& c : m.orphans) {
    Doc d = Doc::MakeObject();
    d.Set("start", Doc::Hex(c.dwStart));
    d.Set("nodes", Doc::UNum(c.cNodes));
    d.Set("bytes", Doc::UNum(c.cbData));
    orphans.Push(std::move(d));
  }
  return orphans;
}

}  // namespace

Doc BuildDump(const StoreModel& m) {
  Doc doc = Doc::MakeObject();
  doc.Set("file", Doc::Str(m.path));
  doc.Set("bytes", Doc::UNum(m.cbFile));
  doc.Set("nodes", Doc::UNum(m.cNodes));
  doc.Set("header", HeaderDoc(m));
  doc.Set("freeNodesHeader", FreeNodesDoc(m));
  doc.Set("nodeTypes", NodeTypesDoc(m));
  doc.Set("pool", PoolDoc(m));
  doc.Set("index", IndexDoc(m));
  doc.Set("records", RecordsDoc(m));
  doc.Set("unreachableChains", OrphansDoc(m));
  return doc;
}

Doc BuildCheck(const StoreModel& m) {
  Doc doc = Doc::MakeObject();
  doc.Set("file", Doc::Str(m.path));
  doc.Set("result", Doc::Str(m.Count(Severity::Damage) ? "damaged" : "consistent"));
  doc.Set("damage", Doc::UNum(m.Count(Severity::Damage)));
  doc.Set("expected", Doc::UNum(m.Count(Severity::Expected)));
  doc.Set("warnings", Doc::UNum(m.Count(Severity::Warning)));
  Doc findings = Doc::MakeArray();
  for (const Finding& f : m.findings) {
    Doc d = Doc::MakeObject();
    d.Set("severity", Doc::Str(SeverityName(f.severity)));
    d.Set("code", Doc::Str(f.code));
    d.Set("text", Doc::Str(f.text));
    findings.Push(std::move(d));
  }
  doc.Set("findings", std::move(findings));
  return doc;
}

std::string CheckText(const StoreModel& m) {
  size_t cDamage = m.Count(Severity::Damage);
  std::string out = m.path + ": " + (cDamage ? "damaged" : "consistent") + " (" + std::to_string(cDamage) +
                    " damage, " + std::to_string(m.Count(Severity::Expected)) + " expected, " +
                    std::to_string(m.Count(Severity::Warning)) + " warnings; " + std::to_string(m.records.size()) +
                    " index entries, " + std::to_string(m.cNodes) + " nodes)\n";
  for (Severity s : {Severity::Damage, Severity::Warning, Severity::Expected})
    for (const Finding& f : m.findings)
      if (f.severity == s) out += std::string(SeverityName(s)) + " " + f.code + ": " + f.text + "\n";
  return out;
}

}  // namespace storetool
