// The call journal of the scriptable archive: one line per call received, in order, kept in
// memory and appended to the file named by ARCHIVEDEPOT_ARCHIVE_JOURNAL when that is set.
#pragma once
#include <mutex>
#include <string>
#include <vector>

namespace scriptarchive {

class Journal {
 public:
  static Journal& Instance();
  void Record(const std::string& line);
  std::string Text() const;  // every line, each ending in '\n'
  void Clear();

 private:
  mutable std::mutex m_mutex;
  std::vector<std::string> m_lines;
};

}  // namespace scriptarchive
