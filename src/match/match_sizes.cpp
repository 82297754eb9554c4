#include "match/match_sizes.h"

#include <tarvo/picture.h>
#include <tarvo/pyramid.h>

#include "device/launch.h"
#include "match/match_sizes_kernels.h"
#include "match/match_steps.h"

namespace {

constexpr int kLeastSupport = 2;  // of a match of the shrunk pictures

}  // namespace

bool match::hasShrunkPoints(int octave, int h, int w) {
  return Grid(w >> octave, h >> octave, kGridMargin).count() > 0;
}

void match::mergeShrunk(const float* image1, const float* image2, const FieldPlanes& field,
                        const NewFieldPlanes& merged, int octave, int h, int w, int p) {
  const int smallH = h >> octave, smallW = w >> octave, smallP = device::chosenPitch(smallW);
  const std::size_t plane = device::planeFloats(smallH, smallP);
  device::Buffer small1, small2, found;
  for (device::Buffer* small : {&small1, &small2}) {
    const float* const image = small == &small1 ? image1 : image2;
    TARVO_CALL(small->allocate(kPictureChannels * plane));
    for (int c = 0; c < kPictureChannels; ++c) {  // whole blocks: what is left over at the ends is cut off
      downsample(image + device::planeFloats(h, p, c), smallH << octave, smallW << octave, p,
                 small->get() + static_cast<std::size_t>(c) * plane, smallH, smallW, smallP, nullptr);
    }
  }
  TARVO_CALL(found.allocate(4 * plane));
  float *const u = found.get(), *const v = u + plane, *const weight = v + plane, *const kept = weight + plane;
  createAndMatch(small1.get(), small2.get(), u, v, weight, smallH, smallW, smallP, kPictureChannels);
  dropLone(kept, weight, u, v, kSpacing, kLeastSupport, smallH, smallW, smallP);
  launch(kernels::MergeShrunk{merged.u, merged.v, merged.weight, field.u, field.v, field.weight, u, v, kept,
                              smallH, smallW, smallP, 1 << octave, h, w, p});
  TARVO_LAUNCHED("Merged matches");
  for (device::Buffer* buffer : {&small1, &small2, &found}) TARVO_CALL(buffer->release());
}
