#pragma once

#include <tarvo/CTensor.h>

#include <string>
#include <vector>

#include "synth/geometry.h"
#include "synth/texture.h"

namespace synth {

/// A textured surface with its own outline and motion. Texture and outline are given in positions of frame 1.
struct Layer {
  Shape shape;
  Motion motion;
  Texture texture;
};

}  // namespace synth

/// Textured layers that move between two frames, from the front to the back; the last one covers everything.
struct Scene {
  int width, height;
  std::vector<synth::Layer> layers;
};

/// A scene to be had by name, with a line that says what it shows.
struct SceneName {
  std::string name, description;
};
std::vector<SceneName> sceneNames();

/// Builds a scene. Outlines grow with the picture; motions, textures and edges are in pixels whatever its
/// size.
/// @param name           one of sceneNames()
/// @param width, height  at least 1
/// @param seed           another seed gives other textures and outlines, the same motions
/// @throws std::invalid_argument  for another name or size
Scene makeScene(const std::string& name, int width, int height, unsigned seed);

/// Two frames of a scene and what is known about them.
struct Rendering {
  CTensor<float> frame1;  ///< width x height x 3, red, green, blue in 0 ... 255, not rounded
  CTensor<float> frame2;  ///< the same
  CTensor<float> flow;  ///< width x height x 2: the motion [pixels] of the topmost layer at each pixel centre
  CTensor<float>
      visible;  ///< width x height x 1: 1 where the point seen in frame 1 is also seen in frame 2, else 0
};

/// The frame after so much of the motions, 0 being frame 1 and 1 frame 2.
CTensor<float> renderFrame(const Scene& scene, double time);

/// Flow and visibility, as in Rendering, from the frame at one time to that at another.
void renderMotion(const Scene& scene, double from, double to, CTensor<float>& flow, CTensor<float>& visible);

/// Renders both frames: frame 2 looks every layer up at the inverse of its motion, so that the flow is exact.
/// The same scene gives the same values every time.
Rendering render(const Scene& scene);
