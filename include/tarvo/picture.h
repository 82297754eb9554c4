#pragma once

/// Channels of the pictures between which flow is computed: red, green and blue, each a plane.
inline constexpr int kPictureChannels = 3;
