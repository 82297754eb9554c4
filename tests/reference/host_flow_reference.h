#pragma once

#include <tarvo/CFilter.h>
#include <tarvo/COpticFlow.h>
#include <tarvo/NFilter.h>
#include <tarvo/NReport.h>

#include <algorithm>
#include <cmath>

/// Plain twin of the host's coarse-to-fine scheme: which data every pass gets. The steps themselves
/// (resampling, one level's iteration) are the library's, which have tests of their own.
namespace reference {

struct HostFlowInput {
  CTensor<float> image1, image2, matchU, matchV, matchWeight;
  CMatrix<float> extraTerm;  // empty: none
  float sigma = 0.0f, alpha = 30.0f, beta = 300.0f, gamma = 5.0f, extraWeight = 0.0f, eta = 0.9f,
        omega = 1.85f;
  int fixedPointIterations = 2, solverIterations = 4;
};

inline void smoothed(CTensor<float>& image, float sigma) {
  const CSmooth<float> mask(sigma, 3);
  CTensor<float> x(image), xy(image);
  NFilter::filter(image, x, mask, 1, 1);
  NFilter::filter(x, xy, 1, mask, 1);
  image = xy;
}

inline void times(CTensor<float>& tensor, int plane, float factor) {
  for (int y = 0; y < tensor.sizeY(); ++y) {
    for (int x = 0; x < tensor.sizeX(); ++x) tensor(x, y, plane) *= factor;
  }
}

/// COpticFlow::warp with the first picture where the flow leaves the second.
inline CTensor<float> warpedOr(const CTensor<float>& first, const CTensor<float>& second,
                               CTensor<float>& flow, CMatrix<float>& valid) {
  CTensor<float> warped(first);
  CMatrix<bool> outside(first.sizeX(), first.sizeY());
  COpticFlow::warp(second, warped, outside, flow);
  for (int i = 0; i < valid.size(); ++i) valid.data()[i] = outside.data()[i] ? 0.0f : 1.0f;
  return warped;
}

inline CTensor<float> hostFlow(HostFlowInput in) {
  const int W = in.image1.sizeX(), H = in.image1.sizeY();
  const double eta = static_cast<double>(in.eta);
  const int scales =
      std::max(0, static_cast<int>(std::log(static_cast<double>(15.0f / static_cast<float>(std::min(W, H)))) /
                                   std::log(eta)));
  const auto size = [&](int full, int level) {
    return static_cast<int>(std::ceil(std::pow(eta, level) * full));
  };
  const auto ratio = [](int a, int b) { return static_cast<float>(a) / static_cast<float>(b); };
  if (in.sigma > 0.0f) smoothed(in.image1, in.sigma), smoothed(in.image2, in.sigma);
  CTensor<float> flow(W, H, 2, 0.0f);
  for (int pass = scales; pass >= -5; --pass) {
    const int l = std::max(pass, 0);
    const int w = size(W, l), h = size(H, l), coarserW = size(W, l + 1), coarserH = size(H, l + 1);
    if (w == coarserW && h == coarserH) continue;
    HostFlowInput at(in);
    if (pass >= 1) {
      at.image1.downsample(w, h);
      at.image2.downsample(w, h);
      if (at.extraTerm.size() > 0) at.extraTerm.downsample(w, h);
      at.matchU.downsample(w, h, in.matchWeight);
      at.matchV.downsample(w, h, in.matchWeight);
      at.matchWeight.downsample(w, h, in.matchWeight);
      for (int m = 0; m < at.matchU.sizeZ(); ++m) {
        times(at.matchU, m, ratio(w, W));
        times(at.matchV, m, ratio(h, H));
      }
      if (l == scales) flow = CTensor<float>(w, h, 2, 0.0f);
    }
    if (l < scales && pass >= 0) {
      flow.upsampleBilinear(w, h);
      times(flow, 0, ratio(w, coarserW));
      times(flow, 1, ratio(h, coarserH));
    }
    CMatrix<float> valid(w, h, 1.0f);
    CTensor<float> warped = l == scales ? at.image2 : warpedOr(at.image1, at.image2, flow, valid);
    if (pass < 0) std::fill_n(at.matchWeight.data(), at.matchWeight.size(), 0.0f);
    COpticFlow::nonlinearIteration(at.image1, warped, valid, at.matchU, at.matchV, at.matchWeight, flow,
                                   at.extraTerm.size() > 0 ? &at.extraTerm : nullptr, in.alpha, in.beta,
                                   static_cast<float>(static_cast<double>(in.gamma) * std::pow(eta, l)),
                                   in.extraWeight, in.fixedPointIterations,
                                   pass < 0 ? 2 * in.solverIterations : in.solverIterations, in.omega, l);
  }
  return flow;
}

}  // namespace reference
