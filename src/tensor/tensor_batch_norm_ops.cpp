#include "vorn/tensor/tensor.h"
