#pragma once

#include <tarvo/CMatrix.h>
#include <tarvo/CTensor.h>
#include <tarvo/export.h>

/// Flow fields on the host: the variational flow, files, colours, errors.
///
/// A flow field is a tensor of width x height x 2: plane 0 holds the displacement to the right, plane 1 the
/// displacement downwards, in pixels. The functions for files and colours report problems in a printed line
/// and throw nothing except std::bad_alloc (NFlowFile reads and writes the same files with exceptions). The
/// functions that compute throw ETensorIncompatibleSize if sizes do not fit, before anything is changed.
struct TARVO_API COpticFlow {
  // The variational flow on the host; its linear systems are relaxed on the device.

  /// Flow from image 1 to image 2, from about 15 pixels on the shorter side up to full resolution. Every
  /// level starts from the flow of the one before; five more passes follow at full resolution, without
  /// matches and with twice the sweeps. A pass of the same size as the next coarser one is skipped. Prints
  /// the number of scales, the size of every pass and the totals of setup_time and sortimer.
  /// @param image1, image2        same sizes, any number of channels, values in 0 ... 255
  /// @param flow                  out: width x height x 2 [pixels]; earlier contents are discarded
  /// @param matchU, matchV        matched displacements at full resolution [pixels], one plane per candidate
  /// @param matchWeight           their weights; 0 or less: no match
  /// @param extraTerm             null, or a plane whose square times extraWeight adds to the squared flow
  ///                              gradient in the smoothness term
  /// @param sigma                 standard deviation of the smoothing beforehand [pixels]; none unless > 0
  /// @param alpha, beta, gamma    weights of smoothness, matches, gradient constancy
  /// @param eta                   size ratio of consecutive levels, in (0, 1]; with 1 the flow is zero
  /// @param fixedPointIterations, solverIterations  per pass, and sweeps in each
  /// @param omega                 relaxation factor, 1 ... below 2
  /// @throws std::invalid_argument  image 1 empty or of more than about 143 million pixels, eta or
  ///                                solverIterations out of range
  static void warpingGeometric(CTensor<float> image1, CTensor<float> image2, CTensor<float>& flow,
                               CTensor<float>& matchU, CTensor<float>& matchV, CTensor<float>& matchWeight,
                               CMatrix<float>* extraTerm, float sigma, float alpha, float beta, float gamma,
                               float extraWeight, float eta, int fixedPointIterations, int solverIterations,
                               float omega);

  /// One pass: adds to `flow` the increment that minimises the energy linearised at `flow`. Prints the size.
  /// @param warped2  image 2 warped by `flow`
  /// @param gconf    1, or 0 where the warp left image 2: the data terms do not count there
  /// @param gamma    weight of gradient constancy at this level
  /// The last argument, the level's number, is not used.
  static void nonlinearIteration(CTensor<float>& image1, CTensor<float>& warped2, CMatrix<float>& gconf,
                                 CTensor<float>& matchU, CTensor<float>& matchV,
                                 CTensor<float>& matchWeightIn, CTensor<float>& flow,
                                 CMatrix<float>* extraTerm, float alpha, float beta, float gamma,
                                 float extraWeight, int fixedPointIterations, int solverIterations,
                                 float omega, int level);

  /// Smoothness weights of flow + increment, 1 / sqrt(squared flow gradient + 1e-6): diffX between (x, y) and
  /// (x + 1, y), diffY between (x, y) and (x, y + 1). Prints "DF" if there is an extra term.
  /// @param diffX, diffY  out; sizes of the flow
  static void diffusivity(CTensor<float>& flow, CTensor<float>& increment, CMatrix<float>& diffX,
                          CMatrix<float>& diffY, CMatrix<float>* extraTerm, float extraWeight);

  /// warped(x, y) = image(x + u, y + v), bilinear in double precision. `outside` is true where that position,
  /// truncated, or its right or lower neighbour lies outside the image; `warped` keeps its value there.
  /// Positions between -1 and 0 are extrapolated from the first two columns or rows; the last column and row
  /// are never inside.
  /// @param warped, outside  sizes of the image; not the image
  static void warp(const CTensor<float>& image, CTensor<float>& warped, CMatrix<bool>& outside,
                   CTensor<float>& flow);

  // Files, colours, errors.

  /// Writes planes 0 and 1 of a flow field as a flow file: the bytes "PIEH", width and height as 32-bit
  /// integers, then u and v of every pixel as floats, row after row, all little-endian.
  ///
  /// The data go to a temporary file in the same folder, which is renamed when it is complete: if anything
  /// fails, a file that was there before is left unchanged. Devices and pipes are written directly, and so is
  /// an old file in a folder that takes no new one.
  /// @param flow      at least two planes
  /// @param filename  should end in ".flo"; any other name is used too, with a message
  /// Messages: "NAME should have extension '.flo'", "Could not open NAME", "Problem writing header",
  /// "Problem writing data to NAME: REASON".
  static void writeMiddlebury(CTensor<float>& flow, const char* filename);

  /// Reads a flow file; `flow` becomes width x height x 2.
  ///
  /// The values are passed on as they are: a component of magnitude 1e9 or more marks a pixel whose motion is
  /// unknown. A file that cannot be opened ("Could not open NAME") or is damaged ("Problem reading NAME:
  /// REASON" for a wrong tag, a negative or impossible size, missing data) leaves `flow` unchanged. Bytes
  /// after the data are ignored, with a message. Memory is allocated only for data that the file can hold.
  static void readMiddlebury(const char* filename, CTensor<float>& flow);

  /// Colours a flow field: `image` becomes width x height x 3 (red, green, blue; integers 0 ... 255).
  /// @param flow   at least two planes, otherwise a message is printed and `image` stays as it is
  /// @param image  out; may be the same object as `flow`
  /// @param scale  vectors of length sqrt(8) * scale and more are drawn at full brightness [pixels]
  static void flowToImage(CTensor<float>& flow, CTensor<float>& image, float scale);

  /// Colour of one vector: the hue shows the direction (right: red, down: violet blue, left: green, up:
  /// yellow), the brightness shows the length and is full from length 1 on. Zero is black. A vector without a
  /// direction (a component is not a number, or both are infinite) is grey (128, 128, 128); no motion has
  /// that colour, since the colours of motions are saturated.
  /// @param red, green, blue  out: integers 0 ... 255
  static void cartesianToRGB(float x, float y, float& red, float& green, float& blue);

  /// Mean angle in degrees between the space-time directions (u, v, 1) of two flow fields, over the pixels of
  /// `flow` whose reference is known: both components of magnitude at most 1e9. Pixels that the reference
  /// does not cover count as unknown. Not-a-number if no pixel is known, or if a value is not a number.
  static float angularError(CTensor<float>& flow, CTensor<float>& reference);
};

/// Mean absolute angle in degrees between the directions (u, v) of two flow fields of the same size. Pixels
/// whose reference has a component of +1e9 or more, or that the reference does not cover, add nothing to the
/// sum, but the sum is divided by the number of all pixels of `flow`. Not-a-number for a flow without pixels
/// or with fewer than two planes.
TARVO_API float aae(CTensor<float> flow, CTensor<float> reference);

/// Writes a plane as a binary portable grey map, its smallest value as 0 and its largest as 255, and prints
/// "NAME, range = RANGE". A constant plane is all 0, and so is a value that is not a number.
/// @param data           height rows of width floats
/// @param filename       an existing file is replaced when the new one is complete; if the file cannot be
///                       opened nothing is written, without a message
/// @param height, width  if one is below 1 the range is printed as -2000000000 and the file has no pixels
TARVO_API void print_image_cpu(float* data, const char* filename, int height, int width);

/// Prints columns x0 ... x1 - 1 of rows y0 ... y1 - 1 of a plane, "%f " per value, a line per row.
/// @param data   plane whose rows are `pitch` floats apart
/// The unnamed argument is not used.
TARVO_API void slice_image(float* data, int, int pitch, int x0, int y0, int x1, int y1);
