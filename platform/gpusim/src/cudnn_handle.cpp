#include "cudnn_handle.h"

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

cudnnStatus_t check_type(const Operand& operand, cudnnDataType_t type) {
    if (operand.tensor == nullptr) {
        return CUDNN_STATUS_SUCCESS;
    }
    if (operand.tensor->type != type) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    return type == CUDNN_DATA_FLOAT && !operand.tensor->has_negative_stride()
               ? CUDNN_STATUS_SUCCESS
               : CUDNN_STATUS_NOT_SUPPORTED;
}

}  // namespace

cudnnStatus_t check_operands(const char* function, std::initializer_list<Operand> inputs,
                             std::initializer_list<Operand> outputs, bool in_place) {
    const cudnnDataType_t type = inputs.begin()->tensor->type;
    for (const auto& operands : {inputs, outputs}) {
        for (const Operand& operand : operands) {
            const cudnnStatus_t status = check_type(operand, type);
            if (status != CUDNN_STATUS_SUCCESS) {
                return status;
            }
            if (operand.data == nullptr && operand.size != 0) {
                return CUDNN_STATUS_BAD_PARAM;
            }
        }
    }
    for (const Operand& output : outputs) {
        if (output.tensor != nullptr && output.tensor->overlaps_itself()) {
            return CUDNN_STATUS_NOT_SUPPORTED;
        }
        for (const auto& operands : {inputs, outputs}) {
            for (const Operand& other : operands) {
                const bool same = &other == inputs.begin() && &output == outputs.begin() &&
                                  in_place && other.data == output.data &&
                                  other.tensor->stride == output.tensor->stride;
                if (&other != &output && !same && overlap(output, other)) {
                    std::fprintf(stderr, "gpusim: %s: %s overlaps %s\n", function, output.name,
                                 other.name);
                    return CUDNN_STATUS_BAD_PARAM;
                }
            }
        }
    }
    for (const auto& operands : {inputs, outputs}) {
        for (const Operand& operand : operands) {
            if (!check_operand(function, operand.name, operand.data, operand.size)) {
                return CUDNN_STATUS_EXECUTION_FAILED;
            }
        }
    }
    return CUDNN_STATUS_SUCCESS;
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
