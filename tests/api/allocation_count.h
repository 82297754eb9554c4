#pragma once

/// Number of buffers that the CPU device has asked the system for; 0 in builds whose pool keeps nothing.
long allocationCount();
