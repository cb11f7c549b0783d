#include "shared_memory.h"

#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>

#include "symbols.h"

namespace gpusim {

namespace {

/// Where a variable lies in its module's thread-local data, and the function that declares it.
struct Place {
    size_t offset;
    size_t size;
    std::string function;
};

std::vector<Place> read_places(const Module& module) {
    constexpr char kTag[] = "B13gpusim_shared";  // as mangled
    std::vector<Place> places;
    module.for_each_symbol([&](const ElfW(Sym) & symbol, const char* name) {
        if ((symbol.st_info & 0xf) == STT_TLS && std::strstr(name, kTag) != nullptr) {
            const std::string text = demangled(name);
            places.push_back({symbol.st_value, symbol.st_size, text.substr(0, text.rfind("::"))});
        }
    });
    return places;
}

const std::vector<Place>& places_in(const Module& module) {
    static std::mutex mutex;
    static auto& known = *new std::map<std::string, std::vector<Place>>;
    std::lock_guard<std::mutex> lock(mutex);
    const auto found = known.find(module.path());
    return found != known.end() ? found->second : known[module.path()] = read_places(module);
}

bool find_excess(const void* kernel) {
    std::map<std::string, size_t> bytes;
    bool excess = false;
    for (const Place& place : places_in(Module(kernel))) {
        excess |= (bytes[place.function] += place.size) > kSharedMemory;
    }
    if (!excess) {
        return false;
    }
    // Names of templates say what they return, those of variables in them don't.
    const std::string name = function_name(kernel), returns = "void ";
    return bytes[name.compare(0, returns.size(), returns) == 0 ? name.substr(returns.size())
                                                               : name] > kSharedMemory;
}

}  // namespace

SharedMemory::SharedMemory(const void* kernel) {
    const Module module(kernel);
    if (module.thread_data() != nullptr) {
        for (const Place& place : places_in(module)) {
            variables_.push_back({module.thread_data() + place.offset, place.size});
        }
    }
}

void SharedMemory::poison() const {
    for (const Variable& variable : variables_) {
        std::memset(variable.begin, 0xff, variable.size);
    }
}

bool exceeds_shared_memory(const void* kernel) {
    static std::mutex mutex;
    static auto& known = *new std::unordered_map<const void*, bool>;
    std::lock_guard<std::mutex> lock(mutex);
    const auto [entry, is_new] = known.try_emplace(kernel, false);
    if (is_new) {
        entry->second = find_excess(kernel);
    }
    return entry->second;
}

}  // namespace gpusim
