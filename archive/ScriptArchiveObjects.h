// COM objects of the scriptable archive: the provider, its configuration, folders, records,
// attachments and search conditions, all answering from a parsed fixture.
#pragma once
#include <memory>
#include <mutex>
#include <string>

#include "ScriptFixture.h"
#include "ZT4DataProvider.h"

namespace scriptarchive {

// State shared by every object of one provider instance; the provider is called from many
// threads at once, so every read of mutable parts takes the lock.
struct Archive {
  std::mutex mutex;
  std::unique_ptr<Fixture> fixture;
  std::vector<std::string> savedDefaultNames;
  bool defaultNamesSaved = false;
};

// Creates a provider on a loaded archive; returns the interface with one reference.
HRESULT CreateProvider(std::shared_ptr<Archive> archive, REFIID riid, void** ppv);

}  // namespace scriptarchive
