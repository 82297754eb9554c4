#include <tarvo/elementwise.h>

#include "device/launch.h"
#include "variational/elementwise_kernels.h"

void Scale_kernel(float* a, int h, int w, int p, float s) {
  launch(kernels::Scale_kernel{a, h, w, p, s});
}
void Scale1_kernel(float* a, int h, int w, int p, float s) {
  Scale_kernel(a, h, w, p, s);
}
void setValue_kernel(float* a, int h, int w, int p, float s) {
  launch(kernels::setValue_kernel{a, h, w, p, s});
}
void Bound_kernel(float* a, float lo, float hi, int h, int w, int p) {
  launch(kernels::Bound_kernel{a, lo, hi, h, w, p});
}
void Add_kernel(float* a, const float* b, int h, int w, int p) {
  launch(kernels::Add_kernel{a, b, h, w, p});
}
void Add1_kernel(float* a, const float* b, int h, int w, int p) {
  Add_kernel(a, b, h, w, p);
}
void Diff_kernel(float* out, const float* a, const float* b, int h, int w, int p) {
  launch(kernels::Diff_kernel{out, a, b, h, w, p});
}
void Mult_kernel(float* out, const float* a, const float* b, int h, int w, int p) {
  launch(kernels::Mult_kernel{out, a, b, h, w, p});
}
void normalize_kernel(float* a, int h, int w, int p) {
  launch(kernels::normalize_kernel{a, h, w, p});
}
void Psi_kernel(float* a, int h, int w, int p) {
  launch(kernels::Psi_kernel{a, h, w, p});
}
void Scale_and_Add_kernel(float* a, const float* b, float s, int h, int w, int p) {
  launch(kernels::Scale_and_Add_kernel{a, b, s, h, w, p});
}
void mySaxpy2_kernel(float* x, const float* q1, float alpha, float* r, const float* q2, float beta, int h,
                     int w, int p) {
  launch(kernels::mySaxpy2_kernel{x, q1, alpha, r, q2, beta, h, w, p});
}
