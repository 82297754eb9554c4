#include "match/match_steps.h"

#include <mutex>

#include "device/launch.h"
#include "match/match_cpu.h"
#include "match/match_cuda.cuh"

namespace {

using match::kUnit;

std::mutex countsMutex;
NMatching::Counts counts{};

/// Launches a search; on the CPU its form there, form(scratch).
template <class Form>
void launchSearch(const kernels::HOGMatch_kernel& search, const Form& form) {
  launch(search, [&] {
    device::Buffer scratch;
    TARVO_CALL(scratch.allocate(match::cpuMatchScratch(search.h, search.w)));
    form(scratch.get());
    TARVO_CALL(scratch.release());
  });
}

void searchAll(const kernels::HOGMatch_kernel& search) {
  launchSearch(search, [&search](float* scratch) { match::cpuMatch(search, scratch); });
}

}  // namespace

void HOGMatch_kernel(const float* imageA, const float* imageB, const float* hogA, const float* hogB,
                     const float* confidence, int forwardPass, const float* energyA, const float* energyB,
                     float meanConfidence, int* matchX, int* matchY, float* bestDistance,
                     float* secondDistance, const int* pointX, const int* pointY, int height, int width,
                     int pitch, int count) {
  const kernels::HOGMatch_kernel search{imageA,      imageB,       hogA,           hogB,           confidence,
                                        forwardPass, energyA,      energyB,        meanConfidence, matchX,
                                        matchY,      bestDistance, secondDistance, pointX,         pointY,
                                        height,      width,        pitch,          count};
  searchAll(search);
}

void consistencyCheck_kernel(const int* pointX, const int* pointY, const int* forwardX, const int* forwardY,
                             const int* backwardX, const int* backwardY, const float* bestDistance,
                             const float* secondDistance, int count, float* weight, float* u, float* v,
                             int height, int width, int pitch) {
  launch(kernels::consistencyCheck_kernel{pointX, pointY, forwardX, forwardY, backwardX, backwardY,
                                          bestDistance, secondDistance, count, weight, u, v, height, width,
                                          pitch, count});
}

namespace match {

void matchHome(const kernels::HOGMatch_kernel& search, const int* homeX, const int* homeY) {
  launchSearch(search, [&](float* scratch) { cpuMatchHome(search, homeX, homeY, scratch); });
}

void matchBothWays(const Pair& pair, const Records& r, Backward backward, float* weight, float* u, float* v) {
  HOGMatch_kernel(pair.image1, pair.image2, pair.hog1, pair.hog2, pair.confidence, 1, pair.energy1,
                  pair.energy2, pair.meanConfidence, r.ints(Records::ForwardX), r.ints(Records::ForwardY),
                  r.floats(Records::Best), r.floats(Records::Second), r.ints(Records::PointX),
                  r.ints(Records::PointY), pair.h, pair.w, pair.p, r.count());
  TARVO_LAUNCHED("Forward HOG MATCH");
  const kernels::HOGMatch_kernel back{pair.image2,
                                      pair.image1,
                                      pair.hog2,
                                      pair.hog1,
                                      pair.confidence,
                                      0,
                                      pair.energy2,
                                      pair.energy1,
                                      pair.meanConfidence,
                                      r.ints(Records::BackwardX),
                                      r.ints(Records::BackwardY),
                                      r.floats(Records::BackBest),
                                      r.floats(Records::BackSecond),
                                      r.ints(Records::ForwardX),
                                      r.ints(Records::ForwardY),
                                      pair.h,
                                      pair.w,
                                      pair.p,
                                      r.count()};
  if (backward == Backward::Home) {
    matchHome(back, r.ints(Records::PointX), r.ints(Records::PointY));
  } else {
    searchAll(back);
  }
  TARVO_LAUNCHED("Backward HOG MATCH");
  consistencyCheck_kernel(r.ints(Records::PointX), r.ints(Records::PointY), r.ints(Records::ForwardX),
                          r.ints(Records::ForwardY), r.ints(Records::BackwardX), r.ints(Records::BackwardY),
                          r.floats(Records::Best), r.floats(Records::Second), r.count(), weight, u, v, pair.h,
                          pair.w, pair.p);
  TARVO_LAUNCHED("Consistency check");
}

void dropUnknown(float* weight, const float* u, const float* v, const float* known1, const float* known2,
                 int h, int w, int p) {
  launch(kernels::DropUnknown{weight, u, v, {known1, h, w, p}, {known2, h, w, p}, h, w, p});
  TARVO_LAUNCHED("Unknown matches");
}

void dropLone(float* kept, const float* weight, const float* u, const float* v, int spacing, int least, int h,
              int w, int p) {
  launch(kernels::DropLone{kept, weight, u, v, spacing, least, h, w, p});
  TARVO_LAUNCHED("Lone matches");
}

NMatching::Counts countsOf(const Grid& grid, const HostRecords& records) {
  NMatching::Counts result{grid.count(), 0, 0, 0};
  for (std::size_t k = 0; k < grid.x.size(); ++k) {
    result.gatedPoints += records.best(k) != Records::kNotSearched ? 1 : 0;
    result.forwardMatches += records.forwardX(k) != 0 ? 1 : 0;
    result.keptMatches += records.consistent(grid, k) ? 1 : 0;
  }
  return result;
}

void setCounts(const NMatching::Counts& latest) {
  const std::lock_guard<std::mutex> lock(countsMutex);
  counts = latest;
}

}  // namespace match

namespace NMatching {

Counts lastCounts() {
  const std::lock_guard<std::mutex> lock(countsMutex);
  return counts;
}

}  // namespace NMatching
