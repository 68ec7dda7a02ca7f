// Avahi on the daemon's run loop: an AvahiPoll over platform::RunLoop, one
// client kept alive across Avahi restarts, and one entry group per record.
#include "platform/linux/avahi_advertiser.h"

#include <avahi-client/client.h>
#include <avahi-client/publish.h>
#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/strlst.h>
#include <avahi-common/watch.h>
#include <sys/epoll.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <mutex>
#include <string>

#include "platform/log.h"

namespace platform {

namespace {

constexpr const char* kLogPrefix = "hubwardend: DNS-SD: ";
// How long to wait before trying again to reach the bus when there is none.
constexpr std::chrono::seconds kReconnectDelay{5};
// Browsers forget a withdrawn record one second after its goodbye; records
// published sooner than this after a withdrawal would show up there before
// the old one leaves, so they wait.
constexpr std::chrono::milliseconds kWithdrawalSettle{2000};
// Collisions on every name Avahi offers mean something else is wrong.
constexpr int kMaxNameAttempts = 20;

std::atomic<uint64_t> g_avahi_calls{0};

void counted() { g_avahi_calls.fetch_add(1, std::memory_order_relaxed); }

// ---- The poll adapter ----------------------------------------------------

uint32_t epoll_events_for(AvahiWatchEvent events) {
  uint32_t out = 0;
  if (events & AVAHI_WATCH_IN) out |= EPOLLIN;
  if (events & AVAHI_WATCH_OUT) out |= EPOLLOUT;
  return out;
}

AvahiWatchEvent avahi_events_for(uint32_t events) {
  int out = 0;
  if (events & EPOLLIN) out |= AVAHI_WATCH_IN;
  if (events & EPOLLOUT) out |= AVAHI_WATCH_OUT;
  if (events & EPOLLERR) out |= AVAHI_WATCH_ERR;
  if (events & EPOLLHUP) out |= AVAHI_WATCH_HUP;
  return static_cast<AvahiWatchEvent>(out);
}

RunLoop* loop_of(const AvahiPoll* api) { return static_cast<RunLoop*>(api->userdata); }

}  // namespace
}  // namespace platform

// Avahi declares these opaque; the adapter gives them their bodies.
struct AvahiWatch {
  platform::RunLoop* loop;
  int fd;
  AvahiWatchEvent events;
  AvahiWatchEvent revents;
  AvahiWatchCallback callback;
  void* userdata;
  platform::RunLoop::Id id;
};

struct AvahiTimeout {
  platform::RunLoop* loop;
  AvahiTimeoutCallback callback;
  void* userdata;
  platform::RunLoop::Id id;
};

namespace platform {
namespace {

void arm_watch(AvahiWatch* w) {
  w->id = 0;
  uint32_t events = epoll_events_for(w->events);
  // Errors and hang-ups are always reported; a watch for nothing else
  // still needs them to see the bus go away.
  w->id = w->loop->watch_fd(w->fd, events, [w](uint32_t ready) {
    w->revents = avahi_events_for(ready);
    // The callback may free w; nothing touches it afterwards.
    w->callback(w, w->fd, w->revents, w->userdata);
  });
}

AvahiWatch* watch_new(const AvahiPoll* api, int fd, AvahiWatchEvent events, AvahiWatchCallback callback,
                      void* userdata) {
  auto* w = new AvahiWatch{loop_of(api), fd, events, static_cast<AvahiWatchEvent>(0), callback, userdata, 0};
  arm_watch(w);
  if (w->id == 0) {
    delete w;
    return nullptr;
  }
  return w;
}

void watch_update(AvahiWatch* w, AvahiWatchEvent events) {
  if (w->events == events) return;
  w->loop->cancel(w->id);
  w->events = events;
  arm_watch(w);
}

AvahiWatchEvent watch_get_events(AvahiWatch* w) { return w->revents; }

void watch_free(AvahiWatch* w) {
  w->loop->cancel(w->id);
  delete w;
}

void arm_timeout(AvahiTimeout* t, const struct timeval* tv) {
  t->loop->cancel(t->id);
  t->id = 0;
  if (!tv) return;
  // Avahi's deadlines are wall-clock times of gettimeofday.
  struct timeval now;
  gettimeofday(&now, nullptr);
  int64_t delay_us = (int64_t{tv->tv_sec} - now.tv_sec) * 1000000 + (tv->tv_usec - now.tv_usec);
  if (delay_us < 0) delay_us = 0;
  auto delay = std::chrono::milliseconds((delay_us + 999) / 1000);
  t->id = t->loop->add_timer(delay, [t] {
    t->id = 0;
    t->callback(t, t->userdata);
  });
}

AvahiTimeout* timeout_new(const AvahiPoll* api, const struct timeval* tv, AvahiTimeoutCallback callback,
                          void* userdata) {
  auto* t = new AvahiTimeout{loop_of(api), callback, userdata, 0};
  arm_timeout(t, tv);
  return t;
}

void timeout_update(AvahiTimeout* t, const struct timeval* tv) { arm_timeout(t, tv); }

void timeout_free(AvahiTimeout* t) {
  t->loop->cancel(t->id);
  delete t;
}

// ---- The advertiser ------------------------------------------------------

struct Record {
  std::string type;
  uint16_t port = 0;
  std::optional<TxtRecord> txt;
  Advertiser::FailureHandler did_not_publish;
  std::string name;  // empty until first published: Avahi's host name
  AvahiEntryGroup* group = nullptr;
  bool committed = false;
  bool failed = false;
};

// Everything the loop thread works on, shared with the handles and the
// posted work so that both may outlive the advertiser.
class Core {
 public:
  explicit Core(RunLoop* loop) : loop_(loop) {
    poll_.userdata = loop;
    poll_.watch_new = watch_new;
    poll_.watch_update = watch_update;
    poll_.watch_get_events = watch_get_events;
    poll_.watch_free = watch_free;
    poll_.timeout_new = timeout_new;
    poll_.timeout_update = timeout_update;
    poll_.timeout_free = timeout_free;
  }

  // Any thread: hands work to the loop unless the advertiser is closed.
  bool post(std::function<void()> work) {
    std::lock_guard<std::mutex> lock(mu_);
    if (closed_) return false;
    return loop_->post(std::move(work));
  }

  // Any thread: no more work is posted; returns whether it was open.
  bool close() {
    std::lock_guard<std::mutex> lock(mu_);
    bool was_open = !closed_;
    closed_ = true;
    return was_open;
  }
  RunLoop* loop() const { return loop_; }

  // ---- loop thread from here on ----

  void add(uint64_t id, Record record) {
    if (torn_down_) return;
    Record& r = records_[id] = std::move(record);
    if (!client_ && reconnect_timer_ == 0) connect();
    if (client_ && avahi_client_get_state(client_) == AVAHI_CLIENT_S_RUNNING) publish(id, r);
  }

  void remove(uint64_t id) {
    auto it = records_.find(id);
    if (it == records_.end()) return;
    if (it->second.group) {
      if (it->second.committed) hold_until_ = std::chrono::steady_clock::now() + kWithdrawalSettle;
      counted();
      avahi_entry_group_free(it->second.group);
    }
    records_.erase(it);
  }

  void tear_down() {
    if (torn_down_) return;
    torn_down_ = true;
    loop_->cancel(reconnect_timer_);
    loop_->cancel(hold_timer_);
    reconnect_timer_ = hold_timer_ = 0;
    for (auto& [id, r] : records_) r.group = nullptr;  // freed with the client
    if (client_) {
      counted();
      avahi_client_free(client_);
      client_ = nullptr;
    }
    records_.clear();
  }

 private:
  void connect() {
    int error = 0;
    counted();
    // NO_FAIL: with the daemon absent the client waits for it instead of
    // failing; only a missing bus fails here.
    AvahiClient* c = avahi_client_new(&poll_, AVAHI_CLIENT_NO_FAIL, &Core::on_client, this, &error);
    if (!c) {
      report_down(std::string("cannot reach the system bus: ") + avahi_strerror(error));
      reconnect_timer_ = loop_->add_timer(kReconnectDelay, [this] {
        reconnect_timer_ = 0;
        if (!torn_down_ && !client_ && !records_.empty()) connect();
      });
      return;
    }
    client_ = c;
  }

  void report_down(const std::string& why) {
    if (down_reported_) return;
    down_reported_ = true;
    log_error(std::string(kLogPrefix) + "Avahi is not available (" + why + "); records will be published when it is");
  }

  static void on_client(AvahiClient* c, AvahiClientState state, void* self) {
    static_cast<Core*>(self)->client_changed(c, state);
  }

  void client_changed(AvahiClient* c, AvahiClientState state) {
    if (torn_down_) return;
    client_ = c;  // also reached from inside avahi_client_new, before it returns
    switch (state) {
      case AVAHI_CLIENT_S_RUNNING:
        if (down_reported_) log_notice(std::string(kLogPrefix) + "Avahi is available again");
        down_reported_ = false;
        publish_pending();
        break;
      case AVAHI_CLIENT_S_COLLISION:
      case AVAHI_CLIENT_S_REGISTERING:
        // The host name is being (re)chosen: records go back to waiting and
        // are published again once the server runs.
        for (auto& [id, r] : records_) {
          if (r.group) {
            counted();
            avahi_entry_group_reset(r.group);
          }
          r.committed = false;
        }
        break;
      case AVAHI_CLIENT_CONNECTING:
        report_down("the daemon is not running");
        break;
      case AVAHI_CLIENT_FAILURE:
        if (avahi_client_errno(c) == AVAHI_ERR_DISCONNECTED) {
          report_down("the daemon went away");
          // Not from inside the client's own callback: free it and start
          // over from the loop.
          loop_->post([this, c] { restart(c); });
        } else {
          report_down(avahi_strerror(avahi_client_errno(c)));
        }
        break;
    }
  }

  void restart(AvahiClient* c) {
    if (torn_down_ || client_ != c) return;
    for (auto& [id, r] : records_) {
      r.group = nullptr;  // freed with the client
      r.committed = false;
    }
    counted();
    avahi_client_free(c);
    client_ = nullptr;
    connect();
  }

  static void on_group(AvahiEntryGroup* g, AvahiEntryGroupState state, void* self) {
    static_cast<Core*>(self)->group_changed(g, state);
  }

  void group_changed(AvahiEntryGroup* g, AvahiEntryGroupState state) {
    if (torn_down_) return;
    for (auto& [id, r] : records_) {
      if (r.group != g) continue;
      if (state == AVAHI_ENTRY_GROUP_COLLISION) {
        rename(r);
        counted();
        avahi_entry_group_reset(g);
        r.committed = false;
        publish(id, r);
      } else if (state == AVAHI_ENTRY_GROUP_FAILURE) {
        fail(r, avahi_strerror(avahi_client_errno(client_)));
      }
      return;
    }
  }

  void rename(Record& r) {
    char* next = avahi_alternative_service_name(r.name.c_str());
    if (next) {
      log_notice(std::string(kLogPrefix) + "name \"" + r.name + "\" of " + r.type + " taken; using \"" + next + "\"");
      r.name = next;
      avahi_free(next);
    }
  }

  void fail(Record& r, const std::string& description) {
    r.failed = true;
    if (r.did_not_publish) r.did_not_publish(description);
  }

  // Publishes every record not on the network yet, once withdrawals have
  // had time to reach browsers.
  void publish_pending() {
    if (!client_ || avahi_client_get_state(client_) != AVAHI_CLIENT_S_RUNNING) return;
    for (auto& [id, r] : records_)
      if (!r.committed) publish(id, r);
  }

  void publish(uint64_t, Record& r) {
    if (r.failed || r.committed) return;
    auto now = std::chrono::steady_clock::now();
    if (now < hold_until_) {
      if (hold_timer_ == 0) {
        auto wait =
            std::chrono::duration_cast<std::chrono::milliseconds>(hold_until_ - now) + std::chrono::milliseconds(1);
        hold_timer_ = loop_->add_timer(wait, [this] {
          hold_timer_ = 0;
          if (!torn_down_) publish_pending();
        });
      }
      return;
    }
    if (!r.group) {
      counted();
      r.group = avahi_entry_group_new(client_, &Core::on_group, this);
      if (!r.group) return fail(r, avahi_strerror(avahi_client_errno(client_)));
    }
    if (r.name.empty()) {
      const char* host = avahi_client_get_host_name(client_);
      r.name = host ? host : "hubwarden";
    }
    AvahiStringList* txt = nullptr;
    if (r.txt) {
      // Avahi's lists grow at the front; adding from the back keeps order.
      for (auto it = r.txt->rbegin(); it != r.txt->rend(); ++it)
        txt = avahi_string_list_add_pair_arbitrary(
            txt, it->key.c_str(), reinterpret_cast<const uint8_t*>(it->value.data()), it->value.size());
    }
    int rc = AVAHI_ERR_COLLISION;
    for (int attempt = 0; rc == AVAHI_ERR_COLLISION && attempt < kMaxNameAttempts; ++attempt) {
      if (attempt > 0) rename(r);
      counted();
      rc = avahi_entry_group_add_service_strlst(r.group, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, AvahiPublishFlags(0),
                                                r.name.c_str(), r.type.c_str(), nullptr, nullptr, r.port, txt);
    }
    avahi_string_list_free(txt);
    if (rc < 0) return fail(r, avahi_strerror(rc));
    counted();
    rc = avahi_entry_group_commit(r.group);
    if (rc < 0) return fail(r, avahi_strerror(rc));
    r.committed = true;
  }

  RunLoop* const loop_;
  std::mutex mu_;
  bool closed_ = false;  // guarded by mu_

  AvahiPoll poll_{};
  AvahiClient* client_ = nullptr;
  std::map<uint64_t, Record> records_;  // by handle number, oldest first
  RunLoop::Id reconnect_timer_ = 0;
  RunLoop::Id hold_timer_ = 0;
  std::chrono::steady_clock::time_point hold_until_{};
  bool down_reported_ = false;
  bool torn_down_ = false;
};

class AvahiRecord : public PublishedRecord {
 public:
  AvahiRecord(std::shared_ptr<Core> core, uint64_t id) : core_(std::move(core)), id_(id) {}
  ~AvahiRecord() override {
    if (core_) core_->post([core = core_, id = id_] { core->remove(id); });
  }

 private:
  const std::shared_ptr<Core> core_;
  const uint64_t id_;
};

class AvahiAdvertiser : public Advertiser {
 public:
  explicit AvahiAdvertiser(RunLoop* loop) : core_(std::make_shared<Core>(loop)) {}

  ~AvahiAdvertiser() override {
    if (!core_->close()) return;
    RunLoop* loop = core_->loop();
    if (loop->in_loop_thread()) {
      core_->tear_down();
      return;
    }
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    if (!loop->post([core = core_, done] {
          core->tear_down();
          done->set_value();
        })) {
      // The loop has stopped for good: nothing else runs Avahi now.
      core_->tear_down();
      return;
    }
    if (finished.wait_for(std::chrono::seconds(2)) != std::future_status::ready)
      log_error(std::string(kLogPrefix) + "the run loop did not withdraw the records in time");
  }

  std::unique_ptr<PublishedRecord> publish(const std::string& type, uint16_t port, const std::optional<TxtRecord>& txt,
                                           FailureHandler did_not_publish) override {
    uint64_t id = next_id_.fetch_add(1);
    Record r;
    r.type = type;
    r.port = port;
    r.txt = txt;
    r.did_not_publish = std::move(did_not_publish);
    if (!core_->post([core = core_, id, r = std::move(r)]() mutable { core->add(id, std::move(r)); }))
      return std::make_unique<AvahiRecord>(nullptr, id);
    return std::make_unique<AvahiRecord>(core_, id);
  }

 private:
  std::shared_ptr<Core> core_;
  std::atomic<uint64_t> next_id_{1};
};

// Without a run loop there is nobody to drive Avahi.
class InertRecord : public PublishedRecord {};

class LooplessAdvertiser : public Advertiser {
 public:
  std::unique_ptr<PublishedRecord> publish(const std::string& type, uint16_t, const std::optional<TxtRecord>&,
                                           FailureHandler) override {
    std::call_once(logged_, [&] {
      log_notice(std::string(kLogPrefix) + "not published (" + type + "): only the daemon advertises");
    });
    return std::make_unique<InertRecord>();
  }

 private:
  std::once_flag logged_;
};

}  // namespace

std::unique_ptr<Advertiser> make_avahi_advertiser(RunLoop* loop) {
  if (!loop) return std::make_unique<LooplessAdvertiser>();
  return std::make_unique<AvahiAdvertiser>(loop);
}

uint64_t avahi_call_count() { return g_avahi_calls.load(std::memory_order_relaxed); }

}  // namespace platform
