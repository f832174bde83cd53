#include "notify.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "adplatform.h"
#include "adplatform_ipc.h"
#include "adplatform_mapi.h"
#include "mapicode.h"
#include "mapiguid.h"
#include "mapix.h"
#include "notifywire.h"
#include "test_home.h"

using adm::CNotifyEngine;

namespace {

// Generous: only reached when something is broken.
constexpr auto kPatience = std::chrono::seconds(30);

struct Key {
  explicit Key(const std::string& text) : storage(sizeof(ULONG) + text.size()) {
    Get()->cb = ULONG(text.size());
    std::memcpy(Get()->ab, text.data(), text.size());
  }
  LPNOTIFKEY Get() { return reinterpret_cast<LPNOTIFKEY>(storage.data()); }
  std::vector<BYTE> storage;
};

// What a sink saw of one notification.
struct Seen {
  ULONG ulEventType;
  ULONG ulEvent;  // extended events; for new mail, ulMessageFlags
  std::vector<BYTE> payload;
  std::thread::id thread;
};

class CTestSink : public IMAPIAdviseSink {
 public:
  std::function<ULONG(ULONG, LPNOTIFICATION)> hook;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (riid != IID_IUnknown && riid != IID_IMAPIAdviseSink) return MAPI_E_INTERFACE_NOT_SUPPORTED;
    AddRef();
    *ppv = static_cast<IMAPIAdviseSink*>(this);
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_refs; }
  ULONG STDMETHODCALLTYPE Release() override {
    ULONG left = --m_refs;
    if (left == 0) delete this;
    return left;
  }
  ULONG STDMETHODCALLTYPE OnNotify(ULONG cNotif, LPNOTIFICATION lpNotifications) override {
    ++m_calls;
    ULONG result = hook ? hook(cNotif, lpNotifications) : 0;
    std::lock_guard<std::mutex> guard(m_lock);
    for (ULONG i = 0; i < cNotif; ++i) {
      const NOTIFICATION& n = lpNotifications[i];
      Seen s{n.ulEventType, 0, {}, std::this_thread::get_id()};
      if (n.ulEventType == fnevExtended) {
        s.ulEvent = n.info.ext.ulEvent;
        s.payload.assign(n.info.ext.pbEventParameters, n.info.ext.pbEventParameters + n.info.ext.cb);
      } else if (n.ulEventType == fnevNewMail) {
        s.ulEvent = n.info.newmail.ulMessageFlags;
      }
      m_seen.push_back(s);
    }
    m_cv.notify_all();
    return result;
  }

  bool WaitForEvent(ULONG ulEvent) {
    std::unique_lock<std::mutex> lock(m_lock);
    return m_cv.wait_for(lock, kPatience, [&] {
      for (const Seen& s : m_seen)
        if (s.ulEvent == ulEvent) return true;
      return false;
    });
  }
  bool WaitFor(size_t count) {
    std::unique_lock<std::mutex> lock(m_lock);
    return m_cv.wait_for(lock, kPatience, [&] { return m_seen.size() >= count; });
  }
  std::vector<Seen> SeenSoFar() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_seen;
  }
  ULONG Refs() const { return m_refs; }
  int Calls() const { return m_calls; }

 private:
  virtual ~CTestSink() = default;
  std::atomic<ULONG> m_refs{1};
  std::atomic<int> m_calls{0};
  std::mutex m_lock;
  std::condition_variable m_cv;
  std::vector<Seen> m_seen;
};

// Holds one reference for the test and checks at the end that the engine gave its own back.
struct SinkRef {
  SinkRef() : p(new CTestSink) {}
  ~SinkRef() { p->Release(); }
  CTestSink* operator->() const { return p; }
  CTestSink* p;
};

NOTIFICATION Extended(ULONG ulEvent, std::vector<BYTE>* payload = nullptr) {
  NOTIFICATION n{};
  n.ulEventType = fnevExtended;
  n.info.ext.ulEvent = ulEvent;
  if (payload) n.info.ext = {ulEvent, ULONG(payload->size()), payload->data()};
  return n;
}

NOTIFICATION Object(ULONG type) {
  NOTIFICATION n{};
  n.ulEventType = type;
  n.info.obj.ulObjType = MAPI_FOLDER;
  return n;
}

HRESULT Send(CNotifyEngine& engine, const std::string& key, std::vector<NOTIFICATION> batch, ULONG* flagsOut = nullptr) {
  Key k(key);
  ULONG flags = 0;
  HRESULT hr = engine.Notify(k.Get(), ULONG(batch.size()), batch.data(), &flags);
  if (flagsOut) *flagsOut = flags;
  return hr;
}

ULONG Subscribe(CNotifyEngine& engine, const std::string& key, ULONG mask, CTestSink* sink, ULONG flags = 0) {
  Key k(key);
  ULONG connection = 0;
  EXPECT_EQ(engine.Subscribe(k.Get(), mask, flags, sink, &connection), S_OK);
  EXPECT_NE(connection, 0u);
  return connection;
}

std::string RuntimeDir(const adtest::TempHome& home) { return home.Home() + "/run/profile-a"; }

}  // namespace

TEST(NotifyEngine, DeliversByKeyAndMaskOnAnotherThreadInOrder) {
  adtest::TempHome home;
  CNotifyEngine& engine = CNotifyEngine::ForDirectory(RuntimeDir(home));
  EXPECT_EQ(&engine, &CNotifyEngine::ForDirectory(RuntimeDir(home) + "/"));
  SinkRef mailAndExt, objects, otherKey, longerKey;
  ULONG c1 = Subscribe(engine, "store", fnevNewMail | fnevExtended, mailAndExt.p);
  ULONG c2 = Subscribe(engine, "store", fnevObjectCreated, objects.p);
  ULONG c3 = Subscribe(engine, "folder", 0xFFFFFFFF, otherKey.p);
  ULONG c4 = Subscribe(engine, std::string("store\0", 6), 0xFFFFFFFF, longerKey.p);
  EXPECT_EQ(mailAndExt->Refs(), 2u);  // the engine holds one

  NOTIFICATION mail{};
  mail.ulEventType = fnevNewMail;
  mail.info.newmail.ulMessageFlags = 77;
  ASSERT_EQ(Send(engine, "store", {mail, Object(fnevObjectCreated), Extended(1), Object(fnevObjectDeleted)}), S_OK);
  for (ULONG i = 100; i < 300; ++i) ASSERT_EQ(Send(engine, "store", {Extended(i)}), S_OK);
  ASSERT_EQ(Send(engine, "store", {Object(fnevObjectCreated)}), S_OK);

  ASSERT_TRUE(mailAndExt->WaitFor(202));
  ASSERT_TRUE(objects->WaitFor(2));
  std::vector<Seen> seen = mailAndExt->SeenSoFar();
  ASSERT_EQ(seen.size(), 202u);
  EXPECT_EQ(seen[0].ulEventType, fnevNewMail);
  EXPECT_EQ(seen[0].ulEvent, 77u);
  EXPECT_EQ(seen[1].ulEventType, fnevExtended);
  EXPECT_EQ(seen[1].ulEvent, 1u);
  for (ULONG i = 0; i < 200; ++i) EXPECT_EQ(seen[2 + i].ulEvent, 100 + i);
  for (const Seen& s : seen) EXPECT_NE(s.thread, std::this_thread::get_id());
  // The first Notify reached the sink in one call holding both of its events.
  EXPECT_EQ(mailAndExt->Calls(), 201);
  std::vector<Seen> objs = objects->SeenSoFar();
  ASSERT_EQ(objs.size(), 2u);
  EXPECT_EQ(objs[0].ulEventType, fnevObjectCreated);
  EXPECT_EQ(objects->Calls(), 2);

  for (ULONG c : {c1, c2, c3, c4}) EXPECT_EQ(engine.Unsubscribe(c), S_OK);
  EXPECT_EQ(otherKey->Calls(), 0);
  EXPECT_EQ(longerKey->Calls(), 0);
  EXPECT_EQ(mailAndExt->Refs(), 1u);
  EXPECT_EQ(engine.Unsubscribe(c1), MAPI_E_NOT_FOUND);
  EXPECT_EQ(engine.Shutdown(), S_OK);
}

TEST(NotifyEngine, SinksGetOneMapiAllocationThatLivesForTheCall) {
  adtest::TempHome home;
  CNotifyEngine& engine = CNotifyEngine::ForDirectory(RuntimeDir(home));
  SinkRef sink;
  std::atomic<bool> valid{false};
  sink->hook = [&](ULONG cNotif, LPNOTIFICATION lpNotifications) {
    // A MAPI block the sink could free itself: MAPIFreeBuffer refuses anything else.
    bool wide = (lpNotifications[0].info.newmail.ulFlags & MAPI_UNICODE) != 0 &&
                std::u16string(reinterpret_cast<char16_t*>(lpNotifications[0].info.newmail.lpszMessageClass)) ==
                    u"IPM.Note.\u00FC" &&
                lpNotifications[0].info.newmail.cbEntryID == 3 &&
                std::memcmp(lpNotifications[0].info.newmail.lpEntryID, "\1\2\3", 3) == 0;
    valid = wide && cNotif == 1;
    return ULONG(0);
  };
  Subscribe(engine, "k", fnevNewMail, sink.p);
  std::u16string cls = u"IPM.Note.\u00FC";
  BYTE id[3] = {1, 2, 3};
  NOTIFICATION mail{};
  mail.ulEventType = fnevNewMail;
  mail.info.newmail.cbEntryID = 3;
  mail.info.newmail.lpEntryID = reinterpret_cast<LPENTRYID>(id);
  mail.info.newmail.lpszMessageClass = reinterpret_cast<LPTSTR>(cls.data());
  Key k("k");
  ULONG flags = MAPI_UNICODE;
  size_t before = adp::MapiLiveBlockCount();
  ASSERT_EQ(engine.Notify(k.Get(), 1, &mail, &flags), S_OK);
  id[0] = 9;  // the engine copied what it needs
  cls[0] = u'X';
  ASSERT_TRUE(sink->WaitFor(1));
  EXPECT_TRUE(valid);
  EXPECT_EQ(flags, 0u);
  EXPECT_EQ(engine.Shutdown(), S_OK);
  EXPECT_EQ(adp::MapiLiveBlockCount(), before);  // nothing left behind
}

TEST(NotifyEngine, UnsubscribeWaitsForTheRunningCallbackAndStopsDelivery) {
  adtest::TempHome home;
  CNotifyEngine& engine = CNotifyEngine::ForDirectory(RuntimeDir(home));
  SinkRef slow, marker;
  std::promise<void> entered, proceed;
  std::shared_future<void> go = proceed.get_future().share();
  std::atomic<bool> finished{false};
  std::atomic<int> calls{0};
  slow->hook = [&](ULONG, LPNOTIFICATION) {
    if (calls++ == 0) {
      entered.set_value();
      go.wait();
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      finished = true;
    }
    return ULONG(0);
  };
  ULONG connection = Subscribe(engine, "k", fnevExtended, slow.p);
  ULONG markerConnection = Subscribe(engine, "k", fnevExtended, marker.p);
  ASSERT_EQ(Send(engine, "k", {Extended(1)}), S_OK);
  ASSERT_EQ(Send(engine, "k", {Extended(2)}), S_OK);  // queued behind the running callback
  entered.get_future().wait();
  auto unsubscribed = std::async(std::launch::async, [&] {
    HRESULT hr = engine.Unsubscribe(connection);
    EXPECT_TRUE(finished) << "Unsubscribe returned while the callback ran";
    return hr;
  });
  EXPECT_EQ(unsubscribed.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  proceed.set_value();
  EXPECT_EQ(unsubscribed.get(), S_OK);
  EXPECT_EQ(slow->Refs(), 1u);
  // Anything sent later, and what was still queued, passes the unsubscribed sink by.
  ASSERT_EQ(Send(engine, "k", {Extended(3)}), S_OK);
  ASSERT_TRUE(marker->WaitFor(3));
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(engine.Unsubscribe(markerConnection), S_OK);
  EXPECT_EQ(engine.Shutdown(), S_OK);
}

TEST(NotifyEngine, UnsubscribeFromInsideTheCallbackReleasesAfterIt) {
  adtest::TempHome home;
  CNotifyEngine& engine = CNotifyEngine::ForDirectory(RuntimeDir(home));
  SinkRef self, marker;
  ULONG connection = 0;
  std::atomic<HRESULT> inside{E_FAIL};
  std::atomic<ULONG> refsInside{0};
  self->hook = [&](ULONG, LPNOTIFICATION) {
    inside = engine.Unsubscribe(connection);
    refsInside = self->Refs();  // still held: the engine releases once this returns
    return ULONG(0);
  };
  connection = Subscribe(engine, "k", fnevExtended, self.p);
  Subscribe(engine, "k", fnevExtended, marker.p);
  ASSERT_EQ(Send(engine, "k", {Extended(1)}), S_OK);
  ASSERT_EQ(Send(engine, "k", {Extended(2)}), S_OK);
  ASSERT_TRUE(marker->WaitFor(2));
  EXPECT_EQ(inside, S_OK);
  EXPECT_EQ(refsInside, 2u);
  EXPECT_EQ(self->Calls(), 1);
  EXPECT_EQ(self->Refs(), 1u);

  // The same from a synchronous callback, on the sender's own thread.
  SinkRef sync;
  ULONG syncConnection = 0;
  sync->hook = [&](ULONG, LPNOTIFICATION) {
    inside = engine.Unsubscribe(syncConnection);
    return ULONG(0);
  };
  syncConnection = Subscribe(engine, "s", fnevExtended, sync.p, NOTIFY_SYNC);
  ASSERT_EQ(Send(engine, "s", {Extended(1)}), S_OK);
  EXPECT_EQ(sync->Calls(), 1);  // before Notify returned
  EXPECT_EQ(inside, S_OK);
  EXPECT_EQ(sync->Refs(), 1u);
  EXPECT_EQ(engine.Shutdown(), S_OK);
  EXPECT_EQ(marker->Refs(), 1u);  // Shutdown gave back what was still subscribed
}

TEST(NotifyEngine, SynchronousSinksRunBeforeNotifyReturnsAndMayCancel) {
  adtest::TempHome home;
  CNotifyEngine& engine = CNotifyEngine::ForDirectory(RuntimeDir(home));
  SinkRef sync, async;
  std::atomic<bool> discontinue{false};
  sync->hook = [&](ULONG, LPNOTIFICATION) { return discontinue ? CALLBACK_DISCONTINUE : ULONG(0); };
  Subscribe(engine, "k", fnevExtended, sync.p, NOTIFY_SYNC);
  Subscribe(engine, "k", fnevExtended, async.p);
  ULONG flags = 0xFF;
  ASSERT_EQ(Send(engine, "k", {Extended(1)}, &flags), S_OK);
  EXPECT_EQ(flags, 0u);
  ASSERT_EQ(sync->SeenSoFar().size(), 1u);
  EXPECT_EQ(sync->SeenSoFar()[0].thread, std::this_thread::get_id());
  discontinue = true;
  ASSERT_EQ(Send(engine, "k", {Extended(2)}, &flags), S_OK);
  EXPECT_EQ(flags, NOTIFY_CANCELED);
  discontinue = false;
  ASSERT_EQ(Send(engine, "k", {Extended(3)}, &flags), S_OK);
  ASSERT_TRUE(async->WaitFor(2));
  std::vector<Seen> seen = async->SeenSoFar();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].ulEvent, 1u);
  EXPECT_EQ(seen[1].ulEvent, 3u);  // the cancelled one was not sent on
  EXPECT_EQ(engine.Shutdown(), S_OK);
}

TEST(NotifyEngine, BadArgumentsGetMapiErrors) {
  adtest::TempHome home;
  CNotifyEngine& engine = CNotifyEngine::ForDirectory(RuntimeDir(home));
  SinkRef sink;
  Key k("k");
  ULONG connection = 5;
  EXPECT_EQ(engine.Subscribe(nullptr, fnevNewMail, 0, sink.p, &connection), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(connection, 0u);
  EXPECT_EQ(engine.Subscribe(k.Get(), fnevNewMail, 0, nullptr, &connection), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(engine.Subscribe(k.Get(), fnevNewMail, 0, sink.p, nullptr), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(engine.Subscribe(k.Get(), 0, 0, sink.p, &connection), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(engine.Subscribe(k.Get(), fnevNewMail, 0x1, sink.p, &connection), MAPI_E_UNKNOWN_FLAGS);
  Key huge(std::string(70000, 'x'));
  EXPECT_EQ(engine.Subscribe(huge.Get(), fnevNewMail, 0, sink.p, &connection), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(sink->Refs(), 1u);  // no failed call kept a reference

  NOTIFICATION n = Extended(1);
  ULONG flags = 0;
  EXPECT_EQ(engine.Notify(nullptr, 1, &n, &flags), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(engine.Notify(k.Get(), 1, nullptr, &flags), MAPI_E_INVALID_PARAMETER);
  flags = 0x1;
  EXPECT_EQ(engine.Notify(k.Get(), 1, &n, &flags), MAPI_E_UNKNOWN_FLAGS);
  EXPECT_EQ(engine.Notify(k.Get(), 0, nullptr, nullptr), S_OK);
  NOTIFICATION unknown{};
  unknown.ulEventType = 0x400;
  EXPECT_EQ(engine.Notify(k.Get(), 1, &unknown, nullptr), MAPI_E_INVALID_PARAMETER);
  NOTIFICATION dangling = Extended(1);
  dangling.info.ext.cb = 16;  // bytes promised, none given
  EXPECT_EQ(engine.Notify(k.Get(), 1, &dangling, nullptr), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(engine.Unsubscribe(0), MAPI_E_NOT_FOUND);
  EXPECT_EQ(engine.Unsubscribe(0xFFFFFFF0), MAPI_E_NOT_FOUND);

  // A callback may not shut its own engine down.
  std::atomic<HRESULT> fromCallback{S_OK};
  sink->hook = [&](ULONG, LPNOTIFICATION) {
    fromCallback = engine.Shutdown();
    return ULONG(0);
  };
  Subscribe(engine, "k", fnevExtended, sink.p);
  ASSERT_EQ(Send(engine, "k", {Extended(1)}), S_OK);
  ASSERT_TRUE(sink->WaitFor(1));
  EXPECT_EQ(fromCallback, MAPI_E_BUSY);

  // Garbage on the process's socket is dropped; the next real message still arrives.
  std::vector<std::string> endpoints = adp::ipc::ListEndpoints(engine.SocketDirectory());
  ASSERT_EQ(endpoints.size(), 1u);
  std::vector<uint8_t> garbage = {'A', 'D', 'N', 'F', 1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  EXPECT_EQ(adp::ipc::SendMessage(endpoints[0], garbage.data(), garbage.size(), 1000), adp::ipc::SendStatus::Sent);
  EXPECT_EQ(adp::ipc::SendMessage(endpoints[0], nullptr, 0, 1000), adp::ipc::SendStatus::Sent);
  std::vector<uint8_t> valid;
  Key k2("k");
  NOTIFICATION remote = Extended(42);
  ASSERT_EQ(adm::EncodeNotifications(*k2.Get(), 0, 1, &remote, valid), S_OK);
  EXPECT_EQ(adp::ipc::SendMessage(endpoints[0], valid.data(), valid.size(), 1000), adp::ipc::SendStatus::Sent);
  ASSERT_TRUE(sink->WaitForEvent(42));
  EXPECT_EQ(engine.Shutdown(), S_OK);
  EXPECT_EQ(sink->Refs(), 1u);
  // And it starts again after a shutdown.
  ULONG again = Subscribe(engine, "k", fnevExtended, sink.p);
  EXPECT_EQ(engine.Unsubscribe(again), S_OK);
  EXPECT_EQ(engine.Shutdown(), S_OK);
}

// ---------------------------------------------------------------------------------------------
// Two processes. notify_child subscribes under "K" (new mail, extended, table) and sends back
// under "echo" each notification it gets; it says "ready" first and leaves on extended event
// 0xDEAD, exiting 0 when every callback ran on a thread other than its main one.

namespace {

constexpr ULONG kQuit = 0xDEAD;

struct Peer {
  explicit Peer(const std::string& dir) : engine(CNotifyEngine::ForDirectory(dir)), dir(dir) {
    Subscribe(engine, "ready", fnevExtended, ready.p);
    Subscribe(engine, "echo", 0xFFFFFFFF, echo.p);
  }
  ~Peer() { engine.Shutdown(); }
  std::unique_ptr<adtest::ChildProcess> Start() {
    size_t before = ready->SeenSoFar().size();
    auto child = std::make_unique<adtest::ChildProcess>("notify_child", std::vector<std::string>{dir});
    EXPECT_TRUE(ready->WaitFor(before + 1));
    return child;
  }
  CNotifyEngine& engine;
  std::string dir;
  SinkRef ready, echo;
};

}  // namespace

TEST(NotifyTwoProcesses, DeliveryByKeyAndMaskReachesTheOtherProcessExactly) {
  adtest::TempHome home;
  Peer peer(RuntimeDir(home));
  auto child = peer.Start();
  ASSERT_EQ(peer.ready->SeenSoFar().at(0).ulEvent, ULONG(child->Pid()));

  std::vector<BYTE> submit(272);
  for (size_t i = 0; i < submit.size(); ++i) submit[i] = BYTE(i * 31 + 7);
  std::vector<BYTE> receiveFolder(408, 0);
  std::memcpy(receiveFolder.data(), "IPM.Note", 8);
  NOTIFICATION mail{};
  mail.ulEventType = fnevNewMail;
  mail.info.newmail.ulMessageFlags = 0x21;
  ASSERT_EQ(Send(peer.engine, "K", {mail, Object(fnevObjectCreated), Extended(1, &submit)}), S_OK);
  ASSERT_EQ(Send(peer.engine, "other", {Extended(5)}), S_OK);  // nobody there listens to it
  ASSERT_EQ(Send(peer.engine, "K", {Object(fnevObjectModified), Extended(3, &receiveFolder)}), S_OK);
  for (ULONG i = 0; i < 100; ++i) ASSERT_EQ(Send(peer.engine, "K", {Extended(1000 + i)}), S_OK);
  ASSERT_EQ(Send(peer.engine, "K", {Extended(kQuit)}), S_OK);

  ASSERT_TRUE(peer.echo->WaitForEvent(kQuit));
  EXPECT_EQ(child->Wait(30000), 0);
  std::vector<Seen> seen = peer.echo->SeenSoFar();
  ASSERT_EQ(seen.size(), 104u);
  EXPECT_EQ(seen[0].ulEventType, fnevNewMail);
  EXPECT_EQ(seen[0].ulEvent, 0x21u);
  EXPECT_EQ(seen[1].ulEvent, 1u);
  EXPECT_EQ(seen[1].payload, submit);
  EXPECT_EQ(seen[2].ulEvent, 3u);
  EXPECT_EQ(seen[2].payload, receiveFolder);
  for (ULONG i = 0; i < 100; ++i) EXPECT_EQ(seen[3 + i].ulEvent, 1000 + i);
  EXPECT_EQ(seen[103].ulEvent, kQuit);
  for (const Seen& s : seen) EXPECT_NE(s.thread, std::this_thread::get_id());
}

TEST(NotifyTwoProcesses, AKilledOrStoppedSubscriberDoesNotHoldUpSenders) {
  adtest::TempHome home;
  Peer peer(RuntimeDir(home));
  auto victim = peer.Start();
  ASSERT_EQ(adp::ipc::ListEndpoints(peer.engine.SocketDirectory()).size(), 2u);
  victim->Kill();
  EXPECT_EQ(victim->Wait(30000), 128 + SIGKILL);
  // Its socket file is still there; the first send finds it dead and clears it away.
  ASSERT_EQ(adp::ipc::ListEndpoints(peer.engine.SocketDirectory()).size(), 2u);
  ASSERT_EQ(Send(peer.engine, "K", {Extended(1)}), S_OK);
  EXPECT_EQ(adp::ipc::ListEndpoints(peer.engine.SocketDirectory()).size(), 1u);

  // A process that stopped reading (its socket is here, nobody accepts): senders give up on it
  // after a short wait and then offer it only what the kernel takes at once.
  auto hung = adp::ipc::Endpoint::Bind(peer.engine.SocketDirectory(), 1);
  ASSERT_TRUE(hung);
  SinkRef local;
  Subscribe(peer.engine, "K", fnevExtended, local.p);
  for (ULONG i = 0; i < 50; ++i) ASSERT_EQ(Send(peer.engine, "K", {Extended(i)}), S_OK);
  ASSERT_TRUE(local->WaitFor(50));
  std::vector<uint8_t> got;
  ASSERT_EQ(hung->Receive(got, 10000), adp::ipc::ReceiveStatus::Message);  // the first went through whole
  hung.reset();

  // A stopped subscriber: sends go on, and what it missed does not block what follows.
  auto sleeper = peer.Start();
  ASSERT_EQ(kill(sleeper->Pid(), SIGSTOP), 0);
  for (ULONG i = 0; i < 300; ++i) ASSERT_EQ(Send(peer.engine, "K", {Extended(10 + i)}), S_OK);
  ASSERT_EQ(kill(sleeper->Pid(), SIGCONT), 0);
  ASSERT_EQ(Send(peer.engine, "K", {Extended(kQuit)}), S_OK);
  ASSERT_TRUE(peer.echo->WaitForEvent(kQuit));
  EXPECT_EQ(sleeper->Wait(30000), 0);
  std::vector<Seen> seen = peer.echo->SeenSoFar();
  ASSERT_FALSE(seen.empty());
  EXPECT_EQ(seen.back().ulEvent, kQuit);
  for (size_t i = 1; i < seen.size(); ++i) EXPECT_LT(seen[i - 1].ulEvent, seen[i].ulEvent);  // never reordered
}
