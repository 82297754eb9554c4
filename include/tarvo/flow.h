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
// Parameters:
//   - sigma: standard deviation [pixels] of the smoothing of both images beforehand; none unless > 0
//   - alpha: weight of the smoothness of the flow
//   - beta: weight of the descriptor matches
//   - gamma: weight of gradient constancy, against brightness constancy
//   - eta: size ratio of consecutive pyramid levels, between 0 and 1; closer to 1 is finer and slower
//   - fixedPointIterations: outer iterations per level
//   - solverIterations: iterations of the linear solver per outer iteration; doubled for the last five passes
//
// A function that computes a flow throws std::invalid_argument, naming the argument and its values, before
// anything is changed: for images that have no pixels, other than three channels, different or too large
// sizes; for an infinite sigma; for weights that are negative or not finite; for eta outside (0, 1); for
// negative or too large iteration counts. HOGCheck and confCheck throw it for an image without pixels.
// Pictures too small for the pyramid give zero flow. A device error prints its message and ends the process
// with status 1 (see NDevice::onError). Several threads may call the functions; they then take turns.

/// Forward flow (image 1 to image 2) and backward flow (image 2 to image 1), two separate computations with
/// the parameters 0, 30, 300, 5, 0.95, 5, 10. The outputs' earlier sizes and contents are discarded.
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
