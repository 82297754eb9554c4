#include "match/match_forms.h"
#include "match/pictures.h"

namespace {

TEST(MatchSearch, HasOneResultInAllItsForms) {
  using Function = float (*)(int, int, int);
  struct Case {
    const char* name;
    Function a, b;
    int h, w, dx, dy, step;
  };
  const Case cases[] = {
      {"textured, shifted", textured, textured, 150, 210, 10, -6, 4},
      {"textured, full windows", textured, textured, 230, 240, -3, 2, 16},
      {"other texture", textured, quantised, 90, 110, 0, 0, 4},
      {"noise", noise, noise, 110, 130, 1, 1, 4},
      {"constant", constant, constant, 70, 90, 0, 0, 8},
      {"checkerboard", checkerboard, checkerboard, 90, 120, 3, 5, 8},
      {"pale checkerboard", checkerboard, paleCheckerboard, 90, 120, 3, 5, 8},
      {"stripes", stripes, stripes, 80, 110, 2, 0, 8},
      {"quantised", quantised, quantised, 110, 130, 4, 4, 4},
      {"flat on texture", textured, constant, 80, 90, 0, 0, 4},
      {"one candidate", textured, textured, 25, 25, 0, 0, 4},
      {"one column", textured, textured, 60, 25, 0, 1, 4},
      {"no candidate", textured, textured, 24, 40, 0, 0, 4},
  };
  for (const Case& c : cases) {
    expectAllFormsEqual(fieldsOf(picture(c.h, c.w, c.a), picture(c.h, c.w, c.b, c.dx, c.dy)), c.step, c.name);
  }
}

TEST(MatchSearch, HasOneResultWhateverThePixelsHold) {
  Planes a = picture(80, 100, textured), b = picture(80, 100, textured, 5, 3);
  const float values[] = {NAN, INFINITY, -INFINITY, 3e38f, -3e38f, 1e19f, 1e-42f};
  Random random(4);
  for (const float value : values) {
    for (Planes* image : {&a, &b}) {
      image->at(static_cast<int>(random.next(0, 100)), static_cast<int>(random.next(0, 80)), 1) = value;
    }
  }
  MatchInput in = fieldsOf(a, b);
  expectAllFormsEqual(in, 4, "pictures");
  for (const float value : values) {  // and fields that no picture has
    for (Planes* plane : {&in.hogA, &in.hogB, &in.energyA, &in.energyB, &in.confidence}) {
      for (int i = 0; i < 40; ++i) {
        plane->at(static_cast<int>(random.next(0, 100)), static_cast<int>(random.next(0, 80)),
                  i % plane->count) = value;
      }
    }
  }
  expectAllFormsEqual(in, 4, "fields");
  in.meanConfidence = NAN;
  expectAllFormsEqual(in, 8, "mean");
}

TEST(MatchSearch, HasOneResultForDistancesOfAnySize) {
  for (const float scale : {1e-25f, 1e-20f, 1e-6f, 300.0f, 3e4f}) {
    MatchInput in = fieldsOf(picture(70, 80, quantised), picture(70, 80, quantised, 2, 2));
    for (Planes* plane : {&in.hogA, &in.hogB, &in.energyA, &in.energyB}) {
      for (float& value : plane->values) value *= scale;
    }
    expectAllFormsEqual(in, 4, "scale " + std::to_string(scale));
  }
}

TEST(MatchSearch, LeavesSecondDistanceAsTheTreesDo) {
  Planted none;
  expectMatch(none.match(), 0, 0, 1e9f, 1e9f);

  Planted single;
  single.candidate(60, 70, 3.0f);
  expectMatch(single.match(), 60, 70, 9.0f, 1e9f);

  Planted sameColumn;
  sameColumn.candidate(50, 61, 2.0f);
  sameColumn.candidate(50, 40, 2.0f);
  sameColumn.candidate(71, 90, 3.0f);
  expectMatch(sameColumn.match(), 50, 40, 4.0f, 4.0f);

  Planted otherColumns;
  otherColumns.candidate(57, 30, 2.0f);
  otherColumns.candidate(50, 60, 2.0f);
  otherColumns.candidate(50, 90, 5.0f);
  otherColumns.candidate(57, 121, 4.0f);
  expectMatch(otherColumns.match(), 50, 60, 4.0f, 16.0f);
  otherColumns.candidate(130, 140, 3.0f);
  expectMatch(otherColumns.match(), 50, 60, 4.0f, 9.0f);

  for (const int apart : {64, 128}) {  // columns as far apart as bits of the words that note them
    Planted columns;
    columns.candidate(40, 60, 2.0f);
    columns.candidate(40 + apart, 90, 2.0f);
    columns.candidate(71, 120, 3.0f);
    expectMatch(columns.match(), 40, 60, 4.0f, 9.0f);
  }

  Planted improved;  // the best of a column becomes its second
  improved.candidate(50, 30, 3.0f);
  improved.candidate(50, 60, 2.0f);
  improved.candidate(90, 60, 6.0f);
  expectMatch(improved.match(), 50, 60, 4.0f, 9.0f);

  Planted far;  // from 1e9 on a distance counts as none
  far.candidate(50, 60, 31623.0f);
  far.candidate(90, 60, 31000.0f);
  expectMatch(far.match(), 90, 60, 961000000.0f, 1e9f);
}

TEST(MatchSearch, TakesCandidatesUpToItsLimitsAndNoneBeyond) {
  Planted window;
  for (const int x : {19, 181, 20}) window.candidate(x, 100, x == 20 ? 5.0f : 1.0f);
  expectMatch(window.match(), 20, 100, 25.0f, 1e9f);
  Planted border;
  border.candidate(100, 188, 1.0f);
  border.candidate(107, 187, 5.0f);
  border.candidate(113, 11, 1.0f);
  border.candidate(120, 12, 6.0f);
  expectMatch(border.match(100, 150), 107, 187, 25.0f, 1e9f);
  expectMatch(border.match(100, 60), 120, 12, 36.0f, 1e9f);

  Planted colour;
  for (const int x : {50, 61}) colour.candidate(x, 60, x == 50 ? 5.0f : 1.0f);
  for (int c = 0; c < 3; ++c) {
    colour.in.imageB.at(50, 60, c) = 10.0f;  // sum of squares 300
    colour.in.imageB.at(61, 60, c) = c == 1 ? 10.00001f : 10.0f;
  }
  expectMatch(colour.match(), 50, 60, 25.0f, 1e9f);

  Planted energy;
  for (const int x : {50, 61, 72, 83}) energy.candidate(x, 60, static_cast<float>(x));
  energy.in.energyB.at(50, 60) = 2.0000002f;
  energy.in.energyB.at(61, 60) = 0.49999997f;
  energy.in.energyB.at(72, 60) = 2.0f;
  energy.in.energyB.at(83, 60) = 0.5f;
  expectMatch(energy.match(), 72, 60, 5184.0f, 6889.0f);
}

TEST(MatchSearch, IsGatedByConfidenceInTheForwardPassOnly) {
  Planted planted;
  planted.candidate(60, 70, 3.0f);
  planted.in.confidence.at(100, 100) = 7.9f;  // counts as 7
  planted.in.meanConfidence = 56.0f;
  EXPECT_TRUE(planted.match().searched);
  planted.in.meanConfidence = 56.5f;
  EXPECT_FALSE(planted.match().searched);
  EXPECT_TRUE(search(planted.in, {{100}, {100}}, false)[0].searched);
  EXPECT_FALSE(search(planted.in, {{0}, {100}}, false)[0].searched);
  planted.in.confidence.at(100, 100) = NAN;  // counts as 0
  EXPECT_FALSE(planted.match().searched);
}

TEST(ConsistencyCheck, KeepsWhatReturnsWithinOnePixelAndWeighsIt) {
  struct Case {
    int backX, backY;
    float d1, d2;
    bool kept;
    float weight;
  };
  const Case cases[] = {
      {20, 20, 2.0f, 5.0f, true, static_cast<float>(3.0 / 2.000001)},
      {21, 19, 0.0f, 5.0f, true, static_cast<float>(5.0 / 0.000001)},
      {19, 21, 4.0f, 4.0f, true, 0.0f},
      {22, 20, 2.0f, 5.0f, false, 0.0f},
      {20, 18, 2.0f, 5.0f, false, 0.0f},
      {0, 0, 1e9f, 1e9f, false, 0.0f},
      {20, 20, 0.0f, 1e9f, true, 1.0f},
      {20, 20, 1e8f, 1.00000008e8f, true, 1.0f},
      {20, 20, 2e8f, 3e8f, true, 0.0f},
      {20, 20, 0.0f, 1e8f, true, 1e14f},
  };
  for (const Case& c : cases) {
    const DeviceInts pointX({20}), pointY({20}), forwardX({31}), forwardY({15}), backX({c.backX}),
        backY({c.backY});
    DevicePlanes best(Planes(1, 1, 1, c.d1)), second(Planes(1, 1, 1, c.d2));
    DevicePlanes weight(Planes(40, 50)), u(Planes(40, 50)), v(Planes(40, 50));
    consistencyCheck_kernel(pointX.get(), pointY.get(), forwardX.get(), forwardY.get(), backX.get(),
                            backY.get(), best.get(), second.get(), 1, weight.get(), u.get(), v.get(), 40, 50,
                            weight.p());
    Planes expected(40, 50);
    const auto only = [&](float value) {
      expected.at(20, 20) = c.kept ? value : 0.0f;
      return expected.values;
    };
    EXPECT_EQ(u.values().values, only(11.0f)) << c.d1 << " " << c.d2;
    EXPECT_EQ(v.values().values, only(-5.0f));
    EXPECT_EQ(weight.values().values, only(c.weight)) << c.d1 << " " << c.d2;
    EXPECT_TRUE(weight.intact() && u.intact() && v.intact());
  }
}

}  // namespace
