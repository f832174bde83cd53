// The notification engine behind IMAPISupport::Subscribe, Unsubscribe and Notify.
//
// A Notify for a key reaches every sink subscribed under an equal key (same cb, same bytes) in
// this process and in every other process that uses the same runtime directory, each sink getting
// the notifications whose ulEventType is in its mask, in the order the sending thread sent them.
// Delivery runs on the engine's delivery thread, never on the sender's, except for NOTIFY_SYNC
// subscriptions of the sender's own process, which are called before Notify returns; a
// CALLBACK_DISCONTINUE from one of those stops the Notify and reports NOTIFY_CANCELED. In another
// process a NOTIFY_SYNC subscription is served by its delivery thread like any other.
//
// Transport: each subscribing process listens on a socket in "<runtime dir>/notify"; Notify sends
// the encoded call (notifywire.h) to every socket there. A dead process's socket is removed by the
// first sender that finds it refusing; a stopped one costs a sender one short timeout, after which
// it is only offered what the kernel takes at once until it reads again.
#pragma once
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "mapidefs.h"
#include "mapispi.h"

namespace adp::ipc {
class Endpoint;
}

namespace adm {

class CNotifyBatch;

class CNotifyEngine {
 public:
  // One engine per process and runtime directory ("" means adp::RuntimeDirectory()). Created on
  // first use; it lives until the process ends, Shutdown only returns it to its first state.
  static CNotifyEngine& ForDirectory(const std::string& strRuntimeDir);
  // Shutdown of every engine of the process.
  static void ShutdownAll();

  // MAPI_E_INVALID_PARAMETER: NULL key, sink or out pointer, a zero mask, a key over 64 KiB.
  // MAPI_E_UNKNOWN_FLAGS: flags other than NOTIFY_SYNC. The sink is AddRef'd until Unsubscribe.
  HRESULT Subscribe(LPNOTIFKEY lpKey, ULONG ulEventMask, ULONG ulFlags, LPMAPIADVISESINK lpAdviseSink,
                    ULONG* lpulConnection);
  // Returns once no callback of the connection runs and none will start; from inside one of its
  // own callbacks it returns at once and the sink is released when that callback returns.
  // MAPI_E_NOT_FOUND for a connection this engine does not hold.
  HRESULT Unsubscribe(ULONG ulConnection);
  // *lpulFlags in: 0 or MAPI_UNICODE (texts of the notifications are wide); out: 0 or
  // NOTIFY_CANCELED. The notifications are copied; the caller keeps its own. Unreachable peers
  // never fail the call.
  HRESULT Notify(LPNOTIFKEY lpKey, ULONG cNotification, LPNOTIFICATION lpNotifications, ULONG* lpulFlags);
  // Releases every sink (after their running callbacks), stops the threads and removes the
  // socket. MAPI_E_BUSY when called from one of this engine's callbacks.
  HRESULT Shutdown();

  // Where the process sockets of this engine's directory live.
  const std::string& SocketDirectory() const { return m_socketDir; }

 private:
  struct Subscription;
  using SubscriptionPtr = std::shared_ptr<Subscription>;
  struct Pending;

  explicit CNotifyEngine(std::string socketDir);
  ~CNotifyEngine() = delete;  // engines live as long as the process

  HRESULT EnsureRunning();
  std::vector<SubscriptionPtr> MatchLocked(const std::vector<BYTE>& key, ULONG cNotification,
                                           const NOTIFICATION* lpNotifications, bool bSync, bool bAsync);
  ULONG CallSink(const SubscriptionPtr& sub, ULONG cNotification, const NOTIFICATION* lpNotifications);
  void EndCall(const SubscriptionPtr& sub);
  void Enqueue(std::unique_ptr<Pending> pending);
  void SendToPeers(const std::vector<BYTE>& message);
  void DeliveryLoop();
  void ListenLoop();

  const std::string m_socketDir;

  // Lock order, outermost first: m_lifeLock, m_sendLock, m_lock. No sink is called, released or
  // sent to while m_lock is held.
  std::mutex m_lifeLock;  // starting and stopping the threads
  std::mutex m_sendLock;  // one Notify at a time hands its call out, so every peer sees one order
  std::mutex m_lock;      // subscriptions, queue, state flags
  std::condition_variable m_queueCv;
  std::condition_variable m_callCv;  // a callback ended

  std::map<ULONG, SubscriptionPtr> m_subscriptions;
  std::deque<std::unique_ptr<Pending>> m_queue;
  bool m_running = false;
  bool m_stopping = false;
  std::unique_ptr<adp::ipc::Endpoint> m_endpoint;
  std::string m_ownPath;
  std::set<std::string> m_stuckPeers;  // under m_sendLock
  std::thread m_deliveryThread;
  std::thread m_listenThread;
};

}  // namespace adm
