#pragma once

// The whole public interface of tarvo.

#include <tarvo/CFilter.h>
#include <tarvo/CMatrix.h>
#include <tarvo/COpticFlow.h>
#include <tarvo/CTensor.h>
#include <tarvo/CVector.h>
#include <tarvo/NDevice.h>
#include <tarvo/NFilter.h>
#include <tarvo/NFlow.h>
#include <tarvo/NFlowFile.h>
#include <tarvo/NMath.h>
#include <tarvo/NReport.h>
#include <tarvo/elementwise.h>
#include <tarvo/exceptions.h>
#include <tarvo/filters.h>
#include <tarvo/flow.h>
#include <tarvo/hog.h>
#include <tarvo/matching.h>
#include <tarvo/picture.h>
#include <tarvo/pyramid.h>
#include <tarvo/solvers.h>
#include <tarvo/tensors.h>
#include <tarvo/timers.h>
#include <tarvo/variational.h>
