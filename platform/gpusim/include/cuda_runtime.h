#ifndef GPUSIM_CUDA_RUNTIME_H_
#define GPUSIM_CUDA_RUNTIME_H_

/// The CUDA runtime of a simulated device: the part of its interface that host and kernel code
/// commonly share, with the toolkit's own names, types and numbers.
///
/// Kernels are ordinary functions here. They run on the host's processor, on one thread per stream.

/// Tells sources that run on real devices too which toolkit they are compiled against.
#define GPUSIM 1

#include "gpusim/device_functions.h"
#include "gpusim/error.h"
#include "gpusim/launch.h"
#include "gpusim/runtime_api.h"
#include "gpusim/vector_types.h"

#endif  // GPUSIM_CUDA_RUNTIME_H_
