#include <memory>
#include <vector>

#include "floor.h"
#include "random_tensor.h"
#include "vorn/tensor/tensor.h"

namespace vorn {
namespace bench {
namespace {

// Shapes in cache and in memory. With an inner extent of 1 a slice takes one element of every
// `channel`: the whole lines in which these stand have to be moved, not only their bytes.
void shapes(benchmark::internal::Benchmark* bench) {
    bench->ArgNames({"outer", "channel", "inner"});
    bench->Args({64, 8, 1024})
        ->Args({4096, 16, 64})
        ->Args({4096, 16, 256})
        ->Args({100000, 16, 4})
        ->Args({1024, 4, 8192})
        ->Args({16, 4, 1000000});
    bench->Args({4096, 16, 1})->Args({1000000, 16, 1})->Args({1000000, 2, 1});
}

void shrink(benchmark::State& state) {
    const Dim size(state.range(0), state.range(1), state.range(2));
    const Tensor<float> in = random_tensor(size, -1, 1);
    Tensor<float> out = random_tensor(Dim(size[0], 1, size[2]), -1, 1);
    against_copy(state, out.count() * 8.0, [&] { out.shrink(in, 1, 1); });
}
BENCHMARK(shrink)->Apply(shapes);

void shrink_bp(benchmark::State& state) {
    const Dim size(state.range(0), state.range(1), state.range(2));
    const Tensor<float> in = random_tensor(Dim(size[0], 1, size[2]), -1, 1);
    Tensor<float> out = random_tensor(size, -1, 1);
    against_copy(state, in.count() * 8.0, [&] { out.shrink_bp(in, 1, 1); });
}
BENCHMARK(shrink_bp)->Apply(shapes);

/// Four parts of (num, channels, size, size), which start as `pitch` columns of a wider image.
struct Parts {
    explicit Parts(const benchmark::State& state) {
        const int num = static_cast<int>(state.range(0)),
                  channels = static_cast<int>(state.range(1));
        const int size = static_cast<int>(state.range(2)),
                  wide = size + static_cast<int>(state.range(3));
        whole = random_tensor(Dim(num, 4 * channels, size, size), -1, 1);
        for (unsigned i = 0; i < 4; ++i) {
            parts[i] = random_tensor(Dim(num, channels, size, wide), -1, 1, i);
            if (wide != size) {
                parts[i] = parts[i].get_block(Dim(0, 0, 0, 0), Dim(num, channels, size, size));
            }
            pointers.push_back(&parts[i]);
        }
    }
    Tensor<float> whole, parts[4];
    std::vector<Tensor<float>*> pointers;
    Tensor<unsigned long> ptr;
};

void images(benchmark::internal::Benchmark* bench) {
    bench->ArgNames({"num", "channels", "size", "pitch"});
    bench->Args({8, 4, 16, 0})->Args({32, 16, 28, 0})->Args({32, 64, 56, 0});
    bench->Args({32, 16, 28, 4})->Args({32, 64, 56, 8});
}

// Each element of the whole is read twice, as it was and as it stands in its part, and written.
void channel_append(benchmark::State& state) {
    Parts p(state);
    against_copy(state, p.whole.count() * 12.0,
                 [&] { p.whole.channel_append(p.pointers, p.ptr, 1, 0); });
}
BENCHMARK(channel_append)->Apply(images);

void channel_append_bp(benchmark::State& state) {
    Parts p(state);
    const std::vector<bool> filters(4, true);
    against_copy(state, p.whole.count() * 12.0,
                 [&] { p.whole.channel_append_bp(p.pointers, filters, p.ptr, 1, 0); });
}
BENCHMARK(channel_append_bp)->Apply(images);

}  // namespace
}  // namespace bench
}  // namespace vorn
