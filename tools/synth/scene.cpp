#include "synth/scene.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>

namespace {

using synth::Colour;
using synth::Motion;
using synth::Point;
using synth::Shape;
using synth::Texture;

using Palette = std::array<Colour, 3>;
constexpr Palette kEarth{Colour{122, 100, 74}, Colour{168, 148, 116}, Colour{92, 110, 68}};
constexpr Palette kBrick{Colour{168, 84, 62}, Colour{196, 122, 90}, Colour{110, 60, 58}};
constexpr Palette kLeaf{Colour{70, 124, 64}, Colour{134, 160, 70}, Colour{54, 92, 84}};
constexpr Palette kSea{Colour{64, 108, 158}, Colour{112, 164, 186}, Colour{70, 78, 128}};
constexpr Palette kSand{Colour{196, 172, 122}, Colour{170, 138, 98}, Colour{204, 190, 160}};
constexpr Palette kViolet{Colour{128, 86, 138}, Colour{176, 124, 158}, Colour{86, 72, 122}};

/// Puts a scene together: positions are shares of the picture's sides, lengths shares of the shorter side,
/// motions are in pixels.
class Builder {
 public:
  Builder(int width, int height, unsigned seed)
      : scene_{width, height, {}},
        width_(width),
        height_(height),
        side_(std::min(width, height)),
        seed_(seed) {}

  Point at(double x, double y) const { return {x * (width_ - 1), y * (height_ - 1)}; }
  double length(double share) const { return std::max(share * side_, 2.0); }
  double phase() const { return 6.283185307179586 / 4294967296.0 * synth::hash(seed_, count_, 77); }

  /// A turn and a magnification that move points at a distance of `reach` by so many pixels.
  static double turn(double pixels, double reach) { return pixels / reach; }
  static double zoom(double pixels, double reach) { return 1 + pixels / reach; }
  /// Distance of the corners from the centre.
  double corner() const { return std::max(0.5 * std::hypot(width_ - 1, height_ - 1), 1.0); }

  Texture texture(const Palette& palette, double detail) {
    return {synth::hash(seed_, count_++, 5), palette, detail};
  }

  Texture striped(const Palette& palette, double detail, double wavelength, double angle) {
    Texture result = texture(palette, detail);
    result.stripes = 0.14;
    result.stripeWavelength = wavelength;
    result.stripeAngle = angle;
    return result;
  }

  Builder& add(const Shape& shape, const Motion& motion, const Texture& texture) {
    scene_.layers.push_back({shape, motion, texture});
    return *this;
  }

  Scene background(const Motion& motion) {
    add(Shape::everywhere(), motion, texture(kEarth, 0.75));
    return scene_;
  }

 private:
  Scene scene_;
  double width_, height_, side_;
  unsigned seed_;
  int count_ = 0;
};

Scene shift(Builder b) {
  return b.background(Motion({0, 0}, {4.3, -2.6}));
}

Scene rotation(Builder b) {
  return b.background(Motion(b.at(0.5, 0.5), {0, 0}, Builder::turn(8, b.corner())));
}

Scene zoom(Builder b) {
  return b.background(Motion(b.at(0.5, 0.5), {0, 0}, 0, Builder::zoom(8, b.corner())));
}

Scene layers(Builder b) {
  const Point disc = b.at(0.36, 0.42), box = b.at(0.62, 0.6);
  const double radius = b.length(0.2), half = b.length(0.22);
  b.add(Shape::ellipse(disc, radius, radius), Motion(disc, {5, 2.4}, Builder::turn(0.8, radius)),
        b.texture(kBrick, 0.7));
  b.add(Shape::box(box, half, 0.7 * half, 0.15 * half, 0.3), Motion(box, {-4.2, 3.1}), b.texture(kSea, 0.7));
  return b.background(Motion(b.at(0.5, 0.5), {1.5, -0.8}));
}

Scene large(Builder b) {
  const Point start = b.at(0.33, 0.42);
  const double radius = b.length(0.1);
  b.add(Shape::blob(start, radius, 5, 0.15, b.phase()), Motion(start, {57.6, 16.8}), b.texture(kBrick, 0.8));
  return b.background(Motion(b.at(0.5, 0.5), {1.2, -0.6}));
}

Scene demo(Builder b) {
  const Point bar = b.at(0.62, 0.74), star = b.at(0.29, 0.36), ball = b.at(0.72, 0.3), leaf = b.at(0.4, 0.7),
              stone = b.at(0.9, 0.62), bird = b.at(0.12, 0.14);
  const double side = b.length(1);
  b.add(Shape::blob(bird, 0.055 * side, 5, 0.15, b.phase()), Motion(bird, {57, 18}), b.texture(kBrick, 0.9));
  b.add(Shape::box(bar, 0.19 * side, 0.09 * side, 0.05 * side, 0.35),
        Motion(bar, {-16, 9}, Builder::turn(1.2, 0.2 * side)), b.striped(kSand, 0.6, 13, 0.9));
  b.add(Shape::blob(star, 0.17 * side, 5, 0.2, b.phase()),
        Motion(star, {11, -5}, Builder::turn(3, 0.17 * side)), b.texture(kBrick, 0.75));
  b.add(Shape::blob(leaf, 0.11 * side, 3, 0.18, b.phase()), Motion(leaf, {12, 10}), b.texture(kViolet, 0.7));
  b.add(Shape::ellipse(ball, 0.21 * side, 0.16 * side, 0.4),
        Motion(ball, {-6, -4}, 0, Builder::zoom(3, 0.2 * side)), b.striped(kSea, 0.65, 17, 0.2));
  b.add(Shape::blob(stone, 0.13 * side, 4, 0.1, b.phase()),
        Motion(stone, {-8, 1.5}, Builder::turn(-2, 0.13 * side)), b.texture(kLeaf, 0.75));
  return b.background(
      Motion(b.at(0.45, 0.5), {2.4, 1.1}, Builder::turn(1.0, b.corner()), Builder::zoom(2.5, b.corner())));
}

struct NamedScene {
  const char* name;
  const char* description;
  Scene (*make)(Builder);
};

constexpr NamedScene kScenes[] = {
    {"demo",
     "five objects over a slowly growing ground, motion up to about 20 px, and a small one that moves 60 px",
     demo},
    {"shift", "one surface, shifted by (4.3, -2.6) px", shift},
    {"rotation", "one surface, turned about the centre, 8 px at the corners", rotation},
    {"zoom", "one surface, magnified about the centre, 8 px at the corners", zoom},
    {"layers", "a disc and a box over a ground, motion up to about 6 px, occlusion", layers},
    {"large", "a small object that moves 60 px over a slow ground (for 320x240 and more)", large},
};

}  // namespace

std::vector<SceneName> sceneNames() {
  std::vector<SceneName> names;
  for (const NamedScene& scene : kScenes) {
    names.push_back({scene.name, scene.description});
  }
  return names;
}

Scene makeScene(const std::string& name, int width, int height, unsigned seed) {
  if (width < 1 || height < 1) {
    throw std::invalid_argument("scene of " + std::to_string(width) + " x " + std::to_string(height) +
                                " pixels: both must be at least 1");
  }
  for (const NamedScene& scene : kScenes) {
    if (name == scene.name) {
      return scene.make(Builder(width, height, seed));
    }
  }
  throw std::invalid_argument("no scene is called '" + name + "'");
}
