// SPDX-License-Identifier: Apache-2.0
#include "engine/engine.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <future>
#include <list>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "engine/model/decoder.h"
#include "engine/model/weights.h"
#include "engine/sampling/container_sampling.h"
#include "engine/schedule/scheduler.h"
#include "engine/session/session_file.h"
#include "matmul/thread_team.h"

namespace zem {
namespace {

using kiv::Status;

// Positions of a model whose file does not say.
constexpr size_t kUnstatedContext = 8192;

SchedulerOptions schedulerOptions(const EngineOptions& options, const Shape& shape) {
  SchedulerOptions result;
  const size_t most = shape.contextLength != 0 ? shape.contextLength : kUnstatedContext;
  result.context = options.context != 0 ? std::min(options.context, most) : most;
  result.sequences = std::max<size_t>(options.sequences, 1);
  if (options.batchTokens != 0) result.batchTokens = options.batchTokens;
  result.memoryBytes = options.memoryBytes;
  result.cacheBytes = options.cacheBytes;
  return result;
}

size_t threadsOf(const EngineOptions& options) {
  return options.threads != 0 ? options.threads
                              : std::max<size_t>(std::thread::hardware_concurrency(), 1);
}

CacheType cacheType(CacheNumbers numbers) {
  return numbers == CacheNumbers::Float ? CacheType::F32 : CacheType::F16;
}

// Null for an unknown format: a later program may have written the file. Texts can still be
// completed.
const text::ChatFormat* formatOf(const kiv::ZEMLoader& loader) {
  std::string name;
  if (loader.getMetaStr("chat.format", name)) return text::chatFormatByName(name);
  const std::string& chatTemplate = loader.chatTemplate();
  return chatTemplate.empty() ? text::chatFormatByName("qwen3.5")
                              : text::chatFormatOfTemplate(chatTemplate);
}

Status chooseFormat(const std::string& name, const kiv::ZEMLoader& loader,
                    const text::ChatFormat*& out) {
  out = name.empty() ? formatOf(loader) : text::chatFormatByName(name);
  if (out != nullptr || name.empty()) return {};
  return kiv::invalidFormat("chat format: found \"" + name + "\", needed one of " +
                            text::chatFormatNames());
}

std::string nameOfFile(const std::string& path) {
  const std::string name = path.substr(path.find_last_of("/\\") + 1);
  return name.ends_with(".zem") ? name.substr(0, name.size() - 4) : name;
}

ModelFacts factsOf(const std::string& path, const Decoder& decoder, const PageLayout& pages) {
  const Weights& weights = decoder.weights();
  ModelFacts facts;
  facts.name = nameOfFile(path);
  facts.layers = weights.layers().size();
  facts.width = weights.shape().width;
  const kiv::ZEMLoader& loader = weights.loader();
  for (size_t i = 0; i < loader.tensorCount(); ++i) {
    const TensorView& tensor = loader.tensorView(i);
    uint64_t elements = 1;
    for (uint16_t d = 0; d < tensor.ndim; ++d) elements *= tensor.shape[d];
    facts.parameters += elements;
    facts.weightBytes += tensor.size;
  }
  facts.context = weights.shape().contextLength;
  facts.stateBytes = decoder.recurrentBytes();
  facts.positionBytes = pages.bytes() / kPagePositions;
  return facts;
}

}  // namespace

struct Engine::Impl {
  // What a container says of texts and of the sampling.
  struct TextParts {
    Vocabulary vocabulary;
    const text::ChatFormat* chatFormat = nullptr;
    SamplingOptions thinking;
    SamplingOptions answering;
  };

  class VocabularyBytes : public TokenBytes {
   public:
    explicit VocabularyBytes(const Vocabulary& vocabulary) : vocabulary_(vocabulary) {}
    std::string_view bytesOf(uint32_t id) const override { return vocabulary_.bytesOf(id); }
    uint32_t size() const override { return vocabulary_.size(); }
    const text::TokenTexts& texts() const override;

   private:
    const Vocabulary& vocabulary_;
    mutable std::once_flag sorted_;
    mutable std::optional<text::TokenTexts> texts_;
  };

  static Status loadText(const kiv::ZEMLoader& loader, const EngineOptions& options,
                         TextParts& out);

  Impl(std::unique_ptr<Weights> opened, TextParts parts, const EngineOptions& engineOptions)
      : weights(std::move(opened)),
        text(std::move(parts)),
        bytes(text.vocabulary),
        decoder(*weights, cacheType(engineOptions.cacheNumbers),
                engineOptions.math == Math::Fast ? Arithmetic::Fast : Arithmetic::Exact),
        options(schedulerOptions(engineOptions, weights->shape())),
        mostWaiting(engineOptions.waiting),
        scheduler(decoder, bytes, options),
        team(threadsOf(engineOptions)) {}

  void compute();
  bool waitForWork();
  void takeArrivals();
  void runErrands(std::unique_lock<std::mutex>& lock);
  Status onThread(const std::function<Status()>& errand);
  void noteLoad();

  std::unique_ptr<Weights> weights;
  TextParts text;
  VocabularyBytes bytes;
  Decoder decoder;
  SchedulerOptions options;
  size_t mostWaiting;
  Scheduler scheduler;  // of the engine's thread, but for check()
  qwen35::ThreadTeam team;
  ModelFacts facts;

  mutable std::mutex mutex;
  std::condition_variable arrived;
  std::list<Ticket> arrivals;  // under the mutex, as what follows
  std::deque<std::packaged_task<Status()>> errands;
  bool ends = false;
  Load load;

  std::thread thread;
};

Status Engine::Impl::loadText(const kiv::ZEMLoader& loader, const EngineOptions& options,
                              TextParts& out) {
  Status status = chooseFormat(options.chatFormat, loader, out.chatFormat);
  if (status.ok()) status = Vocabulary::load(loader, out.vocabulary);
  if (status.ok()) status = containerSampling(loader, true, out.thinking);
  if (status.ok()) status = containerSampling(loader, false, out.answering);
  return status;
}

const text::TokenTexts& Engine::Impl::VocabularyBytes::texts() const {
  std::call_once(sorted_, [&] {
    std::vector<std::string> all(size());
    for (uint32_t id = 0; id < size(); ++id) all[id] = bytesOf(id);
    texts_.emplace(all);
  });
  return *texts_;
}

// The engine's thread.
void Engine::Impl::compute() {
  const qwen35::UseTeam use(team);
  while (waitForWork()) {
    try {
      scheduler.turn();
    } catch (const std::exception& error) {  // memory, in all likelihood
      scheduler.endAll(EndReason::Error, error.what());
    }
    noteLoad();
  }
  scheduler.endAll(EndReason::Cancelled, {});
}

// False: the engine goes.
bool Engine::Impl::waitForWork() {
  std::unique_lock lock(mutex);
  const bool idle = scheduler.running() == 0 && scheduler.waiting() == 0;
  if (idle) arrived.wait(lock, [&] { return ends || !arrivals.empty() || !errands.empty(); });
  takeArrivals();
  runErrands(lock);
  return !ends;
}

void Engine::Impl::runErrands(std::unique_lock<std::mutex>& lock) {
  while (!errands.empty()) {
    std::packaged_task<Status()> errand = std::move(errands.front());
    errands.pop_front();
    lock.unlock();
    errand();
    lock.lock();
  }
}

// Runs `errand` between two steps and waits for it.
Status Engine::Impl::onThread(const std::function<Status()>& errand) {
  std::packaged_task<Status()> task(errand);
  std::future<Status> result = task.get_future();
  {
    const std::lock_guard lock(mutex);
    errands.push_back(std::move(task));
  }
  arrived.notify_one();
  return result.get();
}

void Engine::Impl::takeArrivals() {
  load.waiting += arrivals.size();
  scheduler.add(std::exchange(arrivals, {}));
}

void Engine::Impl::noteLoad() {
  const std::lock_guard lock(mutex);
  load = {scheduler.running(),       scheduler.waiting(),           scheduler.cache().states(),
          scheduler.cache().bytes(), scheduler.cache().evictions(), scheduler.steps()};
}

Status Engine::open(const std::string& path, const EngineOptions& options,
                    std::unique_ptr<Engine>& out) {
  std::unique_ptr<Weights> weights;
  Status status = Weights::open(path, weights);
  Impl::TextParts text;
  if (status.ok()) status = Impl::loadText(weights->loader(), options, text);
  if (!status.ok()) return status;
  try {
    auto impl = std::make_unique<Impl>(std::move(weights), std::move(text), options);
    impl->facts = factsOf(path, impl->decoder, impl->decoder.pool().layout());
    std::unique_ptr<Engine> engine(new Engine(std::move(impl)));
    engine->impl_->thread = std::thread([&running = *engine->impl_] { running.compute(); });
    out = std::move(engine);
  } catch (const std::system_error& error) {
    return kiv::ioError(std::string("the system gives no more threads: ") + error.what());
  }
  return {};
}

Engine::Engine(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

Engine::~Engine() {
  {
    const std::lock_guard lock(impl_->mutex);
    impl_->ends = true;
  }
  impl_->arrived.notify_one();
  if (impl_->thread.joinable()) impl_->thread.join();  // else open() found no thread
}

Status Engine::submit(Request request, std::shared_ptr<Listener> listener, RequestHandle& handle) {
  Status status = impl_->scheduler.check(request);
  if (!status.ok()) return status;
  if (request.form != nullptr) (void)impl_->bytes.texts();  // not on the thread that computes
  Ticket ticket;
  ticket.request = std::move(request);
  ticket.listener = std::move(listener);
  ticket.cancelled = std::make_shared<std::atomic<bool>>(false);
  handle = RequestHandle(ticket.cancelled);
  {
    const std::lock_guard lock(impl_->mutex);
    if (impl_->ends) return kiv::unsupported("the engine ends");
    // Those that will find a free place do not count as waiting.
    const size_t all = impl_->arrivals.size() + impl_->load.waiting + impl_->load.running;
    const size_t places = impl_->options.sequences;
    if (all >= places && all - places >= impl_->mostWaiting) {
      return kiv::unsupported("too many requests wait: " + std::to_string(all - places));
    }
    impl_->arrivals.push_back(std::move(ticket));
  }
  impl_->arrived.notify_one();
  return {};
}

Status Engine::save(const std::vector<uint32_t>& conversation, const std::string& path,
                    size_t& saved) {
  return impl_->onThread([&]() -> Status {
    const PrefixCache::Match match =
        impl_->scheduler.cache().find(conversation, conversation.size());
    if (match.snapshot == nullptr) {
      return kiv::invalidFormat("nothing of this conversation is kept");
    }
    saved = match.snapshot->length;
    const std::vector<uint32_t> tokens(conversation.begin(),
                                       conversation.begin() + static_cast<ptrdiff_t>(saved));
    return saveSession(path, impl_->decoder, tokens, *match.snapshot);
  });
}

Status Engine::restore(const std::string& path, std::vector<uint32_t>& conversation) {
  return impl_->onThread([&]() -> Status {
    std::vector<uint32_t> tokens;
    Snapshot snapshot;
    Status status = loadSession(path, impl_->decoder, tokens, snapshot);
    if (!status.ok()) return status;
    PrefixCache& cache = impl_->scheduler.cache();
    if (!cache.hasRoomFor(impl_->decoder.recurrentBytes(), tokens.size())) {
      return kiv::invalidFormat(path + ": is larger than the memory for kept states, " +
                                std::to_string(impl_->options.cacheBytes >> 20) + " MiB");
    }
    cache.insert(tokens, std::move(snapshot));
    conversation = std::move(tokens);
    return {};
  });
}

const ModelFacts& Engine::model() const { return impl_->facts; }
const Vocabulary& Engine::vocabulary() const { return impl_->text.vocabulary; }
size_t Engine::context() const { return impl_->options.context; }
const text::ChatFormat* Engine::chatFormat() const { return impl_->text.chatFormat; }
const SamplingOptions& Engine::defaultSampling(bool thinking) const {
  return thinking ? impl_->text.thinking : impl_->text.answering;
}

Engine::Load Engine::load() const {
  const std::lock_guard lock(impl_->mutex);
  return impl_->load;
}

}  // namespace zem
