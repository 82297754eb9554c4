#pragma once

#include <tarvo/export.h>

// Sparse matches between two images. The points of a grid of 4 pixels in image 1 are searched in image 2
// within 80 pixels in each direction, by descriptors: 3 x 3 cells, 4 pixels apart, of a histogram field (see
// <tarvo/hog.h>). Every match is then searched in image 1, and kept if it returns to within one pixel of its
// point in each coordinate.
//
// A match field is three planes of the images' size, zero except at grid points with a kept match: u and v,
// its displacement from image 1 to image 2 [whole pixels], and its weight (d2 - d1) / (d1 + 0.000001), where
// d1 and d2 are the smallest and the second distance of the forward search. The weight says how distinct the
// match is: it is at least 0, has no upper limit, and is 1 where nothing else was acceptable. Weight 0 counts
// as no match.
//
// The thresholds are absolute: grey levels are in 0 ... 255. Pixels that are not a number or not finite cost
// matches in their neighbourhood, nothing else. The functions on host arrays throw std::invalid_argument for
// pictures without pixels or of more than about 143 million, before anything is changed. Any device error
// prints its message (unit "HOGMatch") and ends the process.

namespace NMatching {

// Geometry of the search [pixels].
inline constexpr int kSpacing = 4;  ///< between grid points, and between the cells of a descriptor
inline constexpr int kRadius = 80;  ///< half-width of the window that is searched around a point
inline constexpr int kMargin = 12;  ///< least distance of a candidate from the border; where the grid starts

}  // namespace NMatching

/// The match field of two images: histogram fields of both, confidence of image 1, descriptor energies,
/// search in both directions, consistency check. Grid: x, y = 12, 16, ... below the size less 12. A point
/// whose confidence, truncated to an integer, is below an eighth of the mean confidence is not searched.
/// Prints "%d %d %d %d\n" (grid columns and rows, width, height), then the running totals "HOG creation = %f
/// msec\n" and "HOG match = %f msec\n". With a side below 25 there is no grid point: an empty field.
/// @param image1, image2  in: device stacks of `channels` planes, h x w, pitch p floats; channels >= 3, of
///                        which the first three are compared for colour
/// @param u, v, weight    out: device planes of the same size and pitch, padding 0; they overlap no image
TARVO_API void gCreateAndMatchHOG(const float* image1, const float* image2, float* u, float* v, float* weight,
                                  int height, int width, int pitch, int channels);

/// gCreateAndMatchHOG for host arrays: `channels` dense planes per image in, dense planes out. Prints
/// "Hog over" at the end.
TARVO_API void createAndMatchHOG(const float* image1, const float* image2, float* u, float* v, float* weight,
                                 int height, int width, int channels);

/// The match field from given histogram fields and confidence; all arrays dense on the host. Grid:
/// x, y = 4, 8, ... below the size less 4. Prints the mean confidence twice (summed in order, and by
/// compute2DSum), three energies if the picture has their pixels, at most ten lines for matches and failed
/// checks together, at most ten for passed checks, and "Hog over".
/// @param image1, image2  in: three planes
/// @param hog1, hog2      in: 15 planes
/// @param confidence      in: one plane, of image 1
/// @param weight, u, v    out: one plane each
TARVO_API void HOGMatch(const float* image1, const float* image2, const float* hog1, const float* hog2,
                        const float* confidence, float* weight, float* u, float* v, int width, int height);

/// Searches `count` points of image A in image B. Candidates lie within 80 pixels of the point and at least
/// 12 pixels from the border. A candidate is rejected if one descriptor energy is more than twice the other,
/// or if the squared colour differences of the first three channels sum to more than 300. Its distance is the
/// sum of squared differences of the 135 descriptor elements, bin by bin and within a bin cell by cell; a
/// distance of 1e9 or more counts as rejected. Of equal distances the first column counts, in it the first
/// row. With b(c) and s(c) the smallest and the second smallest distance in column c of the window, entry k
/// of the results is
///   matchX, matchY   the nearest candidate, (0, 0) if none
///   bestDistance     its distance, the smallest b(c), 1e9 if none
///   secondDistance   the smallest over all columns c of b(c), or of s(c) where b(c) equals bestDistance; 1e9
///                    if none
/// Points that are not searched keep their entries: those with a coordinate 0 and, if forwardPass is not 0,
/// those whose confidence truncated to an integer is below meanConfidence / 8. Device pointers; no check.
/// @param pointX, pointY  `count` points at least 4 pixels inside the image, or with a coordinate 0
TARVO_API void HOGMatch_kernel(const float* imageA, const float* imageB, const float* hogA, const float* hogB,
                               const float* confidence, int forwardPass, const float* energyA,
                               const float* energyB, float meanConfidence, int* matchX, int* matchY,
                               float* bestDistance, float* secondDistance, const int* pointX,
                               const int* pointY, int height, int width, int pitch, int count);

/// Writes displacement and weight (see above) at every point whose backward match lies within one pixel of it
/// in each coordinate; everything else keeps its value. A distance above 1e8 counts as absent: the weight is
/// 1 if only the second is absent, 0 if both are. Device pointers; no check.
TARVO_API void consistencyCheck_kernel(const int* pointX, const int* pointY, const int* forwardX,
                                       const int* forwardY, const int* backwardX, const int* backwardY,
                                       const float* bestDistance, const float* secondDistance, int count,
                                       float* weight, float* u, float* v, int height, int width, int pitch);

/// What the last matching step did. Optional.
namespace NMatching {

/// Numbers of points; each includes the next.
struct Counts {
  int gridPoints;      ///< points of the sampling grid
  int gatedPoints;     ///< those with enough confidence to be searched
  int forwardMatches;  ///< those with an acceptable candidate in image 2
  int keptMatches;     ///< those whose match returns to within one pixel; weight 0 included
};

/// Counts of the last call of gCreateAndMatchHOG, createAndMatchHOG or HOGMatch in this process, or zeros.
TARVO_API Counts lastCounts();

/// Switches the matching stage of tarvo, runFlowGPU and runFlow off (false: the match field stays empty, the
/// stage prints nothing) or on again. A weight beta of 0 gives the same flow, at the cost of the search.
TARVO_API void enable(bool on);

}  // namespace NMatching
