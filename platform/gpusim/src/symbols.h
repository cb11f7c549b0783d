#ifndef GPUSIM_DETAIL_SYMBOLS_H_
#define GPUSIM_DETAIL_SYMBOLS_H_

// The symbol tables of the program and of its libraries.

#include <link.h>

#include <cstdint>
#include <functional>
#include <string>

namespace gpusim {

/// The loaded program or library that holds an address.
class Module {
public:
    explicit Module(const void* address);

    const std::string& path() const { return path_; }
    uintptr_t base() const { return base_; }
    /// The calling thread's thread-local data; null as long as it has used none.
    char* thread_data() const { return thread_data_; }

    /// Calls f with the entries of its symbol table and their names. A stripped file has none.
    using Visit = std::function<void(const ElfW(Sym) & symbol, const char* name)>;
    void for_each_symbol(const Visit& f) const;

private:
    static int look_at(dl_phdr_info* info, size_t, void* search);

    std::string path_;
    uintptr_t base_ = 0;
    char* thread_data_ = nullptr;
};

/// The name of a symbol as the source has it.
std::string demangled(const char* name);

/// The name of the function at an address; empty where it is not known.
std::string function_name(const void* address);

}  // namespace gpusim

#endif  // GPUSIM_DETAIL_SYMBOLS_H_
