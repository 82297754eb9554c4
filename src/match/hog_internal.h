#pragma once

/// Host-array functions of <tarvo/hog.h> without the lock, for functions of the library that already hold it.
namespace match {

void computeHOGHostArray(const float* image, float* hog, int channels, int width, int height);
void computeConfidenceHostArray(const float* image, float* confidence, int height, int width, int channels);
void computeEnergyHostArray(const float* hog, float* energy, int height, int width, int bins);
float compute2DSumHostArray(const float* plane, int height, int width);

}  // namespace match
