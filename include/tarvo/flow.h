#pragma once

#include <tarvo/CTensor.h>
#include <tarvo/export.h>

// Entry points: dense optical flow between two colour images.
//
// Images are width x height x 3 tensors with values in 0 ... 255; some thresholds are absolute, so scale
// pictures in 0 ... 1 first. A flow is a width x height x 2 tensor in pixels: plane 0 is u, positive to the
// right, plane 1 is v, positive downwards; pixel (x, y) of the first image corresponds to (x + u, y + v) in
// the second.
//
// The seven parameters are those of NFlow::Parameters. The solver iterations are doubled for the last five
// passes, which run at full resolution without matches.
//
// A function that computes a flow throws std::invalid_argument, naming the argument and its values, before
// anything is changed: for images that have no pixels or more than about 143 million, other than three
// channels, or different sizes; for an infinite sigma; for weights that are negative or not finite; for eta
// outside (0, 1); for negative or too large iteration counts. HOGCheck and confCheck throw it for an image
// without pixels. Pictures too small for the pyramid give zero flow. A device error prints its message and
// ends the process with status 1 (see NDevice::onError). Several threads may call the functions; they then
// take turns.

namespace NFlow {

/// The parameters of a flow computation, in the order of the functions' arguments, with their defaults.
struct Parameters {
  float sigma = 0.0f;   ///< standard deviation of the smoothing of both images [pixels]; none unless > 0
  float alpha = 30.0f;  ///< weight of the smoothness of the flow, 0 or more
  float beta = 300.0f;  ///< weight of the descriptor matches, 0 or more
  float gamma = 5.0f;   ///< weight of gradient constancy against brightness constancy, 0 or more
  float eta = 0.95f;    ///< size ratio of consecutive pyramid levels, in (0, 1); closer to 1: finer, slower
  int fixedPointIterations = 5;  ///< outer iterations per pass, 0 or more
  int solverIterations = 10;     ///< of the linear solver per outer one, 0 or more; doubled at the end
};

}  // namespace NFlow

/// Forward flow (image 1 to image 2) and backward flow (image 2 to image 1), two separate computations with
/// the defaults of NFlow::Parameters. The outputs' earlier sizes and contents are discarded.
TARVO_API void tarvo(CTensor<float> image1, CTensor<float> image2, CTensor<float>& forward,
                     CTensor<float>& backward);

/// The same with the caller's parameters. With sigma > 0 the backward computation smooths the already
/// smoothed images once more.
TARVO_API void tarvo(CTensor<float> image1, CTensor<float> image2, CTensor<float>& forward,
                     CTensor<float>& backward, float sigma, float alpha, float beta, float gamma, float eta,
                     int fixedPointIterations, int solverIterations);

/// One computation, from image 1 to image 2. With sigma > 0 both images are smoothed in place. Prints times.
TARVO_API void runFlowGPU(CTensor<float>& image1, CTensor<float>& image2, CTensor<float>& flow, float sigma,
                          float alpha, float beta, float gamma, float eta, int fixedPointIterations,
                          int solverIterations);

/// The same flow by other means, mostly on the host: histograms and confidence by host filters; the match
/// search on the device, repeated on the host, which prints every point where the two disagree ("Error U",
/// "Error V", "Error W"); and COpticFlow::warpingGeometric with omega 1.85. A reference for runFlowGPU, from
/// which it differs in details of sampling, scaling and borders; several times slower. Adds the time of the
/// variational step to timer_total and prints that total in seconds at the end.
TARVO_API void runFlow(CTensor<float>& image1, CTensor<float>& image2, CTensor<float>& flow, float sigma,
                       float alpha, float beta, float gamma, float eta, int fixedPointIterations,
                       int solverIterations);

/// Prints the histograms of one image computed by host and device: all bins of pixel (108, 108), and bin 5 of
/// the 9 x 9 pixels from (150, 150), each if the image has these pixels.
TARVO_API void HOGCheck(CTensor<float> image);

/// Prints the confidence of one image computed by host and device: the 7 x 7 pixels from (100, 100) if the
/// image has them, and sums and means.
TARVO_API void confCheck(CTensor<float> image);
