#ifndef GPUSIM_DETAIL_MEMORY_H_
#define GPUSIM_DETAIL_MEMORY_H_

// Device memory, the blocks in it, and pinned host memory.

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <unordered_map>
#include <vector>

#include "device.h"

namespace gpusim {

/// The address range of the device. Where the processor has protection keys, only threads that
/// opened the key can touch it; libraries with threads of their own use a second mapping of the
/// same memory, whose addresses nobody else learns.
class Arena {
public:
    Arena();

    size_t size() const { return size_; }
    char* base() const { return base_; }
    bool contains(const void* pointer) const {
        return static_cast<size_t>(static_cast<const char*>(pointer) - base_) < size_;
    }
    template <class T>
    T* alias(T* pointer) const {
        return contains(pointer)
                   ? reinterpret_cast<T*>(reinterpret_cast<uintptr_t>(pointer) + alias_offset_)
                   : pointer;
    }
    int key() const { return key_; }
    /// In a strict run without protection keys, nobody can touch the range but between these two.
    void open();
    void close();
    /// Gives the pages back to the system; they read as zero afterwards.
    void discard(size_t offset, size_t size);

private:
    bool map_with_key(size_t size);
    bool map_plain(size_t size);

    char* base_ = nullptr;
    size_t size_ = 0;
    int key_ = -1;
    uintptr_t alias_offset_ = 0;
    bool guarded_ = false;
    std::mutex mutex_;
    unsigned users_ = 0;
};

class Memory {
public:
    static Memory& get();

    /// Null when no room is left.
    void* allocate(size_t size, const StreamPtr& stream);
    /// The block may be given out again in the stream's order at once, elsewhere once the stream
    /// has come here. False if `pointer` isn't the start of a block.
    bool free(void* pointer, const StreamPtr& stream);
    /// Bytes of the block that starts at `pointer`; 0 if none does.
    size_t block_size(const void* pointer);
    /// For a device that is idle.
    bool free_idle(void* pointer);

    /// Begins a block's life: all its bytes are 0xff, which makes every float NaN and every index
    /// negative, so that what reads it before it was written shows. A red zone lies past its end.
    void begin(void* pointer, size_t size);
    /// Ends it; false if something was stored past its end.
    bool end(void* pointer, size_t size);
    /// Bytes of the living block that `pointer` lies in, if something was stored past its end; 0
    /// otherwise.
    size_t overrun(const void* pointer);
    void reset();

    void* allocate_host(size_t size);
    bool free_host(void* pointer);
    cudaError_t register_host(void* pointer, size_t size);
    cudaError_t unregister_host(void* pointer);

    /// Whether all of [pointer, pointer + size) may be used by the device: inside one block, or
    /// inside one pinned range.
    bool device_accessible(const void* pointer, size_t size);
    /// Whether the address may be a kernel's: on the device, in pinned memory or at its end, or
    /// null.
    bool may_be_argument(const void* pointer);
    /// Whether host code may use it: not device memory, and not past the end of a pinned range.
    bool host_accessible(const void* pointer, size_t size);
    cudaMemoryType type(const void* pointer);

    Arena& arena() { return arena_; }
    size_t used();

private:
    struct Block {
        size_t size;      // as asked for
        size_t reserved;  // taken from the arena
    };
    struct Freed {
        size_t offset;
        StreamPoint point;
    };
    struct HostRange {
        size_t size;
        bool owned;  // allocated here, as opposed to registered
    };

    Memory();
    void* take(size_t offset, size_t size, size_t reserved);
    bool find_range(size_t reserved, size_t* offset);
    bool find_freed(size_t reserved, const StreamPtr& stream, size_t* offset);
    void add_range(size_t offset, size_t size);
    void remove_range(std::map<size_t, size_t>::iterator range);
    void collect();
    std::map<size_t, Block>::iterator find_block(const void* pointer);
    const HostRange* find_host(const void* pointer, const char** begin) const;

    std::mutex mutex_;
    Arena arena_;
    std::map<size_t, Block> blocks_;                        // by offset
    std::map<size_t, size_t> ranges_;                       // free: offset to size
    std::set<std::pair<size_t, size_t>> by_size_;           // free: size and offset
    std::unordered_map<size_t, std::vector<Freed>> freed_;  // by reserved size, not yet collected
    std::map<const char*, HostRange> host_;
    std::map<const char*, size_t> living_;  // begun and not ended, in the order of the streams
    size_t used_ = 0;
};

/// A block whose life begins in the order of `stream`; null when no room is left.
void* allocate_in_stream(size_t size, const StreamPtr& stream);
/// False if `pointer` isn't the start of a block.
bool free_in_stream(void* pointer, const StreamPtr& stream);

/// Lets the calling thread use device memory from now on.
void open_device_memory();

/// Lets host code use device memory, for a copy on its own thread.
class DeviceAccess {
public:
    DeviceAccess();
    ~DeviceAccess();
    DeviceAccess(const DeviceAccess&) = delete;
    DeviceAccess& operator=(const DeviceAccess&) = delete;

private:
    unsigned saved_;
};

/// Takes device memory from a stream's thread while it runs host code.
class HostAccess {
public:
    HostAccess();
    ~HostAccess();
    HostAccess(const HostAccess&) = delete;
    HostAccess& operator=(const HostAccess&) = delete;

private:
    unsigned saved_;
};

}  // namespace gpusim

#endif  // GPUSIM_DETAIL_MEMORY_H_
