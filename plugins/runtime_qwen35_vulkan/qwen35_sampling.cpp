#include "qwen35_sampling.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "kiv/exact_math.h"

namespace qwen35rt {
namespace {

struct Candidate {
  float value;  // logit / temperature
  int id;
};

// Largest first, equal values by id, NaN behind everything: a total order, so
// that a sorted list is the same on every machine and for every sort.
bool ranksBefore(const Candidate& a, const Candidate& b) {
  if (a.value > b.value) return true;
  if (a.value < b.value) return false;
  const bool aNan = std::isnan(a.value);
  const bool bNan = std::isnan(b.value);
  return aNan == bNan ? a.id < b.id : bNan;
}

// The scaled logits in ranking order, cut to topK. Selecting before sorting
// gives the list that sorting everything gives, because the order is total.
std::vector<Candidate> rankedCandidates(const float* logits, size_t n, float temperature,
                                        int topK) {
  const float inv = 1.0F / temperature;
  std::vector<Candidate> ranked(n);
  for (size_t i = 0; i < n; ++i) ranked[i] = {logits[i] * inv, static_cast<int>(i)};
  if (topK >= 1 && static_cast<size_t>(topK) < n) {
    const auto cut = ranked.begin() + topK;
    std::nth_element(ranked.begin(), cut, ranked.end(), ranksBefore);
    ranked.erase(cut, ranked.end());
  }
  std::sort(ranked.begin(), ranked.end(), ranksBefore);
  return ranked;
}

// The softmax weights before normalisation: 1 for the first candidate.
std::vector<double> weightsOf(const std::vector<Candidate>& ranked) {
  std::vector<double> weights(ranked.size());
  for (size_t i = 0; i < ranked.size(); ++i) {
    weights[i] = kiv::math::expF64(static_cast<double>(ranked[i].value) -
                                   static_cast<double>(ranked[0].value));
  }
  return weights;
}

// How many candidates stay: those up to the one with which the sum of weights
// reaches topP.
size_t nucleusSize(const std::vector<double>& weights, float topP) {
  double sum = 0.0;
  for (size_t i = 0; i < weights.size(); ++i) {
    sum += weights[i];
    if (sum >= static_cast<double>(topP)) return i + 1;
  }
  return weights.size();
}

// A double in [0, 1) from two generator outputs, low word first. Written out
// because standard libraries draw differently.
double canonical(std::mt19937& rng) {
  const auto low = static_cast<double>(rng());
  const auto high = static_cast<double>(rng());
  const double u = (low + high * 0x1p32) * 0x1p-64;
  return u < 1.0 ? u : std::nextafter(1.0, 0.0);
}

}  // namespace

int argmax(const float* logits, size_t n) {
  size_t best = 0;
  for (size_t i = 1; i < n; ++i) {
    if (logits[i] > logits[best]) best = i;
  }
  return static_cast<int>(best);
}

int sampleNext(const float* logits, size_t n, float temperature, int topK, float topP,
               std::mt19937& rng) {
  if (temperature <= 0.0F || topK == 1) return argmax(logits, n);

  const std::vector<Candidate> ranked = rankedCandidates(logits, n, temperature, topK);
  std::vector<double> weights = weightsOf(ranked);
  if (topP > 0.0F && topP < 1.0F) weights.resize(nucleusSize(weights, topP));

  double total = 0.0;
  for (const double weight : weights) total += weight;
  double rest = canonical(rng) * total;
  for (size_t i = 0; i < weights.size(); ++i) {
    rest -= weights[i];
    if (rest <= 0.0) return ranked[i].id;
  }
  return weights.empty() ? 0 : ranked[weights.size() - 1].id;
}

}  // namespace qwen35rt
