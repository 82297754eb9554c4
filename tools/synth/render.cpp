#include "synth/scene.h"

namespace {

using synth::Colour;
using synth::Layer;
using synth::Point;

/// Colour at a position of frame 1 or 2: the layers from front to back, each as far as those before it let
/// through.
Colour colourAt(const Scene& scene, Point p, bool second) {
  constexpr double kHidden = 1e-9;  // share that no longer shows
  Colour sum{0, 0, 0};
  double share = 1;
  for (const Layer& layer : scene.layers) {
    const Point q = second ? layer.motion.inverse(p) : p;
    const double coverage = share * layer.shape.coverage(q);
    if (coverage > 0) {
      const Colour colour = layer.texture.at(q);
      sum.red += coverage * colour.red;
      sum.green += coverage * colour.green;
      sum.blue += coverage * colour.blue;
      share -= coverage;
      if (share < kHidden) {
        break;
      }
    }
  }
  return sum;
}

/// Index of the layer that is seen at a position of frame 1 or 2.
std::size_t topmostAt(const Scene& scene, Point p, bool second) {
  for (std::size_t i = 0; i + 1 < scene.layers.size(); ++i) {
    const Layer& layer = scene.layers[i];
    if (layer.shape.coverage(second ? layer.motion.inverse(p) : p) >= 0.5) {
      return i;
    }
  }
  return scene.layers.size() - 1;
}

CTensor<float> renderFrame(const Scene& scene, bool second) {
  CTensor<float> frame(scene.width, scene.height, 3);
  for (int y = 0; y < scene.height; ++y) {
    for (int x = 0; x < scene.width; ++x) {
      const Colour colour = colourAt(scene, {double(x), double(y)}, second);
      frame(x, y, 0) = static_cast<float>(colour.red);
      frame(x, y, 1) = static_cast<float>(colour.green);
      frame(x, y, 2) = static_cast<float>(colour.blue);
    }
  }
  return frame;
}

}  // namespace

Rendering render(const Scene& scene) {
  Rendering result{renderFrame(scene, false), renderFrame(scene, true),
                   CTensor<float>(scene.width, scene.height, 2),
                   CTensor<float>(scene.width, scene.height, 1)};
  for (int y = 0; y < scene.height; ++y) {
    for (int x = 0; x < scene.width; ++x) {
      const Point p{double(x), double(y)};
      const std::size_t top = topmostAt(scene, p, false);
      const Point q = scene.layers[top].motion.apply(p);
      result.flow(x, y, 0) = static_cast<float>(q.x - p.x);
      result.flow(x, y, 1) = static_cast<float>(q.y - p.y);
      const bool inside = q.x >= 0 && q.y >= 0 && q.x <= scene.width - 1 && q.y <= scene.height - 1;
      result.visible(x, y, 0) = inside && topmostAt(scene, q, true) == top ? 1.f : 0.f;
    }
  }
  return result;
}
