#include "event-log.h"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "safe-file.h"

namespace tarn::tool {

namespace {

using Clock = EventLog::Clock;

// The trace shows two groups of rows.
enum Group : int { kStreams = 1, kBatches = 2 };

double Microseconds(Clock::duration duration) {
  return std::chrono::duration<double, std::micro>(duration).count();
}

// Spans since a point in time, as the viewers of Chrome traces read them.
class Trace {
 public:
  explicit Trace(Clock::time_point start) : start_(start) {}

  void NameGroup(Group group, const char* name) {
    events_.push_back({{"name", "process_name"},
                       {"ph", "M"},
                       {"pid", group},
                       {"args", {{"name", name}}}});
  }

  void AddSpan(const char* name, Group group, size_t row,
               Clock::time_point begin, Clock::time_point end,
               const nlohmann::json& arguments) {
    events_.push_back({{"name", name},
                       {"ph", "X"},
                       {"pid", group},
                       {"tid", row},
                       {"ts", Microseconds(begin - start_)},
                       {"dur", Microseconds(end - begin)},
                       {"args", arguments}});
  }

  std::string Text() const {
    return nlohmann::json{{"traceEvents", events_}, {"displayTimeUnit", "ms"}}
        .dump();
  }

 private:
  Clock::time_point start_;
  nlohmann::json events_ = nlohmann::json::array();
};

// Numbers what it is asked for in the order of asking.
template <typename Key>
class Numbering {
 public:
  size_t operator()(const Key& key) {
    return numbers_.emplace(key, numbers_.size()).first->second;
  }

 private:
  std::map<Key, size_t> numbers_;
};

}  // namespace

void EventLog::OnEvent(Event event, const std::vector<BaseProxy*>& proxies) {
  const auto now = Clock::now();
  const std::lock_guard<std::mutex> lock(mutex_);
  switch (event) {
    case QUEUED:
      for (const BaseProxy* proxy : proxies) queued_[proxy] = now;
      return;
    case TAKEN:
      AddBatch(proxies, now);
      return;
    case GATHERED:
      batches_[running_.at(std::this_thread::get_id())].gathered = now;
      return;
    case COMPUTED:
      batches_[running_.at(std::this_thread::get_id())].computed = now;
      return;
    case SCATTERED:
      batches_[running_.at(std::this_thread::get_id())].scattered = now;
      return;
  }
}

// A batch that fails before its run ends there: all its times are valid.
void EventLog::AddBatch(const std::vector<BaseProxy*>& proxies,
                        Clock::time_point now) {
  const std::thread::id thread = std::this_thread::get_id();
  running_[thread] = batches_.size();
  batches_.push_back({now, now, now, now, thread, {}});
  for (size_t row = 0; row < proxies.size(); ++row) {
    const BaseProxy* proxy = proxies[row];
    const auto found = queued_.find(proxy);
    const auto queued = found == queued_.end() ? now : found->second;
    if (found != queued_.end()) queued_.erase(found);
    latest_[proxy] = requests_.size();
    batches_.back().requests.push_back(requests_.size());
    requests_.push_back({proxy, queued, batches_.size() - 1, row});
  }
}

EventLog::Place EventLog::PlaceOf(const BaseProxy* proxy) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const Request& request = requests_[latest_.at(proxy)];
  return {batches_[request.batch].requests.size(), request.row};
}

double EventLog::MeanBatchSize() const {
  if (batches_.empty()) return 0;
  return static_cast<double>(requests_.size()) /
         static_cast<double>(batches_.size());
}

void EventLog::Clear() {
  const std::lock_guard<std::mutex> lock(mutex_);
  queued_.clear();
  latest_.clear();
  running_.clear();
  requests_.clear();
  batches_.clear();
}

void EventLog::WriteTrace(const std::string& path) const {
  Clock::time_point start = Clock::time_point::max();
  for (const Request& request : requests_) {
    start = std::min(start, request.queued);
  }
  Trace trace(start);
  trace.NameGroup(kStreams, "streams");
  trace.NameGroup(kBatches, "batches");
  Numbering<const BaseProxy*> stream_of;
  for (const Request& request : requests_) {
    const Batch& batch = batches_[request.batch];
    const size_t stream = stream_of(request.proxy);
    const nlohmann::json place{{"batch", request.batch}, {"row", request.row}};
    const auto add = [&](const char* name, Clock::time_point begin,
                         Clock::time_point end) {
      trace.AddSpan(name, kStreams, stream, begin, end, place);
    };
    add("queued", request.queued, batch.taken);
    add("gathered", batch.taken, batch.gathered);
    add("computed", batch.gathered, batch.computed);
    add("scattered", batch.computed, batch.scattered);
  }
  Numbering<std::thread::id> thread_of;
  for (const Batch& batch : batches_) {
    trace.AddSpan("batch", kBatches, thread_of(batch.thread), batch.taken,
                  batch.scattered, {{"size", batch.requests.size()}});
  }
  WriteFile(path, trace.Text());
}

}  // namespace tarn::tool
