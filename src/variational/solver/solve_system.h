#pragma once

#include <tarvo/variational.h>

namespace variational {

/// As gPCG for the increment of the system that assembleSystem has made: fp.matrix holds what
/// kernels::SystemLayout::once names.
void solveSystem(const FPtmp& fp, int h, int w, int p, int iterations, const CGtmp& cg);

/// The same system by successive over-relaxation: `sweeps` sweeps, each over the pixels of even x + y, then
/// those of odd x + y. A pixel's step solves its 2 x 2 block, whose solution counts as 0 where the block is
/// singular (|det| <= 0.0001), and takes (1 - omega) times the old and omega times the new value.
/// @param fp         in: matrix, rhs; in: start, out: improved solution: increment. With sweeps >= 1 the
///                   contents of fp.matrix are lost.
/// @param sweeps     nothing is done below 1
/// @param omega      between 0 and 2; 1: no over-relaxation
/// Padding columns stay untouched and unread.
void relaxSystem(const FPtmp& fp, int h, int w, int p, int sweeps, float omega);

}  // namespace variational
