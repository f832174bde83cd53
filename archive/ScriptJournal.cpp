#include "ScriptJournal.h"

#include <cstdlib>
#include <fstream>

namespace scriptarchive {

Journal& Journal::Instance() {
  static Journal journal;
  return journal;
}

void Journal::Record(const std::string& line) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_lines.push_back(line);
  // Looked up per call so a test can point each case at its own file.
  if (const char* path = std::getenv("ARCHIVEDEPOT_ARCHIVE_JOURNAL"); path && *path) {
    std::ofstream out(path, std::ios::app | std::ios::binary);
    out << line << '\n';
  }
}

std::string Journal::Text() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::string text;
  for (const auto& line : m_lines) text += line + '\n';
  return text;
}

void Journal::Clear() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_lines.clear();
}

}  // namespace scriptarchive
