#pragma once

#include <tarvo/export.h>

#include <sys/time.h>

// Wall-clock accumulators in milliseconds, one per phase, each with the two clock readings that were added to
// it last. They only grow: every value is a total since the library was loaded. Read them between calls, not
// during a call.

extern TARVO_API double timer_filter;       ///< host pre-smoothing of the images
extern TARVO_API double timer_memcpy1;      ///< upload and download of one flow computation
extern TARVO_API double timer_HOG;          ///< the matching step
extern TARVO_API double timer_var;          ///< the variational step
extern TARVO_API double timer_total;        ///< a whole flow computation, without device initialisation
extern TARVO_API double timer_hogc;         ///< creation of the histogram fields
extern TARVO_API double timer_hogmatch;     ///< confidence, energies, matching and consistency check
extern TARVO_API double timer_memcpy;       ///< match planes of the levels; transfers of variationalFlow
extern TARVO_API double timer_down;         ///< building each level's images and match planes
extern TARVO_API double timer_interp_warp;  ///< flow prolongation, validity plane and warping
extern TARVO_API double timer_makematrix;   ///< each fixed-point step, solver included
extern TARVO_API double timer_solver;       ///< each linear solve

// Processor time of all threads, as std::clock counts it, in ticks: CLOCKS_PER_SEC to the second.

extern TARVO_API double setup_time;  ///< COpticFlow::nonlinearIteration, solver included
extern TARVO_API double sortimer;    ///< SORIterations

extern TARVO_API timeval start_filter, finish_filter;
extern TARVO_API timeval start_memcpy1, finish_memcpy1;
extern TARVO_API timeval start_HOG, finish_HOG;
extern TARVO_API timeval start_var, finish_var;
extern TARVO_API timeval start_total, finish_total;
extern TARVO_API timeval start_hogc, finish_hogc;
extern TARVO_API timeval start_hogmatch, finish_hogmatch;
extern TARVO_API timeval start_memcpy, finish_memcpy;
extern TARVO_API timeval start_down, finish_down;
extern TARVO_API timeval start_interp_warp, finish_interp_warp;
extern TARVO_API timeval start_makematrix, finish_makematrix;
extern TARVO_API timeval start_solver, finish_solver;
