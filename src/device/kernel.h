#pragma once

/// How kernels are written: a struct with the kernel's name, whose fields are its arguments and whose call
/// operator does pixel (x, y). A kernel that reads neighbours may also have
///   static constexpr int kReach: how many columns it reads to either side, and
///   inside(x, y): the same as the call operator, for pixels at least kReach columns away from both side
///   borders and in neither the first nor the last row,
/// so that the CPU's inner loop has no border tests. A pixel may then be done twice, unless the kernel also
/// has
///   static constexpr bool kInPlace = true: it reads what it writes.

/// TARVO_HOST: a function of the CPU device alone that is always inlined.
/// TARVO_UNROLL: the short loop that follows is written out.
#ifdef __CUDACC__
#define TARVO_HOST_DEVICE __host__ __device__ __forceinline__
#define TARVO_HOST __host__ __forceinline__
#define TARVO_UNROLL _Pragma("unroll")
#else
#define TARVO_UNROLL _Pragma("GCC unroll 16")
#define TARVO_HOST_DEVICE inline __attribute__((always_inline))
#define TARVO_HOST TARVO_HOST_DEVICE
#endif

namespace device {

/// Size of the plane that a kernel writes: outH x outW where it has those fields, else h x w.
template <class Kernel>
TARVO_HOST_DEVICE auto rowsOf(const Kernel& k, int) -> decltype(k.outH) {
  return k.outH;
}
template <class Kernel>
TARVO_HOST_DEVICE int rowsOf(const Kernel& k, long) {
  return k.h;
}
template <class Kernel>
TARVO_HOST_DEVICE auto columnsOf(const Kernel& k, int) -> decltype(k.outW) {
  return k.outW;
}
template <class Kernel>
TARVO_HOST_DEVICE int columnsOf(const Kernel& k, long) {
  return k.w;
}

}  // namespace device
