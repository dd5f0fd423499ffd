#include "vantrel/service/monitorendpoint.h"

#include <httplib.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>
#include <vector>

#include "vantrel/base/log/log.h"
#include "vantrel/base/platform/socket.h"
#include "vantrel/base/platform/thread.h"

namespace vantrel::monitor {

namespace {
constexpr std::size_t kWorkers = 2;
// Connections that may wait for a worker; beyond that the accept thread
// serves the next one itself, which holds further clients back in the
// listener's backlog instead of in memory.
constexpr std::size_t kMaxQueued = 32;
// A client of the endpoint gets this long for each read and write.
constexpr time_t kIoTimeoutSeconds = 2;
constexpr std::size_t kMaxKeepAliveRequests = 16;
constexpr std::size_t kMaxBody = 4096;
constexpr const char* kJson = "application/json";
constexpr const char* kPrometheus = "text/plain; version=0.0.4; charset=utf-8";
constexpr const char* kText = "text/plain; charset=utf-8";

// The workers that serve the endpoint's connections. Owner: the HTTP server,
// which shuts it down (every queued connection is still served, so each is
// closed) before deleting it. Threads: enqueue on the accept thread, the
// workers take; one mutex guards the queue and the shutdown mark.
class cWorkerPool : public httplib::TaskQueue {
 public:
  cWorkerPool() {
    for (std::size_t i = 0; i < kWorkers; ++i) {
      workers_.push_back(std::make_unique<vantrel::platform::cThread>());
      workers_.back()->Start([this] { work(); }, "VTMonWork", "cMonitorEndpoint:Worker");
    }
  }
  ~cWorkerPool() override { shutdown(); }

  void enqueue(std::function<void()> task) override {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      if (!stopping_ && queue_.size() < kMaxQueued) {
        queue_.push_back(std::move(task));
        wake_.notify_one();
        return;
      }
    }
    task();
  }

  void shutdown() override {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      stopping_ = true;
    }
    wake_.notify_all();
    for (auto& worker : workers_) worker->Join();
  }

 private:
  void work() {
    for (;;) {
      std::function<void()> task;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
        if (queue_.empty()) return;
        task = std::move(queue_.front());
        queue_.pop_front();
      }
      task();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> queue_;  // guarded by mutex_
  bool stopping_ = false;                    // guarded by mutex_
  std::vector<std::unique_ptr<vantrel::platform::cThread>> workers_;
};
}  // namespace

// The HTTP server and the thread that accepts for it.
class cMonitorEndpoint::cServer {
 public:
  httplib::Server http;
  vantrel::platform::cThread acceptor;
};

cMonitorEndpoint::cMonitorEndpoint(std::shared_ptr<const vantrel::stats::cServiceStats> stats,
                                   std::function<bool()> healthy)
    : stats_(std::move(stats)), healthy_(std::move(healthy)) {}

cMonitorEndpoint::~cMonitorEndpoint() { Stop(); }

bool cMonitorEndpoint::Start(const std::string& address, unsigned short port, cServiceIdentity identity,
                             std::string& error) {
  auto server = std::make_unique<cServer>();
  httplib::Server& http = server->http;
  http.new_task_queue = [] { return new cWorkerPool(); };
  // Exclusive: the library would share the port with a second service
  // otherwise. Close-on-exec: a relaunched successor must be able to bind it.
  http.set_socket_options([](socket_t socket) {
    vantrel::platform::gSetReuseAddress(socket);
    vantrel::platform::gSetCloseOnExec(socket);
  });
  http.set_read_timeout(kIoTimeoutSeconds, 0);
  http.set_write_timeout(kIoTimeoutSeconds, 0);
  http.set_keep_alive_timeout(kIoTimeoutSeconds);
  http.set_keep_alive_max_count(kMaxKeepAliveRequests);
  http.set_payload_max_length(kMaxBody);

  int bound = -1;
  if (port == 0) {
    bound = http.bind_to_any_port(address);
  } else if (http.bind_to_port(address, port)) {
    bound = port;
  }
  if (bound <= 0) {
    error = "cannot listen on " + address + " port " + std::to_string(port) + ": " +
            vantrel::platform::gLastSocketError().Text();
    return false;
  }
  // The identity's port as bound (a free one was asked for with 0).
  identity.monitorPort = static_cast<unsigned short>(bound);
  auto shared = std::make_shared<const cServiceIdentity>(std::move(identity));
  const auto stats = stats_;
  const auto healthy = healthy_;
  http.Get("/healthz", [healthy](const httplib::Request&, httplib::Response& response) {
    const bool serving = !healthy || healthy();
    response.status = serving ? 200 : 503;
    response.set_content(serving ? "ok\n" : "stopping\n", kText);
  });
  http.Get("/status", [stats, shared](const httplib::Request&, httplib::Response& response) {
    response.set_content(gStatusJson(*shared, stats->Snapshot()), kJson);
  });
  http.Get("/metrics", [stats, shared](const httplib::Request&, httplib::Response& response) {
    response.set_content(gMetricsText(*shared, stats->Snapshot()), kPrometheus);
  });
  http.set_error_handler([](const httplib::Request& request, httplib::Response& response) {
    // Paths are not echoed: the body is the status's reason only.
    const char* reason = response.status == 404 ? "not found; try /healthz, /status or /metrics\n" : "bad request\n";
    response.set_content(reason, kText);
    VLOG_DEBUG("cMonitorEndpoint - %s %s from %s answered %d", vantrel::log::Escaped(request.method),
               vantrel::log::Escaped(request.path), vantrel::log::Escaped(request.remote_addr), response.status);
  });

  server->acceptor.Start([&http] { http.listen_after_bind(); }, "VTMonitor", "cMonitorEndpoint:Acceptor");
  port_ = static_cast<unsigned short>(bound);
  server_ = std::move(server);
  return true;
}

void cMonitorEndpoint::Stop() {
  if (server_ == nullptr) return;
  // A stop that comes before the accept loop has begun would be missed: wait
  // for the loop (or for the thread's end, when it could not run).
  while (!server_->http.is_running() && !server_->acceptor.JoinFor(nTime::cDiff::FromMilliseconds(1))) {
  }
  server_->http.stop();
  server_->acceptor.Join();
  server_.reset();
  port_ = 0;
}

}  // namespace vantrel::monitor
