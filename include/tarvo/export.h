#pragma once

/// Marks what the shared library exports; everything else in it is hidden.
#define TARVO_API __attribute__((visibility("default")))
