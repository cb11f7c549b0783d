#include "shared_memory.h"

#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace gpusim {

namespace {

/// Where a variable lies in its module's thread-local data.
struct Place {
    size_t offset;
    size_t size;
};

/// A file, mapped for reading; empty where that fails.
class File {
public:
    explicit File(const char* path) {
        const int file = open(path, O_RDONLY | O_CLOEXEC);
        struct stat status;
        if (file >= 0 && fstat(file, &status) == 0) {
            size_ = static_cast<size_t>(status.st_size);
            data_ = mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, file, 0);
        }
        if (file >= 0) {
            close(file);
        }
    }
    ~File() {
        if (data_ != MAP_FAILED) {
            munmap(data_, size_);
        }
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    /// `count` objects at an offset, or null where the file has no room for them.
    template <class T>
    const T* at(size_t offset, size_t count = 1) const {
        const bool inside =
            data_ != MAP_FAILED && offset <= size_ && count <= (size_ - offset) / sizeof(T);
        return inside ? reinterpret_cast<const T*>(static_cast<const char*>(data_) + offset)
                      : nullptr;
    }

private:
    void* data_ = MAP_FAILED;
    size_t size_ = 0;
};

std::vector<Place> read_places(const char* path) {
    constexpr char kTag[] = "B13gpusim_shared";  // as mangled
    std::vector<Place> places;
    const File file(path);
    const auto* header = file.at<ElfW(Ehdr)>(0);
    if (header == nullptr || std::memcmp(header->e_ident, ELFMAG, SELFMAG) != 0) {
        return places;
    }
    const auto* sections = file.at<ElfW(Shdr)>(header->e_shoff, header->e_shnum);
    for (unsigned i = 0; sections != nullptr && i < header->e_shnum; ++i) {
        const ElfW(Shdr)& table = sections[i];
        if (table.sh_type != SHT_SYMTAB || table.sh_link >= header->e_shnum) {
            continue;
        }
        const ElfW(Shdr)& names = sections[table.sh_link];
        const size_t count = table.sh_size / sizeof(ElfW(Sym));
        const auto* symbols = file.at<ElfW(Sym)>(table.sh_offset, count);
        const char* text = file.at<char>(names.sh_offset, names.sh_size);
        if (symbols == nullptr || text == nullptr) {
            continue;
        }
        for (size_t k = 0; k < count; ++k) {
            const ElfW(Sym)& symbol = symbols[k];
            const bool thread_local_data = (symbol.st_info & 0xf) == STT_TLS;
            if (thread_local_data && symbol.st_name < names.sh_size &&
                std::strstr(text + symbol.st_name, kTag) != nullptr) {
                places.push_back({symbol.st_value, symbol.st_size});
            }
        }
    }
    return places;
}

const std::vector<Place>& places_in(const char* path) {
    static std::mutex mutex;
    static auto& known = *new std::map<std::string, std::vector<Place>>;
    std::lock_guard<std::mutex> lock(mutex);
    const auto found = known.find(path);
    return found != known.end() ? found->second : known[path] = read_places(path);
}

/// The loaded program or library that holds an address.
struct Module {
    const void* address;
    std::string path;
    char* thread_data = nullptr;  // the calling thread's; null as long as it has used none

    explicit Module(const void* address_inside) : address(address_inside) {
        dl_iterate_phdr(&Module::look_at, this);
    }

private:
    static int look_at(dl_phdr_info* info, size_t, void* self) {
        Module& module = *static_cast<Module*>(self);
        const auto address = reinterpret_cast<uintptr_t>(module.address);
        for (unsigned i = 0; i < info->dlpi_phnum; ++i) {
            const ElfW(Phdr)& segment = info->dlpi_phdr[i];
            if (segment.p_type == PT_LOAD &&
                address - info->dlpi_addr - segment.p_vaddr < segment.p_memsz) {
                module.path = *info->dlpi_name != '\0' ? info->dlpi_name : "/proc/self/exe";
                module.thread_data = static_cast<char*>(info->dlpi_tls_data);
                return 1;
            }
        }
        return 0;
    }
};

}  // namespace

SharedMemory::SharedMemory(const void* kernel) {
    const Module module(kernel);
    if (module.thread_data != nullptr) {
        for (const Place& place : places_in(module.path.c_str())) {
            variables_.push_back({module.thread_data + place.offset, place.size});
        }
    }
}

void SharedMemory::poison() const {
    for (const Variable& variable : variables_) {
        std::memset(variable.begin, 0xff, variable.size);
    }
}

}  // namespace gpusim
