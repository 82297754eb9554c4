#pragma once

#include <gtest/gtest.h>
#include <tarvo/NDevice.h>

#include <cstring>
#include <stdexcept>

#include "support/planes.h"

/// Stacked planes on the device whose pitch exceeds the width. Padding columns and a guard before and behind
/// the planes hold a not-a-number of a recognisable pattern: what reads it spoils its result, what writes it
/// is found by intact().
class DevicePlanes {
 public:
  static constexpr int kPadding = 5;

  /// Contents: the sentinel everywhere.
  DevicePlanes(int h, int w, int count = 1, int padding = kPadding)
      : h_(h), w_(w), p_(w + padding), count_(count), whole_(wholeSize(), sentinel()) {
    memory_ = NDevice::allocate(whole_.size());
    if (memory_ == nullptr) throw std::runtime_error("DevicePlanes: no device memory");
    uploadAll();
  }
  explicit DevicePlanes(const Planes& planes, int padding = kPadding)
      : DevicePlanes(planes.h, planes.w, planes.count, padding) {
    set(planes);
  }
  ~DevicePlanes() { NDevice::release(memory_); }
  DevicePlanes(const DevicePlanes&) = delete;
  DevicePlanes& operator=(const DevicePlanes&) = delete;

  int p() const { return p_; }
  float* get() const { return memory_ + guard(); }
  float* plane(int k) const { return get() + static_cast<std::size_t>(k) * floats(1); }

  void set(const Planes& planes) const { NDevice::upload(get(), planes.data(), h_, w_, p_, count_); }
  void fill(float value) const { set(Planes(h_, w_, count_, value)); }
  Planes values() const {
    Planes planes(h_, w_, count_);
    NDevice::download(planes.data(), get(), h_, w_, p_, count_);
    return planes;
  }

  /// Whether everything but the pixels still holds the sentinel.
  testing::AssertionResult intact() const {
    std::vector<float> now(whole_.size());
    const int size = static_cast<int>(now.size());
    NDevice::download(now.data(), memory_, 1, size, size);
    for (std::size_t i = 0; i < now.size(); ++i) {
      if (isPixel(i)) continue;
      if (std::memcmp(&now[i], &whole_[i], sizeof(float)) != 0) {
        return testing::AssertionFailure()
               << "float " << static_cast<long>(i) - static_cast<long>(guard()) << " of a stack of " << count_
               << " planes " << w_ << " x " << h_ << ", pitch " << p_ << ", was overwritten with " << now[i];
      }
    }
    return testing::AssertionSuccess();
  }

 private:
  static float sentinel() {
    const std::uint32_t bits = 0x7fc5a5a5u;
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
  }
  std::size_t floats(int planes) const {
    return static_cast<std::size_t>(planes) * static_cast<std::size_t>(h_) * static_cast<std::size_t>(p_);
  }
  /// A multiple of 8 floats, so that planes keep the alignment of device memory.
  std::size_t guard() const { return (static_cast<std::size_t>(p_) + 15) / 8 * 8; }
  std::size_t wholeSize() const { return floats(count_) + 2 * guard(); }
  bool isPixel(std::size_t i) const {
    if (i < guard() || i >= guard() + floats(count_)) return false;
    return (i - guard()) % static_cast<std::size_t>(p_) < static_cast<std::size_t>(w_);
  }
  void uploadAll() const {
    const int size = static_cast<int>(whole_.size());
    NDevice::upload(memory_, whole_.data(), 1, size, size);
  }

  int h_, w_, p_, count_;
  std::vector<float> whole_;
  float* memory_ = nullptr;
};
