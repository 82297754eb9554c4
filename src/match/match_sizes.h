#pragma once

namespace match {

/// Planes of a match field on the device, and new ones in their place.
struct FieldPlanes {
  const float *u, *v, *weight;
};
struct NewFieldPlanes {
  float *u, *v, *weight;
};

/// Matches both pictures shrunk to 1 / 2^octave as well, where a search reaches 2^octave times as far, and
/// merges what is found: `merged` gets
///   - every match of `field`, unless a match of the shrunk pictures within 4 pixels of it moves more than
///     4 pixels another way: one of the two is false, and neither counts;
///   - every match of the shrunk pictures that at least two neighbours share and that has no match of `field`
///     within 4 pixels.
/// @param image1, image2  device stacks of three planes, h x w, pitch p
/// @param field, merged   planes of that size; merged overlaps nothing
void mergeShrunk(const float* image1, const float* image2, const FieldPlanes& field,
                 const NewFieldPlanes& merged, int octave, int h, int w, int p);

/// Whether pictures of h x w shrunk so far have a point to search.
bool hasShrunkPoints(int octave, int h, int w);

}  // namespace match
