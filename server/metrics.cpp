// SPDX-License-Identifier: Apache-2.0
#include "server/metrics.h"

#include <array>
#include <cstdio>

namespace zem::server {
namespace {

std::string numberText(double value) {
  std::array<char, 40> text{};
  std::snprintf(text.data(), text.size(), "%.9g", value);
  return text.data();
}

std::string typeLine(const std::string& name, const char* type, const char* help) {
  return "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

std::string metric(const std::string& name, const char* type, const char* help, double value) {
  return typeLine(name, type, help) + name + " " + numberText(value) + "\n";
}

std::string histogram(const std::string& name, const char* help, const SecondsHistogram& times) {
  std::string text = typeLine(name, "histogram", help);
  uint64_t count = 0;
  for (size_t i = 0; i < times.counts().size(); ++i) {
    count += times.counts()[i];
    const bool last = i == SecondsHistogram::kBounds.size();
    const std::string bound = last ? "+Inf" : numberText(SecondsHistogram::kBounds[i]);
    text.append(name).append("_bucket{le=\"").append(bound).append("\"} ");
    text.append(std::to_string(count)).append("\n");
  }
  text += name + "_sum " + numberText(times.sum()) + "\n";
  return text + name + "_count " + std::to_string(count) + "\n";
}

}  // namespace

void Metrics::countReply(const End& end) {
  ++replies_[end.reason];
  promptTokens_ += end.usage.prompt;
  reusedTokens_ += end.usage.reused;
  generatedTokens_ += end.usage.generated;
  hits_ += end.usage.reused > 0 ? 1 : 0;
  promptSeconds_ += end.usage.promptSeconds;
  generateSeconds_ += end.usage.generateSeconds;
  waitSeconds_.add(end.usage.waitedSeconds);
}

std::string Metrics::text(const Engine::Load& load, size_t connections) const {
  std::string text = typeLine("zem_http_answers_total", "counter", "Answers by status.");
  for (const auto& [status, count] : answers_) {
    text += "zem_http_answers_total{status=\"" + std::to_string(status) + "\"} " +
            std::to_string(count) + "\n";
  }
  text += typeLine("zem_replies_total", "counter", "Replies of the model by why they ended.");
  for (const auto& [reason, count] : replies_) {
    text += "zem_replies_total{reason=\"" + std::string(nameOf(reason)) + "\"} " +
            std::to_string(count) + "\n";
  }
  const auto add = [&](const char* name, const char* type, const char* help, auto value) {
    text += metric(name, type, help, static_cast<double>(value));
  };
  add("zem_prompt_tokens_total", "counter", "Tokens of prompts.", promptTokens_);
  add("zem_prompt_tokens_reused_total", "counter", "Tokens of prompts that were kept.",
      reusedTokens_);
  add("zem_prompt_seconds_total", "counter", "Seconds until first tokens.", promptSeconds_);
  add("zem_predicted_tokens_total", "counter", "Tokens of replies.", generatedTokens_);
  add("zem_predicted_seconds_total", "counter", "Seconds from first tokens on.", generateSeconds_);
  add("zem_cache_hits_total", "counter", "Replies whose prompt was kept in part.", hits_);
  add("zem_cache_states", "gauge", "States that are kept.", load.keptStates);
  add("zem_cache_bytes", "gauge", "Bytes of states that are kept.", load.keptBytes);
  add("zem_cache_evictions_total", "counter", "States that had to give way to others.",
      load.evictions);
  add("zem_requests_processing", "gauge", "Replies that are computed.", load.running);
  add("zem_requests_deferred", "gauge", "Replies that wait for a place.", load.waiting);
  add("zem_connections", "gauge", "Open connections.", connections);
  text += histogram("zem_queue_seconds", "Seconds that replies waited for a place.", waitSeconds_);
  text +=
      histogram("zem_token_seconds", "Seconds from a token of a reply to the next.", tokenSeconds_);
  return text +
         histogram("zem_step_seconds", "Seconds that the model took for a batch.", load.steps);
}

}  // namespace zem::server
