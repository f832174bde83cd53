// What the inspection tool knows of a store file: its own bounded reader of the on-disk
// structures (it trusts nothing it reads), and the walk over header, index, free pool and field
// chains with the inconsistencies it finds, each marked as one the format makes on purpose or as
// damage.
#pragma once
#include <cstdint>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "ZT4DBFile.h"

namespace storetool {

enum class Severity { Expected, Warning, Damage };

struct Finding {
  Severity severity;
  std::string code;  // stable word for scripts
  std::string text;
};

const char* SeverityName(Severity severity);

struct NodeHead {
  WORD wType = 0;
  WORD wSize = 0;
  DWORD dwCount = 0;
  DWORD dwSelf = 0;
  DWORD dwNext = 0;
};

// Reads a store file node by node; offsets are checked before every access.
class StoreFile {
 public:
  // False with a message when the file can't be read or has no store header.
  bool Open(const std::string& path, std::string* pError);
  uint64_t Size() const { return m_cbFile; }
  // Whole nodes from OFFSET_FIRST_INDEX_RECORD on.
  DWORD NodeCount() const { return static_cast<DWORD>(m_heads.size()); }
  bool HasNode(DWORD dwOffSet) const;
  DWORD NodeIndex(DWORD dwOffSet) const { return (dwOffSet - OFFSET_FIRST_INDEX_RECORD) / NODE_SIZE; }
  static DWORD NodeOffset(DWORD iNode) { return OFFSET_FIRST_INDEX_RECORD + iNode * NODE_SIZE; }
  const NodeHead& Head(DWORD dwOffSet) const { return m_heads[NodeIndex(dwOffSet)]; }
  // The payload of a node HasNode accepts.
  bool ReadPayload(DWORD dwOffSet, BYTE* pb);
  const DB_FILE_HEADER& Header() const { return m_header; }
  bool HasFreeNodesHeader() const { return m_fHasFnh; }
  const FREENODES_HEADER& FreeNodesHeader() const { return m_fnh; }

 private:
  bool ReadAt(uint64_t off, void* pv, size_t cb);
  void ReadHeads();

  std::ifstream m_in;
  uint64_t m_cbFile = 0;
  DB_FILE_HEADER m_header = {};
  FREENODES_HEADER m_fnh = {};
  bool m_fHasFnh = false;
  std::vector<NodeHead> m_heads;
};

struct ChainWalk {
  std::vector<DWORD> nodes;
  uint64_t cbData = 0;      // sum of wSize over the data nodes
  std::string code;         // empty when the chain ends cleanly
  std::string problem;
};

struct FieldModel {
  DWORD dwStart = 0;
  DWORD dwSize = 0;
  ChainWalk chain;
  bool fHaveData = false;   // data holds the chain's bytes
  std::vector<uint8_t> data;
};

struct RecordModel {
  DWORD dwID = 0;
  DWORD dwIndexNode = 0;
  DWORD iSlot = 0;
  bool fStale = false;      // in the stale tail of a shrunk index
  FieldModel fields[RECFLD_COUNT];
};

struct IndexNodeModel {
  DWORD dwOffSet = 0;
  DWORD cEntries = 0;
  DWORD dwNext = 0;
  bool fStale = false;
};

struct PoolNodeModel {
  DWORD dwOffSet = 0;
  DWORD cSlots = 0;
  DWORD dwNext = 0;
  bool fLast = false;
  std::vector<DWORD> slots;
};

struct OrphanChain {
  DWORD dwStart = 0;
  DWORD cNodes = 0;
  uint64_t cbData = 0;
};

constexpr DWORD RECEIVE_FOLDER_SETTINGS_ID = 0xFFFFFFFE;
constexpr DWORD NAMED_PROPS_RECORD_ID = 0xFFFFFFFC;

// What a record's field 0 holds.
enum class FieldKind { PropList, IDList, Names, NamedProps, ReceiveFolders, RawLarge };
FieldKind KindOfField(const RecordModel& record, ULONG rf, const std::set<DWORD>& largeRecords);
const char* FieldName(ULONG rf);

struct StoreModel {
  std::string path;
  uint64_t cbFile = 0;
  DWORD cNodes = 0;
  DB_FILE_HEADER header = {};
  bool fHasFnh = false;
  FREENODES_HEADER fnh = {};
  std::vector<IndexNodeModel> indexNodes;
  std::vector<PoolNodeModel> poolNodes;
  std::vector<RecordModel> records;
  std::vector<OrphanChain> orphans;
  std::set<DWORD> largeRecords;   // named by a PT_LARGE_STUB of some property list
  std::map<WORD, DWORD> nodeTypes;  // node census by wNodeType
  std::vector<Finding> findings;

  size_t Count(Severity severity) const;
};

// Reads and checks the whole file. False (with a message) only when the file can't be read or
// is no store file; damage is reported through the findings.
bool AnalyzeStore(const std::string& path, StoreModel* pModel, std::string* pError);

// A field's bytes beyond this are not gathered for decoding.
constexpr uint64_t MAX_DECODED_FIELD = 64u * 1024 * 1024;

}  // namespace storetool
