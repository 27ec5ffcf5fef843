#include "verify-judge.h"

#include <algorithm>
#include <limits>
#include <sstream>
#include <utility>

#include "compare.h"

namespace tarn::tool {

namespace {

void Note(double distance, size_t lane, const PlayedRequest& played, Gap& gap) {
  if (gap.exists && distance <= gap.largest) return;
  gap = {true, distance, lane, played.chunk, played.place};
}

// The worst of the tensors by one of their gaps.
template <typename Tensors>
const auto& Worst(const Tensors& tensors, Gap TensorReport::*gap) {
  const auto rank = [gap](const TensorReport& report) {
    const Gap& its_gap = report.*gap;
    return std::make_pair(its_gap.exists, report.Relative(its_gap.largest));
  };
  return *std::max_element(tensors.begin(), tensors.end(),
                           [&](const auto& one, const auto& other) {
                             return rank(one.second) < rank(other.second);
                           });
}

std::string Where(const std::string& name, const char* kind, const Gap& gap) {
  return std::string(kind) + ' ' + name + " of stream " +
         std::to_string(gap.lane) + ", chunk " + std::to_string(gap.chunk) +
         ", row " + std::to_string(gap.place.row) + " of a batch of " +
         std::to_string(gap.place.batch_size);
}

}  // namespace

double TensorReport::Relative(double distance) const {
  if (distance == 0) return 0;
  return magnitude > 0 ? distance / magnitude
                       : std::numeric_limits<double>::infinity();
}

Judge::Judge(BareEngine& engine, const ModelInfo& info, size_t lane_num)
    : oracle_(engine, info),
      zero_caches_(ZeroCaches(info)),
      caches_(lane_num, zero_caches_) {
  for (unsigned int i = 0; i < info.GetOutputNum(); ++i) {
    tensors_[info.GetOutputName(i)].kind = "output";
  }
  for (unsigned int i = 0; i < info.GetCacheNum(); ++i) {
    tensors_[info.GetCacheName(i, false)].kind = "cache";
  }
}

void Judge::Take(size_t lane, const PlayedRequest& played) {
  if (played.is_first) caches_[lane] = zero_caches_;
  const Result alike = oracle_.Compute(
      played.request, played.sizes, played.place.batch_size, played.place.row);
  const Result single = oracle_.Compute({played.request.inputs, caches_[lane]},
                                        played.sizes, 1, 0);
  Compare(played.result.outputs, alike.outputs, single.outputs, lane, played);
  Compare(played.result.caches, alike.caches, single.caches, lane, played);
  caches_[lane] = single.caches;
}

void Judge::Compare(const Tensors& result, const Tensors& alike,
                    const Tensors& single, size_t lane,
                    const PlayedRequest& played) {
  for (const auto& [name, tensor] : result) {
    TensorReport& report = tensors_[name];
    if (!SameBits(tensor, alike.at(name))) {
      const Distance distance = DistanceOf(tensor, alike.at(name));
      Note(distance.largest, lane, played, report.alike);
    }
    const Distance distance = DistanceOf(tensor, single.at(name));
    Note(distance.largest, lane, played, report.single);
    report.magnitude = std::max(report.magnitude, distance.magnitude);
  }
}

std::string Judge::Objection(double tolerance) const {
  std::ostringstream os;
  os.precision(2);
  const auto& [name, report] = Worst(tensors_, &TensorReport::alike);
  if (report.alike.exists) {
    os << Where(name, report.kind, report.alike)
       << ", is not what the engine gives at that batch size: off by "
       << report.alike.largest
       << ", other rows or an old state have a part in it";
    return os.str();
  }
  const auto& [single_name, single] = Worst(tensors_, &TensorReport::single);
  const double relative = single.Relative(single.single.largest);
  if (relative > tolerance) {
    os << Where(single_name, single.kind, single.single)
       << ", is off from a batch of one by " << relative
       << " of the largest value, more than " << tolerance;
  }
  return os.str();
}

}  // namespace tarn::tool
