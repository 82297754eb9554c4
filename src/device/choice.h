#pragma once

#include "device/backend.h"

namespace device {

/// The backend that work runs on; chooses it at the first use.
const Backend& chosenBackend();

}  // namespace device
