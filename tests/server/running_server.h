// SPDX-License-Identifier: Apache-2.0
// A server with a tiny model, on a port of its own.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "engine/engine.h"
#include "engine/model/shaped_model.h"
#include "server/http_client.h"
#include "server/server.h"

namespace zemtest {

class RunningServer {
 public:
  explicit RunningServer(zem::EngineOptions engine = {}, zem::server::ServerOptions options = {}) {
    engine.threads = 1;
    if (engine.chatFormat.empty()) engine.chatFormat = "qwen3.5";
    writeShapedModel(file_, smallArchitecture());
    kiv::Status status = zem::Engine::open(file_.string(), engine, engine_);
    if (!status.ok()) throw std::runtime_error(status.message());
    options.transport.port = 0;
    options.name = "tiny";
    options.metrics = true;
    options.log = [this](const std::string& line) {
      const std::lock_guard lock(mutex_);
      log_.push_back(line);
    };
    status = zem::server::Server::open(*engine_, options, server_);
    if (!status.ok()) throw std::runtime_error(status.message());
    thread_ = std::thread([this] { server_->run(/*signals=*/false); });
  }
  ~RunningServer() {
    server_->stop();
    if (thread_.joinable()) thread_.join();
  }

  uint16_t port() const { return server_->port(); }
  zem::server::Server& server() { return *server_; }
  zem::Engine& engine() const { return *engine_; }
  void join() { thread_.join(); }

  HttpAnswer get(const std::string& path, const std::string& headers = {}) const {
    return HttpClient(port()).ask(HttpClient::get(path, headers));
  }
  HttpAnswer post(const std::string& path, const nlohmann::json& body,
                  const std::string& headers = {}) const {
    return HttpClient(port()).ask(HttpClient::post(path, body.dump(), headers));
  }
  std::vector<std::string> log() {
    const std::lock_guard lock(mutex_);
    return log_;
  }
  // The value of a metric.
  double metric(const std::string& name) const {
    const std::string text = get("/metrics").body;
    const size_t at = text.find("\n" + name + " ");
    return at == std::string::npos ? 0.0 : std::stod(text.substr(at + name.size() + 2));
  }
  // Waits until nothing is computed any more.
  void waitForIdle() const {
    while (engine_->load().running + engine_->load().waiting > 0) std::this_thread::yield();
  }

 private:
  TempFile file_;
  std::mutex mutex_;
  std::vector<std::string> log_;
  std::unique_ptr<zem::Engine> engine_;
  std::unique_ptr<zem::server::Server> server_;
  std::thread thread_;
};

}  // namespace zemtest
