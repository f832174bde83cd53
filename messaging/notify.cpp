#include "notify.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <utility>

#include "adplatform.h"
#include "adplatform_ipc.h"
#include "mapicode.h"
#include "mapiutil.h"
#include "mapix.h"
#include "notifywire.h"

namespace adm {

namespace {

constexpr ULONG kMaxKeySize = 64 * 1024;
// Wall milliseconds a live peer gets to take one message; a stopped one is skipped after that.
constexpr int kSendTimeoutMs = 500;

struct MapiFree {
  void operator()(void* p) const { MAPIFreeBuffer(p); }
};
using MapiNotifications = std::unique_ptr<NOTIFICATION, MapiFree>;

// Connection numbers are unique in the process, whichever engine gives them.
ULONG NextConnection() {
  static std::atomic<ULONG> s_next{0};
  ULONG n;
  do n = ++s_next;
  while (n == 0);
  return n;
}

std::vector<BYTE> KeyBytes(const NOTIFKEY& key) { return std::vector<BYTE>(key.ab, key.ab + key.cb); }

// One MAPI allocation holding a deep copy, as sinks receive it.
HRESULT CopyToMapi(ULONG cNotification, NOTIFICATION* lpNotifications, MapiNotifications& out) {
  ULONG cb = 0;
  SCODE sc = ScCountNotifications(int(cNotification), lpNotifications, &cb);
  if (FAILED(sc)) return sc;
  void* buffer = nullptr;
  sc = MAPIAllocateBuffer(std::max<ULONG>(cb, 1), &buffer);
  if (FAILED(sc)) return sc;
  out.reset(static_cast<NOTIFICATION*>(buffer));
  return ScCopyNotifications(int(cNotification), lpNotifications, buffer, nullptr);
}

// Callbacks running on this thread, innermost last: Unsubscribe from inside one must not wait for
// itself.
thread_local std::vector<const void*> t_runningCalls;
// Set on an engine's own threads, which Shutdown cannot join from.
thread_local bool t_engineThread = false;

}  // namespace

struct CNotifyEngine::Subscription {
  ULONG ulConnection = 0;
  std::vector<BYTE> key;
  ULONG ulEventMask = 0;
  bool bSync = false;
  LPMAPIADVISESINK lpSink = nullptr;  // owned reference; NULL once released
  bool bRemoved = false;
  int cActiveCalls = 0;
  int cWaiters = 0;  // Unsubscribe calls waiting for the running callbacks to end
};

// A Notify waiting for the delivery thread, with the sinks chosen when it was sent.
struct CNotifyEngine::Pending {
  std::vector<SubscriptionPtr> targets;
  ULONG cNotification = 0;
  NOTIFICATION* lpNotifications = nullptr;
  MapiNotifications local;
  std::unique_ptr<CNotifyBatch> remote;
};

CNotifyEngine::CNotifyEngine(std::string socketDir) : m_socketDir(std::move(socketDir)) {}

namespace {

// Engines by runtime directory. Never destroyed: delivery threads may outlive static destruction.
struct EngineRegistry {
  std::mutex lock;
  std::map<std::string, CNotifyEngine*> engines;
};

EngineRegistry& Registry() {
  static auto* s_registry = new EngineRegistry();
  return *s_registry;
}

}  // namespace

CNotifyEngine& CNotifyEngine::ForDirectory(const std::string& strRuntimeDir) {
  std::string dir = strRuntimeDir.empty() ? adp::RuntimeDirectory() : strRuntimeDir;
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  EngineRegistry& registry = Registry();
  std::lock_guard<std::mutex> guard(registry.lock);  // lock order: registry lock alone
  CNotifyEngine*& engine = registry.engines[dir];
  if (!engine) engine = new CNotifyEngine(dir + "/notify");
  return *engine;
}

void CNotifyEngine::ShutdownAll() {
  std::vector<CNotifyEngine*> all;
  {
    EngineRegistry& registry = Registry();
    std::lock_guard<std::mutex> guard(registry.lock);  // lock order: registry lock alone
    for (const auto& [dir, engine] : registry.engines) all.push_back(engine);
  }
  for (CNotifyEngine* engine : all) engine->Shutdown();
}

HRESULT CNotifyEngine::EnsureRunning() {
  {
    // Without m_lifeLock first: a callback may subscribe while Shutdown holds it and joins.
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: m_lock alone
    if (m_stopping) return MAPI_E_CALL_FAILED;
    if (m_running) return S_OK;
  }
  std::lock_guard<std::mutex> life(m_lifeLock);  // lock order: m_lifeLock, then m_sendLock, m_lock
  {
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_stopping) return MAPI_E_CALL_FAILED;
    if (m_running) return S_OK;
  }
  std::unique_ptr<adp::ipc::Endpoint> endpoint = adp::ipc::Endpoint::Bind(m_socketDir);
  if (!endpoint) return MAPI_E_CALL_FAILED;
  {
    std::lock_guard<std::mutex> send(m_sendLock);
    m_ownPath = endpoint->Path();
  }
  m_endpoint = std::move(endpoint);
  {
    std::lock_guard<std::mutex> guard(m_lock);
    m_running = true;
  }
  m_deliveryThread = std::thread(&CNotifyEngine::DeliveryLoop, this);
  m_listenThread = std::thread(&CNotifyEngine::ListenLoop, this);
  return S_OK;
}

HRESULT CNotifyEngine::Subscribe(LPNOTIFKEY lpKey, ULONG ulEventMask, ULONG ulFlags, LPMAPIADVISESINK lpAdviseSink,
                                 ULONG* lpulConnection) {
  if (lpulConnection) *lpulConnection = 0;
  if (!lpKey || !lpAdviseSink || !lpulConnection || ulEventMask == 0 || lpKey->cb > kMaxKeySize)
    return MAPI_E_INVALID_PARAMETER;
  if (ulFlags & ~NOTIFY_SYNC) return MAPI_E_UNKNOWN_FLAGS;
  HRESULT hr = EnsureRunning();
  if (FAILED(hr)) return hr;
  auto sub = std::make_shared<Subscription>();
  sub->ulConnection = NextConnection();
  sub->key = KeyBytes(*lpKey);
  sub->ulEventMask = ulEventMask;
  sub->bSync = (ulFlags & NOTIFY_SYNC) != 0;
  sub->lpSink = lpAdviseSink;
  lpAdviseSink->AddRef();
  {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: m_lock alone
    if (m_stopping || !m_running) {
      sub->lpSink = nullptr;
    } else {
      m_subscriptions[sub->ulConnection] = sub;
    }
  }
  if (!sub->lpSink) {
    lpAdviseSink->Release();
    return MAPI_E_CALL_FAILED;
  }
  *lpulConnection = sub->ulConnection;
  return S_OK;
}

HRESULT CNotifyEngine::Unsubscribe(ULONG ulConnection) {
  LPMAPIADVISESINK release = nullptr;
  {
    std::unique_lock<std::mutex> lock(m_lock);  // lock order: m_lock alone
    auto it = m_subscriptions.find(ulConnection);
    if (it == m_subscriptions.end()) return MAPI_E_NOT_FOUND;
    SubscriptionPtr sub = it->second;
    m_subscriptions.erase(it);
    sub->bRemoved = true;
    int own = int(std::count(t_runningCalls.begin(), t_runningCalls.end(), sub.get()));
    // While we wait, the ending callback leaves the release to us, so that the sink is released
    // before Unsubscribe returns.
    ++sub->cWaiters;
    m_callCv.wait(lock, [&] { return sub->cActiveCalls <= own; });
    --sub->cWaiters;
    if (sub->cActiveCalls == 0) release = std::exchange(sub->lpSink, nullptr);
  }
  if (release) release->Release();
  return S_OK;
}

std::vector<CNotifyEngine::SubscriptionPtr> CNotifyEngine::MatchLocked(const std::vector<BYTE>& key,
                                                                       ULONG cNotification,
                                                                       const NOTIFICATION* lpNotifications,
                                                                       bool bSync, bool bAsync) {
  ULONG events = 0;
  for (ULONG i = 0; i < cNotification; ++i) events |= lpNotifications[i].ulEventType;
  std::vector<SubscriptionPtr> matches;
  for (const auto& [connection, sub] : m_subscriptions) {
    if (!(sub->bSync ? bSync : bAsync) || !(sub->ulEventMask & events) || sub->key != key) continue;
    matches.push_back(sub);
  }
  return matches;
}

ULONG CNotifyEngine::CallSink(const SubscriptionPtr& sub, ULONG cNotification, const NOTIFICATION* lpNotifications) {
  std::vector<NOTIFICATION> mine;
  for (ULONG i = 0; i < cNotification; ++i)
    if (lpNotifications[i].ulEventType & sub->ulEventMask) mine.push_back(lpNotifications[i]);
  if (mine.empty()) return 0;
  MapiNotifications copy;
  if (FAILED(CopyToMapi(ULONG(mine.size()), mine.data(), copy))) return 0;
  LPMAPIADVISESINK sink = nullptr;
  {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: m_lock alone
    if (sub->bRemoved) return 0;
    ++sub->cActiveCalls;
    sink = sub->lpSink;
  }
  t_runningCalls.push_back(sub.get());
  ULONG result = sink->OnNotify(ULONG(mine.size()), copy.get());
  t_runningCalls.pop_back();
  copy.reset();
  EndCall(sub);
  return result;
}

void CNotifyEngine::EndCall(const SubscriptionPtr& sub) {
  LPMAPIADVISESINK release = nullptr;
  {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: m_lock alone
    if (--sub->cActiveCalls == 0 && sub->bRemoved && sub->cWaiters == 0)
      release = std::exchange(sub->lpSink, nullptr);
  }
  m_callCv.notify_all();
  if (release) release->Release();
}

void CNotifyEngine::Enqueue(std::unique_ptr<Pending> pending) {
  {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: m_lock alone
    if (m_stopping || !m_running) return;
    m_queue.push_back(std::move(pending));
  }
  m_queueCv.notify_one();
}

HRESULT CNotifyEngine::Notify(LPNOTIFKEY lpKey, ULONG cNotification, LPNOTIFICATION lpNotifications,
                              ULONG* lpulFlags) {
  ULONG ulFlags = lpulFlags ? *lpulFlags : 0;
  if (lpulFlags) *lpulFlags = 0;
  if (!lpKey || lpKey->cb > kMaxKeySize || (!lpNotifications && cNotification)) return MAPI_E_INVALID_PARAMETER;
  if (ulFlags & ~MAPI_UNICODE) return MAPI_E_UNKNOWN_FLAGS;
  if (cNotification == 0) return S_OK;

  // The call's MAPI_UNICODE becomes each structure's own flag, which is what copies and sinks read.
  std::vector<NOTIFICATION> notifications(lpNotifications, lpNotifications + cNotification);
  if (ulFlags & MAPI_UNICODE) {
    for (NOTIFICATION& n : notifications) {
      if (n.ulEventType == fnevNewMail) n.info.newmail.ulFlags |= MAPI_UNICODE;
      if (n.ulEventType == fnevCriticalError) n.info.err.ulFlags |= MAPI_UNICODE;
    }
  }
  SCODE sc = ScCountNotifications(int(cNotification), notifications.data(), nullptr);
  if (FAILED(sc)) return sc;
  std::vector<BYTE> message;
  HRESULT hr = EncodeNotifications(*lpKey, ulFlags, cNotification, notifications.data(), message);
  if (FAILED(hr)) return hr;
  std::vector<BYTE> key = KeyBytes(*lpKey);

  std::vector<SubscriptionPtr> syncTargets;
  {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: m_lock alone
    syncTargets = MatchLocked(key, cNotification, notifications.data(), true, false);
  }
  for (const SubscriptionPtr& sub : syncTargets) {
    if (CallSink(sub, cNotification, notifications.data()) & CALLBACK_DISCONTINUE) {
      if (lpulFlags) *lpulFlags = NOTIFY_CANCELED;
      return S_OK;
    }
  }

  std::lock_guard<std::mutex> send(m_sendLock);  // lock order: m_sendLock, then m_lock
  auto pending = std::make_unique<Pending>();
  {
    std::lock_guard<std::mutex> guard(m_lock);
    pending->targets = MatchLocked(key, cNotification, notifications.data(), false, true);
  }
  if (!pending->targets.empty()) {
    hr = CopyToMapi(cNotification, notifications.data(), pending->local);
    if (FAILED(hr)) return hr;
    pending->cNotification = cNotification;
    pending->lpNotifications = pending->local.get();
    Enqueue(std::move(pending));
  }
  SendToPeers(message);
  return S_OK;
}

void CNotifyEngine::SendToPeers(const std::vector<BYTE>& message) {
  // Caller holds m_sendLock.
  std::set<std::string> stillStuck;
  for (const std::string& peer : adp::ipc::ListEndpoints(m_socketDir)) {
    if (peer == m_ownPath) continue;
    bool stuck = m_stuckPeers.count(peer) != 0;
    adp::ipc::SendStatus status =
        adp::ipc::SendMessage(peer, message.data(), message.size(), stuck ? 0 : kSendTimeoutMs);
    if (status == adp::ipc::SendStatus::Busy) stillStuck.insert(peer);
  }
  m_stuckPeers = std::move(stillStuck);
}

void CNotifyEngine::DeliveryLoop() {
  t_engineThread = true;
  for (;;) {
    std::unique_ptr<Pending> pending;
    {
      std::unique_lock<std::mutex> lock(m_lock);  // lock order: m_lock alone
      m_queueCv.wait(lock, [&] { return m_stopping || !m_queue.empty(); });
      if (m_stopping) return;
      pending = std::move(m_queue.front());
      m_queue.pop_front();
    }
    for (const SubscriptionPtr& sub : pending->targets) CallSink(sub, pending->cNotification, pending->lpNotifications);
  }
}

void CNotifyEngine::ListenLoop() {
  t_engineThread = true;
  std::vector<uint8_t> message;
  for (;;) {
    adp::ipc::ReceiveStatus status = m_endpoint->Receive(message, -1);
    if (status == adp::ipc::ReceiveStatus::Interrupted) return;
    if (status != adp::ipc::ReceiveStatus::Message) continue;
    auto batch = std::make_unique<CNotifyBatch>();
    if (FAILED(DecodeNotifications(message.data(), message.size(), *batch)) || batch->Count() == 0) continue;
    auto pending = std::make_unique<Pending>();
    {
      std::lock_guard<std::mutex> guard(m_lock);  // lock order: m_lock alone
      pending->targets = MatchLocked(batch->Key(), batch->Count(), batch->Notifications(), true, true);
    }
    if (pending->targets.empty()) continue;
    pending->cNotification = batch->Count();
    pending->lpNotifications = batch->Notifications();
    pending->remote = std::move(batch);
    Enqueue(std::move(pending));
  }
}

HRESULT CNotifyEngine::Shutdown() {
  if (!t_runningCalls.empty() || t_engineThread) return MAPI_E_BUSY;
  std::lock_guard<std::mutex> life(m_lifeLock);  // lock order: m_lifeLock, then m_sendLock, m_lock
  std::map<ULONG, SubscriptionPtr> subscriptions;
  {
    std::lock_guard<std::mutex> guard(m_lock);
    if (!m_running) return S_OK;
    m_stopping = true;
    subscriptions.swap(m_subscriptions);
    for (auto& [connection, sub] : subscriptions) sub->bRemoved = true;
  }
  m_queueCv.notify_all();
  m_endpoint->Interrupt();
  m_listenThread.join();
  m_deliveryThread.join();
  std::vector<LPMAPIADVISESINK> releases;
  {
    std::unique_lock<std::mutex> lock(m_lock);
    // Synchronous callbacks on other threads may still run.
    for (auto& [connection, sub] : subscriptions) {
      m_callCv.wait(lock, [&] { return sub->cActiveCalls == 0; });
      if (sub->lpSink) releases.push_back(std::exchange(sub->lpSink, nullptr));
    }
    m_queue.clear();
  }
  for (LPMAPIADVISESINK sink : releases) sink->Release();
  {
    std::lock_guard<std::mutex> send(m_sendLock);
    m_ownPath.clear();
    m_stuckPeers.clear();
  }
  m_endpoint.reset();
  std::lock_guard<std::mutex> guard(m_lock);
  m_running = false;
  m_stopping = false;
  return S_OK;
}

}  // namespace adm
