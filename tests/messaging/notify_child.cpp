// Second process of the notification tests: subscribes under "K" for new mail, extended and table
// events, says "ready" (an extended event carrying its process ID) and sends each notification it
// gets back under "echo". Extended event 0xDEAD ends it. Exit codes: 0 success, 2 a callback ran
// on the main thread, 3 a call failed, 4 bad arguments, 5 never told to quit.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "mapicode.h"
#include "mapiutil.h"
#include "notify.h"

namespace {

constexpr ULONG kQuit = 0xDEAD;

struct Context {
  adm::CNotifyEngine* engine = nullptr;
  std::thread::id mainThread;
  std::atomic<bool> wrongThread{false};
  std::atomic<bool> failed{false};
  std::promise<void> quit;
};

std::vector<BYTE> KeyStorage(const char* text) {
  std::vector<BYTE> storage(sizeof(ULONG) + std::strlen(text));
  reinterpret_cast<LPNOTIFKEY>(storage.data())->cb = ULONG(std::strlen(text));
  std::memcpy(storage.data() + sizeof(ULONG), text, std::strlen(text));
  return storage;
}

LONG STDAPICALLTYPE OnK(LPVOID lpvContext, ULONG cNotification, LPNOTIFICATION lpNotifications) {
  Context& context = *static_cast<Context*>(lpvContext);
  if (std::this_thread::get_id() == context.mainThread) context.wrongThread = true;
  std::vector<BYTE> echo = KeyStorage("echo");
  ULONG flags = 0;
  if (FAILED(context.engine->Notify(reinterpret_cast<LPNOTIFKEY>(echo.data()), cNotification, lpNotifications, &flags)))
    context.failed = true;
  for (ULONG i = 0; i < cNotification; ++i)
    if (lpNotifications[i].ulEventType == fnevExtended && lpNotifications[i].info.ext.ulEvent == kQuit)
      context.quit.set_value();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 4;
  Context context;
  context.engine = &adm::CNotifyEngine::ForDirectory(argv[1]);
  context.mainThread = std::this_thread::get_id();
  LPMAPIADVISESINK sink = nullptr;
  if (FAILED(HrAllocAdviseSink(OnK, &context, &sink))) return 3;
  std::vector<BYTE> key = KeyStorage("K");
  ULONG connection = 0;
  HRESULT hr = context.engine->Subscribe(reinterpret_cast<LPNOTIFKEY>(key.data()),
                                         fnevNewMail | fnevExtended | fnevTableModified, 0, sink, &connection);
  sink->Release();  // the engine holds it now
  if (FAILED(hr)) return 3;

  std::vector<BYTE> ready = KeyStorage("ready");
  NOTIFICATION hello{};
  hello.ulEventType = fnevExtended;
  hello.info.ext.ulEvent = ULONG(getpid());
  if (FAILED(context.engine->Notify(reinterpret_cast<LPNOTIFKEY>(ready.data()), 1, &hello, nullptr))) return 3;

  bool told = context.quit.get_future().wait_for(std::chrono::seconds(60)) == std::future_status::ready;
  if (FAILED(context.engine->Unsubscribe(connection)) || FAILED(context.engine->Shutdown())) return 3;
  if (!told) return 5;
  if (context.failed) return 3;
  return context.wrongThread ? 2 : 0;
}
