// SPDX-License-Identifier: Apache-2.0
#include "bench/report.h"

#include <cmath>
#include <nlohmann/json.hpp>
#include <numeric>
#include <utility>

#include "console/terminal.h"
#include "console/text.h"

namespace zemtool {
namespace {

using nlohmann::ordered_json;

double deviation(const std::vector<double>& numbers) {
  if (numbers.size() < 2) return 0;
  const double centre = mean(numbers);
  double squares = 0;
  for (const double number : numbers) squares += (number - centre) * (number - centre);
  return std::sqrt(squares / static_cast<double>(numbers.size() - 1));
}

// Bytes of weights per second. The tokens of a prompt may share one reading of the weights, so
// a prompt has no such number. Sequences together share each reading.
std::optional<double> weightRate(const BenchSubject& subject, const BenchRow& row) {
  if (row.test.kind == BenchTest::Kind::Prompt) return std::nullopt;
  return mean(row.rates) / row.test.sequences * static_cast<double>(subject.weights.bytesPerToken);
}

// The share of the memory's read speed. A device reads its own memory, so it has none.
std::optional<double> readShare(const BenchSubject& subject, const BenchRow& row) {
  const std::optional<double> rate = weightRate(subject, row);
  if (!rate || !row.readSpeed || subject.backend != "CPU") return std::nullopt;
  return *rate / *row.readSpeed;
}

std::optional<double> gigabytes(const std::optional<double>& bytes) {
  return bytes ? std::optional(*bytes / 1e9) : std::nullopt;
}

std::string gibibytes(uint64_t bytes) {
  return formatNumber(static_cast<double>(bytes) / (1024.0 * 1024 * 1024), 3);
}

// "4.21 B", "35.2 M", "1290"
std::string formatCount(uint64_t count) {
  const auto value = static_cast<double>(count);
  if (value >= 1e9) return formatNumber(value / 1e9, 2) + " B";
  if (value >= 1e6) return formatNumber(value / 1e6, 2) + " M";
  return std::to_string(count);
}

std::string markdownCell(const std::string& text) {
  std::string cell;
  for (const char c : escapeControls(text))
    cell += c == '|' ? std::string("\\|") : std::string(1, c);
  return cell;
}

std::string markdownCell(const std::optional<double>& number, const char* unit = "") {
  return number ? formatNumber(*number, 2) + unit : "-";
}

void printMarkdownHead(const BenchSubject& subject) {
  const bool engine = subject.engine;
  writeOut(std::string("| model | size | params | backend | threads |") +
           (engine ? " math |" : "") + " test | t/s |" + (engine ? " each |" : "") + " GB/s |" +
           (subject.roofline ? " read GB/s | share |" : "") + "\n|---|---:|---:|---|---:|" +
           (engine ? "---|" : "") + "---|---:|" + (engine ? "---:|" : "") + "---:|" +
           (subject.roofline ? "---:|---:|" : "") + "\n");
}

void printMarkdown(const BenchSubject& subject, const BenchRow& row) {
  std::string line = "| " + markdownCell(subject.model) + " | " + gibibytes(subject.weights.bytes) +
                     " GiB | " + formatCount(subject.weights.elements) + " | " +
                     markdownCell(subject.backend) + " | " + std::to_string(row.threads) + " | " +
                     (subject.engine ? row.math + " | " : "") + row.test.name() + " | " +
                     formatNumber(mean(row.rates), 2) + " ± " +
                     formatNumber(deviation(row.rates), 2) + " | ";
  if (subject.engine) line += formatNumber(mean(row.rates) / row.test.sequences, 2) + " | ";
  line += markdownCell(gigabytes(weightRate(subject, row))) + " |";
  if (subject.roofline) {
    std::optional<double> percent = readShare(subject, row);
    if (percent) *percent *= 100;
    line +=
        " " + markdownCell(gigabytes(row.readSpeed)) + " | " + markdownCell(percent, " %") + " |";
  }
  writeOut(line + "\n");
}

std::string csvCell(const std::string& text) {
  std::string cell = "\"";
  for (const char c : text) cell += c == '"' ? std::string("\"\"") : std::string(1, c);
  return cell + "\"";
}

std::string csvCell(const std::optional<double>& number) {
  return number ? formatNumber(*number, 6) : "";
}

void printCsvHead(const BenchSubject& subject) {
  writeOut(std::string("model,weight_bytes,params,backend,threads,test,tokens_per_second,"
                       "deviation,gigabytes_per_second") +
           (subject.engine ? ",math,sequences" : "") +
           (subject.roofline ? ",read_gigabytes_per_second,read_share" : "") + "\n");
}

void printCsv(const BenchSubject& subject, const BenchRow& row) {
  std::string line = csvCell(subject.model) + "," + std::to_string(subject.weights.bytes) + "," +
                     std::to_string(subject.weights.elements) + "," + csvCell(subject.backend) +
                     "," + std::to_string(row.threads) + "," + row.test.name() + "," +
                     formatNumber(mean(row.rates), 6) + "," +
                     formatNumber(deviation(row.rates), 6) + "," +
                     csvCell(gigabytes(weightRate(subject, row)));
  if (subject.engine) line += "," + row.math + "," + std::to_string(row.test.sequences);
  if (subject.roofline) {
    line += "," + csvCell(gigabytes(row.readSpeed)) + "," + csvCell(readShare(subject, row));
  }
  writeOut(line + "\n");
}

ordered_json orNull(const std::optional<double>& number) {
  return number ? ordered_json(*number) : ordered_json(nullptr);
}

ordered_json measured(const BenchSubject& subject, const BenchRow& row) {
  ordered_json json = {{"threads", row.threads},
                       {"test", row.test.name()},
                       {"tokens_per_second", mean(row.rates)},
                       {"deviation", deviation(row.rates)},
                       {"repetitions", row.rates},
                       {"gigabytes_per_second", orNull(gigabytes(weightRate(subject, row)))}};
  if (subject.engine) {
    json["math"] = row.math;
    json["sequences"] = row.test.sequences;
  }
  if (subject.roofline) {
    json["read_gigabytes_per_second"] = orNull(gigabytes(row.readSpeed));
    json["read_share"] = orNull(readShare(subject, row));
  }
  return json;
}

ordered_json testOf(const BenchSubject& subject, const BenchRow& row) {
  ordered_json json = measured(subject, row);
  json["kind"] = row.test.kind == BenchTest::Kind::Prompt ? "prompt" : "decode";
  json["tokens"] = row.test.tokens;
  json["depth"] = row.test.depth;
  return json;
}

}  // namespace

double mean(const std::vector<double>& numbers) {
  return std::accumulate(numbers.begin(), numbers.end(), 0.0) / static_cast<double>(numbers.size());
}

void BenchReport::add(const BenchSubject& subject, const BenchRow& row) {
  if (format_ == "md") {
    if (rows_.empty()) printMarkdownHead(subject);
    printMarkdown(subject, row);
  } else if (format_ == "csv") {
    if (rows_.empty()) printCsvHead(subject);
    printCsv(subject, row);
  }
  flushOut();
  rows_.emplace_back(subject, row);
}

// The first row's fields stand at the top too, for readers that know a single row.
void BenchReport::finish() {
  if (format_ != "json") return;
  const auto& [subject, first] = rows_.front();
  ordered_json json = {{"model", subject.model},
                       {"weight_bytes", subject.weights.bytes},
                       {"weight_bytes_per_token", subject.weights.bytesPerToken},
                       {"params", subject.weights.elements},
                       {"backend", subject.backend},
                       {"plan", subject.plan}};
  json.update(measured(subject, first));
  auto tests = ordered_json::array();
  for (const auto& [tested, row] : rows_) tests.push_back(testOf(tested, row));
  json["tests"] = std::move(tests);
  writeJson(json);
}

}  // namespace zemtool
