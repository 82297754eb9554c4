#include <tarvo/tarvo.h>

#include <cmath>
#include <cstdio>

// A program of a user, built against the installed library alone: computes the flow of a pattern that moves
// one pixel to the right, and fails unless the flow says so.
int main() {
  const int width = 48;
  const int height = 40;
  CTensor<float> frame1(width, height, 3);
  CTensor<float> frame2(width, height, 3);
  for (int c = 0; c < 3; ++c) {
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        auto pattern = [&](float at) {
          return 128.f + 60.f * std::sin(0.5f * at + c) + 50.f * std::cos(0.4f * y);
        };
        frame1(x, y, c) = pattern(static_cast<float>(x));
        frame2(x, y, c) = pattern(static_cast<float>(x) - 1.f);
      }
    }
  }

  NReport::silence();
  CTensor<float> forward;
  CTensor<float> backward;
  tarvo(frame1, frame2, forward, backward);
  if (forward.sizeX() != width || forward.sizeY() != height || forward.sizeZ() != 2) return 1;

  float u = forward(width / 2, height / 2, 0);
  float v = forward(width / 2, height / 2, 1);
  std::printf("flow in the middle: %.3f %.3f, on %s\n", u, v, NDevice::current().c_str());
  return std::abs(u - 1.f) < 0.2f && std::abs(v) < 0.2f ? 0 : 1;
}
