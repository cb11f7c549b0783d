#include <stdexcept>
#include <string_view>
#include <unordered_map>

#include "tensor_class.h"

namespace vorn {
namespace python {

static const char* doc_of(const std::string& key) {
    static const std::unordered_map<std::string_view, const char*> docs = {
#include "tensor_docs.inc"
    };
    const auto found = docs.find(key);
    if (found == docs.end()) {
        throw std::logic_error("tensor.h has no " + key);
    }
    return found->second;
}

const char* doc_of_member(const char* name, std::initializer_list<const char*> parameters) {
    std::string key = std::string(name) + "(";
    const char* separator = "";
    for (const char* parameter : parameters) {
        key.append(separator).append(parameter);
        if (key.back() == '_') {
            key.pop_back();
        }
        separator = ", ";
    }
    return doc_of(key + ")");
}

const char* doc_of_tensor() {
    return doc_of("Tensor");
}

}  // namespace python
}  // namespace vorn
