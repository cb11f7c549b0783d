#include "memory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "sanitizer.h"
#include "strict.h"

namespace gpusim {

namespace {

constexpr size_t kAlignment = 512;
constexpr size_t kLargeAlignment = 64 * 1024;
constexpr size_t kLarge = 1024 * 1024;
// Distance of a block's end to the next block.
constexpr size_t kRedZone = 512;
constexpr size_t kDefaultSize = size_t{16} << 30;
constexpr size_t kSmallestArena = size_t{256} << 20;

size_t round_up(size_t value, size_t to) {
    return (value + to - 1) / to * to;
}

/// What lies past a block that ends at `end`: floats that are NaN, so that reads of it show too,
/// with other bits than what a program stores.
const unsigned char* red_zone(const char* end) {
    static const auto bytes = [] {
        std::array<unsigned char, kRedZone + 4> filled;
        for (size_t i = 0; i < filled.size(); ++i) {
            filled[i] = i % 4 == 3 ? 0xff : 0xa5;
        }
        return filled;
    }();
    return bytes.data() + reinterpret_cast<uintptr_t>(end) % 4;
}

bool stored_past(const char* block, size_t size) {
    const char* const end = block + size;
    return !kAddressSanitizer && std::memcmp(end, red_zone(end), kRedZone) != 0;
}

size_t reserved_size(size_t size) {
    return round_up(size + kRedZone, size < kLarge ? kAlignment : kLargeAlignment);
}

size_t configured_size() {
    const char* text = std::getenv("GPUSIM_MEMORY");
    if (text == nullptr) {
        return kDefaultSize;
    }
    char* end = nullptr;
    size_t size = std::strtoull(text, &end, 10);
    switch (*end) {
        case 'G':
        case 'g':
            size <<= 10;
            [[fallthrough]];
        case 'M':
        case 'm':
            size <<= 10;
            [[fallthrough]];
        case 'K':
        case 'k':
            size <<= 10;
    }
    return size == 0 ? kDefaultSize : round_up(size, kLargeAlignment);
}

}  // namespace

Arena::Arena() {
    const size_t wanted = configured_size();
    // A machine that limits address space gets a smaller device.
    for (size_t size = wanted;; size /= 2) {
        if (map_with_key(size) || map_plain(size)) {
            size_ = size;
            return;
        }
        if (size <= kSmallestArena) {
            return;
        }
    }
}

bool Arena::map_with_key(size_t size) {
    const int key = pkey_alloc(0, PKEY_DISABLE_ACCESS);
    if (key < 0) {
        return false;
    }
    const int file = memfd_create("gpusim", MFD_CLOEXEC);
    void* base = MAP_FAILED;
    void* alias = MAP_FAILED;
    if (file >= 0 && ftruncate(file, static_cast<off_t>(size)) == 0) {
        const int flags = MAP_SHARED | MAP_NORESERVE;
        base = mmap(nullptr, size, PROT_READ | PROT_WRITE, flags, file, 0);
        alias = mmap(nullptr, size, PROT_READ | PROT_WRITE, flags, file, 0);
    }
    if (file >= 0) {
        ::close(file);
    }
    if (base != MAP_FAILED && alias != MAP_FAILED &&
        pkey_mprotect(base, size, PROT_READ | PROT_WRITE, key) == 0) {
        base_ = static_cast<char*>(base);
        alias_offset_ = reinterpret_cast<uintptr_t>(alias) - reinterpret_cast<uintptr_t>(base);
        key_ = key;
        // A core dump would write out the whole range.
        madvise(base, size, MADV_DONTDUMP);
        madvise(alias, size, MADV_DONTDUMP);
        return true;
    }
    for (void* mapping : {base, alias}) {
        if (mapping != MAP_FAILED) {
            munmap(mapping, size);
        }
    }
    pkey_free(key);
    return false;
}

bool Arena::map_plain(size_t size) {
    void* base = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (base == MAP_FAILED) {
        return false;
    }
    base_ = static_cast<char*>(base);
    madvise(base, size, MADV_DONTDUMP);
    madvise(base, size, MADV_HUGEPAGE);
    guarded_ = strict() && mprotect(base, size, PROT_NONE) == 0;
    return true;
}

void Arena::open() {
    if (guarded_) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (users_++ == 0) {
            mprotect(base_, size_, PROT_READ | PROT_WRITE);
        }
    }
}

void Arena::close() {
    if (guarded_) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (--users_ == 0) {
            mprotect(base_, size_, PROT_NONE);
        }
    }
}

void Arena::discard(size_t offset, size_t size) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t first = round_up(offset, page);
    const size_t last = (offset + size) / page * page;
    if (first < last) {
        madvise(base_ + first, last - first, key_ >= 0 ? MADV_REMOVE : MADV_DONTNEED);
    }
}

void open_device_memory() {
    const int key = Memory::get().arena().key();
    if (key >= 0) {
        pkey_set(key, 0);
    }
}

namespace {

unsigned exchange_rights(unsigned rights) {
    const int key = Memory::get().arena().key();
    if (key < 0) {
        return 0;
    }
    const unsigned old = static_cast<unsigned>(pkey_get(key));
    pkey_set(key, rights);
    return old;
}

}  // namespace

DeviceAccess::DeviceAccess() : saved_(exchange_rights(0)) {
    Memory::get().arena().open();
}
DeviceAccess::~DeviceAccess() {
    Memory::get().arena().close();
    exchange_rights(saved_);
}
HostAccess::HostAccess() : saved_(exchange_rights(PKEY_DISABLE_ACCESS)) {
    Memory::get().arena().close();
}
HostAccess::~HostAccess() {
    Memory::get().arena().open();
    exchange_rights(saved_);
}

Memory& Memory::get() {
    static Memory* const memory = new Memory;
    return *memory;
}

Memory::Memory() {
    if (arena_.size() != 0) {
        add_range(0, arena_.size());
    }
}

void Memory::add_range(size_t offset, size_t size) {
    auto next = ranges_.lower_bound(offset);
    if (next != ranges_.begin()) {
        const auto previous = std::prev(next);
        if (previous->first + previous->second == offset) {
            offset = previous->first;
            size += previous->second;
            remove_range(previous);
        }
    }
    if (next != ranges_.end() && offset + size == next->first) {
        size += next->second;
        remove_range(next);
    }
    ranges_[offset] = size;
    by_size_.insert({size, offset});
}

void Memory::remove_range(std::map<size_t, size_t>::iterator range) {
    by_size_.erase({range->second, range->first});
    ranges_.erase(range);
}

bool Memory::find_range(size_t reserved, size_t* offset) {
    const auto found = by_size_.lower_bound({reserved, 0});
    if (found == by_size_.end()) {
        return false;
    }
    const auto [size, start] = *found;
    remove_range(ranges_.find(start));
    if (size > reserved) {
        add_range(start + reserved, size - reserved);
    }
    *offset = start;
    return true;
}

bool Memory::find_freed(size_t reserved, const StreamPtr& stream, size_t* offset) {
    const auto list = freed_.find(reserved);
    if (list == freed_.end()) {
        return false;
    }
    // The latest is the likeliest to be in the processor's caches.
    for (auto freed = list->second.rbegin(); freed != list->second.rend(); ++freed) {
        if (freed->point.stream == stream || freed->point.reached()) {
            *offset = freed->offset;
            list->second.erase(std::next(freed).base());
            return true;
        }
    }
    return false;
}

void Memory::collect() {
    for (auto& [reserved, list] : freed_) {
        const auto done = std::partition(list.begin(), list.end(),
                                         [](const Freed& freed) { return !freed.point.reached(); });
        for (auto freed = done; freed != list.end(); ++freed) {
            add_range(freed->offset, reserved);
        }
        list.erase(done, list.end());
    }
}

void* Memory::take(size_t offset, size_t size, size_t reserved) {
    blocks_[offset] = {size, reserved};
    used_ += reserved;
    return arena_.base() + offset;
}

void* Memory::allocate(size_t size, const StreamPtr& stream) {
    if (size > arena_.size()) {
        return nullptr;
    }
    const size_t reserved = reserved_size(size);
    for (int attempt = 0; attempt < 2; ++attempt) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            size_t offset = 0;
            if (find_freed(reserved, stream, &offset)) {
                return take(offset, size, reserved);
            }
            collect();
            if (find_range(reserved, &offset)) {
                return take(offset, size, reserved);
            }
        }
        // What was freed in other streams comes back once they have run.
        if (attempt == 0) {
            Device::get().synchronize_all();
        }
    }
    return nullptr;
}

std::map<size_t, Memory::Block>::iterator Memory::find_block(const void* pointer) {
    return arena_.contains(pointer) ? blocks_.find(static_cast<size_t>(
                                          static_cast<const char*>(pointer) - arena_.base()))
                                    : blocks_.end();
}

size_t Memory::block_size(const void* pointer) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto block = find_block(pointer);
    return block == blocks_.end() ? 0 : block->second.size;
}

bool Memory::free(void* pointer, const StreamPtr& stream) {
    // Read before the lock: the device's mutex is never taken inside this one.
    const StreamPoint point = Device::get().tail(stream);
    std::lock_guard<std::mutex> lock(mutex_);
    const auto block = find_block(pointer);
    if (block == blocks_.end()) {
        return false;
    }
    const size_t reserved = block->second.reserved;
    freed_[reserved].push_back({block->first, point});
    used_ -= reserved;
    blocks_.erase(block);
    return true;
}

bool Memory::free_idle(void* pointer) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto block = find_block(pointer);
    if (block == blocks_.end()) {
        return false;
    }
    const auto [offset, entry] = *block;
    constexpr size_t kWorthDiscarding = size_t{16} << 20;
    if (entry.reserved >= kWorthDiscarding) {
        arena_.discard(offset, entry.reserved);
    }
    used_ -= entry.reserved;
    add_range(offset, entry.reserved);
    blocks_.erase(block);
    return true;
}

void Memory::reset() {
    std::lock_guard<std::mutex> lock(mutex_);
    collect();
    for (const auto& [offset, block] : blocks_) {
        poison(arena_.base() + offset, block.reserved);
        add_range(offset, block.reserved);
    }
    blocks_.clear();
    living_.clear();
    used_ = 0;
    for (const auto& [offset, size] : ranges_) {
        arena_.discard(offset, size);
    }
}

void Memory::begin(void* pointer, size_t size) {
    char* const block = static_cast<char*>(pointer);
    unpoison(block, size);
    std::memset(block, 0xff, size);
    if (kAddressSanitizer) {
        poison(block + size, reserved_size(size) - size);
    } else {
        std::memcpy(block + size, red_zone(block + size), kRedZone);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    living_[block] = size;
}

bool Memory::end(void* pointer, size_t size) {
    char* const block = static_cast<char*>(pointer);
    const bool intact = !stored_past(block, size);
    poison(block, reserved_size(size));
    std::lock_guard<std::mutex> lock(mutex_);
    living_.erase(block);
    return intact;
}

size_t Memory::overrun(const void* pointer) {
    if (!arena_.contains(pointer)) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    auto block = living_.upper_bound(static_cast<const char*>(pointer));
    if (block == living_.begin()) {
        return 0;
    }
    --block;
    const bool inside = static_cast<const char*>(pointer) <= block->first + block->second;
    return inside && stored_past(block->first, block->second) ? block->second : 0;
}

size_t Memory::used() {
    std::lock_guard<std::mutex> lock(mutex_);
    return used_;
}

void* Memory::allocate_host(size_t size) {
    constexpr size_t kHostAlignment = 4096;
    void* pointer = nullptr;
    if (posix_memalign(&pointer, kHostAlignment, size) != 0) {
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    host_[static_cast<const char*>(pointer)] = {size, true};
    return pointer;
}

bool Memory::free_host(void* pointer) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = host_.find(static_cast<const char*>(pointer));
        if (found == host_.end() || !found->second.owned) {
            return false;
        }
        host_.erase(found);
    }
    std::free(pointer);
    return true;
}

cudaError_t Memory::register_host(void* pointer, size_t size) {
    if (pointer == nullptr || size == 0 || arena_.contains(pointer)) {
        return cudaErrorInvalidValue;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    const char* begin = static_cast<const char*>(pointer);
    const auto next = host_.lower_bound(begin);
    if ((next != host_.end() && next->first < begin + size) ||
        find_host(pointer, &begin) != nullptr) {
        return cudaErrorHostMemoryAlreadyRegistered;
    }
    host_[begin] = {size, false};
    return cudaSuccess;
}

cudaError_t Memory::unregister_host(void* pointer) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = host_.find(static_cast<const char*>(pointer));
    if (found == host_.end() || found->second.owned) {
        return cudaErrorHostMemoryNotRegistered;
    }
    host_.erase(found);
    return cudaSuccess;
}

const Memory::HostRange* Memory::find_host(const void* pointer, const char** begin) const {
    const char* address = static_cast<const char*>(pointer);
    auto range = host_.upper_bound(address);
    if (range == host_.begin()) {
        return nullptr;
    }
    --range;
    if (address >= range->first + range->second.size) {
        return nullptr;
    }
    *begin = range->first;
    return &range->second;
}

bool Memory::device_accessible(const void* pointer, size_t size) {
    std::lock_guard<std::mutex> lock(mutex_);
    const char* address = static_cast<const char*>(pointer);
    if (!arena_.contains(pointer)) {
        const char* begin = nullptr;
        const HostRange* range = find_host(pointer, &begin);
        return range != nullptr && size <= range->size - static_cast<size_t>(address - begin);
    }
    const size_t offset = static_cast<size_t>(address - arena_.base());
    auto block = blocks_.upper_bound(offset);
    if (block == blocks_.begin()) {
        return false;
    }
    --block;
    const size_t inside = offset - block->first;
    return inside <= block->second.size && size <= block->second.size - inside;
}

bool Memory::may_be_argument(const void* pointer) {
    if (pointer == nullptr || arena_.contains(pointer)) {
        return true;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    const char *address = static_cast<const char*>(pointer), *begin = nullptr;
    return find_host(address, &begin) != nullptr || find_host(address - 1, &begin) != nullptr;
}

bool Memory::host_accessible(const void* pointer, size_t size) {
    if (pointer == nullptr || arena_.contains(pointer)) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    const char* begin = nullptr;
    const HostRange* range = find_host(pointer, &begin);
    return range == nullptr ||
           size <= range->size - static_cast<size_t>(static_cast<const char*>(pointer) - begin);
}

cudaMemoryType Memory::type(const void* pointer) {
    if (arena_.contains(pointer)) {
        return device_accessible(pointer, 1) ? cudaMemoryTypeDevice : cudaMemoryTypeUnregistered;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    const char* begin = nullptr;
    return find_host(pointer, &begin) != nullptr ? cudaMemoryTypeHost : cudaMemoryTypeUnregistered;
}

}  // namespace gpusim
