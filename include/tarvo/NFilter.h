#pragma once

#include <tarvo/CFilter.h>
#include <tarvo/CMatrix.h>
#include <tarvo/CTensor.h>
#include <tarvo/export.h>

/// Filters on host containers, in single precision. They run on the caller's thread, and no multiplication is
/// fused with an addition. All are available for float.
namespace NFilter {

/// Applies a mask along x, y or z. The position of the mask among the last arguments selects the direction;
/// the ints stand for the mask sizes of the other directions (pass 1) and are not used.
///
/// result(p) = sum of mask(centre + i) * source(p + i) in increasing i, added up in single precision from 0.
/// Samples outside the line are mirrored about the border, the border sample repeated, as often as it takes
/// for them to lie inside. Every element of result is written; result is a different object with the sizes of
/// source.
/// @throws EFilterIncompatibleSize  sizes differ; result is untouched
template <typename T>
void filter(const CTensor<T>& source, CTensor<T>& result, const CFilter<T>& mask, int, int);
template <typename T>
void filter(const CTensor<T>& source, CTensor<T>& result, int, const CFilter<T>& mask, int);
template <typename T>
void filter(const CTensor<T>& source, CTensor<T>& result, int, int, const CFilter<T>& mask);
template <typename T>
void filter(const CMatrix<T>& source, CMatrix<T>& result, const CFilter<T>& mask, int);
template <typename T>
void filter(const CMatrix<T>& source, CMatrix<T>& result, int, const CFilter<T>& mask);

/// Gaussian smoothing in place along rows (X) or columns (Y), planes independently, by a recursion whose cost
/// per sample does not depend on sigma. The gain is 1 inside a line; the start of the recursion is
/// asymmetric: with sigma 2 a line of ones begins 0.912, 0.934, 0.957 and ends 1.043, 1.066, 1.088. Lines of
/// one sample stay as they are.
/// @param sigma  standard deviation [samples]. The image stays as it is if sigma is not greater than 0
///               (not-a-number included), or so small or large that the coefficients are not finite.
template <typename T>
void recursiveSmoothX(CMatrix<T>& image, float sigma);
template <typename T>
void recursiveSmoothX(CTensor<T>& image, float sigma);
template <typename T>
void recursiveSmoothY(CMatrix<T>& image, float sigma);
template <typename T>
void recursiveSmoothY(CTensor<T>& image, float sigma);

/// Mean over a window of `width` samples along rows (X) or columns (Y), planes independently. The window is
/// cut at the border: the mean is over the samples that exist. It is a running sum: two additions per sample
/// whatever the width.
/// @param result  out: a different object with the sizes of source
/// @param width   window [samples]; an even width counts as one more, less than 1 as 1
/// @throws EFilterIncompatibleSize  sizes differ; result is untouched
template <typename T>
void boxFilterX(const CTensor<T>& source, CTensor<T>& result, int width);
template <typename T>
void boxFilterY(const CTensor<T>& source, CTensor<T>& result, int width);

extern template TARVO_API void filter<float>(const CTensor<float>&, CTensor<float>&, const CFilter<float>&,
                                             int, int);
extern template TARVO_API void filter<float>(const CTensor<float>&, CTensor<float>&, int,
                                             const CFilter<float>&, int);
extern template TARVO_API void filter<float>(const CTensor<float>&, CTensor<float>&, int, int,
                                             const CFilter<float>&);
extern template TARVO_API void filter<float>(const CMatrix<float>&, CMatrix<float>&, const CFilter<float>&,
                                             int);
extern template TARVO_API void filter<float>(const CMatrix<float>&, CMatrix<float>&, int,
                                             const CFilter<float>&);
extern template TARVO_API void recursiveSmoothX<float>(CMatrix<float>&, float);
extern template TARVO_API void recursiveSmoothX<float>(CTensor<float>&, float);
extern template TARVO_API void recursiveSmoothY<float>(CMatrix<float>&, float);
extern template TARVO_API void recursiveSmoothY<float>(CTensor<float>&, float);
extern template TARVO_API void boxFilterX<float>(const CTensor<float>&, CTensor<float>&, int);
extern template TARVO_API void boxFilterY<float>(const CTensor<float>&, CTensor<float>&, int);

}  // namespace NFilter
