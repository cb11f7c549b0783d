#include "symbols.h"

#include <cxxabi.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <utility>

namespace gpusim {

namespace {

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

}  // namespace

Module::Module(const void* address) {
    std::pair<Module*, uintptr_t> search(this, reinterpret_cast<uintptr_t>(address));
    dl_iterate_phdr(&Module::look_at, &search);
}

int Module::look_at(dl_phdr_info* info, size_t, void* search) {
    const auto [module, address] = *static_cast<std::pair<Module*, uintptr_t>*>(search);
    for (unsigned i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& segment = info->dlpi_phdr[i];
        if (segment.p_type == PT_LOAD &&
            address - info->dlpi_addr - segment.p_vaddr < segment.p_memsz) {
            module->path_ = *info->dlpi_name != '\0' ? info->dlpi_name : "/proc/self/exe";
            module->base_ = info->dlpi_addr;
            module->thread_data_ = static_cast<char*>(info->dlpi_tls_data);
            return 1;
        }
    }
    return 0;
}

void Module::for_each_symbol(const Visit& f) const {
    const File file(path_.c_str());
    const auto* header = file.at<ElfW(Ehdr)>(0);
    if (header == nullptr || std::memcmp(header->e_ident, ELFMAG, SELFMAG) != 0) {
        return;
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
        for (size_t k = 0; symbols != nullptr && text != nullptr && k < count; ++k) {
            if (symbols[k].st_name < names.sh_size) {
                f(symbols[k], text + symbols[k].st_name);
            }
        }
    }
}

std::string demangled(const char* name) {
    int status = 0;
    char* const text = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    std::string result = status == 0 ? text : name;
    std::free(text);
    return result;
}

std::string function_name(const void* address) {
    const Module module(address);
    const uintptr_t offset = reinterpret_cast<uintptr_t>(address) - module.base();
    std::string name;
    module.for_each_symbol([&](const ElfW(Sym) & symbol, const char* text) {
        if (name.empty() && (symbol.st_info & 0xf) == STT_FUNC && symbol.st_value == offset) {
            name = demangled(text);
        }
    });
    return name;
}

}  // namespace gpusim
