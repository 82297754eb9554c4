#pragma once

#include <tarvo/CTensor.h>

#include <string>

/// Small letters in pictures: figures, and the letters of what the legend says. Others are left blank.
namespace tool {

constexpr int kLetterHeight = 7;

/// How wide a text is [pixels], each pixel of a letter being `size` by `size`.
int lettersWidth(const std::string& text, int size);

/// Draws a text in black, its upper left corner at (x, y). It must lie in the picture, which has three planes.
void drawLetters(CTensor<float>& picture, const std::string& text, int x, int y, int size);

}  // namespace tool
