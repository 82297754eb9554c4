#include <tarvo/timers.h>

double timer_filter, timer_memcpy1, timer_HOG, timer_var, timer_total;
double timer_hogc, timer_hogmatch;
double timer_memcpy, timer_down, timer_interp_warp, timer_makematrix, timer_solver;

double setup_time, sortimer;

timeval start_filter, finish_filter;
timeval start_memcpy1, finish_memcpy1;
timeval start_HOG, finish_HOG;
timeval start_var, finish_var;
timeval start_total, finish_total;
timeval start_hogc, finish_hogc;
timeval start_hogmatch, finish_hogmatch;
timeval start_memcpy, finish_memcpy;
timeval start_down, finish_down;
timeval start_interp_warp, finish_interp_warp;
timeval start_makematrix, finish_makematrix;
timeval start_solver, finish_solver;
