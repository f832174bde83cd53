// Writes lines into a shared log from a second process: logger_child <folder> <tag> <count>.
#include <windows.h>

#include <cstdlib>
#include <string>

#include "NxLogger.h"

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  CNxLogger logger;
  std::string strError;
  if (!logger.Initialize(strError, "Shared", argv[1], 5, FALSE, FALSE)) return 3;
  const char chTag = argv[2][0];
  const std::string strPadding(300, chTag);
  const int cLines = std::atoi(argv[3]);
  for (int i = 0; i < cLines; ++i) logger.Log(3, "Child", 1, "c.cpp", "child %c line %d %s", chTag, i, strPadding.c_str());
  return 0;
}
