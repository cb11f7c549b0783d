#include "cudnn_handle.h"

#include <algorithm>
#include <cstdio>
#include <functional>

namespace gpusim::cudnn {

namespace {

struct StatusText {
    cudnnStatus_t status;
    const char* text;
};

#define TEXT(status) \
    { status, #status }
constexpr StatusText kTexts[] = {
    TEXT(CUDNN_STATUS_SUCCESS),
    TEXT(CUDNN_STATUS_NOT_INITIALIZED),
    TEXT(CUDNN_STATUS_BAD_PARAM),
    TEXT(CUDNN_STATUS_NOT_SUPPORTED),
    TEXT(CUDNN_STATUS_INTERNAL_ERROR),
    TEXT(CUDNN_STATUS_INTERNAL_ERROR_HOST_ALLOCATION_FAILED),
    TEXT(CUDNN_STATUS_INTERNAL_ERROR_DEVICE_ALLOCATION_FAILED),
    TEXT(CUDNN_STATUS_EXECUTION_FAILED),
};
#undef TEXT

bool overlap(const Operand& a, const Operand& b) {
    const char* const begin_a = static_cast<const char*>(a.data);
    const char* const begin_b = static_cast<const char*>(b.data);
    const std::less<const char*> before;
    return before(begin_a, begin_b + b.size) && before(begin_b, begin_a + a.size);
}

/// One list after the other.
template <class F>
bool all_of(std::initializer_list<Operand> inputs, std::initializer_list<Operand> outputs, F test) {
    return std::all_of(inputs.begin(), inputs.end(), test) &&
           std::all_of(outputs.begin(), outputs.end(), test);
}

}  // namespace

cudnnStatus_t check_operands(const char* function, std::initializer_list<Operand> inputs,
                             std::initializer_list<Operand> outputs, bool in_place) {
    const cudnnDataType_t type = inputs.begin()->tensor->type;
    if (!all_of(inputs, outputs, [&](const Operand& o) {
            return (o.tensor == nullptr || o.tensor->type == type) &&
                   (o.data != nullptr || o.size == 0);
        })) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    if (type != CUDNN_DATA_FLOAT ||
        !all_of(inputs, outputs,
                [](const Operand& o) {
                    return o.tensor == nullptr || !o.tensor->has_negative_stride();
                }) ||
        std::any_of(outputs.begin(), outputs.end(), [](const Operand& o) {
            return o.tensor != nullptr && o.tensor->overlaps_itself();
        })) {
        return CUDNN_STATUS_NOT_SUPPORTED;
    }
    for (const Operand& output : outputs) {
        const auto apart = [&](const Operand& other) {
            const bool same = in_place && &output == outputs.begin() && &other == inputs.begin() &&
                              other.data == output.data &&
                              other.tensor->stride == output.tensor->stride;
            if (&other == &output || same || !overlap(output, other)) {
                return true;
            }
            std::fprintf(stderr, "gpusim: %s: %s overlaps %s\n", function, output.name, other.name);
            return false;
        };
        if (!all_of(inputs, outputs, apart)) {
            return CUDNN_STATUS_BAD_PARAM;
        }
    }
    const auto usable = [&](const Operand& o) {
        return check_operand(function, o.name, o.data, o.size);
    };
    return all_of(inputs, outputs, usable) ? CUDNN_STATUS_SUCCESS : CUDNN_STATUS_EXECUTION_FAILED;
}

}  // namespace gpusim::cudnn

using gpusim::cudnn::kLibrary;

const char* cudnnGetErrorString(cudnnStatus_t status) {
    for (const auto& text : gpusim::cudnn::kTexts) {
        if (text.status == status) {
            return text.text;
        }
    }
    return "CUDNN_UNKNOWN_STATUS";
}

cudnnStatus_t cudnnCreate(cudnnHandle_t* handle) {
    return kLibrary.create(handle);
}

cudnnStatus_t cudnnDestroy(cudnnHandle_t handle) {
    return handle == nullptr ? CUDNN_STATUS_SUCCESS : kLibrary.destroy(handle);
}

cudnnStatus_t cudnnSetStream(cudnnHandle_t handle, cudaStream_t stream) {
    return kLibrary.set_stream(handle, stream);
}
