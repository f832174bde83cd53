#include "StoreModel.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <unordered_map>
#include <unordered_set>

#include "StoreDecode.h"

namespace storetool {

const char* SeverityName(Severity severity) {
  switch (severity) {
    case Severity::Expected: return "expected";
    case Severity::Warning: return "warning";
    default: return "damage";
  }
}

const char* FieldName(ULONG rf) {
  static const char* const kNames[RECFLD_COUNT] = {"properties", "contents", "children", "associated", "names"};
  return rf < RECFLD_COUNT ? kNames[rf] : "?";
}

FieldKind KindOfField(const RecordModel& record, ULONG rf, const std::set<DWORD>& largeRecords) {
  if (rf == RECFLD_NAMES) return FieldKind::Names;
  if (rf != RECFLD_PROPERTIES) return FieldKind::IDList;
  if (record.dwID == RECEIVE_FOLDER_SETTINGS_ID) return FieldKind::ReceiveFolders;
  if (record.dwID == NAMED_PROPS_RECORD_ID) return FieldKind::NamedProps;
  if (largeRecords.count(record.dwID)) return FieldKind::RawLarge;
  return FieldKind::PropList;
}

size_t StoreModel::Count(Severity severity) const {
  return static_cast<size_t>(std::count_if(findings.begin(), findings.end(),
                                           [severity](const Finding& f) { return f.severity == severity; }));
}

// ---------------------------------------------------------------------------------------------
// StoreFile

bool StoreFile::Open(const std::string& path, std::string* pError) {
  m_in.open(path, std::ios::binary);
  if (!m_in) {
    *pError = "cannot open " + path + ": " + strerror(errno);
    return false;
  }
  m_in.seekg(0, std::ios::end);
  std::streamoff cb = m_in.tellg();
  if (cb < 0) {
    *pError = "cannot read " + path;
    return false;
  }
  m_cbFile = static_cast<uint64_t>(cb);
  if (m_cbFile < sizeof(DB_FILE_HEADER) || !ReadAt(0, &m_header, sizeof(m_header))) {
    *pError = path + " is not a store file: " + std::to_string(m_cbFile) + " bytes, shorter than the file header";
    return false;
  }
  if (m_header.dwVersion != DB_FILE_VERSION) {
    *pError = path + " is not a store file of version 1 (version " + std::to_string(m_header.dwVersion) + ")";
    return false;
  }
  m_fHasFnh = ReadAt(OFFSET_FREENODES_HEADER, &m_fnh, sizeof(m_fnh));
  ReadHeads();
  return true;
}

bool StoreFile::ReadAt(uint64_t off, void* pv, size_t cb) {
  if (off > m_cbFile || cb > m_cbFile - off) return false;
  m_in.clear();
  m_in.seekg(static_cast<std::streamoff>(off));
  m_in.read(static_cast<char*>(pv), static_cast<std::streamsize>(cb));
  return static_cast<size_t>(m_in.gcount()) == cb;
}

// One sequential pass in large blocks: a file of a million nodes is read once, not sought
// a million times.
void StoreFile::ReadHeads() {
  uint64_t cNodes = m_cbFile > OFFSET_FIRST_INDEX_RECORD ? (m_cbFile - OFFSET_FIRST_INDEX_RECORD) / NODE_SIZE : 0;
  cNodes = std::min<uint64_t>(cNodes, 0xFFFFFFFFu / NODE_SIZE);  // offsets are 32-bit
  m_heads.resize(static_cast<size_t>(cNodes));
  const size_t kBlockNodes = 256;
  std::vector<BYTE> block(kBlockNodes * NODE_SIZE);
  for (uint64_t i = 0; i < cNodes; i += kBlockNodes) {
    size_t cHere = static_cast<size_t>(std::min<uint64_t>(kBlockNodes, cNodes - i));
    if (!ReadAt(OFFSET_FIRST_INDEX_RECORD + i * NODE_SIZE, block.data(), cHere * NODE_SIZE)) {
      m_heads.resize(static_cast<size_t>(i));
      return;
    }
    for (size_t k = 0; k < cHere; ++k) {
      const BYTE* p = block.data() + k * NODE_SIZE;
      NodeHead& h = m_heads[static_cast<size_t>(i + k)];
      memcpy(&h.wType, p, 2);
      memcpy(&h.wSize, p + 2, 2);
      memcpy(&h.dwCount, p + 4, 4);
      memcpy(&h.dwSelf, p + 8, 4);
      memcpy(&h.dwNext, p + 12, 4);
    }
  }
}

bool StoreFile::HasNode(DWORD dwOffSet) const { return IsNodeOffset(dwOffSet) && NodeIndex(dwOffSet) < m_heads.size(); }

bool StoreFile::ReadPayload(DWORD dwOffSet, BYTE* pb) {
  return HasNode(dwOffSet) && ReadAt(uint64_t(dwOffSet) + DATA_NODE_HEADER_SIZE, pb, DATA_SIZE);
}

// ---------------------------------------------------------------------------------------------
// The walk

namespace {

std::string Hex(DWORD dw) {
  char buf[16];
  snprintf(buf, sizeof(buf), "0x%X", dw);
  return buf;
}

std::string Plural(size_t n, const char* one, const char* many) { return std::to_string(n) + " " + (n == 1 ? one : many); }

// Who holds a node.
struct Owner {
  enum Kind { None, Index, Pool, Field } kind = None;
  size_t iRecord = 0;
  ULONG rf = 0;
};

class Analyzer {
 public:
  Analyzer(StoreFile& file, StoreModel& model) : m_file(file), m_model(model), m_owners(file.NodeCount()) {}

  void Run() {
    CheckFileShape();
    CheckNodeHeads();
    WalkIndex();
    WalkPool();
    WalkRecords();
    CheckPoolSlots();
    CheckUnreachable();
    DecodeContents();
    CheckReferences();
  }

 private:
  void Add(Severity severity, const std::string& code, const std::string& text) {
    m_model.findings.push_back({severity, code, text});
  }
  void Damage(const std::string& code, const std::string& text) { Add(Severity::Damage, code, text); }
  void Expected(const std::string& code, const std::string& text) { Add(Severity::Expected, code, text); }

  std::string OwnerText(const Owner& o) const {
    switch (o.kind) {
      case Owner::Index: return "the index chain";
      case Owner::Pool: return "the free-pool chain";
      case Owner::Field: {
        const RecordModel& r = m_model.records[o.iRecord];
        return std::string(r.fStale ? "stale " : "") + "record " + Hex(r.dwID) + " field " + std::to_string(o.rf) + " (" +
               FieldName(o.rf) + ")";
      }
      default: return "nothing";
    }
  }
  bool OwnerIsStale(const Owner& o) const { return o.kind == Owner::Field && m_model.records[o.iRecord].fStale; }

  void CheckFileShape();
  void CheckNodeHeads();
  void WalkIndex();
  void MarkStaleBehindFullNode();
  void WalkPool();
  ChainWalk WalkChain(DWORD dwStart);
  void WalkRecords();
  void ClaimField(size_t iRecord, ULONG rf);
  void GatherData(FieldModel& field);
  void CheckPoolSlots();
  void CheckUnreachable();
  void DecodeContents();
  void CheckReferences();

  StoreFile& m_file;
  StoreModel& m_model;
  std::vector<Owner> m_owners;
  std::unordered_set<DWORD> m_poolSlots;  // offsets the pool lists
  size_t m_cStaleConflicts = 0;
};

void Analyzer::CheckFileShape() {
  uint64_t cb = m_file.Size();
  if (cb < OFFSET_FIRST_DATA_NODE)
    Damage("truncated", "the file has " + std::to_string(cb) + " bytes; a store file has at least " +
                            std::to_string(OFFSET_FIRST_DATA_NODE));
  else if ((cb - OFFSET_FIRST_INDEX_RECORD) % NODE_SIZE)
    Damage("partial-node", "the file ends " + std::to_string((cb - OFFSET_FIRST_INDEX_RECORD) % NODE_SIZE) +
                               " bytes into a node");
  if (!m_file.HasFreeNodesHeader()) return;
  const FREENODES_HEADER& fnh = m_file.FreeNodesHeader();
  if (fnh.dwNextRecordID == 0) Damage("next-record-id", "the free-node header's next record ID is 0");
  if (fnh.dwFirstFreeNode != OFFSET_FIRST_FREE_NODE)
    Damage("first-free-node", "the free-node header names " + Hex(fnh.dwFirstFreeNode) + " as first pool node, not " +
                                  Hex(OFFSET_FIRST_FREE_NODE));
  uint64_t cbWhole = OFFSET_FIRST_INDEX_RECORD + uint64_t(m_file.NodeCount()) * NODE_SIZE;
  if (!IsNodeOffset(fnh.dwNextNodeOffSet) || fnh.dwNextNodeOffSet < OFFSET_FIRST_DATA_NODE)
    Damage("growth-point", "the free-node header's next node offset " + Hex(fnh.dwNextNodeOffSet) +
                               " is not a node boundary behind the pool node");
  else if (fnh.dwNextNodeOffSet > cbWhole)
    Damage("growth-point", "the next node offset " + Hex(fnh.dwNextNodeOffSet) + " lies behind the end of the file (" +
                               std::to_string(cb) + " bytes)");
  else if (fnh.dwNextNodeOffSet < cbWhole)
    Damage("growth-point", "the file holds " +
                               Plural((cbWhole - fnh.dwNextNodeOffSet) / NODE_SIZE, "node", "nodes") +
                               " behind the next node offset " + Hex(fnh.dwNextNodeOffSet));
}

void Analyzer::CheckNodeHeads() {
  for (DWORD i = 0; i < m_file.NodeCount(); ++i) {
    DWORD off = StoreFile::NodeOffset(i);
    const NodeHead& h = m_file.Head(off);
    ++m_model.nodeTypes[h.wType];
    if (h.wType > NODE_TYPE_RELEASED) {
      Damage("node-type", "node " + Hex(off) + " has the unknown type " + std::to_string(h.wType));
      continue;
    }
    if (h.wType == 0) {
      if (h.wSize || h.dwCount || h.dwSelf || h.dwNext)
        Damage("node-type", "node " + Hex(off) + " has no type but a header that is not zero");
      continue;
    }
    if (h.dwSelf != off) Damage("node-offset", "node " + Hex(off) + " records its offset as " + Hex(h.dwSelf));
    if (h.wType == NODE_TYPE_DATA && h.wSize > DATA_SIZE)
      Damage("node-size", "data node " + Hex(off) + " has wSize " + std::to_string(h.wSize) + ", more than 2048");
    if (h.wType == NODE_TYPE_RELEASED && (h.wSize || h.dwNext))
      Damage("released-node", "released node " + Hex(off) + " still has a size or a successor");
  }
}

void Analyzer::WalkIndex() {
  if (!m_file.HasNode(OFFSET_FIRST_INDEX_RECORD)) {
    Damage("index-chain", "the file has no first index node");
    return;
  }
  bool fStale = false;
  std::vector<BYTE> payload(DATA_SIZE);
  for (DWORD off = OFFSET_FIRST_INDEX_RECORD; off;) {
    if (!m_file.HasNode(off)) {
      Damage("index-chain", "the index chain links to " + Hex(off) + ", which is no node of the file");
      return;
    }
    Owner& o = m_owners[m_file.NodeIndex(off)];
    if (o.kind != Owner::None) {
      Damage("index-chain", "the index chain loops back to node " + Hex(off));
      return;
    }
    const NodeHead& h = m_file.Head(off);
    if (h.wType != NODE_TYPE_INDEX) {
      Damage("index-chain", "the index chain reaches node " + Hex(off) + " of type " + std::to_string(h.wType));
      return;
    }
    o.kind = Owner::Index;
    IndexNodeModel node{off, h.dwCount, h.dwNext, fStale};
    m_model.indexNodes.push_back(node);
    if (h.dwCount > INDEX_ENTRIES_PER_NODE) {
      Damage("index-count", "index node " + Hex(off) + " claims " + std::to_string(h.dwCount) + " entries; 46 fit");
      return;
    }
    if (!m_file.ReadPayload(off, payload.data())) return;
    for (DWORD i = 0; i < h.dwCount; ++i) {
      INDEX_ENTRY e;
      memcpy(&e, payload.data() + i * sizeof(INDEX_ENTRY), sizeof(e));
      RecordModel r;
      r.dwID = e.dwNodeID;
      r.dwIndexNode = off;
      r.iSlot = i;
      r.fStale = fStale;
      for (ULONG rf = 0; rf < RECFLD_COUNT; ++rf) {
        r.fields[rf].dwStart = *FieldStartOffSet(e, rf);
        r.fields[rf].dwSize = *FieldSize(e, rf);
      }
      m_model.records.push_back(std::move(r));
    }
    // A save that ends in this node keeps the successor it read: what follows is an older,
    // longer index that the next load reads back.
    if (h.dwCount < INDEX_ENTRIES_PER_NODE) fStale = true;
    off = h.dwNext;
  }
  MarkStaleBehindFullNode();
  size_t cStaleNodes = std::count_if(m_model.indexNodes.begin(), m_model.indexNodes.end(),
                                     [](const IndexNodeModel& n) { return n.fStale; });
  if (cStaleNodes) {
    size_t cStale = std::count_if(m_model.records.begin(), m_model.records.end(),
                                  [](const RecordModel& r) { return r.fStale; });
    Expected("stale-index-tail", "the index chain goes on for " + Plural(cStaleNodes, "node", "nodes") +
                                     " behind its last partly filled node: the stale tail of a shrunk index, " +
                                     Plural(cStale, "entry", "entries") + " that the next load reads back");
  }
  // A save that fills a node with another entry waiting chains a successor and drops that entry.
  std::vector<DWORD> full;
  const std::vector<IndexNodeModel>& nodes = m_model.indexNodes;
  for (size_t i = 0; i + 1 < nodes.size(); ++i)
    if (!nodes[i + 1].fStale && nodes[i].cEntries == INDEX_ENTRIES_PER_NODE) full.push_back(nodes[i].dwOffSet);
  if (!full.empty())
    Expected("dropped-index-entry", "index node " + Hex(full[0]) +
                                        (full.size() > 1 ? " and " + Plural(full.size() - 1, "other", "others") : "") +
                                        " full with a successor: a save drops the entry that follows each full node "
                                        "(the 47th, 94th...), whose record's chains are then unreachable");
}

// A save of exactly 46 entries a node also keeps the successor it read, and nothing on disk tells
// that from a longer index. An entry behind a full node that repeats an earlier ID or starts at a
// released node shows an older index: that node and the rest are the stale tail.
void Analyzer::MarkStaleBehindFullNode() {
  std::unordered_set<DWORD> earlier;
  size_t iRecord = 0;
  for (size_t iNode = 0; iNode < m_model.indexNodes.size(); ++iNode) {
    IndexNodeModel& node = m_model.indexNodes[iNode];
    if (node.fStale) return;
    size_t iFirst = iRecord;
    bool fOlder = false;
    for (; iRecord < m_model.records.size() && m_model.records[iRecord].dwIndexNode == node.dwOffSet; ++iRecord) {
      const RecordModel& r = m_model.records[iRecord];
      fOlder = fOlder || earlier.count(r.dwID);
      for (const FieldModel& f : r.fields)
        fOlder = fOlder || (m_file.HasNode(f.dwStart) && m_file.Head(f.dwStart).wType == NODE_TYPE_RELEASED);
    }
    bool fBehindFull = iNode > 0 && m_model.indexNodes[iNode - 1].cEntries == INDEX_ENTRIES_PER_NODE;
    if (fBehindFull && fOlder) {
      for (size_t k = iNode; k < m_model.indexNodes.size(); ++k) m_model.indexNodes[k].fStale = true;
      for (size_t k = iFirst; k < m_model.records.size(); ++k) m_model.records[k].fStale = true;
      return;
    }
    for (size_t k = iFirst; k < iRecord; ++k) earlier.insert(m_model.records[k].dwID);
  }
}

void Analyzer::WalkPool() {
  if (!m_file.HasNode(OFFSET_FIRST_FREE_NODE)) {
    Damage("pool-chain", "the file has no first free-pool node");
    return;
  }
  std::vector<BYTE> payload(DATA_SIZE);
  for (DWORD off = OFFSET_FIRST_FREE_NODE; off;) {
    if (!m_file.HasNode(off)) {
      Damage("pool-chain", "the free-pool chain links to " + Hex(off) + ", which is no node of the file");
      break;
    }
    Owner& o = m_owners[m_file.NodeIndex(off)];
    if (o.kind != Owner::None) {
      Damage("pool-chain", "the free-pool chain reaches node " + Hex(off) + ", which " + OwnerText(o) + " holds");
      break;
    }
    const NodeHead& h = m_file.Head(off);
    if (h.wType != NODE_TYPE_FREEPOOL) {
      Damage("pool-chain", "the free-pool chain reaches node " + Hex(off) + " of type " + std::to_string(h.wType));
      break;
    }
    o.kind = Owner::Pool;
    PoolNodeModel node;
    node.dwOffSet = off;
    node.cSlots = LOWORD(h.dwCount);
    node.dwNext = h.dwNext;
    if (node.cSlots > FREE_OFFSETS_PER_NODE) {
      Damage("pool-count", "free-pool node " + Hex(off) + " claims " + std::to_string(node.cSlots) + " offsets; 512 fit");
      node.cSlots = FREE_OFFSETS_PER_NODE;
    }
    if (m_file.ReadPayload(off, payload.data())) {
      for (DWORD i = 0; i < node.cSlots; ++i) {
        DWORD dw;
        memcpy(&dw, payload.data() + i * 4, 4);
        node.slots.push_back(dw);
      }
    }
    m_model.poolNodes.push_back(std::move(node));
    off = h.dwNext;
  }
  if (!m_model.poolNodes.empty()) m_model.poolNodes.back().fLast = true;
}

// Bounded by the file: every node is visited at most once per walk.
ChainWalk Analyzer::WalkChain(DWORD dwStart) {
  ChainWalk w;
  std::unordered_set<DWORD> seen;
  for (DWORD off = dwStart; off;) {
    if (!IsNodeOffset(off)) {
      w.code = "bad-offset";
      w.problem = "links to " + Hex(off) + ", which is not on a node boundary";
    } else if (!m_file.HasNode(off)) {
      w.code = "chain-leaves-file";
      w.problem = "links to " + Hex(off) + ", behind the end of the file";
    } else if (!seen.insert(off).second) {
      w.code = "chain-loop";
      w.problem = "loops back to node " + Hex(off);
    } else {
      const NodeHead& h = m_file.Head(off);
      if (off < OFFSET_FIRST_DATA_NODE || h.wType == NODE_TYPE_INDEX || h.wType == NODE_TYPE_FREEPOOL) {
        w.code = "chain-wrong-type";
        w.problem = "runs into node " + Hex(off) + " of type " + std::to_string(h.wType);
      } else {
        w.nodes.push_back(off);
        if (h.wType == NODE_TYPE_DATA) w.cbData += std::min<DWORD>(h.wSize, DATA_SIZE);
        off = h.dwNext;
        continue;
      }
    }
    break;
  }
  return w;
}

void Analyzer::WalkRecords() {
  std::unordered_map<DWORD, size_t> liveIDs;
  for (size_t i = 0; i < m_model.records.size(); ++i) {
    const RecordModel& r = m_model.records[i];
    if (r.fStale) continue;
    if (r.dwID == 0) Damage("index-entry", "index node " + Hex(r.dwIndexNode) + " entry " + std::to_string(r.iSlot) + " has record ID 0");
    if (!liveIDs.emplace(r.dwID, i).second)
      Damage("duplicate-record", "record " + Hex(r.dwID) + " has two entries in the index");
  }
  // Live records first, so that a stale entry meeting a live chain is the one marked.
  for (int pass = 0; pass < 2; ++pass)
    for (size_t i = 0; i < m_model.records.size(); ++i)
      if (m_model.records[i].fStale == (pass == 1))
        for (ULONG rf = 0; rf < RECFLD_COUNT; ++rf) ClaimField(i, rf);
  size_t cStaleConflicts = m_cStaleConflicts;
  if (cStaleConflicts)
    Expected("stale-index-tail", Plural(cStaleConflicts, "field", "fields") +
                                     " of stale index entries point at nodes released or reused since");
}

void Analyzer::ClaimField(size_t iRecord, ULONG rf) {
  RecordModel& r = m_model.records[iRecord];
  FieldModel& f = r.fields[rf];
  std::string where = std::string(r.fStale ? "stale " : "") + "record " + Hex(r.dwID) + " field " + std::to_string(rf) +
                      " (" + FieldName(rf) + ")";
  if (f.dwStart == 0) {
    if (f.dwSize && !r.fStale) Damage("size-mismatch", where + " has no chain but a size of " + std::to_string(f.dwSize));
    return;
  }
  f.chain = WalkChain(f.dwStart);
  bool fConflict = false;
  if (!f.chain.code.empty()) {
    if (r.fStale)
      fConflict = true;
    else
      Damage(f.chain.code, where + " " + f.chain.problem);
  }
  for (size_t k = 0; k < f.chain.nodes.size(); ++k) {
    DWORD off = f.chain.nodes[k];
    Owner& o = m_owners[m_file.NodeIndex(off)];
    if (o.kind != Owner::None) {
      if (r.fStale || OwnerIsStale(o))
        fConflict = true;
      else
        Damage("cross-link", "node " + Hex(off) + " is in " + OwnerText(o) + " and in " + where);
      continue;
    }
    o.kind = Owner::Field;
    o.iRecord = iRecord;
    o.rf = rf;
    const NodeHead& h = m_file.Head(off);
    bool fLast = k + 1 == f.chain.nodes.size();
    if (h.wType == NODE_TYPE_RELEASED) {
      if (r.fStale)
        fConflict = true;
      else
        Damage("released-in-chain", where + " goes through released node " + Hex(off));
    } else if (h.wType == NODE_TYPE_DATA && h.wSize < DATA_SIZE && !fLast && !r.fStale) {
      Damage("short-node", where + " has node " + Hex(off) + " with " + std::to_string(h.wSize) +
                               " bytes in the middle of its chain");
    }
  }
  if (f.chain.code.empty() && f.chain.cbData != f.dwSize) {
    if (r.fStale)
      fConflict = true;
    else
      Damage("size-mismatch", where + " has the size " + std::to_string(f.dwSize) + " in the index, its chain holds " +
                                  std::to_string(f.chain.cbData) + " bytes");
  }
  if (fConflict) ++m_cStaleConflicts;
  GatherData(f);
}

void Analyzer::GatherData(FieldModel& f) {
  if (uint64_t(f.chain.nodes.size()) * DATA_SIZE > MAX_DECODED_FIELD) return;
  std::vector<BYTE> payload(DATA_SIZE);
  for (DWORD off : f.chain.nodes) {
    const NodeHead& h = m_file.Head(off);
    if (h.wType != NODE_TYPE_DATA || h.wSize == 0) continue;
    if (!m_file.ReadPayload(off, payload.data())) return;
    f.data.insert(f.data.end(), payload.begin(), payload.begin() + std::min<DWORD>(h.wSize, DATA_SIZE));
  }
  f.fHaveData = true;
}

void Analyzer::CheckPoolSlots() {
  std::unordered_set<DWORD> seen;
  size_t cAbandoned = 0, cTwice = 0, cStale = 0, cStaleLive = 0;
  for (const PoolNodeModel& p : m_model.poolNodes) {
    for (DWORD k = 0; k < p.slots.size(); ++k) {
      DWORD s = p.slots[k];
      if (!p.fLast) ++cAbandoned;
      std::string where = "free-pool node " + Hex(p.dwOffSet) + " slot " + std::to_string(k);
      if (s < OFFSET_FIRST_DATA_NODE || !m_file.HasNode(s)) {
        Damage("pool-garbage", where + " holds " + Hex(s) + ", which is no data node of the file");
        continue;
      }
      if (!seen.insert(s).second) {
        ++cTwice;
        continue;
      }
      m_poolSlots.insert(s);
      const Owner& o = m_owners[m_file.NodeIndex(s)];
      const NodeHead& h = m_file.Head(s);
      if (o.kind == Owner::Field && OwnerIsStale(o)) {
        ++cStaleLive;
      } else if (o.kind != Owner::None) {
        Damage("pool-live", where + " lists node " + Hex(s) + ", which " + OwnerText(o) +
                                " uses: the next allocation would cross-link it (a node released twice by a shrinking "
                                "stream leaves this once one copy is handed out)");
      } else if (h.wType == NODE_TYPE_INDEX || h.wType == NODE_TYPE_FREEPOOL) {
        Damage("pool-garbage", where + " lists node " + Hex(s) + " of type " + std::to_string(h.wType));
      } else if (h.wType != NODE_TYPE_RELEASED) {
        ++cStale;
      }
    }
  }
  if (cAbandoned)
    Expected("pool-abandoned", Plural(cAbandoned, "offset", "offsets") +
                                   " in free-pool nodes before the last: abandoned after a rollover, never handed out again");
  if (cTwice)
    Expected("pool-double-release", Plural(cTwice, "offset is", "offsets are") +
                                        " in the pool twice: a node released twice when a long stream shrank");
  if (cStale)
    Expected("pool-stale", Plural(cStale, "pool offset names", "pool offsets name") +
                               " a node in use by a chain no index entry on disk reaches: the pool on disk predates "
                               "that allocation (it is written at a rollover and at close)");
  if (cStaleLive)
    Expected("stale-index-tail", Plural(cStaleLive, "pool offset names", "pool offsets name") +
                                     " a node of a stale index entry's chain");
}

void Analyzer::CheckUnreachable() {
  size_t cUntouched = 0, cReleased = 0;
  std::unordered_set<DWORD> orphans, pointed;
  for (DWORD i = 0; i < m_file.NodeCount(); ++i) {
    DWORD off = StoreFile::NodeOffset(i);
    const NodeHead& h = m_file.Head(off);
    if (h.wType == NODE_TYPE_DATA && h.dwNext) pointed.insert(h.dwNext);
    if (m_owners[i].kind != Owner::None) continue;
    switch (h.wType) {
      case 0: ++cUntouched; break;
      case NODE_TYPE_DATA: orphans.insert(off); break;
      case NODE_TYPE_RELEASED:
        if (!m_poolSlots.count(off)) ++cReleased;
        break;
      case NODE_TYPE_INDEX: Damage("stray-node", "index node " + Hex(off) + " is outside the index chain"); break;
      case NODE_TYPE_FREEPOOL: Damage("stray-node", "free-pool node " + Hex(off) + " is outside the pool chain"); break;
      default: break;  // unknown types are reported with the node heads
    }
  }
  std::unordered_set<DWORD> visited;
  size_t cMet = 0;
  for (DWORD i = 0; i < m_file.NodeCount(); ++i) {
    DWORD head = StoreFile::NodeOffset(i);
    if (!orphans.count(head) || pointed.count(head)) continue;
    OrphanChain chain{head, 0, 0};
    for (DWORD off = head; off && orphans.count(off);) {
      if (!visited.insert(off).second) {
        ++cMet;
        break;
      }
      const NodeHead& h = m_file.Head(off);
      ++chain.cNodes;
      chain.cbData += std::min<DWORD>(h.wSize, DATA_SIZE);
      off = h.dwNext;
    }
    m_model.orphans.push_back(chain);
  }
  size_t cOrphanNodes = 0;
  for (const OrphanChain& c : m_model.orphans) cOrphanNodes += c.cNodes;
  if (!m_model.orphans.empty())
    Expected("orphan-chains", Plural(m_model.orphans.size(), "chain", "chains") + " (" +
                                  Plural(cOrphanNodes, "node", "nodes") +
                                  ") that no index entry on disk reaches: records whose entries were not saved (the "
                                  "index reaches the disk only when the store closes), the entry a save drops behind a "
                                  "full index node, or fields 3 and 4 that a delete abandoned");
  if (visited.size() < orphans.size())
    Damage("orphan-loop", Plural(orphans.size() - visited.size(), "unreachable data node forms", "unreachable data nodes form") +
                              " a loop");
  if (cMet) Damage("cross-link", Plural(cMet, "unreachable chain runs", "unreachable chains run") + " into another one");
  if (cUntouched)
    Expected("untouched-nodes", Plural(cUntouched, "node was", "nodes were") +
                                    " added to the file and never written (a field opened but not written)");
  if (cReleased)
    Expected("released-unlisted", Plural(cReleased, "released node is", "released nodes are") +
                                      " not in the pool on disk (the pool is written at a rollover and at close)");
}

void Analyzer::DecodeContents() {
  for (const RecordModel& r : m_model.records) {
    const FieldModel& f = r.fields[RECFLD_PROPERTIES];
    if (f.fHaveData && r.dwID != RECEIVE_FOLDER_SETTINGS_ID && r.dwID != NAMED_PROPS_RECORD_ID)
      DecodePropList(f.data, &m_model.largeRecords);
  }
  size_t cNotLists = 0;
  std::string firstNotList;
  for (const RecordModel& r : m_model.records) {
    if (r.fStale) continue;
    for (ULONG rf = 0; rf < RECFLD_COUNT; ++rf) {
      const FieldModel& f = r.fields[rf];
      if (!f.fHaveData || !f.chain.code.empty() || f.dwStart == 0) continue;
      std::string where = "record " + Hex(r.dwID) + " field " + std::to_string(rf) + " (" + FieldName(rf) + ")";
      switch (KindOfField(r, rf, m_model.largeRecords)) {
        case FieldKind::IDList: {
          Decoded d = DecodeIDList(f.data);
          if (!d.error.empty()) Damage("id-list", where + ": " + d.error);
          break;
        }
        case FieldKind::Names: {
          Decoded d = DecodeSubfolderNames(f.data);
          if (!d.error.empty()) Damage("names", where + ": " + d.error);
          break;
        }
        case FieldKind::NamedProps: {
          Decoded d = DecodeNamedProps(f.data);
          if (!d.error.empty()) Damage("named-props", where + ": " + d.error);
          break;
        }
        case FieldKind::ReceiveFolders: {
          Decoded d = DecodeReceiveFolders(f.data);
          if (!d.error.empty()) Damage("receive-folders", where + ": " + d.error);
          if (!d.note.empty()) Expected("receive-folders-layout", where + ": " + d.note);
          break;
        }
        case FieldKind::PropList: {
          Decoded d = DecodePropList(f.data);
          if (!d.error.empty() && cNotLists++ == 0) firstNotList = where + ": " + d.error;
          break;
        }
        case FieldKind::RawLarge: break;
      }
    }
  }
  if (cNotLists)
    Add(Severity::Warning, "not-a-property-list",
        Plural(cNotLists, "property field does", "property fields do") +
            " not decode as a property list, first " + firstNotList +
            " (raw data of a large property whose stub is not on disk, or damaged contents)");
}

std::string IdSample(const std::vector<DWORD>& ids) {
  std::string s;
  for (size_t i = 0; i < ids.size() && i < 16; ++i) s += (i ? " " : "") + Hex(ids[i]);
  if (ids.size() > 16) s += " ...";
  return s;
}

void Analyzer::CheckReferences() {
  std::set<DWORD> listed, present;
  for (const RecordModel& r : m_model.records) {
    if (r.fStale) continue;
    present.insert(r.dwID);
    for (ULONG rf = RECFLD_CONTENTS; rf <= RECFLD_ASSOCIATED; ++rf) {
      const FieldModel& f = r.fields[rf];
      std::vector<DWORD> ids;
      if (f.fHaveData && f.chain.code.empty()) DecodeIDList(f.data, &ids);
      listed.insert(ids.begin(), ids.end());
    }
  }
  std::vector<DWORD> unlisted, unknown;
  for (DWORD id : present)
    if (!listed.count(id) && !m_model.largeRecords.count(id) && id != RECEIVE_FOLDER_SETTINGS_ID &&
        id != NAMED_PROPS_RECORD_ID)
      unlisted.push_back(id);
  for (DWORD id : listed)
    if (!present.count(id)) unknown.push_back(id);
  if (!unlisted.empty())
    Expected("unlisted-records", Plural(unlisted.size(), "record is", "records are") +
                                     " in no ID list (root folders, or recipient records left allocated after their "
                                     "removal): " + IdSample(unlisted));
  if (!unknown.empty())
    Expected("unknown-list-ids", Plural(unknown.size(), "ID named by an ID list has", "IDs named by ID lists have") +
                                     " no index entry on disk (entries not saved, or dropped by a save): " +
                                     IdSample(unknown));
}

}  // namespace

bool AnalyzeStore(const std::string& path, StoreModel* pModel, std::string* pError) {
  StoreFile file;
  if (!file.Open(path, pError)) return false;
  StoreModel& m = *pModel;
  m = StoreModel();
  m.path = path;
  m.cbFile = file.Size();
  m.cNodes = file.NodeCount();
  m.header = file.Header();
  m.fHasFnh = file.HasFreeNodesHeader();
  m.fnh = file.FreeNodesHeader();
  Analyzer(file, m).Run();
  return true;
}

}  // namespace storetool
