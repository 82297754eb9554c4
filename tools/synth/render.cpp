#include "synth/scene.h"

namespace {

using synth::Colour;
using synth::Layer;
using synth::Motion;
using synth::Point;

/// The layers' motions from frame 1 to a time; none for frame 1 itself.
std::vector<Motion> motionsTo(const Scene& scene, double time) {
  std::vector<Motion> motions;
  for (std::size_t i = 0; time != 0 && i < scene.layers.size(); ++i) {
    motions.push_back(scene.layers[i].motion.part(time));
  }
  return motions;
}

/// Where in frame 1 the point of layer i was that is at p now.
Point originOf(const std::vector<Motion>& motions, std::size_t i, Point p) {
  return motions.empty() ? p : motions[i].inverse(p);
}

/// Colour at a position: the layers from front to back, each as far as those before it let through.
Colour colourAt(const Scene& scene, const std::vector<Motion>& motions, Point p) {
  constexpr double kHidden = 1e-9;  // share that no longer shows
  Colour sum{0, 0, 0};
  double share = 1;
  for (std::size_t i = 0; i < scene.layers.size(); ++i) {
    const Layer& layer = scene.layers[i];
    const Point q = originOf(motions, i, p);
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

/// Index of the layer that is seen at a position.
std::size_t topmostAt(const Scene& scene, const std::vector<Motion>& motions, Point p) {
  for (std::size_t i = 0; i + 1 < scene.layers.size(); ++i) {
    if (scene.layers[i].shape.coverage(originOf(motions, i, p)) >= 0.5) {
      return i;
    }
  }
  return scene.layers.size() - 1;
}

}  // namespace

CTensor<float> renderFrame(const Scene& scene, double time) {
  const std::vector<Motion> motions = motionsTo(scene, time);
  CTensor<float> frame(scene.width, scene.height, 3);
  for (int y = 0; y < scene.height; ++y) {
    for (int x = 0; x < scene.width; ++x) {
      const Colour colour = colourAt(scene, motions, {double(x), double(y)});
      frame(x, y, 0) = static_cast<float>(colour.red);
      frame(x, y, 1) = static_cast<float>(colour.green);
      frame(x, y, 2) = static_cast<float>(colour.blue);
    }
  }
  return frame;
}

void renderMotion(const Scene& scene, double from, double to, CTensor<float>& flow, CTensor<float>& visible) {
  const std::vector<Motion> before = motionsTo(scene, from), after = motionsTo(scene, to);
  flow = CTensor<float>(scene.width, scene.height, 2);
  visible = CTensor<float>(scene.width, scene.height, 1);
  for (int y = 0; y < scene.height; ++y) {
    for (int x = 0; x < scene.width; ++x) {
      const Point p{double(x), double(y)};
      const std::size_t top = topmostAt(scene, before, p);
      const Point origin = originOf(before, top, p), q = after.empty() ? origin : after[top].apply(origin);
      flow(x, y, 0) = static_cast<float>(q.x - p.x);
      flow(x, y, 1) = static_cast<float>(q.y - p.y);
      const bool inside = q.x >= 0 && q.y >= 0 && q.x <= scene.width - 1 && q.y <= scene.height - 1;
      visible(x, y, 0) = inside && topmostAt(scene, after, q) == top ? 1.f : 0.f;
    }
  }
}

Rendering render(const Scene& scene) {
  Rendering result{renderFrame(scene, 0), renderFrame(scene, 1), {}, {}};
  renderMotion(scene, 0, 1, result.flow, result.visible);
  return result;
}
